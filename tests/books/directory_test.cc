// The public directory without a server: the typed text escaped into the
// filter, and servers that refuse or never answer told within the time-out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
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
      {"(cn=%s*)", "ann", "(cn=ann*)"},
      {"(cn=%s*)", "a*b", "(cn=a\\2ab*)"},
      {"(cn=%s*)", "x)(mail=*", "(cn=x\\29\\28mail=\\2a*)"},
      {"(cn=%s*)", "back\\slash", "(cn=back\\5cslash*)"},
      {"(cn=%s*)", std::string("nul\0byte", 8), "(cn=nul\\00byte*)"},
      {"(cn=%s*)", "Jürgen", "(cn=Jürgen*)"},  // UTF-8 goes as it is
      {"(|(cn=%s)(sn=%s))", "a(", "(|(cn=a\\28)(sn=a\\28))"},
      {"(cn=100%%%s)", "x", "(cn=100%x)"},
      {kDirDefaultFilter, "*", "(|(cn=\\2a*)(mail=\\2a*)(sn=\\2a*)(givenName=\\2a*))"},
  };
  for (const auto& c : cases) {
    std::string filter, error;
    EXPECT_TRUE(DIR_MakeFilter(c.templ, c.typed, &filter, &error)) << c.typed;
    EXPECT_EQ(filter, c.filter) << c.typed;
  }
  std::string filter, error, many;
  for (int i = 0; i < 8; ++i) many += "(cn=%s)";
  EXPECT_FALSE(DIR_MakeFilter(many, std::string(250, '*'), &filter, &error));
  EXPECT_NE(error.find("longer than"), std::string::npos);
}

// A port that refuses, and one that takes the connection and then says nothing.
TEST_F(ModelTest, DirectoryServerDownOrSilentIsToldWithinTheTimeout) {
  const int silent = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(silent, 4), 0);
  getsockname(silent, reinterpret_cast<sockaddr*>(&a), &len);
  const int closed = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in b = a;
  b.sin_port = 0;
  bind(closed, reinterpret_cast<sockaddr*>(&b), sizeof b);
  getsockname(closed, reinterpret_cast<sockaddr*>(&b), &len);
  close(closed);
  Opt_AssignString("Directory.Enable", "1", kOptSession, 0);
  Opt_AssignString("Directory.Host", "127.0.0.1", kOptSession, 0);
  Opt_AssignString("Directory.TimeoutSeconds", "1", kOptSession, 0);
  const struct {
    int port;
    const char* says;
  } cases[] = {{ntohs(b.sin_port), "cannot be reached"}, {ntohs(a.sin_port), "did not answer within 1 seconds"}};
  for (const auto& c : cases) {
    Opt_AssignString("Directory.Port", std::to_string(c.port).c_str(), kOptSession, 0);
    const auto start = std::chrono::steady_clock::now();
    const DirectoryAnswer answer = DIR_Search("ann");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << c.port;
    EXPECT_TRUE(answer.failed);
    EXPECT_NE(answer.message.find(c.says), std::string::npos) << answer.message;
  }
  close(silent);
}

}  // namespace
