// Stored rule text, arbitrary bytes, through every reader of it: the phrase
// splitter, the address reader, both key-to-display conversions, the edit
// reader and the search program parser. A phrase read for editing builds a key that reads back
// to the same display; a parsed program runs over a message without
// reading past anything.
#include <cstdint>
#include <string>

#include "src/model/local_search.h"
#include "src/search/search_rules.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

bool NoHeaders(void*, std::string* out) {
  *out = "From: A <a@b.c>\r\nSubject: x\r\nDate: 1 Jan 2024 00:00 +0000\r\n\r\n";
  return true;
}
// The body goes through the block scan a byte at a time, with the
// program's own needles.
bool Body(void*, const std::vector<std::string>& needles, std::vector<char>* found) {
  SearchTextScan scan(needles, found);
  static const char kBody[] = "body \xc3\xa9t\xc3\xa9 \xff";
  for (size_t i = 0; i + 1 < sizeof kBody; ++i) scan.Feed(kBody + i, 1);
  scan.EndSegment();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kSearchMaxRule) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::vector<std::string> phrases = SRCH_SplitRule(text);
  Check(SRCH_JoinRule(phrases) == text || text.empty());
  for (const SRCH_RuleAddress& r : SRCH_ParseRule(text)) Check(r.address.find('@') != std::string::npos);
  for (const std::string& phrase : phrases) {
    std::string display, attribute, criterion, key;
    SRCH_Value value;
    SRCH_IMAPConvPhrase(phrase.c_str(), &display);
    SRCH_IMSPConvPhrase(phrase.c_str(), &display);
    if (SRCH_IMAPEditPhrase(phrase.c_str(), &attribute, &criterion, &value)) {
      if (value.kind == kSrchValSizeRange) value.kind = kSrchValSize;
      std::string shown;
      if (SRCH_AddPhrase(kSearchMessages, attribute.c_str(), criterion.empty() ? nullptr : criterion.c_str(), value,
                         &shown, &key)) {
        std::string again;
        Check(SRCH_IMAPEditPhrase(key.c_str(), &attribute, &criterion, &value) == 1);
      }
    }
  }
  SearchProgram program;
  std::string error;
  if (MM_SearchParseProgram(text.c_str(), &program, &error)) {
    Check(program.nodes.size() <= kSearchMaxNodes && !program.nodes.empty());
    SearchMessage m;
    m.fetch_headers = NoHeaders;
    m.scan_body = Body;
    MM_SearchMatches(program, &m);
  } else {
    Check(!error.empty());
  }
  return 0;
}
