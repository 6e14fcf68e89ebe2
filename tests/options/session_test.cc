// The session manager dialog, driven by control ids as a user would.
#include <unistd.h>

#include <string>

#include "src/options/session.h"
#include "src/base/cenv.h"
#include "src/app/workspace.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

constexpr int kSessionRid = 150;
constexpr int kDetailsRid = 170;

class Session : public UserFrameTest {
 protected:
  void SetUp() override {
    UserFrameTest::SetUp();
    WriteFile(home_ + "/velmar.ini", "[LOCAL] default\nname=Home Office\nfile=" + home_ +
                                         "/home.tcl\ntype=tcl\n[LOCAL]\nname=Laptop\nfile=" + home_ +
                                         "/laptop.tcl\ntype=tcl\n[REMOTE]\nname=Work\nhost=imsp.example.org\n"
                                         "port=406\ntype=imsp\n");
  }
  static std::string ListRows(WINDOW dlg) {
    WINDOW list = xvt_win_get_ctl(dlg, 156);
    std::string rows;
    char buf[200];
    for (int i = 0; i < xvt_list_count_all(list); ++i)
      rows += std::string(xvt_list_is_sel(list, i) ? "*" : "") + xvt_list_get_elt(list, i, buf, sizeof buf) + ";";
    return rows;
  }
  static std::string Title(WINDOW w) {
    char buf[200];
    return xvt_vobj_get_title(w, buf, sizeof buf);
  }
};

// Cancel leaves the prompt mode: offline, unless there is nothing to choose from, when only Cancel can be used.
TEST_F(Session, CancelStartsOfflineUnlessTheTableIsEmpty) {
  for (bool empty : {false, true}) {
    if (empty) ::unlink((home_ + "/velmar.ini").c_str());
    std::string enabled;
    xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
      for (int id : {152, 153, 156, 157, 158, 159})
        enabled += std::to_string(id) + (xvt_vobj_is_enabled(xvt_win_get_ctl(dlg, id)) ? "+ " : "- ");
      xvt_test_click(dlg, 158);
    });
    int offline = -1;
    long mode = -1;
    Run({"-b", "-c", "Prompt"}, [&] {
      offline = IsOffline();
      mode = CENV_GetConnectionMode();
      Exit();
    });
    EXPECT_EQ(enabled, empty ? "152- 153- 156- 157- 158+ 159- " : "152+ 153+ 156+ 157+ 158+ 159+ ");
    EXPECT_EQ(offline, empty ? 0 : 1);
    EXPECT_EQ(mode, empty ? kConnConnected : kConnDisconnected);
    xvt_test_reset();
  }
}

TEST_F(Session, OfflineListsOnlyLocalConfigurations) {
  std::string rows;
  bool details_enabled = false;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    xvt_test_click(dlg, 153);
    rows = ListRows(dlg);
    details_enabled = xvt_vobj_is_enabled(xvt_win_get_ctl(dlg, 159));
    xvt_test_click(dlg, 157);
  });
  Run({"-b", "-c", "p"}, [&] {
    EXPECT_EQ(IsOffline(), 1);
    // Offline, the options come from the local file whatever was chosen.
    EXPECT_EQ(Option("Options.Location"), "Local");
    Exit();
  });
  EXPECT_EQ(rows, "*Home Office;Laptop;");
  EXPECT_TRUE(details_enabled);
}

TEST_F(Session, DetailsShowTheRecordReadOnly) {
  std::string shown;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    xvt_test_select(dlg, 156, 2);
    xvt_test_push_dialog(kDetailsRid, [&](WINDOW details) {
      for (int id : {171, 178, 180, 182}) shown += Title(xvt_win_get_ctl(details, id)) + "|";
      shown += xvt_ctl_is_checked(xvt_win_get_ctl(details, 172)) ? "remote|" : "local|";
      for (int id : {171, 172, 173, 175, 176, 178, 180, 182})
        if (xvt_vobj_is_enabled(xvt_win_get_ctl(details, id))) shown += "enabled " + std::to_string(id);
      xvt_test_click(details, 186);
    });
    xvt_test_click(dlg, 159);
    xvt_test_click(dlg, 158);
  });
  Run({"-b", "-c", "p"}, [&] { Exit(); });
  EXPECT_EQ(shown, "Work||imsp.example.org|406|remote|");
}

// Laptop chosen online at the start; Home Office loaded from the menu later.
TEST_F(Session, ChoosingALocalConfigurationAndLoadingAnotherFromTheMenu) {
  WriteFile(home_ + "/home.tcl", "option General.Fullname Home\noption General.MailAddress h@example.org\n");
  std::string rows_at_start, titles;
  xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
    titles = Title(dlg);
    rows_at_start = ListRows(dlg);
    EXPECT_TRUE(xvt_ctl_is_checked(xvt_win_get_ctl(dlg, 152)));
    xvt_test_select(dlg, 156, 1);
    xvt_test_click(dlg, 157);
  });
  Run({"-b", "-cp"}, [&] {
    EXPECT_EQ(IsOffline(), 0);
    EXPECT_STREQ(CENV_GetConfigFile(), (home_ + "/laptop.tcl").c_str());
    EXPECT_EQ(CENV_GetDefaultRemote(), 0);
    EXPECT_EQ(Option("Options.LocalFile"), home_ + "/laptop.tcl");
    // The new online default is written back to the init file on save.
    EXPECT_EQ(CENV_GetConfigOnlineDefault(1) * 10 + CENV_GetConfigOnlineDefault(0), 10);
    EXPECT_EQ(Option("Options.SaveLocation"), "ON");
    xvt_test_push_dialog(kSessionRid, [&](WINDOW dlg) {
      titles += "|" + Title(dlg);
      xvt_test_select(dlg, 156, 0);
      xvt_test_click(dlg, 157);
    });
    xvt_test_user_command(TASK_WIN, M_OPTIONS_LOAD);
    EXPECT_EQ(Option("General.Fullname"), "Home");
    Exit();
  });
  EXPECT_EQ(titles, "Session Manager|Load Options");
  EXPECT_EQ(rows_at_start, "*Home Office;Laptop;Work;");
}

}  // namespace
