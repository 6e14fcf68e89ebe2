// Busy mode and the mail timer, driven through the virtual clock.
#include <string>
#include <vector>

#include "src/app/workspace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "tests/support/frame_fixture.h"

namespace {

class Busy : public UserFrameTest {
 protected:
  // Depth, timers of the busy window, the trap and the cursor.
  static std::string State() {
    int timers = 0;
    for (const XvtTimer& t : xvt_test_timers()) timers += t.win == WIN_critical_window();
    WINDOW trapped = xvt_test_trapped_window();
    return std::to_string(WIN_critical_depth()) + " " + std::to_string(timers) +
           (trapped == NULL_WIN ? " free" : trapped == WIN_critical_window() ? " trapped" : " other") +
           (xvt_test_cursor() == CURSOR_WAIT ? " wait" : xvt_test_cursor() == CURSOR_ARROW ? " arrow" : " ?");
  }
};

// Nested critical sections keep one timer, and only the outermost end restores; the hourglass walks forward, then
// back.
TEST_F(Busy, NestedCriticalSections) {
  Run({"-b"}, [&] {
    WINDOW organizer = xvt_test_find_window("Message Organizer");
    xvt_scr_set_focus_vobj(organizer);
    EXPECT_EQ(WIN_critical_icon(), 9251);
    for (int i = 0; i < 3; ++i) WIN_start_critical();
    EXPECT_EQ(State(), "3 1 trapped wait");
    // Input to the program's windows is held off meanwhile.
    EXPECT_FALSE(xvt_test_user_command(organizer, M_HELP_ABOUT));
    // Switching to another program releases the trap; coming back traps again.
    xvt_test_native(XVT_NATIVE_APP_SWITCH_AWAY, 0);
    EXPECT_EQ(State(), "3 1 free wait");
    xvt_test_native(XVT_NATIVE_APP_ACTIVATE, 0);
    WIN_end_critical();
    WIN_end_critical();
    EXPECT_EQ(State(), "1 1 trapped wait");
    std::vector<int> icons;
    for (int i = 0; i < 12; ++i) {
      xvt_test_advance_ms(500);
      icons.push_back(WIN_critical_icon());
    }
    EXPECT_EQ(icons, (std::vector<int>{9357, 9254, 9355, 9253, 9252, 9253, 9355, 9254, 9357, 9356, 9357, 9254}));
    ASSERT_FALSE(xvt_test_paint(WIN_critical_window()).empty());
    const XvtDrawOp& op = xvt_test_paint(WIN_critical_window()).back();
    EXPECT_EQ(op.op + " " + std::to_string(op.icon) + " " + std::to_string(op.rct.left) + "," + std::to_string(op.rct.top),
              "icon 9254 8,5");
    for (int extra = 0; extra < 2; ++extra) {  // one end too many does no harm
      WIN_end_critical();
      EXPECT_EQ(State(), "0 0 free arrow");
      EXPECT_EQ(WIN_critical_icon(), 9251);
    }
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
    // Each step: how long the clock runs, the checks so far, the period.
    const struct {
      void (*before)();
      long ms;
      int checks;
      long period;
    } steps[] = {
        {nullptr, 120000, 1, 120000},
        {WIN_start_critical, 120000, 1, 1000},  // the tick finds the program busy
        {nullptr, 3000, 1, 1000},               // still busy: retries, no change of rate
        {WIN_end_critical, 1000, 2, 120000},    // the first free tick checks and restores
        // A held mouse button defers the check the same way.
        {[] { xvt_test_native(XVT_NATIVE_LBUTTON_DOWN, 0); }, 120000, 2, 1000},
        {[] { xvt_test_native(XVT_NATIVE_LBUTTON_UP, 0); }, 1000, 3, 120000},
    };
    for (const auto& s : steps) {
      if (s.before) s.before();
      xvt_test_advance_ms(s.ms);
      EXPECT_EQ(g_checks, s.checks) << &s - steps;
      EXPECT_EQ(MSG_MailTimerPeriod(), s.period) << &s - steps;
    }
    // A new interval from the preferences takes effect at once; below 1 minute, or not a number, it is seven
    // minutes.
    const std::pair<const char*, long> intervals[] = {{"3", 180000}, {"1", 60000}, {"15", 900000},
                                                      {"0", 420000}, {"-3", 420000}, {"soon", 420000}};
    for (const auto& [interval, period] : intervals) {
      Opt_AssignString("Timer.Interval", interval, kOptSession, 0);
      MM_NotPostSimple(E_MAIL_TIMER_CHANGED);
      EXPECT_EQ(MSG_MailTimerPeriod(), period) << interval;
    }
    Opt_Delete("Timer.Interval");
    MM_NotPostSimple(E_MAIL_TIMER_CHANGED);
    EXPECT_EQ(MSG_MailTimerPeriod(), 420000);
    Exit();
  });
}

}  // namespace
