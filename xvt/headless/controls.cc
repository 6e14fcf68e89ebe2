// Controls: buttons, edits and lists as records, and the clicks, choices and
// typing that tests simulate on them.
#include <algorithm>
#include <cstdio>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

namespace {

void NotifyControl(xvt_object* ctl) {
  xvt_object* owner = ctl->parent;
  EVENT ev = MakeEvent(E_CONTROL);
  ev.v.ctl.id = ctl->id;
  ev.v.ctl.ci.type = ctl->type;
  ev.v.ctl.ci.win = ctl;
  Send(owner, &ev);
}

// The control the user can reach: live, enabled and not behind a trap.
xvt_object* UserControl(WINDOW win, int ctl_id) {
  xvt_object* c = xvt_win_get_ctl(win, ctl_id);
  return c && c->enabled && Reachable(c) ? c : nullptr;
}

}  // namespace

WINDOW xvt_ctl_create(WIN_TYPE type, const RCT* rct, const char* title, WINDOW parent, unsigned long flags, int id) {
  if (!Live(parent) || type < WC_PUSHBUTTON) return NULL_WIN;
  xvt_object* c = NewObject(type, parent, rct, title);
  c->id = id;
  c->flags = flags;
  c->enabled = !(flags & CTL_FLAG_DISABLED);
  c->visible = !(flags & CTL_FLAG_INVISIBLE);
  return c;
}

void xvt_ctl_set_checked(WINDOW ctl, bool checked) {
  if (Live(ctl)) ctl->checked = checked;
}
bool xvt_ctl_is_checked(WINDOW ctl) { return Live(ctl) && ctl->checked; }

void xvt_ctl_set_icon(WINDOW ctl, int icon_rid) {
  if (Live(ctl) && ctl->type == WC_PUSHBUTTON) ctl->icon = icon_rid;
}
int xvt_test_ctl_icon(WINDOW ctl) { return Live(ctl) ? ctl->icon : 0; }

void xvt_ctl_set_text_sel(WINDOW ctl, int start, int end) {
  if (!Live(ctl) || (ctl->type != WC_EDIT && ctl->type != WC_TEXTEDIT)) return;
  const int n = static_cast<int>(ctl->title.size());
  ctl->sel_start = std::clamp(start, 0, n);
  ctl->sel_end = std::clamp(end, ctl->sel_start, n);
}

// A page of 20 lines stands in for the height of the window.
bool xvt_ctl_page_text(WINDOW ctl, bool down) {
  if (!Live(ctl) || ctl->type != WC_TEXTEDIT) return false;
  const int lines = 1 + static_cast<int>(std::count(ctl->title.begin(), ctl->title.end(), '\n'));
  const int top = std::clamp(ctl->top_line + (down ? 20 : -20), 0, std::max(0, lines - 20));
  const bool moved = top != ctl->top_line;
  ctl->top_line = top;
  return moved;
}

bool xvt_test_text_sel(WINDOW ctl, int* start, int* end) {
  if (!Live(ctl) || ctl->sel_start < 0) return false;
  if (start) *start = ctl->sel_start;
  if (end) *end = ctl->sel_end;
  return true;
}

void xvt_ctl_check_radio_button(WINDOW ctl, WINDOW* group, int count) {
  for (int i = 0; group && i < count; ++i)
    if (Live(group[i])) group[i]->checked = false;
  if (Live(ctl)) ctl->checked = true;
}

// ---------------------------------------------------------------------------
// Lists

bool xvt_list_add(WINDOW ctl, int index, const char* text) {
  if (!Live(ctl)) return false;
  size_t pos = (index < 0 || static_cast<size_t>(index) > ctl->items.size()) ? ctl->items.size()
                                                                             : static_cast<size_t>(index);
  ctl->items.insert(ctl->items.begin() + static_cast<long>(pos), text ? text : "");
  ctl->selected.insert(ctl->selected.begin() + static_cast<long>(pos), false);
  return true;
}

bool xvt_list_rem(WINDOW ctl, int index) {
  if (!Live(ctl) || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return false;
  ctl->items.erase(ctl->items.begin() + index);
  ctl->selected.erase(ctl->selected.begin() + index);
  return true;
}

void xvt_list_clear(WINDOW ctl) {
  if (!Live(ctl)) return;
  ctl->items.clear();
  ctl->selected.clear();
}

int xvt_list_count_all(WINDOW ctl) { return Live(ctl) ? static_cast<int>(ctl->items.size()) : 0; }

char* xvt_list_get_elt(WINDOW ctl, int index, char* buf, size_t size) {
  if (!Live(ctl) || !buf || size == 0 || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return nullptr;
  std::snprintf(buf, size, "%s", ctl->items[static_cast<size_t>(index)].c_str());
  return buf;
}

int xvt_list_get_sel_index(WINDOW ctl) {
  if (!Live(ctl)) return -1;
  for (size_t i = 0; i < ctl->selected.size(); ++i)
    if (ctl->selected[i]) return static_cast<int>(i);
  return -1;
}

void xvt_list_set_sel(WINDOW ctl, int index, bool selected) {
  if (!Live(ctl) || index < 0 || static_cast<size_t>(index) >= ctl->items.size()) return;
  if (selected && !(ctl->flags & CTL_FLAG_MULTISEL)) std::fill(ctl->selected.begin(), ctl->selected.end(), false);
  ctl->selected[static_cast<size_t>(index)] = selected;
  if (selected && (ctl->type == WC_LISTBUTTON || ctl->type == WC_LISTEDIT)) ctl->title = ctl->items[static_cast<size_t>(index)];
}

bool xvt_list_is_sel(WINDOW ctl, int index) {
  return Live(ctl) && index >= 0 && static_cast<size_t>(index) < ctl->selected.size() &&
         ctl->selected[static_cast<size_t>(index)];
}

void xvt_list_suspend(WINDOW) {}
void xvt_list_resume(WINDOW) {}

// ---------------------------------------------------------------------------
// Test hooks

bool xvt_test_click(WINDOW win, int ctl_id) {
  xvt_object* c = UserControl(win, ctl_id);
  if (!c) return false;
  if (c->type == WC_CHECKBOX) c->checked = !c->checked;
  if (c->type == WC_RADIOBUTTON) c->checked = true;
  NotifyControl(c);
  return true;
}

bool xvt_test_select(WINDOW win, int ctl_id, int index) {
  xvt_object* c = UserControl(win, ctl_id);
  if (!c) return false;
  xvt_list_set_sel(c, index, true);
  NotifyControl(c);
  return true;
}

bool xvt_test_type(WINDOW win, int ctl_id, const char* text) {
  xvt_object* c = UserControl(win, ctl_id);
  if (!c) return false;
  c->title = text ? text : "";
  NotifyControl(c);
  return true;
}
