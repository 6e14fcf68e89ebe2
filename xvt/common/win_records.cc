// Window records: liveness, the getters that only read the record, and the
// order of destruction. Both backends use these; see win_records.h.
#include "xvt/common/win_records.h"
#include "xvt/common/strfmt.h"

#include <algorithm>
#include <cstring>

namespace xvtrec {

Records& R() {
  static Records r;
  return r;
}

namespace {

WinRecord* Find(const xvt_object* w) {
  if (!w) return nullptr;
  auto& live = R().live;
  auto it = live.find(w);
  return it == live.end() ? nullptr : it->second;
}

}  // namespace

bool Live(const xvt_object* w) { return Find(w) != nullptr; }

EVENT MakeEvent(EVENT_TYPE type) {
  EVENT ev;
  std::memset(&ev, 0, sizeof ev);
  ev.type = type;
  return ev;
}

long Send(xvt_object* w, EVENT* ev) {
  WinRecord* r = Find(w);
  if (!r || !r->eh || !ev) return 0;
  return r->eh(w, ev);
}

void Adopt(xvt_object* handle, WinRecord* rec, WIN_TYPE type, xvt_object* parent) {
  auto& s = R();
  rec->type = type;
  rec->serial = s.next_serial++;
  rec->parent = parent;
  if (WinRecord* p = Find(parent)) p->children.push_back(handle);
  s.objects.push_back(handle);
  s.live[handle] = rec;
}

void DestroyTree(xvt_object* w) {
  WinRecord* r = Find(w);
  if (!r || r->destroying) return;
  r->destroying = true;
  std::vector<xvt_object*> kids = r->children;
  for (auto it = kids.rbegin(); it != kids.rend(); ++it) DestroyTree(*it);
  EVENT ev = MakeEvent(E_DESTROY);
  Send(w, &ev);

  auto& s = R();
  if (WinRecord* p = Find(r->parent)) {
    auto& c = p->children;
    c.erase(std::remove(c.begin(), c.end(), w), c.end());
  }
  s.live.erase(w);
  s.objects.erase(std::remove(s.objects.begin(), s.objects.end(), w), s.objects.end());
  if (s.forget) s.forget(w);
  delete r;
}

bool DestroyAllWindows() {
  auto& s = R();
  if (s.destroyed || !s.task) return false;
  s.destroyed = true;
  std::vector<xvt_object*> all = s.objects;
  for (int pass = 0; pass < 2; ++pass) {
    // First whatever hangs on nothing, then the top-level windows.
    xvt_object* parent = pass == 0 ? nullptr : s.screen;
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      WinRecord* r = Find(*it);
      if (r && *it != s.task && *it != s.screen && r->parent == parent) DestroyTree(*it);
    }
  }
  DestroyTree(s.task);
  DestroyTree(s.screen);
  s.task = s.screen = s.mdi = nullptr;
  return true;
}

void ResetRecords() {
  auto& s = R();
  for (auto& [handle, rec] : s.live) delete rec;
  auto forget = s.forget;
  s = Records();
  s.forget = forget;
}

bool GetSharedAttr(XVT_ATTR attr, intptr_t* value) {
  auto& s = R();
  switch (attr) {
    case ATTR_ERRMSG_HANDLER: *value = reinterpret_cast<intptr_t>(s.errmsg); return true;
    case ATTR_NATIVE_HOOK: *value = reinterpret_cast<intptr_t>(s.native); return true;
    case ATTR_MDI_CLIENT_WIN: *value = reinterpret_cast<intptr_t>(s.mdi); return true;
    default: return false;
  }
}

bool SetSharedAttr(XVT_ATTR attr, intptr_t value) {
  auto& s = R();
  switch (attr) {
    case ATTR_ERRMSG_HANDLER: s.errmsg = reinterpret_cast<XVT_ERRMSG_HANDLER>(value); return true;
    case ATTR_NATIVE_HOOK: s.native = reinterpret_cast<XVT_NATIVE_HOOK>(value); return true;
    // Always so on this system.
    case ATTR_3D_CONTROLS:
    case ATTR_NATIVE_DIALOGS:
    case ATTR_RESOURCES_IN_CODE: return true;
    default: return false;
  }
}

void LoadMenuItems(xvt_object* w, const MENU_ITEM* items) {
  WinRecord* r = Find(w);
  if (!r || !items) return;
  if (!r->has_menu_bar) r->menu_bar = items;
  r->has_menu_bar = true;
  for (const MENU_ITEM* m = items; m->tag || m->text || m->separator; ++m) {
    if (m->separator) continue;
    if (m->tag) r->menu_items[m->tag] = MenuItem{m->text ? m->text : "", m->enabled, m->checked};
    if (m->children) LoadMenuItems(w, m->children);
  }
}

xvt_object* MenuOwner(WINDOW w) {
  WinRecord* r = Find(w);
  if (r && r->has_menu_bar) return w;
  return Live(R().task) ? R().task : nullptr;
}

MenuItem* FindMenuItem(WINDOW w, int tag) {
  WinRecord* r = Find(MenuOwner(w));
  if (!r) return nullptr;
  auto it = r->menu_items.find(tag);
  return it == r->menu_items.end() ? nullptr : &it->second;
}

}  // namespace xvtrec

using namespace xvtrec;

// ---------------------------------------------------------------------------
// The parts of the facade that only read or write the record.

WINDOW xvt_task_win(void) { return R().task; }
WINDOW xvt_screen_win(void) { return R().screen; }
void xvt_app_allow_quit(void) { R().quit_allowed = true; }
bool xvt_app_session_ending(void) { return R().session_ending; }

void xvt_vobj_destroy(WINDOW win) {
  auto& s = R();
  if (!Live(win) || win == s.task || win == s.screen || win == s.mdi) return;
  DestroyTree(win);
}

bool xvt_vobj_is_valid(WINDOW win) { return Live(win); }

std::string xvt_vobj_get_tooltip(WINDOW win) {
  WinRecord* r = Find(win);
  return r ? r->tooltip : std::string();
}

const MENU_ITEM* xvt_menu_get_bar(WINDOW win) {
  WinRecord* r = Find(MenuOwner(win));
  return r ? r->menu_bar : nullptr;
}

WIN_TYPE xvt_vobj_get_type(WINDOW win) {
  WinRecord* r = Find(win);
  return r ? r->type : W_NONE;
}

WINDOW xvt_vobj_get_parent(WINDOW win) {
  WinRecord* r = Find(win);
  return r ? r->parent : NULL_WIN;
}

intptr_t xvt_vobj_get_data(WINDOW win) {
  WinRecord* r = Find(win);
  return r ? r->data : 0;
}

void xvt_vobj_set_data(WINDOW win, intptr_t data) {
  if (WinRecord* r = Find(win)) r->data = data;
}

void xvt_win_set_describe(WINDOW win, XVT_DESCRIBE_FN fn) {
  if (WinRecord* r = Find(win)) r->describe = fn;
}

std::string xvt_win_describe(WINDOW win) {
  std::string out;
  if (WinRecord* r = Find(win); r && r->describe) r->describe(win, &out);
  return out;
}

long xvt_win_dispatch_event(WINDOW win, EVENT* ev) { return Send(win, ev); }

WINDOW xvt_win_get_ctl(WINDOW win, int id) {
  WinRecord* r = Find(win);
  if (!r) return NULL_WIN;
  for (xvt_object* c : r->children) {
    WinRecord* cr = Find(c);
    if (cr && cr->type >= WC_PUSHBUTTON && cr->id == id) return c;
  }
  return NULL_WIN;
}

int xvt_ctl_get_id(WINDOW ctl) {
  WinRecord* r = Find(ctl);
  return r ? r->id : 0;
}

bool xvt_menu_get_item_enabled(WINDOW win, int tag) {
  MenuItem* m = FindMenuItem(win, tag);
  return m && m->enabled;
}

bool xvt_menu_get_item_checked(WINDOW win, int tag) {
  MenuItem* m = FindMenuItem(win, tag);
  return m && m->checked;
}

bool xvt_menu_get_item_title(WINDOW win, int tag, char* buf, size_t size) {
  MenuItem* m = FindMenuItem(win, tag);
  if (!m || !buf || size == 0) return false;
  CopyOut(m->title, buf, size);
  return true;
}
