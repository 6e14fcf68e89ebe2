// Local evaluation: the parser's limits, case folding, rules run over a
// local folder through the model, and bodies searched as they decode.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/model/local_search.h"
#include "src/search/search_rules.h"
#include "src/search/search_run.h"
#include "tests/model/model_fixture.h"
#include "tests/search/base64_lines.h"

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
  std::string many;
  for (size_t i = 0; i <= kSearchMaxNodes; ++i) many += "SEEN ";
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
      {many, "The search has too many keys"},
  };
  for (const auto& [text, error] : cases) {
    SearchProgram program;
    std::string why;
    EXPECT_EQ(MM_SearchParseProgram(text.c_str(), &program, &why), *error ? 0 : 1) << text.substr(0, 60);
    EXPECT_EQ(why, error) << text.substr(0, 60);
  }
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

// --- Decoded bodies ---------------------------------------------------------

// BODY and TEXT over local folders look into text parts decoded: base64
// and quoted-printable undone, charsets converted, parts that aren't text
// left out, and text of any length read in blocks without losing a match
// at a block's join.

std::string Message(const std::string& subject, const std::string& type_and_body) {
  return "From: a@example.org\r\nSubject: " + subject + "\r\nDate: Mon, 3 Jun 2024 12:00:00 +0000\r\n" +
         "MIME-Version: 1.0\r\n" + type_and_body;
}

std::string Multipart(const std::string& parts) {
  return "Content-Type: multipart/mixed; boundary=\"b1\"\r\n\r\nThis is the preamble zebra.\r\n" + parts +
         "--b1--\r\nepilogue yak\r\n";
}

const std::string kBig = std::string(200000, 'x') + " needle " + std::string(1000, 'y');

const std::vector<std::string> kRaws = {
    // 1: base64 with "budget" cut by the encoded line break (4 characters a line)
    Message("b64", "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                       Base64("the budget is été", 4)),
    // 2: quoted-printable with a soft line break inside "budget", and é encoded
    Message("qp", "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
                  "the bud=\r\nget is =C3=89T=C3=89\r\n"),
    // 3: Latin-1 in quoted-printable, and a PDF attachment that holds the word
    Message("mixed", Multipart("--b1\r\nContent-Type: text/plain; charset=iso-8859-1\r\n"
                               "Content-Transfer-Encoding: quoted-printable\r\n\r\nr=E9sum=E9 attached\r\n"
                               "--b1\r\nContent-Type: application/pdf; name=\"a.pdf\"\r\n"
                               "Content-Transfer-Encoding: base64\r\n\r\n" +
                               Base64("secret budget", 76) +
                               "--b1\r\nContent-Type: application/octet-stream\r\n\r\nplainsecret\r\n")),
    // 4: a big base64 part: the word far past any block and the in-memory cap
    Message("big", "Content-Type: text/plain\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64(kBig, 76)),
    // 5: an enclosed message with a base64 text part
    Message("fwd", Multipart("--b1\r\nContent-Type: text/plain\r\n\r\nsee below\r\n"
                             "--b1\r\nContent-Type: message/rfc822\r\n\r\nSubject: inner\r\n"
                             "Content-Type: text/plain; charset=koi8-r\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
                             Base64("\xf0\xd2\xc9\xd7\xc5\xd4", 76) + "\r\n")),
    // 6: plain, not encoded: the raw text is the text
    Message("plain", "Content-Type: text/plain\r\n\r\nthe budget, plainly\r\n"),
};

TEST_F(LocalSearch, FindsWhatTheTextSaysNotHowItIsEncoded) {
  MakeFolder("Box", kRaws);
  const std::pair<const char*, const char*> cases[] = {
      {"BODY \"budget\"", "1 2 6"},  // split by base64 and QP line breaks; not in the PDF (3)
      {"BODY \"ÉTÉ\"", "1 2"},       // decoded UTF-8, folded
      {"BODY \"RÉSUMÉ\"", "3"},      // Latin-1 converted
      {"BODY \"привет\"", "5"},      // KOI8-R, inside an enclosed message
      {"BODY \"needle\"", "4"},      // 200 KB into a base64 part
      {"BODY \"secret\"", ""},       // attachments aren't text
      {"BODY \"plainsecret\"", ""},
      {"BODY \"zebra\"", ""},        // nor is a multipart's preamble
      {"BODY \"yak\"", ""},
      {"BODY \"dGhl\"", ""},         // base64 letters aren't text either
      {"BODY \"bud=\"", ""},
      {"TEXT \"budget\"", "1 2 6"},
      {"TEXT \"FWD\"", "5"},  // the header
      {"BODY \"needle\" BODY \"budget\"", ""},
      {"OR BODY \"needle\" BODY \"résumé\"", "3 4"},
      {"NOT BODY \"budget\"", "3 4 5"},
  };
  const int id = MM_FolOpen(local_, "Box");
  ASSERT_NE(id, INVALID_FOLDER);
  for (const auto& [text, expected] : cases) EXPECT_EQ(LocalSearchNumbers(id, text), expected) << text;
  // Nothing was marked seen, nothing spooled.
  EXPECT_EQ(MM_FolGetNumReadMsgs(id), 0);
  EXPECT_EQ(TempFiles(), 0u);
  MM_FolClose(id, 0);
}

// Text fed in blocks of every size finds what the whole text holds, with
// multi-byte characters (and their folding) cut at every place.
TEST(SearchTextScan, BlocksOfAnySizeFindWhatTheWholeTextHolds) {
  const std::string text = "Ab ÉTÉ KΣ \xff\xfe x\xc3 done ЖЖЖ 𝔸end";
  const std::vector<std::string> needles = {"été", "kσ", "жжж", "\xff\xfe x\xc3 d", "𝔸end", "ab é",
                                            "tée", "zzz", ""};
  const std::vector<char> want = {1, 1, 1, 1, 1, 1, 0, 0, 1};
  for (size_t block = 1; block <= text.size(); ++block) {
    std::vector<char> found;
    SearchTextScan scan(needles, &found);
    for (size_t i = 0; i < text.size(); i += block) scan.Feed(text.data() + i, std::min(block, text.size() - i));
    scan.EndSegment();
    EXPECT_EQ(found, want) << "blocks of " << block;
  }
  // A segment ends a match: "ab" then "c" in the next part is no "abc".
  std::vector<char> found;
  const std::vector<std::string> abc = {"abc"};
  SearchTextScan scan(abc, &found);
  scan.Feed("ab", 2);
  scan.EndSegment();
  scan.Feed("c", 1);
  scan.EndSegment();
  EXPECT_EQ(found, std::vector<char>{0});
}

}  // namespace
