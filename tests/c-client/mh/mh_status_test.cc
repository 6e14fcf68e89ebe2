// Counts of a local folder without opening it: from the index and the
// queue of appends, each message once, nothing written, and no answer at
// all from an index the driver doesn't trust.
#include <functional>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

class MhStatus : public MhTest {
 protected:
  // "messages/recent/unseen", or "none" when the driver can't tell.
  static std::string Status(const char* name, long flags = SA_MESSAGES | SA_RECENT | SA_UNSEEN) {
    MailStatus st{};
    if (!mail_status(nullptr, name, flags, &st)) return st.flags ? "cleared?" : "none";
    return std::to_string(st.messages) + "/" + std::to_string(st.recent) + "/" + std::to_string(st.unseen);
  }
};

TEST_F(MhStatus, CountsFollowAppendsFlagsAndTheQueue) {
  const std::string dir = Create("Box");
  struct Step {
    const char* what;
    std::function<void()> act;
    const char* want;
  } steps[] = {
      {"a new folder", [] {}, "0/0/0"},
      {"appends wait in the queue",
       [&] {
         ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
         ASSERT_EQ(Append("Box", MakeMessage(1, true), "(\\Seen)"), 1);
         ASSERT_EQ(Append("Box", MakeMessage(2, false)), 1);
       },
       "3/3/2"},
      {"applied by an open, message 1 read, closed",
       [&] {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr);
         mail_setflag(s, "1", "\\Seen");
         Close(s);
       },
       "3/0/1"},
      {"a queue record the index already holds counts once",
       [&] { WriteFile(dir + "/mh_updat.dat", ReadFile(dir + "/mh_index.dat").substr(kMhHeaderSize, kMhRecordSize)); },
       "3/0/1"},
      {"a queue record twice, and one whose file is gone",
       [&] {
         ASSERT_EQ(Append("Box", MakeMessage(3, true)), 1);
         const std::string queue = ReadFile(dir + "/mh_updat.dat");
         const std::string last = queue.substr(queue.size() - kMhRecordSize);
         std::string gone = last;
         gone[0] = static_cast<char>(gone[0] + 10);  // a number with no file
         WriteFile(dir + "/mh_updat.dat", queue + last + gone);
       },
       "4/1/2"},
      {"an index marked untrusted can't tell",
       [&] {
         std::string index = ReadFile(dir + "/mh_index.dat");
         index.replace(0, 4, std::string(4, '\0'));
         WriteFile(dir + "/mh_index.dat", index);
       },
       "none"},
      {"the next open rebuilds, and counts come back",
       [&] {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr);
         Close(s);
       },
       "4/0/2"},
      {"an index that counts more records than it holds",
       [&] {
         std::string index = ReadFile(dir + "/mh_index.dat");
         WriteFile(dir + "/mh_index.dat", index.substr(0, index.size() - 1));
       },
       "none"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.act();
    const std::string index = ReadFile(dir + "/mh_index.dat");
    const std::string queue = fs::exists(dir + "/mh_updat.dat") ? ReadFile(dir + "/mh_updat.dat") : "";
    mail_env_clear();
    EXPECT_EQ(Status("Box"), step.want);
    // Asking writes nothing and says nothing.
    EXPECT_EQ(ReadFile(dir + "/mh_index.dat"), index);
    EXPECT_EQ(fs::exists(dir + "/mh_updat.dat") ? ReadFile(dir + "/mh_updat.dat") : "", queue);
    EXPECT_EQ(Logs(), "");
  }
}

TEST_F(MhStatus, WhatCantBeToldIsZero) {
  Create("Box");
  ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
  struct Case {
    const char* name;
    long flags;
    long result;
    long answered;
  } table[] = {
      {"Box", SA_UNSEEN, 1, SA_UNSEEN},
      {"Box", SA_ALL, 1, SA_MESSAGES | SA_RECENT | SA_UNSEEN},  // no UIDs here
      {"Box", SA_UIDNEXT | SA_UIDVALIDITY, 0, 0},
      {"Box", 0, 0, 0},
      {"Missing", SA_UNSEEN, 0, 0},
      {"Box\\..", SA_UNSEEN, 0, 0},
  };
  for (const Case& c : table) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.flags));
    MailStatus st{};
    EXPECT_EQ(mail_status(nullptr, c.name, c.flags, &st), c.result);
    EXPECT_EQ(st.flags, c.answered);
    EXPECT_EQ(st.unseen, c.result ? 1u : 0u);
  }
  // A stream of the folder may carry the question; the answer is the same.
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  MailStatus st{};
  EXPECT_EQ(mail_status(s, "Box", SA_MESSAGES, &st), 1);
  EXPECT_EQ(st.messages, 1u);
}

}  // namespace
}  // namespace mh_test
