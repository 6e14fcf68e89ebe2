// The directory filter from arbitrary bytes: the part before the first
// newline is the template, the rest the typed text. The typed text alone
// can never add filter syntax, every escape is a backslash and two hex
// digits, and an accepted filter stays within its limit.
#include <cctype>
#include <cstdint>
#include <string>

#include "src/books/directory.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;
  const std::string in(reinterpret_cast<const char*>(data), size);
  const size_t nl = in.find('\n');
  const std::string templ = nl == std::string::npos ? "(cn=%s*)" : in.substr(0, nl);
  const std::string typed = nl == std::string::npos ? in : in.substr(nl + 1);

  const std::string escaped = DIR_EscapeValue(typed);
  Check(escaped.size() <= 3 * typed.size());
  for (size_t i = 0; i < escaped.size(); ++i) {
    const char c = escaped[i];
    Check(c != '*' && c != '(' && c != ')' && c != '\0');
    if (c == '\\') {
      Check(i + 2 < escaped.size());
      Check(isxdigit(static_cast<unsigned char>(escaped[i + 1])) && isxdigit(static_cast<unsigned char>(escaped[i + 2])));
      i += 2;
    }
  }
  std::string filter, error;
  if (DIR_MakeFilter(templ, typed, &filter, &error)) {
    Check(filter.size() <= kDirMaxFilter);
  } else {
    Check(filter.empty() && !error.empty());
  }
  return 0;
}
