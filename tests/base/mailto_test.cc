// mailto: links and the request text: what is taken, what is ignored, what is refused.
#include "src/base/mailto.h"

#include <gtest/gtest.h>

namespace {

std::string Show(const ComposeRequest& r) {
  return "to=" + ComposeJoinAddresses(r.to) + "|cc=" + ComposeJoinAddresses(r.cc) + "|bcc=" +
         ComposeJoinAddresses(r.bcc) + "|s=" + r.subject + "|b=" + r.body + "|irt=" + r.in_reply_to;
}

TEST(Mailto, ReadsLinksAndRefusesBadOnes) {
  const std::string big(kMailtoMaxLength, 'a');
  std::string many = "mailto:?cc=";
  for (size_t i = 0; i <= kMailtoMaxAddresses; ++i) many += "a" + std::to_string(i) + "@x,";
  std::string headers = "mailto:?";
  for (size_t i = 0; i <= kMailtoMaxHeaders; ++i) headers += "x-h=1&";
  struct Case {
    std::string url, want;  // want: Show() of the result, or "!" + part of the error
  } cases[] = {
      {"mailto:chris@example.com", "to=chris@example.com|cc=|bcc=|s=|b=|irt="},
      {"MAILTO:infobot@example.com?subject=current-issue", "to=infobot@example.com|cc=|bcc=|s=current-issue|b=|irt="},
      {"mailto:infobot@example.com?body=send%20current-issue%0D%0Asend%20index",
       "to=infobot@example.com|cc=|bcc=|s=|b=send current-issue\nsend index|irt="},
      {"mailto:list@example.org?In-Reply-To=%3C3469A91.D10AF4C@example.com%3E",
       "to=list@example.org|cc=|bcc=|s=|b=|irt=<3469A91.D10AF4C@example.com>"},
      {"mailto:joe@example.com?cc=bob@example.com&bcc=x@y.org&body=hello",
       "to=joe@example.com|cc=bob@example.com|bcc=x@y.org|s=|b=hello|irt="},
      {"mailto:a@x.org,b@y.org?to=c@z.org", "to=a@x.org, b@y.org, c@z.org|cc=|bcc=|s=|b=|irt="},
      {"mailto:%22Doe,%20J%22%20%3Cj@x.org%3E", "to=\"Doe, J\" <j@x.org>|cc=|bcc=|s=|b=|irt="},
      {"mailto:user@%E2%82%AC.example?subject=%E2%82%AC%20caf%C3%A9+1",
       "to=user@\u20ac.example|cc=|bcc=|s=\u20ac caf\u00e9+1|b=|irt="},
      {"mailto:a@x.org?from=boss@x.org&sender=b@x&attach=/etc/passwd&X-Foo=1&subject=hi",
       "to=a@x.org|cc=|bcc=|s=hi|b=|irt="},
      {"mailto:a@x.org?subject=%ZZ", "!bad %-escape \"%ZZ\""},
      {"mailto:a@x.org?subject=100%", "!bad %-escape"},
      {"mailto:a@x.org?subject=%C3%28", "!not UTF-8"},
      {"mailto:a@x.org?subject=%C0%AF", "!not UTF-8"},
      {"mailto:a@x.org?subject=a%0D%0ABcc:%20evil@x.org", "!control character in the subject"},
      {"mailto:a@x.org%0Abcc", "!control character in an address"},
      {"mailto:a@x.org?subject", "!without \"=\""},
      {"http://example.org/", "!does not start with mailto:"},
      {"mailto:" + big, "!longer than"},
      {many, "!more than 100 addresses"},
      {headers, "!too many header fields"},
  };
  for (const Case& c : cases) {
    ComposeRequest r;
    std::string why;
    const bool ok = MailtoParse(c.url, &r, &why);
    if (c.want[0] == '!') {
      EXPECT_FALSE(ok) << c.url.substr(0, 80);
      EXPECT_NE(why.find(c.want.substr(1)), std::string::npos) << why;
    } else {
      EXPECT_TRUE(ok) << c.url << ": " << why;
      EXPECT_EQ(Show(r), c.want) << c.url;
    }
  }
}

// The command line and the request text that carries it: nothing lost on the way, attachments only there.
TEST(Mailto, CommandLineTravelsWhole) {
  ComposeRequest r;
  std::vector<std::string> rest;
  bool found = false;
  std::string why;
  ASSERT_TRUE(ComposeParseArgs({"-b", "--compose", "--to", "a@x.org,b@y.org", "--subject=R&D = 100%", "--attach",
                                "rel/f.pdf", "--cc", "\u00e9@x.org", "-s"},
                               "/home/u", &r, &rest, &found, &why))
      << why;
  EXPECT_TRUE(found);
  EXPECT_EQ(rest, (std::vector<std::string>{"-b", "-s"}));
  r.body = "line 1\n\tline 2 & more";
  ComposeRequest back;
  ASSERT_TRUE(ComposeRequestDecode(ComposeRequestEncode(r), &back, &why)) << why;
  EXPECT_EQ(Show(back), Show(r));
  EXPECT_EQ(back.attach, (std::vector<std::string>{"/home/u/rel/f.pdf"}));
  struct Bad {
    std::vector<std::string> args;
    std::string text, want;
  } bad[] = {
      {{"--to", "a@x"}, "", "--to is an option of --compose"},
      {{"--compose", "--subject"}, "", "--subject needs a value"},
      {{"--compose", "--body-file", "/nonexistent/b.txt"}, "", "cannot read the body file"},
      {{}, "attach=rel.txt", "not an absolute path"},
      {{}, "subject=a b", "not printable ASCII"},
      {{}, "from=x%40y", "unknown field from"},
      {{}, "body=a%00", "control character in the body"},
  };
  for (const Bad& b : bad) {
    ComposeRequest out;
    const bool ok = b.text.empty() ? ComposeParseArgs(b.args, "/", &out, &rest, &found, &why)
                                   : ComposeRequestDecode(b.text, &out, &why);
    EXPECT_FALSE(ok) << b.want;
    EXPECT_NE(why.find(b.want), std::string::npos) << why;
  }
}

}  // namespace
