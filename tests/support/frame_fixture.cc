#include "tests/support/frame_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/app/workspace.h"

namespace fs = std::filesystem;

void FrameTest::SetUp() {
  ASSERT_FALSE(scratch_.path.empty());
  fs::create_directories(home_);
  fs::copy(VELMAR_SOURCE_DATA_DIR, appdir_, fs::copy_options::recursive);
  setenv("VELMAR_HOME", home_.c_str(), 1);
  setenv("VELMAR_APPDIR", appdir_.c_str(), 1);
  unsetenv("MAILHOST");
  xvt_test_reset();
  ResetDirectories();
  unexpected_.clear();
  xvt_test_set_unexpected_handler([this](const XvtPost& p) { unexpected_.push_back(p.kind + ": " + p.text); });
}

void FrameTest::TearDown() {
  ExpectNoUnexpectedDialogs();
  xvt_test_reset();
  ResetDirectories();
  TraceSetThreshold(kTraceCritical);
  TraceSetSubsystem(0xFFFFFFFFu);
  if (::chdir("/tmp") != 0) perror("chdir");
}

void FrameTest::Run(const std::vector<std::string>& args, std::function<void()> hook) {
  std::vector<std::string> words{"velmar"};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  xvt_test_set_run_hook(std::move(hook));
  velmar_main(static_cast<int>(words.size()), argv.data());
  xvt_test_set_run_hook(nullptr);
}

void FrameTest::TraceEverything() {
  // The site defaults may set a level of their own; this one comes last.
  std::ofstream(appdir_ + "/sysdflt.tcl", std::ios::app) << "option -default Debugging.Level all\n";
  TraceSetThreshold(kTraceAll);
  TraceSetSubsystem(0xFFFFFFFFu);
}

void FrameTest::WriteUserOptions() const {
  WriteFile(home_ + "/default.tcl",
            "option General.Fullname {Ann Example}\noption General.MailAddress ann@example.org\n");
}

void FrameTest::Exit() {
  xvt_test_push_answer(RESP_DEFAULT);
  EXPECT_TRUE(xvt_test_user_command(TASK_WIN, M_FILE_QUIT));
}

std::string FrameTest::Option(const char* name, int level) {
  size_t length = 0;
  return Opt_LookupStringLength(name, level, &length) ? Opt_LookupText(name, level) : "(none)";
}

bool FrameTest::TraceInOrder(const std::vector<std::string>& lines, std::string* why) const {
  const std::string trace = TraceText();
  size_t pos = 0;
  for (const std::string& line : lines) {
    if ((pos = trace.find(line, pos)) == std::string::npos) {
      *why = "missing or out of order: \"" + line + "\"\n--- trace ---\n" + trace;
      return false;
    }
    pos += line.size();
  }
  return true;
}

void FrameTest::ExpectNoUnexpectedDialogs() {
  for (const std::string& u : unexpected_) ADD_FAILURE() << "unexpected dialog: " << u;
  unexpected_.clear();
}
