// The AUTHENTICATE mechanisms on their own: the table's order, CRAM-MD5's
// answer to known challenges, its refusals, and the Kerberos V4 slot that
// never gets as far as the wire.
#include "c-client/auth/authenticators.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

TEST(Authenticators, TableOrderLookupAndHmacMd5) {
  ASSERT_TRUE(kAuthenticators[0] && kAuthenticators[1] && !kAuthenticators[2]);
  EXPECT_STREQ(kAuthenticators[0]->name, "KERBEROS_V4");
  EXPECT_EQ(auth_lookup("cram-md5"), kAuthenticators[1]);
  EXPECT_EQ(auth_lookup("PLAIN"), nullptr);
  EXPECT_EQ(auth_lookup(nullptr), nullptr);
  // RFC 2202's case 6: a key longer than the block is hashed first.
  EXPECT_EQ(auth_hmac_md5_hex(std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First"),
            "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd");
}

TEST(Authenticators, CramMd5StepsAndRefusals) {
  const std::string rfc2195 = "<1896.697170952@postoffice.reston.mci.net>";
  struct Case {
    std::string challenge;
    const char* user;
    std::string answer;  // "" cancelled
    bool asks;           // for the login: only a challenge with both brackets does
  } cases[] = {
      {rfc2195, "tim", "tim b913a602c7eda7a495b4e6e7334d3890", true},
      {"junk " + rfc2195 + " more", "tim", "tim b913a602c7eda7a495b4e6e7334d3890", true},  // text around is ignored
      {"1896.697170952@postoffice>", "tim", "", false},
      {"<1896.697170952@postoffice", "tim", "", false},
      {"<1@x>", "", "", true},  // the login question cancelled
  };
  const Authenticator* cram = kAuthenticators[1];
  for (const Case& c : cases) {
    SCOPED_TRACE(c.challenge);
    mail_env_clear();
    mail_env_set_login(c.user, *c.user ? "tanstaaftanstaaf" : "");
    void* state = nullptr;
    std::string answer = "unchanged";
    ASSERT_EQ(cram->client_start("imap.example.org", "", 1, 0, nullptr, nullptr, &state), 0);
    EXPECT_EQ(cram->client_step(state, c.challenge, &answer), c.answer.empty() ? kAuthCancel : kAuthDone);
    EXPECT_EQ(answer, c.answer);
    EXPECT_EQ(EnvLines("login").size(), c.asks ? 1u : 0u);
    // A second step always cancels, and there is no retry.
    EXPECT_EQ(cram->client_step(state, c.challenge, &answer), kAuthCancel);
    EXPECT_EQ(cram->client_retry(state), 0);
    cram->client_end(&state);
    EXPECT_EQ(state, nullptr);
  }
  // Kerberos V4 is skipped before a round trip: no ticket cache here.
  mail_env_clear();
  void* state = &state;
  EXPECT_NE(kAuthenticators[0]->client_start("imap.example.org", "", 1, 0, nullptr, nullptr, &state), 0);
  EXPECT_EQ(state, nullptr);
  EXPECT_EQ(EnvLines("dlog"), std::vector<std::string>{"No Kerberos V4 ticket cache."});
  EXPECT_EQ(mail_env_lines().size(), 1u);  // and no question asked
}

}  // namespace
