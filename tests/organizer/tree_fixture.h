// A tree widget on the headless toolkit, with plain test nodes: each node's
// data names it, and its action writes what it heard into a log.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/organizer/tree.h"
#include "xvt/xvt_test.h"

namespace treetest {

struct TestData {
  int32_t type;
  std::string name;
  int key = 0;
  int width = 0;  // highlight width; 0: 8 px a character and 4 more
  void* ref = nullptr;
};

inline std::vector<std::string> g_events;  // "click a", "dbl a", "expanding a", "destroy a", "popup a"
inline int g_expand_answer = kNodeActionOk;
inline int g_selection_calls = 0;
inline int g_compares = 0;

inline TestData* D(const TreeNode* n) { return static_cast<TestData*>(TREE_GetData(n)); }
inline std::string Name(const TreeNode* n) { return n ? D(n)->name : "(null)"; }

inline int TestAction(WINDOW, TreeNode* n, int event) {
  static const char* kNames[] = {"", "click", "dbl", "expanding", "destroy", "popup"};
  g_events.push_back(std::string(kNames[event]) + " " + Name(n));
  if (event == kNodeEventDestroy) {
    delete D(n);
    TREE_SetData(n, nullptr);
  }
  return event == kNodeEventExpanding ? g_expand_answer : kNodeActionOk;
}

// The text tells what the line looks like: selected (*), open (-) or closed
// (+) unless a leaf, and the last of its siblings ($).
inline std::string Look(TreeNode* n) {
  return Name(n) + (TREE_IsSelected(n) ? "*" : "") + ((n->flags & kNodeLeaf) ? "" : TREE_IsOpen(n) ? "-" : "+") +
         (TREE_NextSibling(n) ? "" : "$");
}

inline void TestDraw(WINDOW win, TreeNode* n, RCT* r) {
  std::string text = Look(n);
  xvt_dwin_draw_text(win, r->left + 2, r->top + 12, text.c_str(), -1);
}

inline int TestWidth(WINDOW, TreeNode* n, RCT*) {
  TestData* d = D(n);
  return d->width ? d->width : 8 * static_cast<int>(d->name.size()) + 4;
}

inline bool TestText(TreeNode* n, char* buf, size_t size) {
  std::snprintf(buf, size, "%s", Name(n).c_str());
  return true;
}

inline int CompareKeys(void* a, void* b) {
  ++g_compares;
  int x = static_cast<TestData*>(a)->key, y = static_cast<TestData*>(b)->key;
  return x < y ? -1 : x > y ? 1 : 0;
}

inline void CountSelection(WINDOW, TreeNode*) { ++g_selection_calls; }

inline long TaskEh(WINDOW, EVENT*) { return 0; }

class TreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    xvt_test_reset();
    g_events.clear();
    g_expand_answer = kNodeActionOk;
    g_selection_calls = 0;
    g_compares = 0;
    TREE_ResetInsertHint();
  }
  void TearDown() override { xvt_test_reset(); }

  // Runs body with the toolkit up; windows go when it returns.
  static void Run(std::function<void()> body) {
    XVT_CONFIG config{0, 0, "t", "T", "task", 42};
    xvt_test_set_run_hook(std::move(body));
    xvt_app_create(0, nullptr, 0, TaskEh, &config);
  }

  // A widget of `lines` full lines (16 px each) and `width` pixels.
  static WINDOW MakeTree(int lines = 10, int style = 2, int width = 300, int cache = 20, int base_offset = 0) {
    RCT r{0, 0, width, lines * 16};
    WINDOW w = TREE_CreateTreeWidget(TASK_WIN, &r, cache, 0, style, 0, 16, base_offset, CountSelection, nullptr,
                                     nullptr, nullptr);
    TREE_SetTextCallback(w, TestText);
    return w;
  }

  static TreeNode* Node(const std::string& name, bool leaf = true, int key = 0, int type = kNodeDataTypeMessage,
                        int indent = 10) {
    auto* d = new TestData{type, name, key};
    return TREE_NewNode(leaf, d, indent, TestDraw, TestAction, TestWidth);
  }

  static TreeNode* Add(TreeNode* parent, const std::string& name, bool leaf = true, int key = 0) {
    TreeNode* n = Node(name, leaf, key);
    TREE_AppendNode(parent, n);
    return n;
  }

  // Top-level leaves "n0" ... of the widget's root.
  static std::vector<TreeNode*> Flat(WINDOW w, int count) {
    std::vector<TreeNode*> out;
    TREE_SuspendUpdates(w);
    for (int i = 0; i < count; ++i) out.push_back(Add(TREE_GetRoot(w), "n" + std::to_string(i), true, i));
    TREE_ResumeUpdates(w);
    return out;
  }

  static std::vector<std::string> Shown(WINDOW w) {
    std::vector<std::string> out;
    TreeInfo* info = TREE_GetInfo(w);
    for (int i = 0; i < std::min(info->cache.displayed_count, info->cache.visible_lines); ++i)
      out.push_back(Name(info->cache.displayed[static_cast<size_t>(i)]));
    return out;
  }

  static std::string Selected(WINDOW w) {
    std::string out;
    for (TreeNode* n : TREE_GetSelections(TREE_GetRoot(w))) out += (out.empty() ? "" : " ") + Name(n);
    return out;
  }

  static std::string Anchor(WINDOW w) {
    TreeNode* a = TREE_GetInfo(w)->cache.current_selection;
    return a ? Name(a) : "-";
  }

  // A click on the node's text (or, with on_box, on its box).
  static void Click(WINDOW w, TreeNode* n, bool shift = false, bool ctrl = false, int button = 0,
                    bool on_box = false) {
    TreeInfo* info = TREE_GetInfo(w);
    ASSERT_GE(n->display_line, 0) << Name(n) << " is not on the screen";
    int x = on_box ? n->abs_offset + 10 : n->abs_offset + info->margin + 4;
    EVENT ev{};
    ev.type = E_MOUSE_DOWN;
    ev.v.mouse.where = PNT{x, n->display_line * 16 + 5};
    ev.v.mouse.shift = shift;
    ev.v.mouse.control = ctrl;
    ev.v.mouse.button = button;
    xvt_test_user_event(w, &ev);
    ev.type = E_MOUSE_UP;
    xvt_test_user_event(w, &ev);
  }

  static void DoubleClick(WINDOW w, TreeNode* n) {
    Click(w, n);
    EVENT ev{};
    ev.type = E_MOUSE_DBL;
    ev.v.mouse.where = PNT{n->abs_offset + TREE_GetInfo(w)->margin + 4, n->display_line * 16 + 5};
    xvt_test_user_event(w, &ev);
    ev.type = E_MOUSE_UP;
    xvt_test_user_event(w, &ev);
  }

  static void Key(WINDOW w, int ch, bool shift = false, bool ctrl = false) {
    EVENT ev{};
    ev.type = E_CHAR;
    ev.v.chr.ch = ch;
    ev.v.chr.shift = shift;
    ev.v.chr.control = ctrl;
    xvt_test_user_event(w, &ev);
  }

  static void Scroll(WINDOW w, SCROLL_CONTROL what, int pos = 0) {
    EVENT ev{};
    ev.type = E_VSCROLL;
    ev.v.scroll.what = what;
    ev.v.scroll.pos = pos;
    xvt_test_user_event(w, &ev);
  }
};

}  // namespace treetest
