// Shared state of the headless backend: the record behind every handle, the
// application-wide state, and the helpers the backend's files share.
// Nothing outside xvt/headless/ includes this header.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "xvt/common/win_records.h"
#include "xvt/xvt.h"
#include "xvt/xvt_test.h"

namespace xvthl {

struct ScrollBar {
  int min = 0, max = 100, pos = 0, proportion = 0;
  bool visible = true, enabled = true;
};

}  // namespace xvthl

struct xvt_object : xvtrec::WinRecord {
  RCT rect{};  // outer rectangle, relative to the parent (screen for top level)
  bool visible = true, enabled = true;
  bool maximized = false, minimized = false;
  // Controls.
  bool checked = false;
  int icon = 0;  // push buttons: the icon shown beside the text
  int sel_start = -1, sel_end = -1;  // edit controls: the selection last set
  int top_line = 0;                  // text edits: the first line shown
  std::vector<std::string> items;
  std::vector<bool> selected;
  xvthl::ScrollBar sbar[2];
  // Drawing state and records.
  COLOR fore = COLOR_BLACK, back = COLOR_WHITE;
  std::string font = "system 16 0";
  std::vector<XvtDrawOp> display;
  std::vector<RCT> invalid;
  std::vector<XvtDamage> damage;  // every invalidation and scroll, until the test clears it
  PAT pen_pat = PAT_SOLID;
  CURSOR cursor = CURSOR_ARROW;
  // The caret: made, shown, and where.
  bool caret = false, caret_shown = false;
  RCT caret_rct{};
};

namespace xvthl {

// What a test queued for the next question.
struct Answer {
  enum Kind { kAsk, kDialog, kText } kind = kAsk;
  ASK_RESPONSE response = RESP_DEFAULT;
  int rid = 0;
  std::function<void(WINDOW)> fn;
  bool has_text = false;
  std::string text;
};

struct Timer {
  WINDOW win;
  long period;
  long due;
};

struct State {
  bool running = false;
  xvt_object* focus = nullptr;
  xvt_object* trapped = nullptr;
  CURSOR cursor = CURSOR_ARROW;
  std::deque<std::pair<WINDOW, EVENT>> queue;  // posted events
  std::map<long, Timer> timers;
  long next_timer = 1;
  long now = 0;  // the virtual clock, in ms
  std::deque<Answer> answers;
  std::vector<XvtPost> posts;
  std::function<void()> run_hook;
  std::function<void(const XvtPost&)> unexpected;
  std::function<void(const std::string&)> fatal;
  int screen_w = 1280, screen_h = 1024;
  std::string help;
  xvt_object* progress = nullptr;
  bool progress_cancel = false;
  std::map<long, std::pair<int, std::pair<XVT_FD_CALLBACK, void*>>> watches;
  long next_watch = 1;
  int toolbar_height = 42;
  XVT_PRINT_GEOMETRY print_geometry{66, 80};
  bool print_fail = false;
  std::vector<XvtPrintJob> print_jobs;
};

State& S();

// --- Records ---------------------------------------------------------------
// The records themselves, the task, screen and document-area windows and
// the destruction order are shared with the Qt backend.
using namespace xvtrec;
xvt_object* NewObject(WIN_TYPE type, xvt_object* parent, const RCT* rct, const char* title);

// --- Posts -----------------------------------------------------------------
// Records a question, notice or toolkit call for the test to read.
void Record(const std::string& kind, const std::string& text, std::vector<std::string> buttons = {}, int rid = 0);

// --- Input -----------------------------------------------------------------
// False while the pointer is trapped by a window other than w or its owners.
bool Reachable(WINDOW w);

}  // namespace xvthl
