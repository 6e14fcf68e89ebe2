// The undo log. Each command's changes are kept as inserts and deletes of
// text at a line and offset; line numbers come from the blocks' line
// counts, so finding a place loads at most the block that holds it.
#include <algorithm>
#include <vector>

#include "editor/elib/ecmd_internal.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

bool InMem(const BLOCK* blk) { return blk->flags & BLK_IN_MEM; }

EPos EndOf(const EPos& at, std::string_view text) {
  size_t nl = text.rfind('\n');
  if (nl == std::string_view::npos) return {at.line, at.offset + static_cast<long>(text.size())};
  long lines = static_cast<long>(std::count(text.begin(), text.end(), '\n'));
  return {at.line + lines, static_cast<long>(text.size() - nl - 1)};
}

void DropLog(ECommandState* c, const char* why) {
  elib_trace_fail("Undo log dropped: %s\n", why);
  c->undo.clear();
  c->redo.clear();
  c->undo_bytes = 0;
}

// Keeps the log within its limits by forgetting the oldest steps.
void Trim(ECommandState* c) {
  size_t drop = 0;
  size_t bytes = c->undo_bytes;
  while (drop < c->undo.size() && (bytes > kUndoMaxBytes || c->undo.size() - drop > kUndoMaxSteps)) {
    bytes -= c->undo[drop].bytes;
    ++drop;
  }
  if (drop) c->undo.erase(c->undo.begin(), c->undo.begin() + static_cast<long>(drop));
  c->undo_bytes = bytes;
}

// Adds a change to a step; text typed on at the end of the last insert
// joins it, so a typed run costs one record, not one per character.
void PushOp(EUndoStep* step, EUndoOp op) {
  if (!step->ops.empty()) {
    EUndoOp& last = step->ops.back();
    if (last.insert && op.insert && EndOf(last.at, last.text) == op.at) {
      step->bytes += op.text.size();
      last.text += op.text;
      return;
    }
  }
  step->bytes += op.text.size() + sizeof(EUndoOp);
  step->ops.push_back(std::move(op));
}

void Record(E_DATA* ed, bool insert, const EPos& at, std::string text) {
  ECommandState* c = ed->cmd;
  if (!c || c->replaying) return;
  PushOp(&c->open, {insert, at, std::move(text)});
}

}  // namespace

int ecmd_pos_of(EditBuffer* buf, const MARK* mark, EPos* pos) {
  if (!buf || !mark || !mark->blk || !mark->lin || !pos) return RC_FAIL;
  long line = 0;
  BLOCK* head = buf->blk_head;
  BLOCK* b = head->next;
  for (; b != head && b != mark->blk; b = b->next) line += b->n_lines;
  if (b == head) return RC_FAIL;
  const LINE* l = b->lin_head->next;
  for (; l != b->lin_head && l != mark->lin; l = l->next) ++line;
  if (l == b->lin_head) return RC_FAIL;
  *pos = {line, mark->offset};
  return RC_OK;
}

int ecmd_mark_to(EditBuffer* buf, MARK* mark, const EPos& pos) {
  if (!buf || !mark || pos.line < 0 || pos.offset < 0) return RC_FAIL;
  long line = pos.line;
  BLOCK* head = buf->blk_head;
  for (BLOCK* b = head->next; b != head; b = b->next) {
    if (line >= b->n_lines) {
      line -= b->n_lines;
      continue;
    }
    if (!InMem(b)) {
      if (reload(buf, b) != RC_OK) return RC_FAIL;
      maybe_flush(buf, b);
    }
    LINE* l = b->lin_head->next;
    for (; line > 0 && l != b->lin_head; --line) l = l->next;
    if (l == b->lin_head || pos.offset > itext_length(l->text)) return RC_FAIL;
    return mark_move(buf, mark, b, l, pos.offset);
  }
  return RC_FAIL;
}

namespace ecmd {

bool ReadOnly(const EditBuffer* buf) { return !buf || (buf->flags & kBufReadOnly); }

int TextBetween(EditBuffer* buf, const MARK* a, const MARK* b, std::string* out) {
  out->clear();
  BLOCK* blk = a->blk;
  LINE* lin = a->lin;
  long from = a->offset;
  while (true) {
    long len = itext_length(lin->text);
    long to = lin == b->lin ? b->offset : len;
    if (to > from) out->append(lin->text->text + from, static_cast<size_t>(to - from));
    if (lin == b->lin) return RC_OK;
    out->push_back('\n');
    LINE* before = lin;
    blk->tmp_lock++;
    BLOCK* held = blk;
    int rc = line_step(buf, &blk, &lin, kStepFwd);
    held->tmp_lock--;
    if (rc != RC_OK || lin == before || (lin->flags & kLineEob && lin != b->lin)) return RC_FAIL;
    from = 0;
  }
}

int DeleteRaw(EditBuffer* buf, MARK* a, MARK* b) {
  if (a->lin == b->lin) return elib_delete_range(buf, a, b);
  // One line end alone joins two lines without cutting blocks.
  BLOCK* blk = a->blk;
  LINE* lin = a->lin;
  if (a->offset == itext_length(a->lin->text) && b->offset == 0 && line_step(buf, &blk, &lin, kStepFwd) == RC_OK &&
      lin == b->lin)
    return elib_join_next(buf, a);
  return elib_delete_range(buf, a, b);
}

namespace {

// A block that has grown to twice the lines of a bulk block is cut before
// the line at `at`, so that a long paste (or the undo of a long cut) ends up
// in blocks that can page out, not in one block held in memory.
void MaybeSplitBlock(EditBuffer* buf, MARK* at) {
  BLOCK* blk = at->blk;
  LINE* lin = at->lin;
  if (blk->n_lines < 2L * buf->max_lines || lin == blk->lin_head->next || (lin->flags & kLineEob)) return;
  // Marks at the line's start would stay behind on the emptied line.
  std::vector<MARK*> at_start;
  for (MARK* m : lin->marks)
    if (m->offset == 0) at_start.push_back(m);
  MARK* cut = nullptr;
  if (mark_dup(buf, at, &cut) != RC_OK) return;
  mark_move(buf, cut, blk, lin, 0);
  if (elib_block_split(buf, cut) != RC_OK) {
    mark_free(buf, &cut);
    return;
  }
  // The split left an empty line at the old block's end: join it away.
  BLOCK* old_blk = cut->blk;
  LINE* empty = cut->lin;
  mark_free(buf, &cut);
  BLOCK* made = old_blk->next;
  elib_line_join_prev(buf, old_blk, empty);
  for (MARK* m : at_start) mark_move(buf, m, made, made->lin_head->next, 0);
  maybe_flush(buf, made);
}

}  // namespace

int BulkInsert(EditBuffer* buf, MARK* at, std::string_view text) {
  const size_t chunk_lines = static_cast<size_t>(std::max(buf->max_lines, 5));
  size_t start = 0;
  while (true) {
    MaybeSplitBlock(buf, at);
    size_t end = start, lines = 0;
    while (lines < chunk_lines) {
      size_t nl = text.find('\n', end);
      if (nl == std::string_view::npos) break;
      end = nl + 1;
      ++lines;
    }
    if (lines < chunk_lines) end = text.size();
    if (elib_insert(buf, at, text.substr(start, end - start)) != RC_OK) return RC_FAIL;
    if (end >= text.size()) return RC_OK;
    start = end;
  }
}

int Insert(E_DATA* ed, MARK* at, std::string_view text) {
  EditBuffer* buf = ed->buf;
  if (ReadOnly(buf) || !at || text.empty()) return RC_FAIL;
  EPos pos;
  if (ecmd_pos_of(buf, at, &pos) != RC_OK) return RC_FAIL;
  if (BulkInsert(buf, at, text) != RC_OK) {
    // Part of the text may be in; the log no longer matches the buffer.
    if (ed->cmd) DropLog(ed->cmd, "an insert failed half way");
    return RC_FAIL;
  }
  Record(ed, true, pos, std::string(text));
  return RC_OK;
}

int Delete(E_DATA* ed, MARK* a, MARK* b, const std::string* known) {
  EditBuffer* buf = ed->buf;
  if (ReadOnly(buf) || !a || !b) return RC_FAIL;
  if (mark_after(buf, a, b) == RC_OK) std::swap(a, b);
  if (mark_same(a, b) == RC_OK) return RC_FAIL;
  EPos pos;
  std::string text;
  if (ecmd_pos_of(buf, a, &pos) != RC_OK) return RC_FAIL;
  if (known) text = *known;
  else if (TextBetween(buf, a, b, &text) != RC_OK) return RC_FAIL;
  if (DeleteRaw(buf, a, b) != RC_OK) {
    if (ed->cmd) DropLog(ed->cmd, "a delete failed");
    return RC_FAIL;
  }
  Record(ed, false, pos, std::move(text));
  return RC_OK;
}

void BeginStep(E_DATA* ed) {
  ECommandState* c = ed->cmd;
  if (!c || c->depth++ > 0) return;
  c->open = EUndoStep();
  ecmd_pos_of(ed->buf, ed->buf->the_point, &c->open.point_before);
}

void EndStep(E_DATA* ed, bool typing, bool join) {
  ECommandState* c = ed->cmd;
  if (!c || c->depth == 0 || --c->depth > 0) return;
  EUndoStep step = std::move(c->open);
  c->open = EUndoStep();
  if (step.ops.empty()) return;
  ecmd_pos_of(ed->buf, ed->buf->the_point, &step.point_after);
  step.typing = typing;
  const size_t bytes = step.bytes;
  c->redo.clear();
  if (step.bytes > kUndoMaxBytes) {
    DropLog(c, "one change is larger than the log may hold");
    return;
  }
  if (join && typing && !c->undo.empty() && c->undo.back().typing && c->undo.back().point_after == step.point_before) {
    EUndoStep& last = c->undo.back();
    size_t had = last.bytes;
    for (EUndoOp& op : step.ops) PushOp(&last, std::move(op));
    last.point_after = step.point_after;
    c->undo_bytes += last.bytes - had;
    Trim(c);
    return;
  }
  c->undo.push_back(std::move(step));
  c->undo_bytes += bytes;
  Trim(c);
}

}  // namespace ecmd

namespace {

int Apply(EditBuffer* buf, const EUndoOp& op, bool forward) {
  ecmd::TempMark a(buf, buf->the_point);
  if (!a || ecmd_mark_to(buf, a.m, op.at) != RC_OK) return RC_FAIL;
  if (op.insert == forward) return ecmd::BulkInsert(buf, a.m, op.text);
  ecmd::TempMark b(buf, buf->the_point);
  if (!b || ecmd_mark_to(buf, b.m, EndOf(op.at, op.text)) != RC_OK) return RC_FAIL;
  // Delete only the text the log says is there: a change made behind the
  // log's back must not make undo remove something else.
  std::string there;
  if (ecmd::TextBetween(buf, a.m, b.m, &there) != RC_OK || there != op.text) {
    elib_trace_fail("Undo: the text is not what the log holds; nothing deleted.\n");
    return RC_FAIL;
  }
  return ecmd::DeleteRaw(buf, a.m, b.m);
}

int Replay(E_DATA* ed, bool forward) {
  ECommandState* c = ed ? ed->cmd : nullptr;
  if (!c || ecmd::ReadOnly(ed->buf)) return RC_FAIL;
  std::vector<EUndoStep>& from = forward ? c->redo : c->undo;
  std::vector<EUndoStep>& to = forward ? c->undo : c->redo;
  if (from.empty()) return RC_FAIL;
  EUndoStep step = std::move(from.back());
  from.pop_back();
  c->replaying = true;
  // Redo runs the step's changes in order, undo backwards, each the other
  // way round. A change that does not fit the text takes back the ones
  // already made, so the step happens whole or not at all.
  const size_t n = step.ops.size();
  auto op_at = [&](size_t k) -> const EUndoOp& { return step.ops[forward ? k : n - 1 - k]; };
  size_t done = 0;
  while (done < n && Apply(ed->buf, op_at(done), forward) == RC_OK) ++done;
  bool whole = done == n;
  while (!whole && done > 0) {
    --done;
    if (Apply(ed->buf, op_at(done), !forward) != RC_OK) break;
  }
  c->replaying = false;
  if (!whole) {
    DropLog(c, "a step does not fit the text");
    return RC_FAIL;
  }
  if (region_clear(ed->buf) == RC_OK) ed->buf->flags &= ~kBufHighlight;
  ecmd_mark_to(ed->buf, ed->buf->the_point, forward ? step.point_after : step.point_before);
  ed->buf->flags |= kBufModified;
  ed->buf->rdis = RDIS_FULL;
  if (forward) c->undo_bytes += step.bytes;
  else c->undo_bytes -= std::min(c->undo_bytes, step.bytes);
  step.typing = false;  // a step done again is never extended
  to.push_back(std::move(step));
  return RC_OK;
}

}  // namespace

int ecmd_undo(E_DATA* ed) { return Replay(ed, false); }

void ecmd_forget_undo(E_DATA* ed) {
  if (!ed || !ed->cmd) return;
  ed->cmd->undo.clear();
  ed->cmd->redo.clear();
  ed->cmd->undo_bytes = 0;
}
int ecmd_redo(E_DATA* ed) { return Replay(ed, true); }
