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
    const char* logged;  // a log line expected, or ""
    bool still_open;
  } cases[] = {
      {"no literal prompt", {"C: $T SET mail.sig {3}", "S: $T NO not now", "C: $T NOOP", "S: $T OK fine"},
       [](ImspSession* s) { return imsp_option_set(s, "mail.sig", "a\"b") == 0 && imsp_noop(s); }, 1, "fine", "",
       true},
      {"number before a keyword",
       {"C: $T NOOP", "S: * 3 EXISTS", "S: * 7 no such thing", "S: $T OK done"}, imsp_noop, 1, "done",
       "Unhandled unsolicited keyword: EXISTS", true},
      {"counting keyword without a number", {"C: $T NOOP", "S: * RECENT", "S: $T OK done"}, imsp_noop, 1, "done",
       "keyword 'RECENT' requries numeric argument", true},
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
    if (*c.logged) {
      EXPECT_NE(EnvAll().find(c.logged), std::string::npos) << EnvAll();
    }
    EXPECT_EQ(imsp_is_open(s), c.still_open);
    // The password never reaches the trace.
    EXPECT_EQ(EnvAll().find("secret"), std::string::npos);
    imsp_session_free(&session_);
    server.Finish();
    EXPECT_EQ(server.mismatch, "") << c.name;
  }
}

TEST(ImspParse, Lines) {
  struct Case {
    const char* line;
    bool ok;
    const char* tag;
    const char* keyword;
    long number;
    const char* text;  // or the error
  } cases[] = {
      {"* 12 exists", true, "*", "EXISTS", 12, ""},
      {"A00001 ok done it", true, "A00001", "OK", -1, "done it"},
      {"+ PDEyMz4=", true, "+", "", -1, "PDEyMz4="},
      {"", false, "", "", -1, "server sent a blank line"},
      {"*", false, "*", "", -1, "Missing server keyword: *"},
      {"* 5", false, "*", "", 5, "Missing keyword after numeric argument: 5"},
      {"* FROB x", false, "*", "FROB", -1, "Unknown keyword: FROB"},
      {"* STORE x", false, "*", "STORE", -1, "keyword 'STORE' requries numeric argument"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    ImspReply r;
    EXPECT_EQ(imsp_parse_line(c.line, &r), c.ok);
    EXPECT_EQ(r.tag, c.tag);
    EXPECT_EQ(r.keyword, c.keyword);
    EXPECT_EQ(r.number, c.number);
    EXPECT_EQ(c.ok ? r.text : std::string(r.message), c.text);
  }
}

TEST(ImspParse, ArgumentsAndForms) {
  ImspReply r;
  ASSERT_TRUE(imsp_parse_line(R"(* FETCHADDRESS "my book" a\b "say \"hi\\" "" last)", &r));
  std::vector<std::string> args;
  for (std::string a; imsp_next_arg(&r, &a);) args.push_back(a);
  EXPECT_EQ(args, (std::vector<std::string>{"my book", "a\\b", "say \"hi\\", "", "last"}));
  struct Form {
    const char* s;
    int form;
  } forms[] = {{"plain.atom", 0}, {"two words", 1}, {"50%*{", 1}, {"a\"b", 2}, {"a\\b", 2}, {"\x01", 2},
               {"caf\xc3\xa9", 2}};
  for (const Form& f : forms) EXPECT_EQ(imsp_string_form(f.s), f.form) << f.s;
}

}  // namespace
