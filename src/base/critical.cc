// Busy mode: while the program talks to a server or works through a long
// job, input to its windows is held off and a small hourglass turns in the
// toolbar row. Timers test WIN_in_critical and WIN_mouse_captured and defer
// their work.
#include "src/base/trace.h"
#include "src/base/commands.h"
#include "src/base/critical.h"

namespace {

constexpr int kIconIdle = 9251;
constexpr int kIconStopped = 9356;
// The animation walks forward to the last icon, then back to the first.
constexpr int kAnimation[] = {9356, 9357, 9254, 9355, 9253, 9252};
constexpr int kAnimationSteps = static_cast<int>(sizeof kAnimation / sizeof kAnimation[0]);
constexpr long kAnimationPeriod = 500;

struct Critical {
  WINDOW win = NULL_WIN;
  int depth = 0;
  long timer = 0;
  int step = 0;
  bool backward = false;
  int icon = kIconIdle;
  bool in_critical = false;
  bool mouse_captured = false;
  bool suspend_mode = false;
  bool pointer_trapped = false;
};

Critical& C() {
  static Critical c;
  return c;
}

void ResetAnimation() {
  C().icon = kIconIdle;
  C().step = 0;
  C().backward = false;
}

void Repaint() {
  if (C().win) xvt_dwin_invalidate_rect(C().win, nullptr);
}

void StepAnimation() {
  Critical& c = C();
  if (!c.backward) {
    if (c.step + 1 >= kAnimationSteps) {
      c.backward = true;
      --c.step;
    } else {
      ++c.step;
    }
  } else {
    if (c.step <= 0) {
      c.backward = false;
      ++c.step;
    } else {
      --c.step;
    }
  }
  c.icon = kAnimation[c.step];
  Repaint();
}

long critical_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: ResetAnimation(); break;
    case E_UPDATE:
      xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW);
      xvt_dwin_draw_icon(win, 8, 5, C().icon);
      break;
    case E_TIMER: StepAnimation(); break;
    case E_DESTROY:
      if (C().win == win) {
        C().win = NULL_WIN;
        C().timer = 0;
      }
      break;
    default: break;
  }
  return 0;
}

bool IsTopLevelKind(WIN_TYPE t) {
  return t == W_DOC || t == W_PLAIN || t == W_DBL || t == W_TASK || t == W_SCREEN || t == W_NO_BORDER || t == W_MODAL;
}

void ReleaseAndRestore() {
  Critical& c = C();
  xvt_win_release_pointer();
  c.pointer_trapped = false;
  xvt_win_set_cursor(TASK_WIN, CURSOR_ARROW);
}

void TrapInCriticalWindow() {
  Critical& c = C();
  xvt_win_trap_pointer(c.win);
  xvt_win_set_cursor(c.win, CURSOR_WAIT);
  c.pointer_trapped = true;
}

}  // namespace

WINDOW WIN_create_critical_window(WINDOW task_win) {
  Critical& c = C();
  if (c.win) return c.win;
  RCT r{0, 0, kCriticalWinWidth, kToolbarHeight};
  c.win = xvt_win_create(W_PLAIN, &r, "", 0, task_win, WSF_NONE, EM_ALL, critical_eh, 0);
  return c.win;
}

void WIN_destroy_critical_window() {
  Critical& c = C();
  if (c.timer) xvt_timer_destroy(c.timer);
  c.timer = 0;
  if (c.win) xvt_vobj_destroy(c.win);
  c = Critical();
}

void WIN_start_critical() {
  Critical& c = C();
  c.in_critical = true;
  if (!c.win && !WIN_create_critical_window(TASK_WIN)) {
    Trace(kTraceFrame, kTraceCritical, "WIN_start_critical: error creating critical section window\n");
    return;
  }
  if (c.depth != 0) {
    ++c.depth;
    Trace(kTraceFrame, kTraceAll, "start critical section no %d\n", c.depth);
    WIN_capture_pointer();
    return;
  }
  Trace(kTraceFrame, kTraceAll, "starting critical section\n");
  WIN_capture_pointer();
  c.depth = 1;
  c.timer = xvt_timer_create(c.win, kAnimationPeriod);
}

void WIN_end_critical() {
  Critical& c = C();
  if (!c.win) {
    Trace(kTraceFrame, kTraceCritical, "WIN_end_critical: error - there is no active critical section to end!\n");
    return;
  }
  if (c.depth != 1) {
    --c.depth;
    if (c.depth < 0) c.depth = 0;
    if (c.depth > 0) WIN_capture_pointer();
    Trace(kTraceFrame, kTraceAll, "ending critical section no %d\n", c.depth + 1);
    return;
  }
  Trace(kTraceFrame, kTraceAll, "ending critical section\n");
  if (c.timer) xvt_timer_destroy(c.timer);
  c.timer = 0;
  c.icon = kIconStopped;
  Repaint();
  xvt_win_set_cursor(TASK_WIN, CURSOR_ARROW);
  if (c.pointer_trapped) {
    xvt_win_release_pointer();
    c.pointer_trapped = false;
  }
  c.depth = 0;
  c.in_critical = false;
  ResetAnimation();
  Repaint();
}

void WIN_capture_pointer() {
  Critical& c = C();
  WINDOW focus = xvt_scr_get_focus_vobj();
  if (c.suspend_mode && !focus) {
    Trace(kTraceFrame, kTraceAll, "in suspend mode when calling WIN_capture_pointer\n");
    return;
  }
  if (!focus) {
    Trace(kTraceFrame, kTraceAll, "in WIN_capture_pointer, we do not have the focus\n");
    if (c.pointer_trapped) ReleaseAndRestore();
    return;
  }
  WINDOW progress = xvt_progress_win();
  if (IsTopLevelKind(xvt_vobj_get_type(focus))) {
    if (progress) {
      xvt_win_trap_pointer(progress);
      return;
    }
    if (!c.win) return;
    TrapInCriticalWindow();
    Trace(kTraceFrame, kTraceAll, "WIN_capture_pointer: pointer trapped in the critical section window\n");
    return;
  }
  WIN_TYPE parent = xvt_vobj_get_type(xvt_vobj_get_parent(focus));
  if ((parent == W_MODAL || parent == W_MODELESS) && c.win) {
    TrapInCriticalWindow();
  } else if (parent == W_DOC && progress) {
    xvt_win_trap_pointer(progress);
  } else {
    ReleaseAndRestore();
  }
}

int WIN_in_critical() { return C().in_critical ? 1 : 0; }
int WIN_mouse_captured() { return C().mouse_captured ? 1 : 0; }
void WIN_set_mouse_captured(int flag) { C().mouse_captured = flag != 0; }
int WIN_critical_depth() { return C().depth; }
WINDOW WIN_critical_window() { return C().win; }
int WIN_critical_icon() { return C().icon; }

void WIN_native_hook(XVT_NATIVE_EVENT what, int code) {
  Critical& c = C();
  switch (what) {
    case XVT_NATIVE_LBUTTON_DOWN: c.mouse_captured = true; break;
    case XVT_NATIVE_LBUTTON_UP: c.mouse_captured = false; break;
    case XVT_NATIVE_SCROLL: c.mouse_captured = code != SC_THUMB; break;
    case XVT_NATIVE_SCROLL_END: c.mouse_captured = false; break;
    case XVT_NATIVE_APP_SWITCH_AWAY:
      // The user must be able to switch away from a busy program.
      c.suspend_mode = true;
      if (c.pointer_trapped) {
        xvt_win_release_pointer();
        c.pointer_trapped = false;
      }
      break;
    case XVT_NATIVE_APP_ACTIVATE:
      c.suspend_mode = false;
      if (c.in_critical) WIN_capture_pointer();
      break;
  }
}
