// The quick search's rule from arbitrary choices and text, and id lists of
// saved searches from arbitrary option text. Input: one byte of choices,
// then the text. A rule built from printable text must parse as a search
// program; an id list holds positive ids, each once, within its limit.
#include <algorithm>
#include <cstdint>
#include <set>
#include <string>

#include "src/model/local_search.h"
#include "src/search/saved_search.h"
#include "src/search/search_rules.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 64 * 1024) return 0;
  const uint8_t choice = data[0];
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

  const std::vector<int> ids = searchParseIdList(text);
  Check(ids.size() <= 4096);
  Check(std::set<int>(ids.begin(), ids.end()).size() == ids.size());
  Check(std::all_of(ids.begin(), ids.end(), [](int id) { return id > 0; }));

  QuickSearchInput in;
  in.messages = choice % 3;
  in.arrival = (choice / 3) % 3;
  in.from = choice & 0x10;
  in.subject = choice & 0x20;
  in.body = choice & 0x40;
  in.header_or_body = choice & 0x80;
  in.text = text;
  std::string rule;
  // A fixed day keeps runs repeatable: 1 March 2024, noon UTC.
  Check(SRCH_QuickSearchRule(in, 1709294400, &rule) == 1);
  Check(!rule.empty() && rule.back() == ' ');
  const bool printable = std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
  if (printable) {
    SearchProgram program;
    std::string error;
    Check(MM_SearchParseProgram(rule.c_str(), &program, &error) == 1);
  }
  return 0;
}
