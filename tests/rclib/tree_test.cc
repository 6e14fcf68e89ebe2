#include <cstring>
#include <string>

#include "rclib/dstree.h"
#include "tests/rclib/rclib_fixture.h"

class TreeTest : public RclibTest {
 protected:
  // A node whose data is a library-allocated copy of `text`.
  static MTREE_NODE* node(const std::string& text, long word = 0) {
    char* data = static_cast<char*>(RC_ALLOC(ACHR, text.size() + 1));
    std::strcpy(data, text.c_str());
    MTREE_NODE* n = nullptr;
    EXPECT_EQ(mtree_create(word, data, &n), RC_OK);
    return n;
  }
  static std::string walk(MTREE_NODE* parent, bool forward) {
    std::string out;
    for (MTREE_NODE* c = forward ? mtree_first_child(parent) : mtree_last_child(parent); c;
         c = forward ? mtree_next_child(parent, c) : mtree_prev_child(parent, c))
      out += static_cast<const char*>(c->data);
    return out;
  }
};

// Every node has the word 0, so all compare equal as strings: only the cursor keeps these walks exact. A child held
// from an earlier walk is found again by its bytes, without regard to case.
TEST_F(TreeTest, WalksAndRemovalsFollowTheCursor) {
  MTREE_NODE* root = node("root");
  for (const char* n : {"a", "b", "c", "d"}) mtree_add_child(root, node(n));
  mtree_add_child_first(root, node("z"));
  EXPECT_EQ(walk(root, true), "zabcd");
  EXPECT_EQ(walk(root, false), "dcbaz");
  MTREE_NODE* b = mtree_next_child(root, mtree_next_child(root, mtree_first_child(root)));
  EXPECT_EQ(mtree_remove_child(root, b), b);
  EXPECT_STREQ(static_cast<const char*>(static_cast<MTREE_NODE*>(root->cursor->value)->data), "c");
  EXPECT_EQ(walk(root, true) + walk(root, false), "zacddcaz");
  rc_errno = 0;
  EXPECT_EQ(mtree_remove_child(root, b), nullptr);  // no longer a child
  EXPECT_EQ(rc_errno, kRcErrNotFound);
  MTREE_NODE* d = mtree_last_child(root);
  EXPECT_EQ(mtree_remove_child(root, d), d);
  EXPECT_EQ(root->cursor, nullptr);  // nothing behind the old tail
  mtree_destroy(&b, RC_OK);
  mtree_destroy(&d, RC_OK);
  MTREE_NODE* kids[3];
  const long words[] = {'p', 'q', 'P'};
  for (int i = 0; i < 3; ++i) mtree_add_child(root, kids[i] = node(std::string(1, 'A' + i), words[i]));
  mtree_last_child(root);
  EXPECT_EQ(mtree_prev_child(root, kids[1]), kids[0]);  // q found by its bytes
  MTREE_NODE* stranger = node("s", 'x');
  rc_errno = 0;
  EXPECT_EQ(mtree_next_child(root, stranger), nullptr);
  EXPECT_EQ(rc_errno, kRcErrNotFound);
  mtree_destroy(&stranger, RC_OK);
  mtree_destroy(&root, RC_OK);
  EXPECT_EQ(root, nullptr);
  EXPECT_EQ(mtree_create(1, nullptr, &root), RC_FAIL);
}

TEST_F(TreeTest, DeepTreeIsDestroyedAndDumpIndentsFourBlanksPerLevel) {
  MTREE_NODE* root = node("root");
  MTREE_NODE* tip = root;
  for (int depth = 0; depth < 200000; ++depth) {
    MTREE_NODE* child = node("n");
    mtree_add_child(tip, child);
    if (depth % 1000 == 0) mtree_add_child(tip, node("side"));
    tip = child;
  }
  EXPECT_EQ(mtree_destroy(&root, RC_OK), RC_OK);

  root = node("root");
  MTREE_NODE* a = node("a");
  mtree_add_child(root, a);
  mtree_add_child(a, node("a1"));
  mtree_add_child(a, node("a2"));
  mtree_add_child(root, node("b"));
  testing::internal::CaptureStdout();
  mtree_dump(root, 0);
  mtree_dump(a, 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "root\n    a\n        a1\n        a2\n    b\n        a\n            a1\n            a2\n");
  mtree_destroy(&root, RC_OK);
}
