// Hostile files in a folder or the user's directory: something that is not
// a file where one belongs, an index whose counts lie, damaged files far
// larger than what they describe. Each gets a clear error or a rebuild;
// none hangs, aborts or takes memory in proportion to its size.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "c-client/mh/subscribe.h"
#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

constexpr int kCount = 4;

long PeakKb() {
  struct rusage u;
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// A sparse file of size bytes whose first bytes are head.
void Sparse(const std::string& path, const std::string& head, off_t size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, head.data(), head.size()), static_cast<ssize_t>(head.size()));
  ASSERT_EQ(::ftruncate(fd, size), 0);
  ::close(fd);
}

class MhHostile : public MhTest {
 protected:
  void SetUp() override {
    MhTest::SetUp();
    // A hang is a failure, not a stuck suite.
    ::alarm(20);
    dir_ = Create("Box");
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(Append("Box", MakeMessage(i, true).text), 1);
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr);
    mail_setflag(s, "1,3", "\\Flagged");
    Close(s);
    mail_env_clear();
  }
  void TearDown() override {
    ::alarm(0);
    MhTest::TearDown();
  }
  void Fifo(const std::string& path) {
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  }
  std::string dir_;
};

TEST_F(MhHostile, AFifoInPlaceOfAFolderFileIsRefusedWithoutWaiting) {
  struct Case {
    const char* file;
    unsigned long messages;  // the folder opens with these
    const char* flags;       // of message 3
  } cases[] = {
      {"mh_index.dat", kCount, "-----"},  // flags lived there; no backup yet
      {"mh_cache.dat", kCount, "--F--"},
      {"mh_updat.dat", kCount, "--F--"},
      {"2", kCount - 1, "--F--"},
      {"3.st", kCount, "--F--"},
  };
  const std::string pristine = home_ + "/pristine";
  fs::copy(dir_, pristine);
  for (const Case& c : cases) {
    fs::remove_all(dir_);
    fs::copy(pristine, dir_);
    fs::remove(dir_ + "/mh_cache.dat");  // every case rebuilds, and reads each file
    if (std::string(c.file) != "mh_cache.dat") WriteFile(dir_ + "/mh_cache.dat", "");
    Fifo(dir_ + "/" + c.file);
    mh_forget_paths();
    mail_env_clear();
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr) << c.file << "\n" << Logs();
    EXPECT_EQ(s->nmsgs, c.messages) << c.file << "\n" << Logs();
    EXPECT_EQ(Flags(s, c.messages == kCount ? 3 : 2), c.flags) << c.file;
    if (std::string(c.file) == "2") {
      EXPECT_TRUE(Said("log", "Failed to open MH message file: " + dir_ + "/2 - Not a regular file")) << Logs();
    }
    Close(s);
  }
}

TEST_F(MhHostile, AFifoInPlaceOfAMessageFailsItsFetchAndAnAppend) {
  Fifo(dir_ + "/2");
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
  mail_env_clear();
  EXPECT_EQ(mail_fetchtext(s, 2), nullptr);
  EXPECT_TRUE(Said("log", "Failed to open MH message file: " + dir_ + "/2 - Not a regular file")) << Logs();
  EXPECT_EQ(mail_copy(s, "2", "Box"), 0);
  Close(s);
  Fifo(dir_ + "/mh_updat.dat");
  mail_env_clear();
  EXPECT_EQ(Append("Box", "Subject: x\n\nx\n"), 0);
  EXPECT_TRUE(Said("log", "Failed to open MH cache index update file - Not a regular file")) << Logs();
}

TEST_F(MhHostile, AFifoInPlaceOfTheSubscriptionsOrTheNameFileIsRefused) {
  Fifo(home_ + "/subscrib.dat");
  void* state = nullptr;
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(subscribe_add("Box"), 0);
  EXPECT_TRUE(Said("log", "Failed to open subscription database: " + home_ + "/subscrib.dat - Not a regular file\n"))
      << Logs();
  Fifo(home_ + "/folders/mhname.dat");
  mh_forget_paths();
  mail_env_clear();
  EXPECT_FALSE(mh_valid_name("Box", false));
  EXPECT_TRUE(Said("log", "Failed to open MH folder name database: " + home_ + "/folders/mhname.dat")) << Logs();
}

// A count the file could only hold as a 200 GB hole must not size the
// message array before a record has been looked at.
TEST_F(MhHostile, AnIndexCountingMoreThanAnyFolderHoldsIsRebuilt) {
  const std::string index = ReadFile(dir_ + "/mh_index.dat");
  const off_t size = kMhHeaderSize + off_t{UINT32_MAX} * kMhRecordSize;
  Sparse(dir_ + "/mh_index.dat", index.substr(0, 4) + Le32(UINT32_MAX), size);
  const long before = PeakKb();
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr) << Logs();
  EXPECT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
  EXPECT_LT(PeakKb() - before, 32 * 1024);
}

// Damaged files are read in bounded pieces: a rebuild over a large index of
// records that all claim one message, and a check over a 2.6 GB hole of a
// queue, cost no more memory than the folder's messages do.
TEST_F(MhHostile, DamagedFilesAreReadInBoundedPieces) {
  MhIndexRecord r{};
  r.number = 3;
  r.flags = kMhSeen;
  uint8_t bytes[kMhRecordSize];
  mh_encode_record(r, bytes);
  std::string chunk;
  for (int i = 0; i < 1260; ++i) chunk.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const int fd = ::open((dir_ + "/mh_index.dat").c_str(), O_WRONLY | O_TRUNC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, (Le32(0) + Le32(1000000) + Le32(0) + Le32(0)).data(), kMhHeaderSize), 16);
  for (int i = 0; i < 800; ++i) ASSERT_EQ(::write(fd, chunk.data(), chunk.size()), static_cast<ssize_t>(chunk.size()));
  ::close(fd);
  long before = PeakKb();
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr) << Logs();
  EXPECT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
  EXPECT_EQ(Flags(s, 3), "S----") << "the first record of a number is the message's";
  EXPECT_LT(PeakKb() - before, 24 * 1024);
  Close(s);

  Sparse(dir_ + "/mh_updat.dat", "", off_t{50'000'000} * kMhRecordSize);
  before = PeakKb();
  s = Open("Box");
  ASSERT_NE(s, nullptr) << Logs();
  EXPECT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
  EXPECT_EQ(Flags(s, 3), "S----");
  EXPECT_LT(PeakKb() - before, 24 * 1024);
}

}  // namespace
}  // namespace mh_test
