// The session manager: at start-up (connection mode "prompt") and from
// Options > Load it lets the user pick a named configuration and whether to
// work online or offline.
#include <strings.h>

#include <cstdio>
#include <string>

#include "src/base/cenv.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/options/session.h"
#include "src/options/options.h"

namespace {

constexpr int kSessionRid = 150;
constexpr int kOnline = 152;
constexpr int kOffline = 153;
constexpr int kList = 156;
constexpr int kOk = 157;
constexpr int kCancel = 158;
constexpr int kDetails = 159;

constexpr int kDetailsRid = 170;
constexpr int kDetailsName = 171;
constexpr int kDetailsRemote = 172;
constexpr int kDetailsLocal = 173;
constexpr int kDetailsOnlineDefault = 175;
constexpr int kDetailsOfflineDefault = 176;
constexpr int kDetailsFile = 178;
constexpr int kDetailsHost = 180;
constexpr int kDetailsPort = 182;
constexpr int kDetailsClose = 186;

const WIN_DEF kSessionDef[] = {
    {W_MODAL, {0, 0, 420, 300}, "Session Manager", 0, 0},
    {WC_GROUPBOX, {12, 8, 408, 62}, "Connection", 151, 0},
    {WC_RADIOBUTTON, {24, 28, 200, 52}, "~Online", kOnline, 0},
    {WC_RADIOBUTTON, {210, 28, 396, 52}, "O~ffline", kOffline, 0},
    {WC_TEXT, {12, 72, 408, 90}, "Configurations:", 154, 0},
    {WC_LBOX, {12, 92, 408, 232}, "", kList, 0},
    {WC_PUSHBUTTON, {36, 250, 128, 280}, "OK", kOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {164, 250, 256, 280}, "Cancel", kCancel, 0},
    {WC_PUSHBUTTON, {292, 250, 384, 280}, "~Details...", kDetails, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kDetailsDef[] = {
    {W_MODAL, {0, 0, 400, 300}, "Configuration Details", 0, 0},
    {WC_TEXT, {12, 14, 100, 34}, "Name:", 190, 0},
    {WC_EDIT, {110, 12, 388, 36}, "", kDetailsName, CTL_FLAG_DISABLED},
    {WC_RADIOBUTTON, {12, 46, 190, 68}, "~Remote", kDetailsRemote, CTL_FLAG_DISABLED},
    {WC_RADIOBUTTON, {200, 46, 388, 68}, "~Local", kDetailsLocal, CTL_FLAG_DISABLED},
    {WC_CHECKBOX, {12, 76, 190, 98}, "Online default", kDetailsOnlineDefault, CTL_FLAG_DISABLED},
    {WC_CHECKBOX, {200, 76, 388, 98}, "Offline default", kDetailsOfflineDefault, CTL_FLAG_DISABLED},
    {WC_TEXT, {12, 110, 100, 130}, "File:", 191, 0},
    {WC_EDIT, {110, 108, 388, 132}, "", kDetailsFile, CTL_FLAG_DISABLED},
    {WC_TEXT, {12, 146, 100, 166}, "Host:", 192, 0},
    {WC_EDIT, {110, 144, 388, 168}, "", kDetailsHost, CTL_FLAG_DISABLED},
    {WC_TEXT, {12, 182, 100, 202}, "Port:", 193, 0},
    {WC_EDIT, {110, 180, 200, 204}, "", kDetailsPort, CTL_FLAG_DISABLED},
    {WC_PUSHBUTTON, {155, 250, 245, 280}, "Close", kDetailsClose, CTL_FLAG_DEFAULT},
    {W_NONE, {}, nullptr, 0, 0},
};

struct SessionDialog {
  SLIST list = nullptr;  // the names shown, with their configuration index
  bool chosen = false;   // OK was pressed
};

bool LoadingOptions() {
  short loading = 0;
  return Opt_LookupBoolean("Options.Loading", &loading, kOptSession) && loading;
}

void CheckRadio(WINDOW win, int id) {
  WINDOW group[2] = {xvt_win_get_ctl(win, kOnline), xvt_win_get_ctl(win, kOffline)};
  xvt_ctl_check_radio_button(xvt_win_get_ctl(win, id), group, 2);
}

// Shows the configurations that pass the filter, selecting select_index
// (a configuration index), or the first when it isn't shown.
void FillList(WINDOW win, SessionDialog* st, SLIST list, int select_index) {
  WINDOW lbox = xvt_win_get_ctl(win, kList);
  xvt_slist_destroy(st->list);
  st->list = list;
  xvt_list_clear(lbox);
  int row = 0, selected_row = -1;
  for (SLIST_ELT e = xvt_slist_get_first(list); e; e = xvt_slist_get_next(list, e), ++row) {
    long index = 0;
    xvt_list_add(lbox, -1, xvt_slist_get(list, e, &index));
    if (index == select_index) selected_row = row;
  }
  if (selected_row < 0 && row > 0) selected_row = 0;
  if (selected_row >= 0) xvt_list_set_sel(lbox, selected_row, true);
}

// The configuration index of the selected row, or -1.
int SelectedConfig(WINDOW win, SessionDialog* st) {
  int row = xvt_list_get_sel_index(xvt_win_get_ctl(win, kList));
  if (row < 0) return -1;
  SLIST_ELT e = xvt_slist_get_first(st->list);
  for (int i = 0; e && i < row; ++i) e = xvt_slist_get_next(st->list, e);
  return e ? static_cast<int>(xvt_slist_get_data(st->list, e)) : -1;
}

void UpdateDetails(WINDOW win) {
  xvt_vobj_set_enabled(xvt_win_get_ctl(win, kDetails), xvt_list_get_sel_index(xvt_win_get_ctl(win, kList)) >= 0);
}

void SetText(WINDOW win, int id, const char* text) { xvt_vobj_set_title(xvt_win_get_ctl(win, id), text ? text : ""); }

long details_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: {
      DM_CentreOnScreen(win);
      const std::string name = Opt_LookupText("Options.ConfigName", kOptSession);
      int index = CENV_FindConfigByName(name.c_str());
      SetText(win, kDetailsName, name.c_str());
      if (index < 0) break;
      const char* section = CENV_GetConfigSection(index);
      bool local = section && strcasecmp(section, "[LOCAL]") == 0;
      WINDOW group[2] = {xvt_win_get_ctl(win, kDetailsRemote), xvt_win_get_ctl(win, kDetailsLocal)};
      xvt_ctl_check_radio_button(group[local ? 1 : 0], group, 2);
      xvt_ctl_set_checked(xvt_win_get_ctl(win, kDetailsOnlineDefault), CENV_GetConfigOnlineDefault(index) != 0);
      xvt_ctl_set_checked(xvt_win_get_ctl(win, kDetailsOfflineDefault), CENV_GetConfigOfflineDefault(index) != 0);
      SetText(win, kDetailsFile, CENV_GetConfigFilename(index));
      SetText(win, kDetailsHost, CENV_GetConfigHost(index));
      char port[32] = "";
      if (CENV_GetConfigPort(index)) std::snprintf(port, sizeof port, "%ld", CENV_GetConfigPort(index));
      SetText(win, kDetailsPort, port);
      break;
    }
    case E_CONTROL:
      if (ev->v.ctl.id == kDetailsClose) xvt_vobj_destroy(win);
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

void OnOk(WINDOW win, SessionDialog* st) {
  bool loading = LoadingOptions();
  bool online = xvt_ctl_is_checked(xvt_win_get_ctl(win, kOnline));
  CENV_SetConnectionMode(online ? kConnConnected : kConnDisconnected);
  int index = SelectedConfig(win, st);
  if (index >= 0) {
    CENV_SetCurrentConfigIndex(index);
    int old_default = CENV_GetDefaultConfigIndex("all");
    if (old_default != index && online) {
      if (old_default >= 0) CENV_SetConfigOnlineDefault(old_default, 0);
      CENV_SetConfigOnlineDefault(index, 1);
      // The init file is rewritten with the new default.
      Opt_AssignInt("Options.SaveLocation", 1, kOptSession, 0);
    }
    const char* section = CENV_GetConfigSection(index);
    if (section && strcasecmp(section, "[LOCAL]") == 0) {
      const char* file = CENV_GetConfigFilename(index);
      CENV_SetConfigFile(file);
      CENV_SetDefaultRemote(0);
      if (!loading) {
        Opt_AssignString("Options.Location", "local", kOptSession, 0);
        Opt_AssignString("Options.LocalFile", file ? file : "", kOptSession, 0);
      }
    } else {
      const char* host = CENV_GetConfigHost(index);
      CENV_SetRemoteHost(host);
      CENV_SetRemotePort(CENV_GetConfigPort(index));
      CENV_SetDefaultRemote(1);
      if (!loading) {
        Opt_AssignString("Options.Location", "Remote", kOptSession, 0);
        Opt_AssignString("Options.RemoteHost", host ? host : "", kOptSession, 0);
        Opt_AssignBoolean("Options.RemotePort", static_cast<int>(CENV_GetConfigPort(index)), kOptSession, 0);
      }
    }
  }
  st->chosen = true;
  xvt_vobj_destroy(win);
}

long session_eh(WINDOW win, EVENT* ev) {
  auto* st = reinterpret_cast<SessionDialog*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      if (LoadingOptions()) xvt_vobj_set_title(win, "Load Options");
      DM_CentreOnScreen(win);
      CheckRadio(win, kOnline);
      SLIST list = CENV_GetConfigList("all", nullptr, nullptr);
      if (!list || xvt_slist_count(list) == 0) {
        xvt_slist_destroy(list);
        CENV_SetConnectionMode(kConnConnected);
        for (int id : {kOnline, kOffline, kOk, kDetails, kList}) xvt_vobj_set_enabled(xvt_win_get_ctl(win, id), false);
        break;
      }
      FillList(win, st, list, CENV_GetDefaultConfigIndex("all"));
      UpdateDetails(win);
      break;
    }
    case E_CONTROL:
      switch (ev->v.ctl.id) {
        case kOnline:
          Opt_AssignString("Options.ConfigName", "", kOptSession, 0);
          CheckRadio(win, kOnline);
          FillList(win, st, CENV_GetConfigList("all", nullptr, nullptr), -1);
          UpdateDetails(win);
          break;
        case kOffline:
          Opt_AssignString("Options.ConfigName", "", kOptSession, 0);
          CheckRadio(win, kOffline);
          FillList(win, st, CENV_GetConfigList(nullptr, "tcl", nullptr), -1);
          UpdateDetails(win);
          break;
        case kList: UpdateDetails(win); break;
        case kOk: OnOk(win, st); break;
        case kCancel: xvt_vobj_destroy(win); break;
        case kDetails: {
          int index = SelectedConfig(win, st);
          const char* name = index >= 0 ? CENV_GetConfigName(index) : nullptr;
          Opt_AssignString("Options.ConfigName", name ? name : "", kOptSession, 0);
          xvt_dlg_create_res(W_MODAL, kDetailsRid, EM_ALL, details_eh, 0);
          break;
        }
        default: break;
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

int SessionManagerDialog() {
  Trace(kTraceFrame, kTraceLow, "SessionManagerDialog: function entry.\n");
  xvt_res_register_dialog(kSessionRid, kSessionDef);
  xvt_res_register_dialog(kDetailsRid, kDetailsDef);
  Opt_AssignString("Options.ConfigName", "", kOptSession, 0);
  SessionDialog st;
  xvt_dlg_create_res(W_MODAL, kSessionRid, EM_ALL, session_eh, reinterpret_cast<intptr_t>(&st));
  xvt_slist_destroy(st.list);
  return st.chosen ? 1 : 0;
}

void ResolveConnectionMode() {
  if (CENV_GetConnectionMode() == kConnPrompt && !CENV_GetOnDemand()) SessionManagerDialog();
  bool online = CENV_GetOnDemand() ? CENV_GetNewConnectionMode() == kConnConnected
                                   : CENV_GetConnectionMode() == kConnConnected;
  Opt_AssignInt("General.Offline", online ? 0 : 1, kOptSession, 0);
  CENV_SetConnectionMode(online ? kConnConnected : kConnDisconnected);
}

int IsOffline() {
  short offline = 0;
  if (!Opt_LookupBoolean("General.Offline", &offline, kOptSession)) return 0;
  return offline ? 1 : 0;
}
