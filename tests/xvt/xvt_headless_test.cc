// The headless backend is what every logic test stands on: these check that
// it keeps the toolkit's promises (event order, timers, modal dialogs, the
// pointer trap).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xvt/xvt.h"
#include "xvt/xvt_test.h"

namespace {

std::vector<std::string> g_log;

std::string Name(WINDOW w) {
  char buf[100];
  return xvt_vobj_get_title(w, buf, sizeof buf) ? buf : "?";
}

long logging_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: g_log.push_back("create " + Name(win)); break;
    case E_DESTROY: g_log.push_back("destroy " + Name(win)); break;
    case E_TIMER: g_log.push_back("timer " + Name(win) + " " + std::to_string(xvt_test_now_ms())); break;
    case E_CONTROL: g_log.push_back("control " + std::to_string(ev->v.ctl.id)); break;
    case E_COMMAND: g_log.push_back("command " + std::to_string(ev->v.cmd.tag)); break;
    default: break;
  }
  return 0;
}

class Headless : public ::testing::Test {
 protected:
  void SetUp() override {
    xvt_test_reset();
    g_log.clear();
  }
  void TearDown() override { xvt_test_reset(); }
  // Runs an application whose task window logs; body runs after start-up.
  void RunApp(std::function<void()> body) {
    XVT_CONFIG config{0, 0, "t", "T", "task", 42};
    xvt_test_set_run_hook(std::move(body));
    xvt_app_create(0, nullptr, 0, logging_eh, &config);
  }
};

TEST_F(Headless, DestroyOrderChildrenFirstTaskLast) {
  RunApp([] {
    RCT r{0, 0, 100, 100};
    WINDOW a = xvt_win_create(W_DOC, &r, "a", 0, TASK_WIN, 0, EM_ALL, logging_eh, 0);
    xvt_win_create(W_PLAIN, &r, "a.child", 0, a, 0, EM_ALL, logging_eh, 0);
    xvt_win_create(W_PLAIN, &r, "top", 0, SCREEN_WIN, 0, EM_ALL, logging_eh, 0);
    xvt_app_destroy();
  });
  std::vector<std::string> expected = {"create task",    "create a",  "create a.child", "create top",
                                       "destroy top",    "destroy a.child", "destroy a", "destroy task"};
  EXPECT_EQ(g_log, expected);
  EXPECT_FALSE(xvt_test_app_running());
}

TEST_F(Headless, TimersFireInDueOrderAndStopWithTheirWindow) {
  RunApp([] {
    RCT r{0, 0, 10, 10};
    WINDOW fast = xvt_win_create(W_PLAIN, &r, "fast", 0, TASK_WIN, 0, EM_ALL, logging_eh, 0);
    WINDOW slow = xvt_win_create(W_PLAIN, &r, "slow", 0, TASK_WIN, 0, EM_ALL, logging_eh, 0);
    xvt_timer_create(fast, 300);
    xvt_timer_create(slow, 500);
    g_log.clear();
    xvt_test_advance_ms(1000);
    xvt_vobj_destroy(fast);
    xvt_test_advance_ms(500);
    (void)slow;
  });
  std::vector<std::string> expected = {"timer fast 300",  "timer slow 500", "timer fast 600", "timer fast 900",
                                       "timer slow 1000", "destroy fast",   "timer slow 1500"};
  EXPECT_EQ(std::vector<std::string>(g_log.begin(), g_log.begin() + 7), expected);
}

const WIN_DEF kDialog[] = {
    {W_MODAL, {0, 0, 200, 100}, "dlg", 0, 0},
    {WC_CHECKBOX, {10, 10, 100, 30}, "check", 5, 0},
    {WC_PUSHBUTTON, {10, 50, 100, 80}, "OK", 1, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

long dialog_eh(WINDOW win, EVENT* ev) {
  if (ev->type == E_CREATE) g_log.push_back(xvt_win_get_ctl(win, 5) ? "controls exist" : "no controls");
  if (ev->type == E_CONTROL) {
    g_log.push_back("control " + std::to_string(ev->v.ctl.id) + " checked " +
                    std::to_string(xvt_ctl_is_checked(xvt_win_get_ctl(win, 5))));
    if (ev->v.ctl.id == 1) xvt_vobj_destroy(win);
  }
  return 0;
}

TEST_F(Headless, ModalDialogRunsItsScriptAndReturnsWhenGone) {
  std::vector<std::string> unexpected;
  xvt_test_set_unexpected_handler([&](const XvtPost& p) { unexpected.push_back(p.kind); });
  RunApp([] {
    xvt_res_register_dialog(77, kDialog);
    xvt_test_push_dialog(77, [](WINDOW dlg) {
      xvt_test_click(dlg, 5);
      xvt_test_click(dlg, 1);
    });
    g_log.clear();
    WINDOW shown = xvt_dlg_create_res(W_MODAL, 77, EM_ALL, dialog_eh, 0);
    g_log.push_back(shown ? "returned" : "failed");
    // No script queued: reported, and the dialog does not stay up.
    xvt_dlg_create_res(W_MODAL, 77, EM_ALL, dialog_eh, 0);
  });
  std::vector<std::string> expected = {"controls exist", "control 5 checked 1", "control 1 checked 1", "returned",
                                       "controls exist"};
  EXPECT_EQ(std::vector<std::string>(g_log.begin(), g_log.begin() + 5), expected);
  EXPECT_EQ(unexpected, std::vector<std::string>{"dialog"});
}

TEST_F(Headless, AskTakesQueuedAnswersInOrder) {
  RunApp([] {
    xvt_test_push_answer(RESP_2);
    xvt_test_push_answer(RESP_DEFAULT);
    EXPECT_EQ(xvt_dm_post_ask("Yes", "No", nullptr, "first %d", 1), RESP_2);
    EXPECT_EQ(xvt_dm_post_ask("Yes", "No", nullptr, "second"), RESP_DEFAULT);
  });
  ASSERT_EQ(xvt_test_posts().size(), 2u);
  EXPECT_EQ(xvt_test_posts()[0].text, "first 1");
  EXPECT_EQ(xvt_test_posts()[0].buttons, (std::vector<std::string>{"Yes", "No"}));
}

TEST_F(Headless, TrappedPointerSwallowsInputToOtherWindows) {
  RunApp([] {
    RCT r{0, 0, 10, 10};
    WINDOW a = xvt_win_create(W_DOC, &r, "a", 0, TASK_WIN, 0, EM_ALL, logging_eh, 0);
    WINDOW b = xvt_win_create(W_DOC, &r, "b", 0, TASK_WIN, 0, EM_ALL, logging_eh, 0);
    xvt_win_trap_pointer(a);
    g_log.clear();
    EXPECT_FALSE(xvt_test_user_command(b, 9));
    EXPECT_TRUE(xvt_test_user_command(a, 8));
    xvt_win_release_pointer();
    EXPECT_TRUE(xvt_test_user_command(b, 7));
  });
  EXPECT_EQ(std::vector<std::string>(g_log.begin(), g_log.begin() + 2),
            (std::vector<std::string>{"command 8", "command 7"}));
}

}  // namespace
