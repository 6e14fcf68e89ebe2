#include "xvt/common/bmp.h"

#include <cstdio>
#include <cstring>

namespace xvtbmp {
namespace {

uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t U32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}
int32_t I32(const uint8_t* p) { return static_cast<int32_t>(U32(p)); }

bool Fail(std::string* error, const char* why) {
  if (error) *error = why;
  return false;
}

// Extracts the channel selected by mask and scales it to 8 bits.
uint32_t Channel(uint32_t value, uint32_t mask) {
  if (mask == 0) return 0;
  int shift = 0;
  while (!(mask & 1u)) {
    mask >>= 1;
    ++shift;
  }
  int bits = 0;
  while (mask & 1u) {
    mask >>= 1;
    ++bits;
  }
  uint32_t v = (value >> shift) & ((bits >= 32) ? 0xFFFFFFFFu : ((1u << bits) - 1));
  if (bits >= 8) return v >> (bits - 8);
  // Spread a narrow channel over the 8-bit range.
  uint32_t max = (1u << bits) - 1;
  return max ? (v * 255u + max / 2) / max : 0;
}

}  // namespace

bool Decode(const uint8_t* data, size_t size, Image* out, std::string* error) {
  if (size < 26) return Fail(error, "file too short for a bitmap header");
  if (data[0] != 'B' || data[1] != 'M') return Fail(error, "not a BMP file");
  if (size > kMaxFileSize) return Fail(error, "bitmap file too large");
  uint32_t pixel_offset = U32(data + 10);
  uint32_t dib_size = U32(data + 14);
  if (dib_size < 12 || 14 + static_cast<size_t>(dib_size) > size) return Fail(error, "bad bitmap header size");
  const uint8_t* dib = data + 14;

  int64_t width, height;
  unsigned bpp, compression = 0;
  uint32_t colors_used = 0;
  size_t palette_entry = 4;
  uint32_t masks[4] = {0, 0, 0, 0};
  if (dib_size == 12) {
    width = U16(dib + 4);
    height = U16(dib + 6);
    bpp = U16(dib + 10);
    palette_entry = 3;
  } else {
    if (dib_size < 40) return Fail(error, "bad bitmap header size");
    width = I32(dib + 4);
    height = I32(dib + 8);
    bpp = U16(dib + 14);
    compression = U32(dib + 16);
    colors_used = U32(dib + 32);
  }
  bool top_down = height < 0;
  if (top_down) height = -height;
  if (width <= 0 || height <= 0) return Fail(error, "bitmap has no pixels");
  if (width > kMaxDimension || height > kMaxDimension) return Fail(error, "bitmap dimensions too large");

  size_t after_dib = 14 + static_cast<size_t>(dib_size);
  if (compression == 3 || compression == 6) {  // BI_BITFIELDS, BI_ALPHABITFIELDS
    if (bpp != 16 && bpp != 32) return Fail(error, "bit fields need 16 or 32 bits per pixel");
    int count = compression == 6 ? 4 : 3;
    if (dib_size >= 52) {
      for (int i = 0; i < 3; ++i) masks[i] = U32(dib + 40 + 4 * i);
      if (dib_size >= 56) masks[3] = U32(dib + 52);
    } else {
      if (after_dib + 4u * count > size) return Fail(error, "bitmap masks cut off");
      for (int i = 0; i < count; ++i) masks[i] = U32(data + after_dib + 4 * i);
      after_dib += 4u * count;
    }
  } else if (compression != 0) {
    return Fail(error, "compressed bitmaps are not supported");
  } else if (bpp == 16) {
    masks[0] = 0x7C00;
    masks[1] = 0x03E0;
    masks[2] = 0x001F;
  } else if (bpp == 32) {
    masks[0] = 0x00FF0000;
    masks[1] = 0x0000FF00;
    masks[2] = 0x000000FF;
  }
  if (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32)
    return Fail(error, "unsupported bits per pixel");

  std::vector<uint32_t> palette;
  if (bpp <= 8) {
    uint32_t max_colors = 1u << bpp;
    uint32_t n = colors_used ? colors_used : max_colors;
    if (n > max_colors) return Fail(error, "bitmap palette too large");
    if (after_dib + n * palette_entry > size) return Fail(error, "bitmap palette cut off");
    palette.resize(max_colors, 0xFF000000u);
    for (uint32_t i = 0; i < n; ++i) {
      const uint8_t* e = data + after_dib + i * palette_entry;
      palette[i] = 0xFF000000u | (static_cast<uint32_t>(e[2]) << 16) | (static_cast<uint32_t>(e[1]) << 8) | e[0];
    }
  }

  uint64_t stride = ((static_cast<uint64_t>(width) * bpp + 31) / 32) * 4;
  if (pixel_offset > size || stride * static_cast<uint64_t>(height) > size - pixel_offset)
    return Fail(error, "bitmap pixel data cut off");

  Image img;
  img.width = static_cast<int>(width);
  img.height = static_cast<int>(height);
  img.pixels.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
  bool has_alpha = masks[3] != 0;
  for (int64_t row = 0; row < height; ++row) {
    const uint8_t* src = data + pixel_offset + stride * static_cast<uint64_t>(row);
    int64_t y = top_down ? row : height - 1 - row;
    uint32_t* dst = img.pixels.data() + y * width;
    for (int64_t x = 0; x < width; ++x) {
      uint32_t argb;
      switch (bpp) {
        case 1: argb = palette[(src[x >> 3] >> (7 - (x & 7))) & 1]; break;
        case 4: argb = palette[(src[x >> 1] >> ((x & 1) ? 0 : 4)) & 15]; break;
        case 8: argb = palette[src[x]]; break;
        case 24: {
          const uint8_t* p = src + 3 * x;
          argb = 0xFF000000u | (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | p[0];
          break;
        }
        default: {
          uint32_t v = bpp == 16 ? U16(src + 2 * x) : U32(src + 4 * x);
          uint32_t a = has_alpha ? Channel(v, masks[3]) : 255u;
          argb = (a << 24) | (Channel(v, masks[0]) << 16) | (Channel(v, masks[1]) << 8) | Channel(v, masks[2]);
        }
      }
      dst[x] = argb;
    }
  }
  *out = std::move(img);
  return true;
}

bool DecodeFile(const char* path, Image* out, std::string* error) {
  if (!path) return Fail(error, "no file name");
  FILE* f = std::fopen(path, "rb");
  if (!f) return Fail(error, "cannot open the file");
  std::vector<uint8_t> buf;
  uint8_t chunk[65536];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
    if (buf.size() + n > kMaxFileSize) {
      std::fclose(f);
      return Fail(error, "bitmap file too large");
    }
    buf.insert(buf.end(), chunk, chunk + n);
  }
  bool read_error = std::ferror(f) != 0;
  std::fclose(f);
  if (read_error) return Fail(error, "read error");
  return Decode(buf.data(), buf.size(), out, error);
}

}  // namespace xvtbmp
