#include "isam/isamv3/isam.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/isam/isam_fixture.h"

namespace {

// The buffer's bytes as a record: a name at 0, an int32 at 40.
struct Rec {
  char* buf;
  void set(const char* name, int32_t id, const char* text = "") {
    std::memset(buf, 0, 64);
    std::strncpy(buf, name, 39);
    std::memcpy(buf + 40, &id, 4);
    std::strncpy(buf + 44, text, 19);
  }
  std::string name() const { return buf; }
  int32_t id() const {
    int32_t v;
    std::memcpy(&v, buf + 40, 4);
    return v;
  }
};

const int16_t kNameDupIdUnique[] = {0, 40, kKeyString | kKeyDuplicates, 40, 4, kKeyInt32, -1};

// One open file h_ and one buffer buf_, large enough for any record here;
// whatever a test leaves open is closed after it.
class IsamTest : public IsamDirTest {
 protected:
  void SetUp() override {
    IsamDirTest::SetUp();
    buf_ = bt3GetBuff(nullptr, 0xEBF0);
    ASSERT_NE(buf_, nullptr);
  }
  void TearDown() override {
    if (h_) bt3Close(h_);
    bt3FreeBuff(buf_);
    lioSetOrder(0);
    isamSetCompareHook(nullptr);
    IsamDirTest::TearDown();
  }
  // Makes a fixed-length file and opens it as h_.
  void make(const std::string& name, int rec_size, const int16_t* defs, int mode = kModeReadWrite) {
    ASSERT_EQ(bt3Creat(path(name).c_str(), rec_size, defs), 0);
    reopen(name, mode);
  }
  // Closes h_ (that must succeed) and opens name in its place.
  void reopen(const std::string& name, int mode = kModeReadWrite) {
    if (h_) {
      ASSERT_EQ(bt3Close(h_), 0);
    }
    h_ = bt3Open(path(name).c_str(), mode);
    ASSERT_NE(h_, nullptr) << isam_error_report();
  }
  // What get() takes from each record of a walk over the selected index.
  template <class F>
  auto walk(F get) {
    std::vector<decltype(get(buf_))> out;
    for (int rc = bt3Start(h_, buf_); rc > 0; rc = bt3Next(h_, buf_)) out.push_back(get(buf_));
    return out;
  }
  template <class T>
  static T at(const char* b, int offset) {
    T v;
    std::memcpy(&v, b + offset, sizeof v);
    return v;
  }
  static std::string text(const char* b) { return b; }
  static int32_t id_of(const char* b) { return at<int32_t>(b, 40); }
  ISAM* h_ = nullptr;
  char* buf_ = nullptr;
};

TEST(IsamKeys, DefinitionsAreCheckedAndPacked) {
  struct Case {
    const char* what;
    std::vector<int16_t> defs;
    int rec_size;
    int error;  // 0: accepted
    int keys, first_len;
  } cases[] = {
      {"plain string", {0, 200, 1, -1}, 700, 0, 1, 200},
      {"256 bytes", {0, 256, 1, -1}, 300, 0, 1, 256},
      {"257 bytes", {0, 257, 1, -1}, 300, kIsBadKeyDef, 0, 0},
      {"256 over two segments", {0, 200, 1, 210, 56, 32, -1}, 300, 0, 1, 256},
      {"257 over two segments", {0, 200, 1, 210, 57, 32, -1}, 300, kIsBadKeyDef, 0, 0},
      {"float", {0, 8, 2, -1}, 20, kIsFloat, 0, 0},
      {"empty key", {0, 0, 1, -1}, 20, kIsBadKeyDef, 0, 0},
      {"past the record", {10, 11, 1, -1}, 20, kIsBadKeyDef, 0, 0},
      {"negative offset", {-2, 4, 1, -1}, 20, kIsBadKeyDef, 0, 0},
      {"continuation first", {0, 4, 32, -1}, 20, kIsBadKeyDef, 0, 0},
      {"no key", {-1}, 20, kIsBadIndexCount, 0, 0},
      {"int16 length taken as 2", {0, 9, 3, -1}, 20, 0, 1, 2},
      {"int32 length taken as 4", {0, 1, 4 | 128, -1}, 20, 0, 1, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    isam_error_clear();
    std::vector<IsamKeyDef> keys;
    int rc = keyDefine(c.defs.data(), c.rec_size, &keys);
    if (c.error) {
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(isam_last_error(), c.error);
      continue;
    }
    ASSERT_EQ(rc, 0);
    ASSERT_EQ(static_cast<int>(keys.size()), c.keys);
    EXPECT_EQ(keys[0].part_len, c.first_len);
    std::vector<IsamKeyDef> back;
    auto packed = isamPackKeys(keys);
    ASSERT_EQ(isamUnpackKeys(packed.data(), static_cast<int>(packed.size()), &back), 0);
    ASSERT_EQ(back.size(), keys.size());
    EXPECT_EQ(back[0].segs, keys[0].segs);
    EXPECT_EQ(back[0].flags, keys[0].flags);
  }
  std::vector<int16_t> eleven;
  for (int i = 0; i < 11; ++i) eleven.insert(eleven.end(), {static_cast<int16_t>(i), 1, 1});
  eleven.push_back(-1);
  std::vector<IsamKeyDef> keys;
  EXPECT_EQ(keyDefine(eleven.data(), 20, &keys), -1);
  EXPECT_EQ(isam_last_error(), kIsBadIndexCount);
  eleven.erase(eleven.end() - 4, eleven.end() - 1);
  EXPECT_EQ(keyDefine(eleven.data(), 20, &keys), 0);
  EXPECT_EQ(keys.size(), 10u);
}

int ReverseHook(const uint8_t* a, const uint8_t* b, int len, int) {
  return -std::memcmp(a, b, static_cast<size_t>(len));
}

TEST_F(IsamTest, EachKeyTypeWalksInItsOrder) {
  // A key of none of the built-in types needs the compare hook.
  int16_t hooked[] = {0, 8, 9, -1};
  make("hook", 16, hooked);
  EXPECT_EQ(bt3Add(h_, buf_), -1);
  EXPECT_TRUE(has_error(kIsNoHook));
  EXPECT_EQ(h_->dt->heads[0].n_used, 0);
  isamSetCompareHook(ReverseHook);
  struct Case {
    const char* what;
    int16_t flags;
    std::vector<std::string> in;   // values, as the record's first bytes
    std::vector<std::string> out;  // the walk's order
  } cases[] = {
      {"C string", 1, {"b", "B", "a", "ab"}, {"B", "a", "ab", "b"}},
      {"descending C string", 1 | 64, {"b", "a", "c"}, {"c", "b", "a"}},
      {"case-blind with duplicates", 5 | 128, {"b", "A", "a", "B"}, {"A", "a", "b", "B"}},
      {"serial at head", 5 | 128 | 16, {"b", "A", "a", "B"}, {"A", "a", "b", "B"}},
      {"descending duplicates", 1 | 128 | 64, {"a", "b", "a"}, {"b", "a", "a"}},
      {"another type, by the hook", 9, {"a", "c", "b"}, {"c", "b", "a"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    int16_t defs[] = {0, 8, c.flags, -1};
    make("t" + std::to_string(c.flags), 16, defs);
    for (size_t i = 0; i < c.in.size(); ++i) {
      std::memset(buf_, 0, 16);
      std::memcpy(buf_, c.in[i].data(), c.in[i].size());
      buf_[10] = static_cast<char>('0' + i);
      ASSERT_GT(bt3Add(h_, buf_), 0);
    }
    EXPECT_EQ(walk(text), c.out);
    // Duplicates come back in the order they were added (newest first
    // when descending).
    if (c.flags & 128) {
      auto seq = walk([&c](const char* b) { return strcasecmp(b, c.out[1].c_str()) ? 0 : b[10]; });
      std::erase(seq, 0);
      if (c.flags & 64) std::reverse(seq.begin(), seq.end());
      EXPECT_GT(seq.size(), 1u);
      EXPECT_TRUE(std::is_sorted(seq.begin(), seq.end()));
    }
    EXPECT_EQ(bt3Check(h_, 0), 0);
  }
  // Integer keys compare as signed numbers, not as bytes.
  int16_t defs[] = {0, 2, 3, 2, 4, 4 | 64, -1};
  make("ints", 8, defs);
  for (int v : {300, -2, 7, -300, 0}) {
    int16_t a = static_cast<int16_t>(v);
    int32_t b = v * 1000;
    std::memcpy(buf_, &a, 2);
    std::memcpy(buf_ + 2, &b, 4);
    ASSERT_GT(bt3Add(h_, buf_), 0);
  }
  EXPECT_EQ(walk([](const char* b) { return at<int16_t>(b, 0); }),
            (std::vector<int16_t>{-300, -2, 0, 7, 300}));
  ASSERT_EQ(bt3Select(h_, 1), 0);
  EXPECT_EQ(walk([](const char* b) { return at<int32_t>(b, 2); }),
            (std::vector<int32_t>{300000, 7000, 0, -2000, -300000}));

  // A continuation segment decides when the first one ends in equal strings.
  int16_t two[] = {0, 4, 1, 8, 4, 32, -1};
  make("segments", 12, two);
  for (const char* tail : {"zz", "aa", "mm"}) {
    std::memset(buf_, 0, 12);
    std::memcpy(buf_, "ab", 2);
    std::memcpy(buf_ + 8, tail, 2);
    ASSERT_GT(bt3Add(h_, buf_), 0);
  }
  EXPECT_EQ(walk([](const char* b) { return std::string(b + 8, 2); }),
            (std::vector<std::string>{"aa", "mm", "zz"}));
  std::memcpy(buf_ + 8, "aa", 2);
  EXPECT_EQ(bt3Add(h_, buf_), -1);
}

// Three records: ("b", 10), ("d", 20), ("b", 30).
class FindTest : public IsamTest {
 protected:
  void SetUp() override {
    IsamTest::SetUp();
    make("find", 64, kNameDupIdUnique);
    Rec r{buf_};
    int32_t id = 10;
    for (const char* n : {"b", "d", "b"}) {
      r.set(n, id, n);
      ASSERT_GT(bt3Add(h_, buf_), 0);
      id += 10;
    }
  }
};

TEST_F(FindTest, EachHowPicksItsRecord) {
  struct {
    int index;
    const char* name;
    int32_t id;
    int how;
    int32_t want;  // the id found, 0 for none
  } cases[] = {
      {1, "", 20, 1, 10},  {1, "", 10, 1, 0},  {1, "", 25, 1, 20},  {1, "", 20, 2, 30}, {1, "", 30, 2, 0},
      {1, "", 5, 2, 10},   {1, "", 20, 3, 20}, {1, "", 25, 3, 20},  {1, "", 5, 3, 0},   {1, "", 20, 4, 20},
      {1, "", 25, 4, 30},  {1, "", 35, 4, 0},  {1, "", 20, 5, 20},  {1, "", 25, 5, 0},  {1, "", 25, 7, 30},
      {1, "", 35, 7, 30},
      // By the duplicate name index: the serial does not take part.
      {0, "b", 0, 5, 10},  {0, "b", 0, 4, 10}, {0, "b", 0, 3, 30},  {0, "b", 0, 2, 20}, {0, "b", 0, 1, 0},
      {0, "c", 0, 1, 30},  {0, "c", 0, 5, 0},  {0, "d", 0, 2, 0},
  };
  Rec r{buf_};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name) + "/" + std::to_string(c.id) + " how " + std::to_string(c.how));
    ASSERT_EQ(bt3Select(h_, c.index), 0);
    r.set(c.name, c.id);
    int rc = bt3Find(h_, buf_, c.how);
    if (c.want == 0) {
      EXPECT_EQ(rc, 0);
      continue;
    }
    EXPECT_EQ(rc, 64);
    EXPECT_EQ(r.id(), c.want);
  }
  // An inverted search runs on the inverted key bytes: a descending probe.
  ASSERT_EQ(bt3Select(h_, 1), 0);
  r.set("", ~int32_t{20});
  EXPECT_EQ(bt3Find(h_, buf_, 6), 64);
  EXPECT_EQ(r.id(), 20);
  isam_error_clear();
  for (int bad : {0, 8, 64, 65 + 63}) {
    EXPECT_EQ(bt3Find(h_, buf_, bad), -1) << bad;
    EXPECT_EQ(isam_last_error(), kIsBadArgs);
  }
}

TEST_F(FindTest, FoundButNotReadCannotBeDeleted) {
  Rec r{buf_};
  reopen("find");
  ASSERT_EQ(bt3Select(h_, 1), 0);
  EXPECT_EQ(bt3Delete(h_), -1);
  EXPECT_EQ(isam_last_error(), kIsNoCurrent);
  r.set("untouched", 20);
  EXPECT_EQ(bt3Find(h_, buf_, kFindExact | kFindNoRead), 64);
  EXPECT_EQ(r.name(), "untouched");
  EXPECT_EQ(h_->cur_valid, kCurFound);
  EXPECT_EQ(bt3GetCur(h_), 2);
  EXPECT_EQ(bt3Delete(h_), -1);
  EXPECT_EQ(isam_last_error(), kIsNotRead);
  EXPECT_EQ(bt3Write(h_, buf_), -1);
  EXPECT_EQ(isam_last_error(), kIsNotRead);
  ASSERT_EQ(bt3SetCur(h_, 2), 0);
  EXPECT_EQ(bt3Delete(h_), 0);
  // The walk goes on from where the deleted key stood.
  EXPECT_EQ(bt3Next(h_, buf_), 64);
  EXPECT_EQ(r.id(), 30);
  EXPECT_EQ(bt3Prev(h_, buf_), 64);
  EXPECT_EQ(r.id(), 10);
  EXPECT_EQ(bt3Check(h_, 0), 0);
  EXPECT_EQ(bt3Check(h_, 1), 0);
}

TEST_F(FindTest, ListsMovesAndLengths) {
  Rec r{buf_};
  ASSERT_EQ(bt3Select(h_, 1), 0);
  IsamList* list = bt3MakeList(h_, 2);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(bt3FillList(h_, list), 2);
  EXPECT_EQ(list->recs, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(bt3FreeList(list), 0);
  EXPECT_EQ(list, nullptr);
  ASSERT_EQ(bt3Start(h_, buf_), 64);
  EXPECT_EQ(bt3Move(h_, buf_, 2), 64);
  EXPECT_EQ(r.id(), 30);
  EXPECT_EQ(bt3Move(h_, buf_, 1), 0);
  r.set("", 10);
  EXPECT_EQ(bt3FindRel(h_, buf_, kFindExact, 1), 64);
  EXPECT_EQ(r.id(), 20);
  EXPECT_EQ(bt3GetLen(h_), 64);
  EXPECT_EQ(bt3DataRead(h_, 3, buf_), 64);
  EXPECT_EQ(r.id(), 30);
  EXPECT_EQ(bt3DataRead(h_, 4, buf_), -1);
  EXPECT_EQ(bt3Select(h_, 2), -1);
  EXPECT_EQ(isam_last_error(), kIsBadIndex);
}

TEST_F(IsamTest, BuffersCarryTheirSize) {
  EXPECT_EQ(bt3GetBuff(nullptr, 0), nullptr);
  EXPECT_EQ(isam_last_error(), kIsBadArgs);
  char* small = bt3GetBuff(nullptr, 10);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(bt3BuffSize(small), 10);
  make("b", 64, kNameDupIdUnique);
  char* big = bt3GetBuff(h_, 5);
  EXPECT_EQ(bt3BuffSize(big), 64);  // raised to the record size
  EXPECT_EQ(buffValidate(big, 64), 0);
  EXPECT_EQ(buffValidate(big, 65), -1);
  EXPECT_EQ(isam_last_error(), kIsBufferUsage);
  EXPECT_EQ(bt3BuffCopy(small, big), -1);
  EXPECT_EQ(isam_last_error(), kIsBufferUsage);
  std::memcpy(small, "123456789", 10);
  EXPECT_EQ(bt3BuffCopy(big, small), 10);
  EXPECT_STREQ(big, "123456789");
  // A buffer the library did not give out is refused, as is a short one.
  alignas(8) char plain[80] = {};
  EXPECT_EQ(bt3Add(h_, plain + 8), -1);
  EXPECT_EQ(isam_last_error(), kIsBadBuffer);
  EXPECT_EQ(bt3Add(h_, small), -1);
  EXPECT_EQ(isam_last_error(), kIsBufferUsage);
  char* p = plain + 8;
  EXPECT_EQ(bt3FreeBuff(p), -1);
  EXPECT_EQ(bt3FreeBuff(small), 0);
  EXPECT_EQ(small, nullptr);
  EXPECT_EQ(bt3FreeBuff(big), 0);
}

TEST_F(IsamTest, FixedFileBytesAndDeletingTheLastKey) {
  std::string name = path("ab_books");
  int16_t defs[] = {0, 200, 1, -1};
  ASSERT_EQ(bt3Creat(name.c_str(), 700, defs), 0);
  EXPECT_EQ(bt3Exist(name.c_str()), 1);
  // The key block at 312: a count, then flags, (offset, length) pairs, -1.
  expect_fields(bytes(name + ".dt"), {{16, 2, 1024}, {58, 2, 704}, {312, 2, 1}, {314, 2, 1},
                                      {316, 2, 0}, {318, 2, 200}, {320, 2, 0xFFFF}});
  expect_fields(bytes(name + ".nx"), {{4, 4, 312}, {52, 2, 200}, {56, 2, 4}, {58, 2, 208 * 8 + 6}});

  reopen("ab_books");
  std::strcpy(buf_, "Friends");
  std::strcpy(buf_ + 200, "24112604.0816");
  ASSERT_EQ(bt3Add(h_, buf_), 1);
  ASSERT_EQ(bt3Close(h_), 0);
  auto dt = bytes(name + ".dt");
  ASSERT_EQ(dt.size(), 312u + 1024 + 704);
  EXPECT_EQ(u32(dt, 312 + 1024), 1u);  // the serial ahead of the record
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&dt[312 + 1024 + 4])), "Friends");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&dt[312 + 1024 + 204])), "24112604.0816");

  reopen("ab_books");
  EXPECT_EQ(bt3GetLen(h_), 700);
  std::strcpy(buf_, "Friends");
  ASSERT_EQ(bt3Find(h_, buf_, kFindExact), 700);
  ASSERT_EQ(bt3Delete(h_), 0);
  ASSERT_EQ(bt3Close(h_), 0);
  // No root, no keys, no node in use, and the old root free.
  expect_fields(bytes(name + ".nx"), {{40, 4, 0}, {36, 4, 0}, {24, 4, 0}, {28, 4, 1}});
  reopen("ab_books");
  EXPECT_EQ(bt3Start(h_, buf_), 0);
  std::strcpy(buf_, "Work");
  EXPECT_EQ(bt3Add(h_, buf_), 1);
  EXPECT_EQ(bt3Check(h_, 0), 0);
  EXPECT_EQ(h_->nx->heads[0].n_free, 0);  // the free node was taken again
}

TEST_F(IsamTest, VariableFileMadeForAttributes) {
  std::string name = path("ab_attrs");
  int16_t defs[] = {0, 200, 0x81, -1};
  ASSERT_EQ(bt3VlCreate(name.c_str(), defs, 410, 60410, 25), 0);
  EXPECT_EQ(bt3Exist(name.c_str()), 2);
  expect_fields(bytes(name + ".mp"), {{32, 2, 425}, {34, 2, 10000}, {36, 2, 25}, {44, 2, 1024}});
  EXPECT_EQ(bytes(name + ".st").size(), 1030u);
  EXPECT_EQ(u16(bytes(name + ".nx"), 56), 4);

  reopen("ab_attrs");
  auto put = [&](const char* entry, const char* attr, const std::string& value) {
    std::memset(buf_, 0, 410);
    std::strcpy(buf_, entry);
    std::strcpy(buf_ + 200, attr);
    std::strcpy(buf_ + 400, value.c_str());
    return bt3VlAdd(h_, buf_, 410 + static_cast<int>(value.size()));
  };
  ASSERT_GT(put("ann", "email", "ann@example.org"), 0);
  ASSERT_GT(put("bob", "email", "bob@example.org"), 0);
  ASSERT_GT(put("ann", "phone", std::string(9000, '5')), 0);
  EXPECT_EQ(put("ann", "huge", std::string(9600, '5')), -1);  // over the 10000-byte slot
  std::strcpy(buf_, "ann");
  ASSERT_EQ(bt3Find(h_, buf_, kFindExact), 410 + 15);
  EXPECT_STREQ(buf_ + 200, "email");
  ASSERT_EQ(bt3Next(h_, buf_), 410 + 9000);
  EXPECT_EQ(bt3GetLen(h_), 410 + 9000);
  // A rewrite to another length moves the record, keeping its key.
  std::strcpy(buf_ + 400, "short");
  ASSERT_EQ(bt3VlWrite(h_, buf_, 415), 415);
  ASSERT_EQ(bt3Next(h_, buf_), 425);
  EXPECT_STREQ(buf_, "bob");
  std::strcpy(buf_, "ann");
  ASSERT_EQ(bt3Find(h_, buf_, kFindAtOrBelow), 415);
  EXPECT_STREQ(buf_ + 400, "short");
  EXPECT_EQ(bt3Add(h_, buf_), -1);
  EXPECT_EQ(isam_last_error(), kIsWrongKind);
}

TEST_F(IsamTest, StateLeftOpenOpensReadOnly) {
  std::string name = path("s");
  make("s", 64, kNameDupIdUnique);
  Rec{buf_}.set("x", 1);
  ASSERT_EQ(bt3Add(h_, buf_), 1);
  ASSERT_EQ(bt3Sync(h_), 0);
  Rec{buf_}.set("y", 2);
  ASSERT_EQ(bt3Add(h_, buf_), 2);
  auto dt = bytes(name + ".dt"), nx = bytes(name + ".nx");  // as a crash leaves them
  EXPECT_EQ(u16(dt, 18), 38);
  ASSERT_EQ(bt3Close(h_), 0);
  write_bytes(name + ".dt", dt);
  write_bytes(name + ".nx", nx);
  isam_error_clear();
  reopen("s");
  EXPECT_TRUE(has_error(kIsCorrupt));
  EXPECT_EQ(h_->mode & (kModeReadOnly | kModeNoDirtyMark), kModeReadOnly | kModeNoDirtyMark);
  EXPECT_GT(bt3Start(h_, buf_), 0);
  EXPECT_EQ(bt3Add(h_, buf_), -1);
  EXPECT_EQ(isam_last_error(), kIsModeAction);
  EXPECT_EQ(bt3SetMode(h_, kModeReadWrite), -1);
  ASSERT_EQ(bt3Close(h_), 0);
  EXPECT_EQ(bytes(name + ".dt"), dt);
}

TEST_F(IsamTest, WriteThroughModesReachTheDiskAtOnce) {
  struct {
    int mode;
    bool node_on_disk, header_on_disk;
  } cases[] = {{kModeReadWrite, false, false},
               {kModeReadWrite | kModeWriteThrough, true, false},
               {kModeReadWrite | kModeWriteHeader, true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.mode);
    std::string name = "w" + std::to_string(c.mode);
    make(name, 64, kNameDupIdUnique, c.mode);
    Rec{buf_}.set("n", 1);
    ASSERT_EQ(bt3Add(h_, buf_), 1);
    auto nx = bytes(path(name) + ".nx");
    uint32_t root = h_->nx->heads[0].root;
    ASSERT_GT(nx.size(), root);
    EXPECT_EQ(nx[root] == 1, c.node_on_disk);
    EXPECT_EQ(u32(nx, 36) == 1, c.header_on_disk);
    EXPECT_EQ(u16(nx, 18), 38);  // open for change, whatever the mode
    ASSERT_EQ(bt3Close(h_), 0);
    expect_fields(bytes(path(name) + ".nx"), {{root, 1, 1}, {36, 4, 1}, {18, 2, 42}});
  }
}

TEST_F(IsamTest, IndexesAddedAndDroppedThroughATemporaryFile) {
  int16_t one[] = {0, 40, 5 | 128, -1};
  make("x", 64, one);
  Rec r{buf_};
  for (int i = 0; i < 50; ++i) {
    r.set(i % 2 ? "odd" : "even", (i * 37) % 50);
    ASSERT_GT(bt3Add(h_, buf_), 0);
  }
  int16_t by_id[] = {40, 4, 4, -1};
  ASSERT_EQ(bt3AddInx(h_, by_id), 0);
  EXPECT_FALSE(std::filesystem::exists(path("x.nx$")));
  reopen("x");
  ASSERT_EQ(h_->keys.size(), 2u);
  ASSERT_EQ(bt3Select(h_, 1), 0);
  std::vector<int32_t> all(50);
  std::iota(all.begin(), all.end(), 0);
  EXPECT_EQ(walk(id_of), all);
  EXPECT_EQ(bt3Check(h_, 0), 0);
  EXPECT_EQ(bt3Check(h_, 1), 0);
  // Drop the name index: the id index becomes index 0.
  ASSERT_EQ(bt3DelInx(h_, 0), 0);
  EXPECT_EQ(h_->keys.size(), 1u);
  EXPECT_EQ(bt3DelInx(h_, 0), -1);
  EXPECT_EQ(isam_last_error(), kIsBadIndexCount);
  ASSERT_EQ(bt3Start(h_, buf_), 64);
  EXPECT_EQ(r.id(), 0);
  for (int i = 0; i < 9; ++i) ASSERT_EQ(bt3AddInx(h_, by_id), 0);
  EXPECT_EQ(bt3AddInx(h_, by_id), -1);
  EXPECT_EQ(isam_last_error(), kIsMaxKeys);
  reopen("x");
  EXPECT_EQ(h_->keys.size(), 10u);
  EXPECT_EQ(bt3Check(h_, 9), 0);
}

TEST_F(IsamTest, UnlinkRemovesAllFiveNames) {
  std::string name = path("u");
  ASSERT_EQ(bt3Creat(name.c_str(), 64, kNameDupIdUnique), 0);
  for (const char* ext : {".mp", ".st", ".nx$"}) write_bytes(name + ext, {1});
  EXPECT_EQ(bt3Exist(name.c_str()), 1);
  EXPECT_EQ(bt3Creat(name.c_str(), 64, kNameDupIdUnique), -1);
  EXPECT_EQ(bt3Unlink(name.c_str()), 0);
  EXPECT_EQ(bt3Exist(name.c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_empty(dir_));
  EXPECT_EQ(bt3Open(name.c_str(), kModeReadOnly), nullptr);
}

// Thousands of adds, deletes and rewrites against an in-memory model,
// with the files closed and opened again between rounds, small nodes so
// that splits, rotations and joins happen all the time.
struct ModelCase {
  const char* what;
  bool variable;
  int order;  // 0: the rule's
};
// Test names print the case, not the bytes of the record (padding included).
void PrintTo(const ModelCase& c, std::ostream* os) { *os << c.what; }

class IsamModelTest : public IsamTest, public ::testing::WithParamInterface<ModelCase> {};

TEST_P(IsamModelTest, AgreesWithAModelOverRounds) {
  const ModelCase mc = GetParam();
  lioSetOrder(mc.order);
  std::string name = path("m");
  int16_t defs[] = {0, 12, kKeyString | kKeyDuplicates, 40, 4, kKeyInt32, -1};
  ASSERT_EQ(mc.variable ? bt3VlCreate(name.c_str(), defs, 20, 300, 10)
                        : bt3Creat(name.c_str(), 64, defs),
            0);
  lioSetOrder(0);

  struct Entry {
    std::string name;
    uint32_t serial;
    int len;
    char fill;
  };
  std::map<int32_t, Entry> by_id;
  std::map<std::pair<std::string, uint32_t>, int32_t> by_name;  // a multimap kept in serial order
  uint32_t serial = 0;
  std::mt19937 rng(mc.order * 7 + mc.variable);
  auto pick_name = [&] {
    return std::string(1, static_cast<char>('a' + rng() % 12)) + std::to_string(rng() % 3);
  };
  auto fill = [&](const std::string& n, int32_t id, int len, char c) {
    std::memset(buf_, 0, 300);
    std::memcpy(buf_, n.data(), n.size());
    std::memcpy(buf_ + 40, &id, 4);
    std::memset(buf_ + 44, c, static_cast<size_t>(len - 44));
  };
  for (int round = 0; round < 8; ++round) {
    reopen("m");
    for (int op = 0; op < 500; ++op) {
      int what = static_cast<int>(rng() % 4);
      int32_t id = static_cast<int32_t>(rng() % 400);
      int len = mc.variable ? 44 + static_cast<int>(rng() % 200) : 64;
      char c = static_cast<char>('A' + rng() % 26);
      if (what <= 1 || by_id.empty()) {
        std::string n = pick_name();
        fill(n, id, len, c);
        int rc = mc.variable ? bt3VlAdd(h_, buf_, len) : bt3Add(h_, buf_);
        ++serial;
        if (by_id.count(id)) {
          // The new record is taken out again, keys and data.
          ASSERT_EQ(rc, -1);
          ASSERT_TRUE(has_error(kIsKeyExists));
          ASSERT_EQ(bt3GetCur(h_), 0);
        } else {
          ASSERT_GT(rc, 0) << isam_error_report();
          by_id[id] = Entry{n, serial, len, c};
          by_name[{n, serial}] = id;
        }
        continue;
      }
      // Delete or rewrite a record found by its id.
      auto it = by_id.lower_bound(id);
      if (it == by_id.end()) it = by_id.begin();
      ASSERT_EQ(bt3Select(h_, 1), 0);
      fill("", it->first, 44, 0);
      ASSERT_GT(bt3Find(h_, buf_, kFindExact), 0);
      ASSERT_EQ(std::string(buf_), it->second.name);
      if (what == 2) {
        ASSERT_EQ(bt3Delete(h_), 0) << isam_error_report();
        by_name.erase({it->second.name, it->second.serial});
        by_id.erase(it);
      } else {
        Entry e = it->second;
        std::string n = rng() % 2 ? pick_name() : e.name;
        int32_t new_id = rng() % 2 ? id : it->first;
        fill(n, new_id, len, c);
        int rc = mc.variable ? bt3VlWrite(h_, buf_, len) : bt3Write(h_, buf_);
        if (new_id != it->first && by_id.count(new_id)) {
          ASSERT_EQ(rc, -1);
          continue;
        }
        ASSERT_GE(rc, 0) << isam_error_report();
        by_name.erase({e.name, e.serial});
        by_id.erase(it);
        by_id[new_id] = Entry{n, e.serial, len, c};
        by_name[{n, e.serial}] = new_id;
      }
      ASSERT_EQ(bt3Select(h_, 0), 0);
    }

    reopen("m", kModeReadOnly);
    ASSERT_EQ(bt3Check(h_, 0), 0) << isam_error_report();
    ASSERT_EQ(bt3Check(h_, 1), 0) << isam_error_report();
    if (!mc.variable) {
      ASSERT_EQ(h_->dt->heads[0].n_used, static_cast<int>(by_id.size()));
    }
    std::vector<int32_t> want, got;
    for (const auto& [key, id] : by_name) want.push_back(id);
    for (int rc = bt3Start(h_, buf_); rc > 0; rc = bt3Next(h_, buf_)) {
      const Entry& e = by_id.at(id_of(buf_));
      ASSERT_EQ(rc, e.len);
      if (e.len > 44) {
        ASSERT_EQ(buf_[e.len - 1], e.fill);
      }
      got.push_back(id_of(buf_));
    }
    ASSERT_EQ(got, want);
    got.clear();
    for (int rc = bt3End(h_, buf_); rc > 0; rc = bt3Prev(h_, buf_)) got.push_back(id_of(buf_));
    std::reverse(got.begin(), got.end());
    ASSERT_EQ(got, want);
    ASSERT_EQ(bt3Select(h_, 1), 0);
    want.clear();
    for (const auto& [id, e] : by_id) want.push_back(id);
    ASSERT_EQ(walk(id_of), want);
  }
  EXPECT_GT(by_id.size(), 50u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, IsamModelTest,
                         ::testing::Values(ModelCase{"fixed_order1", false, 1},
                                           ModelCase{"fixed_order2", false, 2},
                                           ModelCase{"fixed_rule", false, 0},
                                           ModelCase{"variable_order2", true, 2},
                                           ModelCase{"variable_rule", true, 0}),
                         [](const auto& info) { return std::string(info.param.what); });

}  // namespace
