// mail_status over the imap2 driver against a scripted server: the STATUS
// command it sends, the untagged answers it takes (and the ones it must
// not), broken answers, and servers that can't tell.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/imap/fake_imap_server.h"

namespace {

using imap_test::FakeImapServer;
using Script = std::vector<std::string>;

// Greeting, probe and login of a server announcing `capability`, for a
// control stream (no SELECT).
Script ControlOpen(const std::string& capability) {
  Script s = {"S: * OK fake ready",
              "C: $T CAPABILITY",
              "S: * CAPABILITY " + capability,
              "S: $T OK done",
              "C: $T GETACL MAILBOX a1bcdefghijklmnop",
              "S: $T BAD unknown",
              "C: $T GETQUOTAROOT a1bcdefghijklmnop",
              "S: $T BAD unknown"};
  // Below IMAP4rev1 every mechanism of the table is tried first.
  if (capability.find("IMAP4rev1") == std::string::npos)
    s.insert(s.end(), {"C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD what?"});
  s.insert(s.end(), {"C: $T LOGIN user secret", "S: $T OK [CAPABILITY " + capability + "] logged in"});
  return s;
}

Script operator+(Script a, const Script& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class ImapStatus : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_unlink_all();
    mail_link(&imap2driver);
    mail_env_clear();
    mail_env_set_login("user", "secret");
    tcp_set_timeouts_for_test(5, 5, 5);
    long zero = 0;
    mail_parameters(nullptr, 112, &zero);
    mail_parameters(nullptr, 114, &zero);
  }
  void TearDown() override {
    stream_ = mail_close(stream_);
    tcp_set_timeouts_for_test(0, 0, 0);
  }
  MailStream* stream_ = nullptr;
};

TEST_F(ImapStatus, AnswersAndBrokenAnswers) {
  struct Case {
    const char* what;
    const char* mailbox;
    long flags;
    Script exchange;  // after the open
    long result;
    unsigned long messages, unseen, uidnext;
    long answered;       // flags of the answer
    bool bad_reply_logged;
  } cases[] = {
      {"plain answer", "Work", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Work (MESSAGES 7 UNSEEN 2)", "S: $T OK done"},
       1, 7, 2, 0, SA_MESSAGES | SA_UNSEEN, false},
      {"every item asked", "Work", SA_ALL,
       {"C: $T STATUS Work (MESSAGES RECENT UNSEEN UIDNEXT UIDVALIDITY)",
        "S: * STATUS Work (MESSAGES 3 RECENT 1 UNSEEN 0 UIDNEXT 40 UIDVALIDITY 99)", "S: $T OK done"},
       1, 3, 0, 40, SA_ALL, false},
      {"another mailbox's answer is not ours", "Work", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Other (MESSAGES 50 UNSEEN 50)",
        "S: * STATUS Work (UNSEEN 1 MESSAGES 4)", "S: * STATUS Work2 (MESSAGES 60 UNSEEN 60)", "S: $T OK done"},
       1, 4, 1, 0, SA_MESSAGES | SA_UNSEEN, false},
      {"quoted name, answered with a literal", "My Box", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS \"My Box\" (MESSAGES UNSEEN)", "S: * STATUS {6}", "R: My Box (MESSAGES 5 UNSEEN 5)\r\n",
        "S: $T OK done"},
       1, 5, 5, 0, SA_MESSAGES | SA_UNSEEN, false},
      {"inbox in another case, unknown items stepped over", "inbox", SA_UNSEEN,
       {"C: $T STATUS inbox (UNSEEN)",
        "S: * STATUS INBOX (HIGHESTMODSEQ 18446744073709551615 X-LIST (a (b)) UNSEEN 9)", "S: $T OK done"},
       1, 0, 9, 0, SA_UNSEEN, false},
      {"answer in two lines", "Work", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Work (MESSAGES 8)", "S: * STATUS Work (UNSEEN 3)",
        "S: $T OK done"},
       1, 8, 3, 0, SA_MESSAGES | SA_UNSEEN, false},
      {"not a number", "Work", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Work (MESSAGES x7 UNSEEN 2)", "S: $T OK done"},
       0, 0, 0, 0, 0, true},
      {"beyond 32 bits", "Work", SA_MESSAGES,
       {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (MESSAGES 4294967296)", "S: $T OK done"},
       0, 0, 0, 0, 0, true},
      {"list never closed", "Work", SA_MESSAGES,
       {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (MESSAGES 3", "S: $T OK done"}, 0, 0, 0, 0, 0, true},
      {"no list at all", "Work", SA_MESSAGES,
       {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work MESSAGES 3", "S: $T OK done"}, 0, 0, 0, 0, 0, true},
      {"NO: no such mailbox", "Gone", SA_MESSAGES,
       {"C: $T STATUS Gone (MESSAGES)", "S: $T NO Mailbox doesn't exist"}, 0, 0, 0, 0, 0, false},
      {"OK without an answer", "Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: $T OK done"}, 0, 0, 0, 0,
       0, false},
      {"answers only an item not asked", "Work", SA_MESSAGES,
       {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (UNSEEN 3)", "S: $T OK done"}, 0, 0, 0, 0, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    FakeImapServer server(ControlOpen("IMAP4rev1") + c.exchange + Script{"C: $T NOOP", "S: $T OK done"});
    mail_env_clear();
    stream_ = mail_open(nullptr, server.Name("").c_str(), OP_CONTROL);
    ASSERT_NE(stream_, nullptr) << server.mismatch();
    MailStatus st{};
    st.messages = 12345;  // cleared by the call whatever the answer
    EXPECT_EQ(mail_status(stream_, server.Name(c.mailbox).c_str(), c.flags, &st), c.result);
    EXPECT_EQ(st.flags, c.answered);
    EXPECT_EQ(st.messages, c.messages);
    EXPECT_EQ(st.unseen, c.unseen);
    EXPECT_EQ(st.uidnext, c.uidnext);
    // Still in step: the next command gets its own answer.
    EXPECT_EQ(mail_ping(stream_), 1);
    server.Finish();
    EXPECT_TRUE(server.completed()) << server.mismatch();
    EXPECT_EQ(EnvLogs(1).find("Bad STATUS reply") != std::string::npos, c.bad_reply_logged) << EnvLogs(1);
    // Never a dialog: the question comes from a timer.
    EXPECT_EQ(EnvLogs(2), "");
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapStatus, ServersThatCantTellAreNotAsked) {
  struct Case {
    const char* what;
    Script script;  // the open, and what follows the first status question
  } cases[] = {
      // IMAP4 without rev1 has no STATUS: nothing is sent.
      {"IMAP4 server", ControlOpen("IMAP4") + Script{"C: $T NOOP", "S: $T OK done", "C: $T NOOP", "S: $T OK done"}},
      // A server that refuses it once is not asked again on this connection.
      {"BAD once", ControlOpen("IMAP4rev1") + Script{"C: $T STATUS Work (MESSAGES UNSEEN)", "S: $T BAD what?",
                                                     "C: $T NOOP", "S: $T OK done", "C: $T NOOP", "S: $T OK done"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    FakeImapServer server(c.script);
    mail_env_clear();
    stream_ = mail_open(nullptr, server.Name("").c_str(), OP_CONTROL);
    ASSERT_NE(stream_, nullptr) << server.mismatch();
    for (int round = 0; round < 2; ++round) {
      MailStatus st{};
      EXPECT_EQ(mail_status(stream_, server.Name("Work").c_str(), SA_MESSAGES | SA_UNSEEN, &st), 0);
      EXPECT_EQ(st.flags, 0);
      EXPECT_EQ(mail_ping(stream_), 1);
    }
    server.Finish();
    EXPECT_TRUE(server.completed()) << server.mismatch();
    EXPECT_EQ(EnvLogs(2), "");
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapStatus, WithoutAStreamAControlStreamIsOpenedAndClosed) {
  FakeImapServer server(ControlOpen("IMAP4rev1") + Script{"C: $T STATUS Work (UNSEEN)",
                                                          "S: * STATUS Work (UNSEEN 6)", "S: $T OK done",
                                                          "C: $T LOGOUT", "S: * BYE", "S: $T OK bye"});
  MailStatus st{};
  EXPECT_EQ(mail_status(nullptr, server.Name("Work").c_str(), SA_UNSEEN, &st), 1);
  EXPECT_EQ(st.unseen, 6u);
  server.Finish();
  EXPECT_TRUE(server.completed()) << server.mismatch();
  // Names no driver takes, and questions with nothing asked, are answered 0 quietly.
  EXPECT_EQ(mail_status(nullptr, "{}nothing", SA_UNSEEN, &st), 0);
  EXPECT_EQ(mail_status(nullptr, server.Name("Work").c_str(), 0, &st), 0);
  EXPECT_EQ(EnvLogs(2), "");
}

}  // namespace
