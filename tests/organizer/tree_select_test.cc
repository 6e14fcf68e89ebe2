// Selection in the tree widget: clicks, control and shift ranges with their
// anchor, the keyboard, and the notifications listeners get.
#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

class Select : public TreeTest {};

std::string Range(int from, int to) {
  std::string out;
  for (int i = from; i <= to; ++i) out += (out.empty() ? "n" : " n") + std::to_string(i);
  return out;
}

TEST_F(Select, ShiftClickKeepsARangeFromTheAnchor) {
  struct Row {
    const char* what;
    int anchor, end, click;
    int from, to;  // the selection afterwards, as a set
  };
  const Row rows[] = {
      {"up, above", 6, 4, 2, 2, 6},     {"up, between", 6, 2, 4, 4, 6},     {"up, below", 6, 4, 8, 6, 8},
      {"down, above", 3, 5, 1, 1, 3},   {"down, between", 3, 7, 5, 3, 5},   {"down, below", 3, 5, 8, 3, 8},
      {"down, on top", 3, 5, 3, 3, 3},  {"up, on bottom", 6, 4, 6, 6, 6},
  };
  for (const Row& row : rows) {
    Run([&] {
      WINDOW w = MakeTree();
      auto n = Flat(w, 10);
      Click(w, n[static_cast<size_t>(row.anchor)]);
      Click(w, n[static_cast<size_t>(row.end)], true);
      g_selection_calls = 0;
      Click(w, n[static_cast<size_t>(row.click)], true);
      std::vector<TreeNode*> sel = TREE_GetSelections(n[0]);
      std::vector<std::string> names;
      for (TreeNode* s : sel) names.push_back(Name(s));
      std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::stoi(a.substr(1)) < std::stoi(b.substr(1));
      });
      std::string got;
      for (auto& s : names) got += (got.empty() ? "" : " ") + s;
      EXPECT_EQ(got, Range(row.from, row.to)) << row.what;
      EXPECT_EQ(TREE_GetSelectionCount(n[0]), row.to - row.from + 1) << row.what;
      EXPECT_EQ(Anchor(w), "n" + std::to_string(row.anchor)) << row.what;
      EXPECT_EQ(g_selection_calls, 1) << row.what;
      for (int i = 0; i < 10; ++i)
        EXPECT_EQ(TREE_IsSelected(n[static_cast<size_t>(i)]), i >= row.from && i <= row.to) << row.what << " n" << i;
    });
  }
}

TEST_F(Select, ShiftClickFindsAnAnchorThatScrolledOutOfTheCache) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 300);
    Click(w, n[2]);
    TREE_ScrollLines(w, 200);
    ASSERT_LT(n[2]->cache_index, 0) << "the anchor should have left the cache";
    Click(w, n[205], true);
    EXPECT_EQ(TREE_GetSelectionCount(n[0]), 204);
    EXPECT_TRUE(TREE_IsSelected(n[2]) && TREE_IsSelected(n[205]) && !TREE_IsSelected(n[206]) && !TREE_IsSelected(n[1]));
  });
}

TEST_F(Select, AnchorRules) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 10);
    // A shift click on the anchor alone selects it and tells nobody.
    Click(w, n[4]);
    TREE_ClearSelections(w);
    g_selection_calls = 0;
    Click(w, n[4], true);
    EXPECT_EQ(Selected(w), "n4");
    EXPECT_EQ(g_selection_calls, 0);
    // Clearing keeps the anchor: the count is 0 while an anchor exists.
    TREE_ClearSelections(w);
    EXPECT_EQ(TREE_GetSelectionCount(n[0]), 0);
    EXPECT_EQ(Anchor(w), "n4");
    Click(w, n[6], true);
    EXPECT_EQ(Selected(w), "n4 n5 n6");
    // Control ends the range; the next shift click ranges from the node last control-clicked.
    Click(w, n[1], false, true);
    EXPECT_EQ(Selected(w), "n4 n5 n6 n1");
    Click(w, n[3], true);
    EXPECT_EQ(Selected(w), "n1 n2 n3");
    // Control-clicking the anchor away keeps it as the anchor.
    Click(w, n[1], false, true);
    EXPECT_EQ(Selected(w), "n2 n3");
    EXPECT_EQ(Anchor(w), "n1");
  });
}

TEST_F(Select, ClicksAndKeys) {
  enum Op { kClick, kCtrl, kShift, kKey, kShiftKey, kRight };
  struct Step {
    Op op;
    int arg;  // a line, or a key code
    const char* selected;
    const char* anchor;
  };
  struct Case {
    const char* what;
    std::vector<Step> steps;
  };
  const Case cases[] = {
      {"click replaces", {{kClick, 2, "n2", "n2"}, {kClick, 5, "n5", "n5"}}},
      {"control adds and removes",
       {{kClick, 2, "n2", "n2"}, {kCtrl, 4, "n2 n4", "n4"}, {kCtrl, 2, "n4", "n4"}, {kCtrl, 4, "", "n4"}}},
      {"a click in a multiple selection decides at release", {{kClick, 1, "n1", "n1"}, {kCtrl, 3, "n1 n3", "n3"},
                                                              {kClick, 1, "n1", "n1"}}},
      {"down and up", {{kKey, K_DOWN, "n0", "n0"}, {kKey, K_DOWN, "n1", "n1"}, {kKey, K_DOWN, "n2", "n2"},
                       {kKey, K_UP, "n1", "n1"}}},
      {"shift down grows, shift up shrinks", {{kClick, 3, "n3", "n3"}, {kShiftKey, K_DOWN, "n3 n4", "n3"},
                                              {kShiftKey, K_DOWN, "n3 n4 n5", "n3"},
                                              {kShiftKey, K_UP, "n3 n4", "n3"}}},
      {"home and end", {{kClick, 3, "n3", "n3"}, {kKey, K_END, "n9", "n9"}, {kKey, K_HOME, "n0", "n0"}}},
      {"line home and end stay on the screen", {{kClick, 3, "n3", "n3"}, {kKey, K_LEND, "n7", "n7"},
                                                {kKey, K_LHOME, "n0", "n0"}}},
      {"shift end ranges", {{kClick, 7, "n7", "n7"}, {kShiftKey, K_END, "n7 n8 n9", "n7"}}},
      {"control a selects all", {{kClick, 7, "n7", "n7"}, {kKey, 'a' + 1000, "n7 n0 n1 n2 n3 n4 n5 n6 n8 n9", "n7"}}},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(8);
      auto n = Flat(w, 10);
      for (const Step& s : c.steps) {
        switch (s.op) {
          case kClick: Click(w, n[static_cast<size_t>(s.arg)]); break;
          case kCtrl: Click(w, n[static_cast<size_t>(s.arg)], false, true); break;
          case kShift: Click(w, n[static_cast<size_t>(s.arg)], true); break;
          case kKey: s.arg > 1000 ? Key(w, s.arg - 1000, false, true) : Key(w, s.arg); break;
          case kShiftKey: Key(w, s.arg, true); break;
          case kRight: Key(w, K_RIGHT); break;
        }
        EXPECT_EQ(Selected(w), s.selected) << c.what;
        EXPECT_EQ(Anchor(w), s.anchor) << c.what;
      }
    });
  }
}

TEST_F(Select, KeysMoveTheViewWithTheSelection) {
  Run([&] {
    WINDOW w = MakeTree(10);
    auto n = Flat(w, 100);
    Click(w, n[9]);
    Key(w, K_DOWN);
    EXPECT_EQ(Selected(w), "n10");
    EXPECT_EQ(TREE_TopLine(w), 1);
    Key(w, K_NEXT);
    EXPECT_EQ(Selected(w), "n19");
    EXPECT_EQ(TREE_TopLine(w), 10);
    Key(w, K_END);
    EXPECT_EQ(Selected(w), "n99");
    EXPECT_EQ(TREE_TopLine(w), 90);
    Key(w, K_PREV);
    EXPECT_EQ(Selected(w), "n90");
    EXPECT_EQ(TREE_TopLine(w), 81);
  });
}

TEST_F(Select, OneCallbackPerGesture) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 10);
    struct Gesture {
      const char* what;
      std::function<void()> act;
      int calls;
    };
    const Gesture gestures[] = {
        {"click", [&] { Click(w, n[1]); }, 1},
        {"click on the selected line", [&] { Click(w, n[1]); }, 0},
        {"control click", [&] { Click(w, n[3], false, true); }, 1},
        {"click with two selected", [&] { Click(w, n[5]); }, 1},
        {"select all", [&] { Key(w, 'a', false, true); }, 1},
        {"select only under suspension", [&] {
           TREE_SuspendUpdates(w);
           for (auto* x : n) TREE_SelectOnlyNode(x);
           TREE_ResumeUpdates(w);
         }, 1},
        {"clear quietly", [&] { TREE_ClearSelections(w, 1); }, 0},
    };
    for (const Gesture& g : gestures) {
      g_selection_calls = 0;
      g.act();
      EXPECT_EQ(g_selection_calls, g.calls) << g.what;
    }
  });
}

TEST_F(Select, ActionsHearClicksDoubleClicksEnterAndPopup) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 5);
    Click(w, n[1]);
    DoubleClick(w, n[2]);
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
    TreeNode* a = Add(f, "a");
    Add(f, "b");
    TREE_OpenSubtree(f, 1, 0);
    Click(w, a);
    Click(w, f, false, false, 0, true);  // the box: closes
    EXPECT_FALSE(TREE_IsOpen(f));
    EXPECT_EQ(Selected(w), "f");
    EXPECT_EQ(Shown(w), (std::vector<std::string>{"f"}));
    Click(w, f, false, false, 0, true);  // opens again, the selection stays
    EXPECT_TRUE(TREE_IsOpen(f));
    EXPECT_EQ(Selected(w), "f");
    EXPECT_EQ(g_events, (std::vector<std::string>{"expanding f", "click a", "expanding f"}));
  });
}

TEST_F(Select, TypeAheadFindsTheNextLineByItsStart) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    for (const char* s : {"apple", "banana", "Blueberry", "cherry", "bean"}) Add(root, s);
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
