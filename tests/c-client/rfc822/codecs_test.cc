// The content codecs: published vectors, round trips of random bytes, and
// agreement of the streaming decoders with the in-memory ones.
#include <gtest/gtest.h>

#include <random>
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

struct Sink {
  std::string data;
  std::vector<unsigned long> blocks;
  bool fail = false;
};

long Collect(void* sink, const char* data, unsigned long size) {
  Sink* s = static_cast<Sink*>(sink);
  s->data.append(data, size);
  s->blocks.push_back(size);
  return s->fail ? 0 : 1;
}

enum class Kind { kBase64, kQP };

Sink Stream(Kind kind, const std::string& in, DecodeState* st_out = nullptr, bool failing_sink = false) {
  static DecodeState st;
  Sink sink;
  sink.fail = failing_sink;
  if (kind == Kind::kBase64) {
    Base64DecodeInit(&st, Collect, &sink);
    for (char c : in) Base64DecodeChar(&st, c);
    Base64DecodeEnd(&st);
  } else {
    QPDecodeInit(&st, Collect, &sink);
    for (char c : in) QPDecodeChar(&st, c);
    QPDecodeEnd(&st);
  }
  if (st_out) *st_out = st;
  return sink;
}

// Random bytes, with the characters that codecs treat specially made common.
std::string RandomBytes(std::mt19937& rng, size_t size) {
  static const char kSpecial[] = "\r\n \t=.";
  std::string s(size, '\0');
  for (char& c : s) {
    const unsigned r = rng();
    c = (r & 3) == 0 ? kSpecial[(r >> 2) % 6] : static_cast<char>(r >> 8);
  }
  return s;
}

// The published vectors both ways; then what the decoder makes of other
// input: foreign characters skipped, misplaced padding refused.
TEST(Base64, VectorsAndDecoderTable) {
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},         {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
      {std::string("\0\xff\xfe", 3), "AP/+"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Binary(plain), encoded + "\r\n") << plain;
    EXPECT_EQ(Apply(rfc822_base64, encoded), plain) << encoded;
    EXPECT_EQ(Stream(Kind::kBase64, encoded).data, plain) << encoded;
  }

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Zm9v\r\nYmFy", "foobar"},
      {"Zm 9v-Ym*Fy", "foobar"},
      {"Zg==Zm8=", "ffo"},     // data may go on after padding
      {"Zg=\r\n=", "f"},        // the second "=" on the next line
      {"Zg=", "f"},            // the second "=" missing at the end
      {"Zm9vYg", "foob"},      // unpadded partial quantum
      {"Zm9vY", "foo"},        // a sixth of a byte gives nothing
      {"=Zm9v", "<null>"},     // "=" in position 0
      {"Z=m9v", "<null>"},     // "=" in position 1
      {"Zg=A", "<null>"},      // "=" in position 2 followed by data
      {"Zm8==", "<null>"},     // a third "=" starts a quantum with "="
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_base64, in), out) << in;
}

TEST(Base64, LinesOfSixtyCharactersEndingInOneCrlf) {
  for (size_t size : {44, 45, 46, 90, 91, 1000}) {
    const std::string encoded = Binary(std::string(size, 'x'));
    EXPECT_EQ(encoded.find("\r\n\r\n"), std::string::npos) << "no empty line, size " << size;
    size_t start = 0, lines = 0;
    for (size_t end; (end = encoded.find("\r\n", start)) != std::string::npos; start = end + 2, ++lines) {
      if (end + 2 < encoded.size())
        EXPECT_EQ(end - start, 60u) << "only the last line is short";
      else
        EXPECT_LE(end - start, 60u);
    }
    EXPECT_EQ(start, encoded.size()) << "ends in a CRLF";
    EXPECT_EQ(lines, ((size + 2) / 3 * 4 + 59) / 60);
  }
}

TEST(QuotedPrintable, EncoderTable) {
  const std::string x74(74, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain text", "plain text"},
      {"a=b", "a=3Db"},
      {"caf\xe9", "caf=E9"},
      {"tab\there", "tab=09here"},
      {"del\x7f", "del=7F"},
      {"end \r\nnext", "end=20\r\nnext"},  // a blank before a line end
      {"last ", "last=20"},              // and at the very end
      {"bare\nlf", "bare=0Alf"},         // only a CRLF is a line end
      {"bare\rcr", "bare=0Dcr"},
      {"a \rb", "a=20=0Db"},
      {"one\r\ntwo\r\n", "one\r\ntwo\r\n"},
      {std::string(80, 'x'), std::string(75, 'x') + "=\r\n" + std::string(5, 'x')},
      {x74 + "=", x74 + "=\r\n=3D"},      // a quoted byte never splits
      {std::string(75, 'x') + "\r\ny", std::string(75, 'x') + "\r\ny"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(Apply(rfc822_8bit, in), out) << in;
}

TEST(QuotedPrintable, DecoderTable) {
  const std::string blanks201(201, ' ');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Now's the time =\r\nfor all folk to come=\r\n to the aid of their country.",
       "Now's the time for all folk to come to the aid of their country."},
      {"a=3Db=3db", "a=b=b"},
      {"trailing  \t\r\nnext", "trailing\r\nnext"},
      {"trailing  \nnext", "trailing\nnext"},
      {"blank at end  ", "blank at end"},
      {"inner  blanks", "inner  blanks"},
      {"soft=\nbreak", "softbreak"},
      {"soft=\rbreak", "softbreak"},
      {"=E9t=E9", "\xe9t\xe9"},
      {"a" + blanks201 + "\r\nb", "a" + blanks201 + "\r\nb"},  // no encoder pads that much
      {"a" + std::string(200, ' ') + "\r\nb", "a\r\nb"},
      {"bad=G1", "<null>"},
      {"bad=4", "<null>"},
      {"bad=", "<null>"},
      {"bad= \r\n", "<null>"},
  };
  for (const auto& [in, out] : cases) {
    EXPECT_EQ(Apply(rfc822_qprint, in), out) << in;
    if (out != "<null>") {
      EXPECT_EQ(Stream(Kind::kQP, in).data, out) << in;
    }
  }
}

TEST(Codecs, RandomBytesRoundTripAndStreamingAgrees) {
  std::mt19937 rng(20240601);
  for (int round = 0; round < 400; ++round) {
    const std::string plain = RandomBytes(rng, rng() % (round < 300 ? 300 : 20000));
    const std::string b64 = Binary(plain);
    EXPECT_EQ(Apply(rfc822_base64, b64), plain);
    EXPECT_EQ(Stream(Kind::kBase64, b64).data, plain);

    const std::string qp = Apply(rfc822_8bit, plain);
    EXPECT_EQ(Apply(rfc822_qprint, qp), plain);
    EXPECT_EQ(Stream(Kind::kQP, qp).data, plain);
    size_t start = 0;
    for (size_t end; (end = qp.find("\r\n", start)) != std::string::npos; start = end + 2) {
      ASSERT_LE(end - start, 76u) << "encoded lines are at most 76 characters";
    }
    ASSERT_LE(qp.size() - start, 76u);
    for (unsigned char c : qp) ASSERT_TRUE(c == '\r' || c == '\n' || (c >= 0x20 && c < 0x7f));
  }
}

TEST(Codecs, StreamingAgreesWhereverTheMemoryDecoderAccepts) {
  // Garbage inputs, mostly of the characters the decoders care about.
  std::mt19937 rng(7);
  static const char kAlphabet[] = "AZaz09+/= \t\r\n=3D=0G!";
  for (int round = 0; round < 3000; ++round) {
    std::string in(rng() % 40, '\0');
    for (char& c : in) c = kAlphabet[rng() % (sizeof kAlphabet - 1)];
    for (Kind kind : {Kind::kBase64, Kind::kQP}) {
      const std::string memory = Apply(kind == Kind::kBase64 ? rfc822_base64 : rfc822_qprint, in);
      if (memory != "<null>") {
        EXPECT_EQ(Stream(kind, in).data, memory) << in;
      }
    }
  }
}

TEST(DecodeStream, WritesBlocksOfAtMost8093Bytes) {
  const std::string plain(100000, 'q');
  const Sink sink = Stream(Kind::kBase64, Binary(plain));
  EXPECT_EQ(sink.data, plain);
  ASSERT_GT(sink.blocks.size(), 12u);
  for (unsigned long b : sink.blocks) EXPECT_LE(b, kDecodeBufferSize);
  EXPECT_EQ(sink.blocks[0], kDecodeBufferSize);
}

TEST(DecodeStream, FaultsAreReportedAndNothingIsLost) {
  struct Case {
    Kind kind;
    std::string in, out, message;
    bool failing_sink = false;
  };
  const std::vector<Case> cases = {
      {Kind::kBase64, "Zg=A", "f",
       "Base64 encoded message data is corrupt.  Invalid character after '=' in encoded data."},
      {Kind::kBase64, "=Zm9v", "foo",
       "Base64 encoded message data is corrupt.  Bad quantum position for '=' in encoded data."},
      {Kind::kQP, "a=G1b", "a=G1b", "Invalid quote sequence in quoted printable text"},
      {Kind::kQP, "a=", "a=", "Invalid quote sequence in quoted printable text"},
      {Kind::kQP, "=4x", "=4x", "Invalid hex sequence in quoted printable text"},
      {Kind::kQP, "a=4", "a=4", "Invalid hex sequence in quoted printable text"},
      {Kind::kQP, "a=\rb", "ab", "Incomplete NL sequence in quoted printable text"},
      {Kind::kQP, "abc", "abc", "", true},  // a sink that fails is counted
  };
  for (const Case& c : cases) {
    mail_env_clear();
    DecodeState st;
    EXPECT_EQ(Stream(c.kind, c.in, &st, c.failing_sink).data, c.out) << c.in;
    EXPECT_EQ(EnvLogs(1), c.message.empty() ? "" : c.message + "\n") << c.in;
    EXPECT_EQ(st.errors, 1) << c.in;
  }

  // Bogus base64 characters are traced, and the reports are capped.
  mail_env_clear();
  EXPECT_EQ(Stream(Kind::kBase64, "Zm9v!Zg==").data, "foof");
  EXPECT_EQ(EnvLines("dlog"),
            std::vector<std::string>{"Base64DecodeChar: bogus character in encoded data stream: !\n"});
  mail_env_clear();
  DecodeState st;
  EXPECT_EQ(Stream(Kind::kBase64, std::string(1000, '!') + "Zm9v", &st).data, "foo");
  EXPECT_EQ(st.errors, 1000);
  EXPECT_LE(EnvLines("dlog").size(), 20u) << "a corrupt part must not flood the log";
}

}  // namespace
