// Feeds arbitrary bytes to the reader of the user's word list and to the
// word splitter. A list that is accepted must hold only words the list may
// hold and come back the same after being written out; every word the
// splitter finds must lie inside its line and not cross a line end.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "src/spell/spell_words.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words;
  std::string error;
  if (SpellParseWords(text, &words, &error)) {
    Check(words.size() <= kSpellListMaxWords);
    std::string why;
    for (const std::string& w : words) Check(SpellIsListWord(w, &why));
    std::vector<std::string> again;
    Check(SpellParseWords(SpellFormatWords(words), &again, &error));
    Check(again == words);
  } else {
    Check(!error.empty() && words.empty());
  }
  for (bool caps : {false, true}) {
    for (const SpellWord& w : SpellSplit(text, SpellSplitOptions{true, caps})) {
      size_t start = 0;
      for (long l = 0; l < w.line; ++l) {
        start = text.find('\n', start);
        Check(start != std::string_view::npos);
        ++start;
      }
      const std::string_view line = text.substr(start, text.find('\n', start) - start);
      Check(w.length > 0 && w.offset >= 0 && static_cast<size_t>(w.offset + w.length) <= line.size());
      Check(static_cast<size_t>(w.length) <= kSpellMaxWordBytes);
    }
  }
  return 0;
}
