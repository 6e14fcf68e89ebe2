// Program windows: creation, geometry, visibility, titles and events.
#include <algorithm>
#include <cstdio>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

WINDOW xvt_win_create(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                      unsigned long flags, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  if (!R().task) return NULL_WIN;
  if (!parent) parent = R().screen;
  if (!Live(parent)) return NULL_WIN;
  xvt_object* w = NewObject(type, parent, rct, title);
  w->eh = eh;
  w->data = app_data;
  w->flags = flags;
  w->visible = !(flags & WSF_INVISIBLE);
  w->enabled = !(flags & WSF_DISABLED);
  w->maximized = (flags & WSF_MAXIMIZED) != 0;
  w->minimized = (flags & WSF_ICONIZED) != 0;
  if (menu_rid && !(flags & WSF_NO_MENUBAR)) LoadMenuItems(w, xvt_res_get_menubar(menu_rid));
  EVENT ev = MakeEvent(E_CREATE);
  Send(w, &ev);
  if (!Live(w)) return NULL_WIN;
  return w;
}

char* xvt_vobj_get_title(WINDOW win, char* buf, size_t size) {
  if (!Live(win) || !buf || size == 0) return nullptr;
  std::snprintf(buf, size, "%s", win->title.c_str());
  return buf;
}

void xvt_vobj_set_title(WINDOW win, const char* title) {
  if (!Live(win)) return;
  win->title = title ? title : "";
  win->top_line = 0;  // new text shows from its start
}

RCT* xvt_vobj_get_outer_rect(WINDOW win, RCT* rct) {
  if (!Live(win) || !rct) return nullptr;
  *rct = win->rect;
  return rct;
}

RCT* xvt_vobj_get_client_rect(WINDOW win, RCT* rct) {
  if (!Live(win) || !rct) return nullptr;
  *rct = RCT{0, 0, win->rect.right - win->rect.left, win->rect.bottom - win->rect.top};
  return rct;
}

void xvt_vobj_move(WINDOW win, const RCT* rct) {
  if (!Live(win) || !rct) return;
  bool resized = (rct->right - rct->left) != (win->rect.right - win->rect.left) ||
                 (rct->bottom - rct->top) != (win->rect.bottom - win->rect.top);
  win->rect = *rct;
  if (resized) {
    EVENT ev = MakeEvent(E_SIZE);
    ev.v.size.width = rct->right - rct->left;
    ev.v.size.height = rct->bottom - rct->top;
    Send(win, &ev);
  }
}

void xvt_vobj_set_visible(WINDOW win, bool visible) {
  if (Live(win)) win->visible = visible;
}
bool xvt_vobj_is_visible(WINDOW win) { return Live(win) && win->visible; }
void xvt_vobj_set_enabled(WINDOW win, bool enabled) {
  if (Live(win)) win->enabled = enabled;
}
bool xvt_vobj_is_enabled(WINDOW win) { return Live(win) && win->enabled; }

void xvt_vobj_raise(WINDOW win) {
  if (!Live(win) || !win->parent) return;
  auto& c = win->parent->children;
  c.erase(std::remove(c.begin(), c.end(), win), c.end());
  c.push_back(win);
}

void xvt_win_post_event(WINDOW win, const EVENT* ev) {
  if (Live(win) && ev) S().queue.push_back({win, *ev});
}
