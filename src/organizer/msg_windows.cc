// Windows that show one service or one folder on their own (the line's kids
// move into the window's tree and come back when it closes), how organizer
// windows close, and what they tell in the status line and the dump.
#include <algorithm>
#include <cstdio>

#include "src/base/commands.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/organizer/desktop.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/search_node.h"

namespace {

std::vector<WINDOW>& Contexts() {
  static std::vector<WINDOW> windows;
  return windows;
}


void PostClosing(MsgWinInfo* info) {
  ModelEvent* ev = MM_NotEventNew(info->type == kMsgWinService ? E_MS_WIN_CLOSING : E_FOL_WIN_CLOSING);
  if (!ev) return;
  ev->ms = static_cast<int16_t>(info->ms);
  ev->folder = static_cast<int16_t>(info->folder);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

std::string LineText(TreeNode* n) {
  char buf[600];
  if (ServiceNodeInfo* s = SVC_Info(n)) return s->name;
  if (FolderNodeInfo* f = FOL_Info(n)) {
    std::string text = folderDisplayName(f->ms, f->name.c_str(), f->delimiter);
    if (f->messages_loaded || TREE_IsOpenElsewhere(n)) {
      std::snprintf(buf, sizeof buf, " (%ld msgs, %ld unread)", f->shown, f->unread);
      text += buf;
    }
    return text;
  }
  if (SRCH_NodeInfo(n)) return searchLineText(n);
  if (GroupNodeInfo* g = GRP_Info(n)) {
    std::snprintf(buf, sizeof buf, "%s (%d)", g->name.c_str(), g->count);
    return buf;
  }
  if (MessageNodeInfo* m = MSG_Info(n)) {
    std::string text(MSG_From(m));
    text += " | ";
    text += MSG_Subject(m);
    text += " | " + MSG_DateTextOf(m);
    if (m->flags & kMsgDeleted) text += " [deleted]";
    else if (!(m->flags & kMsgRead)) text += " [unread]";
    return text;
  }
  return "";
}

int Depth(const TreeNode* n) {
  int d = 0;
  for (const TreeNode* p = TREE_GetParent(n); p && TREE_GetParent(p); p = TREE_GetParent(p)) ++d;
  return d;
}

}  // namespace

std::vector<WINDOW> MSG_ContextWindows() { return Contexts(); }

void MSG_ForgetContextWindow(WINDOW win) {
  auto& c = Contexts();
  c.erase(std::remove(c.begin(), c.end(), win), c.end());
}

WINDOW MSG_NodeWindow(const TreeNode* node) {
  for (WINDOW w : Contexts())
    if (MsgWinInfo* info = MSG_WinInfo(w); info && info->root && TREE_GetOriginNode(info->root) == node) return w;
  return NULL_WIN;
}

namespace {

// Makes the window of a context record whose root is set, and moves the
// line's kids into it. Null (record and root freed) on failure.
WINDOW MakeContextWindow(MsgWinInfo* info, TreeNode* node, const RCT* rect, unsigned long attributes,
                         const std::string& title) {
  const int n = static_cast<int>(Contexts().size());
  RCT r{60 + 24 * n, 40 + 24 * n, 660 + 24 * n, 480 + 24 * n};
  char state[20] = "Norm";
  if (rect)
    r = *rect;
  else if (getWindowGeometry(info->slot, &r, state, sizeof state))
    r = RCT{r.left + 24 * n, r.top + 24 * n, r.right + 24 * n, r.bottom + 24 * n};
  TreeNode* root = info->root;
  WINDOW win = createMessageOrganizerWindow(info, &r, title.c_str(),
                                            WSF_SIZE | WSF_CLOSE | WSF_MAXIMIZABLE | attributes |
                                                windowAttrForState(state),
                                            kMsgMenuBar, 0);
  if (!win) {
    TREE_DestroyNode(root);
    delete info;
    return NULL_WIN;
  }
  Contexts().push_back(win);
  TREE_MoveKids(root, node);
  TREE_SetElsewhereRoot(node, root);
  TREE_SetOpenElsewhere(node, true);
  TREE_RedrawNode(node);
  TREE_SetInitSelection(info->tree);
  xvt_vobj_set_title(info->status, MSG_StatusText(info).c_str());
  setSelectionMenus(info);
  return win;
}

// A search's window: its lines as found, service and folder none.
WINDOW OpenSearchWindow(TreeNode* node, const RCT* rect, unsigned long attributes) {
  std::string title;
  if (!searchPrepareWindow(node, &title)) return NULL_WIN;
  if (TREE_IsOpen(node)) TREE_OpenSubtree(node, 0, 0);
  auto* info = new MsgWinInfo;
  info->type = kMsgWinSearch;
  info->slot = kSlotSearch;
  info->search = SRCH_NodeInfo(node)->id;
  info->root = TREE_NewRootNode(0, nullptr, 0, nullptr, nullptr, nullptr);
  if (!info->root) {
    delete info;
    return NULL_WIN;
  }
  TREE_SetOriginNode(info->root, node);
  return MakeContextWindow(info, node, rect, attributes, title);
}

}  // namespace

WINDOW MSG_OpenNodeWindow(TreeNode* node, const RCT* rect, unsigned long attributes) {
  if (WINDOW open = MSG_NodeWindow(node)) {
    xvt_vobj_raise(open);
    xvt_scr_set_focus_vobj(open);
    return open;
  }
  if (SRCH_NodeInfo(node)) return OpenSearchWindow(node, rect, attributes);
  ServiceNodeInfo* s = SVC_Info(node);
  FolderNodeInfo* f = FOL_Info(node);
  if (!s && !f) return NULL_WIN;
  WINDOW from = TREE_GetWindow(node);
  // The line fills itself as when it is opened in its tree.
  const int ok = s ? serviceHandleNodeEvent(from, node, kNodeEventExpanding)
                   : folderHandleNodeEvent(from, node, kNodeEventExpanding);
  if (ok != kNodeActionOk || !(s = SVC_Info(node), f = FOL_Info(node), s || f)) return NULL_WIN;
  if (TREE_IsOpen(node)) TREE_OpenSubtree(node, 0, 0);
  auto* info = new MsgWinInfo;
  info->type = s ? kMsgWinService : kMsgWinFolder;
  info->slot = s ? kSlotMsgSrv : kSlotFolder;
  info->ms = s ? s->ms : f->ms;
  info->folder = f ? f->folder_id : 999;
  if (f) info->folder_name = f->name;
  info->root = TREE_NewRootNode(0, nullptr, 0, nullptr, nullptr, nullptr);
  if (!info->root) {
    delete info;
    return NULL_WIN;
  }
  TREE_SetOriginNode(info->root, node);
  std::string title = s ? s->name
                        : folderDisplayName(f->ms, f->name.c_str(), f->delimiter) + " - " + MM_MSGetName(f->ms);
  return MakeContextWindow(info, node, rect, attributes, title);
}

void MSG_ReturnKidsAndDestroy(WINDOW win) {
  MsgWinInfo* info = MSG_WinInfo(win);
  if (!info) return;
  if (info->type == kMsgWinTop) {
    // Context windows first: their lines go back while the top tree lives.
    for (WINDOW w : MSG_ContextWindows()) MSG_ReturnKidsAndDestroy(w);
  }
  if (info->notifier >= 0) MM_NotUnregister(info->notifier);
  info->notifier = -1;
  TreeNode* origin = info->root ? TREE_GetOriginNode(info->root) : nullptr;
  if (origin && info->type != kMsgWinTop && TREE_GetElsewhereRoot(origin) == info->root) {
    TREE_MoveKids(origin, info->root);
    TREE_SetElsewhereRoot(origin, nullptr);
    TREE_SetOpenElsewhere(origin, false);
    TREE_RedrawNode(origin);
  }
  MSG_ForgetContextWindow(win);
  xvt_vobj_destroy(win);
}

void closeMessageWindow(WINDOW win) {
  MsgWinInfo* info = MSG_WinInfo(win);
  if (!info) return;
  switch (info->type) {
    case kMsgWinTop:
      saveWindowGeometry(kSlotTopMS, win);
      if (info->strip) CM_ManagerWindowDestroy(info->strip);
      break;
    case kMsgWinService:
    case kMsgWinFolder: {
      saveWindowGeometry(info->slot, win);
      PostClosing(info);
      TreeNode* origin = info->root ? TREE_GetOriginNode(info->root) : nullptr;
      const bool folder = info->type == kMsgWinFolder;
      MSG_ReturnKidsAndDestroy(win);
      // A folder window's folder closes with it; its line stays in the tree.
      if (folder && FOL_Info(origin)) folderCloseTree(origin);
      break;
    }
    case kMsgWinSearch: {
      saveWindowGeometry(info->slot, win);
      ModelEvent* ev = MM_NotEventNew(E_SEARCH_WIN_CLOSING);
      if (ev) {
        ev->search = static_cast<int16_t>(info->search);
        MM_NotEventPost(ev);
        MM_NotEventFree(ev);
      }
      const int search = info->search;
      MSG_ReturnKidsAndDestroy(win);
      // As a folder window closes its folder, a search window lets its
      // search's folders go; the line stays in the tree.
      searchClose(search);
      break;
    }
    default: break;
  }
}

std::string MSG_StatusText(MsgWinInfo* info) {
  if (!info || !info->tree) return "";
  TreeNode* root = TREE_GetRoot(info->tree);
  const std::vector<TreeNode*> sel = TREE_GetSelections(root);
  char buf[600];
  TreeNode* about = sel.size() == 1 ? sel[0] : (info->root ? TREE_GetOriginNode(info->root) : nullptr);
  if (sel.size() > 1) {
    std::snprintf(buf, sizeof buf, "%zu selected", sel.size());
    return buf;
  }
  if (MSG_Info(about)) {
    TreeNode* container = messageContainer(about);
    SearchInfo* si = SRCH_NodeInfo(container) ? SRCH_NodeInfo(container) : SRCH_NodeInfo(TREE_GetOriginNode(container));
    if (si) {
      std::snprintf(buf, sizeof buf, "%s: %ld messages, %ld unread", si->name.c_str(), si->count, si->unread);
      return buf;
    }
    FolderNodeInfo* f = FOL_Info(container) ? FOL_Info(container) : FOL_Info(TREE_GetOriginNode(container));
    if (f) {
      std::snprintf(buf, sizeof buf, "%s: %ld messages, %ld unread", folderDisplayName(f->ms, f->name.c_str(), f->delimiter).c_str(),
                    f->shown, f->unread);
      return buf;
    }
    return "1 message selected";
  }
  if (SearchInfo* si = SRCH_NodeInfo(about)) {
    std::snprintf(buf, sizeof buf, "%s: %ld messages, %ld unread", si->name.c_str(), si->count, si->unread);
    return buf;
  }
  if (FolderNodeInfo* f = FOL_Info(about)) {
    const std::string name = folderDisplayName(f->ms, f->name.c_str(), f->delimiter);
    if (f->messages_loaded || TREE_IsOpenElsewhere(about))
      std::snprintf(buf, sizeof buf, "%s: %ld messages, %ld unread", name.c_str(), f->shown, f->unread);
    else if (f->status_messages >= 0)
      std::snprintf(buf, sizeof buf, "%s: %ld messages, %ld unread", name.c_str(), f->status_messages,
                    f->status_unseen);
    else
      std::snprintf(buf, sizeof buf, "%s", name.c_str());
    return buf;
  }
  if (ServiceNodeInfo* s = SVC_Info(about)) {
    int folders = 0;
    TreeNode* holder = TREE_GetElsewhereRoot(about) ? TREE_GetElsewhereRoot(about) : about;
    for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k)) folders += FOL_Info(k) != nullptr;
    if (s->fetched_subscribed)
      std::snprintf(buf, sizeof buf, "%s: %d folder%s", s->name.c_str(), folders, folders == 1 ? "" : "s");
    else
      std::snprintf(buf, sizeof buf, "%s", s->name.c_str());
    return buf;
  }
  int services = 0;
  for (TreeNode* k = TREE_GetFirstKid(root); k; k = TREE_GetNext(k)) services += SVC_Info(k) != nullptr;
  std::snprintf(buf, sizeof buf, "%d message service%s", services, services == 1 ? "" : "s");
  return buf;
}

void MSG_DescribeTree(WINDOW tree, std::string* out) {
  TreeNode* root = TREE_GetRoot(tree);
  if (!root || !out) return;
  for (TreeNode* n = TREE_FirstKid(root); n; n = TREE_NextNode(n)) {
    out->append(TREE_IsSelected(n) ? "* " : "  ");
    out->append(static_cast<size_t>(2 * Depth(n)), ' ');
    out->append(LineText(n));
    out->push_back('\n');
  }
}

// --- About box --------------------------------------------------------------

namespace {

const WIN_DEF kAboutDef[] = {
    {W_MODAL, {0, 0, 360, 170}, "About Velmar", 0, 0},
    {WC_TEXT, {20, 20, 340, 44}, "Velmar", 9051, 0},
    {WC_TEXT, {20, 48, 340, 72}, "Version 4.1.4 Build (41)", 9052, 0},
    {WC_TEXT, {20, 76, 340, 100}, "A mail client for Linux", 9053, 0},
    {WC_PUSHBUTTON, {140, 120, 220, 150}, "OK", 1, CTL_FLAG_DEFAULT},
    {W_NONE, {}, nullptr, 0, 0},
};

long about_eh(WINDOW win, EVENT* ev) {
  if ((ev->type == E_CONTROL && ev->v.ctl.id == 1) || ev->type == E_CLOSE) xvt_vobj_destroy(win);
  return 0;
}

}  // namespace

void MSG_ShowAbout() {
  if (!xvt_res_get_dialog(kAboutBox)) xvt_res_register_dialog(kAboutBox, kAboutDef);
  xvt_dlg_create_res(W_MODAL, kAboutBox, EM_ALL, about_eh, 0);
}
