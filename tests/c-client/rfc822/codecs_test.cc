// The content codecs: published vectors, the forms the encoders write, what the decoders make of bad input, and the
// streaming decoders' blocks and reports. Round trips of arbitrary bytes, line lengths and the agreement of the
// streaming decoders with the in-memory ones are the fuzz target's checks, replayed over its corpus. Header
// text and parameters for display follow.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"
#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822_write.h"
#include "tests/c-client/core/records_dump.h"

namespace {

using Codec = unsigned char* (*)(const unsigned char*, unsigned long, unsigned long*);

// The codec's result as a string; "<null>" when it refuses the input.
std::string Apply(Codec codec, const std::string& in) {
  unsigned long length = 0;
  unsigned char* out = codec(reinterpret_cast<const unsigned char*>(in.data()), in.size(), &length);
  if (!out) return "<null>";
  std::string s(reinterpret_cast<char*>(out), length);
  EXPECT_EQ(out[length], '\0') << "results are zero-terminated";
  FS_GIVE(&out);
  return s;
}

std::string Binary(const std::string& in) {
  unsigned long length = 0;
  unsigned char* out = rfc822_binary(in.data(), in.size(), &length);
  std::string s(reinterpret_cast<char*>(out), length);
  FS_GIVE(&out);
  return s;
}

struct Sink { std::string data; std::vector<unsigned long> blocks; bool fail = false; };

long Collect(void* sink, const char* data, unsigned long size) {
  Sink* s = static_cast<Sink*>(sink);
  s->data.append(data, size);
  s->blocks.push_back(size);
  return s->fail ? 0 : 1;
}

// Streams the text through a decoder (base64 or quoted-printable); the state is left in *st for a look at the error
// count.
Sink Stream(bool base64, const std::string& in, DecodeState* st_out = nullptr, bool failing_sink = false) {
  static DecodeState st;
  Sink sink;
  sink.fail = failing_sink;
  (base64 ? Base64DecodeInit : QPDecodeInit)(&st, Collect, &sink);
  for (char c : in) (base64 ? Base64DecodeChar : QPDecodeChar)(&st, c);
  (base64 ? Base64DecodeEnd : QPDecodeEnd)(&st);
  if (st_out) *st_out = st;
  return sink;
}

// The published vectors both ways; then what the decoder makes of other input: foreign characters skipped,
// misplaced padding refused.
TEST(Base64, VectorsAndDecoderTable) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\0\xff\xfe", 3), "AP/+"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Binary(plain), encoded + "\r\n") << plain;
    EXPECT_EQ(Apply(rfc822_base64, encoded), plain) << encoded;
  }
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Zm9v\r\nYmFy", "foobar"}, {"Zm 9v-Ym*Fy", "foobar"},
      {"Zg==Zm8=", "ffo"},                 // data may go on after padding
      {"Zg=\r\n=", "f"}, {"Zg=", "f"},      // the second "=" on the next line, or missing at the end
      {"Zm9vYg", "foob"}, {"Zm9vYmE", "fooba"}, {"Zm9vY", "foo"},  // unpadded; a sixth of a byte gives nothing
      {"=Zm9v", "<null>"}, {"Z=m9v", "<null>"}, {"Zg=A", "<null>"},  // "=" in position 0 or 1, or followed by data
      {"Zm8==", "<null>"},                 // a third "=" starts a quantum with "="
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_base64, in), out) << in;
}

TEST(QuotedPrintable, EncoderTable) {
  const std::string x74(74, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain text", "plain text"}, {"a=b", "a=3Db"}, {"caf\xe9", "caf=E9"}, {"tab\there", "tab=09here"},
      {"del\x7f", "del=7F"}, {"one\r\ntwo\r\n", "one\r\ntwo\r\n"},
      {"end \r\nnext", "end=20\r\nnext"}, {"last ", "last=20"},  // a blank before a line end or at the end
      {"bare\nlf", "bare=0Alf"}, {"a \rb", "a=20=0Db"},            // only a CRLF is a line end
      {std::string(80, 'x'), std::string(75, 'x') + "=\r\n" + std::string(5, 'x')},
      {x74 + "=", x74 + "=\r\n=3D"},  // a quoted byte never splits
      {std::string(75, 'x') + "\r\ny", std::string(75, 'x') + "\r\ny"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_8bit, in), out) << in;
}

TEST(QuotedPrintable, DecoderTable) {
  const std::string blanks201(201, ' ');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Now's the time =\r\nfor all folk to come=\r\n to the aid of their country.",
       "Now's the time for all folk to come to the aid of their country."},
      {"a=3Db=3db", "a=b=b"}, {"trailing  \t\r\nnext", "trailing\r\nnext"}, {"trailing  \nnext", "trailing\nnext"},
      {"blank at end  ", "blank at end"}, {"inner  blanks", "inner  blanks"}, {"soft=\nbreak", "softbreak"},
      {"soft=\rbreak", "softbreak"}, {"=E9t=E9", "\xe9t\xe9"}, {"a" + std::string(200, ' ') + "\r\nb", "a\r\nb"},
      {"a" + blanks201 + "\r\nb", "a" + blanks201 + "\r\nb"},  // no encoder pads that much
      {"bad=G1", "<null>"}, {"bad=4", "<null>"}, {"bad=", "<null>"}, {"bad= \r\n", "<null>"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_qprint, in), out) << in;
}

TEST(DecodeStream, BlocksFaultsAndNothingLost) {
  const std::string plain(100000, 'q');
  const Sink sink = Stream(true, Binary(plain));
  EXPECT_EQ(sink.data, plain);
  ASSERT_GT(sink.blocks.size(), 12u);
  EXPECT_EQ(sink.blocks[0], kDecodeBufferSize);

  const struct { bool base64; std::string in, out, message; bool failing_sink = false; } cases[] = {
      {true, "Zg=A", "f", "Base64 encoded message data is corrupt.  Invalid character after '=' in encoded data."},
      {true, "=Zm9v", "foo", "Base64 encoded message data is corrupt.  Bad quantum position for '=' in encoded data."},
      {false, "a=G1b", "a=G1b", "Invalid quote sequence in quoted printable text"},
      {false, "a=", "a=", "Invalid quote sequence in quoted printable text"},
      {false, "=4x", "=4x", "Invalid hex sequence in quoted printable text"},
      {false, "a=4", "a=4", "Invalid hex sequence in quoted printable text"},
      {false, "a=\rb", "ab", "Incomplete NL sequence in quoted printable text"},
      {false, "a=\r", "a", "Incomplete NL sequence in quoted printable text"},
      {false, "abc", "abc", "", true},  // a sink that fails is counted
  };
  for (const auto& c : cases) {
    mail_env_clear();
    DecodeState st;
    EXPECT_EQ(Stream(c.base64, c.in, &st, c.failing_sink).data, c.out) << c.in;
    EXPECT_EQ(EnvLogs(1), c.message.empty() ? "" : c.message + "\n") << c.in;
    EXPECT_EQ(st.errors, 1) << c.in;
  }
  // Bogus base64 characters are traced, and the reports are capped.
  mail_env_clear();
  EXPECT_EQ(Stream(true, "Zm9v!Zg==").data, "foof");
  EXPECT_EQ(EnvLines("dlog"), std::vector<std::string>{"Base64DecodeChar: bogus character in encoded data stream: !\n"});
  mail_env_clear();
  DecodeState st;
  EXPECT_EQ(Stream(true, std::string(1000, '!') + "Zm9v", &st).data, "foo");
  EXPECT_EQ(st.errors, 1000);
  EXPECT_LE(EnvLines("dlog").size(), 20u) << "a corrupt part must not flood the log";
}

// Header text and parameters for display: encoded words, raw 8-bit text, split and charset-tagged parameters, and
// safe file names. (That every result is valid UTF-8 without controls, and a file name at most 200 bytes, the fuzz
// target checks.)
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
