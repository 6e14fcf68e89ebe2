// The subscription database: what reaches the file, what the walk gives,
// and that a failure changes nothing.
#include "c-client/mh/subscribe.h"

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

class Subscribe : public MhTest {
 protected:
  std::string Path(const char* file) { return home_ + "/" + file; }
  void Put(const char* file, const std::string& text) { WriteFile(Path(file), text); }
  // The file's bytes, or "-" when it isn't there.
  std::string Get(const char* file) { return fs::exists(Path(file)) ? ReadFile(Path(file)) : "-"; }
  // One whole walk.
  std::vector<std::string> Walk() {
    std::vector<std::string> names;
    void* state = nullptr;
    while (const char* name = subscribe_next(&state)) names.push_back(name);
    EXPECT_EQ(state, nullptr);
    return names;
  }
  std::vector<std::string> Logged() { return EnvLines("log"); }
};

using Names = std::vector<std::string>;

// What reaches the file, what the walk gives: the walk sees the file as it
// was when it began, and starts again after its end; a rewrite keeps every
// name and drops only empty lines and CRs.
TEST_F(Subscribe, AddRemoveAndWalk) {
  EXPECT_EQ(Walk(), Names{});  // no file yet: no subscriptions, no complaint
  Put("subscrib.dat", "Work\r\n\r\nWork\\2024\n");
  void* state = nullptr;
  EXPECT_STREQ(subscribe_next(&state), "Work");
  EXPECT_EQ(subscribe_add("#dawz/INBOX"), 1);
  EXPECT_STREQ(subscribe_next(&state), "Work\\2024");
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(Get("subscrib.dat"), "Work\nWork\\2024\n#dawz/INBOX\n");
  EXPECT_EQ(Get("subscrib.bak"), "Work\r\n\r\nWork\\2024\n");
  EXPECT_EQ(fs::status(Path("subscrib.dat")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(Walk(), (Names{"Work", "Work\\2024", "#dawz/INBOX"}));
  EXPECT_EQ(subscribe_remove("Work\\2024"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "Work\n#dawz/INBOX\n");
  EXPECT_EQ(subscribe_remove("Work"), 1);
  EXPECT_EQ(subscribe_remove("#dawz/INBOX"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "");
  EXPECT_EQ(Get("subscrib.new"), "-");
  EXPECT_EQ(Logged(), Names{});
}

TEST_F(Subscribe, RefusalsLeaveTheFileAlone) {
  const std::string before = "Work\nPlay\n";
  const std::tuple<long (*)(const char*), const char*, const char*> rows[] = {
      {subscribe_add, nullptr, "Cannot subscribe to a NULL foldername.\n"},
      {subscribe_remove, nullptr, "Cannot unsubscribe to a NULL foldername.\n"},
      {subscribe_add, "Work", "Already subscribed to mailbox Work"},
      {subscribe_add, "a\nb", "Can't subscribe to mailbox a\nb: invalid name"},
      {subscribe_remove, "work", "Not subscribed to mailbox work"},
  };
  for (const auto& [call, name, message] : rows) {
    SCOPED_TRACE(message);
    Put("subscrib.dat", before);
    mail_env_clear();
    EXPECT_EQ(call(name), 0);
    EXPECT_EQ(Logged(), Names{message});
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
  EXPECT_EQ(Walk(), Names{});
  EXPECT_EQ(Logged(), (Names{"Failed on read of subscription database: Is a directory",
                             "Failed on read of subscription database: Is a directory",
                             "Failed to open subscription database: " + Path("subscrib.dat") + " - Is a directory\n"}));
  EXPECT_TRUE(fs::is_directory(Path("subscrib.dat")));
  EXPECT_EQ(Get("subscrib.new"), "-");

  // A file far beyond any list of names is refused whole, never cut.
  mail_env_clear();
  fs::remove(Path("subscrib.dat"));
  const std::string huge = std::string(5u << 20, 'x') + "\n";
  Put("subscrib.dat", huge);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(Walk(), Names{});
  EXPECT_EQ(Logged(), (Names{"Failed on read of subscription database: File too large",
                             "Failed to read subscription database: " + Path("subscrib.dat") + " - File too large n"}));
  EXPECT_EQ(Get("subscrib.dat").size(), huge.size());
}

}  // namespace
}  // namespace mh_test
