// The tree widget's model: nodes and their links, insertion (plain, sorted,
// re-sorted), moving kids to a context window, detaching and freeing,
// hiding, opening and closing, counting lines, suspension, walks in display
// order, and the widget's creation and end.
#include <algorithm>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "src/base/errors.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/organizer/tree.h"
#include "src/organizer/tree_internal.h"

using namespace tree;

namespace {

// Where the next sorted insertion starts its search. One value for every
// tree: a folder that arrives sorted, in either direction, then costs a
// step or two per message.
bool g_from_front = true;

// Lines the node occupies, its visibility aside (a hidden node has none).
int Lines(const TreeNode* n) {
  if (Has(n, kNodeHidden)) return 0;
  if (!Has(n, kNodeOpen) || Has(n, kNodeOpenElsewhere) || !n->first_kid) return 1;
  int lines = 1;
  for (const TreeNode* k = n->first_kid; k; k = k->next) lines += Lines(k);
  return lines;
}

int16_t OffsetFor(const TreeNode* parent, const TreeNode* node) {
  TreeInfo* info = parent->info;
  int base = info ? info->base_offset : 0;
  if (IsRoot(parent)) return static_cast<int16_t>(base);
  int off = base + node->indent;
  // The top-level ancestor's own indent is not counted.
  for (const TreeNode* a = parent; a->parent && !IsRoot(a->parent); a = a->parent) off += a->indent;
  return static_cast<int16_t>(off);
}

// After a node entered a parent: info and offsets of the whole subtree.
void Adopt(TreeNode* parent, TreeNode* node) {
  node->parent = parent;
  bool moved = node->info != parent->info;
  node->info = parent->info;
  node->abs_offset = OffsetFor(parent, node);
  if (!node->first_kid) return;
  // Kids built while the subtree was detached learn their widget now.
  std::vector<TreeNode*> stack;
  for (TreeNode* k = node->first_kid; k; k = k->next) stack.push_back(k);
  while (!stack.empty()) {
    TreeNode* n = stack.back();
    stack.pop_back();
    if (moved) {
      n->info = parent->info;
      n->cache_index = kTreeInvalid;
      n->display_line = kTreeInvalid;
    }
    n->abs_offset = OffsetFor(n->parent, n);
    for (TreeNode* k = n->first_kid; k; k = k->next) stack.push_back(k);
  }
}

// The bookkeeping every insertion shares, once the node is linked.
// The siblings beside a line that comes or goes draw their connecting lines
// differently when it is at either end of the unhidden ones.
void MarkEnds(TreeNode* node) {
  TreeNode* before = TREE_PrevSibling(node);
  TreeNode* after = TREE_NextSibling(node);
  if (!after && before) MarkSubtreeDirty(before);
  if (!before && after) MarkDirty(after);
}

void Inserted(TreeNode* parent, TreeNode* node) {
  Adopt(parent, node);
  parent->kid_count++;
  TreeInfo* info = parent->info;
  if (!info || !TREE_IsVisibleNode(node)) return;
  MarkEnds(node);
  NoteLinesChanged(info, node, TREE_VisibleCount(node));
  info->cache.need_rebuild = 1;
  processUpdates(info);
}

void LinkAtEnd(TreeNode* parent, TreeNode* node) {
  node->prev = parent->last_kid;
  node->next = nullptr;
  if (parent->last_kid)
    parent->last_kid->next = node;
  else
    parent->first_kid = node;
  parent->last_kid = node;
}

void LinkBefore(TreeNode* parent, TreeNode* node, TreeNode* before) {
  node->next = before;
  node->prev = before->prev;
  if (before->prev)
    before->prev->next = node;
  else
    parent->first_kid = node;
  before->prev = node;
}

TreeNode* MakeNode(int32_t kind, int leaf, void* data, int indent, TREE_DRAW_FN draw, TREE_ACTION_FN action,
                   TREE_WIDTH_FN width, const char* where) {
  auto* n = new (std::nothrow) TreeNode{};
  if (!n) {
    ErrorShow(2002, where);
    return nullptr;
  }
  n->node_kind = kind;
  n->data = data;
  n->indent = static_cast<int16_t>(indent);
  n->draw = draw;
  n->action = action;
  n->width = width;
  n->abs_offset = -1;
  n->cache_index = kTreeInvalid;
  n->display_line = kTreeInvalid;
  n->flags = leaf ? kNodeLeaf : 0;
  return n;
}

void freeNode(WINDOW win, TreeNode* node) {
  // A node shown in a context window keeps its record: that window uses it.
  if (node->action && !Has(node, kNodeOpenElsewhere)) node->action(win, node, kNodeEventDestroy);
  delete node;
}

int WantAbandon(ModelEvent* event, void*) {
  return event->type == E_ABANDON_SHIP || event->type == E_BATCH_BEGIN || event->type == E_BATCH_END;
}
void HandleAbandon(ModelEvent* event, void* data) {
  auto* info = static_cast<TreeInfo*>(data);
  if (!info || !info->window) return;
  switch (event->type) {
    case E_BATCH_BEGIN:
      ++info->batch_depth;
      TREE_SuspendUpdates(info->window);
      break;
    case E_BATCH_END:
      // A widget made during the run never suspended for it.
      if (info->batch_depth == 0) break;
      --info->batch_depth;
      TREE_ResumeUpdates(info->window);
      break;
    default:
      // Nothing redraws while the program shuts down.
      TREE_SuspendUpdates(info->window);
      break;
  }
}

// Puts sorted kids back in their new order; the lines don't change, only
// where they lie.
void Relink(TreeNode* parent, const std::vector<TreeNode*>& order) {
  TreeInfo* info = parent->info;
  bool shown = info && Has(parent, kNodeOpen) && TREE_IsVisibleNode(parent) && !Has(parent, kNodeOpenElsewhere);
  TreeNode* keep = nullptr;
  int keep_line = -1;
  if (shown) {
    keep = info->cache.current_selection;
    if (keep && (!Has(keep, kNodeSelected) || keep->display_line < 0)) keep = nullptr;
    keep_line = keep ? keep->display_line : -1;
    MarkSubtreeDirty(parent);
  }
  parent->first_kid = parent->last_kid = nullptr;
  for (TreeNode* k : order) LinkAtEnd(parent, k);
  if (!shown) return;
  // The lines before the cache may have changed: the next rebuild counts.
  info->offset_known = false;
  for (int i = 0; i < info->cache.entries; ++i)
    if (TreeNode* n = info->cache.nodes[static_cast<size_t>(i)]) n->cache_index = kTreeInvalid;
  info->cache.entries = 0;
  info->cache.top_node = nullptr;
  info->cache.need_rebuild = 1;
  info->need_update = true;
  // The line the user was working on stays where it was on the screen.
  if (keep) {
    info->cache.new_top = nullptr;
    rebuildCache(info, keep);
    TREE_PositionNode(keep, keep_line);
  } else {
    info->cache.new_top = nullptr;
    processUpdates(info);
  }
}

}  // namespace

namespace tree {

void MarkDirty(TreeNode* node) {
  if (node && node->display_line != kTreeInvalid) Set(node, kNodeDirty, true);
}

void MarkSubtreeDirty(TreeNode* node) {
  TreeInfo* info = InfoOf(node);
  if (!info) return;
  // Only what is on the screen can be dirty: look there, not in the subtree.
  for (int i = 0; i < info->cache.displayed_count; ++i) {
    TreeNode* d = info->cache.displayed[static_cast<size_t>(i)];
    for (TreeNode* a = d; a; a = a->parent)
      if (a == node) {
        Set(d, kNodeDirty, true);
        break;
      }
  }
}

void ReportSelection(TreeInfo* info) {
  if (!info || !info->selection_callback) return;
  if (info->suspended)
    info->selection_changed = true;
  else
    info->selection_callback(info->window, info->root);
}

int RunAction(TreeInfo* info, TreeNode* node, int event) {
  if (!node->action) return kNodeActionOk;
  bool was = info->actions_enabled;
  info->actions_enabled = false;
  int r = node->action(info->window, node, event);
  info->actions_enabled = was;
  return r;
}

void NoteLinesChanged(TreeInfo* info, TreeNode* node, int lines) {
  if (lines == 0) return;
  info->entries_visible += lines;
  // A line that was not in the cache may lie before it; the offset is then
  // counted again at the next rebuild.
  if (node->cache_index == kTreeInvalid) info->offset_known = false;
}

void freeTree(WINDOW win, TreeNode* node) {
  if (!node) return;
  // The root of a window that shows another line's kids: the line gets
  // its record back as an ordinary line, so that it is freed with its own
  // tree and nothing keeps pointing at this one.
  if (TreeNode* origin = node->origin_node) {
    if (origin->elsewhere_root == node) {
      origin->elsewhere_root = nullptr;
      Set(origin, kNodeOpenElsewhere, false);
    }
    node->origin_node = nullptr;
  }
  // Depth first, without recursion: a folder may hold very many lines.
  std::vector<std::pair<TreeNode*, bool>> stack;
  for (TreeNode* k = node->first_kid; k; k = k->next) stack.push_back({k, false});
  while (!stack.empty()) {
    auto& [n, expanded] = stack.back();
    if (!expanded) {
      expanded = true;
      TreeNode* cur = n;
      // A line open in a window of its own leaves its record to that
      // window, whose root forgets the line that is going.
      if (Has(cur, kNodeOpenElsewhere) && cur->elsewhere_root) cur->elsewhere_root->origin_node = nullptr;
      // The kid hears of its end before its own kids go.
      if (cur->action && !Has(cur, kNodeOpenElsewhere)) cur->action(win, cur, kNodeEventDestroy);
      cur->action = nullptr;
      for (TreeNode* k = cur->first_kid; k; k = k->next) stack.push_back({k, false});
      continue;
    }
    TreeNode* done = n;
    stack.pop_back();
    delete done;
  }
  freeNode(win, node);
}

}  // namespace tree

// ---------------------------------------------------------------------------
// Nodes

TreeNode* TREE_NewNode(int leaf, void* data, int indent, TREE_DRAW_FN draw, TREE_ACTION_FN action,
                       TREE_WIDTH_FN width) {
  return MakeNode(kTreeNodeKind, leaf, data, indent, draw, action, width, "TREE_NewNode");
}

TreeNode* TREE_NewRootNode(int leaf, void* data, int indent, TREE_DRAW_FN draw, TREE_ACTION_FN action,
                           TREE_WIDTH_FN width) {
  return MakeNode(kTreeRootKind, leaf, data, indent, draw, action, width, "TREE_NewRootNode");
}

void TREE_DestroyNode(TreeNode*& node) {
  if (!node) return;
  TreeInfo* info = node->info;
  freeTree(info ? info->window : NULL_WIN, node);
  node = nullptr;
}

void TREE_DetachNode(TreeNode* node) {
  if (!node || !node->parent) return;
  Trace(kTraceTree, kTraceAll, "TREE_DetachNode: function entry.");
  TreeNode* parent = node->parent;
  TreeInfo* info = node->info;
  bool visible = TREE_IsVisibleNode(node);
  int lines = visible ? TREE_VisibleCount(node) : 0;
  TREE_RemoveNodeSelections(node);
  if (info && visible) NoteLinesChanged(info, node, -lines);
  if (info) removeNodeFromCache(info, node);
  if (visible) MarkEnds(node);
  if (node->prev)
    node->prev->next = node->next;
  else
    parent->first_kid = node->next;
  if (node->next)
    node->next->prev = node->prev;
  else
    parent->last_kid = node->prev;
  parent->kid_count--;
  node->parent = node->next = node->prev = nullptr;
  if (info && visible) {
    info->need_update = true;
    info->cache.need_rebuild = 1;
    processUpdates(info);
  }
}

void TREE_RemoveNode(TreeNode* node) {
  if (!node) return;
  TreeInfo* info = node->info;
  TREE_DetachNode(node);
  freeTree(info ? info->window : NULL_WIN, node);
}

void TREE_RemoveKidNodes(TreeNode* node) {
  if (!node) return;
  TreeInfo* info = node->info;
  if (info) TREE_SuspendUpdates(info->window);
  for (TreeNode* k = node->first_kid; k;) {
    TreeNode* next = k->next;
    TREE_RemoveNode(k);
    k = next;
  }
  if (info) TREE_ResumeUpdates(info->window);
}

// ---------------------------------------------------------------------------
// Insert

void TREE_AppendNode(TreeNode* parent, TreeNode* node) {
  if (!parent || !node) return;
  LinkAtEnd(parent, node);
  Inserted(parent, node);
}

void TREE_InsertNode(TreeNode* parent, TreeNode* node, TreeNode* before) {
  if (!parent || !node) return;
  if (!before || !parent->first_kid) {
    if (!parent->first_kid) {
      LinkAtEnd(parent, node);
      Inserted(parent, node);
    } else {
      TREE_AppendNode(parent, node);
    }
    return;
  }
  LinkBefore(parent, node, before);
  Inserted(parent, node);
}

int TREE_InsertSorted(TreeNode* parent, TreeNode* node, TREE_COMPARE_FN compare, int allow_equal) {
  if (!parent || !node || !compare) return 0;
  if (!parent->first_kid) {
    TREE_AppendNode(parent, node);
    return 1;
  }
  int pos = 0;
  if (g_from_front) {
    TreeNode* k = parent->first_kid;
    for (; k; k = k->next, ++pos) {
      int c = compare(node->data, k->data);
      if (c < 0) break;
      if (c == 0) {
        if (!allow_equal) return 0;
        break;
      }
    }
    TREE_InsertNode(parent, node, k);
  } else {
    pos = parent->kid_count;
    TreeNode* k = parent->last_kid;
    for (; k; k = k->prev, --pos) {
      int c = compare(node->data, k->data);
      if (c > 0) {
        TREE_InsertNode(parent, node, k->next);
        break;
      }
      if (c == 0) {
        if (!allow_equal) return 0;
        TREE_InsertNode(parent, node, k);
        break;
      }
    }
    if (!k) TREE_InsertNode(parent, node, parent->first_kid);
  }
  g_from_front = parent->kid_count / 2 >= pos;
  return 1;
}

void TREE_ResetInsertHint() { g_from_front = true; }
bool TREE_InsertHintFromFront() { return g_from_front; }

void TREE_ResortTree(TreeNode* parent, TREE_COMPARE_FN compare) {
  if (!parent || !compare || parent->kid_count < 2) return;
  Trace(kTraceTree, kTraceAll, "TREE_ResortTree: function entry.");
  std::vector<TreeNode*> order;
  order.reserve(static_cast<size_t>(parent->kid_count));
  for (TreeNode* k = parent->first_kid; k; k = k->next) order.push_back(k);
  std::stable_sort(order.begin(), order.end(),
                   [compare](TreeNode* a, TreeNode* b) { return compare(a->data, b->data) < 0; });
  Relink(parent, order);
}

void TREE_ResortTreeByKey(TreeNode* parent, TREE_KEY_FN key_of, bool descending) {
  if (!parent || !key_of || parent->kid_count < 2) return;
  Trace(kTraceTree, kTraceAll, "TREE_ResortTreeByKey: function entry.");
  struct Keyed {
    TreeSortKey key;
    TreeNode* node;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(static_cast<size_t>(parent->kid_count));
  for (TreeNode* k = parent->first_kid; k; k = k->next) keyed.push_back({key_of(k->data), k});
  auto less = [](const TreeSortKey& a, const TreeSortKey& b) {
    if (a.number != b.number) return a.number < b.number;
    if (int c = a.text.compare(b.text)) return c < 0;
    return a.tie < b.tie;
  };
  if (descending)
    std::stable_sort(keyed.begin(), keyed.end(), [&](const Keyed& a, const Keyed& b) { return less(b.key, a.key); });
  else
    std::stable_sort(keyed.begin(), keyed.end(), [&](const Keyed& a, const Keyed& b) { return less(a.key, b.key); });
  std::vector<TreeNode*> order;
  order.reserve(keyed.size());
  for (const Keyed& k : keyed) order.push_back(k.node);
  Relink(parent, order);
}

void TREE_MoveKids(TreeNode* to_root, TreeNode* from_node) {
  if (!to_root || !from_node || to_root == from_node) return;
  TreeInfo* to = to_root->info;
  TreeInfo* from = from_node->info;
  if (to) TREE_SuspendUpdates(to->window);
  if (from && from != to) TREE_SuspendUpdates(from->window);
  bool from_visible = TREE_IsVisibleNode(from_node);
  int lose = from_visible ? Lines(from_node) - 1 : 0;
  uint16_t saved = from_node->flags;
  Set(from_node, kNodeOpen, Has(to_root, kNodeOpen));
  Set(from_node, kNodeOpenElsewhere, false);
  int gain = TREE_IsVisibleNode(to_root) ? Lines(from_node) - 1 : 0;
  from_node->flags = saved;
  if (from) {
    TREE_RemoveNodeSelections(from_node);
    for (TreeNode* k = from_node->first_kid; k; k = k->next) removeNodeFromCache(from, k);
    NoteLinesChanged(from, from_node, -lose);
    if (lose) from->offset_known = false;
    from->cache.need_rebuild = 1;
    from->need_update = true;
  }
  to_root->first_kid = from_node->first_kid;
  to_root->last_kid = from_node->last_kid;
  to_root->kid_count = from_node->kid_count;
  from_node->first_kid = from_node->last_kid = nullptr;
  from_node->kid_count = 0;
  for (TreeNode* k = to_root->first_kid; k; k = k->next) {
    k->info = nullptr;  // so that Adopt renews the whole subtree
    k->cache_index = k->display_line = kTreeInvalid;
    Adopt(to_root, k);
  }
  if (to) {
    to->entries_visible += gain;
    to->offset_known = false;
    to->cache.need_rebuild = 1;
    to->need_update = true;
  }
  if (from && from != to) TREE_ResumeUpdates(from->window);
  if (to) TREE_ResumeUpdates(to->window);
}

// ---------------------------------------------------------------------------
// Show

bool TREE_IsVisibleNode(const TreeNode* node) {
  if (!node || Has(node, kNodeHidden)) return false;
  if (IsRoot(node)) return true;
  for (const TreeNode* a = node->parent; a; a = a->parent) {
    if (IsRoot(a)) return true;
    if (!Has(a, kNodeOpen) || Has(a, kNodeHidden) || Has(a, kNodeOpenElsewhere)) return false;
  }
  return false;  // detached
}

int TREE_VisibleCount(const TreeNode* node) { return TREE_IsVisibleNode(node) ? Lines(node) : 0; }

void TREE_HideNode(TreeNode* node, int hide) {
  if (!node || Has(node, kNodeHidden) == (hide != 0)) return;
  TreeInfo* info = node->info;
  if (!info) {
    Set(node, kNodeHidden, hide != 0);
    return;
  }
  TREE_ClearSelections(info->window);
  info->cache.need_rebuild = 1;
  info->need_update = true;
  // The unhidden siblings at the ends draw the connecting lines differently.
  auto ends = [node](TreeNode** first, TreeNode** last) {
    TreeNode* p = node->parent;
    *first = p ? p->first_kid : nullptr;
    while (*first && Has(*first, kNodeHidden)) *first = (*first)->next;
    *last = p ? p->last_kid : nullptr;
    while (*last && Has(*last, kNodeHidden)) *last = (*last)->prev;
  };
  TreeNode *first = nullptr, *last = nullptr;
  if (hide) {
    ends(&first, &last);
    NoteLinesChanged(info, node, -TREE_VisibleCount(node));
    Set(node, kNodeHidden, true);
    removeNodeFromCache(info, node);
  } else {
    Set(node, kNodeHidden, false);
    NoteLinesChanged(info, node, TREE_VisibleCount(node));
    ends(&first, &last);
  }
  if (node == first) MarkDirty(TREE_NextSibling(node));
  if (node == last) MarkSubtreeDirty(TREE_PrevSibling(node));
  processUpdates(info);
}

void TREE_OpenSubtree(TreeNode* node, int should_open, int no_open) {
  if (!node || Has(node, kNodeOpen) == (should_open != 0)) return;
  TreeInfo* info = node->info;
  if (info) TREE_SuspendUpdates(info->window);
  int result = kNodeActionOk;
  bool visible = TREE_IsVisibleNode(node);
  if (should_open) {
    if (node->action && info) {
      result = RunAction(info, node, kNodeEventExpanding);
      ReportSelection(info);
    }
    if (result == kNodeActionOk && !no_open) {
      Set(node, kNodeOpen, true);
      if (info && visible) NoteLinesChanged(info, node, Lines(node) - 1);
    } else if (result == kNodeActionOk) {
      Set(node, kNodeOpen, false);  // kids fetched, but they stay closed
    }
  } else {
    if (info && visible) NoteLinesChanged(info, node, -(Lines(node) - 1));
    Set(node, kNodeOpen, false);
  }
  if (info) {
    if (result == kNodeActionOk) info->cache.need_rebuild = 1;
    MarkDirty(node);
    TREE_ResumeUpdates(info->window);
  }
}

void TREE_RedrawNode(TreeNode* node) {
  if (!node || !node->info) return;
  MarkDirty(node);
  processUpdates(node->info);
}

void TREE_UpdateNode(WINDOW win, int data_type) {
  TreeInfo* info = TREE_GetInfo(win);
  if (!info) return;
  for (int i = 0; i < info->cache.displayed_count; ++i)
    if (TreeNode* n = info->cache.displayed[static_cast<size_t>(i)])
      if (TREE_GetDataType(n) == data_type) Set(n, kNodeDirty, true);
  processUpdates(info);
}

void TREE_SuspendUpdates(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  if (!info) return;
  if (info->suspend_count++ == 0) {
    xvt_dwin_update(win);
    info->suspended = true;
  }
}

void TREE_ResumeUpdates(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  if (!info) return;
  if (--info->suspend_count > 0) return;
  info->suspend_count = 0;
  info->suspended = false;
  if (info->selection_changed) {
    info->selection_changed = false;
    if (info->selection_callback) info->selection_callback(win, info->root);
  }
  processUpdates(info);
}

void TREE_SetNodeEnabled(TreeNode* node, int enabled) {
  if (node) Set(node, kNodeDisabled, !enabled);
}

int TREE_GetAbsOffset(const TreeNode* node) { return node ? node->abs_offset : 0; }

int TREE_GetLineStart(WINDOW win, const TreeNode* node) {
  TreeInfo* info = TREE_GetInfo(win);
  return TREE_GetAbsOffset(node) + (info ? info->margin : 0);
}

int TREE_EntriesVisible(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info ? info->entries_visible : 0;
}

// ---------------------------------------------------------------------------
// Walks

TreeNode* TREE_NextNode(const TreeNode* node) {
  if (!node) return nullptr;
  const TreeNode* n = node;
  do {
    if (!Has(n, kNodeHidden) && Has(n, kNodeOpen) && !Has(n, kNodeOpenElsewhere) && n->first_kid) {
      n = n->first_kid;
    } else {
      while (n && !n->next) {
        n = n->parent;
        if (!n || IsRoot(n)) return nullptr;
      }
      if (!n) return nullptr;
      n = n->next;
    }
  } while (Has(n, kNodeHidden));
  return const_cast<TreeNode*>(n);
}

TreeNode* TREE_PrevNode(const TreeNode* node) {
  if (!node) return nullptr;
  const TreeNode* n = node;
  do {
    if (n->prev) {
      n = n->prev;
      while (Has(n, kNodeOpen) && !Has(n, kNodeHidden) && !Has(n, kNodeOpenElsewhere) && n->last_kid) {
        n = n->last_kid;
        // A hidden last kid: its previous siblings are what shows.
        while (n && Has(n, kNodeHidden) && n->prev) n = n->prev;
      }
    } else {
      n = n->parent;
      if (!n || IsRoot(n)) return nullptr;
    }
  } while (Has(n, kNodeHidden));
  return const_cast<TreeNode*>(n);
}

TreeNode* TREE_NextSibling(const TreeNode* node) {
  TreeNode* n = node ? node->next : nullptr;
  while (n && Has(n, kNodeHidden)) n = n->next;
  return n;
}

TreeNode* TREE_PrevSibling(const TreeNode* node) {
  TreeNode* n = node ? node->prev : nullptr;
  while (n && Has(n, kNodeHidden)) n = n->prev;
  return n;
}

TreeNode* TREE_FirstKid(const TreeNode* node) {
  TreeNode* n = node ? node->first_kid : nullptr;
  while (n && Has(n, kNodeHidden)) n = n->next;
  return n;
}

TreeNode* TREE_SearchNode(TreeNode* start, void* key, TREE_SEARCH_FN compare) {
  if (!compare) return nullptr;
  int first = 0;
  bool stepped = false;
  for (TreeNode* n = start; n;) {
    int c = compare(n, key);
    if (c == 0) return n;
    if (stepped && c != first) return nullptr;  // never turn back
    first = c;
    stepped = true;
    n = c > 0 ? n->next : n->prev;
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// Accessors

int TREE_GetDataType(const TreeNode* node) {
  if (!node || !node->data) return kNodeDataTypeNone;
  return *static_cast<const int32_t*>(node->data);
}
void* TREE_GetData(const TreeNode* node) { return node ? node->data : nullptr; }
void TREE_SetData(TreeNode* node, void* data) {
  if (node) node->data = data;
}
TreeNode* TREE_GetParent(const TreeNode* node) { return node ? node->parent : nullptr; }
TreeNode* TREE_GetNext(const TreeNode* node) { return node ? node->next : nullptr; }
TreeNode* TREE_GetPrev(const TreeNode* node) { return node ? node->prev : nullptr; }
TreeNode* TREE_GetFirstKid(const TreeNode* node) { return node ? node->first_kid : nullptr; }
TreeNode* TREE_GetLastKid(const TreeNode* node) { return node ? node->last_kid : nullptr; }
TreeNode* TREE_GetElsewhereRoot(const TreeNode* node) { return node ? node->elsewhere_root : nullptr; }
void TREE_SetElsewhereRoot(TreeNode* node, TreeNode* root) {
  if (node) node->elsewhere_root = root;
}
TreeNode* TREE_GetOriginNode(const TreeNode* node) { return node ? node->origin_node : nullptr; }
void TREE_SetOriginNode(TreeNode* node, TreeNode* origin) {
  if (node) node->origin_node = origin;
}
bool TREE_IsOpen(const TreeNode* node) { return node && Has(node, kNodeOpen); }
bool TREE_IsHidden(const TreeNode* node) { return node && Has(node, kNodeHidden); }
bool TREE_IsSelected(const TreeNode* node) { return node && Has(node, kNodeSelected); }
bool TREE_IsOpenElsewhere(const TreeNode* node) { return node && Has(node, kNodeOpenElsewhere); }
void TREE_SetOpenElsewhere(TreeNode* node, bool on) {
  if (node) Set(node, kNodeOpenElsewhere, on);
}
bool TREE_IsDisabled(const TreeNode* node) { return node && Has(node, kNodeDisabled); }
TreeNode* TREE_GetRoot(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info ? info->root : nullptr;
}
WINDOW TREE_GetWindow(const TreeNode* node) { return node && node->info ? node->info->window : NULL_WIN; }
COLOR TREE_GetBackground(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info ? info->background : COLOR_WHITE;
}
void TREE_SetBackground(WINDOW win, COLOR color) {
  if (TreeInfo* info = TREE_GetInfo(win)) {
    info->background = color;
    xvt_dwin_invalidate_rect(win, nullptr);
  }
}
void TREE_SetTextCallback(WINDOW win, TREE_TEXT_FN text) {
  if (TreeInfo* info = TREE_GetInfo(win)) info->text_callback = text;
}
void TREE_SetDragCallback(WINDOW win, TREE_DRAG_FN drag) {
  if (TreeInfo* info = TREE_GetInfo(win)) info->drag_callback = drag;
}

// ---------------------------------------------------------------------------
// The widget

TreeInfo* TREE_GetInfo(WINDOW win) {
  if (!win || !xvt_vobj_is_valid(win)) return nullptr;
  auto* info = reinterpret_cast<TreeInfo*>(xvt_vobj_get_data(win));
  return info && info->kind == kTreeInfoKind ? info : nullptr;
}

WINDOW TREE_CreateTreeWidget(WINDOW parent, const RCT* rect, int cache_size, int horizontal, int style,
                             int drag_enabled, int line_height, int base_offset, TREE_SELECTION_FN selection_callback,
                             TreeNode* root, TREE_SCROLL_FN scroll_callback, TREE_LINE_OFFSET_FN line_offset_callback) {
  Trace(kTraceTree, kTraceAll, "TREE_CreateTreeWidget: function entry.");
  auto* info = new (std::nothrow) TreeInfo{};
  if (!info) {
    ErrorShow(2002, "TREE_CreateTreeWidget");
    return NULL_WIN;
  }
  bool own_root = !root;
  if (!root) root = TREE_NewRootNode(0, nullptr, 0, nullptr, nullptr, nullptr);
  if (!root) {
    delete info;
    return NULL_WIN;
  }
  info->kind = kTreeInfoKind;
  info->root = root;
  info->notifier = -1;
  info->horizontal = static_cast<int16_t>(horizontal ? 1 : 0);
  info->line_height = line_height > 0 ? line_height : 16;
  info->style = style;
  info->margin = (style == 1 || (style == 2 && !horizontal)) ? 20 : 0;
  info->base_offset = base_offset;
  info->selection_callback = selection_callback;
  info->scroll_callback = scroll_callback;
  info->line_offset_callback = line_offset_callback;
  info->v_state = info->h_state = 3;
  info->background = COLOR_WHITE;
  info->drag_enabled = drag_enabled != 0;
  info->actions_enabled = true;
  info->offset_known = true;
  info->type_ahead_timeout_ms = 1000;
  root->info = info;
  Set(root, kNodeOpen, true);
  info->entries_visible = Lines(root) - 1;
  for (TreeNode* k = root->first_kid; k; k = k->next) Adopt(root, k);
  InitCache(info, cache_size);
  RCT r = rect ? *rect : RCT{0, 0, 200, 200};
  WINDOW win = xvt_win_create(W_PLAIN, &r, "tree", 0, parent, WSF_HSCROLL | WSF_VSCROLL, EM_ALL, tree_eh,
                              reinterpret_cast<intptr_t>(info));
  if (!win) {
    ErrorShow(2019, "TREE_CreateTreeWidget");
    if (own_root) delete root;
    delete info;
    return NULL_WIN;
  }
  info->notifier = static_cast<int16_t>(MM_NotRegister(WantAbandon, HandleAbandon, info, "tree widget"));
  handleResizeEvent(info);
  return win;
}
