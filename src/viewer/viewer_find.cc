// Finding a text in the message a viewer shows.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "src/model/local_search.h"
#include "src/viewer/viewer_internal.h"

void ViewerFind(ViewerInfo* v, bool again) {
  if (!v) return;
  if (!again || v->find_text.empty()) {
    char text[256];
    std::snprintf(text, sizeof text, "%s", v->find_text.c_str());
    if (!xvt_dm_post_string_prompt("Find in this message:", text, sizeof text) || !*text) return;
    v->find_text = text;
    v->find_from = 0;  // a new text is looked for from the top
  }
  std::vector<size_t> from;  // the text's offset of each folded byte
  const std::string hay = MM_SearchFoldCase(v->content.text, &from);
  const std::string needle = MM_SearchFoldCase(v->find_text);
  const size_t start = std::lower_bound(from.begin(), from.end(), v->find_from) - from.begin();
  size_t at = hay.find(needle, start);
  if (at == std::string::npos) at = hay.find(needle);
  if (needle.empty() || at == std::string::npos) {
    xvt_dm_post_note("\"%s\" is not in this message.", v->find_text.c_str());
    return;
  }
  v->find_from = from[at + needle.size()];
  xvt_ctl_set_text_sel(v->text_pane, static_cast<int>(from[at]), static_cast<int>(v->find_from));
}
