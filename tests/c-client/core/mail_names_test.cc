// Remote mailbox names and the choice of driver for a name.
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

}  // namespace
