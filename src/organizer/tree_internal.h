// What the tree widget's files share and nobody else uses: the cache and
// redisplay steps, the selection primitives, and the shift-range logic.
#pragma once

#include "src/organizer/tree.h"

namespace tree {

inline bool Has(const TreeNode* n, uint16_t f) { return (n->flags & f) != 0; }
inline void Set(TreeNode* n, uint16_t f, bool on) {
  if (on)
    n->flags = static_cast<uint16_t>(n->flags | f);
  else
    n->flags = static_cast<uint16_t>(n->flags & ~f);
}
inline bool IsRoot(const TreeNode* n) { return n->node_kind == kTreeRootKind; }
inline TreeInfo* InfoOf(const TreeNode* n) { return n ? n->info : nullptr; }

// Marks the line dirty when it is on the screen.
void MarkDirty(TreeNode* node);
// The node and its open subtree, where displayed.
void MarkSubtreeDirty(TreeNode* node);
// Reports that the selection changed: at once, or once at resume.
void ReportSelection(TreeInfo* info);
// Calls the node's action with actions_enabled cleared; 1 when there is none.
int RunAction(TreeInfo* info, TreeNode* node, int event);

// Selection primitives.
void AddSelection(TreeInfo* info, TreeNode* node, bool make_current);
void RemoveSelection(TreeInfo* info, TreeNode* node, bool keep_current);
void handleCtrlClick(TreeInfo* info, TreeNode* node);
void handleShiftClick(TreeInfo* info, TreeNode* node);
// Absolute line of a node: from the cache when it is there, else counted.
int AbsIndex(TreeInfo* info, TreeNode* node);
void pageUp(TreeInfo* info, int pages, int shift);
void pageDown(TreeInfo* info, int pages, int shift);
void treeTop(TreeInfo* info, int shift);
void treeBottom(TreeInfo* info, int shift);

// A visible change of `lines` lines at node (inserted, removed, opened...).
void NoteLinesChanged(TreeInfo* info, TreeNode* node, int lines);

// Display.
void InitCache(TreeInfo* info, int size);
void newCacheArray(TreeCache* cache, int size);
void rebuildCache(TreeInfo* info, TreeNode* node, int node_abs = -1);
void flushCache(TreeInfo* info);
void resetTopNode(TreeInfo* info, TreeNode* node);
void removeNodeFromCache(TreeInfo* info, TreeNode* node);
void processUpdates(TreeInfo* info);
void doRedisplay(TreeInfo* info);
void updateScrollbars(TreeInfo* info);
void handleUpdateEvent(TreeInfo* info, const RCT& area);
void handleResizeEvent(TreeInfo* info);
void handleScrollEvent(TreeInfo* info, EVENT* ev);
int getline(TreeInfo* info, PNT point);
int num_visible_lines(TreeInfo* info);
void scrollUp(TreeInfo* info, int n);
void scrollDown(TreeInfo* info, int n);
void scrollLeft(TreeInfo* info, int n);
void scrollRight(TreeInfo* info, int n);
TreeNode* findRightmostKid(TreeNode* root);

// Input.
long tree_eh(WINDOW win, EVENT* ev);
void handleKeyboardEvent(TreeInfo* info, EVENT* ev);
void handleMouseEvent(TreeInfo* info, EVENT* ev);

// Frees a subtree, sending kNodeEventDestroy depth first.
void freeTree(WINDOW win, TreeNode* node);

}  // namespace tree
