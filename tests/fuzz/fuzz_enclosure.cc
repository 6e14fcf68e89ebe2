// The enclosure coders on arbitrary bytes: decoding never gives more than
// the limit nor runs away, a failure says why and gives nothing, and the
// input itself encoded with either coder decodes back to every byte.
#include <cstdint>
#include <string>

#include "c-client/rfc822/enclosure.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  UuDecoded uu;
  if (uu_decode(input, &uu) == UuStatus::kOk) Check(uu.data.size() <= input.size());
  BinhexFile file;
  std::string why;
  if (binhex_decode(input, &file, &why)) {
    // A run repeats a byte at most 255 times.
    Check(file.data.size() + file.rsrc.size() <= 255 * input.size());
    Check(!file.name.empty() && file.name.size() <= 63);
  } else {
    Check(file.data.empty() && file.rsrc.empty() && !why.empty());
  }
  Check(uu_decode(uu_encode(input, 0644, "f"), &uu) == UuStatus::kOk && uu.data == input);
  BinhexFile made = fakehead("f", input);
  made.rsrc = input.substr(0, size / 2);
  Check(binhex_decode(binhex_encode(made), &file, &why) && file.data == input && file.rsrc == made.rsrc);
  return 0;
}
