// The decoder: one key symbol at a time through the stack of maps, with
// prefix keys, and replay of a failed prefix sequence against the maps
// below the one that gave the prefix.
#include <algorithm>

#include "editor/ekeys/keymap.h"

namespace {

void StartSequence(KMSTATE* state) {
  state->first_map.clear();
  state->prefix.clear();
  state->f2m.clear();
  state->n_longest = 0;
  state->n_cur = 0;
  state->n_keysyms = 0;
  state->cur_idx = 0;
  state->done = RC_FAIL;
}

// The chain reached one more prefix.
void EnterPrefix(KMSTATE* state, const KBIND_RESULT* result) {
  state->prefix = result->prefix_map;
  state->n_cur++;
  state->n_longest = std::max(state->n_longest, state->n_cur);
}

}  // namespace

int ksym_decode_map(const KEYMAP* map, KSYM key, KBIND_RESULT* result) {
  if (!map || !result) return RC_FAIL;
  result->key = key;
  result->binding = &map->def;
  result->prefix_map.clear();
  for (CELL* c = dsl_first(map->blocks); c; c = dsl_next(c)) {
    const KEYBLOCK* b = static_cast<const KEYBLOCK*>(dsl_value(c));
    if (key < b->first) break;
    if (key <= b->last) {
      result->binding = &b->binds[key - b->first];
      result->prefix_map = b->prefix_map;
      break;
    }
  }
  const std::string& name = result->binding->bind_name;
  result->status = name == "rescan" ? kKmRescan : name == "prefix" ? kKmPrefix : kKmBound;
  return RC_OK;
}

int km_ksym_decode_stack(KMSTATE* state, KSYM key, KBIND_RESULT* result) {
  CELL* cell = nullptr;
  if (!state->first_map.empty()) {
    if (km_kmap_cv_name_cellptr(state->stack, state->first_map.c_str(), &cell) != RC_OK) return RC_FAIL;
  } else {
    cell = dsl_first(state->stack);
  }
  if (!cell) return RC_FAIL;
  for (; cell; cell = dsl_next(cell)) {
    const KEYMAP* map = static_cast<const KEYMAP*>(dsl_value(cell));
    ksym_decode_map(map, key, result);
    if (result->status == kKmPrefix && state->f2m.empty()) state->f2m = map->name;
    if (result->status == kKmPrefix || result->status == kKmBound) return RC_OK;
  }
  result->status = kKmUnbound;
  return RC_OK;
}

int km_decode_lookup_stack(KMSTATE* state, KSYM key, KBIND_RESULT* result) {
  if (km_ksym_decode_stack(state, key, result) != RC_OK) return RC_FAIL;
  std::string name = km_result_name(*result);
  if (name == "prefix") {
    EnterPrefix(state, result);
  } else if (name == "rescan") {
    result->status = kKmUnbound;
    state->done = RC_OK;
  } else {
    // A shorter match after a longer sequence failed is no match.
    if (state->n_longest > state->n_cur) result->status = kKmUnbound;
    state->done = RC_OK;
  }
  return RC_OK;
}

int km_decode_lookup_prefix(KMSTATE* state, KSYM key, KBIND_RESULT* result) {
  KEYMAP* map = nullptr;
  if (km_kmap_cv_name_ptr(state, state->prefix.c_str(), &map) != RC_OK) return RC_FAIL;
  ksym_decode_map(map, key, result);
  std::string name = km_result_name(*result);
  if (name == "rescan") {
    state->prefix.clear();
    state->n_cur = 0;
  } else if (name == "prefix") {
    EnterPrefix(state, result);
  } else if (state->n_longest > state->n_cur) {
    result->status = kKmRescan;
    state->n_cur = 0;
    state->prefix.clear();
  } else {
    state->done = RC_OK;
  }
  return RC_OK;
}

int km_ksym_decode_one(KMSTATE* state, KSYM key, KBIND_RESULT* result) {
  if (state->first_map.empty()) {
    if (!state->prefix.empty()) {
      state->first_map = state->prefix;
    } else {
      CELL* top = dsl_first(state->stack);
      if (!top) return RC_FAIL;
      state->first_map = static_cast<KEYMAP*>(dsl_value(top))->name;
    }
  }
  return state->prefix.empty() ? km_decode_lookup_stack(state, key, result)
                               : km_decode_lookup_prefix(state, key, result);
}

int km_ksym_decode_seq(KMSTATE* state, KSYM key, KBIND_RESULT* result) {
  if (!state || !result) return RC_FAIL;
  *result = KBIND_RESULT();
  if (state->done == RC_OK) StartSequence(state);
  state->n_keysyms++;
  if (state->n_keysyms > kKmSyms) {
    state->done = RC_OK;
    km_diag(state, "Buffer overflow:  key= %c (%3o), n_keysyms=%d\n", key > ' ' && key < 127 ? key : '?', key,
            state->n_keysyms);
    return RC_FAIL;
  }
  state->syms[state->n_keysyms - 1] = key;
  // Each pass either finishes, waits, or replays against a lower map; the
  // guard stops a stack that holds a map twice from replaying for ever.
  for (int pass = 0; pass < kKmDecodeGuard; ++pass) {
    if (state->n_cur < 0 || state->n_cur >= state->n_keysyms ||
        km_ksym_decode_one(state, state->syms[state->n_cur], result) != RC_OK) {
      state->done = RC_OK;
      *result = KBIND_RESULT();
      return RC_FAIL;
    }
    switch (result->status) {
      case kKmBound:
      case kKmUnbound:
        state->done = RC_OK;
        return RC_OK;
      case kKmPrefix:
        if (state->n_keysyms > state->n_cur) continue;
        return RC_OK;
      case kKmRescan: {
        if (state->f2m.empty()) continue;
        CELL* cell = nullptr;
        CELL* lower = nullptr;
        if (km_kmap_cv_name_cellptr(state->stack, state->f2m.c_str(), &cell) == RC_OK) lower = dsl_next(cell);
        if (!lower) {
          result->status = kKmUnbound;
          state->done = RC_OK;
          return RC_OK;
        }
        state->first_map = static_cast<KEYMAP*>(dsl_value(lower))->name;
        state->f2m.clear();
        state->n_cur = 0;
        continue;
      }
      default:
        km_diag(state, "Unknown status returned from decode_one.  %d\n", result->status);
        state->done = RC_OK;
        *result = KBIND_RESULT();
        return RC_FAIL;
    }
  }
  km_diag(state, "Key decoding did not settle.  key=%u, n_keysyms=%d\n", key, state->n_keysyms);
  state->done = RC_OK;
  *result = KBIND_RESULT();
  return RC_FAIL;
}
