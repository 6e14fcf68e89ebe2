// What the organizer's lines draw with: the font slots (a font and a colour
// each, set by the font preferences) and the columns of the line's layout
// in the strip above the tree. Service, folder, group and message lines
// place every field at its column, and skip a hidden column.
#pragma once

#include "src/organizer/columns.h"
#include "src/organizer/tree.h"
#include "xvt/xvt.h"

constexpr int kFontSlots = 11;
constexpr int kSlotService = 3;
constexpr int kSlotSubscribedFolder = 4;
constexpr int kSlotFolder = 5;
constexpr int kSlotGroup = 7;
constexpr int kSlotLowPriority = 8;
constexpr int kSlotNormalPriority = 9;
constexpr int kSlotHighPriority = 10;

XVT_FNTID MSG_SlotFont(int slot);  // made on first use, and again when the options change
// The font kinds a service or folder line redraws for itself; the window
// redraws its whole tree for the others of its lines.
inline bool NodeFontKind(int kind) { return kind == 4 || (kind >= 7 && kind <= 10); }
COLOR MSG_SlotColor(int slot);
void MSG_SetSlot(int slot, const char* family, int size, unsigned style, COLOR color);
void MSG_FreeSlots();

// The colour words of Color.MessageText.*: exact case, 0 for an unknown word.
COLOR MSG_ColorFromWord(const char* word);
// Reads General.PriorityHeader.Info (written as 0 when absent) and the
// three message text colours. Called when the organizer opens and before a
// load; the lines use the stored copy.
void MSG_ReadDrawOptions();
bool MSG_PriorityInfo();
COLOR MSG_MessageTextColor(int priority);

// The strip whose layouts the lines of tree follow; none gives the default
// geometry.
void MSG_SetColumnStrip(WINDOW tree, CM_INFO* info);
CM_INFO* MSG_ColumnStrip(WINDOW tree);
// Column n (0 the icon) of the node's layout: its left edge in the line's
// coordinates and its width. False when the column is hidden or unknown.
bool MSG_ColumnPlace(WINDOW win, const TreeNode* node, const RCT* rect, int n, int* x, int* width);
// The right edge of the last column shown, for the selection box.
int MSG_ColumnsRight(WINDOW win, const TreeNode* node, const RCT* rect);
// The small pictures of the lines, 18 x 16 at (x, top): a service as a
// cabinet with two drawers, a folder with its tab, a message as an
// envelope. `filled` is the solid variant (fetched, open, unread); the
// details inside a solid picture are drawn in `detail`.
enum MsgLineIcon { kLineIconService, kLineIconFolder, kLineIconMessage };
void MSG_DrawLineIcon(WINDOW win, MsgLineIcon icon, int x, int top, COLOR ink, bool filled, COLOR detail);
// Draws text at column n, cut to the column's width; false when hidden.
// *left and *right widen to the text drawn.
bool MSG_DrawColumnText(WINDOW win, const TreeNode* node, const RCT* rect, int n, const char* text, int len,
                        int* left = nullptr, int* right = nullptr);
