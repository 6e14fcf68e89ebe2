// The Qt backend's dialogs, controls, questions and automation script, on Qt's offscreen platform.
#include <QComboBox>

#include <algorithm>
#include <fstream>

#include "xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

QAbstractButton* Button(WINDOW dlg, int id) {
  WINDOW c = xvt_win_get_ctl(dlg, id);
  return c ? qobject_cast<QAbstractButton*>(c->outer.data()) : nullptr;
}

bool Checked(WINDOW dlg, int id) { return xvt_ctl_is_checked(xvt_win_get_ctl(dlg, id)); }

enum { kCheck = 10, kOk = 11, kEdit = 12, kRadio = 13 };
const WIN_DEF kDialogDef[] = {
    {W_MODAL, {100, 100, 400, 260}, "Options", 0, 0},          {WC_CHECKBOX, {10, 10, 200, 30}, "~Wrap", kCheck, 0},
    {WC_RADIOBUTTON, {10, 40, 200, 70}, "~Plain", kRadio, 0},  {WC_EDIT, {10, 80, 200, 110}, "name", kEdit, 0},
    {WC_PUSHBUTTON, {220, 120, 290, 150}, "OK", kOk, CTL_FLAG_DEFAULT}, {W_NONE, {}, nullptr, 0, 0}};

std::vector<std::string> g_log;

long DialogEh(WINDOW dlg, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE:
      g_log.push_back(xvt_win_get_ctl(dlg, kCheck) && xvt_win_get_ctl(dlg, kOk) && xvt_win_get_ctl(dlg, kEdit)
                          ? "controls"
                          : "no controls");
      // The program's own changes are not the user's: no E_CONTROL.
      xvt_ctl_set_checked(xvt_win_get_ctl(dlg, kCheck), true);
      xvt_vobj_set_title(xvt_win_get_ctl(dlg, kEdit), "changed");
      QTimer::singleShot(0, g_ctx, [dlg] {
        Button(dlg, kCheck)->click();  // clears what the program checked
        Button(dlg, kRadio)->click();
        Button(dlg, kRadio)->click();  // a radio button is never cleared by clicking it
        g_log.push_back("checked " + std::to_string(Checked(dlg, kCheck)) + std::to_string(Checked(dlg, kRadio)));
        Key(xvt_win_get_ctl(dlg, kEdit)->outer, Qt::Key_X, "x");
        Button(dlg, kOk)->click();
      });
      break;
    case E_CONTROL:
      if (!ev->v.ctl.ci.v.edit.focus_change || ev->v.ctl.ci.type != WC_EDIT)
        g_log.push_back("control " + std::to_string(ev->v.ctl.id));
      EXPECT_EQ(ev->v.ctl.ci.win, xvt_win_get_ctl(dlg, ev->v.ctl.id));
      if (ev->v.ctl.id == kOk) xvt_vobj_destroy(dlg);
      break;
    case E_DESTROY: g_log.push_back("destroy"); break;
    default: break;
  }
  return 0;
}

TEST_F(XvtQt, ModalDialogReportsUserClicksOnlyAndEndsWhenDestroyed) {
  xvt_res_register_dialog(kDialog, kDialogDef);
  g_log.clear();
  RunApp([] {
    WINDOW shown = xvt_dlg_create_res(W_MODAL, kDialog, EM_ALL, DialogEh, 0);
    // Back here only once the dialog is gone.
    g_log.push_back(shown && !xvt_vobj_is_valid(shown) ? "returned" : "returned early");
  });
  EXPECT_EQ(g_log, (std::vector<std::string>{"controls", "control 10", "control 13", "control 13", "checked 01",
                                             "control 12", "control 11", "destroy", "returned"}));
}

TEST_F(XvtQt, ListControlsKeepProgramSelectionsSilent) {
  RunApp([] {
    std::vector<EVENT>& log = NewLog();
    WINDOW win = Win(SCREEN_WIN, {0, 0, 400, 300}, &log);
    int id = 1;
    for (WIN_TYPE type : {WC_LBOX, WC_LISTBUTTON, WC_LISTEDIT}) {
      SCOPED_TRACE(type);
      RCT cr{10, 10 + 40 * id, 200, 40 + 40 * id};
      WINDOW ctl = xvt_ctl_create(type, &cr, "", win, 0, id++);
      ASSERT_NE(ctl, NULL_WIN);
      EXPECT_TRUE(xvt_list_add(ctl, -1, "beta") && xvt_list_add(ctl, 0, "alpha") && xvt_list_add(ctl, -1, "gamma"));
      EXPECT_EQ(xvt_list_get_sel_index(ctl), -1) << "adding selects nothing";
      xvt_list_set_sel(ctl, 2, true);
      EXPECT_TRUE(xvt_list_is_sel(ctl, 2));
      char buf[32];
      ASSERT_NE(xvt_list_get_elt(ctl, 0, buf, sizeof buf), nullptr);
      EXPECT_STREQ(buf, "alpha");
      EXPECT_EQ(xvt_list_get_elt(ctl, 3, buf, sizeof buf), nullptr);
      if (type != WC_LBOX) {
        EXPECT_STREQ(xvt_vobj_get_title(ctl, buf, sizeof buf), "gamma") << "it shows its choice";
      }
      EXPECT_TRUE(xvt_list_rem(ctl, 0) && !xvt_list_rem(ctl, 5));
      EXPECT_EQ(xvt_list_count_all(ctl), 2);
      xvt_list_clear(ctl);
      EXPECT_EQ(xvt_list_count_all(ctl) + xvt_list_get_sel_index(ctl), -1);
    }
    EXPECT_TRUE(OfType(log, E_CONTROL).empty());
    // A user's choice is reported.
    WINDOW combo = xvt_win_get_ctl(win, 2);
    xvt_list_add(combo, -1, "one");
    xvt_list_add(combo, -1, "two");
    auto* box = qobject_cast<QComboBox*>(combo->outer.data());
    box->setCurrentIndex(1);
    emit box->activated(1);
    auto controls = OfType(log, E_CONTROL);
    ASSERT_EQ(controls.size(), 1u);
    EXPECT_EQ(controls[0].v.ctl.id, 2);
    EXPECT_FALSE(controls[0].v.ctl.ci.v.lbox.dbl_click);
  });
}

TEST_F(XvtQt, QuestionBoxKeepsButtonOrderAndEscapeIsTheLastButton) {
  RunApp([] {
    struct Case { const char *b2, *b3; int press; ASK_RESPONSE expected; } cases[] = {  // press -1: Escape
        {"~No", "Cancel", 0, RESP_DEFAULT}, {"~No", "Cancel", 1, RESP_2},  {"~No", "Cancel", 2, RESP_3},
        {"~No", "Cancel", -1, RESP_3},      {"~No", nullptr, -1, RESP_2},  {nullptr, nullptr, -1, RESP_DEFAULT},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << (c.b2 ? c.b2 : "-") << " " << (c.b3 ? c.b3 : "-") << " " << c.press);
      static std::vector<std::string> shown;
      static int press;
      shown.clear();
      press = c.press;
      QTimer::singleShot(0, g_ctx, [] {
        QWidget* box = QApplication::activeModalWidget();
        ASSERT_NE(box, nullptr);
        auto buttons = box->findChildren<QAbstractButton*>();
        std::sort(buttons.begin(), buttons.end(), [](auto* a, auto* b) { return a->x() < b->x(); });
        for (QAbstractButton* b : buttons) shown.push_back(b->text().toStdString());
        press >= 0 ? buttons[static_cast<size_t>(press)]->click() : Key(box, Qt::Key_Escape);
      });
      EXPECT_EQ(xvt_dm_post_ask("~Yes & go", c.b2, c.b3, "Send %s?", "it"), c.expected);
      std::vector<std::string> expected{"&Yes && go"};
      if (c.b2) expected.push_back("&No");
      if (c.b3) expected.push_back("Cancel");
      EXPECT_EQ(shown, expected);
    }
  });
}

const WIN_DEF kScriptDialogDef[] = {{W_MODAL, {100, 100, 300, 200}, "Confirm", 0, 0},
                                     {WC_CHECKBOX, {10, 10, 150, 30}, "Again", 1, 0},
                                     {WC_PUSHBUTTON, {10, 40, 80, 70}, "OK", 2, CTL_FLAG_DEFAULT},
                                     {W_NONE, {}, nullptr, 0, 0}};

long ScriptDialogEh(WINDOW dlg, EVENT* ev) {
  if (ev->type != E_CONTROL) return 0;
  g_log.push_back("control " + std::to_string(ev->v.ctl.id) + " checked " + std::to_string(Checked(dlg, 1)));
  if (ev->v.ctl.id == 2) xvt_vobj_destroy(dlg);
  return 0;
}

// Runs body under a script of the given lines; returns what was said on stderr.
std::string RunScripted(const char* lines, std::function<void()> body) {
  xvt_res_register_dialog(kScriptDialog, kScriptDialogDef);
  std::string path = testing::TempDir() + "xvt_qt_script.txt";
  std::ofstream(path) << lines;
  setenv("VELMAR_XVT_SCRIPT", path.c_str(), 1);
  g_log.clear();
  testing::internal::CaptureStderr();
  RunApp(std::move(body));
  unsetenv("VELMAR_XVT_SCRIPT");
  return testing::internal::GetCapturedStderr();
}

long TitledEh(WINDOW win, EVENT* ev) {
  if (ev->type == E_COMMAND) {
    char title[64];
    g_log.push_back(std::string(xvt_vobj_get_title(win, title, sizeof title)) + " got " +
                    std::to_string(ev->v.cmd.tag));
  }
  return 0;
}

// The task's menu choices: 1 save, 2 open, 3 ask, 4 a note, 5 an error, 6 the dialog.
void TaskCommand(int tag) {
  char path[256] = "start.txt";
  if (tag == 1 && xvt_dm_post_file_save("Save as", path, sizeof path))
    g_log.push_back("save " + std::string(path));
  if (tag == 2 && xvt_dm_post_file_open("Open", path, sizeof path))
    g_log.push_back("open " + std::string(path));
  if (tag == 3) {
    ASK_RESPONSE r = xvt_dm_post_ask("~Keep", "~Discard", "Cancel", "Keep %d drafts?", 3);
    g_log.push_back("ask " + std::to_string(r));
  }
  if (tag == 4) xvt_dm_post_note("Noted");
  if (tag == 5) xvt_dm_post_error("Disk %s", "full");
  if (tag == 6) xvt_dlg_create_res(W_MODAL, kScriptDialog, EM_ALL, ScriptDialogEh, 0);
  g_log.push_back("task got " + std::to_string(tag));
}

// The script's lines run one per turn of the loop. An answer may come before its
// question or while the question waits (a script usually names the menu choice first
// and then answers what it brings up); a command with a title goes to that window's
// menu bar, and to no other.
TEST_F(XvtQt, ScriptAnswersQuestionsChoosesFilesAndSendsCommands) {
  struct Case {
    const char* lines;
    std::vector<std::string> log;
    std::vector<const char*> said;  // on stderr
  } cases[] = {
      {"# a comment\nanswer 2\nfrobnicate 3\ndismiss\ndialog 7101 1 2\ncommand 3\ncommand 5\n"
       "command 6\nlog script done\n",
       {"ask 2", "task got 3", "task got 5", "control 1 checked 1", "control 2 checked 1",
        "task got 6"},
       {"xvt: ask: Keep 3 drafts?", "xvt: dismissed error: Disk full", "frobnicate",
        "script done"}},
      {"command 3\nanswer 3\ncommand 4\ndismiss\ncommand 6\ndialog 7101 2\n",
       {"ask 3", "task got 3", "task got 4", "control 2 checked 0", "task got 6"},
       {"xvt: dismissed note: Noted"}},
      {"file /tmp/a b.txt\ncommand 1\n", {"save /tmp/a b.txt", "task got 1"},
       {"xvt: chose file /tmp/a b.txt"}},
      {"command 2\nfile /tmp/later.txt\n", {"open /tmp/later.txt", "task got 2"},
       {"xvt: chose file /tmp/later.txt"}},
      {"command 7 Report : figures\n", {"Report : figures got 7"}, {}},
      {"command 7 Nobody here\n", {}, {"no window titled \"Nobody here\""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.lines);
    std::string err = RunScripted(c.lines, [&] {
      RCT r{20, 20, 300, 200};
      xvt_win_create(W_DOC, &r, "Report : figures", 0, TASK_WIN, WSF_CLOSE, EM_ALL, TitledEh, 0);
      g_on_command = TaskCommand;
      WaitFor([&] { return g_log.size() >= c.log.size(); }, 5000);
      WaitFor([] { return false; }, 200);
    });
    EXPECT_EQ(g_log, c.log) << err;
    for (const char* said : c.said)
      EXPECT_NE(err.find(said), std::string::npos) << said << "\n" << err;
  }
}

}  // namespace
}  // namespace xvt_qt_test
