// The safe writer leaves the old file or the new one, never half of one and never a stray temporary, whatever step
// fails.
#include "rclib/safe_file.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/rclib/rclib_fixture.h"

namespace {

class SafeFile : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    path_ = dir_ / "file.dat";
  }
  void TearDown() override {
    safe_clear_faults_for_test();
    ScratchTest::TearDown();
  }
  std::string Read() const { return read(path_); }
  std::string path_;
};

// Every step of a replace, failed in turn: the old text stays, nothing else is left in the directory, and the error
// names the step.
TEST_F(SafeFile, AFailureAtAnyStepKeepsTheOldFile) {
  const std::string old_text(70000, 'x');
  ASSERT_TRUE(safe_replace_file(path_, old_text, 0640));
  struct stat st;
  ASSERT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  const struct { SafeStep step; long nth; int error; } rows[] = {
      {kSafeOpen, 1, EMFILE}, {kSafeWrite, 1, ENOSPC}, {kSafeSync, 1, EIO},
      {kSafeRename, 1, EXDEV}, {kSafeSync, 2, EIO},  // the directory sync, after the rename
  };
  for (const auto& r : rows) {
    ASSERT_TRUE(safe_replace_file(path_, old_text, 0600));
    safe_fail_from_for_test(r.step, r.nth, r.error);
    SafeFileError err;
    EXPECT_FALSE(safe_replace_file(path_, "new text", 0600, &err)) << safe_step_name(r.step);
    safe_clear_faults_for_test();
    EXPECT_EQ(err.text(), std::string(safe_step_name(r.step)) + ": " + std::strerror(r.error));
    // A failed directory sync comes after the rename: the new text is in place but the caller was told it may not
    // last a crash.
    EXPECT_EQ(Read(), r.step == kSafeSync && r.nth == 2 ? "new text" : old_text) << safe_step_name(r.step);
    EXPECT_EQ(names(), std::set<std::string>{"file.dat"}) << safe_step_name(r.step);
  }
}

TEST_F(SafeFile, ExclusiveCreateRefusesAnythingAlreadyThere) {
  const std::string fifo = dir_ / "fifo", link = dir_ / "link";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::symlink((dir_ / "elsewhere").c_str(), link.c_str()), 0);
  for (const std::string& p : {fifo, link}) {
    SafeFileError err;
    EXPECT_EQ(safe_create_exclusive(p.c_str(), 0600, &err), -1) << p;  // and does not block on the FIFO
    EXPECT_EQ(err.error, EEXIST) << p;
  }
  EXPECT_FALSE(names().count("elsewhere"));
  const int fd = safe_create_exclusive(path_.c_str(), 0600);
  ASSERT_GE(fd, 0);
  ::close(fd);
}

TEST_F(SafeFile, ReadingRefusesWhatIsNotARegularFileWithoutBlocking) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& [p, error] : {std::pair{fifo, EINVAL}, std::pair{dir_.string(), EISDIR}}) {
    SafeFileError err;
    EXPECT_EQ(safe_open_read(p.c_str(), &err), -1) << p;
    EXPECT_EQ(err.error, error) << p;
    EXPECT_EQ(safe_fopen_read(p.c_str()), nullptr) << p;
  }
  // Nor for writing: a FIFO without a reader would hold the open forever.
  SafeFileError err;
  EXPECT_FALSE(safe_append_record(fifo, "x", 1, 0600, &err));
  EXPECT_EQ(err.error, EINVAL);
  ASSERT_TRUE(safe_replace_file(path_, "text", 0600));
  FILE* f = safe_fopen_read(path_.c_str());
  ASSERT_NE(f, nullptr);
  char buf[8] = {};
  EXPECT_EQ(std::fread(buf, 1, sizeof buf, f), 4u);
  std::fclose(f);
}

TEST_F(SafeFile, AppendAddsWholeRecordsOrNothing) {
  ASSERT_TRUE(safe_append_record(path_, "one\n", 4, 0600));
  for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync}) {
    safe_fail_from_for_test(step, 1, ENOSPC);
    SafeFileError err;
    EXPECT_FALSE(safe_append_record(path_, "two\n", 4, 0600, &err));
    EXPECT_EQ(err.step, step);
    safe_clear_faults_for_test();
    // A record that may not last a crash is taken back like one half written.
    EXPECT_EQ(Read(), "one\n") << safe_step_name(step);
  }
  ASSERT_TRUE(safe_append_record(path_, "two\n", 4, 0600));
  // A write cut short by a file size limit is taken back whole.
  struct rlimit old_limit, limit;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  limit = old_limit;
  limit.rlim_cur = 10;
  void (*old_handler)(int) = ::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  SafeFileError err;
  const bool appended = safe_append_record(path_, "three\n", 6, 0600, &err);
  ::setrlimit(RLIMIT_FSIZE, &old_limit);
  ::signal(SIGXFSZ, old_handler);
  EXPECT_FALSE(appended);
  EXPECT_EQ(err.error, EFBIG);
  EXPECT_EQ(Read(), "one\ntwo\n");
}

}  // namespace
