// Folder nodes: a folder of a service, its subfolders and, once opened, its
// messages flat or in groups. The node follows the model through its own
// notifier: new mail at each timer tick, expunges, flags, a dying stream.
#include <strings.h>

#include <algorithm>

#include <cstdio>
#include <cstring>

#include "src/base/critical.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/search_run.h"
#include "src/viewer/viewer.h"

namespace {

int FolderWant(ModelEvent* ev, void* data);
void FolderHandle(ModelEvent* ev, void* data);

std::string FolderOption(int ms, const char* name, const char* tail) {
  char key[1200];
  std::snprintf(key, sizeof key, "Folder.%d.%s.%s", MM_MSGetNumber(ms), name, tail);
  return key;
}

bool IsInbox(const std::string& name) { return strcasecmp(name.c_str(), "inbox") == 0; }

// The node that holds the folder's content: a context window's root when
// the content lives there, else the node itself.
TreeNode* Holder(TreeNode* node) {
  TreeNode* elsewhere = TREE_GetElsewhereRoot(node);
  return elsewhere ? elsewhere : node;
}

// The folder's record for the lines' holder: a folder window's root has
// none of its own and stands for its origin line.
FolderNodeInfo* RecordOf(TreeNode* container) {
  if (FolderNodeInfo* f = FOL_Info(container)) return f;
  return FOL_Info(TREE_GetOriginNode(container));
}

WINDOW WinOf(TreeNode* node) { return TREE_GetWindow(node); }

struct Suspended {
  WINDOW win;
  explicit Suspended(TreeNode* node) : win(WinOf(node)) {
    if (win) TREE_SuspendUpdates(win);
  }
  ~Suspended() {
    if (win) TREE_ResumeUpdates(win);
  }
};

void Redraw(TreeNode* node) {
  if (TREE_GetParent(node)) TREE_RedrawNode(node);
}

// Drops every message and group line, keeping subfolders.
void RemoveContent(TreeNode* node, FolderNodeInfo* f) {
  TreeNode* k = TREE_GetFirstKid(node);
  while (k) {
    TreeNode* next = TREE_GetNext(k);
    const int t = TREE_GetDataType(k);
    if (t == kNodeDataTypeMessage || t == kNodeDataTypeGroup) TREE_RemoveNode(k);
    k = next;
  }
  f->index.Clear();
  f->conv = ConversationIndex{};
}

// Applies the flags the model has now to a line, with the counters of the
// folder and its group; a deleted change moves the line between groups.
void ApplyFlags(TreeNode* container, TreeNode* node, uint16_t now) {
  MessageNodeInfo* m = MSG_Info(node);
  FolderNodeInfo* f = RecordOf(container);
  if (!m || !f) return;
  const uint16_t before = m->flags;
  if (before == now) return;
  TreeNode* parent = TREE_GetParent(node);
  GroupNodeInfo* g = GRP_Info(parent);
  const bool was_read = before & kMsgRead, is_read = now & kMsgRead;
  if (was_read != is_read) {
    const int d = is_read ? -1 : 1;
    f->unread = std::max(0L, f->unread + d);
    if (g) g->unread = std::max(0, g->unread + d);
    if (g) TREE_RedrawNode(parent);
  }
  const bool moved = ((before ^ now) & kMsgDeleted) && g;
  if (moved) {
    // Out of its group with the old flags, in again with the new ones.
    folderRemoveMessage(container, node);
    m->flags = now;
    TreeNode* target = (now & kMsgDeleted) ? GRP_DeletedGroup(container) : groupPick(container, m->umi);
    if (target) {
      groupInsertMessage(container, target, node);
    } else {
      f->index.Erase(m->umi);
      TREE_DestroyNode(node);
      return;
    }
  } else {
    m->flags = now;
    if ((before ^ now) & kMsgDeleted) TREE_SelectNode(node, 0);
  }
  TREE_RedrawNode(node);
  Redraw(container);
}

// Messages the model has beyond what the folder shows (new mail).
void AddNewMessages(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id == INVALID_FOLDER || !f->messages_loaded) return;
  const long count = MM_FolGetNumMsgs(f->folder_id);
  if (count <= f->total) return;
  TreeNode* holder = Holder(node);
  Suspended s(holder);
  // In a selecting folder new mail shows only when the rules find it.
  std::vector<UMI> chosen;
  if (SRCH_FolderSelection(f->ms, f->name.c_str(), f->folder_id, &chosen) >= 0) {
    for (UMI umi : chosen)
      if (MM_UMIMsgno(umi) > static_cast<unsigned long>(f->total) && !f->index.Find(umi))
        folderAddMessage(holder, umi);
  } else {
    for (long n = f->total + 1; n <= count; ++n) {
      const UMI umi = MM_UMIFromMsgno(f->folder_id, static_cast<unsigned long>(n));
      if (umi && !f->index.Find(umi)) folderAddMessage(holder, umi);
    }
  }
  f->total = count;
  Redraw(node);
}

// Flags another client changed, as the server reported them.
void RefreshReportedFlags(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id == INVALID_FOLDER) return;
  std::vector<UMI> umis;
  const int n = MM_FolTakeFlagReports(f->folder_id, &umis);
  if (n == 0 || !f->messages_loaded) return;
  Suspended s(node);
  if (n < 0) {
    for (TreeNode* line : f->index.Lines())
      if (MessageNodeInfo* m = MSG_Info(line)) ApplyFlags(node, line, MSG_ReadFlags(m->umi));
    return;
  }
  for (UMI umi : umis)
    if (TreeNode* line = MSG_FindMessage(node, umi)) ApplyFlags(node, line, MSG_ReadFlags(umi));
}

}  // namespace

FolderNodeInfo* FOL_Info(const TreeNode* node) {
  return TREE_GetDataType(node) == kNodeDataTypeFolder ? static_cast<FolderNodeInfo*>(TREE_GetData(node)) : nullptr;
}

int folderCompare(void* a, void* b) {
  const int32_t ta = *static_cast<int32_t*>(a), tb = *static_cast<int32_t*>(b);
  if (ta != kNodeDataTypeFolder || tb != kNodeDataTypeFolder)
    return ta == tb ? 0 : ta == kNodeDataTypeFolder ? -1 : tb == kNodeDataTypeFolder ? 1 : 0;
  const std::string& x = static_cast<FolderNodeInfo*>(a)->name;
  const std::string& y = static_cast<FolderNodeInfo*>(b)->name;
  const bool ix = IsInbox(x), iy = IsInbox(y);
  if (ix && iy) return 0;
  if (ix != iy) return ix ? -1 : 1;
  const int c = x.compare(y);
  return c < 0 ? -1 : c > 0 ? 1 : 0;
}

std::string folderDisplayName(int ms, const char* name, char delimiter) {
  const char* friendly = MM_FolGetFriendlyName(ms, name);
  if (!friendly) return "";
  const char* last = delimiter ? std::strrchr(friendly, delimiter) : nullptr;
  return last ? last + 1 : friendly;
}

int folderSortOrder(int ms, const char* name) {
  return MSG_SortOrderFromName(Opt_LookupText(FolderOption(ms, name, "Sort").c_str(), kOptSession).c_str());
}

void folderSetSortOrder(TreeNode* node, int order) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || order < 0 || order >= kSortOrders) return;
  Opt_AssignString(FolderOption(f->ms, f->name.c_str(), "Sort").c_str(), MSG_SortName(order), kOptPermanent, 0);
  f->sort = order;
  if (f->folder_id != INVALID_FOLDER && !f->groups_loaded) MSG_ResortKids(Holder(node), order);
}

TreeNode* folderAdd(TreeNode* parent, int ms, const FolderListEntry& item, int subscribed, int folder_id) {
  const char* friendly = MM_FolGetFriendlyName(ms, item.name.c_str());
  if (!friendly || !*friendly || friendly[0] == '.' ||
      (item.delimiter && friendly[std::strlen(friendly) - 1] == item.delimiter))
    return nullptr;
  auto* f = new FolderNodeInfo;
  f->ms = ms;
  f->folder_id = folder_id;
  f->name = item.name;
  f->delimiter = item.delimiter;
  f->subscribed = subscribed != 0;
  f->fetched_subscribed = subscribed != 0 && folder_id != INVALID_FOLDER;
  f->selectable = (item.flags & kFolderSelectable) != 0;
  f->marked = (item.flags & kFolderMarked) != 0;
  f->no_inferiors = (item.flags & kFolderNoInferiors) != 0;
  TreeNode* node = TREE_NewNode(0, f, 21, folderDraw, folderHandleNodeEvent, nullptr);
  if (!node) {
    delete f;
    return nullptr;
  }
  if (!TREE_InsertSorted(parent, node, folderCompare, 0)) {
    // Already listed (the subscribed listing comes first).
    TREE_DestroyNode(node);
    return nullptr;
  }
  f->node = node;
  f->notifier = MM_NotRegister(FolderWant, FolderHandle, node, "folder.c: folder node");
  return node;
}

TreeNode* folderFind(TreeNode* service_node, const char* full_name) {
  if (!full_name || !*full_name) return service_node;
  for (TreeNode* level = service_node; level;) {
    TreeNode* next = nullptr;
    for (TreeNode* k = TREE_GetFirstKid(level); k; k = TREE_GetNext(k)) {
      FolderNodeInfo* f = FOL_Info(k);
      if (!f) break;
      if (f->name == full_name) return k;
      const size_t len = f->name.size();
      if (f->delimiter && std::strncmp(full_name, f->name.c_str(), len) == 0 && full_name[len] == f->delimiter) {
        next = k;
        break;
      }
    }
    level = next;
  }
  return nullptr;
}

int folderAddSubFolders(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  long caps = 0;
  if (f->no_inferiors || !f->delimiter || !MM_MSCapabilities(f->ms, &caps) || !(caps & 32)) {
    f->fetched_subscribed = true;
    return 1;
  }
  char pattern[1200];
  std::snprintf(pattern, sizeof pattern, "%s%c%%", f->name.c_str(), f->delimiter);
  short all_view = 0;
  Opt_LookupBoolean("View.Unsubscribed", &all_view, kOptSession);
  for (int all = 0; all <= (all_view ? 1 : 0); ++all) {
    if (all ? f->fetched_unsubscribed : f->fetched_subscribed) continue;
    FolderList list;
    if (!MM_MSFindFol(f->ms, pattern, all, &list)) return 0;
    for (const FolderListEntry& e : list) folderAdd(node, f->ms, e, all ? 0 : 1, INVALID_FOLDER);
    (all ? f->fetched_unsubscribed : f->fetched_subscribed) = true;
  }
  return 1;
}

int folderAddMessageContent(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id == INVALID_FOLDER) return 0;
  f->low_memory = false;
  f->total = f->shown = f->unread = 0;
  if (!f->selectable) return 1;
  const int id = f->folder_id;
  f->sort = folderSortOrder(f->ms, f->name.c_str());
  MSG_ReadDrawOptions();
  const bool groups = GRP_ShowGroups();
  TreeNode* holder = Holder(node);
  if (groups) {
    // The rule groups in their stored order, then Main and Deleted.
    const std::string ids = Opt_LookupText(
        groupGetOptionName(1, MM_MSGetNumber(f->ms), f->name.c_str(), 0, "IDList").c_str(), kOptSession);
    for (const char* p = ids.c_str(); *p;) {
      char* end;
      const long gid = std::strtol(p, &end, 10);
      if (end == p) {
        ++p;
        continue;
      }
      if (gid > 0) groupAdd(holder, MM_MSGetNumber(f->ms), f->name.c_str(), static_cast<int>(gid));
      p = end;
    }
    groupAdd(holder, MM_MSGetNumber(f->ms), f->name.c_str(), kGroupMain);
    groupAdd(holder, MM_MSGetNumber(f->ms), f->name.c_str(), kGroupDeleted);
  }
  const long n = MM_FolGetNumMsgs(id);
  // A selecting folder shows only what its rules find; when they cannot
  // run it shows nothing, and says nothing.
  std::vector<UMI> chosen;
  const bool selecting = SRCH_FolderSelection(f->ms, f->name.c_str(), id, &chosen) >= 0;
  const long steps = selecting ? static_cast<long>(chosen.size()) : n;
  const bool sent = [&] {
    int sms = INVALID_SERVICE;
    std::string sname;
    const std::string option = Opt_LookupText("Compose.SentmailFolder", kOptSession);
    return !option.empty() && MM_FolCanonNameParse(option.c_str(), &sms, &sname) && sms == f->ms &&
           sname == f->name;
  }();
  // Every record is made once; the list is sorted once and handed to the
  // tree as appends. Oldest first for the orders that show oldest first,
  // so that a load cut short keeps the end the user sees first.
  std::vector<MessageNodeInfo*> records;
  records.reserve(static_cast<size_t>(n));
  const bool upward = f->sort == kSortLeastRecentArrival || f->sort == kSortLeastRecentDate;
  WIN_start_critical();
  for (long step = 1; step <= steps; ++step) {
    if (step % 5 == 0) {
      if (xvt_progress_cancelled()) {
        f->load_cancelled = true;
        break;
      }
      if (step % 500 == 0) xvt_progress_set_pos(step);
    }
    const long at = upward ? step : steps - step + 1;
    const UMI umi = selecting ? chosen[static_cast<size_t>(at - 1)]
                              : MM_UMIFromMsgno(id, static_cast<unsigned long>(at));
    if (!umi) continue;
    MessageNodeInfo* m = MSG_NewInfo(umi, sent);
    if (!m) {
      f->low_memory = true;
    } else {
      records.push_back(m);
    }
    if (f->low_memory) {
      // The progress window is the line the user watches during a load.
      if (groups) xvt_progress_set_text("Aborting folder load due to low application memory");
      break;
    }
  }
  WIN_end_critical();
  if (!f->low_memory) xvt_progress_set_pos(n);
  // Flags the server reported while we read are in the records already.
  std::vector<UMI> stale;
  MM_FolTakeFlagReports(id, &stale);
  f->index.Reserve(records.size());
  if (groups) {
    GRP_LoadRecords(holder, &records, &f->shown, &f->unread, &f->index);
    f->groups_loaded = true;
  } else {
    MSG_SortRecords(&records, f->sort, &f->conv);
    for (MessageNodeInfo* m : records) {
      TreeNode* line = messageCreateNode(m->umi, m);
      if (!line) continue;
      TREE_AppendNode(holder, line);
      f->index.Put(m->umi, line);
      ++f->shown;
      if (!(m->flags & kMsgRead)) ++f->unread;
    }
  }
  f->messages_loaded = true;
  f->total = n;
  if (f->low_memory)
    xvt_dm_post_note("Due to memory constraints only part of the messages \nfor folder \"%s\" were loaded.\n",
                     f->name.c_str());
  return 1;
}

int folderAddContents(TreeNode* node) {
  Suspended s(node);
  if (!folderAddSubFolders(node)) return 0;
  folderAddMessageContent(node);
  Redraw(node);
  return 1;
}

int folderOpen(WINDOW, TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  if (f->folder_id == INVALID_FOLDER || !f->messages_loaded) {
    char title[1200];
    std::snprintf(title, sizeof title, "Opening %s", f->name.c_str());
    xvt_progress_open(title, "Connecting...", true);
    f->lost = false;
    if (f->folder_id == INVALID_FOLDER && f->selectable && (!f->rights_known || (f->rights & kAclRead)))
      f->folder_id = MM_FolOpen(f->ms, f->name.c_str());
    if (f->folder_id != INVALID_FOLDER) xvt_progress_set_range(MM_FolGetNumMsgs(f->folder_id));
    const bool cancelled = xvt_progress_cancelled();
    int ok = 0;
    if (!cancelled && (f->folder_id != INVALID_FOLDER || !f->selectable)) ok = folderAddContents(node);
    xvt_progress_close();
    return ok;
  }
  if (!MM_FolCheckNewMail(f->folder_id, 0)) {
    TREE_ClearSelections(WinOf(node));
    return 0;
  }
  f->lost = false;
  return 1;
}

int folderCheckNewMail(TreeNode* node, int quiet) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id == INVALID_FOLDER) return 0;
  WIN_start_critical();
  if (quiet) MM_QuietOn();
  const int ok = MM_FolCheckNewMail(f->folder_id, 0);
  if (quiet) MM_QuietOff();
  WIN_end_critical();
  f = FOL_Info(node);  // the check may have closed the folder under us
  if (!f || f->folder_id == INVALID_FOLDER) return 0;
  if (!ok) {
    if (!f->lost) doFolderInvalid(node);
    return 0;
  }
  AddNewMessages(node);
  RefreshReportedFlags(node);
  return 1;
}

// Only lines the user can see are asked about: one question per line and
// tick, and none for the folders under a closed service or parent.
int folderRefreshStatus(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id != INVALID_FOLDER || f->messages_loaded || !f->selectable || TREE_IsOpenElsewhere(node) ||
      !TREE_IsVisibleNode(node))
    return 0;
  long messages = 0, unseen = 0;
  const int ok = MM_FolGetStatus(f->ms, f->name.c_str(), &messages, &unseen);
  f = FOL_Info(node);
  if (!f) return 0;
  if (!ok) messages = unseen = -1;
  if (messages != f->status_messages || unseen != f->status_unseen) {
    f->status_messages = messages;
    f->status_unseen = unseen;
    Redraw(node);
  }
  return ok;
}

TreeNode* MSG_FindMessage(TreeNode* container, UMI umi) {
  FolderNodeInfo* f = FOL_Info(container);
  if (!f) {
    // A context root stands for its origin.
    f = FOL_Info(TREE_GetOriginNode(container));
    if (!f) return nullptr;
  }
  return f->index.Find(umi);
}

void folderRemoveMessage(TreeNode* container, TreeNode* message) {
  MessageNodeInfo* m = MSG_Info(message);
  if (GRP_Info(TREE_GetParent(message)))
    groupRemoveMessage(message);
  else
    TREE_DetachNode(message);
  FolderNodeInfo* f = RecordOf(container);
  if (!f || !m) return;
  if (f->total > 0) --f->total;
  if (f->shown > 0) --f->shown;
  if (!(m->flags & kMsgRead) && f->unread > 0) --f->unread;
}

TreeNode* folderAddMessage(TreeNode* container, UMI umi) {
  FolderNodeInfo* f = FOL_Info(container);
  // A context window's root holds the lines; the record is its origin's.
  if (!f) f = FOL_Info(TREE_GetOriginNode(container));
  if (!f) return nullptr;
  MessageNodeInfo* m = MSG_NewInfo(umi);
  if (!m) return nullptr;
  if (f->sort == kSortConversation) {
    MSG_ConversationAdd(&f->conv, m);
  }
  TreeNode* line = messageCreateNode(umi, m);
  if (!line) return nullptr;
  f->index.Put(umi, line);
  if (f->groups_loaded) {
    TreeNode* group = (m->flags & kMsgDeleted) ? GRP_DeletedGroup(container) : groupPick(container, umi);
    if (!group) {
      f->index.Erase(umi);
      TREE_DestroyNode(line);
      return nullptr;
    }
    groupInsertMessage(container, group, line);
    return line;
  }
  TREE_InsertSorted(container, line, MSG_CompareFor(f->sort), 1);
  ++f->total;
  ++f->shown;
  if (!(m->flags & kMsgRead)) ++f->unread;
  return line;
}

void folderRecount(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  f->shown = f->unread = 0;
  for (TreeNode* line : f->index.Lines()) {
    ++f->shown;
    if (MessageNodeInfo* m = MSG_Info(line); m && !(m->flags & kMsgRead)) ++f->unread;
  }
}

void folderCloseTree(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  Suspended s(node);
  for (TreeNode* k = TREE_GetFirstKid(node); k; k = TREE_GetNext(k)) {
    FolderNodeInfo* kf = FOL_Info(k);
    if (!kf) break;
    if (kf->fetched_subscribed) folderCloseTree(k);
  }
  if (f->folder_id != INVALID_FOLDER) {
    f->closing = true;
    MM_FolClose(f->folder_id, 0);
    f = FOL_Info(node);
    if (f) f->closing = false;
  }
  if (f) f->total = f->shown = f->unread = 0;
}

void doFolderClosed(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  const bool was_open = TREE_IsOpen(node);
  {
    Suspended s(node);
    TREE_RemoveKidNodes(node);
  }
  TREE_SetOpenElsewhere(node, false);
  TREE_SetElsewhereRoot(node, nullptr);
  f->index.Clear();
  f->conv = ConversationIndex{};
  f->folder_id = INVALID_FOLDER;
  f->groups_loaded = f->messages_loaded = f->fetched_subscribed = f->fetched_unsubscribed = false;
  f->low_memory = f->load_cancelled = false;
  f->lost = false;
  f->total = f->shown = f->unread = 0;
  f->status_messages = f->status_unseen = -1;  // from before the open; the next tick asks again
  if (was_open && TREE_GetParent(node)) {
    TREE_SelectOnlyNode(node, 1);
    TREE_OpenSubtree(node, 0, 0);
  } else {
    Redraw(node);
  }
}

void doFolderInvalid(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  f->lost = true;
  const int id = f->folder_id;
  if (TREE_GetParent(node)) {
    if (TREE_IsOpen(node)) TREE_OpenSubtree(node, 0, 0);
    TREE_SelectOnlyNode(node, 1);
    TREE_RedrawNode(node);
  }
  ModelEvent* ev = MM_NotEventNew(E_FOLDER_INVALID);
  ev->folder = static_cast<int16_t>(id);
  ev->ms = static_cast<int16_t>(f->ms);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void doRebuildFolder(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f || f->folder_id == INVALID_FOLDER) return;
  char title[1200];
  std::snprintf(title, sizeof title, "Rebuilding %s ...", f->name.c_str());
  xvt_progress_open(title, "Rebuilding folder ...", false);
  {
    Suspended s(node);
    RemoveContent(Holder(node), f);
    f->groups_loaded = f->messages_loaded = f->marked = false;
    f->total = f->shown = 0;
    folderAddMessageContent(node);
  }
  xvt_progress_close();
  Redraw(node);
}

int folderIsReadOnly(TreeNode* node) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  if (f->folder_id != INVALID_FOLDER) return MM_MSFolIsReadonly(f->folder_id) ? 1 : 0;
  if (!f->selectable) return 1;
  short advanced = 0;
  long caps = 0;
  if (!Opt_LookupBoolean("General.GetAdvancedFolderStatus", &advanced, kOptSession) || !advanced) return 0;
  if (!f->rights_known) {
    f->rights = 7;
    if (MM_MSCapabilities(f->ms, &caps) && (caps & 8)) {
      ACLList rights;
      if (MM_FolGetMyRights(f->ms, f->name.c_str(), &rights) && !rights.empty()) f->rights = rights.front().rights;
    }
    f->rights_known = true;
  }
  return (f->rights & kAclWrite) ? 0 : 1;
}

int folderHandleNodeEvent(WINDOW win, TreeNode* node, int event) {
  FolderNodeInfo* f = FOL_Info(node);
  if (event == kNodeEventDestroy) {
    if (f) {
      if (f->notifier >= 0) MM_NotUnregister(f->notifier);
      delete f;
    }
    TREE_SetData(node, nullptr);
    return kNodeActionOk;
  }
  if (!f) return kNodeActionRefused;
  if (event != kNodeEventClick && f->folder_id != INVALID_FOLDER && (f->lost || !MM_FolStreamValid(f->folder_id))) {
    f = FOL_Info(node);
    if (!f) return kNodeActionRefused;
    xvt_dm_post_error(
        "This folder has lost its connection to the server.  Please check your network connection, then re-open "
        "the folder.");
    folderCloseTree(node);
    f = FOL_Info(node);
    if (f && f->folder_id != INVALID_FOLDER) {
      f->closing = true;
      MM_FolClose(f->folder_id, 1);
      if ((f = FOL_Info(node))) f->closing = false;
    }
    return kNodeActionRefused;
  }
  switch (event) {
    case kNodeEventExpanding:
      if (TREE_IsOpenElsewhere(node)) return kNodeActionRefused;
      return folderOpen(win, node) ? kNodeActionOk : kNodeActionRefused;
    case kNodeEventDoubleClick:
      if (MSG_NODE_WINDOW_FN opener = MSG_NodeWindowOpener()) {
        if (!TREE_IsOpenElsewhere(node) && !folderOpen(win, node)) return kNodeActionRefused;
        return opener(node) ? kNodeActionOk : kNodeActionRefused;
      }
      if (TREE_IsOpen(node)) {
        TREE_OpenSubtree(node, 0, 0);
        return kNodeActionOk;
      }
      if (!folderOpen(win, node)) return kNodeActionRefused;
      TREE_OpenSubtree(node, 1, 1);
      return kNodeActionOk;
    default: return kNodeActionOk;
  }
}

void folderDraw(WINDOW win, TreeNode* node, RCT* rect) {
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  const bool selected = TREE_IsSelected(node);
  const COLOR fore = selected ? COLOR_WHITE : COLOR_BLACK;
  int x = 0, w = 0;
  if (MSG_ColumnPlace(win, node, rect, 0, &x, &w)) {
    // Closed: an outline; open: filled; open elsewhere: filled gray.
    const bool open = f->folder_id != INVALID_FOLDER;
    const bool elsewhere = TREE_IsOpenElsewhere(node);
    const COLOR ink = elsewhere ? COLOR_GRAY : fore;
    MSG_DrawLineIcon(win, kLineIconFolder, x, rect->top, ink, open || elsewhere,
                     selected ? kTreeHighlight : COLOR_WHITE);
    RCT box{x + 1, rect->top + 4, x + 17, rect->top + 14};
    CPEN pen{1, PAT_SOLID, ink};
    xvt_dwin_set_pen(win, &pen);
    if (f->lost) {
      // The lost mark: a red cross over the folder.
      CPEN red{1, PAT_SOLID, COLOR_RED};
      xvt_dwin_set_pen(win, &red);
      xvt_dwin_draw_line(win, PNT{box.left, box.top}, PNT{box.right, box.bottom});
      xvt_dwin_draw_line(win, PNT{box.right, box.top}, PNT{box.left, box.bottom});
    } else {
      if (f->no_inferiors) {
        // No subfolders: a bar under the folder.
        xvt_dwin_draw_line(win, PNT{box.left, box.bottom + 1}, PNT{box.right, box.bottom + 1});
      }
      if (f->marked) {
        CBRUSH mark{PAT_SOLID, COLOR_BLUE};
        xvt_dwin_set_brush(win, &mark);
        RCT dot{box.right - 5, box.top - 2, box.right + 1, box.top + 4};
        xvt_dwin_draw_rect(win, &dot);
      }
    }
  }
  const int slot = f->subscribed || IsInbox(f->name) ? kSlotSubscribedFolder : kSlotFolder;
  xvt_dwin_set_font(win, MSG_SlotFont(slot));
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : MSG_SlotColor(slot));
  const std::string label = folderDisplayName(f->ms, f->name.c_str(), f->delimiter);
  MSG_DrawColumnText(win, node, rect, 1, label.c_str(), static_cast<int>(label.size()));
  xvt_dwin_set_fore_color(win, fore);
  // An open folder counts its lines; a closed one shows what the server
  // told at the last tick, when it can tell.
  const bool loaded = f->messages_loaded || TREE_IsOpenElsewhere(node);
  if (loaded || (f->folder_id == INVALID_FOLDER && f->status_unseen >= 0)) {
    char counts[64];
    std::snprintf(counts, sizeof counts, "(%ld msgs, %ld unread)", loaded ? f->shown : f->status_messages,
                  loaded ? f->unread : f->status_unseen);
    MSG_DrawColumnText(win, node, rect, 2, counts, -1);
  }
  if (MSG_ColumnPlace(win, node, rect, 3, &x, &w) && folderIsReadOnly(node))
    MSG_DrawColumnText(win, node, rect, 3, "[Read Only]", -1);
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}

// --- Model events ----------------------------------------------------------------

namespace {

// The message line before or after one, in the order the folder shows
// them (through its groups); null at either end.
TreeNode* NeighbourLine(TreeNode* holder, TreeNode* line, bool next) {
  std::vector<TreeNode*> lines;
  for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k)) {
    if (TREE_GetDataType(k) == kNodeDataTypeMessage) lines.push_back(k);
    if (TREE_GetDataType(k) == kNodeDataTypeGroup)
      for (TreeNode* m = TREE_GetFirstKid(k); m; m = TREE_GetNext(m))
        if (TREE_GetDataType(m) == kNodeDataTypeMessage) lines.push_back(m);
  }
  const auto at = std::find(lines.begin(), lines.end(), line);
  if (at == lines.end()) return nullptr;
  if (next) return at + 1 == lines.end() ? nullptr : *(at + 1);
  return at == lines.begin() ? nullptr : *(at - 1);
}

// A viewer's step and its question about neighbours.
void HandleViewEvent(TreeNode* node, ModelEvent* ev) {
  TreeNode* holder = Holder(node);
  TreeNode* line = MSG_FindMessage(node, ev->umi);
  if (!line) return;
  if (ev->type == E_VIEW_POSITION_QUERY) {
    const bool has_next = NeighbourLine(holder, line, true), has_prev = NeighbourLine(holder, line, false);
    ModelEvent* answer = MM_NotEventNew(E_VIEW_POSITION);
    if (!answer) return;
    answer->umi = ev->umi;
    answer->folder = ev->folder;
    answer->value = has_next && has_prev ? 4 : has_next ? 2 : has_prev ? 3 : 1;
    MM_NotEventPost(answer);
    MM_NotEventFree(answer);
    return;
  }
  TreeNode* target = NeighbourLine(holder, line, ev->type == E_VIEW_NEXT);
  MessageNodeInfo* m = MSG_Info(target);
  if (!m) return;
  TREE_ShowNodeOnDisplay(target);
  spawnNextViewer(m->umi, node);
}

bool IsMessageEvent(int type) {
  return (type >= E_DELETED_FLAG_SET && type <= E_DRAFT_FLAG_CLEARED) || type == E_MSG_EXPUNGED;
}

int FolderWant(ModelEvent* ev, void* data) {
  auto* node = static_cast<TreeNode*>(data);
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return 0;
  const bool open = f->folder_id != INVALID_FOLDER;
  if (IsMessageEvent(ev->type)) return open && f->messages_loaded && ev->folder == f->folder_id;
  switch (ev->type) {
    case E_LOW_MEMORY: return 1;
    case E_MAIL_TIMER:
    case E_CHECK_NOW:
      if (!open) return f->selectable && !TREE_IsOpenElsewhere(node) && TREE_IsVisibleNode(node);
      return !TREE_IsOpenElsewhere(node);
    case E_FOLDER_STREAM_DIED: return open && ev->folder == f->folder_id;
    case E_FOLDER_CLOSED: return open && ev->folder == f->folder_id && (ev->value || f->closing);
    case E_FOLDER_EXPUNGED: return open && ev->folder == f->folder_id;
    case E_SHOW_MSGGRPS:
    case E_HIDE_MSGGRPS:
    case E_REBUILD_CLOSED:
      return open && !TREE_IsOpenElsewhere(node) && (ev->folder == f->folder_id || ev->type != E_REBUILD_CLOSED);
    case E_FOLDER_SUBSCRIBED:
    case E_FOLDER_UNSUBSCRIBED:
      return ev->ms == f->ms && ev->name && f->name == ev->name && !TREE_IsOpenElsewhere(node);
    case E_FOLDER_DELETED: return ev->ms == f->ms && ev->name && f->name == ev->name;
    case E_FOLDER_RENAMED: return ev->from_ms == f->ms && ev->old_name && f->name == ev->old_name;
    case E_SHOW_EMPTY_MSGGRPS:
    case E_HIDE_EMPTY_MSGGRPS: return open && f->groups_loaded && !TREE_IsOpenElsewhere(node);
    case E_OPTION_CHANGED: {
      if (!f->groups_loaded || TREE_IsOpenElsewhere(node) || !ev->option) return 0;
      const std::string prefix = groupGetOptionName(1, MM_MSGetNumber(f->ms), f->name.c_str(), 0, "IDList");
      const size_t stem = prefix.size() - std::strlen("IDList");
      return std::strncmp(ev->option, prefix.c_str(), stem) == 0;
    }
    case E_FONT_CHANGED: return TREE_GetParent(node) != nullptr && NodeFontKind(ev->value);
    case E_GROUP_SHOWN:
    case E_GROUP_HIDDEN:
    case E_GROUP_NEW:
    case E_GROUP_CHANGED:
      return open && f->groups_loaded && ev->folder == f->folder_id && !TREE_IsOpenElsewhere(node);
    case E_VIEW_NEXT:
    case E_VIEW_PREVIOUS:
    case E_VIEW_POSITION_QUERY: return open && f->messages_loaded && ev->folder == f->folder_id;
    default: return 0;
  }
}

void FolderHandle(ModelEvent* ev, void* data) {
  auto* node = static_cast<TreeNode*>(data);
  FolderNodeInfo* f = FOL_Info(node);
  if (!f) return;
  TreeNode* holder = Holder(node);
  switch (ev->type) {
    case E_LOW_MEMORY: f->low_memory = true; return;
    case E_MAIL_TIMER:
    case E_CHECK_NOW:
      // Inside a critical section the timer drops to the retry rate and
      // the check waits for a free tick.
      if (ev->type == E_MAIL_TIMER && !MSG_MailTimerGate()) return;
      if (f->folder_id == INVALID_FOLDER) {
        folderRefreshStatus(node);
        return;
      }
      folderCheckNewMail(node, 1);
      return;
    case E_FOLDER_STREAM_DIED:
      if (!f->lost) doFolderInvalid(node);
      return;
    case E_FOLDER_CLOSED: doFolderClosed(node); return;
    case E_FOLDER_EXPUNGED:
      folderRecount(node);
      Redraw(node);
      return;
    case E_SHOW_MSGGRPS:
    case E_HIDE_MSGGRPS:
    case E_REBUILD_CLOSED: doRebuildFolder(node); return;
    case E_FOLDER_SUBSCRIBED:
    case E_FOLDER_UNSUBSCRIBED:
      f->subscribed = ev->type == E_FOLDER_SUBSCRIBED;
      Redraw(node);
      return;
    case E_FOLDER_DELETED: doFolderDeleted(node); return;
    case E_FOLDER_RENAMED: doFolderRenamed(node, ev); return;
    case E_OPTION_CHANGED: {
      // A rule group's new name shows at once; "<id>.Name" after the folder's prefix.
      const std::string prefix = groupGetOptionName(1, MM_MSGetNumber(f->ms), f->name.c_str(), 0, "IDList");
      const char* tail = ev->option + prefix.size() - std::strlen("IDList");
      char* end = nullptr;
      const long id = std::strtol(tail, &end, 10);
      if (end == tail || id <= 0 || std::strcmp(end, ".Name") != 0) return;
      for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k))
        if (GroupNodeInfo* g = GRP_Info(k); g && g->id == id) {
          g->name = ev->option_value ? ev->option_value : Opt_LookupText(ev->option, kOptSession);
          TREE_RedrawNode(k);
        }
      return;
    }
    case E_FONT_CHANGED: TREE_RedrawNode(node); return;
    case E_SHOW_EMPTY_MSGGRPS:
    case E_HIDE_EMPTY_MSGGRPS:
    case E_GROUP_SHOWN:
    case E_GROUP_HIDDEN:
    case E_GROUP_NEW:
    case E_GROUP_CHANGED: GRP_HandleViewEvent(holder, ev); return;
    case E_VIEW_NEXT:
    case E_VIEW_PREVIOUS:
    case E_VIEW_POSITION_QUERY: HandleViewEvent(node, ev); return;
    default: break;
  }
  TreeNode* line = MSG_FindMessage(node, ev->umi);
  if (!line) return;
  if (ev->type == E_MSG_EXPUNGED) {
    folderRemoveMessage(holder, line);
    f->index.Erase(ev->umi);
    TREE_DestroyNode(line);
    Redraw(node);
    return;
  }
  // Whatever the event says, the line takes the flags the model has now:
  // a repeated or reordered event can't throw the counters off.
  ApplyFlags(holder, line, MSG_ReadFlags(ev->umi));
  // The folder's own line shows the counts too.
  if (holder != node) Redraw(node);
}

}  // namespace
