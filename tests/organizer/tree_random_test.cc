// Random sequences of changes, clicks, keys and scrolls, checked after each
// step against a plain model of the tree: the display order as a flat list,
// the lines counted, the cache's places, the selection, and a simulated
// screen that only changes where the widget scrolled or invalidated.
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
  template <typename T>
  T Any(const std::vector<T>& v) { return v[size_t(Pick(int(v.size())))]; }

  // Every node below r, or (shown) the lines in display order.
  void Walk(Ref* r, bool shown, std::vector<Ref*>& out) {
    for (Ref* k : r->kids)
      if (!shown || !k->hidden) {
        out.push_back(k);
        if (!shown || k->open) Walk(k, shown, out);
      }
  }
  std::vector<Ref*> Lines() {
    std::vector<Ref*> out;
    Walk(&root, true, out);
    return out;
  }
  static Ref* RefOf(TreeNode* n) { return static_cast<Ref*>(D(n)->ref); }
  TreeNode* NodeOf(Ref* r) { return r == &root ? TREE_GetRoot(w) : r->node; }

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
    auto& sib = r->parent->kids;
    bool last = std::none_of(std::find(sib.begin(), sib.end(), r) + 1, sib.end(), [](Ref* x) { return !x->hidden; });
    return r->name + (r->sel ? "*" : "") + (r->leaf ? "" : r->open ? "-" : "+") + (last ? "$" : "");
  }

  void ClearAll() {
    for (auto& r : all) r->sel = false;
  }
  void CopySelection() {
    for (auto& r : all) r->sel = r->node && TREE_IsSelected(r->node);
  }
  void Forget(Ref* r) {
    r->sel = false;
    r->node = nullptr;
    for (Ref* k : r->kids) Forget(k);
  }

  void Step(std::string* what) {
    std::vector<Ref*> live, flat = Lines(), parents{&root}, sorted{&root};
    Walk(&root, false, live);
    for (Ref* r : live) {
      if (!r->leaf) parents.push_back(r);
      if (!r->kids.empty()) sorted.push_back(r);
    }
    TreeInfo* info = TREE_GetInfo(w);
    TreeNode* anchor = info->cache.current_selection;
    auto a = anchor ? std::find(flat.begin(), flat.end(), RefOf(anchor)) : flat.end();
    int op = Pick(10);
    if ((op == 2 || op == 3 || op == 4) && live.empty()) return;
    if ((op == 2 && Pick(2)) || (op == 4 && Pick(3))) return;
    bool lines_change = op < 5 || op == 9;
    if (op < 2) {  // a new node at the end of some parent's kids, or before a sibling
      Ref* p = Any(parents);
      Ref* r = NewRef(p);
      size_t at = op == 1 && !p->kids.empty() ? size_t(Pick(int(p->kids.size()))) : p->kids.size();
      *what = "insert " + r->name + " in " + p->name + " at " + std::to_string(at);
      if (at < p->kids.size())
        TREE_InsertNode(NodeOf(p), r->node, p->kids[at]->node);
      else
        TREE_AppendNode(NodeOf(p), r->node);
      p->kids.insert(p->kids.begin() + long(at), r);
    } else if (op == 2) {
      Ref* r = Any(live);
      *what = "remove " + r->name;
      auto& sib = r->parent->kids;
      sib.erase(std::find(sib.begin(), sib.end(), r));
      TREE_RemoveNode(r->node);
      Forget(r);
    } else if (op == 3 || op == 4) {  // open or close, hide or show
      Ref* r = Any(live);
      bool& flag = op == 3 ? r->open : r->hidden;
      *what = std::string(op == 3 ? "open/close " : "hide/show ") + r->name;
      op == 3 ? TREE_OpenSubtree(r->node, !flag, 0) : TREE_HideNode(r->node, !flag);
      flag = !flag;
      if (op == 4) ClearAll();
    } else if (op == 5 || op == 6) {  // a click on a line of the screen
      int shown = std::min(info->cache.displayed_count, info->cache.visible_lines);
      if (shown == 0) return;
      Ref* r = RefOf(info->cache.displayed[size_t(Pick(shown))]);
      int how = Pick(3);
      *what = std::string(how == 0 ? "click " : how == 1 ? "ctrl-click " : "shift-click ") + r->name;
      Click(w, r->node, how == 2, how == 1);
      if (how == 0) ClearAll();
      if (how < 2) {
        r->sel = how == 0 || !r->sel;
        clean = true;
      } else if (clean && a != flat.end()) {
        auto b = std::find(flat.begin(), flat.end(), r);
        ClearAll();
        for (auto it = std::min(a, b); it <= std::max(a, b); ++it) (*it)->sel = true;
      } else {
        CopySelection();  // lines changed under the range: its ends are stale by design
      }
    } else if (op == 7) {
      int n = Pick(31) - 15, before = TREE_TopLine(w);
      *what = "scroll " + std::to_string(n);
      TREE_ScrollLines(w, n);
      if (before >= 0) {
        EXPECT_EQ(TREE_TopLine(w), std::clamp(before + n, 0, std::max(int(flat.size()) - kLines, 0))) << *what;
      }
    } else if (op == 8) {
      *what = "key down";
      Key(w, K_DOWN);
      bool moves = a != flat.end() && a + 1 != flat.end();
      if (moves) ClearAll(), (*(a + 1))->sel = true;
      if (!moves) CopySelection();
      clean = clean || moves;
    } else {
      Ref* p = Any(sorted);
      *what = "sort " + p->name;
      TREE_ResortTree(NodeOf(p), CompareKeys);
      std::stable_sort(p->kids.begin(), p->kids.end(), [](Ref* x, Ref* y) { return x->key < y->key; });
    }
    if (lines_change) clean = false;
  }

  // Replays what the widget asked of the screen onto the simulated one: a
  // scroll moves lines, an update paints what was invalidated with what the
  // widget drew then.
  void ApplyDamage(const std::vector<std::string>& want, const std::string& what) {
    std::vector<bool> pending(kLines, false);
    for (const XvtDamage& d : xvt_test_damage(w)) {
      int a = std::max(d.rct.top / 16, 0), b = std::min((d.rct.bottom + 15) / 16, kLines);
      if (d.op == "invalidate") {
        for (int k = a; k < b; ++k) pending[size_t(k)] = true;
      } else if (d.op == "update") {
        for (size_t k = 0; k < kLines; ++k) {
          if (!pending[k]) continue;
          screen[k] = "";
          for (const XvtDrawOp& t : d.texts)
            if (t.rct.top == int(k) * 16) screen[k] = t.text;
          pending[k] = false;
        }
      } else {
        for (int k = a; k < b; ++k) EXPECT_FALSE(pending[size_t(k)]) << what << ": scrolled an unpainted line";
        std::vector<std::string> old = screen;
        for (int k = a, from = a - d.dv / 16; k < b; ++k, ++from)
          screen[size_t(k)] = from >= a && from < b ? old[size_t(from)] : "?garbage";
      }
    }
    for (size_t k = 0; k < kLines; ++k)
      if (pending[k]) screen[k] = want[k];
    xvt_test_clear_damage(w);
  }

  void Check(const std::string& what) {
    std::vector<Ref*> flat = Lines();
    const TreeCache& c = TREE_GetInfo(w)->cache;
    ASSERT_EQ(TREE_GetInfo(w)->entries_visible, int(flat.size())) << what;
    // Display order.
    std::vector<Ref*> walked;
    TreeNode* n = TREE_GetRoot(w)->first_kid;
    if (n && TREE_IsHidden(n)) n = TREE_NextNode(n);
    for (; n && walked.size() <= flat.size(); n = TREE_NextNode(n)) walked.push_back(RefOf(n));
    ASSERT_EQ(walked, flat) << what;
    // The cache holds consecutive lines from offset on.
    for (int i = 0; i < c.entries; ++i) {
      TreeNode* e = c.nodes[size_t(i)];
      ASSERT_NE(e, nullptr) << what << ": hole at " << i;
      ASSERT_EQ(e->cache_index, i) << what;
      ASSERT_EQ(flat[size_t(c.offset + i)], RefOf(e)) << what << ": cache entry " << i;
    }
    // The screen.
    int top = TREE_TopLine(w);
    std::vector<std::string> want(kLines, "");
    if (flat.empty()) {
      EXPECT_EQ(c.displayed_count, 0) << what;
    } else {
      ASSERT_GE(top, 0) << what;
      ASSERT_LE(top, std::max(int(flat.size()) - kLines, 0)) << what << ": the last screen is full";
      for (int k = 0; k < kLines && top + k < int(flat.size()); ++k) {
        Ref* r = flat[size_t(top + k)];
        want[size_t(k)] = Look(r);
        ASSERT_EQ(c.displayed[size_t(k)], r->node) << what << ": line " << k;
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
    EXPECT_EQ(int(TREE_GetSelections(TREE_GetRoot(w)).size()), count) << what;
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
      for (int i = 0; i < 1500 && !HasFailure(); ++i) {
        std::string what = "nothing";
        Step(&what);
        Check(std::to_string(i) + " " + what);
      }
    });
    if (HasFailure()) break;
  }
}

}  // namespace
}  // namespace treetest
