// The Edit menu (cut, copy, paste through the toolkit's clipboard, with CR
// LF line ends in the exchanged text), forward search and replace, wrapping
// a line at the margin while typing, and the event queue of a busy window.
#include <algorithm>
#include <unordered_map>

#include "editor/elib/ecmd_internal.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/graph.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

using namespace ecmd;

// ---- clipboard ------------------------------------------------------------------

std::vector<EClipPiece> ecmd_clip_split(std::string_view text) {
  std::vector<EClipPiece> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find_first_of("\r\n", start);
    if (end == std::string_view::npos) {
      out.push_back({text.substr(start), false});
      break;
    }
    out.push_back({text.substr(start, end - start), true});
    start = end + (text[end] == '\r' && end + 1 < text.size() && text[end + 1] == '\n' ? 2 : 1);
  }
  return out;
}

namespace {

// The region's text for the clipboard into *out (LF line ends, as Linux
// programs exchange text), and as the buffer holds it into *lf.
int RegionText(EditBuffer* buf, REGION* region, std::string* out, std::string* lf) {
  if (!buf || !region || !out || region_order(buf, region) != RC_OK) return RC_FAIL;
  std::string own;
  std::string& text = lf ? *lf : own;
  if (TextBetween(buf, region->bor, region->eor, &text) != RC_OK) return RC_FAIL;
  if (text.size() + 1 > kPasteMaxBytes) {
    xvt_dm_post_error("Can't alloc clipboard memory %ld", static_cast<long>(text.size() + 1));
    return RC_FAIL;
  }
  out->clear();
  out->append(text);
  // A region ending at a line start takes that line end along; paste drops
  // the last line end it gets, so one more keeps the round trip exact.
  if (region->bor->lin != region->eor->lin && region->eor->offset == 0) out->push_back('\n');
  return RC_OK;
}

}  // namespace

int ecmd_region_text(EditBuffer* buf, REGION* region, std::string* out) {
  return RegionText(buf, region, out, nullptr);
}

namespace {

void UpdatePasteEntry(E_DATA* ed) {
  if (ed->win != NULL_WIN) xvt_menu_set_item_enabled(ed->win, kMenuPaste, xvt_cb_has_text() && !ReadOnly(ed->buf));
}

// Reads the region once: one copy goes to the clipboard, the other to *lf
// for the undo record of a cut.
int Copy(E_DATA* ed, std::string* lf = nullptr) {
  EditBuffer* buf = ed->buf;
  if (!buf->region) return RC_FAIL;
  std::string text;
  if (RegionText(buf, buf->region, &text, lf) != RC_OK) return RC_FAIL;
  if (!xvt_cb_put_text(text.data(), text.size())) {
    xvt_dm_post_error("Clipboard put failed.");
    return RC_FAIL;
  }
  return RC_OK;
}

int Cut(E_DATA* ed) {
  EditBuffer* buf = ed->buf;
  std::string lf;
  if (ReadOnly(buf) || !buf->region || Copy(ed, &lf) != RC_OK) return RC_FAIL;
  int rc = RC_FAIL;
  CutRegion(ed, &lf, &rc);
  buf->flags |= kBufRepaintHighlight;
  buf->rdis = RDIS_FULL;
  buf->start_state = 0;
  return rc;
}

int Paste(E_DATA* ed) {
  if (ReadOnly(ed->buf) || !xvt_cb_has_text()) return RC_FAIL;
  return ecmd_paste_text(ed, xvt_cb_get_text());
}

}  // namespace

int ecmd_paste_text(E_DATA* ed, std::string_view text) {
  if (!ed || ReadOnly(ed->buf)) return RC_FAIL;
  if (text.size() > kPasteMaxBytes) {
    xvt_dm_post_error("The clipboard holds %zu bytes, more than the editor takes at once (%zu); nothing was pasted.",
                      text.size(), kPasteMaxBytes);
    return RC_FAIL;
  }
  if (text.find('\0') != std::string_view::npos) {
    xvt_dm_post_error("The clipboard text holds NUL bytes; nothing was pasted.");
    return RC_FAIL;
  }
  std::vector<EClipPiece> pieces = ecmd_clip_split(text);
  std::string joined;
  joined.reserve(text.size());
  for (size_t i = 0; i < pieces.size(); ++i) {
    joined.append(pieces[i].text);
    // A final line end adds no empty line.
    if (pieces[i].line_end && i + 1 < pieces.size()) joined.push_back('\n');
  }
  BeginStep(ed);
  EditBuffer* buf = ed->buf;
  CutRegion(ed);
  int rc = joined.empty() ? RC_OK : Insert(ed, buf->the_point, joined);
  EndStep(ed);
  buf->rdis = RDIS_FULL;
  buf->start_state = 0;
  return rc;
}

int ecmd_menu(E_DATA* ed, int id) {
  if (!ed || !ed->buf || (id != kMenuCut && id != kMenuCopy && id != kMenuPaste)) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  int saved = buf->rdis;
  buf->rdis = RDIS_NONE;
  NormalizePoint(buf);
  BeginStep(ed);
  int rc = id == kMenuCut ? Cut(ed) : id == kMenuCopy ? Copy(ed) : Paste(ed);
  EndStep(ed);
  if (id != kMenuCopy && rc == RC_OK) {
    buf->flags &= ~(kBufSelActive | kBufSelTemp | kBufSelLocked);
    if (buf->sel_anchor) mark_free(buf, &buf->sel_anchor);
  }
  UpdatePasteEntry(ed);
  int need = std::max(buf->rdis, RDIS_OPTIMIZED);
  if (buf->flags & kBufRepaintHighlight) {
    need = RDIS_FULL;
    buf->flags &= ~kBufRepaintHighlight;
  }
  ed->rdis = std::max(ed->rdis, need);
  buf->rdis = std::max(saved, need);
  if (ed->cmd) ed->cmd->last_command.clear();
  return rc;
}

// ---- search and replace ------------------------------------------------------------

int ecmd_search_forward(E_DATA* ed, std::string_view text) {
  if (!ed || !ed->buf || text.empty() || text.find('\n') != std::string_view::npos) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  NormalizePoint(buf);
  REGION* rest = nullptr;
  if (region_from_whole(buf, kWholeFromPoint, &rest) != RC_OK) return RC_FAIL;
  int rc = search_region(buf, rest, text);
  region_free_whole(buf, &rest);
  if (rc == RC_OK) ed->rdis = std::max(ed->rdis, RDIS_OPTIMIZED);
  return rc;
}

int ecmd_replace_forward(E_DATA* ed, std::string_view old_text, std::string_view new_text, long* count) {
  if (count) *count = 0;
  if (!ed || ReadOnly(ed->buf) || old_text.empty() || old_text.find('\n') != std::string_view::npos ||
      new_text.find('\n') != std::string_view::npos)
    return RC_FAIL;
  EditBuffer* buf = ed->buf;
  NormalizePoint(buf);
  TempMark saved(buf, buf->the_point);
  if (!saved) return RC_FAIL;
  long n = 0;
  BeginStep(ed);
  while (ecmd_search_forward(ed, old_text) == RC_OK) {
    TempMark a(buf, buf->the_point), b(buf, buf->the_point);
    mark_move(buf, b.m, nullptr, nullptr, a.m->offset + static_cast<long>(old_text.size()));
    if (Delete(ed, a.m, b.m) != RC_OK) break;
    // The point goes on behind the new text, so new text holding the old
    // cannot make the loop find its own work.
    if (!new_text.empty() && Insert(ed, a.m, new_text) != RC_OK) break;
    mark_set(buf, buf->the_point, a.m);
    ++n;
  }
  EndStep(ed);
  mark_set(buf, buf->the_point, saved.m);
  if (count) *count = n;
  if (n > 0) {
    buf->rdis = RDIS_FULL;
    ed->rdis = RDIS_FULL;
  }
  return n > 0 ? RC_OK : RC_FAIL;
}

// ---- wrapping --------------------------------------------------------------------

namespace {

bool Blank(char c) { return c == ' ' || c == '\t'; }

// Where a line should break for `margin` columns: the start of the
// last run of blanks that begins within the margin behind some text, or -1.
long BreakAt(const ITEXT* t, int margin, int tab_width) {
  const char* s = t->text;
  size_t len = static_cast<size_t>(itext_length(t));
  long col = 0, best = -1, pending = -1;
  bool text_seen = false;
  // Columns are screen cells: wide characters take two, marks none.
  for (size_t i = 0, next = 0; i < len; i = next) {
    next = graph_next(s, len, i);
    if (Blank(s[i]) && text_seen && col <= margin && (i == 0 || !Blank(s[i - 1]))) pending = static_cast<long>(i);
    // Blanks count as a break only with text behind them: trailing blanks
    // the user just typed stay.
    if (!Blank(s[i])) {
      if (pending >= 0) best = pending;
      text_seen = true;
    }
    col = s[i] == '\t' && tab_width > 0 ? (col / tab_width + 1) * tab_width : col + graph_width(s, len, i, next);
  }
  return col > margin ? best : -1;
}

}  // namespace

int ecmd_refill(E_DATA* ed, int margin) {
  if (!ed || ReadOnly(ed->buf) || margin <= 0) return RC_FAIL;
  EditBuffer* buf = ed->buf;
  TempMark cur(buf, buf->the_point);
  if (!cur) return RC_FAIL;
  BeginStep(ed);
  int broke = 0;
  // Each pass breaks one line and carries its tail down; the tail is
  // shorter than the line, so the passes end.
  for (int guard = 0; guard < 100000; ++guard) {
    long at = BreakAt(cur.m->lin->text, margin, buf->tab_width);
    if (at < 0) break;
    const char* s = cur.m->lin->text->text;
    long len = itext_length(cur.m->lin->text);
    long end = at;
    while (end < len && Blank(s[end])) ++end;
    TempMark a(buf, cur.m), b(buf, cur.m);
    mark_move(buf, a.m, nullptr, nullptr, at);
    mark_move(buf, b.m, nullptr, nullptr, end);
    if (Delete(ed, a.m, b.m) != RC_OK) break;
    // A line with nothing behind the blanks just lost its trailing blanks.
    if (at >= itext_length(cur.m->lin->text)) break;
    if (Insert(ed, a.m, "\n") != RC_OK) break;
    mark_set(buf, cur.m, a.m);
    ++broke;
  }
  EndStep(ed);
  return broke > 0 ? RC_OK : RC_FAIL;
}

// ---- event serialisation ----------------------------------------------------------

namespace {

std::unordered_map<const E_DATA*, unsigned long>& Live() {
  static std::unordered_map<const E_DATA*, unsigned long> live;
  return live;
}
unsigned long g_serial = 0;

bool Ends(const EVENT& ev) {
  return ev.type == E_DESTROY || ev.type == E_CLOSE || (ev.type == E_COMMAND && ev.v.cmd.tag == kMenuClose);
}

}  // namespace

void ecmd_register_live(const E_DATA* ed, bool live) {
  if (live) Live()[ed] = ++g_serial;
  else Live().erase(ed);
}

long ehserial(E_DATA* ed, WINDOW win, EVENT* ev, EdataEventFn handle) {
  if (!ev || !handle) return 0;
  if (ev->type == E_CREATE || ev->type == E_DESTROY || !ed || !ed->cmd) return handle(ed, win, ev);
  ECommandState* c = ed->cmd;
  if (ed->flags & kEdataBusy) {
    if (c->queue.size() >= kEventQueueMax) {
      elib_trace_fail("Event queue full; event type %d dropped\n", static_cast<int>(ev->type));
      return 0;
    }
    c->queue.push_back({win, *ev});
    elib_trace_detail("En-queued event type %d\n", static_cast<int>(ev->type));
    return 0;
  }
  auto it = Live().find(ed);
  unsigned long serial = it == Live().end() ? 0 : it->second;
  ed->flags |= kEdataBusy;
  EVPAIR cur{win, *ev};
  EVENT* now = ev;
  long result = 0;
  bool first = true;
  while (true) {
    long r = handle(ed, cur.win, now);
    if (first) result = r;
    first = false;
    if (Ends(cur.ev)) {
      // The handler may have freed the window's record; touch it only if
      // it is still the same live record.
      auto again = Live().find(ed);
      if (serial == 0 || again == Live().end() || again->second != serial) return result;
    }
    if (c->queue.empty()) break;
    cur = c->queue.front();
    c->queue.pop_front();
    now = &cur.ev;
  }
  ed->flags &= ~kEdataBusy;
  return result;
}
