// The named commands and the table that finds them. Moving commands step
// by character (a base and its marks); the editing ones go through the undo log.
#include <cstring>

#include "editor/elib/ecmd_internal.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace ecmd {

bool IsWhite(int c) { return c == ' ' || (c >= 8 && c <= 13); }
bool IsWord(int c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '\'' || c == '-' || c >= 0x80;
}
bool IsIdent(int c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c >= 0x80; }

namespace {
bool IsLastTextLine(EditBuffer* buf, const MARK* m) {
  BLOCK* blk = m->blk;
  LINE* lin = m->lin;
  if (lin->flags & kLineEob) return true;
  if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK) return true;
  return lin == m->lin || (lin->flags & kLineEob);
}
}  // namespace

int CharAt(EditBuffer* buf, const MARK* m) {
  const ITEXT* t = m->lin->text;
  long len = itext_length(t);
  if (m->lin->flags & kLineEob) return -1;
  if (m->offset < len) return static_cast<unsigned char>(t->text[m->offset]);
  return IsLastTextLine(buf, m) ? -1 : '\n';
}

int CharBefore(EditBuffer* buf, const MARK* m) {
  const ITEXT* t = m->lin->text;
  if (m->offset > 0) {
    size_t at = u8_prev(t->text, static_cast<size_t>(itext_length(t)), static_cast<size_t>(m->offset));
    return static_cast<unsigned char>(t->text[at]);
  }
  return elib_line_is_bob(buf, m->lin) == RC_OK ? -1 : '\n';
}

bool CutRegion(E_DATA* ed, const std::string* known, int* rc) {
  EditBuffer* buf = ed->buf;
  if (rc) *rc = RC_FAIL;
  if (!buf->region) return false;
  REGION* r = buf->region;
  int done = RC_FAIL;
  if (r->bor && r->eor && mark_same(r->bor, r->eor) != RC_OK) done = Delete(ed, r->bor, r->eor, known);
  // Text that went takes its highlight along; only text that stayed needs
  // it cleared, which saves a pass over a long region.
  if (done != RC_OK && r->bor && r->eor) region_set_style(buf, r, kStyleClearHighlight);
  region_clear(buf);
  buf->flags &= ~kBufHighlight;
  buf->rdis = RDIS_FULL;
  if (rc) *rc = done;
  return true;
}

void NormalizePoint(EditBuffer* buf) {
  MARK* p = buf->the_point;
  if (p && p->lin && (p->lin->flags & kLineEob)) elib_mark_goto_eob(buf, p);
}

}  // namespace ecmd

namespace {

using namespace ecmd;
using Pred = bool (*)(int);

bool NotWhite(int c) { return !IsWhite(c); }
bool NotWord(int c) { return !IsWord(c); }
bool NotIdent(int c) { return !IsIdent(c); }

// Moves m over characters that satisfy pred; false when the text ended.
bool SkipFwd(EditBuffer* buf, MARK* m, Pred pred) {
  while (true) {
    int c = CharAt(buf, m);
    if (c < 0) return false;
    if (!pred(c)) return true;
    if (elib_mark_step_char(buf, m, kStepFwd) != RC_OK) return false;
  }
}

bool SkipRev(EditBuffer* buf, MARK* m, Pred pred) {
  while (true) {
    int c = CharBefore(buf, m);
    if (c < 0) return false;
    if (!pred(c)) return true;
    if (elib_mark_step_char(buf, m, kStepBack) != RC_OK) return false;
  }
}

EditBuffer* Buf(E_DATA* ed) { return ed ? ed->buf : nullptr; }
MARK* Point(E_DATA* ed) { return ed->buf->the_point; }

// ---- moving --------------------------------------------------------------

int GotoCharFwd(E_DATA* ed) { return elib_mark_step_char(ed->buf, Point(ed), kStepFwd); }
int GotoCharRev(E_DATA* ed) { return elib_mark_step_char(ed->buf, Point(ed), kStepBack); }
int GotoBob(E_DATA* ed) { return elib_mark_goto_bob(ed->buf, Point(ed)); }
int GotoEob(E_DATA* ed) { return elib_mark_goto_eob(ed->buf, Point(ed)); }
int GotoBol(E_DATA* ed) {
  MARK* p = Point(ed);
  return mark_move(ed->buf, p, p->blk, p->lin, 0);
}
int GotoEol(E_DATA* ed) {
  MARK* p = Point(ed);
  return mark_move(ed->buf, p, p->blk, p->lin, line_last_offset(p->lin));
}

// Goal columns count screen cells, so that moving up and down keeps to
// what the eye lines up: wide characters take two, marks none.
long Column(const EditBuffer* buf, const ITEXT* t, long upto) {
  long col = 0;
  unexp_to_exp(t->text, upto, buf->tab_width, &col);
  return col;
}

long OffsetOfColumn(const EditBuffer* buf, const ITEXT* t, long column) {
  long off = 0;
  exp_to_unexp(t->text, column, buf->tab_width, &off);
  return off;
}

int GotoLine(E_DATA* ed, int direction) {
  EditBuffer* buf = ed->buf;
  MARK* p = Point(ed);
  long goal = ed->cmd && ed->cmd->goal_column >= 0 ? ed->cmd->goal_column : Column(buf, p->lin->text, p->offset);
  BLOCK* blk = p->blk;
  LINE* lin = p->lin;
  if (line_step(buf, &blk, &lin, direction) != RC_OK || lin == p->lin || (lin->flags & kLineEob)) return RC_FAIL;
  if (ed->cmd) ed->cmd->goal_column = goal;
  return mark_move(buf, p, blk, lin, OffsetOfColumn(buf, lin->text, goal));
}
int GotoLineFwd(E_DATA* ed) { return GotoLine(ed, kStepFwd); }
int GotoLineRev(E_DATA* ed) { return GotoLine(ed, kStepBack); }

// Skips `skip` characters, then `stop_after` ones; the point comes back
// when the text ends while skipping.
int GotoFwd(E_DATA* ed, Pred skip, Pred then) {
  TempMark t(ed->buf, Point(ed));
  if (!t || !SkipFwd(ed->buf, t.m, skip)) return RC_FAIL;
  SkipFwd(ed->buf, t.m, then);
  return mark_set(ed->buf, Point(ed), t.m);
}
int GotoRev(E_DATA* ed, Pred skip, Pred then) {
  TempMark t(ed->buf, Point(ed));
  if (!t || !SkipRev(ed->buf, t.m, skip)) return RC_FAIL;
  SkipRev(ed->buf, t.m, then);
  return mark_set(ed->buf, Point(ed), t.m);
}
int GotoIdFwd(E_DATA* ed) { return GotoFwd(ed, NotIdent, IsIdent); }
int GotoIdRev(E_DATA* ed) { return GotoRev(ed, NotIdent, IsIdent); }
int GotoWordFwd(E_DATA* ed) { return GotoFwd(ed, NotWord, IsWord); }
int GotoWordRev(E_DATA* ed) { return GotoRev(ed, NotWord, IsWord); }
int GotoNonwhiteFwd(E_DATA* ed) { return GotoFwd(ed, IsWhite, NotWhite); }
int GotoNonwhiteRev(E_DATA* ed) { return GotoRev(ed, IsWhite, NotWhite); }

int AtBob(E_DATA* ed) {
  MARK* p = Point(ed);
  return p->offset == 0 && elib_line_is_bob(ed->buf, p->lin) == RC_OK ? RC_OK : RC_FAIL;
}
int AtEob(E_DATA* ed) {
  MARK* p = Point(ed);
  return CharAt(ed->buf, p) < 0 ? RC_OK : RC_FAIL;
}

int Nothing(E_DATA*) { return RC_OK; }

// ---- editing ---------------------------------------------------------------

int SelfInsert(E_DATA* ed, int, const KM_KEY* key, int) {
  if (ReadOnly(Buf(ed)) || !key || key->text_len <= 0) return RC_FAIL;
  CutRegion(ed);
  if (Insert(ed, Point(ed), std::string_view(key->text, static_cast<size_t>(key->text_len))) != RC_OK)
    return RC_FAIL;
  if ((ed->buf->wrap_flags & 1) && ed->cmd && ed->cmd->wrap_margin > 0) ecmd_refill(ed, ed->cmd->wrap_margin);
  return RC_OK;
}

// The word-case names run self-insert without a character: nothing.
int NoCharacter(E_DATA* ed) { return SelfInsert(ed, 1, nullptr, 0); }

int KillTo(E_DATA* ed, MARK* to) {
  if (mark_same(Point(ed), to) == RC_OK) return RC_FAIL;
  return Delete(ed, Point(ed), to);
}

int CharKillFwd(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  if (CutRegion(ed)) return RC_OK;
  TempMark t(ed->buf, Point(ed));
  if (!t || elib_mark_step_char(ed->buf, t.m, kStepFwd) != RC_OK) return RC_FAIL;
  return KillTo(ed, t.m);
}

int CharKillRev(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  if (CutRegion(ed)) return RC_OK;
  TempMark t(ed->buf, Point(ed));
  if (!t || elib_mark_step_char(ed->buf, t.m, kStepBack) != RC_OK) return RC_FAIL;
  return KillTo(ed, t.m);
}

// Deletes white characters, then those of `then`.
int KillFwd(E_DATA* ed, Pred then) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  TempMark t(ed->buf, Point(ed));
  if (!t) return RC_FAIL;
  SkipFwd(ed->buf, t.m, IsWhite);
  SkipFwd(ed->buf, t.m, then);
  return KillTo(ed, t.m);
}
int KillRev(E_DATA* ed, Pred then) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  TempMark t(ed->buf, Point(ed));
  if (!t) return RC_FAIL;
  SkipRev(ed->buf, t.m, IsWhite);
  SkipRev(ed->buf, t.m, then);
  return KillTo(ed, t.m);
}
int WordKillFwd(E_DATA* ed) { return KillFwd(ed, IsWord); }
int WordKillRev(E_DATA* ed) { return KillRev(ed, IsWord); }
int IdKillFwd(E_DATA* ed) { return KillFwd(ed, IsIdent); }
int IdKillRev(E_DATA* ed) { return KillRev(ed, IsIdent); }
int NonwhiteKillFwd(E_DATA* ed) { return KillFwd(ed, NotWhite); }
int NonwhiteKillRev(E_DATA* ed) { return KillRev(ed, NotWhite); }

int LineKillEol(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  MARK* p = Point(ed);
  TempMark t(ed->buf, p);
  if (!t) return RC_FAIL;
  if (p->offset >= line_last_offset(p->lin)) {
    if (elib_mark_step_char(ed->buf, t.m, kStepFwd) != RC_OK) return RC_FAIL;
  } else {
    mark_move(ed->buf, t.m, nullptr, nullptr, line_last_offset(p->lin));
  }
  return KillTo(ed, t.m);
}

int LineKillBol(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  MARK* p = Point(ed);
  TempMark t(ed->buf, p);
  if (!t) return RC_FAIL;
  if (p->offset == 0) {
    if (elib_mark_step_char(ed->buf, t.m, kStepBack) != RC_OK) return RC_FAIL;
  } else {
    mark_move(ed->buf, t.m, nullptr, nullptr, 0);
  }
  return KillTo(ed, t.m);
}

int LineKillWhiteSides(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  MARK* p = Point(ed);
  const char* s = p->lin->text->text;
  long len = itext_length(p->lin->text);
  long a = p->offset, b = p->offset;
  while (a > 0 && IsWhite(static_cast<unsigned char>(s[a - 1]))) --a;
  while (b < len && IsWhite(static_cast<unsigned char>(s[b]))) ++b;
  if (a == b) return RC_FAIL;
  TempMark from(ed->buf, p), to(ed->buf, p);
  if (!from || !to) return RC_FAIL;
  mark_move(ed->buf, from.m, nullptr, nullptr, a);
  mark_move(ed->buf, to.m, nullptr, nullptr, b);
  return Delete(ed, from.m, to.m);
}

int LineNewline(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  CutRegion(ed);
  return Insert(ed, Point(ed), "\n");
}

int LineOpenline(E_DATA* ed) {
  if (ReadOnly(Buf(ed))) return RC_FAIL;
  CutRegion(ed);
  // The line end goes in behind the point, which stays at the first line's end.
  TempMark t(ed->buf, Point(ed));
  return t ? Insert(ed, t.m, "\n") : RC_FAIL;
}

int SelectAll(E_DATA* ed) {
  EditBuffer* buf = ed->buf;
  if (!buf->high_start || !buf->high_end) return RC_FAIL;
  region_clear(buf);
  if (elib_mark_goto_bob(buf, buf->high_start) != RC_OK || elib_mark_goto_eob(buf, buf->high_end) != RC_OK)
    return RC_FAIL;
  REGION* r = nullptr;
  region_new(&r);
  region_set(r, buf->high_start, buf->high_end);
  buf->region = r;
  region_set_style(buf, r, kStyleClearHighlight);
  region_set_style(buf, r, kStyleToggleHighlight);
  buf->flags |= kBufRegion | kBufHighlight;
  buf->rdis = RDIS_FULL;
  return mark_set(buf, Point(ed), buf->high_end);
}

int Undo(E_DATA* ed) { return ecmd_undo(ed); }
int Redo(E_DATA* ed) { return ecmd_redo(ed); }

const ECmdEntry kEditing[] = {
    {"self-insert", kCmdTypeKey, SelfInsert, nullptr, nullptr},
    {"char-insert", kCmdTypeKey, SelfInsert, nullptr, nullptr},
    {"char-kill-fwd", kCmdTypeBuffer, nullptr, CharKillFwd, nullptr},
    {"char-kill-rev", kCmdTypeBuffer, nullptr, CharKillRev, nullptr},
    {"word-kill-fwd", kCmdTypeBuffer, nullptr, WordKillFwd, nullptr},
    {"word-kill-rev", kCmdTypeBuffer, nullptr, WordKillRev, nullptr},
    {"id-kill-fwd", kCmdTypeBuffer, nullptr, IdKillFwd, nullptr},
    {"id-kill-rev", kCmdTypeBuffer, nullptr, IdKillRev, nullptr},
    {"nonwhite-kill-fwd", kCmdTypeBuffer, nullptr, NonwhiteKillFwd, nullptr},
    {"nonwhite-kill-rev", kCmdTypeBuffer, nullptr, NonwhiteKillRev, nullptr},
    {"line-kill-eol", kCmdTypeBuffer, nullptr, LineKillEol, nullptr},
    {"line-kill-bol", kCmdTypeBuffer, nullptr, LineKillBol, nullptr},
    {"line-kill-white-sides", kCmdTypeBuffer, nullptr, LineKillWhiteSides, nullptr},
    {"line-newline", kCmdTypeBuffer, nullptr, LineNewline, nullptr},
    {"line-openline", kCmdTypeBuffer, nullptr, LineOpenline, nullptr},
    {"word-case-upper", kCmdTypeBuffer, nullptr, NoCharacter, nullptr},
    {"word-case-lower", kCmdTypeBuffer, nullptr, NoCharacter, nullptr},
    {"word-case-cap", kCmdTypeBuffer, nullptr, NoCharacter, nullptr},
    {"undo", kCmdTypeBuffer, nullptr, Undo, nullptr},
    {"redo", kCmdTypeBuffer, nullptr, Redo, nullptr},
};

const ECmdEntry kMoving[] = {
    {"buffer-select-all", kCmdTypeBuffer, nullptr, SelectAll, nullptr},
    {"point-at-bob?", kCmdTypeBuffer, nullptr, AtBob, nullptr},
    {"point-at-eob?", kCmdTypeBuffer, nullptr, AtEob, nullptr},
    {"point-goto-char-fwd", kCmdTypeBuffer, nullptr, GotoCharFwd, nullptr},
    {"point-goto-char-rev", kCmdTypeBuffer, nullptr, GotoCharRev, nullptr},
    {"point-goto-bob", kCmdTypeBuffer, nullptr, GotoBob, nullptr},
    {"point-goto-eob", kCmdTypeBuffer, nullptr, GotoEob, nullptr},
    {"point-goto-bob-no-x", kCmdTypeBuffer, nullptr, GotoBob, nullptr},
    {"point-goto-eob-no-x", kCmdTypeBuffer, nullptr, GotoEob, nullptr},
    {"point-goto-bol", kCmdTypeBuffer, nullptr, GotoBol, nullptr},
    {"point-goto-eol", kCmdTypeBuffer, nullptr, GotoEol, nullptr},
    {"point-goto-line-fwd", kCmdTypeBuffer, nullptr, GotoLineFwd, nullptr},
    {"point-goto-line-rev", kCmdTypeBuffer, nullptr, GotoLineRev, nullptr},
    {"point-goto-id-fwd", kCmdTypeBuffer, nullptr, GotoIdFwd, nullptr},
    {"point-goto-id-rev", kCmdTypeBuffer, nullptr, GotoIdRev, nullptr},
    {"point-goto-word-fwd", kCmdTypeBuffer, nullptr, GotoWordFwd, nullptr},
    {"point-goto-word-rev", kCmdTypeBuffer, nullptr, GotoWordRev, nullptr},
    {"point-goto-nonwhite-fwd", kCmdTypeBuffer, nullptr, GotoNonwhiteFwd, nullptr},
    {"point-goto-nonwhite-rev", kCmdTypeBuffer, nullptr, GotoNonwhiteRev, nullptr},
    {"selection-extend-tmp", kCmdTypeBuffer, nullptr, Nothing, nullptr},
    {"selection-extend-lock-on", kCmdTypeBuffer, nullptr, Nothing, nullptr},
    {"selection-extend-lock-off", kCmdTypeBuffer, nullptr, Nothing, nullptr},
};

// Scrolling and paging are the window's: Call hands them to its handler.
const ECmdEntry kWindow[] = {
    {"scroll-line-fwd", kCmdTypeWindow, nullptr, nullptr, nullptr},
    {"scroll-line-rev", kCmdTypeWindow, nullptr, nullptr, nullptr},
    {"scroll-page-fwd", kCmdTypeWindow, nullptr, nullptr, nullptr},
    {"scroll-page-rev", kCmdTypeWindow, nullptr, nullptr, nullptr},
    {"point-goto-page-fwd", kCmdTypeWindow, nullptr, nullptr, nullptr},
    {"point-goto-page-rev", kCmdTypeWindow, nullptr, nullptr, nullptr},
};

bool Editing(const ECmdEntry* e) {
  for (const ECmdEntry& x : kEditing)
    if (&x == e) return true;
  return false;
}

int Call(E_DATA* ed, const ECmdEntry* e, const KM_KEY* key) {
  switch (e->type) {
    case kCmdTypeKey: return e->key_fn(ed, 1, key, 0);
    case kCmdTypeBuffer: return e->buffer_fn(ed);
    case kCmdTypeCount: return e->count_fn(1);
    case kCmdTypeWindow:
      return ed->cmd && ed->cmd->window_handler ? ed->cmd->window_handler(ed, e->name) : RC_FAIL;
    default:
      elib_trace_fail("Unknown interface type. %d\n", e->type);
      return RC_FAIL;
  }
}

}  // namespace

int ecmd_state_new(ECommandState** state) {
  if (!state) return RC_FAIL;
  auto* s = new ECommandState;
  if (ht_create(100, kHashFold, 1, &s->table) != RC_OK) {
    delete s;
    *state = nullptr;
    return RC_FAIL;
  }
  for (const ECmdEntry& e : kEditing) ht_put(s->table, e.name, e.type, const_cast<ECmdEntry*>(&e));
  for (const ECmdEntry& e : kMoving) ht_put(s->table, e.name, e.type, const_cast<ECmdEntry*>(&e));
  for (const ECmdEntry& e : kWindow) ht_put(s->table, e.name, e.type, const_cast<ECmdEntry*>(&e));
  *state = s;
  return RC_OK;
}

void ecmd_state_destroy(ECommandState** state) {
  if (!state || !*state) return;
  ht_destroy(&(*state)->table);
  delete *state;
  *state = nullptr;
}

const ECmdEntry* ecmd_lookup(const ECommandState* state, const char* name) {
  if (!state || !state->table || !name) return nullptr;
  long type = 0;
  void* ptr = nullptr;
  if (ht_get(state->table, name, &type, &ptr) != RC_OK) return nullptr;
  return static_cast<const ECmdEntry*>(ptr);
}

void ecmd_set_window_handler(E_DATA* ed, ECmdWindowHandler handler) {
  if (ed && ed->cmd) ed->cmd->window_handler = handler;
}

void ecmd_set_wrap_margin(E_DATA* ed, int margin) {
  if (ed && ed->cmd) ed->cmd->wrap_margin = margin < 0 ? 0 : margin;
}

int ecmd_run(E_DATA* ed, const char* name, const KM_KEY* key, bool shift) {
  if (!ed || !ed->buf || !ed->cmd || !name) return RC_FAIL;
  const ECmdEntry* e = ecmd_lookup(ed->cmd, name);
  if (!e) {
    elib_trace_detail("No command named %s\n", name);
    return RC_FAIL;
  }
  EditBuffer* buf = ed->buf;
  ECommandState* c = ed->cmd;
  int saved_rdis = buf->rdis;
  buf->rdis = RDIS_NONE;
  NormalizePoint(buf);
  ecmd_selection_pre(buf, name, shift);
  bool typing = e->type == kCmdTypeKey;
  bool continues_typing = typing && c->last_command == "self-insert";
  BeginStep(ed);
  size_t ops_before = c->open.ops.size();
  int rc = Call(ed, e, key);
  bool changed = c->open.ops.size() != ops_before || (Editing(e) && rc == RC_OK);
  EndStep(ed, typing, continues_typing);
  if (changed) {
    // A change ends a keyboard selection: the next key must not select
    // what was just typed.
    buf->flags &= ~(kBufSelActive | kBufSelTemp | kBufSelLocked);
  }
  ecmd_selection_post(buf, name);
  if (std::strcmp(name, "point-goto-line-fwd") != 0 && std::strcmp(name, "point-goto-line-rev") != 0 &&
      e->type != kCmdTypeWindow)
    c->goal_column = -1;
  c->last_command = typing ? "self-insert" : name;
  int need = buf->rdis;
  if (need < RDIS_OPTIMIZED && e->type != kCmdTypeWindow) need = RDIS_OPTIMIZED;
  if (buf->flags & kBufRepaintHighlight) {
    need = RDIS_FULL;
    buf->flags &= ~kBufRepaintHighlight;
  }
  if (need > ed->rdis) ed->rdis = need;
  buf->rdis = need > saved_rdis ? need : saved_rdis;
  return rc;
}
