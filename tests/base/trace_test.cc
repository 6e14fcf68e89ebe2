// How the program's parts report and notify: tracing, numbered messages, the model-event bus.
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "src/base/errors.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

class Tracing : public FrameTest {
 protected:
  void TearDown() override {
    TraceEnd();
    TraceSetOutput(kTraceToFile);
    FrameTest::TearDown();
  }
  std::string file() const { return home_ + "/debug.txt"; }
  bool Has(const std::string& text) const { return TraceText().find(text) != std::string::npos; }
};

TEST_F(Tracing, ThresholdAndSubsystemMaskFilterLines) {
  TraceSetThreshold(kTraceMedium);
  TraceSetSubsystem(kTraceOptions | kTraceModel);
  TraceStart(file().c_str());
  const struct { uint32_t subsystem; int level; bool written; } cases[] = {
      {kTraceOptions, kTraceCritical, true}, {kTraceOptions, kTraceMedium, true}, {kTraceOptions, kTraceLow, false},
      {kTraceModel, kTraceHigh, true},       {kTraceFrame, kTraceCritical, false},
      {kTraceEnclosure, kTraceHigh, false},  // neither compose nor organizer is on
      {kTraceOptions | kTraceFrame, kTraceHigh, true},
  };
  for (size_t i = 0; i < std::size(cases); ++i) Trace(cases[i].subsystem, cases[i].level, "line %zu\n", i);
  TraceLevel(kTraceMedium, "no mask %d\n", 1);
  TraceLevel(kTraceLow, "no mask %d\n", 2);
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(Has("line " + std::to_string(i) + "\n"), cases[i].written) << i;
  EXPECT_TRUE(Has("no mask 1\n"));
  EXPECT_FALSE(Has("no mask 2\n"));
  EXPECT_TRUE(Has("Version 4.1.4 Build (41) for Linux\nDebug tracing (threshold 5) started at "));
}

TEST_F(Tracing, ToolkitErrorsAndTheFileLimit) {
  TraceSetThreshold(kTraceAll);
  TraceStart(file().c_str());
  EXPECT_FALSE(XvtErrorHook(SEV_FATAL, "f", "m1"));
  EXPECT_FALSE(XvtErrorHook(SEV_ERROR, "g", "m2"));
  EXPECT_TRUE(XvtErrorHook(SEV_WARNING, "h", "m3"));
  for (const char* line : {"FATAL: funtion->f, message->m1", "ERROR: funtion->g", "WARNING: funtion->h"})
    EXPECT_TRUE(Has(line)) << line;
  std::ofstream(file(), std::ios::app) << std::string(kTraceFileLimit - 200, 'x');
  Trace(kTraceFrame, kTraceCritical, "%s\n", std::string(300, 'y').c_str());  // crosses the limit
  Trace(kTraceFrame, kTraceCritical, "dropped\n");
  struct stat st;
  ASSERT_EQ(::stat(file().c_str(), &st), 0);
  EXPECT_GT(st.st_size, kTraceFileLimit);
  EXPECT_FALSE(Has("dropped"));
  // A new session moves the full file aside rather than staying silent.
  TraceEnd();
  TraceStart(file().c_str());
  Trace(kTraceFrame, kTraceCritical, "after restart\n");
  EXPECT_TRUE(Has("after restart"));
  EXPECT_EQ(::stat((home_ + "/debug.bak").c_str(), &st), 0);
}

TEST_F(Tracing, DebuggingOptionsAndTheTelemetryWindow) {
  WriteUserOptions();
  Run({"-b"}, [&] {
    for (auto [level, threshold] : {std::pair{"none", 0}, {"CRITICAL", 1}, {"high", 3}, {"Medium", 5}, {"low", 7},
                                    {"all", 9}, {"loud", 9}}) {
      Opt_AssignString("Debugging.Level", level, kOptSession, 0);
      EXPECT_EQ(TraceGetThreshold(), threshold) << level;
    }
    // Either spelling of the key; a word that is no number changes nothing.
    Opt_AssignString("Debugging.SubSystem", "48", kOptSession, 0);
    EXPECT_EQ(TraceGetSubsystem(), 48u);
    Opt_AssignString("Debugging.Subsystem", "1024", kOptSession, 0);
    Opt_AssignString("Debugging.SubSystem", "junk", kOptSession, 0);
    EXPECT_EQ(TraceGetSubsystem(), 1024u);
    // With "none" only level 0 lines are written.
    Opt_AssignString("Debugging.Level", "none", kOptSession, 0);
    TraceSetOutput(kTraceToFile | kTraceToTelemetry);
    Trace(kTraceFrame, kTraceCritical, "critical line\n");
    TraceLevel(kTraceAlways, "always line\n");
    EXPECT_FALSE(Has("critical line"));
    EXPECT_TRUE(Has("always line"));
    WINDOW w = xvt_test_find_window("Debug Telemetry Output");
    ASSERT_TRUE(w);
    bool seen = false;
    for (const XvtDrawOp& op : xvt_test_paint(w)) seen |= op.op == "text" && op.text == "always line";
    EXPECT_TRUE(seen);
    Exit();
  });
  EXPECT_EQ(TraceGetOutput() & kTraceToTelemetry, 0u);  // closed at shutdown
}

TEST(Messages, TableTextsAndRoutes) {
  xvt_test_reset();
  // Before ErrorInit the table is built on first use. A text with printf fields is shown as it stands, never used
  // as a format; an unknown code shows nothing.
  EXPECT_STREQ(ErrorText(1000), "Foobar");
  ErrorShow(2000, "detail");
  ErrorShow(4242, "unknown code");
  ErrorNote(3002, nullptr);
  ASSERT_EQ(xvt_test_posts().size(), 2u);
  EXPECT_EQ(xvt_test_posts()[0].kind + ": " + xvt_test_posts()[0].text, "error: Address has been changed for: %s");
  EXPECT_EQ(xvt_test_posts()[1].kind, "note");
  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_EQ(ErrorAsk(3011), 1);
  xvt_test_push_answer(RESP_2);
  EXPECT_EQ(ErrorAsk(3011), 0);
  EXPECT_EQ(xvt_test_posts().back().buttons, (std::vector<std::string>{"OK", "Cancel"}));
  // The message dialog: OK answers, Cancel and the close box don't.
  std::string shown;
  xvt_test_push_dialog(1040, [&](WINDOW dlg) {
    char buf[300];
    shown = xvt_vobj_get_title(xvt_win_get_ctl(dlg, 1004), buf, sizeof buf);
    xvt_test_click(dlg, 1);
  });
  xvt_test_push_dialog(1040, [](WINDOW dlg) { xvt_test_click(dlg, 2); });
  XVT_CONFIG config{0, 0, "t", "T", "t", 0};
  xvt_test_set_run_hook([] {
    EXPECT_EQ(DisplayDialogue(3046), 1);
    EXPECT_EQ(DisplayDialogue(3046), 0);
    EXPECT_EQ(DisplayDialogue(7), 0);
  });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
  EXPECT_EQ(shown, "Include original message text?");
  xvt_test_reset();
}

// The model-event bus: who hears an event, in what order, and what a
// handler may do to the list while a post walks it.
std::string g_log;
int g_late = -1;

int WantAll(ModelEvent*, void*) { return 1; }
int WantNone(ModelEvent*, void*) { return 0; }

// Each handler writes its name and the event type; some also act on the
// list, by the action word that is their data.
void Act(ModelEvent* ev, void* data) {
  const std::string what = static_cast<const char*>(data);
  g_log += what + ":" + std::to_string(ev->type) + " ";
  if (what == "self-off") MM_NotUnregister(2);
  if (what == "adder" && g_late < 0) g_late = MM_NotRegister(WantAll, Act, const_cast<char*>("late"), "late");
  if (what == "nester" && ev->type == E_ABANDON_SHIP) MM_NotPostSimple(E_SHIP_SUNK);
}

TEST(ModelEvents, OrderNestingAndChangesDuringAPost) {
  MM_NotShutdown();
  MM_NotPostSimple(E_ABANDON_SHIP);  // before the model starts: nobody hears it
  MM_NotInit();
  ASSERT_EQ(MM_NotRegister(WantAll, Act, const_cast<char*>("first"), "1"), 1);
  ASSERT_EQ(MM_NotRegister(WantAll, Act, const_cast<char*>("self-off"), "2"), 2);
  MM_NotRegister(WantNone, Act, const_cast<char*>("never"), "3");
  MM_NotRegister(WantAll, Act, const_cast<char*>("adder"), "4");
  MM_NotRegister(WantAll, Act, const_cast<char*>("nester"), "5");
  MM_NotPostSimple(E_ABANDON_SHIP);
  EXPECT_EQ(g_log, "");  // not active yet
  MM_NotSetActive(true);
  EXPECT_EQ(MM_NotCount(), 5);

  MM_NotPostSimple(E_ABANDON_SHIP);
  // The one that unregistered itself finished its turn; the one registered
  // during the walk was called in the same walk; the nested post reached
  // everyone still registered, in order.
  EXPECT_EQ(g_log,
            "first:12 self-off:12 adder:12 nester:12 first:13 adder:13 nester:13 late:13 late:12 ");
  EXPECT_EQ(MM_NotCount(), 5);

  g_log.clear();
  MM_NotUnregister(g_late);
  MM_NotUnregister(99);  // unknown: nothing happens
  MM_NotPostSimple(E_SHIP_SUNK);
  EXPECT_EQ(g_log, "first:13 adder:13 nester:13 ");
  EXPECT_EQ(MM_NotRegister(nullptr, Act, nullptr, "broken"), -1);
  MM_NotShutdown();
  EXPECT_FALSE(MM_NotActive());
}

}  // namespace
