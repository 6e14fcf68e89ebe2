// Online and offline. General.Offline (session level) is the state that
// everyone reads.
#include <string>

#include "src/frame/cenv.h"
#include "src/frame/workspace.h"
#include "src/model/mm.h"
#include "src/model/model_events.h"
#include "src/options/options.h"
#include "src/send/submit.h"

int IsOffline() {
  short offline = 0;
  if (!Opt_LookupBoolean("General.Offline", &offline, kOptSession)) return 0;
  return offline ? 1 : 0;
}

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
