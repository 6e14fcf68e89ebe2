#include "src/security/password_manager.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "c-client/net/tcp.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

const WIN_DEF kLoginDef[] = {
    {W_MODAL, {0, 0, 380, 230}, "Change Password: Login", 0, 0},
    {WC_TEXT, {12, 14, 110, 34}, "~Host:", 3157, 0},
    {WC_EDIT, {120, 12, 368, 36}, "", kPwLoginHost, 0},
    {WC_TEXT, {12, 50, 110, 70}, "P~ort:", 3158, 0},
    {WC_EDIT, {120, 48, 200, 72}, "", kPwLoginPort, 0},
    {WC_TEXT, {12, 86, 110, 106}, "~User:", 3159, 0},
    {WC_EDIT, {120, 84, 368, 108}, "", kPwLoginUser, 0},
    {WC_TEXT, {12, 122, 110, 142}, "~Password:", 3165, 0},
    {WC_EDIT, {120, 120, 368, 144}, "", kPwLoginPassword, CTL_FLAG_PASSWORD},
    {WC_PUSHBUTTON, {80, 180, 170, 210}, "OK", kPwLoginOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {210, 180, 300, 210}, "Cancel", kPwLoginCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

const WIN_DEF kChangeDef[] = {
    {W_MODAL, {0, 0, 380, 160}, "Change Password", 0, 0},
    {WC_TEXT, {12, 14, 150, 34}, "~New password:", 3166, 0},
    {WC_EDIT, {160, 12, 368, 36}, "", kPwChangeNew, CTL_FLAG_PASSWORD},
    {WC_TEXT, {12, 50, 150, 70}, "~Confirm:", 3167, 0},
    {WC_EDIT, {160, 48, 368, 72}, "", kPwChangeConfirm, CTL_FLAG_PASSWORD},
    {WC_PUSHBUTTON, {80, 110, 170, 140}, "OK", kPwChangeOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {210, 110, 300, 140}, "Cancel", kPwChangeCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

// The one conversation with the server, and what a good login leaves for
// the second dialog.
struct Session {
  TcpStream* stream = nullptr;
  char user[kPwFieldSize + 1] = "";
  char password[kPwFieldSize + 1] = "";
  std::string last_host;  // offered again the next time
};

Session& S() {
  static Session s;
  return s;
}

void Wipe(char* buffer, size_t size) {
  volatile char* p = buffer;
  for (size_t i = 0; i < size; ++i) p[i] = 0;
}

// Ends the talk: QUIT while the server still listens, then the socket.
void EndTalk() {
  Session& s = S();
  if (!s.stream) return;
  if (s.stream->socket >= 0) {
    Trace(kTraceFrame, kTraceLow, "PWM: send QUIT\n");
    tcp_soutr(s.stream, "QUIT\n");
  }
  tcp_close(s.stream);
  s.stream = nullptr;
}

// Sends one line; shown is the text for the trace and the error, with any
// password already masked.
bool Send(const std::string& line, const std::string& shown) {
  Trace(kTraceFrame, kTraceLow, "PWM: send %s\n", shown.c_str());
  if (tcp_soutr(S().stream, line.c_str())) return true;
  xvt_dm_post_error("Error sending protocal sentence \"%s\"\n", shown.c_str());
  return false;
}

bool Receive(char* reply) {
  if (PWM_ReadReply(S().stream, reply)) {
    Trace(kTraceFrame, kTraceLow, "PWM: got %s", reply);
    return true;
  }
  xvt_dm_post_error("Error reading from socket\n%s", "The server closed the connection or did not answer.");
  return false;
}

void FieldText(WINDOW win, int id, char* out, size_t size) {
  out[0] = '\0';
  xvt_vobj_get_title(xvt_win_get_ctl(win, id), out, size);
}

void SetField(WINDOW win, int id, const char* text) { xvt_vobj_set_title(xvt_win_get_ctl(win, id), text); }

// --- The new password -------------------------------------------------------

void EmptyNewFields(WINDOW win) {
  SetField(win, kPwChangeNew, "");
  SetField(win, kPwChangeConfirm, "");
  xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kPwChangeNew));
}

void ChangeOk(WINDOW win) {
  char fresh[kPwNewPasswordSize + 1], again[kPwNewPasswordSize + 1];
  FieldText(win, kPwChangeNew, fresh, sizeof fresh);
  FieldText(win, kPwChangeConfirm, again, sizeof again);
  bool same = std::strcmp(fresh, again) == 0;
  std::string line = std::string("CHG_PASSWORD ") + fresh + "\n";
  Wipe(fresh, sizeof fresh);
  Wipe(again, sizeof again);
  if (!same) {
    xvt_dm_post_error("Both entered new passwords must match as confirmation\nthat there are no typing errors.\n");
    EmptyNewFields(win);
    return;
  }
  bool sent = Send(line, "CHG_PASSWORD ***");
  Wipe(line.data(), line.size());
  char reply[kPwReplyLimit + 1];
  if (!sent || !Receive(reply)) {
    EndTalk();
    xvt_vobj_destroy(win);
    return;
  }
  if (std::strcmp(reply, "CHG_PASSWORD_GOOD\n") == 0) {
    xvt_dm_post_note("Password Changed Successfully\n");
    EndTalk();
    xvt_vobj_destroy(win);
    return;
  }
  // The reason is what follows the first word.
  const char* reason = reply + std::strcspn(reply, " \n");
  reason += std::strspn(reason, " ");
  std::string text(reason, std::strcspn(reason, "\n"));
  xvt_dm_post_error("Password change failed.\n%s\nPlease try again.\n", text.c_str());
  EmptyNewFields(win);
}

long change_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kPwChangeNew)); break;
    case E_CONTROL:
      if (ev->v.ctl.id == kPwChangeOk) {
        ChangeOk(win);
      } else if (ev->v.ctl.id == kPwChangeCancel) {
        EndTalk();
        xvt_vobj_destroy(win);
      }
      break;
    case E_CLOSE:
      EndTalk();
      xvt_vobj_destroy(win);
      break;
    default: break;
  }
  return 0;
}

// --- The login --------------------------------------------------------------

void FillPort(WINDOW win, const char* host) {
  SetField(win, kPwLoginPort, std::to_string(PWM_PortFor(host)).c_str());
}

void SelectUser(WINDOW win) { xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kPwLoginUser)); }

// The port field as a number; 0 when it is not one.
int PortOf(const char* text) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || *end || value <= 0 || value > 65535) return 0;
  return static_cast<int>(value);
}

void LoginOk(WINDOW win) {
  Session& s = S();
  char host[kPwFieldSize + 1], port_text[kPwFieldSize + 1];
  FieldText(win, kPwLoginHost, host, sizeof host);
  FieldText(win, kPwLoginPort, port_text, sizeof port_text);
  FieldText(win, kPwLoginUser, s.user, sizeof s.user);
  FieldText(win, kPwLoginPassword, s.password, sizeof s.password);
  s.last_host = host;
  int port = PortOf(port_text);
  EndTalk();  // a talk left from a failed login
  s.stream = port && host[0] ? tcp_open(host, "pmd", static_cast<unsigned long>(port)) : nullptr;
  char reply[kPwReplyLimit + 1];
  if (s.stream && !PWM_ReadReply(s.stream, reply)) reply[0] = '\0';
  if (s.stream && std::string(reply, std::strcspn(reply, " \r\n")) != "PMD_RUNNING_AND_HAPPY") {
    // Whatever answered is not a password manager: it gets no QUIT.
    Trace(kTraceFrame, kTraceLow, "PWM: unexpected greeting %.80s\n", reply);
    tcp_close(s.stream);
    s.stream = nullptr;
  }
  if (!s.stream) {
    xvt_dm_post_error("Could not connect to password manager server on \"%s\" at port %d, aborting.", host, port);
    xvt_vobj_destroy(win);
    return;
  }
  std::string line = std::string("LOGIN ") + s.user + " " + s.password + "\n";
  bool sent = Send(line, std::string("LOGIN ") + s.user + " ***");
  Wipe(line.data(), line.size());
  if (!sent || !Receive(reply)) {
    EndTalk();
    xvt_vobj_destroy(win);
    return;
  }
  if (std::strcmp(reply, "LOGIN_FAILED\n") == 0) {
    xvt_dm_post_error("Login failed.  Incorrect user name or password.\n");
    SelectUser(win);
    SetField(win, kPwLoginPassword, "");
    Wipe(s.password, sizeof s.password);
    EndTalk();
    return;
  }
  if (std::strcmp(reply, "LOGIN_GOOD\n") != 0) {
    xvt_dm_post_error("Protocol error in conversation with Password Manager.Please Inform System Administrator.");
    EndTalk();
    xvt_vobj_destroy(win);
    return;
  }
  xvt_res_register_dialog(kPwChangeRid, kChangeDef);
  if (!xvt_dlg_create_res(W_MODAL, kPwChangeRid, EM_ALL, change_eh, 0))
    xvt_dm_post_error("Could not create next change password dialog, aborting.");
  // The second dialog has ended the talk, or never began it.
  EndTalk();
  Wipe(s.password, sizeof s.password);
  if (xvt_vobj_is_valid(win)) xvt_vobj_destroy(win);
}

long login_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE:
      SetField(win, kPwLoginHost, S().last_host.c_str());
      FillPort(win, S().last_host.c_str());
      SelectUser(win);
      break;
    case E_CONTROL:
      if (ev->v.ctl.id == kPwLoginOk) {
        LoginOk(win);
      } else if (ev->v.ctl.id == kPwLoginCancel) {
        xvt_vobj_destroy(win);
      } else if (ev->v.ctl.id == kPwLoginHost && !ev->v.ctl.ci.v.edit.focus_change) {
        // Another host may have a port of its own.
        char host[kPwFieldSize + 1];
        FieldText(win, kPwLoginHost, host, sizeof host);
        FillPort(win, host);
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

bool PWM_Enabled() {
  int enabled = 0;
  return Opt_LookupInt("General.PasswordManager.Enable", &enabled, kOptSession) && enabled != 0;
}

int PWM_PortFor(const char* host) {
  int port = 0;
  if (host && *host) {
    std::string name = std::string("General.PasswordManager.port.") + host;
    if (Opt_LookupInt(name.c_str(), &port, kOptSession) && port > 0 && port <= 65535) return port;
  }
  port = 0;
  if (Opt_LookupInt("General.PasswordManager.port.default", &port, kOptSession) && port > 0 && port <= 65535)
    return port;
  return kPwDefaultPort;
}

bool PWM_ReadReply(TcpStream* stream, char* buffer) {
  size_t n = 0;
  char byte[2];
  while (n < kPwReplyLimit) {
    if (!tcp_getbuffer(stream, 1, byte)) {
      buffer[n] = '\0';
      return false;
    }
    buffer[n++] = byte[0];
    if (byte[0] == '\n') break;
  }
  buffer[n] = '\0';
  if (n == kPwReplyLimit && buffer[n - 1] != '\n') {
    // The rest of an over-long line would otherwise be taken for the
    // next reply.
    for (size_t skipped = 0; skipped < 65536 && tcp_getbuffer(stream, 1, byte) && byte[0] != '\n'; ++skipped) {
    }
  }
  return true;
}

void PWM_ChangePassword() {
  Trace(kTraceFrame, kTraceLow, "PWM_ChangePassword: function entry\n");
  xvt_res_register_dialog(kPwLoginRid, kLoginDef);
  if (!xvt_dlg_create_res(W_MODAL, kPwLoginRid, EM_ALL, login_eh, 0))
    xvt_dm_post_error("Could not create the login window, aborting password change attempt.\n");
  EndTalk();
  Wipe(S().user, sizeof S().user);
  Wipe(S().password, sizeof S().password);
}
