// Saved searches as the options keep them: a named search has a scope of
// folders, a list of rules and a sort order under MsgSearch.IMAP.<id>.*,
// and its ids stand in MsgSearch.IMAP.IDList. Folders of a scope are kept
// by number in a table of their own (FolderID.<n>.MS and .Name), so that a
// folder renamed or deleted is followed in one place.
//
// This part knows nothing of windows: the search node (search_node.h)
// shows what a search finds.
#pragma once

#include <string>
#include <vector>

#include "src/search/search_run.h"

// The ids of a list as the options keep it: blank-separated positive
// numbers, each once, at most 4096; other words are passed over.
std::vector<int> searchParseIdList(const std::string& text);

// --- The folder table ------------------------------------------------------------

// The number of the folder (ms, name), made when it has none; 0 on failure.
int foloptAddFolder(int ms, const char* name);
// The service number and name of a folder number; 0 when it is unknown.
int foloptFindFolder(int id, int* ms_number, std::string* name);
// The folder's entry follows a rename or a move.
void foloptRenameFolder(int old_ms, const char* old_name, int new_ms, const char* new_name);
// Forgets the folder (its number leaves every search's scope too).
void foloptDeleteFolder(int ms, const char* name);

// --- Searches --------------------------------------------------------------------

constexpr int kSearchMaxName = 200;  // bytes of a search's name

// "MsgSearch.IMAP.<id>.<attribute>", or "MsgSearch.IMAP.IDList".
std::string searchGetOptionName(int id, const char* attribute);
// kOptPermanent for a search that is saved, kOptSession for one that is not.
int searchGetOptionLevel(int id);
// The ids of the searches in the order of the list.
std::vector<int> searchIdList();
// The id of the search of that name, 0 if none.
int searchFindByName(const char* name);
std::string searchGetName(int id);
// "Search" with the first free number from 1.
std::string searchCreateName(const std::vector<std::string>& names);
// Makes the options of a new search (at level, kOptPermanent or kOptSession),
// or finds the old one of that name: its id, 0 on failure.
int SRCH_AddSearch(int level, const char* name);
// Writes an attribute of a search at its level.
int searchSetOption(int id, const char* attribute, const std::string& value);
std::string searchGetOption(int id, const char* attribute);
bool searchGetFlag(int id, const char* attribute, bool fallback);

// The scope as canonical folder names ("service!folder"); numbers that no
// longer name a folder are passed over.
std::vector<std::string> searchGetSelectedFoldersByID(int id);
// Keeps the canonical names as the scope (numbers made as needed).
int searchSaveSelectedFoldersByID(int id, const std::vector<std::string>& canonical);
// The folders the scope stands for: with hierarchy a folder stands for its
// subtree; with subscribed_only, unsubscribed folders are left out, but an
// inbox never is. Each folder once, in the order met.
int searchExpandSelectedFolders(const std::vector<std::string>& canonical, bool hierarchy, bool subscribed_only,
                                std::vector<SrchFolderRef>* expanded);
int searchExpandSelectedFoldersByID(int id, const std::vector<std::string>& canonical,
                                    std::vector<SrchFolderRef>* expanded);
// The rules (names, kind "IMAP") of a search, and keeping them.
std::vector<std::string> searchGetSelectedRules(int id);
int searchSaveSelectedRules(int id, const std::vector<std::string>& names);
// The rule leaves the SearchIDList of every search.
void searchRemoveRuleFromSearches(int rule_id);
// The folder leaves the scope of every search.
void searchRemoveFolderFromScope(int ms, const char* name);
// The search's options, its scope and the rules that were only for it (not
// saved for good) go; then E_SEARCH_DELETED.
int searchDeleteOptions(int id);
// Renames a search; 0 when the name is taken.
int searchRename(int id, const char* new_name);

// Expands the scope and runs the rules over it (the folders stay open in
// run until SRCH_RunClose). 1 when all went well.
int searchRun(int id, SrchRun* run);

// --- Quick search ----------------------------------------------------------------

enum QuickMessages { kQuickRead = 0, kQuickUnread, kQuickAllMessages };
enum QuickArrival { kQuickDay = 0, kQuickWeek, kQuickAnyTime };
struct QuickSearchInput {
  int messages = kQuickAllMessages;
  int arrival = kQuickAnyTime;
  bool from = false, subject = false, body = false, header_or_body = false;
  std::string text;
};
// The IMAP rule of the quick search dialog; today is a time_t (0 for now).
// 0 when the date could not be computed.
int SRCH_QuickSearchRule(const QuickSearchInput& in, long long today, std::string* rule);
