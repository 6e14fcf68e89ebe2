// Each Qt test runs a whole application whose body runs from the event loop after E_CREATE; the application ends
// when the body returns, or fails when a watchdog finds it hanging (a box waiting for a user).
#pragma once

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QThread>
#include <QTimer>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "xvt/qt/qt_internal.h"
#include "xvt/xvt.h"

namespace xvt_qt_test {

using xvtqt::S;

constexpr int kMenuBar = 7000;
constexpr int kDocMenuBar = 7001;
constexpr int kDialog = 7100;
constexpr int kScriptDialog = 7101;

inline std::vector<EVENT> g_task_events;
inline std::function<void()> g_body;
inline QObject* g_ctx = nullptr;  // owns the run's timers; gone with the task window
inline std::function<void(int)> g_on_command;  // the run's answer to menu choices

inline long TaskEh(WINDOW, EVENT* ev) {
  g_task_events.push_back(*ev);
  if (ev->type == E_COMMAND && g_on_command) g_on_command(ev->v.cmd.tag);
  if (ev->type == E_CREATE) {
    g_ctx = new QObject;
    QTimer::singleShot(0, g_ctx, [] {
      g_body();
      xvt_app_destroy();
    });
    QTimer::singleShot(8000, g_ctx, [] {
      ADD_FAILURE() << "the run timed out";
      xvt_app_destroy();
    });
  } else if (ev->type == E_DESTROY) {
    g_ctx->deleteLater();
    g_ctx = nullptr;
  }
  return 0;
}

inline void StartApp(EVENT_HANDLER task_eh, int toolbar_height = 30, int argc = 0, char** argv = nullptr) {
  char arg0[] = "xvt_qt_test";
  char* own[] = {arg0, nullptr};
  XVT_CONFIG config{kMenuBar, 0, "velmar", "Velmar", "Velmar test", toolbar_height};
  xvt_app_create(argv ? argc : 1, argv ? argv : own, 0, task_eh, &config);
}

// Event logs of a run's windows: they outlive the body, as the windows hear of their destruction after it.
inline std::deque<std::vector<EVENT>> g_logs;
inline std::vector<EVENT>& NewLog() { return g_logs.emplace_back(); }

inline void RunApp(std::function<void()> body, int toolbar_height = 30, int argc = 0, char** argv = nullptr) {
  g_task_events.clear();
  g_logs.clear();
  g_on_command = nullptr;
  g_body = std::move(body);
  StartApp(TaskEh, toolbar_height, argc, argv);
}

// Runs the event loop until cond holds or ms have passed.
inline bool WaitFor(const std::function<bool()>& cond, int ms = 2000) {
  QElapsedTimer t;
  t.start();
  while (!cond()) {
    if (t.elapsed() > ms) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents);
    QThread::msleep(1);
  }
  return true;
}

// Logs into the vector the window's app data points at.
inline long LogEh(WINDOW win, EVENT* ev) {
  if (auto* log = reinterpret_cast<std::vector<EVENT>*>(xvt_vobj_get_data(win))) log->push_back(*ev);
  return 0;
}

// A window that logs its events into *log (when given).
inline WINDOW Win(WINDOW parent, RCT r, std::vector<EVENT>* log = nullptr, unsigned long flags = WSF_NONE,
                  WIN_TYPE type = W_PLAIN, int menu_rid = 0) {
  return xvt_win_create(type, &r, "w", menu_rid, parent, flags, EM_ALL, LogEh, reinterpret_cast<intptr_t>(log));
}

inline std::vector<EVENT> OfType(const std::vector<EVENT>& log, EVENT_TYPE type) {
  std::vector<EVENT> out;
  for (const EVENT& e : log)
    if (e.type == type) out.push_back(e);
  return out;
}

inline void Press(QWidget* w, QPoint at, Qt::MouseButton button = Qt::LeftButton) {
  QMouseEvent e(QEvent::MouseButtonPress, QPointF(at), w->mapToGlobal(QPointF(at)), button, button, Qt::NoModifier);
  QApplication::sendEvent(w, &e);
}

inline void Key(QObject* to, int key, const QString& text = "", Qt::KeyboardModifiers mods = Qt::NoModifier) {
  QKeyEvent e(QEvent::KeyPress, key, mods, text);
  QApplication::sendEvent(to, &e);
}

inline const MENU_ITEM kFileMenu[] = {{101, "~Open", true, false, false, nullptr},
                                      {102, "Save & Close", true, false, false, nullptr},
                                      {0, nullptr, false, false, true, nullptr},  // a separator
                                      {103, "~Wrap lines", true, true, false, nullptr},
                                      {104, "~Print", false, false, false, nullptr}, {}};
inline const MENU_ITEM kMenus[] = {{100, "~File", true, false, false, kFileMenu}, {}};
inline const MENU_ITEM kMessageMenu[] = {{201, "~Reply\tCtrl+R", true, false, false, nullptr}, {}};
inline const MENU_ITEM kDocMenus[] = {{200, "~Message", true, false, false, kMessageMenu}, {}};

struct Registered {
  Registered() {
    xvt_res_register_menubar(kMenuBar, kMenus);
    xvt_res_register_menubar(kDocMenuBar, kDocMenus);
  }
};
inline Registered registered;

class XvtQt : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv("VELMAR_XVT_SCRIPT"); }
};

}  // namespace xvt_qt_test
