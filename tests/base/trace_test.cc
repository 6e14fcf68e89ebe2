// Tracing and the numbered messages.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/app/workspace.h"
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
};

TEST_F(Tracing, ThresholdAndSubsystemMaskFilterLines) {
  TraceSetThreshold(kTraceMedium);
  TraceSetSubsystem(kTraceOptions | kTraceModel);
  TraceStart(file().c_str());
  struct Case {
    uint32_t subsystem;
    int level;
    bool written;
  } cases[] = {
      {kTraceOptions, kTraceCritical, true}, {kTraceOptions, kTraceMedium, true}, {kTraceOptions, kTraceLow, false},
      {kTraceModel, kTraceHigh, true},       {kTraceFrame, kTraceCritical, false},
      {kTraceEnclosure, kTraceHigh, false},  // neither compose nor organizer is on
      {kTraceOptions | kTraceFrame, kTraceHigh, true},
  };
  int i = 0;
  for (const Case& c : cases) Trace(c.subsystem, c.level, "line %d\n", i++);
  TraceLevel(kTraceMedium, "no mask %d\n", 1);
  TraceLevel(kTraceLow, "no mask %d\n", 2);
  std::string text = ReadFile(file());
  i = 0;
  for (const Case& c : cases) {
    std::string line = "line " + std::to_string(i++) + "\n";
    EXPECT_EQ(text.find(line) != std::string::npos, c.written) << line;
  }
  EXPECT_NE(text.find("no mask 1\n"), std::string::npos);
  EXPECT_EQ(text.find("no mask 2\n"), std::string::npos);
  EXPECT_NE(text.find("Version 4.1.4 Build (41) for Linux\nDebug tracing (threshold 5) started at "), std::string::npos);
}

TEST_F(Tracing, OutputStopsPastTheLimitAndTheNextSessionStartsFresh) {
  TraceSetThreshold(kTraceAll);
  TraceStart(file().c_str());
  {
    std::ofstream out(file(), std::ios::app);
    out << std::string(kTraceFileLimit - 200, 'x');
  }
  Trace(kTraceFrame, kTraceCritical, "%s\n", std::string(300, 'y').c_str());  // crosses the limit
  Trace(kTraceFrame, kTraceCritical, "dropped\n");
  struct stat st;
  ASSERT_EQ(::stat(file().c_str(), &st), 0);
  EXPECT_GT(st.st_size, kTraceFileLimit);
  EXPECT_EQ(ReadFile(file()).find("dropped"), std::string::npos);
  // A new session moves the full file aside rather than staying silent.
  TraceEnd();
  TraceStart(file().c_str());
  Trace(kTraceFrame, kTraceCritical, "after restart\n");
  EXPECT_NE(ReadFile(file()).find("after restart"), std::string::npos);
  EXPECT_EQ(::stat((home_ + "/debug.bak").c_str(), &st), 0);
}

TEST_F(Tracing, DebuggingOptionsSetLevelAndSubsystem) {
  WriteUserOptions();
  Run({"-b"}, [&] {
    struct Case {
      const char* level;
      int threshold;
    } cases[] = {{"none", 0}, {"CRITICAL", 1}, {"high", 3}, {"Medium", 5}, {"low", 7}, {"all", 9}, {"loud", 9}};
    for (const Case& c : cases) {
      Opt_AssignString("Debugging.Level", c.level, kOptSession, 0);
      EXPECT_EQ(TraceGetThreshold(), c.threshold) << c.level;
    }
    Opt_AssignString("Debugging.SubSystem", "48", kOptSession, 0);
    EXPECT_EQ(TraceGetSubsystem(), 48u);
    // The other spelling of the key works too.
    Opt_AssignString("Debugging.Subsystem", "1024", kOptSession, 0);
    EXPECT_EQ(TraceGetSubsystem(), 1024u);
    Opt_AssignString("Debugging.SubSystem", "junk", kOptSession, 0);
    EXPECT_EQ(TraceGetSubsystem(), 1024u);
    // With "none" only level 0 lines reach the file.
    Opt_AssignString("Debugging.Level", "none", kOptSession, 0);
    Trace(kTraceFrame, kTraceCritical, "critical line\n");
    TraceLevel(kTraceAlways, "always line\n");
    std::string text = TraceText();
    EXPECT_EQ(text.find("critical line"), std::string::npos);
    EXPECT_NE(text.find("always line"), std::string::npos);
    Exit();
  });
}

TEST_F(Tracing, TelemetryWindowShowsLinesAndClosesAtShutdown) {
  WriteUserOptions();
  Run({"-b"}, [&] {
    TraceSetOutput(kTraceToFile | kTraceToTelemetry);
    Trace(kTraceFrame, kTraceCritical, "to the window\n");
    WINDOW w = xvt_test_find_window("Debug Telemetry Output");
    ASSERT_TRUE(w);
    bool seen = false;
    for (const XvtDrawOp& op : xvt_test_paint(w)) seen |= op.op == "text" && op.text == "to the window";
    EXPECT_TRUE(seen);
    Exit();
  });
  EXPECT_EQ(TraceGetOutput() & kTraceToTelemetry, 0u);
}

TEST(Messages, TableTextsAndRoutes) {
  xvt_test_reset();
  // Before ErrorInit the table is built on first use.
  EXPECT_STREQ(ErrorText(1000), "Foobar");
  // The first and last of each block of codes, and the gaps between.
  for (int known : {2000, 2104, 3001, 3057, 4011, 4030}) EXPECT_NE(ErrorText(known), nullptr) << known;
  for (int unknown : {0, 999, 2062, 2090, 3021, 4031, -1}) EXPECT_EQ(ErrorText(unknown), nullptr) << unknown;
  // A text with printf fields is shown as it stands, never used as a format.
  ErrorShow(2000, "detail");
  ErrorShow(4242, "unknown code");
  ErrorNote(3002, nullptr);
  ASSERT_EQ(xvt_test_posts().size(), 2u);
  EXPECT_EQ(xvt_test_posts()[0].kind, "error");
  EXPECT_EQ(xvt_test_posts()[0].text, "Address has been changed for: %s");
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

TEST(Messages, ToolkitErrorHookTracesBySeverity) {
  char path[] = "/tmp/velmar-hook-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  TraceSetThreshold(kTraceHigh);
  TraceStart(path);
  EXPECT_FALSE(XvtErrorHook(SEV_FATAL, "f", "m1"));
  EXPECT_FALSE(XvtErrorHook(SEV_ERROR, "g", "m2"));
  EXPECT_TRUE(XvtErrorHook(SEV_WARNING, "h", "m3"));
  TraceEnd();
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (const char* line : {"FATAL: funtion->f, message->m1", "ERROR: funtion->g", "WARNING: funtion->h"})
    EXPECT_NE(text.find(line), std::string::npos) << line;
  ::unlink(path);
  TraceSetThreshold(kTraceCritical);
}

}  // namespace
