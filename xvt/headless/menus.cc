// Menus: the state of every tagged item of a window's menu bar, and the menu
// choices that tests simulate.
#include <cstdio>

#include "xvt/headless/headless_internal.h"

namespace xvthl {

void LoadMenu(xvt_object* w, const MENU_ITEM* items) {
  for (const MENU_ITEM* m = items; m && (m->tag || m->text || m->separator); ++m) {
    if (m->tag) w->menu[m->tag] = MenuState{m->text ? m->text : "", m->enabled, m->checked};
    if (m->children) LoadMenu(w, m->children);
  }
}

xvt_object* MenuOwner(WINDOW w) {
  if (Live(w) && !w->menu.empty()) return w;
  return R().task;
}

}  // namespace xvthl

using namespace xvthl;

namespace {

// The state of item tag of the bar that serves win, or null.
MenuState* Item(WINDOW win, int tag) {
  xvt_object* o = MenuOwner(win);
  if (!Live(o)) return nullptr;
  auto it = o->menu.find(tag);
  return it == o->menu.end() ? nullptr : &it->second;
}

}  // namespace

void xvt_menu_set_item_enabled(WINDOW win, int tag, bool enabled) {
  if (MenuState* m = Item(win, tag)) m->enabled = enabled;
}
void xvt_menu_set_item_checked(WINDOW win, int tag, bool checked) {
  if (MenuState* m = Item(win, tag)) m->checked = checked;
}
void xvt_menu_set_item_title(WINDOW win, int tag, const char* title) {
  if (MenuState* m = Item(win, tag)) m->title = title ? title : "";
}
bool xvt_menu_get_item_enabled(WINDOW win, int tag) {
  MenuState* m = Item(win, tag);
  return m && m->enabled;
}
bool xvt_menu_get_item_checked(WINDOW win, int tag) {
  MenuState* m = Item(win, tag);
  return m && m->checked;
}
bool xvt_menu_get_item_title(WINDOW win, int tag, char* buf, size_t size) {
  MenuState* m = Item(win, tag);
  if (!m || !buf || !size) return false;
  std::snprintf(buf, size, "%s", m->title.c_str());
  return true;
}
void xvt_menu_update(WINDOW) {}
void xvt_menu_popup(const MENU_ITEM*, WINDOW, PNT) { Record("popup", ""); }

// ---------------------------------------------------------------------------
// Test hooks

bool xvt_test_user_command(WINDOW win, int tag) {
  if (!Live(win)) return false;
  if (MenuState* m = Item(win, tag); m && !m->enabled) return false;
  EVENT ev = MakeEvent(E_COMMAND);
  ev.v.cmd.tag = tag;
  return xvt_test_user_event(win, &ev);
}
