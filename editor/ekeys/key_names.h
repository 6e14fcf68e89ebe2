// Names of the special keys in keybind.def and their symbols.
#pragma once

#include <cstdint>
#include <string>

// Symbols of the special keys.
constexpr uint16_t kKsymBackspace = 8;
constexpr uint16_t kKsymTab = 9;
constexpr uint16_t kKsymLinefeed = 10;
constexpr uint16_t kKsymEnter = 13;
constexpr uint16_t kKsymEsc = 27;
constexpr uint16_t kKsymDel = 127;
constexpr uint16_t kKsymUp = 301;
constexpr uint16_t kKsymDown = 302;
constexpr uint16_t kKsymRight = 303;
constexpr uint16_t kKsymLeft = 304;
constexpr uint16_t kKsymPgUp = 305;
constexpr uint16_t kKsymPgDn = 306;
constexpr uint16_t kKsymHome = 307;
constexpr uint16_t kKsymEnd = 308;
constexpr uint16_t kKsymCtlHome = 309;
constexpr uint16_t kKsymCtlEnd = 310;
constexpr uint16_t kKsymIns = 312;
constexpr uint16_t kKsymCtlLeft = 313;
constexpr uint16_t kKsymCtlRight = 314;
constexpr uint16_t kKsymBacktab = 315;
constexpr uint16_t kKsymF1 = 331;   // f1..f15 are consecutive
constexpr uint16_t kKsymF15 = 345;
// Typed text beyond the first 256 code points: one symbol for all of it,
// so that no letter can fall on a special key. The text itself travels
// with the key event (key_event.h).
constexpr uint16_t kKsymText = 0xFFFF;

struct KM_KEY_NAME {
  const char* name;
  uint16_t sym;
};
extern const KM_KEY_NAME km_key_names[];
extern const int km_key_name_count;

// The symbol of a name of the table (exact, lower case); -1 if none.
int km_key_name_lookup(const std::string& name);
// A name that reads back as `sym`: the table's first name, a printable
// character, or hexadecimal.
std::string km_ksym_name(uint16_t sym);
