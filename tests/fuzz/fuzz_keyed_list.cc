// Feeds arbitrary keyed lists and keys to the keyed-list functions.
// Input: one byte choosing the operation, the key up to the first newline,
// then the list. Besides not crashing, a set must be readable back and a
// delete must leave nothing under the key.
#include <tcl.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "src/base/keyed_list.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void Free(Tcl_Obj* obj) {
  if (!obj) return;
  Tcl_IncrRefCount(obj);
  Tcl_DecrRefCount(obj);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool initialised = false;
  if (!initialised) {
    Tcl_FindExecutable(nullptr);
    initialised = true;
  }
  if (size < 1) return 0;
  int op = data[0] % 4;
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  size_t nl = rest.find('\n');
  std::string key(rest.substr(0, nl));
  std::string text(nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1));

  Tcl_Obj* list = Tcl_NewStringObj(text.data(), static_cast<int>(text.size()));
  Tcl_IncrRefCount(list);
  std::string before = Tcl_GetString(list);
  std::string error;
  Tcl_Obj* out = nullptr;
  switch (op) {
    case 0: {
      KeylStatus st = KeylGet(list, key, &out, &error);
      Check(st != kKeylFound || out != nullptr);
      if (st == kKeylFound) Tcl_GetString(out);
      break;
    }
    case 1: {
      if (KeylKeys(list, key, &out, &error) == kKeylFound) {
        Tcl_GetString(out);
        Free(out);
      }
      break;
    }
    case 2: {
      Tcl_Obj* value = Tcl_NewStringObj("fuzz value", -1);
      Tcl_IncrRefCount(value);
      if (KeylSet(list, key, value, &out, &error) == kKeylFound) {
        Tcl_IncrRefCount(out);
        Tcl_Obj* back = nullptr;
        Check(KeylGet(out, key, &back, &error) == kKeylFound);
        Check(std::strcmp(Tcl_GetString(back), "fuzz value") == 0);
        Tcl_DecrRefCount(out);
      } else {
        Check(!error.empty());
      }
      Tcl_DecrRefCount(value);
      break;
    }
    case 3: {
      if (KeylDel(list, key, &out, &error) == kKeylFound) {
        Tcl_IncrRefCount(out);
        Tcl_Obj* back = nullptr;
        Check(KeylGet(out, key, &back, &error) != kKeylFound);
        Tcl_DecrRefCount(out);
      }
      break;
    }
  }
  // The given list is never changed.
  Check(before == Tcl_GetString(list));
  Tcl_DecrRefCount(list);
  return 0;
}
