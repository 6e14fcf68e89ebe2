// BODY and TEXT over local folders look into text parts decoded: base64
// and quoted-printable undone, charsets converted, parts that aren't text
// left out, and text of any length read in blocks without losing a match
// at a block's join.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/model/local_search.h"
#include "tests/model/model_fixture.h"
#include "tests/search/base64_lines.h"

namespace {

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

class DecodedBody : public ModelTest {};

TEST_F(DecodedBody, FindsWhatTheTextSaysNotHowItIsEncoded) {
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
