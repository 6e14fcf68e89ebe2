// The program's life from process entry to exit, on the headless toolkit.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "src/options/session.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/app/workspace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "src/send/submit.h"
#include "tests/support/frame_fixture.h"

namespace {

// Records which model events reached a notifier, and whether the option
// store could still be read at that moment.
struct EventLog {
  std::vector<int> types;
  std::vector<bool> options_readable;
  int id = -1;
  std::vector<int> wanted;
};

int LogWant(ModelEvent* ev, void* data) {
  auto* log = static_cast<EventLog*>(data);
  for (int t : log->wanted)
    if (t == ev->type) return 1;
  return 0;
}

void LogHandle(ModelEvent* ev, void* data) {
  auto* log = static_cast<EventLog*>(data);
  log->types.push_back(ev->type);
  char buf[10];
  log->options_readable.push_back(Opt_LookupString("General.TCPConnectOk", buf, sizeof buf - 1, kOptSession) != 0);
}

void Register(EventLog* log, std::vector<int> wanted) {
  log->wanted = std::move(wanted);
  log->id = MM_NotRegister(LogWant, LogHandle, log, "test log");
}

class Lifecycle : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    WriteUserOptions();
  }
};

TEST_F(Lifecycle, StartsAndStopsInOrder) {
  TraceEverything();
  Run({"-b"}, [&] {
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    EXPECT_EQ(SDDE_FullyStarted(), 1);
    Exit();
  });
  std::string why;
  EXPECT_TRUE(TraceInOrder({"Debug tracing (threshold 9) started at",
                            "main.c: task_eh - initializing the Mail Model.\n",
                            "Opt_Init: loading system defaults from: " + appdir_ + "/sysdflt.tcl\n",
                            "Opt_Init(): attempting to load: " + home_ + "/default.tcl\n",
                            "TASK_WIN : outer rct = (20,50:1260,1004)\n",
                            "openMessageServicesWindow :  function entry\n",
                            "Shutdown_Prompt: function entry\n",
                            "ShutdownWorkspace : posting E_ABANDON_SHIP\n",
                            "ShutdownWorkspace : posting E_SHIP_SUNK\n",
                            "main.c : task_eh - E_DESTROY\n",
                            "Debug tracing terminated at"},
                           &why))
      << why;
  EXPECT_NE(Posts().find("ask: Are you sure you want to exit Velmar?"), std::string::npos) << Posts();
  EXPECT_FALSE(xvt_test_app_running());
}

TEST_F(Lifecycle, AbandonShipComesBeforeShipSunkWhileOptionsLive) {
  EventLog log;
  Run({"-b"}, [&] {
    Register(&log, {E_ABANDON_SHIP, E_SHIP_SUNK, E_SAVE_DESKTOP});
    Exit();
  });
  // The option store saves and closes on E_SHIP_SUNK, after the windows
  // had their E_ABANDON_SHIP with the store still readable; a window's
  // notifier comes after the store's, so by its E_SHIP_SUNK the store is gone.
  EXPECT_EQ(log.types, (std::vector<int>{E_SAVE_DESKTOP, E_ABANDON_SHIP, E_SHIP_SUNK}));
  EXPECT_EQ(log.options_readable, (std::vector<bool>{true, true, false}));
}

// A window's veto stops the exit without a question; Cancel at the
// question keeps the program up; the close box takes the same road.
TEST_F(Lifecycle, ExitCanBeVetoedOrCancelled) {
  struct Veto {
    static int Want(ModelEvent* ev, void*) { return ev->type == E_EXIT_QUERY; }
    static void Handle(ModelEvent*, void*) { Opt_AssignInt("General.ExitVelmar", 0, kOptSession, 0); }
  };
  Run({"-b"}, [&] {
    int id = MM_NotRegister(Veto::Want, Veto::Handle, nullptr, "compose window");
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_FILE_QUIT));
    EXPECT_TRUE(xvt_test_app_running());
    EXPECT_EQ(Posts().find("ask:"), std::string::npos) << Posts();
    MM_NotUnregister(id);
    xvt_test_push_answer(RESP_2);
    xvt_test_user_command(TASK_WIN, M_FILE_QUIT);
    EXPECT_TRUE(xvt_test_app_running());
    xvt_test_push_answer(RESP_DEFAULT);
    EVENT ev{};
    ev.type = E_CLOSE;
    xvt_test_user_event(TASK_WIN, &ev);
    EXPECT_FALSE(xvt_test_app_running());
  });
}

TEST_F(Lifecycle, ExitCleanWordsAreKeptOrRewrittenToPrompt) {
  struct Case {
    const char* stored;  // null: no value
    const char* after;
  } cases[] = {{"Never", "Never"}, {"always", "always"}, {"Sometimes", "Prompt"}, {nullptr, "Prompt"}};
  for (const Case& c : cases) {
    std::string seen;
    Run({"-b"}, [&] {
      if (c.stored)
        Opt_AssignString("General.ExitClean", c.stored, kOptPermanent, 0);
      else
        Opt_Delete("General.ExitClean");
      struct Peek {
        static int Want(ModelEvent* ev, void*) { return ev->type == E_ABANDON_SHIP; }
        static void Handle(ModelEvent*, void* data) {
          char buf[50] = "";
          Opt_LookupString("General.ExitClean", buf, sizeof buf - 1, kOptPermanent);
          *static_cast<std::string*>(data) = buf;
        }
      };
      MM_NotRegister(Peek::Want, Peek::Handle, &seen, "peek");
      Exit();
    });
    EXPECT_EQ(seen, c.after) << (c.stored ? c.stored : "(none)");
    xvt_test_reset();
  }
}

TEST_F(Lifecycle, SuppressedDesktopIsNeitherSavedNorAsked) {
  for (bool suppress : {false, true}) {
    EventLog log;
    std::vector<std::string> args{"-b"};
    if (suppress) args.push_back("-s");
    Run(args, [&] {
      Register(&log, {E_SAVE_DESKTOP});
      Exit();
    });
    EXPECT_EQ(log.types.size(), suppress ? 0u : 1u) << "suppress " << suppress;
    xvt_test_reset();
  }
}

TEST_F(Lifecycle, BannerIsLookedForOnlyWithoutMinusB) {
  for (bool with_b : {false, true}) {
    std::vector<std::string> args;
    if (with_b) args.push_back("-b");
    Run(args, [&] {
      // The banner is gone once start-up is over.
      for (WINDOW w : xvt_test_windows()) EXPECT_NE(xvt_vobj_get_type(w), W_NO_BORDER);
      Exit();
    });
    bool read = Posts().find("image: " + appdir_ + "/banner.bmp") != std::string::npos;
    EXPECT_EQ(read, !with_b) << Posts();
    xvt_test_reset();
  }
  // A file that is not a bitmap means no banner, and start-up goes on.
  WriteFile(appdir_ + "/banner.bmp", "not a bitmap");
  Run({}, [&] {
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    Exit();
  });
}

TEST_F(Lifecycle, ConnectionModeFromTheCommandLine) {
  struct Case {
    std::vector<std::string> args;
    int offline;
    const char* menu_title;
  } cases[] = {
      {{"-b", "-c", "disconnected"}, 1, "~Go Online"},
      {{"-b", "-cD"}, 1, "~Go Online"},
      {{"-b", "-c", "x"}, 0, "~Go Offline"},
      {{"-b"}, 0, "~Go Offline"},
  };
  for (const Case& c : cases) {
    int offline = -1;
    std::string title;
    Run(c.args, [&] {
      offline = IsOffline();
      char buf[50];
      xvt_menu_get_item_title(TASK_WIN, M_GO_ONLINE_OFFLINE, buf, sizeof buf);
      title = buf;
      Exit();
    });
    EXPECT_EQ(offline, c.offline) << c.args.back();
    EXPECT_EQ(title, c.menu_title) << c.args.back();
    xvt_test_reset();
  }
}

TEST_F(Lifecycle, GoOfflineAndOnline) {
  EventLog log;
  Run({"-b"}, [&] {
    Register(&log, {E_MS_OFFLINE, E_MS_ONLINE});
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_GO_ONLINE_OFFLINE));
    EXPECT_EQ(IsOffline(), 1);
    EXPECT_FALSE(xvt_menu_get_item_enabled(TASK_WIN, M_SEND_QUEUE_NOW));
    EXPECT_FALSE(SDDE_ServerRunning());
    EXPECT_EQ(CENV_GetConnectionMode(), kConnDisconnected);
    // With no remote service there is still the one event for listeners
    // that are not tied to a service.
    EXPECT_EQ(log.types, std::vector<int>{E_MS_OFFLINE});
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_GO_ONLINE_OFFLINE));
    EXPECT_EQ(IsOffline(), 0);
    EXPECT_TRUE(xvt_menu_get_item_enabled(TASK_WIN, M_SEND_QUEUE_NOW));
    EXPECT_TRUE(SDDE_ServerRunning());
    EXPECT_EQ(Option("Compose.QueueOutgoing"), "FALSE");
    Exit();
  });
}

TEST_F(Lifecycle, ReinitWorkspaceRebuildsTheStoreAndKeepsOneOfEachNotifier) {
  Run({"-b"}, [&] {
    int before = MM_NotCount();
    Opt_AssignString("Test.Session", "x", kOptSession, 0);
    for (int i = 0; i < 2; ++i) ReinitWorkspace();
    EXPECT_EQ(Option("Test.Session"), "(none)");
    EXPECT_NE(Option("General.TCPConnectOk"), "(none)");
    EXPECT_EQ(MM_NotCount(), before);
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    Exit();
  });
}

TEST_F(Lifecycle, UnwritableWorkingDirectoryStopsWithMessage4011) {
  // Nobody, root included, can create files in /proc/self.
  setenv("VELMAR_HOME", "/proc/self", 1);
  Run({"-b"}, [] { ADD_FAILURE() << "the program should not have started"; });
  EXPECT_NE(Posts().find("error: You have specified a working directory that you do not have permission to write "
                         "to. Please change your working directory and restart Velmar."),
            std::string::npos)
      << Posts();
}

TEST_F(Lifecycle, ASecondProgramOnTheSameDirectoryStops) {
  int fd = ::open((home_ + "/.velmar.lock").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::flock(fd, LOCK_EX), 0);
  Run({"-b"}, [] { ADD_FAILURE() << "the second program should not have started"; });
  EXPECT_NE(Posts().find("error: Velmar is already running with the directory " + home_), std::string::npos) << Posts();
  ::close(fd);
  // Once the first has gone, the directory is free again.
  bool started = false;
  Run({"-b"}, [&] {
    started = true;
    Exit();
  });
  EXPECT_TRUE(started);
}

TEST_F(Lifecycle, MissingShippedFilesAreFatal) {
  const std::pair<const char*, const char*> cases[] = {
      {"keybind.def", "Unable to load keybind.def file!"},
      {"sysdflt.tcl", "Velmar cannot load site default options.  Contact your system administrator."},
  };
  for (const auto& [file, message] : cases) {
    const std::string path = appdir_ + "/" + file, kept = ReadFile(path);
    ::unlink(path.c_str());
    EXPECT_EXIT(Run({"-b"}), ::testing::ExitedWithCode(1), message) << file;
    WriteFile(path, kept);
  }
}

TEST_F(Lifecycle, StaleTemporaryFilesAreCleanedAtStart) {
  const std::pair<const char*, bool> files[] = {{"t12.tmp", false}, {"t.tmp", false}, {"notes.tmp", true}, {"t12.tmpx", true}};
  for (const auto& [name, kept] : files) WriteFile(home_ + "/" + name, "x");
  Run({"-b"}, [&] { Exit(); });
  for (const auto& [name, kept] : files) EXPECT_EQ(FileExists((home_ + "/" + name).c_str()), kept) << name;
}

}  // namespace
