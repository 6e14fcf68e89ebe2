// Going online and offline.
#include <string>

#include "src/base/cenv.h"
#include "src/app/toolbar.h"
#include "src/app/workspace.h"
#include "src/model/mm.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/send/submit.h"

void GoOnline() {
  CENV_SetNewConnectionMode(kConnConnected);
  CENV_SetConnectionMode(kConnConnected);
  Opt_AssignInt("General.Offline", 0, kOptSession, 0);
  Opt_AssignInt("General.RemoteMode", 1, kOptSession, 0);
  SDDE_StartServer();
  Opt_AssignString("Compose.QueueOutgoing", "FALSE", kOptSession, 0);
  short background = 0;
  if (Opt_LookupBoolean("Send.Background", &background, kOptSession) && background)
    Opt_AssignString("Compose.QueueOutgoing", "TRUE", kOptSession, 0);
  char queue[10];
  if (Opt_LookupString("Compose.QueueOutgoing", queue, sizeof queue - 1, kOptSession) &&
      std::string(queue) == "TRUE")
    Opt_AssignString("Compose.QueueOutgoing", "TRUE", kOptSession, 0);
  for (int id = 0; id < kMaxServices; ++id)
    if (MM_MSGetType(id) != kServiceTypeNone) MM_NotPostSimple(E_MS_ONLINE, id);
  UpdateConnectionMenus();
}

void UpdateConnectionMenus() {
  bool offline = IsOffline();
  xvt_menu_set_item_title(TASK_WIN, M_GO_ONLINE_OFFLINE, offline ? "~Go Online" : "~Go Offline");
  xvt_menu_set_item_enabled(TASK_WIN, M_GO_ONLINE_OFFLINE, true);
  xvt_menu_set_item_enabled(TASK_WIN, M_SEND_QUEUE_NOW, !offline);
  TBAR_Refresh();
}

void GoOffline() {
  CENV_SetNewConnectionMode(kConnDisconnected);
  CENV_SetConnectionMode(kConnDisconnected);
  Opt_AssignInt("General.Offline", 1, kOptSession, 0);
  Opt_AssignInt("General.RemoteMode", 0, kOptSession, 0);
  for (int id = 0; id < kMaxServices; ++id) {
    if (MM_MSGetType(id) == kServiceTypeNone) continue;
    MM_MSClose(id);
    MM_NotPostSimple(E_MS_OFFLINE, id);
  }
  // For listeners not tied to a service (books, the public directory).
  MM_NotPostSimple(E_MS_OFFLINE, 0);
  SUBMIT_StopLink();
  SDDE_StopServer();
  UpdateConnectionMenus();
}
