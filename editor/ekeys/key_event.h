// From the facade's character events to the key symbols of the maps.
//
// The symbol only chooses the binding. What "self-insert" types is the
// event's own character, carried here as UTF-8: the symbol of any text
// beyond the first 256 code points is kKsymText, so a letter can never be
// taken for one of the special keys numbered from 301.
#pragma once

#include <cstdint>

#include "xvt/xvt.h"

struct KM_KEY {
  uint16_t sym = 0;
  bool shift = false;    // the selection commands read it
  bool control = false;
  char text[5] = {};     // UTF-8 of the typed character, or empty
  int text_len = 0;
};

// RC_OK with *key filled for an E_CHAR event that has a symbol; RC_FAIL for
// other events and for keys the maps cannot name (Control with a key that
// has no control code, code points that are not characters).
int km_key_from_event(const EVENT* ev, KM_KEY* key);
