// The Qt backend's windows, drawing, input, menus, timers and hooks, on
// Qt's offscreen platform.
#include "xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

// --- Application ----------------------------------------------------------

TEST_F(XvtQt, LifecycleOrdersCreateAndDestroyAndKeepsArgv) {
  std::vector<std::string> destroyed;
  static std::vector<std::string>* order;
  order = &destroyed;
  auto named = [](WINDOW w, EVENT* ev) -> long {
    if (ev->type == E_DESTROY) order->push_back(reinterpret_cast<const char*>(xvt_vobj_get_data(w)));
    return 0;
  };
  static const char* names[] = {"bar", "doc", "kid", "top"};
  g_task_events.clear();
  g_body = [&] {
    RCT r{0, 0, 200, 30};
    WINDOW bar = xvt_win_create(W_PLAIN, &r, "bar", 0, TASK_WIN, WSF_NONE, EM_ALL, named, (intptr_t)names[0]);
    RCT d{10, 10, 300, 200};
    WINDOW doc = xvt_win_create(W_DOC, &d, "doc", 0, TASK_WIN, WSF_SIZE | WSF_CLOSE, EM_ALL, named, (intptr_t)names[1]);
    RCT k{5, 5, 50, 50};
    xvt_win_create(W_PLAIN, &k, "kid", 0, doc, WSF_NONE, EM_ALL, named, (intptr_t)names[2]);
    RCT t{100, 100, 300, 300};
    xvt_win_create(W_PLAIN, &t, "top", 0, SCREEN_WIN, WSF_NONE, EM_ALL, named, (intptr_t)names[3]);
    ASSERT_NE(bar, NULL_WIN);
    xvt_app_destroy();
  };
  // QApplication takes out the options it understands from its copy; the
  // caller's argument vector must not change.
  char a0[] = "velmar", a1[] = "-platform", a2[] = "offscreen", a3[] = "mailbox";
  char* argv[] = {a0, a1, a2, a3, nullptr};
  XVT_CONFIG config{kMenuBar, 0, "velmar", "Velmar", "Velmar test", 30};
  xvt_app_create(4, argv, 0, TaskEh, &config);

  ASSERT_FALSE(g_task_events.empty());
  EXPECT_EQ(g_task_events.front().type, E_CREATE);
  EXPECT_EQ(g_task_events.back().type, E_DESTROY);
  EXPECT_EQ(destroyed, (std::vector<std::string>{"top", "kid", "doc", "bar"}));
  EXPECT_EQ(argv[1], a1);
  EXPECT_EQ(std::string(argv[1]) + " " + argv[2] + " " + argv[3], "-platform offscreen mailbox");
  EXPECT_EQ(TASK_WIN, NULL_WIN);
}

TEST_F(XvtQt, CloseBoxesAskTheProgramAndCloseNothing) {
  RunApp([] {
    std::vector<EVENT> log;
    RCT d{0, 0, 300, 200};
    WINDOW doc = xvt_win_create(W_DOC, &d, "doc", 0, TASK_WIN, WSF_CLOSE | WSF_SIZE, EM_ALL, LogEh, (intptr_t)&log);
    ASSERT_NE(doc, NULL_WIN);
    doc->outer->close();
    xvt_object* task = TASK_WIN;
    task->outer->close();
    xvt_app_process_pending_events();
    EXPECT_EQ(OfType(log, E_CLOSE).size(), 1u);
    EXPECT_EQ(OfType(g_task_events, E_CLOSE).size(), 1u);
    EXPECT_TRUE(xvt_vobj_is_valid(doc));
    EXPECT_TRUE(xvt_vobj_is_visible(doc));
    EXPECT_TRUE(task->outer->isVisible());
    xvt_app_destroy();
  });
}

enum class CreateAction { kDestroyAtOnce, kDestroyFromDialog, kCloseDialog };
CreateAction g_create_action;
std::vector<std::string> g_create_log;
const WIN_DEF kStartDialog[] = {
    {W_MODAL, {50, 50, 250, 150}, "Start", 0, 0},
    {WC_PUSHBUTTON, {10, 10, 90, 40}, "Go", 1, CTL_FLAG_DEFAULT},
    {W_NONE, {0, 0, 0, 0}, nullptr, 0, 0},
};

long StartDialogEh(WINDOW dlg, EVENT* ev) {
  if (ev->type == E_CREATE) {
    QTimer::singleShot(0, dlg->outer, [dlg] {
      if (g_create_action == CreateAction::kDestroyFromDialog)
        xvt_app_destroy();
      else
        qobject_cast<QAbstractButton*>(xvt_win_get_ctl(dlg, 1)->outer.data())->click();
    });
  } else if (ev->type == E_CONTROL) {
    g_create_log.push_back("clicked");
    xvt_vobj_destroy(dlg);
  }
  return 0;
}

long StartTaskEh(WINDOW, EVENT* ev) {
  if (ev->type == E_CREATE) {
    g_create_log.push_back("create");
    if (g_create_action == CreateAction::kDestroyAtOnce) {
      xvt_app_destroy();
    } else {
      xvt_dlg_create_def(kStartDialog, EM_ALL, StartDialogEh, 0);
      g_create_log.push_back("dialog returned");
      if (g_create_action == CreateAction::kCloseDialog) xvt_app_destroy();
    }
  } else if (ev->type == E_DESTROY) {
    g_create_log.push_back("destroy");
  }
  return 0;
}

TEST_F(XvtQt, ApplicationCanEndWhileTaskWindowIsBeingCreated) {
  struct Case {
    CreateAction action;
    std::vector<std::string> expected;
  } cases[] = {
      {CreateAction::kDestroyAtOnce, {"create", "destroy"}},
      {CreateAction::kDestroyFromDialog, {"create", "destroy", "dialog returned"}},
      // After the runs above, a modal dialog still runs its own loop.
      {CreateAction::kCloseDialog, {"create", "clicked", "dialog returned", "destroy"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.action));
    g_create_action = c.action;
    g_create_log.clear();
    XVT_CONFIG config{kMenuBar, 0, "velmar", "Velmar", "Velmar test", 0};
    char arg0[] = "xvt_qt_test";
    char* argv[] = {arg0, nullptr};
    xvt_app_create(1, argv, 0, StartTaskEh, &config);
    EXPECT_EQ(g_create_log, c.expected);
  }
}

// --- Geometry -------------------------------------------------------------------

RCT g_client_at_create;
long ClientAtCreateEh(WINDOW win, EVENT* ev) {
  if (ev->type == E_CREATE) xvt_vobj_get_client_rect(win, &g_client_at_create);
  return 0;
}

TEST_F(XvtQt, ClientRectIsRightFromCreationOn) {
  RunApp([] {
    struct Case {
      const char* name;
      WIN_TYPE type;
      WINDOW parent;
      unsigned long flags;
    } cases[] = {
        {"toolbar child", W_PLAIN, TASK_WIN, WSF_NONE},
        {"top-level", W_PLAIN, SCREEN_WIN, WSF_SIZE},
        {"document", W_DOC, TASK_WIN, WSF_SIZE | WSF_CLOSE},
        {"document with bars", W_DOC, TASK_WIN, WSF_SIZE | WSF_HSCROLL | WSF_VSCROLL},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      RCT r{20, 0, 320, 30};
      if (c.type == W_DOC) r = RCT{20, 20, 320, 220};
      WINDOW win = xvt_win_create(c.type, &r, c.name, 0, c.parent, c.flags, EM_ALL, ClientAtCreateEh, 0);
      ASSERT_NE(win, NULL_WIN);
      RCT created = g_client_at_create;
      xvt_app_process_pending_events();
      RCT now;
      xvt_vobj_get_client_rect(win, &now);
      EXPECT_EQ(std::vector<int>({created.left, created.top, created.right, created.bottom}),
                std::vector<int>({0, 0, now.right, now.bottom}));
      EXPECT_GT(now.right, 0);
      EXPECT_LE(now.right, 300);
      if (c.type != W_DOC) {
        RCT outer;
        xvt_vobj_get_outer_rect(win, &outer);
        EXPECT_EQ(outer.left, r.left);
        EXPECT_EQ(outer.top, r.top);
        EXPECT_EQ(now.right, 300);
        EXPECT_EQ(now.bottom, 30);
      }
    }
    xvt_app_destroy();
  });
}

// --- Drawing ----------------------------------------------------------------

long RedSquareEh(WINDOW win, EVENT* ev) {
  if (ev->type == E_UPDATE) {
    xvt_dwin_clear(win, COLOR_WHITE);
    CPEN none{1, PAT_NONE, COLOR_BLACK};
    CBRUSH red{PAT_SOLID, COLOR_RED};
    xvt_dwin_set_pen(win, &none);
    xvt_dwin_set_brush(win, &red);
    RCT r{10, 10, 50, 50};
    xvt_dwin_draw_rect(win, &r);
  }
  return 0;
}

TEST_F(XvtQt, DocumentDrawingAppearsWithExactBounds) {
  RunApp([] {
    RCT d{0, 0, 300, 200};
    WINDOW doc = xvt_win_create(W_DOC, &d, "doc", 0, TASK_WIN, WSF_SIZE, EM_ALL, RedSquareEh, 0);
    ASSERT_NE(doc, NULL_WIN);
    QImage img = ClientOf(doc)->grab().toImage();
    struct Probe {
      int x, y;
      bool red;
    } probes[] = {{10, 10, true}, {30, 30, true}, {49, 49, true}, {50, 50, false}, {9, 30, false}, {100, 100, false}};
    for (const Probe& p : probes) {
      SCOPED_TRACE(testing::Message() << p.x << "," << p.y);
      QColor c = img.pixelColor(p.x, p.y);
      EXPECT_EQ(c == QColor(255, 0, 0), p.red) << c.name().toStdString();
    }
    // Outside E_UPDATE nothing is drawn, and nothing breaks.
    RCT r{0, 0, 5, 5};
    xvt_dwin_draw_rect(doc, &r);
    xvt_app_destroy();
  });
}

TEST_F(XvtQt, KeysAndMouseReachTheWindowInItsTerms) {
  RunApp([] {
    std::vector<EVENT> log;
    RCT r{0, 0, 300, 200};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "keys", 0, SCREEN_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&log);
    QWidget* canvas = ClientOf(win);
    struct Key {
      int qt_key;
      Qt::KeyboardModifiers mods;
      QString text;
      int expected;
    } keys[] = {
        {Qt::Key_Up, Qt::NoModifier, "", K_UP},           {Qt::Key_Home, Qt::NoModifier, "", K_LHOME},
        {Qt::Key_End, Qt::ControlModifier, "", K_END},   {Qt::Key_F24, Qt::NoModifier, "", K_F24},
        {Qt::Key_Backtab, Qt::ShiftModifier, "", K_BTAB}, {Qt::Key_Return, Qt::NoModifier, "\r", K_ENTER},
        {Qt::Key_Delete, Qt::NoModifier, "\x7f", K_DEL},  {Qt::Key_A, Qt::NoModifier, "a", 'a'},
        {Qt::Key_Eacute, Qt::NoModifier, QString(QChar(0xE9)), 0xE9},
    };
    for (const Key& k : keys) {
      log.clear();
      QKeyEvent e(QEvent::KeyPress, k.qt_key, k.mods, k.text);
      QApplication::sendEvent(canvas, &e);
      auto chars = OfType(log, E_CHAR);
      ASSERT_EQ(chars.size(), 1u) << "key " << k.qt_key;
      EXPECT_EQ(chars[0].v.chr.ch, k.expected) << "key " << k.qt_key;
    }
    struct Click {
      Qt::MouseButton button;
      int expected;
    } clicks[] = {{Qt::LeftButton, 0}, {Qt::RightButton, 1}, {Qt::MiddleButton, 2}};
    for (const Click& c : clicks) {
      log.clear();
      Press(canvas, QPoint(17, 23), c.button);
      auto downs = OfType(log, E_MOUSE_DOWN);
      ASSERT_EQ(downs.size(), 1u);
      EXPECT_EQ(downs[0].v.mouse.button, c.expected);
      EXPECT_EQ(downs[0].v.mouse.where.h, 17);
      EXPECT_EQ(downs[0].v.mouse.where.v, 23);
    }
    xvt_app_destroy();
  });
}

// --- Scroll bars -------------------------------------------------------------

TEST_F(XvtQt, AttachedScrollBarBelongsToTheProgram) {
  RunApp([] {
    std::vector<EVENT> log;
    RCT r{0, 0, 200, 30};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "list", 0, TASK_WIN, WSF_VSCROLL, EM_ALL, LogEh, (intptr_t)&log);
    RCT client;
    xvt_vobj_get_client_rect(win, &client);
    EXPECT_LT(client.right, 200) << "the bar takes its room from the client area";
    xvt_sbar_set_range(win, VSCROLL, 0, 100);
    xvt_sbar_set_proportion(win, VSCROLL, 10);
    xvt_sbar_set_pos(win, VSCROLL, 40);
    EXPECT_EQ(xvt_sbar_get_pos(win, VSCROLL), 40);
    EXPECT_TRUE(OfType(log, E_VSCROLL).empty()) << "setting is not scrolling";

    QScrollBar* bar = win->bars[VSCROLL];
    bar->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    auto scrolls = OfType(log, E_VSCROLL);
    ASSERT_EQ(scrolls.size(), 1u);
    EXPECT_EQ(scrolls[0].v.scroll.what, SC_LINE_DOWN);
    EXPECT_EQ(xvt_sbar_get_pos(win, VSCROLL), 40) << "the thumb waits for the program";

    xvt_sbar_set_visible(win, VSCROLL, false);
    xvt_vobj_get_client_rect(win, &client);
    EXPECT_EQ(client.right, 200);

    // A program that answers a step by moving the thumb gets exactly that.
    auto stepper = [](WINDOW w, EVENT* ev) -> long {
      if (ev->type == E_VSCROLL && ev->v.scroll.what == SC_PAGE_DOWN)
        xvt_sbar_set_pos(w, VSCROLL, xvt_sbar_get_pos(w, VSCROLL) + 25);
      return 0;
    };
    WINDOW moved = xvt_win_create(W_PLAIN, &r, "moved", 0, TASK_WIN, WSF_VSCROLL, EM_ALL, stepper, 0);
    xvt_sbar_set_range(moved, VSCROLL, 0, 100);
    xvt_sbar_set_proportion(moved, VSCROLL, 10);
    moved->bars[VSCROLL]->triggerAction(QAbstractSlider::SliderPageStepAdd);
    EXPECT_EQ(xvt_sbar_get_pos(moved, VSCROLL), 25);
    xvt_app_destroy();
  });
}

// --- Timers -------------------------------------------------------------------

TEST_F(XvtQt, TimersTickUntilDestroyed) {
  RunApp([] {
    std::vector<EVENT> log;
    RCT r{0, 0, 100, 30};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "t", 0, TASK_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&log);
    long id = xvt_timer_create(win, 10);
    ASSERT_GT(id, 0);
    EXPECT_EQ(xvt_timer_create(win, 0), XVT_TIMER_ERROR);
    EXPECT_EQ(xvt_timer_create(NULL_WIN, 10), XVT_TIMER_ERROR);
    ASSERT_TRUE(WaitFor([&] { return OfType(log, E_TIMER).size() >= 3; }));
    for (const EVENT& e : OfType(log, E_TIMER)) EXPECT_EQ(e.v.timer.id, id);
    xvt_timer_destroy(id);
    size_t ticks = OfType(log, E_TIMER).size();
    WaitFor([] { return false; }, 60);
    EXPECT_EQ(OfType(log, E_TIMER).size(), ticks);
    xvt_app_destroy();
  });
}

// --- Menus --------------------------------------------------------------------

QAction* BarAction(const QString& text) {
  auto* main = qobject_cast<QMainWindow*>(TASK_WIN->outer.data());
  for (QAction* top : main->menuBar()->actions())
    if (top->menu())
      for (QAction* a : top->menu()->actions())
        if (a->text() == text) return a;
  return nullptr;
}

TEST_F(XvtQt, MenuStateRoundTripsAndChoicesReachTheTaskWindow) {
  RunApp([] {
    // Mnemonics: '~' marks the letter, a literal '&' is shown as such.
    ASSERT_NE(BarAction("&Open"), nullptr);
    ASSERT_NE(BarAction("Save && Close"), nullptr);
    char buf[64];
    ASSERT_TRUE(xvt_menu_get_item_title(TASK_WIN, 101, buf, sizeof buf));
    EXPECT_STREQ(buf, "~Open");
    EXPECT_TRUE(xvt_menu_get_item_checked(TASK_WIN, 103));
    EXPECT_FALSE(xvt_menu_get_item_enabled(TASK_WIN, 104));
    EXPECT_FALSE(xvt_menu_get_item_title(TASK_WIN, 999, buf, sizeof buf));

    struct Change {
      int tag;
      const char* title;
      bool enabled, checked;
    } changes[] = {{101, "~Open Folder", false, true}, {103, "Wrap", true, false}, {104, "~Print...", true, false}};
    for (const Change& c : changes) {
      xvt_menu_set_item_title(TASK_WIN, c.tag, c.title);
      xvt_menu_set_item_enabled(TASK_WIN, c.tag, c.enabled);
      xvt_menu_set_item_checked(TASK_WIN, c.tag, c.checked);
      EXPECT_TRUE(xvt_menu_get_item_title(TASK_WIN, c.tag, buf, sizeof buf));
      EXPECT_STREQ(buf, c.title);
      EXPECT_EQ(xvt_menu_get_item_enabled(TASK_WIN, c.tag), c.enabled);
      EXPECT_EQ(xvt_menu_get_item_checked(TASK_WIN, c.tag), c.checked);
    }
    EXPECT_NE(BarAction("&Open Folder"), nullptr);

    g_task_events.clear();
    BarAction("&Open Folder")->trigger();  // disabled above: no command
    BarAction("&Print...")->trigger();
    xvt_menu_set_item_checked(TASK_WIN, 102, true);
    BarAction("Save && Close")->trigger();
    auto commands = OfType(g_task_events, E_COMMAND);
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].v.cmd.tag, 104);
    EXPECT_EQ(commands[1].v.cmd.tag, 102);
    EXPECT_TRUE(xvt_menu_get_item_checked(TASK_WIN, 102)) << "choosing an item does not uncheck it";
    EXPECT_TRUE(BarAction("Save && Close")->isChecked());
    xvt_app_destroy();
  });
}

std::vector<std::string> BarTitles() {
  auto* main = qobject_cast<QMainWindow*>(TASK_WIN->outer.data());
  std::vector<std::string> titles;
  for (QAction* a : main->menuBar()->actions()) titles.push_back(a->text().toStdString());
  return titles;
}

TEST_F(XvtQt, ActiveDocumentShowsItsOwnMenuBar) {
  RunApp([] {
    using Titles = std::vector<std::string>;
    EXPECT_EQ(BarTitles(), Titles{"&File"});
    RCT d{0, 0, 300, 200};
    WINDOW doc = xvt_win_create(W_DOC, &d, "message", kDocMenuBar, TASK_WIN, WSF_SIZE, EM_ALL, nullptr, 0);
    ASSERT_NE(doc, NULL_WIN);
    WaitFor([] { return BarTitles() == Titles{"&Message"}; }, 500);
    EXPECT_EQ(BarTitles(), Titles{"&Message"});
    // Each bar keeps its own state; a window without a bar uses the task's.
    xvt_menu_set_item_enabled(doc, 201, false);
    EXPECT_FALSE(xvt_menu_get_item_enabled(doc, 201));
    EXPECT_FALSE(xvt_menu_get_item_enabled(doc, 101));
    EXPECT_TRUE(xvt_menu_get_item_enabled(TASK_WIN, 101));
    RCT p{0, 0, 50, 20};
    WINDOW plain = xvt_win_create(W_PLAIN, &p, "plain", 0, TASK_WIN, WSF_NONE, EM_ALL, nullptr, 0);
    EXPECT_TRUE(xvt_menu_get_item_enabled(plain, 101));
    xvt_vobj_destroy(doc);
    EXPECT_EQ(BarTitles(), Titles{"&File"});
    xvt_app_destroy();
  });
}

// --- Pointer trap -------------------------------------------------------------

TEST_F(XvtQt, TrapSwallowsInputToOtherWindowsUntilReleased) {
  RunApp([] {
    std::vector<EVENT> busy_log, other_log;
    RCT a{0, 0, 100, 30}, b{100, 100, 300, 300};
    WINDOW busy = xvt_win_create(W_PLAIN, &a, "busy", 0, TASK_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&busy_log);
    WINDOW other = xvt_win_create(W_PLAIN, &b, "other", 0, SCREEN_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&other_log);
    xvt_win_trap_pointer(busy);
    Press(ClientOf(other), QPoint(5, 5));
    QKeyEvent key(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, "a");
    QApplication::sendEvent(ClientOf(other), &key);
    Press(ClientOf(busy), QPoint(5, 5));
    EXPECT_TRUE(OfType(other_log, E_MOUSE_DOWN).empty());
    EXPECT_TRUE(OfType(other_log, E_CHAR).empty());
    EXPECT_EQ(OfType(busy_log, E_MOUSE_DOWN).size(), 1u);
    EXPECT_FALSE(QWidget::mouseGrabber()) << "trapping never grabs";
    EXPECT_FALSE(QWidget::keyboardGrabber());

    xvt_win_release_pointer();
    Press(ClientOf(other), QPoint(5, 5));
    EXPECT_EQ(OfType(other_log, E_MOUSE_DOWN).size(), 1u);

    // A trap that dies with its window leaves no trap behind.
    xvt_win_trap_pointer(busy);
    xvt_vobj_destroy(busy);
    Press(ClientOf(other), QPoint(5, 5));
    EXPECT_EQ(OfType(other_log, E_MOUSE_DOWN).size(), 2u);
    xvt_app_destroy();
  });
}

// --- Events queued for later, descriptor watchers -------------------------

TEST_F(XvtQt, PostedEventsArriveLaterAndNeverAtDeadWindows) {
  RunApp([] {
    std::vector<EVENT> kept_log, gone_log;
    RCT r{0, 0, 100, 30};
    WINDOW kept = xvt_win_create(W_PLAIN, &r, "kept", 0, TASK_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&kept_log);
    WINDOW gone = xvt_win_create(W_PLAIN, &r, "gone", 0, TASK_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&gone_log);
    EVENT ev;
    std::memset(&ev, 0, sizeof ev);
    ev.type = E_USER;
    ev.v.user.id = 42;
    xvt_win_post_event(kept, &ev);
    xvt_win_post_event(gone, &ev);
    EXPECT_TRUE(OfType(kept_log, E_USER).empty()) << "not at once";
    xvt_vobj_destroy(gone);
    // A new window may reuse the dead one's address; it must not get the event.
    WINDOW fresh = xvt_win_create(W_PLAIN, &r, "fresh", 0, TASK_WIN, WSF_NONE, EM_ALL, LogEh, (intptr_t)&gone_log);
    ASSERT_NE(fresh, NULL_WIN);
    xvt_app_process_pending_events();
    auto users = OfType(kept_log, E_USER);
    ASSERT_EQ(users.size(), 1u);
    EXPECT_EQ(users[0].v.user.id, 42);
    EXPECT_TRUE(OfType(gone_log, E_USER).empty());
    xvt_app_destroy();
  });
}

int g_fd_calls;
void OnReadable(int fd, void* data) {
  char buf[16];
  ssize_t n = read(fd, buf, sizeof buf);
  (void)n;
  ++*static_cast<int*>(data);
}

TEST_F(XvtQt, DescriptorWatcherCallsBackUntilUnwatched) {
  RunApp([] {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    g_fd_calls = 0;
    long id = xvt_fd_watch(fds[0], OnReadable, &g_fd_calls);
    ASSERT_GT(id, 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_TRUE(WaitFor([] { return g_fd_calls == 1; }));
    xvt_fd_unwatch(id);
    ASSERT_EQ(write(fds[1], "y", 1), 1);
    WaitFor([] { return false; }, 50);
    EXPECT_EQ(g_fd_calls, 1);
    EXPECT_EQ(xvt_fd_watch(-1, OnReadable, nullptr), 0);
    close(fds[0]);
    close(fds[1]);
    xvt_app_destroy();
  });
}

// --- Hooks -----------------------------------------------------------------------

std::vector<std::pair<XVT_NATIVE_EVENT, int>> g_native;
void NativeHook(XVT_NATIVE_EVENT what, int code) { g_native.push_back({what, code}); }

std::vector<std::pair<XVT_SEVERITY, std::string>> g_messages;
bool ErrHook(XVT_SEVERITY severity, const char*, const char* message) {
  g_messages.push_back({severity, message});
  return true;
}

TEST_F(XvtQt, HooksHearOfPressesScrollingAndQtMessages) {
  RunApp([] {
    g_native.clear();
    g_messages.clear();
    ASSERT_TRUE(xvt_vobj_set_attr(NULL_WIN, ATTR_NATIVE_HOOK, reinterpret_cast<intptr_t>(NativeHook)));
    ASSERT_TRUE(xvt_vobj_set_attr(NULL_WIN, ATTR_ERRMSG_HANDLER, reinterpret_cast<intptr_t>(ErrHook)));
    std::vector<EVENT> log;
    RCT r{0, 0, 200, 30};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "w", 0, TASK_WIN, WSF_VSCROLL, EM_ALL, LogEh, (intptr_t)&log);
    // A press comes in through the window system: the hook hears it once,
    // however many widgets it passes, and even while trapped elsewhere.
    RCT b{300, 300, 400, 400};
    WINDOW busy = xvt_win_create(W_PLAIN, &b, "busy", 0, SCREEN_WIN, WSF_NONE, EM_ALL, nullptr, 0);
    xvt_win_trap_pointer(busy);
    QWindow* handle = ClientOf(win)->window()->windowHandle();
    ASSERT_NE(handle, nullptr);
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(3, 3), QPointF(3, 3), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(handle, &press);
    QMouseEvent release(QEvent::MouseButtonRelease, QPointF(3, 3), QPointF(3, 3), Qt::LeftButton, Qt::NoButton,
                        Qt::NoModifier);
    QApplication::sendEvent(handle, &release);
    xvt_win_release_pointer();
    QScrollBar* bar = win->bars[VSCROLL];
    xvt_sbar_set_range(win, VSCROLL, 0, 10);
    bar->triggerAction(QAbstractSlider::SliderPageStepAdd);
    using N = std::pair<XVT_NATIVE_EVENT, int>;
    EXPECT_EQ(g_native, (std::vector<N>{{XVT_NATIVE_LBUTTON_DOWN, 0}, {XVT_NATIVE_LBUTTON_UP, 0},
                                        {XVT_NATIVE_SCROLL, SC_PAGE_DOWN}}));

    qWarning("careful");
    qCritical("broken");
    qDebug("chatter");
    using M = std::pair<XVT_SEVERITY, std::string>;
    EXPECT_EQ(g_messages, (std::vector<M>{{SEV_WARNING, "careful"}, {SEV_ERROR, "broken"}}));
    xvt_vobj_set_attr(NULL_WIN, ATTR_ERRMSG_HANDLER, 0);
    xvt_vobj_set_attr(NULL_WIN, ATTR_NATIVE_HOOK, 0);
    xvt_app_destroy();
  });
}

// --- Bad input ----------------------------------------------------------------

TEST_F(XvtQt, BadInputIsRefusedWithoutHarm) {
  std::string junk = testing::TempDir() + "xvt_qt_junk.bmp";
  {
    std::ofstream f(junk, std::ios::binary);
    f << "BM this is not a bitmap";
  }
  EXPECT_EQ(xvt_image_read_bmp(junk.c_str()), nullptr);
  EXPECT_EQ(xvt_image_read_bmp("/nonexistent/x.bmp"), nullptr);
  EXPECT_EQ(xvt_image_read_bmp(nullptr), nullptr);
  RunApp([] {
    RCT r{0, 0, 100, 30};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "\xC3\xA9\xC3\xA9\xC3\xA9", 0, TASK_WIN, WSF_NONE, EM_ALL, nullptr, 0);
    char buf[4];
    // Three bytes fit: one whole character, never half of the next.
    ASSERT_NE(xvt_vobj_get_title(win, buf, sizeof buf), nullptr);
    EXPECT_STREQ(buf, "\xC3\xA9");
    xvt_vobj_destroy(win);
    EXPECT_FALSE(xvt_vobj_is_valid(win));
    EXPECT_EQ(xvt_vobj_get_title(win, buf, sizeof buf), nullptr);
    EXPECT_EQ(xvt_win_create(W_PLAIN, &r, "x", 0, win, WSF_NONE, EM_ALL, nullptr, 0), NULL_WIN);
    EXPECT_EQ(xvt_ctl_create(WC_PUSHBUTTON, &r, "x", win, 0, 1), NULL_WIN);
    EXPECT_EQ(xvt_dlg_create_res(W_MODAL, 123456, EM_ALL, nullptr, 0), NULL_WIN);
    EXPECT_FALSE(xvt_help_open_helpfile("/nonexistent/help.html"));
    EXPECT_FALSE(xvt_help_display(nullptr));
    xvt_app_destroy();
  });
}

}  // namespace
}  // namespace xvt_qt_test
