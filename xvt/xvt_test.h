// Test hooks of the headless backend. Only tests include this header.
//
// The headless backend keeps windows as records and dispatches events
// synchronously. Drawing is recorded as a display list with fixed metrics
// (8 px per character, 16 px per line: ascent 12, descent 4, leading 0).
// Questions (xvt_dm_post_ask, modal dialogs, prompts, file choosers) take
// their answers from a queue that the test fills; a question with no answer
// queued is reported to the unexpected-dialog handler. Information posts
// (error, note, message) need no answer; every post is recorded. Timers run
// on a virtual clock that only xvt_test_advance_ms moves.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "xvt/xvt.h"

// Forgets every window, timer, answer and record. The next xvt_app_create
// starts from nothing.
void xvt_test_reset(void);

// Called by xvt_app_create once the task window has handled E_CREATE, unless
// the application was destroyed during start-up. When the hook returns and
// the application is still up, xvt_app_create destroys it.
void xvt_test_set_run_hook(std::function<void()> hook);

// Screen size of the headless display (default 1280 x 1024).
void xvt_test_set_screen_size(int width, int height);

// --- Dialog answers ---------------------------------------------------------
void xvt_test_push_answer(ASK_RESPONSE response);  // for xvt_dm_post_ask
// For a modal dialog of resource rid (0: any): fn runs while the dialog is up
// and drives it (xvt_test_click, xvt_test_select...). The dialog must be gone
// when fn returns, or the test is told.
void xvt_test_push_dialog(int rid, std::function<void(WINDOW dlg)> fn);
// For xvt_dm_post_string_prompt and the file choosers: null means cancel.
void xvt_test_push_text(const char* text);

struct XvtPost {
  // "ask", "error", "note", "message", "fatal", "dialog", "prompt",
  // "file_open", "file_save", "font"; and toolkit calls worth seeing:
  // "image" (a bitmap read), "progress", "help", "beep", "attention", "popup".
  std::string kind;
  std::string text;  // the formatted text, or the dialog's title
  std::vector<std::string> buttons;
  int rid = 0;
};
const std::vector<XvtPost>& xvt_test_posts(void);
void xvt_test_clear_posts(void);
// Called for a question with no answer queued (default: print and abort).
void xvt_test_set_unexpected_handler(std::function<void(const XvtPost&)> handler);
// Called by xvt_dm_post_fatal_exit instead of ending the process. It must not
// return (throw or longjmp); by default the process exits with status 1.
void xvt_test_set_fatal_handler(std::function<void(const std::string&)> handler);

// --- Virtual clock and timers ---------------------------------------------
void xvt_test_advance_ms(long ms);
long xvt_test_now_ms(void);
struct XvtTimer {
  long id;
  WINDOW win;
  long period_ms;
  long due_ms;
};
std::vector<XvtTimer> xvt_test_timers(void);

// --- Simulated user input ------------------------------------------------
// Input from the user goes through the pointer trap: while a window is
// trapped, input to any other window is swallowed (and the call returns
// false). Left button presses and releases and scroll bar use reach the
// native hook first, as they would on a real display.
bool xvt_test_user_event(WINDOW win, EVENT* ev);
bool xvt_test_user_command(WINDOW win, int tag);  // a menu choice
bool xvt_test_key(WINDOW win, int ch, bool shift = false, bool control = false);  // E_CHAR
// Clicks a control of a dialog or window: a check box flips, a radio button
// is checked, then the owner gets E_CONTROL.
bool xvt_test_click(WINDOW win, int ctl_id);
// Selects row index of a list control and tells the owner.
bool xvt_test_select(WINDOW win, int ctl_id, int index);
// Types text into an edit control (replacing its text) and tells the owner.
bool xvt_test_type(WINDOW win, int ctl_id, const char* text);
// The user switches to another application and back.
void xvt_test_native(XVT_NATIVE_EVENT what, int code);

// --- State -----------------------------------------------------------------
std::vector<WINDOW> xvt_test_windows(void);  // live windows, in creation order
WINDOW xvt_test_find_window(const char* title);
WINDOW xvt_test_trapped_window(void);
CURSOR xvt_test_cursor(void);  // the cursor last set (busy cursor: CURSOR_WAIT)
bool xvt_test_app_running(void);
// The session ends as a termination signal would end it: the program is
// told to quit with nobody there to answer.
void xvt_test_end_session(void);

struct XvtDrawOp {
  std::string op;  // "clear", "line", "rect", "3d", "text", "icon", "image"
  RCT rct{};       // bounds (text: x, baseline-ascent, x+width, baseline+descent)
  std::string text;
  COLOR fore = 0, back = 0;
  std::string font;  // "family size style"
  int icon = 0;
  PAT pen = PAT_SOLID;  // the pen's pattern
};
// Sends E_UPDATE for the whole client area and returns what was drawn.
const std::vector<XvtDrawOp>& xvt_test_paint(WINDOW win);
const std::vector<XvtDrawOp>& xvt_test_display_list(WINDOW win);
std::vector<RCT> xvt_test_invalidated(WINDOW win);  // since the last paint
// Every invalidation and scroll of the window, in order, painted or not,
// since the last xvt_test_clear_damage.
struct XvtDamage {
  std::string op;  // "invalidate", "scroll", or "update" (a paint of what was invalid)
  RCT rct{};
  int dh = 0, dv = 0;
  std::vector<XvtDrawOp> texts;  // update: the text drawn by that paint
};
std::vector<XvtDamage> xvt_test_damage(WINDOW win);
void xvt_test_clear_damage(WINDOW win);
std::string xvt_test_help_shown(void);  // last help file opened or topic shown
// The window's caret: false when it has none; else its rectangle and
// whether it is shown.
bool xvt_test_caret(WINDOW win, RCT* rct, bool* visible);
// The icon a push button shows (xvt_ctl_set_icon); 0 when none.
int xvt_test_ctl_icon(WINDOW ctl);
// The selection last set in an edit control (byte offsets); false when none.
bool xvt_test_text_sel(WINDOW ctl, int* start, int* end);

// Printing: the page size the next jobs get (66 lines of 80 by default), a
// printer that fails at the end of the job, and the jobs printed so far.
struct XvtPrintJob {
  std::string title;
  std::string pdf_path;  // empty: the printer the user chose
  std::vector<std::vector<std::string>> pages;
  bool ended = false;
};
void xvt_test_set_print_geometry(int lines, int columns);
void xvt_test_set_print_failure(bool fail);
const std::vector<XvtPrintJob>& xvt_test_print_jobs(void);
