#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "isam/flen3/lio.h"
#include "isam/vlen3/vl.h"
#include "tests/isam/isam_fixture.h"

namespace {

class VlTest : public IsamDirTest {
 protected:
  VlFile* make(int min = 0, int max = 0, int grain = 0, int stash = 32) {
    VlFile* f = vlCreat(path("v").c_str(), min, max, grain, stash);
    EXPECT_NE(f, nullptr);
    return f;
  }
  // Where record n's slot stands in the store, as the flushed map says.
  uint32_t entry_offset(VlFile* f, int n) {
    EXPECT_EQ(vlFlush(f), 0);
    auto b = bytes(path("v.mp"));
    return u32(b, u32(b, 40) + static_cast<size_t>(n - 1) * 8);
  }
};

TEST(VlSizes, DefaultsAndRounding) {
  struct {
    int min, max, grain;
    int want_min, want_max, want_grain;
  } cases[] = {
      {0, 0, 0, 20, 10000, 10},         // min 11 raised to a multiple of the grain
      {8, 500, 10, 20, 500, 10},        // below 9 selects the default
      {9, 500, 10, 10, 500, 10},        // below the grain goes to the grain
      {410, 60414, 25, 425, 10000, 25}, // a max over 30000 selects 10000
      {40, 30, 8, 40, 10000, 8},        // a max under min too
      {40, 1001, 8, 40, 1008, 8},       // max rounds like a record size
      {100, 5000, 2000, 100, 5000, 10}, // a grain over 1024 selects 10
  };
  for (const auto& c : cases) {
    int min = c.min, max = c.max, grain = c.grain;
    vlSizes(&min, &max, &grain);
    EXPECT_EQ(min, c.want_min) << c.min << "/" << c.max << "/" << c.grain;
    EXPECT_EQ(max, c.want_max) << c.min << "/" << c.max << "/" << c.grain;
    EXPECT_EQ(grain, c.want_grain) << c.min << "/" << c.max << "/" << c.grain;
  }
  VlHead h;
  h.min = 20, h.max = 10000, h.grain = 10;
  // Data length -> slot: the 2-byte size word counts, small ones take min.
  int slots[][2] = {{0, 20}, {18, 20}, {19, 30}, {28, 30}, {29, 40}, {9998, 10000}};
  for (auto& s : slots) EXPECT_EQ(vlRound(h, s[0]), s[1]) << s[0];
}

TEST_F(VlTest, FileBytesStandAtTheDocumentedOffsets) {
  VlFile* f = make(30, 100, 10, 32);
  ASSERT_EQ(vlWStash(f, "stash", 5), 5);
  ASSERT_EQ(vlAvl(f), 1);
  ASSERT_EQ(vlWrite(f, 1, "hello", 5), 5);
  ASSERT_EQ(vlClose(f), 0);
  auto mp = bytes(path("v.mp")), st = bytes(path("v.st"));
  int map_start = ((100 - 30) / 10 + 1) * 4 + 300;
  ASSERT_EQ(mp.size(), static_cast<size_t>(map_start) + 8);
  // The eof stands behind one slot of the smallest class; the map entry holds
  // the slot's offset in the store and its exact size, the size word included.
  expect_fields(mp, {{0, 4, 310}, {4, 4, 1}, {16, 4, 6 + 32 + 30}, {24, 2, 42}, {32, 2, 30},
                     {34, 2, 100}, {36, 2, 10}, {40, 4, static_cast<uint32_t>(map_start)},
                     {44, 2, 32}, {static_cast<size_t>(map_start), 4, 38},
                     {static_cast<size_t>(map_start) + 4, 4, 7}});
  // The store: sizes, stash, then the slot's rounded size and its data.
  expect_fields(st, {{0, 2, 30}, {2, 2, 100}, {4, 2, 10}, {38, 2, 30}});
  EXPECT_EQ(std::string(st.begin() + 6, st.begin() + 11), "stash");
  EXPECT_EQ(std::string(st.begin() + 40, st.begin() + 45), "hello");
}

TEST_F(VlTest, RewritesKeepOrMoveSlotsAndReuseOnlyTheExactClass) {
  VlFile* f = make(20, 1000, 10);
  char data[200];
  std::memset(data, 'x', sizeof data);
  ASSERT_EQ(vlAvl(f), 1);
  ASSERT_EQ(vlWrite(f, 1, data, 50), 50);
  uint32_t first = entry_offset(f, 1);
  // The same length stays in its slot.
  ASSERT_EQ(vlWrite(f, 1, data, 50), 50);
  EXPECT_EQ(entry_offset(f, 1), first);
  // One byte longer moves, even within the class (52 and 53 both take 60),
  // and the old slot goes on its class list.
  ASSERT_EQ(vlWrite(f, 1, data, 51), 51);
  EXPECT_NE(entry_offset(f, 1), first);
  VlStats s;
  ASSERT_EQ(vlStats(f, &s), 0);
  EXPECT_EQ(s.heap, 60);
  // Another class does not take the freed slot; the exact class does.
  ASSERT_EQ(vlAvl(f), 2);
  ASSERT_EQ(vlWrite(f, 2, data, 100), 100);
  EXPECT_NE(entry_offset(f, 2), first);
  ASSERT_EQ(vlAvl(f), 3);
  ASSERT_EQ(vlWrite(f, 3, data, 55), 55);
  EXPECT_EQ(entry_offset(f, 3), first);
  ASSERT_EQ(vlStats(f, &s), 0);
  EXPECT_EQ(s.heap, 0);
  // A record too long for max fails and changes nothing.
  EXPECT_EQ(vlWrite(f, 3, data, 999), -1);
  char back[200];
  EXPECT_EQ(vlRead(f, 3, back, sizeof back), 55);
  EXPECT_EQ(vlRead(f, 3, nullptr, 0), 55);
  EXPECT_EQ(vlRead(f, 3, back, 10), 55);  // the limit bounds the copy, not the answer
  ASSERT_EQ(vlClose(f), 0);
}

TEST_F(VlTest, FreedNumbersReadAsNothingAndComeBack) {
  VlFile* f = make();
  for (int n = 1; n <= 3; ++n) {
    ASSERT_EQ(vlAvl(f), n);
    ASSERT_EQ(vlWrite(f, n, "abcdef", n), n);
  }
  EXPECT_EQ(vlFree(f, 2), 2);
  EXPECT_EQ(vlRead(f, 2, nullptr, 0), 0);
  EXPECT_EQ(vlFree(f, 2), 0);  // twice is nothing, and no loop
  EXPECT_EQ(vlRead(f, 0, nullptr, 0), 0);
  EXPECT_EQ(vlRead(f, 4, nullptr, 0), 0);
  EXPECT_EQ(vlFree(f, 9), 0);
  EXPECT_EQ(vlAvl(f), 2);
  EXPECT_EQ(vlAvl(f), 4);
  char back[8] = {};
  EXPECT_EQ(vlRead(f, 3, back, sizeof back), 3);
  EXPECT_STREQ(back, "abc");
  ASSERT_EQ(vlClose(f), 0);
}

TEST_F(VlTest, HeapCountBelowItsSlotsIsReportedAndSurvived) {
  VlFile* f = make();
  ASSERT_EQ(vlAvl(f), 1);
  ASSERT_EQ(vlWrite(f, 1, "0123456789", 10), 10);
  ASSERT_EQ(vlFree(f, 1), 10);
  f->h.heap = 5;  // as a damaged file would say
  testing::internal::CaptureStderr();
  ASSERT_EQ(vlAvl(f), 1);
  ASSERT_EQ(vlWrite(f, 1, "0123456789", 10), 10);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Weirdness has occurred in delete heap count\n\a");
  EXPECT_EQ(f->h.heap, 0);
  ASSERT_EQ(vlClose(f), 0);
}

TEST_F(VlTest, StateLeftOpenAndDamageAreCaught) {
  VlFile* f = make();
  for (int n = 1; n <= 3; ++n) {
    ASSERT_EQ(vlAvl(f), n);
    ASSERT_EQ(vlWrite(f, n, "record", 6), 6);
  }
  ASSERT_EQ(vlFree(f, 2), 6);
  ASSERT_EQ(vlClose(f), 0);
  const auto mp = bytes(path("v.mp")), st = bytes(path("v.st"));
  uint32_t map_start = u32(mp, 40);
  struct Case {
    const char* what;
    std::function<void(std::vector<uint8_t>&, std::vector<uint8_t>&)> damage;
    bool opens;
    int error;
  } cases[] = {
      {"left open", [](auto& m, auto&) { set16(m, 24, 38); }, true, kIsCorrupt},
      {"wrong magic", [](auto& m, auto&) { set32(m, 0, 0); }, false, kIsVersion},
      {"short map", [](auto& m, auto&) { m.resize(100); }, false, 237},
      {"huge record count", [](auto& m, auto&) { set32(m, 4, 0x10000000); }, false, kIsCorrupt},
      {"eof past the store", [](auto& m, auto&) { set32(m, 16, 1u << 30); }, false, kIsCorrupt},
      {"grain zero", [](auto& m, auto&) { set16(m, 36, 0); }, false, kIsCorrupt},
      {"store sizes differ", [](auto&, auto& s) { set16(s, 0, 30); }, false, kIsCorrupt},
      {"class head past end", [](auto& m, auto&) { set32(m, 300, 1u << 30); }, false, kIsCorrupt},
      {"slot past end", [map_start](auto& m, auto&) { set32(m, map_start, 1u << 30); }, true, kIsCorrupt},
      {"free list into a live record",
       [map_start](auto& m, auto&) { set32(m, map_start + 8, 3), set32(m, 12, 2); }, true, kIsCorrupt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto m = mp, s = st;
    c.damage(m, s);
    write_bytes(path("v.mp"), m);
    write_bytes(path("v.st"), s);
    isam_error_clear();
    VlFile* g = vlOpen(path("v").c_str(), kModeReadWrite);
    EXPECT_EQ(g != nullptr, c.opens);
    if (g) {
      bool read_only = g->mode & kModeReadOnly;
      if (!read_only) {
        int errors = 0;
        for (int n = 1; n <= 3; ++n) errors += vlRead(g, n, nullptr, 0) == -1;
        for (int i = 0; i < 3; ++i) errors += vlAvl(g) == -1;
        EXPECT_GT(errors, 0);
      } else {
        EXPECT_EQ(vlWrite(g, 1, "x", 1), -1);
        EXPECT_EQ(vlRead(g, 1, nullptr, 0), 6);
      }
      vlClose(g);
    }
    EXPECT_TRUE(has_error(c.error));
  }
}

}  // namespace
