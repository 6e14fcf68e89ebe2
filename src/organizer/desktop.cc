#include "src/organizer/desktop.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "src/base/trace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"

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
  bool zoomed = xvt_vobj_get_attr(win, ATTR_WIN_MAXIMIZED) != 0;
  bool iconic = xvt_vobj_get_attr(win, ATTR_WIN_MINIMIZED) != 0;
  StoreSlot(slot, r, zoomed && !iconic ? "Max" : (iconic && !zoomed ? "Icon" : "Norm"));
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

// Which nodes stood open is recorded by the organizer's trees.
void saveMsgWinsContents(int) {}
