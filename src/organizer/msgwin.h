// The organizer windows: the top window "Message Organizer" with the tree of
// services and folders, and the windows that show one service or one folder
// on their own. One event handler serves them all; commands go to the
// selected lines of the window's tree.
#pragma once

#include <string>
#include <vector>

#include "src/organizer/columns.h"
#include "src/organizer/tree.h"
#include "xvt/xvt.h"

// Kinds of organizer window (the first word of MsgWinInfo).
constexpr int kMsgWinTop = 2;
constexpr int kMsgWinService = 3;
constexpr int kMsgWinFolder = 5;
constexpr int kMsgWinSearch = 31;

// MsgWinInfo::flags
constexpr int kMsgWinColumns = 1;    // the window shows a column strip
constexpr int kMsgWinDeleteKey = 4;  // the Delete key deletes

constexpr int kMsgMenuBar = 9137;
constexpr int kFolderPromptDialog = 9290;
constexpr int kFolderPromptList = 2;  // the list of folders in the prompt
constexpr int kStatusHeight = 20;
constexpr int kStripHeight = 20;

// Commands of the organizer windows' menu bar.
enum MsgCommand : int {
  M_MSG_CLOSE = 14104,
  M_MSG_DELETE = 14105,
  M_MSG_OPEN_WINDOW = 14106,
  M_MSG_SELECT_ALL = 14107,
  M_MSG_CLEAN = 14501,
  M_MSG_CHECK = 14502,
  M_MSG_SUBSCRIBE = 14504,
  M_MSG_ACCESS_RIGHTS = 14505,
  M_MSG_NEXT = 14601,
  M_MSG_PREV = 14602,
  M_MSG_REPLY = 14603,
  M_MSG_FORWARD = 14604,
  M_MSG_RESTART = 14605,
  M_MSG_REPLY_ALL = 14606,
  M_MSG_COMPOSE = 14607,
  M_MSG_UNDELETE = 14608,
  M_MSG_COPY = 14612,
  M_MSG_MOVE = 14613,
  M_MSG_EXTRACT = 14615,
  M_MSG_ACTION_DELETE = 14616,
  M_MSG_NEW_SEARCH = 20003,
  M_MSG_SAVED_SEARCH = 20004,   // a new saved search from its properties
  M_MSG_QUICK_SEARCH = 20005,
  M_MSG_SEARCH_PROPERTIES = 20009,
  M_MSG_NEW_SERVICE = 20006,
  M_MSG_NEW_FOLDER = 20007,
  M_MSG_NEW_GROUP = 20008,
  M_MSG_MARK_SEEN = 20401,
  M_MSG_MARK_FLAGGED = 20402,
  M_MSG_MARK_ANSWERED = 20403,
  M_MSG_FILTERS = 20404,
  M_MSG_SAVE = 20501,
};
// Folder > Sort By: one item for each sort order, numbered from here in MsgSortOrder's order.
constexpr int M_MSG_SORT_FIRST = 14520;
constexpr int M_MSG_MARK_ALL_READ = 14530;  // Folder > Mark All Read

struct MsgWinInfo {
  int32_t type = kMsgWinTop;
  WINDOW window = NULL_WIN;
  WINDOW tree = NULL_WIN;
  WINDOW status = NULL_WIN;  // the status line
  CM_INFO* strip = nullptr;
  int ms = 999;
  int folder = 999;
  std::string folder_name;  // kind 5: the folder's full name
  int notifier = -1;
  int search = 0;
  int size_w = 0, size_h = 0;
  int flags = kMsgWinColumns | kMsgWinDeleteKey;
  TreeNode* root = nullptr;  // a context window's root (its origin is the node shown)
  int slot = 0;              // the geometry slot of the window's kind
};

void openMessageServicesWindow();
WINDOW createMessageOrganizerWindow(MsgWinInfo* info, RCT* rect, const char* title, unsigned long attributes,
                                    int menu, intptr_t drag);
long msg_eh(WINDOW win, EVENT* ev);
MsgWinInfo* MSG_WinInfo(WINDOW win);  // null unless an organizer window
// The top window's tree, or null.
WINDOW MSG_TopTree();
// Opens a service or folder line in a window of its own (the line's kids
// move there); raises the window that already shows it.
WINDOW MSG_OpenNodeWindow(TreeNode* node, const RCT* rect = nullptr, unsigned long attributes = 0);
// The window that shows node on its own, or null.
WINDOW MSG_NodeWindow(const TreeNode* node);
void closeMessageWindow(WINDOW win);
void doClose(MsgWinInfo* info);
void doDelete(MsgWinInfo* info, int command);
void deleteSelectedNodes(MsgWinInfo* info, int command);
void doNewFolder(MsgWinInfo* info);
void doCopyMsgs(MsgWinInfo* info);
void doMove(MsgWinInfo* info);
// 1 done, 0 refused or cancelled, 2 the selection is not one folder.
int doFolderMenuAction(MsgWinInfo* info, int move, int choice);
// Asks for a folder among the services of the top tree: ms and full name.
bool folderPrompt(WINDOW win, const char* title, int* ms, std::string* name);
// Runs one command of the table on the window.
void MSG_DoCommand(MsgWinInfo* info, int command);
// Menu states from the selection of the window's tree.
void setCreateMenus(MsgWinInfo* info);
void setFocusMenus(MsgWinInfo* info);
void setSelectionMenus(MsgWinInfo* info);
// The status line's text now.
std::string MSG_StatusText(MsgWinInfo* info);
// The describe function of the organizer trees: the visible lines, one per
// row, indented by depth, selected ones marked with "* ".
void MSG_DescribeTree(WINDOW tree, std::string* out);
// The folder type-ahead: the next sibling folder after the selected one
// whose name starts with key. False when none (the selection stays).
bool serviceKeySelect(TreeNode* node, int key);
// The context windows open now, oldest first.
std::vector<WINDOW> MSG_ContextWindows();
// Gives a context window's lines back to the line they came from, then
// destroys the window.
void MSG_ReturnKidsAndDestroy(WINDOW win);
// The guard that keeps a command from starting inside another one's dialog.
int16_t* MSG_MenuGuard();
void MSG_ShowAbout();
void MSG_ForgetContextWindow(WINDOW win);
