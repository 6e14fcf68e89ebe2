// What no real server does: a refused literal, numbered and malformed
// lines, a goodbye and a cut connection, lines and literals too long.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "c-client/imsp/imsp_internal.h"
#include "tests/c-client/imap/fake_imap_server.h"

namespace {

using imap_test::FakeImapServer;
using imap_test::Script;

// Greeting, a refused CRAM-MD5 and a LOGIN.
const Script kLogin = {"S: * OK fake imsp", "C: $T AUTHENTICATE CRAM-MD5", "S: $T NO not here",
                       "C: $T LOGIN user secret", "S: $T OK in"};

struct ImspFake : ::testing::Test {
  void SetUp() override {
    mail_env_set_login("user", "secret");
    tcp_set_timeouts_for_test(5, 5, 5);
  }
  void TearDown() override {
    imsp_session_free(&session_);
    tcp_set_timeouts_for_test(0, 0, 0);
  }
  ImspSession* Open(FakeImapServer& server) {
    mail_env_clear();
    session_ = imsp_session_new(ImspCallbacks{});
    EXPECT_EQ(imsp_open(session_, "127.0.0.1", server.server.port()), 1);
    return session_;
  }
  ImspSession* session_ = nullptr;
};

TEST_F(ImspFake, RepliesThatNoRealServerSends) {
  const std::string huge(kTcpMaxLine + 10, 'x');
  struct Case {
    const char* name;
    Script server;  // after the login
    std::function<long(ImspSession*)> command;
    long answer;
    const char* text;    // imsp_last_text afterwards
    const char* logged;  // the warnings expected, in order
    bool still_open;
  } cases[] = {
      {"no literal prompt", {"C: $T SET mail.sig {3}", "S: $T NO not now", "C: $T NOOP", "S: $T OK fine"},
       [](ImspSession* s) { return imsp_option_set(s, "mail.sig", "a\"b") == 0 && imsp_noop(s); }, 1, "fine", "",
       true},
      {"numbered lines, one without its number",
       {"C: $T NOOP", "S: * RECENT", "S: * 3 EXISTS", "S: $T OK done"}, imsp_noop, 1, "done",
       "keyword 'RECENT' requries numeric argument\nUnhandled unsolicited keyword: EXISTS", true},
      {"goodbye, then the line drops", {"C: $T NOOP", "S: * BYE going", "CLOSE"}, imsp_noop, 0,
       "Connection broken in reply", "Unhandled unsolicited keyword: BYE", false},
      {"cut inside a literal", {"C: $T GET \"*\"", "R: * OPTION mail.sig {40}\r\nonly part", "CLOSE"},
       [](ImspSession* s) { return imsp_option_get(s, "*"); }, 0, "Connection broken in reply", "", false},
      {"literal too long", {"C: $T GET \"*\"", "S: * OPTION mail.sig {99999999}", "S: $T OK done"},
       [](ImspSession* s) { return imsp_option_get(s, "*"); }, 0, "Connection broken in reply",
       "Server literal too long: 99999999 bytes", false},
      {"line too long", {"C: $T NOOP", "R: * OK " + huge}, imsp_noop, 0, "Connection broken in reply", "", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeImapServer server(imap_test::operator+(kLogin, c.server));
    ImspSession* s = Open(server);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(c.command(s), c.answer);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_STREQ(imsp_last_text(s), c.text);
    EXPECT_NE(EnvLogs(1).find(c.logged), std::string::npos) << EnvAll();
    EXPECT_EQ(imsp_is_open(s), c.still_open);
    // The password never reaches the trace.
    EXPECT_EQ(EnvAll().find("secret"), std::string::npos);
    imsp_session_free(&session_);
    server.Finish();
    EXPECT_EQ(server.mismatch, "") << c.name;
  }
}

}  // namespace
