// Doubly linked lists of opaque values.
//
// A null LIST_HDR* is valid for every read operation and counts as empty.
// The library never looks into a value except in dsl_find. Operations that
// take `free_values` release each value through rc_hmem_give (as CVALPTR)
// when it is RC_OK, so such values must come from RC_ALLOC/rc_hmem_zget;
// any other value of free_values leaves the values to the caller.
#pragma once

struct CELL {
  CELL* prev;  // null for the first cell
  CELL* next;  // null for the last cell
  void* value;
};
typedef CELL* CELLPTR;

struct LIST_HDR {
  CELL* head;
  CELL* tail;
  int count;
};

// dsl_find modes. 11, 12 and 14 all compare the first machine word of the
// value with the first machine word at key, so that callers can name the
// kind of record they search for.
constexpr int kDslFindWord = 11;
constexpr int kDslFindWord2 = 12;
constexpr int kDslFindNoCase = 13;   // value and key as strings, case ignored
constexpr int kDslFindWord3 = 14;
constexpr int kDslFindPointer = 15;  // value == key

// New empty list in *list. RC_FAIL for a null argument or without memory.
int dsl_create(LIST_HDR** list);
// Deletes all cells and the header and nulls *list. RC_FAIL if `list` is
// null; RC_OK if *list already is.
int dsl_destroy(LIST_HDR** list, int free_values);
// Deletes all cells, keeps the header.
int dsl_clear(LIST_HDR* list, int free_values);

// Unlinks and releases *cell, nulls it and returns the cell that followed.
// A cell that is visibly not linked into `list` is left alone (null result).
CELL* dsl_delete_cell(LIST_HDR* list, CELL** cell, int free_values);
// Unlinks `cell` without releasing it and returns it (null on bad input).
// The unlinked cell's links are cleared; the caller owns it and releases it
// with RC_GIVE(CELLPTR, cell).
CELL* dsl_unlink_cell(LIST_HDR* list, CELL* cell);
// The same, answering RC_OK or RC_FAIL.
int dsl_unlink_cell_rc(LIST_HDR* list, CELL* cell);

// New cell at the end or the head; the cell, or null.
CELL* dsl_append(LIST_HDR* list, void* value);
CELL* dsl_prepend(LIST_HDR* list, void* value);
// New cell before `cell`; a null `cell` means the head.
CELL* dsl_insert_before(LIST_HDR* list, CELL* cell, void* value);
// Removes the first cell and returns its value; null when empty.
void* dsl_pop_first(LIST_HDR* list);

CELL* dsl_first(const LIST_HDR* list);
CELL* dsl_last(const LIST_HDR* list);
CELL* dsl_next(const CELL* cell);
CELL* dsl_prev(const CELL* cell);
void* dsl_value(const CELL* cell);
int dsl_set_value(CELL* cell, void* value);
int dsl_count(const LIST_HDR* list);
// RC_OK for a null or empty list, RC_FAIL otherwise.
int dsl_is_empty(const LIST_HDR* list);
// The cell `n` steps after `cell` (before it for negative n); null when the
// walk runs off either end.
CELL* dsl_step(const LIST_HDR* list, CELL* cell, int n);

// Moves all cells of *other to the end of `list`, releases the header of
// *other and nulls it.
int dsl_concat(LIST_HDR* list, LIST_HDR** other);
// Moves all cells of *other in front of `cell` (which must be in `list`),
// releases the header and nulls it. An empty *other only loses its header.
// A null `cell` is accepted only when `list` is empty.
int dsl_splice_before(LIST_HDR* list, CELL* cell, LIST_HDR** other);
// Moves `cell` and everything behind it into a new list *out; `list` keeps
// what stood before (nothing when `cell` is the head). RC_FAIL with
// rc_errno 4 when `cell` is not in `list`.
int dsl_split_at(LIST_HDR* list, CELL* cell, LIST_HDR** out);
// New list with the same values (a null list copies as empty); null on failure.
LIST_HDR* dsl_copy(const LIST_HDR* list);

// First cell from the head that matches `key` under `mode`; null if none or
// for an unknown mode. Values that are null never match modes 11-14.
CELL* dsl_find(const LIST_HDR* list, const void* key, int mode);

// Prints "Number of cells: %d\n\n" and "\tcell (%d): %s\n" for each value
// read as a string, to stdout.
int dsl_dump(const LIST_HDR* list);
