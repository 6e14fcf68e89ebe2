// The content codecs: published vectors, the forms the encoders write, what the decoders make of bad input, and the
// streaming decoders' blocks and reports. Round trips of arbitrary bytes, line lengths and the agreement of the
// streaming decoders with the in-memory ones are the fuzz target's checks, replayed over its corpus.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"
#include "c-client/rfc822/rfc822_write.h"

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

}  // namespace
