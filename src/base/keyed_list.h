// Keyed lists: a Tcl list of two-element lists {key value}. A key may be
// scoped with dots ("a.b.c"): the value of "a" is itself a keyed list that
// holds "b", and so on. Scripts keep the windows array in this form.
//
// The functions below work on Tcl objects only, without an interpreter, so
// that they can be tested and fuzzed on their own. They never change the
// objects they are given: a new list comes back for every change, and the
// caller stores it. A malformed list is reported, never repaired, so that
// nothing a script put there is thrown away.
#pragma once

#include <tcl.h>

#include <cstddef>
#include <string>
#include <string_view>

// Limits on what a script can hand us.
constexpr int kKeylMaxDepth = 32;            // parts of a scoped key
constexpr size_t kKeylMaxKeyLength = 1024;   // bytes of a whole scoped key
constexpr int kKeylMaxFields = 100000;       // fields on one level of a list

enum KeylStatus { kKeylFound = 0, kKeylNotFound = 1, kKeylError = 2 };

// Finds key. *value is borrowed from list: it lives as long as list does.
KeylStatus KeylGet(Tcl_Obj* list, std::string_view key, Tcl_Obj** value, std::string* error);
// The keys of list (key empty) or of the keyed list stored under key, as a
// new list object with no references.
KeylStatus KeylKeys(Tcl_Obj* list, std::string_view key, Tcl_Obj** keys, std::string* error);
// A new list (no references) with key set to value; the levels of a scoped
// key that don't exist yet are made.
KeylStatus KeylSet(Tcl_Obj* list, std::string_view key, Tcl_Obj* value, Tcl_Obj** result, std::string* error);
// A new list (no references) without key. Every field of that name on its
// level goes, so that a later lookup can't find an older duplicate.
KeylStatus KeylDel(Tcl_Obj* list, std::string_view key, Tcl_Obj** result, std::string* error);

// The error text of a key that isn't there: key "name" not found in keyed list
std::string KeylNotFoundText(std::string_view key);

// keylget, keylkeys, keylset and keyldel.
void TclRegisterKeyedListCommands(Tcl_Interp* interp);
