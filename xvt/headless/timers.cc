// Timers run on a virtual clock that only the test moves; descriptor
// watchers are kept but never polled (tests drive their sockets themselves).
#include "xvt/headless/headless_internal.h"

using namespace xvthl;

long xvt_timer_create(WINDOW win, long period_ms) {
  auto& s = S();
  if (!Live(win) || period_ms <= 0) return XVT_TIMER_ERROR;
  long id = s.next_timer++;
  s.timers[id] = Timer{win, period_ms, s.now + period_ms};
  return id;
}

void xvt_timer_destroy(long id) { S().timers.erase(id); }

long xvt_fd_watch(int fd, XVT_FD_CALLBACK cb, void* data) {
  auto& s = S();
  long id = s.next_watch++;
  s.watches[id] = {fd, {cb, data}};
  return id;
}
void xvt_fd_unwatch(long id) { S().watches.erase(id); }

// ---------------------------------------------------------------------------
// Test hooks

void xvt_test_advance_ms(long ms) {
  auto& s = S();
  long target = s.now + ms;
  for (;;) {
    long best_id = 0, best_due = 0;
    for (auto& [id, t] : s.timers)
      if (t.due <= target && (best_id == 0 || t.due < best_due)) {
        best_id = id;
        best_due = t.due;
      }
    if (best_id == 0) break;
    s.now = best_due;
    Timer& t = s.timers[best_id];
    t.due += t.period;
    WINDOW w = t.win;
    EVENT ev = MakeEvent(E_TIMER);
    ev.v.timer.id = best_id;
    Send(w, &ev);
    xvt_app_process_pending_events();
  }
  s.now = target;
}

long xvt_test_now_ms(void) { return S().now; }

std::vector<XvtTimer> xvt_test_timers(void) {
  std::vector<XvtTimer> out;
  for (auto& [id, t] : S().timers) out.push_back(XvtTimer{id, t.win, t.period, t.due});
  return out;
}
