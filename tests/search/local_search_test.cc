// Local evaluation: the parser's limits, case folding, and rules run over
// a local folder through the model.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/model/local_search.h"
#include "src/search/search_rules.h"
#include "src/search/search_run.h"
#include "tests/model/model_fixture.h"

namespace {

TEST(SearchFold, SimpleCaseFolding) {
  const std::pair<const char*, const char*> cases[] = {
      {"ÉTÉ", "été"}, {"ΣΊΣΥΦΟΣ", "σίσυφοσ"}, {"ς", "σ"}, {"ПРИВЕТ", "привет"}, {"ẞ", "ß"},
      {"K", "k"},  // KELVIN SIGN
      {"ſ", "s"},  {"İ", "İ"},  {"ﬀ", "ﬀ"}, {"ＡＢ", "ａｂ"}, {"\xff\xfe" "A", "\xff\xfe" "a"},
      {"\xc3", "\xc3"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(MM_SearchFoldCase(in), out) << in;
}

TEST(SearchProgram, ParsesOrRefusesWithAReason) {
  const std::pair<std::string, const char*> cases[] = {
      {"FROM \"a\" NOT SEEN OR LARGER 5 (SMALLER 9 DRAFT)", ""},
      {"CHARSET UTF-8 SUBJECT \"été\"", ""},
      {"SUBJECT {3}\r\nabc SEEN", ""},
      {"SUBJECT {4}\r\nabc", "A search literal is cut short"},
      {"CHARSET KOI8-R SEEN", "Unknown search charset: KOI8-R"},
      {"FROB 1", "Unknown search key: FROB"},
      {"SUBJECT \"open", "A quoted search text has no end"},
      {"LARGER big", "A search size is not a number"},
      {"ON 45-Foo-1", "A search date is not a date: 45-Foo-1"},
      {"(SEEN", "A parenthesis of the search is not closed"},
      {"OR SEEN", "A search key is missing"},
      {"", "The search is empty"},
      {std::string(40, '(') + "SEEN" + std::string(40, ')'), "A search is nested too deeply"},
      {std::string(kSearchMaxProgram + 1, ' '), "The search is too long"},
  };
  for (const auto& [text, error] : cases) {
    SearchProgram program;
    std::string why;
    EXPECT_EQ(MM_SearchParseProgram(text.c_str(), &program, &why), *error ? 0 : 1) << text.substr(0, 60);
    EXPECT_EQ(why, error) << text.substr(0, 60);
  }
  std::string many;
  for (size_t i = 0; i <= kSearchMaxNodes; ++i) many += "SEEN ";
  SearchProgram program;
  std::string why;
  EXPECT_EQ(MM_SearchParseProgram(many.c_str(), &program, &why), 0);
  EXPECT_EQ(why, "The search has too many keys");
}

class LocalSearch : public ModelTest {};

TEST_F(LocalSearch, RulesOverALocalFolder) {
  const std::vector<std::string> raws = {
      "From: Ann Lee <ann@example.org>\r\nTo: bob@example.org\r\nSubject: Été à Paris\r\n"
      "Date: Mon, 3 Jun 2024 12:00:00 +0000\r\nX-Mailer: say \"hi\"\r\n\r\nthe budget for 50% * off\r\n",
      "From: bob@example.org\r\nTo: ann@example.org\r\nSubject: =?UTF-8?Q?=C3=89T=C3=89?= report\r\n"
      "Date: Tue, 4 Jun 2024 12:00:00 +0000\r\nComments: C:\\dir\\\r\n\r\nnothing here\r\n",
      "From: carol@example.org\r\nSubject: plain\r\nDate: Wed, 5 Jun 2024 12:00:00 +0000\r\n\r\n" +
          std::string(3000, 'x') + " BUDGET\r\n",
  };
  MakeFolder("Box", raws);
  const std::pair<const char*, const char*> cases[] = {
      {"SUBJECT \"été\"", "1 2"},   // folding, and encoded words decoded
      {"FROM \"ANN LEE\"", "1"},
      {"NOT FROM \"ann\"", "2 3"},
      {"BODY \"budget\"", "1 3"},
      {"BODY \"50% * off\"", "1"},  // no wildcards in IMAP texts
      {"HEADER \"X-Mailer\" \"say \\\"hi\\\"\"", "1"},
      {"HEADER Comments \"C:\\\\dir\\\\\"", "2"},
      {"TEXT \"carol\"", "3"},
      {"SENTON 4-Jun-2024", "2"},
      {"SENTBEFORE 4-Jun-2024", "1"},
      {"SENTSINCE 4-Jun-2024", "2 3"},
      {"LARGER 1000", "3"},
      {"OR SUBJECT \"plain\" TO \"bob\"", "1 3"},
      {"UNSEEN UNKEYWORD x", "1 2 3"},
      {"KEYWORD x", ""},
  };
  const int id = MM_FolOpen(local_, "Box");
  ASSERT_NE(id, INVALID_FOLDER);
  for (const auto& [text, expected] : cases) EXPECT_EQ(LocalSearchNumbers(id, text), expected) << text;
  EXPECT_EQ(TempFiles(), 0u);  // body files are removed after reading
  MM_FolClose(id, 0);

  // The dialog's run: rules by name, the union, the lines shown.
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Ann", "FROM \"ann\"", "Message"));
  ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", "Plain", "SUBJECT \"plain\"|LARGER 10", "Message"));
  SrchRun run;
  EXPECT_EQ(SRCH_RunRules({"Ann", "Plain", "Ann"}, {{local_, "Box"}}, &run), 1);
  const std::vector<std::string> lines = SRCH_ResultLines(run);
  EXPECT_EQ(lines, (std::vector<std::string>{"Box\tAnn Lee <ann@example.org>\tÉté à Paris",
                                             "Box\tcarol@example.org\tplain"}));
  SRCH_RunClose(&run);
  EXPECT_EQ(MM_FolFindOpen(local_, "Box"), INVALID_FOLDER);
  SrchRun none;
  EXPECT_EQ(SRCH_RunRules({"Missing"}, {{local_, "Box"}, {local_, "Nowhere"}}, &none), 0);
  EXPECT_EQ(none.notice, "Search contains no messages.");
  EXPECT_EQ(none.problems.size(), 2u);
  SRCH_RunClose(&none);
}

TEST(SearchWire, CharsetOnlyForEightBitText) {
  EXPECT_EQ(SRCH_ProgramForServer("SUBJECT \"x\""), "SUBJECT \"x\"");
  EXPECT_EQ(SRCH_ProgramForServer("SUBJECT \"é\""), "CHARSET UTF-8 SUBJECT \"é\"");
}

}  // namespace
