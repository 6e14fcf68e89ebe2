// Timers (E_TIMER to a window) and descriptor watchers.
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include "xvt/qt/qt_internal.h"

namespace xvtqt {

void KillTimersOf(WINDOW w) {
  auto& s = S();
  for (auto it = s.timers.begin(); it != s.timers.end();) {
    if (it->second.win == w) {
      it->second.timer->stop();
      // The timer may be the one whose tick is running right now.
      it->second.timer->deleteLater();
      it = s.timers.erase(it);
    } else {
      ++it;
    }
  }
}

void KillAllTimers() {
  auto& s = S();
  for (auto& [id, t] : s.timers) {
    t.timer->stop();
    t.timer->deleteLater();
  }
  s.timers.clear();
}

void KillAllWatches() {
  auto& s = S();
  for (auto& [id, w] : s.watches) {
    w.notifier->setEnabled(false);
    w.notifier->deleteLater();
  }
  s.watches.clear();
}

}  // namespace xvtqt

using namespace xvtqt;

long xvt_timer_create(WINDOW win, long period_ms) {
  auto& s = S();
  if (!Live(win) || period_ms <= 0 || !QCoreApplication::instance() || R().destroyed) return XVT_TIMER_ERROR;
  long id = s.next_timer++;
  auto* timer = new QTimer;
  timer->setInterval(static_cast<int>(std::min<long>(period_ms, INT32_MAX)));
  QObject::connect(timer, &QTimer::timeout, timer, [id] {
    auto& st = S();
    auto it = st.timers.find(id);
    if (it == st.timers.end() || !Live(it->second.win)) return;
    EVENT ev = MakeEvent(E_TIMER);
    ev.v.timer.id = id;
    Send(it->second.win, &ev);
  });
  s.timers[id] = Timer{timer, win};
  timer->start();
  return id;
}

void xvt_timer_destroy(long id) {
  auto& s = S();
  auto it = s.timers.find(id);
  if (it == s.timers.end()) return;
  it->second.timer->stop();
  it->second.timer->deleteLater();
  s.timers.erase(it);
}

long xvt_fd_watch(int fd, XVT_FD_CALLBACK cb, void* data) {
  auto& s = S();
  if (fd < 0 || !cb || !QCoreApplication::instance()) return 0;
  long id = s.next_watch++;
  auto* n = new QSocketNotifier(fd, QSocketNotifier::Read);
  QObject::connect(n, &QSocketNotifier::activated, n, [id, fd, cb, data] {
    if (S().watches.count(id)) cb(fd, data);
  });
  s.watches[id] = FdWatch{n};
  return id;
}

void xvt_fd_unwatch(long id) {
  auto& s = S();
  auto it = s.watches.find(id);
  if (it == s.watches.end()) return;
  it->second.notifier->setEnabled(false);
  it->second.notifier->deleteLater();
  s.watches.erase(it);
}
