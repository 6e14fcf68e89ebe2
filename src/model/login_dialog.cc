#include "src/model/login_dialog.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/auth/auth.h"
#include "c-client/core/env.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

const WIN_DEF kLoginDef[] = {
    {W_MODAL, {0, 0, 360, 170}, "Login", 0, 0},
    {WC_TEXT, {12, 12, 348, 32}, "", kLoginDialogLabel, 0},
    {WC_TEXT, {12, 46, 100, 66}, "~User:", 3116, 0},
    {WC_EDIT, {110, 44, 348, 68}, "", kLoginDialogUser, 0},
    {WC_TEXT, {12, 82, 100, 102}, "~Password:", 3117, 0},
    {WC_EDIT, {110, 80, 348, 104}, "", kLoginDialogPassword, CTL_FLAG_PASSWORD},
    {WC_PUSHBUTTON, {70, 124, 160, 154}, "OK", kLoginDialogOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {200, 124, 290, 154}, "Cancel", kLoginDialogCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

struct LoginAsk {
  const char* host;
  char* user;
  char* password;
  long timeout_ms;
  long result = kLoginCancel;
  long timer = 0;
};

void Copy(WINDOW win, int id, char* out) {
  char buffer[kMailLoginSize] = "";
  xvt_vobj_get_title(xvt_win_get_ctl(win, id), buffer, sizeof buffer);
  std::snprintf(out, kMailLoginSize, "%s", buffer);
  std::memset(buffer, 0, sizeof buffer);
}

long login_eh(WINDOW win, EVENT* ev) {
  auto* ask = reinterpret_cast<LoginAsk*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      std::string label = std::string("Login to host: ") + (ask->host ? ask->host : "");
      xvt_vobj_set_title(xvt_win_get_ctl(win, kLoginDialogLabel), label.c_str());
      std::string user = Opt_LookupText("Options.Userid", kOptSession);
      if (user.empty()) user = ask->user;
      xvt_vobj_set_title(xvt_win_get_ctl(win, kLoginDialogUser), user.c_str());
      // With a name to offer, the password is what is missing.
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, user.empty() ? kLoginDialogUser : kLoginDialogPassword));
      ask->timer = xvt_timer_create(win, ask->timeout_ms);
      break;
    }
    case E_CONTROL:
      if (ev->v.ctl.id == kLoginDialogOk) {
        Copy(win, kLoginDialogUser, ask->user);
        Copy(win, kLoginDialogPassword, ask->password);
        ask->result = kLoginOk;
        xvt_vobj_destroy(win);
      } else if (ev->v.ctl.id == kLoginDialogCancel) {
        xvt_vobj_destroy(win);
      }
      break;
    case E_TIMER:
      ask->result = kLoginTimeout;
      xvt_vobj_destroy(win);
      break;
    case E_CLOSE:
      xvt_vobj_destroy(win);
      break;
    case E_DESTROY:
      if (ask->timer) xvt_timer_destroy(ask->timer);
      ask->timer = 0;
      break;
    default:
      break;
  }
  return 0;
}

}  // namespace

long LoginDialogAsk(const char* host, char* user, char* password, long timeout_ms) {
  Trace(kTraceModel, kTraceLow, "LoginDialogAsk: function entry - host = %s\n", host ? host : "");
  password[0] = '\0';
  xvt_res_register_dialog(kLoginDialogRid, kLoginDef);
  LoginAsk ask{host, user, password, timeout_ms};
  if (!xvt_dlg_create_res(W_MODAL, kLoginDialogRid, EM_ALL, login_eh, reinterpret_cast<intptr_t>(&ask)))
    mm_fatal("Cannot create authentication dialog.");
  if (ask.result != kLoginOk) password[0] = '\0';
  if (ask.result == kLoginTimeout) ErrorShow(3004, host);
  return ask.result;
}
