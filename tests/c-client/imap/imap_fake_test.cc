// The imap2 driver against a scripted server: the older protocol
// generations and their fallbacks, and replies that are broken, truncated
// or hostile. Each must end in the documented result, never a crash or a
// hang, and the reader must stay in step with the server.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/strsrc.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/imap/fake_imap_server.h"

namespace {

using imap_test::FakeImapServer;
using Script = std::vector<std::string>;

Script operator+(Script a, const Script& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// What an IMAP4 server is asked for a structure fetch.
const std::string kStructure = " (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)";

// Greeting, probe and LOGIN of an IMAP4rev1 server, then SELECT with
// `exists` messages.
Script Rev1Open(int exists) {
  return {"S: * OK fake ready",
          "C: $T CAPABILITY",
          "S: * CAPABILITY IMAP4rev1",
          "S: $T OK done",
          "C: $T GETACL MAILBOX a1bcdefghijklmnop",
          "S: $T BAD unknown",
          "C: $T GETQUOTAROOT a1bcdefghijklmnop",
          "S: $T BAD unknown",
          "C: $T LOGIN user secret",
          "S: $T OK [CAPABILITY IMAP4rev1 ACL] logged in",
          "C: $T SELECT INBOX",
          "S: * " + std::to_string(exists) + " EXISTS",
          "S: $T OK [READ-WRITE] done"};
}

class ImapFake : public ::testing::Test {
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
  MailStream* Open(FakeImapServer& server, long options = 0) {
    stream_ = mail_open(nullptr, server.Name().c_str(), options);
    return stream_;
  }
  static void Done(FakeImapServer& server) {
    server.Finish();
    EXPECT_TRUE(server.completed()) << server.mismatch();
  }
  MailStream* stream_ = nullptr;
};

TEST_F(ImapFake, Imap2ServerFallsBackToFindAllAndTheBodylessFetch) {
  FakeImapServer server({
      "S: * OK IMAP2 server ready",
      "C: $T CAPABILITY", "S: $T BAD what?",
      "C: $T GETACL MAILBOX a1bcdefghijklmnop", "S: $T BAD what?",
      "C: $T GETQUOTAROOT a1bcdefghijklmnop", "S: $T BAD what?",
      // Not IMAP4rev1: every mechanism of the table; Kerberos costs nothing.
      "C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD what?",
      "C: $T LOGIN user secret", "S: $T OK hello",
      "C: $T CAPABILITY", "S: $T BAD what?",
      "C: $T SELECT INBOX", "S: * 2 EXISTS", "S: * 0 RECENT", "S: $T OK done",
      "C: $T LSUB \"\" \"*\"", "S: $T BAD what?",
      "C: $T FIND MAILBOXES \"*\"", "S: * MAILBOX Mail/old", "S: $T OK done",
      "C: $T LIST \"\" \"*\"", "S: $T BAD what?",
      "C: $T FIND ALL.MAILBOXES \"*\"", "S: * MAILBOX other", "S: $T OK done",
      // Later lists go straight to FIND.
      "C: $T FIND MAILBOXES \"x*\"", "S: $T OK done",
      "C: $T FETCH 1:2 FULL", "S: $T BAD what?",
      "C: $T FETCH 1:2 ALL",
      "S: * 1 FETCH (FLAGS (\\Seen) INTERNALDATE \"02-Mar-1995 10:00:00 -0800\" RFC822.SIZE 120 ENVELOPE "
      "(\"Thu, 2 Mar 1995 10:00:00 -0800\" \"old mail\" ((\"A\" NIL \"a\" \"x.org\")) NIL NIL NIL NIL NIL NIL NIL))",
      "S: $T OK done",
      // Without a body the core asks again; the answer brings no body.
      "C: $T FETCH 1:2 ALL", "S: $T OK done",
      "C: $T SUBSCRIBE old", "S: $T BAD what?",
      "C: $T SUBSCRIBE MAILBOX old", "S: $T OK done",
  });
  ASSERT_NE(Open(server, OP_DEBUG), nullptr) << EnvLogs(2) << server.mismatch();
  mail_find(stream_, "*");
  mail_find_all(stream_, "{127.0.0.1}*");
  mail_find(stream_, "x*");
  Envelope* env = mail_fetchstructure(stream_, 1, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "old mail");
  EXPECT_TRUE(mail_elt(stream_, 1)->seen);
  EXPECT_EQ(mail_elt(stream_, 1)->rfc822_size, 120u);
  // No BODY fetches now: only section 1 would go, through the text.
  unsigned long length = 7;
  EXPECT_EQ(mail_fetchbody(stream_, 1, "2", &length), nullptr);
  EXPECT_EQ(mail_subscribe(stream_, server.Name("old").c_str()), 1);
  long word = 0;
  mail_capabilities(stream_, &word);
  EXPECT_EQ(word & (CAP_FOLDERS | CAP_ACL | CAP_QUOTA), 0);
  Done(server);
  std::vector<std::string> boxes = EnvLines("mailbox");
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].rfind("{127.0.0.1:" + std::to_string(server.port()) + "/notls}Mail/old", 0), 0u);
}

TEST_F(ImapFake, CapabilityWordsSetTheCapabilityBits) {
  struct Case {
    const char* words;  // announced once logged in
    long bits;  // of CAP_FOLDERS, CAP_SUBSCRIBE, CAP_ACL, CAP_QUOTA, CAP_RENAME_NOT_ATOMIC
    Script probe_again;  // an IMAP4 (not rev1) server is probed again after login
  } cases[] = {
      {"IMAP4rev1", CAP_FOLDERS | CAP_SUBSCRIBE, {}},
      {"IMAP4 ACL QUOTA", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA,
       {"C: $T CAPABILITY", "S: $T OK done"}},
      {"IMAP4", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL,
       {"C: $T CAPABILITY", "S: $T OK done", "C: $T GETACL", "S: $T NO no such mailbox", "C: $T GETQUOTAROOT",
        "S: $T BAD what?"}},
      {"IMAP4rev1 NO-ATOMIC-RENAME", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_RENAME_NOT_ATOMIC, {}},
      {"IMAP4rev1 X-NO-HIERARCHICAL-RENAME quota", CAP_FOLDERS | CAP_SUBSCRIBE | CAP_QUOTA | CAP_RENAME_NOT_ATOMIC, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.words);
    long one = 1;
    mail_parameters(nullptr, 112, &one);
    FakeImapServer server(Script{
        "S: * OK ready",
        "C: $T CAPABILITY", "S: * CAPABILITY IMAP2", "S: $T OK done",
        "C: $T GETACL", "S: $T BAD what?",
        "C: $T GETQUOTAROOT", "S: $T BAD what?",
        "C: $T LOGIN user secret", std::string("S: $T OK [CAPABILITY ") + c.words + "] in",
        "C: $T SELECT INBOX", "S: $T OK done",
    } + c.probe_again);
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    long word = 0;
    mail_capabilities(stream_, &word);
    Done(server);
    EXPECT_EQ(word & (CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA | CAP_RENAME_NOT_ATOMIC), c.bits);
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapFake, LoginIsTriedThreeTimesAndLoginDisabledIsHonoured) {
  long one = 1;
  mail_parameters(nullptr, 112, &one);
  FakeImapServer server({
      "S: * OK ready",
      "C: $T CAPABILITY", "S: * CAPABILITY IMAP4rev1", "S: $T OK done",
      "C: $T GETACL", "S: $T NO no such mailbox",
      "C: $T GETQUOTAROOT", "S: $T NO no such mailbox",
      "C: $T LOGIN user secret", "S: $T NO wrong",
      "C: $T LOGIN user secret", "S: $T NO wrong",
      "C: $T LOGIN user secret", "S: $T NO wrong",
  });
  EXPECT_EQ(Open(server), nullptr);
  Done(server);
  EXPECT_EQ(EnvLines("login", true), (std::vector<std::string>{"127.0.0.1 @1", "127.0.0.1 @2", "127.0.0.1 @3"}));
  EXPECT_NE(EnvLogs(2).find("Too many login failures.  Aborting login."), std::string::npos);

  mail_env_clear();
  FakeImapServer refusing({
      "S: * OK ready",
      "C: $T CAPABILITY", "S: * CAPABILITY IMAP4rev1 LOGINDISABLED", "S: $T OK done",
      "C: $T GETACL", "S: $T BAD what?",
      "C: $T GETQUOTAROOT", "S: $T BAD what?",
  });
  EXPECT_EQ(Open(refusing), nullptr);
  Done(refusing);
  EXPECT_TRUE(EnvLines("login").empty());
  // Nothing was sent after the probe: no password went in the clear.
  EXPECT_EQ(refusing.received().size(), 3u);
}

TEST_F(ImapFake, CramMd5AnswersTheChallengeAndCancelsWithoutOne) {
  // RFC 2195's example: the challenge, and what "tim" with "tanstaaftanstaaf" answers.
  mail_env_set_login("tim", "tanstaaftanstaaf");
  FakeImapServer server(Script{
      "S: * OK ready",
      "C: $T CAPABILITY", "S: * CAPABILITY IMAP4rev1 AUTH=CRAM-MD5 AUTH=KERBEROS_V4", "S: $T OK done",
      "C: $T GETACL", "S: $T BAD what?",
      "C: $T GETQUOTAROOT", "S: $T BAD what?",
      "C: auth AUTHENTICATE CRAM-MD5",
      "S: + PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+",
      "C: dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw",
      "S: auth OK [CAPABILITY IMAP4rev1] in",
      "C: $T SELECT INBOX", "S: $T OK done",
  });
  ASSERT_NE(Open(server), nullptr) << server.mismatch() << EnvLogs(2);
  Done(server);
  stream_ = mail_close(stream_);

  // A challenge without its brackets is cancelled; LOGIN follows.
  mail_env_set_login("user", "secret");
  FakeImapServer bad({
      "S: * OK ready",
      "C: $T CAPABILITY", "S: * CAPABILITY IMAP4rev1 AUTH=CRAM-MD5", "S: $T OK done",
      "C: $T GETACL", "S: $T BAD what?",
      "C: $T GETQUOTAROOT", "S: $T BAD what?",
      "C: auth AUTHENTICATE CRAM-MD5",
      "S: + bm8gYnJhY2tldHMgaGVyZQ==",
      "C: *",
      "S: auth BAD cancelled",
      "C: $T LOGIN user secret", "S: $T OK in",
      "C: $T CAPABILITY", "S: $T OK done",
      "C: $T SELECT INBOX", "S: $T OK done",
  });
  ASSERT_NE(Open(bad), nullptr) << bad.mismatch();
  Done(bad);
  EXPECT_TRUE(EnvSaid("log", "Failed to authenticate using CRAM-MD5 mechanism"));
}

TEST_F(ImapFake, StringsQuotedOrLiteralAndARefusedLiteralEndsTheCommand) {
  FakeImapServer server(Rev1Open(0) + Script{
      "C: $T Create \"a b\"", "S: $T OK made",
      "C: $T Create \"q\\\"uote\"", "S: $T OK made",
      "C: $T Create \"(paren)\"", "S: $T OK made",
      "C: $T Create {3}", "S: + go", "C: x\ry", "S: $T OK made",
      "C: $T Create {5}", "S: $T NO [TRYCREATE] no literals here",
      "C: $T NOOP", "S: $T OK still here",
  });
  ASSERT_NE(Open(server), nullptr) << server.mismatch();
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}a b"), 1);
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}q\"uote"), 1);
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}(paren)"), 1);
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}x\ry"), 1);
  mail_env_clear();
  EXPECT_EQ(mail_create(stream_, "{127.0.0.1}\xc3\xa9t\xc3\xa9"), 0);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed: [TRYCREATE] no literals here"), std::string::npos) << EnvLogs(2);
  EXPECT_EQ(mail_ping(stream_), 1);
  Done(server);
}

TEST_F(ImapFake, BrokenRepliesAreReportedAndTheReaderStaysInStep) {
  struct Case {
    const char* what;
    std::string reply;  // the server's untagged lines before the tagged OK
    const char* logged;  // a text the user or the log was told
  } cases[] = {
      {"envelope not a list", "S: * 1 FETCH (ENVELOPE junk)", "Not an envelope: junk)"},
      {"address not a list", "S: * 1 FETCH (ENVELOPE (NIL NIL x NIL NIL NIL NIL NIL NIL NIL))", "Not an address"},
      {"unterminated string", "S: * 1 FETCH (ENVELOPE (\"never ends", "Unterminated string"},
      {"unknown item", "S: * 1 FETCH (X-WHAT (1 2) FLAGS (\\Seen))", "Unknown message property: X-WHAT"},
      {"unknown flag", "S: * 1 FETCH (FLAGS (\\Bogus))", "Unknown system flag: Bogus"},
      {"bad date", "S: * 1 FETCH (INTERNALDATE \"yesterday\")", "Bogus date: yesterday"},
      {"message out of range", "S: * 9 FETCH (FLAGS (\\Seen))", "Unknown message data: 9"},
      {"no key", "S: * ", "Missing IMAP reply key"},
      {"blank line", "S: ", "IMAP server sent a blank line"},
      {"foreign tag", "S: Z999 OK whose?", "Unexpected tagged response: Z999 OK whose?"},
      {"unknown reply", "S: * WHATEVER 1 2 3", "Unexpected unsolicited message from server: * WHATEVER"},
      {"body nested too deep", "S: * 1 FETCH (BODY " + std::string(60, '(') + "\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1" +
                                   std::string(60, ')') + ")",
       "Bogus body structure: parts nested too deep"},
      {"junk in a literal-bearing reply", "R: * 1 FETCH (X-JUNK {5}\r\nab)\r\n (more {3}\r\nxyz)\r\n",
       "Unknown message property: X-JUNK"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    FakeImapServer server(Rev1Open(2) + Script{
        "C: $T NOOP", c.reply, "S: $T OK done",
        // The next reply is read whole and right.
        "C: $T FETCH 1 FLAGS", "S: * 1 FETCH (FLAGS (\\Flagged))", "S: $T OK done",
    });
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    EXPECT_EQ(mail_ping(stream_), 1);
    std::string all;
    for (const MailEnvLine& l : mail_env_lines()) all += l.text + "\n";
    EXPECT_NE(all.find(c.logged), std::string::npos) << all;
    mail_fetchflags(stream_, "1");
    EXPECT_TRUE(mail_elt(stream_, 1)->flagged);
    Done(server);
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapFake, CutsAndOversizedDataEndTheConnectionCleanly) {
  struct Case {
    const char* what;
    Script server_says;  // after the structure fetch of 1:2
    const char* logged;  // said to the user (log or notify)
  } cases[] = {
      {"cut inside a literal", {"R: * 1 FETCH (ENVELOPE (NIL {100}\r\nonly a little", "CLOSE"},
       "IMAP server connection broken during server response"},
      {"cut between replies", {"S: * 1 FETCH (FLAGS (\\Seen))", "CLOSE"},
       "IMAP server connection broken during server response"},
      {"literal beyond the limit", {"S: * 1 FETCH (RFC822.TEXT {4000000000}"}, "the connection is closed"},
      {"count beyond the limit", {"S: * 4000000000 EXISTS"}, "the connection is closed"},
      {"line beyond the limit", {"R: * 1 FETCH (X " + std::string(1100000, 'x')}, "sent a line longer than"},
      {"BYE", {"S: * BYE going down", "CLOSE"}, "going down"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    FakeImapServer server(Rev1Open(2) + Script{"C: $T FETCH 1:2" + kStructure} + c.server_says);
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    Envelope* env = mail_fetchstructure(stream_, 1, nullptr);
    EXPECT_EQ(env, nullptr);
    std::string all;
    for (const MailEnvLine& l : mail_env_lines()) all += l.text + "\n";
    EXPECT_NE(all.find(c.logged), std::string::npos) << all.substr(0, 2000);
    // Later commands are refused at once.
    mail_env_clear();
    EXPECT_EQ(mail_ping(stream_), 0);
    EXPECT_EQ(mail_copy(stream_, "1", "{127.0.0.1}x"), 0);
    EXPECT_TRUE(EnvSaid("log", "Copy rejected: connection to remote IMAP server closed"));
    server.Finish();
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapFake, BodyStructureExtensionDataKeepsDispositions) {
  struct Case {
    const char* what;
    std::string structure;   // BODYSTRUCTURE as the server sends it
    const char* section;     // the part looked at ("" the message)
    const char* disposition;  // expected; null: none
    const char* filename;    // FILENAME as a lookup finds it; null: none
    const char* logged;      // for a structure refused
  } cases[] = {
      {"single part, all extension fields",
       "(\"APPLICATION\" \"PDF\" NIL NIL NIL \"BASE64\" 4 \"md5sum\" (\"attachment\" (\"filename\" \"a.pdf\")) "
       "\"en\" \"http://x\" (\"future\" 1))", "", "ATTACHMENT", "a.pdf", nullptr},
      {"text part: lines, then MD5, then disposition",
       "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 4 1 NIL (\"INLINE\" NIL) NIL NIL)", "", "INLINE", nullptr, nullptr},
      {"RFC 2231 continuations with a charset",
       "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 4 1 NIL (\"ATTACHMENT\" (\"FILENAME*0*\" \"utf-8''r%C3%A9\" "
       "\"FILENAME*1\" \"sum.txt\")))", "", "ATTACHMENT", "r\xC3\xA9sum.txt", nullptr},
      {"extended form wins over the plain one",
       "(\"IMAGE\" \"PNG\" NIL NIL NIL \"BASE64\" 4 NIL (\"attachment\" (\"filename\" \"old.png\" \"filename*\" "
       "\"utf-8''new.png\")))", "", "ATTACHMENT", "new.png", nullptr},
      {"multipart: parameters and disposition",
       "((\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL (\"inline\" NIL)) \"MIXED\" (\"BOUNDARY\" \"b\") "
       "(\"inline\" NIL) \"de\" NIL)", "", "INLINE", nullptr, nullptr},
      {"part inside a multipart",
       "((\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1)(\"AUDIO\" \"BASIC\" NIL NIL NIL \"BASE64\" 9 NIL "
       "(\"ATTACHMENT\" (\"FILENAME\" \"s.au\"))) \"MIXED\")", "2", "ATTACHMENT", "s.au", nullptr},
      {"no extension data", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1)", "", nullptr, nullptr, nullptr},
      {"NIL disposition", "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL NIL)", "", nullptr, nullptr, nullptr},
      {"disposition not a list",
       "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL \"attachment\")", nullptr, nullptr, nullptr,
       "Junk at end of body part"},
      {"disposition parameters unclosed",
       "(\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1 NIL (\"attachment\" (\"filename\")))", nullptr, nullptr,
       nullptr, "Junk at end of body part"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    FakeImapServer server(Rev1Open(1) + Script{
        "C: $T FETCH 1" + kStructure,
        "S: * 1 FETCH (ENVELOPE (NIL \"s\" NIL NIL NIL NIL NIL NIL NIL NIL) BODYSTRUCTURE " + c.structure + ")",
        "S: $T OK done",
    });
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    BodyPart* body = nullptr;
    mail_fetchstructure(stream_, 1, &body);
    if (c.logged) {
      EXPECT_NE(EnvLogs(1).find(c.logged), std::string::npos) << EnvLogs(1);
    } else {
      ASSERT_NE(body, nullptr) << EnvLogs(1);
      unsigned long offset = 0;
      BodyPart* b = *c.section ? mail_body_section(body, c.section, &offset) : body;
      ASSERT_NE(b, nullptr);
      EXPECT_STREQ(b->disposition, c.disposition);
      Rfc822Parameter name = rfc822_parameter(b->disposition_parameter, "FILENAME");
      EXPECT_EQ(name.found ? name.value : std::string("(none)"), c.filename ? c.filename : "(none)");
      if (c.structure.find("BOUNDARY") != std::string::npos) {
        EXPECT_EQ(rfc822_parameter(body->parameter, "BOUNDARY").value, "b");
      }
    }
    Done(server);
    stream_ = mail_close(stream_);
  }
}

TEST_F(ImapFake, PipelinedFetchesAndACutBetweenTheirReplies) {
  // A range of 130 goes as two commands sent before either reply is read.
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(130));
  auto message = [](int n, const char* flags) {
    return "S: * " + std::to_string(n) + " FETCH (FLAGS (" + flags + ") ENVELOPE (NIL \"s" + std::to_string(n) +
           "\" NIL NIL NIL NIL NIL NIL NIL NIL) BODYSTRUCTURE (\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1))";
  };
  struct Case {
    const char* what;
    Script replies;     // after both commands came
    bool connected;     // afterwards
    const char* logged;
  } cases[] = {
      {"both answered, second first",
       {message(66, "\\Flagged"), "S: $T OK done", message(1, "\\Seen"), "S: $P OK done"}, true, nullptr},
      {"cut after the first reply", {message(1, "\\Seen"), "S: $P OK done", message(66, "\\Flagged"), "CLOSE"},
       false, "IMAP server connection broken during server response"},
      {"cut inside the first reply", {message(1, "\\Seen"), "CLOSE"}, false,
       "IMAP server connection broken during server response"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    FakeImapServer server(Rev1Open(130) + Script{"C: $T FETCH 1:65" + kStructure, "C: $T FETCH 66:130" + kStructure} +
                          c.replies);
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    Envelope* env = mail_fetchstructure(stream_, 1, nullptr);
    server.Finish();
    EXPECT_TRUE(server.completed()) << server.mismatch();
    // What came before the cut is kept: the envelope and the flags.
    ASSERT_NE(env, nullptr) << EnvLogs(1);
    EXPECT_STREQ(env->subject, "s1");
    EXPECT_TRUE(mail_elt(stream_, 1)->seen);
    if (c.connected || std::string(c.what).find("after") != std::string::npos) {
      EXPECT_TRUE(mail_elt(stream_, 66)->flagged);
    }
    EXPECT_EQ(EnvSaid("notify", "IMAP server connection broken during server response"), !c.connected);
    if (!c.connected) {
      // Told once, and later commands are refused at once.
      int notices = 0;
      for (const MailEnvLine& l : mail_env_lines())
        notices += l.callback == "notify" && l.text.find("broken") != std::string::npos;
      EXPECT_EQ(notices, 1);
      EXPECT_EQ(mail_ping(stream_), 0);
    }
    stream_ = mail_close(stream_);
  }
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(20));
}

TEST_F(ImapFake, TaggedSequenceAndReadAheadRanges) {
  // Look-ahead goes up from the message, then down, over messages without
  // an envelope, and doubles while the caller walks in order.
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(3));
  auto fetch = [](const char* range, std::vector<int> msgs) {
    Script s{std::string("C: $T FETCH ") + range + kStructure};
    for (int m : msgs)
      s.push_back("S: * " + std::to_string(m) + " FETCH (ENVELOPE (NIL \"s" + std::to_string(m) +
                  "\" NIL NIL NIL NIL NIL NIL NIL NIL) BODY (\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 1 1))");
    s.push_back("S: $T OK done");
    return s;
  };
  FakeImapServer server(Rev1Open(20) + fetch("5:7", {5, 6, 7}) + fetch("8:13", {8, 9, 10, 11, 12, 13}) +
                        fetch("2:4", {2, 3, 4}) + fetch("18:20", {18, 19, 20}) + fetch("14:16", {14, 15, 16}));
  ASSERT_NE(Open(server), nullptr) << server.mismatch();
  for (unsigned long m : {5ul, 6ul, 7ul, 8ul, 13ul, 4ul, 20ul, 14ul}) {
    SCOPED_TRACE(m);
    Envelope* env = mail_fetchstructure(stream_, m, nullptr);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(std::string(env->subject), "s" + std::to_string(m));
  }
  Done(server);
  mail_parameters(nullptr, 102, reinterpret_cast<void*>(20));
}

}  // namespace

namespace {

TEST_F(ImapFake, StringsInRepliesAreUnescapedAndLiteralsRead) {
  struct Case {
    std::string wire;     // the subject as the server sends it
    std::string subject;  // what the envelope holds
  } cases[] = {
      {"\"plain\"", "plain"},
      {"\"a \\\"b\\\" \\\\c\"", "a \"b\" \\c"},
      {"{11}\r\nline\r\nbreak", "line\r\nbreak"},
      {"NIL", "(null)"},
      {"\"\"", ""},
      // Over the limit of a string held in memory: read, dropped, NIL.
      {"{1500000}\r\n" + std::string(1500000, 'x'), "(null)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.subject);
    FakeImapServer server(Rev1Open(1) + Script{
        "C: $T FETCH 1" + kStructure,
        "R: * 1 FETCH (ENVELOPE (NIL " + c.wire +
            " ((\"Q \\\"N\\\"\" NIL \"q\" \"x.org\")) NIL NIL NIL NIL NIL NIL NIL) BODY (\"TEXT\" \"PLAIN\" "
            "(\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" 1 1))\r\n",
        "S: $T OK done",
    });
    ASSERT_NE(Open(server), nullptr) << server.mismatch();
    BodyPart* body = nullptr;
    Envelope* env = mail_fetchstructure(stream_, 1, &body);
    ASSERT_NE(env, nullptr) << EnvLogs(1);
    EXPECT_EQ(std::string(env->subject ? env->subject : "(null)"), c.subject);
    ASSERT_NE(env->from, nullptr);
    EXPECT_STREQ(env->from->personal, "Q \"N\"");
    ASSERT_NE(body, nullptr);
    ASSERT_NE(body->parameter, nullptr);
    EXPECT_STREQ(body->parameter->attribute, "CHARSET");
    EXPECT_STREQ(body->parameter->value, "us-ascii");
    Done(server);
    stream_ = mail_close(stream_);
  }
}

}  // namespace

namespace {

TEST_F(ImapFake, OlderFormsOfAppendAclQuotaAndBulletinBoards) {
  const std::string message = "Subject: x\r\n\r\nbody";
  FakeImapServer server(Rev1Open(1) + Script{
      // The older APPEND takes neither flags nor date: the text goes again, whole.
      "C: $T APPEND Box (\\Seen) \"01-Feb-2020 10:11:12 +0000\" {18}", "S: + go", "C: Subject: x", "C: ", "C: body",
      "S: $T BAD no flags here",
      "C: $T APPEND Box {18}", "S: + go", "C: Subject: x", "C: ", "C: body", "S: $T OK [APPENDUID 1 2] done",
      // ACL: the plain form, then the one with MAILBOX, then none at all.
      "C: $T GETACL INBOX", "S: $T BAD what?",
      "C: $T GETACL MAILBOX INBOX", "S: * ACL MAILBOX INBOX user lrs \"odd one\" lr", "S: $T OK done",
      "C: $T SETACL MAILBOX INBOX bob \"\"", "S: $T BAD what?",
      // Quota rows, and the standard SETQUOTA.
      "C: $T GETQUOTAROOT INBOX", "S: * QUOTAROOT INBOX root",
      "S: * QUOTA root (STORAGE 5 100 MESSAGE 2 10)", "S: $T OK done",
      "C: $T SETQUOTA root (STORAGE 100 MESSAGE 10)", "S: $T OK done",
      // Bulletin boards the IMAP2bis way.
      "C: $T LSUB \"\" \"*\"", "S: $T BAD what?",
      "C: $T FIND BBOARDS \"*\"", "S: * BBOARD news", "S: $T OK done",
  });
  ASSERT_NE(Open(server), nullptr) << server.mismatch();
  StringSource source;
  string_init(&source, &mail_string, const_cast<char*>(message.data()), message.size());
  EXPECT_EQ(mail_append(stream_, server.Name("Box").c_str(), "(\\Seen)", "01-Feb-2020 10:11:12 +0000", &source), 1)
      << EnvLogs(2);
  EXPECT_EQ(mail_getacl(stream_, "INBOX"), 1);
  EXPECT_EQ(EnvLines("acl"), (std::vector<std::string>{"INBOX user lrs", "INBOX odd one lr"}));
  mail_env_clear();
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
  EXPECT_EQ(EnvLines("mailbox"), std::vector<std::string>{"{127.0.0.1:" + std::to_string(server.port()) + "/notls}news "});
  Done(server);
}

}  // namespace
