// A fresh world for each frame test: an empty user directory, a copy of the shipped files as the application
// directory, and the headless toolkit with its records cleared.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "tests/support/posts.h"
#include "tests/support/scratch_dir.h"
#include "xvt/xvt_test.h"

class FrameTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs the whole program (process entry to exit) with these arguments after the program name; hook runs once
  // start-up is done.
  void Run(const std::vector<std::string>& args, std::function<void()> hook = nullptr);
  // Traces at every level and subsystem, from the next TraceStart on.
  void TraceEverything();
  // A user who has been through the setup: the program starts normally.
  void WriteUserOptions() const;
  // Chooses File > Exit and answers the question with Exit.
  static void Exit();
  // An option's value at a level, or "(none)".
  static std::string Option(const char* name, int level = kOptSession);
  // The title of a window, or the text of a control.
  static std::string Title(WINDOW w) {
    char buf[1000] = "";
    return xvt_vobj_get_title(w, buf, sizeof buf) ? buf : "";
  }

  std::string TraceText() const { return ReadFile(home_ + "/debug.txt"); }
  // Offsets of each line in the trace, in the order given; -1 if missing.
  bool TraceInOrder(const std::vector<std::string>& lines, std::string* why) const;
  // Fails the test on a question that no answer was queued for.
  void ExpectNoUnexpectedDialogs();

  TempDir scratch_{"velmar-test"};
  const std::string home_ = scratch_.path + "/home";
  const std::string appdir_ = scratch_.path + "/app";
  std::vector<std::string> unexpected_;
};

// For tests of a user who has been through the setup.
class UserFrameTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    WriteUserOptions();
  }
};

// The options loaded as at a start of the program, and dropped after the test.
class OptionsFrameTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
    Start();
  }
  void TearDown() override {
    Opt_Shutdown();
    FrameTest::TearDown();
  }
  // Starts with these words after the program's name.
  void Start(std::vector<std::string> args = {}) {
    args.insert(args.begin(), "velmar");
    std::vector<char*> argv;
    for (auto& w : args) argv.push_back(w.data());
    argv.push_back(nullptr);
    ASSERT_EQ(CENV_Init(static_cast<int>(args.size()), argv.data()), 1);
    ASSERT_EQ(Opt_Init(), 1);
  }
};
