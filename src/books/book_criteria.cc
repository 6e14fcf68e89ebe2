// The search criteria of the book windows and of compose:
//   "attribute" "value"|"attribute" "value"...
// each in double quotes, one blank between attribute and value. The text
// comes from the user and from saved options, so it is read with limits.
#include <strings.h>

#include <cstring>

#include "src/base/trace.h"
#include "src/books/address_model.h"

namespace {

constexpr size_t kMaxCriteria = 4096;

int Corrupt() {
  Trace(kTraceBooks, kTraceMedium, "AM_Search: potentially corrupt search criteria.\n");
  return kSearchFailed;
}

// A quoted word at *p: its text, and *p moved behind the closing quote.
bool Quoted(const char** p, std::string* out) {
  if (**p != '"') return false;
  const char* end = std::strchr(*p + 1, '"');
  if (!end) return false;
  out->assign(*p + 1, end);
  *p = end + 1;
  return true;
}

}  // namespace

int AM_ParseCriteria(const char* criteria, std::string* name_pattern, std::vector<AbPair>* pairs) {
  *name_pattern = "*";
  pairs->clear();
  if (!criteria || !*criteria) {
    Trace(kTraceBooks, kTraceMedium, "AM_Search: empty search criteria.\n");
    return kSearchFailed;
  }
  if (std::strlen(criteria) > kMaxCriteria) return Corrupt();
  const char* p = criteria;
  for (;;) {
    std::string attribute, value;
    if (!Quoted(&p, &attribute) || attribute.empty() || attribute.size() >= 200) return Corrupt();
    if (*p++ != ' ') return Corrupt();
    if (!Quoted(&p, &value)) return Corrupt();
    if (strcasecmp(attribute.c_str(), "Name") == 0) {
      *name_pattern = value;
    } else {
      if (pairs->size() >= static_cast<size_t>(kMaxSearchPairs)) return Corrupt();
      pairs->push_back({std::move(attribute), std::move(value)});
    }
    if (!*p) return kSearchOk;
    if (*p++ != '|') return Corrupt();
  }
}
