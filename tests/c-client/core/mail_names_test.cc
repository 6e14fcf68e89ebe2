// Remote mailbox names and the choice of driver for a name.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

// The parser's rules, one per row: what it accepts and what it fills.
struct ParseCase {
  const char* name;
  const char* host;
  const char* mailbox;
  const char* service;
  long port = 0;
  const char* switches = "";  // the flags set, each followed by a blank
};
const ParseCase kAccepted[] = {
    {"{mail.example.org}INBOX", "mail.example.org", "INBOX", "imap"},
    {"{Mail.Example.ORG}Lists/Work", "Mail.Example.ORG", "Lists/Work", "imap"},
    {"{host}", "host", "INBOX", "imap"},
    {"*{host}", "host", "general", "imap", 0, "bboard "},
    {"*{host}comp.mail", "host", "comp.mail", "imap", 0, "bboard "},
    {"{host:143}x", "host", "x", "imap", 143},
    {"{host:1}x", "host", "x", "imap", 1},
    {"{host:65535}x", "host", "x", "imap", 65535},
    {"{host/IMAP2}x", "host", "x", "imap2"},
    {"{host/imap4}x", "host", "x", "imap4"},
    {"{host/nntp}x", "host", "x", "nntp"},
    {"{host/SERVICE=Imap}x", "host", "x", "imap"},
    {"{host/service=other}x", "host", "x", "other"},
    {"{host/anonymous/anonymous}x", "host", "x", "imap", 0, "anonymous "},
    {"{host:993/imap/ssl/novalidate-cert}x", "host", "x", "imap", 993, "ssl novalidate "},
    {"{host/tls:143}x", "host", "x", "imap", 143, "tls "},
    {"{host/notls}x", "host", "x", "imap", 0, "notls "},
    {"{[::1]:143}x", "[::1]", "x", "imap", 143},
    {"{[fe80::1:2]/imap2}x", "[fe80::1:2]", "x", "imap2"},
    {"{[::ffff:192.0.2.1]}x", "[::ffff:192.0.2.1]", "x", "imap"},
    {"{host}a}b", "host", "a}b", "imap"},
};
const char* const kRefused[] = {
    // Not remote names at all.
    "INBOX", "host}x", "{host", "{}x", "*", "**{host}x", "",
    // Remote in form, refused by a rule.
    "{host/imap=1}x", "{host:0}x", "{host:-1}x", "{host:65536}x", "{host:}x", "{host:14x}x", "{host:143:144}x",
    "{host:0143000}x", "{host/imap/imap2}x", "{host/pop3/service=imap}x", "{host/service=}x",
    "{host/service=abcdefghijklmnopqrstuvwxyz0123456}x", "{host/user=fred}x", "{host/bogus}x", "{host/}x", "{:143}x",
    "{/imap}x", "{host/ssl/tls}x", "{host/notls/ssl}x", "{host/tls/notls}x", "{[::1}x", "{[]}x", "{[127.0.0.1]}x",
    "{[::g]}x", "{[::1]x}y",
};

TEST(MailNames, ParserTable) {
  for (const ParseCase& c : kAccepted) {
    SCOPED_TRACE(c.name);
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_TRUE(mail_valid_net_parse(c.name, &net));
    EXPECT_STREQ(net.host, c.host);
    EXPECT_STREQ(net.mailbox, c.mailbox);
    EXPECT_STREQ(net.service, c.service);
    EXPECT_EQ(net.port, c.port);
    std::string got = std::string(net.anonymous ? "anonymous " : "") + (net.bboard ? "bboard " : "") +
                      (net.ssl ? "ssl " : "") + (net.tls ? "tls " : "") + (net.notls ? "notls " : "") +
                      (net.novalidate_cert ? "novalidate " : "");
    EXPECT_EQ(got, c.switches);
  }
  for (const char* name : kRefused) {
    SCOPED_TRACE(name);
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_FALSE(mail_valid_net_parse(name, &net));
    // A refusal leaves nothing half-filled behind.
    EXPECT_STREQ(net.host, "");
    EXPECT_STREQ(net.mailbox, "");
  }
  EXPECT_FALSE(mail_valid_net_parse(nullptr, nullptr));
}

TEST(MailNames, LengthLimitsRefuseRatherThanCut) {
  std::string host255(255, 'h'), host256(256, 'h');
  std::string box1023(1023, 'm'), box1024(1024, 'm');
  NetMailbox net;
  EXPECT_TRUE(mail_valid_net_parse(("{" + host255 + "}x").c_str(), &net));
  EXPECT_EQ(std::strlen(net.host), 255u);
  EXPECT_FALSE(mail_valid_net_parse(("{" + host256 + "}x").c_str(), &net));
  EXPECT_FALSE(mail_valid_net_parse(("{" + host256 + ":143}x").c_str(), &net));
  EXPECT_TRUE(mail_valid_net_parse(("{h}" + box1023).c_str(), &net));
  EXPECT_EQ(std::strlen(net.mailbox), 1023u);
  EXPECT_FALSE(mail_valid_net_parse(("{h}" + box1024).c_str(), &net));
  // Switches may make the braces longer than a host can be.
  std::string many = "{h";
  for (int i = 0; i < 100; ++i) many += "/anonymous";
  EXPECT_TRUE(mail_valid_net_parse((many + "}x").c_str(), &net));
}

MailDriver MakeNamed(const char* name) {
  MailDriver d{};
  d.name = name;
  return d;
}

TEST(MailNames, ValidNetAcceptsOnlyItsService) {
  MailDriver imap2 = MakeNamed("imap2");
  MailDriver imap4 = MakeNamed("imap4rev1");
  MailDriver pop3 = MakeNamed("pop3");
  struct Row {
    const char* name;
    MailDriver* driver;
    bool accepted;
  } rows[] = {
      {"{h}x", &imap2, true},        {"{h/imap}x", &imap2, true},    {"{h/imap2}x", &imap2, true},
      {"{h/imap4}x", &imap2, false}, {"{h/imap4}x", &imap4, false},  {"{h}x", &imap4, true},
      {"{h/pop3}x", &imap2, false},  {"{h/pop3}x", &pop3, true},     {"{h/nntp}x", &imap2, false},
      {"{h}x", &pop3, false},        {"{h/imap=1}x", &imap2, false}, {"INBOX", &imap2, false},
      {"{h}x", nullptr, false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " for " + (r.driver ? r.driver->name : "none"));
    char host[256] = "unchanged", mailbox[1024] = "unchanged";
    MailDriver* got = mail_valid_net(r.name, r.driver, host, mailbox);
    EXPECT_EQ(got, r.accepted ? r.driver : nullptr);
    if (r.accepted) {
      EXPECT_STREQ(host, "h");
      EXPECT_STREQ(mailbox, "x");
    } else {
      EXPECT_STREQ(host, "unchanged");
    }
  }
  EXPECT_EQ(mail_valid_net("{h}x", &imap2, nullptr, nullptr), &imap2);
}

// A driver that takes remote names through the parser, as the remote
// driver does, and one that takes local names of one prefix.
MailDriver* RemoteValid(const char* name);
MailDriver* LocalValid(const char* name);
MailDriver g_remote = [] {
  MailDriver d{};
  d.name = "imap2";
  d.valid = RemoteValid;
  return d;
}();
MailDriver g_local = [] {
  MailDriver d{};
  d.name = "local";
  d.valid = LocalValid;
  return d;
}();
MailDriver* RemoteValid(const char* name) { return mail_valid_net(name, &g_remote, nullptr, nullptr); }
MailDriver* LocalValid(const char* name) { return std::strncmp(name, "#local/", 7) == 0 ? &g_local : nullptr; }

class MailValid : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_unlink_all();
    mail_link(&g_remote);
    mail_link(&g_local);
    mail_env_clear();
  }
  void TearDown() override { mail_unlink_all(); }

  static std::vector<std::string> Logs() { return EnvLines("log", true); }
};

TEST_F(MailValid, FindsTheDriverOrSaysWhyNot) {
  struct Row {
    const char* name;
    MailDriver* driver;
    const char* complaint;
  } rows[] = {
      {"{host}INBOX", &g_remote, nullptr},
      {"*{host}news", &g_remote, nullptr},
      {"#local/box", &g_local, nullptr},
      {"{host/pop3}x", nullptr, "Can't open mailbox {host/pop3}x: invalid remote specification @2"},
      {"{host/imap4}x", nullptr, "Can't open mailbox {host/imap4}x: invalid remote specification @2"},
      {"{host:0}x", nullptr, "Can't open mailbox {host:0}x: invalid remote specification @2"},
      {"*{host", nullptr, "Can't open mailbox *{host: invalid remote specification @2"},
      {"*news", nullptr, "Can't open mailbox *news: no such bboard @2"},
      {"mybox", nullptr, "Can't open mailbox mybox: no such mailbox @2"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, r.name, "open mailbox"), r.driver);
    if (r.complaint)
      EXPECT_EQ(Logs(), std::vector<std::string>{r.complaint});
    else
      EXPECT_TRUE(Logs().empty());
    // Without a purpose the answer is the same, and silent.
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, r.name, nullptr), r.driver);
    EXPECT_TRUE(Logs().empty());
  }
}

MailDriver* g_dummy_self = nullptr;

TEST_F(MailValid, AStreamServesOnlyItsOwnFormatUnlessDummy) {
  MailDriver dummy = MakeNamed("dummy");
  dummy.valid = [](const char* name) { return std::strncmp(name, "#dummy/", 7) == 0 ? g_dummy_self : nullptr; };
  g_dummy_self = &dummy;
  mail_link(&dummy);
  MailStream stream{};
  stream.driver = &g_remote;
  // A good local name, but not for this stream: the caller hears only that
  // there is no such mailbox.
  EXPECT_EQ(mail_valid(&stream, "#local/box", "subscribe to mailbox"), nullptr);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't subscribe to mailbox #local/box: no such mailbox @2"});
  EXPECT_EQ(mail_valid(&stream, "{host}x", "open mailbox"), &g_remote);
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", "open mailbox"), &g_remote);
  stream.driver = nullptr;
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", nullptr), nullptr);
}

}  // namespace
