// Counts of a local folder without opening it: from the index and the
// queue of appends, each message once, nothing written, and no answer at
// all from an index the driver doesn't trust.
#include <functional>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

// "messages/recent/unseen" ("-" not asked), or "none" when the driver can't tell.
std::string Status(const char* name, long flags = SA_MESSAGES | SA_RECENT | SA_UNSEEN, MailStream* via = nullptr) {
  MailStatus st{};
  if (!mail_status(via, name, flags, &st)) return st.flags || st.messages ? "cleared?" : "none";
  auto show = [&](long bit, unsigned long n) { return flags & bit ? std::to_string(n) : std::string("-"); };
  return show(SA_MESSAGES, st.messages) + "/" + show(SA_RECENT, st.recent) + "/" + show(SA_UNSEEN, st.unseen) +
         (st.flags == (flags & (SA_MESSAGES | SA_RECENT | SA_UNSEEN)) ? "" : " flags?");
}

TEST_F(MhTest, StatusCountsFollowAppendsFlagsAndTheQueue) {
  const std::string dir = Create("Box"), index = dir + "/mh_index.dat", queue = dir + "/mh_updat.dat";
  auto open_close = [&](const char* flag) {
    MailStream* s = OpenOk("Box");
    if (flag) mail_setflag(s, "1", flag);
    Close(s);
  };
  struct Step {
    std::function<void()> act;
    const char* want;
  } steps[] = {
      {[] {}, "0/0/0"},
      {[&] {  // appends wait in the queue
         ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
         ASSERT_EQ(Append("Box", MakeMessage(1, true), "(\\Seen)"), 1);
         ASSERT_EQ(Append("Box", MakeMessage(2, false)), 1);
       }, "3/3/2"},
      {[&] { open_close("\\Seen"); }, "3/0/1"},  // applied by an open, message 1 read
      // A queue record the index already holds counts once.
      {[&] { WriteFile(queue, ReadFile(index).substr(kMhHeaderSize, kMhRecordSize)); }, "3/0/1"},
      {[&] {  // a queue record twice, and one whose file is gone
         ASSERT_EQ(Append("Box", MakeMessage(3, true)), 1);
         std::string last = ReadFile(queue).substr(ReadFile(queue).size() - kMhRecordSize), gone = last;
         gone[0] = static_cast<char>(gone[0] + 10);
         WriteFile(queue, ReadFile(queue) + last + gone);
       }, "4/1/2"},
      {[&] { WriteFile(index, std::string(4, '\0') + ReadFile(index).substr(4)); }, "none"},  // marked untrusted
      {[&] { open_close(nullptr); }, "4/0/2"},  // the next open rebuilds
      {[&] { WriteFile(index, ReadFile(index).substr(0, ReadFile(index).size() - 1)); }, "none"},  // short
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(&step - steps);
    step.act();
    const std::string before = ReadFile(index) + "|" + (fs::exists(queue) ? ReadFile(queue) : "");
    mail_env_clear();
    EXPECT_EQ(Status("Box"), step.want);
    // Asking writes nothing and says nothing.
    EXPECT_EQ(ReadFile(index) + "|" + (fs::exists(queue) ? ReadFile(queue) : ""), before);
    EXPECT_EQ(Logs(), "");
  }
}

TEST_F(MhTest, StatusOfWhatCantBeToldIsZero) {
  Create("Box");
  ASSERT_EQ(Append("Box", MakeMessage(0, true)), 1);
  EXPECT_EQ(Status("Box", SA_UNSEEN), "-/-/1");
  EXPECT_EQ(Status("Box", SA_ALL), "1/1/1");  // no UIDs here
  for (long flags : {SA_UIDNEXT | SA_UIDVALIDITY, 0l}) EXPECT_EQ(Status("Box", flags), "none");
  for (const char* name : {"Missing", "Box\\.."}) EXPECT_EQ(Status(name), "none");
  // A stream of the folder may carry the question; the answer is the same.
  MailStream* s = OpenOk("Box");
  EXPECT_EQ(Status("Box", SA_MESSAGES, s), "1/-/-");
}

}  // namespace
}  // namespace mh_test
