// The enclosure coders: round trips over every byte value and many
// lengths, the exact texts of the failures, and the limits.
#include "c-client/rfc822/enclosure.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>

namespace {

std::string AllBytes(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>((i * 7 + i / 256) & 0xFF));
  return s;
}

// From 256 bytes on, AllBytes holds every byte value.
TEST(Uuencode, RoundTripsEveryByteAndLength) {
  for (size_t n = 0; n <= 260; ++n) {
    const std::string data = AllBytes(n);
    const unsigned mode = n % 2 ? 0644 : 0600;
    const std::string text = uu_encode(data, mode, "file.bin");
    UuDecoded back;
    ASSERT_EQ(uu_decode("preamble\n" + text, &back), UuStatus::kOk) << n;
    EXPECT_EQ(back.data, data) << n;
    EXPECT_EQ(back.name, "file.bin");
    EXPECT_EQ(back.mode, mode);
  }
  // The known form of a short file.
  EXPECT_EQ(uu_encode("Cat", 0644, "cat.txt"), "begin 644 cat.txt\n#0V%T\n`\nend\n");
  UuDecoded back;
  const std::tuple<std::string, UuStatus> broken[] = {
      {"no block\n", UuStatus::kNoBegin},
      {"begin 644 x\n#0V%T\n", UuStatus::kNoEnd},
      {"begin 644 x\nM0V\nend\n", UuStatus::kBadLine},
  };
  for (const auto& [text, status] : broken) EXPECT_EQ(uu_decode(text, &back), status) << text;
}

TEST(Binhex, RoundTripsLiteralMarksAndLongRuns) {
  const std::string shapes[] = {
      "",
      std::string("\x90", 1),
      std::string("a\x90\x90\x90\x90 b", 7),
      std::string(300, 'A') + std::string(2, '\x90') + std::string(600, '\x90') + "end",
      AllBytes(1000),
  };
  for (const std::string& data : shapes) {
    BinhexFile file = fakehead("report.txt", data);
    file.rsrc = "resource " + data.substr(0, 10);
    const std::string text = binhex_encode(file);
    EXPECT_EQ(text.rfind("(This file must be converted with BinHex 4.0)\n:", 0), 0u);
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      EXPECT_LE(end - at, 64u);
    BinhexFile back;
    std::string why;
    ASSERT_TRUE(binhex_decode("Some words.\r\n" + text, &back, &why)) << why;
    EXPECT_EQ(std::make_tuple(back.name, back.type, back.creator, back.data, back.rsrc),
              std::make_tuple(file.name, std::string("????"), std::string("????"), data, file.rsrc));
  }
  // A run is at most 255 long: 600 bytes of one value need three runs.
  const std::string text = binhex_encode(fakehead("r", std::string(600, 'z')));
  EXPECT_LT(text.size(), 120u);  // written out it would take over 800
}

TEST(Binhex, FailuresSayWhy) {
  const std::string good = binhex_encode(fakehead("name.txt", "Hello, world\n" + std::string(40, 'x')));
  auto changed = [&](size_t at, char c) {
    std::string t = good;
    t[at] = c;
    return t;
  };
  const size_t body = good.find(':') + 1;
  const std::string last_data = good.substr(0, good.size() - 12) + (good[good.size() - 12] == 'A' ? "B" : "A") +
                                good.substr(good.size() - 11);
  const std::tuple<std::string, std::string> rows[] = {
      {changed(body + 2, good[body + 2] == '!' ? '"' : '!'), "CRC error in encoded Binhex file!"},
      {last_data, "CRC error in encoded Binhex file!"},
      {changed(body + 5, 'o'), "bad char: 'o' in get6bits of binhex.c"},
      {good.substr(0, good.size() - 2), "Unexpected end of file in encoded binhex file!"},
      {good.substr(0, body + 30), "Unexpected end of file in encoded binhex file!"},
      {good.substr(0, body + 30) + ":", "Unexpected end of file in the encoded binhex file!"},
      {"(This file must be converted with BinHex 3.0)\n#abc", "Old unsupported binhex format, decoding terminated!"},
      {"nothing here\n", "No BinHex block was found."},
  };
  for (const auto& [text, why] : rows) {
    BinhexFile back;
    std::string got;
    EXPECT_FALSE(binhex_decode(text, &back, &got)) << text;
    EXPECT_EQ(got, why) << text;
    EXPECT_TRUE(back.data.empty());
  }
  EXPECT_EQ(make_buffer_crc("123456789"), 0x31C3);  // the check value of this CRC
  // The file's CRC over a file larger than one read.
  const std::string big = AllBytes(20000);
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  std::fwrite(big.data(), 1, big.size(), f);
  std::rewind(f);
  uint16_t crc = 0;
  EXPECT_TRUE(make_file_crc(fileno(f), &crc));
  EXPECT_EQ(crc, make_buffer_crc(big));
  std::fclose(f);
}

}  // namespace
