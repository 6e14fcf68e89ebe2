#include "src/base/keyed_list.h"
#include "src/base/tcl_interp.h"

#include <string>
#include <vector>

namespace {

// Error texts keep to the words scripts already test for; what follows the
// fixed part names the field or shows the start of the bad data.
constexpr const char* kEmptyEntry = "invalid keyed list format: list contains an empty field entry";
constexpr const char* kEmptyName = "invalid keyed list format: list contains an empty field name";
constexpr const char* kNoValue = "field name scoping: no value associated with ";
constexpr const char* kInconsistent = "invalid keyed list format or inconsistent ";
constexpr const char* kTrailing = "trailing data following value in field: \"";
constexpr const char* kBadFormat = "invalid keyed list format: ";
constexpr const char* kNullKey = "null key not allowed";

// How much of a bad value or key an error message shows.
constexpr size_t kShown = 60;

std::string Shown(std::string_view text) {
  if (text.size() <= kShown) return std::string(text);
  return std::string(text.substr(0, kShown)) + "...";
}

std::string Quoted(std::string_view text) { return "\"" + Shown(text) + "\""; }

std::string ShownObj(Tcl_Obj* obj) {
  int len = 0;
  const char* s = Tcl_GetStringFromObj(obj, &len);
  return Shown(std::string_view(s, static_cast<size_t>(len)));
}

std::string_view View(Tcl_Obj* obj) {
  int len = 0;
  const char* s = Tcl_GetStringFromObj(obj, &len);
  return std::string_view(s, static_cast<size_t>(len));
}

struct Field {
  Tcl_Obj* entry;
  std::string_view key;  // points into the entry's key object
  Tcl_Obj* value;
};

// Splits one level into its fields. The nested values are not looked at:
// only the levels a key walks through have to be well formed.
bool ParseFields(Tcl_Obj* list, std::vector<Field>* fields, std::string* error) {
  int count = 0;
  Tcl_Obj** entries = nullptr;
  if (Tcl_ListObjGetElements(nullptr, list, &count, &entries) != TCL_OK) {
    *error = kBadFormat + ShownObj(list);
    return false;
  }
  if (count > kKeylMaxFields) {
    *error = "keyed list has more than " + std::to_string(kKeylMaxFields) + " fields";
    return false;
  }
  fields->clear();
  fields->reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    int parts = 0;
    Tcl_Obj** words = nullptr;
    if (Tcl_ListObjGetElements(nullptr, entries[i], &parts, &words) != TCL_OK) {
      *error = kBadFormat + ShownObj(entries[i]);
      return false;
    }
    if (parts == 0) {
      *error = kEmptyEntry;
      return false;
    }
    std::string_view key = View(words[0]);
    if (key.empty()) {
      *error = kEmptyName;
      return false;
    }
    if (parts == 1) {
      *error = kNoValue + Quoted(key);
      return false;
    }
    if (parts > 2) {
      *error = kTrailing + Shown(key) + "\"";
      return false;
    }
    fields->push_back(Field{entries[i], key, words[1]});
  }
  return true;
}

int FindField(const std::vector<Field>& fields, std::string_view key) {
  for (size_t i = 0; i < fields.size(); ++i)
    if (fields[i].key == key) return static_cast<int>(i);
  return -1;
}

// Splits a scoped key into its parts, within the limits.
bool SplitKey(std::string_view key, std::vector<std::string_view>* parts, std::string* error) {
  if (key.size() > kKeylMaxKeyLength) {
    *error = "keyed list key is longer than " + std::to_string(kKeylMaxKeyLength) + " bytes";
    return false;
  }
  parts->clear();
  size_t start = 0;
  for (;;) {
    size_t dot = key.find('.', start);
    std::string_view part = key.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
    if (part.empty()) {
      *error = kNullKey;
      return false;
    }
    if (static_cast<int>(parts->size()) == kKeylMaxDepth) {
      *error = "keyed list key has more than " + std::to_string(kKeylMaxDepth) + " levels";
      return false;
    }
    parts->push_back(part);
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

std::string Scope(const std::vector<std::string_view>& parts, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    if (i) out += '.';
    out += parts[i];
  }
  return out;
}

// Parses the level reached after `depth` parts of the key. Below the top
// the value was meant to be a keyed list by the key's own scoping, so a
// failure there says which field holds something else.
bool ParseLevel(Tcl_Obj* list, const std::vector<std::string_view>& parts, size_t depth, std::vector<Field>* fields,
                std::string* error) {
  if (ParseFields(list, fields, error)) return true;
  if (depth > 0)
    *error = std::string(kInconsistent) + "field name scoping: " + Quoted(Scope(parts, depth)) +
             " does not hold a keyed list";
  return false;
}

Tcl_Obj* NewField(std::string_view key, Tcl_Obj* value) {
  Tcl_Obj* pair[2] = {Tcl_NewStringObj(key.data(), static_cast<int>(key.size())), value};
  return Tcl_NewListObj(2, pair);
}

// A copy of the level with field `at` replaced by `entry` (appended when at
// is -1). The other entries are shared, not copied.
Tcl_Obj* Rebuild(const std::vector<Field>& fields, int at, Tcl_Obj* entry) {
  std::vector<Tcl_Obj*> entries;
  entries.reserve(fields.size() + 1);
  for (size_t i = 0; i < fields.size(); ++i)
    entries.push_back(static_cast<int>(i) == at ? entry : fields[i].entry);
  if (at < 0) entries.push_back(entry);
  return Tcl_NewListObj(static_cast<int>(entries.size()), entries.data());
}

KeylStatus SetIn(Tcl_Obj* list, const std::vector<std::string_view>& parts, size_t depth, Tcl_Obj* value,
                 Tcl_Obj** result, std::string* error) {
  std::vector<Field> fields;
  if (!ParseLevel(list, parts, depth, &fields, error)) return kKeylError;
  int at = FindField(fields, parts[depth]);
  Tcl_Obj* new_value = value;
  if (depth + 1 < parts.size()) {
    Tcl_Obj* below = at >= 0 ? fields[static_cast<size_t>(at)].value : Tcl_NewObj();
    Tcl_IncrRefCount(below);
    KeylStatus st = SetIn(below, parts, depth + 1, value, &new_value, error);
    Tcl_DecrRefCount(below);
    if (st != kKeylFound) return st;
  }
  *result = Rebuild(fields, at, NewField(parts[depth], new_value));
  return kKeylFound;
}

KeylStatus DelIn(Tcl_Obj* list, const std::vector<std::string_view>& parts, size_t depth, Tcl_Obj** result,
                 std::string* error) {
  std::vector<Field> fields;
  if (!ParseLevel(list, parts, depth, &fields, error)) return kKeylError;
  if (depth + 1 == parts.size()) {
    std::vector<Tcl_Obj*> kept;
    for (const Field& f : fields)
      if (f.key != parts[depth]) kept.push_back(f.entry);
    if (kept.size() == fields.size()) return kKeylNotFound;
    *result = Tcl_NewListObj(static_cast<int>(kept.size()), kept.data());
    return kKeylFound;
  }
  int at = FindField(fields, parts[depth]);
  if (at < 0) return kKeylNotFound;
  Tcl_Obj* new_value = nullptr;
  KeylStatus st = DelIn(fields[static_cast<size_t>(at)].value, parts, depth + 1, &new_value, error);
  if (st != kKeylFound) return st;
  *result = Rebuild(fields, at, NewField(parts[depth], new_value));
  return kKeylFound;
}

}  // namespace

std::string KeylNotFoundText(std::string_view key) { return "key " + Quoted(key) + " not found in keyed list"; }

KeylStatus KeylGet(Tcl_Obj* list, std::string_view key, Tcl_Obj** value, std::string* error) {
  std::vector<std::string_view> parts;
  if (!list || !SplitKey(key, &parts, error)) return kKeylError;
  Tcl_Obj* level = list;
  std::vector<Field> fields;
  for (size_t depth = 0; depth < parts.size(); ++depth) {
    if (!ParseLevel(level, parts, depth, &fields, error)) return kKeylError;
    int at = FindField(fields, parts[depth]);
    if (at < 0) return kKeylNotFound;
    level = fields[static_cast<size_t>(at)].value;
  }
  *value = level;
  return kKeylFound;
}

KeylStatus KeylKeys(Tcl_Obj* list, std::string_view key, Tcl_Obj** keys, std::string* error) {
  if (!list) return kKeylError;
  Tcl_Obj* level = list;
  std::vector<std::string_view> parts;
  size_t depth = 0;
  if (!key.empty()) {
    KeylStatus st = KeylGet(list, key, &level, error);
    if (st != kKeylFound) return st;
    SplitKey(key, &parts, error);
    depth = parts.size();
  }
  std::vector<Field> fields;
  if (!ParseLevel(level, parts, depth, &fields, error)) return kKeylError;
  Tcl_Obj* out = Tcl_NewListObj(0, nullptr);
  for (const Field& f : fields)
    Tcl_ListObjAppendElement(nullptr, out, Tcl_NewStringObj(f.key.data(), static_cast<int>(f.key.size())));
  *keys = out;
  return kKeylFound;
}

KeylStatus KeylSet(Tcl_Obj* list, std::string_view key, Tcl_Obj* value, Tcl_Obj** result, std::string* error) {
  std::vector<std::string_view> parts;
  if (!list || !value || !SplitKey(key, &parts, error)) return kKeylError;
  // The value may be a fresh object: it is only kept when the set works.
  Tcl_IncrRefCount(value);
  KeylStatus st = SetIn(list, parts, 0, value, result, error);
  Tcl_DecrRefCount(value);
  return st;
}

KeylStatus KeylDel(Tcl_Obj* list, std::string_view key, Tcl_Obj** result, std::string* error) {
  std::vector<std::string_view> parts;
  if (!list || !SplitKey(key, &parts, error)) return kKeylError;
  return DelIn(list, parts, 0, result, error);
}

// ---------------------------------------------------------------------------
// The commands.

namespace {



// The value of a list variable; a variable that doesn't exist reads as an
// empty list, so that keylset can start one.
Tcl_Obj* ListVar(Tcl_Interp* interp, Tcl_Obj* name) {
  Tcl_Obj* value = Tcl_ObjGetVar2(interp, name, nullptr, 0);
  return value ? value : Tcl_NewObj();
}

// keylget list key ?var?
// With a variable the answer is 1 (stored) or 0 (no such key, the variable
// is left alone); an empty variable name only tests for the key. Without a
// variable a missing key is an error.
int KeylGetCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc < 3 || objc > 4) return TclWrongArgs(interp, "keylget");
  Tcl_Obj* value = nullptr;
  std::string error;
  std::string_view key = View(objv[2]);
  KeylStatus st = KeylGet(objv[1], key, &value, &error);
  if (st == kKeylError) return TclFail(interp, error);
  if (objc == 3) {
    if (st == kKeylNotFound) return TclFail(interp, KeylNotFoundText(key));
    Tcl_SetObjResult(interp, value);
    return TCL_OK;
  }
  if (st == kKeylFound && !View(objv[3]).empty() &&
      !Tcl_ObjSetVar2(interp, objv[3], nullptr, value, TCL_LEAVE_ERR_MSG))
    return TCL_ERROR;
  Tcl_SetObjResult(interp, Tcl_NewIntObj(st == kKeylFound ? 1 : 0));
  return TCL_OK;
}

// keylkeys list ?key?
int KeylKeysCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc < 2 || objc > 3) return TclWrongArgs(interp, "keylkeys");
  std::string_view key = objc == 3 ? View(objv[2]) : std::string_view();
  if (objc == 3 && key.empty()) return TclFail(interp, kNullKey);
  Tcl_Obj* keys = nullptr;
  std::string error;
  KeylStatus st = KeylKeys(objv[1], key, &keys, &error);
  if (st == kKeylError) return TclFail(interp, error);
  if (st == kKeylNotFound) return TclFail(interp, KeylNotFoundText(key));
  Tcl_SetObjResult(interp, keys);
  return TCL_OK;
}

// keylset listvar key value ?key value ...?
// All pairs are applied to a copy; the variable changes only when every
// one of them worked.
int KeylSetCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc < 4 || objc % 2 != 0) return TclWrongArgs(interp, "keylset");
  Tcl_Obj* list = ListVar(interp, objv[1]);
  Tcl_IncrRefCount(list);
  for (int i = 2; i < objc; i += 2) {
    Tcl_Obj* next = nullptr;
    std::string error;
    if (KeylSet(list, View(objv[i]), objv[i + 1], &next, &error) != kKeylFound) {
      Tcl_DecrRefCount(list);
      return TclFail(interp, error);
    }
    Tcl_IncrRefCount(next);
    Tcl_DecrRefCount(list);
    list = next;
  }
  Tcl_Obj* stored = Tcl_ObjSetVar2(interp, objv[1], nullptr, list, TCL_LEAVE_ERR_MSG);
  Tcl_DecrRefCount(list);
  if (!stored) return TCL_ERROR;
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// keyldel listvar key
int KeylDelCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc != 3) return TclWrongArgs(interp, "keyldel");
  Tcl_Obj* list = Tcl_ObjGetVar2(interp, objv[1], nullptr, TCL_LEAVE_ERR_MSG);
  if (!list) return TCL_ERROR;
  Tcl_Obj* next = nullptr;
  std::string error;
  std::string_view key = View(objv[2]);
  KeylStatus st = KeylDel(list, key, &next, &error);
  if (st == kKeylError) return TclFail(interp, error);
  if (st == kKeylNotFound) return TclFail(interp, KeylNotFoundText(key));
  Tcl_IncrRefCount(next);
  Tcl_Obj* stored = Tcl_ObjSetVar2(interp, objv[1], nullptr, next, TCL_LEAVE_ERR_MSG);
  Tcl_DecrRefCount(next);
  if (!stored) return TCL_ERROR;
  Tcl_ResetResult(interp);
  return TCL_OK;
}

}  // namespace

void TclRegisterKeyedListCommands(Tcl_Interp* interp) {
  if (!interp) return;
  Tcl_CreateObjCommand(interp, "keylget", KeylGetCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "keylkeys", KeylKeysCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "keylset", KeylSetCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "keyldel", KeylDelCmd, nullptr, nullptr);
}
