// The tree widget's model: counting lines, opening, hiding, insertion in
// order with the shared hint, stable re-sorting, moving kids between
// widgets, and freeing.
#include <algorithm>
#include <random>

#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

class Model : public TreeTest {};

TEST_F(Model, OpenCloseAndHideCountLines) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* s = Add(root, "s", false);
    TreeNode* f = Add(s, "f", false);
    for (int i = 0; i < 3; ++i) Add(f, "m" + std::to_string(i));
    Add(s, "g", false);
    struct Step {
      const char* what;
      std::function<void()> act;
      int entries;
      std::vector<std::string> shown;
    };
    const Step steps[] = {
        {"closed", [] {}, 1, {"s"}},
        {"open s", [&] { TREE_OpenSubtree(s, 1, 0); }, 3, {"s", "f", "g"}},
        {"open f", [&] { TREE_OpenSubtree(f, 1, 0); }, 6, {"s", "f", "m0", "m1", "m2", "g"}},
        {"hide f", [&] { TREE_HideNode(f, 1); }, 2, {"s", "g"}},
        {"show f", [&] { TREE_HideNode(f, 0); }, 6, {"s", "f", "m0", "m1", "m2", "g"}},
        {"close s", [&] { TREE_OpenSubtree(s, 0, 0); }, 1, {"s"}},
        {"refused", [&] { g_expand_answer = kNodeActionRefused; TREE_OpenSubtree(s, 1, 0); }, 1, {"s"}},
        {"fetched, not opened", [&] { g_expand_answer = kNodeActionOk; TREE_OpenSubtree(s, 1, 1); }, 1, {"s"}},
        {"reopen", [&] { TREE_OpenSubtree(s, 1, 0); }, 6, {"s", "f", "m0", "m1", "m2", "g"}},
        {"remove m1", [&] { TREE_RemoveNode(f->first_kid->next); }, 5, {"s", "f", "m0", "m2", "g"}},
        {"kids of f gone", [&] { TREE_RemoveKidNodes(f); }, 3, {"s", "f", "g"}},
    };
    for (const Step& st : steps) {
      st.act();
      EXPECT_EQ(TREE_EntriesVisible(w), st.entries) << st.what;
      EXPECT_EQ(TREE_VisibleCount(root) - 1, st.entries) << st.what;
      EXPECT_EQ(Shown(w), st.shown) << st.what;
    }
    EXPECT_EQ(std::count(g_events.begin(), g_events.end(), "expanding s"), 4);
    EXPECT_EQ(std::count(g_events.begin(), g_events.end(), "destroy m1"), 1);
    EXPECT_EQ(f->kid_count, 0);
  });
}

TEST_F(Model, HidingTwiceKeepsTheSelection) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 5);
    TREE_HideNode(n[1], 1);
    Click(w, n[3]);
    TREE_HideNode(n[1], 1);
    EXPECT_EQ(Selected(w), "n3");
    TREE_HideNode(n[1], 0);  // a real change clears the selection
    EXPECT_EQ(Selected(w), "");
  });
}

TEST_F(Model, OffsetsIgnoreTheTopLevelIndent) {
  Run([&] {
    WINDOW w = TREE_CreateTreeWidget(TASK_WIN, nullptr, 20, 0, 2, 0, 16, 5, nullptr, nullptr, nullptr, nullptr);
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* top = Node("top", false, 0, kNodeDataTypeMsgService, 30);
    TREE_AppendNode(root, top);
    TreeNode* mid = Node("mid", false, 0, kNodeDataTypeFolder, 12);
    TREE_AppendNode(top, mid);
    TreeNode* low = Node("low", true, 0, kNodeDataTypeMessage, 7);
    TREE_AppendNode(mid, low);
    EXPECT_EQ(TREE_GetAbsOffset(top), 5);
    EXPECT_EQ(TREE_GetAbsOffset(mid), 5 + 12);
    EXPECT_EQ(TREE_GetAbsOffset(low), 5 + 7 + 12);
    EXPECT_EQ(TREE_GetDataType(mid), kNodeDataTypeFolder);
    EXPECT_EQ(TREE_GetDataType(root), kNodeDataTypeNone);
    EXPECT_EQ(TREE_GetInfo(w)->margin, 20);
  });
}

TEST_F(Model, SortedInsertionWithTheSharedHint) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    struct Case {
      const char* what;
      std::vector<int> keys;
      int max_compares;  // over the whole arrival
    };
    std::vector<int> up(2000), down(2000), shuffled(300);
    for (int i = 0; i < 2000; ++i) up[static_cast<size_t>(i)] = i, down[static_cast<size_t>(i)] = 2000 - i;
    for (int i = 0; i < 300; ++i) shuffled[static_cast<size_t>(i)] = (i * 7919) % 300;
    const Case cases[] = {
        {"ascending arrival", up, 3 * 2000},
        {"descending arrival", down, 3 * 2000},
        {"shuffled arrival", shuffled, 300 * 300},
    };
    for (const Case& c : cases) {
      TREE_RemoveKidNodes(root);
      TREE_ResetInsertHint();
      g_compares = 0;
      for (int k : c.keys) ASSERT_EQ(TREE_InsertSorted(root, Node("k", true, k), CompareKeys, 1), 1);
      EXPECT_LE(g_compares, c.max_compares) << c.what;
      int prev = -1, count = 0;
      for (TreeNode* n = root->first_kid; n; n = n->next, ++count) {
        EXPECT_LE(prev, D(n)->key) << c.what;
        prev = D(n)->key;
      }
      EXPECT_EQ(count, static_cast<int>(c.keys.size())) << c.what;
      EXPECT_EQ(TREE_EntriesVisible(w), count) << c.what;
    }
  });
}

TEST_F(Model, EqualKeysAndTheHintsDirection) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TREE_AppendNode(root, Node("a", true, 1));
    TREE_AppendNode(root, Node("b", true, 2));
    TreeNode* dup = Node("dup", true, 2);
    // Refused equal key: 0, and the node stays detached for the caller to free.
    EXPECT_EQ(TREE_InsertSorted(root, dup, CompareKeys, 0), 0);
    EXPECT_EQ(TREE_GetParent(dup), nullptr);
    EXPECT_EQ(root->kid_count, 2);
    TREE_DestroyNode(dup);
    EXPECT_EQ(dup, nullptr);
    // From the front, an equal key goes before the first equal one.
    TREE_ResetInsertHint();
    EXPECT_EQ(TREE_InsertSorted(root, Node("front", true, 2), CompareKeys, 1), 1);
    std::string order;
    for (TreeNode* n = root->first_kid; n; n = n->next) order += Name(n) + " ";
    EXPECT_EQ(order, "a front b ");
    // Position 1 of 3: the next search starts from the front still.
    EXPECT_TRUE(TREE_InsertHintFromFront());
    EXPECT_EQ(TREE_InsertSorted(root, Node("c", true, 3), CompareKeys, 1), 1);
    EXPECT_FALSE(TREE_InsertHintFromFront());  // appended: from the back next time
    // From the back, an equal key goes before the last equal one it meets.
    EXPECT_EQ(TREE_InsertSorted(root, Node("back", true, 2), CompareKeys, 1), 1);
    order.clear();
    for (TreeNode* n = root->first_kid; n; n = n->next) order += Name(n) + " ";
    EXPECT_EQ(order, "a front back b c ");
  });
}

TreeSortKey KeyOf(void* data) {
  auto* d = static_cast<TestData*>(data);
  return TreeSortKey{d->key, {}, 0};
}

TEST_F(Model, ResortingIsStableAndKeepsTheLines) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* f = Add(root, "f", false);
    const std::pair<const char*, int> kids[] = {{"a", 2}, {"b", 1}, {"c", 2}, {"d", 1}, {"e", 3}};
    for (auto& [name, key] : kids) Add(f, name, false, key);
    Add(f->first_kid, "a.kid");
    TREE_OpenSubtree(f, 1, 0);
    TREE_OpenSubtree(f->first_kid, 1, 0);  // "a" lies open with a kid below it
    int lines = TREE_EntriesVisible(w);
    auto order = [&] {
      std::string out;
      for (TreeNode* n = f->first_kid; n; n = n->next) out += Name(n);
      return out;
    };
    struct Case {
      const char* what;
      std::function<void()> sort;
      const char* order;
    };
    const Case cases[] = {
        {"by compare", [&] { TREE_ResortTree(f, CompareKeys); }, "bdace"},
        {"by key, descending", [&] { TREE_ResortTreeByKey(f, KeyOf, true); }, "eacbd"},
        {"by key, ascending", [&] { TREE_ResortTreeByKey(f, KeyOf, false); }, "bdace"},
    };
    for (const Case& c : cases) {
      c.sort();
      EXPECT_EQ(order(), c.order) << c.what;
      EXPECT_EQ(TREE_EntriesVisible(w), lines) << c.what;
      EXPECT_EQ(TREE_VisibleCount(root) - 1, lines) << c.what;
    }
    EXPECT_EQ(Shown(w), (std::vector<std::string>{"f", "b", "d", "a", "a.kid", "c", "e"}));
    // A closed parent re-sorts without touching the lines.
    TREE_OpenSubtree(f, 0, 0);
    TREE_ResortTreeByKey(f, KeyOf, true);
    EXPECT_EQ(order(), "eacbd");
    EXPECT_EQ(TREE_EntriesVisible(w), 1);
  });
}

TEST_F(Model, MovingKidsToAContextWindow) {
  Run([&] {
    WINDOW org = MakeTree();
    WINDOW ctx = MakeTree();
    TreeNode* f = Add(TREE_GetRoot(org), "f", false);
    for (int i = 0; i < 4; ++i) Add(f, "m" + std::to_string(i));
    Add(f->first_kid, "deep");
    TREE_OpenSubtree(f, 1, 0);
    Click(org, f->first_kid->next);
    ASSERT_EQ(TREE_EntriesVisible(org), 5);
    TreeNode* to = TREE_GetRoot(ctx);
    TREE_MoveKids(to, f);
    EXPECT_EQ(TREE_EntriesVisible(org), 1);
    EXPECT_EQ(TREE_EntriesVisible(ctx), 4);
    EXPECT_EQ(Shown(ctx), (std::vector<std::string>{"m0", "m1", "m2", "m3"}));
    EXPECT_EQ(Shown(org), (std::vector<std::string>{"f"}));
    EXPECT_EQ(TREE_GetSelectionCount(f), 0);
    EXPECT_EQ(f->kid_count, 0);
    EXPECT_EQ(to->kid_count, 4);
    for (TreeNode* n = to->first_kid; n; n = n->next) {
      EXPECT_EQ(TREE_GetWindow(n), ctx);
      EXPECT_EQ(TREE_GetParent(n), to);
      EXPECT_EQ(TREE_GetAbsOffset(n), 0);
    }
    EXPECT_EQ(TREE_GetWindow(to->first_kid->first_kid), ctx);
  });
}

TEST_F(Model, WalksAndSearch) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* a = Add(root, "a", false);
    TreeNode* a1 = Add(a, "a1");
    TreeNode* a2 = Add(a, "a2");
    TreeNode* b = Add(root, "b", false);
    TreeNode* b1 = Add(b, "b1");
    TREE_OpenSubtree(a, 1, 0);
    TREE_OpenSubtree(b, 1, 0);
    TREE_HideNode(a2, 1);
    std::string fwd, back;
    for (TreeNode* n = root->first_kid; n; n = TREE_NextNode(n)) fwd += Name(n) + " ";
    for (TreeNode* n = b1; n; n = TREE_PrevNode(n)) back += Name(n) + " ";
    EXPECT_EQ(fwd, "a a1 b b1 ");
    EXPECT_EQ(back, "b1 b a1 a ");
    EXPECT_EQ(TREE_NextSibling(a1), nullptr);
    EXPECT_EQ(TREE_FirstKid(b), b1);
    // The search walks one way only.
    TREE_SuspendUpdates(w);
    TreeNode* f = Add(root, "f", false);
    std::vector<TreeNode*> kids;
    for (int i = 0; i < 6; ++i) kids.push_back(Add(f, "k", true, i * 10));
    TREE_ResumeUpdates(w);
    // Above 0: the key lies further on. The same sign must come as the same value.
    auto walk = [&](int start, int key) {
      return TREE_SearchNode(kids[static_cast<size_t>(start)], &key, [](TreeNode* n, void* k) {
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
    for (auto& e : g_events)
      if (e.rfind("destroy", 0) == 0) destroyed.push_back(e);
    EXPECT_EQ(destroyed, (std::vector<std::string>{"destroy s", "destroy f", "destroy m"}));
  });
}

}  // namespace
}  // namespace treetest
