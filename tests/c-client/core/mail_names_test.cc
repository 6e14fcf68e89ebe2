// The small languages the core parses on behalf of the drivers: remote
// mailbox names (and the choice of driver for a name), sequence texts and
// body section numbers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

// What the parser fills: host, mailbox, service, port and the switches set
// (each followed by a blank), as one line.
std::string Record(const NetMailbox& n) {
  return std::string(n.host) + "|" + n.mailbox + "|" + n.service + "|" + std::to_string(n.port) + "|" +
         (n.anonymous ? "anonymous " : "") + (n.bboard ? "bboard " : "") + (n.ssl ? "ssl " : "") +
         (n.tls ? "tls " : "") + (n.notls ? "notls " : "") + (n.novalidate_cert ? "novalidate " : "");
}

// Lengths past the limits are refused rather than cut; switches may make
// the braces longer than a host can be.
TEST(MailNames, ParserTable) {
  const std::string h255(255, 'h'), h256(256, 'h'), m1023(1023, 'm');
  std::string many = "{h";
  for (int i = 0; i < 100; ++i) many += "/anonymous";
  const std::pair<std::string, std::string> accepted[] = {
      {"{" + h255 + "}x", h255 + "|x|imap|0|"}, {"{h}" + m1023, "h|" + m1023 + "|imap|0|"},
      {many + "}x", "h|x|imap|0|anonymous "},
      {"{mail.example.org}INBOX", "mail.example.org|INBOX|imap|0|"}, {"{host}", "host|INBOX|imap|0|"},
      {"{Mail.Example.ORG}Lists/Work", "Mail.Example.ORG|Lists/Work|imap|0|"}, {"{host}a}b", "host|a}b|imap|0|"},
      {"*{host}", "host|general|imap|0|bboard "}, {"*{host}comp.mail", "host|comp.mail|imap|0|bboard "},
      {"{host:1}x", "host|x|imap|1|"}, {"{host:65535}x", "host|x|imap|65535|"},
      {"{host/IMAP2}x", "host|x|imap2|0|"}, {"{host/nntp}x", "host|x|nntp|0|"},
      {"{host/SERVICE=Imap}x", "host|x|imap|0|"}, {"{host/service=other}x", "host|x|other|0|"},
      {"{host/anonymous/anonymous}x", "host|x|imap|0|anonymous "}, {"{host/notls}x", "host|x|imap|0|notls "},
      {"{host:993/imap/ssl/novalidate-cert}x", "host|x|imap|993|ssl novalidate "},
      {"{host/tls:143}x", "host|x|imap|143|tls "}, {"{[::1]:143}x", "[::1]|x|imap|143|"},
      {"{[fe80::1:2]/imap2}x", "[fe80::1:2]|x|imap2|0|"}, {"{[::ffff:192.0.2.1]}x", "[::ffff:192.0.2.1]|x|imap|0|"},
  };
  for (const auto& [name, record] : accepted) {
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_TRUE(mail_valid_net_parse(name.c_str(), &net)) << name;
    EXPECT_EQ(Record(net), record) << name;
  }
  const std::string refused[] = {
      "{" + h256 + "}x", "{" + h256 + ":143}x", "{h}" + m1023 + "m",
      // Not remote names at all.
      "INBOX", "host}x", "{host", "{}x", "*", "**{host}x", "",
      // Remote in form, refused by a rule.
      "{host/imap=1}x", "{host:0}x", "{host:-1}x", "{host:65536}x", "{host:}x", "{host:14x}x", "{host:143:144}x",
      "{host:0143000}x", "{host/imap/imap2}x", "{host/pop3/service=imap}x", "{host/service=}x",
      "{host/service=abcdefghijklmnopqrstuvwxyz0123456}x", "{host/user=fred}x", "{host/bogus}x", "{host/}x",
      "{:143}x", "{/imap}x", "{host/ssl/tls}x", "{host/notls/ssl}x", "{host/tls/notls}x", "{[::1}x", "{[]}x",
      "{[127.0.0.1]}x", "{[::g]}x", "{[::1]x}y",
  };
  for (const std::string& name : refused) {
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_FALSE(mail_valid_net_parse(name.c_str(), &net)) << name;
    // A refusal leaves nothing half-filled behind.
    EXPECT_STREQ(net.host, "") << name;
    EXPECT_STREQ(net.mailbox, "") << name;
  }
  EXPECT_FALSE(mail_valid_net_parse(nullptr, nullptr));
}

TEST(MailNames, ValidNetAcceptsOnlyItsService) {
  MailDriver imap2{}, imap4{}, pop3{};
  imap2.name = "imap2";
  imap4.name = "imap4rev1";
  pop3.name = "pop3";
  const std::tuple<const char*, MailDriver*, bool> rows[] = {
      {"{h}x", &imap2, true},        {"{h/imap}x", &imap2, true},    {"{h/imap2}x", &imap2, true},
      {"{h/imap4}x", &imap2, false}, {"{h/imap4}x", &imap4, false},  {"{h}x", &imap4, true},
      {"{h/pop3}x", &imap2, false},  {"{h/pop3}x", &pop3, true},     {"{h/nntp}x", &imap2, false},
      {"{h}x", &pop3, false},        {"{h/imap=1}x", &imap2, false}, {"INBOX", &imap2, false},
      {"{h}x", nullptr, false},
  };
  for (const auto& [name, driver, accepted] : rows) {
    SCOPED_TRACE(std::string(name) + " for " + (driver ? driver->name : "none"));
    char host[256] = "unchanged", mailbox[1024] = "unchanged";
    EXPECT_EQ(mail_valid_net(name, driver, host, mailbox), accepted ? driver : nullptr);
    EXPECT_STREQ(host, accepted ? "h" : "unchanged");
    EXPECT_STREQ(mailbox, accepted ? "x" : "unchanged");
  }
  EXPECT_EQ(mail_valid_net("{h}x", &imap2, nullptr, nullptr), &imap2);
}

// A driver that takes remote names through the parser, as the remote
// driver does, one that takes local names of one prefix, and a dummy.
MailDriver g_remote{}, g_local{}, g_dummy{};

TEST(MailValid, FindsTheDriverOrSaysWhyNot) {
  g_remote.valid = [](const char* name) { return mail_valid_net(name, &g_remote, nullptr, nullptr); };
  g_local.valid = [](const char* name) { return std::strncmp(name, "#local/", 7) == 0 ? &g_local : nullptr; };
  g_dummy.valid = [](const char* name) { return std::strncmp(name, "#dummy/", 7) == 0 ? &g_dummy : nullptr; };
  g_remote.name = "imap2";
  g_dummy.name = "dummy";
  mail_unlink_all();
  for (MailDriver* d : {&g_remote, &g_local, &g_dummy}) mail_link(d);
  const std::string bad = ": invalid remote specification @2";
  const std::tuple<const char*, MailDriver*, std::string> rows[] = {
      {"{host}INBOX", &g_remote, ""}, {"*{host}news", &g_remote, ""}, {"#local/box", &g_local, ""},
      {"{host/pop3}x", nullptr, "Can't open mailbox {host/pop3}x" + bad},
      {"*{host", nullptr, "Can't open mailbox *{host" + bad},
      {"*news", nullptr, "Can't open mailbox *news: no such bboard @2"},
      {"mybox", nullptr, "Can't open mailbox mybox: no such mailbox @2"},
  };
  for (const auto& [name, driver, complaint] : rows) {
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, name, "open mailbox"), driver) << name;
    std::vector<std::string> logs = EnvLines("log", true);
    EXPECT_EQ(logs.empty() ? "" : logs[0], complaint);
    // Without a purpose the answer is the same, and silent.
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, name, nullptr), driver) << name;
    EXPECT_TRUE(mail_env_lines().empty());
  }

  // A stream serves only its own format, and dummy names. A good local name
  // not for this stream: the caller hears only that there is no such mailbox.
  MailStream stream{};
  stream.driver = &g_remote;
  EXPECT_EQ(mail_valid(&stream, "#local/box", "subscribe to mailbox"), nullptr);
  EXPECT_EQ(EnvLines("log"), std::vector<std::string>{"Can't subscribe to mailbox #local/box: no such mailbox"});
  EXPECT_EQ(mail_valid(&stream, "{host}x", "open mailbox"), &g_remote);
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", "open mailbox"), &g_remote);
  stream.driver = nullptr;
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", nullptr), nullptr);
  mail_unlink_all();
  mail_env_clear();
}

TEST(Sequences, MarksOrExplains) {
  mailcache = mm_cache;
  MailStream stream{};
  stream.silent = 1;
  mail_exists(&stream, 5);
  // The text, then the messages marked and the complaint at level 2.
  const std::pair<const char*, std::string> rows[] = {
      {"1", "1 "}, {"2:4", "2 3 4 "}, {"5:2", "2 3 4 5 "}, {"1,3:4", "1 3 4 "}, {"4:4,1", "1 4 "}, {"1,", "1 "}, {"", ""},
      {"0", "Sequence invalid"}, {"6", "Sequence invalid"}, {"x", "Sequence invalid"}, {"-1", "Sequence invalid"},
      {"2,9", "2 Sequence invalid"}, {"1,,2", "1 Sequence invalid"}, {"99999999999999999999999", "Sequence invalid"},
      {"1x", "Syntax error in sequence"}, {"1 ", "Syntax error in sequence"}, {"3,1;2", "3 Syntax error in sequence"},
      {"1:6", "Sequence range invalid"}, {"1:0", "Sequence range invalid"}, {"1:", "Sequence range invalid"},
      {"1:3x", "Sequence range invalid"}, {"1:3:4", "Sequence range invalid"},
      {"2,1:99999999999999999999", "2 Sequence range invalid"},
  };
  for (const auto& [text, outcome] : rows) {
    // Marks of an earlier call never survive into the next.
    ASSERT_EQ(mail_sequence(&stream, "1:5"), 1);
    mail_env_clear();
    long result = mail_sequence(&stream, text);
    std::string got;
    for (unsigned long i = 1; i <= 5; ++i) got += mail_elt(&stream, i)->sequence ? std::to_string(i) + " " : "";
    for (const std::string& complaint : EnvLines("log", true)) got += complaint;
    EXPECT_EQ(got, outcome + (result ? "" : " @2")) << '"' << text << '"';
    EXPECT_EQ(result, outcome.find("Seq") == std::string::npos && outcome.find("Syn") == std::string::npos);
  }
  mailcache(&stream, 0, CH_INIT);
  mail_env_clear();
}

BodyPartNode* Node(unsigned short type, unsigned long offset, std::vector<BodyPartNode*> parts = {}) {
  BodyPartNode* n = mail_newbody_part();
  n->body.type = type;
  n->body.subtype = cpystr(type == TYPEMESSAGE ? "RFC822" : "X");
  n->offset = offset;
  for (size_t i = parts.size(); i-- > 0;) {
    parts[i]->next = n->body.parts;
    n->body.parts = parts[i];
  }
  return n;
}

TEST(BodySection, WalksPartsAndMessages) {
  // 1 text at 100, 2 message at 300 (its body at 40) holding 1 text at 7
  // and 2 a multipart at 60 of two texts at 5 and 80, 3 a text at 900, 4 a
  // message of 500 bytes (its body at 30) whose one text part is 380.
  BodyPartNode *a1 = Node(TYPETEXT, 5), *a2 = Node(TYPETEXT, 80), *alt = Node(TYPEMULTIPART, 60, {a1, a2}),
               *inner1 = Node(TYPETEXT, 7), *text1 = Node(TYPETEXT, 100), *msg2 = Node(TYPEMESSAGE, 300),
               *app3 = Node(TYPEAPPLICATION, 900), *msg4 = Node(TYPEMESSAGE, 1200),
               *root = Node(TYPEMULTIPART, 0, {text1, msg2, app3, msg4});
  BodyPartNode* inner = Node(TYPEMULTIPART, 0, {inner1, alt});
  msg2->body.msg_offset = 40;
  msg2->body.msg_body = &inner->body;
  msg4->body.msg_offset = 30;
  msg4->body.size_bytes = 500;
  msg4->body.msg_body = mail_newbody();
  msg4->body.msg_body->size_bytes = 380;
  const std::tuple<const char*, BodyPartNode*, unsigned long> rows[] = {
      {"1", text1, 100}, {"2", msg2, 300}, {"3", app3, 900}, {"2.1", inner1, 40 + 7}, {"2.2", alt, 40 + 60},
      // The offset is the last part's own plus the messages entered on the way.
      {"2.2.1", a1, 40 + 5}, {"2.2.2", a2, 40 + 80}, {"4", msg4, 1200},
  };
  for (const auto& [section, part, offset] : rows) {
    unsigned long got = 12345;
    EXPECT_EQ(mail_body_section(&root->body, section, &got), &part->body) << section;
    EXPECT_EQ(got, offset) << section;
  }
  unsigned long got = 0;
  // Its "1" has no node: it starts past the enclosed header (500 - 380).
  EXPECT_EQ(mail_body_section(&root->body, "4.1", &got), msg4->body.msg_body);
  EXPECT_EQ(got, 30u + 1200u + 120u);
  // "1.1": a text part has no parts.
  for (const char* none : {"5", "0", "2.0", "2.3", "1.1", "2.1.1", "2.", ".1", "1..2", "x", "1x", "2.2.2.2.2.2.2.2", "4.2", "4.1.1",
                           "99999999999999999999"})
    EXPECT_EQ(mail_body_section(&root->body, none, nullptr), nullptr) << none;
  // A message whose whole body is a message: "1" is the body itself; other
  // numbers are parts of the message inside.
  unsigned long offset = 0;
  EXPECT_EQ(mail_body_section(&msg2->body, "1", &offset), &msg2->body);
  EXPECT_EQ(mail_body_section(&msg2->body, "2.2", &offset), &a2->body);
  EXPECT_EQ(offset, 40u + 80u);
  msg2->body.msg_body = nullptr;
  mail_free_body_part(&inner);
  mail_free_body_part(&root);

  // A single part is its own "1"; a message that isn't RFC822 has no
  // numbered parts.
  BodyPart* single = mail_newbody();
  EXPECT_EQ(mail_body_section(single, "", &offset), single);
  single->type = TYPEMESSAGE;
  single->subtype = cpystr("PARTIAL");
  EXPECT_EQ(mail_body_section(single, "2", &offset), nullptr);
  mail_free_body(&single);
  EXPECT_EQ(mail_body_section(nullptr, "1", &offset), nullptr);
}

}  // namespace
