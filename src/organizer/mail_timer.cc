#include "src/base/trace.h"
#include "src/base/critical.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/organizer/organizer.h"
#include "src/search/filters.h"
#include "src/send/autoreply.h"

namespace {

struct MailTimer {
  WINDOW owner = NULL_WIN;
  long id = 0;
  long period = 0;
  bool normal = true;  // running at the configured period
  bool posting = false;
};

MailTimer& M() {
  static MailTimer m;
  return m;
}

long ConfiguredPeriod() {
  int minutes = 0;
  // A zero or negative interval would make a timer that never rests.
  if (!Opt_LookupInt("Timer.Interval", &minutes, kOptSession) || minutes < 1) return kDefaultMailPeriodMs;
  return static_cast<long>(minutes) * 60000L;
}

}  // namespace

void MSG_SetMailTimerOwner(WINDOW win) { M().owner = win; }

void set_mail_timer(int normal) {
  MailTimer& m = M();
  if (m.id) xvt_timer_destroy(m.id);
  m.id = 0;
  m.period = normal ? ConfiguredPeriod() : kMailRetryMs;
  m.normal = normal != 0;
  Trace(kTraceOrganizer, kTraceLow, "set_mail_timer: MAIL_TIMER set to %ld seconds\n", m.period / 1000);
  if (m.owner) m.id = xvt_timer_create(m.owner, m.period);
  if (!m.id) m.period = 0;
}

void MSG_DestroyMailTimer() {
  MailTimer& m = M();
  if (m.id) xvt_timer_destroy(m.id);
  m.id = 0;
  m.period = 0;
  m.normal = true;
}

long MSG_MailTimerPeriod() { return M().id ? M().period : 0; }

void MSG_MailTimerTick() {
  MailTimer& m = M();
  if (m.posting) return;
  m.posting = true;
  MM_NotPostSimple(E_MAIL_TIMER);
  m.posting = false;
  // New mail is answered once every check of this tick is over: the
  // answers need the connections the checks were using.
  autoreply_run_pending();
  // Filed after the answers: a message moved away first would not be answered.
  FLT_RunPending();
}

int MSG_MailTimerGate() {
  MailTimer& m = M();
  if (WIN_in_critical() || WIN_mouse_captured()) {
    Trace(kTraceOrganizer, kTraceLow, "E_MAIL_TIMER in folder.c: in critical section - ignoring timer\n");
    if (m.normal) set_mail_timer(0);
    return 0;
  }
  if (!m.normal) set_mail_timer(1);
  return 1;
}
