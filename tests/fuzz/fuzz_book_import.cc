// A book import file, arbitrary bytes, through the sizing, reading and
// parsing of its entries. Every entry sized fits in what is left of the
// file, the text read holds no bad character, a parsed entry has a name a
// book can take and each member once, and the walk always ends.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "src/books/book_import.h"
#include "tests/fuzz/fuzz_util.h"
#include "xvt/xvt_test.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 200000) return 0;
  std::string bytes(reinterpret_cast<const char*>(data), size);
  FILE* stream = fmemopen(bytes.data(), bytes.size(), "rb");
  Check(stream != nullptr);
  for (int entries = 0;; ++entries) {
    Check(entries <= static_cast<int>(size));  // each entry takes at least one byte
    const long at = ftell(stream);
    long length = 0, bad = 0;
    if (!ScanEntry(stream, &length, &bad)) {
      Check(ftell(stream) == at);
      break;
    }
    Check(ftell(stream) == at);
    if (length == 0) break;
    Check(length <= static_cast<long>(size) - at && bad <= length);
    if (length > kImportMaxEntry) {
      fseek(stream, length, SEEK_CUR);
      continue;
    }
    std::string text;
    Check(ReadEntry(stream, length, &text) == kImportOk);
    Check(static_cast<long>(text.size()) == length - bad);
    ImportedEntry entry;
    if (ParseEntry(text, &entry) == kImportOk) {
      Check(!entry.name.empty() && entry.name.size() < 200 && !entry.attributes.empty());
      for (size_t i = 0; i < entry.members.size(); ++i)
        Check(std::count(entry.members.begin(), entry.members.end(), entry.members[i]) == 1);
    }
  }
  fclose(stream);
  xvt_test_clear_posts();
  return 0;
}
