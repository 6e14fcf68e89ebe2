// Selection in the tree widget: the selection list (threaded through the
// nodes, so a node leaves it in constant time), single, control and shift
// selection with its anchor, positioning, and the keyboard's moves.
#include <algorithm>

#include "src/base/trace.h"
#include "src/organizer/tree.h"
#include "src/organizer/tree_internal.h"

using namespace tree;

namespace {

void Link(TreeInfo* info, TreeNode* node) {
  node->sel_prev = info->sel_last;
  node->sel_next = nullptr;
  if (info->sel_last)
    info->sel_last->sel_next = node;
  else
    info->sel_first = node;
  info->sel_last = node;
  info->sel_count++;
}

void Unlink(TreeInfo* info, TreeNode* node) {
  if (node->sel_prev)
    node->sel_prev->sel_next = node->sel_next;
  else if (info->sel_first == node)
    info->sel_first = node->sel_next;
  else
    return;  // not in the list
  if (node->sel_next)
    node->sel_next->sel_prev = node->sel_prev;
  else
    info->sel_last = node->sel_prev;
  node->sel_prev = node->sel_next = nullptr;
  info->sel_count--;
}

TreeInfo* WidgetOf(WINDOW win) { return TREE_GetInfo(win); }

// Walks count lines from start, selecting or deselecting, keeping the anchor.
void Walk(TreeInfo* info, TreeNode* start, int count, bool select) {
  TreeNode* n = start;
  for (int i = 0; i < count && n; ++i, n = TREE_NextNode(n)) {
    if (select && !Has(n, kNodeSelected)) AddSelection(info, n, false);
    if (!select && Has(n, kNodeSelected)) RemoveSelection(info, n, true);
  }
}

TreeNode* Neighbour(TreeInfo* info, TreeNode* from, bool next) {
  const TreeCache& c = info->cache;
  int i = from->cache_index;
  if (!c.need_rebuild && i >= 0) {
    int j = next ? i + 1 : i - 1;
    if (j >= 0 && j < c.entries && c.nodes[static_cast<size_t>(j)]) return c.nodes[static_cast<size_t>(j)];
  }
  return next ? TREE_NextNode(from) : TREE_PrevNode(from);
}

TreeNode* Current(TreeInfo* info) { return info->cache.current_selection; }

// Moves the selection to target: a range with shift, else the node alone.
void MoveTo(TreeInfo* info, TreeNode* target, int shift) {
  if (!target) return;
  if (shift)
    handleShiftClick(info, target);
  else
    TREE_SelectOnlyNode(target);
  TREE_ShowNodeOnDisplay(target);
}

TreeNode* Steps(TreeNode* from, int lines) {
  TreeNode* n = from;
  for (int i = 0; i < std::abs(lines) && n; ++i) {
    TreeNode* m = lines > 0 ? TREE_NextNode(n) : TREE_PrevNode(n);
    if (!m) break;
    n = m;
  }
  return n;
}

}  // namespace

namespace tree {

void AddSelection(TreeInfo* info, TreeNode* node, bool make_current) {
  Set(node, kNodeSelected, true);
  MarkDirty(node);
  Link(info, node);
  if (make_current) info->cache.current_selection = node;
}

void RemoveSelection(TreeInfo* info, TreeNode* node, bool keep_current) {
  Set(node, kNodeSelected, false);
  MarkDirty(node);
  if (!keep_current && info->cache.current_selection == node) info->cache.current_selection = nullptr;
  Unlink(info, node);
}

int AbsIndex(TreeInfo* info, TreeNode* node) {
  if (!node) return -1;
  const TreeCache& c = info->cache;
  if (!c.need_rebuild && node->cache_index >= 0) return c.offset + node->cache_index;
  if (!TREE_IsVisibleNode(node)) return -1;
  // Out of the cache: count from the top.
  int i = 0;
  TreeNode* n = info->root->first_kid;
  if (n && Has(n, kNodeHidden)) n = TREE_NextNode(n);
  for (; n; n = TREE_NextNode(n), ++i)
    if (n == node) return i;
  return -1;
}

void handleCtrlClick(TreeInfo* info, TreeNode* node) {
  if (Has(node, kNodeSelected))
    RemoveSelection(info, node, true);
  else
    AddSelection(info, node, true);
  info->cache.last_selection = nullptr;
  info->cache.last_abs_index = -1;
  ReportSelection(info);
  processUpdates(info);
}

void handleShiftClick(TreeInfo* info, TreeNode* node) {
  TreeCache& c = info->cache;
  TreeNode* anchor = c.current_selection;
  if (!anchor) {
    Trace(kTraceTree, kTraceLow, "handleShiftClick current_selection is NULL\n");
    return;
  }
  int anchor_index = AbsIndex(info, anchor);
  if (anchor_index < 0) return;
  if (!c.last_selection) {
    // No range before: the range starts at the anchor alone.
    TREE_ClearSelections(info->window, 1);
    if (!Has(anchor, kNodeSelected)) AddSelection(info, anchor, false);
    c.last_selection = anchor;
    c.last_abs_index = anchor_index;
  }
  bool down = c.last_abs_index >= anchor_index;
  int top = down ? anchor_index : c.last_abs_index;
  int bottom = down ? c.last_abs_index : anchor_index;
  int now = AbsIndex(info, node);
  if (now < 0) return;
  if (top == bottom && bottom == now) {
    if (!Has(node, kNodeSelected)) AddSelection(info, node, false);
    processUpdates(info);
    return;  // the anchor alone: nothing the listeners need to hear
  }
  enum { kAbove, kBetween, kBelow } where = (top < now && now <= bottom) ? kBetween : now > bottom ? kBelow : kAbove;
  if (!down) {
    if (where == kAbove) {
      Walk(info, node, c.last_abs_index - now, true);
    } else if (where == kBetween) {
      Walk(info, c.last_selection, now - c.last_abs_index, false);
    } else {
      TREE_ClearSelections(info->window, 1);
      Walk(info, anchor, now - anchor_index + 1, true);
    }
  } else {
    if (where == kAbove) {
      TREE_ClearSelections(info->window, 1);
      Walk(info, node, anchor_index - now + 1, true);
    } else if (where == kBetween) {
      TreeNode* after = TREE_NextNode(node);
      Walk(info, after ? after : node, c.last_abs_index - now, false);
    } else {
      TreeNode* after = TREE_NextNode(c.last_selection);
      Walk(info, after ? after : c.last_selection, now - c.last_abs_index, true);
    }
  }
  c.last_selection = node;
  c.last_abs_index = now;
  ReportSelection(info);
  processUpdates(info);
}

void pageUp(TreeInfo* info, int pages, int shift) {
  TreeCache& c = info->cache;
  int page = std::max(c.visible_lines - 1, 1) * pages;
  TreeNode* from = shift && c.last_selection ? c.last_selection : Current(info);
  scrollUp(info, page);
  if (!from) from = c.top_node;
  MoveTo(info, Steps(from, -page), shift);
}

void pageDown(TreeInfo* info, int pages, int shift) {
  TreeCache& c = info->cache;
  int page = std::max(c.visible_lines - 1, 1) * pages;
  TreeNode* from = shift && c.last_selection ? c.last_selection : Current(info);
  scrollDown(info, page);
  if (!from) from = c.top_node;
  MoveTo(info, Steps(from, page), shift);
}

void treeTop(TreeInfo* info, int shift) {
  TreeNode* first = info->root->first_kid;
  if (first && Has(first, kNodeHidden)) first = TREE_NextNode(first);
  MoveTo(info, first, shift);
}

void treeBottom(TreeInfo* info, int shift) { MoveTo(info, findRightmostKid(info->root), shift); }

}  // namespace tree

// ---------------------------------------------------------------------------

void TREE_SelectNode(TreeNode* node, int select, int quiet) {
  TreeInfo* info = InfoOf(node);
  if (!info || Has(node, kNodeSelected) == (select != 0)) return;
  if (select)
    AddSelection(info, node, true);
  else
    RemoveSelection(info, node, false);
  if (!quiet) {
    ReportSelection(info);
    if (node->display_line != kTreeInvalid) processUpdates(info);
  }
}

void TREE_SelectOnlyNode(TreeNode* node, int quiet) {
  TreeInfo* info = InfoOf(node);
  if (!info) return;
  if (Has(node, kNodeSelected) && info->sel_count < 2) return;
  if (!quiet) TREE_SuspendUpdates(info->window);
  TREE_ClearSelections(info->window, 1);
  TREE_SelectNode(node, 1, quiet);
  if (!quiet) TREE_ResumeUpdates(info->window);
}

void TREE_ClearSelections(WINDOW win, int quiet) {
  TreeInfo* info = WidgetOf(win);
  if (!info || !info->sel_first) return;
  for (TreeNode* n = info->sel_first; n;) {
    TreeNode* next = n->sel_next;
    Set(n, kNodeSelected, false);
    MarkDirty(n);
    n->sel_prev = n->sel_next = nullptr;
    n = next;
  }
  info->sel_first = info->sel_last = nullptr;
  info->sel_count = 0;
  info->cache.last_selection = nullptr;
  info->cache.last_abs_index = -1;
  // The anchor stays, so that a later shift click ranges from it.
  if (!quiet) ReportSelection(info);
}

void TREE_SelectAndPositionNode(TreeNode* node, int pos) {
  TreeInfo* info = InfoOf(node);
  if (!info) return;
  info->cache.new_top = info->cache.top_node;
  TREE_SuspendUpdates(info->window);
  TREE_ClearSelections(info->window, 1);
  AddSelection(info, node, true);
  ReportSelection(info);
  TREE_ResumeUpdates(info->window);
  TREE_PositionNode(node, pos);
}

void TREE_PositionNode(TreeNode* node, int pos) {
  TreeInfo* info = InfoOf(node);
  if (!info || !TREE_IsVisibleNode(node)) return;
  TreeCache& c = info->cache;
  c.new_top = c.top_node;
  if (info->suspended) return;  // resume redraws; the cache is rebuilt then
  if (c.need_rebuild) rebuildCache(info, c.new_top);
  if (node->display_line != kTreeInvalid && node->display_line < c.visible_lines) {
    TREE_RedrawNode(node);
    return;
  }
  if (node->cache_index < 0) {
    c.need_rebuild = 1;
    rebuildCache(info, node);
  }
  if (pos < 0 || pos > c.visible_lines) pos = (c.visible_lines - 1) / 2;
  int top = std::min(std::max(c.entries - c.visible_lines, 0), std::max(node->cache_index - pos, 0));
  c.new_top = c.nodes[static_cast<size_t>(top)];
  info->need_update = true;
  processUpdates(info);
}

void TREE_SelectAll(WINDOW win) {
  TreeInfo* info = WidgetOf(win);
  if (!info) return;
  TREE_SuspendUpdates(win);
  TreeNode* n = info->root->first_kid;
  if (n && Has(n, kNodeHidden)) n = TREE_NextNode(n);
  TreeNode* first = n;
  for (; n; n = TREE_NextNode(n))
    if (!Has(n, kNodeSelected)) AddSelection(info, n, false);
  if (!info->cache.current_selection) info->cache.current_selection = first;
  info->cache.last_selection = nullptr;
  info->cache.last_abs_index = -1;
  ReportSelection(info);
  TREE_ResumeUpdates(win);
}

int TREE_GetSelectionCount(const TreeNode* node) {
  TreeInfo* info = InfoOf(node);
  return info ? info->sel_count : 0;
}

std::vector<TreeNode*> TREE_GetSelections(const TreeNode* node) {
  std::vector<TreeNode*> out;
  TreeInfo* info = InfoOf(node);
  if (!info) return out;
  out.reserve(static_cast<size_t>(info->sel_count));
  for (TreeNode* n = info->sel_first; n; n = n->sel_next) out.push_back(n);
  return out;
}

TreeNode* TREE_FirstSelection(WINDOW win) {
  TreeInfo* info = WidgetOf(win);
  return info ? info->sel_first : nullptr;
}

void TREE_RemoveNodeSelections(TreeNode* node) {
  TreeInfo* info = InfoOf(node);
  if (!info || info->sel_count == 0) return;
  bool removed = false;
  std::vector<TreeNode*> stack{node};
  while (!stack.empty()) {
    TreeNode* n = stack.back();
    stack.pop_back();
    if (Has(n, kNodeSelected)) {
      Set(n, kNodeSelected, false);
      MarkDirty(n);
      Unlink(info, n);
      removed = true;
    }
    for (TreeNode* k = n->first_kid; k; k = k->next) stack.push_back(k);
  }
  if (removed) ReportSelection(info);
}

void TREE_SelectNextNode(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  if (!info) return;
  TreeCache& c = info->cache;
  TreeNode* from = shift && c.last_selection ? c.last_selection : c.current_selection;
  if (!from) return;
  MoveTo(info, Neighbour(info, from, true), shift);
}

void TREE_SelectPrevNode(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  if (!info) return;
  TreeCache& c = info->cache;
  TreeNode* from = shift && c.last_selection ? c.last_selection : c.current_selection;
  if (!from) return;
  MoveTo(info, Neighbour(info, from, false), shift);
}

void TREE_GoRight(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  TreeNode* cur = info ? Current(info) : nullptr;
  if (!cur) return;
  if (!Has(cur, kNodeSelected)) TREE_SelectOnlyNode(cur);
  if (Has(cur, kNodeOpen)) {
    TreeNode* kid = TREE_FirstKid(cur);
    if (!kid) return;
    if (shift)
      handleShiftClick(info, kid);
    else
      TREE_SelectAndPositionNode(kid, std::max(cur->display_line + 1, 1));
    TREE_ShowNodeOnDisplay(kid);
    return;
  }
  TREE_SelectOnlyNode(cur);
  if (!Has(cur, kNodeLeaf)) TREE_OpenSubtree(cur, 1, 0);
}

void TREE_GoLeft(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  TreeNode* cur = info ? Current(info) : nullptr;
  if (!cur) return;
  if (Has(cur, kNodeOpen) && cur->first_kid) {
    TREE_SelectOnlyNode(cur);
    TREE_OpenSubtree(cur, 0, 0);
    return;
  }
  TreeNode* parent = cur->parent;
  if (!parent || IsRoot(parent)) return;
  if (shift) {
    handleShiftClick(info, parent);
    TREE_ShowNodeOnDisplay(parent);
  } else {
    TREE_SelectAndPositionNode(parent, 0);
  }
}

void TREE_SetInitSelection(WINDOW win) {
  TreeInfo* info = WidgetOf(win);
  if (!info || info->cache.current_selection) return;
  TreeNode* n = info->cache.last_selection;
  if (!n) n = TREE_FirstKid(info->root);
  if (!n) return;
  TREE_SelectOnlyNode(n);
  TREE_ShowNodeOnDisplay(n);
}

void TREE_DisplayTop(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  if (!info || info->cache.displayed_count == 0) return;
  MoveTo(info, info->cache.displayed[0], shift);
}

void TREE_DisplayBottom(WINDOW win, int shift) {
  TreeInfo* info = WidgetOf(win);
  if (!info || info->cache.displayed_count == 0) return;
  int last = std::min(info->cache.displayed_count, info->cache.visible_lines) - 1;
  while (last > 0 && !info->cache.displayed[static_cast<size_t>(last)]) --last;
  MoveTo(info, info->cache.displayed[static_cast<size_t>(std::max(last, 0))], shift);
}
