// The message text of a compose window in the editor's own text control:
// inserts go in at the point as one step the user can undo; the modified
// state is the text compared with what was last set or saved.
#include "src/compose/compose_text.h"

#include <map>

#include "editor/edisxvt/edit_window.h"
#include "editor/elib/ecmd.h"
#include "rclib/rc.h"

namespace {

std::map<WINDOW, std::string>& Baseline() {
  static std::map<WINDOW, std::string> b;
  return b;
}

}  // namespace

WINDOW ComposeTextCreate(WINDOW win, int id) {
  RCT r{0, 0, 10, 10};
  WINDOW pane = txedit_create(TXEDIT, win, &r, id, 0);
  if (pane) Baseline()[pane] = "";
  return pane;
}

void ComposeTextSetFont(WINDOW pane, const FontChoice& font) {
  if (pane) txedit_set_font(pane, font.family.c_str(), font.size, font.style);
}

std::string ComposeTextGet(WINDOW pane) {
  if (!pane || !xvt_vobj_is_valid(pane)) return "";
  return txedit_get_text(pane);
}

void ComposeTextSet(WINDOW pane, const std::string& text) {
  if (!pane) return;
  txedit_set_text(pane, text.c_str());
  Baseline()[pane] = text;
}

void ComposeTextInsert(WINDOW pane, const std::string& text) {
  if (!pane) return;
  E_DATA* ed = edit_data(pane);
  if (!ed || ecmd_paste_text(ed, text) != RC_OK) txedit_set_text(pane, (ComposeTextGet(pane) + text).c_str());
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

void ComposeTextForget(WINDOW pane) { Baseline().erase(pane); }
