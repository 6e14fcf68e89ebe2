// Mailbox names as paths, the listing pattern, and installing a file.
#include "c-client/mh/local_paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

TEST(LocalPaths, MailboxPath) {
  const std::string before = local_home();
  local_set_home("/home/u/velmar//");
  EXPECT_EQ(local_home(), "/home/u/velmar");
  struct Row {
    const char* name;
    const char* path;
  } rows[] = {
      {"", "/home/u/velmar/folders"},
      {nullptr, "/home/u/velmar/folders"},
      {"Work", "/home/u/velmar/folders/Work"},
      {"Work\\\\\\", "/home/u/velmar/folders/Work"},
      {"~", "/home/u/velmar/folders"},
      {"~\\\\Work\\Old", "/home/u/velmar/folders/Work/Old"},
      {"~Work", "/home/u/velmar/folders/Work"},
      {"\\Work", "/home/u/velmar/folders/Work"},  // the delimiter, not a root
      {"/var/mail\\u/", "/var/mail/u"},
      {"/", "/"},
      {"a~b", "/home/u/velmar/folders/a~b"},
  };
  for (const Row& r : rows) EXPECT_EQ(mailbox_path(r.name), r.path) << (r.name ? r.name : "(null)");
  local_set_home("/");
  EXPECT_EQ(mailbox_path("x\\y"), "/folders/x/y");
  local_set_home(before.c_str());  // later tests must not write under "/"
}

TEST(LocalPaths, PatternMatch) {
  struct Row {
    const char* name;
    const char* pattern;
    bool match;
  } rows[] = {
      {"Work", "%", true},
      {"Work\\2024", "%", false},
      {"Work\\2024", "Work\\%", true},
      {"Work\\2024\\Q1", "Work\\%", false},
      {"Work\\2024\\Q1", "%\\%\\Q1", true},
      {"Work\\2024\\Q1", "%\\Q1", false},
      {"Work\\2024\\Q1", "*%Q1", true},
      {"Work", "W%k", true},
      {"Work", "w%", false},  // names are case-sensitive
      {"Work", "Wor", false},
      {"Wor", "Work", false},
      {"", "%", true},
      {"a", "", false},
      {"inbox", "INBOX", true},
      {"InBoxes", "IN*", false},
      {"Work*", "Work*", true},
      {"a%b", "a\\b", false},
      // "*" before a "%" that fails must still be able to take the rest.
      {"x\\y\\z", "*\\%", true},
      {"x\\y\\z", "%\\%", false},
  };
  for (const Row& r : rows) EXPECT_EQ(local_pattern_match(r.name, r.pattern, '\\'), r.match) << r.name << " ~ " << r.pattern;
  EXPECT_TRUE(local_pattern_match("a/b", "%/b", '/'));
  EXPECT_FALSE(local_pattern_match("a/b", "%", '/'));
  EXPECT_FALSE(local_pattern_match(nullptr, "*", '\\'));
}

// A pattern made to backtrack: must answer at once.
TEST(LocalPaths, PatternMatchHasNoExponentialCase) {
  const std::string name(4000, 'a');
  std::string pattern;
  for (int i = 0; i < 40; ++i) pattern += "*a%";
  pattern += "b";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(local_pattern_match(name.c_str(), pattern.c_str(), '\\'));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

class FileInstall : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmar-install-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    base_ = dir_ + "/mh_index";
  }
  void TearDown() override { fs::remove_all(dir_); }
  void Put(const char* suffix, const char* text) { std::ofstream(base_ + suffix) << text; }
  // The file's text, or "-" when it isn't there.
  std::string Get(const char* suffix) {
    std::ifstream in(base_ + suffix);
    if (!in) return "-";
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  std::string dir_, base_;
};

TEST_F(FileInstall, States) {
  struct Row {
    const char *dat, *bak, *fresh;  // null: absent
    int result;
    const char *dat_after, *bak_after, *new_after;
  } rows[] = {
      {"old", "older", "new", 1, "new", "old", "-"},
      {"old", nullptr, "new", 1, "new", "old", "-"},
      {nullptr, "older", "new", 1, "new", "-", "-"},
      {nullptr, nullptr, "new", 1, "new", "-", "-"},
      {"old", "older", nullptr, 0, "old", "old", "-"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.dat ? r.dat : "-") + " " + (r.bak ? r.bak : "-") + " " + (r.fresh ? r.fresh : "-"));
    for (const char* s : {".dat", ".bak", ".new"}) ::unlink((base_ + s).c_str());
    if (r.dat) Put(".dat", r.dat);
    if (r.bak) Put(".bak", r.bak);
    if (r.fresh) Put(".new", r.fresh);
    errno = 0;
    EXPECT_EQ(file_install(base_), r.result);
    if (!r.result) {
      EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_EQ(Get(".dat"), r.dat_after);
    EXPECT_EQ(Get(".bak"), r.bak_after);
    EXPECT_EQ(Get(".new"), r.new_after);
  }
}

// A new file that can't take the old one's place leaves the old one
// readable under its own name, and the new one where it was.
TEST_F(FileInstall, FailedRenameKeepsBoth) {
  Put(".dat", "old");
  ASSERT_EQ(::mkdir((base_ + ".new").c_str(), 0700), 0);
  ASSERT_EQ(::mkdir((base_ + ".new/inside").c_str(), 0700), 0);
  EXPECT_EQ(file_install(base_), 0);
  EXPECT_EQ(Get(".dat"), "old");
  EXPECT_TRUE(fs::is_directory(base_ + ".new/inside"));
}

}  // namespace
