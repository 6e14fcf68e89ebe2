// Mailbox names as paths, the listing pattern, and installing a file.
#include "c-client/mh/local_paths.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>

#include "tests/c-client/mh/mh_test_util.h"

namespace {

namespace fs = std::filesystem;

TEST(LocalPaths, MailboxPath) {
  const std::string before = local_home();
  local_set_home("/home/u/velmar//");
  EXPECT_EQ(local_home(), "/home/u/velmar");
  const std::pair<const char*, const char*> rows[] = {
      {nullptr, "/home/u/velmar/folders"},
      {"", "/home/u/velmar/folders"},
      {"~", "/home/u/velmar/folders"},
      {"Work\\\\\\", "/home/u/velmar/folders/Work"},
      {"~\\\\Work\\Old", "/home/u/velmar/folders/Work/Old"},
      {"\\Work", "/home/u/velmar/folders/Work"},  // the delimiter, not a root
      {"/var/mail\\u/", "/var/mail/u"},
      {"/", "/"},
      {"a~b", "/home/u/velmar/folders/a~b"},
  };
  for (const auto& [name, path] : rows) EXPECT_EQ(mailbox_path(name), path) << (name ? name : "(null)");
  local_set_home("/");
  EXPECT_EQ(mailbox_path("x\\y"), "/folders/x/y");
  local_set_home(before.c_str());  // later tests must not write under "/"
}

TEST(LocalPaths, PatternMatch) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"Work\\2024", "%", false},         {"Work\\2024", "Work\\%", true},  {"Work\\2024\\Q1", "%\\%\\Q1", true},
      {"Work\\2024\\Q1", "%\\Q1", false}, {"Work\\2024\\Q1", "*%Q1", true}, {"Work", "W%k", true},
      {"Work", "w%", false},  // names are case-sensitive
      {"Work", "Wor", false},             {"Wor", "Work", false},           {"", "%", true},
      {"a", "", false},                   {"inbox", "INBOX", true},         {"InBoxes", "IN*", false},
      // "*" before a "%" that fails must still be able to take the rest.
      {"x\\y\\z", "*\\%", true},          {"x\\y\\z", "%\\%", false},
  };
  for (const auto& [name, pattern, match] : rows)
    EXPECT_EQ(local_pattern_match(name, pattern, '\\'), match) << name << " ~ " << pattern;
  EXPECT_TRUE(local_pattern_match("a/b", "%/b", '/'));
  EXPECT_FALSE(local_pattern_match("a/b", "%", '/'));
  EXPECT_FALSE(local_pattern_match(nullptr, "*", '\\'));

  // A pattern made to backtrack: must answer at once.
  std::string pattern;
  for (int i = 0; i < 40; ++i) pattern += "*a%";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(local_pattern_match(std::string(4000, 'a').c_str(), (pattern + "b").c_str(), '\\'));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// A rewritten file takes the old one's place, which becomes the backup. A
// new file that can't take its place leaves the old one readable under its
// own name, and the new one where it was.
using FileInstall = mh_test::MhTest;

TEST_F(FileInstall, StatesAndAFailedRename) {
  const std::string base = home_ + "/mh_index";
  auto get = [&](const char* suffix) { return fs::exists(base + suffix) ? mh_test::ReadFile(base + suffix) : "-"; };
  const std::tuple<const char*, const char*, const char*, int, const char*, const char*> rows[] = {
      // .dat, .bak and .new before (null: absent), the result, .dat and .bak after
      {"old", "older", "new", 1, "new", "old"}, {"old", nullptr, "new", 1, "new", "old"},
      {nullptr, "older", "new", 1, "new", "-"}, {"old", "older", nullptr, 0, "old", "old"},
  };
  for (const auto& [dat, bak, fresh, result, dat_after, bak_after] : rows) {
    SCOPED_TRACE(std::string(dat ? dat : "-") + " " + (bak ? bak : "-") + " " + (fresh ? fresh : "-"));
    for (auto [suffix, text] : {std::pair{".dat", dat}, {".bak", bak}, {".new", fresh}}) {
      fs::remove(base + suffix);
      if (text) mh_test::WriteFile(base + suffix, text);
    }
    errno = 0;
    EXPECT_EQ(file_install(base), result);
    EXPECT_TRUE(result || errno == ENOENT);
    EXPECT_EQ(get(".dat"), dat_after);
    EXPECT_EQ(get(".bak"), bak_after);
    EXPECT_EQ(get(".new"), "-");
  }
  fs::create_directories(base + ".new/inside");
  EXPECT_EQ(file_install(base), 0);
  EXPECT_EQ(get(".dat"), "old");
  EXPECT_TRUE(fs::is_directory(base + ".new/inside"));
}

}  // namespace
