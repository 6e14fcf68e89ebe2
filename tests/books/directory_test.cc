// The public directory without a server: the typed text escaped into the
// filter, and servers that refuse or never answer told within the time-out.
#include <gtest/gtest.h>

#include <chrono>

#include "src/books/directory.h"
#include "src/options/options.h"
#include "tests/c-client/net/tcp_test_util.h"
#include "tests/model/model_fixture.h"

namespace {

TEST(Directory, TypedTextIsEscapedIntoTheFilter) {
  const struct {
    std::string templ, typed, filter;
  } cases[] = {
      {"(cn=%s*)", "x)(mail=*", "(cn=x\\29\\28mail=\\2a*)"},
      {"(cn=%s*)", std::string("back\\slash\0nul", 14), "(cn=back\\5cslash\\00nul*)"},
      {"(|(cn=%s)(sn=%s))", "Jürgen", "(|(cn=Jürgen)(sn=Jürgen))"},  // UTF-8 goes as it is
      {"(cn=100%%%s)", "x", "(cn=100%x)"},
      {std::string(8, 'x') + "%s%s%s%s%s%s%s%s", std::string(250, '*'), ""},  // too long: refused
  };
  for (const auto& c : cases) {
    std::string filter, error;
    EXPECT_EQ(DIR_MakeFilter(c.templ, c.typed, &filter, &error), !c.filter.empty()) << c.typed;
    EXPECT_EQ(filter, c.filter) << c.typed;
    EXPECT_EQ(error.empty(), !c.filter.empty()) << error;
  }
}

// A port that refuses, and one that takes the connection and then says
// nothing, in plain text and over TLS; a CA file that is not there.
TEST_F(ModelTest, DirectoryServerDownOrSilentIsToldWithinTheTimeout) {
  const unsigned short refusing = tcptest::LoopbackServer().port();  // closed again at once
  tcptest::LoopbackServer silent;
  ASSERT_TRUE(silent.ok());
  for (const auto& [name, value] :
       {std::pair{"Directory.Enable", "1"}, {"Directory.Host", "127.0.0.1"}, {"Directory.TimeoutSeconds", "1"}})
    Opt_AssignString(name, value, kOptSession, 0);
  const struct {
    unsigned short port;
    const char *tls, *ca, *says;
  } cases[] = {
      {refusing, "none", "", "cannot be reached"},
      {refusing, "ldaps", "", "cannot be reached"},
      {silent.port(), "none", "", "did not answer within 1 seconds"},
      {silent.port(), "starttls", "", "did not answer within 1 seconds"},
      {silent.port(), "ldaps", "", "did not answer within 1 seconds"},
      {silent.port(), "ldaps", "/nonexistent/ca.pem", "/nonexistent/ca.pem (Directory.CACertFile) cannot be read"},
  };
  for (const auto& [port, tls, ca, says] : cases) {
    for (const auto& [name, value] : {std::pair<const char*, std::string>{"Directory.Port", std::to_string(port)},
                                      {"Directory.TLS", tls}, {"Directory.CACertFile", ca}})
      Opt_AssignString(name, value.c_str(), kOptSession, 0);
    const auto start = std::chrono::steady_clock::now();
    const DirectoryAnswer answer = DIR_Search("ann");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << says;
    EXPECT_TRUE(answer.failed);
    EXPECT_NE(answer.message.find(says), std::string::npos) << tls << ": " << answer.message;
  }
}

}  // namespace
