#include "src/organizer/desktop.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "src/base/trace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/saved_search.h"
#include "src/search/search_node.h"

namespace {

const char* const kSlotKeys[] = {
    nullptr,
    "WinPosn.Viewer.Border",
    "WinPosn.Compose.Border",
    "WinPosn.TopMS.Border",
    "WinPosn.Book.Border",
    "WinPosn.AddrBook.Border",
    "WinPosn.AddrSearch.Border",
    "WinPosn.Folder.Border",
    "WinPosn.MsgSrv.Border",
    "WinPosn.MsgGroup.Border",
    "WinPosn.TaskWin.Border",
    "WinPosn.Search.Border",
};

constexpr const char* kScreenKey = "Windows.ScreenWin.Border";
constexpr RCT kDefaultTaskRect{30, 30, 510, 350};
constexpr int kLetterSame = 'N';
constexpr int kLetterDown = 'D';
constexpr int kLetterUp = 'U';

int g_notifier = -1;

void StoreSlot(int slot, const RCT& r, const char* state) {
  char value[200];
  std::snprintf(value, sizeof value, "%d %d %d %d %s", r.left, r.top, r.right, r.bottom, state);
  Opt_AssignString(WindowSlotKey(slot), value, kOptPermanent, 0);
}

void StoreScreen(const RCT& r, int flag, int letter) {
  char value[200];
  std::snprintf(value, sizeof value, "%d %d %d %d %d %d", r.left, r.top, r.right, r.bottom, flag, letter);
  Opt_AssignString(kScreenKey, value, kOptPermanent, 0);
}

const char* StateWord(WINDOW win) {
  const bool zoomed = xvt_vobj_get_attr(win, ATTR_WIN_MAXIMIZED) != 0;
  const bool iconic = xvt_vobj_get_attr(win, ATTR_WIN_MINIMIZED) != 0;
  return zoomed && !iconic ? "Max" : (iconic && !zoomed ? "Icon" : "Norm");
}

int WantEvent(ModelEvent* ev, void*) { return ev->type == E_SAVE_DESKTOP || ev->type == E_SHIP_SUNK; }

void HandleEvent(ModelEvent* ev, void*) {
  if (ev->type == E_SAVE_DESKTOP) {
    saveMsgWinsContents(0);
  } else {
    MM_NotUnregister(g_notifier);
    g_notifier = -1;
  }
}

// One axis of the rescaling rule: the size shrinks by its excess ratio, the
// start is centred but never below min_start, and the end is the new size.
void ScaleAxis(double screen_end, double* start, double* end, double min_start) {
  double size = *end - *start;
  double ratio = size / screen_end;
  double size2 = size - (ratio - 1) * size;
  double s = (screen_end - size2) / 2;
  while (s < min_start) s += 1;
  *start = s;
  *end = size2;
}

}  // namespace

const char* WindowSlotKey(int slot) {
  if (slot < 1 || slot > kSlotSearch) return nullptr;
  return kSlotKeys[slot];
}

int saveWindowGeometry(int slot, WINDOW win) {
  Trace(kTraceOrganizer, kTraceAll, "saveWindowGeometry entry\n");
  RCT r;
  if (!WindowSlotKey(slot) || !xvt_vobj_get_outer_rect(win, &r)) {
    xvt_dm_post_error("There was a problem retrieving your window size to save. Please contact Velmar support.");
    return 0;
  }
  StoreSlot(slot, r, StateWord(win));
  Trace(kTraceOrganizer, kTraceAll, "saveWindowGeometry exit\n");
  return 1;
}

int getWindowGeometry(int slot, RCT* rct, char* state, size_t size) {
  const char* key = WindowSlotKey(slot);
  char value[201];
  if (!key || !Opt_LookupString(key, value, sizeof value - 1, kOptSession)) return 0;
  RCT r;
  char word[20] = "Norm";
  if (std::sscanf(value, "%d %d %d %d %19s", &r.left, &r.top, &r.right, &r.bottom, word) < 4) return 0;
  if (rct) *rct = r;
  if (state && size) std::snprintf(state, size, "%s", word);
  return 1;
}

unsigned long windowAttrForState(const char* state) {
  if (!state) return 0;
  if (strcasecmp(state, "Icon") == 0) return WSF_ICONIZED;
  if (strcasecmp(state, "Max") == 0) return WSF_MAXIMIZED;
  return 0;
}

void scaleWindowForScreen(const RCT* screen, const RCT* in, RCT* out) {
  double left = in->left, top = in->top, right = in->right, bottom = in->bottom;
  if (in->right > screen->right) ScaleAxis(screen->right, &left, &right, 10);
  if (in->bottom > screen->bottom) ScaleAxis(screen->bottom, &top, &bottom, 87);
  *out = RCT{static_cast<int>(left), static_cast<int>(top), static_cast<int>(right), static_cast<int>(bottom)};
}

void compareScreenSize() {
  RCT screen{};
  xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
  RCT saved = screen;
  char value[201];
  if (!Opt_LookupString(kScreenKey, value, sizeof value - 1, kOptSession) ||
      std::sscanf(value, "%d %d %d %d", &saved.left, &saved.top, &saved.right, &saved.bottom) != 4) {
    Trace(kTraceOrganizer, kTraceLow, "compareScreenSize: couldn't get screen win size\n");
    saved = screen;
  }
  int width = screen.right - screen.left, height = screen.bottom - screen.top;
  int saved_width = saved.right - saved.left, saved_height = saved.bottom - saved.top;
  if (width == saved_width || height == saved_height) {
    StoreScreen(screen, 0, kLetterSame);
    return;
  }
  int letter = (width < saved_width || height < saved_height) ? kLetterDown : kLetterUp;
  if (letter == kLetterDown) Trace(kTraceOrganizer, kTraceLow, "downsizing: Entering code to down size\n");
  RCT task;
  char state[20];
  if (!getWindowGeometry(kSlotTaskWin, &task, state, sizeof state)) {
    StoreSlot(kSlotTaskWin, kDefaultTaskRect, "Norm");
  } else {
    RCT scaled;
    scaleWindowForScreen(&screen, &task, &scaled);
    Trace(kTraceOrganizer, kTraceLow, "left:%d top:%d right:%d bottom:%d\n", scaled.left, scaled.top, scaled.right,
          scaled.bottom);
    StoreSlot(kSlotTaskWin, scaled, state);
  }
  StoreScreen(screen, 1, letter);
}

int screenWasDownsized() {
  char value[201];
  int l, t, r, b, flag, letter;
  if (!Opt_LookupString(kScreenKey, value, sizeof value - 1, kOptSession)) return 0;
  if (std::sscanf(value, "%d %d %d %d %d %d", &l, &t, &r, &b, &flag, &letter) != 6) return 0;
  return flag == 1 && letter == kLetterDown;
}

void DesktopRegister() { g_notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "desktop.c : Desktop Manager"); }


// --- Screen fit -----------------------------------------------------------------

void fitWindowToScreen(RCT* r) {
  RCT screen{};
  if (!xvt_vobj_get_client_rect(SCREEN_WIN, &screen) || screen.right <= screen.left || screen.bottom <= screen.top)
    return;
  const int sw = screen.right - screen.left, sh = screen.bottom - screen.top;
  int w = std::min(std::max(r->right - r->left, 200), sw);
  int h = std::min(std::max(r->bottom - r->top, 150), sh);
  int left = std::clamp(r->left, screen.left, screen.right - w);
  int top = std::clamp(r->top, screen.top, screen.bottom - h);
  *r = RCT{left, top, left + w, top + h};
}

void DesktopForget() {
  // Older files spell the geometry keys either way.
  for (const char* pattern : {"Winposn.*", "WinPosn.*", "SaveMsg.*", "Desktop.*"}) Opt_DeleteMatching(pattern);
}

// --- Saved nodes ----------------------------------------------------------------

namespace {

constexpr int kStateCollapse = 1;
constexpr int kStateExpand = 2;
constexpr int kStateOpen = 3;
constexpr int kStateDone = 4;
const char* const kStateWords[] = {"", "COLLAPSE", "EXPAND", "OPEN", "DONE"};

std::string RecordKey(int n, const char* field) { return "SaveMsg." + std::to_string(n) + "." + field; }
std::string SearchWindowKey(int n) { return "SaveMsg.Search." + std::to_string(n); }

// More than a desktop holds; a longer list in the file is cut here.
constexpr int kMaxSearchWindows = 100;
constexpr size_t kMaxSearchName = 256;
constexpr int kMaxCoordinate = 100000;

void WriteRecord(int n, const SavedNode& r) {
  Opt_AssignString(RecordKey(n, "ms").c_str(), std::to_string(r.ms).c_str(), kOptPermanent, 0);
  Opt_AssignString(RecordKey(n, "folder").c_str(), r.folder.c_str(), kOptPermanent, 0);
  Opt_AssignString(RecordKey(n, "group").c_str(), std::to_string(r.group).c_str(), kOptPermanent, 0);
  const int s = r.state >= 1 && r.state <= kStateDone ? r.state : kStateDone;
  Opt_AssignString(RecordKey(n, "state").c_str(), kStateWords[s], kOptPermanent, 0);
}

int StateOf(const TreeNode* node) {
  if (TREE_IsOpenElsewhere(node)) return kStateOpen;
  return TREE_IsOpen(node) ? kStateExpand : kStateCollapse;
}

// Folders and groups of a service or folder that stand open, depth first.
void CollectOpen(TreeNode* holder, int ms_number, std::vector<SavedNode>* out) {
  for (TreeNode* k = TREE_GetFirstKid(holder); k; k = TREE_GetNext(k)) {
    if (FolderNodeInfo* f = FOL_Info(k)) {
      const int state = StateOf(k);
      if (state == kStateCollapse) continue;
      out->push_back(SavedNode{ms_number, f->name, 0, state});
      CollectOpen(TREE_GetElsewhereRoot(k) ? TREE_GetElsewhereRoot(k) : k, ms_number, out);
    } else if (GroupNodeInfo* g = GRP_Info(k)) {
      TreeNode* folder = TREE_GetParent(k) ? TREE_GetParent(k) : nullptr;
      FolderNodeInfo* f = FOL_Info(folder) ? FOL_Info(folder) : FOL_Info(TREE_GetOriginNode(folder));
      if (f && TREE_IsOpen(k)) out->push_back(SavedNode{ms_number, f->name, g->id, kStateExpand});
    }
  }
}

TreeNode* Holder(TreeNode* node) { return TREE_GetElsewhereRoot(node) ? TREE_GetElsewhereRoot(node) : node; }

// Opens a line as the record says: in a window, or in its tree.
void Reopen(TreeNode* node, int state, int slot) {
  if (state == kStateOpen) {
    RCT r;
    char word[20] = "Norm";
    if (getWindowGeometry(slot, &r, word, sizeof word))
      MSG_OpenNodeWindow(node, &r, windowAttrForState(word));
    else
      MSG_OpenNodeWindow(node);
  } else if (state == kStateExpand && !TREE_IsOpen(node)) {
    TREE_OpenSubtree(node, 1, 0);
  }
}

}  // namespace

int SaveMsgStateFromWord(const char* word) {
  for (int s = kStateCollapse; s <= kStateDone; ++s)
    if (word && std::strcmp(word, kStateWords[s]) == 0) return s;
  return 0;
}

bool readSavedNode(int n, SavedNode* out) {
  *out = SavedNode{};
  char value[1101];
  if (!Opt_LookupString(RecordKey(n, "ms").c_str(), value, sizeof value - 1, kOptSession)) return false;
  char* end = nullptr;
  const long ms = std::strtol(value, &end, 10);
  if (end == value || ms < 0 || ms > 100000) return false;
  out->ms = static_cast<int>(ms);
  if (Opt_LookupString(RecordKey(n, "folder").c_str(), value, sizeof value - 1, kOptSession)) out->folder = value;
  if (Opt_LookupString(RecordKey(n, "group").c_str(), value, sizeof value - 1, kOptSession))
    out->group = std::atoi(value);
  out->state = Opt_LookupString(RecordKey(n, "state").c_str(), value, sizeof value - 1, kOptSession)
                   ? SaveMsgStateFromWord(value)
                   : 0;
  return true;
}

void saveMsgWinsContents(int reopening) {
  WINDOW tree = MSG_TopTree();
  if (!tree) return;
  if (!reopening) {
    // Where each window stands, for the next start.
    saveWindowGeometry(kSlotTopMS, MSG_TopWindow());
    for (WINDOW w : MSG_ContextWindows())
      if (MsgWinInfo* info = MSG_WinInfo(w)) saveWindowGeometry(info->slot, w);
  }
  std::vector<SavedNode> records;
  for (TreeNode* k = TREE_GetFirstKid(TREE_GetRoot(tree)); k; k = TREE_GetNext(k)) {
    ServiceNodeInfo* s = SVC_Info(k);
    if (!s) continue;
    const int state = StateOf(k);
    records.push_back(SavedNode{s->ms_id, "", 0, state});
    if (state != kStateCollapse) CollectOpen(Holder(k), s->ms_id, &records);
  }
  // Search windows are kept apart from the lines: each has its own place,
  // where the other kinds share one slot.
  std::vector<std::string> searches;
  for (WINDOW w : MSG_ContextWindows()) {
    MsgWinInfo* info = MSG_WinInfo(w);
    RCT r{};
    if (!info || info->type != kMsgWinSearch || !xvt_vobj_get_outer_rect(w, &r)) continue;
    const std::string name = searchGetName(info->search);
    if (name.empty() || name.size() > kMaxSearchName) continue;
    char value[400];
    std::snprintf(value, sizeof value, "%d %d %d %d %s %s", r.left, r.top, r.right, r.bottom, StateWord(w),
                  name.c_str());
    searches.push_back(value);
  }
  Opt_DeleteMatching("SaveMsg.*");
  int n = 1;
  for (const SavedNode& r : records) WriteRecord(n++, r);
  WriteRecord(n, SavedNode{});
  n = 1;
  for (const std::string& value : searches)
    if (n <= kMaxSearchWindows) Opt_AssignString(SearchWindowKey(n++).c_str(), value.c_str(), kOptPermanent, 0);
}

bool DesktopParseSearchWindow(const char* value, SavedSearchWindow* out) {
  if (!value) return false;
  RCT r{};
  char state[8] = "";
  int used = 0;
  if (std::sscanf(value, "%d %d %d %d %7s %n", &r.left, &r.top, &r.right, &r.bottom, state, &used) != 5 || !used)
    return false;
  for (int c : {r.left, r.top, r.right, r.bottom})
    if (c < -kMaxCoordinate || c > kMaxCoordinate) return false;
  if (r.right <= r.left || r.bottom <= r.top) return false;
  if (std::strcmp(state, "Norm") != 0 && std::strcmp(state, "Max") != 0 && std::strcmp(state, "Icon") != 0)
    return false;
  const std::string name = value + used;
  if (name.empty() || name.size() > kMaxSearchName) return false;
  *out = SavedSearchWindow{r, state, name};
  return true;
}

bool readSavedSearchWindow(int n, SavedSearchWindow* out) {
  char value[601];
  if (n < 1 || n > kMaxSearchWindows) return false;
  if (!Opt_LookupString(SearchWindowKey(n).c_str(), value, sizeof value - 1, kOptSession)) return false;
  return DesktopParseSearchWindow(value, out);
}

int reloadOneNode(WINDOW, const SavedNode& r) {
  WINDOW tree = MSG_TopTree();
  if (!tree) return 0;
  TreeNode* service = nullptr;
  for (TreeNode* k = TREE_GetFirstKid(TREE_GetRoot(tree)); k && !service; k = TREE_GetNext(k))
    if (ServiceNodeInfo* s = SVC_Info(k); s && s->ms_id == r.ms) service = k;
  if (!service) return 0;
  if (r.folder.empty()) {
    Reopen(service, r.state, kSlotMsgSrv);
    return 1;
  }
  // A line that has gone since is passed over without a word.
  TreeNode* folder = folderFind(Holder(service), r.folder.c_str());
  if (!folder) return 0;
  if (r.group) {
    for (TreeNode* k = TREE_GetFirstKid(Holder(folder)); k; k = TREE_GetNext(k))
      if (GroupNodeInfo* g = GRP_Info(k); g && g->id == r.group) {
        TREE_OpenSubtree(k, 1, 0);
        return 1;
      }
    return 0;
  }
  Reopen(folder, r.state, kSlotFolder);
  return 1;
}

void reloadMsgPositions(WINDOW win, int) {
  Trace(kTraceOrganizer, kTraceLow, "desktop.c: reloadMsgPositions function entry\n");
  SavedNode r;
  WINDOW tree = MSG_TopTree();
  if (tree) TREE_SuspendUpdates(tree);
  for (int n = 1; n < 10000 && readSavedNode(n, &r) && r.state != kStateDone; ++n) reloadOneNode(win, r);
  // A search deleted or renamed since is passed over, like a gone folder.
  SavedSearchWindow w;
  for (int n = 1; (tree = MSG_TopTree()) && readSavedSearchWindow(n, &w); ++n) {
    const int id = searchFindByName(w.name.c_str());
    TreeNode* node = id ? searchFindNode(TREE_GetRoot(tree), id) : nullptr;
    if (!node) continue;
    fitWindowToScreen(&w.rect);
    MSG_OpenNodeWindow(node, &w.rect, windowAttrForState(w.state.c_str()));
  }
  if ((tree = MSG_TopTree())) TREE_ResumeUpdates(tree);
  Trace(kTraceOrganizer, kTraceLow, "desktop.c: reloadMsgPositions function exit\n");
}

void reopenMsgService(int ms) {
  WINDOW tree = MSG_TopTree();
  if (!tree) return;
  TreeNode* node = nullptr;
  for (TreeNode* k = TREE_GetFirstKid(TREE_GetRoot(tree)); k && !node; k = TREE_GetNext(k))
    if (ServiceNodeInfo* s = SVC_Info(k); s && s->ms == ms) node = k;
  if (!node) return;
  const int number = SVC_Info(node)->ms_id;
  saveMsgWinsContents(1);
  if (WINDOW win = MSG_NodeWindow(node)) closeMessageWindow(win);
  SavedNode r;
  for (int n = 1; n < 10000 && readSavedNode(n, &r) && r.state != kStateDone; ++n)
    if (r.ms == number) reloadOneNode(MSG_TopWindow(), r);
}
