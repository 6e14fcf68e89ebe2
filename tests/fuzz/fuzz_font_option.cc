// Feeds arbitrary stored texts to the reader of the font options: face,
// size and style, one a line. Whatever is read stays within the bounds the
// windows can draw with.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "src/options/font_options.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  std::string face, font_size, style;
  std::getline(in, face);
  std::getline(in, font_size);
  std::getline(in, style);
  for (int kind = 0; kind < kFontKindCount; kind += 5) {
    FontChoice font = Font_Default(kind);
    Font_Parse(face.c_str(), font_size.c_str(), style.c_str(), &font);
    Check(!font.family.empty() && font.family.size() <= kFontFamilyLimit);
    Check(font.size >= kFontSizeMin && font.size <= kFontSizeMax);
    Check(font.style <= 7);
  }
  return 0;
}
