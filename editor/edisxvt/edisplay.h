// The editor's redisplay: which part of the buffer the window shows, the
// two scroll positions, and painting the lines through the toolkit.
//
// Vertical positions (voac) count buffer lines from 1; horizontal ones
// (hoac) count character cells from 0. Text is drawn in a fixed-pitch font,
// so a column of the tab-expanded text is one cell of avg_width pixels.
//
// Redrawing is in two steps. edis_layout runs after every change: it picks
// the first line shown, lays the lines out in screen rows (a long line takes
// several rows when soft wrap is on), moves the caret and the scroll bars,
// and invalidates the rows that need painting. edis_paint answers the
// window's update event by drawing the rows that fall in its rectangle.
#pragma once

#include <string>
#include <vector>

#include "editor/edata.h"
#include "editor/elib/buffer.h"

// One screen row: a piece [b0, b1) of the expanded text of a line, starting
// at column col0. Row pointers are compared, never followed, once the text
// has changed: edis_layout renews them after each change.
struct EDisRow {
  BLOCK* blk = nullptr;
  LINE* lin = nullptr;
  long sub = 0;          // the row's number within its line
  long b0 = 0, b1 = 0;   // bytes of the expanded text
  long col0 = 0, col1 = 0;
  bool last = true;      // the last row of its line
};

// A place in the text as rows see it.
struct EDisPos {
  BLOCK* blk = nullptr;
  LINE* lin = nullptr;
  long sub = 0;
};

struct EDisplay {
  WINDOW win = NULL_WIN;
  XVT_FNTID font = nullptr;
  XVT_FNTID styled[8] = {};  // bold / italic / underline variants
  int height = 16, leading = 0, ascent = 12, descent = 4, avg_width = 8;
  long cur_voac = 1, max_voac = 1, v_ac_origin = 1;
  long cur_hoac = 0, max_hoac = 0;
  int h_margin = 4;       // cells kept beside the caret when scrolling sideways
  int scroll_step = 1;    // lines of one line scroll
  int page_overlap = 1;   // lines a page scroll keeps in view
  bool wrap = true;       // soft-wrap lines longer than the window
  bool show_eob = true;   // show the end-of-text line
  bool one_line = false;  // a one-line field: only the first line is shown
  bool focused = false;
  // The first screen row, valid while the buffer's start_state is 2.
  EDisPos start;
  std::vector<EDisRow> rows;  // sized to the window, filled by edis_layout
  int n_shown = 0;
  long mw_ac = 0;  // widest line seen: the shown lines and the remembered maximum
  int bottom_px = 0, viewport_px = 0;
  bool laid_out = false;
  bool caret_made = false;
  // Mouse selection.
  bool dragging = false;
  MARK* anchor = nullptr;
  // Rows drawn by edis_paint since the counter was last cleared.
  long rows_drawn = 0;
};

// The display of a window, with the font that sets the metrics (null: the
// default fixed-pitch editor font).
EDisplay* edis_create(WINDOW win, XVT_FNTID font);
constexpr const char* kEdisFontFamily = "mono";
constexpr int kEdisFontSize = 14;
void edis_destroy(EDisplay*& dis, EditBuffer* buf);
// Takes the font for the text from now on (the display owns it) and lays
// the window out again in its cells.
void edis_set_font(E_DATA* ed, XVT_FNTID font);

// Lays out and invalidates what changed. follow_point: the point must end
// up in view (after a command); false after a scroll, which leaves the
// point where it is.
void edis_layout(E_DATA* ed, bool follow_point);
// Draws the rows crossing rct (null: the whole window).
void edis_paint(E_DATA* ed, const RCT* rct);
// The window changed size.
void edis_resize(E_DATA* ed);

// Between voac and lines. Counting adds whole blocks' line totals, so no
// spilled block is read to count; only the target block is read back.
int CV_voac_ptrs(EditBuffer* buf, long voac, BLOCK** blk, LINE** lin);
long cv_ptrs_voac(EditBuffer* buf, BLOCK* blk, LINE* lin);
// The row that should be on top so that the point is centred, or the
// remembered one when the point is still in view.
void find_start_line(E_DATA* ed, EDisPos* start);

// Scrolling. Line and page scrolls leave the point; the page movements
// take the point along. dir > 0 is towards the end.
void edis_scroll_lines(E_DATA* ed, long lines);
void edis_scroll_page(E_DATA* ed, int dir);
void edis_point_page(E_DATA* ed, int dir);
void edis_scroll_to(E_DATA* ed, long voac);
void edis_hscroll_to(E_DATA* ed, long hoac);
// The window commands the key maps can name (scroll-*, point-goto-page-*);
// 1 when `name` is one of them.
int edis_window_command(E_DATA* ed, const char* name);

// The text place under a window point: the line and the byte offset of the
// character boundary nearest to it. Points above or below the text give the
// first or last row shown. RC_FAIL when nothing is shown.
int edis_point_from_xy(E_DATA* ed, PNT where, BLOCK** blk, LINE** lin, long* offset);

// The screen as text, one row a line, for the trace and for tests.
std::string edis_dump(const E_DATA* ed);
