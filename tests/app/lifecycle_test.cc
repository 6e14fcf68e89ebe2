// The program's life from process entry to exit on the headless toolkit, first-run form included.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "src/options/session.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/app/workspace.h"
#include "src/organizer/msgwin.h"
#include "src/base/model_events.h"
#include "src/base/tcl_interp.h"
#include "src/options/options.h"
#include "src/send/submit.h"
#include "tests/support/frame_fixture.h"

namespace {

// Which model events reached a notifier, whether the option store could be read then, and General.ExitClean.
struct EventLog { std::vector<int> wanted, types; std::vector<bool> options_readable; std::string exit_clean; };

int LogWant(ModelEvent* ev, void* data) {
  for (int t : static_cast<EventLog*>(data)->wanted)
    if (t == ev->type) return 1;
  return 0;
}

void LogHandle(ModelEvent* ev, void* data) {
  auto* log = static_cast<EventLog*>(data);
  log->types.push_back(ev->type);
  size_t length = 0;
  log->options_readable.push_back(Opt_LookupStringLength("General.TCPConnectOk", kOptSession, &length) != 0);
  if (ev->type == E_ABANDON_SHIP) log->exit_clean = Opt_LookupText("General.ExitClean", kOptPermanent);
}

void Register(EventLog* log, std::vector<int> wanted) {
  log->wanted = std::move(wanted);
  MM_NotRegister(LogWant, LogHandle, log, "test log");
}

class Lifecycle : public UserFrameTest {};

// The option store saves and closes on E_SHIP_SUNK, after the windows had their E_ABANDON_SHIP with the store still
// readable; a window's notifier comes after the store's, so by its E_SHIP_SUNK the store is gone.
TEST_F(Lifecycle, StartsAndStopsInOrder) {
  TraceEverything();
  EventLog log;
  Run({"-b"}, [&] {
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    EXPECT_EQ(SDDE_FullyStarted(), 1);
    Register(&log, {E_ABANDON_SHIP, E_SHIP_SUNK, E_SAVE_DESKTOP});
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
  EXPECT_EQ(log.types, (std::vector<int>{E_SAVE_DESKTOP, E_ABANDON_SHIP, E_SHIP_SUNK}));
  EXPECT_EQ(log.options_readable, (std::vector<bool>{true, true, false}));
}

// A command the front window does not know goes back to the task window,
// which does what it can with it: it never goes round between the two.
TEST_F(Lifecycle, ACommandTheFrontWindowDoesNotKnowEndsAtTheTaskWindow) {
  Run({"-b"}, [&] {
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_MSG_COMPOSE));
    ASSERT_TRUE(xvt_test_find_window("Compose"));
    EXPECT_TRUE(xvt_test_user_command(TASK_WIN, M_MSG_SELECT_ALL));
    Exit();
  });
}

// A window's veto stops the exit without a question; Cancel at the question keeps the program up; the close box
// takes the same road.
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

// The session ends while a network call is under way: nobody is asked, and
// the program ends once the call has returned, never under it.
TEST_F(Lifecycle, SessionEndWaitsForTheCallUnderWay) {
  Run({"-b"}, [&] {
    WIN_start_critical();
    xvt_test_end_session();
    xvt_test_advance_ms(1000);
    EXPECT_TRUE(xvt_test_app_running());
    WIN_end_critical();
    xvt_test_advance_ms(300);
    EXPECT_FALSE(xvt_test_app_running());
    EXPECT_EQ(Posts().find("ask:"), std::string::npos) << Posts();
  });
}

TEST_F(Lifecycle, ExitCleanWordsAreKeptOrRewrittenToPrompt) {
  const std::pair<const char*, const char*> cases[] = {
      {"Never", "Never"}, {"always", "always"}, {"Sometimes", "Prompt"}, {nullptr, "Prompt"}};
  for (const auto& [stored_word, after] : cases) {
    const char* stored = stored_word;  // a lambda cannot take a structured binding
    EventLog log;
    Run({"-b"}, [&] {
      if (stored)
        Opt_AssignString("General.ExitClean", stored, kOptPermanent, 0);
      else
        Opt_Delete("General.ExitClean");
      Register(&log, {E_ABANDON_SHIP});
      Exit();
    });
    EXPECT_EQ(log.exit_clean, after) << (stored ? stored : "(none)");
    xvt_test_reset();
  }
}

// The command line decides the banner, the desktop save and the connection.
TEST_F(Lifecycle, CommandLineWords) {
  struct Case { std::vector<std::string> args; bool banner, desktop_saved; int offline; const char* menu_title; };
  const Case cases[] = {
      {{}, true, true, 0, "~Go Offline"},
      {{"-b", "-s"}, false, false, 0, "~Go Offline"},
      {{"-b", "-c", "disconnected"}, false, true, 1, "~Go Online"},
  };
  for (const auto& c : cases) {
    EventLog log;
    int offline = -1;
    char title[50] = "";
    Run(c.args, [&] {
      Register(&log, {E_SAVE_DESKTOP});
      offline = IsOffline();
      xvt_menu_get_item_title(TASK_WIN, M_GO_ONLINE_OFFLINE, title, sizeof title);
      // The banner is gone once start-up is over.
      for (WINDOW w : xvt_test_windows()) EXPECT_NE(xvt_vobj_get_type(w), W_NO_BORDER);
      Exit();
    });
    const std::string label = c.args.empty() ? "(none)" : c.args.back();
    EXPECT_EQ(Posts().find("image: " + appdir_ + "/banner.bmp") != std::string::npos, c.banner) << label;
    EXPECT_EQ(log.types.size(), c.desktop_saved ? 1u : 0u) << label;
    EXPECT_EQ(offline, c.offline) << label;
    EXPECT_STREQ(title, c.menu_title) << label;
    xvt_test_reset();
  }
  // A file that is not a bitmap means no banner, and start-up goes on.
  WriteFile(appdir_ + "/banner.bmp", "not a bitmap");
  Run({}, [&] {
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    Exit();
  });
}

TEST_F(Lifecycle, GoOfflineAndOnline) {
  EventLog log;
  Run({"-b"}, [&] {
    const int notifiers = MM_NotCount();
    Register(&log, {E_MS_OFFLINE, E_MS_ONLINE});
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_GO_ONLINE_OFFLINE));
    EXPECT_EQ(IsOffline(), 1);
    EXPECT_FALSE(xvt_menu_get_item_enabled(TASK_WIN, M_SEND_QUEUE_NOW));
    EXPECT_FALSE(SDDE_ServerRunning());
    EXPECT_EQ(CENV_GetConnectionMode(), kConnDisconnected);
    // With no remote service there is still the one event for listeners that are not tied to a service.
    EXPECT_EQ(log.types, std::vector<int>{E_MS_OFFLINE});
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_GO_ONLINE_OFFLINE));
    EXPECT_EQ(IsOffline(), 0);
    EXPECT_TRUE(xvt_menu_get_item_enabled(TASK_WIN, M_SEND_QUEUE_NOW));
    EXPECT_TRUE(SDDE_ServerRunning());
    EXPECT_EQ(Option("Compose.QueueOutgoing"), "FALSE");
    // A reinit rebuilds the store and keeps one of each of the program's notifiers.
    Opt_AssignString("Test.Session", "x", kOptSession, 0);
    for (int i = 0; i < 2; ++i) ReinitWorkspace();
    EXPECT_EQ(Option("Test.Session"), "(none)");
    EXPECT_NE(Option("General.TCPConnectOk"), "(none)");
    EXPECT_EQ(MM_NotCount(), notifiers);
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    Exit();
  });
}

TEST_F(Lifecycle, StartRefusals) {
  // Nobody, root included, can create files in /proc/self.
  setenv("VELMAR_HOME", "/proc/self", 1);
  Run({"-b"}, [] { ADD_FAILURE() << "the program should not have started"; });
  EXPECT_NE(Posts().find("error: You have specified a working directory that you do not have permission to write "
                         "to. Please change your working directory and restart Velmar."),
            std::string::npos)
      << Posts();
  setenv("VELMAR_HOME", home_.c_str(), 1);
  ResetDirectories();
  // A second program on the same directory stops; once the first has gone, the directory is free again.
  int fd = ::open((home_ + "/.velmar.lock").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::flock(fd, LOCK_EX), 0);
  Run({"-b"}, [] { ADD_FAILURE() << "the second program should not have started"; });
  EXPECT_NE(Posts().find("error: Velmar is already running with the directory " + home_), std::string::npos) << Posts();
  ::close(fd);
  // Stale temporary files are cleaned at start.
  const std::pair<const char*, bool> files[] = {{"t12.tmp", false}, {"t.tmp", false}, {"notes.tmp", true}, {"t12.tmpx", true}};
  for (const auto& [name, kept] : files) WriteFile(home_ + "/" + name, "x");
  Run({"-b"}, [&] { Exit(); });
  for (const auto& [name, kept] : files) EXPECT_EQ(FileExists((home_ + "/" + name).c_str()), kept) << name;
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

// The first-run setup form of startup.tcl, end to end: the whole program on a fresh home, driven as a user would.
constexpr int kNameEdit = 103;
constexpr int kAddressEdit = 105;
constexpr int kOkButton = 106;

bool Known(const char* name) { return Tcl_GetVar2Ex(task_interp, "windows", name, TCL_GLOBAL_ONLY) != nullptr; }

class FirstRunForm : public FrameTest {
 protected:
  // Runs the program on the fresh home; body gets the setup window.
  void WithSetup(std::function<void(WINDOW setup)> body) {
    Run({"-b"}, [&] {
      WINDOW setup = xvt_test_find_window("Velmar Setup");
      ASSERT_TRUE(setup);
      body(setup);
    });
  }

  std::string Notes() const {
    std::string out;
    for (const XvtPost& p : xvt_test_posts())
      if (p.kind == "note" || p.kind == "error") out += p.kind + ": " + p.text + "\n";
    return out;
  }
};

TEST_F(FirstRunForm, LaysTheFormOutBelowTheHeadingInsideTheWindow) {
  WithSetup([&](WINDOW setup) {
    const int ids[] = {101, 102, kNameEdit, 104, kAddressEdit, kOkButton};
    RCT previous{0, 0, 0, 0};
    for (int id : ids) {
      WINDOW ctl = xvt_win_get_ctl(setup, id);
      ASSERT_TRUE(ctl) << id;
      RCT r{};
      xvt_vobj_get_outer_rect(ctl, &r);
      EXPECT_TRUE(r.top >= 70 && r.left >= 0 && r.right <= 400 && r.bottom <= 300 && r.bottom > r.top) << id;
      // Rows go down the window: an edit may share its row with its label.
      EXPECT_TRUE(id == kNameEdit || id == kAddressEdit || r.top >= previous.bottom) << id;
      previous = r;
    }
    // The user starts typing in the name.
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, kNameEdit));
    EXPECT_FALSE(xvt_test_find_window("Message Organizer"));
    EXPECT_EQ(SDDE_FullyStarted(), 0);
    // The heading is painted centred, in the large font.
    bool heading = false;
    for (const XvtDrawOp& op : xvt_test_paint(setup))
      if (op.op == "text" && op.text == "Welcome to Velmar") {
        heading = true;
        EXPECT_EQ(op.font, "sans-serif 40 1");
        EXPECT_EQ(op.rct.left, (400 - 17 * 8) / 2);
      }
    EXPECT_TRUE(heading);
  });
}

// Incomplete answers give a note and keep the form; complete ones, given with OK or with Enter, are stored trimmed
// and open the organizer.
TEST_F(FirstRunForm, AnswersAreCheckedStoredAndSaved) {
  const struct { const char *name, *address, *note; int focus; } cases[] = {
      {"", "", "Please enter your full name and your mail address.", kNameEdit},
      {"  ", "ann@example.org", "Please enter your full name.", kNameEdit},
      {"Ann Example", " ", "Please enter your mail address.", kAddressEdit},
      {"Ann Example", "@example.org", "\"@example.org\" is not a complete mail address.", kAddressEdit},
      {"Ann Example", "ann@", "\"ann@\" is not a complete mail address.", kAddressEdit},
      {"Ann Example", "ann example@org", "\"ann example@org\" is not a complete mail address.", kAddressEdit},
  };
  WithSetup([&](WINDOW setup) {
    for (const auto& c : cases) {
      xvt_test_clear_posts();
      xvt_test_type(setup, kNameEdit, c.name);
      xvt_test_type(setup, kAddressEdit, c.address);
      ASSERT_TRUE(xvt_test_click(setup, kOkButton));
      EXPECT_EQ(Notes().rfind(std::string("note: ") + c.note, 0), 0u) << Notes();
      EXPECT_EQ(xvt_test_find_window("Velmar Setup"), setup) << c.address;
      EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, c.focus)) << c.address;
      EXPECT_EQ(Option("General.Fullname", kOptPermanent), "(none)");
      EXPECT_EQ(SDDE_FullyStarted(), 0);
    }
    // Enter in the name moves to the address; Enter in the address is OK.
    xvt_test_clear_posts();
    ASSERT_TRUE(xvt_test_type(setup, kNameEdit, "  Ann Example "));
    ASSERT_TRUE(xvt_test_type(setup, kAddressEdit, " ann@example.org"));
    xvt_scr_set_focus_vobj(xvt_win_get_ctl(setup, kNameEdit));
    xvt_test_key(setup, K_ENTER);
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, kAddressEdit));
    xvt_test_key(setup, K_ENTER);
    EXPECT_FALSE(xvt_test_find_window("Velmar Setup"));
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    EXPECT_EQ(SDDE_FullyStarted(), 1);
    EXPECT_EQ(Option("General.Fullname", kOptPermanent) + "|" + Option("General.MailAddress", kOptPermanent),
              "Ann Example|ann@example.org");
    EXPECT_EQ(Notes(), "");
    // The form's entries went with the window.
    for (const char* name : {"startupwin", "startup_name", "startup_ok"}) EXPECT_FALSE(Known(name)) << name;
    // File > Exit, and the answers are saved with the other options.
    xvt_test_push_answer(RESP_DEFAULT);
    ASSERT_TRUE(xvt_test_user_command(TASK_WIN, M_FILE_QUIT));
  });
  std::string saved = ReadFile(home_ + "/default.tcl");
  EXPECT_NE(saved.find("option General.Fullname \"Ann Example\""), std::string::npos) << saved;
  EXPECT_NE(saved.find("ann@example.org"), std::string::npos) << saved;
  // A fresh home gets local folders that keep drafts and sent mail.
  for (const char* line : {"option MsgService.ms1.Type \"local\"", "option Compose.DraftFolder \"Local Folders!drafts\""})
    EXPECT_NE(saved.find(line), std::string::npos) << line << "\n" << saved;
  // The next start goes straight to the organizer.
  xvt_test_reset();
  Run({"-b"}, [&] {
    EXPECT_FALSE(xvt_test_find_window("Velmar Setup"));
    EXPECT_TRUE(xvt_test_find_window("Message Organizer"));
    Exit();
  });
}

TEST_F(FirstRunForm, KnownValuesArePrefilled) {
  // A site that sets the name but not the address still runs the setup.
  std::ofstream(appdir_ + "/sysdflt.tcl", std::ios::app) << "option -default General.Fullname {Site User}\n";
  WithSetup([&](WINDOW setup) {
    EXPECT_EQ(Title(xvt_win_get_ctl(setup, kNameEdit)) + "|" + Title(xvt_win_get_ctl(setup, kAddressEdit)),
              "Site User|");
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, kAddressEdit));
    EXPECT_EQ(Notes(), "");
  });
}

}  // namespace
