// The Qt backend's windows, drawing, input, menus, timers and hooks, on Qt's offscreen platform. What the records
// do alike in both backends (destruction order, menu item state) is checked on the headless one.
#include <QAction>
#include <QMainWindow>
#include <QMenu>
#include <QKeySequence>
#include <QMenuBar>
#include <QScrollBar>
#include <QWindow>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

TEST_F(XvtQt, ProgramDecidesWhatClosesAndTheCallersArgvStays) {
  // QApplication takes out the options it understands from its own copy.
  char a0[] = "velmar", a1[] = "-platform", a2[] = "offscreen", a3[] = "mailbox";
  char* argv[] = {a0, a1, a2, a3, nullptr};
  RunApp(
      [] {
        std::vector<EVENT>& log = NewLog();
        WINDOW doc = Win(TASK_WIN, {0, 0, 300, 200}, &log, WSF_CLOSE | WSF_SIZE, W_DOC);
        ASSERT_NE(doc, NULL_WIN);
        // Close boxes ask the program and close nothing.
        doc->outer->close();
        TASK_WIN->outer->close();
        xvt_app_process_pending_events();
        EXPECT_EQ(OfType(log, E_CLOSE).size(), 1u);
        EXPECT_EQ(OfType(g_task_events, E_CLOSE).size(), 1u);
        EXPECT_TRUE(xvt_vobj_is_visible(doc) && TASK_WIN->outer->isVisible());
      },
      30, 4, argv);
  EXPECT_EQ(g_task_events.front().type, E_CREATE);
  EXPECT_EQ(g_task_events.back().type, E_DESTROY);
  EXPECT_EQ(std::string(argv[1]) + " " + argv[2] + " " + argv[3], "-platform offscreen mailbox");
}

// How the start ends: at once, from a dialog's own loop, or after the dialog.
enum StartEnd { kAtOnce, kFromDialog, kAfterDialog } g_start_end;
std::vector<std::string> g_start_log;
const WIN_DEF kStartDialog[] = {{W_MODAL, {50, 50, 250, 150}, "Start", 0, 0},
                                 {WC_PUSHBUTTON, {10, 10, 90, 40}, "Go", 1, CTL_FLAG_DEFAULT},
                                 {W_NONE, {}, nullptr, 0, 0}};

long StartDialogEh(WINDOW dlg, EVENT* ev) {
  if (ev->type == E_CREATE) {
    QTimer::singleShot(0, dlg->outer, [dlg] {
      g_start_end == kFromDialog ? xvt_app_destroy()
                                 : qobject_cast<QAbstractButton*>(xvt_win_get_ctl(dlg, 1)->outer.data())->click();
    });
  } else if (ev->type == E_CONTROL) {
    g_start_log.push_back("clicked");
    xvt_vobj_destroy(dlg);
  }
  return 0;
}

long StartTaskEh(WINDOW, EVENT* ev) {
  if (ev->type == E_DESTROY) g_start_log.push_back("destroy");
  if (ev->type != E_CREATE) return 0;
  g_start_log.push_back("create");
  if (g_start_end != kAtOnce) {
    xvt_dlg_create_def(kStartDialog, EM_ALL, StartDialogEh, 0);
    g_start_log.push_back("dialog returned");
  }
  xvt_app_destroy();
  return 0;
}

TEST_F(XvtQt, ApplicationCanEndWhileTaskWindowIsBeingCreated) {
  std::pair<StartEnd, std::vector<std::string>> cases[] = {
      {kAtOnce, {"create", "destroy"}},
      {kFromDialog, {"create", "destroy", "dialog returned"}},
      // After the runs above, a modal dialog still runs its own loop.
      {kAfterDialog, {"create", "clicked", "dialog returned", "destroy"}},
  };
  for (const auto& [end, expected] : cases) {
    g_start_end = end;
    g_start_log.clear();
    StartApp(StartTaskEh, 0);
    EXPECT_EQ(g_start_log, expected) << "ending " << end;
  }
}

RCT g_client_at_create;
long ClientAtCreateEh(WINDOW win, EVENT* ev) {
  if (ev->type == E_CREATE) xvt_vobj_get_client_rect(win, &g_client_at_create);
  return 0;
}

TEST_F(XvtQt, ClientRectIsRightFromCreationOn) {
  RunApp([] {
    struct Case { const char* name; WIN_TYPE type; WINDOW parent; unsigned long flags; } cases[] = {
        {"toolbar child", W_PLAIN, TASK_WIN, WSF_NONE},
        {"top-level", W_PLAIN, SCREEN_WIN, WSF_SIZE},
        {"document", W_DOC, TASK_WIN, WSF_SIZE | WSF_CLOSE},
        {"document with bars", W_DOC, TASK_WIN, WSF_SIZE | WSF_HSCROLL | WSF_VSCROLL},
    };
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      RCT r = c.type == W_DOC ? RCT{20, 20, 320, 220} : RCT{20, 0, 320, 30};
      WINDOW win = xvt_win_create(c.type, &r, c.name, 0, c.parent, c.flags, EM_ALL, ClientAtCreateEh, 0);
      ASSERT_NE(win, NULL_WIN);
      RCT created = g_client_at_create, now, outer;
      xvt_app_process_pending_events();
      xvt_vobj_get_client_rect(win, &now);
      EXPECT_EQ(std::vector<int>({created.left, created.top, created.right, created.bottom}),
                std::vector<int>({0, 0, now.right, now.bottom}));
      EXPECT_GT(now.right, 0);
      EXPECT_LE(now.right, 300);
      if (c.type == W_DOC) continue;
      xvt_vobj_get_outer_rect(win, &outer);
      EXPECT_EQ(std::vector<int>({outer.left, outer.top, now.right, now.bottom}),
                std::vector<int>({r.left, r.top, 300, 30}));
    }
    // A dialog whose table gives no place opens over the task window.
    static const WIN_DEF kAnywhere[] = {{W_MODELESS, {0, 0, 300, 200}, "Anywhere", 0, 0}, {W_NONE, {}, nullptr, 0, 0}};
    WINDOW dlg = xvt_dlg_create_def(kAnywhere, EM_ALL, ClientAtCreateEh, 0);
    const QPoint off = dlg->outer->frameGeometry().center() - TASK_WIN->outer->frameGeometry().center();
    EXPECT_LE(off.manhattanLength(), 4) << off.x() << "," << off.y();
  });
}

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
    QImage img = doc->client->grab().toImage();
    struct Probe { int x, y; bool red; } probes[] = {{10, 10, true},  {30, 30, true}, {49, 49, true},
                                                     {50, 50, false}, {9, 30, false}, {100, 100, false}};
    for (const Probe& p : probes) {
      QColor c = img.pixelColor(p.x, p.y);
      EXPECT_EQ(c == QColor(255, 0, 0), p.red) << p.x << "," << p.y << " " << c.name().toStdString();
    }
  });
}

TEST_F(XvtQt, KeysAndMouseReachTheWindowInItsTerms) {
  RunApp([] {
    std::vector<EVENT>& log = NewLog();
    WINDOW win = Win(SCREEN_WIN, {0, 0, 300, 200}, &log);
    QWidget* canvas = win->client;
    struct { int qt_key; Qt::KeyboardModifiers mods; QString text; int expected; } keys[] = {
        {Qt::Key_Up, Qt::NoModifier, "", K_UP},           {Qt::Key_Home, Qt::NoModifier, "", K_LHOME},
        {Qt::Key_End, Qt::ControlModifier, "", K_END},   {Qt::Key_F24, Qt::NoModifier, "", K_F24},
        {Qt::Key_Backtab, Qt::ShiftModifier, "", K_BTAB}, {Qt::Key_Return, Qt::NoModifier, "\r", K_ENTER},
        {Qt::Key_Delete, Qt::NoModifier, "\x7f", K_DEL},  {Qt::Key_A, Qt::NoModifier, "a", 'a'},
        {Qt::Key_Eacute, Qt::NoModifier, QString(QChar(0xE9)), 0xE9},
    };
    for (const auto& k : keys) {
      log.clear();
      Key(canvas, k.qt_key, k.text, k.mods);
      auto chars = OfType(log, E_CHAR);
      ASSERT_EQ(chars.size(), 1u) << "key " << k.qt_key;
      EXPECT_EQ(chars[0].v.chr.ch, k.expected) << "key " << k.qt_key;
    }
    // Enter in a field reaches the window once, not by the field and again by the canvas.
    RCT er{10, 10, 100, 30};
    log.clear();
    Key(xvt_ctl_create(WC_EDIT, &er, "", win, 0, 5)->outer, Qt::Key_Return, "\r");
    EXPECT_EQ(OfType(log, E_CHAR).size(), 1u);
    // Space in a read-only text pages it; only at its end does the window hear it.
    RCT tr{10, 40, 200, 100};
    WINDOW text = xvt_ctl_create(WC_TEXTEDIT, &tr, std::string(60, '\n').c_str(), win, CTL_FLAG_READONLY, 6);
    std::vector<size_t> heard;
    for (int i = 0; i < 40 && heard.size() < 2; ++i)
      if (log.clear(), Key(text->outer, Qt::Key_Space, " "), !OfType(log, E_CHAR).empty()) heard.push_back(i);
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_GT(heard[0], 0u);  // not before the end, then every time
    EXPECT_EQ(heard[1], heard[0] + 1);
    Qt::MouseButton buttons[] = {Qt::LeftButton, Qt::RightButton, Qt::MiddleButton};
    for (int i = 0; i < 3; ++i) {
      log.clear();
      Press(canvas, QPoint(17, 23), buttons[i]);
      auto downs = OfType(log, E_MOUSE_DOWN);
      ASSERT_EQ(downs.size(), 1u);
      EXPECT_EQ(std::vector<int>({downs[0].v.mouse.button, downs[0].v.mouse.where.h, downs[0].v.mouse.where.v}),
                std::vector<int>({i, 17, 23}));
    }
  });
}

TEST_F(XvtQt, AttachedScrollBarBelongsToTheProgram) {
  RunApp([] {
    std::vector<EVENT>& log = NewLog();
    WINDOW win = Win(TASK_WIN, {0, 0, 200, 30}, &log, WSF_VSCROLL);
    RCT client;
    xvt_vobj_get_client_rect(win, &client);
    EXPECT_LT(client.right, 200) << "the bar takes its room from the client area";
    xvt_sbar_set_range(win, VSCROLL, 0, 100);
    xvt_sbar_set_proportion(win, VSCROLL, 10);
    xvt_sbar_set_pos(win, VSCROLL, 40);
    EXPECT_TRUE(OfType(log, E_VSCROLL).empty()) << "setting is not scrolling";
    win->bars[VSCROLL]->triggerAction(QAbstractSlider::SliderSingleStepAdd);
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
    RCT r{0, 0, 200, 30};
    WINDOW moved = xvt_win_create(W_PLAIN, &r, "moved", 0, TASK_WIN, WSF_VSCROLL, EM_ALL, stepper, 0);
    xvt_sbar_set_range(moved, VSCROLL, 0, 100);
    xvt_sbar_set_proportion(moved, VSCROLL, 10);
    moved->bars[VSCROLL]->triggerAction(QAbstractSlider::SliderPageStepAdd);
    EXPECT_EQ(xvt_sbar_get_pos(moved, VSCROLL), 25);
  });
}

QMenuBar* Bar() { return qobject_cast<QMainWindow*>(TASK_WIN->outer.data())->menuBar(); }

QAction* BarAction(const QString& text) {
  for (QAction* top : Bar()->actions())
    if (top->menu())
      for (QAction* a : top->menu()->actions())
        if (a->text() == text) return a;
  return nullptr;
}

std::vector<std::string> BarTitles() {
  std::vector<std::string> titles;
  for (QAction* a : Bar()->actions()) titles.push_back(a->text().toStdString());
  return titles;
}

TEST_F(XvtQt, MenusShowTheProgramsStateAndChoicesReachTheTaskWindow) {
  RunApp([] {
    // Mnemonics: '~' marks the letter, a literal '&' is shown as such.
    for (const char* shown : {"&Open", "Save && Close", "&Wrap lines", "&Print"})
      ASSERT_NE(BarAction(shown), nullptr) << shown;
    EXPECT_TRUE(BarAction("&Wrap lines")->isChecked());
    xvt_menu_set_item_title(TASK_WIN, 101, "~Open Folder");
    xvt_menu_set_item_enabled(TASK_WIN, 101, false);
    xvt_menu_set_item_enabled(TASK_WIN, 104, true);
    xvt_menu_set_item_checked(TASK_WIN, 102, true);
    ASSERT_NE(BarAction("&Open Folder"), nullptr);
    BarAction("&Open Folder")->trigger();  // disabled: no command
    BarAction("&Print")->trigger();
    BarAction("Save && Close")->trigger();
    std::vector<int> tags;
    for (const EVENT& e : OfType(g_task_events, E_COMMAND)) tags.push_back(e.v.cmd.tag);
    EXPECT_EQ(tags, (std::vector<int>{104, 102}));
    EXPECT_TRUE(xvt_menu_get_item_checked(TASK_WIN, 102)) << "choosing an item does not uncheck it";
    EXPECT_TRUE(BarAction("Save && Close")->isChecked());

    // The active document shows its own bar, the task's comes back after it.
    using Titles = std::vector<std::string>;
    WINDOW doc = Win(TASK_WIN, {0, 0, 300, 200}, nullptr, WSF_SIZE, W_DOC, kDocMenuBar);
    ASSERT_NE(doc, NULL_WIN);
    EXPECT_TRUE(WaitFor([] { return BarTitles() == Titles{"&Message"}; }, 500));
    ASSERT_NE(BarAction("&Reply"), nullptr) << "the key after the tab is no part of the title";
    EXPECT_EQ(BarAction("&Reply")->shortcut(), QKeySequence("Ctrl+R"));
    xvt_vobj_destroy(doc);
    EXPECT_EQ(BarTitles(), Titles{"&File"});
  });
}

int g_fd_calls;
void OnReadable(int fd, void*) {
  char buf[16];
  if (read(fd, buf, sizeof buf) > 0) ++g_fd_calls;
}

TEST_F(XvtQt, TimersPostedEventsAndWatchedDescriptorsComeLaterAndNeverToDeadWindows) {
  RunApp([] {
    std::vector<EVENT>& log = NewLog();
    std::vector<EVENT>& gone_log = NewLog();
    WINDOW win = Win(TASK_WIN, {0, 0, 100, 30}, &log);
    WINDOW gone = Win(TASK_WIN, {0, 0, 100, 30}, &gone_log);
    EVENT ev = xvtrec::MakeEvent(E_USER);
    ev.v.user.id = 42;
    xvt_win_post_event(win, &ev);
    xvt_win_post_event(gone, &ev);
    EXPECT_TRUE(OfType(log, E_USER).empty()) << "not at once";
    xvt_timer_create(gone, 10);
    xvt_vobj_destroy(gone);
    // A new window may reuse the dead one's address; it gets none of its events.
    ASSERT_NE(Win(TASK_WIN, {0, 0, 100, 30}, &gone_log), NULL_WIN);
    long id = xvt_timer_create(win, 10);
    ASSERT_GT(id, 0);
    EXPECT_EQ(xvt_timer_create(win, 0), XVT_TIMER_ERROR);
    ASSERT_TRUE(WaitFor([&] { return OfType(log, E_TIMER).size() >= 3; }));
    for (const EVENT& e : OfType(log, E_TIMER)) EXPECT_EQ(e.v.timer.id, id);
    ASSERT_EQ(OfType(log, E_USER).size(), 1u);
    EXPECT_EQ(OfType(log, E_USER)[0].v.user.id, 42);
    EXPECT_TRUE(OfType(gone_log, E_USER).empty() && OfType(gone_log, E_TIMER).empty());
    xvt_timer_destroy(id);
    size_t ticks = OfType(log, E_TIMER).size();
    WaitFor([] { return false; }, 60);
    EXPECT_EQ(OfType(log, E_TIMER).size(), ticks);

    // A watched descriptor calls back until it is unwatched.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    g_fd_calls = 0;
    long watch = xvt_fd_watch(fds[0], OnReadable, nullptr);
    ASSERT_GT(watch, 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    EXPECT_TRUE(WaitFor([] { return g_fd_calls == 1; }));
    xvt_fd_unwatch(watch);
    ASSERT_EQ(write(fds[1], "y", 1), 1);
    WaitFor([] { return false; }, 50);
    EXPECT_EQ(g_fd_calls, 1);
    EXPECT_EQ(xvt_fd_watch(-1, OnReadable, nullptr), 0);
    close(fds[0]), close(fds[1]);
  });
}

std::vector<std::pair<XVT_NATIVE_EVENT, int>> g_native;
void NativeHook(XVT_NATIVE_EVENT what, int code) { g_native.push_back({what, code}); }

std::vector<std::pair<XVT_SEVERITY, std::string>> g_messages;
bool ErrHook(XVT_SEVERITY severity, const char*, const char* message) {
  g_messages.push_back({severity, message});
  return true;
}

TEST_F(XvtQt, TrapSwallowsInputElsewhereWhileTheHooksStillHearIt) {
  RunApp([] {
    g_native.clear();
    g_messages.clear();
    ASSERT_TRUE(xvt_vobj_set_attr(NULL_WIN, ATTR_NATIVE_HOOK, reinterpret_cast<intptr_t>(NativeHook)));
    ASSERT_TRUE(xvt_vobj_set_attr(NULL_WIN, ATTR_ERRMSG_HANDLER, reinterpret_cast<intptr_t>(ErrHook)));
    std::vector<EVENT>& busy_log = NewLog(), &other_log = NewLog();
    WINDOW busy = Win(TASK_WIN, {0, 0, 100, 30}, &busy_log);
    WINDOW other = Win(SCREEN_WIN, {100, 100, 300, 300}, &other_log, WSF_VSCROLL);
    xvt_win_trap_pointer(busy);
    // A press comes in through the window system: the hook hears it once, however many widgets it passes, and even
    // while trapped elsewhere.
    QWindow* handle = other->client->window()->windowHandle();
    ASSERT_NE(handle, nullptr);
    for (QEvent::Type t : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
      QMouseEvent e(t, QPointF(3, 3), QPointF(3, 3), Qt::LeftButton,
                    t == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton, Qt::NoModifier);
      QApplication::sendEvent(handle, &e);
    }
    Press(other->client, QPoint(5, 5));
    Key(other->client, Qt::Key_A, "a");
    Press(busy->client, QPoint(5, 5));
    EXPECT_TRUE(OfType(other_log, E_MOUSE_DOWN).empty() && OfType(other_log, E_CHAR).empty());
    EXPECT_EQ(OfType(busy_log, E_MOUSE_DOWN).size(), 1u);
    EXPECT_FALSE(QWidget::mouseGrabber()) << "trapping never grabs";
    EXPECT_FALSE(QWidget::keyboardGrabber());

    xvt_win_release_pointer();
    Press(other->client, QPoint(5, 5));
    EXPECT_EQ(OfType(other_log, E_MOUSE_DOWN).size(), 1u);
    // A trap that dies with its window leaves no trap behind.
    xvt_win_trap_pointer(busy);
    xvt_vobj_destroy(busy);
    Press(other->client, QPoint(5, 5));
    EXPECT_EQ(OfType(other_log, E_MOUSE_DOWN).size(), 2u);

    xvt_sbar_set_range(other, VSCROLL, 0, 10);
    other->bars[VSCROLL]->triggerAction(QAbstractSlider::SliderPageStepAdd);
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
  });
}

TEST_F(XvtQt, BadInputIsRefusedWithoutHarm) {
  const std::string junk = testing::TempDir() + "xvt_qt_junk.bmp";
  std::ofstream(junk, std::ios::binary) << "BM this is not a bitmap";
  EXPECT_EQ(xvt_image_read_bmp(junk.c_str()), nullptr);
  RunApp([] {
    RCT r{0, 0, 100, 30};
    WINDOW win = xvt_win_create(W_PLAIN, &r, "\xC3\xA9\xC3\xA9\xC3\xA9", 0, TASK_WIN, WSF_NONE, EM_ALL, nullptr, 0);
    char buf[4];
    // Three bytes fit: one whole character, never half of the next.
    ASSERT_NE(xvt_vobj_get_title(win, buf, sizeof buf), nullptr);
    EXPECT_STREQ(buf, "\xC3\xA9");
    xvt_vobj_destroy(win);
    EXPECT_EQ(xvt_vobj_get_title(win, buf, sizeof buf), nullptr);
    EXPECT_EQ(xvt_win_create(W_PLAIN, &r, "x", 0, win, WSF_NONE, EM_ALL, nullptr, 0), NULL_WIN);
    EXPECT_EQ(xvt_ctl_create(WC_PUSHBUTTON, &r, "x", win, 0, 1), NULL_WIN);
    EXPECT_EQ(xvt_dlg_create_res(W_MODAL, 123456, EM_ALL, nullptr, 0), NULL_WIN);
    EXPECT_FALSE(xvt_help_open_helpfile("/nonexistent/help.html"));
    EXPECT_FALSE(xvt_help_display(nullptr));
  });
}

}  // namespace
}  // namespace xvt_qt_test
