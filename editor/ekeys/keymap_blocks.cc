// The compact form of a map: its bindings cut into blocks of nearby keys,
// the maps of a state by name, rebinding, and the dumps.
#include <cstdio>
#include <cstring>

#include "editor/ekeys/commands.h"
#include "editor/ekeys/key_names.h"
#include "editor/ekeys/keymap.h"

namespace {

// Keys further apart than this start a new block; the keys between two
// bound ones cost a "rescan" entry each.
constexpr int kMaxGap = 2;

bool IsPrefix(const KEYTUPLE& t) { return t.bind == "prefix"; }

}  // namespace

int km_kblock_create(const KTUPLE_LIST& run, KEYBLOCK** block) {
  if (!block || run.empty()) return RC_FAIL;
  KEYBLOCK* b = new KEYBLOCK;
  b->first = run.front().key;
  b->last = run.back().key;
  b->binds.resize(static_cast<size_t>(b->last - b->first) + 1);
  for (size_t i = 0; i < b->binds.size(); ++i) {
    b->binds[i].key = static_cast<KSYM>(b->first + i);
    b->binds[i].bind_name = "rescan";
  }
  for (const KEYTUPLE& t : run) {
    if (t.key < b->first || t.key > b->last) continue;
    b->binds[t.key - b->first].bind_name = t.bind;
    if (IsPrefix(t) && b->prefix_map.empty()) b->prefix_map = t.prefix_map;
  }
  *block = b;
  return RC_OK;
}

int km_kblock_destroy(KEYBLOCK** block) {
  if (!block) return RC_FAIL;
  delete *block;
  *block = nullptr;
  return RC_OK;
}

int km_kblock_list_destroy(LIST_HDR** blocks) {
  if (!blocks) return RC_FAIL;
  if (!*blocks) return RC_OK;
  for (CELL* c = dsl_first(*blocks); c; c = dsl_next(c)) {
    KEYBLOCK* b = static_cast<KEYBLOCK*>(dsl_value(c));
    km_kblock_destroy(&b);
  }
  return dsl_destroy(blocks, 0);
}

int km_kblock_list_build(KMSTATE* state, const KTUPLE_LIST& tuples, LIST_HDR** blocks) {
  (void)state;
  if (!blocks || dsl_create(blocks) != RC_OK) return RC_FAIL;
  size_t start = 0;
  std::string run_prefix;
  auto close_run = [&](size_t end) {
    KTUPLE_LIST run;
    KEYBLOCK* b = nullptr;
    if (km_ktuple_list_sublist(tuples, start, end, &run) != RC_OK || km_kblock_create(run, &b) != RC_OK)
      return false;
    dsl_append(*blocks, b);
    return true;
  };
  for (size_t i = 0; i < tuples.size(); ++i) {
    const KEYTUPLE& t = tuples[i];
    if (i > start) {
      bool new_prefix = IsPrefix(t) && !run_prefix.empty() && t.prefix_map != run_prefix;
      bool gap = t.key - tuples[i - 1].key > kMaxGap;
      if (new_prefix || gap) {
        if (!close_run(i - 1)) return km_kblock_list_destroy(blocks), RC_FAIL;
        start = i;
        run_prefix.clear();
      }
    }
    if (IsPrefix(t) && run_prefix.empty()) run_prefix = t.prefix_map;
  }
  if (!tuples.empty() && !close_run(tuples.size() - 1)) return km_kblock_list_destroy(blocks), RC_FAIL;
  return RC_OK;
}

int km_kmap_create(KEYMAP** map, LIST_HDR** blocks, const char* name, const char* default_function) {
  if (!map || !blocks || !name) return RC_FAIL;
  if (!default_function) return RC_OK;
  KEYMAP* m = new KEYMAP;
  m->name = name;
  m->def.bind_name = default_function;
  m->blocks = *blocks;
  *blocks = nullptr;
  *map = m;
  return RC_OK;
}

int km_kmap_destroy(KEYMAP** map) {
  if (!map) return RC_FAIL;
  if (!*map) return RC_OK;
  km_kblock_list_destroy(&(*map)->blocks);
  delete *map;
  *map = nullptr;
  return RC_OK;
}

int km_kmap_list_destroy(LIST_HDR** maps) {
  if (!maps) return RC_FAIL;
  if (!*maps) return RC_OK;
  for (CELL* c = dsl_first(*maps); c; c = dsl_next(c)) {
    KEYMAP* m = static_cast<KEYMAP*>(dsl_value(c));
    km_kmap_destroy(&m);
  }
  return dsl_destroy(maps, 0);
}

int km_kmap_unpack(const KEYMAP* map, KTUPLE_LIST* tuples) {
  if (!map || !tuples) return RC_FAIL;
  tuples->clear();
  for (CELL* c = dsl_first(map->blocks); c; c = dsl_next(c)) {
    const KEYBLOCK* b = static_cast<const KEYBLOCK*>(dsl_value(c));
    for (const KBIND& k : b->binds) {
      KEYTUPLE t;
      t.key = k.key;
      t.name = km_ksym_name(k.key);
      t.bind = k.bind_name;
      if (t.bind == "prefix") t.prefix_map = b->prefix_map;
      tuples->push_back(t);
    }
  }
  return RC_OK;
}

int km_kmap_cv_name_ptr(const KMSTATE* state, const char* name, KEYMAP** map) {
  if (!state || !name || !map) return RC_FAIL;
  for (CELL* c = dsl_first(state->maps); c; c = dsl_next(c)) {
    KEYMAP* m = static_cast<KEYMAP*>(dsl_value(c));
    if (m->name == name) {
      *map = m;
      return RC_OK;
    }
  }
  return RC_FAIL;
}

int km_kmap_cv_name_cellptr(const LIST_HDR* stack, const char* name, CELL** cell) {
  if (!name || !cell) return RC_FAIL;
  for (CELL* c = dsl_first(stack); c; c = dsl_next(c)) {
    if (static_cast<KEYMAP*>(dsl_value(c))->name == name) {
      *cell = c;
      return RC_OK;
    }
  }
  return RC_FAIL;
}

int km_ksym_rebind(KMSTATE* state, const char* map_name, const KEYTUPLE& tuple) {
  KEYMAP* map = nullptr;
  if (km_kmap_cv_name_ptr(state, map_name, &map) != RC_OK) return RC_FAIL;
  if (km_bind_known(tuple.bind.c_str()) != RC_OK) return RC_FAIL;
  if (tuple.bind == "prefix" && tuple.prefix_map.empty()) return RC_FAIL;
  KTUPLE_LIST tuples;
  if (km_kmap_unpack(map, &tuples) != RC_OK) return RC_FAIL;
  km_ktuple_list_insert(state, &tuples, tuple);
  LIST_HDR* blocks = nullptr;
  if (km_kblock_list_build(state, tuples, &blocks) != RC_OK) return RC_FAIL;
  km_kblock_list_destroy(&map->blocks);
  map->blocks = blocks;
  return RC_OK;
}

int km_state_dump(const KMSTATE* state, std::string* out) {
  if (!state || !out) return RC_FAIL;
  char buf[512];
  *out += "\nKEYMAP STATE:  (level 0 = stack top) \n";
  int level = 0;
  for (CELL* c = dsl_first(state->stack); c; c = dsl_next(c), ++level) {
    std::snprintf(buf, sizeof buf, "  Keymap on stack level %2d:      %s\n", level,
                  static_cast<KEYMAP*>(dsl_value(c))->name.c_str());
    *out += buf;
  }
  std::snprintf(buf, sizeof buf, "  Look up next keysym in         %s\n",
                state->prefix.empty() ? "(stack)" : state->prefix.c_str());
  *out += buf;
  std::snprintf(buf, sizeof buf, "  cur_idx=%d, n_longest=%d, n_cur=%d\n", state->cur_idx, state->n_longest,
                state->n_cur);
  *out += buf;
  return RC_OK;
}

int km_kbind_dump(const KBIND_RESULT& result, std::string* out) {
  if (!out) return RC_FAIL;
  char buf[512];
  std::snprintf(buf, sizeof buf, "  key=%u status=%d bind=%s prefix_map=%s\n", result.key, result.status,
                km_result_name(result), result.prefix_map.c_str());
  *out += buf;
  return RC_OK;
}

int km_kmap_dump(const KEYMAP* map, std::string* out) {
  if (!map || !out) return RC_FAIL;
  char buf[512];
  std::snprintf(buf, sizeof buf, "Keymap %s, default %s\n", map->name.c_str(), map->def.bind_name.c_str());
  *out += buf;
  for (CELL* c = dsl_first(map->blocks); c; c = dsl_next(c)) {
    const KEYBLOCK* b = static_cast<const KEYBLOCK*>(dsl_value(c));
    std::snprintf(buf, sizeof buf, "  block %u..%u%s%s\n", b->first, b->last, b->prefix_map.empty() ? "" : " prefix ",
                  b->prefix_map.c_str());
    *out += buf;
    for (const KBIND& k : b->binds) {
      std::snprintf(buf, sizeof buf, "    %5u %s\n", k.key, k.bind_name.c_str());
      *out += buf;
    }
  }
  return RC_OK;
}

int km_kmap_write(const KEYMAP* map, std::string* out) {
  if (!map || !out) return RC_FAIL;
  KTUPLE_LIST tuples;
  km_kmap_unpack(map, &tuples);
  *out += "keymap " + map->name + " " + map->def.bind_name + "\n";
  // A "rescan" inside a block is written only where leaving it out would
  // open a gap too big: the reload fills the others in again. So the text
  // never holds more lines than the file the map came from.
  size_t i = 0;
  for (CELL* c = dsl_first(map->blocks); c; c = dsl_next(c)) {
    const KEYBLOCK* b = static_cast<const KEYBLOCK*>(dsl_value(c));
    size_t first = i, last = i + b->binds.size() - 1;
    KSYM kept = tuples[first].key;
    for (; i <= last; ++i) {
      const KEYTUPLE& t = tuples[i];
      if (i != first && i != last && t.bind == "rescan") {
        // Left out while the next entry that is surely written, or the one
        // after this, still lies close enough to the last one written.
        size_t j = i + 1;
        while (j < last && tuples[j].bind == "rescan") ++j;
        if (tuples[j].key - kept <= kMaxGap || t.key + 1 - kept <= kMaxGap) continue;
      }
      kept = t.key;
      *out += t.name + " " + t.bind;
      if (!t.prefix_map.empty()) *out += " " + t.prefix_map;
      *out += "\n";
    }
  }
  *out += "end_keymap\n";
  return RC_OK;
}

int km_state_write(const KMSTATE* state, std::string* out) {
  if (!state || !out) return RC_FAIL;
  for (CELL* c = dsl_first(state->maps); c; c = dsl_next(c))
    if (km_kmap_write(static_cast<const KEYMAP*>(dsl_value(c)), out) != RC_OK) return RC_FAIL;
  return RC_OK;
}
