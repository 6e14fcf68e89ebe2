// The subscription database: what reaches the file, what the walk gives,
// and that a failure changes nothing.
#include "c-client/mh/subscribe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

namespace fs = std::filesystem;

class Subscribe : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/velmar-subscribe-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    before_ = local_home();
    local_set_home(dir_.c_str());
    mail_env_clear();
  }
  void TearDown() override {
    fs::remove_all(dir_);
    local_set_home(before_.c_str());
    mail_env_clear();
  }
  std::string Path(const char* file) { return dir_ + "/" + file; }
  void Put(const char* file, const std::string& text) { std::ofstream(Path(file), std::ios::binary) << text; }
  std::string Get(const char* file) {
    std::ifstream in(Path(file), std::ios::binary);
    if (!in) return "-";
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  // One whole walk.
  std::vector<std::string> Walk() {
    std::vector<std::string> names;
    void* state = nullptr;
    while (const char* name = subscribe_next(&state)) names.push_back(name);
    EXPECT_EQ(state, nullptr);
    return names;
  }
  std::vector<std::string> Logged() { return EnvLines("log"); }
  std::string dir_, before_;
};

using Names = std::vector<std::string>;

TEST_F(Subscribe, AddRemoveAndWalk) {
  EXPECT_EQ(Walk(), Names{});  // no file yet: no subscriptions, no complaint
  EXPECT_EQ(subscribe_add("Work"), 1);
  EXPECT_EQ(subscribe_add("Work\\2024"), 1);
  EXPECT_EQ(subscribe_add("#dawz/INBOX"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "Work\nWork\\2024\n#dawz/INBOX\n");
  EXPECT_EQ(Get("subscrib.bak"), "Work\nWork\\2024\n");
  struct stat st{};
  ASSERT_EQ(::stat(Path("subscrib.dat").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(Walk(), (Names{"Work", "Work\\2024", "#dawz/INBOX"}));

  EXPECT_EQ(subscribe_remove("Work\\2024"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "Work\n#dawz/INBOX\n");
  EXPECT_EQ(subscribe_remove("Work"), 1);
  EXPECT_EQ(subscribe_remove("#dawz/INBOX"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "");
  EXPECT_EQ(Get("subscrib.new"), "-");
  EXPECT_EQ(Logged(), Names{});
}

// The walk starts again after its end, and sees the file as it was when
// the walk began.
TEST_F(Subscribe, WalkRestartsAfterTheEnd) {
  Put("subscrib.dat", "a\r\n\r\nb\n\nc");
  void* state = nullptr;
  EXPECT_STREQ(subscribe_next(&state), "a");
  EXPECT_EQ(subscribe_add("d"), 1);
  EXPECT_STREQ(subscribe_next(&state), "b");
  EXPECT_STREQ(subscribe_next(&state), "c");
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(Walk(), (Names{"a", "b", "c", "d"}));
  // The rewrite kept every name and dropped only line ends.
  EXPECT_EQ(Get("subscrib.dat"), "a\nb\nc\nd\n");
}

TEST_F(Subscribe, RefusalsLeaveTheFileAlone) {
  const std::string before = "Work\nPlay\n";
  struct Row {
    long (*call)(const char*);
    const char* name;
    const char* message;
  } rows[] = {
      {subscribe_add, nullptr, "Cannot subscribe to a NULL foldername.\n"},
      {subscribe_remove, nullptr, "Cannot unsubscribe to a NULL foldername.\n"},
      {subscribe_add, "Work", "Already subscribed to mailbox Work"},
      {subscribe_add, "", "Can't subscribe to mailbox : invalid name"},
      {subscribe_add, "a\nb", "Can't subscribe to mailbox a\nb: invalid name"},
      {subscribe_remove, "Nothing", "Not subscribed to mailbox Nothing"},
      {subscribe_remove, "work", "Not subscribed to mailbox work"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.message);
    Put("subscrib.dat", before);
    mail_env_clear();
    EXPECT_EQ(r.call(r.name), 0);
    EXPECT_EQ(Logged(), Names{r.message});
    EXPECT_EQ(mail_env_lines().at(0).level, 2);
    EXPECT_EQ(Get("subscrib.dat"), before);
    EXPECT_EQ(Get("subscrib.new"), "-");
  }
}

TEST_F(Subscribe, FaultsAreReportedAndLoseNothing) {
  // subscrib.new can't be made: a directory stands in its place.
  Put("subscrib.dat", "Work\n");
  ASSERT_EQ(::mkdir(Path("subscrib.new").c_str(), 0700), 0);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(subscribe_remove("Work"), 0);
  const std::string fresh = Path("subscrib.new");
  EXPECT_EQ(Logged(), (Names{"Can't open temporary subscription database file: " + fresh + " - File exists",
                             "Could not open new subscription database file: " + fresh + " - File exists"}));
  EXPECT_EQ(Get("subscrib.dat"), "Work\n");
  ASSERT_EQ(::rmdir(fresh.c_str()), 0);

  // subscrib.dat that can't be read.
  mail_env_clear();
  fs::remove(Path("subscrib.dat"));
  ASSERT_EQ(::mkdir(Path("subscrib.dat").c_str(), 0700), 0);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(subscribe_remove("Play"), 0);
  void* state = nullptr;
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(state, nullptr);
  EXPECT_EQ(Logged(), (Names{"Failed on read of subscription database: Is a directory",
                             "Failed on read of subscription database: Is a directory",
                             "Failed to open subscription database: " + Path("subscrib.dat") + " - Is a directory\n"}));
  EXPECT_TRUE(fs::is_directory(Path("subscrib.dat")));
  EXPECT_EQ(Get("subscrib.new"), "-");

  // A user directory that isn't one: the walk can't open the file.
  mail_env_clear();
  Put("plain", "");
  local_set_home(Path("plain").c_str());
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(Logged(), Names{"Failed to open subscription database: " + Path("plain/subscrib.dat") + " - Not a directory\n"});
}

// A file far beyond any list of names is refused whole, never cut.
TEST_F(Subscribe, OversizedFileIsRefused) {
  const std::string huge = std::string(5u << 20, 'x') + "\n";
  Put("subscrib.dat", huge);
  EXPECT_EQ(subscribe_add("Play"), 0);
  void* state = nullptr;
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(Logged(), (Names{"Failed on read of subscription database: File too large",
                             "Failed to read subscription database: " + Path("subscrib.dat") + " - File too large n"}));
  EXPECT_EQ(Get("subscrib.dat").size(), huge.size());
}

}  // namespace
