// The saved search's line: running the search, holding its folders open
// while it shows what it found, and following those folders' changes.
#include "src/search/search_node.h"
#include "src/organizer/msgwin.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>

#include "src/base/critical.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "src/organizer/organizer.h"

namespace {

// The font slot of search lines: the one between the folders' and the
// groups', which no other line uses.
constexpr int kSearchFontSlot = 6;

int SearchWant(ModelEvent* ev, void* data);
void SearchHandle(ModelEvent* ev, void* data);

bool Holds(const SearchInfo* s, int folder) {
  return std::find(s->run.folders.begin(), s->run.folders.end(), folder) != s->run.folders.end();
}

// Where the lines hang: the window's root while the search is shown there.
TreeNode* Holder(TreeNode* node) {
  TreeNode* elsewhere = TREE_GetElsewhereRoot(node);
  return elsewhere ? elsewhere : node;
}

void ClearLines(TreeNode* node, SearchInfo* s) {
  TREE_RemoveKidNodes(Holder(node));
  s->index.Clear();
  s->count = s->unread = 0;
}

void Recount(SearchInfo* s) {
  s->count = s->unread = 0;
  for (TreeNode* line : s->index.Lines()) {
    const MessageNodeInfo* m = MSG_Info(line);
    if (!m || (m->flags & kMsgDeleted)) continue;
    ++s->count;
    if (!(m->flags & kMsgRead)) ++s->unread;
  }
  for (TreeNode* k = TREE_GetFirstKid(Holder(s->node)); k; k = TREE_GetNext(k))
    if (GRP_Info(k)) groupRecount(k);
}

// The search lines alive now: a run may wait in a dialog (a login, a note)
// while the program goes on, and the line may be gone when it returns.
std::set<const TreeNode*>& Live() {
  static std::set<const TreeNode*> nodes;
  return nodes;
}

void Redraw(TreeNode* node) {
  if (TREE_GetWindow(node)) TREE_RedrawNode(node);
}

}  // namespace

SearchInfo* SRCH_NodeInfo(const TreeNode* node) {
  return TREE_GetDataType(node) == kNodeDataTypeSearch ? static_cast<SearchInfo*>(TREE_GetData(node)) : nullptr;
}

int searchCompare(void* a, void* b) {
  const bool sa = a && *static_cast<int32_t*>(a) == kNodeDataTypeSearch;
  const bool sb = b && *static_cast<int32_t*>(b) == kNodeDataTypeSearch;
  if (sa != sb) return sa ? 1 : -1;
  if (!sa) return 0;
  return strcasecmp(static_cast<SearchInfo*>(a)->name.c_str(), static_cast<SearchInfo*>(b)->name.c_str());
}

TreeNode* searchFindNode(TreeNode* root, int id) {
  for (TreeNode* k = TREE_GetFirstKid(root); k; k = TREE_GetNext(k))
    if (SearchInfo* s = SRCH_NodeInfo(k); s && s->id == id) return k;
  return nullptr;
}

TreeNode* searchCreate(TreeNode* root, const char* name) {
  const int id = searchFindByName(name);
  if (!id || !root) return nullptr;
  if (TreeNode* old = searchFindNode(root, id)) return old;
  auto* s = new SearchInfo;
  s->id = id;
  s->name = name;
  TreeNode* node = TREE_NewNode(0, s, 0, searchDraw, searchHandleNodeEvent, nullptr);
  if (!node) {
    delete s;
    return nullptr;
  }
  s->node = node;
  Live().insert(node);
  TREE_InsertSorted(root, node, searchCompare, 1);
  s->notifier = MM_NotRegister(SearchWant, SearchHandle, node, "Search node");
  return node;
}

int searchAppendNodes(TreeNode* root) {
  int made = 0;
  for (int id : searchIdList())
    if (searchCreate(root, searchGetName(id).c_str())) ++made;
  return made;
}

std::string searchLineText(const TreeNode* node) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return "";
  char counts[64];
  std::snprintf(counts, sizeof counts, "(%ld msgs)", s->count);
  return (s->flags & kSearchContentsValid) ? s->name + " " + counts : s->name;
}

void searchDraw(WINDOW win, TreeNode* node, RCT* rect) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s || !searchFindByName(s->name.c_str())) {
    Trace(kTraceOrganizer, kTraceLow, "searchDraw : INVALID_SEARCH\n");
    return;
  }
  const bool selected = TREE_IsSelected(node);
  const COLOR fore = selected ? COLOR_WHITE : COLOR_BLACK;
  int x = 0, w = 0;
  if (MSG_ColumnPlace(win, node, rect, 0, &x, &w)) {
    // A folder picture with a lens: filled while the search shows its lines.
    const bool elsewhere = TREE_IsOpenElsewhere(node);
    const COLOR ink = elsewhere ? COLOR_GRAY : fore;
    MSG_DrawLineIcon(win, kLineIconFolder, x, rect->top, ink, (s->flags & kSearchContentsValid) != 0,
                     selected ? kTreeHighlight : COLOR_WHITE);
    CPEN pen{2, PAT_SOLID, ink};
    xvt_dwin_set_pen(win, &pen);
    xvt_dwin_draw_line(win, PNT{x + 12, rect->top + 10}, PNT{x + 17, rect->top + 15});
  }
  xvt_dwin_set_font(win, MSG_SlotFont(kSearchFontSlot));
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : MSG_SlotColor(kSearchFontSlot));
  MSG_DrawColumnText(win, node, rect, 1, s->name.c_str(), static_cast<int>(s->name.size()));
  if (s->flags & kSearchContentsValid) {
    char counts[64];
    std::snprintf(counts, sizeof counts, "(%ld msgs)", s->count);
    MSG_DrawColumnText(win, node, rect, 2, counts, -1);
  }
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}

int searchAddContents(TreeNode* node) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return 0;
  TreeNode* holder = Holder(node);
  WINDOW outer = TREE_GetWindow(node);
  WINDOW inner = holder != node ? TREE_GetWindow(holder) : NULL_WIN;
  if (outer) TREE_SuspendUpdates(outer);
  if (inner) TREE_SuspendUpdates(inner);
  ClearLines(node, s);
  s->flags &= ~(kSearchLowMemory | kSearchStale);
  s->sort = MSG_SortOrderFromName(searchGetOption(s->id, "Sort").c_str());
  MSG_ReadDrawOptions();
  // Every record is made once and sorted once, as a folder's are.
  std::vector<MessageNodeInfo*> records;
  records.reserve(s->run.found.size());
  WIN_start_critical();
  for (UMI umi : s->run.found) {
    // The free store's reserve answers a failed allocation once and posts
    // E_LOW_MEMORY, which sets the flag: the load stops there.
    MessageNodeInfo* m = MSG_NewInfo(umi);
    if (m) records.push_back(m);
    if (!m || (s->flags & kSearchLowMemory)) {
      s->flags |= kSearchLowMemory;
      xvt_progress_set_text("Aborting search load due to low application memory");
      break;
    }
  }
  WIN_end_critical();
  s->index.Reserve(records.size());
  if (searchGetFlag(s->id, "ViewMsgGrps", false)) {
    xvt_progress_set_text("Adding Message Groups ...");
    const std::string ids = searchGetOption(s->id, "MessageGroups.IDList");
    for (const char* p = ids.c_str(); *p;) {
      char* end;
      const long gid = std::strtol(p, &end, 10);
      if (end == p) {
        ++p;
        continue;
      }
      if (gid > 0 && gid < 100000) groupAdd(holder, s->id, nullptr, static_cast<int>(gid));
      p = end;
    }
    groupAdd(holder, s->id, nullptr, kGroupMain);
    groupAdd(holder, s->id, nullptr, kGroupDeleted);
    long shown = 0, unread = 0;
    GRP_LoadRecords(holder, &records, &shown, &unread, &s->index);
    s->flags |= kSearchGroupsOnView;
  } else {
    ConversationIndex conv;
    MSG_SortRecords(&records, s->sort, &conv);
    for (MessageNodeInfo* m : records) {
      const UMI umi = m->umi;
      TreeNode* line = messageCreateNode(umi, m);
      if (!line) {
        s->flags |= kSearchLowMemory;
        continue;
      }
      TREE_AppendNode(holder, line);
      s->index.Put(umi, line);
    }
    s->flags &= ~kSearchGroupsOnView;
  }
  Recount(s);
  s->flags |= kSearchContentsValid;
  if (inner) TREE_ResumeUpdates(inner);
  if (outer) TREE_ResumeUpdates(outer);
  Redraw(node);
  if (s->flags & kSearchLowMemory)
    xvt_dm_post_note("Due to memory constraints only part of the messages \nfor search \"%s\" were loaded.\n",
                     s->name.c_str());
  return 1;
}

namespace {

int Load(TreeNode* node, bool tell_empty) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return 0;
  char title[kSearchMaxName + 40];
  std::snprintf(title, sizeof title, "Opening %s", s->name.c_str());
  xvt_progress_open(title, "Connecting...", true);
  xvt_progress_set_text("Searching ...");
  // Searches reach the network: the busy mode keeps the timers out. The
  // old run's folders close after the new one has opened them again, so
  // that a folder kept by both is not read twice.
  const int id = s->id;
  SrchRun run;
  WIN_start_critical();
  searchRun(id, &run);
  WIN_end_critical();
  if (!Live().count(node) || !(s = SRCH_NodeInfo(node))) {
    SRCH_RunClose(&run);
    xvt_progress_close();
    return 0;
  }
  SrchRun old = std::move(s->run);
  s->run = std::move(run);
  SRCH_RunClose(&old);
  for (const std::string& problem : s->run.problems)
    Trace(kTraceOrganizer, kTraceLow, "searchOpen : %s\n", problem.c_str());
  xvt_progress_set_text("Adding Messages to search ...");
  const int ok = searchAddContents(node);
  xvt_progress_close();
  if (ok && tell_empty && (s = SRCH_NodeInfo(node)) && s->count == 0)
    xvt_dm_post_note("Search contains no messages.");
  return ok;
}

}  // namespace

int searchOpen(TreeNode* node) { return Load(node, true); }

void doRebuildSearch(TreeNode* node) {
  static bool busy = false;  // opening folders may bring their new mail
  if (busy || !SRCH_NodeInfo(node)) return;
  busy = true;
  Load(node, false);
  busy = false;
}

void searchClose(int id) {
  ModelEvent* ev = MM_NotEventNew(E_SEARCH_CLOSING);
  if (!ev) return;
  ev->search = static_cast<int16_t>(id);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void doSearchClosed(TreeNode* node) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return;
  if (TREE_IsOpen(node)) TREE_OpenSubtree(node, 0, 0);
  ClearLines(node, s);
  SRCH_RunClose(&s->run);
  s->run = SrchRun{};
  s->flags &= ~(kSearchContentsValid | kSearchGroupsOnView | kSearchLowMemory | kSearchOpenElsewhere);
  Redraw(node);
}

int searchDelete(TreeNode* node) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return 0;
  const int id = s->id;
  if (s->count > 0) {
    switch (xvt_dm_post_ask("Messages", "Search", "Cancel", "Delete all messages or delete Search \"%s\"?",
                            s->name.c_str())) {
      case RESP_DEFAULT: {
        std::vector<UMI> umis;
        for (TreeNode* line : s->index.Lines())
          if (const MessageNodeInfo* m = MSG_Info(line)) umis.push_back(m->umi);
        return MM_MsgSetFlagMany(umis, "\\Deleted") ? 1 : 0;
      }
      case RESP_2: break;
      default: return 0;
    }
  } else if (xvt_dm_post_ask("Yes", "Cancel", nullptr, "Delete Search \"%s\"?", s->name.c_str()) != RESP_DEFAULT) {
    return 0;
  }
  searchClose(id);
  return searchDeleteOptions(id);
}

bool searchPrepareWindow(TreeNode* node, std::string* title) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return false;
  if (!(s->flags & kSearchContentsValid) && !searchOpen(node)) return false;
  s = SRCH_NodeInfo(node);
  if (!s) return false;
  *title = "Search : " + s->name;
  s->flags |= kSearchOpenElsewhere;
  return true;
}

WINDOW searchOpenWindow(TreeNode* node) { return MSG_OpenNodeWindow(node); }

int searchHandleNodeEvent(WINDOW win, TreeNode* node, int event) {
  SearchInfo* s = SRCH_NodeInfo(node);
  if (event == kNodeEventDestroy) {
    Live().erase(node);
    if (s) {
      if (s->notifier >= 0) MM_NotUnregister(s->notifier);
      SRCH_RunClose(&s->run);
      delete s;
    }
    TREE_SetData(node, nullptr);
    return kNodeActionOk;
  }
  if (!s) return kNodeActionRefused;
  switch (event) {
    case kNodeEventExpanding:
      if (TREE_IsOpenElsewhere(node)) return kNodeActionRefused;
      if (s->flags & kSearchContentsValid) return kNodeActionOk;
      return searchOpen(node) ? kNodeActionOk : kNodeActionRefused;
    case kNodeEventDoubleClick:
      if (MSG_NodeWindowOpener()) return searchOpenWindow(node) ? kNodeActionOk : kNodeActionRefused;
      if (TREE_IsOpen(node)) {
        TREE_OpenSubtree(node, 0, 0);
        return kNodeActionOk;
      }
      if (!(s->flags & kSearchContentsValid) && !searchOpen(node)) return kNodeActionRefused;
      TREE_OpenSubtree(node, 1, 1);
      (void)win;
      return kNodeActionOk;
    default: return kNodeActionOk;
  }
}

// --- Model events ----------------------------------------------------------------

namespace {

bool IsFlagEvent(int type) { return type >= E_DELETED_FLAG_SET && type <= E_DRAFT_FLAG_CLEARED; }

int SearchWant(ModelEvent* ev, void* data) {
  SearchInfo* s = SRCH_NodeInfo(static_cast<TreeNode*>(data));
  if (!s) return 0;
  const bool valid = s->flags & kSearchContentsValid;
  switch (ev->type) {
    case E_LOW_MEMORY: return 1;
    case E_SEARCH_CLOSING:
    case E_SEARCH_DELETED:
    case E_SEARCH_RENAMED: return ev->search == s->id;
    case E_SEARCH_CHANGED: return valid && ev->search == s->id;
    case E_NEW_MESSAGES:
    case E_MSG_EXPUNGED: return valid && Holds(s, ev->folder);
    case E_MAIL_TIMER:
    case E_CHECK_NOW: return valid && !s->run.folders.empty();
    case E_FOLDER_CLOSED: return valid && ev->value && Holds(s, ev->folder);
    default: return valid && IsFlagEvent(ev->type) && Holds(s, ev->folder);
  }
}

void SearchHandle(ModelEvent* ev, void* data) {
  auto* node = static_cast<TreeNode*>(data);
  SearchInfo* s = SRCH_NodeInfo(node);
  if (!s) return;
  switch (ev->type) {
    case E_LOW_MEMORY: s->flags |= kSearchLowMemory; return;
    case E_SEARCH_CLOSING: doSearchClosed(node); return;
    case E_SEARCH_DELETED:
      if (WINDOW w = MSG_NodeWindow(node)) MSG_ReturnKidsAndDestroy(w);
      TREE_RemoveNode(node);
      return;
    case E_SEARCH_RENAMED:
      if (ev->new_name) s->name = ev->new_name;
      if (WINDOW w = MSG_NodeWindow(node)) xvt_vobj_set_title(w, ("Search : " + s->name).c_str());
      Redraw(node);
      return;
    case E_SEARCH_CHANGED: doRebuildSearch(node); return;
    case E_NEW_MESSAGES:
      // Told from inside the mail layer's own command: searching now would
      // start a second command on the same connection. The search runs
      // again once the check is over (here, or at the next tick when
      // another line made the check).
      s->flags |= kSearchStale;
      return;
    case E_MAIL_TIMER:
    case E_CHECK_NOW: {
      if (ev->type == E_MAIL_TIMER && !MSG_MailTimerGate()) return;
      const std::vector<int> folders = s->run.folders;
      MM_QuietOn();
      for (int id : folders) MM_FolCheckNewMail(id, 0);
      MM_QuietOff();
      if (Live().count(node) && (s = SRCH_NodeInfo(node)) && (s->flags & kSearchStale)) doRebuildSearch(node);
      return;
    }
    case E_FOLDER_CLOSED:
      // The model closed the folder under us: the run no longer holds it.
      s->run.folders.erase(std::remove(s->run.folders.begin(), s->run.folders.end(), ev->folder),
                           s->run.folders.end());
      doSearchClosed(node);
      return;
    case E_MSG_EXPUNGED: {
      TreeNode* line = s->index.Find(ev->umi);
      if (!line) return;
      s->index.Erase(ev->umi);
      s->run.found.erase(std::remove(s->run.found.begin(), s->run.found.end(), ev->umi), s->run.found.end());
      TREE_RemoveNode(line);
      Recount(s);
      Redraw(node);
      return;
    }
    default: {
      TreeNode* line = s->index.Find(ev->umi);
      MessageNodeInfo* m = MSG_Info(line);
      if (!m) return;
      m->flags = static_cast<uint16_t>((m->flags & kMsgMultipart) | MSG_ReadFlags(m->umi));
      Recount(s);
      TREE_RedrawNode(line);
      Redraw(node);
      return;
    }
  }
}

}  // namespace
