// Feeds arbitrary message text and page sizes to the page layout.
// Input: a byte of lines and a byte of columns, then the text. Besides not
// crashing: every page is full height, no line is wider than the page, and
// the text's non-blank characters all come out, once and in order.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/viewer/print_layout.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

// What is printed of a text: characters other than blanks, line ends and
// tabs, a control (a CR not before LF included) shown as '?'.
std::string Ink(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == ' ' || c == '\t' || c == '\n' || (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) continue;
    out += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const PrintPageSize page{data[0] % 80, data[1] % 160};
  PrintMessage m;
  m.folder = "INBOX";
  m.text.assign(reinterpret_cast<const char*>(data + 2), size - 2);
  std::vector<PrintPage> pages;
  std::string error;
  if (!PRINT_LayoutMessage(m, "Printed", page, &pages, &error)) {
    Check(pages.empty() && !error.empty());
    return 0;
  }
  std::string body;
  for (const PrintPage& p : pages) {
    Check(p.size() == static_cast<size_t>(page.lines));
    for (size_t i = 2; i + 2 < p.size(); ++i) {
      // Columns, not characters: a combining mark takes none, a wide character two.
      Check(PRINT_Columns(p[i]) <= static_cast<size_t>(page.columns));
      body += p[i];
    }
  }
  Check(Ink(body) == Ink(m.text));
  return 0;
}
