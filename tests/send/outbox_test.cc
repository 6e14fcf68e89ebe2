// The outbox without a mail server: which folder may be one, what the
// program answers on its channel, a background sender that is missing,
// and an open outbox read again when another program changed it.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "c-client/auth/auth.h"
#include "src/base/critical.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "src/send/channel.h"
#include "src/send/submit.h"
#include "tests/model/model_fixture.h"

namespace {

class Outbox : public ModelTest {
 protected:
  void TearDown() override {
    SDDE_StopServer();
    SUBMIT_SetProgramForTest("");
    AUTH_ForgetLogin();
    ModelTest::TearDown();
  }
  std::string Full(const char* folder) {
    std::string full;
    MM_CCGenFolName(local_, folder, &full);
    return full;
  }
};

TEST_F(Outbox, AFolderNamedLikeTheInboxIsNeverTheOutbox) {
  struct Case {
    const char* option;
    bool opens;
  };
  const Case cases[] = {
      {"Local!MyInbox", false}, {"Local!inbox", false}, {"Local!old/INBOXES", false},
      {"Local!outbox", true},   {"", false},            {"Nowhere!outbox", false},
  };
  for (const char* f : {"MyInbox", "inbox", "outbox"}) ASSERT_TRUE(MM_FolCreate(local_, f, 1)) << f;
  for (const Case& c : cases) {
    Opt_AssignString("General.OutboxFolder", c.option, kOptPermanent, 0);
    const int id = OUTBOX_Open();
    EXPECT_EQ(id != INVALID_FOLDER, c.opens) << c.option;
    OUTBOX_Close(id);
  }
  EXPECT_TRUE(Traced("OUTBOX_Open(): can't use INBOX as outbox.\n"));
  // Nothing to open answers "empty", whatever the folder holds.
  for (int i = 1; i <= 2; ++i) Append(Full("MyInbox"), Numbered(i));
  Opt_AssignString("General.OutboxFolder", "Local!MyInbox", kOptPermanent, 0);
  EXPECT_EQ(SUBMIT_OutboxIsEmpty(), 1);
  EXPECT_EQ(Mob_AnyQueuedMessages(), 0);
}

TEST_F(Outbox, ProgramAnswersWhatItKnowsAndNothingElse) {
  struct Case {
    std::function<void()> first;  // what changes before the question
    const char* item;
    int answered;
    std::string answer;
  };
  SDDE_SetFullyStarted(1);
  Opt_AssignString("Options.Location", "Local", kOptSession, 0);
  const Case cases[] = {
      {nullptr, "FULLYSTARTED", 1, "1"},
      {nullptr, "READINGFROMLOCAL", 1, "1"},
      {nullptr, "LASTRESULT", 1, "0"},
      {nullptr, "GETLOGININFO", 0, ""},
      {nullptr, "MAPILOGON", 0, ""},
      {nullptr, "COMMANDINPROGRESS", 1, WIN_in_critical() ? "1" : "0"},
      {[] { AUTH_InitLogin("kim", ""); }, "GETLOGININFO", 0, ""},  // no password: no login
      {[] { AUTH_InitLogin("kim", "s3cret"); }, "GETLOGININFO", 1, "kim:::s3cret"},
      {[] { Opt_AssignString("Options.Location", "Remote", kOptSession, 0); },
       "READINGFROMLOCAL", 1, "0"},
  };
  for (const Case& c : cases) {
    if (c.first) c.first();
    std::string answer;
    EXPECT_EQ(HandleRequest(c.item, &answer), c.answered) << c.item;
    EXPECT_EQ(answer, c.answer) << c.item;
  }
  EXPECT_EQ(SDDE_HandlePoke("CURSESSHANDLE", "42"), 1);
  EXPECT_EQ(SDDE_HandlePoke("FLUSHOUTBOXSTAYUP", "1"), 0);
}

TEST_F(Outbox, AMissingBackgroundSenderIsNamedAndTheMessageStays) {
  ASSERT_TRUE(MM_FolCreate(local_, "outbox", 1));
  MakeFolder(Full("queue"), 1);
  Opt_AssignString("General.OutboxFolder", "Local!queue", kOptPermanent, 0);
  const std::string missing = home_ + "/bin/velmar-submit";
  SUBMIT_SetProgramForTest(missing);
  xvt_test_clear_posts();
  EXPECT_EQ(SUBMIT_FlushOutbox(), 0);
  EXPECT_NE(Posts().find("Failed to start background sending application.\nSubmit could not be started: File \"" +
                         missing + "\" not found."),
            std::string::npos)
      << Posts();
  EXPECT_EQ(CountOnDisk(Full("queue")), 1);
  EXPECT_EQ(SUBMIT_OutboxIsEmpty(), 0);
}

// Another program added to and removed from the outbox files; the poke
// makes the open folder show what is there now, and the windows hear of it.
TEST_F(Outbox, OutboxModifiedRereadsTheOpenOutboxOnly) {
  MakeFolder(Full("queue"), 3);
  Opt_AssignString("General.OutboxFolder", "Local!queue", kOptPermanent, 0);
  ASSERT_EQ(SDDE_StartServer(), 1);
  const int id = MM_FolOpen(local_, "queue");
  ASSERT_NE(id, INVALID_FOLDER);
  // What the background sender does: delete and expunge through a stream
  // of its own, then append one more.
  MailStream* other = mail_open(nullptr, Full("queue").c_str(), OP_SILENT);
  ASSERT_NE(other, nullptr);
  mail_setflag(other, "1:2", "\\Deleted");
  mail_expunge(other);
  mail_close(other);
  Append(Full("queue"), Numbered(9));

  struct Case {
    const char* value;
    long count;  // what the open folder shows afterwards
  };
  const Case cases[] = {{"0", 3}, {"1", 2}};
  for (const Case& c : cases) {
    seen_.clear();
    ChannelClient client;
    ASSERT_TRUE(client.Connect(ChannelPath(GetUserDir(), "VELMAR")));
    EXPECT_TRUE(client.Transact({ChannelKind::kPoke, "OUTBOXMODIFIED", c.value}, nullptr, 5000,
                                [] { SDDE_Pump(10); }));
    EXPECT_EQ(MM_FolGetNumMsgs(id), c.count) << c.value;
    EXPECT_EQ(Types({E_MSG_EXPUNGED}).size(), c.value[0] == '1' ? 3u : 0u);
    EXPECT_EQ(Types({E_NEW_MESSAGES}).size(), c.value[0] == '1' ? 1u : 0u);
  }
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 1)), "message 3");
  EXPECT_EQ(Subject(MM_UMIFromMsgno(id, 2)), "message 9");
  MM_FolClose(id, 0);
}

}  // namespace
