// Random sequences of changes, clicks, keys and scrolls, checked after each
// step against a plain model of the tree: the display order as a flat list,
// the lines counted, the cache's places, the selection, and a simulated
// screen that only changes where the widget scrolled or invalidated.
#include <algorithm>
#include <map>
#include <random>

#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

struct Ref {
  std::string name;
  int key = 0;
  bool leaf = false, open = false, hidden = false, sel = false;
  Ref* parent = nullptr;
  std::vector<Ref*> kids;
  TreeNode* node = nullptr;
};

constexpr int kLines = 8;

class Random : public TreeTest {
 protected:
  std::mt19937 rng;
  std::vector<std::unique_ptr<Ref>> all;
  Ref root;
  WINDOW w = NULL_WIN;
  std::vector<std::string> screen;  // what the simulated screen shows, line by line
  bool clean = false;               // no change of lines since the anchor was set

  int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }

  void Flatten(Ref* r, std::vector<Ref*>& out) {
    for (Ref* k : r->kids)
      if (!k->hidden) {
        out.push_back(k);
        if (k->open) Flatten(k, out);
      }
  }
  std::vector<Ref*> Flat() {
    std::vector<Ref*> out;
    Flatten(&root, out);
    return out;
  }
  std::vector<Ref*> Live() {
    std::vector<Ref*> out;
    std::function<void(Ref*)> walk = [&](Ref* r) {
      for (Ref* k : r->kids) {
        out.push_back(k);
        walk(k);
      }
    };
    walk(&root);
    return out;
  }
  static Ref* RefOf(TreeNode* n) { return static_cast<Ref*>(D(n)->ref); }

  Ref* NewRef(Ref* parent) {
    auto r = std::make_unique<Ref>();
    r->name = "x" + std::to_string(all.size());
    r->key = Pick(5);
    r->leaf = Pick(3) == 0;
    r->parent = parent;
    r->node = Node(r->name, r->leaf, r->key);
    D(r->node)->ref = r.get();
    all.push_back(std::move(r));
    return all.back().get();
  }

  std::string Look(Ref* r) {
    Ref* next = nullptr;
    auto& sib = r->parent->kids;
    for (auto it = std::find(sib.begin(), sib.end(), r) + 1; it != sib.end(); ++it)
      if (!(*it)->hidden) {
        next = *it;
        break;
      }
    return r->name + (r->sel ? "*" : "") + (r->leaf ? "" : r->open ? "-" : "+") + (next ? "" : "$");
  }

  void Deselect(Ref* r) {
    r->sel = false;
    for (Ref* k : r->kids) Deselect(k);
  }
  void ClearAll() {
    for (auto& r : all) r->sel = false;
  }
  void CopySelection() {
    for (auto& r : all) r->sel = r->node && TREE_IsSelected(r->node);
  }

  void Remove(Ref* r) {
    Deselect(r);
    auto& sib = r->parent->kids;
    sib.erase(std::find(sib.begin(), sib.end(), r));
    std::function<void(Ref*)> forget = [&](Ref* x) {
      x->node = nullptr;
      for (Ref* k : x->kids) forget(k);
    };
    TREE_RemoveNode(r->node);
    forget(r);
  }

  void Step(std::string* what) {
    std::vector<Ref*> live = Live(), flat = Flat();
    int op = Pick(10);
    TreeInfo* info = TREE_GetInfo(w);
    switch (op) {
      case 0:
      case 1: {  // a new node at the end of some parent's kids, or before a sibling
        std::vector<Ref*> parents{&root};
        for (Ref* r : live)
          if (!r->leaf) parents.push_back(r);
        Ref* p = parents[static_cast<size_t>(Pick(static_cast<int>(parents.size())))];
        Ref* r = NewRef(p);
        if (op == 1 && !p->kids.empty()) {
          size_t at = static_cast<size_t>(Pick(static_cast<int>(p->kids.size())));
          *what = "insert " + r->name + " before " + p->kids[at]->name;
          TREE_InsertNode(p == &root ? TREE_GetRoot(w) : p->node, r->node, p->kids[at]->node);
          p->kids.insert(p->kids.begin() + static_cast<long>(at), r);
        } else {
          *what = "append " + r->name + " to " + p->name;
          TREE_AppendNode(p == &root ? TREE_GetRoot(w) : p->node, r->node);
          p->kids.push_back(r);
        }
        clean = false;
        break;
      }
      case 2: {
        if (live.empty() || Pick(2)) return;
        Ref* r = live[static_cast<size_t>(Pick(static_cast<int>(live.size())))];
        *what = "remove " + r->name;
        Remove(r);
        clean = false;
        break;
      }
      case 3: {
        if (live.empty()) return;
        Ref* r = live[static_cast<size_t>(Pick(static_cast<int>(live.size())))];
        *what = std::string(r->open ? "close " : "open ") + r->name;
        TREE_OpenSubtree(r->node, !r->open, 0);
        r->open = !r->open;
        clean = false;
        break;
      }
      case 4: {
        if (live.empty() || Pick(3)) return;
        Ref* r = live[static_cast<size_t>(Pick(static_cast<int>(live.size())))];
        *what = std::string(r->hidden ? "show " : "hide ") + r->name;
        TREE_HideNode(r->node, !r->hidden);
        r->hidden = !r->hidden;
        ClearAll();
        clean = false;
        break;
      }
      case 5:
      case 6: {  // a click on a line of the screen
        int shown = std::min(info->cache.displayed_count, info->cache.visible_lines);
        if (shown == 0) return;
        TreeNode* n = info->cache.displayed[static_cast<size_t>(Pick(shown))];
        Ref* r = RefOf(n);
        int how = Pick(3);
        *what = std::string(how == 0 ? "click " : how == 1 ? "ctrl-click " : "shift-click ") + r->name;
        TreeNode* anchor = info->cache.current_selection;
        Click(w, n, how == 2, how == 1);
        if (how == 0) {
          ClearAll();
          r->sel = true;
          clean = true;
        } else if (how == 1) {
          r->sel = !r->sel;
          clean = true;
        } else {
          auto a = anchor ? std::find(flat.begin(), flat.end(), RefOf(anchor)) : flat.end();
          auto b = std::find(flat.begin(), flat.end(), r);
          if (clean && a != flat.end()) {
            ClearAll();
            for (auto it = std::min(a, b); it <= std::max(a, b); ++it) (*it)->sel = true;
          } else {
            CopySelection();  // lines changed under the range: its ends are stale by design
          }
        }
        break;
      }
      case 7: {
        int n = Pick(31) - 15;
        int before = TREE_TopLine(w);
        *what = "scroll " + std::to_string(n);
        TREE_ScrollLines(w, n);
        if (before >= 0) {
          int last = std::max(static_cast<int>(flat.size()) - kLines, 0);
          EXPECT_EQ(TREE_TopLine(w), std::clamp(before + n, 0, last)) << *what;
        }
        break;
      }
      case 8: {
        TreeNode* anchor = info->cache.current_selection;
        *what = "key down";
        Key(w, K_DOWN);
        auto a = anchor ? std::find(flat.begin(), flat.end(), RefOf(anchor)) : flat.end();
        if (anchor && a != flat.end() && a + 1 != flat.end()) {
          ClearAll();
          (*(a + 1))->sel = true;
          clean = true;
        } else {
          CopySelection();
        }
        break;
      }
      case 9: {
        std::vector<Ref*> parents{&root};
        for (Ref* r : live)
          if (!r->kids.empty()) parents.push_back(r);
        Ref* p = parents[static_cast<size_t>(Pick(static_cast<int>(parents.size())))];
        *what = "sort " + p->name;
        TREE_ResortTree(p == &root ? TREE_GetRoot(w) : p->node, CompareKeys);
        std::stable_sort(p->kids.begin(), p->kids.end(), [](Ref* a, Ref* b) { return a->key < b->key; });
        clean = false;
        break;
      }
    }
  }

  // Replays what the widget asked of the screen onto the simulated one: a
  // scroll moves lines, an update paints what was invalidated with what the
  // widget drew then.
  void ApplyDamage(const std::vector<std::string>& want, const std::string& what) {
    std::vector<bool> pending(kLines, false);
    for (const XvtDamage& d : xvt_test_damage(w)) {
      if (getenv("TREE_TEST_VERBOSE"))
        fprintf(stderr, "  %s %d,%d,%d,%d by %d\n", d.op.c_str(), d.rct.left, d.rct.top, d.rct.right, d.rct.bottom, d.dv);
      int a = std::max(d.rct.top / 16, 0), b = std::min((d.rct.bottom + 15) / 16, kLines);
      if (d.op == "invalidate") {
        for (int k = a; k < b; ++k) pending[static_cast<size_t>(k)] = true;
      } else if (d.op == "update") {
        for (int k = 0; k < kLines; ++k) {
          if (!pending[static_cast<size_t>(k)]) continue;
          std::string text;
          for (const XvtDrawOp& t : d.texts)
            if (t.rct.top == k * 16) text = t.text;
          screen[static_cast<size_t>(k)] = text;
          pending[static_cast<size_t>(k)] = false;
        }
      } else {
        for (int k = a; k < b; ++k) EXPECT_FALSE(pending[static_cast<size_t>(k)]) << what << ": scrolled an unpainted line";
        int m = d.dv / 16;
        std::vector<std::string> old = screen;
        for (int k = a; k < b; ++k) {
          int from = k - m;
          screen[static_cast<size_t>(k)] = from >= a && from < b ? old[static_cast<size_t>(from)] : "?garbage";
        }
      }
    }
    for (int k = 0; k < kLines; ++k)
      if (pending[static_cast<size_t>(k)]) screen[static_cast<size_t>(k)] = want[static_cast<size_t>(k)];
    xvt_test_clear_damage(w);
  }

  void Check(const std::string& what) {
    std::vector<Ref*> flat = Flat();
    TreeInfo* info = TREE_GetInfo(w);
    const TreeCache& c = info->cache;
    ASSERT_EQ(info->entries_visible, static_cast<int>(flat.size())) << what;
    // Display order.
    std::vector<Ref*> walked;
    TreeNode* n = TREE_GetRoot(w)->first_kid;
    if (n && TREE_IsHidden(n)) n = TREE_NextNode(n);
    for (; n && walked.size() <= flat.size(); n = TREE_NextNode(n)) walked.push_back(RefOf(n));
    ASSERT_EQ(walked, flat) << what;
    // The cache holds consecutive lines from offset on.
    for (int i = 0; i < c.entries; ++i) {
      TreeNode* e = c.nodes[static_cast<size_t>(i)];
      ASSERT_NE(e, nullptr) << what << ": hole at " << i;
      ASSERT_EQ(e->cache_index, i) << what;
      ASSERT_EQ(flat[static_cast<size_t>(c.offset + i)], RefOf(e)) << what << ": cache entry " << i;
    }
    // The screen.
    int top = TREE_TopLine(w);
    std::vector<std::string> want(kLines, "");
    if (flat.empty()) {
      EXPECT_EQ(c.displayed_count, 0) << what;
    } else {
      ASSERT_GE(top, 0) << what;
      ASSERT_LE(top, std::max(static_cast<int>(flat.size()) - kLines, 0)) << what << ": the last screen is full";
      for (int k = 0; k < kLines && top + k < static_cast<int>(flat.size()); ++k) {
        Ref* r = flat[static_cast<size_t>(top + k)];
        want[static_cast<size_t>(k)] = Look(r);
        ASSERT_EQ(c.displayed[static_cast<size_t>(k)], r->node) << what << ": line " << k;
        ASSERT_EQ(r->node->display_line, k) << what;
      }
    }
    ApplyDamage(want, what);
    EXPECT_EQ(screen, want) << what;
    screen = want;  // one fault is reported once
    // The selection.
    int count = 0;
    for (auto& r : all)
      if (r->node) {
        EXPECT_EQ(TREE_IsSelected(r->node), r->sel) << what << ": " << r->name;
        count += r->sel;
      }
    EXPECT_EQ(TREE_GetSelectionCount(TREE_GetRoot(w)), count) << what;
    EXPECT_EQ(static_cast<int>(TREE_GetSelections(TREE_GetRoot(w)).size()), count) << what;
  }
};

TEST_F(Random, OperationsAgreeWithAFlatModel) {
  for (unsigned seed : {1u, 2u, 3u, 4u, 5u, 6u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    rng.seed(seed);
    all.clear();
    root = Ref{};
    root.name = "root";
    Run([&] {
      w = MakeTree(kLines, 2, 200);
      screen.assign(kLines, "");
      xvt_test_clear_damage(w);
      for (int i = 0; i < 1500 && !HasFatalFailure(); ++i) {
        std::string what = "nothing";
        Step(&what);
        if (getenv("TREE_TEST_VERBOSE")) fprintf(stderr, "%d %s top %d\n", i, what.c_str(), TREE_TopLine(w));
        Check(std::to_string(i) + " " + what);
        if (HasFailure()) break;
      }
    });
    if (HasFailure()) break;
  }
}

}  // namespace
}  // namespace treetest
