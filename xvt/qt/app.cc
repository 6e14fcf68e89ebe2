// The application: QApplication, the task window with its toolbar row and
// document area, the event loop, termination signals and session requests.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QDialog>
#include <QIcon>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QPixmap>
#include <QScreen>
#include <QSessionManager>
#include <QStyle>
#include <QTimer>
#include <QSocketNotifier>
#include <QVBoxLayout>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

// Written by the signal handler, which may touch nothing else.
volatile sig_atomic_t g_signal_fd = -1;
struct sigaction g_old_term, g_old_hup;
QSocketNotifier* g_signal_notifier = nullptr;

void OnSignal(int sig) {
  int fd = g_signal_fd;
  if (fd < 0) return;
  int saved = errno;
  char c = static_cast<char>(sig);
  ssize_t n = write(fd, &c, 1);
  (void)n;
  errno = saved;
}

// SIGTERM and SIGHUP ask the program to quit; they arrive through a pipe so
// that the handler runs on the event loop like any other event.
void InstallSignalPipe() {
  auto& s = S();
  if (pipe2(s.signal_fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::fprintf(stderr, "xvt: cannot watch termination signals: %s\n", std::strerror(errno));
    s.signal_fds[0] = s.signal_fds[1] = -1;
    return;
  }
  g_signal_fd = s.signal_fds[1];
  g_signal_notifier = new QSocketNotifier(s.signal_fds[0], QSocketNotifier::Read);
  QObject::connect(g_signal_notifier, &QSocketNotifier::activated, [] {
    auto& st = S();
    char buf[64];
    ssize_t n;
    int quits = 0;
    while ((n = read(st.signal_fds[0], buf, sizeof buf)) > 0) quits += static_cast<int>(n);
    // However many signals came in, the program is asked once.
    if (quits == 0 || !Live(R().task) || R().destroyed) return;
    R().session_ending = true;
    auto quit = [] {
      if (!Live(R().task) || R().destroyed) return;
      EVENT ev = MakeEvent(E_QUIT);
      ev.v.query = false;
      Send(R().task, &ev);
    };
    // A box waiting for an answer would hold the quit back until someone
    // answers it, which may be never (a session ending): it is cancelled,
    // and the quit comes once the code that asked has unwound.
    // (Without a window manager no window is active, so the modal one is
    // also looked for among the shown top-level windows.)
    QWidget* modal = QApplication::activeModalWidget();
    for (QWidget* w : QApplication::topLevelWidgets())
      if (!modal && w->isVisible() && w->isModal()) modal = w;
    if (modal) {
      if (auto* dialog = qobject_cast<QDialog*>(modal))
        dialog->reject();
      else
        modal->close();
      QTimer::singleShot(0, quit);
      return;
    }
    quit();
  });
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &sa, &g_old_term);
  sigaction(SIGHUP, &sa, &g_old_hup);
}

void RemoveSignalPipe() {
  auto& s = S();
  if (s.signal_fds[0] < 0) return;
  sigaction(SIGTERM, &g_old_term, nullptr);
  sigaction(SIGHUP, &g_old_hup, nullptr);
  g_signal_fd = -1;
  delete g_signal_notifier;
  g_signal_notifier = nullptr;
  close(s.signal_fds[0]);
  close(s.signal_fds[1]);
  s.signal_fds[0] = s.signal_fds[1] = -1;
}

QSize ScreenSize() {
  QScreen* screen = QGuiApplication::primaryScreen();
  return screen ? screen->geometry().size() : QSize(1024, 768);
}

// The widget whose frame state ATTR_WIN_MAXIMIZED / MINIMIZED concern.
QWidget* FrameWidget(WINDOW win) {
  auto& s = S();
  if (!Live(win)) return nullptr;
  if (win == R().task) return s.task_window;
  if (win->outer && (win->outer->isWindow() || qobject_cast<QMdiSubWindow*>(win->outer))) return win->outer;
  return nullptr;
}

bool SetFrameState(QWidget* w, Qt::WindowState flag, bool on) {
  if (!w) return false;
  Qt::WindowStates st = w->windowState();
  if (on) {
    st &= ~(Qt::WindowMaximized | Qt::WindowMinimized);
    st |= flag;
  } else {
    st &= ~flag;
  }
  if (w->isVisible()) {
    if (st & Qt::WindowMaximized)
      w->showMaximized();
    else if (st & Qt::WindowMinimized)
      w->showMinimized();
    else
      w->showNormal();
  } else {
    w->setWindowState(st);
  }
  return true;
}

void BuildTaskWindow(XVT_CONFIG* config) {
  auto& s = S();
  s.task_window = new TaskWindow;
  s.task_window->setWindowTitle(FromUtf8(config && config->taskwin_title ? config->taskwin_title : ""));
  auto* central = new TaskClient(s.task_window);
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  s.toolbar_height = config ? std::max(0, config->toolbar_height) : 0;
  s.toolbar_row = new QWidget(central);
  s.toolbar_row->setFixedHeight(s.toolbar_height);
  if (s.toolbar_height == 0) s.toolbar_row->hide();
  s.mdi_area = new QMdiArea(central);
  s.mdi_area->setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
  s.mdi_area->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
  layout->addWidget(s.toolbar_row);
  layout->addWidget(s.mdi_area, 1);
  s.task_window->setCentralWidget(central);
  QObject::connect(s.mdi_area, &QMdiArea::subWindowActivated, s.task_window, [](QMdiSubWindow* sub) {
    if (R().destroyed) return;
    ShowTaskMenuBar();
    // The window whose bar now shows is the one in front, also when the
    // click that brought it there landed in a child (its tree) that takes
    // the focus event itself: the program routes the bar's commands by it.
    if (xvt_object* doc = RecordOf(sub); doc && Live(doc)) {
      EVENT ev = MakeEvent(E_FOCUS);
      ev.v.active = true;
      Send(doc, &ev);
    }
  });

  auto& r = R();
  r.screen = NewRecord(W_SCREEN, nullptr);
  r.task = NewRecord(W_TASK, nullptr);
  r.task->title = config && config->taskwin_title ? config->taskwin_title : "";
  r.task->outer = s.task_window;
  r.task->client = central;
  Bind(s.task_window, r.task);
  r.mdi = NewRecord(W_PLAIN, r.task);
  r.mdi->title = "MDI client";
  r.mdi->outer = s.mdi_area;
  r.mdi->client = s.mdi_area->viewport();

  if (config) LoadMenuBar(r.task, xvt_res_get_menubar(config->menu_bar_rid));
  ShowTaskMenuBar();

  QSize screen = ScreenSize();
  s.task_window->resize(std::min(1024, screen.width()), std::min(768, screen.height()));
}

void FreeApplication() {
  auto& s = S();
  StopScript();
  RemoveInputFilter();
  RemoveSignalPipe();
  KillAllTimers();
  KillAllWatches();
  CloseHelp();
  ClearCursor();
  // Widgets of destroyed windows wait for deletion; let them go now, while
  // the application they belong to still exists.
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  ClearDrawCaches();
  s.answers.clear();
  s.dialogs.clear();
  s.files.clear();
  s.dismiss = 0;
  s.by_widget.clear();
  if (s.own_app) {
    delete s.app;
    s.own_app = false;
  }
  s.app = nullptr;
}

}  // namespace
}  // namespace xvtqt

using namespace xvtqt;

void xvt_app_create(int argc, char** argv, unsigned long, EVENT_HANDLER task_eh, XVT_CONFIG* config) {
  auto& s = S();
  if (s.running) {
    std::fprintf(stderr, "xvt: xvt_app_create called while the application is running\n");
    return;
  }
  // QApplication may rewrite argc and argv (it removes the options it
  // understands); it gets copies, and the caller's stay as they are.
  s.args.clear();
  for (int i = 0; argv && i < argc; ++i) s.args.push_back(argv[i] ? argv[i] : "");
  if (s.args.empty()) s.args.push_back(config && config->base_appl_name ? config->base_appl_name : "xvt");
  s.argv.clear();
  for (auto& a : s.args) s.argv.push_back(a.data());
  s.argv.push_back(nullptr);
  s.argc = static_cast<int>(s.args.size());

  if (QCoreApplication* existing = QCoreApplication::instance()) {
    s.app = qobject_cast<QApplication*>(existing);
    if (!s.app) {
      std::fprintf(stderr, "xvt: a non-widget application object already exists\n");
      return;
    }
  } else {
    s.app = new QApplication(s.argc, s.argv.data());
    s.own_app = true;
  }
  s.app->setQuitOnLastWindowClosed(false);
  if (config && config->appl_name) QCoreApplication::setApplicationName(FromUtf8(config->appl_name));
  s.appl_name = config && config->appl_name ? config->appl_name : "";
  s.running = true;
  R().forget = ForgetRecord;
  R().destroyed = false;
  R().quit_allowed = false;
  s.progress_cancelled = false;
  const char* script = std::getenv("VELMAR_XVT_SCRIPT");
  s.scripted = script && *script;

  BuildTaskWindow(config);
  InstallInputFilter();
  InstallSignalPipe();
#ifndef QT_NO_SESSIONMANAGER
  QObject::connect(s.app, &QGuiApplication::commitDataRequest, s.task_window, [](QSessionManager& manager) {
    auto& st = R();
    if (!Live(st.task) || st.destroyed) return;
    manager.allowsInteraction();
    st.quit_allowed = false;
    EVENT ev = MakeEvent(E_QUIT);
    ev.v.query = true;
    Send(st.task, &ev);
    if (!st.quit_allowed) manager.cancel();
  });
#endif

  R().task->eh = task_eh;
  R().task->created = true;
  EVENT ev = MakeEvent(E_CREATE);
  Send(R().task, &ev);
  if (!R().destroyed) {
    if (s.task_window) s.task_window->show();
    StartScript();
    s.app->exec();
  }
  // The loop may also have been ended by someone else's quit().
  if (!R().destroyed) xvt_app_destroy();
  FreeApplication();
  s.running = false;
}

void xvt_app_destroy(void) {
  // No script line may run while the windows go.
  StopScript();
  if (!DestroyAllWindows()) return;
  auto& s = S();
  s.task_window = nullptr;
  s.toolbar_row = nullptr;
  s.mdi_area = nullptr;
  s.trapped = nullptr;
  s.progress = nullptr;
  KillAllTimers();
  ClearCursor();
  // Every loop ends: the main one and any modal one the handlers ran in.
  QCoreApplication::exit(0);
}

void xvt_app_process_pending_events(void) {
  if (!QCoreApplication::instance()) return;
  QCoreApplication::processEvents(QEventLoop::AllEvents);
  QCoreApplication::sendPostedEvents();
}

intptr_t xvt_vobj_get_attr(WINDOW win, XVT_ATTR attr) {
  intptr_t value = 0;
  if (GetSharedAttr(attr, &value)) return value;
  switch (attr) {
    case ATTR_SCREEN_WIDTH: return QCoreApplication::instance() ? ScreenSize().width() : 0;
    case ATTR_SCREEN_HEIGHT: return QCoreApplication::instance() ? ScreenSize().height() : 0;
    case ATTR_CTL_VERT_SBAR_WIDTH:
    case ATTR_CTL_HORZ_SBAR_HEIGHT:
      return QCoreApplication::instance() ? QApplication::style()->pixelMetric(QStyle::PM_ScrollBarExtent) : 16;
    case ATTR_WIN_MAXIMIZED: {
      QWidget* w = FrameWidget(win);
      return w && (w->windowState() & Qt::WindowMaximized);
    }
    case ATTR_WIN_MINIMIZED: {
      QWidget* w = FrameWidget(win);
      return w && (w->windowState() & Qt::WindowMinimized);
    }
    default: return 0;
  }
}

bool xvt_vobj_set_attr(WINDOW win, XVT_ATTR attr, intptr_t value) {
  auto& s = S();
  if (SetSharedAttr(attr, value)) {
    if (attr == ATTR_ERRMSG_HANDLER) InstallMessageHandler(R().errmsg);
    return true;
  }
  switch (attr) {
    case ATTR_APP_ICON: {
      QImage img = IconImage(static_cast<int>(value));
      if (img.isNull() || !s.task_window) return false;
      QIcon icon(QPixmap::fromImage(img));
      s.task_window->setWindowIcon(icon);
      QApplication::setWindowIcon(icon);
      return true;
    }
    case ATTR_WIN_MAXIMIZED: return SetFrameState(FrameWidget(win), Qt::WindowMaximized, value != 0);
    case ATTR_WIN_MINIMIZED: return SetFrameState(FrameWidget(win), Qt::WindowMinimized, value != 0);
    default: return false;
  }
}
