// The first-run setup form of startup.tcl, end to end: the whole program on a fresh home, driven as a user would.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "src/app/workspace.h"
#include "src/options/options.h"
#include "src/base/tcl_interp.h"
#include "src/send/submit.h"
#include "tests/support/frame_fixture.h"

namespace {

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
    EVENT enter{};
    enter.type = E_CHAR;
    enter.v.chr.ch = K_ENTER;
    xvt_test_user_event(setup, &enter);
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, kAddressEdit));
    xvt_test_user_event(setup, &enter);
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
    char name[100], address[100];
    xvt_vobj_get_title(xvt_win_get_ctl(setup, kNameEdit), name, sizeof name);
    EXPECT_EQ(std::string(name) + "|" + xvt_vobj_get_title(xvt_win_get_ctl(setup, kAddressEdit), address, 100), "Site User|");
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(setup, kAddressEdit));
    EXPECT_EQ(Notes(), "");
  });
}

}  // namespace
