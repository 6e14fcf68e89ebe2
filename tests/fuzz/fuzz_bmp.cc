#include <cstdint>
#include <string>

#include "xvt/common/bmp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  xvtbmp::Image image;
  std::string error;
  if (xvtbmp::Decode(data, size, &image, &error)) {
    // A decoded image must have exactly the pixels its size promises.
    if (image.pixels.size() != static_cast<size_t>(image.width) * static_cast<size_t>(image.height)) __builtin_trap();
  }
  return 0;
}
