// The Qt backend's dialogs, controls, questions and automation script, on
// Qt's offscreen platform.
#include "xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

// --- Dialogs ----------------------------------------------------------------

enum { kCheck = 10, kOk = 11, kEdit = 12, kRadio = 13 };
const WIN_DEF kDialogDef[] = {
    {W_MODAL, {100, 100, 400, 260}, "Options", 0, 0},
    {WC_CHECKBOX, {10, 10, 200, 30}, "~Wrap", kCheck, 0},
    {WC_RADIOBUTTON, {10, 40, 200, 70}, "~Plain", kRadio, 0},
    {WC_EDIT, {10, 80, 200, 110}, "name", kEdit, 0},
    {WC_PUSHBUTTON, {220, 120, 290, 150}, "OK", kOk, CTL_FLAG_DEFAULT},
    {W_NONE, {0, 0, 0, 0}, nullptr, 0, 0},
};

struct DialogRun {
  bool controls_at_create = false;
  std::vector<int> controls;  // ids of E_CONTROL, in order
  bool checked_after_click = false;
  bool radio_after_two_clicks = false;
  bool destroyed = false;
};
DialogRun* g_dialog_run;

QAbstractButton* Button(WINDOW dlg, int id) {
  WINDOW c = xvt_win_get_ctl(dlg, id);
  return c ? qobject_cast<QAbstractButton*>(c->outer.data()) : nullptr;
}

long DialogEh(WINDOW dlg, EVENT* ev) {
  DialogRun& run = *g_dialog_run;
  switch (ev->type) {
    case E_CREATE: {
      run.controls_at_create = xvt_win_get_ctl(dlg, kCheck) && xvt_win_get_ctl(dlg, kOk) && xvt_win_get_ctl(dlg, kEdit);
      // The program's own changes are not the user's: no E_CONTROL.
      xvt_ctl_set_checked(xvt_win_get_ctl(dlg, kCheck), true);
      xvt_vobj_set_title(xvt_win_get_ctl(dlg, kEdit), "changed");
      QTimer::singleShot(0, g_ctx, [dlg] {
        Button(dlg, kCheck)->click();
        g_dialog_run->checked_after_click = xvt_ctl_is_checked(xvt_win_get_ctl(dlg, kCheck));
        Button(dlg, kRadio)->click();
        Button(dlg, kRadio)->click();
        g_dialog_run->radio_after_two_clicks = xvt_ctl_is_checked(xvt_win_get_ctl(dlg, kRadio));
        auto* edit = qobject_cast<QLineEdit*>(xvt_win_get_ctl(dlg, kEdit)->outer.data());
        QKeyEvent key(QEvent::KeyPress, Qt::Key_X, Qt::NoModifier, "x");
        QApplication::sendEvent(edit, &key);
        Button(dlg, kOk)->click();
      });
      break;
    }
    case E_CONTROL:
      if (!ev->v.ctl.ci.v.edit.focus_change || ev->v.ctl.ci.type != WC_EDIT) run.controls.push_back(ev->v.ctl.id);
      EXPECT_EQ(ev->v.ctl.ci.win, xvt_win_get_ctl(dlg, ev->v.ctl.id));
      if (ev->v.ctl.id == kOk) xvt_vobj_destroy(dlg);
      break;
    case E_DESTROY: run.destroyed = true; break;
    default: break;
  }
  return 0;
}

TEST_F(XvtQt, ModalDialogReportsUserClicksOnlyAndEndsWhenDestroyed) {
  xvt_res_register_dialog(kDialog, kDialogDef);
  DialogRun run;
  g_dialog_run = &run;
  RunApp([&] {
    WINDOW shown = xvt_dlg_create_res(W_MODAL, kDialog, EM_ALL, DialogEh, 0);
    // Back here only once the dialog is gone.
    EXPECT_NE(shown, NULL_WIN);
    EXPECT_TRUE(run.destroyed);
    EXPECT_FALSE(xvt_vobj_is_valid(shown));
    xvt_app_destroy();
  });
  EXPECT_TRUE(run.controls_at_create);
  EXPECT_EQ(run.controls, (std::vector<int>{kCheck, kRadio, kRadio, kEdit, kOk}));
  EXPECT_FALSE(run.checked_after_click);  // the program had checked it; the click cleared it
  EXPECT_TRUE(run.radio_after_two_clicks);  // a radio button is never cleared by clicking it
}

TEST_F(XvtQt, ListControlsKeepProgramSelectionsSilent) {
  RunApp([] {
    std::vector<EVENT> log;
    RCT r{0, 0, 400, 300};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "lists", 0, SCREEN_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&log);
    struct Case {
      WIN_TYPE type;
      bool title_follows_selection;
    } cases[] = {{WC_LBOX, false}, {WC_LISTBUTTON, true}, {WC_LISTEDIT, true}};
    int id = 1;
    for (const Case& c : cases) {
      SCOPED_TRACE(c.type);
      RCT cr{10, 10 + 40 * id, 200, 40 + 40 * id};
      WINDOW ctl = xvt_ctl_create(c.type, &cr, "", win, 0, id++);
      ASSERT_NE(ctl, NULL_WIN);
      EXPECT_TRUE(xvt_list_add(ctl, -1, "beta"));
      EXPECT_TRUE(xvt_list_add(ctl, 0, "alpha"));
      EXPECT_TRUE(xvt_list_add(ctl, -1, "gamma"));
      EXPECT_EQ(xvt_list_get_sel_index(ctl), -1) << "adding selects nothing";
      xvt_list_set_sel(ctl, 2, true);
      EXPECT_EQ(xvt_list_get_sel_index(ctl), 2);
      EXPECT_TRUE(xvt_list_is_sel(ctl, 2));
      char buf[32];
      ASSERT_NE(xvt_list_get_elt(ctl, 0, buf, sizeof buf), nullptr);
      EXPECT_STREQ(buf, "alpha");
      EXPECT_EQ(xvt_list_get_elt(ctl, 3, buf, sizeof buf), nullptr);
      if (c.title_follows_selection) {
        xvt_vobj_get_title(ctl, buf, sizeof buf);
        EXPECT_STREQ(buf, "gamma");
      }
      EXPECT_TRUE(xvt_list_rem(ctl, 0));
      EXPECT_FALSE(xvt_list_rem(ctl, 5));
      EXPECT_EQ(xvt_list_count_all(ctl), 2);
      xvt_list_clear(ctl);
      EXPECT_EQ(xvt_list_count_all(ctl), 0);
      EXPECT_EQ(xvt_list_get_sel_index(ctl), -1);
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
    xvt_app_destroy();
  });
}

// --- Questions ------------------------------------------------------------------

TEST_F(XvtQt, QuestionBoxKeepsButtonOrderAndEscapeIsTheLastButton) {
  RunApp([] {
    struct Case {
      const char* b2;
      const char* b3;
      int press;  // button index to click, or -1 for Escape
      ASK_RESPONSE expected;
    } cases[] = {
        {"~No", "Cancel", 0, RESP_DEFAULT},
        {"~No", "Cancel", 1, RESP_2},
        {"~No", "Cancel", 2, RESP_3},
        {"~No", "Cancel", -1, RESP_3},
        {"~No", nullptr, -1, RESP_2},
        {nullptr, nullptr, -1, RESP_DEFAULT},
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
        std::sort(buttons.begin(), buttons.end(),
                  [](QAbstractButton* a, QAbstractButton* b) { return a->x() < b->x(); });
        for (QAbstractButton* b : buttons) shown.push_back(b->text().toStdString());
        if (press >= 0) {
          buttons[static_cast<size_t>(press)]->click();
        } else {
          QKeyEvent esc(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
          QApplication::sendEvent(box, &esc);
        }
      });
      ASK_RESPONSE r = xvt_dm_post_ask("~Yes & go", c.b2, c.b3, "Send %s?", "it");
      EXPECT_EQ(r, c.expected);
      std::vector<std::string> expected{"&Yes && go"};
      if (c.b2) expected.push_back("&No");
      if (c.b3) expected.push_back("Cancel");
      EXPECT_EQ(shown, expected);
    }
    xvt_app_destroy();
  });
}

// --- Automation ---------------------------------------------------------------

const WIN_DEF kScriptDialogDef[] = {
    {W_MODAL, {100, 100, 300, 200}, "Confirm", 0, 0},
    {WC_CHECKBOX, {10, 10, 150, 30}, "Again", 1, 0},
    {WC_PUSHBUTTON, {10, 40, 80, 70}, "OK", 2, CTL_FLAG_DEFAULT},
    {W_NONE, {0, 0, 0, 0}, nullptr, 0, 0},
};

TEST_F(XvtQt, ScriptAnswersQuestionsDismissesNoticesAndDrivesDialogs) {
  xvt_res_register_dialog(kScriptDialog, kScriptDialogDef);
  std::string path = testing::TempDir() + "xvt_qt_script.txt";
  {
    std::ofstream f(path);
    f << "# a comment\n"
         "answer 2\n"
         "frobnicate 3\n"
         "dismiss\n"
         "dialog 7101 1 2\n"
         "log script done\n";
  }
  setenv("VELMAR_XVT_SCRIPT", path.c_str(), 1);
  static bool script_checked;
  static std::vector<int> dialog_controls;
  dialog_controls.clear();
  auto dialog_eh = [](WINDOW dlg, EVENT* ev) -> long {
    if (ev->type == E_CONTROL) {
      dialog_controls.push_back(ev->v.ctl.id);
      if (ev->v.ctl.id == 2) {
        script_checked = xvt_ctl_is_checked(xvt_win_get_ctl(dlg, 1));
        xvt_vobj_destroy(dlg);
      }
    }
    return 0;
  };
  ASK_RESPONSE answer = RESP_DEFAULT;
  testing::internal::CaptureStderr();
  RunApp([&] {
    // The script's lines run one per turn of the loop; the last one logs.
    ASSERT_TRUE(WaitFor([] { return S().dialogs.size() == 1; }));
    answer = xvt_dm_post_ask("~Keep", "~Discard", "Cancel", "Keep %d drafts?", 3);
    xvt_dm_post_error("Disk %s", "full");
    xvt_dlg_create_res(W_MODAL, kScriptDialog, EM_ALL, dialog_eh, 0);
    xvt_app_destroy();
  });
  std::string err = testing::internal::GetCapturedStderr();
  unsetenv("VELMAR_XVT_SCRIPT");
  EXPECT_EQ(answer, RESP_2);
  EXPECT_NE(err.find("xvt: ask: Keep 3 drafts?"), std::string::npos) << err;
  EXPECT_NE(err.find("xvt: dismissed error: Disk full"), std::string::npos) << err;
  EXPECT_NE(err.find("frobnicate"), std::string::npos) << err;
  EXPECT_NE(err.find("script done"), std::string::npos) << err;
  EXPECT_EQ(dialog_controls, (std::vector<int>{1, 2}));
  EXPECT_TRUE(script_checked);
}

// A script usually names the menu choice first and then answers what it
// brings up: the box or dialog is already waiting when the answer comes.
TEST_F(XvtQt, ScriptAnswersBoxesThatAreAlreadyUp) {
  xvt_res_register_dialog(kScriptDialog, kScriptDialogDef);
  std::string path = testing::TempDir() + "xvt_qt_script_after.txt";
  {
    std::ofstream f(path);
    f << "command 1\nanswer 3\ncommand 2\ndismiss\ncommand 3\ndialog 7101 2\ncommand 4\n";
  }
  setenv("VELMAR_XVT_SCRIPT", path.c_str(), 1);
  static std::vector<std::string> log;
  log.clear();
  auto dialog_eh = [](WINDOW dlg, EVENT* ev) -> long {
    if (ev->type == E_CONTROL && ev->v.ctl.id == 2) xvt_vobj_destroy(dlg);
    return 0;
  };
  testing::internal::CaptureStderr();
  RunApp([&] {
    g_on_command = [dialog_eh](int tag) {
      switch (tag) {
        case 1: log.push_back("ask " + std::to_string(xvt_dm_post_ask("A", "B", "C", "Which?"))); break;
        case 2:
          xvt_dm_post_note("Noted");
          log.push_back("note done");
          break;
        case 3:
          xvt_dlg_create_res(W_MODAL, kScriptDialog, EM_ALL, dialog_eh, 0);
          log.push_back("dialog done");
          break;
        case 4: xvt_app_destroy(); break;
      }
    };
  });
  std::string err = testing::internal::GetCapturedStderr();
  unsetenv("VELMAR_XVT_SCRIPT");
  EXPECT_EQ(log, (std::vector<std::string>{"ask 3", "note done", "dialog done"})) << err;
  EXPECT_NE(err.find("xvt: dismissed note: Noted"), std::string::npos) << err;
}

}  // namespace
}  // namespace xvt_qt_test
