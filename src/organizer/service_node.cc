// Service nodes: one per message service, filled with its folders when the
// user first opens it; and the operations on a selection of messages.
#include <cstdio>
#include <map>
#include <sstream>

#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/organizer/node_draw.h"
#include "src/organizer/nodes.h"

namespace {

int ServiceWant(ModelEvent* ev, void* data) {
  ServiceNodeInfo* s = SVC_Info(static_cast<TreeNode*>(data));
  if (!s) return 0;
  // The view of unsubscribed folders changes for every service at once.
  if (ev->type == E_SHOW_UNSUBSCRIBED || ev->type == E_HIDE_UNSUBSCRIBED) return s->fetched_subscribed;
  if (ev->type == E_FONT_CHANGED) return TREE_GetParent(static_cast<TreeNode*>(data)) != nullptr && NodeFontKind(ev->value);
  if (ev->ms != s->ms) return 0;
  switch (ev->type) {
    case E_MS_CLOSED: return s->fetched_subscribed;
    case E_MS_DESTROYED: return !TREE_IsOpenElsewhere(static_cast<TreeNode*>(data));
    case E_MS_NAME_CHANGED:
    case E_MS_ONLINE:
    case E_MS_OFFLINE: return 1;
    case E_NEWFOLDER: return s->fetched_subscribed && ev->name != nullptr;
    default: return 0;
  }
}

void ServiceHandle(ModelEvent* ev, void* data) {
  auto* node = static_cast<TreeNode*>(data);
  ServiceNodeInfo* s = SVC_Info(node);
  switch (ev->type) {
    case E_MS_CLOSED: {
      WINDOW win = TREE_GetWindow(node);
      if (win) TREE_SuspendUpdates(win);
      TreeNode* k = TREE_GetFirstKid(node);
      while (k) {
        TreeNode* next = TREE_GetNext(k);
        folderCloseTree(k);
        TREE_RemoveNode(k);
        k = next;
      }
      if (win) TREE_ResumeUpdates(win);
      s->fetched_subscribed = s->fetched_unsubscribed = false;
      if (TREE_IsOpen(node)) TREE_OpenSubtree(node, 0, 0);
      TREE_RedrawNode(node);
      break;
    }
    case E_MS_DESTROYED: TREE_RemoveNode(node); break;
    case E_FONT_CHANGED: TREE_RedrawNode(node); break;
    case E_SHOW_UNSUBSCRIBED:
    case E_HIDE_UNSUBSCRIBED: MSG_ShowUnsubscribed(node, ev->type == E_SHOW_UNSUBSCRIBED); break;
    case E_MS_NAME_CHANGED:
      s->name = MM_MSGetName(s->ms);
      if (TREE_GetParent(node)) TREE_RedrawNode(node);
      break;
    case E_MS_ONLINE:
    case E_MS_OFFLINE:
      TREE_ClearSelections(TREE_GetWindow(node), 1);
      s->offline = ev->type == E_MS_OFFLINE && MM_MSGetType(s->ms) != kServiceLocal;
      TREE_SetNodeEnabled(node, !s->offline);
      TREE_RedrawNode(node);
      break;
    case E_NEWFOLDER: {
      // A top-level name only; folders below are their parents' business.
      const std::string name = ev->name;
      if (s->delimiter && name.find(s->delimiter) != std::string::npos) break;
      FolderListEntry e;
      e.name = name;
      e.delimiter = s->delimiter;
      folderAdd(node, s->ms, e, 1, INVALID_FOLDER);
      break;
    }
    default: break;
  }
}

MSG_NODE_WINDOW_FN g_window_opener = nullptr;

}  // namespace

void MSG_SetNodeWindowOpener(MSG_NODE_WINDOW_FN fn) { g_window_opener = fn; }
MSG_NODE_WINDOW_FN MSG_NodeWindowOpener() { return g_window_opener; }

ServiceNodeInfo* SVC_Info(const TreeNode* node) {
  return TREE_GetDataType(node) == kNodeDataTypeMsgService ? static_cast<ServiceNodeInfo*>(TREE_GetData(node))
                                                            : nullptr;
}

TreeNode* serviceAdd(TreeNode* parent, int number) {
  const int ms = MM_MSNew(number);
  if (ms == INVALID_SERVICE) return nullptr;
  auto* s = new ServiceNodeInfo;
  s->ms_id = number;
  s->ms = ms;
  s->name = MM_MSGetName(ms);
  short offline = 0;
  s->offline = Opt_LookupBoolean("General.Offline", &offline, kOptSession) && offline &&
               MM_MSGetType(ms) != kServiceLocal;
  TreeNode* node = TREE_NewNode(0, s, 0, serviceDraw, serviceHandleNodeEvent, nullptr);
  if (!node) {
    delete s;
    return nullptr;
  }
  TREE_AppendNode(parent, node);
  s->node = node;
  s->notifier = MM_NotRegister(ServiceWant, ServiceHandle, node, "folder.c: service node");
  return node;
}

int serviceAddAll(TreeNode* root) {
  std::istringstream in(Opt_LookupText("MsgService.IDList", kOptSession));
  std::string word;
  int added = 0;
  while (std::getline(in, word, ',')) {
    const int number = std::atoi(word.c_str());
    if (number > 0 && serviceAdd(root, number)) ++added;
  }
  return added;
}

int serviceAddFolders(TreeNode* node, int ms) {
  ServiceNodeInfo* s = SVC_Info(node);
  if (!s) return 0;
  long caps = 0;
  if (!MM_MSCapabilities(ms, &caps)) return 0;
  WINDOW win = TREE_GetWindow(node);
  if (win) TREE_SuspendUpdates(win);
  char title[300];
  std::snprintf(title, sizeof title, "Opening %s", s->name.c_str());
  xvt_progress_open(title, "Connecting...", false);
  short all_view = 0;
  Opt_LookupBoolean("View.Unsubscribed", &all_view, kOptSession);
  const char* pattern = (caps & 32) ? "%" : "*";
  int ok = 1;
  for (int all = 0; all <= (all_view ? 1 : 0) && ok; ++all) {
    if (all ? s->fetched_unsubscribed : s->fetched_subscribed) continue;
    FolderList list;
    if (!MM_MSFindFol(ms, pattern, all, &list)) {
      ok = 0;
      break;
    }
    for (const FolderListEntry& e : list) folderAdd(node, ms, e, all ? 0 : 1, INVALID_FOLDER);
    if (!all && list.empty())
      xvt_dm_post_note(all_view ? "There are no subscribed folders in this message service.  Use the "
                                  "Folder->Subscribe menu command to subscribe to folders."
                                : "There are no subscribed folders in this message service.  Use the View->All "
                                  "Folders menu command to see unsubscribed folders.");
    if (!list.empty()) s->delimiter = list.back().delimiter;
    (all ? s->fetched_unsubscribed : s->fetched_subscribed) = true;
  }
  xvt_progress_close();
  if (win) TREE_ResumeUpdates(win);
  return ok;
}

int serviceHandleNodeEvent(WINDOW, TreeNode* node, int event) {
  ServiceNodeInfo* s = SVC_Info(node);
  switch (event) {
    case kNodeEventDestroy:
      if (s && s->notifier >= 0) MM_NotUnregister(s->notifier);
      delete s;
      TREE_SetData(node, nullptr);
      return kNodeActionOk;
    case kNodeEventExpanding:
    case kNodeEventDoubleClick:
      if (!s || s->offline) return kNodeActionRefused;
      if (event == kNodeEventExpanding && TREE_IsOpenElsewhere(node)) return kNodeActionRefused;
      if (!s->fetched_subscribed && !TREE_IsOpenElsewhere(node) && !serviceAddFolders(node, s->ms))
        return kNodeActionRefused;
      if (event == kNodeEventDoubleClick) {
        if (MSG_NODE_WINDOW_FN opener = MSG_NodeWindowOpener()) return opener(node) ? kNodeActionOk : kNodeActionRefused;
        TREE_OpenSubtree(node, !TREE_IsOpen(node), 0);
      }
      return kNodeActionOk;
    default: return kNodeActionOk;
  }
}

void serviceDraw(WINDOW win, TreeNode* node, RCT* rect) {
  ServiceNodeInfo* s = SVC_Info(node);
  if (!s) return;
  const bool selected = TREE_IsSelected(node);
  const COLOR fore = selected ? COLOR_WHITE : COLOR_BLACK;
  int x = 0, w = 0;
  if (MSG_ColumnPlace(win, node, rect, 0, &x, &w)) {
    // Not fetched: an outline; fetched: filled; open elsewhere: filled gray.
    const bool elsewhere = TREE_IsOpenElsewhere(node);
    const COLOR ink = elsewhere ? COLOR_GRAY : fore;
    MSG_DrawLineIcon(win, kLineIconService, x, rect->top, ink, s->fetched_subscribed || elsewhere,
                     selected ? kTreeHighlight : COLOR_WHITE);
  }
  xvt_dwin_set_font(win, MSG_SlotFont(kSlotService));
  // Offline services are gray.
  xvt_dwin_set_fore_color(win, selected ? COLOR_WHITE : s->offline ? COLOR_GRAY : MSG_SlotColor(kSlotService));
  MSG_DrawColumnText(win, node, rect, 1, s->name.c_str(), static_cast<int>(s->name.size()));
  xvt_dwin_set_fore_color(win, COLOR_BLACK);
}

void MSG_ShowUnsubscribed(TreeNode* node, bool show) {
  TreeNode* holder = TREE_GetElsewhereRoot(node) ? TREE_GetElsewhereRoot(node) : node;
  if (show) {
    // What was never listed is listed now (the view option is already on).
    if (ServiceNodeInfo* s = SVC_Info(node)) {
      if (!s->fetched_unsubscribed) serviceAddFolders(node, s->ms);
    } else if (FolderNodeInfo* f = FOL_Info(node); f && !f->fetched_unsubscribed) {
      WINDOW win = TREE_GetWindow(holder);
      if (win) TREE_SuspendUpdates(win);
      folderAddSubFolders(node);
      if (win) TREE_ResumeUpdates(win);
    }
  }
  for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k)) {
    FolderNodeInfo* f = FOL_Info(k);
    if (!f) break;  // subfolders come first
    if (show) {
      if (TREE_IsHidden(k)) TREE_HideNode(k, 0);
      if (f->fetched_subscribed) MSG_ShowUnsubscribed(k, true);
    } else if (f->subscribed) {
      if (f->fetched_subscribed && f->fetched_unsubscribed) MSG_ShowUnsubscribed(k, false);
    } else if (!TREE_IsHidden(k)) {
      TREE_HideNode(k, 1);
    }
    if (TREE_GetParent(k)) TREE_RedrawNode(k);
  }
}

bool MSG_LineText(TreeNode* node, char* buf, size_t size) {
  std::string text;
  if (ServiceNodeInfo* s = SVC_Info(node)) {
    text = s->name;
  } else if (FolderNodeInfo* f = FOL_Info(node)) {
    text = folderDisplayName(f->ms, f->name.c_str(), f->delimiter);
  } else if (GroupNodeInfo* g = GRP_Info(node)) {
    text = g->name;
  } else if (MessageNodeInfo* m = MSG_Info(node)) {
    text = std::string(MSG_From(m));
  } else {
    return false;
  }
  if (!size) return false;
  std::snprintf(buf, size, "%s", text.c_str());
  return true;
}

// --- Selections -------------------------------------------------------------------

std::vector<UMI> MSG_SelectedUmis(WINDOW tree) {
  std::vector<UMI> out;
  TreeNode* root = TREE_GetRoot(tree);
  if (!root) return out;
  for (TreeNode* n : TREE_GetSelections(root))
    if (MessageNodeInfo* m = MSG_Info(n)) out.push_back(m->umi);
  return out;
}

int MSG_SetFlagOnSelection(WINDOW tree, const char* flag, bool set) {
  const std::vector<UMI> umis = MSG_SelectedUmis(tree);
  if (umis.empty()) return 0;
  TREE_SuspendUpdates(tree);
  const int n = set ? MM_MsgSetFlagMany(umis, flag) : MM_MsgClearFlagMany(umis, flag);
  TREE_ResumeUpdates(tree);
  return n;
}

int MSG_CopySelection(WINDOW tree, int ms, const char* folder) {
  const std::vector<UMI> umis = MSG_SelectedUmis(tree);
  return umis.empty() ? 0 : MM_MsgCopyMany(umis, ms, folder);
}
