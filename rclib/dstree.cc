#include "rclib/dstree.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "rclib/rc.h"
#include "rclib/rc_hmem.h"

int mtree_create(long word, void* data, MTREE_NODE** node) {
  rc_debug_entry("mtree_create");
  if (!node) return RC_FAIL;
  *node = nullptr;
  if (!data) return RC_FAIL;
  MTREE_NODE* fresh = RC_NEW(MTREE_NODE, MTREE_NODE);
  if (!fresh) return RC_FAIL;
  fresh->word = word;
  fresh->data = data;
  *node = fresh;
  return RC_OK;
}

int mtree_add_child(MTREE_NODE* node, MTREE_NODE* child) {
  if (!node || !child || node == child) return RC_FAIL;
  CELL* cell = dsl_append(&node->children, child);
  if (!cell) return RC_FAIL;
  node->cursor = cell;
  return RC_OK;
}

int mtree_add_child_first(MTREE_NODE* node, MTREE_NODE* child) {
  if (!node || !child || node == child) return RC_FAIL;
  CELL* cell = dsl_prepend(&node->children, child);
  if (!cell) return RC_FAIL;
  node->cursor = cell;
  return RC_OK;
}

static MTREE_NODE* visit(MTREE_NODE* node, CELL* cell) {
  if (!cell) return nullptr;
  node->cursor = cell;
  return static_cast<MTREE_NODE*>(cell->value);
}

MTREE_NODE* mtree_first_child(MTREE_NODE* node) {
  return node ? visit(node, node->children.head) : nullptr;
}

MTREE_NODE* mtree_last_child(MTREE_NODE* node) {
  return node ? visit(node, node->children.tail) : nullptr;
}

// The cursor is what makes an ordered walk exact; the string comparison of
// the fallback only serves a walker that lost its place.
static CELL* cell_of(MTREE_NODE* node, MTREE_NODE* child) {
  if (node->cursor && node->cursor->value == child) return node->cursor;
  CELL* cell = dsl_find(&node->children, child, kDslFindNoCase);
  if (!cell) rc_errno = kRcErrNotFound;
  return cell;
}

MTREE_NODE* mtree_next_child(MTREE_NODE* node, MTREE_NODE* child) {
  if (!node || !child) return nullptr;
  CELL* cell = cell_of(node, child);
  return cell ? visit(node, cell->next) : nullptr;
}

MTREE_NODE* mtree_prev_child(MTREE_NODE* node, MTREE_NODE* child) {
  if (!node || !child) return nullptr;
  CELL* cell = cell_of(node, child);
  return cell ? visit(node, cell->prev) : nullptr;
}

MTREE_NODE* mtree_remove_child(MTREE_NODE* node, MTREE_NODE* child) {
  if (!node || !child) return nullptr;
  // Removal must take exactly this child, so the fallback is by identity.
  CELL* cell = node->cursor && node->cursor->value == child
                   ? node->cursor
                   : dsl_find(&node->children, child, kDslFindPointer);
  if (!cell) {
    rc_errno = kRcErrNotFound;
    return nullptr;
  }
  node->cursor = cell->next;
  dsl_unlink_cell(&node->children, cell);
  RC_GIVE(CELLPTR, cell);
  return child;
}

int mtree_destroy(MTREE_NODE** node, int free_data) {
  rc_debug_entry("mtree_destroy");
  if (!node) return RC_FAIL;
  if (!*node) return RC_OK;
  // An explicit stack instead of recursion, so a deep tree cannot exhaust
  // the call stack. A node is released once its last child has been.
  std::vector<MTREE_NODE*> pending{*node};
  while (!pending.empty()) {
    MTREE_NODE* top = pending.back();
    if (top->children.head) {
      pending.push_back(static_cast<MTREE_NODE*>(dsl_pop_first(&top->children)));
      if (!pending.back()) pending.pop_back();
      continue;
    }
    pending.pop_back();
    if (free_data == RC_OK) RC_GIVE(CVALPTR, top->data);
    RC_GIVE(MTREE_NODE, top);
  }
  *node = nullptr;
  return RC_OK;
}

int mtree_dump(const MTREE_NODE* node, int indent) {
  if (!node) return RC_FAIL;
  if (indent < 0) indent = 0;
  std::vector<std::pair<const MTREE_NODE*, int>> pending{{node, indent}};
  while (!pending.empty()) {
    auto [current, level] = pending.back();
    pending.pop_back();
    for (int i = 0; i < level; ++i) std::fputs("    ", stdout);
    const char* text = static_cast<const char*>(current->data);
    std::printf("%s\n", text ? text : "(null)");
    // Pushed last to first, so that the first child is printed first.
    for (const CELL* cell = current->children.tail; cell; cell = cell->prev)
      if (cell->value) pending.emplace_back(static_cast<const MTREE_NODE*>(cell->value), level + 1);
  }
  return RC_OK;
}
