// A key-map state loaded from text for the key map tests, destroyed with
// the fixture, with diagnostics kept in the state's log only.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "editor/ekeys/keymap.h"

struct KeyState {
  KMSTATE* s = nullptr;
  int rc = RC_FAIL;
  explicit KeyState(const std::string& text = std::string()) {
    km_diag_to_stdout = false;
    EXPECT_EQ(km_state_new(&s), RC_OK);
    if (!text.empty()) rc = km_state_init_text(s, text);
  }
  ~KeyState() { km_state_destroy(&s); }
  KeyState(const KeyState&) = delete;
  KeyState& operator=(const KeyState&) = delete;

  KEYMAP* Map(const char* name) {
    KEYMAP* m = nullptr;
    km_kmap_cv_name_ptr(s, name, &m);
    return m;
  }
  // Pushes the named maps, the last on top.
  void Push(std::initializer_list<const char*> names) {
    for (const char* n : names) {
      KEYMAP* m = Map(n);
      ASSERT_NE(m, nullptr) << n;
      km_state_push(s, m);
    }
  }
  // The binding of `key` in one map, looked up directly.
  std::string Bind(const char* map, KSYM key) {
    KBIND_RESULT r;
    KEYMAP* m = Map(map);
    if (!m || ksym_decode_map(m, key, &r) != RC_OK) return "(no map)";
    return km_result_name(r);
  }
};

inline std::string ShippedKeybind() { return std::string(VELMAR_SOURCE_DATA_DIR) + "/keybind.def"; }
