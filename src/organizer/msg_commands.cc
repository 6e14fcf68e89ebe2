// The commands of the organizer windows and the menu states that follow
// from what is selected: each command says which kind of line it needs, so
// that a greyed item and a refused command always agree.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "rclib/safe_file.h"
#include "src/base/commands.h"
#include "src/base/critical.h"
#include "src/compose/compose.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/filters.h"
#include "src/search/search_dialog.h"
#include "src/search/search_node.h"
#include "src/viewer/print.h"
#include "src/viewer/viewer.h"

namespace {

// What the selection of a window's tree holds.
struct Selection {
  std::vector<TreeNode*> nodes;
  bool service = false, folder = false, group = false, message = false, search = false;
  TreeNode* target = nullptr;  // the one selected line, else the root
};

Selection Select(MsgWinInfo* info) {
  Selection s;
  TreeNode* root = info->tree ? TREE_GetRoot(info->tree) : nullptr;
  if (root) s.nodes = TREE_GetSelections(root);
  for (TreeNode* n : s.nodes) {
    switch (TREE_GetDataType(n)) {
      case kNodeDataTypeMsgService: s.service = true; break;
      case kNodeDataTypeFolder: s.folder = true; break;
      case kNodeDataTypeGroup: s.group = true; break;
      case kNodeDataTypeMessage: s.message = true; break;
      case kNodeDataTypeSearch: s.search = true; break;
      default: break;
    }
  }
  s.target = s.nodes.size() == 1 ? s.nodes[0] : root;
  return s;
}

bool IsContext(const MsgWinInfo* info) {
  return info->type == kMsgWinService || info->type == kMsgWinFolder || info->type == kMsgWinSearch;
}

// The line a context window stands for.
TreeNode* Origin(const MsgWinInfo* info) { return info->root ? TREE_GetOriginNode(info->root) : nullptr; }

// The service a line belongs to (climbing to a context window's origin).
int ServiceOf(TreeNode* node) {
  for (TreeNode* n = node; n; n = TREE_GetParent(n) ? TREE_GetParent(n) : TREE_GetOriginNode(n)) {
    if (ServiceNodeInfo* s = SVC_Info(n)) return s->ms;
    if (FolderNodeInfo* f = FOL_Info(n)) return f->ms;
  }
  return INVALID_SERVICE;
}

// The folder line a line lies in (itself for a folder).
TreeNode* FolderOf(TreeNode* node) {
  for (TreeNode* n = node; n; n = TREE_GetParent(n) ? TREE_GetParent(n) : TREE_GetOriginNode(n))
    if (FOL_Info(n)) return n;
  return nullptr;
}

enum Need {
  kAlways,
  kNever,       // the part of the program that would do it is not there
  kAnything,    // a selection, or a context window (which deletes its own line)
  kMessage,     // at least one message
  kOneMessage,  // exactly one line, a message
  kFolders,     // folders and nothing else
  kFolderHere,  // a folder selected, or a folder window
  kOneNode,     // one service or folder line
  kMoveable,    // messages, or one folder
  kService,     // the selection (or window) lies in a service
  kOneSearch,   // one saved search line, or a search window
  kAclFolder,   // one folder (or a folder window) whose server keeps access lists
};

struct CommandRule {
  int command;
  Need need;
};

const CommandRule kRules[] = {
    {M_MSG_CLOSE, kAlways},          {M_MSG_DELETE, kAnything},        {M_MSG_OPEN_WINDOW, kOneNode},
    {M_MSG_SELECT_ALL, kAlways},     {M_MSG_CLEAN, kFolderHere},       {M_MSG_CHECK, kAlways},
    {M_MSG_SUBSCRIBE, kFolders},     {M_MSG_NEXT, kMessage},           {M_MSG_PREV, kMessage},
    {M_MSG_REPLY, kOneMessage},      {M_MSG_FORWARD, kOneMessage},     {M_MSG_RESTART, kOneMessage},
    {M_MSG_REPLY_ALL, kOneMessage},  {M_MSG_COMPOSE, kAlways},
    {M_PHONE_MESSAGE, kAlways},      {M_COMPOSE_FORM, kAlways},
    {M_MSG_UNDELETE, kMessage},      {M_MSG_COPY, kMessage},           {M_MSG_MOVE, kMoveable},
    {M_MSG_EXTRACT, kNever},         {M_MSG_ACTION_DELETE, kAlways},   {M_MSG_NEW_SEARCH, kFolderHere},
    {M_MSG_NEW_SERVICE, kNever},     {M_MSG_NEW_FOLDER, kService},     {M_MSG_NEW_GROUP, kNever},
    {M_MSG_MARK_SEEN, kMessage},     {M_MSG_MARK_FLAGGED, kMessage},   {M_MSG_MARK_ANSWERED, kMessage},
    {M_MSG_SAVE, kOneMessage},       {M_FILE_PRINT, kMessage},
    {M_MSG_SAVED_SEARCH, kFolderHere}, {M_MSG_QUICK_SEARCH, kAlways}, {M_MSG_SEARCH_PROPERTIES, kOneSearch},
    {M_MSG_ACCESS_RIGHTS, kAclFolder},  {M_MSG_FILTERS, kService},
};

// The one folder selected, else a folder window's own.
FolderNodeInfo* OneFolder(MsgWinInfo* info, const Selection& s) {
  if (s.nodes.size() == 1) return FOL_Info(s.nodes[0]);
  return s.nodes.empty() && info->type == kMsgWinFolder ? FOL_Info(Origin(info)) : nullptr;
}

// The folder a sort or Mark All Read concerns: a folder window's own, the one folder line
// selected, or the folder of the first selected message.
TreeNode* FolderInQuestion(MsgWinInfo* info, const Selection& s) {
  if (info->type == kMsgWinFolder) return Origin(info);
  if (s.nodes.size() == 1 && FOL_Info(s.nodes[0])) return s.nodes[0];
  for (TreeNode* n = s.message ? s.nodes[0] : nullptr; n; n = TREE_GetParent(n))
    if (FOL_Info(n)) return n;
  return nullptr;
}

// Folder > Mark All Read: the open folder's unread lines, wherever they
// stand (the tree, its window, its groups), read in one flag change.
void MarkAllRead(TreeNode* folder) {
  const FolderNodeInfo* f = FOL_Info(folder);
  if (!f || f->folder_id == INVALID_FOLDER) return;
  std::vector<UMI> unread;
  for (TreeNode* line : f->index.Lines())
    if (const MessageNodeInfo* m = MSG_Info(line); m && !(m->flags & kMsgRead)) unread.push_back(m->umi);
  if (!unread.empty() && MM_MsgSetFlagMany(unread, "\\Seen") != static_cast<int>(unread.size()))
    Trace(kTraceOrganizer, kTraceCritical, "Mark All Read: not every message could be marked\n");
}

bool Allowed(MsgWinInfo* info, const Selection& s, Need need) {
  const size_t n = s.nodes.size();
  switch (need) {
    case kAlways: return true;
    case kNever: return false;
    case kAnything: return n > 0 || IsContext(info);
    case kMessage: return s.message;
    case kOneMessage: return n == 1 && s.message;
    case kFolders: return s.folder && !s.service && !s.group && !s.message;
    case kFolderHere: return s.folder || info->type == kMsgWinFolder;
    case kOneNode: return n == 1 && (s.service || s.folder);
    case kMoveable: return s.message || (n == 1 && s.folder);
    case kService: return n <= 1 && ServiceOf(n == 1 ? s.nodes[0] : Origin(info)) != INVALID_SERVICE;
    case kOneSearch: return (n == 1 && s.search) || (n == 0 && info->type == kMsgWinSearch);
    case kAclFolder: {
      const FolderNodeInfo* f = OneFolder(info, s);
      return f && FOL_ServiceHasACL(f->ms);
    }
  }
  return false;
}

const CommandRule* RuleOf(int command) {
  for (const CommandRule& r : kRules)
    if (r.command == command) return &r;
  return nullptr;
}

void SetMenus(MsgWinInfo* info) {
  if (!info || !info->window) return;
  const Selection s = Select(info);
  for (const CommandRule& r : kRules) xvt_menu_set_item_enabled(info->window, r.command, Allowed(info, s, r.need));
  // Subscribe says what it would do to the first selected folder.
  FolderNodeInfo* f = s.folder ? FOL_Info(s.nodes[0]) : nullptr;
  xvt_menu_set_item_title(info->window, M_MSG_SUBSCRIBE, f && f->subscribed ? "Uns~ubscribe" : "S~ubscribe");
  char word[20] = "Next";
  Opt_LookupString("General.ActionDelete", word, sizeof word - 1, kOptSession);
  xvt_menu_set_item_checked(info->window, M_MSG_ACTION_DELETE, strcasecmp(word, "Previous") == 0);
  // Sort By checks the folder's order; lines in rule groups follow their groups' orders instead.
  const FolderNodeInfo* sorted = FOL_Info(FolderInQuestion(info, s));
  xvt_menu_set_item_enabled(info->window, M_MSG_MARK_ALL_READ, sorted && sorted->folder_id != INVALID_FOLDER);
  const int order = sorted ? folderSortOrder(sorted->ms, sorted->name.c_str()) : -1;
  for (int o = 0; o < kSortOrders; ++o) {
    xvt_menu_set_item_enabled(info->window, M_MSG_SORT_FIRST + o, sorted && !sorted->groups_loaded);
    xvt_menu_set_item_checked(info->window, M_MSG_SORT_FIRST + o, o == order);
  }
  xvt_menu_update(info->window);
}

// The message line after (or before) the selection that is not selected.
TreeNode* StepFrom(const Selection& s, bool forward) {
  TreeNode* edge = nullptr;
  for (TreeNode* n : s.nodes)
    if (MSG_Info(n)) edge = forward ? n : (edge ? edge : n);
  if (!forward) {
    for (TreeNode* n : s.nodes)
      if (MSG_Info(n) && TREE_GetAbsOffset(n) < TREE_GetAbsOffset(edge)) edge = n;
  } else {
    for (TreeNode* n : s.nodes)
      if (MSG_Info(n) && TREE_GetAbsOffset(n) > TREE_GetAbsOffset(edge)) edge = n;
  }
  for (TreeNode* n = edge; n;) {
    n = forward ? TREE_NextNode(n) : TREE_PrevNode(n);
    if (MSG_Info(n) && !TREE_IsSelected(n)) return n;
  }
  return nullptr;
}

bool StepForward() {
  char word[20] = "Next";
  Opt_LookupString("General.ActionDelete", word, sizeof word - 1, kOptSession);
  return strcasecmp(word, "Previous") != 0;
}

// Sets or clears \Deleted on the selected messages and moves the selection
// on as General.ActionDelete says.
void DeleteMessages(MsgWinInfo* info, const Selection& s, bool set) {
  TreeNode* next = StepFrom(s, StepForward());
  UMI next_umi = next ? MSG_Info(next)->umi : 0;
  TreeNode* container = next ? messageContainer(next) : nullptr;
  MSG_SetFlagOnSelection(info->tree, "\\Deleted", set);
  if (!next_umi || !container) return;
  if (TreeNode* line = MSG_FindMessage(container, next_umi)) {
    TREE_SelectOnlyNode(line);
    TREE_ShowNodeOnDisplay(line);
  }
}

void FlipFlag(MsgWinInfo* info, const Selection& s, const char* flag, uint16_t bit) {
  for (TreeNode* n : s.nodes) {
    if (MessageNodeInfo* m = MSG_Info(n)) {
      const bool on = (MSG_ReadFlags(m->umi) & bit) != 0;
      MSG_SetFlagOnSelection(info->tree, flag, !on);
      return;
    }
  }
}

void ShowStep(MsgWinInfo* info, const Selection& s, bool forward) {
  TreeNode* line = StepFrom(s, forward);
  if (!line) {
    xvt_scr_beep();
    return;
  }
  TREE_SelectOnlyNode(line);
  TREE_ShowNodeOnDisplay(line);
  (void)info;
  spawnNextViewer(MSG_Info(line)->umi, messageContainer(line));
}

// The selected messages in the order they are shown.
void PrintMessages(const Selection& s) {
  std::vector<UMI> umis;
  for (TreeNode* n : s.nodes)
    if (MessageNodeInfo* m = MSG_Info(n)) umis.push_back(m->umi);
  VIEW_PrintMessages(umis);
}

void SaveMessage(const Selection& s) {
  MessageNodeInfo* m = MSG_Info(s.nodes[0]);
  if (!m) return;
  char path[1024] = "message.eml";
  if (!xvt_dm_post_file_save("Save Message As", path, sizeof path)) return;
  struct stat st;
  if (::stat(path, &st) == 0 &&
      xvt_dm_post_ask("Replace", "Cancel", nullptr, "The file %s exists. Replace it?", path) != RESP_DEFAULT)
    return;
  WIN_start_critical();
  const std::string temp = MM_MsgToFile(m->umi);
  WIN_end_critical();
  std::ifstream in(temp, std::ios::binary);
  std::ostringstream data;
  data << in.rdbuf();
  if (!temp.empty()) std::remove(temp.c_str());
  SafeFileError err;
  if (temp.empty() || (!in.good() && !in.eof()) || !safe_replace_file(path, data.str(), 0600, &err))
    xvt_dm_post_error("The message could not be saved to %s.", path);
}

// The folders a command works on: those selected, else a folder window's own.
std::vector<TreeNode*> FoldersHere(MsgWinInfo* info, const Selection& s) {
  std::vector<TreeNode*> folders;
  for (TreeNode* n : s.nodes)
    if (FOL_Info(n)) folders.push_back(n);
  if (folders.empty() && info->type == kMsgWinFolder && Origin(info)) folders.push_back(Origin(info));
  return folders;
}

void NewSearch(MsgWinInfo* info, const Selection& s) {
  std::vector<SrchFolderRef> refs;
  for (TreeNode* n : FoldersHere(info, s))
    if (FolderNodeInfo* f = FOL_Info(n); f && f->selectable) refs.push_back({f->ms, f->name});
  if (refs.empty()) {
    xvt_dm_post_error("No folder is selected: select the folders to search.");
    return;
  }
  SRCH_SearchDialog(refs);
}

// The selected folders (or the folder window's) as canonical names.
std::vector<std::string> CanonicalFoldersHere(MsgWinInfo* info, const Selection& s) {
  std::vector<std::string> out;
  for (TreeNode* n : FoldersHere(info, s))
    if (FolderNodeInfo* f = FOL_Info(n); f && f->selectable) {
      const std::string c = MM_FolCanonNameBuild(f->ms, f->name.c_str());
      if (!c.empty()) out.push_back(c);
    }
  return out;
}

// The filters of the service the selection lies in; "Run now" works on
// the selected folder (or the folder window's), when there is one.
void Filters(MsgWinInfo* info, const Selection& s) {
  TreeNode* at = s.nodes.size() == 1 ? s.nodes[0] : Origin(info);
  const int ms = ServiceOf(at);
  if (ms == INVALID_SERVICE) return;
  FolderNodeInfo* f = FOL_Info(FolderOf(at));
  FLT_FiltersDialog(ms, f && f->selectable && f->ms == ms ? f->name : "");
}

void SearchProperties(MsgWinInfo* info, const Selection& s) {
  SearchInfo* si = s.nodes.size() == 1 ? SRCH_NodeInfo(s.nodes[0]) : SRCH_NodeInfo(Origin(info));
  if (si) searchInfo(si->id);
}

void CleanFolders(MsgWinInfo* info, const Selection& s) {
  const std::vector<TreeNode*> folders = FoldersHere(info, s);
  WIN_start_critical();
  for (TreeNode* n : folders)
    if (FolderNodeInfo* f = FOL_Info(n); f && f->folder_id != INVALID_FOLDER) MM_FolExpunge(f->folder_id);
  WIN_end_critical();
}

void CheckMail(MsgWinInfo* info, const Selection& s) {
  bool any = false;
  for (TreeNode* n : s.nodes)
    if (FOL_Info(n)) any = folderCheckNewMail(n, 0) || any;
  if (!any && info->type == kMsgWinFolder && Origin(info)) any = folderCheckNewMail(Origin(info), 0);
  if (!any) MM_NotPostSimple(E_CHECK_NOW);
}

void Subscribe(const Selection& s) {
  for (TreeNode* n : s.nodes)
    if (FolderNodeInfo* f = FOL_Info(n)) MM_FolSubscribe(f->ms, f->name.c_str(), f->subscribed ? 0 : 1);
}

}  // namespace

void setCreateMenus(MsgWinInfo* info) { SetMenus(info); }
void setFocusMenus(MsgWinInfo* info) { SetMenus(info); }
void setSelectionMenus(MsgWinInfo* info) { SetMenus(info); }

void MSG_DoCommand(MsgWinInfo* info, int command) {
  int16_t* guard = MSG_MenuGuard();
  if (*guard) return;  // a command's dialog is up
  const CommandRule* rule = RuleOf(command);
  if (command == M_MSG_MARK_ALL_READ) {
    MarkAllRead(FolderInQuestion(info, Select(info)));
    return;
  }
  if (command >= M_MSG_SORT_FIRST && command < M_MSG_SORT_FIRST + kSortOrders) {
    if (TreeNode* folder = FolderInQuestion(info, Select(info))) folderSetSortOrder(folder, command - M_MSG_SORT_FIRST);
    SetMenus(info);
    return;
  }
  if (!rule) {
    MSG_DoCommonCommand(info->window, command);
    return;
  }
  const Selection s = Select(info);
  if (!Allowed(info, s, rule->need)) {
    Trace(kTraceOrganizer, kTraceLow, "msgmain.c : command %d refused for this selection\n", command);
    return;
  }
  *guard = 1;
  WINDOW tree = info->tree;
  switch (command) {
    case M_MSG_CLOSE: doClose(info); break;
    case M_MSG_DELETE: doDelete(info, command); break;
    case M_MSG_OPEN_WINDOW: MSG_OpenNodeWindow(s.nodes[0]); break;
    case M_MSG_SELECT_ALL: TREE_SelectAll(tree); break;
    case M_MSG_CLEAN: CleanFolders(info, s); break;
    case M_MSG_CHECK: CheckMail(info, s); break;
    case M_MSG_SUBSCRIBE: Subscribe(s); break;
    case M_MSG_ACCESS_RIGHTS:
      if (FolderNodeInfo* f = OneFolder(info, s)) FOL_AccessRights(f->ms, f->name.c_str());
      break;
    case M_MSG_NEXT:
    case M_MSG_PREV: ShowStep(info, s, command == M_MSG_NEXT); break;
    case M_MSG_UNDELETE: DeleteMessages(info, s, false); break;
    case M_MSG_COPY: doCopyMsgs(info); break;
    case M_MSG_MOVE:
      if (s.folder) {
        if (doFolderMenuAction(info, 1, 0) == 2) xvt_dm_post_error("Please select one folder to move.");
      } else {
        doMove(info);
      }
      break;
    case M_MSG_ACTION_DELETE:
      Opt_AssignString("General.ActionDelete", StepForward() ? "Previous" : "Next", kOptPermanent, 0);
      break;
    case M_MSG_NEW_FOLDER: doNewFolder(info); break;
    case M_MSG_NEW_SEARCH: NewSearch(info, s); break;
    case M_MSG_SAVED_SEARCH: INFO_SearchNew(CanonicalFoldersHere(info, s)); break;
    case M_MSG_QUICK_SEARCH: SRCH_QuickSearchDialog(CanonicalFoldersHere(info, s)); break;
    case M_MSG_SEARCH_PROPERTIES: SearchProperties(info, s); break;
    case M_MSG_FILTERS: Filters(info, s); break;
    case M_MSG_MARK_SEEN: FlipFlag(info, s, "\\Seen", kMsgRead); break;
    case M_MSG_MARK_FLAGGED: FlipFlag(info, s, "\\Flagged", kMsgFlagged); break;
    case M_MSG_MARK_ANSWERED: FlipFlag(info, s, "\\Answered", kMsgAnswered); break;
    case M_MSG_SAVE: SaveMessage(s); break;
    case M_FILE_PRINT: PrintMessages(s); break;
    case M_MSG_COMPOSE: compose_new(); break;
    case M_PHONE_MESSAGE: phone_message(); break;
    case M_COMPOSE_FORM: compose_form(); break;
    case M_MSG_REPLY: compose_reply(MSG_Info(s.nodes[0])->umi, -1); break;
    case M_MSG_REPLY_ALL: compose_reply(MSG_Info(s.nodes[0])->umi, 1); break;
    case M_MSG_FORWARD: compose_forward(MSG_Info(s.nodes[0])->umi, -1); break;
    case M_MSG_RESTART: compose_restart(MSG_Info(s.nodes[0])->umi); break;
    default: break;
  }
  *guard = 0;
  // The command may have closed the window.
  for (WINDOW w : MSG_ContextWindows())
    if (MSG_WinInfo(w)) SetMenus(MSG_WinInfo(w));
  if (MsgWinInfo* top = MSG_WinInfo(MSG_TopWindow())) SetMenus(top);
}

void doClose(MsgWinInfo* info) {
  xvt_progress_close();
  const Selection s = Select(info);
  if (s.nodes.empty()) {
    if (info->type == kMsgWinService || info->type == kMsgWinFolder || info->type == kMsgWinSearch)
      closeMessageWindow(info->window);
    return;
  }
  for (TreeNode* n : s.nodes) {
    if (SVC_Info(n)) {
      serviceClose(n);
      break;  // the tree may have changed under the list
    }
    if (FOL_Info(n)) {
      folderClose(n);
      break;
    }
    if (SearchInfo* si = SRCH_NodeInfo(n)) {
      searchClose(si->id);
      break;
    }
  }
}

void doDelete(MsgWinInfo* info, int command) {
  const Selection s = Select(info);
  if (!s.nodes.empty()) {
    deleteSelectedNodes(info, command);
    return;
  }
  TreeNode* origin = Origin(info);
  if (info->type == kMsgWinService && origin) serviceDelete(origin);
  if (info->type == kMsgWinFolder && origin) folderDelete(origin);
  if (info->type == kMsgWinSearch && origin) searchDelete(origin);
}

void deleteSelectedNodes(MsgWinInfo* info, int command) {
  const Selection s = Select(info);
  if (s.message) {
    DeleteMessages(info, s, command == M_MSG_DELETE);
    return;
  }
  // Services, folders and groups ask one by one; the first refusal stops.
  for (TreeNode* n : s.nodes) {
    int ok = 1;
    if (SVC_Info(n))
      ok = serviceDelete(n);
    else if (FOL_Info(n))
      ok = folderDelete(n);
    else if (GRP_Info(n))
      ok = groupDelete(n);
    else if (SRCH_NodeInfo(n))
      ok = searchDelete(n);
    if (!ok || s.nodes.size() > 1) break;  // what is left of the list may be gone
  }
}

bool folderPrompt(WINDOW, const char* title, int* ms, std::string* name) {
  // Every folder of every service of the top tree, as "Service: folder".
  struct Choice {
    int ms;
    std::string name;
  };
  static std::vector<Choice> choices;
  static int picked;
  choices.clear();
  picked = -1;
  WINDOW top = MSG_TopTree();
  for (TreeNode* k = top ? TREE_GetFirstKid(TREE_GetRoot(top)) : nullptr; k; k = TREE_GetNext(k)) {
    ServiceNodeInfo* svc = SVC_Info(k);
    if (!svc || svc->offline) continue;
    FolderList list;
    if (!MM_MSFindFol(svc->ms, "*", 0, &list)) continue;
    for (const FolderListEntry& e : list)
      if (e.flags & kFolderSelectable) choices.push_back({svc->ms, e.name});
  }
  if (choices.empty()) {
    xvt_dm_post_error("There are no folders to choose from.");
    return false;
  }
  static const WIN_DEF kDefs[] = {
      {W_MODAL, {0, 0, 420, 320}, "", 0, 0},
      {WC_LBOX, {10, 10, 410, 270}, "", kFolderPromptList, 0},
      {WC_PUSHBUTTON, {230, 282, 310, 310}, "OK", 1, CTL_FLAG_DEFAULT},
      {WC_PUSHBUTTON, {320, 282, 400, 310}, "Cancel", 3, 0},
      {W_NONE, {}, nullptr, 0, 0},
  };
  static std::string dialog_title;
  dialog_title = title;
  auto eh = [](WINDOW dlg, EVENT* ev) -> long {
    WINDOW list = xvt_win_get_ctl(dlg, kFolderPromptList);
    if (ev->type == E_CREATE) {
      xvt_vobj_set_title(dlg, dialog_title.c_str());
      for (const Choice& c : choices)
        xvt_list_add(list, -1, (std::string(MM_MSGetName(c.ms)) + ": " + c.name).c_str());
      xvt_list_set_sel(list, 0, true);
    } else if (ev->type == E_CONTROL && (ev->v.ctl.id == 1 || (ev->v.ctl.id == kFolderPromptList &&
                                                                ev->v.ctl.ci.v.lbox.dbl_click))) {
      picked = xvt_list_get_sel_index(list);
      xvt_vobj_destroy(dlg);
    } else if ((ev->type == E_CONTROL && ev->v.ctl.id == 3) || ev->type == E_CLOSE) {
      xvt_vobj_destroy(dlg);
    }
    return 0;
  };
  if (!xvt_res_get_dialog(kFolderPromptDialog)) xvt_res_register_dialog(kFolderPromptDialog, kDefs);
  xvt_dlg_create_res(W_MODAL, kFolderPromptDialog, EM_ALL, eh, 0);
  if (picked < 0 || picked >= static_cast<int>(choices.size())) return false;
  *ms = choices[static_cast<size_t>(picked)].ms;
  *name = choices[static_cast<size_t>(picked)].name;
  return true;
}

namespace {

void CopyOrMove(MsgWinInfo* info, bool move) {
  const std::vector<UMI> umis = MSG_SelectedUmis(info->tree);
  if (umis.empty()) return;
  int ms = INVALID_SERVICE;
  std::string folder;
  if (!folderPrompt(info->window, move ? "Move to Folder" : "Copy to Folder", &ms, &folder)) return;
  xvt_progress_open(move ? "Move to Folder" : "Copy to Folder", move ? "Moving message(s)..." : "Copying message(s)...",
                    false);
  xvt_progress_set_range(static_cast<long>(umis.size()));
  if (info->status) xvt_vobj_set_title(info->status, move ? "Moving message(s)..." : "Copying message(s)...");
  TREE_SuspendUpdates(info->tree);
  WIN_start_critical();
  long done = 0, failed = 0;
  for (UMI umi : umis) {
    if (!(move ? MM_MsgMove(umi, ms, folder.c_str()) : MM_MsgCopy(umi, ms, folder.c_str()))) ++failed;
    xvt_progress_set_pos(++done);
  }
  WIN_end_critical();
  if (xvt_vobj_is_valid(info->tree)) TREE_ResumeUpdates(info->tree);
  xvt_progress_close();
  if (failed) xvt_dm_post_error("%ld of %ld message(s) could not be %s.", failed, done, move ? "moved" : "copied");
}

}  // namespace

void doCopyMsgs(MsgWinInfo* info) { CopyOrMove(info, false); }
void doMove(MsgWinInfo* info) { CopyOrMove(info, true); }

void doNewFolder(MsgWinInfo* info) {
  const Selection s = Select(info);
  TreeNode* parent = s.nodes.size() == 1 ? s.nodes[0] : Origin(info);
  if (TREE_GetDataType(parent) == kNodeDataTypeSearch) return;
  if (GRP_Info(parent) || MSG_Info(parent)) parent = FolderOf(parent);
  const int ms = ServiceOf(parent);
  if (ms == INVALID_SERVICE) return;
  FolderNodeInfo* under = FOL_Info(parent);
  char name[256] = "";
  if (!xvt_dm_post_string_prompt(under ? "Name of the new folder inside the selected one:" : "Name of the new folder:",
                                 name, sizeof name) ||
      !*name)
    return;
  std::string full = name;
  if (under) {
    if (!under->delimiter) {
      xvt_dm_post_error("The folder \"%s\" cannot hold folders.", under->name.c_str());
      return;
    }
    full = under->name + under->delimiter + name;
  }
  if (MM_FolExists(ms, full.c_str())) {
    xvt_dm_post_error("A folder named \"%s\" exists already.", full.c_str());
    return;
  }
  WIN_start_critical();
  const int ok = MM_FolCreate(ms, full.c_str(), 1);
  WIN_end_critical();
  if (!ok) xvt_dm_post_error("The folder \"%s\" could not be made.", full.c_str());
}

int doFolderMenuAction(MsgWinInfo* info, int move, int choice) {
  Trace(kTraceOrganizer, kTraceLow, "msgmain.c : doFolderMenuAction: function entry.\n");
  const Selection s = Select(info);
  if (s.nodes.size() != 1 || !FOL_Info(s.nodes[0])) return 2;
  TreeNode* node = s.nodes[0];
  FolderNodeInfo* f = FOL_Info(node);
  if (move && !choice) {
    const ASK_RESPONSE r = xvt_dm_post_ask("Folder", "Cancel", "MS",
                                           "Move the folder to another Folder, or a Message Service (MS)?");
    if (r == RESP_2) return 0;
    choice = r == RESP_3 ? 2 : 1;
  }
  const bool to_service = choice == 2;
  const char* title = move ? (to_service ? "Move Folder To A Message Service" : "Move Folder To Another Folder")
                           : (to_service ? "Copy Folder To A Message Service" : "Copy Folder To Another Folder");
  int ms = INVALID_SERVICE;
  std::string target;
  if (!folderPrompt(info->window, title, &ms, &target)) return 0;
  std::string parsed;
  int parsed_ms = INVALID_SERVICE;
  if (!MM_FolCanonNameParse(MM_FolCanonNameBuild(ms, target.c_str()).c_str(), &parsed_ms, &parsed)) {
    parsed_ms = ms;
    parsed = target;
  }
  if (to_service && parsed_ms == f->ms) {
    xvt_dm_post_error("Using the same message service is not allowed. Please retry.");
    return 0;
  }
  if (!to_service && parsed_ms == f->ms && parsed == f->name) {
    xvt_dm_post_error("Using the same folder in the same message service is not allowed. Please retry.");
    return 0;
  }
  const char delimiter = MM_FolDelimiter(parsed_ms, parsed.c_str());
  const std::string leaf = folderDisplayName(f->ms, f->name.c_str(), f->delimiter);
  const std::string where = to_service ? leaf : parsed + (delimiter ? std::string(1, delimiter) : "/") + leaf;
  return move ? folderMoveTree(node, parsed_ms, where.c_str(), delimiter)
              : folderCopyTree(node, parsed_ms, where.c_str(), delimiter);
}

bool serviceKeySelect(TreeNode* node, int key) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || key < 0x20 || key > 0x7E) return false;
  auto first_letter = [](TreeNode* n) -> int {
    FolderNodeInfo* k = FOL_Info(n);
    if (!k) return -1;
    const std::string name = folderDisplayName(k->ms, k->name.c_str(), k->delimiter);
    return name.empty() ? 0 : static_cast<unsigned char>(name[0]);
  };
  TreeNode* start = TREE_GetNext(node);
  if (first_letter(node) > key) {
    start = TREE_GetFirstKid(TREE_GetParent(node));
    if (FolderNodeInfo* k = FOL_Info(start); k && strcasecmp(k->name.c_str(), "inbox") == 0) start = TREE_GetNext(start);
  }
  for (TreeNode* n = start; n && FOL_Info(n); n = TREE_GetNext(n)) {
    if (TREE_IsHidden(n) || first_letter(n) != key) continue;
    TREE_SelectOnlyNode(n);
    TREE_ShowNodeOnDisplay(n);
    return true;
  }
  return false;
}
