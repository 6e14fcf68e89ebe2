// The redisplay on the headless backend, whose display list has fixed
// metrics (8 px a cell, 16 px a row): what the screen shows, what a change
// repaints, the scroll state, and where a click lands in the text.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "editor/edisxvt/edisplay.h"
#include "editor/edisxvt/edit_window.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "xvt/common/win_records.h"
#include "xvt/xvt_test.h"

namespace {

long task_eh(WINDOW, EVENT*) { return 0; }

void RunApp(std::function<void()> body) {
  xvt_test_reset();
  XVT_CONFIG config{0, 0, "t", "T", "task", 0};
  xvt_test_set_run_hook(std::move(body));
  xvt_app_create(0, nullptr, 0, task_eh, &config);
  xvt_test_reset();
}

// A window of cols x rows cells holding text, the point at its start.
WINDOW Editor(int cols, int rows, const std::string& text, bool wrap = true) {
  RCT r{0, 0, cols * 8, rows * 16};
  WINDOW w = edit_window_create(TASK_WIN, &r, "ed", nullptr);
  E_DATA* ed = edit_data(w);
  ed->dis->wrap = wrap;
  EditBuffer* b = ed->buf;
  elib_insert(b, b->the_point, text);
  elib_mark_goto_bob(b, b->the_point);
  ed->rdis = RDIS_FULL;
  edis_layout(ed, true);
  return w;
}

// The display list as a grid of cells; highlighted cells are upper case
// in a second grid.
struct Grid {
  std::vector<std::string> text, attr;
};
Grid GridOf(const std::vector<XvtDrawOp>& ops, int rows) {
  Grid g;
  g.text.assign(static_cast<size_t>(rows), "");
  g.attr.assign(static_cast<size_t>(rows), "");
  for (const XvtDrawOp& op : ops) {
    if (op.op != "text") continue;
    size_t row = static_cast<size_t>(op.rct.top / 16), col = static_cast<size_t>(op.rct.left / 8);
    if (row >= g.text.size()) continue;
    std::string& t = g.text[row];
    std::string& a = g.attr[row];
    // Cells count characters: the grid keeps one byte per cell for ASCII
    // and the whole sequence otherwise.
    size_t cells = 0;
    for (unsigned char c : op.text) cells += (c & 0xC0) != 0x80;
    if (a.size() < col) {
      t.append(col - a.size(), ' ');
      a.append(col - a.size(), ' ');
    }
    t += op.text;
    a.append(cells, op.back == COLOR_WHITE ? '.' : 'H');
  }
  return g;
}

std::vector<std::string> Paint(WINDOW w, int rows) { return GridOf(xvt_test_paint(w), rows).text; }

// Sends E_UPDATE for r; what it drew.
std::vector<XvtDrawOp> Update(WINDOW w, RCT r) {
  size_t before = xvt_test_display_list(w).size();
  EVENT ev = xvtrec::MakeEvent(E_UPDATE);
  ev.v.update.rct = r;
  xvt_win_dispatch_event(w, &ev);
  const auto& ops = xvt_test_display_list(w);
  return std::vector<XvtDrawOp>(ops.begin() + static_cast<long>(before), ops.end());
}

// Paints what was invalidated since the last paint; the rows drawn.
std::vector<int> PaintInvalid(WINDOW w) {
  std::vector<RCT> inv = xvt_test_invalidated(w);
  std::vector<int> drawn;
  if (inv.empty()) return drawn;
  RCT u = inv[0];
  for (const RCT& r : inv) {
    u.left = std::min(u.left, r.left);
    u.top = std::min(u.top, r.top);
    u.right = std::max(u.right, r.right);
    u.bottom = std::max(u.bottom, r.bottom);
  }
  for (const XvtDrawOp& op : Update(w, u))
    // Every row drawn fills its own band, text or not.
    if ((op.op == "text" || op.op == "rect") && op.rct.bottom - op.rct.top == 16 &&
        (drawn.empty() || drawn.back() != op.rct.top / 16))
      drawn.push_back(op.rct.top / 16);
  return drawn;
}

EVENT Char(int ch, bool text) {
  EVENT ev = xvtrec::MakeEvent(E_CHAR);
  ev.v.chr.ch = ch;
  ev.v.chr.text = text;
  return ev;
}

EVENT Mouse(EVENT_TYPE type, int x, int y, bool shift = false) {
  EVENT ev = xvtrec::MakeEvent(type);
  ev.v.mouse.where = PNT{x, y};
  ev.v.mouse.shift = shift;
  return ev;
}

std::string Lines(int n) {
  std::string s;
  for (int i = 1; i <= n; ++i) s += "L" + std::to_string(i) + (i < n ? "\n" : "");
  return s;
}

// The number of the point's line, from 1, and its offset.
std::pair<long, long> PointAt(E_DATA* ed) {
  MARK* p = ed->buf->the_point;
  return {cv_ptrs_voac(ed->buf, p->blk, p->lin), p->offset};
}

// What a window of cols x rows shows with the point at `point` (-1: the end
// of the text): its rows, or where each character of the first rows was
// drawn ("row:cell:text") when `cells`; and where the caret stands. When
// not wrapping, the view is then scrolled `hscroll` cells sideways.
struct ShowCase {
  const char* name;
  int cols, rows;
  bool wrap;
  std::string text;
  long point;
  int hscroll;
  bool cells;
  std::vector<std::string> shown;
  int caret_x, caret_y;
};

TEST(EditorDisplay, ScreensShowWhatTheTextHolds) {
  const std::string acute = "\xCC\x81", zwj = "\xE2\x80\x8D";
  const std::vector<ShowCase> cases = {
      {"empty buffer", 20, 3, true, "", 0, 0, false, {"", "<End of Message>", ""}, 0, 0},
      {"tabs every 8", 20, 3, true, "a\tb\n\tc\nab\t\tx", 0, 0, false,
       {"a       b", "        c", "ab              x"}, 0, 0},
      {"utf-8 cells", 20, 2, true, "caf\xC3\xA9\tx", 0, 0, false,
       {"caf\xC3\xA9    x", "<End of Message>"}, 0, 0},
      {"point centred at the end", 10, 5, true, Lines(30), -1, 0, false,
       {"L28", "L29", "L30", "<End of ", "Message>"}, 24, 32},
      {"soft wrap at spaces", 10, 4, true, "the quick brown fox jumps", 0, 0, false,
       {"the quick ", "brown fox ", "jumps", "<End of "}, 0, 0},
      {"a word longer than a row is cut", 4, 3, true, "abcdefghij", 0, 0, false,
       {"abcd", "efgh", "ij"}, 0, 0},
      {"wrapped caret on its row", 10, 4, true, "the quick brown fox", 12, 0, false,
       {"the quick ", "brown fox", "<End of ", "Message>"}, 16, 16},
      {"horizontal scroll past the right edge", 10, 2, false,
       "abcdefghijklmnopqrstuvwxyz0123\nshort", 30, 0, false, {"vwxyz0123", ""}, 72, 0},
      {"a mark shares its base's cell", 10, 2, true, "e" + acute + "b", 3, 0, true,
       {"0:0:e" + acute, "0:1:b"}, 8, 0},
      {"a wide character takes two cells", 10, 2, true, "中b", 3, 0, true,
       {"0:0:中", "0:2:b"}, 16, 0},
      {"caret after a wide one then a narrow one", 10, 2, true, "中b", 4, 0, true,
       {"0:0:中", "0:2:b"}, 24, 0},
      {"a joined emoji is one wide character", 10, 2, true, "👩" + zwj + "💻x", 11, 0, true,
       {"0:0:👩" + zwj + "💻", "0:2:x"}, 16, 0},
      {"a mark alone at the start keeps a cell", 10, 2, true, acute + "a", 2, 0, true,
       {"0:0:" + acute + "a"}, 8, 0},
      {"a tab stop counts cells", 10, 2, true, "中\tx", 4, 0, true,
       {"0:0:中", "0:2: ", "0:3: ", "0:4: ", "0:5: ", "0:6: ", "0:7: ", "0:8:x"}, 64, 0},
      {"wrap never cuts a wide character", 5, 2, true, "ab中中中", 5, 0, true,
       {"0:0:a", "0:1:b", "0:2:中", "1:0:中", "1:2:中"}, 0, 16},
      {"wrap never cuts a mark from its base", 3, 2, true, "abce" + acute + "f", 6, 0, true,
       {"0:0:abc", "1:0:e" + acute, "1:1:f"}, 8, 16},
      {"scrolled sideways past half a wide one", 4, 2, false, "abc中中de", 9, 4, true,
       {"0:1:中", "0:3:d"}, 24, 0},
  };
  for (const ShowCase& c : cases) {
    SCOPED_TRACE(c.name);
    RunApp([&] {
      WINDOW w = Editor(c.cols, c.rows, c.text, c.wrap);
      E_DATA* ed = edit_data(w);
      if (c.point < 0) elib_mark_goto_eob(ed->buf, ed->buf->the_point);
      else mark_move(ed->buf, ed->buf->the_point, nullptr, nullptr, c.point);
      edis_layout(ed, true);
      if (c.hscroll) edis_hscroll_to(ed, c.hscroll);
      if (!c.cells) {
        EXPECT_EQ(Paint(w, c.rows), c.shown);
      } else {
        std::vector<std::string> drawn;
        for (const XvtDrawOp& op : xvt_test_paint(w)) {
          // The end-of-text marker is not part of the cases (one text row
          // when not wrapping).
          int row = op.rct.top / 16, cell = op.rct.left / 8;
          if (op.op == "text" && row < (c.wrap ? 2 : 1) && op.text.find('<') == std::string::npos)
            drawn.push_back(std::to_string(row) + ":" + std::to_string(cell) + ":" + op.text);
        }
        EXPECT_EQ(drawn, c.shown);
      }
      RCT caret{};
      ASSERT_TRUE(xvt_test_caret(w, &caret, nullptr));
      EXPECT_EQ(caret.left, c.caret_x);
      EXPECT_EQ(caret.top, c.caret_y);
      EXPECT_EQ(caret.bottom - caret.top, 16);
    });
  }
}

struct ScrollCase {
  const char* name;
  std::function<void(E_DATA*)> act;
  long voac;
  std::string first_row;
  int bar_pos;
  long point_line;
};

// A scroll bar event of the given kind for the editor's window.
void Bar(E_DATA* ed, EVENT_TYPE type, SCROLL_CONTROL what, int pos = 0) {
  EVENT ev = xvtrec::MakeEvent(type);
  ev.v.scroll.what = what;
  ev.v.scroll.pos = pos;
  xvt_win_dispatch_event(ed->win, &ev);
}

TEST(EditorDisplay, ScrollingMovesTheViewAndTheBars) {
  // 50 lines and the end line in a window of 5 rows: the last start that
  // still fills the window is line 47. Scrolling leaves the point alone;
  // page movement takes it along.
  const std::vector<ScrollCase> cases = {
      {"a line down", [](E_DATA* ed) { edis_scroll_lines(ed, 1); }, 2, "L2", 2, 1},
      {"a line up at the top stays", [](E_DATA* ed) { edis_scroll_lines(ed, -1); }, 1, "L1", 1, 1},
      {"a page keeps one line", [](E_DATA* ed) { edis_scroll_page(ed, 1); }, 5, "L5", 5, 1},
      {"two pages and one back", [](E_DATA* ed) {
         edis_scroll_page(ed, 1);
         edis_scroll_page(ed, 1);
         edis_scroll_page(ed, -1);
       }, 5, "L5", 5, 1},
      {"past the end is held", [](E_DATA* ed) { edis_scroll_to(ed, 500); }, 47, "L47", 47, 1},
      {"the thumb", [](E_DATA* ed) { Bar(ed, E_VSCROLL, SC_THUMB, 20); }, 20, "L20", 20, 1},
      {"the bar's page step", [](E_DATA* ed) { Bar(ed, E_VSCROLL, SC_PAGE_DOWN); }, 5, "L5", 5, 1},
      {"page movement takes the point", [](E_DATA* ed) { edis_point_page(ed, 1); }, 5, "L5", 5, 5},
      {"and brings it back", [](E_DATA* ed) {
         edis_point_page(ed, 1);
         edis_point_page(ed, -1);
       }, 1, "L1", 1, 1},
      {"the key maps' window commands",
       [](E_DATA* ed) { edis_window_command(ed, "scroll-line-fwd"); }, 2, "L2", 2, 1},
  };
  for (const ScrollCase& c : cases) {
    SCOPED_TRACE(c.name);
    RunApp([&] {
      WINDOW w = Editor(10, 5, Lines(50));
      E_DATA* ed = edit_data(w);
      c.act(ed);
      EXPECT_EQ(ed->dis->cur_voac, c.voac);
      EXPECT_EQ(Paint(w, 5)[0], c.first_row);
      int lo = 0, hi = 0;
      xvt_sbar_get_range(w, VSCROLL, &lo, &hi);
      EXPECT_EQ(lo, 1);
      EXPECT_EQ(hi, 47);
      EXPECT_EQ(xvt_sbar_get_pos(w, VSCROLL), c.bar_pos);
      EXPECT_EQ(PointAt(ed).first, c.point_line);
    });
  }
}

TEST(EditorDisplay, HorizontalBarFollowsTheWidestLineSeen) {
  RunApp([] {
    WINDOW w = Editor(10, 3, "abcdefghijklmnopqrstuvwxyz0123\nshort", false);
    E_DATA* ed = edit_data(w);
    int lo = 0, hi = 0;
    xvt_sbar_get_range(w, HSCROLL, &lo, &hi);
    EXPECT_EQ(hi, 21);  // 30 cells and the caret's, less the 10 shown
    Bar(ed, E_HSCROLL, SC_LINE_DOWN);
    EXPECT_EQ(ed->dis->cur_hoac, 1);
    EXPECT_EQ(Paint(w, 3)[0], "bcdefghijk");
    EXPECT_EQ(xvt_sbar_get_pos(w, HSCROLL), 1);
  });
}

struct RedrawCase {
  const char* name;
  std::vector<EVENT> keys;
  std::vector<int> rows_drawn;
  std::vector<std::string> screen;
};

TEST(EditorDisplay, AChangeRepaintsOnlyWhatItMoved) {
  const std::vector<RedrawCase> cases = {
      {"typing redraws the point's row", {Char('x', true)}, {1}, {"one", "xtwo", "three", "<End of "}},
      {"a newline redraws from the point down", {Char(K_ENTER, false)}, {1, 2, 3}, {"one", "", "two", "three"}},
      {"joining lines redraws from the point down", {Char(K_BS, false)}, {0, 1, 2, 3},
       {"onetwo", "three", "<End of ", "Message>"}},
      {"moving the point redraws only its row", {Char(K_RIGHT, false)}, {1}, {"one", "two", "three", "<End of "}},
  };
  for (const RedrawCase& c : cases) {
    RunApp([&] {
      WINDOW w = Editor(9, 4, "one\ntwo\nthree");
      E_DATA* ed = edit_data(w);
      mark_move(ed->buf, ed->buf->the_point, ed->buf->the_point->blk, ed->buf->the_point->lin->next, 0);
      edis_layout(ed, true);
      xvt_test_paint(w);
      for (EVENT ev : c.keys) ASSERT_TRUE(xvt_test_user_event(w, &ev)) << c.name;
      EXPECT_EQ(PaintInvalid(w), c.rows_drawn) << c.name;
      EXPECT_EQ(Paint(w, 4), c.screen) << c.name;
    });
  }
}

TEST(EditorDisplay, LongTypingIntoAShownLineKeepsItsText) {
  // Each key grows the line's storage now and then; what the display
  // expanded for painting must not outlive the pass that made it.
  RunApp([] {
    WINDOW w = Editor(20, 3, "ab");
    std::string typed;
    for (int i = 0; i < 60; ++i) {
      EVENT k = Char('a' + i % 26, true);
      xvt_test_user_event(w, &k);
      typed += static_cast<char>('a' + i % 26);
      xvt_test_paint(w);
    }
    EXPECT_EQ(txedit_get_text(w), typed + "ab");
  });
}

TEST(EditorDisplay, AnUpdateRectangleDrawsOnlyTheRowsItCovers) {
  RunApp([] {
    WINDOW w = Editor(10, 5, Lines(5));
    xvt_test_paint(w);
    std::vector<std::string> drawn;
    for (const XvtDrawOp& op : Update(w, RCT{0, 20, 40, 40}))  // rows 1 and 2, in part
      if (op.op == "text") drawn.push_back(op.text);
    EXPECT_EQ(drawn, (std::vector<std::string>{"L2", "L3"}));
  });
}

struct ClickCase {
  const char* name;
  const std::string* text;
  bool wrap;
  int x, y;
  long line, offset;
};

TEST(EditorDisplay, AClickLandsOnTheNearestCharacterBoundary) {
  // Rows: "ab\tc" (tab to column 8), "caf\xC3\xA9 au lait" wrapped at 10 cells
  // when wrapping, then "x"; or one row "a中be\xCC\x81x", where 中 covers
  // pixels 8 to 23 and its middle is 16.
  const std::string text = "ab\tc\ncaf\xC3\xA9 au lait\nx", wide = "a中be\xCC\x81x";
  const std::vector<ClickCase> cases = {
      {"left half of a cell", &text, true, 9, 3, 1, 1},
      {"right half of a cell", &text, true, 13, 3, 1, 2},
      {"inside a tab", &text, true, 40, 3, 1, 2},
      {"right of a tab", &text, true, 62, 3, 1, 3},
      {"past the line end", &text, true, 150, 3, 1, 4},
      {"after a two-byte character", &text, true, 34, 20, 2, 5},
      {"the wrapped row", &text, true, 12, 36, 2, 11},
      {"end of a wrapped row stays on it", &text, true, 79, 20, 2, 8},
      {"below the text goes to its end", &text, true, 5, 76, 3, 1},
      {"left of the window", &text, true, -5, 52, 3, 0},
      {"scrolled sideways", &text, false, 0, 20, 2, 0},
      {"left half of a wide one's left cell", &wide, true, 9, 3, 1, 1},
      {"right half of its left cell", &wide, true, 14, 3, 1, 1},
      {"left half of its right cell", &wide, true, 16, 3, 1, 4},
      {"right half of its right cell", &wide, true, 22, 3, 1, 4},
      {"on the next character", &wide, true, 25, 3, 1, 4},
      {"a mark goes with its base", &wide, true, 45, 3, 1, 9},
  };
  for (const ClickCase& c : cases) {
    SCOPED_TRACE(c.name);
    RunApp([&] {
      WINDOW w = Editor(10, 6, *c.text, c.wrap);
      EVENT down = Mouse(E_MOUSE_DOWN, c.x, c.y);
      EVENT up = Mouse(E_MOUSE_UP, c.x, c.y);
      xvt_test_user_event(w, &down);
      xvt_test_user_event(w, &up);
      EXPECT_EQ(PointAt(edit_data(w)), std::make_pair(c.line, c.offset));
      EXPECT_EQ(xvt_test_trapped_window(), NULL_WIN);
    });
  }
}

TEST(EditorDisplay, DraggingAndDoubleClickSelect) {
  RunApp([] {
    WINDOW w = Editor(20, 3, "hello brave world");
    E_DATA* ed = edit_data(w);
    EVENT down = Mouse(E_MOUSE_DOWN, 8, 3), move = Mouse(E_MOUSE_MOVE, 40, 3), up = Mouse(E_MOUSE_UP, 80, 3);
    xvt_test_user_event(w, &down);
    EXPECT_EQ(xvt_test_trapped_window(), w);
    xvt_test_user_event(w, &move);
    xvt_test_user_event(w, &up);
    EXPECT_TRUE(ed->buf->flags & kBufRegion);
    EXPECT_EQ(GridOf(xvt_test_paint(w), 1).attr[0], ".HHHHHHHHH.......");
    // Back across the anchor: the other side is selected, this one not.
    EVENT down5 = Mouse(E_MOUSE_DOWN, 40, 3), right = Mouse(E_MOUSE_MOVE, 80, 3), left = Mouse(E_MOUSE_MOVE, 16, 3);
    EVENT up2 = Mouse(E_MOUSE_UP, 16, 3);
    for (EVENT* e : {&down5, &right, &left, &up2}) xvt_test_user_event(w, e);
    EXPECT_EQ(GridOf(xvt_test_paint(w), 1).attr[0], "..HHH............");
    EVENT dbl = Mouse(E_MOUSE_DBL, 100, 3);
    xvt_test_user_event(w, &dbl);
    EXPECT_EQ(GridOf(xvt_test_paint(w), 1).attr[0], "............HHHHH");
    EXPECT_EQ(PointAt(ed), std::make_pair(1L, 17L));
    // A plain click takes the selection down.
    xvt_test_user_event(w, &down);
    EVENT up0 = Mouse(E_MOUSE_UP, 8, 3);
    xvt_test_user_event(w, &up0);
    EXPECT_FALSE(ed->buf->flags & kBufRegion);
    EXPECT_EQ(GridOf(xvt_test_paint(w), 1).attr[0], ".................");
  });
}

std::vector<std::string> g_parent_log;
int g_depth = 0, g_deepest = 0;
bool g_answer = false;  // the parent types into the control when told of a change
long parent_eh(WINDOW, EVENT* ev) {
  if (ev->type != E_CONTROL) return 0;
  g_deepest = std::max(g_deepest, ++g_depth);
  g_parent_log.push_back(std::to_string(ev->v.ctl.id) + (ev->v.ctl.ci.v.edit.focus_change ? " focus" : " change"));
  if (g_answer && !ev->v.ctl.ci.v.edit.focus_change) {
    g_answer = false;
    EVENT k = Char('Z', true);
    xvt_win_dispatch_event(ev->v.ctl.ci.win, &k);
  }
  --g_depth;
  return 0;
}

TEST(EditorControls, HoldTextAndTellTheirParent) {
  RunApp([] {
    g_parent_log.clear();
    RCT pr{0, 0, 400, 300};
    WINDOW parent = xvt_win_create(W_DOC, &pr, "p", 0, TASK_WIN, 0, EM_ALL, parent_eh, 0);
    RCT r1{10, 10, 170, 26}, r2{10, 40, 170, 120};
    WINDOW line = txedit_create(TXEDITLINE, parent, &r1, 5, 0);
    WINDOW text = txedit_create(TXEDIT, parent, &r2, 6, CTL_FLAG_READONLY);
    ASSERT_TRUE(line && text);
    EXPECT_EQ(txedit_set_text(line, "Re: a\nb"), RC_OK);
    EXPECT_EQ(txedit_get_text(line), "Re: a b");
    EXPECT_EQ(txedit_set_text(text, "d\xC3\xA9j\xC3\xA0\n\tvu\n"), RC_OK);
    EXPECT_EQ(txedit_get_text(text), "d\xC3\xA9j\xC3\xA0\n\tvu\n");
    EXPECT_TRUE(g_parent_log.empty());  // the program's own setting is no news
    txedit_focus(line);
    EVENT k = Char('!', true);
    xvt_test_user_event(line, &k);
    EXPECT_EQ(txedit_get_text(line), "!Re: a b");
    EVENT enter = Char(K_ENTER, false);
    xvt_test_user_event(line, &enter);
    EXPECT_EQ(txedit_get_text(line), "!Re: a b");
    xvt_test_user_event(text, &k);
    EXPECT_EQ(txedit_get_text(text), "d\xC3\xA9j\xC3\xA0\n\tvu\n");
    EXPECT_TRUE(txedit_is_readonly(text));
    txedit_set_readonly(text, false);
    xvt_test_user_event(text, &k);
    EXPECT_EQ(txedit_get_text(text), "!d\xC3\xA9j\xC3\xA0\n\tvu\n");
    EXPECT_EQ(g_parent_log, (std::vector<std::string>{"5 focus", "5 change", "6 change"}));
    // An event sent while the control is busy waits for the one before it.
    g_parent_log.clear();
    g_deepest = 0;
    g_answer = true;
    EVENT k2 = Char('?', true);
    xvt_test_user_event(line, &k2);
    EXPECT_EQ(txedit_get_text(line), "!?ZRe: a b");
    EXPECT_EQ(g_parent_log, (std::vector<std::string>{"5 change", "5 change"}));
    EXPECT_EQ(g_deepest, 1);
    // A field shows its one line only, without the end marker.
    EXPECT_EQ(Paint(line, 1), (std::vector<std::string>{"!?ZRe: a b"}));
    EXPECT_EQ(xvt_win_describe(line), "!?ZRe: a b\n");
  });
}

}  // namespace
