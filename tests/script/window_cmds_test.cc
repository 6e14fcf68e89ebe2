// The window commands and the script window handler, through the program's own interpreter on the headless toolkit.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/base/keyed_list.h"
#include "src/base/tcl_interp.h"
#include "tests/support/frame_fixture.h"
#include "xvt/common/win_records.h"

namespace {

// One control of most kinds. The Tab order is first, second, ok, check, r1, r2, list: the label can't take the
// focus and "off" is disabled.
const char* kTestWindow = R"(
_xvt_create_window W_DOC {10 20 310 220} {Test Window} TASK_WIN {WSF_CLOSE WSF_SIZE} w
_xvt_create_control WC_EDIT {10 10 200 34} {} w 0 first 1
_xvt_create_control WC_TEXT {10 40 200 56} Label w 0 label 2
_xvt_create_control WC_EDIT {10 60 200 84} {} w 0 second 3
_xvt_create_control WC_EDIT {10 90 200 114} {} w CTL_FLAG_DISABLED off 4
_xvt_create_control WC_PUSHBUTTON {10 120 90 146} OK w CTL_FLAG_DEFAULT ok 5
_xvt_create_control WC_CHECKBOX {10 150 200 170} Check w 0 check 6
_xvt_create_control WC_RADIOBUTTON {10 170 100 190} One w 0 r1 7
_xvt_create_control WC_RADIOBUTTON {100 170 200 190} Two w 0 r2 8
_xvt_create_control WC_LBOX {210 10 290 100} {} w 0 list 9
)";

struct Case { const char* script; std::string expected; };

std::string PtrText(WINDOW w) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(w));
  return text;
}

bool SendKey(WINDOW w, int ch, bool shift = false) {
  EVENT ev = xvtrec::MakeEvent(E_CHAR);
  ev.v.chr.ch = ch;
  ev.v.chr.shift = shift;
  return xvt_test_user_event(w, &ev);
}

class WindowCommands : public UserFrameTest {
 protected:
  // Runs the program with the test window built; body runs once it is up.
  void WithTestWindow(std::function<void(WINDOW w)> body) {
    Run({"-b"}, [&] {
      ASSERT_EQ(Eval(kTestWindow).substr(0, 3), "ok:") << Tcl_GetStringResult(task_interp);
      ASSERT_TRUE(Named("w"));
      body(Named("w"));
    });
  }

  // "ok: result" or "error: result".
  static std::string Eval(const std::string& script) {
    int code = Tcl_EvalEx(task_interp, script.c_str(), -1, TCL_EVAL_GLOBAL);
    return std::string(code == TCL_OK ? "ok: " : "error: ") + Tcl_GetStringResult(task_interp);
  }

  static bool Known(const std::string& name) {
    return Tcl_GetVar2Ex(task_interp, "windows", name.c_str(), TCL_GLOBAL_ONLY) != nullptr;
  }

  // The toolkit object that windows(name) points at.
  static WINDOW Named(const std::string& name) {
    Tcl_Obj* entry = Tcl_GetVar2Ex(task_interp, "windows", name.c_str(), TCL_GLOBAL_ONLY);
    Tcl_Obj* ptr = nullptr;
    std::string error;
    if (!entry || KeylGet(entry, "windowptr", &ptr, &error) != kKeylFound) return NULL_WIN;
    for (WINDOW w : xvt_test_windows())
      if (PtrText(w) == Tcl_GetString(ptr)) return w;
    return NULL_WIN;
  }

  static std::string LastPost() {
    const auto& posts = xvt_test_posts();
    return posts.empty() ? "" : posts.back().kind + ": " + posts.back().text;
  }
};

TEST_F(WindowCommands, CreatingEntersWindowsAndKidlist) {
  Run({"-b"}, [&] {
    // winmapped runs once the window's entry exists.
    Eval("proc winmapped {name} {global windows mapped; lappend mapped $name [info exists windows($name)]}");
    std::string made = Eval("_xvt_create_window W_DOC {10 20 310 220} {Test Window} TASK_WIN WSF_CLOSE w");
    WINDOW w = Named("w");
    ASSERT_TRUE(w);
    EXPECT_EQ(made, "ok: " + PtrText(w));
    EXPECT_EQ(xvt_vobj_get_type(w), W_DOC);
    EXPECT_EQ(xvt_vobj_get_parent(w), TASK_WIN);
    EXPECT_EQ(Eval("list $mapped [keylget $windows(w) winname] [keylget $windows(w) type]"), "ok: {w 1} w W_DOC");

    // The kinds the test window below doesn't have; what it has, the tests of its controls use.
    const struct { const char* word; WIN_TYPE type; } controls[] = {
        {"WC_GROUPBOX", WC_GROUPBOX}, {"WC_LISTBUTTON", WC_LISTBUTTON}, {"WC_LISTEDIT", WC_LISTEDIT}};
    std::string kids;
    int id = 10;
    for (const auto& c : controls) {
      std::string name = std::string("c_") + c.word, n = std::to_string(++id);
      std::string made_ctl = Eval(std::string("_xvt_create_control ") + c.word + " {5 5 100 25} t w 0 " + name + " " + n);
      WINDOW ctl = Named(name);
      ASSERT_TRUE(ctl) << made_ctl;
      EXPECT_EQ(made_ctl, "ok: " + PtrText(ctl));
      EXPECT_EQ(xvt_vobj_get_type(ctl), c.type) << c.word;
      EXPECT_EQ(xvt_win_get_ctl(w, id), ctl) << c.word;
      std::string keys = "keylget $windows(" + name + ") ";
      EXPECT_EQ(Eval("list [" + keys + "type] [" + keys + "id] [" + keys + "parent] [" + keys + "command] [" + keys +
                     "entercommand]"),
                "ok: " + std::string(c.word) + " " + n + " w {} {}");
      kids += (kids.empty() ? "" : " ") + name;
    }
    EXPECT_EQ(Eval("keylget $windows(w) kidlist"), "ok: " + kids);

    // A command set before the control exists is kept.
    Eval("keylset windows(early) command {set ::early 1}");
    Eval("_xvt_create_control WC_PUSHBUTTON {0 0 10 10} Early w 0 early 40");
    EXPECT_EQ(Eval("keylget $windows(early) command"), "ok: set ::early 1");

    // A parent the scripts don't know makes a top-level window.
    Eval("_xvt_create_window W_PLAIN {0 0 100 100} Loose nosuch 0 loose");
    EXPECT_EQ(xvt_vobj_get_parent(Named("loose")), SCREEN_WIN);
    Eval("_xvt_create_window W_PLAIN {0 0 100 100} Inner w 0 inner");
    EXPECT_EQ(xvt_vobj_get_parent(Named("inner")), w);
  });
}

TEST_F(WindowCommands, BadCallsGiveClearErrorsAndLeaveNothingBehind) {
  WithTestWindow([&](WINDOW) {
    for (const char* s : {"_xvt_create_window W_DOC {0 0 10 10} t TASK_WIN 0", "_xvt_create_control WC_EDIT r t w 0 n",
                          "_xvt_checkbox SET w 6", "_xvt_checkbox FLIP w 6 1", "_xvt_list w 9",
                          "_xvt_list w 9 count extra", "_xvt_focus", "txeditctl x", "change_debug_level all"}) {
      std::string name(s, std::strcspn(s, " "));
      EXPECT_EQ(Eval(s), "error: " + name + ": wrong # of args") << s;
    }
    const Case cases[] = {
        {"_xvt_create_window W_DIALOG {0 0 10 10} t TASK_WIN 0 x",
         "error: _xvt_create_window: unknown window type \"W_DIALOG\""},
        {"_xvt_create_window W_DOC {10 0 0 10} t TASK_WIN 0 x",
         "error: _xvt_create_window: bad rectangle \"10 0 0 10\": must be \"left top right bottom\""},
        {"_xvt_create_window W_DOC {0 0 10 10} t TASK_WIN {WSF_CLOSE WSF_BOGUS} x",
         "error: _xvt_create_window: unknown flag \"WSF_BOGUS\""},
        {"_xvt_create_window W_DOC {0 0 10 10} t TASK_WIN 0 w", "error: _xvt_create_window: the name \"w\" is in use"},
        {"_xvt_create_control WC_EDIT {0 0 10 10} t nosuch 0 ed 20",
         "error: _xvt_create_control: unknown window \"nosuch\""},
        {"_xvt_create_control WC_EDIT {0 0 10 10} t first 0 ed 20",
         "error: _xvt_create_control: \"first\" is a control, not a window"},
        {"_xvt_create_control WC_EDIT {0 0 10 10} t w 0 first 20",
         "error: _xvt_create_control: the name \"first\" is in use"},
        {"_xvt_create_control WC_EDIT {0 0 10 10} t w 0 ed 1",
         "error: _xvt_create_control: window \"w\" already has a control with id 1"},
        {"_xvt_get_ctl_title w 99", "error: _xvt_get_ctl_title: no control \"99\" in window \"w\""},
        {"keylset windows(ghost) windowptr 0xdead; _xvt_show_win ghost",
         "error: _xvt_show_win: window \"ghost\" no longer exists"},
        {"_xvt_checkbox FLIP w 1", "error: _xvt_checkbox: control \"1\" is not a check box"},
        {"_xvt_close_win TASK_WIN", "error: _xvt_close_win: window \"TASK_WIN\" belongs to the program"},
        {"change_debug_level loud 1",
         "error: change_debug_level: unknown level \"loud\": must be none, critical, high, medium, low or all"},
    };
    for (const Case& c : cases) EXPECT_EQ(Eval(c.script), c.expected) << c.script;
    EXPECT_FALSE(Known("x"));
    EXPECT_FALSE(Known("ed"));
    EXPECT_EQ(Eval("keylget $windows(w) kidlist"), "ok: first label second off ok check r1 r2 list");
  });
}

TEST_F(WindowCommands, ControlAndWindowOperations) {
  WithTestWindow([&](WINDOW w) {
    std::vector<Case> cases = {
        {"_xvt_list w 9 add apple; _xvt_list w 9 add cherry; _xvt_list w 9 add banana 1; _xvt_list w 9 count", "ok: 3"},
        {"_xvt_list w 9 item 1", "ok: banana"},
        {"_xvt_list w 9 select 2; _xvt_list w 9 selected", "ok: 2"},
        {"_xvt_list w 9 delete 0; list [_xvt_list w 9 count] [_xvt_list w 9 item 0] [_xvt_list w 9 selected]",
         "ok: 2 banana 1"},
        {"_xvt_list w 9 select 1 0; _xvt_list w 9 selected", "ok: "},
        {"_xvt_list w 9 item 5", "error: listboxcmd: no item \"5\""},
        {"_xvt_list w 9 suspend; _xvt_list w 9 add {two words}; _xvt_list w 9 resume; _xvt_list w 9 item 2",
         "ok: two words"},
        {"_xvt_list w 9 clear; _xvt_list w 9 count", "ok: 0"},
        {"_xvt_list nosuch 9 count", "error: listboxcmd: bad window"},
        {"_xvt_list w 99 count", "error: listboxcmd: bad window"},
        {"_xvt_list w 1 count", "error: listboxcmd: bad window"},  // an edit, not a list
        {"list [_xvt_checkbox GET w 6] [_xvt_checkbox FLIP w 6] [_xvt_checkbox FLIP w check]", "ok: 0 1 0"},
        {"list [_xvt_checkbox SET w 6 yes] [_xvt_checkbox GET w 6] [_xvt_checkbox SET w 6 0]", "ok: 1 1 0"},
        {"list [_xvt_radiobutton GET w {7 8}] [_xvt_radiobutton SET w {7 8}] [_xvt_radiobutton GET w {7 8}]",
         "ok: 0 7 7"},
        {"list [_xvt_radiobutton SET w {r2 r1}] [_xvt_radiobutton GET w {7 8}]", "ok: 8 8"},
        {"_xvt_radiobutton SET w {7 6}", "error: _xvt_radiobutton: control \"6\" is not a radio button"},
        {"_xvt_set_ctl_title w second {hello [world]}; _xvt_get_ctl_title w 3", "ok: hello [world]"},
        {"_xvt_get_ctl_title w label", "ok: Label"},
        {"_xvt_get_client_rect w", "ok: 0 0 300 200"},
        {"list [_xvt_focus w label] [_xvt_focus w off] [_xvt_focus w second]", "ok: 0 0 1"},
        {"_xvt_enable_ctl w second 0; _xvt_focus second", "ok: 0"},
        {"_xvt_enable_ctl w 3; _xvt_show_win first 0; list [_xvt_focus second] [_xvt_focus w 1]", "ok: 1 0"},
        {"_xvt_show_win first; _xvt_select_text w first; _xvt_enable_win w false", "ok: "},
        {"list [ideal_height label] [ideal_height checkbox] [ideal_height radiobutton] [ideal_height edit] "
         "[ideal_height button]",
         "ok: 18 20 20 24 26"},
        {"change_debug_level medium 1024", "ok: "},
    };
    xvt_test_push_text("/tmp/chosen.frm");
    xvt_test_push_text(nullptr);
    cases.push_back({"list [get_filename {Select form file...}] [get_filename {Select form file...} /tmp]",
                     "ok: /tmp/chosen.frm {}"});
    for (const Case& c : cases) EXPECT_EQ(Eval(c.script), c.expected) << c.script;
    EXPECT_FALSE(xvt_ctl_is_checked(xvt_win_get_ctl(w, 7)));
    EXPECT_TRUE(xvt_ctl_is_checked(xvt_win_get_ctl(w, 8)));
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(w, 1));  // from _xvt_select_text
    EXPECT_FALSE(xvt_vobj_is_enabled(w));
    EXPECT_EQ(Option("Debugging.Level") + " " + std::to_string(TraceGetThreshold()) + " " +
                  std::to_string(TraceGetSubsystem()),
              "medium 5 1024");
    // A control of another window is not this window's.
    Eval("_xvt_create_window W_DOC {0 0 100 100} Other TASK_WIN 0 w2; "
         "_xvt_create_control WC_EDIT {0 0 50 20} elsewhere w2 0 other 1");
    EXPECT_EQ(Eval("_xvt_get_ctl_title w other"), "error: _xvt_get_ctl_title: no control \"other\" in window \"w\"");
  });
}

// Editor fields are the editor's windows, not toolkit controls: scripts
// still name them, read and set them, and Tab and typing reach the scripts.
TEST_F(WindowCommands, EditorFieldsTakeTextFocusAndCommands) {
  WithTestWindow([&](WINDOW w) {
    const Case cases[] = {
        {"_xvt_create_control TXEDITLINE {210 110 290 130} {first text} w 0 ed 20", "ok: "},
        {"_xvt_create_control TXEDIT {210 140 290 190} {} w 0 big 21", "ok: "},
        {"list [keylget $windows(ed) type] [keylget $windows(big) id] [lrange [keylget $windows(w) kidlist] end-1 end]",
         "ok: TXEDITLINE 21 {ed big}"},
        {"txeditctl ed get", "ok: first text"},
        {"txeditctl ed set {a [b]}; txeditctl ed get", "ok: a [b]"},
        {"txeditctl big set \"one\ntwo\"; txeditctl big get", "ok: one\ntwo"},
        {"txeditctl ed frob", "error: unknown txeditctl subcommand"},
        {"txeditctl ed set", "error: txeditctl: wrong # of args"},
        {"txeditctl first get", "error: txeditctl: \"first\" is not an editor control"},
        {"_xvt_create_control TXEDIT {0 0 10 10} t w 0 dup 21",
         "error: _xvt_create_control: window \"w\" already has a control with id 21"},
        {"_xvt_create_control WC_EDIT {0 0 10 10} t ed 0 inner 30",
         "error: _xvt_create_control: \"ed\" is a control, not a window"},
        {"list [_xvt_focus w ed] [_xvt_focus w 21]", "ok: 1 1"},
        {"_xvt_editfont", "ok: mono 14"},
    };
    for (const Case& c : cases) EXPECT_EQ(Eval(c.script).substr(0, c.expected == "ok: " ? 4 : std::string::npos), c.expected)
        << c.script;
    // Tab leaves both kinds of field for the next control, round the end.
    xvt_scr_set_focus_vobj(Named("ed"));
    SendKey(Named("ed"), K_TAB);
    EXPECT_EQ(xvt_scr_get_focus_vobj(), Named("big"));
    SendKey(Named("big"), K_TAB);
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(w, 1));
    // What the user types runs the field's command; _xvt_focus left the
    // caret behind the text.
    Eval("keylset windows(ed) command {lappend ::typed [txeditctl ed get]}");
    EVENT ev = xvtrec::MakeEvent(E_CHAR);
    ev.v.chr.ch = '!';
    ev.v.chr.text = true;
    xvt_test_user_event(Named("ed"), &ev);
    EXPECT_EQ(Eval("set ::typed"), "ok: {a [b]!}");
    EXPECT_EQ(Eval("_xvt_close_win ed; list [info exists windows(ed)] [keylget $windows(w) kidlist]"),
              "ok: 0 {first label second off ok check r1 r2 list big}");
  });
}

TEST_F(WindowCommands, ControlsRunTheirCommandsNamesStayWordsAndErrorsAreShown) {
  WithTestWindow([&](WINDOW w) {
    Eval("keylset windows(ok) command {lappend ::ran ok}");
    Eval("keylset windows(check) command {lappend ::ran [_xvt_checkbox GET w 6]}");
    Eval("keylset windows(second) entercommand {lappend ::ran enter-second}");
    Eval("keylset windows(w) entercommand {lappend ::ran enter-window}");
    ASSERT_TRUE(xvt_test_click(w, 5));
    ASSERT_TRUE(xvt_test_click(w, 6));
    ASSERT_TRUE(xvt_test_click(w, 7));  // no command: nothing
    // Enter: the focused control's entercommand, else the window's.
    xvt_scr_set_focus_vobj(xvt_win_get_ctl(w, 3));
    SendKey(w, K_ENTER);
    xvt_scr_set_focus_vobj(xvt_win_get_ctl(w, 1));
    SendKey(w, K_ENTER);
    EXPECT_EQ(Eval("set ::ran"), "ok: ok 1 enter-second enter-window");

    // Names are single words whatever they hold: nothing in them runs.
    const char* odd = R"(
      set ::ran {}
      set n {odd [set ::hit 1] $name}
      _xvt_create_window W_PLAIN {0 0 100 100} t TASK_WIN 0 $n
      _xvt_create_control WC_PUSHBUTTON {0 0 50 20} b $n 0 "$n button" 1
      _xvt_create_control WC_EDIT {0 30 50 50} {} $n 0 "$n edit" 2
      keylset windows($n\ button) command {lappend ::ran odd}
      keylset windows($n\ edit) entercommand {lappend ::ran enter}
      proc windestroyed {name} {lappend ::ran "gone $name"}
    )";
    ASSERT_EQ(Eval(odd).substr(0, 3), "ok:") << Tcl_GetStringResult(task_interp);
    WINDOW o = Named("odd [set ::hit 1] $name");
    ASSERT_TRUE(o);
    ASSERT_TRUE(xvt_test_click(o, 1));
    xvt_scr_set_focus_vobj(xvt_win_get_ctl(o, 2));
    SendKey(o, K_ENTER);
    SendKey(o, K_TAB);
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(o, 1));
    Eval("_xvt_close_win $n");
    EXPECT_EQ(Eval("list $::ran [info exists ::hit]"), "ok: {odd enter {gone odd [set ::hit 1] $name}} 0");

    // Script errors are shown, and the program goes on.
    Eval("keylset windows(ok) command {error {the command failed}}");
    ASSERT_TRUE(xvt_test_click(w, 5));
    EXPECT_EQ(LastPost(), "error: the command failed");
    Eval("proc winmapped {name} {error \"cannot map $name\"}");
    EXPECT_EQ(Eval("_xvt_create_window W_PLAIN {0 0 50 50} Pane TASK_WIN 0 pane").substr(0, 3), "ok:");
    EXPECT_EQ(LastPost(), "error: cannot map pane");
    EXPECT_TRUE(Named("pane"));
    EXPECT_TRUE(xvt_test_app_running());
  });
}

TEST_F(WindowCommands, TabAndShiftTabMoveTheFocusAlongTheKidlist) {
  WithTestWindow([&](WINDOW w) {
    xvt_scr_set_focus_vobj(TASK_WIN);  // outside: Tab starts at the first control
    const struct { int ch; bool shift; int expected_id; } steps[] = {
        {K_TAB, false, 1},  {K_TAB, false, 3},  // past the label...
        {K_TAB, false, 5},                      // ...and the disabled edit
        {K_BTAB, false, 3}, {K_TAB, true, 1},   // back, by either code
        {K_BTAB, false, 9}, {K_TAB, false, 1},  // round both ends
    };
    for (const auto& s : steps) {
      ASSERT_TRUE(SendKey(w, s.ch, s.shift));
      EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(w, s.expected_id)) << "expected control " << s.expected_id;
    }
    // An edit reached by Tab has its text selected, so typing replaces it.
    EXPECT_TRUE(xvt_test_text_sel(xvt_win_get_ctl(w, 1), nullptr, nullptr));
    // A window inside a container hands Tab on to the container.
    Eval("_xvt_create_window W_PLAIN {0 0 50 50} Pane w 0 pane");
    EXPECT_EQ(Eval("_container_next_focus pane"), "ok: 1");
    EXPECT_EQ(xvt_scr_get_focus_vobj(), xvt_win_get_ctl(w, 3));
    EXPECT_EQ(Eval("_container_next_focus w"), "ok: 0");
  });
}

TEST_F(WindowCommands, ClosingForgetsTheWindowAndItsControls) {
  WithTestWindow([&](WINDOW w) {
    Eval("proc windestroyed {name} {global windows; lappend ::gone $name [info exists windows($name)]}");
    // A control on its own leaves windows and its window's kidlist.
    EXPECT_EQ(Eval("_xvt_close_win ok"), "ok: ");
    EXPECT_FALSE(xvt_win_get_ctl(w, 5));
    EXPECT_FALSE(Known("ok"));
    EXPECT_EQ(Eval("keylget $windows(w) kidlist"), "ok: first label second off check r1 r2 list");

    EXPECT_EQ(Eval("_xvt_close_win w"), "ok: ");
    EXPECT_FALSE(xvt_vobj_is_valid(w));
    EXPECT_EQ(Eval("set ::gone"), "ok: w 1");
    for (const char* name : {"w", "first", "label", "second", "off", "check", "r1", "r2", "list"})
      EXPECT_FALSE(Known(name)) << name;
    EXPECT_TRUE(Known("TASK_WIN"));

    // The close box does the same, for a window made again under the name.
    ASSERT_EQ(Eval(kTestWindow).substr(0, 3), "ok:");
    WINDOW again = Named("w");
    EVENT close = xvtrec::MakeEvent(E_CLOSE);
    xvt_test_user_event(again, &close);
    EXPECT_FALSE(xvt_vobj_is_valid(again));
    EXPECT_FALSE(Known("w"));
    EXPECT_FALSE(Known("first"));
  });
}

}  // namespace
