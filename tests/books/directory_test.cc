// The public directory without a server: the typed text escaped into the
// filter, and servers that refuse or never answer told within the time-out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>

#include "src/books/directory.h"
#include "src/options/options.h"
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

// A port that refuses, and one that takes the connection and then says nothing.
TEST_F(ModelTest, DirectoryServerDownOrSilentIsToldWithinTheTimeout) {
  int ports[2], fds[2];
  for (int i = 0; i < 2; ++i) {
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    fds[i] = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(fds[i], reinterpret_cast<sockaddr*>(&a), len) | listen(fds[i], 4), 0);
    getsockname(fds[i], reinterpret_cast<sockaddr*>(&a), &len);
    ports[i] = ntohs(a.sin_port);
  }
  close(fds[0]);
  for (const auto& [name, value] :
       {std::pair{"Directory.Enable", "1"}, {"Directory.Host", "127.0.0.1"}, {"Directory.TimeoutSeconds", "1"}})
    Opt_AssignString(name, value, kOptSession, 0);
  const char* says[] = {"cannot be reached", "did not answer within 1 seconds"};
  for (int i = 0; i < 2; ++i) {
    Opt_AssignString("Directory.Port", std::to_string(ports[i]).c_str(), kOptSession, 0);
    const auto start = std::chrono::steady_clock::now();
    const DirectoryAnswer answer = DIR_Search("ann");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << says[i];
    EXPECT_TRUE(answer.failed);
    EXPECT_NE(answer.message.find(says[i]), std::string::npos) << answer.message;
  }
  close(fds[1]);
}

}  // namespace
