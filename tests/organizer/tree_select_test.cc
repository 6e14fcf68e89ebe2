// Selection in the tree widget: clicks, control and shift ranges with their
// anchor, the keyboard, and the notifications listeners get.
#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

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
        if (s.calls >= 0) {
          EXPECT_EQ(g_selection_calls, s.calls) << c.what << ": " << s.selected;
        }
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

}  // namespace
}  // namespace treetest
