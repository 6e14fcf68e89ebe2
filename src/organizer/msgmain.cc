// The organizer's windows: the top window "Message Organizer", which owns
// the mail timer and lists every message service, and the windows that show
// one service or one folder on their own. Each holds a column strip, the
// tree and a status line.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "src/base/cenv.h"
#include "src/base/commands.h"
#include "src/base/critical.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/compose/compose.h"
#include "src/organizer/desktop.h"
#include "src/organizer/msgwin.h"
#include "src/organizer/nodes.h"
#include "src/organizer/organizer.h"
#include "src/search/search_node.h"
#include "src/send/submit.h"

// From node_draw.h, whose font slot names clash with the geometry slots.
void MSG_ReadDrawOptions();
void MSG_SetColumnStrip(WINDOW tree, CM_INFO* info);

namespace {

struct TopWindow {
  WINDOW win = NULL_WIN;
  int info_notifier = -1;
};

TopWindow& Top() {
  static TopWindow t;
  return t;
}

// Stops a command from starting while another one's dialog is up.
int16_t g_menu_guard = 0;
bool g_timer_busy = false;

// --- Menu bar ---------------------------------------------------------------

const MENU_ITEM kFileMenu[] = {
    {M_MSG_OPEN_WINDOW, "~Open in Window", true, false, false, nullptr},
    {M_MSG_CLOSE, "~Close", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_SAVE, "~Save Message...\tCtrl+S", true, false, false, nullptr},
    {M_FILE_PRINT, "~Print...\tCtrl+P", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_GO_ONLINE_OFFLINE, "~Go Offline", true, false, false, nullptr},
    {M_SEND_QUEUE_NOW, "Send ~Queue Now\tCtrl+Shift+Q", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_FILE_QUIT, "E~xit\tCtrl+Q", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kEditMenu[] = {
    {M_MSG_DELETE, "~Delete\tDel", true, false, false, nullptr},
    {M_MSG_UNDELETE, "~Undelete", true, false, false, nullptr},
    {M_MSG_SELECT_ALL, "Select ~All\tCtrl+A", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_COPY, "~Copy to Folder...", true, false, false, nullptr},
    {M_MSG_MOVE, "~Move to Folder...\tCtrl+Shift+M", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kSortMenu[] = {
    {M_MSG_SORT_FIRST + kSortRecentArrival, "~Newest Arrival First", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortLeastRecentArrival, "~Oldest Arrival First", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortRecentDate, "Newest ~Date Sent First", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortLeastRecentDate, "Oldest Date ~Sent First", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortFrom, "~From", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortSubject, "S~ubject", false, false, false, nullptr},
    {M_MSG_SORT_FIRST + kSortConversation, "~Conversations", false, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kFolderMenu[] = {
    {M_MSG_NEW_FOLDER, "New ~Folder...", true, false, false, nullptr},
    {M_MSG_NEW_SERVICE, "New Message ~Service...", false, false, false, nullptr},
    {M_MSG_NEW_GROUP, "New Message ~Group...", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_CHECK, "C~heck New Mail\tF5", true, false, false, nullptr},
    {M_MSG_CLEAN, "C~lean", true, false, false, nullptr},
    {M_MSG_SUBSCRIBE, "S~ubscribe", true, false, false, nullptr},
    {M_MSG_MARK_ALL_READ, "~Mark All Read\tCtrl+Shift+C", false, false, false, nullptr},
    {M_MSG_ACCESS_RIGHTS, "~Access Rights...", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_SORT_FIRST - 1, "S~ort By", true, false, false, kSortMenu},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kMessageMenu[] = {
    {M_MSG_NEXT, "Show ~Next", true, false, false, nullptr},
    {M_MSG_PREV, "Show ~Previous", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_COMPOSE, "New ~Message...\tCtrl+N", true, false, false, nullptr},
    {M_PHONE_MESSAGE, "New P~hone Message...", true, false, false, nullptr},
    {M_COMPOSE_FORM, "New F~orm...", true, false, false, nullptr},
    {M_MSG_REPLY, "~Reply...\tCtrl+R", false, false, false, nullptr},
    {M_MSG_REPLY_ALL, "Reply to ~All...\tCtrl+Shift+R", false, false, false, nullptr},
    {M_MSG_FORWARD, "~Forward...\tCtrl+L", false, false, false, nullptr},
    {M_MSG_RESTART, "Restart ~Compose", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_MARK_SEEN, "Mark ~Read", true, false, false, nullptr},
    {M_MSG_MARK_FLAGGED, "Mark ~Special", true, false, false, nullptr},
    {M_MSG_MARK_ANSWERED, "Mark Repl~ied", true, false, false, nullptr},
    {M_MSG_EXTRACT, "~Extract Enclosures...", false, false, false, nullptr},
    {M_MSG_FILTERS, "~Filters...", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_MSG_ACTION_DELETE, "Select Pre~vious on Delete", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kSearchMenu[] = {
    {M_MSG_NEW_SEARCH, "~New Search...\tCtrl+Shift+F", false, false, false, nullptr},
    {M_MSG_SAVED_SEARCH, "New ~Saved Search...", false, false, false, nullptr},
    {M_MSG_QUICK_SEARCH, "~Quick Search...\tCtrl+F", true, false, false, nullptr},
    {M_MSG_SEARCH_PROPERTIES, "Search ~Properties...", false, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kMsgMenuBarItems[] = {
    {14100, "~File", true, false, false, kFileMenu},
    {14200, "~Edit", true, false, false, kEditMenu},
    {14500, "F~older", true, false, false, kFolderMenu},
    {14600, "~Message", true, false, false, kMessageMenu},
    {20000, "~Search", true, false, false, kSearchMenu},
    {20800, "O~ptions", true, false, false, kOptionsMenu},
    {32300, "~Help", true, false, false, kHelpMenu},
    {0, nullptr, false, false, false, nullptr},
};

void RegisterMenuBar() {
  if (!xvt_res_get_menubar(kMsgMenuBar)) xvt_res_register_menubar(kMsgMenuBar, kMsgMenuBarItems);
}

// --- Layout -----------------------------------------------------------------

void Layout(MsgWinInfo* info) {
  RCT c{};
  if (!xvt_vobj_get_client_rect(info->window, &c)) return;
  const int top = (info->flags & kMsgWinColumns) && info->strip ? kStripHeight : 0;
  RCT strip{0, 0, c.right, kStripHeight};
  RCT tree{0, top, c.right, std::max(top + 1, c.bottom - kStatusHeight)};
  RCT status{4, c.bottom - kStatusHeight + 2, std::max(5, c.right - 4), c.bottom - 2};
  if (info->strip) CM_Resize(info->strip, &strip);
  if (info->tree) TREE_ResizeTree(info->tree, &tree);
  if (info->status) xvt_vobj_move(info->status, &status);
}

void UpdateStatus(MsgWinInfo* info) {
  if (info && info->status) xvt_vobj_set_title(info->status, MSG_StatusText(info).c_str());
}

MsgWinInfo* OwnerOfTree(WINDOW tree) { return MSG_WinInfo(xvt_vobj_get_parent(tree)); }

void selection_eh(WINDOW tree, TreeNode*) {
  MsgWinInfo* info = OwnerOfTree(tree);
  if (!info) return;
  // The tree, not the window, has the keyboard focus: a selection made in
  // it brings its window to the front of the list. Each window keeps its
  // own menu states, so they are set whichever window is in front.
  if (xvt_scr_get_focus_vobj() == tree) WinList_AddHead(info->window);
  setSelectionMenus(info);
  if (info->strip) MSG_CM_LayoutSelect(info->strip, tree);
  UpdateStatus(info);
}

void line_offset_eh(WINDOW tree, int h_offset) {
  if (MsgWinInfo* info = OwnerOfTree(tree); info && info->strip) CM_SetUserColumnOffset(info->strip, h_offset);
}

// --- Notifiers --------------------------------------------------------------

int top_wantEvent(ModelEvent* ev, void*) {
  return ev->type == E_MS_NEW || ev->type == E_MS_REOPEN || ev->type == E_MAIL_TIMER_CHANGED ||
         ev->type == E_SEARCH_NEW || ev->type == E_SHIP_SUNK;
}

void top_handleEvent(ModelEvent* ev, void*) {
  TopWindow& t = Top();
  switch (ev->type) {
    case E_MS_NEW:
      if (WINDOW tree = MSG_TopTree()) serviceAdd(TREE_GetRoot(tree), MM_MSGetNumber(ev->ms));
      break;
    case E_MS_REOPEN: reopenMsgService(ev->ms); break;
    case E_MAIL_TIMER_CHANGED: set_mail_timer(1); break;
    case E_SEARCH_NEW:
      if (WINDOW tree = MSG_TopTree(); tree && ev->name) searchCreate(TREE_GetRoot(tree), ev->name);
      break;
    case E_SHIP_SUNK:
      MSG_DestroyMailTimer();
      MM_NotUnregister(t.info_notifier);
      t.info_notifier = -1;
      break;
    default: break;
  }
}

int window_wantEvent(ModelEvent* ev, void* data) {
  MsgWinInfo* info = MSG_WinInfo(static_cast<WINDOW>(data));
  if (!info) return 0;
  if (ev->type == E_ABANDON_SHIP) return 1;
  // Any of the line kinds: message lines have no handler of their own.
  if (ev->type == E_FONT_CHANGED) return ev->value >= kFontService && ev->value < kFontKindCount;
  if (info->type == kMsgWinFolder) {
    switch (ev->type) {
      case E_MAIL_TIMER:
      case E_CHECK_NOW: return 1;
      case E_FOLDER_DELETED: return ev->ms == info->ms && ev->name && info->folder_name == ev->name;
      case E_FOLDER_CLOSED: return ev->folder == info->folder && ev->folder != 999;
      case E_MS_CLOSED:
      case E_MS_DESTROYED: return ev->ms == info->ms;
      default: return 0;
    }
  }
  if (info->type == kMsgWinService) return (ev->type == E_MS_CLOSED || ev->type == E_MS_DESTROYED) && ev->ms == info->ms;
  return 0;
}

void window_handleEvent(ModelEvent* ev, void* data) {
  WINDOW win = static_cast<WINDOW>(data);
  MsgWinInfo* info = MSG_WinInfo(win);
  if (!info) return;
  if (ev->type == E_FONT_CHANGED) {
    if (info->tree) xvt_dwin_invalidate_rect(info->tree, nullptr);
    return;
  }
  if (ev->type == E_MAIL_TIMER || ev->type == E_CHECK_NOW) {
    // The folder's own line leaves the check to the window that shows it.
    if (ev->type == E_MAIL_TIMER && !MSG_MailTimerGate()) return;
    if (TreeNode* origin = TREE_GetOriginNode(info->root)) folderCheckNewMail(origin, 1);
    UpdateStatus(info);
    return;
  }
  if (ev->type == E_FOLDER_DELETED) info->root = nullptr;  // the line it came from is gone
  MSG_ReturnKidsAndDestroy(win);
}

WINDOW OpenNodeWindow(TreeNode* node) { return MSG_OpenNodeWindow(node); }

}  // namespace


MsgWinInfo* MSG_WinInfo(WINDOW win) {
  if (!win || !xvt_vobj_is_valid(win)) return nullptr;
  auto* info = reinterpret_cast<MsgWinInfo*>(xvt_vobj_get_data(win));
  if (!info || info->window != win) return nullptr;
  switch (info->type) {
    case kMsgWinTop:
    case kMsgWinService:
    case kMsgWinFolder:
    case kMsgWinSearch: return info;
    default: return nullptr;
  }
}

WINDOW MSG_TopWindow() { return Top().win; }

WINDOW MSG_TopTree() {
  MsgWinInfo* info = MSG_WinInfo(Top().win);
  return info ? info->tree : NULL_WIN;
}

WINDOW createMessageOrganizerWindow(MsgWinInfo* info, RCT* rect, const char* title, unsigned long attributes, int menu,
                                    intptr_t) {
  RegisterMenuBar();
  RCT r = *rect;
  const char* resized = info->type == kMsgWinTop ? "General.MsgOrgWinResized" : "General.MsgWinResized";
  short done = 0;
  if (screenWasDownsized() && !(Opt_LookupBoolean(resized, &done, kOptSession) && done)) {
    Opt_AssignInt(resized, 1, kOptSession, 0);
    RCT screen{};
    xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
    scaleWindowForScreen(&screen, &r, &r);
  }
  fitWindowToScreen(&r);
  *rect = r;
  WINDOW win = xvt_win_create(W_DOC, &r, title, menu, TASK_WIN, attributes, EM_ALL, msg_eh,
                              reinterpret_cast<intptr_t>(info));
  if (!win) return NULL_WIN;
  RCT c{};
  xvt_vobj_get_client_rect(win, &c);
  RCT strip{0, 0, c.right, kStripHeight};
  // On failure the window goes, and the record and root stay the caller's.
  auto fail = [&]() -> WINDOW {
    WinList_Remove(win);
    if (info->notifier >= 0) MM_NotUnregister(info->notifier);
    info->notifier = -1;
    if (info->strip) {
      MSG_CM_LayoutDestroy(info->strip);
      CM_Destroy(info->strip);
    }
    info->window = NULL_WIN;
    xvt_vobj_set_data(win, 0);
    xvt_vobj_destroy(win);
    return NULL_WIN;
  };
  info->strip = CM_Create(win, &strip, info->type);
  if (!info->strip) return fail();
  MSG_CM_LayoutCreate(info->strip);
  RCT tree{0, kStripHeight, c.right, std::max(kStripHeight + 1, c.bottom - kStatusHeight)};
  info->tree = TREE_CreateTreeWidget(win, &tree, 50, 0, 2, 0, 18, 0, selection_eh, info->root, nullptr,
                                     line_offset_eh);
  if (!info->tree) return fail();
  if (!info->root) info->root = TREE_GetRoot(info->tree);
  info->strip->tree = info->tree;
  MSG_SetColumnStrip(info->tree, info->strip);
  xvt_win_set_describe(info->tree, MSG_DescribeTree);
  RCT status{4, c.bottom - kStatusHeight + 2, std::max(5, c.right - 4), c.bottom - 2};
  info->status = xvt_ctl_create(WC_TEXT, &status, "", win, 0, 9001);
  info->size_w = c.right;
  info->size_h = c.bottom;
  setCreateMenus(info);
  UpdateStatus(info);
  return win;
}

long msg_eh(WINDOW win, EVENT* ev) {
  MsgWinInfo* info = ev->type == E_CREATE ? reinterpret_cast<MsgWinInfo*>(xvt_vobj_get_data(win)) : MSG_WinInfo(win);
  if (!info) return 0;
  switch (ev->type) {
    case E_CREATE:
      info->window = win;
      WinList_AddHead(win);
      info->notifier = MM_NotRegister(window_wantEvent, window_handleEvent, win,
                                      info->type == kMsgWinTop ? "msgmain.c: MessageServices window"
                                                               : "msgmain.c: context window");
      break;
    case E_DESTROY: {
      WinList_Remove(win);
      DndList_Remove(win);
      MSG_ForgetContextWindow(win);
      if (info->notifier >= 0) {
        Trace(kTraceOrganizer, kTraceLow, "msgmain.c : unregister window %lu notifier %d\n",
              static_cast<unsigned long>(reinterpret_cast<uintptr_t>(win)), info->notifier);
        MM_NotUnregister(info->notifier);
      }
      if (info->strip) {
        info->strip->window = NULL_WIN;  // went with the window's children
        MSG_CM_LayoutDestroy(info->strip);
        CM_Destroy(info->strip);
      }
      if (info->type == kMsgWinTop) {
        TopWindow& t = Top();
        if (t.win == win) t.win = NULL_WIN;
        MSG_SetNodeWindowOpener(nullptr);
        MSG_SetMailTimerOwner(NULL_WIN);
        MSG_DestroyMailTimer();
      }
      xvt_vobj_set_data(win, 0);
      delete info;
      break;
    }
    case E_FOCUS:
      if (ev->v.active && xvt_vobj_is_valid(win)) {
        WinList_AddHead(win);
        setFocusMenus(info);
      }
      break;
    case E_SIZE:
      if (ev->v.size.width != info->size_w || ev->v.size.height != info->size_h) {
        info->size_w = ev->v.size.width;
        info->size_h = ev->v.size.height;
        Layout(info);
      }
      break;
    case E_UPDATE: xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW); break;
    case E_CLOSE: closeMessageWindow(win); break;
    case E_CHAR: {
      const int key = ev->v.chr.ch;
      if (key == K_ENTER || key == '+' || key == '-' || (key >= K_UP && key <= K_END) || key == K_BTAB) {
        if (info->tree) xvt_win_dispatch_event(info->tree, ev);
      } else if (key == K_DEL) {
        if ((info->flags & kMsgWinDeleteKey) && !g_menu_guard) {
          g_menu_guard = 1;
          doDelete(info, M_MSG_DELETE);
          g_menu_guard = 0;
        }
      } else if (ev->v.chr.control && (key == 'w' || key == 'W')) {
        // The top window stays for as long as the program runs.
        if (info->type != kMsgWinTop) closeMessageWindow(win);
      } else if (ev->v.chr.control && (key == 'a' || key == 'A')) {
        if (info->tree) TREE_SelectAll(info->tree);
      } else if (key == K_F1 + 4) {
        MM_NotPostSimple(E_CHECK_NOW);
        UpdateStatus(info);
      } else if (!ev->v.chr.control && info->tree) {
        TreeNode* first = TREE_FirstSelection(info->tree);
        if (FOL_Info(first)) serviceKeySelect(first, key);
      }
      break;
    }
    case E_COMMAND: MSG_DoCommand(info, ev->v.cmd.tag); break;
    case E_USER: MSG_DoCommand(info, static_cast<int16_t>(ev->v.user.id)); break;
    case E_TIMER:
      if (!g_timer_busy) {
        g_timer_busy = true;
        MSG_MailTimerTick();
        g_timer_busy = false;
      }
      break;
    default: break;
  }
  return 0;
}

void openMessageServicesWindow() {
  TopWindow& t = Top();
  Trace(kTraceOrganizer, kTraceLow, "openMessageServicesWindow :  function entry\n");
  if (t.win) return;
  char value[10];
  if (!Opt_LookupString("View.Unsubscribed", value, sizeof value - 1, kOptSession))
    Opt_AssignInt("View.Unsubscribed", 0, kOptSession, 0);
  if (!Opt_LookupString("View.HiddenMsgGroups", value, sizeof value - 1, kOptSession))
    Opt_AssignInt("View.HiddenMsgGroups", 0, kOptSession, 0);
  MSG_ReadDrawOptions();
  auto* info = new MsgWinInfo;
  info->type = kMsgWinTop;
  info->slot = kSlotTopMS;
  RCT r{10, 10, 560, 460};
  char state[20] = "Norm";
  getWindowGeometry(kSlotTopMS, &r, state, sizeof state);
  unsigned long attrs = WSF_SIZE | WSF_CLOSE | windowAttrForState(state);
  if (attrs & WSF_MAXIMIZED) attrs |= WSF_MAXIMIZABLE;
  t.win = createMessageOrganizerWindow(info, &r, "Message Organizer", attrs, kMsgMenuBar, 0);
  if (!t.win) {
    delete info;
    return;
  }
  MSG_SetMailTimerOwner(t.win);
  MSG_SetNodeWindowOpener(OpenNodeWindow);
  t.info_notifier = MM_NotRegister(top_wantEvent, top_handleEvent, nullptr, "msgmain.c: MessageServices info");
  set_mail_timer(1);
  char ids[501];
  if (Opt_LookupString("MsgService.IDList", ids, sizeof ids - 1, kOptSession)) {
    TREE_SuspendUpdates(info->tree);
    // Numbers separated by blanks (commas are taken as blanks too).
    for (char* p = ids; *p; ++p)
      if (*p == ',') *p = ' ';
    std::istringstream in(ids);
    std::vector<long> seen;
    for (std::string word; in >> word;) {
      // A word that is not a service number, or one listed twice, is passed over.
      char* end = nullptr;
      const long id = std::strtol(word.c_str(), &end, 10);
      if (*end || id <= 0 || id > 100000 || std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
      seen.push_back(id);
      serviceAdd(info->root, static_cast<int>(id));
    }
    TREE_ResumeUpdates(info->tree);
  }
  // The saved searches stand after the services.
  searchAppendNodes(info->root);
  if (!CENV_GetSuppressDesktopReload()) reloadMsgPositions(t.win, 0);
  UpdateStatus(info);
}

void MSG_DoCommonCommand(WINDOW, int command) {
  switch (command) {
    case M_FILE_QUIT:
    case M_GO_ONLINE_OFFLINE:
    case M_OPTIONS_LOAD:
    case M_OPTIONS_PREFERENCES:
    case M_OPTIONS_CHANGE_PASSWORD:
    case M_OPTIONS_AUTO_REPLY: {
      // The program's life belongs to the task window: it shuts down, goes
      // online or offline, and owns the dialogs of the Options menu.
      EVENT ev{};
      ev.type = E_COMMAND;
      ev.v.cmd.tag = command;
      if (TASK_WIN) xvt_win_dispatch_event(TASK_WIN, &ev);
      break;
    }
    case M_SEND_QUEUE_NOW: SUBMIT_FlushOutbox(); break;
    case M_OPTIONS_SAVE: Opt_Save(); break;
    case M_HELP_CONTENTS: xvt_help_display(nullptr); break;
    case M_HELP_ABOUT: MSG_ShowAbout(); break;
    default: Trace(kTraceOrganizer, kTraceLow, "MSG_DoCommonCommand: command %d not handled\n", command); break;
  }
}

int16_t* MSG_MenuGuard() { return &g_menu_guard; }
