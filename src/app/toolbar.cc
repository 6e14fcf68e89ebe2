// The toolbar. The organizer's and the viewer's menu bars give different
// numbers to the same command (Reply is 14603 in one and 14604 in the
// other), so a button holds one number per kind of window and looks at the
// front window's menu bar to pick it. Commands that belong to the program
// (send the queue, the address books, going online) go to the task window.
#include "src/app/toolbar.h"

#include <algorithm>
#include <climits>
#include <string>

#include "src/app/workspace.h"
#include "src/base/commands.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/books/book_window.h"
#include "src/options/session.h"
#include "src/organizer/msgwin.h"
#include "src/viewer/viewer_internal.h"

namespace {

struct ButtonDef {
  int id;
  const char* label;
  const char* tip;
  int icon;       // the picture beside the label
  int organizer;  // the command in an organizer window; 0: none there
  int viewer;     // in a viewer
  int task;       // a command of the task window, whatever window is in front
};

const ButtonDef kButtons[] = {
    {kTbarNew, "New", "New Message", 9500, M_MSG_COMPOSE, M_VIEW_COMPOSE, 0},
    {kTbarReply, "Reply", "Reply", 9501, M_MSG_REPLY, M_VIEW_REPLY, 0},
    {kTbarReplyAll, "Reply All", "Reply to All", 9502, M_MSG_REPLY_ALL, M_VIEW_REPLY_ALL, 0},
    {kTbarForward, "Forward", "Forward", 9503, M_MSG_FORWARD, M_VIEW_FORWARD, 0},
    {kTbarDelete, "Delete", "Delete", 9504, M_MSG_DELETE, M_VIEW_DELETE, 0},
    {kTbarPrevious, "Previous", "Previous Message", 9505, M_MSG_PREV, M_VIEW_PREVIOUS, 0},
    {kTbarNext, "Next", "Next Message", 9506, M_MSG_NEXT, M_VIEW_NEXT, 0},
    {kTbarCheck, "Check", "Check New Mail", 9507, M_MSG_CHECK, 0, 0},
    {kTbarSendQueue, "Send Queue", "Send Queue Now", 9508, 0, 0, M_SEND_QUEUE_NOW},
    {kTbarBooks, "Books", "Address Books", 9509, 0, 0, M_ADDRESS_BOOKS},
    {kTbarPrint, "Print", "Print", 9510, M_FILE_PRINT, M_VIEW_PRINT, 0},
    {kTbarOnline, "Online", "Go Offline", kTbarIconOnline, 0, 0, M_GO_ONLINE_OFFLINE},
};

constexpr int kGap = 4;
constexpr int kButtonTop = 6;
constexpr int kButtonHeight = 30;
// The pictures are 20 pixels wide, and the toolkit sets a few pixels
// between a picture and its text; the rest is the button's frame.
constexpr int kIconRoom = 24;
constexpr int kFrameRoom = 16;
constexpr int kPictureOnly = 36;  // a button without its name: the picture in its frame
constexpr long kRefreshPeriod = 300;

struct Toolbar {
  WINDOW win = NULL_WIN;
  long timer = 0;
  bool names = true;  // the buttons carry their names beside the pictures
  bool enabled[kTbarCount + 1] = {};
  bool offline = false;
  bool known = false;  // the buttons show a state taken at least once
};

Toolbar& T() {
  static Toolbar t;
  return t;
}

// Measured in the buttons' own font, so a wide font does not clip the
// text and a narrow one does not stretch the row. The Online button fits
// its longer face too.
int ButtonWidth(const ButtonDef& b) {
  int text = xvt_dwin_get_text_width(NULL_WIN, b.label, -1);
  if (b.id == kTbarOnline) text = std::max(text, xvt_dwin_get_text_width(NULL_WIN, "Offline", -1));
  return std::max(56, text + kIconRoom + kFrameRoom);
}

// A button's face: its name, the Online button's saying the state.
const char* Face(const ButtonDef& b) {
  if (b.id == kTbarOnline && T().offline) return "Offline";
  return b.label;
}

// Places the buttons in a row of `room` pixels: with their names when the
// names fit, else pictures only (the tips still name them), so that a
// narrow window does not cut the last buttons off.
void Layout(WINDOW win, int room) {
  int full = kGap;
  for (const ButtonDef& b : kButtons) full += ButtonWidth(b) + kGap;
  T().names = full <= room;
  int x = kGap;
  for (const ButtonDef& b : kButtons) {
    const int w = T().names ? ButtonWidth(b) : kPictureOnly;
    RCT r{x, kButtonTop, x + w, kButtonTop + kButtonHeight};
    if (WINDOW ctl = xvt_win_get_ctl(win, b.id)) {
      xvt_vobj_move(ctl, &r);
      xvt_vobj_set_title(ctl, T().names ? Face(b) : "");
    }
    x += w + kGap;
  }
  RCT outer{kCriticalWinWidth, 0, kCriticalWinWidth + x, kToolbarHeight};
  xvt_vobj_move(win, &outer);
}

// The buttons' pictures ship in the application directory's icons/ folder
// like the frame's; the toolbar registers its own so it needs no list kept
// elsewhere.
void RegisterPictures() {
  const std::string dir = JoinPath(GetApplicationDir(), "icons");
  auto add = [&dir](int rid) { xvt_res_register_icon(rid, JoinPath(dir, std::to_string(rid) + ".bmp").c_str()); };
  for (const ButtonDef& b : kButtons) add(b.icon);
  add(kTbarIconOffline);
}

// The window a button's command goes to and the command there; 0 when that
// window has no such command.
int Target(const ButtonDef& b, WINDOW* to) {
  if (b.task) {
    *to = TASK_WIN;
    return b.task;
  }
  WINDOW front = WinList_Head();
  *to = front;
  if (!front || front == TASK_WIN || !xvt_vobj_is_valid(front)) return 0;
  const MENU_ITEM* bar = xvt_menu_get_bar(front);
  if (bar && bar == xvt_res_get_menubar(kMsgMenuBar)) return b.organizer;
  if (bar && bar == xvt_res_get_menubar(kViewerMenuBar)) return b.viewer;
  return 0;
}

bool Enabled(const ButtonDef& b) {
  WINDOW to = NULL_WIN;
  const int tag = Target(b, &to);
  return tag && to && xvt_menu_get_item_enabled(to, tag);
}

void Press(int id) {
  TBAR_Refresh();
  for (const ButtonDef& b : kButtons) {
    if (b.id != id) continue;
    WINDOW to = NULL_WIN;
    const int tag = Target(b, &to);
    if (!tag || !to || !xvt_menu_get_item_enabled(to, tag)) return;
    Trace(kTraceToolbar, kTraceLow, "toolbar: %s sends command %d\n", b.label, tag);
    EVENT ev{};
    ev.type = E_COMMAND;
    ev.v.cmd.tag = tag;
    xvt_win_dispatch_event(to, &ev);
    break;
  }
  // The command may have changed what the buttons stand for.
  if (T().win) TBAR_Refresh();
}

long toolbar_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: {
      // Layout places the buttons; the task window's width decides whether their names fit.
      const RCT none{0, 0, 0, 0};
      for (const ButtonDef& b : kButtons) {
        if (WINDOW ctl = xvt_ctl_create(WC_PUSHBUTTON, &none, b.label, win, CTL_FLAG_DISABLED, b.id)) {
          xvt_vobj_set_tooltip(ctl, b.tip);
          xvt_ctl_set_icon(ctl, b.icon);
        }
      }
      RCT task{};
      xvt_vobj_get_client_rect(TASK_WIN, &task);
      Layout(win, task.right > task.left ? task.right - task.left - kCriticalWinWidth : INT_MAX);
      break;
    }
    case E_UPDATE: xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW); break;
    case E_CONTROL: Press(ev->v.ctl.id); break;
    case E_TIMER: TBAR_Refresh(); break;
    case E_DESTROY:
      if (T().win == win) {
        if (T().timer) xvt_timer_destroy(T().timer);
        T() = Toolbar();
      }
      break;
    default: break;
  }
  return 0;
}

}  // namespace

WINDOW TBAR_Create(WINDOW task_win) {
  Toolbar& t = T();
  if (t.win) return t.win;
  RCT r{kCriticalWinWidth, 0, kCriticalWinWidth, kToolbarHeight};  // Layout gives the width
  RegisterPictures();
  t.win = xvt_win_create(W_PLAIN, &r, "", 0, task_win, WSF_NONE, EM_ALL, toolbar_eh, 0);
  if (!t.win) {
    Trace(kTraceToolbar, kTraceCritical, "TBAR_Create: the toolbar window could not be made\n");
    return NULL_WIN;
  }
  // The front window changes without a word to us (a click in another
  // window, a selection): the buttons follow it on a short beat.
  t.timer = xvt_timer_create(t.win, kRefreshPeriod);
  TBAR_Refresh();
  return t.win;
}

void TBAR_Destroy() {
  Toolbar& t = T();
  if (t.timer) xvt_timer_destroy(t.timer);
  t.timer = 0;
  WINDOW win = t.win;
  t = Toolbar();
  if (win && xvt_vobj_is_valid(win)) xvt_vobj_destroy(win);
}

WINDOW TBAR_Window() { return T().win; }

void TBAR_Refresh() {
  Toolbar& t = T();
  if (!t.win) return;
  for (const ButtonDef& b : kButtons) {
    const bool on = Enabled(b);
    if (t.known && t.enabled[b.id] == on) continue;
    t.enabled[b.id] = on;
    xvt_vobj_set_enabled(xvt_win_get_ctl(t.win, b.id), on);
  }
  // The face says the state the program is in; the tip, what a press does.
  const bool offline = IsOffline() != 0;
  if (!t.known || offline != t.offline) {
    WINDOW ctl = xvt_win_get_ctl(t.win, kTbarOnline);
    t.offline = offline;
    if (t.names) xvt_vobj_set_title(ctl, offline ? "Offline" : "Online");
    xvt_ctl_set_icon(ctl, offline ? kTbarIconOffline : kTbarIconOnline);
    xvt_vobj_set_tooltip(ctl, offline ? "Go Online" : "Go Offline");
  }
  t.known = true;
}

void TBAR_Fit(int task_width) {
  if (T().win) Layout(T().win, task_width - kCriticalWinWidth);
}

void TBAR_SetVisible(bool visible) {
  if (T().win) xvt_vobj_set_visible(T().win, visible);
}
