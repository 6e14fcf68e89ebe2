// The redisplay: screen rows from the first line shown, the scroll
// positions, the caret and the painting of rows.
//
// Row records hold line pointers, which any edit or page-out may free. So
// rows are built anew by every layout and every paint, from a start line
// that is checked against the buffer's screen arrays (the buffer clears an
// entry when it frees the line), and while a build runs the blocks it went
// through are locked in memory. Rows of an earlier build are compared by
// address only, to find what moved.
#include "editor/edisxvt/edisplay.h"

#include <algorithm>
#include <cstring>

#include "editor/elib/elib_trace.h"
#include "editor/elib/graph.h"
#include "editor/elib/itext.h"
#include "editor/elib/marks.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

constexpr COLOR kText = COLOR_BLACK;
constexpr COLOR kPaper = COLOR_WHITE;

// The blocks a build went through, held in memory until it is dropped,
// and the lines it tab-expanded. The expanded copies are let go with it:
// an insert that grows a line's storage must never meet an expansion that
// still points at the old storage.
struct Locks;
Locks* g_scope = nullptr;

struct Locks {
  std::vector<BLOCK*> held;
  std::vector<ITEXT*> expanded;
  Locks* outer;
  Locks() : outer(g_scope) { g_scope = this; }
  Locks(const Locks&) = delete;
  Locks& operator=(const Locks&) = delete;
  void Hold(BLOCK* b) {
    if (!b || std::find(held.begin(), held.end(), b) != held.end()) return;
    b->tmp_lock++;
    held.push_back(b);
  }
  ~Locks() {
    for (ITEXT* t : expanded) itext_unexpand(t);
    for (BLOCK* b : held) b->tmp_lock--;
    g_scope = outer;
  }
};

EDisplay* Dis(const E_DATA* ed) { return ed ? ed->dis : nullptr; }

RCT Client(const EDisplay* dis) {
  RCT r{0, 0, 0, 0};
  xvt_vobj_get_client_rect(dis->win, &r);
  return r;
}

// Rows that fit wholly, and rows that show at least in part.
int FullRows(const EDisplay* dis) {
  RCT r = Client(dis);
  return std::max(1, (r.bottom - r.top) / dis->height);
}
int AnyRows(const EDisplay* dis) {
  RCT r = Client(dis);
  return std::max(1, (r.bottom - r.top + dis->height - 1) / dis->height);
}
int Cols(const EDisplay* dis) {
  RCT r = Client(dis);
  return std::max(1, (r.right - r.left) / dis->avg_width);
}

bool Wraps(const EDisplay* dis) { return dis->wrap && !dis->one_line; }

const char* ExpText(EditBuffer* buf, LINE* lin) {
  if (!lin->text) return "";
  if (!(lin->text->flags & kItextExpValid)) {
    if (itext_expand(lin->text, buf->tab_width) != RC_OK) return "";
    if (g_scope) g_scope->expanded.push_back(lin->text);
  }
  return lin->text->text_exp ? lin->text->text_exp : "";
}

// The rows of one line: word-wrapped at `cols` cells when wrapping, one row
// otherwise. A word longer than a row is cut where the row ends, but never
// inside a character: a wide one that does not fit goes to the next row.
void LineRows(const EDisplay* dis, EditBuffer* buf, BLOCK* blk, LINE* lin, std::vector<EDisRow>* out) {
  const char* s = ExpText(buf, lin);
  long len = static_cast<long>(std::strlen(s));
  long cols = Wraps(dis) ? Cols(dis) : 0;
  long b0 = 0, c0 = 0, b = 0, c = 0, brk_b = -1, brk_c = -1, sub = 0;
  while (b < len) {
    long nb = static_cast<long>(graph_next(s, static_cast<size_t>(len), static_cast<size_t>(b)));
    long w = graph_width(s, static_cast<size_t>(len), static_cast<size_t>(b), static_cast<size_t>(nb));
    if (cols && c > c0 && c - c0 + w > cols) {
      long nb = brk_b > b0 ? brk_b : b, nc = brk_b > b0 ? brk_c : c;
      out->push_back(EDisRow{blk, lin, sub++, b0, nb, c0, nc, false});
      b0 = nb;
      c0 = nc;
      brk_b = -1;
      continue;
    }
    bool space = s[b] == ' ';
    b = nb;
    c += w;
    if (space) {
      brk_b = b;
      brk_c = c;
    }
  }
  out->push_back(EDisRow{blk, lin, sub, b0, len, c0, c, true});
}

long RowCount(const EDisplay* dis, EditBuffer* buf, BLOCK* blk, LINE* lin) {
  if (!Wraps(dis)) return 1;
  std::vector<EDisRow> r;
  LineRows(dis, buf, blk, lin, &r);
  return static_cast<long>(r.size());
}

bool Hidden(const EDisplay* dis, const LINE* lin) { return (lin->flags & kLineEob) && !dis->show_eob; }

// The expanded column of the point, and its row within its line.
long PointCol(EditBuffer* buf) {
  MARK* p = buf->the_point;
  long col = 0;
  if (p && p->lin && p->lin->text) unexp_to_exp(p->lin->text->text, p->offset, buf->tab_width, &col);
  return col;
}

long RowOfCol(const std::vector<EDisRow>& rows, long col) {
  for (const EDisRow& r : rows)
    if (col < r.col1 || r.last) return r.sub;
  return 0;
}

EDisPos PointPos(const EDisplay* dis, EditBuffer* buf) {
  MARK* p = buf->the_point;
  EDisPos pos{p->blk, p->lin, 0};
  if (Wraps(dis)) {
    std::vector<EDisRow> rows;
    LineRows(dis, buf, p->blk, p->lin, &rows);
    pos.sub = RowOfCol(rows, PointCol(buf));
  }
  return pos;
}

bool Same(const EDisPos& a, const EDisPos& b) { return a.lin == b.lin && a.sub == b.sub; }

bool RowDown(const EDisplay* dis, EditBuffer* buf, EDisPos* p, Locks* locks) {
  if (p->sub + 1 < RowCount(dis, buf, p->blk, p->lin)) {
    ++p->sub;
    return true;
  }
  BLOCK* b = p->blk;
  LINE* l = p->lin;
  if (line_step(buf, &b, &l, kStepFwd) != RC_OK || l == p->lin || Hidden(dis, l)) return false;
  locks->Hold(b);
  *p = EDisPos{b, l, 0};
  return true;
}

bool RowUp(const EDisplay* dis, EditBuffer* buf, EDisPos* p, Locks* locks) {
  if (p->sub > 0) {
    --p->sub;
    return true;
  }
  BLOCK* b = p->blk;
  LINE* l = p->lin;
  if (line_step(buf, &b, &l, kStepBack) != RC_OK || l == p->lin) return false;
  locks->Hold(b);
  *p = EDisPos{b, l, RowCount(dis, buf, b, l) - 1};
  return true;
}

// The remembered first row, when the buffer still shows it on the screen.
bool ValidStart(const EDisplay* dis, const EditBuffer* buf) {
  return dis->start.lin && buf->line_ptrs[0] == dis->start.lin && buf->block_ptrs[0] == dis->start.blk &&
         (dis->start.blk->flags & BLK_IN_MEM);
}

// The first line of the text (one-line fields and empty screens).
EDisPos FirstPos(EditBuffer* buf) {
  BLOCK* b = elib_first_block(buf);
  if (b && !(b->flags & BLK_IN_MEM)) reload(buf, b);
  LINE* l = b ? b->lin_head->next : nullptr;
  if (b && l == b->lin_head) {
    b = elib_tail_block(buf);
    l = b->lin_head->next;
  }
  return EDisPos{b, l, 0};
}

void BuildRows(E_DATA* ed, EDisPos start, std::vector<EDisRow>* rows, Locks* locks) {
  EDisplay* dis = ed->dis;
  EditBuffer* buf = ed->buf;
  rows->clear();
  size_t want = static_cast<size_t>(AnyRows(dis));
  BLOCK* b = start.blk;
  LINE* l = start.lin;
  locks->Hold(b);
  long skip = start.sub;
  while (rows->size() < want && !Hidden(dis, l)) {
    std::vector<EDisRow> lr;
    LineRows(dis, buf, b, l, &lr);
    for (const EDisRow& r : lr) {
      if (r.sub < skip) continue;
      if (rows->size() < want) rows->push_back(r);
    }
    skip = 0;
    if (dis->one_line) break;
    LINE* before = l;
    if (line_step(buf, &b, &l, kStepFwd) != RC_OK || l == before) break;
    locks->Hold(b);
  }
}

// The screen's lines as the buffer keeps them, so that it can tell us when
// one of them goes.
void MirrorScreen(EditBuffer* buf, const std::vector<EDisRow>& rows) {
  for (int i = 0; i < kScreenLines; ++i) {
    bool in = i < static_cast<int>(rows.size());
    buf->line_ptrs[i] = in ? rows[static_cast<size_t>(i)].lin : nullptr;
    buf->block_ptrs[i] = in ? rows[static_cast<size_t>(i)].blk : nullptr;
  }
}

RCT RowRect(const EDisplay* dis, int i) {
  RCT c = Client(dis);
  return RCT{c.left, i * dis->height, c.right, (i + 1) * dis->height};
}

void FillRect(WINDOW win, RCT r, COLOR color) {
  CPEN pen{0, PAT_NONE, color};
  CBRUSH brush{PAT_SOLID, color};
  xvt_dwin_set_pen(win, &pen);
  xvt_dwin_set_brush(win, &brush);
  xvt_dwin_draw_rect(win, &r);
}

XVT_FNTID FontFor(EDisplay* dis, uint32_t style) {
  unsigned fs = ((style & kStyleBold) ? XVT_FS_BOLD : 0) | ((style & kStyleItalic) ? XVT_FS_ITALIC : 0) |
                ((style & kStyleUnderline) ? XVT_FS_UNDERLINE : 0);
  if (fs == 0) return dis->font;
  if (!dis->styled[fs])
    dis->styled[fs] = xvt_font_create(xvt_font_get_family(dis->font), xvt_font_get_size(dis->font), fs);
  return dis->styled[fs] ? dis->styled[fs] : dis->font;
}

// The colours of a run: the attribute's own when the program set one, the
// window's otherwise; a highlight swaps them.
void Colours(const DISPI& d, COLOR* fg, COLOR* bg) {
  const DISPI plain;
  *fg = d.fg == plain.fg ? kText : static_cast<COLOR>(d.fg & 0xFFFFFF);
  *bg = d.bg == plain.bg ? kPaper : static_cast<COLOR>(d.bg & 0xFFFFFF);
  if (d.style & kStyleHighlight) std::swap(*fg, *bg);
}

void DrawRow(E_DATA* ed, int i, const EDisRow& row) {
  EDisplay* dis = ed->dis;
  WINDOW win = dis->win;
  const char* s = ExpText(ed->buf, row.lin);
  long len = static_cast<long>(std::strlen(s));
  long hoac = Wraps(dis) ? 0 : dis->cur_hoac;
  int top = i * dis->height;
  int base = top + dis->leading + dis->ascent;
  int x = 0;
  long at = 0;  // expanded bytes before the chunk
  long col = row.col0;
  long b = row.b0;
  RCT client = Client(dis);
  // A partly shown cell at the right edge is drawn too.
  const long last_col = row.col0 + hoac + (client.right - client.left + dis->avg_width - 1) / dis->avg_width;
  const std::vector<CHUNK>& chunks = row.lin->text->chunks;
  for (size_t k = 0; k < chunks.size() && b < row.b1; ++k) {
    long c_end = at + chunks[k].length_exp;
    if (k + 1 == chunks.size()) c_end = len;
    at = c_end;
    if (c_end <= b) continue;
    long e = std::min(c_end, row.b1);
    // Columns left of the horizontal scroll position are not drawn.
    // A character is stepped whole: its marks are drawn with it, in the
    // style of the run that holds its base.
    auto step = [&](long from, long* width) {
      long to = static_cast<long>(graph_next(s, static_cast<size_t>(len), static_cast<size_t>(from)));
      *width = graph_width(s, static_cast<size_t>(len), static_cast<size_t>(from), static_cast<size_t>(to));
      return to;
    };
    long cw = 0;
    while (b < e && col < hoac) {
      b = step(b, &cw);
      col += cw;
    }
    // A wide character cut by the left edge leaves its right half blank.
    if (x == 0 && hoac > 0 && col > hoac) {
      x = static_cast<int>(col - hoac) * dis->avg_width;
      FillRect(win, RCT{0, top, x, top + dis->height}, kPaper);
    }
    if (b >= e || col >= last_col) continue;
    // Nothing right of the window is drawn.
    long cells = 0, j = b;
    while (j < e && col + cells < last_col) {
      j = step(j, &cw);
      cells += cw;
    }
    e = j;
    COLOR fg, bg;
    Colours(chunks[k].dispi, &fg, &bg);
    int w = static_cast<int>(cells) * dis->avg_width;
    FillRect(win, RCT{x, top, x + w, top + dis->height}, bg);
    XVT_FNTID font = FontFor(dis, chunks[k].dispi.style);
    xvt_dwin_set_font(win, font);
    xvt_dwin_set_fore_color(win, fg);
    if (xvt_font_get_text_width(font, s + b, static_cast<int>(e - b)) == w) {
      xvt_dwin_draw_text(win, x, base, s + b, static_cast<int>(e - b));
    } else {
      // The font's advance is not a whole number of pixels (or a glyph
      // comes from another face): each character goes to its own cell, so
      // that the text, the caret and the mouse agree on the columns.
      int cx = x;
      for (long j = b; j < e; cx += static_cast<int>(cw) * dis->avg_width) {
        long n = step(j, &cw);
        xvt_dwin_draw_text(win, cx, base, s + j, static_cast<int>(n - j));
        j = n;
      }
    }
    x += w;
    col += cells;
    b = e;
  }
  if (x < client.right) FillRect(win, RCT{x, top, client.right, top + dis->height}, kPaper);
  dis->rows_drawn++;
}

bool Intersects(const RCT& a, const RCT& b) {
  return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}

void PlaceCaret(E_DATA* ed, const std::vector<EDisRow>& rows) {
  EDisplay* dis = ed->dis;
  EditBuffer* buf = ed->buf;
  if (!dis->caret_made) {
    xvt_caret_create(dis->win, 2, dis->height);
    dis->caret_made = true;
  }
  long col = PointCol(buf);
  EDisPos p = PointPos(dis, buf);
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].lin != p.lin || rows[i].sub != p.sub) continue;
    long hoac = Wraps(dis) ? 0 : dis->cur_hoac;
    int x = static_cast<int>(col - rows[i].col0 - hoac) * dis->avg_width;
    xvt_caret_set_pos(dis->win, PNT{x, static_cast<int>(i) * dis->height});
    xvt_caret_show(dis->win, dis->focused && i < static_cast<size_t>(FullRows(dis)));
    return;
  }
  xvt_caret_show(dis->win, false);
}

void SyncBars(E_DATA* ed) {
  EDisplay* dis = ed->dis;
  long total = ed->buf->n_lines - (dis->show_eob ? 0 : 1);
  int view = FullRows(dis);
  dis->max_voac = std::max(1L, total - view + 1);
  xvt_sbar_set_range(dis->win, VSCROLL, 1, static_cast<int>(dis->max_voac));
  xvt_sbar_set_pos(dis->win, VSCROLL, static_cast<int>(dis->cur_voac));
  xvt_sbar_set_proportion(dis->win, VSCROLL, view);
  xvt_sbar_set_range(dis->win, HSCROLL, 0, static_cast<int>(dis->max_hoac));
  xvt_sbar_set_pos(dis->win, HSCROLL, static_cast<int>(dis->cur_hoac));
  xvt_sbar_set_proportion(dis->win, HSCROLL, Cols(dis));
}

// The widest line: what is shown now, plus the width remembered for the
// widest line seen before, unless that line is shown (then its width now
// counts) or has gone.
void Widest(E_DATA* ed, const std::vector<EDisRow>& rows) {
  EDisplay* dis = ed->dis;
  EditBuffer* buf = ed->buf;
  bool seen = false;
  for (const EDisRow& r : rows) seen = seen || r.lin == buf->max_width_line;
  if (!buf->max_width_line || (buf->flags & kBufWidestUnknown) || seen) {
    if (dis->mw_ac) elib_trace_detail("rdis: reset mwpx, mwac, mhoac => 0\n");
    dis->mw_ac = 0;
    buf->max_width_line = nullptr;
    buf->flags &= ~kBufWidestUnknown;
  }
  for (const EDisRow& r : rows)
    if (r.last && r.col1 > dis->mw_ac) {
      dis->mw_ac = r.col1;
      buf->max_width_line = r.lin;
    }
  dis->max_hoac = Wraps(dis) ? 0 : std::max(0L, dis->mw_ac + 1 - Cols(dis));
}

}  // namespace

// ---------------------------------------------------------------------------

namespace {

void TakeMetrics(EDisplay* dis) {
  int leading = 0, ascent = 12, descent = 4;
  xvt_font_get_metrics(dis->font, &leading, &ascent, &descent);
  dis->leading = leading;
  dis->ascent = ascent;
  dis->descent = descent;
  dis->height = std::max(1, leading + ascent + descent);
  dis->avg_width = std::max(1, xvt_font_get_text_width(dis->font, "1", 1));
}

}  // namespace

EDisplay* edis_create(WINDOW win, XVT_FNTID font) {
  auto* dis = new EDisplay;
  dis->win = win;
  dis->font = font ? font : xvt_font_create(kEdisFontFamily, kEdisFontSize, 0);
  TakeMetrics(dis);
  return dis;
}

void edis_set_font(E_DATA* ed, XVT_FNTID font) {
  EDisplay* dis = Dis(ed);
  if (!dis || !font) {
    xvt_font_destroy(font);
    return;
  }
  for (XVT_FNTID& f : dis->styled)
    if (f) xvt_font_destroy(f), f = nullptr;
  xvt_font_destroy(dis->font);
  dis->font = font;
  TakeMetrics(dis);
  // Rows and the caret are measured in the old cells.
  if (dis->caret_made && xvt_vobj_is_valid(dis->win)) xvt_caret_destroy(dis->win);
  dis->caret_made = false;
  edis_resize(ed);
}

void edis_destroy(EDisplay*& dis, EditBuffer* buf) {
  if (!dis) return;
  if (buf && dis->anchor) mark_free(buf, &dis->anchor);
  if (xvt_vobj_is_valid(dis->win)) xvt_caret_destroy(dis->win);
  for (XVT_FNTID& f : dis->styled)
    if (f) xvt_font_destroy(f);
  xvt_font_destroy(dis->font);
  delete dis;
  dis = nullptr;
}

int CV_voac_ptrs(EditBuffer* buf, long voac, BLOCK** pblk, LINE** plin) {
  if (!buf || !pblk || !plin) return RC_FAIL;
  if (voac < 1) voac = 1;
  BLOCK* tail = elib_tail_block(buf);
  long before = 0;
  BLOCK* b = elib_first_block(buf);
  // Whole blocks first: their totals are known without reading them.
  while (b != tail && b->id != -1 && before + b->n_lines < voac) {
    before += b->n_lines;
    b = b->next;
  }
  if (b->id == -1) b = tail;
  if (!(b->flags & BLK_IN_MEM) && reload(buf, b) != RC_OK) return RC_FAIL;
  LINE* l = b->lin_head->next;
  if (l == b->lin_head) return RC_FAIL;
  *pblk = b;
  *plin = l;
  long steps = voac - before - 1;
  if (steps > 0) line_walk(buf, pblk, plin, kWalkAll, steps, kStepFwd);
  return RC_OK;
}

long cv_ptrs_voac(EditBuffer* buf, BLOCK* blk, LINE* lin) {
  if (!buf || !blk || !lin) return 1;
  long voac = 1;
  for (BLOCK* b = elib_first_block(buf); b && b != blk && b->id != -1; b = b->next) voac += b->n_lines;
  for (LINE* l = blk->lin_head->next; l != blk->lin_head && l != lin; l = l->next) ++voac;
  return voac;
}

void find_start_line(E_DATA* ed, EDisPos* out) {
  EDisplay* dis = ed->dis;
  EditBuffer* buf = ed->buf;
  Locks locks;
  if (dis->one_line) {
    *out = FirstPos(buf);
    return;
  }
  locks.Hold(buf->the_point->blk);
  EDisPos point = PointPos(dis, buf);
  int view = FullRows(dis);
  long half = view / 2;
  if (ValidStart(dis, buf)) {
    EDisPos old = dis->start;
    old.sub = std::min(old.sub, RowCount(dis, buf, old.blk, old.lin) - 1);
    // Still in view: the screen stays.
    EDisPos q = old;
    int k = 0;
    for (; k < view; ++k) {
      if (Same(q, point)) {
        *out = old;
        return;
      }
      if (!RowDown(dis, buf, &q, &locks)) break;
    }
    // Just below the screen: scroll as little as brings it in.
    if (k == view) {
      for (long extra = 1; extra <= half; ++extra) {
        if (Same(q, point)) {
          EDisPos s = old;
          for (long j = 0; j < extra; ++j) RowDown(dis, buf, &s, &locks);
          *out = s;
          return;
        }
        if (!RowDown(dis, buf, &q, &locks)) break;
      }
    }
    // Just above it: the point's row goes on top.
    q = old;
    for (long extra = 1; extra <= half; ++extra) {
      if (!RowUp(dis, buf, &q, &locks)) break;
      if (Same(q, point)) {
        *out = q;
        return;
      }
    }
  }
  // Far away: the point's row in the middle.
  EDisPos s = point;
  for (long k = 0; k < half; ++k)
    if (!RowUp(dis, buf, &s, &locks)) break;
  *out = s;
  ed->rdis = RDIS_FULL;
}

void edis_layout(E_DATA* ed, bool follow_point) {
  EDisplay* dis = Dis(ed);
  EditBuffer* buf = ed ? ed->buf : nullptr;
  if (!dis || !buf || !xvt_vobj_is_valid(dis->win) || !buf->the_point || !buf->the_point->lin) return;
  if (xvt_vobj_get_attr(dis->win, ATTR_WIN_MINIMIZED)) return;
  Locks locks;
  locks.Hold(buf->the_point->blk);
  int level = std::max(ed->rdis, buf->rdis);
  EDisPos start;
  if (follow_point || !ValidStart(dis, buf))
    find_start_line(ed, &start);
  else
    start = dis->start;
  level = std::max(level, ed->rdis);
  // Sideways: the caret must stand inside the window.
  long old_hoac = dis->cur_hoac;
  if (!Wraps(dis) && follow_point) {
    long col = PointCol(buf);
    long cols = Cols(dis);
    if (col < dis->cur_hoac)
      dis->cur_hoac = std::max(0L, col - dis->h_margin);
    else if (col >= dis->cur_hoac + cols)
      dis->cur_hoac = col - cols + 1 + dis->h_margin;
  }
  if (Wraps(dis)) dis->cur_hoac = 0;
  std::vector<EDisRow> old = std::move(dis->rows);
  std::vector<EDisRow> rows;
  BuildRows(ed, start, &rows, &locks);
  Widest(ed, rows);
  dis->cur_hoac = std::min(dis->cur_hoac, dis->max_hoac);
  bool full = level >= RDIS_FULL || !dis->laid_out || !Same(start, dis->start) || old_hoac != dis->cur_hoac;
  RCT client = Client(dis);
  if (full) {
    xvt_dwin_invalidate_rect(dis->win, nullptr);
  } else {
    LINE* pl = buf->the_point->lin;
    bool from_point = false;
    for (size_t i = 0; i < rows.size(); ++i) {
      const EDisRow& r = rows[i];
      from_point = from_point || (level == RDIS_FROM_POINT && r.lin == pl);
      bool changed = i >= old.size() || old[i].lin != r.lin || old[i].sub != r.sub || old[i].b1 != r.b1 ||
                     old[i].b0 != r.b0;
      if ((r.lin->flags & kLineRemeasure) || (level >= RDIS_OPTIMIZED && r.lin == pl) || from_point || changed) {
        RCT rr = RowRect(dis, static_cast<int>(i));
        xvt_dwin_invalidate_rect(dis->win, &rr);
      }
    }
    if (rows.size() < old.size()) {
      RCT below{client.left, static_cast<int>(rows.size()) * dis->height, client.right, client.bottom};
      xvt_dwin_invalidate_rect(dis->win, &below);
    }
  }
  for (const EDisRow& r : rows) r.lin->flags &= ~kLineRemeasure;
  dis->start = start;
  dis->cur_voac = cv_ptrs_voac(buf, start.blk, start.lin);
  dis->v_ac_origin = dis->cur_voac;
  dis->n_shown = static_cast<int>(rows.size());
  dis->bottom_px = dis->n_shown * dis->height;
  dis->viewport_px = client.bottom - client.top;
  MirrorScreen(buf, rows);
  buf->start_state = 2;
  buf->flags &= ~kBufRepaintHighlight;
  SyncBars(ed);
  PlaceCaret(ed, rows);
  dis->rows = std::move(rows);
  dis->laid_out = true;
  ed->rdis = RDIS_NONE;
  buf->rdis = RDIS_NONE;
}

void edis_paint(E_DATA* ed, const RCT* rct) {
  EDisplay* dis = Dis(ed);
  EditBuffer* buf = ed ? ed->buf : nullptr;
  if (!dis || !buf || !buf->the_point) return;
  if (xvt_vobj_get_attr(dis->win, ATTR_WIN_MINIMIZED)) return;
  if (!dis->laid_out || !ValidStart(dis, buf) || ed->rdis != RDIS_NONE || buf->rdis != RDIS_NONE)
    edis_layout(ed, !dis->laid_out);
  if (!ValidStart(dis, buf)) return;
  RCT client = Client(dis);
  RCT area = rct ? *rct : client;
  Locks locks;
  std::vector<EDisRow> rows;
  BuildRows(ed, dis->start, &rows, &locks);
  for (size_t i = 0; i < rows.size(); ++i) {
    RCT rr = RowRect(dis, static_cast<int>(i));
    if (Intersects(rr, area)) DrawRow(ed, static_cast<int>(i), rows[i]);
  }
  RCT below{client.left, static_cast<int>(rows.size()) * dis->height, client.right, client.bottom};
  if (below.top < below.bottom && Intersects(below, area)) FillRect(dis->win, below, kPaper);
}

void edis_resize(E_DATA* ed) {
  if (!Dis(ed)) return;
  ed->rdis = RDIS_FULL;
  edis_layout(ed, true);
}

// ---------------------------------------------------------------------------
// Scrolling

void edis_scroll_to(E_DATA* ed, long voac) {
  EDisplay* dis = Dis(ed);
  if (!dis || !ed->buf || dis->one_line) return;
  if (!dis->laid_out) edis_layout(ed, true);
  voac = std::clamp(voac, 1L, dis->max_voac);
  if (voac == dis->cur_voac && ValidStart(dis, ed->buf) && dis->start.sub == 0) return;
  BLOCK* b = nullptr;
  LINE* l = nullptr;
  if (CV_voac_ptrs(ed->buf, voac, &b, &l) != RC_OK) return;
  // The new first line stands in for the screen's until the layout below.
  dis->start = EDisPos{b, l, 0};
  ed->buf->line_ptrs[0] = l;
  ed->buf->block_ptrs[0] = b;
  ed->rdis = RDIS_FULL;
  edis_layout(ed, false);
}

void edis_scroll_lines(E_DATA* ed, long lines) {
  EDisplay* dis = Dis(ed);
  if (!dis) return;
  if (!dis->laid_out) edis_layout(ed, true);
  edis_scroll_to(ed, dis->cur_voac + lines);
}

// Lines of one page: those that fit, less the overlap kept in view.
static long PageLines(const EDisplay* dis) { return std::max(1L, static_cast<long>(FullRows(dis)) - dis->page_overlap); }

void edis_scroll_page(E_DATA* ed, int dir) {
  EDisplay* dis = Dis(ed);
  if (!dis) return;
  edis_scroll_lines(ed, dir > 0 ? PageLines(dis) : -PageLines(dis));
}

void edis_point_page(E_DATA* ed, int dir) {
  EDisplay* dis = Dis(ed);
  EditBuffer* buf = ed ? ed->buf : nullptr;
  if (!dis || !buf) return;
  if (!dis->laid_out) edis_layout(ed, true);
  long before = dis->cur_voac;
  // The point keeps its distance from the top of the screen.
  long row_of_point = cv_ptrs_voac(buf, buf->the_point->blk, buf->the_point->lin) - before;
  edis_scroll_page(ed, dir);
  long moved = dis->cur_voac - before;
  if (moved == 0) {
    // Already at the end of the scroll range: the point goes to the first or
    // last line instead.
    if (dir < 0)
      elib_mark_goto_bob(buf, buf->the_point);
    else
      elib_mark_goto_eob(buf, buf->the_point);
  } else {
    long target = std::clamp(dis->cur_voac + std::max(0L, row_of_point), 1L, buf->n_lines);
    BLOCK* b = nullptr;
    LINE* l = nullptr;
    if (CV_voac_ptrs(buf, target, &b, &l) == RC_OK) {
      if (l->flags & kLineEob) {
        elib_mark_goto_eob(buf, buf->the_point);
      } else {
        long col = PointCol(buf), off = 0;
        exp_to_unexp(l->text->text, col, buf->tab_width, &off);
        mark_move(buf, buf->the_point, b, l, off);
      }
    }
  }
  ed->rdis = RDIS_FULL;
  edis_layout(ed, true);
}

void edis_hscroll_to(E_DATA* ed, long hoac) {
  EDisplay* dis = Dis(ed);
  if (!dis || Wraps(dis)) return;
  if (!dis->laid_out) edis_layout(ed, true);
  hoac = std::clamp(hoac, 0L, dis->max_hoac);
  if (hoac == dis->cur_hoac) return;
  dis->cur_hoac = hoac;
  ed->rdis = RDIS_FULL;
  edis_layout(ed, false);
}

int edis_window_command(E_DATA* ed, const char* name) {
  if (!Dis(ed) || !name) return 0;
  EDisplay* dis = ed->dis;
  std::string n = name;
  if (n == "scroll-line-fwd") edis_scroll_lines(ed, dis->scroll_step);
  else if (n == "scroll-line-rev") edis_scroll_lines(ed, -dis->scroll_step);
  else if (n == "scroll-page-fwd") edis_scroll_page(ed, 1);
  else if (n == "scroll-page-rev") edis_scroll_page(ed, -1);
  else if (n == "point-goto-page-fwd") edis_point_page(ed, 1);
  else if (n == "point-goto-page-rev") edis_point_page(ed, -1);
  else return 0;
  return 1;
}

// ---------------------------------------------------------------------------
// Mouse to text

int edis_point_from_xy(E_DATA* ed, PNT where, BLOCK** pblk, LINE** plin, long* offset) {
  EDisplay* dis = Dis(ed);
  EditBuffer* buf = ed ? ed->buf : nullptr;
  if (!dis || !buf || !pblk || !plin || !offset) return RC_FAIL;
  if (!dis->laid_out || !ValidStart(dis, buf)) edis_layout(ed, false);
  if (!ValidStart(dis, buf)) return RC_FAIL;
  Locks locks;
  std::vector<EDisRow> rows;
  BuildRows(ed, dis->start, &rows, &locks);
  if (rows.empty()) return RC_FAIL;
  long i = where.v < 0 ? 0 : where.v / dis->height;
  i = std::min(i, static_cast<long>(rows.size()) - 1);
  EDisRow r = rows[static_cast<size_t>(i)];
  if (r.lin->flags & kLineEob) {
    // Below the text: the end of the last line.
    MARK* m = nullptr;
    if (mark_dup(buf, buf->the_point, &m) != RC_OK) return RC_FAIL;
    int rc = elib_mark_goto_eob(buf, m);
    *pblk = m->blk;
    *plin = m->lin;
    *offset = m->offset;
    mark_free(buf, &m);
    return rc;
  }
  long hoac = Wraps(dis) ? 0 : dis->cur_hoac;
  // The nearest side of the character under the click: a wide one is split
  // at its middle, not at a cell edge. A click past the end of a row that
  // wraps stays on that row.
  const char* text = r.lin->text->text;
  const size_t len = static_cast<size_t>(itext_length(r.lin->text));
  const long avg = dis->avg_width;
  long x = std::max(0, where.h);
  long first = r.col0 + hoac;
  long cell = first + x / avg;
  long off = 0;
  if (r.last && cell >= r.col1) {
    if (exp_to_unexp(text, r.col1, buf->tab_width, &off) != RC_OK) return RC_FAIL;
  } else {
    cell = std::min(cell, std::max(r.col0, r.col1 - 1));
    if (exp_to_unexp(text, cell, buf->tab_width, &off) != RC_OK) return RC_FAIL;
    long next = static_cast<long>(graph_next(text, len, static_cast<size_t>(off)));
    long cs = 0, ce = 0;
    unexp_to_exp(text, off, buf->tab_width, &cs);
    unexp_to_exp(text, next, buf->tab_width, &ce);
    // A tab keeps the cell rule: a click on its cells lands before it
    // unless it is nearer the next character's edge.
    bool after = text[off] == '\t' ? (first * avg + x + avg / 2) / avg >= ce
                                    : 2 * (first * avg + x) >= (cs + ce) * avg;
    if (after && next > off && (r.last || ce < r.col1)) off = next;
  }
  *pblk = r.blk;
  *plin = r.lin;
  *offset = off;
  return RC_OK;
}

std::string edis_dump(const E_DATA* ed) {
  std::string out;
  EDisplay* dis = Dis(ed);
  if (!dis || !ed->buf || !ValidStart(dis, ed->buf)) return out;
  Locks locks;
  std::vector<EDisRow> rows;
  BuildRows(const_cast<E_DATA*>(ed), dis->start, &rows, &locks);
  for (const EDisRow& r : rows) {
    const char* s = ExpText(ed->buf, r.lin);
    out.append(s + r.b0, static_cast<size_t>(r.b1 - r.b0));
    out += '\n';
  }
  return out;
}
