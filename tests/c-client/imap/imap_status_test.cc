// mail_status over the imap2 driver against a scripted server: the STATUS
// command it sends, the untagged answers it takes (and the ones it must
// not), broken answers, and servers that can't tell. Never a dialog: the
// question comes from a timer.
#include <gtest/gtest.h>

#include <string>

#include "tests/c-client/imap/fake_imap_server.h"

namespace {

using namespace imap_test;

TEST_F(ImapFake, StatusAnswersAndBrokenAnswers) {
  struct Case {
    const char* mailbox;
    long flags;
    Script exchange;   // after the open
    const char* want;  // "messages/unseen/uidnext", "none", or "bad" (logged)
  } cases[] = {
      {"Work", SA_ALL,
       {"C: $T STATUS Work (MESSAGES RECENT UNSEEN UIDNEXT UIDVALIDITY)",
        "S: * STATUS Work (MESSAGES 3 RECENT 1 UNSEEN 0 UIDNEXT 40 UIDVALIDITY 99)", "S: $T OK"},
       "3/0/40"},
      {"Work", SA_MESSAGES | SA_UNSEEN,  // another mailbox's answer is not ours
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Other (MESSAGES 50 UNSEEN 50)",
        "S: * STATUS Work (UNSEEN 1 MESSAGES 4)", "S: * STATUS Work2 (MESSAGES 60 UNSEEN 60)", "S: $T OK"},
       "4/1/0"},
      {"My Box", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS \"My Box\" (MESSAGES UNSEEN)", "S: * STATUS {6}", "R: My Box (MESSAGES 5 UNSEEN 5)\r\n",
        "S: $T OK"},
       "5/5/0"},
      {"inbox", SA_UNSEEN,
       {"C: $T STATUS inbox (UNSEEN)", "S: * STATUS INBOX (HIGHESTMODSEQ 18446744073709551615 X-LIST (a (b)) UNSEEN 9)",
        "S: $T OK"},
       "0/9/0"},
      {"Work", SA_MESSAGES | SA_UNSEEN,
       {"C: $T STATUS Work (MESSAGES UNSEEN)", "S: * STATUS Work (MESSAGES 8)", "S: * STATUS Work (UNSEEN 3)",
        "S: $T OK"},
       "8/3/0"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (MESSAGES x7)", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (MESSAGES 4294967296)", "S: $T OK"},
       "bad"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (MESSAGES 3", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work MESSAGES 3", "S: $T OK"}, "bad"},
      {"Gone", SA_MESSAGES, {"C: $T STATUS Gone (MESSAGES)", "S: $T NO Mailbox doesn't exist"}, "none"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: $T OK"}, "none"},
      {"Work", SA_MESSAGES, {"C: $T STATUS Work (MESSAGES)", "S: * STATUS Work (UNSEEN 3)", "S: $T OK"}, "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.exchange[1]);
    FakeImapServer server(Opening(-1, "IMAP4rev1") + c.exchange + Script{"C: $T NOOP", "S: $T OK done"});
    ASSERT_NE(Open(server, OP_CONTROL), nullptr) << server.mismatch;
    MailStatus st{};
    st.messages = 12345;  // cleared by the call whatever the answer
    long ok = mail_status(stream_, server.Name(c.mailbox).c_str(), c.flags, &st);
    EXPECT_EQ(st.flags, ok ? c.flags : 0);
    std::string got = std::to_string(st.messages) + "/" + std::to_string(st.unseen) + "/" + std::to_string(st.uidnext);
    bool bad = EnvLogs(1).find("Bad STATUS reply") != std::string::npos;
    EXPECT_EQ(ok || got != "0/0/0" ? got : bad ? "bad" : "none", c.want) << EnvLogs(1);
    EXPECT_EQ(mail_ping(stream_), 1);  // still in step: the next command gets its own answer
    Done(server);
    EXPECT_EQ(EnvLogs(2), "");
  }
}

TEST_F(ImapFake, StatusNotAskedOfServersThatCantTell) {
  const Script noops = {"C: $T NOOP", "S: $T OK", "C: $T NOOP", "S: $T OK"};
  // IMAP4 without rev1 has no STATUS; a server that refuses it once is not asked again.
  for (const Script& script : {Opening(-1, "IMAP4") + noops,
                               Opening(-1, "IMAP4rev1") + Script{"C: $T STATUS Work", "S: $T BAD ?"} + noops}) {
    FakeImapServer server(script);
    ASSERT_NE(Open(server, OP_CONTROL), nullptr) << server.mismatch;
    for (int round = 0; round < 2; ++round) {
      MailStatus st{};
      EXPECT_EQ(mail_status(stream_, server.Name("Work").c_str(), SA_MESSAGES | SA_UNSEEN, &st), 0);
      EXPECT_EQ(st.flags, 0);
      EXPECT_EQ(mail_ping(stream_), 1);
    }
    Done(server);
    EXPECT_EQ(EnvLogs(2), "");
  }
}

TEST_F(ImapFake, StatusWithoutAStreamOpensAndClosesAControlStream) {
  FakeImapServer server(Opening(-1, "IMAP4rev1") + Script{"C: $T STATUS Work (UNSEEN)", "S: * STATUS Work (UNSEEN 6)",
                                                          "S: $T OK", "C: $T LOGOUT", "S: * BYE", "S: $T OK bye"});
  MailStatus st{};
  EXPECT_EQ(mail_status(nullptr, server.Name("Work").c_str(), SA_UNSEEN, &st), 1);
  EXPECT_EQ(st.unseen, 6u);
  Done(server);
  // Names no driver takes, and questions with nothing asked, are answered 0 quietly.
  EXPECT_EQ(mail_status(nullptr, "{}nothing", SA_UNSEEN, &st), 0);
  EXPECT_EQ(mail_status(nullptr, server.Name("Work").c_str(), 0, &st), 0);
  EXPECT_EQ(EnvLogs(2), "");
}

}  // namespace
