// The AUTHENTICATE mechanisms on their own: the table's order, CRAM-MD5's
// answer to known challenges, its refusals, and the Kerberos V4 slot that
// never gets as far as the wire.
#include "c-client/auth/authenticators.h"

#include <gtest/gtest.h>

#include <string>

#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

TEST(Authenticators, TableOrderAndLookup) {
  ASSERT_NE(kAuthenticators[0], nullptr);
  ASSERT_NE(kAuthenticators[1], nullptr);
  EXPECT_STREQ(kAuthenticators[0]->name, "KERBEROS_V4");
  EXPECT_STREQ(kAuthenticators[1]->name, "CRAM-MD5");
  EXPECT_EQ(kAuthenticators[2], nullptr);
  EXPECT_EQ(auth_lookup("cram-md5"), kAuthenticators[1]);
  EXPECT_EQ(auth_lookup("PLAIN"), nullptr);
  EXPECT_EQ(auth_lookup(nullptr), nullptr);
}

TEST(Authenticators, HmacMd5MatchesPublishedVectors) {
  struct Case {
    std::string key, text, hex;
  } cases[] = {
      // RFC 2202 test cases 2 and 6, and RFC 2195's exchange.
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {"tanstaaftanstaaf", "<1896.697170952@postoffice.reston.mci.net>", "b913a602c7eda7a495b4e6e7334d3890"},
  };
  for (const Case& c : cases) EXPECT_EQ(auth_hmac_md5_hex(c.key, c.text), c.hex) << c.text;
}

TEST(Authenticators, CramMd5StepsAndRefusals) {
  const Authenticator* cram = auth_lookup("CRAM-MD5");
  struct Case {
    const char* what;
    std::string challenge;
    const char* user;
    const char* password;
    long result;
    std::string answer;
  } cases[] = {
      {"RFC 2195", "<1896.697170952@postoffice.reston.mci.net>", "tim", "tanstaaftanstaaf", kAuthDone,
       "tim b913a602c7eda7a495b4e6e7334d3890"},
      {"text around the brackets is ignored", "junk <1896.697170952@postoffice.reston.mci.net> more", "tim",
       "tanstaaftanstaaf", kAuthDone, "tim b913a602c7eda7a495b4e6e7334d3890"},
      {"no opening bracket", "1896.697170952@postoffice>", "tim", "x", kAuthCancel, ""},
      {"no closing bracket", "<1896.697170952@postoffice", "tim", "x", kAuthCancel, ""},
      {"cancelled login", "<1@x>", "", "", kAuthCancel, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    mail_env_set_login(c.user, c.password);
    void* state = nullptr;
    ASSERT_EQ(cram->client_start("imap.example.org", "", 1, 0, nullptr, nullptr, &state), 0);
    std::string answer = "unchanged";
    EXPECT_EQ(cram->client_step(state, c.challenge, &answer), c.result);
    EXPECT_EQ(answer, c.answer);
    // The first challenge with brackets asks for the login, once.
    bool bracketed = c.challenge.find('<') != std::string::npos && c.challenge.find('>') != std::string::npos;
    EXPECT_EQ(EnvLines("login").size(), bracketed ? 1u : 0u);
    // A second step always cancels, and there is no retry.
    EXPECT_EQ(cram->client_step(state, c.challenge, &answer), kAuthCancel);
    EXPECT_EQ(cram->client_retry(state), 0);
    cram->client_end(&state);
    EXPECT_EQ(state, nullptr);
  }
}

TEST(Authenticators, KerberosV4IsSkippedWithoutARoundTrip) {
  const Authenticator* k4 = auth_lookup("KERBEROS_V4");
  mail_env_clear();
  void* state = reinterpret_cast<void*>(1);
  EXPECT_NE(k4->client_start("imap.example.org", "", 1, 0, nullptr, nullptr, &state), 0);
  EXPECT_EQ(state, nullptr);
  EXPECT_TRUE(EnvSaid("dlog", "No Kerberos V4 ticket cache."));
  EXPECT_TRUE(EnvLines("login").empty());
}

}  // namespace
