// The tree widget: the one list control of the program. Services, folders,
// groups, messages, address book entries, attachments and option categories
// are all lines of a tree of TreeNode records shown by this widget. The
// widget knows nothing of mail: a node carries an opaque data record, whose
// first 32-bit word is its kNodeDataType, and three callbacks (draw, action,
// width) through which everything a line does on the screen is done.
//
// Only a window of a few screens of the display order (the cache) is ever
// laid out; painting and scrolling cost what is visible, not what the tree
// holds. Bulk changes go under TREE_SuspendUpdates / TREE_ResumeUpdates and
// are redrawn once, with one selection callback at most.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "xvt/xvt.h"

constexpr int32_t kTreeInfoKind = 12;
constexpr int32_t kTreeRootKind = 13;
constexpr int32_t kTreeNodeKind = 14;
constexpr int kTreeInvalid = -1;  // no cache place, no display line

// The first word of every node's data record.
enum kNodeDataType : int32_t {
  kNodeDataTypeNone = 0,
  kNodeDataTypeMsgService = 1,
  kNodeDataTypeFolder = 2,
  kNodeDataTypeGroup = 3,
  kNodeDataTypeMessage = 4,
  kNodeDataTypeBook = 5,
  kNodeDataTypeList = 6,
  kNodeDataTypePerson = 7,
  kNodeDataTypeSearch = 8,
};

// What a node's action hears.
enum kNodeEvent : int {
  kNodeEventClick = 1,
  kNodeEventDoubleClick = 2,
  kNodeEventExpanding = 3,  // answer kNodeActionOk to let the node open
  kNodeEventDestroy = 4,    // free the data record
  kNodeEventPopup = 5,
};
constexpr int kNodeActionOk = 1;
constexpr int kNodeActionRefused = 2;

// Node flags.
constexpr uint16_t kNodeDirty = 0x01;        // redraw at the next update
constexpr uint16_t kNodeOpen = 0x02;         // kids shown
constexpr uint16_t kNodeLeaf = 0x04;         // no triangle, the user can't open it
constexpr uint16_t kNodeHidden = 0x08;
constexpr uint16_t kNodeDisabled = 0x10;     // clicks ignored
constexpr uint16_t kNodeSelected = 0x20;
constexpr uint16_t kNodeOpenElsewhere = 0x40;  // kids live in a context window

struct TreeNode;
struct TreeInfo;

// Paints one line; rect starts at the node's text (abs_offset + margin - h_offset).
typedef void (*TREE_DRAW_FN)(WINDOW win, TreeNode* node, RCT* rect);
// Returns kNodeActionOk or kNodeActionRefused.
typedef int (*TREE_ACTION_FN)(WINDOW win, TreeNode* node, int event);
// Pixel width of the selection highlight of the line.
typedef int (*TREE_WIDTH_FN)(WINDOW win, TreeNode* node, RCT* rect);
typedef void (*TREE_SELECTION_FN)(WINDOW win, TreeNode* root);
typedef void (*TREE_SCROLL_FN)(WINDOW win);
// Told the horizontal offset whenever it changes, so that a header strip can follow.
typedef void (*TREE_LINE_OFFSET_FN)(WINDOW win, int h_offset);
// Compares two nodes' data records: below 0, 0, above 0.
typedef int (*TREE_COMPARE_FN)(void* a, void* b);
// For TREE_SearchNode: compares a node with a key.
typedef int (*TREE_SEARCH_FN)(TreeNode* node, void* key);
// Type-ahead: the text a line starts with (copied into buf), or false.
typedef bool (*TREE_TEXT_FN)(TreeNode* node, char* buf, size_t size);

struct TreeNode {
  int32_t node_kind;  // kTreeNodeKind or kTreeRootKind
  TreeNode* prev;
  TreeNode* next;
  TreeNode* first_kid;
  TreeNode* last_kid;
  TreeNode* parent;
  TreeNode* elsewhere_root;  // where this node's kids went (a context window's root)
  TreeNode* origin_node;     // on a context window's root: the node it came from
  int32_t kid_count;         // direct kids, hidden ones included
  void* data;
  TREE_DRAW_FN draw;
  TREE_ACTION_FN action;
  TREE_WIDTH_FN width;
  TreeInfo* info;
  int16_t abs_offset;
  int16_t indent;
  int32_t cache_index;
  int32_t display_line;
  uint16_t flags;
  // The widget's selection list runs through the nodes, so that a selected
  // node leaves it in constant time.
  TreeNode* sel_prev;
  TreeNode* sel_next;
};

// The part of the tree that is laid out: a few screens of the display order.
struct TreeCache {
  int32_t entries;      // nodes held in nodes[]
  int32_t topline;      // cache index of the top line, -1 for none
  int32_t offset;       // display lines before nodes[0]
  int32_t h_offset;
  int32_t h_offset_new;
  TreeNode* top_node;
  TreeNode* new_top;    // to become the top at the next update
  int32_t bottom_index;
  int32_t size;         // capacity of nodes[]
  int32_t half;
  int16_t need_rebuild;
  int16_t at_top;       // nodes[0] is the tree's first line
  int16_t at_bottom;    // the last entry is the tree's last line
  RCT rect;
  TreeNode* current_selection;  // the anchor of shift ranges
  TreeNode* last_selection;     // the far end of the present range
  int32_t last_abs_index;
  std::vector<TreeNode*> nodes;
  int32_t window_width;
  int32_t visible_lines;
  int32_t displayed_count;
  std::vector<TreeNode*> displayed;  // by display_line
};

struct TreeMouse {
  int32_t index = -1;
  bool was_selected = false;
  bool ctrl = false;
  bool shift = false;
};

struct TreeDrag {
  PNT start{};
  bool has_object = false;
};

// Creates the drag object once the pointer has left the press box; false refuses.
typedef bool (*TREE_DRAG_FN)(WINDOW win, TreeInfo* info, PNT where);

struct TreeInfo {
  int32_t kind;  // kTreeInfoKind
  TreeNode* root;
  WINDOW window;
  int16_t notifier;
  int16_t horizontal;  // 1: lines side by side
  int32_t line_height;
  int32_t style;       // 0, 3 plain lists; 1 flat with triangles; 2 the organizer's
  int32_t margin;
  int32_t base_offset;
  TREE_SELECTION_FN selection_callback;
  TreeCache cache;
  int32_t entries_visible;  // lines the whole open tree occupies
  int32_t max_line_width;
  int32_t suspend_count;
  int32_t batch_depth;  // E_BATCH_BEGIN posts this widget has answered
  int16_t v_state;  // scroll bar states: 1 shown, 2 undecided, 3 hidden
  int16_t h_state;
  // The selection list, in order of selection.
  TreeNode* sel_first;
  TreeNode* sel_last;
  int32_t sel_count;
  COLOR background;
  TreeMouse mouse;
  PNT last_point;
  TreeDrag drag;
  TREE_SCROLL_FN scroll_callback;
  TREE_LINE_OFFSET_FN line_offset_callback;
  TREE_DRAG_FN drag_callback;
  TREE_TEXT_FN text_callback;
  // Type-ahead: the letters typed so far and when the last one came.
  char typed[64];
  int32_t typed_len;
  int64_t typed_at_ms;
  int32_t type_ahead_timeout_ms;
  // Flags.
  bool suspended, need_update, drag_enabled, mouse_down, dragging, drag_started, drag_ctrl;
  bool selection_changed, actions_enabled, double_click_seen, v_sbar_enabled, h_sbar_enabled;
  // False once lines changed where the cache can't tell whether they lie
  // before it: the next rebuild counts the offset from the start.
  bool offset_known;
};

// ---------------------------------------------------------------------------
// Create and destroy

WINDOW TREE_CreateTreeWidget(WINDOW parent, const RCT* rect, int cache_size, int horizontal, int style,
                             int drag_enabled, int line_height, int base_offset, TREE_SELECTION_FN selection_callback,
                             TreeNode* root, TREE_SCROLL_FN scroll_callback, TREE_LINE_OFFSET_FN line_offset_callback);
TreeInfo* TREE_GetInfo(WINDOW win);  // null when win is not a tree widget
TreeNode* TREE_NewNode(int leaf, void* data, int indent, TREE_DRAW_FN draw, TREE_ACTION_FN action,
                       TREE_WIDTH_FN width);
TreeNode* TREE_NewRootNode(int leaf, void* data, int indent, TREE_DRAW_FN draw, TREE_ACTION_FN action,
                           TREE_WIDTH_FN width);
void TREE_DestroyNode(TreeNode*& node);  // a detached subtree
void TREE_RemoveNode(TreeNode* node);
void TREE_RemoveKidNodes(TreeNode* node);
void TREE_DetachNode(TreeNode* node);

// ---------------------------------------------------------------------------
// Insert

void TREE_AppendNode(TreeNode* parent, TreeNode* node);
void TREE_InsertNode(TreeNode* parent, TreeNode* node, TreeNode* before);
// 1 when inserted; 0 for an equal key with allow_equal 0 (the node stays
// detached and the caller frees it). The search starts from the front or the
// back of the kids by one hint shared by every tree, so that an already
// sorted arrival, in either direction, costs little per node.
int TREE_InsertSorted(TreeNode* parent, TreeNode* node, TREE_COMPARE_FN compare, int allow_equal);
void TREE_ResetInsertHint();  // the next search starts at the front
bool TREE_InsertHintFromFront();
// Re-sorts the kids of parent, stably: equal keys keep their order.
void TREE_ResortTree(TreeNode* parent, TREE_COMPARE_FN compare);
// The same with keys computed once per kid by key_of.
struct TreeSortKey {
  int64_t number = 0;
  std::string_view text;  // must outlive the sort (points into the data record)
  int64_t tie = 0;
};
typedef TreeSortKey (*TREE_KEY_FN)(void* data);
void TREE_ResortTreeByKey(TreeNode* parent, TREE_KEY_FN key_of, bool descending);
void TREE_MoveKids(TreeNode* to_root, TreeNode* from_node);

// ---------------------------------------------------------------------------
// Show

void TREE_OpenSubtree(TreeNode* node, int should_open, int no_open);
void TREE_HideNode(TreeNode* node, int hide);
void TREE_RedrawNode(TreeNode* node);
void TREE_UpdateNode(WINDOW win, int data_type);
bool TREE_IsVisibleNode(const TreeNode* node);
int TREE_VisibleCount(const TreeNode* node);
void TREE_SuspendUpdates(WINDOW win);
void TREE_ResumeUpdates(WINDOW win);
void TREE_SetNodeEnabled(TreeNode* node, int enabled);
int TREE_GetAbsOffset(const TreeNode* node);
// Where a line's own drawing starts in its window: its offset past the
// room the connectors or triangles take (what the node's draw function is
// given as the rectangle's left, before scrolling).
int TREE_GetLineStart(WINDOW win, const TreeNode* node);
// Lines of the whole open tree (what the vertical bar spans).
int TREE_EntriesVisible(WINDOW win);

// ---------------------------------------------------------------------------
// Select

void TREE_SelectNode(TreeNode* node, int select, int quiet = 0);
void TREE_SelectOnlyNode(TreeNode* node, int quiet = 0);
void TREE_ClearSelections(WINDOW win, int quiet = 0);
void TREE_SelectAndPositionNode(TreeNode* node, int pos);
void TREE_PositionNode(TreeNode* node, int pos);
void TREE_SelectAll(WINDOW win);
int TREE_GetSelectionCount(const TreeNode* node);  // any node of the widget
// The selected nodes in order of selection; empty when none.
std::vector<TreeNode*> TREE_GetSelections(const TreeNode* node);
TreeNode* TREE_FirstSelection(WINDOW win);
void TREE_RemoveNodeSelections(TreeNode* node);
void TREE_SelectNextNode(WINDOW win, int shift);
void TREE_SelectPrevNode(WINDOW win, int shift);
void TREE_GoRight(WINDOW win, int shift);
void TREE_GoLeft(WINDOW win, int shift);
void TREE_SetInitSelection(WINDOW win);
void TREE_DisplayTop(WINDOW win, int shift);
void TREE_DisplayBottom(WINDOW win, int shift);

// ---------------------------------------------------------------------------
// Walk (display order; hidden nodes are skipped)

TreeNode* TREE_NextNode(const TreeNode* node);
TreeNode* TREE_PrevNode(const TreeNode* node);
TreeNode* TREE_NextSibling(const TreeNode* node);
TreeNode* TREE_PrevSibling(const TreeNode* node);
TreeNode* TREE_FirstKid(const TreeNode* node);
// Walks the siblings from start: 0 found, above 0 on to next, below 0 back to
// prev; a result different from the first step's ends the walk with null.
TreeNode* TREE_SearchNode(TreeNode* start, void* key, TREE_SEARCH_FN compare);

// ---------------------------------------------------------------------------
// Accessors (null tolerated)

int TREE_GetDataType(const TreeNode* node);
void* TREE_GetData(const TreeNode* node);
void TREE_SetData(TreeNode* node, void* data);
TreeNode* TREE_GetParent(const TreeNode* node);
TreeNode* TREE_GetNext(const TreeNode* node);
TreeNode* TREE_GetPrev(const TreeNode* node);
TreeNode* TREE_GetFirstKid(const TreeNode* node);
TreeNode* TREE_GetLastKid(const TreeNode* node);
TreeNode* TREE_GetElsewhereRoot(const TreeNode* node);
void TREE_SetElsewhereRoot(TreeNode* node, TreeNode* root);
TreeNode* TREE_GetOriginNode(const TreeNode* node);
void TREE_SetOriginNode(TreeNode* node, TreeNode* origin);
bool TREE_IsOpen(const TreeNode* node);
bool TREE_IsHidden(const TreeNode* node);
bool TREE_IsSelected(const TreeNode* node);
bool TREE_IsOpenElsewhere(const TreeNode* node);
void TREE_SetOpenElsewhere(TreeNode* node, bool on);
bool TREE_IsDisabled(const TreeNode* node);
TreeNode* TREE_GetRoot(WINDOW win);
WINDOW TREE_GetWindow(const TreeNode* node);
COLOR TREE_GetBackground(WINDOW win);
void TREE_SetBackground(WINDOW win, COLOR color);
void TREE_SetTextCallback(WINDOW win, TREE_TEXT_FN text);
void TREE_SetDragCallback(WINDOW win, TREE_DRAG_FN drag);

// ---------------------------------------------------------------------------
// Display (scrolling, size)

void TREE_ResizeTree(WINDOW win, const RCT* rect);
void TREE_ShowNodeOnDisplay(TreeNode* node);
void TREE_ScrollLines(WINDOW win, int lines);  // down when positive
int TREE_TopLine(WINDOW win);                  // absolute line at the top
int TREE_VisibleLines(WINDOW win);

// The colour of the selection highlight; draw callbacks write selected text in white.
constexpr COLOR kTreeHighlight = 0x2A5DB0;
