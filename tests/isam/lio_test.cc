#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <functional>

#include "isam/flen3/lio.h"
#include "tests/isam/isam_fixture.h"

namespace {

class LioTest : public IsamDirTest {};

TEST(LioOrder, LargestOrderBelowTwelveWithinTheNodeLimit) {
  struct {
    int key_len;
    bool dup;
    int order;
  } cases[] = {{200, false, 4}, {200, true, 4}, {256, true, 4}, {100, false, 8},
               {96, true, 8},   {1, false, 11}, {40, false, 11}, {70, false, 11}, {80, false, 10}};
  for (const auto& c : cases) EXPECT_EQ(lioChooseOrder(c.key_len, c.dup), c.order) << c.key_len << " " << c.dup;
}

TEST_F(LioTest, DataFileBytesStandAtTheDocumentedOffsets) {
  std::string name = path("d.dt");
  LioFile* f = lioCreat(name.c_str(), 20, kLioData, 16, 1);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(lioWStash(f, "user area bytes", 16), 16);
  uint8_t rec[20];
  for (int n = 1; n <= 3; ++n) {
    std::memset(rec, 'a' + n, sizeof rec);
    ASSERT_EQ(lioAvl(f), n);
    ASSERT_EQ(lioWrite(f, n, rec), 20);
  }
  ASSERT_EQ(lioFree(f, 2), 0);
  ASSERT_EQ(lioClose(f), 0);

  auto b = bytes(name);
  ASSERT_EQ(b.size(), 312u + 16 + 3 * 20);
  // Magic, header size, one index, eof, stash, closed state, kind; two records
  // in use, one free at the head of the list; order and record length.
  expect_fields(b, {{0, 4, 310}, {4, 4, 312}, {8, 4, 1}, {12, 4, 312 + 16}, {16, 2, 16},
                    {18, 2, 42}, {20, 2, 1}, {24, 4, 2}, {28, 4, 1}, {32, 4, 2}, {54, 2, 6},
                    {58, 2, 20}, {312 + 16 + 20 + 5, 4, 0}, {312 + 16 + 2 * 20, 1, 'a' + 3}});
  EXPECT_EQ(std::string(b.begin() + 312, b.begin() + 312 + 15), "user area bytes");
  for (size_t i = 62; i < 312; ++i) ASSERT_EQ(b[i], 0) << i;
  struct stat st;
  ASSERT_EQ(stat(name.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // The freed number comes back first, then the file grows.
  f = lioOpen(name.c_str(), kModeReadWrite);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(lioAvl(f), 2);
  EXPECT_EQ(lioAvl(f), 4);
  ASSERT_EQ(lioRead(f, 3, rec), 20);
  EXPECT_EQ(rec[0], 'a' + 3);
  EXPECT_EQ(lioRead(f, 9, rec), -1);
  EXPECT_EQ(isam_last_error(), kIsBadRecord);
  ASSERT_EQ(lioClose(f), 0);
}

TEST_F(LioTest, IndexNodesStandAtTheDocumentedOffsets) {
  std::string name = path("i.nx");
  LioFile* f = lioCreat(name.c_str(), 0, kLioIndex, 0, 2);
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(lioInxCreat(f, 8, kKeyString), 0);
  ASSERT_EQ(lioInxCreat(f, 4, kKeyInt32 | kKeyDuplicates | kKeyDescending), 1);
  uint8_t key[8] = {'k', 'e', 'y', 0, 0, 0, 0, 0};
  ASSERT_EQ(lioInsert(f, 0, key, 7), 0);
  uint8_t dkey[8] = {5, 0, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(lioInsert(f, 1, dkey, 9), 0);
  ASSERT_EQ(lioClose(f), 0);

  auto b = bytes(name);
  uint32_t root = u32(b, 40), root1 = u32(b, 312 + 40);
  // The second index: duplicates add 4 bytes of serial, descending order.
  expect_fields(b, {{4, 4, 624}, {8, 4, 2}, {20, 2, 10}, {52, 2, 8}, {56, 2, 11},
                    {58, 2, (8 + 8) * 11 * 2 + 6}, {40, 4, 624}, {312 + 44, 4, 1},
                    {312 + 48, 2, 1}, {312 + 50, 2, 0xFFFF}, {312 + 52, 2, 8}});
  // Each root: one key, a leaf, the key, then the record or the serial.
  expect_fields(b, {{root, 1, 1}, {root + 1, 4, 0}, {root + 5 + 8 + 4, 4, 7}, {root1 + 5, 4, 5},
                    {root1 + 5 + 4, 4, 1}});
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[root + 5])), "key");
}

TEST_F(LioTest, NonRegularFilesAreRefusedWithoutWaiting) {
  std::string fifo = path("fifo.dt");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(lioOpen(fifo.c_str(), kModeReadOnly), nullptr);
  std::filesystem::create_directory(path("dir.dt"));
  EXPECT_EQ(lioOpen(path("dir.dt").c_str(), kModeReadOnly), nullptr);
  EXPECT_EQ(lioOpen(path("none.dt").c_str(), kModeReadOnly), nullptr);
  EXPECT_EQ(isam_last_error(), 126);
}

// Each damage to a small index or data file gives an error, never a crash
// or a hang, and walking what opens stops with an error.
TEST_F(LioTest, DamagedFilesGiveErrors) {
  std::string data = path("d.dt"), index = path("i.nx");
  LioFile* d = lioCreat(data.c_str(), 16, kLioData, 0, 1);
  ASSERT_NE(d, nullptr);
  for (int n = 1; n <= 4; ++n) ASSERT_EQ(lioAvl(d), n);
  ASSERT_EQ(lioFree(d, 2), 0);
  ASSERT_EQ(lioFree(d, 4), 0);
  ASSERT_EQ(lioClose(d), 0);
  int old = lioSetOrder(1);
  LioFile* x = lioCreat(index.c_str(), 0, kLioIndex, 0, 1);
  ASSERT_NE(x, nullptr);
  ASSERT_EQ(lioInxCreat(x, 4, kKeyInt32), 0);
  lioSetOrder(old);
  for (int k = 1; k <= 20; ++k) {
    uint8_t key[4];
    put32(key, static_cast<uint32_t>(k));
    ASSERT_EQ(lioInsert(x, 0, key, static_cast<uint32_t>(k)), 0);
  }
  ASSERT_EQ(lioCheck(x, 0), 0);
  ASSERT_EQ(lioClose(x), 0);
  const auto good_data = bytes(data), good_index = bytes(index);
  uint32_t root = u32(good_index, 40);
  uint32_t rec_len = u16(good_index, 58);

  struct Case {
    const char* what;
    bool on_index;
    std::function<void(std::vector<uint8_t>&)> damage;
    bool opens;
    int error;
  } cases[] = {
      {"truncated header", false, [](auto& b) { b.resize(100); }, false, 137},
      {"wrong magic", true, [](auto& b) { set32(b, 0, 311); }, false, kIsVersion},
      {"huge record count", false, [](auto& b) { set32(b, 24, 0x7FFFFFF0); }, false, kIsCorrupt},
      {"huge key count", true, [](auto& b) { set32(b, 36, 0x7FFFFFF0); }, false, kIsCorrupt},
      {"root past end", true, [](auto& b) { set32(b, 40, static_cast<uint32_t>(b.size()) + 4096); }, false,
       kIsCorrupt},
      {"eof past the file", true, [](auto& b) { set32(b, 12, static_cast<uint32_t>(b.size()) * 2); }, false,
       kIsCorrupt},
      {"order that does not fit the node", true, [](auto& b) { set16(b, 56, 7); }, false, kIsCorrupt},
      // Left open for change by a crash: it opens read-only and refuses to allocate.
      {"left open for change", false, [](auto& b) { set16(b, 18, 38); }, true, kIsReadOnly},
      {"looping free list", false, [](auto& b) { set32(b, 312 + 3 * 16 + 5, 4); }, true, kIsCorrupt},
      {"node count too big", true, [root](auto& b) { b[root] = 9; }, true, kIsCorrupt},
      {"child pointing at itself", true, [root](auto& b) { set32(b, root + 1, root); }, true, kIsCorrupt},
      {"node cut off", true, [root, rec_len](auto& b) { b.resize(root + rec_len / 2); }, false, kIsCorrupt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<uint8_t> b = c.on_index ? good_index : good_data;
    c.damage(b);
    std::string name = path(std::string("bad") + (c.on_index ? ".nx" : ".dt"));
    write_bytes(name, b);
    isam_error_clear();
    LioFile* f = lioOpen(name.c_str(), kModeReadWrite);
    EXPECT_EQ(f != nullptr, c.opens);
    if (!f) {
      EXPECT_TRUE(has_error(c.error));
      continue;
    }
    if (c.on_index) {
      uint8_t key[4];
      uint32_t r;
      int rc = lioFirst(f, 0, key, &r);
      int walked = 0;
      while (rc == 1 && walked++ < 100) rc = lioNext(f, 0, key, key, &r);
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(lioCheck(f, 0), -1);
    } else {
      // The free list 4 -> 4 must not hand out record 4 twice or loop.
      int got = 0;
      for (int i = 0; i < 5 && lioAvl(f) > 0; ++i) ++got;
      EXPECT_LE(got, 2);
    }
    EXPECT_TRUE(has_error(c.error));
    lioClose(f);
    if (c.error == kIsReadOnly) {
      EXPECT_EQ(bytes(name), b);  // nothing was written
    }
  }
}

}  // namespace
