// Busy mode and the mail timer, driven through the virtual clock.
#include <sstream>
#include <string>
#include <vector>

#include "src/app/workspace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "tests/support/frame_fixture.h"

namespace {

class Busy : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    WriteUserOptions();
  }
  static int CriticalTimers() {
    int n = 0;
    for (const XvtTimer& t : xvt_test_timers())
      if (t.win == WIN_critical_window()) ++n;
    return n;
  }
};

TEST_F(Busy, NestedCriticalSectionsKeepOneTimerAndOnlyTheOutermostEndRestores) {
  Run({"-b"}, [&] {
    WINDOW organizer = xvt_test_find_window("Message Organizer");
    xvt_scr_set_focus_vobj(organizer);
    for (int i = 0; i < 3; ++i) WIN_start_critical();
    EXPECT_EQ(WIN_critical_depth(), 3);
    EXPECT_EQ(CriticalTimers(), 1);
    EXPECT_EQ(xvt_test_trapped_window(), WIN_critical_window());
    EXPECT_EQ(xvt_test_cursor(), CURSOR_WAIT);
    // Input to the program's windows is held off meanwhile.
    EXPECT_FALSE(xvt_test_user_command(organizer, M_HELP_ABOUT));
    // Switching to another program releases the trap; coming back traps again.
    xvt_test_native(XVT_NATIVE_APP_SWITCH_AWAY, 0);
    EXPECT_EQ(xvt_test_trapped_window(), NULL_WIN);
    xvt_test_native(XVT_NATIVE_APP_ACTIVATE, 0);
    WIN_end_critical();
    WIN_end_critical();
    EXPECT_TRUE(WIN_in_critical());
    EXPECT_EQ(xvt_test_cursor(), CURSOR_WAIT);
    EXPECT_EQ(xvt_test_trapped_window(), WIN_critical_window());
    WIN_end_critical();
    EXPECT_FALSE(WIN_in_critical());
    EXPECT_EQ(CriticalTimers(), 0);
    EXPECT_EQ(xvt_test_cursor(), CURSOR_ARROW);
    EXPECT_EQ(xvt_test_trapped_window(), NULL_WIN);
    // One end too many does no harm.
    WIN_end_critical();
    EXPECT_EQ(WIN_critical_depth(), 0);
    Exit();
  });
}

TEST_F(Busy, HourglassWalksForwardThenBack) {
  Run({"-b"}, [&] {
    EXPECT_EQ(WIN_critical_icon(), 9251);
    WIN_start_critical();
    std::vector<int> icons;
    for (int i = 0; i < 12; ++i) {
      xvt_test_advance_ms(500);
      icons.push_back(WIN_critical_icon());
    }
    EXPECT_EQ(icons, (std::vector<int>{9357, 9254, 9355, 9253, 9252, 9253, 9355, 9254, 9357, 9356, 9357, 9254}));
    const auto& ops = xvt_test_paint(WIN_critical_window());
    ASSERT_FALSE(ops.empty());
    EXPECT_EQ(ops.back().op, "icon");
    EXPECT_EQ(ops.back().icon, 9254);
    EXPECT_EQ(ops.back().rct.left, 8);
    EXPECT_EQ(ops.back().rct.top, 5);
    WIN_end_critical();
    EXPECT_EQ(WIN_critical_icon(), 9251);
    Exit();
  });
}

// A folder node's reaction to E_MAIL_TIMER: counts the checks it could run.
int g_checks = 0;
int FolderWant(ModelEvent* ev, void*) { return ev->type == E_MAIL_TIMER; }
void FolderHandle(ModelEvent*, void*) {
  if (MSG_MailTimerGate()) ++g_checks;
}

TEST_F(Busy, MailTimerDropsToRetryInACriticalSectionAndComesBack) {
  WriteFile(appdir_ + "/sysdflt.tcl", ReadFile(appdir_ + "/sysdflt.tcl") + "option -default Timer.Interval 2\n");
  g_checks = 0;
  Run({"-b"}, [&] {
    MM_NotRegister(FolderWant, FolderHandle, nullptr, "folder node");
    EXPECT_EQ(MSG_MailTimerPeriod(), 120000);
    xvt_test_advance_ms(120000);
    EXPECT_EQ(g_checks, 1);
    WIN_start_critical();
    xvt_test_advance_ms(120000);  // the tick finds the program busy
    EXPECT_EQ(g_checks, 1);
    EXPECT_EQ(MSG_MailTimerPeriod(), 1000);
    xvt_test_advance_ms(3000);  // still busy: retries, no change of rate
    EXPECT_EQ(g_checks, 1);
    EXPECT_EQ(MSG_MailTimerPeriod(), 1000);
    WIN_end_critical();
    xvt_test_advance_ms(1000);  // the first free tick checks and restores
    EXPECT_EQ(g_checks, 2);
    EXPECT_EQ(MSG_MailTimerPeriod(), 120000);
    // A held mouse button defers the check the same way.
    xvt_test_native(XVT_NATIVE_LBUTTON_DOWN, 0);
    xvt_test_advance_ms(120000);
    EXPECT_EQ(MSG_MailTimerPeriod(), 1000);
    xvt_test_native(XVT_NATIVE_LBUTTON_UP, 0);
    xvt_test_advance_ms(1000);
    EXPECT_EQ(g_checks, 3);
    // A new interval from the preferences takes effect at once.
    Opt_AssignString("Timer.Interval", "3", kOptSession, 0);
    MM_NotPostSimple(E_MAIL_TIMER_CHANGED);
    EXPECT_EQ(MSG_MailTimerPeriod(), 180000);
    Exit();
  });
}

TEST_F(Busy, MailTimerPeriodFromTimerInterval) {
  struct Case {
    const char* interval;  // null: not set
    long period;
  } cases[] = {{nullptr, 420000}, {"1", 60000}, {"15", 900000}, {"0", 420000}, {"-3", 420000}, {"soon", 420000}};
  std::string site, line;
  for (std::istringstream in(ReadFile(appdir_ + "/sysdflt.tcl")); std::getline(in, line);)
    if (line.find("Timer.Interval") == std::string::npos) site += line + "\n";
  for (const Case& c : cases) {
    std::string text = site;
    if (c.interval) text += std::string("option -default Timer.Interval {") + c.interval + "}\n";
    WriteFile(appdir_ + "/sysdflt.tcl", text);
    // A user whose options are already of this version: nothing translates
    // the interval on the way in.
    WriteFile(home_ + "/default.tcl",
              "option General.Fullname Ann\noption General.MailAddress a@b\noption Options.Version 40\n");
    long period = -1;
    Run({"-b"}, [&] {
      period = MSG_MailTimerPeriod();
      Exit();
    });
    EXPECT_EQ(period, c.period) << (c.interval ? c.interval : "(unset)");
    xvt_test_reset();
  }
}

}  // namespace
