#include "src/script/tcl_window_cmds.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "editor/edisxvt/edisplay.h"
#include "editor/edisxvt/edit_window.h"
#include "rclib/rc.h"
#include "src/base/trace.h"
#include "src/base/commands.h"
#include "src/options/options.h"
#include "src/base/keyed_list.h"
#include "src/base/tcl_interp.h"

namespace {

constexpr const char* kWindows = "windows";
constexpr const char* kNoWrapper = "Could not create text wrapper window";
// Longest control text or list item that a script reads back in one piece.
constexpr size_t kTextLimit = 16384;
// Coordinates beyond this are a script's mistake, not a layout.
constexpr int kMaxCoordinate = 100000;

// ---------------------------------------------------------------------------
// Results and errors



int Done(Tcl_Interp* interp, const std::string& text) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
  return TCL_OK;
}

int DoneInt(Tcl_Interp* interp, long value) {
  Tcl_SetObjResult(interp, Tcl_NewLongObj(value));
  return TCL_OK;
}

std::string Quoted(const char* text) { return std::string("\"") + text + "\""; }

std::string PtrText(WINDOW win) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(win));
  return text;
}

// A handle written by PtrText, if it still names a live object. Scripts can
// write anything into windowptr, so nothing is trusted before the toolkit
// confirms it.
WINDOW ParsePtr(const char* text) {
  void* p = nullptr;
  char extra = 0;
  if (!text || std::sscanf(text, "%p %c", &p, &extra) != 1 || !p) return NULL_WIN;
  WINDOW win = static_cast<WINDOW>(p);
  return xvt_vobj_is_valid(win) ? win : NULL_WIN;
}

bool IsControlType(WIN_TYPE type) { return type >= WC_PUSHBUTTON; }

// Editor fields are windows of the editor's own, not toolkit controls, but
// scripts use them like any other control of their window.
bool IsEditorControl(WINDOW win) { return xvt_vobj_get_type(win) == W_PLAIN && edit_data(win) != nullptr; }

bool IsScriptControl(WINDOW win) { return IsControlType(xvt_vobj_get_type(win)) || IsEditorControl(win); }

// ---------------------------------------------------------------------------
// The windows array

Tcl_Obj* Entry(Tcl_Interp* interp, const char* name) {
  return Tcl_GetVar2Ex(interp, kWindows, name, TCL_GLOBAL_ONLY);
}

bool EntryKey(Tcl_Obj* entry, const char* key, std::string* out) {
  Tcl_Obj* value = nullptr;
  std::string error;
  if (!entry || KeylGet(entry, key, &value, &error) != kKeylFound) return false;
  *out = Tcl_GetString(value);
  return true;
}

WINDOW WindowNamed(Tcl_Interp* interp, const char* name) {
  std::string ptr;
  if (!EntryKey(Entry(interp, name), "windowptr", &ptr)) return NULL_WIN;
  return ParsePtr(ptr.c_str());
}

// The names in windows(name)'s kidlist (empty when it has none).
std::vector<std::string> Kids(Tcl_Interp* interp, const char* name) {
  std::vector<std::string> kids;
  Tcl_Obj* entry = Entry(interp, name);
  Tcl_Obj* list = nullptr;
  std::string error;
  if (!entry || KeylGet(entry, "kidlist", &list, &error) != kKeylFound) return kids;
  int count = 0;
  Tcl_Obj** items = nullptr;
  if (Tcl_ListObjGetElements(nullptr, list, &count, &items) != TCL_OK) return kids;
  for (int i = 0; i < count; ++i) kids.emplace_back(Tcl_GetString(items[i]));
  return kids;
}

// base with the keys set, as a new object holding one reference; null with
// *error when base isn't a keyed list.
Tcl_Obj* WithKeys(Tcl_Obj* base, const std::vector<std::pair<const char*, Tcl_Obj*>>& keys, std::string* error) {
  Tcl_Obj* list = base ? base : Tcl_NewObj();
  Tcl_IncrRefCount(list);
  for (size_t i = 0; i < keys.size(); ++i) {
    Tcl_Obj* next = nullptr;
    if (KeylSet(list, keys[i].first, keys[i].second, &next, error) != kKeylFound) {
      // KeylSet let go of this value; the ones not reached yet go too.
      for (size_t j = i + 1; j < keys.size(); ++j) {
        Tcl_IncrRefCount(keys[j].second);
        Tcl_DecrRefCount(keys[j].second);
      }
      Tcl_DecrRefCount(list);
      return nullptr;
    }
    Tcl_IncrRefCount(next);
    Tcl_DecrRefCount(list);
    list = next;
  }
  return list;
}

bool HasKey(Tcl_Obj* entry, const char* key) {
  std::string ignored;
  return EntryKey(entry, key, &ignored);
}

// The entry a new window or control starts from: what a script may have
// put under its name beforehand (a command, say), when that is a keyed list.
Tcl_Obj* StartingEntry(Tcl_Interp* interp, const char* name) {
  Tcl_Obj* old = Entry(interp, name);
  if (!old) return nullptr;
  Tcl_Obj* keys = nullptr;
  std::string error;
  if (KeylKeys(old, {}, &keys, &error) != kKeylFound) return nullptr;
  Tcl_IncrRefCount(keys);
  Tcl_DecrRefCount(keys);
  return old;
}

void SetEntry(Tcl_Interp* interp, const char* name, Tcl_Obj* entry) {
  Tcl_SetVar2Ex(interp, kWindows, name, entry, TCL_GLOBAL_ONLY);
}

// windows(parent) with name appended to its kidlist (or removed from it),
// as a new object holding one reference; null with *error.
Tcl_Obj* WithKid(Tcl_Interp* interp, const char* parent, const char* name, bool add, std::string* error) {
  Tcl_Obj* entry = Entry(interp, parent);
  Tcl_Obj* old = nullptr;
  if (entry && KeylGet(entry, "kidlist", &old, error) == kKeylError) return nullptr;
  Tcl_Obj* kids = Tcl_NewListObj(0, nullptr);
  Tcl_IncrRefCount(kids);
  if (old) {
    int count = 0;
    Tcl_Obj** items = nullptr;
    if (Tcl_ListObjGetElements(nullptr, old, &count, &items) != TCL_OK) {
      *error = "the kidlist of " + Quoted(parent) + " is not a list";
      Tcl_DecrRefCount(kids);
      return nullptr;
    }
    for (int i = 0; i < count; ++i)
      if (add || std::strcmp(Tcl_GetString(items[i]), name) != 0) Tcl_ListObjAppendElement(nullptr, kids, items[i]);
  }
  if (add) Tcl_ListObjAppendElement(nullptr, kids, Tcl_NewStringObj(name, -1));
  Tcl_Obj* result = WithKeys(entry, {{"kidlist", kids}}, error);
  Tcl_DecrRefCount(kids);
  return result;
}

bool InUse(Tcl_Interp* interp, const char* name) { return WindowNamed(interp, name) != NULL_WIN; }

// Takes a window and its controls out of `windows`, unless the name has
// been given to another window meanwhile.
void Forget(Tcl_Interp* interp, const char* name, WINDOW win) {
  std::string ptr;
  if (!EntryKey(Entry(interp, name), "windowptr", &ptr) || ptr != PtrText(win)) return;
  for (const std::string& kid : Kids(interp, name)) {
    std::string parent;
    if (EntryKey(Entry(interp, kid.c_str()), "parent", &parent) && parent == name)
      Tcl_UnsetVar2(interp, kWindows, kid.c_str(), TCL_GLOBAL_ONLY);
  }
  Tcl_UnsetVar2(interp, kWindows, name, TCL_GLOBAL_ONLY);
}

// ---------------------------------------------------------------------------
// Arguments

struct Word {
  const char* word;
  long value;
};

const Word kWindowTypes[] = {{"W_DOC", W_DOC}, {"W_PLAIN", W_PLAIN}};

const Word kControlTypes[] = {
    {"WC_TEXT", WC_TEXT},           {"WC_PUSHBUTTON", WC_PUSHBUTTON}, {"WC_EDIT", WC_EDIT},
    {"WC_CHECKBOX", WC_CHECKBOX},   {"WC_RADIOBUTTON", WC_RADIOBUTTON}, {"WC_GROUPBOX", WC_GROUPBOX},
    {"WC_LBOX", WC_LBOX},           {"WC_LISTBUTTON", WC_LISTBUTTON}, {"WC_LISTEDIT", WC_LISTEDIT},
    // The editor's fields: kinds of its own, told from toolkit types by
    // the branch that makes them.
    {"TXEDIT", TXEDIT},             {"TXEDITLINE", TXEDITLINE},
};

const Word kWindowFlags[] = {
    {"WSF_NONE", static_cast<long>(WSF_NONE)},
    {"WSF_SIZE", static_cast<long>(WSF_SIZE)},
    {"WSF_HSCROLL", static_cast<long>(WSF_HSCROLL)},
    {"WSF_VSCROLL", static_cast<long>(WSF_VSCROLL)},
    {"WSF_MAXIMIZABLE", static_cast<long>(WSF_MAXIMIZABLE)},
    {"WSF_INVISIBLE", static_cast<long>(WSF_INVISIBLE)},
    {"WSF_DISABLED", static_cast<long>(WSF_DISABLED)},
    {"WSF_CLOSE", static_cast<long>(WSF_CLOSE)},
    {"WSF_ICONIZED", static_cast<long>(WSF_ICONIZED)},
    {"WSF_NO_MENUBAR", static_cast<long>(WSF_NO_MENUBAR)},
    {"WSF_MAXIMIZED", static_cast<long>(WSF_MAXIMIZED)},
};

const Word kControlFlags[] = {
    {"CTL_FLAG_DEFAULT", static_cast<long>(CTL_FLAG_DEFAULT)},
    {"CTL_FLAG_DISABLED", static_cast<long>(CTL_FLAG_DISABLED)},
    {"CTL_FLAG_INVISIBLE", static_cast<long>(CTL_FLAG_INVISIBLE)},
    {"CTL_FLAG_READONLY", static_cast<long>(CTL_FLAG_READONLY)},
    {"CTL_FLAG_MULTISEL", static_cast<long>(CTL_FLAG_MULTISEL)},
    {"CTL_FLAG_PASSWORD", static_cast<long>(CTL_FLAG_PASSWORD)},
};

template <size_t N>
const Word* FindWord(const Word (&table)[N], const char* word) {
  for (const Word& w : table)
    if (std::strcmp(w.word, word) == 0) return &w;
  return nullptr;
}

// Flags come as a number or as a list of flag names ("WSF_CLOSE WSF_SIZE").
template <size_t N>
bool ParseFlags(Tcl_Interp* interp, const char* cmd, Tcl_Obj* obj, const Word (&table)[N], unsigned long* out) {
  long number = 0;
  if (Tcl_GetLongFromObj(nullptr, obj, &number) == TCL_OK && number >= 0) {
    *out = static_cast<unsigned long>(number);
    return true;
  }
  int count = 0;
  Tcl_Obj** words = nullptr;
  if (Tcl_ListObjGetElements(nullptr, obj, &count, &words) != TCL_OK) {
    TclFail(interp, std::string(cmd) + ": bad flags " + Quoted(Tcl_GetString(obj)));
    return false;
  }
  unsigned long flags = 0;
  for (int i = 0; i < count; ++i) {
    const Word* w = FindWord(table, Tcl_GetString(words[i]));
    if (!w) {
      TclFail(interp, std::string(cmd) + ": unknown flag " + Quoted(Tcl_GetString(words[i])));
      return false;
    }
    flags |= static_cast<unsigned long>(w->value);
  }
  *out = flags;
  return true;
}

// "left top right bottom"
bool ParseRect(Tcl_Interp* interp, const char* cmd, Tcl_Obj* obj, RCT* out) {
  int count = 0;
  Tcl_Obj** words = nullptr;
  int v[4] = {0, 0, 0, 0};
  bool ok = Tcl_ListObjGetElements(nullptr, obj, &count, &words) == TCL_OK && count == 4;
  for (int i = 0; ok && i < 4; ++i)
    ok = Tcl_GetIntFromObj(nullptr, words[i], &v[i]) == TCL_OK && v[i] >= -kMaxCoordinate && v[i] <= kMaxCoordinate;
  if (ok) ok = v[2] >= v[0] && v[3] >= v[1];
  if (!ok) {
    TclFail(interp, std::string(cmd) + ": bad rectangle " + Quoted(Tcl_GetString(obj)) +
                     ": must be \"left top right bottom\"");
    return false;
  }
  *out = RCT{v[0], v[1], v[2], v[3]};
  return true;
}

bool ParseBool(Tcl_Interp* interp, Tcl_Obj* obj, bool* out) {
  int b = 0;
  if (Tcl_GetBooleanFromObj(interp, obj, &b) != TCL_OK) return false;
  *out = b != 0;
  return true;
}

WINDOW NeedWindow(Tcl_Interp* interp, const char* cmd, Tcl_Obj* name) {
  const char* n = Tcl_GetString(name);
  if (!Entry(interp, n)) {
    TclFail(interp, std::string(cmd) + ": unknown window " + Quoted(n));
    return NULL_WIN;
  }
  WINDOW win = WindowNamed(interp, n);
  if (!win) TclFail(interp, std::string(cmd) + ": window " + Quoted(n) + " no longer exists");
  return win;
}

// A control of win by its id. Editor fields are not the toolkit's
// controls: they are found through the script's own record of win.
WINDOW ControlById(Tcl_Interp* interp, WINDOW win, const char* winname, int id) {
  if (WINDOW ctl = xvt_win_get_ctl(win, id)) return ctl;
  for (const std::string& kid : Kids(interp, winname)) {
    std::string kid_id;
    if (!EntryKey(Entry(interp, kid.c_str()), "id", &kid_id) || kid_id != std::to_string(id)) continue;
    WINDOW ctl = WindowNamed(interp, kid.c_str());
    if (ctl && xvt_vobj_get_parent(ctl) == win && IsEditorControl(ctl)) return ctl;
  }
  return NULL_WIN;
}

// A control of win, by its id or by its name in `windows`.
WINDOW NeedControl(Tcl_Interp* interp, const char* cmd, WINDOW win, Tcl_Obj* winname, Tcl_Obj* ctl) {
  int id = 0;
  WINDOW found = NULL_WIN;
  if (Tcl_GetIntFromObj(nullptr, ctl, &id) == TCL_OK) {
    found = ControlById(interp, win, Tcl_GetString(winname), id);
  } else {
    found = WindowNamed(interp, Tcl_GetString(ctl));
    if (found && (xvt_vobj_get_parent(found) != win || !IsScriptControl(found))) found = NULL_WIN;
  }
  if (!found)
    TclFail(interp, std::string(cmd) + ": no control " + Quoted(Tcl_GetString(ctl)) + " in window " +
                     Quoted(Tcl_GetString(winname)));
  return found;
}

bool CanTakeFocus(WINDOW win) {
  if (!xvt_vobj_is_valid(win) || !xvt_vobj_is_visible(win) || !xvt_vobj_is_enabled(win)) return false;
  WIN_TYPE t = xvt_vobj_get_type(win);
  return t != WC_TEXT && t != WC_GROUPBOX && t != WC_ICON;
}

std::string TitleOf(WINDOW win) {
  std::vector<char> buf(kTextLimit);
  if (!xvt_vobj_get_title(win, buf.data(), buf.size())) return {};
  return buf.data();
}

// ---------------------------------------------------------------------------
// The script window handler

struct ScriptWindow {
  char kind[8] = "TCLWIN";
  Tcl_Interp* interp = nullptr;
  std::string name;
  std::string type;    // "W_DOC" or "W_PLAIN"
  std::string parent;  // the name given as parent, even if it wasn't found
};

// Records of script windows that exist; a handler only uses data it finds
// here.
std::set<ScriptWindow*>& Records() {
  static std::set<ScriptWindow*> records;
  return records;
}

void EnterScriptWindow(Tcl_Interp* interp, const ScriptWindow& info, WINDOW win) {
  Tcl_Obj* base = StartingEntry(interp, info.name.c_str());
  std::string error;
  Tcl_Obj* entry = WithKeys(base,
                            {{"windowptr", Tcl_NewStringObj(PtrText(win).c_str(), -1)},
                             {"winname", Tcl_NewStringObj(info.name.c_str(), -1)},
                             {"type", Tcl_NewStringObj(info.type.c_str(), -1)},
                             {"kidlist", Tcl_NewObj()},
                             {"parent", Tcl_NewStringObj(info.parent.c_str(), -1)}},
                            &error);
  if (!entry) return;
  SetEntry(interp, info.name.c_str(), entry);
  Tcl_DecrRefCount(entry);
}

// Evaluates a command built as a list (each word stays one word whatever it
// holds) or a script taken from `windows`. Errors go to the user.
void Evaluate(Tcl_Interp* interp, Tcl_Obj* script) {
  Tcl_IncrRefCount(script);
  Tcl_Preserve(interp);
  if (Tcl_EvalObjEx(interp, script, TCL_EVAL_GLOBAL) == TCL_ERROR) {
    std::string result = Tcl_GetStringResult(interp);
    const char* info = Tcl_GetVar(interp, "errorInfo", TCL_GLOBAL_ONLY);
    Trace(kTraceFrame, kTraceHigh, "script window: %s\n", info ? info : result.c_str());
    xvt_dm_post_error("%s", result.c_str());
  }
  Tcl_Release(interp);
  Tcl_DecrRefCount(script);
}

Tcl_Obj* Command(std::initializer_list<std::string> words) {
  Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
  for (const std::string& w : words)
    Tcl_ListObjAppendElement(nullptr, list, Tcl_NewStringObj(w.data(), static_cast<int>(w.size())));
  return list;
}

// The name under which a control of window `name` is known.
std::string KidNamed(Tcl_Interp* interp, const char* name, WINDOW ctl) {
  std::string ptr = PtrText(ctl);
  for (const std::string& kid : Kids(interp, name)) {
    std::string p;
    if (EntryKey(Entry(interp, kid.c_str()), "windowptr", &p) && p == ptr) return kid;
  }
  return {};
}

// Enter runs the focused control's entercommand, or the window's when the
// control has none.
int RunEnterCommand(Tcl_Interp* interp, const std::string& name, WINDOW win) {
  WINDOW focus = xvt_scr_get_focus_vobj();
  std::string command;
  if (focus && xvt_vobj_get_parent(focus) == win) {
    std::string kid = KidNamed(interp, name.c_str(), focus);
    if (!kid.empty()) EntryKey(Entry(interp, kid.c_str()), "entercommand", &command);
  }
  if (command.empty()) EntryKey(Entry(interp, name.c_str()), "entercommand", &command);
  if (command.empty()) return 0;
  Evaluate(interp, Tcl_NewStringObj(command.data(), static_cast<int>(command.size())));
  return 1;
}

int ScriptEvent(Tcl_Interp* interp, const char* name_in, WINDOW win, EVENT* ev) {
  if (!interp || Tcl_InterpDeleted(interp) || !name_in || !ev) return 0;
  // The window, its record and the caller's name may all go during a script.
  const std::string name = name_in;
  switch (ev->type) {
    case E_CREATE: Evaluate(interp, Command({"winmapped", name})); return 1;
    case E_CHAR: {
      int ch = ev->v.chr.ch;
      if (ch == K_TAB || ch == K_BTAB) {
        bool back = ch == K_BTAB || ev->v.chr.shift;
        WINDOW focus = xvt_scr_get_focus_vobj();
        if (!focus || xvt_vobj_get_parent(focus) != win) focus = win;
        Evaluate(interp, Command({back ? "focus_prev_kid" : "focus_next_kid", name, PtrText(focus)}));
        return 1;
      }
      if (ch == K_ENTER) return RunEnterCommand(interp, name, win);
      return 0;
    }
    case E_CONTROL: {
      const CONTROL_INFO& ci = ev->v.ctl.ci;
      // An edit that only gained or lost the focus was not used.
      if ((ci.type == WC_EDIT || ci.type == WC_LISTEDIT || ci.type == WC_TEXTEDIT) && ci.v.edit.focus_change) return 0;
      Evaluate(interp, Command({"activate_control", name, std::to_string(ev->v.ctl.id)}));
      return 1;
    }
    case E_SIZE: {
      // A window whose controls follow its size says how in its sizecommand.
      std::string command;
      if (!EntryKey(Entry(interp, name.c_str()), "sizecommand", &command) || command.empty()) return 0;
      Evaluate(interp, Tcl_NewStringObj(command.data(), static_cast<int>(command.size())));
      return 1;
    }
    case E_DESTROY:
      Evaluate(interp, Command({"windestroyed", name}));
      Forget(interp, name.c_str(), win);
      return 1;
    default: return 0;
  }
}

long tclwin_eh(WINDOW win, EVENT* ev) {
  auto* info = reinterpret_cast<ScriptWindow*>(xvt_vobj_get_data(win));
  if (!info || !Records().count(info)) return 0;
  switch (ev->type) {
    case E_CREATE:
      if (!Tcl_InterpDeleted(info->interp)) EnterScriptWindow(info->interp, *info, win);
      ScriptEvent(info->interp, info->name.c_str(), win, ev);
      break;
    case E_UPDATE: xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW); break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    case E_DESTROY:
      ScriptEvent(info->interp, info->name.c_str(), win, ev);
      xvt_vobj_set_data(win, 0);
      Records().erase(info);
      Tcl_Release(info->interp);
      delete info;
      break;
    default: ScriptEvent(info->interp, info->name.c_str(), win, ev); break;
  }
  return 0;
}

}  // namespace

int TclScriptWindowEvent(const char* name, WINDOW win, EVENT* ev) { return ScriptEvent(task_interp, name, win, ev); }

namespace {

// ---------------------------------------------------------------------------
// Creating windows and controls

// _xvt_create_window type rect title parent flags name
int CreateWindowCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_create_window";
  if (objc != 7) return TclWrongArgs(interp, cmd);
  const Word* type = FindWord(kWindowTypes, Tcl_GetString(objv[1]));
  if (!type) return TclFail(interp, std::string(cmd) + ": unknown window type " + Quoted(Tcl_GetString(objv[1])));
  RCT rct;
  unsigned long flags = 0;
  if (!ParseRect(interp, cmd, objv[2], &rct) || !ParseFlags(interp, cmd, objv[5], kWindowFlags, &flags))
    return TCL_ERROR;
  const char* name = Tcl_GetString(objv[6]);
  if (!*name) return TclFail(interp, std::string(cmd) + ": a window needs a name");
  if (InUse(interp, name)) return TclFail(interp, std::string(cmd) + ": the name " + Quoted(name) + " is in use");
  // A parent the scripts don't know makes a top-level window.
  WINDOW parent = WindowNamed(interp, Tcl_GetString(objv[4]));
  if (!parent) parent = SCREEN_WIN;
  auto* info = new ScriptWindow;
  // The window may outlive the interpreter; its handler then stays quiet.
  Tcl_Preserve(interp);
  info->interp = interp;
  info->name = name;
  info->type = type->word;
  info->parent = Tcl_GetString(objv[4]);
  Records().insert(info);
  WINDOW win = xvt_win_create(static_cast<WIN_TYPE>(type->value), &rct, Tcl_GetString(objv[3]), kTaskMenuBar, parent,
                              flags, EM_ALL, tclwin_eh, reinterpret_cast<intptr_t>(info));
  if (!win) {
    // Either it never came to be, or its script closed it at once; in the
    // second case its E_DESTROY has already freed the record.
    if (Records().erase(info)) {
      Tcl_Release(interp);
      delete info;
    }
    return TclFail(interp, std::string(cmd) + ": could not create window " + Quoted(name));
  }
  return Done(interp, PtrText(win));
}

// _xvt_create_control type rect title parent flags name id
int CreateControlCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_create_control";
  if (objc != 8) return TclWrongArgs(interp, cmd);
  const char* type_word = Tcl_GetString(objv[1]);
  const Word* type = FindWord(kControlTypes, type_word);
  if (!type) return TclFail(interp, std::string(cmd) + ": unknown control type " + Quoted(type_word));
  RCT rct;
  unsigned long flags = 0;
  if (!ParseRect(interp, cmd, objv[2], &rct) || !ParseFlags(interp, cmd, objv[5], kControlFlags, &flags))
    return TCL_ERROR;
  WINDOW parent = NeedWindow(interp, cmd, objv[4]);
  if (!parent) return TCL_ERROR;
  if (IsScriptControl(parent))
    return TclFail(interp, std::string(cmd) + ": " + Quoted(Tcl_GetString(objv[4])) + " is a control, not a window");
  const char* parent_name = Tcl_GetString(objv[4]);
  const char* name = Tcl_GetString(objv[6]);
  if (!*name) return TclFail(interp, std::string(cmd) + ": a control needs a name");
  if (InUse(interp, name)) return TclFail(interp, std::string(cmd) + ": the name " + Quoted(name) + " is in use");
  int id = 0;
  if (Tcl_GetIntFromObj(nullptr, objv[7], &id) != TCL_OK || id < 1 || id > 32767)
    return TclFail(interp, std::string(cmd) + ": bad control id " + Quoted(Tcl_GetString(objv[7])) +
                            ": must be a number from 1 to 32767");
  // activate_control finds a control by its id: two alike would be confused.
  if (ControlById(interp, parent, Tcl_GetString(objv[4]), id))
    return TclFail(interp, std::string(cmd) + ": window " + Quoted(parent_name) + " already has a control with id " +
                            std::to_string(id));
  std::string error;
  Tcl_Obj* parent_entry = WithKid(interp, parent_name, name, true, &error);
  if (!parent_entry) return TclFail(interp, std::string(cmd) + ": " + error);
  WINDOW ctl = NULL_WIN;
  if (type->value == TXEDIT || type->value == TXEDITLINE) {
    ctl = txedit_create(static_cast<TXEDIT_KIND>(type->value), parent, &rct, id, flags);
    if (!ctl) {
      Tcl_DecrRefCount(parent_entry);
      return TclFail(interp, kNoWrapper);
    }
    // In a form, Tab moves between fields even out of a multi-line one.
    txedit_set_tab_leaves(ctl, true);
    txedit_set_text(ctl, Tcl_GetString(objv[3]));
  } else {
    ctl = xvt_ctl_create(static_cast<WIN_TYPE>(type->value), &rct, Tcl_GetString(objv[3]), parent, flags, id);
  }
  if (!ctl) {
    Tcl_DecrRefCount(parent_entry);
    return TclFail(interp, std::string(cmd) + ": could not create control " + Quoted(name));
  }
  Tcl_Obj* base = StartingEntry(interp, name);
  std::vector<std::pair<const char*, Tcl_Obj*>> keys = {
      {"windowptr", Tcl_NewStringObj(PtrText(ctl).c_str(), -1)},
      {"winname", Tcl_NewStringObj(name, -1)},
      {"type", Tcl_NewStringObj(type->word, -1)},
      {"kidlist", Tcl_NewObj()},
      {"id", Tcl_NewIntObj(id)},
      {"parent", Tcl_NewStringObj(parent_name, -1)},
  };
  if (!HasKey(base, "command")) keys.push_back({"command", Tcl_NewObj()});
  if (!HasKey(base, "entercommand")) keys.push_back({"entercommand", Tcl_NewObj()});
  Tcl_Obj* entry = WithKeys(base, keys, &error);
  if (!entry) {
    xvt_vobj_destroy(ctl);
    Tcl_DecrRefCount(parent_entry);
    return TclFail(interp, std::string(cmd) + ": " + error);
  }
  SetEntry(interp, parent_name, parent_entry);
  Tcl_DecrRefCount(parent_entry);
  SetEntry(interp, name, entry);
  Tcl_DecrRefCount(entry);
  return Done(interp, PtrText(ctl));
}

// ---------------------------------------------------------------------------
// Control state

// _xvt_get_ctl_title window control
int GetCtlTitleCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_get_ctl_title";
  if (objc != 3) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  WINDOW ctl = win ? NeedControl(interp, cmd, win, objv[1], objv[2]) : NULL_WIN;
  if (!ctl) return TCL_ERROR;
  return Done(interp, TitleOf(ctl));
}

// _xvt_set_ctl_title window control text
int SetCtlTitleCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_set_ctl_title";
  if (objc != 4) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  WINDOW ctl = win ? NeedControl(interp, cmd, win, objv[1], objv[2]) : NULL_WIN;
  if (!ctl) return TCL_ERROR;
  xvt_vobj_set_title(ctl, Tcl_GetString(objv[3]));
  Tcl_ResetResult(interp);
  return TCL_OK;
}

WINDOW NeedTyped(Tcl_Interp* interp, const char* cmd, WINDOW win, Tcl_Obj* winname, Tcl_Obj* id, WIN_TYPE type,
                 const char* what) {
  WINDOW ctl = NeedControl(interp, cmd, win, winname, id);
  if (ctl && xvt_vobj_get_type(ctl) != type) {
    TclFail(interp, std::string(cmd) + ": control " + Quoted(Tcl_GetString(id)) + " is not " + what);
    return NULL_WIN;
  }
  return ctl;
}

// _xvt_checkbox FLIP|SET|GET window id ?value?
int CheckboxCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_checkbox";
  if (objc < 4 || objc > 5) return TclWrongArgs(interp, cmd);
  const char* mode = Tcl_GetString(objv[1]);
  bool set = !std::strcmp(mode, "SET");
  if (!set && std::strcmp(mode, "FLIP") && std::strcmp(mode, "GET"))
    return TclFail(interp, std::string(cmd) + ": unknown mode " + Quoted(mode) + ": must be FLIP, SET or GET");
  if (set != (objc == 5)) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[2]);
  WINDOW ctl = win ? NeedTyped(interp, cmd, win, objv[2], objv[3], WC_CHECKBOX, "a check box") : NULL_WIN;
  if (!ctl) return TCL_ERROR;
  bool value = xvt_ctl_is_checked(ctl);
  if (set && !ParseBool(interp, objv[4], &value)) return TCL_ERROR;
  if (!std::strcmp(mode, "FLIP")) value = !value;
  if (std::strcmp(mode, "GET")) xvt_ctl_set_checked(ctl, value);
  return DoneInt(interp, xvt_ctl_is_checked(ctl) ? 1 : 0);
}

// _xvt_radiobutton SET window {id other...}   checks the first, clears the rest
// _xvt_radiobutton GET window {id...}         the id of the checked one, or 0
int RadioCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_radiobutton";
  if (objc != 4) return TclWrongArgs(interp, cmd);
  const char* mode = Tcl_GetString(objv[1]);
  if (std::strcmp(mode, "SET") && std::strcmp(mode, "GET"))
    return TclFail(interp, std::string(cmd) + ": unknown mode " + Quoted(mode) + ": must be SET or GET");
  WINDOW win = NeedWindow(interp, cmd, objv[2]);
  if (!win) return TCL_ERROR;
  int count = 0;
  Tcl_Obj** ids = nullptr;
  if (Tcl_ListObjGetElements(interp, objv[3], &count, &ids) != TCL_OK) return TCL_ERROR;
  if (count == 0) return TclFail(interp, std::string(cmd) + ": no radio buttons given");
  std::vector<WINDOW> group;
  for (int i = 0; i < count; ++i) {
    WINDOW b = NeedTyped(interp, cmd, win, objv[2], ids[i], WC_RADIOBUTTON, "a radio button");
    if (!b) return TCL_ERROR;
    group.push_back(b);
  }
  if (!std::strcmp(mode, "SET")) {
    xvt_ctl_check_radio_button(group[0], group.data(), static_cast<int>(group.size()));
    return DoneInt(interp, xvt_ctl_get_id(group[0]));
  }
  for (WINDOW b : group)
    if (xvt_ctl_is_checked(b)) return DoneInt(interp, xvt_ctl_get_id(b));
  return DoneInt(interp, 0);
}

bool IsListType(WIN_TYPE t) { return t == WC_LBOX || t == WC_LISTBUTTON || t == WC_LISTEDIT; }

bool ListIndex(Tcl_Interp* interp, WINDOW ctl, Tcl_Obj* obj, int* index) {
  if (Tcl_GetIntFromObj(nullptr, obj, index) != TCL_OK || *index < 0 || *index >= xvt_list_count_all(ctl)) {
    TclFail(interp, "listboxcmd: no item " + Quoted(Tcl_GetString(obj)));
    return false;
  }
  return true;
}

// _xvt_list window id subcommand ?arg...?
//   add text ?index?   clear   count   delete index   item index
//   selected (the selected indexes)   select index ?on?   suspend   resume
int ListCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_list";
  if (objc < 4) return TclWrongArgs(interp, cmd);
  WINDOW win = WindowNamed(interp, Tcl_GetString(objv[1]));
  int id = 0;
  WINDOW ctl = win && Tcl_GetIntFromObj(nullptr, objv[2], &id) == TCL_OK ? xvt_win_get_ctl(win, id) : NULL_WIN;
  if (!ctl || !IsListType(xvt_vobj_get_type(ctl))) return TclFail(interp, "listboxcmd: bad window");
  std::string sub = Tcl_GetString(objv[3]);
  int extra = objc - 4;
  int index = 0;
  if (sub == "add") {
    if (extra < 1 || extra > 2) return TclWrongArgs(interp, cmd);
    if (extra == 2 && Tcl_GetIntFromObj(interp, objv[5], &index) != TCL_OK) return TCL_ERROR;
    if (!xvt_list_add(ctl, extra == 2 ? index : -1, Tcl_GetString(objv[4])))
      return TclFail(interp, "listboxcmd: could not add the item");
  } else if (sub == "clear" || sub == "suspend" || sub == "resume") {
    if (extra != 0) return TclWrongArgs(interp, cmd);
    if (sub == "clear") xvt_list_clear(ctl);
    else if (sub == "suspend") xvt_list_suspend(ctl);
    else xvt_list_resume(ctl);
  } else if (sub == "count") {
    if (extra != 0) return TclWrongArgs(interp, cmd);
    return DoneInt(interp, xvt_list_count_all(ctl));
  } else if (sub == "delete") {
    if (extra != 1) return TclWrongArgs(interp, cmd);
    if (!ListIndex(interp, ctl, objv[4], &index)) return TCL_ERROR;
    xvt_list_rem(ctl, index);
  } else if (sub == "item") {
    if (extra != 1) return TclWrongArgs(interp, cmd);
    if (!ListIndex(interp, ctl, objv[4], &index)) return TCL_ERROR;
    std::vector<char> buf(kTextLimit);
    if (!xvt_list_get_elt(ctl, index, buf.data(), buf.size())) return TclFail(interp, "listboxcmd: could not read the item");
    return Done(interp, buf.data());
  } else if (sub == "selected") {
    if (extra != 0) return TclWrongArgs(interp, cmd);
    Tcl_Obj* out = Tcl_NewListObj(0, nullptr);
    int n = xvt_list_count_all(ctl);
    for (int i = 0; i < n; ++i)
      if (xvt_list_is_sel(ctl, i)) Tcl_ListObjAppendElement(nullptr, out, Tcl_NewIntObj(i));
    Tcl_SetObjResult(interp, out);
    return TCL_OK;
  } else if (sub == "select") {
    if (extra < 1 || extra > 2) return TclWrongArgs(interp, cmd);
    bool on = true;
    if (!ListIndex(interp, ctl, objv[4], &index) || (extra == 2 && !ParseBool(interp, objv[5], &on)))
      return TCL_ERROR;
    xvt_list_set_sel(ctl, index, on);
  } else {
    return TclFail(interp, "listboxcmd: unknown subcommand " + Quoted(sub.c_str()) +
                            ": must be add, clear, count, delete, item, selected, select, suspend or resume");
  }
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// ---------------------------------------------------------------------------
// Window operations

// _xvt_show_win window ?visible?
int ShowWinCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_show_win";
  if (objc < 2 || objc > 3) return TclWrongArgs(interp, cmd);
  bool on = true;
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win || (objc == 3 && !ParseBool(interp, objv[2], &on))) return TCL_ERROR;
  xvt_vobj_set_visible(win, on);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_close_win window: a script's window or one of its controls. The
// windows the program made (type external) are closed by the program.
int CloseWinCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_close_win";
  if (objc != 2) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win) return TCL_ERROR;
  const char* name = Tcl_GetString(objv[1]);
  Tcl_Obj* entry = Entry(interp, name);
  std::string type;
  if (win == TASK_WIN || win == SCREEN_WIN || (EntryKey(entry, "type", &type) && type == "external"))
    return TclFail(interp, std::string(cmd) + ": window " + Quoted(name) + " belongs to the program");
  if (IsScriptControl(win)) {
    // Controls get no events of their own: their entries go here.
    std::string parent, error;
    bool has_parent = EntryKey(entry, "parent", &parent);
    xvt_vobj_destroy(win);
    if (has_parent && Entry(interp, parent.c_str())) {
      if (Tcl_Obj* updated = WithKid(interp, parent.c_str(), name, false, &error)) {
        SetEntry(interp, parent.c_str(), updated);
        Tcl_DecrRefCount(updated);
      }
    }
    Tcl_UnsetVar2(interp, kWindows, name, TCL_GLOBAL_ONLY);
  } else {
    xvt_vobj_destroy(win);
  }
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_enable_win window ?enabled?
int EnableWinCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_enable_win";
  if (objc < 2 || objc > 3) return TclWrongArgs(interp, cmd);
  bool on = true;
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win || (objc == 3 && !ParseBool(interp, objv[2], &on))) return TCL_ERROR;
  xvt_vobj_set_enabled(win, on);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_enable_ctl window control ?enabled?
int EnableCtlCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_enable_ctl";
  if (objc < 3 || objc > 4) return TclWrongArgs(interp, cmd);
  bool on = true;
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  WINDOW ctl = win ? NeedControl(interp, cmd, win, objv[1], objv[2]) : NULL_WIN;
  if (!ctl || (objc == 4 && !ParseBool(interp, objv[3], &on))) return TCL_ERROR;
  xvt_vobj_set_enabled(ctl, on);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_select_text window control ?start end?
// The toolkit has no text selection yet: the edit gets the focus, which is
// what the user needs to start typing in it.
int SelectTextCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_select_text";
  if (objc != 3 && objc != 5) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  WINDOW ctl = win ? NeedControl(interp, cmd, win, objv[1], objv[2]) : NULL_WIN;
  if (!ctl) return TCL_ERROR;
  if (CanTakeFocus(ctl)) xvt_scr_set_focus_vobj(ctl);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_get_client_rect window -> "left top right bottom"
int GetClientRectCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_get_client_rect";
  if (objc != 2) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win) return TCL_ERROR;
  RCT r{};
  xvt_vobj_get_client_rect(win, &r);
  char text[64];
  std::snprintf(text, sizeof text, "%d %d %d %d", r.left, r.top, r.right, r.bottom);
  return Done(interp, text);
}

// _xvt_focus window ?control? -> 1 when it took the focus, 0 when it can't
// (hidden, disabled, or a static text or group box).
int FocusCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_focus";
  if (objc < 2 || objc > 3) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (win && objc == 3) win = NeedControl(interp, cmd, win, objv[1], objv[2]);
  if (!win) return TCL_ERROR;
  if (!CanTakeFocus(win)) return DoneInt(interp, 0);
  xvt_scr_set_focus_vobj(win);
  // Text already in the field is selected, as in dialogs: typing replaces
  // it, and an arrow key keeps it, instead of typing in front of it.
  if (xvt_vobj_get_type(win) == WC_EDIT) xvt_ctl_set_text_sel(win, 0, INT_MAX);
  txedit_caret_to_end(win);
  return DoneInt(interp, 1);
}

// _xvt_move window ?control? rect: a window or control gets a new place,
// in its parent's coordinates.
int MoveCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_move";
  if (objc < 3 || objc > 4) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (win && objc == 4) win = NeedControl(interp, cmd, win, objv[1], objv[2]);
  RCT rct{};
  if (!win || !ParseRect(interp, cmd, objv[objc - 1], &rct)) return TCL_ERROR;
  xvt_vobj_move(win, &rct);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _xvt_raise window
int RaiseCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_xvt_raise";
  if (objc != 2) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win) return TCL_ERROR;
  xvt_vobj_raise(win);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// _container_next_focus window
// A window inside a container (a form in a compose window) hands the focus
// on as if Tab had been pressed in the container: the container's handler
// knows its own panes. 1 when there was a container to ask.
int ContainerNextFocusCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "_container_next_focus";
  if (objc != 2) return TclWrongArgs(interp, cmd);
  WINDOW win = NeedWindow(interp, cmd, objv[1]);
  if (!win) return TCL_ERROR;
  WINDOW container = xvt_vobj_get_parent(win);
  WINDOW mdi = reinterpret_cast<WINDOW>(xvt_vobj_get_attr(NULL_WIN, ATTR_MDI_CLIENT_WIN));
  if (!container || container == SCREEN_WIN || container == TASK_WIN || container == mdi) return DoneInt(interp, 0);
  EVENT ev;
  std::memset(&ev, 0, sizeof ev);
  ev.type = E_CHAR;
  ev.v.chr.ch = K_TAB;
  xvt_win_dispatch_event(container, &ev);
  return DoneInt(interp, 1);
}

// _xvt_editfont -> "family size" of the fixed-pitch font editor fields
// draw with, so that a script can size them to their text.
int EditFontCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const[]) {
  if (objc != 1) return TclWrongArgs(interp, "_xvt_editfont");
  return Done(interp, std::string(kEdisFontFamily) + " " + std::to_string(kEdisFontSize));
}

// txeditctl name get|set ?text?
int TxEditCtlCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "txeditctl";
  if (objc < 3 || objc > 4) return TclWrongArgs(interp, cmd);
  const char* sub = Tcl_GetString(objv[2]);
  const bool set = !std::strcmp(sub, "set");
  if (!set && std::strcmp(sub, "get")) return TclFail(interp, "unknown txeditctl subcommand");
  if (set != (objc == 4)) return TclWrongArgs(interp, cmd);
  const char* name = Tcl_GetString(objv[1]);
  WINDOW ctl = WindowNamed(interp, name);
  if (!ctl || !IsEditorControl(ctl))
    return TclFail(interp, std::string(cmd) + ": " + Quoted(name) + " is not an editor control");
  if (!set) return Done(interp, txedit_get_text(ctl));
  if (txedit_set_text(ctl, Tcl_GetString(objv[3])) != RC_OK)
    return TclFail(interp, std::string(cmd) + ": could not set the text of " + Quoted(name));
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// ---------------------------------------------------------------------------
// Other commands

// get_filename prompt ?initial? -> the chosen path, or "" when cancelled
int GetFilenameCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc < 2 || objc > 3) return TclWrongArgs(interp, "get_filename");
  char path[4096];
  std::snprintf(path, sizeof path, "%s", objc == 3 ? Tcl_GetString(objv[2]) : "");
  if (!xvt_dm_post_file_open(Tcl_GetString(objv[1]), path, sizeof path)) path[0] = '\0';
  return Done(interp, path);
}

// ideal_height kind
int IdealHeightCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc != 2) return TclWrongArgs(interp, "ideal_height");
  static const Word kKinds[] = {{"label", kIdealMarginLabel},   {"checkbox", kIdealMarginCheck},
                                {"radiobutton", kIdealMarginCheck}, {"edit", kIdealMarginEdit},
                                {"button", kIdealMarginButton}};
  const Word* kind = FindWord(kKinds, Tcl_GetString(objv[1]));
  if (!kind)
    return TclFail(interp, "ideal_height: unknown kind " + Quoted(Tcl_GetString(objv[1])) +
                            ": must be button, checkbox, edit, label or radiobutton");
  int leading = 0, ascent = 0, descent = 0;
  xvt_dwin_get_font_metrics(NULL_WIN, &leading, &ascent, &descent);
  return DoneInt(interp, leading + ascent + descent + kind->value);
}

// change_debug_level level subsystem
int ChangeDebugLevelCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = "change_debug_level";
  if (objc != 3) return TclWrongArgs(interp, cmd);
  const char* level = Tcl_GetString(objv[1]);
  if (TraceLevelFromWord(level) < 0)
    return TclFail(interp, std::string(cmd) + ": unknown level " + Quoted(level) +
                            ": must be none, critical, high, medium, low or all");
  const char* subsystem = Tcl_GetString(objv[2]);
  char* end = nullptr;
  errno = 0;
  unsigned long mask = std::strtoul(subsystem, &end, 10);
  if (!*subsystem || *end || errno || mask > 0xFFFFFFFFul || subsystem[0] == '-')
    return TclFail(interp, std::string(cmd) + ": bad subsystem " + Quoted(subsystem) + ": must be a number");
  if (!Opt_AssignString("Debugging.Level", level, kOptSession, 0) ||
      !Opt_AssignString("Debugging.Subsystem", subsystem, kOptSession, 0))
    return TclFail(interp, std::string(cmd) + ": could not set the debugging options");
  Tcl_ResetResult(interp);
  return TCL_OK;
}

struct CommandDef {
  const char* name;
  Tcl_ObjCmdProc* proc;
};

const CommandDef kCommands[] = {
    {"_xvt_create_window", CreateWindowCmd},
    {"_xvt_create_control", CreateControlCmd},
    {"_xvt_get_ctl_title", GetCtlTitleCmd},
    {"_xvt_set_ctl_title", SetCtlTitleCmd},
    {"_xvt_checkbox", CheckboxCmd},
    {"_xvt_radiobutton", RadioCmd},
    {"_xvt_list", ListCmd},
    {"_xvt_show_win", ShowWinCmd},
    {"_xvt_close_win", CloseWinCmd},
    {"_xvt_enable_win", EnableWinCmd},
    {"_xvt_enable_ctl", EnableCtlCmd},
    {"_xvt_select_text", SelectTextCmd},
    {"_xvt_get_client_rect", GetClientRectCmd},
    {"_xvt_focus", FocusCmd},
    {"_xvt_move", MoveCmd},
    {"_xvt_raise", RaiseCmd},
    {"_container_next_focus", ContainerNextFocusCmd},
    {"txeditctl", TxEditCtlCmd},
    {"_xvt_editfont", EditFontCmd},
    {"get_filename", GetFilenameCmd},
    {"ideal_height", IdealHeightCmd},
    {"change_debug_level", ChangeDebugLevelCmd},
};

}  // namespace

void TclRegisterWindowCommands(Tcl_Interp* interp) {
  if (!interp) return;
  for (const CommandDef& c : kCommands) Tcl_CreateObjCommand(interp, c.name, c.proc, nullptr, nullptr);
}
