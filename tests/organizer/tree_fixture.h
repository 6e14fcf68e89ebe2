// A tree widget on the headless toolkit, with plain test nodes: each node's
// data names it, and its action writes what it heard into a log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
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
inline std::string Name(const TreeNode* n) { return n ? D(n)->name : "-"; }

inline int TestAction(WINDOW, TreeNode* n, int event) {
  static const char* kNames[] = {"", "click", "dbl", "expanding", "destroy", "popup"};
  g_events.push_back(std::string(kNames[event]) + " " + Name(n));
  if (event == kNodeEventDestroy) delete D(n), TREE_SetData(n, nullptr);
  return event == kNodeEventExpanding ? g_expand_answer : kNodeActionOk;
}

// The text tells what the line looks like: selected (*), open (-) or closed
// (+) unless a leaf, and the last of its siblings ($).
inline void TestDraw(WINDOW win, TreeNode* n, RCT* r) {
  std::string text = Name(n) + (TREE_IsSelected(n) ? "*" : "") +
                     ((n->flags & kNodeLeaf) ? "" : TREE_IsOpen(n) ? "-" : "+") + (TREE_NextSibling(n) ? "" : "$");
  xvt_dwin_draw_text(win, r->left + 2, r->top + 12, text.c_str(), -1);
}

inline int TestWidth(WINDOW, TreeNode* n, RCT*) {
  return D(n)->width ? D(n)->width : 8 * static_cast<int>(D(n)->name.size()) + 4;
}

inline int CompareKeys(void* a, void* b) {
  ++g_compares;
  int x = static_cast<TestData*>(a)->key, y = static_cast<TestData*>(b)->key;
  return (x > y) - (x < y);
}

inline long TaskEh(WINDOW, EVENT*) { return 0; }

template <typename T, typename F>
std::string Join(const T& items, F name) {  // with spaces
  std::string out;
  for (const auto& x : items) out += (out.empty() ? "" : " ") + name(x);
  return out;
}

// Events as the toolkit hands them to the widget.
inline void Send(WINDOW w, EVENT_TYPE type, std::function<void(EVENT&)> fill) {
  EVENT ev{};
  ev.type = type;
  fill(ev);
  xvt_test_user_event(w, &ev);
}
inline void Mouse(WINDOW w, EVENT_TYPE type, PNT at, bool shift = false, bool ctrl = false, int button = 0) {
  Send(w, type, [&](EVENT& e) { e.v.mouse = {at, shift, ctrl, button}; });
}
// A press and release at a point; with dbl, a double click's second press.
inline void Mouse(WINDOW w, PNT at, bool shift = false, bool ctrl = false, int button = 0, bool dbl = false) {
  Mouse(w, dbl ? E_MOUSE_DBL : E_MOUSE_DOWN, at, shift, ctrl, button);
  Mouse(w, E_MOUSE_UP, at, shift, ctrl, button);
}
inline void Key(WINDOW w, int ch, bool shift = false, bool ctrl = false) {
  Send(w, E_CHAR, [&](EVENT& e) { e.v.chr = {ch, shift, ctrl, false}; });
}
inline void Bar(WINDOW w, SCROLL_CONTROL what, int pos = 0, bool horizontal = false) {
  Send(w, horizontal ? E_HSCROLL : E_VSCROLL, [&](EVENT& e) { e.v.scroll = {what, pos}; });
}

class TreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    xvt_test_reset();
    g_events.clear();
    g_expand_answer = kNodeActionOk;
    g_selection_calls = g_compares = 0;
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
  static WINDOW MakeTree(int lines = 10, int style = 2, int width = 300, int cache = 20, bool horizontal = false) {
    RCT r = horizontal ? RCT{0, 0, lines * 16, width} : RCT{0, 0, width, lines * 16};
    WINDOW w = TREE_CreateTreeWidget(TASK_WIN, &r, cache, horizontal, style, 0, 16, 0,
                                     [](WINDOW, TreeNode*) { ++g_selection_calls; }, nullptr, nullptr, nullptr);
    TREE_SetTextCallback(w, [](TreeNode* n, char* buf, size_t size) {
      std::snprintf(buf, size, "%s", Name(n).c_str());
      return true;
    });
    return w;
  }

  static TreeNode* Node(const std::string& name, bool leaf = true, int key = 0, int type = kNodeDataTypeMessage,
                        int indent = 10) {
    return TREE_NewNode(leaf, new TestData{type, name, key}, indent, TestDraw, TestAction, TestWidth);
  }

  static TreeNode* Add(TreeNode* parent, const std::string& name, bool leaf = true, int key = 0) {
    TreeNode* n = Node(name, leaf, key);
    TREE_AppendNode(parent, n);
    return n;
  }

  static std::vector<TreeNode*> Flat(WINDOW w, int count) {  // top-level leaves "n0" ...
    std::vector<TreeNode*> out;
    TREE_SuspendUpdates(w);
    for (int i = 0; i < count; ++i) out.push_back(Add(TREE_GetRoot(w), "n" + std::to_string(i), true, i));
    TREE_ResumeUpdates(w);
    return out;
  }

  static std::vector<std::string> Shown(WINDOW w) {
    const TreeCache& c = TREE_GetInfo(w)->cache;
    std::vector<std::string> out;
    for (int i = 0; i < std::min(c.displayed_count, c.visible_lines); ++i) out.push_back(Name(c.displayed[size_t(i)]));
    return out;
  }

  static std::string Selected(WINDOW w) { return Join(TREE_GetSelections(TREE_GetRoot(w)), Name); }
  static std::string Anchor(WINDOW w) { return Name(TREE_GetInfo(w)->cache.current_selection); }

  // A click on the node's text (or, with on_box, on its box).
  static void Click(WINDOW w, TreeNode* n, bool shift = false, bool ctrl = false, int button = 0, bool on_box = false) {
    ASSERT_GE(n->display_line, 0) << Name(n) << " is not on the screen";
    Mouse(w, {on_box ? n->abs_offset + 10 : n->abs_offset + TREE_GetInfo(w)->margin + 4, n->display_line * 16 + 5},
          shift, ctrl, button);
  }
};

}  // namespace treetest
