// The application: start-up and shutdown, posted events, application
// attributes, and the test hooks that reset or inspect the whole program.
#include <algorithm>

#include "xvt/headless/headless_internal.h"

namespace xvthl {

State& S() {
  static State s;
  return s;
}

xvt_object* NewObject(WIN_TYPE type, xvt_object* parent, const RCT* rct, const char* title) {
  xvt_object* o = NewRecord(type, parent);
  if (rct) o->rect = *rct;
  o->title = title ? title : "";
  return o;
}

namespace {

// A destroyed window leaves nothing behind that could reach it later.
void ForgetRecord(xvt_object* w) {
  auto& s = S();
  for (auto it = s.timers.begin(); it != s.timers.end();) {
    if (it->second.win == w)
      it = s.timers.erase(it);
    else
      ++it;
  }
  if (s.focus == w) s.focus = nullptr;
  if (s.trapped == w) s.trapped = nullptr;
  if (s.progress == w) s.progress = nullptr;
  s.queue.erase(std::remove_if(s.queue.begin(), s.queue.end(), [w](auto& q) { return q.first == w; }), s.queue.end());
}

}  // namespace
}  // namespace xvthl

using namespace xvthl;

void xvt_app_create(int, char**, unsigned long, EVENT_HANDLER task_eh, XVT_CONFIG* config) {
  auto& s = S();
  auto& r = R();
  s.running = true;
  r.forget = ForgetRecord;
  r.destroyed = false;
  r.quit_allowed = false;
  RCT screen{0, 0, s.screen_w, s.screen_h};
  r.screen = NewObject(W_SCREEN, nullptr, &screen, "");
  r.task = NewObject(W_TASK, nullptr, &screen, config && config->taskwin_title ? config->taskwin_title : "");
  r.task->eh = task_eh;
  r.task->visible = false;
  if (config) LoadMenuItems(r.task, xvt_res_get_menubar(config->menu_bar_rid));
  if (config) s.toolbar_height = config->toolbar_height;
  RCT client{0, s.toolbar_height, s.screen_w, s.screen_h};
  r.mdi = NewObject(W_PLAIN, r.task, &client, "MDI client");
  EVENT ev = MakeEvent(E_CREATE);
  Send(r.task, &ev);
  if (!r.destroyed && s.run_hook) {
    auto hook = s.run_hook;
    hook();
  }
  if (!r.destroyed) xvt_app_destroy();
  s.running = false;
}

void xvt_app_destroy(void) {
  if (!DestroyAllWindows()) return;
  auto& s = S();
  s.timers.clear();
  s.queue.clear();
  s.trapped = nullptr;
  s.focus = nullptr;
}

void xvt_app_process_pending_events(void) {
  auto& s = S();
  // Only what was queued before this call runs, so that a handler that posts
  // again cannot keep the caller here.
  size_t n = s.queue.size();
  for (size_t i = 0; i < n && !s.queue.empty(); ++i) {
    auto item = s.queue.front();
    s.queue.pop_front();
    Send(item.first, &item.second);
  }
}

intptr_t xvt_vobj_get_attr(WINDOW win, XVT_ATTR attr) {
  auto& s = S();
  intptr_t value = 0;
  if (GetSharedAttr(attr, &value)) return value;
  switch (attr) {
    case ATTR_SCREEN_WIDTH: return s.screen_w;
    case ATTR_SCREEN_HEIGHT: return s.screen_h;
    case ATTR_WIN_MAXIMIZED: return Live(win) && win->maximized;
    case ATTR_WIN_MINIMIZED: return Live(win) && win->minimized;
    case ATTR_CTL_VERT_SBAR_WIDTH:
    case ATTR_CTL_HORZ_SBAR_HEIGHT: return 16;
    default: return 0;
  }
}

bool xvt_vobj_set_attr(WINDOW win, XVT_ATTR attr, intptr_t value) {
  if (SetSharedAttr(attr, value)) return true;
  switch (attr) {
    case ATTR_APP_ICON: return true;
    case ATTR_WIN_MAXIMIZED:
      if (!Live(win)) return false;
      win->maximized = value != 0;
      if (value) {
        win->minimized = false;
        win->visible = true;
      }
      return true;
    case ATTR_WIN_MINIMIZED:
      if (!Live(win)) return false;
      win->minimized = value != 0;
      if (value) win->maximized = false;
      return true;
    default: return false;
  }
}

// ---------------------------------------------------------------------------
// Test hooks

void xvt_test_reset(void) {
  xvtrec::ResetRecords();
  S() = State();
}

void xvt_test_set_run_hook(std::function<void()> hook) { S().run_hook = std::move(hook); }

void xvt_test_set_screen_size(int width, int height) {
  S().screen_w = width;
  S().screen_h = height;
}

bool xvt_test_app_running(void) { return R().task != nullptr && !R().destroyed; }

void xvt_test_end_session(void) {
  if (!R().task || R().destroyed) return;
  R().session_ending = true;
  EVENT ev = MakeEvent(E_QUIT);
  ev.v.query = false;
  xvt_win_dispatch_event(R().task, &ev);
}

std::vector<WINDOW> xvt_test_windows(void) { return R().objects; }

WINDOW xvt_test_find_window(const char* title) {
  for (xvt_object* o : R().objects)
    if (o->type < WC_PUSHBUTTON && title && o->title == title) return o;
  return NULL_WIN;
}
