// The line of a saved search in the organizer, beside the services: opened,
// it runs its rules over its folders and lists what they find as message
// lines; it follows new mail and flag changes in those folders while it
// shows them. It can show its lines in a window of its own ("Search : name").
#pragma once

#include <string>

#include "src/organizer/nodes.h"
#include "src/search/saved_search.h"

// SearchInfo::flags
constexpr int kSearchOpenElsewhere = 1;
constexpr int kSearchGroupsOnView = 2;
constexpr int kSearchContentsValid = 4;
constexpr int kSearchLowMemory = 8;
constexpr int kSearchStale = 16;  // new mail came in its folders since the last run

struct SearchInfo {
  int32_t type = kNodeDataTypeSearch;
  int id = 0;
  std::string name;
  int flags = 0;
  int sort = kSortRecentArrival;
  long count = 0, unread = 0;
  SrchRun run;  // the folders held open and the messages found
  UmiIndex index;
  int notifier = -1;
  TreeNode* node = nullptr;
};

SearchInfo* SRCH_NodeInfo(const TreeNode* node);  // null unless a search node
// Searches sort after every other line of the top tree, by name.
int searchCompare(void* a, void* b);
// The node of the search of that name under root; null when the name is unknown.
TreeNode* searchCreate(TreeNode* root, const char* name);
// A node for each search of the options.
int searchAppendNodes(TreeNode* root);
TreeNode* searchFindNode(TreeNode* root, int id);
void searchDraw(WINDOW win, TreeNode* node, RCT* rect);
int searchHandleNodeEvent(WINDOW win, TreeNode* node, int event);
// Runs the search and shows what it found ("Opening", "Searching",
// "Adding Messages"); 1 when it ran.
int searchOpen(TreeNode* node);
int searchAddContents(TreeNode* node);
void doRebuildSearch(TreeNode* node);
// Asks the search's line to put its contents away (E_SEARCH_CLOSING).
void searchClose(int id);
void doSearchClosed(TreeNode* node);
// Asks, then deletes the search's messages or the search itself. 1 when
// something was done.
int searchDelete(TreeNode* node);
// The line's text for the tree's dump: "name (n msgs)".
std::string searchLineText(const TreeNode* node);
// What a window of its own needs: the line filled, its title. False when
// the search can't run.
bool searchPrepareWindow(TreeNode* node, std::string* title);
// The search line's window, made or raised.
WINDOW searchOpenWindow(TreeNode* node);

// The properties dialog and the quick search dialog.
constexpr int kPropsRid = 6240;
constexpr int kPropsName = 6241;
constexpr int kPropsSort = 6242;
constexpr int kPropsGroups = 6243;
constexpr int kPropsHierarchy = 6244;
constexpr int kPropsSubscribed = 6245;
constexpr int kPropsRules = 6246;
constexpr int kPropsFolders = 6247;
constexpr int kPropsOk = 6248;
constexpr int kPropsCancel = 6249;
constexpr int kQuickRid = 6260;
constexpr int kQuickReadBtn = 6261;  // .. 6263: Read, Unread, All
constexpr int kQuickDayBtn = 6264;   // .. 6266: one day, one week, all
constexpr int kQuickFrom = 6267;
constexpr int kQuickSubject = 6268;
constexpr int kQuickBody = 6269;
constexpr int kQuickHeaderBody = 6270;
constexpr int kQuickText = 6271;
constexpr int kQuickOk = 6272;
constexpr int kQuickCancel = 6273;
constexpr int kQuickAdvanced = 6274;

// The dialogs: a new search (its properties), the properties of one, and
// the quick search over the folders given as canonical names. 1 when a
// search was made or changed.
int INFO_SearchNew(const std::vector<std::string>& canonical);
int searchInfo(int id);
int SRCH_QuickSearchDialog(const std::vector<std::string>& canonical);
