// The message text of a compose window on the toolkit's multi-line text
// control. The control cannot tell its insertion point, so inserts go to
// the end; the modified state is the text compared with what was last set.
#include "src/compose/compose_text.h"

#include <map>

namespace {

std::map<WINDOW, std::string>& Baseline() {
  static std::map<WINDOW, std::string> b;
  return b;
}

}  // namespace

WINDOW ComposeTextCreate(WINDOW win, int id) {
  RCT r{0, 0, 10, 10};
  WINDOW pane = xvt_ctl_create(WC_TEXTEDIT, &r, "", win, 0, id);
  if (pane) Baseline()[pane] = "";
  return pane;
}

std::string ComposeTextGet(WINDOW pane) {
  if (!pane || !xvt_vobj_is_valid(pane)) return "";
  // The title call needs a buffer; ask for one as big as any message text.
  std::string buffer(1u << 20, '\0');
  for (;;) {
    if (!xvt_vobj_get_title(pane, buffer.data(), buffer.size())) return "";
    const size_t n = std::char_traits<char>::length(buffer.data());
    if (n + 1 < buffer.size() || buffer.size() >= (64u << 20)) return buffer.substr(0, n);
    buffer.assign(buffer.size() * 4, '\0');
  }
}

void ComposeTextSet(WINDOW pane, const std::string& text) {
  if (!pane) return;
  xvt_vobj_set_title(pane, text.c_str());
  Baseline()[pane] = text;
}

void ComposeTextInsert(WINDOW pane, const std::string& text) {
  if (!pane) return;
  xvt_vobj_set_title(pane, (ComposeTextGet(pane) + text).c_str());
}

bool ComposeTextModified(WINDOW pane) {
  if (!pane) return false;
  auto it = Baseline().find(pane);
  return it == Baseline().end() || it->second != ComposeTextGet(pane);
}

void ComposeTextSetModified(WINDOW pane, bool modified) {
  if (!pane) return;
  if (modified)
    Baseline()[pane] = std::string(1, '\0');
  else
    Baseline()[pane] = ComposeTextGet(pane);
}

void ComposeTextFocus(WINDOW pane) {
  if (pane && xvt_vobj_is_valid(pane)) xvt_scr_set_focus_vobj(pane);
}

void ComposeTextForget(WINDOW pane) { Baseline().erase(pane); }
