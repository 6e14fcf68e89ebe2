// Key maps of the editor: named maps read from keybind.def, their compact
// form in key blocks, the stack of maps of one window and the decoder that
// turns a stream of key symbols into the name of a command.
//
// A key symbol is 16 bits: character codes below 256, named special keys
// from 301 up (see key_names.h). Every function answers RC_OK or RC_FAIL.
// Diagnostics are collected in the state's log (and printed to stdout when
// km_diag_to_stdout is set); they never reach the user, except the three
// set-up messages of km_state_setup.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rclib/dsllist.h"
#include "rclib/rc.h"

using KSYM = uint16_t;

// Word limits of a line of the file, NUL included: longer words are refused.
constexpr size_t kKmNameSize = 32;       // key name
constexpr size_t kKmBindSize = 128;      // command name, "prefix" or "rescan"
constexpr size_t kKmPrefixMapSize = 128; // map name
constexpr size_t kKmLineMax = 511;       // characters of one line
// Limits that keep a hostile file from costing more than a little memory.
constexpr size_t kKmFileMax = 1 << 20;   // bytes of one file
constexpr int kKmMapsMax = 64;           // maps in one file
constexpr int kKmTuplesMax = 2048;       // bindings in one map
constexpr int kKmSyms = 10;              // symbols of one sequence
// Passes of the decoding loop for one key before it gives up; a sound
// stack needs a few dozen at most.
constexpr int kKmDecodeGuard = 1000;

constexpr int32_t kKbindName = 2;  // the only binding type: a command name

// Decoding status.
constexpr int kKmBound = 1;
constexpr int kKmUnbound = 2;
constexpr int kKmPrefix = 3;
constexpr int kKmRescan = 4;

// One line of a map while the map is being built.
struct KEYTUPLE {
  KSYM key = 0;
  std::string name;        // the key as written in the file
  std::string bind;        // command name, "prefix" or "rescan"
  std::string prefix_map;  // for "prefix": the map of the next key
};
using KTUPLE_LIST = std::vector<KEYTUPLE>;  // ascending by key

struct KBIND {
  KSYM key = 0;
  int32_t type = kKbindName;
  std::string bind_name;
};

// Bindings of first..last, indexed by key - first; gaps hold "rescan".
struct KEYBLOCK {
  KSYM first = 0;
  KSYM last = 0;
  std::string prefix_map;  // shared by the block's "prefix" entries
  std::vector<KBIND> binds;
};

struct KEYMAP {
  std::string name;
  KBIND def;                   // the default function, for keys in no block
  LIST_HDR* blocks = nullptr;  // KEYBLOCK*, ascending
};

struct KMSTATE {
  LIST_HDR* maps = nullptr;   // KEYMAP*, file order; owned
  LIST_HDR* stack = nullptr;  // KEYMAP*, head = level 0 = top; not owned
  std::string first_map;      // map where a lookup starts; empty: the top
  std::string prefix;         // map for the next symbol; empty: none
  KSYM syms[kKmSyms] = {};
  int n_keysyms = 0;
  int cur_idx = 0;
  int n_longest = 0;
  int n_cur = 0;
  int done = 0;
  std::string f2m;            // first stack map that gave a prefix
  std::string log;            // diagnostics, bounded
};

struct KBIND_RESULT {
  KSYM key = 0;
  int status = 0;
  const KBIND* binding = nullptr;
  std::string prefix_map;
};

// The binding name of a result ("" when there is none). Callers use it
// whatever the status: an unbound key carries the default function of the
// last map tried.
const char* km_result_name(const KBIND_RESULT& result);

// Diagnostics also go to stdout while this is set (the default).
extern bool km_diag_to_stdout;
void km_diag(KMSTATE* state, const char* format, ...) __attribute__((format(printf, 2, 3)));

// --- State -----------------------------------------------------------------
int km_state_new(KMSTATE** state);
int km_state_destroy(KMSTATE** state);
// Loads every map of a file, or of text already in memory.
int km_state_init_file(KMSTATE* state, const char* path);
int km_state_init_text(KMSTATE* state, const std::string& text);
// What an editor window does at creation: load `path` and push esc-map,
// ctl-x-map and fundamental (so fundamental is on top). On failure
// *user_error holds the message for the user.
int km_state_setup(KMSTATE* state, const char* path, std::string* user_error);
int km_state_push(KMSTATE* state, KEYMAP* map);

// --- Loading ---------------------------------------------------------------
// Reads lines of a file held in memory, with the line number of each.
struct KM_READER {
  const std::string* text = nullptr;
  size_t pos = 0;
  int line_no = 0;
};
// The next line without its end; RC_FAIL at the end of the text. A line
// longer than kKmLineMax is returned cut there with *too_long set.
int km_reader_line(KM_READER* reader, std::string* line, bool* too_long);

// Loads one map; `line` is its "keymap" line, the reader stands behind it.
int km_kmap_load_one(KMSTATE* state, const std::string& line, KM_READER* stream);
// Key text of the tuple to its symbol in tuple->key; RC_FAIL for an unknown
// name (bad octal or hex digits give symbol 0 and RC_OK, with a message).
int km_ksym_atoi(KMSTATE* state, KEYTUPLE* tuple);
int eui_cv_ksym_atoi(KMSTATE* state, KEYTUPLE* tuple);

// Reads the key lines of a map up to end_keymap into `tuples`.
int km_ktuple_list_load(KMSTATE* state, KM_READER* stream, KTUPLE_LIST* tuples);
// Sorted insert; a tuple with the key of an existing one replaces it.
int km_ktuple_list_insert(KMSTATE* state, KTUPLE_LIST* tuples, const KEYTUPLE& tuple);
// Tuples [from, to] of a list.
int km_ktuple_list_sublist(const KTUPLE_LIST& tuples, size_t from, size_t to, KTUPLE_LIST* out);
int km_ktuple_list_dump(const KTUPLE_LIST& tuples, std::string* out);

// --- Blocks and maps -------------------------------------------------------
int km_kblock_list_build(KMSTATE* state, const KTUPLE_LIST& tuples, LIST_HDR** blocks);
int km_kblock_create(const KTUPLE_LIST& run, KEYBLOCK** block);
int km_kblock_destroy(KEYBLOCK** block);
int km_kblock_list_destroy(LIST_HDR** blocks);
// Takes over *blocks. A null default function does nothing and succeeds.
int km_kmap_create(KEYMAP** map, LIST_HDR** blocks, const char* name, const char* default_function);
int km_kmap_destroy(KEYMAP** map);
int km_kmap_list_destroy(LIST_HDR** maps);
// The map's bindings back as tuples (gap entries come back as "rescan").
int km_kmap_unpack(const KEYMAP* map, KTUPLE_LIST* tuples);
int km_kmap_cv_name_ptr(const KMSTATE* state, const char* name, KEYMAP** map);
int km_kmap_cv_name_cellptr(const LIST_HDR* stack, const char* name, CELL** cell);
// Changes one binding of a map: unpack, insert, rebuild the blocks.
int km_ksym_rebind(KMSTATE* state, const char* map_name, const KEYTUPLE& tuple);

// --- Decoding --------------------------------------------------------------
// Feeds one key. RC_OK with status 1 (run the binding), 2 (unbound) or 3
// (prefix: wait for the next key); RC_FAIL, with an empty result, on a
// broken state or the eleventh symbol of one sequence. After any answer but
// status 3 the next key starts a new sequence. Only status 1 asks for the
// binding to run: status 2 may carry the name of a shorter binding that a
// longer sequence hid, or "rescan".
int km_ksym_decode_seq(KMSTATE* state, KSYM key, KBIND_RESULT* result);
int km_ksym_decode_one(KMSTATE* state, KSYM key, KBIND_RESULT* result);
int km_ksym_decode_stack(KMSTATE* state, KSYM key, KBIND_RESULT* result);
int ksym_decode_map(const KEYMAP* map, KSYM key, KBIND_RESULT* result);
int km_decode_lookup_prefix(KMSTATE* state, KSYM key, KBIND_RESULT* result);
int km_decode_lookup_stack(KMSTATE* state, KSYM key, KBIND_RESULT* result);

// --- Dumps -----------------------------------------------------------------
int km_state_dump(const KMSTATE* state, std::string* out);
int km_kbind_dump(const KBIND_RESULT& result, std::string* out);
int km_kmap_dump(const KEYMAP* map, std::string* out);
// The maps as keybind.def text, which loads back to the same maps.
int km_kmap_write(const KEYMAP* map, std::string* out);
int km_state_write(const KMSTATE* state, std::string* out);
