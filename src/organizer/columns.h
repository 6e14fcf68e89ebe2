// The column manager: a strip of column headers above an organizer tree.
// Each kind of line lays out its fields by a layout of the strip; selecting
// a line shows its layout. The geometry is plain numbers, so the tree's draw
// callbacks ask here where a column lies, with or without a window. Column
// sizes, offsets and visibility are options at the session level,
// desktop.colman.<window>.<layout>.<column>.<visible|offset|size>.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "src/organizer/tree.h"
#include "xvt/xvt.h"

constexpr int kCMMaxLayouts = 10;
constexpr int kCMMaxColumns = 10;
constexpr int kCMBorderReach = 5;  // pixels either side of a border that grab it
constexpr int kCMNone = 0;

// Window kinds that carry a strip.
constexpr int kCMWindowTop = 2;
constexpr int kCMWindowService = 3;
constexpr int kCMWindowFolder = 5;
constexpr int kCMWindowSearch = 31;

// Layouts of the message windows, by index.
enum kCMLayout : int {
  kCMLayoutNone = 0,
  kCMLayoutMsgService = 1,
  kCMLayoutFolder = 2,
  kCMLayoutSearch = 3,
  kCMLayoutGroup = 4,
  kCMLayoutMessage = 5,
  kCMLayoutSearchMessage = 6,
};

enum kCMBorder : int { kCMBorderNone = 0, kCMBorderLeft = 1, kCMBorderRight = 2 };

struct CM_COLUMN {
  int id = 0;
  std::string name;
  int next = kCMNone, prev = kCMNone;  // ids in display order
  int offset = 0, size = 0;
  bool visible = true;
  bool titled = true;  // the icon column has no title in the strip
};

struct CM_INFO;
typedef void (*CM_RESIZE_FN)(CM_INFO* info, int layout_id);

struct CM_LAYOUT {
  int id = 0;
  std::string name;
  int first = kCMNone;  // the first column's id
  CM_RESIZE_FN resize = nullptr;
  std::vector<CM_COLUMN> columns;  // by id order of creation; the chain gives the display order
};

struct CM_INFO {
  WINDOW window = NULL_WIN;  // the strip, or none for a strip without a window
  int kind = 0;              // the window kind (kCMWindow*) for the option names
  std::vector<CM_LAYOUT> layouts;
  bool visible = true;
  int suspend = 0;
  bool pending = false;  // a change waits for CM_ResumeUpdate
  int current = kCMNone;  // the layout shown
  int offset = 0;         // where the layout's x = 0 lies in the strip
  int user_offset = 0;    // the tree's horizontal scroll
  // A border drag in progress.
  int drag_column = kCMNone;
  int drag_border = kCMBorderNone;
  // A title pressed (move_column), and dragged once the pointer went
  // further than kCMMoveSlop from where it was pressed.
  int move_column = kCMNone;
  int move_press = 0, move_at = 0;  // strip coordinates
  bool moving = false;
  WINDOW tree = NULL_WIN;     // the tree the strip sits over
  WINDOW manager = NULL_WIN;  // the column manager window, while it is open
};

constexpr int kCMMoveSlop = 4;  // pixels a title must travel before it moves

// The strip: a window of `rect` in parent, or none when parent is NULL_WIN.
CM_INFO* CM_Create(WINDOW parent, const RCT* rect, int window_kind);
void CM_Destroy(CM_INFO*& info);
void CM_Resize(CM_INFO* info, const RCT* rect);
void CM_SetVisible(CM_INFO* info, bool visible);
void CM_SetUserColumnOffset(CM_INFO* info, int offset);
RCT* CM_GetDisplayRectangle(CM_INFO* info, RCT* rect);
void CM_DisplayRemove(CM_INFO* info);

int CM_LayoutAdd(CM_INFO* info, const char* name, CM_RESIZE_FN resize);  // id, or 0
int CM_LayoutDelete(CM_INFO* info, int layout);
int CM_LayoutSelect(CM_INFO* info, int layout, int offset);
const char* CM_LayoutGetNameTag(CM_INFO* info, int layout);
int CM_LayoutSetNameTag(CM_INFO* info, int layout, const char* name);
int CM_LayoutGetNumColumn(CM_INFO* info, int layout);
bool CM_LayoutTagValid(CM_INFO* info, const char* name);

int CM_ColumnAdd(CM_INFO* info, int layout, const char* name, int size, int offset, bool visible);  // id, or 0
int CM_ColumnDelete(CM_INFO* info, int layout, int column);
int CM_ColumnGetColumnByN(CM_INFO* info, int layout, int n);  // n from 0 in display order
const char* CM_ColumnGetNameTag(CM_INFO* info, int layout, int column);
int CM_ColumnSetNameTag(CM_INFO* info, int layout, int column, const char* name);
int CM_ColumnGetSize(CM_INFO* info, int layout, int column);
int CM_ColumnSetSize(CM_INFO* info, int layout, int column, int size);
bool CM_ColumnIsVisible(CM_INFO* info, int layout, int column);
int CM_ColumnSetVisible(CM_INFO* info, int layout, int column, bool visible);
// 0 with the column's offset and size; nonzero for a hidden or unknown column.
int CM_ColumnGetDimension(CM_INFO* info, int layout, int column, int* offset, int* size);
void CM_ColumnCalcOffsets(CM_INFO* info, int layout);
// Which border of which column of the shown layout lies within reach of x (strip coordinates).
int CM_ColumnCloseToBorder(CM_INFO* info, int x, int* column);
// The drop of a border drag at p (layout coordinates).
void CM_ColumnResizeOnBorder(CM_INFO* info, int layout, int column, int border, int p);
void CM_ColumnSetLeftInvisible(CM_INFO* info, int layout, int column, int p);
void CM_ColumnForceUpdate(CM_INFO* info, int layout, int column);
void CM_ColumnShift(CM_INFO* info, int layout, int column);
int CM_ColumnMoveSelected(CM_INFO* info, int layout, int column, int before);  // before 0: to the end
// Where a title dropped at p (layout coordinates) goes: the id of the column
// it goes before, kCMNone for the end, or -1 when it would stay where it is.
int CM_ColumnDropBefore(CM_INFO* info, int layout, int column, int p);
// The column whose title lies under x (strip coordinates) in the layout shown, or kCMNone.
int CM_ColumnAtPoint(CM_INFO* info, int x);
int CM_ColumnGetNewId(CM_INFO* info, int layout);
bool CM_ColumnTagValid(CM_INFO* info, int layout, const char* name);

// The column manager window: the columns of a layout (kCMNone: the one
// shown) as lines with check marks; a click or Enter or Space shows or hides
// a column, the buttons move the selected one. Every change is saved to the
// options at once. One window per strip: a second call raises it.
WINDOW CM_ManagerWindowCreate(CM_INFO* info, int layout);
void CM_ManagerWindowDestroy(CM_INFO* info);
// Commands and controls of the manager window.
constexpr int kCMManagerUp = 1;
constexpr int kCMManagerDown = 2;
constexpr int kCMManagerClose = 3;

void CM_SuspendUpdate(CM_INFO* info);
void CM_ResumeUpdate(CM_INFO* info);
void CM_ForceUpdate(CM_INFO* info);
void CM_Update(CM_INFO* info, int layout);

// The message windows' layouts: created for the window kind with their
// defaults, kept in the options, chosen by the selection.
void MSG_CM_LayoutCreate(CM_INFO* info);
void MSG_CM_LayoutDestroy(CM_INFO* info);
void MSG_CM_LayoutResize(CM_INFO* info, int layout);
// The layout of a line: by its data type, a message by what it lies under.
int MSG_CM_LayoutOf(const TreeNode* node);
// Shows the layout of the tree's first selected line, over that line.
void MSG_CM_LayoutSelect(CM_INFO* info, WINDOW tree);
// The layout's id in this strip for a layout index, or 0.
int MSG_CM_LayoutId(CM_INFO* info, int index);
// Saves one column's attributes (session level).
void MSG_CM_SaveColumn(CM_INFO* info, int layout, int column);
// "desktop.colman.<window>.<layout>.<column>.<attr>", or "" for a kind without a strip.
std::string MSG_CM_OptionName(int window_kind, const char* layout, const char* column, const char* attr);
