#include "editor/elib/marks.h"

#include <algorithm>

#include "editor/elib/elib_trace.h"
#include "editor/elib/graph.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

constexpr uint32_t kMarkEntered = 0x10000;

bool InMem(const BLOCK* blk) { return blk->flags & BLK_IN_MEM; }

void Touch(EditBuffer* buf, BLOCK* blk, LINE* lin) {
  blk->ref++;
  blk->mod++;
  lin->flags |= kLineRemeasure;
  buf->flags |= kBufModified;
  if (buf->rdis < RDIS_FROM_POINT) buf->rdis = RDIS_OPTIMIZED;
}

// After `delta` bytes went in at `from`, marks behind it follow the text.
void ShiftAfterInsert(LINE* lin, long from, long delta, const MARK* keep) {
  for (MARK* m : lin->marks)
    if (m != keep && m->offset > from) m->offset += delta;
}

// After [from, to) went, marks inside close up to from.
void ShiftAfterDelete(LINE* lin, long from, long to) {
  for (MARK* m : lin->marks) {
    if (m->offset > to) m->offset -= to - from;
    else if (m->offset > from) m->offset = from;
  }
}

// Index of a line in its block's chain, for ordering two lines of a block.
long LineIndex(const BLOCK* blk, const LINE* lin) {
  long i = 0;
  for (const LINE* l = blk->lin_head->next; l != blk->lin_head; l = l->next, ++i)
    if (l == lin) return i;
  return -1;
}

bool Editable(const EditBuffer* buf, const MARK* m) {
  return buf && m && m->lin && m->blk && !(buf->flags & kBufReadOnly);
}

}  // namespace

// ---- marks ------------------------------------------------------------------------

int mark_new(MARK** mark) {
  if (!mark) return RC_FAIL;
  *mark = new MARK;
  return RC_OK;
}

int elib_mk_destroy(MARK** mark) {
  if (!mark || !*mark) return RC_FAIL;
  mark_lift(*mark);
  delete *mark;
  *mark = nullptr;
  return RC_OK;
}

int mark_put(MARK* mark, BLOCK* blk, LINE* lin, long offset) {
  if (!mark) return RC_FAIL;
  if (mark->flags & kMarkEntered) mark_lift(mark);
  if (blk) mark->blk = blk;
  if (lin) mark->lin = lin;
  if (!mark->blk || !mark->lin || !mark->lin->text) return RC_FAIL;
  long len = itext_length(mark->lin->text);
  offset = std::clamp(offset, 0L, len);
  while (offset > 0 && !u8_is_boundary(mark->lin->text->text, len, offset)) --offset;
  mark->offset = offset;
  mark->blk->tmp_lock++;
  mark->lin->marks.push_back(mark);
  mark->flags |= kMarkEntered;
  return RC_OK;
}

int mark_lift(MARK* mark) {
  if (!mark || !(mark->flags & kMarkEntered)) return RC_FAIL;
  if (mark->blk && mark->blk->tmp_lock > 0) mark->blk->tmp_lock--;
  if (mark->lin) {
    auto& v = mark->lin->marks;
    v.erase(std::remove(v.begin(), v.end(), mark), v.end());
    if (v.empty()) std::vector<MARK*>().swap(v);
  }
  mark->flags &= ~kMarkEntered;
  return RC_OK;
}

int mark_move(EditBuffer* buf, MARK* mark, BLOCK* blk, LINE* lin, long offset) {
  if (!mark) return RC_FAIL;
  mark_lift(mark);
  int rc = mark_put(mark, blk, lin, offset);
  if (buf && buf->region && (mark == buf->high_start || mark == buf->high_end)) buf->region->flags &= ~kRegionOrdered;
  return rc;
}

int mark_dup(EditBuffer* buf, const MARK* mark, MARK** out) {
  if (!buf || !mark || !out) return RC_FAIL;
  MARK* made = nullptr;
  mark_new(&made);
  if (mark_put(made, mark->blk, mark->lin, mark->offset) != RC_OK) {
    delete made;
    *out = nullptr;
    return RC_FAIL;
  }
  buf->marks.push_back(made);
  *out = made;
  return RC_OK;
}

int mark_free(EditBuffer* buf, MARK** mark) {
  if (!mark || !*mark) return RC_FAIL;
  if (buf) buf->marks.erase(std::remove(buf->marks.begin(), buf->marks.end(), *mark), buf->marks.end());
  return elib_mk_destroy(mark);
}

int mark_set(EditBuffer* buf, MARK* mark, const MARK* from) {
  if (!mark || !from) return RC_FAIL;
  return mark_move(buf, mark, from->blk, from->lin, from->offset);
}

int mark_same(const MARK* a, const MARK* b) {
  return a && b && a->blk == b->blk && a->lin == b->lin && a->offset == b->offset ? RC_OK : RC_FAIL;
}

int mark_after(EditBuffer* buf, const MARK* a, const MARK* b) {
  if (!buf || !a || !b || !a->blk || !b->blk) return RC_FAIL;
  if (a->blk == b->blk) {
    if (a->lin == b->lin) return a->offset > b->offset ? RC_OK : RC_FAIL;
    return LineIndex(a->blk, a->lin) > LineIndex(b->blk, b->lin) ? RC_OK : RC_FAIL;
  }
  if (a->blk->flags & kBlkTail) return RC_OK;
  if (b->blk->flags & kBlkTail) return RC_FAIL;
  // Blocks holding marks are in memory; the first one met comes first.
  BLOCK* head = buf->blk_head;
  for (BLOCK* blk = head->next; blk != head; blk = blk->next) {
    if (blk == b->blk) return RC_OK;
    if (blk == a->blk) return RC_FAIL;
  }
  return RC_FAIL;
}

int marks_move_all(EditBuffer* buf, LINE* lin, BLOCK* blk, LINE* to_lin, long offset) {
  if (!lin) return RC_FAIL;
  while (!lin->marks.empty()) {
    MARK* m = lin->marks.front();
    if (mark_move(buf, m, blk, to_lin, offset) != RC_OK) return RC_FAIL;
  }
  return RC_OK;
}

int elib_mark_goto_bob(EditBuffer* buf, MARK* mark) {
  BLOCK* first = elib_first_block(buf);
  if (!first || !mark) return RC_FAIL;
  return mark_move(buf, mark, first, first->lin_head->next, 0);
}

int elib_mark_goto_eob(EditBuffer* buf, MARK* mark) {
  BLOCK* blk = elib_tail_block(buf);
  if (!blk || !mark) return RC_FAIL;
  LINE* lin = blk->lin_head->next;
  if (line_step(buf, &blk, &lin, kStepBack) != RC_OK || (lin->flags & kLineEob)) return RC_FAIL;
  return mark_move(buf, mark, blk, lin, line_last_offset(lin));
}

int elib_mark_step_char(EditBuffer* buf, MARK* mark, int direction) {
  if (!buf || !mark || !mark->lin) return RC_FAIL;
  const ITEXT* t = mark->lin->text;
  long len = itext_length(t);
  // A character here is what the reader sees as one: a base and its marks.
  if (direction == kStepFwd && mark->offset < len) {
    mark->offset = static_cast<long>(graph_next(t->text, len, mark->offset));
    return RC_OK;
  }
  if (direction == kStepBack && mark->offset > 0) {
    mark->offset = static_cast<long>(graph_prev(t->text, len, mark->offset));
    return RC_OK;
  }
  BLOCK* blk = mark->blk;
  LINE* lin = mark->lin;
  if (line_step(buf, &blk, &lin, direction) != RC_OK || lin == mark->lin || (lin->flags & kLineEob)) return RC_FAIL;
  return mark_move(buf, mark, blk, lin, direction == kStepFwd ? 0 : line_last_offset(lin));
}

// ---- editing primitives ------------------------------------------------------------

int elib_insert(EditBuffer* buf, MARK* at, std::string_view text) {
  if (!Editable(buf, at) || (at->lin->flags & kLineEob)) return RC_FAIL;
  if (text.find('\0') != std::string_view::npos) {
    elib_trace_fail("Text holds a NUL byte; not inserted.\n");
    return RC_FAIL;
  }
  // Refuse text that would leave a cut character at either seam.
  if (!u8_is_boundary(at->lin->text->text, itext_length(at->lin->text), at->offset)) return RC_FAIL;
  size_t start = 0;
  while (true) {
    size_t nl = text.find('\n', start);
    std::string_view piece = text.substr(start, nl == std::string_view::npos ? std::string_view::npos : nl - start);
    if (!piece.empty()) {
      long from = at->offset;
      if (itext_insert_string(at->lin->text, piece.data(), piece.size(), from) != RC_OK) return RC_FAIL;
      ShiftAfterInsert(at->lin, from, static_cast<long>(piece.size()), at);
      at->offset += static_cast<long>(piece.size());
      Touch(buf, at->blk, at->lin);
    }
    if (nl == std::string_view::npos) break;
    if (line_newline(buf, at) != RC_OK) return RC_FAIL;
    buf->flags |= kBufModified;
    start = nl + 1;
  }
  return RC_OK;
}

int elib_delete_range(EditBuffer* buf, MARK* a, MARK* b) {
  if (!Editable(buf, a) || !b || !b->lin) return RC_FAIL;
  if (mark_same(a, b) == RC_OK) return RC_OK;
  if (a->lin == b->lin) {
    long from = std::min(a->offset, b->offset), to = std::max(a->offset, b->offset);
    if (itext_delete_range(a->lin->text, from, to) != RC_OK) return RC_FAIL;
    ShiftAfterDelete(a->lin, from, to);
    Touch(buf, a->blk, a->lin);
    return RC_OK;
  }
  REGION region;
  if (mark_dup(buf, a, &region.bor) != RC_OK) return RC_FAIL;
  if (mark_dup(buf, b, &region.eor) != RC_OK) {
    mark_free(buf, &region.bor);
    return RC_FAIL;
  }
  int rc = region_cut(buf, &region);
  mark_free(buf, &region.bor);
  mark_free(buf, &region.eor);
  return rc;
}

int elib_delete_char_fwd(EditBuffer* buf, MARK* at) {
  if (!Editable(buf, at)) return RC_FAIL;
  ITEXT* t = at->lin->text;
  long len = itext_length(t);
  if (at->offset < len) {
    long from = at->offset;
    long to = static_cast<long>(graph_next(t->text, len, from));
    if (itext_delete_range(t, from, to) != RC_OK) return RC_FAIL;
    ShiftAfterDelete(at->lin, from, to);
    Touch(buf, at->blk, at->lin);
    return RC_OK;
  }
  return elib_join_next(buf, at);
}

int elib_delete_char_rev(EditBuffer* buf, MARK* at) {
  if (!Editable(buf, at)) return RC_FAIL;
  ITEXT* t = at->lin->text;
  if (at->offset > 0) {
    long to = at->offset;
    long from = static_cast<long>(graph_prev(t->text, itext_length(t), to));
    if (itext_delete_range(t, from, to) != RC_OK) return RC_FAIL;
    ShiftAfterDelete(at->lin, from, to);
    Touch(buf, at->blk, at->lin);
    return RC_OK;
  }
  int rc = elib_line_join_prev(buf, at->blk, at->lin);
  if (rc == RC_OK) buf->flags |= kBufModified;
  return rc;
}

int elib_split_line(EditBuffer* buf, MARK* at) {
  if (!Editable(buf, at)) return RC_FAIL;
  int rc = line_newline(buf, at);
  if (rc == RC_OK) buf->flags |= kBufModified;
  return rc;
}

int elib_join_next(EditBuffer* buf, MARK* at) {
  if (!Editable(buf, at) || (at->lin->flags & kLineEob)) return RC_FAIL;
  BLOCK* blk = at->blk;
  LINE* lin = at->lin;
  if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == at->lin || (lin->flags & kLineEob)) return RC_FAIL;
  blk->tmp_lock++;
  int rc = elib_line_join_prev(buf, blk, lin);
  // The joined line's block may be gone; its lock went with it then.
  if (rc != RC_OK) blk->tmp_lock--;
  else if (blk == at->blk) blk->tmp_lock--;
  else {
    bool alive = false;
    for (BLOCK* b = buf->blk_head->next; b != buf->blk_head; b = b->next) alive = alive || b == blk;
    if (alive) blk->tmp_lock--;
  }
  if (rc == RC_OK) buf->flags |= kBufModified;
  return rc;
}

// ---- regions ---------------------------------------------------------------------------

int region_new(REGION** region) {
  if (!region) return RC_FAIL;
  *region = new REGION;
  return RC_OK;
}

int region_free(REGION** region) {
  if (!region || !*region) return RC_FAIL;
  delete *region;
  *region = nullptr;
  return RC_OK;
}

int region_set(REGION* region, MARK* bor, MARK* eor) {
  if (!region || !bor || !eor) return RC_FAIL;
  region->bor = bor;
  region->eor = eor;
  region->flags &= ~kRegionOrdered;
  return RC_OK;
}

int region_get(const REGION* region, MARK** bor, MARK** eor) {
  if (!region || !bor || !eor) return RC_FAIL;
  *bor = region->bor;
  *eor = region->eor;
  return RC_OK;
}

int region_order(EditBuffer* buf, REGION* region) {
  if (!buf || !region || !region->bor || !region->eor) return RC_FAIL;
  if (!(region->flags & kRegionOrdered)) {
    if (mark_after(buf, region->bor, region->eor) == RC_OK) std::swap(region->bor, region->eor);
    region->flags |= kRegionOrdered;
  }
  return RC_OK;
}

int region_from_whole(EditBuffer* buf, int what, REGION** out) {
  if (!buf || !out || (what != kWholeAll && what != kWholeToPoint && what != kWholeFromPoint)) return RC_FAIL;
  MARK *bor = nullptr, *eor = nullptr;
  if (mark_dup(buf, buf->the_point, &bor) != RC_OK || mark_dup(buf, buf->the_point, &eor) != RC_OK) {
    mark_free(buf, &bor);
    return RC_FAIL;
  }
  int rc = RC_OK;
  if (what != kWholeFromPoint) rc = elib_mark_goto_bob(buf, bor);
  if (rc == RC_OK && what != kWholeToPoint) rc = elib_mark_goto_eob(buf, eor);
  if (rc != RC_OK) {
    mark_free(buf, &bor);
    mark_free(buf, &eor);
    return RC_FAIL;
  }
  region_new(out);
  (*out)->bor = bor;
  (*out)->eor = eor;
  (*out)->flags = kRegionOrdered;
  (*out)->owns_marks = true;
  return RC_OK;
}

int region_free_whole(EditBuffer* buf, REGION** region) {
  if (!region || !*region) return RC_FAIL;
  mark_free(buf, &(*region)->bor);
  mark_free(buf, &(*region)->eor);
  return region_free(region);
}

namespace {

// Calls fn(blk, lin, from, to) for each line piece of an ordered region.
template <typename Fn>
int ForEachPiece(EditBuffer* buf, REGION* region, Fn fn) {
  MARK* bor = region->bor;
  MARK* eor = region->eor;
  BLOCK* blk = bor->blk;
  LINE* lin = bor->lin;
  long from = bor->offset;
  while (true) {
    bool last = lin == eor->lin;
    long to = last ? eor->offset : itext_length(lin->text);
    if (!fn(blk, lin, from, to, last)) return RC_FAIL;
    if (last) return RC_OK;
    LINE* before = lin;
    blk->tmp_lock++;
    BLOCK* held = blk;
    int rc = line_step(buf, &blk, &lin, kStepFwd);
    held->tmp_lock--;
    if (rc != RC_OK || lin == before || (lin->flags & kLineEob && lin != eor->lin)) return RC_FAIL;
    from = 0;
  }
}

}  // namespace

int region_length(EditBuffer* buf, REGION* region, int eol_len, long* n) {
  if (!buf || !region || !n || region_order(buf, region) != RC_OK) return RC_FAIL;
  long total = 0;
  int rc = ForEachPiece(buf, region, [&](BLOCK*, LINE*, long from, long to, bool last) {
    total += to - from + (last ? 0 : eol_len);
    return true;
  });
  *n = total;
  return rc;
}

int region_set_style(EditBuffer* buf, REGION* region, uint32_t style) {
  if (!buf || !region || region_order(buf, region) != RC_OK) return RC_FAIL;
  return ForEachPiece(buf, region, [&](BLOCK*, LINE* lin, long from, long to, bool) {
    lin->flags |= kLineRemeasure;
    return itext_style_part(lin->text, from, to, style) == RC_OK;
  });
}

int region_set_dispi(EditBuffer* buf, REGION* region, const DISPI* dispi) {
  if (!buf || !region || !dispi || region_order(buf, region) != RC_OK) return RC_FAIL;
  return ForEachPiece(buf, region, [&](BLOCK*, LINE* lin, long from, long to, bool) {
    if (chunklist_partition(lin->text, from) != RC_OK || chunklist_partition(lin->text, to) != RC_OK) return false;
    long at = 0;
    for (CHUNK& c : lin->text->chunks) {
      if ((at >= from && at < to) || itext_length(lin->text) == 0) c.dispi = *dispi;
      at += c.length_ac;
    }
    itext_unexpand(lin->text);
    lin->flags |= kLineRemeasure;
    return true;
  });
}

int region_clear(EditBuffer* buf) {
  if (!buf) return RC_FAIL;
  if (buf->region) {
    if (buf->region->bor && buf->region->eor) region_set_style(buf, buf->region, kStyleClearHighlight);
    if (buf->region->owns_marks) region_free_whole(buf, &buf->region);
    else region_free(&buf->region);
  }
  buf->flags &= ~kBufRegion;
  buf->flags |= kBufRepaintHighlight;
  return RC_OK;
}

int region_make_blocks(EditBuffer* buf, REGION* region) {
  if (!buf || !region || region_order(buf, region) != RC_OK) return RC_FAIL;
  if (mark_same(region->bor, region->eor) == RC_OK) return RC_OK;
  if (elib_block_split(buf, region->bor) != RC_OK) return RC_FAIL;
  BLOCK* next = region->bor->blk->next;
  if (mark_move(buf, region->bor, next, next->lin_head->next, 0) != RC_OK) return RC_FAIL;
  return elib_block_split(buf, region->eor);
}

int region_cut(EditBuffer* buf, REGION* region) {
  if (!buf || !region) return RC_OK;
  if (buf->flags & kBufReadOnly) return RC_FAIL;
  MARK* bor = region->bor;
  MARK* eor = region->eor;
  if (!bor || !eor || region_order(buf, region) != RC_OK) return RC_FAIL;
  bor = region->bor;
  eor = region->eor;
  // The end line holds no text: a region reaching it ends on the line before.
  for (MARK* m : {bor, eor}) {
    if (m->lin->flags & kLineEob) {
      BLOCK* blk = m->blk;
      LINE* lin = m->lin;
      if (line_step(buf, &blk, &lin, kStepBack) != RC_OK) return RC_FAIL;
      mark_move(buf, m, blk, lin, line_last_offset(lin));
    }
  }
  if (mark_same(bor, eor) == RC_OK) {
    if (region == buf->region) region_clear(buf);
    return RC_FAIL;
  }
  if (region_make_blocks(buf, region) != RC_OK) return RC_FAIL;
  buf->flags |= kBufModified;
  buf->start_state = 0;
  // The place ahead of the cut: the end of the line left before bor.
  BLOCK* first = bor->blk;
  BLOCK* last = eor->blk;
  BLOCK* safe_blk = first->prev;
  LINE* safe_lin = safe_blk->lin_head->prev;
  if (!InMem(safe_blk) || safe_lin == safe_blk->lin_head) {
    elib_trace_fail("region_cut: no line ahead of the region.\n");
    return RC_FAIL;
  }
  long safe_off = line_last_offset(safe_lin);
  // Every mark inside moves out ahead of it; blocks on disk hold none.
  for (BLOCK* b = first;; b = b->next) {
    if (InMem(b))
      for (LINE* l = b->lin_head->next; l != b->lin_head; l = l->next) marks_move_all(buf, l, safe_blk, safe_lin, safe_off);
    if (b == last) break;
  }
  BLOCK* chain = nullptr;
  if (blk_unchain(buf, first, last, &chain) != RC_OK) return RC_FAIL;
  elib_chain_destroy(&chain);
  buf->rdis = RDIS_FULL;
  // Close the seam between the two halves left by the splits.
  BLOCK* after = safe_blk->next;
  if (!InMem(after) && reload(buf, after) != RC_OK) return RC_FAIL;
  LINE* seam = after->lin_head->next;
  if (seam != after->lin_head && !(seam->flags & kLineEob)) {
    if (elib_line_join_prev(buf, after, seam) != RC_OK) return RC_FAIL;
  }
  return RC_OK;
}

// ---- search and replace ----------------------------------------------------------------

int search_region(EditBuffer* buf, REGION* region, std::string_view text) {
  if (!buf || !region || text.empty() || region_order(buf, region) != RC_OK) return RC_FAIL;
  MARK* point = buf->the_point;
  MARK* from = mark_after(buf, region->bor, point) == RC_OK ? region->bor : point;
  if (mark_after(buf, from, region->eor) == RC_OK) return RC_FAIL;
  BLOCK* blk = from->blk;
  LINE* lin = from->lin;
  long start = from->offset;
  while (true) {
    std::string_view line(lin->text->text, static_cast<size_t>(itext_length(lin->text)));
    size_t hit = start <= static_cast<long>(line.size()) ? line.find(text, static_cast<size_t>(start)) : line.npos;
    bool last = lin == region->eor->lin;
    if (hit != line.npos && (!last || static_cast<long>(hit) <= region->eor->offset)) {
      return mark_move(buf, point, blk, lin, static_cast<long>(hit));
    }
    if (last || (lin->flags & kLineEob)) return RC_FAIL;
    LINE* before = lin;
    blk->tmp_lock++;
    BLOCK* held = blk;
    int rc = line_step(buf, &blk, &lin, kStepFwd);
    held->tmp_lock--;
    if (rc != RC_OK || lin == before) return RC_FAIL;
    start = 0;
  }
}

int replace_here(EditBuffer* buf, const MARK* where, std::string_view old_text, std::string_view new_text) {
  if (!buf || !where || !where->lin || (old_text.empty() && new_text.empty())) return RC_FAIL;
  if (buf->flags & kBufReadOnly) return RC_FAIL;
  MARK* at = nullptr;
  if (mark_dup(buf, where, &at) != RC_OK) return RC_FAIL;
  int rc = RC_OK;
  if (!old_text.empty()) {
    long from = at->offset, to = from + static_cast<long>(old_text.size());
    std::string_view line(at->lin->text->text, static_cast<size_t>(itext_length(at->lin->text)));
    if (line.substr(static_cast<size_t>(from), old_text.size()) != old_text ||
        itext_delete_range(at->lin->text, from, to) != RC_OK) {
      rc = RC_FAIL;
    } else {
      ShiftAfterDelete(at->lin, from, to);
      Touch(buf, at->blk, at->lin);
    }
  }
  if (rc == RC_OK && !new_text.empty()) {
    // Marks at the place (the point among them) stay ahead of the new text.
    long from = at->offset;
    if (new_text.find('\n') != std::string_view::npos ||
        itext_insert_string(at->lin->text, new_text.data(), new_text.size(), from) != RC_OK) {
      rc = RC_FAIL;
    } else {
      ShiftAfterInsert(at->lin, from, static_cast<long>(new_text.size()), nullptr);
      Touch(buf, at->blk, at->lin);
    }
  }
  mark_free(buf, &at);
  return rc;
}

int replace_region(EditBuffer* buf, REGION* region, std::string_view old_text, std::string_view new_text) {
  if (!buf || !region || old_text.empty() || region_order(buf, region) != RC_OK) return RC_FAIL;
  MARK* saved = nullptr;
  if (mark_dup(buf, buf->the_point, &saved) != RC_OK) return RC_FAIL;
  mark_set(buf, buf->the_point, region->bor);
  int replaced = 0;
  while (search_region(buf, region, old_text) == RC_OK) {
    if (replace_here(buf, buf->the_point, old_text, new_text) != RC_OK) break;
    ++replaced;
    buf->rdis = RDIS_FULL;
    buf->flags &= ~kBufRegion;
    // Step over the new text, so that new text holding the old cannot loop.
    MARK* p = buf->the_point;
    mark_move(buf, p, p->blk, p->lin, p->offset + static_cast<long>(new_text.size()));
    if (mark_after(buf, region->eor, p) != RC_OK) break;
  }
  mark_set(buf, buf->the_point, saved);
  mark_free(buf, &saved);
  return replaced > 0 ? RC_OK : RC_FAIL;
}
