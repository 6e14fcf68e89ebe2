// The password change talk against a scripted server on 127.0.0.1: no real
// server of this line protocol is at hand. Each case drives the two dialogs
// as a user would; the server must get exactly the script's "C:" lines.
#include "src/security/password_manager.h"

#include <algorithm>
#include <string>
#include <vector>

#include "src/base/commands.h"
#include "tests/c-client/imap/fake_imap_server.h"
#include "tests/support/frame_fixture.h"

namespace {

using imap_test::Script;

struct Talk {
  const char* name;
  Script script;
  std::vector<std::pair<std::string, std::string>> tries;  // new passwords typed, one OK each
  std::string posts;                                       // "$PORT": the server's port
};

const char* kHi = "S: PMD_RUNNING_AND_HAPPY hello";
const char* kIn = "C: LOGIN ann secret";
const std::string kFailed = "error: Password change failed.\n";
const Talk kTalks[] = {
    {"good, new password cut to 20",
     {kHi, kIn, "S: LOGIN_GOOD", "C: CHG_PASSWORD abcdefghijklmnopqrst", "S: CHG_PASSWORD_GOOD", "C: QUIT"},
     {{"abcdefghijklmnopqrstuvwxy", "abcdefghijklmnopqrstuvwxy"}}, "note: Password Changed Successfully\n\n"},
    {"login failed", {kHi, kIn, "S: LOGIN_FAILED", "C: QUIT"}, {},
     "error: Login failed.  Incorrect user name or password.\n\n"},
    {"wrong greeting", {"S: * OK IMAP ready"}, {},
     "error: Could not connect to password manager server on \"127.0.0.1\" at port $PORT, aborting.\n"},
    {"new passwords differ", {kHi, kIn, "S: LOGIN_GOOD", "C: QUIT"}, {{"one", "two"}},
     "error: Both entered new passwords must match as confirmation\nthat there are no typing errors.\n\n"},
    {"change refused", {kHi, kIn, "S: LOGIN_GOOD", "C: CHG_PASSWORD abc", "S: CHG_PASSWORD_BAD too short", "C: QUIT"},
     {{"abc", "abc"}}, kFailed + "too short\nPlease try again.\n\n"},
    {"long reply cut, its rest skipped",
     {kHi, kIn, "S: LOGIN_GOOD", "C: CHG_PASSWORD abc", "S: NO " + std::string(600, 'a'), "C: CHG_PASSWORD abc",
      "S: CHG_PASSWORD_GOOD", "C: QUIT"},
     {{"abc", "abc"}, {"abc", "abc"}},
     kFailed + std::string(496, 'a') + "\nPlease try again.\n\nnote: Password Changed Successfully\n\n"},
    {"server closes mid-reply", {kHi, kIn, "R: LOGIN_GO", "CLOSE"}, {},
     "error: Error reading from socket\nThe server closed the connection or did not answer.\n"},
    {"unknown login reply", {kHi, kIn, "S: LOGIN_MAYBE", "C: QUIT"}, {},
     "error: Protocol error in conversation with Password Manager.Please Inform System Administrator.\n"},
};

class PasswordManager : public UserFrameTest {};

TEST_F(PasswordManager, Conversations) {
  for (const Talk& t : kTalks) {
    SCOPED_TRACE(t.name);
    imap_test::FakeImapServer server(t.script, "\n");
    std::string port = std::to_string(server.server.port());
    WriteFile(home_ + "/default.tcl", ReadFile(home_ + "/default.tcl") + "option General.PasswordManager.Enable 1\n" +
                                          "option General.PasswordManager.port.127.0.0.1 " + port + "\n");
    TraceEverything();
    bool stays = t.posts.find("Login failed") != std::string::npos, stayed = false, user_selected = false;
    std::string password_left = "?", posts;
    Run({"-b"}, [&] {
      xvt_test_clear_posts();
      xvt_test_push_dialog(kPwLoginRid, [&](WINDOW dlg) {
        user_selected = xvt_scr_get_focus_vobj() == xvt_win_get_ctl(dlg, kPwLoginUser);
        xvt_test_type(dlg, kPwLoginHost, "127.0.0.1");
        xvt_test_type(dlg, kPwLoginUser, "ann");
        xvt_test_type(dlg, kPwLoginPassword, "secret");
        xvt_test_click(dlg, kPwLoginOk);
        if (!(stayed = xvt_vobj_is_valid(dlg))) return;
        password_left = Title(xvt_win_get_ctl(dlg, kPwLoginPassword));
        user_selected = user_selected && xvt_scr_get_focus_vobj() == xvt_win_get_ctl(dlg, kPwLoginUser);
        xvt_test_click(dlg, kPwLoginCancel);
      });
      if (std::count(t.script.begin(), t.script.end(), "S: LOGIN_GOOD"))
        xvt_test_push_dialog(kPwChangeRid, [&](WINDOW dlg) {
          for (const auto& [fresh, again] : t.tries) {
            xvt_test_type(dlg, kPwChangeNew, fresh.c_str());
            xvt_test_type(dlg, kPwChangeConfirm, again.c_str());
            if (!xvt_test_click(dlg, kPwChangeOk) || !xvt_vobj_is_valid(dlg)) return;
          }
          xvt_test_click(dlg, kPwChangeCancel);
        });
      EXPECT_TRUE(xvt_test_user_command(TASK_WIN, M_OPTIONS_CHANGE_PASSWORD));
      for (const XvtPost& p : xvt_test_posts())
        if (p.kind == "error" || p.kind == "note") posts += p.kind + ": " + p.text + "\n";
      Exit();
    });
    server.Finish();
    std::string want = t.posts;
    if (size_t at = want.find("$PORT"); at != std::string::npos) want.replace(at, 5, port);
    EXPECT_EQ(posts, want);
    Script sent;  // the client's exact lines, and no bytes without their line feed
    for (const std::string& step : t.script)
      if (step.rfind("C: ", 0) == 0) sent.push_back(step.substr(3));
    EXPECT_EQ(server.mismatch, "");
    EXPECT_EQ(server.received, sent);
    EXPECT_EQ(server.buffer, "");
    EXPECT_EQ(stayed, stays);
    EXPECT_TRUE(user_selected && (!stays || password_left.empty()));
    std::string trace = TraceText();
    EXPECT_EQ(trace.find("secret"), std::string::npos);
    EXPECT_NE(trace.find("LOGIN ann ***"), std::string::npos);  // the trace builds up over the cases
  }
}

TEST_F(PasswordManager, PortsAndTheMenu) {
  Run({"-b"}, [&] {
    EXPECT_FALSE(xvt_test_user_command(TASK_WIN, M_OPTIONS_CHANGE_PASSWORD));  // not offered
    EXPECT_EQ(PWM_PortFor("mx"), kPwDefaultPort);
    Opt_AssignString("General.PasswordManager.port.default", "7001", kOptSession, 0);
    Opt_AssignString("General.PasswordManager.port.mx", "7002", kOptSession, 0);
    EXPECT_EQ(PWM_PortFor("mx"), 7002);
    EXPECT_EQ(PWM_PortFor("other"), 7001);
    Exit();
  });
}

}  // namespace
