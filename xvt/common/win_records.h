// Window records as both backends keep them. Every handle points at a
// record; the part below is the same for both, and each backend's
// struct xvt_object derives from WinRecord to add what its toolkit needs
// (widgets, a display list...). This file keeps the set of live records in
// creation order, the task, screen and document-area windows, the order in
// which windows go (children before their parent, the task window last), the
// program's state of menu items, and the application attributes that do not
// depend on the toolkit. Nothing outside xvt/ includes this header.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "xvt/xvt.h"

namespace xvtrec {

// A tagged item of a menu bar. Its state belongs to the program; the toolkit
// only shows it.
struct MenuItem {
  std::string title;  // as the program gave it, with '~'
  bool enabled = true;
  bool checked = false;
};

struct WinRecord {
  WIN_TYPE type = W_NONE;
  uint64_t serial = 0;  // tells a record from a later one at the same address
  xvt_object* parent = nullptr;
  std::vector<xvt_object*> children;  // creation order
  EVENT_HANDLER eh = nullptr;
  intptr_t data = 0;
  XVT_DESCRIBE_FN describe = nullptr;
  int id = 0;                // control id
  unsigned long flags = 0;   // WSF_* of a window, CTL_FLAG_* of a control
  std::string title;
  bool destroying = false;   // E_DESTROY is on its way; no second one
  bool has_menu_bar = false;
  const MENU_ITEM* menu_bar = nullptr;  // as registered
  std::string tooltip;
  std::map<int, MenuItem> menu_items;  // the bar's tagged items, by tag
  virtual ~WinRecord() = default;
};

struct Records {
  // Live records by handle. A handle is looked up here before it is used,
  // so that a stale one finds nothing.
  std::unordered_map<const xvt_object*, WinRecord*> live;
  std::vector<xvt_object*> objects;  // live records in creation order
  uint64_t next_serial = 1;
  xvt_object* task = nullptr;
  xvt_object* screen = nullptr;
  xvt_object* mdi = nullptr;  // the document area, a child of the task window
  bool destroyed = false;     // xvt_app_destroy has run
  bool quit_allowed = false;
  bool session_ending = false;  // a termination signal came
  XVT_ERRMSG_HANDLER errmsg = nullptr;
  XVT_NATIVE_HOOK native = nullptr;
  // Told of a record once it has had E_DESTROY and is no longer live, just
  // before it is deleted: the backend drops its own references to it (timers,
  // focus, the pointer trap) and lets go of its toolkit objects.
  void (*forget)(xvt_object* w) = nullptr;
};

Records& R();

bool Live(const xvt_object* w);
EVENT MakeEvent(EVENT_TYPE type);
// Calls the handler of a live window; 0 when there is none.
long Send(xvt_object* w, EVENT* ev);

// Makes a record live: a child of parent (last in its list), last in
// creation order. handle and rec are the same object seen as its two types.
void Adopt(xvt_object* handle, WinRecord* rec, WIN_TYPE type, xvt_object* parent);

// Obj is the backend's record type, complete where this is used.
template <class Obj = xvt_object>
Obj* NewRecord(WIN_TYPE type, xvt_object* parent) {
  auto* o = new Obj;
  Adopt(o, o, type, parent);
  return o;
}

// Destroys w and everything under it: children first, newest first, so that
// a window sees its controls alive until its own E_DESTROY.
void DestroyTree(xvt_object* w);
// Ends the application's windows, once: marks the application as ended and
// destroys the top-level windows (newest first), then the task window with
// what is left under it, then the screen. False, doing nothing, when the
// application is not up or has already ended.
bool DestroyAllWindows();
// Forgets every record without telling anyone (tests start afresh).
void ResetRecords();

// The application attributes both backends keep alike: true when attr is
// one of them, with its value got or set.
bool GetSharedAttr(XVT_ATTR attr, intptr_t* value);
bool SetSharedAttr(XVT_ATTR attr, intptr_t value);

// Takes a menu bar's tagged items into w's record.
void LoadMenuItems(xvt_object* w, const MENU_ITEM* items);
// The window whose menu bar serves w: its own, else the task window's.
xvt_object* MenuOwner(WINDOW w);
MenuItem* FindMenuItem(WINDOW w, int tag);

}  // namespace xvtrec
