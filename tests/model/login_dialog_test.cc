// The login dialog, driven by control ids as a user would, alone and as the
// login layer's dialog.
#include "src/model/login_dialog.h"

#include <string>

#include "c-client/auth/auth.h"
#include "c-client/core/env.h"
#include "tests/support/frame_fixture.h"

namespace {

class LoginDialog : public UserFrameTest {};

TEST_F(LoginDialog, AnswersOkCancelAndTimeOut) {
  struct Case {
    const char* what;
    const char* userid;  // Options.Userid
    const char* offered;
    std::function<void(WINDOW)> user_does;
    long result;
    const char* user, *password;
    bool timed_out;  // message 3004 shown
  } cases[] = {
      {"ok", "", "pat", [](WINDOW d) { xvt_test_type(d, kLoginDialogPassword, "s3cret"), xvt_test_click(d, kLoginDialogOk); },
       kLoginOk, "pat", "s3cret", false},
      {"option name first", "chris", "pat",
       [](WINDOW d) { xvt_test_type(d, kLoginDialogPassword, "pw"), xvt_test_click(d, kLoginDialogOk); }, kLoginOk,
       "chris", "pw", false},
      {"typed name", "", "", [](WINDOW d) {
         xvt_test_type(d, kLoginDialogUser, "lee");
         xvt_test_type(d, kLoginDialogPassword, "x y");
         xvt_test_click(d, kLoginDialogOk);
       },
       kLoginOk, "lee", "x y", false},
      {"cancel", "", "pat", [](WINDOW d) { xvt_test_type(d, kLoginDialogPassword, "typed"), xvt_test_click(d, kLoginDialogCancel); },
       kLoginCancel, "pat", "", false},
      {"time-out", "", "pat",
       [](WINDOW d) {
         xvt_test_type(d, kLoginDialogPassword, "typed");
         xvt_test_advance_ms(119000);
         EXPECT_TRUE(xvt_vobj_is_valid(d));  // not yet
         xvt_test_advance_ms(1000);
       },
       kLoginTimeout, "pat", "", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string label, shown_user;
    xvt_test_push_dialog(kLoginDialogRid, [&](WINDOW d) {
      label = Title(xvt_win_get_ctl(d, kLoginDialogLabel));
      shown_user = Title(xvt_win_get_ctl(d, kLoginDialogUser));
      c.user_does(d);
    });
    long result = -1;
    char user[kMailLoginSize], password[kMailLoginSize] = "old";
    Run({"-b"}, [&] {
      Opt_AssignString("Options.Userid", c.userid, kOptSession, 0);
      std::snprintf(user, sizeof user, "%s", c.offered);
      xvt_test_clear_posts();
      result = LoginDialogAsk("imap.example.org", user, password, 120000);
      EXPECT_EQ(Posts().find("User login timed out.") != std::string::npos, c.timed_out) << Posts();
      Exit();
    });
    EXPECT_EQ(label, "Login to host: imap.example.org");
    EXPECT_EQ(shown_user, *c.userid ? c.userid : c.offered);
    EXPECT_EQ(result, c.result);
    EXPECT_STREQ(user, c.user);
    EXPECT_STREQ(password, c.password);
    xvt_test_reset();
  }
}

// Through the login layer: a cancel ends every later question of the
// session until the record is primed again.
TEST_F(LoginDialog, ACancelEndsLaterLogins) {
  int asked = 0;
  xvt_test_push_dialog(kLoginDialogRid, [&](WINDOW d) { ++asked, xvt_test_click(d, kLoginDialogCancel); });
  Run({"-b"}, [&] {
    AUTH_SetDialog(LoginDialogAsk);
    AUTH_InitLogin("pat", "");
    char user[kMailLoginSize], password[kMailLoginSize];
    for (long trial = 1; trial <= 3; ++trial) {
      AUTH_Login("imap.example.org", user, password, trial);
      EXPECT_STREQ(password, "");
    }
    EXPECT_TRUE(AUTH_LoginCancelled());
    AUTH_SetDialog(nullptr);
    Exit();
  });
  EXPECT_EQ(asked, 1);
}

}  // namespace
