// The workspace: everything that runs between start-up and shutdown and
// can be started again in the same process (another configuration).
#include <strings.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/core/mail.h"
#include "editor/elib/buffer.h"
#include "editor/elib/ecmd.h"
#include "src/base/cenv.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/app/toolbar.h"
#include "src/app/workspace.h"
#include "src/app/compose_request.h"
#include "src/books/address_model.h"
#include "src/model/mm.h"
#include "src/base/model_events.h"
#include "src/compose/compose.h"
#include "src/options/options.h"
#include "src/organizer/desktop.h"
#include "src/organizer/organizer.h"
#include "src/search/filters.h"
#include "src/search/search_rules.h"
#include "src/security/password_manager.h"
#include "src/send/autoreply.h"
#include "src/send/submit.h"

namespace {

int g_task_notifier = -1;
bool g_in_shutdown_prompt = false;

int TaskWantEvent(ModelEvent* ev, void*) { return ev->type == E_ABANDON_SHIP || ev->type == E_SAVE_DESKTOP; }

void TaskHandleEvent(ModelEvent* ev, void*) {
  if (ev->type == E_SAVE_DESKTOP) saveWindowGeometry(kSlotTaskWin, TASK_WIN);
}

// Hands a truth option to the mail layer when it has a value.
void PassFlagToMailLayer(const char* option, long op) {
  short flag = 0;
  if (Opt_LookupBoolean(option, &flag, kOptSession)) {
    long value = flag;
    mail_parameters(nullptr, op, &value);
  }
}

bool LiesWithinScreen(const RCT& r, const RCT& screen) {
  return r.left >= screen.left && r.top >= screen.top && r.right <= screen.right && r.bottom <= screen.bottom;
}

void PlaceTaskWindow(WINDOW task_win) {
  RCT screen{};
  xvt_vobj_get_outer_rect(SCREEN_WIN, &screen);
  RCT fallback{screen.left + 20, screen.top + 50, screen.right - 20, screen.bottom - 20};
  RCT saved;
  char state[20];
  if (getWindowGeometry(kSlotTaskWin, &saved, state, sizeof state)) {
    if (strcasecmp(state, "Max") == 0) {
      xvt_vobj_set_attr(task_win, ATTR_WIN_MAXIMIZED, 1);
    } else {
      xvt_vobj_move(task_win, &saved);
      xvt_vobj_set_visible(task_win, true);
      RCT now;
      if (xvt_vobj_get_outer_rect(task_win, &now) && !LiesWithinScreen(now, screen)) xvt_vobj_move(task_win, &fallback);
    }
  } else {
    xvt_vobj_move(task_win, &fallback);
    xvt_vobj_set_visible(task_win, true);
  }
  RCT outer{};
  xvt_vobj_get_outer_rect(task_win, &outer);
  Trace(kTraceFrame, kTraceLow, "TASK_WIN : outer rct = (%d,%d:%d,%d)\n", outer.left, outer.top, outer.right,
        outer.bottom);
}

bool HasValue(const char* option) {
  char value[101];
  return Opt_LookupString(option, value, sizeof value - 1, kOptSession) != 0;
}

}  // namespace

int InitWorkspace(WINDOW task_win) {
  Trace(kTraceFrame, kTraceAll, "InitWorkspace: function entry.\n");
  std::string debug = get_file_name(kFileDebug);
  if (!debug.empty()) TraceStart(debug.c_str());
  TraceRegisterNotifier();

  // The editor reads the shipped key maps and pages long texts out to the
  // user's own temporary folder, never to a shared one.
  edata_set_data_dir(GetApplicationDir().c_str());
  elib_set_default_spill_dir(GetTempDir().c_str());

  Trace(kTraceFrame, kTraceLow, "main.c: task_eh - initializing the Mail Model.\n");
  MM_Init();
  ABK_init();
  autoreply_init();
  FLT_Init();
  g_task_notifier = MM_NotRegister(TaskWantEvent, TaskHandleEvent, nullptr, "Task Window");
  DesktopRegister();
  DM_InitListeners();
  DM_RegisterListener(SRCH_RuleStoreListener);
  CleanTempFiles();

  Trace(kTraceFrame, kTraceLow, "main.c: task_eh - initializing option database.\n");
  if (!Opt_Init()) xvt_dm_post_fatal_exit("%s", ErrorText(2076));
  // True until a connection attempt says otherwise. Set here, after the
  // store exists, so that a new store (another configuration) has it too.
  Opt_AssignInt("General.TCPConnectOk", 1, kOptSession, 0);
  UpdateConnectionMenus();
  xvt_menu_set_item_enabled(TASK_WIN, M_OPTIONS_CHANGE_PASSWORD, PWM_Enabled());
  PassFlagToMailLayer("General.NoIMAPAuth", 112);
  PassFlagToMailLayer("General.NoIMAPLogin", 114);

  Trace(kTraceFrame, kTraceLow, "main.c: before getWinSize call\n");
  compareScreenSize();
  PlaceTaskWindow(task_win);

  if (HasValue("General.Fullname") && HasValue("General.MailAddress")) {
    openMessageServicesWindow();
    SDDE_SetFullyStarted(1);
    // Messages that were being written when the program last ended abruptly.
    COMP_OfferRestore();
    CREQ_StartupDone();
  } else {
    RunFirstRunBranch();
  }
  return 1;
}

void ShutdownWorkspace() {
  Trace(kTraceFrame, kTraceLow, "ShutdownWorkspace: function entry.\n");
  char clean[51];
  if (!Opt_LookupString("General.ExitClean", clean, sizeof clean - 1, kOptSession)) {
    std::snprintf(clean, sizeof clean, "Prompt");
    Opt_AssignString("General.ExitClean", "Prompt", kOptPermanent, 0);
  }
  int expunge = 0;
  if (strcasecmp(clean, "Never") == 0) {
    expunge = 0;
  } else if (strcasecmp(clean, "Always") == 0) {
    expunge = 1;
  } else {
    if (std::strcmp(clean, "Prompt") != 0) Opt_AssignString("General.ExitClean", "Prompt", kOptPermanent, 0);
    if (MM_NeedsExpunge()) expunge = xvt_dm_post_ask("Clean", "No", nullptr, "%s", ErrorText(2051)) == RESP_DEFAULT;
  }

  saveWindowGeometry(kSlotTaskWin, TASK_WIN);

  short save_desktop = 0;
  if (Opt_LookupBoolean("Desktop.SaveDesktopOnExit", &save_desktop, kOptSession) && save_desktop) {
    if (!CENV_GetSuppressDesktopReload()) {
      Opt_FlushSession("Winposn.*", kOptSession);
      Opt_FlushSession("WinPosn.*", kOptSession);
      Opt_FlushSession("SaveMsg.*", kOptSession);
      Opt_FlushSession("Desktop.*", kOptSession);
      MM_NotPostSimple(E_SAVE_DESKTOP);
    }
  } else {
    // Without a saved desktop the next start must not find an old one.
    DesktopForget();
  }

  Trace(kTraceFrame, kTraceLow, "ShutdownWorkspace : posting E_ABANDON_SHIP\n");
  MM_NotPostSimple(E_ABANDON_SHIP);
  Trace(kTraceFrame, kTraceLow, "ShutdownWorkspace : posting E_SHIP_SUNK\n");
  MM_NotPostSimple(E_SHIP_SUNK);
  ABK_shutdown();
  autoreply_shutdown();
  FLT_Shutdown();
  MM_Shutdown(expunge);
  g_task_notifier = -1;
  DM_FreeListeners();
}

void ReinitWorkspace() {
  ShutdownWorkspace();
  InitWorkspace(TASK_WIN);
}

void Shutdown() {
  Trace(kTraceFrame, kTraceLow, "Shutdown: function entry\n");
  ShutdownWorkspace();
  TBAR_Destroy();
  WIN_destroy_critical_window();
  xvt_app_process_pending_events();
  xvt_app_destroy();
}

void Shutdown_Prompt() {
  // Also the route of memory exhaustion, which may arrive while the exit
  // question is up: one question at a time.
  if (g_in_shutdown_prompt) return;
  g_in_shutdown_prompt = true;
  Trace(kTraceFrame, kTraceLow, "Shutdown_Prompt: function entry\n");
  Opt_AssignInt("General.ExitVelmar", 1, kOptSession, 0);
  MM_NotPostSimple(E_EXIT_QUERY);
  xvt_app_process_pending_events();
  short go_on = 1;
  if (Opt_LookupBoolean("General.ExitVelmar", &go_on, kOptSession) && go_on == 0) {
    g_in_shutdown_prompt = false;
    return;
  }
  // Messages still in the outbox may leave now; the third answer stays.
  if (!SUBMIT_OfferSendAtExit()) {
    g_in_shutdown_prompt = false;
    return;
  }
  ASK_RESPONSE answer = xvt_dm_post_ask("Exit", "Cancel", nullptr, "%s", ErrorText(2104));
  g_in_shutdown_prompt = false;
  if (answer == RESP_DEFAULT) Shutdown();
}
