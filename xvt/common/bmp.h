// BMP decoding for xvt_image_read_bmp: uncompressed 1/4/8/24/32-bit images
// (BI_RGB, and BI_BITFIELDS for 16/32 bits). Hostile files are refused, not
// trusted: sizes are checked against the data and against fixed limits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace xvtbmp {

constexpr int kMaxDimension = 16384;
constexpr size_t kMaxFileSize = 256u * 1024u * 1024u;

struct Image {
  int width = 0;
  int height = 0;
  std::vector<uint32_t> pixels;  // 0xAARRGGBB, top row first
};

// Decodes a whole file held in memory. On failure returns false and says why.
bool Decode(const uint8_t* data, size_t size, Image* out, std::string* error);
bool DecodeFile(const char* path, Image* out, std::string* error);

}  // namespace xvtbmp
