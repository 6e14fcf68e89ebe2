// Folder > Access Rights... over a private Dovecot: the dialog shows the
// server's list, sends a change and shows it as read back, and a change the
// server refuses leaves the list as the server holds it.
#include "src/base/rights_dialog.h"
#include "src/organizer/organizer.h"
#include "tests/model/imap_service_fixture.h"
#include "xvt/xvt_test.h"

namespace {

using FolderRights = ImapServiceTest<ModelTest>;

std::string Lines(WINDOW d) {
  std::string out = xvt_ctl_get_text(d, kRdNote, 300);
  const WINDOW list = xvt_win_get_ctl(d, kRdList);
  char buf[300];
  for (int n = 0; n < xvt_list_count_all(list); ++n) out += std::string("|") + xvt_list_get_elt(list, n, buf, sizeof buf);
  return out;
}

TEST_F(FolderRights, ShowsSendsAndRefuses) {
  ASSERT_TRUE(FOL_ServiceHasACL(ms_)) << Posts();
  const std::string other = server_.env.at("OTHERUSER");
  // The other user, on the folder the first one shares.
  for (const auto& [key, value] : {std::pair<const char*, std::string>{"Type", "imap"}, {"Hostname", server_.env["HOST"]},
                                   {"Port", server_.env["PORT"]}, {"Userid", other}, {"Password", server_.env["PASSWORD"]}})
    Opt_AssignString((std::string("MsgService.ms3.") + key).c_str(), value.c_str(), kOptPermanent, 0);
  const int ms3 = MM_MSNew(3);
  struct Step {
    const char* what;
    int ms;
    const char* folder;
    std::function<void(WINDOW)> act;
    const char* shown;
  } steps[] = {
      {"the server's list", ms_, "INBOX", [](WINDOW) {}, "|testuser: read, write, post, administer  [lrwstipekxacd]"},
      {"added", ms_, "INBOX", [&](WINDOW d) {
         xvt_test_type(d, kRdIdentifier, other.c_str());
         for (int b : {0, 2, 3}) xvt_ctl_set_checked(xvt_win_get_ctl(d, kRdRight0 + b), true);  // read, post, admin
         xvt_test_click(d, kRdAdd);
       }, "|otheruser: read, post, administer  [alprs]" "|testuser: read, write, post, administer  [lrwstipekxacd]"},
      {"changed", ms_, "INBOX", [&](WINDOW d) {
         xvt_test_select(d, kRdList, 0);
         xvt_ctl_set_checked(xvt_win_get_ctl(d, kRdRight1), true);  // and write
         xvt_test_click(d, kRdChange);
       }, "|otheruser: read, write, post, administer  [aeilprwtsd]" "|testuser: read, write, post, administer  [lrwstipekxacd]"},
      // The owner takes the other user's administer right while the other
      // user's dialog is open.
      {"refused", ms3, "shared/testuser/INBOX", [&](WINDOW d) {
         ASSERT_EQ(MM_FolAddACL(ms_, "INBOX", other.c_str(), kAclRead), 1);
         xvt_test_type(d, kRdIdentifier, "anyone");
         xvt_ctl_set_checked(xvt_win_get_ctl(d, kRdRight0), true);
         xvt_test_click(d, kRdAdd);
       }, "You do not have the administer right here (yours: lrs): the list is read-only.|(you): read  [lrs]"},
  };
  std::vector<std::string> shown;
  for (Step& s : steps)
    xvt_test_push_dialog(kRightsDialogRid, [&](WINDOW d) {
      s.act(d);
      shown.push_back(Lines(d));
      xvt_test_click(d, kRdClose);
    });
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_test_set_run_hook([&] {
    for (const Step& s : steps) FOL_AccessRights(s.ms, s.folder);
  });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  ASSERT_EQ(shown.size(), std::size(steps)) << Posts();
  for (size_t i = 0; i < shown.size(); ++i) EXPECT_EQ(shown[i], steps[i].shown) << steps[i].what;
  // No "anyone".
  EXPECT_EQ(ReadFile(server_.dir + "/mail/testuser/Maildir/dovecot-acl"), "user=otheruser lrs\n");
  EXPECT_NE(Posts().find("error: IMAP operation failed: [NOPERM] You lack administrator privileges on this mailbox"),
            std::string::npos) << Posts();
  EXPECT_NE(Posts().find("error: The rights of \"anyone\" were not changed: the server refused."), std::string::npos);
}

}  // namespace
