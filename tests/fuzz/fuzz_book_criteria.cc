// Book search criteria, arbitrary bytes. An accepted text has at most 25
// pairs, no empty attribute, and every pair's text came from inside the
// criteria; a refused one leaves no pairs behind that a search could use.
#include <cstdint>
#include <string>
#include <vector>

#include "src/books/address_model.h"
#include "src/options/options.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 8192) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string name;
  std::vector<AbPair> pairs;
  const int rc = AM_ParseCriteria(text.c_str(), &name, &pairs);
  Check(rc == kSearchOk || rc == kSearchFailed);
  if (rc == kSearchOk) {
    Check(pairs.size() <= static_cast<size_t>(kMaxSearchPairs));
    for (const AbPair& p : pairs) {
      Check(!p.attribute.empty() && text.find(p.attribute) != std::string::npos);
      Check(text.find(p.value) != std::string::npos);
      // The matcher's answer on its own pattern is defined and never hangs.
      string_match(p.value.c_str(), p.value.c_str());
    }
    Check(name == "*" || text.find(name) != std::string::npos);
  }
  return 0;
}
