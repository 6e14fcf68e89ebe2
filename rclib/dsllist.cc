#include "rclib/dsllist.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "rclib/rc.h"
#include "rclib/rc_hmem.h"

// A cell's neighbours must point back at it, and the ends must be the
// list's ends. The test is constant time, so it can guard every unlink; it
// catches cells already unlinked and the end cells of another list, which
// are the usual mistakes.
static bool linked_into(const LIST_HDR* list, const CELL* cell) {
  if (!list || !cell) return false;
  if (cell->prev ? cell->prev->next != cell : list->head != cell) return false;
  if (cell->next ? cell->next->prev != cell : list->tail != cell) return false;
  return true;
}

static void detach(LIST_HDR* list, CELL* cell) {
  if (cell->prev) cell->prev->next = cell->next;
  else list->head = cell->next;
  if (cell->next) cell->next->prev = cell->prev;
  else list->tail = cell->prev;
  cell->prev = cell->next = nullptr;
  --list->count;
}

static void release_cell(CELL*& cell, int free_values) {
  if (free_values == RC_OK) RC_GIVE(CVALPTR, cell->value);
  RC_GIVE(CELLPTR, cell);
}

static CELL* new_cell(void* value) {
  CELL* cell = static_cast<CELL*>(RC_ALLOC(RC_BYTE, sizeof(CELL)));
  if (cell) cell->value = value;
  return cell;
}

int dsl_create(LIST_HDR** list) {
  rc_debug_entry("dsl_create");
  if (!list) return RC_FAIL;
  *list = RC_NEW(LIST_HDR, LIST_HDR);
  return *list ? RC_OK : RC_FAIL;
}

int dsl_clear(LIST_HDR* list, int free_values) {
  if (!list) return RC_FAIL;
  CELL* cell = list->head;
  while (cell) {
    CELL* next = cell->next;
    release_cell(cell, free_values);
    cell = next;
  }
  list->head = list->tail = nullptr;
  list->count = 0;
  return RC_OK;
}

int dsl_destroy(LIST_HDR** list, int free_values) {
  rc_debug_entry("dsl_destroy");
  if (!list) return RC_FAIL;
  if (!*list) return RC_OK;
  dsl_clear(*list, free_values);
  RC_GIVE(LIST_HDR, *list);
  return RC_OK;
}

CELL* dsl_delete_cell(LIST_HDR* list, CELL** cell, int free_values) {
  if (!cell || !linked_into(list, *cell)) return nullptr;
  CELL* next = (*cell)->next;
  detach(list, *cell);
  release_cell(*cell, free_values);
  return next;
}

CELL* dsl_unlink_cell(LIST_HDR* list, CELL* cell) {
  if (!linked_into(list, cell)) return nullptr;
  detach(list, cell);
  return cell;
}

int dsl_unlink_cell_rc(LIST_HDR* list, CELL* cell) {
  return dsl_unlink_cell(list, cell) ? RC_OK : RC_FAIL;
}

CELL* dsl_append(LIST_HDR* list, void* value) {
  if (!list) return nullptr;
  CELL* cell = new_cell(value);
  if (!cell) return nullptr;
  cell->prev = list->tail;
  if (list->tail) list->tail->next = cell;
  else list->head = cell;
  list->tail = cell;
  ++list->count;
  return cell;
}

CELL* dsl_prepend(LIST_HDR* list, void* value) {
  if (!list) return nullptr;
  CELL* cell = new_cell(value);
  if (!cell) return nullptr;
  cell->next = list->head;
  if (list->head) list->head->prev = cell;
  else list->tail = cell;
  list->head = cell;
  ++list->count;
  return cell;
}

CELL* dsl_insert_before(LIST_HDR* list, CELL* cell, void* value) {
  if (!list) return nullptr;
  if (!cell || cell == list->head) return dsl_prepend(list, value);
  if (!linked_into(list, cell)) return nullptr;
  CELL* fresh = new_cell(value);
  if (!fresh) return nullptr;
  fresh->prev = cell->prev;
  fresh->next = cell;
  cell->prev->next = fresh;
  cell->prev = fresh;
  ++list->count;
  return fresh;
}

void* dsl_pop_first(LIST_HDR* list) {
  if (!list || !list->head) return nullptr;
  CELL* cell = list->head;
  void* value = cell->value;
  detach(list, cell);
  RC_GIVE(CELLPTR, cell);
  return value;
}

CELL* dsl_first(const LIST_HDR* list) { return list ? list->head : nullptr; }
CELL* dsl_last(const LIST_HDR* list) { return list ? list->tail : nullptr; }
CELL* dsl_next(const CELL* cell) { return cell ? cell->next : nullptr; }
CELL* dsl_prev(const CELL* cell) { return cell ? cell->prev : nullptr; }
void* dsl_value(const CELL* cell) { return cell ? cell->value : nullptr; }

int dsl_set_value(CELL* cell, void* value) {
  if (!cell) return RC_FAIL;
  cell->value = value;
  return RC_OK;
}

int dsl_count(const LIST_HDR* list) { return list ? list->count : 0; }

int dsl_is_empty(const LIST_HDR* list) { return !list || !list->head ? RC_OK : RC_FAIL; }

CELL* dsl_step(const LIST_HDR*, CELL* cell, int n) {
  for (; cell && n > 0; --n) cell = cell->next;
  for (; cell && n < 0; ++n) cell = cell->prev;
  return cell;
}

// Puts the cells of `other` between `before` and `after` (either may be null
// at the ends of `list`) and takes them over.
static void take_cells(LIST_HDR* list, CELL* before, CELL* after, LIST_HDR* other) {
  other->head->prev = before;
  other->tail->next = after;
  if (before) before->next = other->head;
  else list->head = other->head;
  if (after) after->prev = other->tail;
  else list->tail = other->tail;
  list->count += other->count;
  other->head = other->tail = nullptr;
  other->count = 0;
}

int dsl_concat(LIST_HDR* list, LIST_HDR** other) {
  if (!list || !other || *other == list) return RC_FAIL;
  if (!*other) return RC_OK;
  if ((*other)->head) take_cells(list, list->tail, nullptr, *other);
  RC_GIVE(LIST_HDR, *other);
  return RC_OK;
}

int dsl_splice_before(LIST_HDR* list, CELL* cell, LIST_HDR** other) {
  if (!list || !other || *other == list) return RC_FAIL;
  if (cell ? !linked_into(list, cell) : list->head != nullptr) {
    rc_errno = kRcErrNotFound;
    return RC_FAIL;
  }
  if (!*other) return RC_OK;
  if ((*other)->head) take_cells(list, cell ? cell->prev : nullptr, cell, *other);
  RC_GIVE(LIST_HDR, *other);
  return RC_OK;
}

int dsl_split_at(LIST_HDR* list, CELL* cell, LIST_HDR** out) {
  if (!list || !cell || !out) return RC_FAIL;
  // The walk both proves membership and counts what stays behind.
  int before = 0;
  const CELL* probe = list->head;
  while (probe && probe != cell) {
    probe = probe->next;
    ++before;
  }
  if (!probe) {
    rc_errno = kRcErrNotFound;
    return RC_FAIL;
  }
  if (dsl_create(out) != RC_OK) return RC_FAIL;
  LIST_HDR* tail_part = *out;
  tail_part->head = cell;
  tail_part->tail = list->tail;
  tail_part->count = list->count - before;
  list->tail = cell->prev;
  if (cell->prev) cell->prev->next = nullptr;
  else list->head = nullptr;
  cell->prev = nullptr;
  list->count = before;
  return RC_OK;
}

LIST_HDR* dsl_copy(const LIST_HDR* list) {
  LIST_HDR* copy = nullptr;
  if (dsl_create(&copy) != RC_OK) return nullptr;
  for (const CELL* cell = dsl_first(list); cell; cell = cell->next) {
    if (!dsl_append(copy, cell->value)) {
      dsl_destroy(&copy, RC_FAIL);
      return nullptr;
    }
  }
  return copy;
}

static bool same_first_word(const void* value, const void* key) {
  if (!value || !key) return false;
  // Values need not be aligned for a word; copy them out.
  void* a;
  void* b;
  std::memcpy(&a, value, sizeof a);
  std::memcpy(&b, key, sizeof b);
  return a == b;
}

CELL* dsl_find(const LIST_HDR* list, const void* key, int mode) {
  for (CELL* cell = dsl_first(list); cell; cell = cell->next) {
    switch (mode) {
      case kDslFindWord:
      case kDslFindWord2:
      case kDslFindWord3:
        if (same_first_word(cell->value, key)) return cell;
        break;
      case kDslFindNoCase:
        if (cell->value && key &&
            strcasecmp(static_cast<const char*>(cell->value), static_cast<const char*>(key)) == 0)
          return cell;
        break;
      case kDslFindPointer:
        if (cell->value == key) return cell;
        break;
      default:
        return nullptr;
    }
  }
  return nullptr;
}

int dsl_dump(const LIST_HDR* list) {
  std::printf("Number of cells: %d\n\n", dsl_count(list));
  int number = 0;
  for (const CELL* cell = dsl_first(list); cell; cell = cell->next) {
    const char* text = static_cast<const char*>(cell->value);
    std::printf("\tcell (%d): %s\n", ++number, text ? text : "(null)");
  }
  return RC_OK;
}
