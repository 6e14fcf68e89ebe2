// The headless backend every logic test stands on; its window records are the Qt backend's too.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xvt/xvt.h"
#include "xvt/xvt_test.h"

namespace {

using Log = std::vector<std::string>;
Log g_log;

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
    case E_USER: g_log.push_back("user " + std::to_string(ev->v.user.id)); break;
    default: break;
  }
  return 0;
}

WINDOW Win(const char* name, WINDOW parent, int menu_rid = 0) {
  RCT r{0, 0, 100, 100};
  return xvt_win_create(W_DOC, &r, name, menu_rid, parent, 0, EM_ALL, logging_eh, 0);
}

const MENU_ITEM kEdit[] = {{11, "~Copy", true, false, false, nullptr}, {12, "~Paste", false, false, false, nullptr}, {}};
const MENU_ITEM kBar[] = {{10, "~Edit", true, false, false, kEdit}, {}};
const MENU_ITEM kOwnBar[] = {{21, "~Reply", true, true, false, nullptr}, {}};

class Headless : public ::testing::Test {
 protected:
  void SetUp() override {
    xvt_test_reset();
    g_log.clear();
    xvt_res_register_menubar(1, kBar);
    xvt_res_register_menubar(2, kOwnBar);
  }
  void TearDown() override { xvt_test_reset(); }
  // Runs an application whose task window logs; body runs after start-up.
  void RunApp(std::function<void()> body) {
    XVT_CONFIG config{1, 0, "t", "T", "task", 42};
    xvt_test_set_run_hook(std::move(body));
    xvt_app_create(0, nullptr, 0, logging_eh, &config);
  }
};

TEST_F(Headless, DestroyOrderChildrenFirstTaskLast) {
  RunApp([] {
    WINDOW a = Win("a", TASK_WIN);
    Win("a.child", a);
    Win("top", SCREEN_WIN);
    // The task, screen and document-area windows go only with the application.
    auto mdi = reinterpret_cast<WINDOW>(xvt_vobj_get_attr(NULL_WIN, ATTR_MDI_CLIENT_WIN));
    for (WINDOW w : {TASK_WIN, SCREEN_WIN, mdi}) xvt_vobj_destroy(w);
    EXPECT_TRUE(xvt_vobj_is_valid(mdi) && xvt_vobj_is_valid(SCREEN_WIN));
    xvt_app_destroy();
  });
  EXPECT_EQ(g_log, (Log{"create task", "create a", "create a.child", "create top", "destroy top", "destroy a.child",
                        "destroy a", "destroy task"}));
  EXPECT_FALSE(xvt_test_app_running());
}

TEST_F(Headless, TimersFireInDueOrderAndStopWithTheirWindow) {
  RunApp([] {
    WINDOW fast = Win("fast", TASK_WIN);
    xvt_timer_create(Win("slow", TASK_WIN), 500);
    xvt_timer_create(fast, 300);
    g_log.clear();
    xvt_test_advance_ms(1000);
    xvt_vobj_destroy(fast);
    EXPECT_EQ(xvt_test_timers().size(), 1u) << "a window's timers go with it";
    xvt_test_advance_ms(500);
  });
  EXPECT_EQ(Log(g_log.begin(), g_log.begin() + 7), (Log{"timer fast 300", "timer slow 500", "timer fast 600",
                                                        "timer fast 900", "timer slow 1000", "destroy fast",
                                                        "timer slow 1500"}));
}

TEST_F(Headless, PostedEventsWaitForTheLoopAndNeverReachDeadWindows) {
  RunApp([] {
    // A handler that posts again is served on the next turn, not this one.
    auto again = [](WINDOW w, EVENT* ev) -> long {
      if (ev->type == E_USER) xvt_win_post_event(w, ev);
      return logging_eh(w, ev);
    };
    RCT r{0, 0, 10, 10};
    WINDOW a = xvt_win_create(W_PLAIN, &r, "a", 0, TASK_WIN, 0, EM_ALL, again, 0);
    WINDOW gone = Win("gone", TASK_WIN);
    EVENT ev{};
    ev.type = E_USER;
    ev.v.user.id = 7;
    xvt_win_post_event(a, &ev);
    xvt_win_post_event(gone, &ev);
    xvt_vobj_destroy(gone);
    g_log.clear();
    xvt_app_process_pending_events();
    g_log.push_back("turn");
    xvt_app_process_pending_events();
  });
  EXPECT_EQ(Log(g_log.begin(), g_log.begin() + 3), (Log{"user 7", "turn", "user 7"}));
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

TEST_F(Headless, QuestionsTakeTheirQueuedAnswersAndTheUnaskedForIsReported) {
  Log unexpected;
  xvt_test_set_unexpected_handler([&](const XvtPost& p) { unexpected.push_back(p.kind + " " + p.text); });
  RunApp([] {
    xvt_res_register_dialog(77, kDialog);
    xvt_test_push_dialog(77, [](WINDOW dlg) {
      xvt_test_click(dlg, 5);
      xvt_test_click(dlg, 1);
    });
    xvt_test_push_answer(RESP_2);
    xvt_test_push_text("saved.txt");
    xvt_test_push_text(nullptr);
    g_log.clear();
    g_log.push_back(xvt_dlg_create_res(W_MODAL, 77, EM_ALL, dialog_eh, 0) ? "returned" : "failed");
    g_log.push_back("ask " + std::to_string(xvt_dm_post_ask("Yes", "No", nullptr, "first %d", 1)));
    char path[32] = "";
    g_log.push_back(xvt_dm_post_file_save("Save as", path, sizeof path) ? path : "cancelled");
    g_log.push_back(xvt_dm_post_string_prompt("Name", path, sizeof path) ? path : "cancelled");
    // Nothing queued: reported, and the dialog does not stay up.
    xvt_dlg_create_res(W_MODAL, 77, EM_ALL, dialog_eh, 0);
    xvt_dm_post_ask("Yes", nullptr, nullptr, "again?");
  });
  EXPECT_EQ(Log(g_log.begin(), g_log.begin() + 8),
            (Log{"controls exist", "control 5 checked 1", "control 1 checked 1", "returned", "ask 2", "saved.txt",
                 "cancelled", "controls exist"}));
  EXPECT_EQ(unexpected, (Log{"dialog dlg", "ask again?"}));
  ASSERT_GE(xvt_test_posts().size(), 2u);
  EXPECT_EQ(xvt_test_posts()[1].buttons, (Log{"Yes", "No"}));
}

TEST_F(Headless, UserInputMeetsTheTrapAndTheMenuState) {
  RunApp([] {
    WINDOW a = Win("a", TASK_WIN);
    WINDOW b = Win("b", TASK_WIN, 2);
    char title[16];
    // A window without a bar of its own uses the task window's.
    EXPECT_TRUE(xvt_menu_get_item_checked(b, 21) && !xvt_menu_get_item_enabled(b, 11));
    xvt_menu_set_item_title(a, 11, "~Copy all");
    EXPECT_TRUE(xvt_menu_get_item_title(TASK_WIN, 11, title, sizeof title) && std::string(title) == "~Copy all");
    xvt_win_trap_pointer(a);
    g_log.clear();
    EXPECT_FALSE(xvt_test_user_command(b, 9));
    EXPECT_TRUE(xvt_test_user_command(a, 8));
    EXPECT_FALSE(xvt_test_user_command(a, 12)) << "a disabled item cannot be chosen";
    xvt_win_release_pointer();
    EXPECT_TRUE(xvt_test_user_command(b, 7));
  });
  EXPECT_EQ(Log(g_log.begin(), g_log.begin() + 2), (Log{"command 8", "command 7"}));
}

long drawing_eh(WINDOW win, EVENT* ev) {
  if (ev->type != E_UPDATE) return 0;
  CPEN pen{1, PAT_SOLID, COLOR_RED};
  CBRUSH brush{PAT_SOLID, COLOR_BLUE};
  xvt_dwin_set_pen(win, &pen);
  xvt_dwin_set_brush(win, &brush);
  xvt_dwin_draw_text(win, 10, 20, "abcdef", 3);
  RCT r{1, 2, 3, 4};
  xvt_dwin_draw_rect(win, &r);
  xvt_dwin_draw_3d_rect(win, &r, false);
  xvt_dwin_draw_line(win, PNT{5, 6}, PNT{7, 8});
  xvt_dwin_scroll_rect(win, &r, 0, -16);
  return 0;
}

TEST_F(Headless, DrawingIsRecordedWithFixedMetricsAndTheToolsOfTheMoment) {
  RunApp([] {
    RCT r{0, 0, 200, 100};
    WINDOW w = xvt_win_create(W_PLAIN, &r, "w", 0, TASK_WIN, WSF_VSCROLL, EM_ALL, drawing_eh, 0);
    xvt_dwin_invalidate_rect(w, &r);
    xvt_dwin_update(w);  // paints what was invalidated
    std::vector<std::string> ops;
    for (const XvtDrawOp& op : xvt_test_display_list(w))
      ops.push_back(op.op + " " + op.text + " " + std::to_string(op.rct.left) + "," + std::to_string(op.rct.top) + "," +
                    std::to_string(op.rct.right) + "," + std::to_string(op.rct.bottom) + " " +
                    std::to_string(op.fore == COLOR_RED && op.back == COLOR_BLUE));
    EXPECT_EQ(ops, (Log{"text abc 10,8,34,24 1", "rect  1,2,3,4 1", "3d sunken 1,2,3,4 1", "line  5,6,7,8 1",
                        "scroll 0 -16 1,2,3,4 1"}));
    EXPECT_TRUE(xvt_test_invalidated(w).empty());
    // Scroll bars keep the position inside the range.
    xvt_sbar_set_pos(w, VSCROLL, 500);
    xvt_sbar_set_range(w, VSCROLL, 10, 5);
    int min = 0, max = 0;
    xvt_sbar_get_range(w, VSCROLL, &min, &max);
    EXPECT_EQ(std::vector<int>({min, max, xvt_sbar_get_pos(w, VSCROLL), xvt_sbar_get_pos(w, HSCROLL)}),
              std::vector<int>({10, 10, 10, 0}));
  });
}

}  // namespace
