// The containers: lists, the trees whose children they hold, and hash tables; and the debugging
// aids: trace topics (kept in a list) and the trace of each allocation.
#include <cstdio>
#include <cstring>
#include <map>
#include <regex>
#include <string>

#include "rclib/dshash.h"
#include "rclib/dstree.h"
#include "rclib/rcdebug.h"
#include "tests/rclib/rclib_fixture.h"

using Values = std::vector<intptr_t>;

class ListTest : public RclibTest {};

TEST_F(ListTest, EditsKeepBothLinksAndTheCount) {
  LIST_HDR* list = make_list({2, 4});
  dsl_prepend(list, V(1));
  dsl_insert_before(list, nth_cell(list, 2), V(3));  // before 4
  dsl_insert_before(list, nullptr, V(0));            // null: the head
  EXPECT_EQ(values_of(list), (Values{0, 1, 2, 3, 4}));
  EXPECT_EQ(dsl_value(dsl_step(list, dsl_last(list), -4)), V(0));
  EXPECT_EQ(dsl_pop_first(list), V(0));
  CELL* cell = nth_cell(list, 3);
  EXPECT_EQ(dsl_delete_cell(list, &cell, RC_FAIL), nullptr);  // the tail: no next
  cell = dsl_first(list);
  EXPECT_EQ(dsl_value(dsl_delete_cell(list, &cell, RC_FAIL)), V(2));
  CELL* unlinked = dsl_unlink_cell(list, nth_cell(list, 1));
  EXPECT_EQ(dsl_unlink_cell_rc(list, unlinked), RC_FAIL);  // no longer linked: refused
  EXPECT_EQ(values_of(list), (Values{2}));
  RC_GIVE(CELLPTR, unlinked);
  dsl_destroy(&list, RC_FAIL);
  EXPECT_EQ(dsl_is_empty(nullptr), RC_OK);  // a null list reads as empty
}

// before: -3 split there, -2 concat, -1 splice into an empty list, else splice before that cell.
TEST_F(ListTest, ConcatSpliceAndSplitMoveEveryCell) {
  struct Case { Values target; int at; Values other, joined; };
  const Case cases[] = {
      {{1, 2}, -2, {3, 4}, {1, 2, 3, 4}},        {{}, -2, {1}, {1}},
      {{1, 2, 3}, 1, {7, 8}, {1, 7, 8, 2, 3}},   {{1, 2}, 0, {7, 8}, {7, 8, 1, 2}},
      {{1, 2}, 1, {}, {1, 2}},                   {{}, -1, {7, 8}, {7, 8}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "at " << c.at << " of " << c.target.size());
    LIST_HDR* target = make_list(c.target);
    LIST_HDR* other = make_list(c.other);
    CELL* before = c.at < 0 ? nullptr : nth_cell(target, c.at);
    EXPECT_EQ(c.at == -2 ? dsl_concat(target, &other) : dsl_splice_before(target, before, &other), RC_OK);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(values_of(target), c.joined);
    EXPECT_EQ(dsl_concat(target, &target), RC_FAIL);
    dsl_destroy(&target, RC_FAIL);
  }
  struct Split { Values whole; int at; Values kept, moved; };  // kept gets 9 appended, moved 0 prepended
  for (const Split& c : {Split{{1, 2, 3, 4, 5}, 2, {1, 2, 9}, {0, 3, 4, 5}}, Split{{1}, 0, {9}, {0, 1}}}) {
    LIST_HDR* list = make_list(c.whole);
    LIST_HDR* out = nullptr;
    ASSERT_EQ(dsl_split_at(list, nth_cell(list, c.at), &out), RC_OK);
    dsl_append(list, V(9));  // both halves stay usable at their ends
    dsl_prepend(out, V(0));
    EXPECT_EQ(values_of(list), c.kept);
    EXPECT_EQ(values_of(out), c.moved);
    dsl_destroy(&list, RC_FAIL);
    dsl_destroy(&out, RC_FAIL);
  }
  LIST_HDR* list = make_list({1, 2});
  LIST_HDR* other = make_list({3});
  LIST_HDR* out = nullptr;
  EXPECT_EQ(dsl_split_at(list, dsl_first(other), &out), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNotFound);
  EXPECT_EQ(values_of(list), (Values{1, 2}));
  dsl_destroy(&list, RC_FAIL);
  dsl_destroy(&other, RC_FAIL);
}

TEST_F(ListTest, CopyFailsWithoutLeavingCells) {
  LIST_HDR* list = make_list({1, 2, 3});
  LIST_HDR* copy = dsl_copy(list);
  EXPECT_EQ(values_of(copy), (Values{1, 2, 3}));
  dsl_destroy(&copy, RC_FAIL);
  fail_allocations_after(2);  // the header and one cell
  testing::internal::CaptureStderr();
  EXPECT_EQ(dsl_copy(list), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to allocate data type RC_BYTE\n");
  rc_hmem_hook_reset_zget();
  dsl_destroy(&list, RC_FAIL);
}

TEST_F(ListTest, FindModesAndDump) {
  long words[] = {5, 7}, seven = 7, nine = 9;
  char alpha[] = "Alpha", beta[] = "beta", beta_again[] = "beta";
  LIST_HDR* numbers = make_list({reinterpret_cast<intptr_t>(&words[0]), reinterpret_cast<intptr_t>(&words[1])});
  LIST_HDR* strings = make_list({});
  for (char* s : {alpha, beta, beta_again}) dsl_append(strings, s);
  struct Case { LIST_HDR* list; const void* key; int mode; int want; };  // want: position, -1 none
  const Case cases[] = {
      {numbers, &seven, 11, 1},     {numbers, &nine, 11, -1},     {strings, "BETA", 13, 1},
      {strings, "gamma", 13, -1},   {strings, beta_again, 15, 2}, {strings, "beta", 16, -1},
  };
  for (const Case& c : cases)
    EXPECT_EQ(dsl_find(c.list, c.key, c.mode), c.want < 0 ? nullptr : nth_cell(c.list, c.want)) << c.mode;
  testing::internal::CaptureStdout();
  dsl_dump(strings);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Number of cells: 3\n\n\tcell (1): Alpha\n\tcell (2): beta\n\tcell (3): beta\n");
  dsl_destroy(&numbers, RC_FAIL);
  dsl_destroy(&strings, RC_FAIL);
}

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

class HashTest : public RclibTest {
 protected:
  static HASH_TABLE* table(int chains) {
    HASH_TABLE* t = nullptr;
    EXPECT_EQ(ht_create(chains, kHashFold, 1, &t), RC_OK);
    return t;
  }
};

TEST_F(HashTest, GoldenChains) {
  struct Case { const char* key; int id, chains, chain; };
  const Case cases[] = {
      {"zbc", 1, 100, 97},    // 'b' + 'c' = 197: the first character never counts
      {"a", 1, 100, 0},       {"a", 2, 1000, 98},  // 0 + 'a' + 1
      {"abc", 2, 1000, 190},  // ('b' << 8) + 'c' + 3 = 25190
      // The CRC-16 check value 0xBB3D of "123456789" & 0x7FFF, behind a first character that is skipped.
      {"x123456789", 3, 32768, 0x3B3D},
      {"Q123456789", 3, 1000, 0x3B3D % 1000}, {"z", 3, 1000, 0},
      {"", 4, 200, 1},  // nothing after the first character: the default
      {"abc", 4, 200, 67},  // 99 + 98 * 16 = 1667
      // 97, 1650, 26499 = 0x6783 folds to 0x783 ^ 6 = 1925, 100 + 1925 * 16 = 0x78B4 folds to 0x8B4 ^ 7 = 2227.
      {"xabcd", 4, 200, 27},
      {"a\xe9", 4, 200, 70},  // signed: -23 is 0x...FFE9, folds to 0xFE9 ^ 0xF = 4070
      {"a", 4, 1, 0},         // a table of one chain has no chain 1
  };
  for (const Case& c : cases) {
    int chain = -5;
    EXPECT_EQ(ht_hash_symbol(c.key, c.id, c.chains, &chain), RC_OK);
    EXPECT_EQ(chain, c.chain) << '"' << c.key << "\" id " << c.id;
  }
}

TEST_F(HashTest, BadChainsUnknownIdsAndNoChainsAreRefused) {
  int chain = -5;
  HASH_TABLE* t = nullptr;
  testing::internal::CaptureStderr();
  EXPECT_EQ(ht_hash_symbol("x\xe9", 1, 100, &chain), RC_OK);  // -23 % 100 is negative
  EXPECT_EQ(chain, 1);
  EXPECT_EQ(ht_hash_symbol("abc", 9, 100, &chain), RC_FAIL);
  EXPECT_EQ(ht_create(10, 7, 1, &t), RC_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Bad chain_id for key 'x\xe9', setting id = 1. -23\n"
            "Unknown hash function id.  9\nUnknown hash function id.  7\n");
  EXPECT_EQ(ht_create(0, kHashFold, 1, &t), RC_FAIL);
  EXPECT_EQ(t, nullptr);
}

TEST_F(HashTest, NewestPutShadowsUntilDeleted) {
  HASH_TABLE* t = table(200);
  long before = rc_mem_outstanding;
  int older = 1, newer = 2;
  ht_put(t, "Editor.Tab", 10, &older);
  ht_put(t, "Editor.Tab", 20, &newer);
  EXPECT_EQ(rc_mem_outstanding - before, 4);  // two cells, two private keys
  long value = 0;
  void* ptr = nullptr;
  EXPECT_EQ(ht_get(t, "Editor.Tab", &value, &ptr), RC_OK);
  EXPECT_EQ(ptr, &newer);
  EXPECT_EQ(ht_get(t, "Editor.Ta", nullptr, nullptr), RC_FAIL);  // same bytes, shorter

  HASH_CELL* cell = nullptr;
  EXPECT_EQ(ht_delete(t, "Editor.Tab", &cell), RC_OK);
  ASSERT_NE(cell, nullptr);
  EXPECT_EQ(cell->int_val, 20);
  EXPECT_EQ(cell->next, nullptr);
  ht_free_cell(&cell);
  EXPECT_EQ(ht_get(t, "Editor.Tab", &value, nullptr), RC_OK);
  EXPECT_EQ(value, 10);

  EXPECT_EQ(ht_delete(t, "Editor.Tab", nullptr), RC_OK);  // released here
  EXPECT_EQ(ht_get(t, "Editor.Tab", &value, &ptr), RC_FAIL);
  EXPECT_EQ(value, 10);  // outputs untouched on failure
  EXPECT_EQ(ht_delete(t, "Editor.Tab", &cell), RC_OK);
  EXPECT_EQ(cell, nullptr);
  EXPECT_EQ(ht_free_body(t), RC_OK);
  EXPECT_EQ(ht_get_first(t, nullptr, nullptr, nullptr), RC_FAIL);
  EXPECT_EQ(ht_put(t, "again", 1, nullptr), RC_OK);  // still usable
  EXPECT_EQ(ht_destroy(&t), RC_OK);
  EXPECT_EQ(t, nullptr);
}

TEST_F(HashTest, IterationVisitsEachCellOnceEvenWhileDeleting) {
  HASH_TABLE* t = table(7);
  std::map<std::string, long> want;
  for (long i = 0; i < 40; ++i) {
    std::string key = "Opt." + std::to_string(i * 37);
    ht_put(t, key.c_str(), i, nullptr);
    want[key] = i;
  }
  for (bool deleting : {false, true}) {
    SCOPED_TRACE(deleting ? "deleting" : "reading");
    std::map<std::string, long> seen;
    int last_chain = 0;
    char* key = nullptr;
    long value = 0;
    for (int rc = ht_get_first(t, &key, &value, nullptr); rc == RC_OK; rc = ht_get_next(t, &key, &value, nullptr)) {
      EXPECT_GE(t->iter_chain, last_chain) << "went back a chain";
      last_chain = t->iter_chain;
      EXPECT_TRUE(seen.emplace(key, value).second) << "visited twice: " << key;
      // Every other cell, so both chain heads and later cells go.
      if (deleting && value % 2 == 0) ht_delete(t, std::string(key).c_str(), nullptr);
    }
    EXPECT_EQ(seen, want);
    EXPECT_EQ(t->iter_chain, 0);
    EXPECT_EQ(ht_get_next(t, &key, nullptr, nullptr), RC_FAIL);  // stays at the end
  }
  int left = 0;
  for (int rc = ht_get_first(t, nullptr, nullptr, nullptr); rc == RC_OK; rc = ht_get_next(t, nullptr, nullptr, nullptr))
    ++left;
  EXPECT_EQ(left, 20);
  ht_destroy(&t);
}

TEST_F(HashTest, PutWithoutMemoryLeavesNothingBehind) {
  HASH_TABLE* t = table(10);
  fail_allocations_after(1);  // the cell, not its key
  testing::internal::CaptureStderr();
  EXPECT_EQ(ht_put(t, "key", 1, nullptr), RC_FAIL);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to allocate data type ACHR\n");
  EXPECT_EQ(t->items, 0);
  ht_destroy(&t);
}

class DebugTest : public ScratchTest {
 protected:
  void TearDown() override {
    rc_debug_term();
    ScratchTest::TearDown();
  }
};

TEST_F(DebugTest, TopicLevelRules) {
  struct Case { const char* name; std::vector<int> add, remove; int ask, answer; };
  const Case cases[] = {
      {"lower level asked", {2321}, {}, 2320, 1},
      {"higher level asked", {2320}, {}, 2323, 0},
      {"level 9 stored as 3", {2329}, {}, 2323, 1},
      {"level 9 asked as 3", {2323}, {}, 2329, 1},
      {"other topic", {2321}, {}, 2331, 0},
      {"removed", {2321}, {2321}, 2321, 0},
      {"remove takes the exact level", {2321, 2323}, {2321}, 2322, 1},
      {"remove caps the level too", {2329}, {2325}, 2320, 0},
      {"a duplicate is stored once", {2011, 2011}, {2011}, 2010, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(rc_debug_init(), RC_OK);
    for (int code : c.add) EXPECT_EQ(rc_debug_add(code), RC_OK);
    for (int code : c.remove) EXPECT_EQ(rc_debug_remove(code), RC_OK);
    EXPECT_EQ(rc_debug_test(c.ask), c.answer);
    EXPECT_EQ(rc_debug_term(), RC_OK);
  }
  // Without init: nothing is set, and an add makes the list on demand.
  EXPECT_EQ(rc_debug_test(2010), 0);
  EXPECT_EQ(rc_debug_add(2011), RC_OK);
  EXPECT_EQ(rc_debug_test(2010), 1);
  rc_errno = 0;
  EXPECT_EQ(rc_debug_remove(2012), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNotFound);
  EXPECT_EQ(rc_debug_add(-1), RC_FAIL);
}

TEST_F(DebugTest, TrickleTraceFollowsTheTopics) {
  const std::string path = file("trickle.out", "");
  rc_debug_set_file(path.c_str());
  EXPECT_EQ(rc_debug_trace(2011, "not wanted %d\n", 1), RC_FAIL);
  rc_debug_add(2012);
  EXPECT_EQ(rc_debug_trace(2011, "wanted %d\n", 2), RC_OK);
  EXPECT_EQ(rc_debug_trace(2013, "too detailed\n"), RC_FAIL);
  EXPECT_EQ(ReadFile(path), "wanted 2\n");
  std::ofstream(path, std::ios::app) << std::string(kTrickleLimit, 'x');
  EXPECT_EQ(rc_debug_trace(2011, "past the limit\n"), RC_FAIL);
  EXPECT_EQ(ReadFile(path).size(), 9u + kTrickleLimit);
  rc_debug_set_file(nullptr);
}

class MemoryTest : public RclibTest {};

TEST_F(MemoryTest, TraceLinesFollowEachAllocationAndRelease) {
  FILE* trace = std::tmpfile();
  ASSERT_NE(trace, nullptr);
  rc_mem_trace_stream = trace;
  long before = rc_mem_outstanding;
  LIST_HDR* list = nullptr;
  dsl_create(&list);
  EXPECT_EQ(rc_mem_outstanding, before + 1);
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<void*>(list));
  dsl_destroy(&list, RC_FAIL);
  rc_mem_trace_stream = nullptr;
  EXPECT_EQ(rc_mem_trace("dropped %d\n", 1), RC_OK);

  std::string text(4096, '\0');
  std::rewind(trace);
  text.resize(std::fread(text.data(), 1, text.size(), trace));
  std::fclose(trace);
  // The type name is padded to 15 columns and the line number to 5.
  const std::string pattern = std::string("^") + std::to_string(sizeof(LIST_HDR)) + " bytes at " + address +
                              " alloc LIST_HDR        Line +[0-9]+ File [^\n]*dsllist\\.cc\n" + address +
                              " free  LIST_HDR        Line +[0-9]+ File [^\n]*dsllist\\.cc\n$";
  EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
}

TEST_F(MemoryTest, HooksResetToDefaultsAndResizeKeepsOneBlock) {
  rc_hmem_zget_proc = budget_zget;
  EXPECT_EQ(rc_hmem_hook_reset_zget(), budget_zget);
  EXPECT_EQ(rc_hmem_zget_proc, rc_hmem_zget_proc_default);
  rc_hmem_give_proc = nullptr;  // filled on first use
  rc_hmem_hook_reset_resize();

  long live = rc_hmem_live_blocks;
  char* block = static_cast<char*>(rc_hmem_zget("ACHR", 4));
  block = static_cast<char*>(rc_hmem_resize("ACHR", block, 4000));
  block[3999] = 'x';
  rc_hmem_give("ACHR", block);
  rc_hmem_give("ACHR", nullptr);
  EXPECT_EQ(rc_hmem_live_blocks, live);
  EXPECT_EQ(rc_hmem_give_proc, rc_hmem_give_proc_default);
}
