// The imap2 driver against a scripted server: the older protocol
// generations and their fallbacks, and replies that are broken, truncated
// or hostile. Each must end in the documented result, never a crash or a
// hang, and the reader must stay in step with the server. And mailbox names
// between UTF-8 and their wire form.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "c-client/imap/mutf7.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/strsrc.h"
#include "tests/c-client/imap/fake_imap_server.h"

namespace {

using namespace imap_test;

const std::string kStructure = " (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)";
const std::string kBroken = "IMAP server connection broken during server response";

// An untagged FETCH of message n with subject "s<n>" and a one-line text body.
std::string Message(int n, const std::string& items = "") {
  return "S: * " + std::to_string(n) + " FETCH (" + items + "ENVELOPE (NIL \"s" + std::to_string(n) +
         "\" NIL NIL NIL NIL NIL NIL NIL NIL) BODYSTRUCTURE (\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1))";
}

TEST_F(ImapFake, Imap2ServerFallsBackToFindAndTheBodylessFetch) {
  FakeImapServer server({
      "S: * OK IMAP2 server ready", "C: $T CAPABILITY", "S: $T BAD ?",
      "C: $T GETACL MAILBOX a1bcdefghijklmnop", "S: $T BAD ?", "C: $T GETQUOTAROOT a1bcdefghijklmnop", "S: $T BAD ?",
      "C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD ?", "C: $T LOGIN user secret", "S: $T OK hello",
      "C: $T CAPABILITY", "S: $T BAD ?", "C: $T SELECT INBOX", "S: * 2 EXISTS", "S: $T OK done",
      "C: $T LSUB \"\" \"*\"", "S: $T BAD ?", "C: $T FIND MAILBOXES \"*\"", "S: * MAILBOX Mail/old", "S: $T OK done",
      "C: $T LIST \"\" \"*\"", "S: $T BAD ?", "C: $T FIND ALL.MAILBOXES \"*\"", "S: * MAILBOX other", "S: $T OK",
      "C: $T FIND MAILBOXES \"x*\"", "S: $T OK done",  // later lists go straight to FIND
      "C: $T FETCH 1:2 FULL", "S: $T BAD ?", "C: $T FETCH 1:2 ALL",
      "S: * 1 FETCH (FLAGS (\\Seen) INTERNALDATE \"02-Mar-1995 10:00:00 -0800\" RFC822.SIZE 120 ENVELOPE "
      "(\"Thu, 2 Mar 1995 10:00:00 -0800\" \"old mail\" ((\"A\" NIL \"a\" \"x.org\")) NIL NIL NIL NIL NIL NIL NIL))",
      "S: $T OK done", "C: $T FETCH 1:2 ALL", "S: $T OK done",  // no body came: asked again, in vain
      "C: $T SUBSCRIBE old", "S: $T BAD ?", "C: $T SUBSCRIBE MAILBOX old", "S: $T OK done",
  });
  ASSERT_NE(Open(server, OP_DEBUG), nullptr) << server.mismatch;
  mail_find(stream_, "*");
  mail_find_all(stream_, "{127.0.0.1}*");
  mail_find(stream_, "x*");
  Envelope* env = mail_fetchstructure(stream_, 1, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "old mail");
  EXPECT_TRUE(mail_elt(stream_, 1)->seen);
  EXPECT_EQ(mail_elt(stream_, 1)->rfc822_size, 120u);
  unsigned long length = 7;
  EXPECT_EQ(mail_fetchbody(stream_, 1, "2", &length), nullptr);  // no BODY[] on IMAP2
  EXPECT_EQ(mail_subscribe(stream_, server.Name("old").c_str()), 1);
  long word = 0;
  mail_capabilities(stream_, &word);
  EXPECT_EQ(word & (CAP_FOLDERS | CAP_ACL | CAP_QUOTA), 0);
  Done(server);
  std::vector<std::string> boxes = EnvLines("mailbox");
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].rfind(server.Name("Mail/old"), 0), 0u);
}

TEST_F(ImapFake, CapabilityWordsSetTheCapabilityBits) {
  struct Case {
    const char* words;  // announced once logged in
    long bits;
    Script probe_again;  // an IMAP4 (not rev1) server is probed again after login
  } cases[] = {
      {"IMAP4rev1", CAP_FOLDERS | CAP_SUBSCRIBE, {}},
      {"IMAP4 ACL QUOTA", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA, {"C: $T CAPABILITY", "S: $T OK"}},
      {"IMAP4", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL,
       {"C: $T CAPABILITY", "S: $T OK", "C: $T GETACL", "S: $T NO no such mailbox", "C: $T GETQUOTAROOT", "S: $T BAD"}},
      {"IMAP4rev1 NO-ATOMIC-RENAME", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_RENAME_NOT_ATOMIC, {}},
      {"IMAP4rev1 X-NO-HIERARCHICAL-RENAME quota", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_QUOTA | CAP_RENAME_NOT_ATOMIC, {}},
  };
  long one = 1;
  mail_parameters(nullptr, 112, &one);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words);
    FakeImapServer server(Script{"S: * OK ready", "C: $T CAPABILITY", "S: * CAPABILITY IMAP2", "S: $T OK",
                                 "C: $T GETACL", "S: $T BAD", "C: $T GETQUOTAROOT", "S: $T BAD",
                                 "C: $T LOGIN user secret", std::string("S: $T OK [CAPABILITY ") + c.words + "] in",
                                 "C: $T SELECT INBOX", "S: $T OK done"} +
                          c.probe_again);
    ASSERT_NE(Open(server), nullptr) << server.mismatch;
    long word = 0;
    mail_capabilities(stream_, &word);
    Done(server);
    EXPECT_EQ(word & (CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA | CAP_RENAME_NOT_ATOMIC), c.bits);
  }
}

TEST_F(ImapFake, LoginAttemptsLoginDisabledAndMechanismFallbacks) {
  const Script refused = {"C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD ?"};
  const Script no = {"C: $T LOGIN user secret", "S: $T NO wrong"};
  const Script in = {"C: $T LOGIN user secret", "S: $T OK [CAPABILITY IMAP4rev1] in", "C: $T SELECT INBOX", "S: $T OK"};
  struct Case {
    const char* caps;  // after IMAP4rev1 AUTH=CRAM-MD5
    const char* user;  // "" the question cancelled
    Script exchange;
    const char* questions;  // the trial number of each
    const char* logged;
    long attempts = 0;  // of LOGIN; 0 the default (3)
  } cases[] = {
      {"", "user", refused + no + no + no, " 1 2 3", "Too many login failures.  Aborting login."},
      {"", "user", refused + no + no, " 1 2", "Too many login failures.  Aborting login.", 2},
      {" LOGINDISABLED", "user", refused, "", "The IMAP server does not accept LOGIN on this connection"},
      {"", "", refused, " 1", ""},
      {"", "user", Script{"C: auth AUTHENTICATE CRAM-MD5", "S: + PDFAeD4=", "C: ", "S: auth NO wrong"} + in, " 1 1",
       "Failed to authenticate using CRAM-MD5 mechanism"},
      {"", "user", Script{"C: auth AUTHENTICATE CRAM-MD5", "S: + bm8gYnJhY2tldHM=", "C: *", "S: auth BAD ?"} + in,
       " 1", "Failed to authenticate using CRAM-MD5 mechanism"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    mail_env_set_login(c.user, *c.user ? "secret" : "");
    mail_parameters(nullptr, 100, reinterpret_cast<void*>(c.attempts ? c.attempts : 3));
    FakeImapServer server(Script{"S: * OK ready", "C: $T CAPABILITY",
                                 std::string("S: * CAPABILITY IMAP4rev1 AUTH=CRAM-MD5") + c.caps, "S: $T OK",
                                 "C: $T GETACL", "S: $T BAD", "C: $T GETQUOTAROOT", "S: $T BAD"} +
                          c.exchange);
    EXPECT_EQ(Open(server) != nullptr, c.exchange.back() == "S: $T OK");
    Done(server);
    std::string questions;
    for (const std::string& q : EnvLines("login", true)) questions += " " + q.substr(q.find('@') + 1);
    EXPECT_EQ(questions, c.questions);
    EXPECT_NE(EnvAll().find(c.logged), std::string::npos) << EnvAll();
    // No password goes but in the LOGINs scripted.
    auto logins = [](const Script& lines) {
      return std::count_if(lines.begin(), lines.end(), [](auto& l) { return l.find(" LOGIN ") != l.npos; });
    };
    EXPECT_EQ(logins(server.received), logins(c.exchange));
  }
}

TEST_F(ImapFake, StringsQuotedOrLiteralAndARefusedLiteralEndsTheCommand) {
  FakeImapServer server(Opening(0) + Script{"C: $T Create \"a b\"", "S: $T OK", "C: $T Create \"q\\\"uote\"",
                                            "S: $T OK", "C: $T Create \"(paren)\"", "S: $T OK", "C: $T Create {3}",
                                            "S: + go", "C: x\ry", "S: $T OK", "C: $T Create {5}",
                                            "S: $T NO [TRYCREATE] no literals here", "C: $T NOOP", "S: $T OK"});
  ASSERT_NE(Open(server), nullptr) << server.mismatch;
  for (const char* name : {"a b", "q\"uote", "(paren)", "x\ry"})
    EXPECT_EQ(mail_create(stream_, (std::string("{127.0.0.1}") + name).c_str()), 1) << name;
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}\xc3\xa9t\xc3\xa9"), 0);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed: [TRYCREATE] no literals here"), std::string::npos) << EnvLogs(2);
  EXPECT_EQ(mail_ping(stream_), 1);
  Done(server);
}

TEST_F(ImapFake, BrokenRepliesAreReportedAndTheReaderStaysInStep) {
  struct Case {
    std::string reply;  // untagged lines before the tagged OK
    const char* logged;
  } cases[] = {
      {"S: * 1 FETCH (ENVELOPE junk)", "Not an envelope: junk)"},
      {"S: * 1 FETCH (ENVELOPE (NIL NIL x NIL NIL NIL NIL NIL NIL NIL))", "Not an address"},
      {"S: * 1 FETCH (ENVELOPE (\"never ends", "Unterminated string"},
      {"S: * 1 FETCH (X-WHAT (1 2) FLAGS (\\Seen))", "Unknown message property: X-WHAT"},
      {"S: * 1 FETCH (FLAGS (\\Bogus))", "Unknown system flag: Bogus"},
      {"S: * 1 FETCH (INTERNALDATE \"yesterday\")", "Bogus date: yesterday"},
      {"S: * 9 FETCH (FLAGS (\\Seen))", "Unknown message data: 9"},
      {"S: * ", "Missing IMAP reply key"},
      {"S: ", "IMAP server sent a blank line"},
      {"S: Z999 OK whose?", "Unexpected tagged response: Z999 OK whose?"},
      {"S: * WHATEVER 1 2 3", "Unexpected unsolicited message from server: * WHATEVER"},
      {"S: * 1 FETCH (BODY " + std::string(60, '(') + "\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1" +
           std::string(60, ')') + ")",
       "Bogus body structure: parts nested too deep"},
      {"R: * 1 FETCH (X-JUNK {5}\r\nab)\r\n (more {3}\r\nxyz)\r\n", "Unknown message property: X-JUNK"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged);
    FakeImapServer server(Opening(2) + Script{"C: $T NOOP", c.reply, "S: $T OK done", "C: $T FETCH 1 FLAGS",
                                              "S: * 1 FETCH (FLAGS (\\Flagged))", "S: $T OK done"});
    ASSERT_NE(Open(server), nullptr) << server.mismatch;
    EXPECT_EQ(mail_ping(stream_), 1);
    EXPECT_NE(EnvAll().find(c.logged), std::string::npos) << EnvAll();
    mail_fetchflags(stream_, "1");  // the next reply is read whole and right
    EXPECT_TRUE(mail_elt(stream_, 1)->flagged);
    Done(server);
  }
}

TEST_F(ImapFake, CutsOversizedDataAndPipelinedReplies) {
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(130));  // two FETCH commands in flight
  const std::string seen1 = Message(1, "FLAGS (\\Seen) "), flagged66 = Message(66, "FLAGS (\\Flagged) ");
  struct Case {
    Script replies;      // once both commands came
    const char* logged;  // null: still connected
    bool first, second;  // each reply's data kept
  } cases[] = {
      {{flagged66, "S: $T OK", seen1, "S: $P OK"}, nullptr, true, true},  // answered in the other order
      {{seen1, "S: $P OK", flagged66, "CLOSE"}, kBroken.c_str(), true, true},
      {{seen1, "CLOSE"}, kBroken.c_str(), true, false},
      {{"R: * 1 FETCH (ENVELOPE (NIL {100}\r\nonly a little", "CLOSE"}, kBroken.c_str(), false, false},
      {{"S: * 1 FETCH (RFC822.TEXT {4000000000}"}, "the connection is closed", false, false},
      {{"S: * 4000000000 EXISTS"}, "the connection is closed", false, false},
      {{"R: * 1 FETCH (X " + std::string(1100000, 'x')}, "sent a line longer than", false, false},
      {{"S: * BYE going down", "CLOSE"}, "going down", false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.replies[0].substr(0, 40));
    FakeImapServer server(Opening(130) + Script{"C: $T FETCH 1:65" + kStructure, "C: $T FETCH 66:130" + kStructure} +
                          c.replies);
    ASSERT_NE(Open(server), nullptr) << server.mismatch;
    Envelope* env = mail_fetchstructure(stream_, 1, nullptr);
    Done(server);
    // What came before a cut is kept; a cut is told once, at level 4.
    EXPECT_EQ(std::string(env ? env->subject : "-"), c.first ? "s1" : "-");
    EXPECT_EQ(static_cast<bool>(mail_elt(stream_, 1)->seen), c.first);
    EXPECT_EQ(static_cast<bool>(mail_elt(stream_, 66)->flagged), c.second);
    if (!c.logged) continue;
    EXPECT_NE(EnvAll().find(c.logged), std::string::npos) << EnvAll().substr(0, 2000);
    std::vector<std::string> told = EnvLines("notify", true);
    if (c.logged == kBroken.c_str()) {
      EXPECT_EQ(std::count(told.begin(), told.end(), kBroken + " @4"), 1);
    }
    mail_env_clear();  // later commands are refused at once
    EXPECT_EQ(mail_ping(stream_), 0);
    EXPECT_EQ(mail_copy(stream_, "1", "{127.0.0.1}x"), 0);
    EXPECT_TRUE(EnvSaid("log", "Copy rejected: connection to remote IMAP server closed"));
  }
}

TEST_F(ImapFake, ReadAheadGoesUpThenDownAndDoublesInOrder) {
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(3));
  auto fetch = [](const char* range, int from, int to) {
    Script s{std::string("C: $T FETCH ") + range + kStructure};
    for (int m = from; m <= to; ++m) s.push_back(Message(m));
    return s + Script{"S: $T OK done"};
  };
  FakeImapServer server(Opening(20) + fetch("5:7", 5, 7) + fetch("8:13", 8, 13) + fetch("2:4", 2, 4) +
                        fetch("18:20", 18, 20) + fetch("14:16", 14, 16));
  ASSERT_NE(Open(server), nullptr) << server.mismatch;
  for (unsigned long m : {5ul, 6ul, 7ul, 8ul, 13ul, 4ul, 20ul, 14ul}) {
    Envelope* env = mail_fetchstructure(stream_, m, nullptr);
    ASSERT_NE(env, nullptr) << m;
    EXPECT_EQ(std::string(env->subject), "s" + std::to_string(m));
  }
  Done(server);
  // A walk down from the end (newest first) doubles as well.
  FakeImapServer down(Opening(20) + fetch("18:20", 18, 20) + fetch("12:17", 12, 17) + fetch("1:11", 1, 11));
  ASSERT_NE(Open(down), nullptr) << down.mismatch;
  for (unsigned long m = 20; m >= 1; --m) ASSERT_NE(mail_fetchstructure(stream_, m, nullptr), nullptr) << m;
  Done(down);
}

TEST_F(ImapFake, StringsAndBodyStructuresAsServersSendThem) {
  struct Case {
    std::string subject;    // as sent
    std::string structure;  // BODYSTRUCTURE as sent
    const char* want;       // "subject | disposition filename", or a log text
  } cases[] = {
      {"\"a \\\"b\\\" \\\\c\"",
       "(\"APPLICATION\" \"PDF\" (\"NAME\" \"x\") NIL NIL \"BASE64\" 4 \"md5\" (\"attachment\" (\"filename\" "
       "\"a.pdf\")) \"en\" \"http://x\" (\"future\" 1))",
       "a \"b\" \\c | ATTACHMENT a.pdf"},
      {"{11}\r\nline\r\nbreak", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 4 1 NIL (\"INLINE\" NIL) NIL NIL)",
       "line\r\nbreak | INLINE -"},
      {"\"\"", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL NIL)", " | - -"},
      // Over the limit of a string held in memory: read, dropped, NIL.
      {"{1500000}\r\n" + std::string(1500000, 'x'), "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1)", "(null) | - -"},
      {"\"s\"", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL \"attachment\")", "Junk at end of body part"},
      {"\"s\"", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL (\"attachment\" (\"filename\")))",
       "Junk at end of body part"},
  };
  auto show = [](BodyPart* b) {
    Rfc822Parameter name = rfc822_parameter(b->disposition_parameter, "FILENAME");
    return std::string(b->disposition ? b->disposition : "-") + " " + (name.found ? name.value : "-");
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.want);
    FakeImapServer server(Opening(1) + Script{"C: $T FETCH 1" + kStructure,
                                              "R: * 1 FETCH (ENVELOPE (NIL " + c.subject +
                                                  " ((\"Q \\\"N\\\"\" NIL \"q\" \"x.org\")) NIL NIL NIL NIL NIL NIL "
                                                  "NIL) BODYSTRUCTURE " + c.structure + ")\r\n",
                                              "S: $T OK done"});
    ASSERT_NE(Open(server), nullptr) << server.mismatch;
    BodyPart* body = nullptr;
    Envelope* env = mail_fetchstructure(stream_, 1, &body);
    Done(server);
    if (!body) {
      EXPECT_NE(EnvLogs(1).find(c.want), std::string::npos) << EnvLogs(1);
      continue;
    }
    ASSERT_NE(env, nullptr);
    EXPECT_STREQ(env->from->personal, "Q \"N\"");
    EXPECT_EQ(std::string(env->subject ? env->subject : "(null)") + " | " + show(body), c.want);
  }
}

TEST_F(ImapFake, OlderFormsOfAppendAclQuotaAndBulletinBoards) {
  const std::string message = "Subject: x\r\n\r\nbody";
  FakeImapServer server(Opening(1) + Script{
      // The older APPEND takes neither flags nor date: the text goes again, whole.
      "C: $T APPEND Box (\\Seen) \"01-Feb-2020 10:11:12 +0000\" {18}", "S: + go", "C: Subject: x", "C: ", "C: body",
      "S: $T BAD no flags here", "C: $T APPEND Box {18}", "S: + go", "C: Subject: x", "C: ", "C: body", "S: $T OK",
      // ACL: the plain form, then the one with MAILBOX, then none at all.
      "C: $T GETACL INBOX", "S: $T BAD ?", "C: $T GETACL MAILBOX INBOX",
      "S: * ACL MAILBOX INBOX user lrs \"odd one\" lr", "S: $T OK done", "C: $T SETACL MAILBOX INBOX bob \"\"",
      "S: $T BAD ?", "C: $T GETQUOTAROOT INBOX", "S: * QUOTAROOT INBOX root",
      "S: * QUOTA root (STORAGE 5 100 MESSAGE 2 10)", "S: $T OK done",
      "C: $T SETQUOTA root (STORAGE 100 MESSAGE 10)", "S: $T OK done",
      "C: $T LSUB \"\" \"*\"", "S: $T BAD ?", "C: $T FIND BBOARDS \"*\"", "S: * BBOARD news", "S: $T OK done",
  });
  ASSERT_NE(Open(server), nullptr) << server.mismatch;
  StringSource source;
  string_init(&source, &mail_string, const_cast<char*>(message.data()), message.size());
  EXPECT_EQ(mail_append(stream_, server.Name("Box").c_str(), "(\\Seen)", "01-Feb-2020 10:11:12 +0000", &source), 1);
  EXPECT_EQ(mail_getacl(stream_, "INBOX"), 1);
  EXPECT_EQ(EnvLines("acl"), (std::vector<std::string>{"INBOX user lrs", "INBOX odd one lr"}));
  EXPECT_EQ(mail_setacl(stream_, "INBOX", "bob", ""), 0);
  EXPECT_TRUE(EnvSaid("log", "Server does not support mailbox ACL management."));
  long word = 0;
  mail_capabilities(stream_, &word);
  EXPECT_EQ(word & CAP_ACL, 0);
  EXPECT_EQ(mail_getquota(stream_, "INBOX"), 1);
  EXPECT_EQ(EnvLines("quota"), (std::vector<std::string>{"STORAGE 5 100", "MESSAGE 2 10"}));
  EXPECT_EQ(mail_setquota(stream_, "root", 100, 10), 1);
  mail_env_clear();
  mail_find_bboards(stream_, "*");
  // (The test environment's record ends at the delimiter, which is none here.)
  EXPECT_EQ(EnvLines("mailbox"), std::vector<std::string>{server.Name("news") + " "});
  Done(server);
}

// mail_status: the STATUS command sent, the untagged answers taken (and
// the ones that must not be), broken answers, and servers that can't tell.
// Never a dialog: the question comes from a timer.
TEST_F(ImapFake, StatusAnswersAndBrokenAnswers) {
  const Script ask = {"C: $T STATUS Work (MESSAGES)"};
  struct Case {
    const char* mailbox;
    long flags;
    Script exchange;   // after the open
    const char* want;  // "messages/unseen/uidnext", "none", or "bad" (logged)
    bool twice = false;  // asked again
    const char* caps = "IMAP4rev1";
  } cases[] = {
      // IMAP4 without rev1 has no STATUS; a server that refuses it once is not asked again.
      {"Work", SA_MESSAGES | SA_UNSEEN, {}, "none", true, "IMAP4"},
      {"Work", SA_MESSAGES | SA_UNSEEN, {"C: $T STATUS Work", "S: $T BAD ?"}, "none", true},
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
      {"Work", SA_MESSAGES, ask + Script{"S: * STATUS Work (MESSAGES x7)", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, ask + Script{"S: * STATUS Work (MESSAGES 4294967296)", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, ask + Script{"S: * STATUS Work (MESSAGES 3", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, ask + Script{"S: * STATUS Work MESSAGES 3", "S: $T OK"}, "bad"},
      {"Work", SA_MESSAGES, ask + Script{"S: $T NO Mailbox doesn't exist"}, "none"},
      {"Work", SA_MESSAGES, ask + Script{"S: $T OK"}, "none"},
      {"Work", SA_MESSAGES, ask + Script{"S: * STATUS Work (UNSEEN 3)", "S: $T OK"}, "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.exchange.empty() ? c.caps : c.exchange[1]);
    FakeImapServer server(Opening(-1, c.caps) + c.exchange + Script{"C: $T NOOP", "S: $T OK done"});
    ASSERT_NE(Open(server, OP_CONTROL), nullptr) << server.mismatch;
    for (int round = 0; round <= c.twice; ++round) {
      MailStatus st{};
      st.messages = 12345;  // cleared by the call whatever the answer
      long ok = mail_status(stream_, server.Name(c.mailbox).c_str(), c.flags, &st);
      EXPECT_EQ(st.flags, ok ? c.flags : 0);
      std::string got = std::to_string(st.messages) + "/" + std::to_string(st.unseen) + "/" + std::to_string(st.uidnext);
      bool bad = EnvLogs(1).find("Bad STATUS reply") != std::string::npos;
      EXPECT_EQ(ok || got != "0/0/0" ? got : bad ? "bad" : "none", c.want) << EnvLogs(1);
    }
    EXPECT_EQ(mail_ping(stream_), 1);  // still in step: the next command gets its own answer
    Done(server);
    EXPECT_EQ(EnvLogs(2), "");
  }
}

TEST(MailboxNameCodec, RoundTripsAndRefusesBadWireForms) {
  const char* both_ways[][2] = {
      {"A & B", "A &- B"},
      {"Caf\xc3\xa9", "Caf&AOk-"},
      {"\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "&ZeVnLIqe-"},
      {"~peter/mail/\xe5\x8f\xb0\xe5\x8c\x97/\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e", "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
      {"\xf0\x9f\x93\xa7 mail", "&2D3c5w- mail"},  // outside the BMP: a surrogate pair
  };
  for (auto& [utf8, wire] : both_ways) {
    EXPECT_EQ(imap_utf8_to_mutf7(utf8), wire);
    std::string back;
    EXPECT_TRUE(imap_mutf7_to_utf8(wire, &back) && back == utf8) << wire;
  }
  EXPECT_EQ(imap_utf8_to_mutf7("Caf\xe9"), "Caf&AOk-");  // Latin-1 bytes still get a wire form
  for (const char* bad : {"&AOk", "&A-", "&AGE-", "&2D0-", "a\x80", "&!!-", "&3ec-"}) {
    std::string out = "kept";
    EXPECT_FALSE(imap_mutf7_to_utf8(bad, &out)) << bad;
    EXPECT_EQ(out, "kept");
  }
}

}  // namespace
