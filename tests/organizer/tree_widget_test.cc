// The tree widget: its model (counting lines, opening, hiding, insertion
// in order with the shared hint, stable re-sorting, moving kids between
// widgets, freeing); selection (clicks, control and shift ranges with
// their anchor, the keyboard, the notifications listeners get); and its
// display (the cache's size, what a change invalidates and scrolls, with
// the exact rectangles in vertical and horizontal widgets, painting,
// scrolling and the scroll bars).
#include "src/base/model_events.h"
#include "src/organizer/tree_display.h"
#include "src/organizer/tree_internal.h"
#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

class Model : public TreeTest {};

std::string Kids(TreeNode* parent) {
  std::string out;
  for (TreeNode* n = parent->first_kid; n; n = n->next) out += (out.empty() ? "" : " ") + Name(n);
  return out;
}

TEST_F(Model, OpenCloseAndHideCountLines) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* s = Add(root, "s", false);
    TreeNode* f = Add(s, "f", false);
    for (int i = 0; i < 3; ++i) Add(f, "m" + std::to_string(i));
    TreeNode* g = Add(s, "g", false);
    TREE_OpenSubtree(f, 1, 0);
    // Plain opening, closing, hiding and removing meet the random test; here
    // what it does not do.
    const std::pair<std::function<void()>, std::vector<std::string>> steps[] = {
        {[&] { g_expand_answer = kNodeActionRefused; TREE_OpenSubtree(s, 1, 0); }, {"s"}},  // refused
        {[&] { g_expand_answer = kNodeActionOk; TREE_OpenSubtree(s, 1, 1); }, {"s"}},  // fetched, not opened
        {[&] { TREE_OpenSubtree(s, 1, 0); }, {"s", "f", "m0", "m1", "m2", "g"}},
        {[&] { TREE_RemoveNode(f->first_kid->next); }, {"s", "f", "m0", "m2", "g"}},
        {[&] { TREE_RemoveKidNodes(f); }, {"s", "f", "g"}},
    };
    for (auto& [act, shown] : steps) {
      act();
      EXPECT_EQ(TREE_EntriesVisible(w), int(shown.size()));
      EXPECT_EQ(TREE_VisibleCount(root) - 1, int(shown.size()));
      EXPECT_EQ(Shown(w), shown);
    }
    EXPECT_EQ(g_events, (std::vector<std::string>{"expanding f", "expanding s", "expanding s", "expanding s",
                                                  "destroy m1", "destroy m0", "destroy m2"}));
    EXPECT_EQ(f->kid_count, 0);
    // Hiding a hidden node changes nothing, and keeps the selection; a real change clears it.
    TREE_HideNode(f, 1);
    TREE_SelectOnlyNode(g);
    TREE_HideNode(f, 1);
    EXPECT_EQ(Selected(w), "g");
    TREE_HideNode(f, 0);
    EXPECT_EQ(Selected(w), "");
  });
}

TEST_F(Model, OffsetsIgnoreTheTopLevelIndent) {
  Run([&] {
    WINDOW w = TREE_CreateTreeWidget(TASK_WIN, nullptr, 20, 0, 2, 0, 16, 5, nullptr, nullptr, nullptr, nullptr);
    TreeNode* top = Node("top", false, 0, kNodeDataTypeMsgService, 30);
    TreeNode* mid = Node("mid", false, 0, kNodeDataTypeFolder, 12);
    TreeNode* low = Node("low", true, 0, kNodeDataTypeMessage, 7);
    TREE_AppendNode(TREE_GetRoot(w), top);
    TREE_AppendNode(top, mid);
    TREE_AppendNode(mid, low);
    EXPECT_EQ(TREE_GetAbsOffset(top), 5);
    EXPECT_EQ(TREE_GetAbsOffset(mid), 5 + 12);
    EXPECT_EQ(TREE_GetAbsOffset(low), 5 + 7 + 12);
    EXPECT_EQ(TREE_GetDataType(TREE_GetRoot(w)), kNodeDataTypeNone);
  });
}

TEST_F(Model, SortedInsertionWithTheSharedHint) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    // Keys 0..n-1 arriving ascending, descending or shuffled: the whole
    // arrival costs few compares when it comes in order, either way.
    for (auto [n, step, max_compares] : {std::tuple{2000, 1, 6000}, {2000, -1, 6000}, {300, 7919, 300 * 300}}) {
      TREE_RemoveKidNodes(root);
      TREE_ResetInsertHint();
      g_compares = 0;
      for (int i = 0; i < n; ++i) ASSERT_EQ(TREE_InsertSorted(root, Node("k", true, step < 0 ? n - 1 - i : i * step % n), CompareKeys, 1), 1);
      EXPECT_LE(g_compares, max_compares) << step;
      int i = 0;
      for (TreeNode* k = root->first_kid; k; k = k->next) EXPECT_EQ(D(k)->key, i++);
      EXPECT_EQ(TREE_EntriesVisible(w), n);
    }
    // Equal keys. Refused: 0, and the node stays detached for the caller to free.
    TREE_RemoveKidNodes(root);
    Add(root, "a", true, 1);
    Add(root, "b", true, 2);
    TreeNode* dup = Node("dup", true, 2);
    EXPECT_EQ(TREE_InsertSorted(root, dup, CompareKeys, 0), 0);
    EXPECT_EQ(TREE_GetParent(dup), nullptr);
    EXPECT_EQ(root->kid_count, 2);
    TREE_DestroyNode(dup);
    EXPECT_EQ(dup, nullptr);
    // From the front, an equal key goes before the first equal one.
    TREE_ResetInsertHint();
    TREE_InsertSorted(root, Node("front", true, 2), CompareKeys, 1);
    EXPECT_EQ(Kids(root), "a front b");
    EXPECT_TRUE(TREE_InsertHintFromFront());  // position 1 of 3: from the front still
    TREE_InsertSorted(root, Node("c", true, 3), CompareKeys, 1);
    EXPECT_FALSE(TREE_InsertHintFromFront());  // appended: from the back next time
    // From the back, an equal key goes before the last equal one it meets.
    TREE_InsertSorted(root, Node("back", true, 2), CompareKeys, 1);
    EXPECT_EQ(Kids(root), "a front back b c");
  });
}

TEST_F(Model, ResortingIsStableAndKeepsTheLines) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* f = Add(TREE_GetRoot(w), "f", false);
    for (auto [name, key] : {std::pair{"a", 2}, {"b", 1}, {"c", 2}, {"d", 1}, {"e", 3}}) Add(f, name, false, key);
    Add(f->first_kid, "a.kid");
    TREE_OpenSubtree(f, 1, 0);
    TREE_OpenSubtree(f->first_kid, 1, 0);  // "a" lies open with a kid below it
    auto key_of = [](void* d) { return TreeSortKey{static_cast<TestData*>(d)->key, {}, 0}; };
    // Re-sorting by compare meets the random test; by keys computed once here.
    for (auto [descending, order] : {std::pair{true, "e a c b d"}, {false, "b d a c e"}}) {
      TREE_ResortTreeByKey(f, key_of, descending);
      EXPECT_EQ(Kids(f), order);
      EXPECT_EQ(TREE_EntriesVisible(w), 7) << order;
      EXPECT_EQ(TREE_VisibleCount(TREE_GetRoot(w)) - 1, 7) << order;
    }
    EXPECT_EQ(Shown(w), (std::vector<std::string>{"f", "b", "d", "a", "a.kid", "c", "e"}));
    // A closed parent re-sorts without touching the lines.
    TREE_OpenSubtree(f, 0, 0);
    TREE_ResortTreeByKey(f, key_of, true);
    EXPECT_EQ(Kids(f), "e a c b d");
    EXPECT_EQ(TREE_EntriesVisible(w), 1);
  });
}

TEST_F(Model, MovingKidsToAContextWindow) {
  Run([&] {
    WINDOW org = MakeTree(), ctx = MakeTree();
    TreeNode *f = Add(TREE_GetRoot(org), "f", false), *to = TREE_GetRoot(ctx);
    for (int i = 0; i < 4; ++i) Add(f, "m" + std::to_string(i));
    TreeNode* deep = Add(f->first_kid, "deep");
    TREE_OpenSubtree(f, 1, 0);
    Click(org, f->first_kid->next);
    TREE_MoveKids(to, f);
    EXPECT_EQ(TREE_EntriesVisible(org), 1);
    EXPECT_EQ(TREE_EntriesVisible(ctx), 4);
    EXPECT_EQ(Shown(ctx), (std::vector<std::string>{"m0", "m1", "m2", "m3"}));
    EXPECT_EQ(Shown(org), (std::vector<std::string>{"f"}));
    EXPECT_EQ(TREE_GetSelectionCount(f), 0);
    EXPECT_EQ(f->kid_count + 10 * to->kid_count, 40);
    for (TreeNode* n : {to->first_kid, to->first_kid->next->next->next, deep}) EXPECT_EQ(TREE_GetWindow(n), ctx);
    EXPECT_EQ(TREE_GetParent(to->first_kid->next), to);
    EXPECT_EQ(TREE_GetAbsOffset(to->first_kid->next), 0);
  });
}

TEST_F(Model, WalksAndSearch) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* a = Add(root, "a", false);
    TreeNode* a1 = Add(a, "a1");
    TreeNode* b = Add(root, "b", false);
    TreeNode* b1 = Add(b, "b1");
    TREE_HideNode(Add(a, "a2"), 1);
    TREE_OpenSubtree(a, 1, 0);
    TREE_OpenSubtree(b, 1, 0);
    std::string back;
    for (TreeNode* n = b1; n; n = TREE_PrevNode(n)) back += Name(n) + " ";
    EXPECT_EQ(back, "b1 b a1 a ");
    EXPECT_EQ(TREE_NextSibling(a1), nullptr);
    EXPECT_EQ(TREE_FirstKid(b), b1);
    // The search walks one way only: above 0, the key lies further on.
    std::vector<TreeNode*> kids;
    for (int i = 0; i < 6; ++i) kids.push_back(Add(b, "k", true, i * 10));
    auto walk = [&](int start, int key) {
      return TREE_SearchNode(kids[size_t(start)], &key, [](TreeNode* n, void* k) {
        int want = *static_cast<int*>(k), have = D(n)->key;
        return (want > have) - (want < have);
      });
    };
    EXPECT_EQ(walk(0, 30), kids[3]);
    EXPECT_EQ(walk(5, 10), kids[1]);
    EXPECT_EQ(walk(2, 25), nullptr);  // would have to turn back
  });
}

TEST_F(Model, DestroyingTheWidgetFreesEveryRecordOnce) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* s = Add(TREE_GetRoot(w), "s", false);
    Add(Add(s, "f", false), "m");
    TreeNode* elsewhere = Add(s, "shown elsewhere");
    TREE_SetOpenElsewhere(elsewhere, true);
    TestData* kept = D(elsewhere);  // its context window would own it
    xvt_vobj_destroy(w);
    delete kept;
    std::vector<std::string> destroyed;
    std::copy_if(g_events.begin(), g_events.end(), std::back_inserter(destroyed),
                 [](const std::string& e) { return e.rfind("destroy", 0) == 0; });
    EXPECT_EQ(destroyed, (std::vector<std::string>{"destroy s", "destroy f", "destroy m"}));
  });
}

// --- Selection -------------------------------------------------------------------

class Select : public TreeTest {};

TEST_F(Select, ShiftClickKeepsARangeFromTheAnchor) {
  struct Row {
    const char* what;
    int anchor, end, click, from, to;  // from..to: the selection afterwards
  };
  const Row rows[] = {
      {"up, above", 6, 4, 2, 2, 6},    {"up, between", 6, 2, 4, 4, 6},   {"up, below", 6, 4, 8, 6, 8},
      {"down, above", 3, 5, 1, 1, 3},  {"down, between", 3, 7, 5, 3, 5}, {"down, below", 3, 5, 8, 3, 8},
      {"down, on top", 3, 5, 3, 3, 3}, {"up, on bottom", 6, 4, 6, 6, 6},
  };
  for (const Row& row : rows) {
    Run([&] {
      WINDOW w = MakeTree();
      auto n = Flat(w, 10);
      Click(w, n[size_t(row.anchor)]);
      Click(w, n[size_t(row.end)], true);
      g_selection_calls = 0;
      Click(w, n[size_t(row.click)], true);
      for (int i = 0; i < 10; ++i) EXPECT_EQ(TREE_IsSelected(n[size_t(i)]), i >= row.from && i <= row.to) << row.what << i;
      EXPECT_EQ(TREE_GetSelectionCount(n[0]), row.to - row.from + 1) << row.what;
      EXPECT_EQ(Anchor(w), "n" + std::to_string(row.anchor)) << row.what;
      EXPECT_EQ(g_selection_calls, 1) << row.what;
    });
  }
  Run([&] {  // an anchor that scrolled out of the cache is found all the same
    WINDOW w = MakeTree();
    auto n = Flat(w, 300);
    Click(w, n[2]);
    TREE_ScrollLines(w, 200);
    ASSERT_LT(n[2]->cache_index, 0);
    Click(w, n[205], true);
    EXPECT_EQ(TREE_GetSelectionCount(n[0]), 204);
    EXPECT_TRUE(TREE_IsSelected(n[2]) && TREE_IsSelected(n[205]) && !TREE_IsSelected(n[206]) && !TREE_IsSelected(n[1]));
  });
}

// Each step: what the user does, then the selection (in the order it was
// made), the anchor and the listener's calls (-1: not checked).
TEST_F(Select, ClicksKeysAndTheAnchor) {
  enum Op { kClick, kCtrl, kShift, kKey, kShiftKey, kCtrlKey, kClear, kQuiet, kEachUnderSuspension };
  struct Step {
    Op op;
    int arg;  // a line, or a key code
    const char* selected;
    const char* anchor;
    int calls = -1;
  };
  struct Case {
    const char* what;
    std::vector<Step> steps;
  };
  const Case cases[] = {
      {"click replaces", {{kClick, 2, "n2", "n2", 1}, {kClick, 2, "n2", "n2", 0}, {kClick, 5, "n5", "n5", 1}}},
      {"control adds and removes; a click in a multiple selection decides at release",
       {{kClick, 2, "n2", "n2"}, {kCtrl, 4, "n2 n4", "n4", 1}, {kCtrl, 2, "n4", "n4"}, {kCtrl, 2, "n4 n2", "n2"},
        {kClick, 4, "n4", "n4", 1}, {kCtrl, 4, "", "n4"}}},
      {"a shift click on the anchor alone tells nobody; clearing keeps the anchor",
       {{kClick, 4, "n4", "n4"}, {kClear, 0, "", "n4"}, {kShift, 4, "n4", "n4", 0}, {kClear, 0, "", "n4"},
        {kShift, 6, "n4 n5 n6", "n4"}}},
      {"control ends the range; the next ranges from the node last control-clicked",
       {{kClick, 4, "n4", "n4"}, {kShift, 6, "n4 n5 n6", "n4"}, {kCtrl, 1, "n4 n5 n6 n1", "n1"},
        {kShift, 3, "n1 n2 n3", "n1"}, {kCtrl, 1, "n2 n3", "n1"}}},
      {"down from nothing, end, up, home",
       {{kKey, K_DOWN, "n0", "n0"}, {kKey, K_END, "n9", "n9"}, {kKey, K_UP, "n8", "n8"}, {kKey, K_HOME, "n0", "n0"}}},
      {"shift down grows, shift up shrinks",
       {{kClick, 3, "n3", "n3"}, {kShiftKey, K_DOWN, "n3 n4", "n3"}, {kShiftKey, K_DOWN, "n3 n4 n5", "n3"},
        {kShiftKey, K_UP, "n3 n4", "n3"}}},
      {"line home and end stay on the screen; shift end ranges",
       {{kClick, 3, "n3", "n3"}, {kKey, K_LHOME, "n0", "n0"}, {kKey, K_LEND, "n7", "n7"},
        {kShiftKey, K_END, "n7 n8 n9", "n7"}}},
      {"control a selects all, in one call",
       {{kClick, 7, "n7", "n7"}, {kCtrlKey, 'a', "n7 n0 n1 n2 n3 n4 n5 n6 n8 n9", "n7", 1}, {kQuiet, 0, "", "n7", 0}}},
      {"select only each under suspension: one call",
       {{kClick, 1, "n1", "n1"}, {kEachUnderSuspension, 0, "n9", "n9", 1}}},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(8);
      auto n = Flat(w, 10);
      for (const Step& s : c.steps) {
        g_selection_calls = 0;
        TreeNode* line = n[size_t(std::min(s.arg, 9))];
        switch (s.op) {
          case kClick: Click(w, line); break;
          case kCtrl: Click(w, line, false, true); break;
          case kShift: Click(w, line, true); break;
          case kKey: Key(w, s.arg); break;
          case kShiftKey: Key(w, s.arg, true); break;
          case kCtrlKey: Key(w, s.arg, false, true); break;
          case kClear: TREE_ClearSelections(w); break;
          case kQuiet: TREE_ClearSelections(w, 1); break;
          case kEachUnderSuspension:
            TREE_SuspendUpdates(w);
            for (auto* x : n) TREE_SelectOnlyNode(x);
            TREE_ResumeUpdates(w);
            break;
        }
        EXPECT_EQ(Selected(w), s.selected) << c.what;
        EXPECT_EQ(Anchor(w), s.anchor) << c.what;
        EXPECT_EQ(TREE_GetSelectionCount(n[0]), int(std::count(s.selected, s.selected + strlen(s.selected), 'n')));
        EXPECT_EQ(s.calls < 0 ? -1 : g_selection_calls, s.calls) << c.what << ": " << s.selected;
      }
    });
  }
}

TEST_F(Select, KeysMoveTheViewWithTheSelection) {
  Run([&] {
    WINDOW w = MakeTree(10);
    auto n = Flat(w, 100);
    Click(w, n[9]);
    const std::tuple<int, const char*, int> keys[] = {
        {K_DOWN, "n10", 1}, {K_NEXT, "n19", 10}, {K_END, "n99", 90}, {K_PREV, "n90", 81}};
    for (auto [key, selected, top] : keys) {
      Key(w, key);
      EXPECT_EQ(Selected(w), selected);
      EXPECT_EQ(TREE_TopLine(w), top) << selected;
    }
  });
}

TEST_F(Select, ActionsHearClicksDoubleClicksEnterAndPopup) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 5);
    Click(w, n[1]);
    Click(w, n[2]);
    Mouse(w, {n[2]->abs_offset + 24, 2 * 16 + 5}, false, false, 0, true);
    Key(w, K_ENTER);
    Click(w, n[3], false, false, 1);
    TREE_SetNodeEnabled(n[4], 0);
    Click(w, n[4]);
    EXPECT_EQ(g_events, (std::vector<std::string>{"click n1", "click n2", "dbl n2", "dbl n2", "popup n3"}));
    EXPECT_EQ(Selected(w), "n3");
  });
}

TEST_F(Select, ClosingAParentMovesTheSelectionToIt) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* f = Add(TREE_GetRoot(w), "f", false);
    Add(f, "b");
    TREE_OpenSubtree(f, 1, 0);
    Click(w, f->first_kid);
    Click(w, f, false, false, 0, true);  // the box: closes
    EXPECT_FALSE(TREE_IsOpen(f));
    EXPECT_EQ(Selected(w), "f");
    EXPECT_EQ(Shown(w), (std::vector<std::string>{"f"}));
    Click(w, f, false, false, 0, true);  // opens again, the selection stays
    EXPECT_TRUE(TREE_IsOpen(f));
    EXPECT_EQ(Selected(w), "f");
    EXPECT_EQ(g_events, (std::vector<std::string>{"expanding f", "click b", "expanding f"}));
  });
}

TEST_F(Select, TypeAheadFindsTheNextLineByItsStart) {
  Run([&] {
    WINDOW w = MakeTree();
    for (const char* s : {"apple", "banana", "Blueberry", "cherry", "bean"}) Add(TREE_GetRoot(w), s);
    struct Step {
      const char* keys;
      bool fresh;   // a pause before the first key
      int timeout;  // ms between keys that still extend the prefix; -1: none do
      const char* selected;
    };
    const Step steps[] = {
        {"b", true, 1000, "banana"},      // the first match
        {"l", false, 1000, "Blueberry"},  // "bl", case aside
        {"b", true, 1000, "bean"},        // "b" anew: from the next line on
        {"b", true, 1000, "banana"},      // and round the end
        {"cx", true, 1000, "cherry"},     // nothing begins "cx": the selection stays
        {"ba", true, -1, "apple"},        // too slow: "b" finds bean, then "a" alone
    };
    for (const Step& s : steps) {
      TreeInfo* info = TREE_GetInfo(w);
      info->type_ahead_timeout_ms = s.timeout;
      if (s.fresh) info->typed_len = 0;
      for (const char* k = s.keys; *k; ++k) Key(w, *k);
      EXPECT_EQ(Selected(w), s.selected) << s.keys;
    }
  });
}

// --- Display ---------------------------------------------------------------------

class Display : public TreeTest {};

std::string Str(const RCT& r) {
  return std::to_string(r.left) + "," + std::to_string(r.top) + "," + std::to_string(r.right) + "," +
         std::to_string(r.bottom);
}

// A horizontal widget's rectangle in a vertical one's terms.
RCT Norm(RCT q, bool horizontal) { return horizontal ? RCT{q.top, q.left, q.bottom, q.right} : q; }

TEST_F(Display, CacheSizes) {
  for (auto [asked, got] : {std::pair{50, 51}, {300, 201}, {202, 201}, {201, 201}, {10, 20}, {-1, 20}, {20, 21}}) {
    TreeCache c{};
    tree::newCacheArray(&c, asked);
    EXPECT_EQ(c.size, got) << asked;
    EXPECT_EQ(c.half, got / 2) << asked;
  }
  Run([&] {
    WINDOW w = MakeTree(100, 2, 300, 50);
    Flat(w, 500);
    EXPECT_EQ(TREE_GetInfo(w)->cache.size, 303);  // three screens and three lines, whatever was asked
  });
}

// A horizontal widget (lines side by side, as in an attachment strip) swaps
// every coordinate: each change must give the same rectangles with x and y
// exchanged, and the same lines, selection, top and painting.
TEST_F(Display, ExactRectanglesOfCommonChangesInBothDirections) {
  struct Case {
    const char* what;
    std::function<void(WINDOW, std::vector<TreeNode*>&, bool horizontal)> act;
    std::vector<std::string> damage;  // as the vertical widget has it
    const char* selected;
    int top;
  };
  auto click = [](WINDOW w, int line, bool h) { Mouse(w, h ? PNT{line * 16 + 5, 30} : PNT{30, line * 16 + 5}); };
  const std::string last = "draw 0,144,300,160";
  const Case cases[] = {
      {"move the selection", [](WINDOW, auto& n, bool) {
         TREE_SelectOnlyNode(n[2]);
         TREE_SelectOnlyNode(n[5]);
       }, {"draw 0,32,300,48", "draw 0,32,300,48", "draw 0,80,300,96"}, "n5", 0},
      {"click line 4", [&](WINDOW w, auto&, bool h) { click(w, 4, h); }, {"draw 0,64,300,80"}, "n4", 0},
      {"remove line 3", [](WINDOW, auto& n, bool) { TREE_RemoveNode(n[3]); },
       {"scroll 0,48,300,160 by -16", last}, "", 0},
      {"insert before line 2", [](WINDOW w, auto& n, bool) { TREE_InsertNode(TREE_GetRoot(w), Node("new"), n[2]); },
       {"scroll 0,32,300,160 by 16", "draw 0,32,300,48"}, "", 0},
      {"open a line", [](WINDOW w, auto& n, bool) {
         TreeNode* p = Node("p", false);
         for (const char* k : {"k0", "k1", "k2"}) Add(p, k);
         TREE_InsertNode(TREE_GetRoot(w), p, n[3]);
         xvt_test_clear_damage(w);
         TREE_OpenSubtree(p, 1, 0);
       }, {"scroll 0,64,300,160 by 48", "draw 0,64,300,112", "draw 0,48,300,64"}, "", 0},
      {"a line below the screen", [](WINDOW w, auto&, bool) { Add(TREE_GetRoot(w), "last"); }, {}, "", 0},
      {"the bar's line step", [](WINDOW w, auto&, bool h) { Bar(w, SC_LINE_DOWN, 0, h); },
       {"scroll 0,0,300,160 by -16", last}, "", 1},
      {"the bar's page step back", [](WINDOW w, auto&, bool h) {
         Bar(w, SC_THUMB, 12, h);
         xvt_test_clear_damage(w);
         Bar(w, SC_PAGE_UP, 0, h);
       }, {"scroll 0,0,300,160 by 144", "draw 0,0,300,144"}, "", 3},
      {"redraw one", [](WINDOW, auto& n, bool) { TREE_RedrawNode(n[7]); }, {"draw 0,112,300,128"}, "", 0},
      {"a burst under suspension", [](WINDOW w, auto& n, bool) {
         TREE_SuspendUpdates(w);
         for (int i = 0; i < 3; ++i) TREE_SelectNode(n[size_t(i)], 1);
         EXPECT_TRUE(xvt_test_damage(w).empty());
         TREE_ResumeUpdates(w);
       }, {"draw 0,0,300,16", "draw 0,16,300,32", "draw 0,32,300,48"}, "n0 n1 n2", 0},
      {"a click past the last line clears", [&](WINDOW w, auto& n, bool h) {
         TREE_SelectOnlyNode(n[1]);
         for (size_t i = 5; i < n.size(); ++i) TREE_RemoveNode(n[i]);
         xvt_test_clear_damage(w);
         click(w, 7, h);
       }, {"draw 0,16,300,32"}, "", 0},
  };
  for (const Case& c : cases) {
    std::vector<std::string> lines[2], paints[2];
    for (bool h : {false, true}) {
      Run([&] {
        WINDOW w = MakeTree(10, 0, 300, 20, h);
        auto n = Flat(w, 30);
        xvt_test_clear_damage(w);
        c.act(w, n, h);
        std::vector<std::string> damage;
        for (const XvtDamage& d : xvt_test_damage(w)) {
          int along = h ? d.dh : d.dv, across = h ? d.dv : d.dh;
          if (d.op == "scroll")
            damage.push_back("scroll " + Str(Norm(d.rct, h)) + " by " + std::to_string(along) +
                             (across ? " and across " + std::to_string(across) : ""));
          else if (d.op != "update")
            damage.push_back("draw " + Str(Norm(d.rct, h)));
        }
        std::string what = c.what + std::string(h ? " (horizontal)" : " (vertical)");
        EXPECT_EQ(damage, c.damage) << what;
        EXPECT_EQ(Selected(w), c.selected) << what;
        EXPECT_EQ(TREE_TopLine(w), c.top) << what;
        lines[h] = Shown(w);
        // Where each line is painted: the rectangle handed to draw, and the highlight.
        for (const XvtDrawOp& op : xvt_test_paint(w)) {
          if (op.op == "text") paints[h].push_back(op.text + " at " + Str(Norm({op.rct.left - 2, op.rct.top, 0, 0}, h)));
          if (op.op == "rect" && op.back == kTreeHighlight) paints[h].push_back("highlight " + Str(Norm(op.rct, h)));
        }
        int min = 0, max = 0;
        xvt_sbar_get_range(w, h ? HSCROLL : VSCROLL, &min, &max);
        EXPECT_EQ(max, std::max(TREE_EntriesVisible(w) - 10, 0)) << what << ": the bar along the lines";
      });
    }
    EXPECT_EQ(lines[0], lines[1]) << c.what;
    EXPECT_EQ(paints[0], paints[1]) << c.what;
    EXPECT_EQ(paints[0].size(), lines[0].size() + size_t(std::count(c.selected, c.selected + strlen(c.selected), 'n')))
        << c.what;
  }
}

TEST_F(Display, PaintingDrawsEachLineWithItsConnectorsAndHighlight) {
  Run([&] {
    WINDOW w = MakeTree(4);
    TreeNode* s = Add(TREE_GetRoot(w), "svc", false);
    Add(s, "inbox");
    TreeNode* b = Add(TREE_GetRoot(w), "b");
    TREE_OpenSubtree(s, 1, 0);
    TREE_SelectOnlyNode(b);
    std::string texts;
    int dotted = 0;
    for (const XvtDrawOp& op : xvt_test_paint(w)) {
      if (op.op == "text") texts += op.text + "@" + std::to_string(op.rct.left) + "," + std::to_string(op.rct.top) + " ";
      // The highlight from the text's start, as wide as the width callback says.
      if (op.op == "rect" && op.back == kTreeHighlight) texts += "highlight " + Str(op.rct) + " ";
      if (op.op == "line" && op.pen == PAT_DOT) dotted += op.fore == 0x808080u ? 1 : 100;  // connectors are gray
    }
    EXPECT_EQ(texts, "svc-@22,0 inbox$@32,16 highlight 20,32,32,48 b*$@22,32 ");
    EXPECT_TRUE(dotted >= 4 && dotted < 100) << dotted;
  });
}

TEST_F(Display, ScrollBarStates) {
  // Window 300 x 160 with 16-pixel bars: 10 lines and 300 pixels when no bar
  // shows, 9 lines and 284 pixels when both do. {lines, width, v, h}
  const int cases[][4] = {{5, 200, 3, 3},  {5, 290, 3, 3},  {5, 400, 3, 1},  {10, 200, 3, 3}, {10, 290, 3, 3},
                          {10, 400, 1, 1}, {12, 200, 1, 3}, {12, 290, 1, 1}, {12, 400, 1, 1}};
  for (auto& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(10, 0);
      for (int i = 0; i < c[0]; ++i) D(Add(TREE_GetRoot(w), "x"))->width = c[1];
      TREE_RedrawNode(TREE_GetRoot(w)->first_kid);
      EXPECT_EQ(TREE_GetInfo(w)->v_state * 10 + TREE_GetInfo(w)->h_state, c[2] * 10 + c[3]) << c[0] << " lines, " << c[1];
    });
  }
}

TEST_F(Display, ThumbJumpsFarIntoALargeTree) {
  Run([&] {
    WINDOW w = MakeTree(20);
    Flat(w, 100000);
    const std::tuple<SCROLL_CONTROL, int, int> jumps[] = {{SC_THUMB, 90000, 90000}, {SC_THUMBTRACK, 50, 50},
                                                          {SC_THUMB, 99999, 99980}, {SC_PAGE_UP, 0, 99961},
                                                          {SC_LINE_DOWN, 0, 99962}, {SC_THUMB, 0, 0}};
    int min = 0, max = 0;
    for (auto [what, pos, top] : jumps) {
      Bar(w, what, pos);
      xvt_sbar_get_range(w, VSCROLL, &min, &max);
      EXPECT_EQ(Shown(w).front() + " " + std::to_string(TREE_TopLine(w)) + " " + std::to_string(max) + " " +
                    std::to_string(xvt_sbar_get_pos(w, VSCROLL)),
                "n" + std::to_string(top) + " " + std::to_string(top) + " 99980 " + std::to_string(top));
    }
  });
}

// Resizing a widget scrolled to its end: the lines are counted again, the
// last screen stays full, and the bars follow the new size.
TEST_F(Display, ResizingKeepsTheLastScreenFull) {
  struct Case {
    int style, lines_after, width_after, top, v, h;
    bool v_enabled;
  };
  const Case cases[] = {
      {0, 15, 300, 15, 1, 3, true},  // taller: the top comes up to keep the screen full
      {0, 40, 300, 0, 3, 3, false},  // everything fits: no bar, no offset
      {0, 5, 300, 20, 1, 3, true},   // shorter: the top stays
      {0, 15, 20, 15, 1, 1, true},   // narrower than the lines: a bar across
      {2, 40, 300, 0, 3, 3, false},  // the organizer's bars stay, disabled
      {2, 12, 300, 18, 1, 3, true},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(10, c.style);
      Flat(w, 30);
      TREE_ScrollLines(w, 100);
      ASSERT_EQ(TREE_TopLine(w), 20);
      RCT r{0, 0, c.width_after, c.lines_after * 16};
      TREE_ResizeTree(w, &r);
      TreeInfo* info = TREE_GetInfo(w);
      SCOPED_TRACE("style " + std::to_string(c.style) + ", " + std::to_string(c.lines_after) + " lines, " +
                   std::to_string(c.width_after) + " px");
      EXPECT_EQ(TREE_TopLine(w), c.top);
      EXPECT_EQ(TREE_VisibleLines(w), c.lines_after);
      EXPECT_EQ(info->v_state * 10 + info->h_state, c.v * 10 + c.h);
      EXPECT_EQ(info->v_sbar_enabled, c.v_enabled);
      EXPECT_EQ(Shown(w).front(), "n" + std::to_string(c.top));
      EXPECT_EQ(xvt_sbar_get_pos(w, VSCROLL), c.v_enabled ? c.top : 0);
    });
  }
}

// A run of model changes between E_BATCH_BEGIN and E_BATCH_END damages
// the widget once, at the end; the end of a run it never saw does not undo
// a widget's own hold of its updates.
TEST_F(TreeTest, ABatchOfChangesPaintsOnceAtItsEnd) {
  struct Case {
    const char* what;
    int begins, ends;
    bool made_inside;
    int damage;  // invalidations by the run's five new lines
    int depth;
  };
  const Case cases[] = {
      {"one run", 1, 1, false, 1, 0},
      {"nested runs", 2, 2, false, 1, 0},
      {"run still going", 1, 0, false, 0, 1},
      {"widget made inside the run, holding its own", 1, 1, true, 0, 1},
  };
  MM_NotInit();
  MM_NotSetActive(true);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Run([&] {
      WINDOW w = c.made_inside ? NULL_WIN : MakeTree(10);
      for (int i = 0; i < c.begins; ++i) MM_NotPostSimple(E_BATCH_BEGIN);
      if (c.made_inside) {
        w = MakeTree(10);
        TREE_SuspendUpdates(w);
      }
      xvt_test_paint(w);
      xvt_test_clear_damage(w);
      for (int i = 0; i < 5; ++i) Add(TREE_GetRoot(w), "n" + std::to_string(i));
      for (int i = 0; i < c.ends; ++i) MM_NotPostSimple(E_BATCH_END);
      int invalidations = 0;
      for (const XvtDamage& d : xvt_test_damage(w)) invalidations += d.op == "invalidate";
      EXPECT_EQ(invalidations, c.damage);
      EXPECT_EQ(TREE_GetInfo(w)->suspend_count, c.depth);
      for (int i = c.ends; i < c.begins; ++i) MM_NotPostSimple(E_BATCH_END);
      if (c.made_inside) TREE_ResumeUpdates(w);
    });
  }
  MM_NotShutdown();
}

}  // namespace
}  // namespace treetest
