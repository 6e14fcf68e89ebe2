// The frame under strain: memory exhaustion as a designed path (the reserve, the warning with the
// cache flush, the orderly shutdown; the allocator under the frame fails on demand), and busy mode
// and the mail timer, driven through the virtual clock.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "src/app/workspace.h"
#include "src/base/fs.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "tests/support/frame_fixture.h"

namespace {

// Requests of exactly kTestSize fail while g_fail_count > 0 (or always with g_fail_always); everything else (the
// reserve included) is served.
constexpr size_t kTestSize = 777777;
int g_fail_count = 0;
bool g_fail_always = false;

void* TestAlloc(size_t size, bool zero) {
  if (size == kTestSize && (g_fail_always || g_fail_count > 0)) {
    if (g_fail_count > 0) --g_fail_count;
    return nullptr;
  }
  return zero ? std::calloc(1, size) : std::malloc(size);
}
void* TestResize(void* p, size_t size) { return std::realloc(p, size); }
void TestRelease(void* p) { std::free(p); }
const FsAllocator kTestAllocator = {TestAlloc, TestResize, TestRelease};

int g_low_memory_events = 0;
int LowWant(ModelEvent* ev, void*) { return ev->type == E_LOW_MEMORY; }
void LowHandle(ModelEvent*, void*) { ++g_low_memory_events; }

class Memory : public UserFrameTest {
 protected:
  void SetUp() override {
    UserFrameTest::SetUp();
    g_fail_count = 0;
    g_fail_always = false;
    g_low_memory_events = 0;
  }
  void TearDown() override {
    fs_set_allocator(nullptr);
    UserFrameTest::TearDown();
  }
  // Runs body inside a started program with the failing allocator.
  void InProgram(std::function<void()> body) {
    Run({"-b"}, [&] {
      fs_set_allocator(&kTestAllocator);
      MM_NotRegister(LowWant, LowHandle, nullptr, "folder node");
      body();
      if (xvt_test_app_running()) Exit();
    });
  }
  static int CountPosts(const std::string& kind, const std::string& start) {
    int n = 0;
    for (const XvtPost& p : xvt_test_posts())
      if (p.kind == kind && p.text.compare(0, start.size(), start) == 0) ++n;
    return n;
  }
};

TEST_F(Memory, OneFailureWarnsOnceFlushesAndServesTheCaller) {
  InProgram([&] {
    for (int shortage = 1; shortage <= 2; ++shortage) {
      g_fail_count = 1;
      void* p = fs_alloc(kTestSize);
      EXPECT_NE(p, nullptr);
      EXPECT_TRUE(fs_rainy_day_used());
      EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), shortage);
      EXPECT_EQ(g_low_memory_events, shortage);
      // A free rebuilds the reserve; a later shortage warns again.
      fs_free(&p);
      EXPECT_EQ(p, nullptr);
      EXPECT_FALSE(fs_rainy_day_used());
    }
    // Memory comes zero-filled, and a resize keeps the content.
    char* p = static_cast<char*>(fs_alloc(64));
    std::memset(p, 0x5a, 64);
    fs_free(p);
    p = static_cast<char*>(fs_alloc(64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 64), std::string(64, '\0'));
    std::memcpy(p, "abc", 4);
    void* v = p;
    ASSERT_EQ(fs_realloc(&v, 100000), 1);
    EXPECT_STREQ(static_cast<char*>(v), "abc");
    fs_free(&v);
    fs_free(&v);  // null: harmless
    fs_free(static_cast<void**>(nullptr));
  });
}

TEST_F(Memory, ExhaustionEndsAtTheExitQuestionAndAsksOnlyOnce) {
  InProgram([&] {
    g_fail_always = true;
    xvt_test_push_answer(RESP_2);  // Cancel at the exit question
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), 1);
    EXPECT_EQ(CountPosts("message", "Velmar has run out of memory and cannot recover."), 1);
    EXPECT_EQ(CountPosts("ask", "Are you sure you want to exit Velmar?"), 1);
    EXPECT_TRUE(fs_shutting_down_for_memory());
    EXPECT_TRUE(xvt_test_app_running());
    // Nothing is rebuilt and nothing more is asked: null at once.
    void* p = nullptr;
    fs_free(&p);
    EXPECT_TRUE(fs_rainy_day_used());
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_EQ(CountPosts("ask", "Are you sure you want to exit Velmar?"), 1);
    int* q = static_cast<int*>(fs_alloc(16));
    EXPECT_NE(q, nullptr);
    fs_free(q);
  });
}

TEST_F(Memory, AnsweringExitAtTheLastChanceShutsDownInOrder) {
  TraceEverything();
  InProgram([&] {
    g_fail_always = true;
    xvt_test_push_answer(RESP_DEFAULT);
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_FALSE(xvt_test_app_running());
  });
  std::string why;
  EXPECT_TRUE(TraceInOrder({"fs_fc_recover_handler: out of free storage!  Attempting recovery.\n",
                            "fs_lc_recover_handler: fatal memory exhaustion!.\n", "Shutdown_Prompt: function entry\n",
                            "ShutdownWorkspace : posting E_ABANDON_SHIP\n"},
                           &why))
      << why;
}

TEST_F(Memory, OperatorNewSharesTheReserveAndTheWarning) {
  InProgram([&] {
    std::new_handler handler = std::get_new_handler();
    ASSERT_NE(handler, nullptr);
    // The first shortage gives the reserve back: new may try again.
    EXPECT_NO_THROW(handler());
    EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), 1);
    // The second has nothing left: the last chance, then bad_alloc.
    xvt_test_push_answer(RESP_2);
    EXPECT_THROW(handler(), std::bad_alloc);
    EXPECT_EQ(CountPosts("message", "Velmar has run out of memory and cannot recover."), 1);
  });
}

TEST_F(Memory, AnAllOnesSizeIsFatal) {
  EXPECT_EXIT(InProgram([] { fs_alloc(static_cast<size_t>(-1)); }), ::testing::ExitedWithCode(1),
              "Requested allocation of -1 bytes is too large for MAC.  Aborting.");
}

// Busy mode and the mail timer, driven through the virtual clock.
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
