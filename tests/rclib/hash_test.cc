#include <map>
#include <string>

#include "rclib/dshash.h"
#include "tests/rclib/rclib_fixture.h"

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
