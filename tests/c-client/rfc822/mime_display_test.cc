// Header text and parameters for display: encoded words, raw 8-bit text, split and charset-tagged parameters, and
// safe file names. (That every result is valid UTF-8 without controls, and a file name at most 200 bytes, the fuzz
// target checks.)
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/rfc822/mime_display.h"
#include "tests/c-client/core/address_util.h"

namespace {

TEST(DisplayText, EncodedWordsRawBytesAndControls) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      // The standard's own examples.
      {"=?ISO-8859-1?Q?Andr=E9?= Pirard", "Andr\u00e9 Pirard"},
      {"=?US-ASCII?Q?Keith_Moore?= <moore@cs.utk.edu>", "Keith Moore <moore@cs.utk.edu>"},
      {"=?ISO-8859-1?B?SWYgeW91IGNhbiByZWFkIHRoaXMgeW8=?=\r\n    =?ISO-8859-2?B?dSB1bmRlcnN0YW5kIHRoZSBleGFtcGxlLg==?=",
       "If you can read this you understand the example."},
      {"(=?ISO-8859-1?Q?a?=)", "(a)"}, {"(=?ISO-8859-1?Q?a?= b)", "(a b)"},
      {"(=?ISO-8859-1?Q?a?=  \t =?ISO-8859-1?Q?b?=)", "(ab)"}, {"(=?ISO-8859-1?Q?a?=\r\n    =?ISO-8859-1?Q?b?=)", "(ab)"},
      {"(=?ISO-8859-1?Q?a_b?=)", "(a b)"}, {"(=?ISO-8859-1?Q?a?= =?ISO-8859-2?Q?_b?=)", "(a b)"},
      {"=?US-ASCII*EN?Q?Keith_Moore?=", "Keith Moore"},
      // Lower case, and a multi-byte character split across two words.
      {"=?utf-8?b?w6k=?= =?utf-8?q?t=C3=A9?=", "\u00e9t\u00e9"}, {"=?UTF-8?Q?=C3?= =?UTF-8?Q?=A9?=", "\u00e9"},
      // Charsets through iconv.
      {"=?KOI8-R?B?8NLJ18XU?=", "\u041f\u0440\u0438\u0432\u0435\u0442"},
      {"=?ISO-2022-JP?B?GyRCRnxLXDhsGyhC?=", "\u65e5\u672c\u8a9e"},
      {"=?ISO-8859-15?Q?Gr=FC=DFe_=A4?=", "Gr\u00fc\u00dfe \u20ac"},
      // Unknown charsets and mislabelled Latin-1: UTF-8 when the bytes are, else Windows-1252.
      {"=?x-nothing?Q?caf=E9?=", "caf\u00e9"}, {"=?x-nothing?Q?caf=C3=A9?=", "caf\u00e9"},
      {"=?bad/name?Q?caf=E9?=", "caf\u00e9"}, {"=?UTF-8?Q?=E9t=E9?=", "\u00e9t\u00e9"},
      // Malformed words stay as they are.
      {"=?UTF-8?X?abc?=", "=?UTF-8?X?abc?="}, {"=?UTF-8?Q?abc", "=?UTF-8?Q?abc"},
      {"=?UTF-8?B?a#c?=", "=?UTF-8?B?a#c?="}, {"=?UTF-8?Q?a=Zb?=", "=?UTF-8?Q?a=Zb?="},
      {"=?UTF-8?Q?a b?=", "=?UTF-8?Q?a b?="}, {"=??Q?a?=", "=??Q?a?="}, {"a = b ?= c", "a = b ?= c"},
      // Whitespace between a word and text is kept.
      {"Re: =?UTF-8?Q?x?= y", "Re: x y"},
      // Raw 8-bit text.
      {"caf\xC3\xA9", "caf\u00e9"}, {"caf\xE9", "caf\u00e9"},
      {"\x80 \x93quoted\x94", "\u20ac \u201cquoted\u201d"}, {"\x81", "\ufffd"}, {"\xF0\x9F\x98\x80", "\U0001F600"},
      {"=?SHIFT_JIS?B?gSCC?=", "\ufffd \ufffd"},  // a bad pair, and a character cut off
      // Folds undone, controls and decoded line breaks made blanks.
      {"a\r\n b", "a b"}, {"a\r\nb", "a b"}, {"=?UTF-8?Q?a=0D=0Ab?=", "a b"}, {"=?UTF-8?Q?a=00b?=", "a b"},
      {"tab\there\x1b[31m", "tab here [31m"}, {"", ""},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(mime_display_text(in.c_str()), out) << in;
  EXPECT_EQ(mime_display_text(nullptr), "");
}

TEST(DisplayText, WorkPerHeaderIsBounded) {
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "=?UTF-8?Q?x?= ";
  const std::string out = mime_display_text(many.c_str());
  EXPECT_EQ(out.substr(0, 256), std::string(256, 'x'));
  EXPECT_NE(out.find("=?UTF-8?Q?x?="), std::string::npos) << "words beyond the limit stay as text";

  // A long header of near-words costs time in proportion to its size, and stays as it was.
  std::string near(200000, '?');
  for (size_t i = 0; i < near.size(); i += 3) near[i] = '=';
  EXPECT_EQ(mime_display_text(near.c_str()), near);
}

struct Params {
  BodyParameter* head = nullptr;
  explicit Params(const std::vector<std::pair<std::string, std::string>>& list) {
    for (auto p = list.rbegin(); p != list.rend(); ++p)
      head = Parameter(p->first.c_str(), p->second.c_str(), head);
  }
  ~Params() { mail_free_body_parameter(&head); }
};

TEST(Parameter, ExtendedContinuedAndPlainValues) {
  using List = std::vector<std::pair<std::string, std::string>>;
  const std::vector<std::pair<List, std::string>> cases = {
      {{{"NAME*", "utf-8''%E2%82%AC%20rates.pdf"}}, "\u20ac rates.pdf"}, {{{"NAME*", "''plain%2Etxt"}}, "plain.txt"},
      {{{"NAME*", "iso-8859-1'en'caf%E9"}}, "caf\u00e9"}, {{{"NAME*", "no quotes at all"}}, "no quotes at all"},
      {{{"NAME*", "utf-8''100%"}}, "100%"}, {{{"NAME*", "utf-8''%zz"}}, "%zz"}, {{{"name", "lower case"}}, "lower case"},
      {{{"NAME*1", "bar"}, {"NAME*0", "foo"}, {"NAME*2", ".txt"}}, "foobar.txt"},
      {{{"NAME*0", "foo"}, {"NAME*2", "baz"}}, "foo"},  // a gap ends the value
      {{{"NAME*1", "bar"}}, ""},                        // no first segment
      {{{"NAME*0*", "utf-8''%C3"}, {"NAME*1*", "%A9t%C3%A9"}, {"NAME*2", "%.txt"}}, "\u00e9t\u00e9%.txt"},
      {{{"NAME*0", "a"}, {"NAME*01", "x"}, {"NAME*1", "b"}}, "ab"},
      {{{"NAME*0", "a"}, {"NAME*0", "x"}, {"NAME*1", "b"}}, "ab"},  // the first of a number wins
      {{{"NAME", "fallback"}, {"NAME*", "utf-8''preferred"}}, "preferred"},
      {{{"NAME", "plain"}, {"NAME*0", "split"}}, "split"},
      {{{"NAME", "=?UTF-8?Q?r=C3=A9sum=C3=A9.doc?="}}, "r\u00e9sum\u00e9.doc"},
      {{{"NAMEX", "other"}, {"FILENAME", "other"}, {"NAME*X", "other"}}, ""},
      {{{"NAME*", "utf-8''a%0D%0ABcc: x"}}, "a Bcc: x"},
      {{}, ""},
  };
  for (const auto& [list, value] : cases) {
    Params p(list);
    EXPECT_EQ(mime_parameter(p.head, "NAME"), value) << (list.empty() ? "" : list[0].second);
  }
  Params many({{"NAME*0", std::string(60000, 'a')}, {"NAME*1", std::string(60000, 'b')}});
  EXPECT_LE(mime_parameter(many.head, "NAME").size(), 65536u);
}

std::string FileNameOf(const std::string& name) {
  BodyPart* b = mail_newbody();
  b->parameter = Parameter("NAME", name.c_str());
  std::string out = mime_file_name(b);
  mail_free_body(&b);
  return out;
}

TEST(FileName, MadeSafe) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"report.pdf", "report.pdf"}, {"../../etc/passwd", "passwd"}, {"C:\\Users\\me\\report.doc", "report.doc"},
      {".bashrc", "bashrc"}, {"...", "attachment"}, {"dir/", "attachment"}, {"  spaced  ", "spaced"},
      {"", "attachment"},
      {"=?UTF-8?Q?=C3=A9t=C3=A9.txt?=", "\u00e9t\u00e9.txt"}, {"a\xC2\x85" "b", "a_b"},  // a C1 control character
  };
  for (const auto& [name, safe] : cases) EXPECT_EQ(FileNameOf(name), safe) << name;
  BodyPart* b = mail_newbody();
  EXPECT_EQ(mime_file_name(b), "attachment");
  mail_free_body(&b);
  EXPECT_EQ(mime_file_name(nullptr), "attachment");

  std::string accented;
  for (int i = 0; i < 150; ++i) accented += "\u00e9";
  const std::string cut = FileNameOf(accented + ".pdf");
  EXPECT_GE(cut.size(), 190u);
  EXPECT_EQ(cut.substr(cut.size() - 4), ".pdf") << "the extension survives the cut";
}

}  // namespace
