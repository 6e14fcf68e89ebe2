// Trees of ordered children. Each node carries a caller word and a data
// pointer; its children are a list whose values are the child nodes, and a
// cursor remembers the child cell visited last.
//
// Walk children only through mtree_first_child/last_child followed by
// next_child/prev_child, in order. Those find the given child's cell through
// the cursor; the fallback search compares the nodes' bytes read as strings
// (list find mode 13), which can pick a different child with the same
// leading bytes. A child held from an earlier walk is therefore not a safe
// starting point.
#pragma once

#include "rclib/dsllist.h"

struct MTREE_NODE {
  long word;
  void* data;  // never null
  LIST_HDR children;
  CELL* cursor;
};

// New node in *node; RC_FAIL for null data or without memory.
int mtree_create(long word, void* data, MTREE_NODE** node);
// Append or prepend `child`; its cell becomes the cursor.
int mtree_add_child(MTREE_NODE* node, MTREE_NODE* child);
int mtree_add_child_first(MTREE_NODE* node, MTREE_NODE* child);
// First or last child (null if none); the cursor moves there.
MTREE_NODE* mtree_first_child(MTREE_NODE* node);
MTREE_NODE* mtree_last_child(MTREE_NODE* node);
// The child after or before `child`, moving the cursor to it. Null at the
// end (cursor and rc_errno unchanged) or, with rc_errno 4, when `child` is
// not found.
MTREE_NODE* mtree_next_child(MTREE_NODE* node, MTREE_NODE* child);
MTREE_NODE* mtree_prev_child(MTREE_NODE* node, MTREE_NODE* child);
// Unlinks `child` (found through the cursor, else by identity), moves the
// cursor to the cell after it and returns the child, now owned by the
// caller; null with rc_errno 4 when it is not a child of `node`.
MTREE_NODE* mtree_remove_child(MTREE_NODE* node, MTREE_NODE* child);
// Destroys the node and all its descendants, children first; each node's
// data is released as CVALPTR when free_data is RC_OK. Nulls *node.
// RC_FAIL for a null `node`, RC_OK when *node already is null.
int mtree_destroy(MTREE_NODE** node, int free_data);
// Prints each node's data as a string, four blanks per level, children
// below their parent, to stdout.
int mtree_dump(const MTREE_NODE* node, int indent);
