#include "c-client/auth/auth.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "c-client/core/env.h"

namespace {

// One process-wide record: one login runs at a time.
struct LoginRecord {
  long state = kLoginOk;
  std::string user;
  std::string password;
  std::string host;
  bool save_after_login = false;
};

LoginRecord g_login;
// The session's login, kept once a login the user typed has been used.
std::string g_session_user;
std::string g_session_password;
bool g_have_session = false;
AuthDialogFn g_dialog = nullptr;

void Wipe(std::string& s) {
  std::fill(s.begin(), s.end(), '\0');
  s.clear();
}

void CopyOut(char* out, const std::string& text) {
  if (!out) return;
  std::strncpy(out, text.c_str(), kMailLoginSize - 1);
  out[kMailLoginSize - 1] = '\0';
}

}  // namespace

void AUTH_SetDialog(AuthDialogFn dialog) { g_dialog = dialog; }

void AUTH_InitLogin(const char* user, const char* password) {
  g_login.state = kLoginOk;
  g_login.user = user ? user : "";
  Wipe(g_login.password);
  g_login.password = password ? password : "";
  g_login.save_after_login = false;
}

void AUTH_Login(const char* host, char* user, char* password, long trial) {
  if (user) user[0] = '\0';
  if (password) password[0] = '\0';
  g_login.host = host ? host : "";
  if (g_login.state != kLoginOk) return;  // cancelled: no more questions this time
  if (trial <= 1 && g_login.user.empty()) g_login.save_after_login = true;
  if (trial > 1 || g_login.user.empty() || g_login.password.empty()) {
    char u[kMailLoginSize] = "";
    char p[kMailLoginSize] = "";
    CopyOut(u, g_login.user);
    long state = g_dialog ? g_dialog(g_login.host.c_str(), u, p, kLoginDialogMs) : kLoginCancel;
    if (state != kLoginOk) {
      // A time-out counts as a cancel, so that later calls do not ask again.
      g_login.state = kLoginCancel;
      std::memset(p, 0, sizeof p);
      return;
    }
    g_login.user = u;
    Wipe(g_login.password);
    g_login.password = p;
    std::memset(p, 0, sizeof p);
  }
  CopyOut(user, g_login.user);
  CopyOut(password, g_login.password);
  if (g_login.save_after_login) {
    g_session_user = g_login.user;
    Wipe(g_session_password);
    g_session_password = g_login.password;
    g_have_session = true;
  }
}

const char* AUTH_LoginUser() { return g_login.user.c_str(); }
const char* AUTH_LoginPassword() { return g_login.password.c_str(); }
bool AUTH_LoginCancelled() { return g_login.state != kLoginOk; }

void AUTH_ForgetLogin() {
  Wipe(g_session_password);
  g_session_user.clear();
  g_have_session = false;
  Wipe(g_login.password);
  g_login.user.clear();
  g_login.state = kLoginOk;
}

const char* login_user() {
  if (g_have_session) return g_session_user.c_str();
  return g_login.user.empty() ? nullptr : g_login.user.c_str();
}
const char* login_password() {
  if (g_have_session) return g_session_password.c_str();
  return g_login.password.empty() ? nullptr : g_login.password.c_str();
}
