// Input: the pointer trap, cursors, focus, the native hook, and the user
// input that tests simulate.
#include "xvt/headless/headless_internal.h"

namespace xvthl {

bool Reachable(WINDOW w) {
  auto& s = S();
  if (!s.trapped) return true;
  for (xvt_object* p = w; p; p = p->parent)
    if (p == s.trapped) return true;
  return false;
}

}  // namespace xvthl

using namespace xvthl;

void xvt_win_trap_pointer(WINDOW win) {
  if (Live(win)) S().trapped = win;
}
void xvt_win_release_pointer(void) { S().trapped = nullptr; }

void xvt_win_set_cursor(WINDOW win, CURSOR cursor) {
  if (Live(win)) win->cursor = cursor;
  S().cursor = cursor;
}

void xvt_scr_set_busy_cursor(void) { S().cursor = CURSOR_WAIT; }
WINDOW xvt_scr_get_focus_vobj(void) { return S().focus; }

void xvt_scr_set_focus_vobj(WINDOW win) {
  auto& s = S();
  if (!Live(win) || s.focus == win) return;
  xvt_object* old = s.focus;
  s.focus = win;
  if (Live(old)) {
    EVENT ev = MakeEvent(E_FOCUS);
    ev.v.active = false;
    Send(old, &ev);
  }
  EVENT ev = MakeEvent(E_FOCUS);
  ev.v.active = true;
  Send(win, &ev);
}

void xvt_scr_beep(void) { Record("beep", ""); }
void xvt_app_request_attention(void) { Record("attention", ""); }

// ---------------------------------------------------------------------------
// Test hooks

bool xvt_test_key(WINDOW win, int ch, bool shift, bool control) {
  EVENT ev{};
  ev.type = E_CHAR;
  ev.v.chr.ch = ch;
  ev.v.chr.shift = shift;
  ev.v.chr.control = control;
  return xvt_test_user_event(win, &ev);
}

bool xvt_test_user_event(WINDOW win, EVENT* ev) {
  auto& s = R();
  if (!Live(win) || !ev) return false;
  if (s.native && ev->type == E_MOUSE_DOWN && ev->v.mouse.button == 0) s.native(XVT_NATIVE_LBUTTON_DOWN, 0);
  if (s.native && ev->type == E_MOUSE_UP && ev->v.mouse.button == 0) s.native(XVT_NATIVE_LBUTTON_UP, 0);
  if (s.native && (ev->type == E_HSCROLL || ev->type == E_VSCROLL))
    s.native(ev->v.scroll.what == SC_THUMB ? XVT_NATIVE_SCROLL_END : XVT_NATIVE_SCROLL, ev->v.scroll.what);
  if (!Reachable(win)) return false;
  Send(win, ev);
  return true;
}

void xvt_test_native(XVT_NATIVE_EVENT what, int code) {
  if (R().native) R().native(what, code);
}

WINDOW xvt_test_trapped_window(void) { return S().trapped; }
CURSOR xvt_test_cursor(void) { return S().cursor; }

// The headless clipboard is a string of the process: tests put and read it.
namespace {
std::string& Clipboard() {
  static std::string text;
  return text;
}
bool g_clipboard_set = false;
}  // namespace

bool xvt_cb_put_text(const char* text, size_t length) {
  Clipboard().assign(text ? text : "", text ? length : 0);
  g_clipboard_set = true;
  return true;
}
bool xvt_cb_has_text(void) { return g_clipboard_set && !Clipboard().empty(); }
std::string xvt_cb_get_text(void) { return g_clipboard_set ? Clipboard() : std::string(); }
