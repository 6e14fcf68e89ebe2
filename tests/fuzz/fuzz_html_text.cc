// The viewer's renderers on arbitrary bytes: HTML to plain text, the
// uudecoder, the BinHex decoder and the attachment name cleaner. Whatever
// comes in, the text is valid UTF-8 with no control characters but LF and
// TAB and of bounded size, and a name is safe to create in a directory.
#include <cstddef>
#include <cstdint>
#include <string>

#include "c-client/rfc822/mime_display.h"
#include "src/viewer/attach.h"
#include "src/viewer/text_render.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void CheckText(const std::string& s, bool lines) {
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = s[i];
    const size_t len = c < 0x80 ? 1 : c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    Check(len && i + len <= s.size());
    Check(c >= 0x20 || (lines && (c == '\n' || c == '\t')));
    Check(c != 0x7F);
    for (size_t k = 1; k < len; ++k) Check((static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80);
    i += len;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  // The renderer takes what the charset step gives it.
  const std::string utf8 = mime_display_body(input, "utf-8");
  CheckText(utf8, true);
  const std::string text = HtmlToText(utf8);
  CheckText(text, true);
  // No entity or markup expands the text beyond a small factor: the most is
  // a rule's 40 dashes and line end for the four bytes of <hr>.
  Check(text.size() <= 11 * utf8.size() + 128);

  std::string decoded, name;
  if (AttachUudecode(input, &decoded, &name)) Check(decoded.size() <= input.size());
  // A BinHex run may repeat a byte up to 255 times, never more.
  std::string why;
  if (AttachBinhexDecode(input, &decoded, &name, &why)) {
    Check(decoded.size() <= 255 * input.size());
    CheckText(name, false);
  } else {
    Check(decoded.empty() && !why.empty());
  }

  const std::string safe = AttachSafeName(input);
  CheckText(safe, false);
  Check(safe.size() <= 200);
  Check(safe.find('/') == std::string::npos && safe.find('\\') == std::string::npos);
  Check(safe.empty() || (safe[0] != '.' && safe[0] != '-' && safe[0] != ' '));
  Check(Utf8Cut(utf8, size / 2).size() <= size / 2);
  return 0;
}
