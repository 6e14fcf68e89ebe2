#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "xvt/common/bmp.h"

namespace {

void Put16(std::vector<uint8_t>& v, size_t at, uint32_t x) {
  v[at] = x & 0xFF;
  v[at + 1] = (x >> 8) & 0xFF;
}
void Put32(std::vector<uint8_t>& v, size_t at, uint32_t x) {
  for (int i = 0; i < 4; ++i) v[at + i] = (x >> (8 * i)) & 0xFF;
}

// A BMP of width x height with bpp bits per pixel, all pixels zero.
std::vector<uint8_t> MakeBmp(int width, int height, int bpp, int palette_colors = 0) {
  size_t stride = ((static_cast<size_t>(width) * bpp + 31) / 32) * 4;
  size_t offset = 54 + 4 * static_cast<size_t>(palette_colors);
  std::vector<uint8_t> v(offset + stride * static_cast<size_t>(height < 0 ? -height : height), 0);
  v[0] = 'B';
  v[1] = 'M';
  Put32(v, 2, static_cast<uint32_t>(v.size()));
  Put32(v, 10, static_cast<uint32_t>(offset));
  Put32(v, 14, 40);
  Put32(v, 18, static_cast<uint32_t>(width));
  Put32(v, 22, static_cast<uint32_t>(height));
  Put16(v, 26, 1);
  Put16(v, 28, static_cast<uint32_t>(bpp));
  Put32(v, 46, static_cast<uint32_t>(palette_colors));
  return v;
}

TEST(Bmp, PixelsLandWhereTheHeaderSays) {
  // 3 pixels of 24 bits: 9 bytes a row, padded to 12; the bottom row comes first in the file: blue at the bottom,
  // red on top.
  auto bottom_up = MakeBmp(3, 2, 24);
  for (int x = 0; x < 3; ++x) bottom_up[54 + 3 * x] = bottom_up[54 + 12 + 3 * x + 2] = 0xFF;
  auto paletted = MakeBmp(9, -1, 1, 2);  // top-down, 1 bit, black and green
  Put32(paletted, 58, 0x0000FF00);
  paletted[62] = paletted[63] = 0x80;  // the first and the ninth pixel are green
  struct Case {
    std::vector<uint8_t> data;
    int width, height;
    std::vector<std::pair<size_t, uint32_t>> pixels;
  } cases[] = {
      {bottom_up, 3, 2, {{0, 0xFFFF0000u}, {5, 0xFF0000FFu}}},
      {paletted, 9, 1, {{0, 0xFF00FF00u}, {1, 0xFF000000u}, {8, 0xFF00FF00u}}},
  };
  for (const Case& c : cases) {
    xvtbmp::Image img;
    std::string err;
    ASSERT_TRUE(xvtbmp::Decode(c.data.data(), c.data.size(), &img, &err)) << err;
    EXPECT_EQ(img.width, c.width);
    EXPECT_EQ(img.height, c.height);
    for (auto [at, argb] : c.pixels) EXPECT_EQ(img.pixels[at], argb) << c.width << " wide, pixel " << at;
  }
}

TEST(Bmp, HostileHeadersAreRefused) {
  // The refusal expected when a header field is spoilt (at -1: none), or bytes are cut from the end.
  struct Case { const char* why; int width, height, bpp, palette, at; uint32_t value; size_t cut; };
  const Case cases[] = {
      {"bitmap dimensions too large", 1, 1, 24, 0, 18, 100000, 0},
      {"bitmap pixel data cut off", 2, 2, 24, 0, 10, 0xFFFFFFF0u, 0},
      {"unsupported bits per pixel", 2, 2, 7, 0, -1, 0, 0},
      {"compressed bitmaps are not supported", 2, 2, 8, 2, 30, 1, 0},
      {"bitmap palette too large", 2, 2, 8, 300, -1, 0, 0},
      {"bitmap has no pixels", 0, 5, 24, 0, -1, 0, 0},
      {"bitmap pixel data cut off", 100, 100, 24, 0, -1, 0, 1},
      {"not a BMP file", 2, 2, 24, 0, 0, 0x78787878, 0},
      {"file too short for a bitmap header", 2, 2, 24, 0, -1, 0, 70},
  };
  for (const Case& c : cases) {
    auto data = MakeBmp(c.width, c.height, c.bpp, c.palette);
    if (c.at >= 0) Put32(data, static_cast<size_t>(c.at), c.value);
    data.resize(data.size() - c.cut);
    xvtbmp::Image img;
    std::string err;
    EXPECT_FALSE(xvtbmp::Decode(data.data(), data.size(), &img, &err)) << c.why;
    EXPECT_EQ(err, c.why);
  }
}

TEST(Bmp, ShippedImagesDecode) {
  for (const char* name : {"banner.bmp", "icons/9251.bmp", "icons/9357.bmp"}) {
    xvtbmp::Image img;
    std::string err;
    EXPECT_TRUE(xvtbmp::DecodeFile((std::string(VELMAR_SOURCE_DATA_DIR) + "/" + name).c_str(), &img, &err))
        << name << ": " << err;
  }
}

}  // namespace
