// The window binding of the editor and its controls.
#include "editor/edisxvt/edit_window.h"

#include <cstring>
#include <deque>

#include "editor/edisxvt/edisplay.h"
#include "editor/elib/buffer.h"
#include "editor/elib/ecmd.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/marks.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

constexpr long kEditWinKind = 0x45444954;  // "EDIT": what the window's record holds

struct EditWin {
  long kind = kEditWinKind;
  E_DATA* ed = nullptr;
  int ctl_kind = 0;  // 0 for a document window
  int id = 0;
  bool read_only = false;
  bool tab_leaves = false;
  std::string keybind;
  bool has_keybind = false;
  // An event that arrives while one is being handled (a dialog's or a
  // scroll's own event loop, a parent reacting to a notification) waits
  // here and is handled after it, in order.
  bool busy = false;
  std::deque<EVENT> queue;
};

EditWin* Rec(WINDOW win) {
  if (!xvt_vobj_is_valid(win)) return nullptr;
  auto* rec = reinterpret_cast<EditWin*>(xvt_vobj_get_data(win));
  return rec && rec->kind == kEditWinKind ? rec : nullptr;
}

void Notify(WINDOW win, EditWin* rec, bool focus_change, bool active) {
  if (!rec->ctl_kind) return;
  WINDOW parent = xvt_vobj_get_parent(win);
  if (!xvt_vobj_is_valid(parent)) return;
  EVENT ev{};
  ev.type = E_CONTROL;
  ev.v.ctl.id = rec->id;
  ev.v.ctl.ci.type = WC_TEXTEDIT;
  ev.v.ctl.ci.win = win;
  ev.v.ctl.ci.v.edit.focus_change = focus_change;
  ev.v.ctl.ci.v.edit.active = active;
  xvt_win_dispatch_event(parent, &ev);
}

// A control's text change is reported once: the control owns the
// modified flag and clears it when it has told its parent.
void AfterChange(WINDOW win, EditWin* rec) {
  EditBuffer* buf = rec->ed->buf;
  if (rec->ctl_kind && (buf->flags & kBufModified)) {
    buf->flags &= ~kBufModified;
    Notify(win, rec, false, false);
  }
}

void EnsureHighMarks(EditBuffer* buf) {
  if (!buf->high_start && mark_dup(buf, buf->the_point, &buf->high_start) == RC_OK) buf->high_start->name = "high_start";
  if (!buf->high_end && mark_dup(buf, buf->the_point, &buf->high_end) == RC_OK) buf->high_end->name = "high_end";
}

// Highlights the text between a and b as the buffer's region, after
// taking down the highlight of the region before.
void SelectSpan(EditBuffer* buf, const MARK* a, const MARK* b) {
  region_clear(buf);
  buf->flags &= ~(kBufRegion | kBufHighlight);
  EnsureHighMarks(buf);
  if (!buf->high_start || !buf->high_end || mark_same(a, b) == RC_OK) return;
  mark_set(buf, buf->high_start, a);
  mark_set(buf, buf->high_end, b);
  REGION* r = nullptr;
  if (region_new(&r) != RC_OK) return;
  region_set(r, buf->high_start, buf->high_end);
  buf->region = r;
  region_set_style(buf, r, kStyleToggleHighlight);
  buf->flags |= kBufRegion | kBufHighlight;
}

bool IsWhite(char c) { return c == ' ' || c == '\t'; }

// The run of non-white characters around offset.
void WordAround(const LINE* lin, long offset, long* from, long* to) {
  const char* s = lin->text ? lin->text->text : "";
  size_t len = std::strlen(s);
  size_t a = static_cast<size_t>(offset), b = a;
  while (a > 0) {
    size_t p = u8_prev(s, len, a);
    if (IsWhite(s[p])) break;
    a = p;
  }
  while (b < len && !IsWhite(s[b])) b = u8_next(s, len, b);
  *from = static_cast<long>(a);
  *to = static_cast<long>(b);
}

void MouseDown(WINDOW win, E_DATA* ed, const EVENT* ev, bool dbl) {
  EditBuffer* buf = ed->buf;
  EDisplay* dis = ed->dis;
  xvt_scr_set_focus_vobj(win);
  BLOCK* blk = nullptr;
  LINE* lin = nullptr;
  long off = 0;
  if (edis_point_from_xy(ed, ev->v.mouse.where, &blk, &lin, &off) != RC_OK) return;
  if (!dis->anchor && mark_dup(buf, buf->the_point, &dis->anchor) != RC_OK) return;
  if (dbl) {
    long from = 0, to = 0;
    WordAround(lin, off, &from, &to);
    mark_move(buf, dis->anchor, blk, lin, from);
    mark_move(buf, buf->the_point, blk, lin, to);
    SelectSpan(buf, dis->anchor, buf->the_point);
    dis->dragging = false;
    return;
  }
  bool extend = ev->v.mouse.shift && (buf->flags & kBufRegion);
  if (!extend) {
    region_clear(buf);
    buf->flags &= ~(kBufRegion | kBufHighlight);
    mark_move(buf, dis->anchor, blk, lin, off);
  }
  mark_move(buf, buf->the_point, blk, lin, off);
  if (extend) SelectSpan(buf, dis->anchor, buf->the_point);
  dis->dragging = true;
  xvt_win_trap_pointer(win);
}

void MouseDrag(E_DATA* ed, const EVENT* ev) {
  EditBuffer* buf = ed->buf;
  EDisplay* dis = ed->dis;
  if (!dis->dragging || !dis->anchor) return;
  RCT c{};
  xvt_vobj_get_client_rect(dis->win, &c);
  PNT p = ev->v.mouse.where;
  // Outside the text the view follows the pointer, a line or cell a move.
  if (p.v < c.top) edis_scroll_lines(ed, -1);
  else if (p.v >= c.bottom) edis_scroll_lines(ed, 1);
  if (!dis->wrap && p.h >= c.right) edis_hscroll_to(ed, dis->cur_hoac + 1);
  else if (!dis->wrap && p.h < c.left) edis_hscroll_to(ed, dis->cur_hoac - 1);
  BLOCK* blk = nullptr;
  LINE* lin = nullptr;
  long off = 0;
  if (edis_point_from_xy(ed, p, &blk, &lin, &off) != RC_OK) return;
  MARK* old = nullptr;
  if (!(buf->flags & kBufRegion) || !buf->region || mark_dup(buf, buf->the_point, &old) != RC_OK) {
    mark_move(buf, buf->the_point, blk, lin, off);
    SelectSpan(buf, dis->anchor, buf->the_point);
    return;
  }
  mark_move(buf, buf->the_point, blk, lin, off);
  // Only the span between the old and the new end changes: flipping its
  // highlight grows or shrinks the selection, on either side of the anchor.
  REGION delta;
  region_set(&delta, old, buf->the_point);
  region_set_style(buf, &delta, kStyleToggleHighlight);
  mark_free(buf, &old);
  mark_set(buf, buf->high_start, dis->anchor);
  mark_set(buf, buf->high_end, buf->the_point);
  region_set(buf->region, buf->high_start, buf->high_end);
}

void Scroll(E_DATA* ed, bool vertical, const EVENT* ev) {
  EDisplay* dis = ed->dis;
  RCT c{};
  xvt_vobj_get_client_rect(dis->win, &c);
  long page_cols = (c.right - c.left) / dis->avg_width;
  switch (ev->v.scroll.what) {
    case SC_LINE_UP:
      vertical ? edis_scroll_lines(ed, -dis->scroll_step) : edis_hscroll_to(ed, dis->cur_hoac - 1);
      break;
    case SC_LINE_DOWN:
      vertical ? edis_scroll_lines(ed, dis->scroll_step) : edis_hscroll_to(ed, dis->cur_hoac + 1);
      break;
    case SC_PAGE_UP:
      vertical ? edis_scroll_page(ed, -1) : edis_hscroll_to(ed, dis->cur_hoac - page_cols);
      break;
    case SC_PAGE_DOWN:
      vertical ? edis_scroll_page(ed, 1) : edis_hscroll_to(ed, dis->cur_hoac + page_cols);
      break;
    case SC_THUMB:
    case SC_THUMBTRACK:
      vertical ? edis_scroll_to(ed, ev->v.scroll.pos) : edis_hscroll_to(ed, ev->v.scroll.pos);
      break;
    default:
      break;
  }
}

void Key(WINDOW win, EditWin* rec, EVENT* ev) {
  E_DATA* ed = rec->ed;
  const int ch = ev->v.chr.ch;
  const bool key = !ev->v.chr.text;
  const bool tab = ch == K_TAB || ch == K_BTAB;
  if (key && ((rec->ctl_kind == TXEDITLINE && (ch == K_ENTER || tab)) || (rec->tab_leaves && tab))) {
    // A field does not take these: they are the dialog's (default button,
    // next field).
    WINDOW parent = xvt_vobj_get_parent(win);
    if (xvt_vobj_is_valid(parent)) xvt_win_dispatch_event(parent, ev);
    return;
  }
  int used = edata_key(ed, ev);
  if (!used && key && !ev->v.chr.control && (ch == K_PREV || ch == K_NEXT) && rec->ctl_kind != TXEDITLINE) {
    edis_point_page(ed, ch == K_NEXT ? 1 : -1);
    return;
  }
  edis_layout(ed, true);
  AfterChange(win, rec);
}

// What the automation script's dump shows of the window: its screen rows.
void Describe(WINDOW win, std::string* out) {
  EditWin* rec = Rec(win);
  if (rec && rec->ed) *out += edis_dump(rec->ed);
}

void DestroyRec(WINDOW win, EditWin* rec) {
  if (rec->ed) {
    edis_destroy(rec->ed->dis, rec->ed->buf);
    edata_destroy(rec->ed);
  }
  xvt_vobj_set_data(win, 0);
  delete rec;
}

}  // namespace

static long Handle(WINDOW win, EditWin* rec, EVENT* ev);

long edit_eh(WINDOW win, EVENT* ev) {
  EditWin* rec = Rec(win);
  if (!rec || !ev) return 0;
  if (ev->type == E_CREATE || ev->type == E_DESTROY) return Handle(win, rec, ev);
  if (rec->busy) {
    elib_trace_detail("En-queued event type %d\n", static_cast<int>(ev->type));
    rec->queue.push_back(*ev);
    return 0;
  }
  rec->busy = true;
  EVENT cur = *ev;
  for (;;) {
    const bool last = cur.type == E_CLOSE && !rec->ctl_kind;
    Handle(win, rec, &cur);
    // Closing destroys the window and its record with it.
    if (last || Rec(win) != rec) return 0;
    if (rec->queue.empty()) break;
    cur = rec->queue.front();
    rec->queue.pop_front();
  }
  rec->busy = false;
  return 0;
}

static long Handle(WINDOW win, EditWin* rec, EVENT* ev) {
  if (ev->type == E_CREATE) {
    rec->ed = edata_create(win, rec->has_keybind ? rec->keybind.c_str() : nullptr);
    if (!rec->ed) {
      elib_trace_fail("edit_eh: no editor record for the window\n");
      return 0;
    }
    rec->ed->win = win;
    bool control = rec->ctl_kind != 0;
    rec->ed->dis = edis_create(win, nullptr);
    // Scrolling and paging commands named in the key maps move this window.
    ecmd_set_window_handler(rec->ed, edis_window_command);
    rec->ed->dis->one_line = rec->ctl_kind == TXEDITLINE;
    rec->ed->dis->wrap = rec->ctl_kind != TXEDITLINE;
    rec->ed->dis->show_eob = !control;
    if (rec->read_only) rec->ed->buf->flags |= kBufReadOnly;
    // Wrapped lines never need the sideways bar.
    if (!control) xvt_sbar_set_visible(win, HSCROLL, !rec->ed->dis->wrap);
    xvt_win_set_cursor(win, CURSOR_IBEAM);
    xvt_win_set_describe(win, Describe);
    return 0;
  }
  if (ev->type == E_DESTROY) {
    DestroyRec(win, rec);
    return 0;
  }
  E_DATA* ed = rec->ed;
  if (!ed || !ed->dis) return 0;
  switch (ev->type) {
    case E_UPDATE:
      edis_paint(ed, &ev->v.update.rct);
      break;
    case E_SIZE:
      edis_resize(ed);
      break;
    case E_FOCUS:
      ed->dis->focused = ev->v.active;
      edis_layout(ed, false);
      Notify(win, rec, true, ev->v.active);
      break;
    case E_CHAR:
      Key(win, rec, ev);
      break;
    case E_MOUSE_DOWN:
    case E_MOUSE_DBL:
      if (ev->v.mouse.button != 0) break;
      MouseDown(win, ed, ev, ev->type == E_MOUSE_DBL);
      edis_layout(ed, true);
      break;
    case E_MOUSE_MOVE:
      if (!ed->dis->dragging) break;
      MouseDrag(ed, ev);
      edis_layout(ed, true);
      break;
    case E_MOUSE_UP:
      if (!ed->dis->dragging) break;
      MouseDrag(ed, ev);
      ed->dis->dragging = false;
      xvt_win_release_pointer();
      edis_layout(ed, true);
      break;
    case E_VSCROLL:
    case E_HSCROLL:
      Scroll(ed, ev->type == E_VSCROLL, ev);
      break;
    case E_CLOSE:
      if (!rec->ctl_kind) xvt_vobj_destroy(win);
      break;
    default:
      break;
  }
  return 0;
}

WINDOW edit_window_create(WINDOW parent, const RCT* rct, const char* title, const char* keybind_path) {
  auto* rec = new EditWin;
  if (keybind_path) {
    rec->keybind = keybind_path;
    rec->has_keybind = true;
  }
  RCT r = rct ? *rct : RCT{20, 20, 620, 420};
  if (!parent) {
    intptr_t mdi = xvt_vobj_get_attr(NULL_WIN, ATTR_MDI_CLIENT_WIN);
    parent = mdi ? reinterpret_cast<WINDOW>(mdi) : TASK_WIN;
  }
  WINDOW win = xvt_win_create(W_DOC, &r, title ? title : "", 0, parent,
                              WSF_SIZE | WSF_CLOSE | WSF_VSCROLL | WSF_HSCROLL | WSF_MAXIMIZABLE, EM_ALL, edit_eh,
                              reinterpret_cast<intptr_t>(rec));
  if (!win) {
    delete rec;
    return NULL_WIN;
  }
  if (!rec->ed) {
    xvt_vobj_destroy(win);
    return NULL_WIN;
  }
  return win;
}

E_DATA* edit_data(WINDOW win) {
  EditWin* rec = Rec(win);
  return rec ? rec->ed : nullptr;
}

WINDOW txedit_create(TXEDIT_KIND kind, WINDOW parent, const RCT* rct, int id, unsigned long flags) {
  if ((kind != TXEDIT && kind != TXEDITLINE) || !rct || !xvt_vobj_is_valid(parent)) return NULL_WIN;
  auto* rec = new EditWin;
  rec->ctl_kind = kind;
  rec->id = id;
  rec->read_only = (flags & CTL_FLAG_READONLY) != 0;
  unsigned long wflags = kind == TXEDIT ? WSF_VSCROLL : WSF_NONE;
  if (flags & CTL_FLAG_INVISIBLE) wflags |= WSF_INVISIBLE;
  if (flags & CTL_FLAG_DISABLED) wflags |= WSF_DISABLED;
  WINDOW win = xvt_win_create(W_PLAIN, rct, "", 0, parent, wflags, EM_ALL, edit_eh, reinterpret_cast<intptr_t>(rec));
  if (!win) {
    delete rec;
    return NULL_WIN;
  }
  if (!rec->ed) {
    xvt_vobj_destroy(win);
    return NULL_WIN;
  }
  return win;
}

int txedit_set_text(WINDOW ctl, const char* utf8) {
  EditWin* rec = Rec(ctl);
  if (!rec || !rec->ed) return RC_FAIL;
  EditBuffer* buf = rec->ed->buf;
  std::string text = utf8 ? utf8 : "";
  if (rec->ctl_kind == TXEDITLINE)
    for (char& c : text)
      if (c == '\n' || c == '\r') c = ' ';
  // The program may fill a read-only control.
  uint32_t ro = buf->flags & kBufReadOnly;
  buf->flags &= ~kBufReadOnly;
  region_clear(buf);
  buf->flags &= ~(kBufRegion | kBufHighlight);
  MARK* start = nullptr;
  int rc = mark_dup(buf, buf->the_point, &start);
  if (rc == RC_OK) rc = elib_mark_goto_bob(buf, start);
  if (rc == RC_OK) rc = elib_mark_goto_eob(buf, buf->the_point);
  if (rc == RC_OK) rc = elib_delete_range(buf, start, buf->the_point);
  // The end mark stands on the end-of-buffer line, where nothing goes in:
  // the new text goes in where the old began.
  if (rc == RC_OK) rc = mark_set(buf, buf->the_point, start);
  if (rc == RC_OK) rc = elib_insert(buf, buf->the_point, text);
  if (start) {
    elib_mark_goto_bob(buf, start);
    mark_set(buf, buf->the_point, start);
    mark_free(buf, &start);
  }
  buf->flags |= ro;
  buf->flags &= ~kBufModified;
  rec->ed->rdis = RDIS_FULL;
  edis_layout(rec->ed, true);
  return rc;
}

std::string txedit_get_text(WINDOW ctl) {
  EditWin* rec = Rec(ctl);
  std::string out;
  if (!rec || !rec->ed) return out;
  EditBuffer* buf = rec->ed->buf;
  MARK* m = nullptr;
  if (mark_dup(buf, buf->the_point, &m) != RC_OK) return out;
  elib_mark_goto_bob(buf, m);
  BLOCK* blk = m->blk;
  LINE* lin = m->lin;
  mark_free(buf, &m);
  while (lin && !(lin->flags & kLineEob)) {
    if (lin->text) out.append(lin->text->text, static_cast<size_t>(itext_length(lin->text)));
    LINE* before = lin;
    if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before || (lin->flags & kLineEob)) break;
    out += '\n';
  }
  return out;
}

void txedit_set_font(WINDOW ctl, const char* family, int size, unsigned style) {
  EditWin* rec = Rec(ctl);
  if (!rec || !rec->ed || !family) return;
  edis_set_font(rec->ed, xvt_font_create(family, size, style));
}

void txedit_set_readonly(WINDOW ctl, bool read_only) {
  EditWin* rec = Rec(ctl);
  if (!rec) return;
  rec->read_only = read_only;
  if (rec->ed) {
    if (read_only)
      rec->ed->buf->flags |= kBufReadOnly;
    else
      rec->ed->buf->flags &= ~kBufReadOnly;
  }
}

bool txedit_is_readonly(WINDOW ctl) {
  EditWin* rec = Rec(ctl);
  return rec && rec->read_only;
}

void txedit_set_tab_leaves(WINDOW ctl, bool leaves) {
  if (EditWin* rec = Rec(ctl); rec && rec->ctl_kind) rec->tab_leaves = leaves;
}

void txedit_focus(WINDOW ctl) {
  if (Rec(ctl)) xvt_scr_set_focus_vobj(ctl);
}

void txedit_caret_to_end(WINDOW ctl) {
  EditWin* rec = Rec(ctl);
  if (!rec || !rec->ed || rec->ctl_kind != TXEDITLINE) return;
  // The line is the buffer's first; its end, not the end-of-buffer line.
  if (elib_mark_goto_bob(rec->ed->buf, rec->ed->buf->the_point) != RC_OK) return;
  ecmd_run(rec->ed, "point-goto-eol", nullptr, false);
  edis_layout(rec->ed, true);
}
