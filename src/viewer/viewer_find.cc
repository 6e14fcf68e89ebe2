// Finding a text in the message a viewer shows.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "src/model/local_search.h"
#include "src/viewer/viewer_internal.h"

namespace {

// The text folded for a search that ignores case, with the offset in the
// original of each folded byte (and of the end), so that a match found in
// the folded text selects the original's bytes however folding changed
// the lengths (the Kelvin sign's three bytes fold to one).
struct Folded {
  std::string text;
  std::vector<size_t> from;
};

size_t CodePointLength(const std::string& s, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(s[i]);
  size_t n = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 1;
  for (size_t k = 1; k < n; ++k)
    if (i + k >= s.size() || (static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 1;
  return n;
}

Folded Fold(const std::string& s) {
  Folded f;
  f.text.reserve(s.size());
  f.from.reserve(s.size() + 1);
  for (size_t i = 0; i < s.size();) {
    const size_t n = CodePointLength(s, i);
    const std::string one = n == 1 && static_cast<unsigned char>(s[i]) >= 0x80 ? s.substr(i, 1) : MM_SearchFoldCase(s.substr(i, n));
    f.text += one;
    f.from.insert(f.from.end(), one.size(), i);
    i += n;
  }
  f.from.push_back(s.size());
  return f;
}

}  // namespace

void ViewerFind(ViewerInfo* v, bool again) {
  if (!v) return;
  if (!again || v->find_text.empty()) {
    char text[256];
    std::snprintf(text, sizeof text, "%s", v->find_text.c_str());
    if (!xvt_dm_post_string_prompt("Find in this message:", text, sizeof text) || !*text) return;
    v->find_text = text;
    v->find_from = 0;  // a new text is looked for from the top
  }
  const Folded hay = Fold(v->content.text);
  const std::string needle = MM_SearchFoldCase(v->find_text);
  const size_t start = std::lower_bound(hay.from.begin(), hay.from.end(), v->find_from) - hay.from.begin();
  size_t at = hay.text.find(needle, start);
  if (at == std::string::npos) at = hay.text.find(needle);
  if (needle.empty() || at == std::string::npos) {
    xvt_dm_post_note("\"%s\" is not in this message.", v->find_text.c_str());
    return;
  }
  v->find_from = hay.from[at + needle.size()];
  xvt_ctl_set_text_sel(v->text_pane, static_cast<int>(hay.from[at]), static_cast<int>(v->find_from));
}
