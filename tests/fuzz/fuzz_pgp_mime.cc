// Takes arbitrary bytes apart as an OpenPGP/MIME message. Besides not
// crashing, every part must lie inside the input, in order, and the limits
// must hold.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/security/pgp_mime.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  PgpMimeEntity e;
  std::string error;
  if (!pgp_mime_split(text, &e, &error)) {
    Check(!error.empty());
    return 0;
  }
  Check(e.body_offset <= text.size());
  Check(e.parts.size() <= kPgpMimeMaxParts);
  const char* last = text.data() + e.body_offset;
  for (std::string_view part : e.parts) {
    Check(part.data() >= last && part.data() + part.size() <= text.data() + text.size());
    last = part.data() + part.size();
    std::string body;
    if (!pgp_mime_part_body(part, &body, &error)) Check(!error.empty());
  }
  std::string canonical = pgp_mime_canonical(text);
  Check(canonical.size() >= text.size());
  return 0;
}
