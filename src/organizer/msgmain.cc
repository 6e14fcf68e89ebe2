// The organizer's top window "Message Organizer". It owns the mail timer.
// The tree of services inside it arrives with the tree widget; until then
// the window shows where the tree will be.
#include <cstdio>

#include "src/base/cenv.h"
#include "src/base/trace.h"
#include "src/base/commands.h"
#include "src/base/window_list.h"
#include "src/options/session.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/desktop.h"
#include "src/organizer/organizer.h"
#include "src/send/submit.h"

namespace {

struct TopWindow {
  WINDOW win = NULL_WIN;
  int info_notifier = -1;
  int window_notifier = -1;
};

TopWindow& Top() {
  static TopWindow t;
  return t;
}

void closeMessageWindow(WINDOW win) { saveWindowGeometry(kSlotTopMS, win); }

long msg_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: WinList_AddHead(win); break;
    case E_FOCUS:
      if (ev->v.active && xvt_vobj_is_valid(win)) WinList_AddHead(win);
      break;
    case E_UPDATE: {
      xvt_dwin_clear(win, COLOR_WHITE);
      xvt_dwin_draw_text(win, 20, 30, "Message services", -1);
      break;
    }
    case E_CLOSE: closeMessageWindow(win); break;
    case E_TIMER: MSG_MailTimerTick(); break;
    case E_COMMAND: MSG_DoCommonCommand(win, ev->v.cmd.tag); break;
    case E_USER: MSG_DoCommonCommand(win, static_cast<int16_t>(ev->v.user.id)); break;
    case E_DESTROY: {
      TopWindow& t = Top();
      WinList_Remove(win);
      if (t.window_notifier >= 0) {
        Trace(kTraceOrganizer, kTraceLow, "msgmain.c : unregister window %lu notifier %d\n",
              static_cast<unsigned long>(reinterpret_cast<uintptr_t>(win)), t.window_notifier);
        MM_NotUnregister(t.window_notifier);
      }
      t.window_notifier = -1;
      if (t.win == win) t.win = NULL_WIN;
      MSG_SetMailTimerOwner(NULL_WIN);
      MSG_DestroyMailTimer();
      break;
    }
    default: break;
  }
  return 0;
}

int top_wantEvent(ModelEvent* ev, void*) {
  return ev->type == E_MS_NEW || ev->type == E_MS_REOPEN || ev->type == E_MAIL_TIMER_CHANGED ||
         ev->type == E_SEARCH_NEW || ev->type == E_SHIP_SUNK;
}

void top_handleEvent(ModelEvent* ev, void*) {
  TopWindow& t = Top();
  switch (ev->type) {
    case E_MAIL_TIMER_CHANGED: set_mail_timer(1); break;
    case E_SHIP_SUNK:
      MSG_DestroyMailTimer();
      MM_NotUnregister(t.info_notifier);
      t.info_notifier = -1;
      break;
    default: break;
  }
}

int window_wantEvent(ModelEvent* ev, void*) { return ev->type == E_ABANDON_SHIP; }

void window_handleEvent(ModelEvent*, void* data) {
  WINDOW win = static_cast<WINDOW>(data);
  if (xvt_vobj_is_valid(win)) xvt_vobj_destroy(win);
}

// --- About box --------------------------------------------------------------

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

void openMessageServicesWindow() {
  TopWindow& t = Top();
  Trace(kTraceOrganizer, kTraceLow, "openMessageServicesWindow :  function entry\n");
  if (t.win) return;
  char value[10];
  if (!Opt_LookupString("View.Unsubscribed", value, sizeof value - 1, kOptSession))
    Opt_AssignInt("View.Unsubscribed", 0, kOptSession, 0);
  if (!Opt_LookupString("View.HiddenMsgGroups", value, sizeof value - 1, kOptSession))
    Opt_AssignInt("View.HiddenMsgGroups", 0, kOptSession, 0);
  RCT r{10, 10, 410, 460};
  char state[20] = "Norm";
  getWindowGeometry(kSlotTopMS, &r, state, sizeof state);
  unsigned long attrs = WSF_SIZE | WSF_CLOSE | windowAttrForState(state);
  if (attrs & WSF_MAXIMIZED) attrs |= WSF_MAXIMIZABLE;
  t.win = xvt_win_create(W_DOC, &r, "Message Organizer", 0, TASK_WIN, attrs, EM_ALL, msg_eh, 0);
  if (!t.win) return;
  MSG_SetMailTimerOwner(t.win);
  t.info_notifier = MM_NotRegister(top_wantEvent, top_handleEvent, nullptr, "msgmain.c: MessageServices info");
  t.window_notifier = MM_NotRegister(window_wantEvent, window_handleEvent, t.win, "msgmain.c: MessageServices window");
  set_mail_timer(1);
}

WINDOW MSG_TopWindow() { return Top().win; }

void MSG_DoCommonCommand(WINDOW, int command) {
  switch (command) {
    case M_FILE_QUIT:
    case M_GO_ONLINE_OFFLINE:
    case M_OPTIONS_LOAD: {
      // The program's life belongs to the task window: it shuts down and
      // goes online or offline.
      EVENT ev{};
      ev.type = E_COMMAND;
      ev.v.cmd.tag = command;
      if (TASK_WIN) xvt_win_dispatch_event(TASK_WIN, &ev);
      break;
    }
    case M_SEND_QUEUE_NOW: SUBMIT_FlushOutbox(); break;
    case M_OPTIONS_SAVE: Opt_Save(); break;
    case M_HELP_CONTENTS: xvt_help_display(nullptr); break;
    case M_HELP_ABOUT:
      if (!xvt_res_get_dialog(kAboutBox)) xvt_res_register_dialog(kAboutBox, kAboutDef);
      xvt_dlg_create_res(W_MODAL, kAboutBox, EM_ALL, about_eh, 0);
      break;
    default: Trace(kTraceOrganizer, kTraceLow, "MSG_DoCommonCommand: command %d not handled\n", command); break;
  }
}
