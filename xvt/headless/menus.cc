// Menus: the program's state of the items (kept in the records) needs no
// showing here; pop-ups are only recorded, and tests simulate menu choices.
#include "xvt/headless/headless_internal.h"

using namespace xvthl;

void xvt_menu_set_item_enabled(WINDOW win, int tag, bool enabled) {
  if (MenuItem* m = FindMenuItem(win, tag)) m->enabled = enabled;
}
void xvt_menu_set_item_checked(WINDOW win, int tag, bool checked) {
  if (MenuItem* m = FindMenuItem(win, tag)) m->checked = checked;
}
void xvt_menu_set_item_title(WINDOW win, int tag, const char* title) {
  if (MenuItem* m = FindMenuItem(win, tag)) m->title = title ? title : "";
}
void xvt_menu_update(WINDOW) {}
void xvt_menu_popup(const MENU_ITEM*, WINDOW, PNT) { Record("popup", ""); }

// ---------------------------------------------------------------------------
// Test hooks

bool xvt_test_user_command(WINDOW win, int tag) {
  if (!Live(win)) return false;
  if (MenuItem* m = FindMenuItem(win, tag); m && !m->enabled) return false;
  EVENT ev = MakeEvent(E_COMMAND);
  ev.v.cmd.tag = tag;
  return xvt_test_user_event(win, &ev);
}
