#include "editor/elib/buffer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "editor/elib/elib_trace.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"

namespace {

std::string& DefaultSpillDir() {
  static std::string dir;
  return dir;
}

void LinkAfter(LINE* after, LINE* lin) {
  lin->prev = after;
  lin->next = after->next;
  after->next->prev = lin;
  after->next = lin;
}

void Unlink(LINE* lin) {
  lin->prev->next = lin->next;
  lin->next->prev = lin->prev;
  lin->prev = lin->next = lin;
}

bool InMem(const BLOCK* blk) { return blk->flags & BLK_IN_MEM; }

}  // namespace

// ---- lines ------------------------------------------------------------------

int line_new(LINE** lin, const char* s, size_t n, const DISPI* dispi) {
  if (!lin) return RC_FAIL;
  *lin = nullptr;
  ITEXT* text = nullptr;
  if (itext_new(&text, s, n, dispi) != RC_OK) return RC_FAIL;
  LINE* made = new LINE;
  made->prev = made->next = made;
  made->text = text;
  *lin = made;
  return RC_OK;
}

void line_free(LINE*& lin) {
  if (!lin) return;
  itext_free(lin->text);
  delete lin;
  lin = nullptr;
}

int line_style_part(LINE* lin, long start, long end, uint32_t style) {
  if (!lin || !lin->text) return RC_FAIL;
  lin->flags |= kLineRemeasure;
  return itext_style_part(lin->text, start, end, style);
}

int elib_line_is_bob(const EditBuffer* buf, const LINE* lin) {
  if (!buf || !lin) return RC_FAIL;
  BLOCK* first = elib_first_block(buf);
  return first && first->lin_head->next == lin ? RC_OK : RC_FAIL;
}

int line_is_eob(const EditBuffer*, const LINE* lin) { return lin && (lin->flags & kLineEob) ? RC_OK : RC_FAIL; }

long line_last_offset(const LINE* lin) { return lin && lin->text ? itext_length(lin->text) : 0; }

long point_last_offset(const MARK* mark) { return mark ? line_last_offset(mark->lin) : 0; }

int buffer_forget_screen(EditBuffer* buf, BLOCK* blk, LINE* lin) {
  if (!buf) return RC_FAIL;
  for (int i = 0; i < kScreenLines; ++i) {
    if (lin && buf->line_ptrs[i] == lin) buf->line_ptrs[i] = nullptr;
    if (blk && buf->block_ptrs[i] == blk) {
      buf->block_ptrs[i] = nullptr;
      buf->line_ptrs[i] = nullptr;
    }
  }
  if (lin && buf->max_width_line == lin) {
    buf->max_width_line = nullptr;
    buf->flags |= kBufWidestUnknown;
  }
  return RC_OK;
}

// ---- blocks -------------------------------------------------------------------

int elib_block_new(BLOCK** blk) {
  if (!blk) return RC_FAIL;
  BLOCK* made = new BLOCK;
  made->lin_head = new LINE;
  made->lin_head->id = -1;
  made->lin_head->prev = made->lin_head->next = made->lin_head;
  made->prev = made->next = made;
  *blk = made;
  return RC_OK;
}

int elib_block_chain_after(BLOCK* blk, BLOCK* add) {
  if (!blk || !add) return RC_FAIL;
  add->prev = blk;
  add->next = blk->next;
  blk->next->prev = add;
  blk->next = add;
  return RC_OK;
}

int elib_block_destroy(BLOCK** blk) {
  if (!blk || !*blk) return RC_FAIL;
  BLOCK* b = *blk;
  if (!b->fname.empty()) ::unlink(b->fname.c_str());
  if (b->lin_head) {
    LINE* lin = b->lin_head->next;
    while (lin != b->lin_head) {
      LINE* next = lin->next;
      for (MARK* m : lin->marks) m->blk = nullptr, m->lin = nullptr;
      line_free(lin);
      lin = next;
    }
    delete b->lin_head;
  }
  delete b;
  *blk = nullptr;
  return RC_OK;
}

BLOCK* elib_block_maybe_add_one(EditBuffer* buf, BLOCK* blk) {
  if (!buf || !blk || blk->n_lines < buf->max_lines) return nullptr;
  BLOCK* made = nullptr;
  elib_block_new(&made);
  made->id = buf->n_blks + 1;
  buf->n_blks++;
  buf->blks_in_mem++;
  elib_block_chain_after(blk, made);
  made->ref = made->mod = 1;
  made->flags |= BLK_IN_MEM;
  return made;
}

int elib_block_unchain(EditBuffer* buf, BLOCK* blk) {
  if (!buf || !blk || (blk->flags & (kBlkPinned | kBlkHead | kBlkTail))) return RC_FAIL;
  if (!InMem(blk) && reload(buf, blk) != RC_OK) return RC_FAIL;
  buffer_forget_screen(buf, blk, nullptr);
  blk->prev->next = blk->next;
  blk->next->prev = blk->prev;
  blk->prev = blk->next = blk;
  buf->n_blks--;
  buf->blks_in_mem--;
  return RC_OK;
}

int blk_unchain(EditBuffer* buf, BLOCK* first, BLOCK* last, BLOCK** chain) {
  if (!buf || !first || !last || !chain) return RC_FAIL;
  *chain = nullptr;
  // Refuse before touching anything: a run that passes a sentinel or a
  // pinned block is not a run of text blocks.
  for (BLOCK* b = first;; b = b->next) {
    if (b->flags & (kBlkPinned | kBlkHead | kBlkTail)) return RC_FAIL;
    if (b == last) break;
  }
  for (BLOCK* b = first;; b = b->next) {
    if (InMem(b)) buf->blks_in_mem--;
    buf->n_blks--;
    buf->n_lines -= b->n_lines;
    buffer_forget_screen(buf, b, nullptr);
    if (b == last) break;
  }
  first->prev->next = last->next;
  last->next->prev = first->prev;
  first->prev = nullptr;
  last->next = nullptr;
  buf->flags &= ~kBufTotalsValid;
  *chain = first;
  return RC_OK;
}

void elib_chain_destroy(BLOCK** chain) {
  if (!chain) return;
  BLOCK* b = *chain;
  while (b) {
    BLOCK* next = b->next;
    elib_block_destroy(&b);
    b = next;
  }
  *chain = nullptr;
}

// ---- buffer -------------------------------------------------------------------

void elib_set_default_spill_dir(const char* dir) { DefaultSpillDir() = dir ? dir : ""; }

int elib_set_spill_dir(EditBuffer* buf, const char* dir) {
  if (!buf || !dir || !*dir) return RC_FAIL;
  struct stat st;
  if (::stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
    elib_trace_fail("Spill directory %s is not a directory.\n", dir);
    return RC_FAIL;
  }
  buf->spill_dir = dir;
  return RC_OK;
}

int elib_set_max_blks(EditBuffer* buf, int max_blks) {
  if (!buf || max_blks < buf->max_blks_step) return RC_FAIL;
  buf->max_blks = max_blks;
  return RC_OK;
}

int elib_set_max_lines(EditBuffer* buf, int max_lines) {
  if (!buf || max_lines < 5) return RC_FAIL;
  buf->max_lines = max_lines;
  return RC_OK;
}

BLOCK* elib_first_block(const EditBuffer* buf) { return buf && buf->blk_head ? buf->blk_head->next : nullptr; }
BLOCK* elib_tail_block(const EditBuffer* buf) { return buf && buf->blk_head ? buf->blk_head->prev : nullptr; }

int elib_buffer_create(EditBuffer** out) {
  if (!out) return RC_FAIL;
  EditBuffer* buf = new EditBuffer;
  BLOCK *head = nullptr, *first = nullptr, *tail = nullptr;
  elib_block_new(&head);
  elib_block_new(&first);
  elib_block_new(&tail);
  head->id = -1;
  head->flags = kBlkHead | BLK_IN_MEM | kBlkPinned;
  first->id = 1;
  first->flags = BLK_IN_MEM | kBlkPinned;
  tail->id = -2;
  tail->flags = kBlkTail | BLK_IN_MEM | kBlkPinned;
  buf->blk_head = head;
  elib_block_chain_after(head, first);
  elib_block_chain_after(first, tail);
  LINE *empty = nullptr, *eob = nullptr;
  line_new(&empty, "", 0, nullptr);
  line_new(&eob, kEobText, std::char_traits<char>::length(kEobText), nullptr);
  eob->flags = kLineEob;
  LinkAfter(first->lin_head, empty);
  LinkAfter(tail->lin_head, eob);
  first->n_lines = 1;
  tail->n_lines = 1;
  buf->n_blks = 2;
  buf->blks_in_mem = 1;
  buf->n_lines = 2;
  buf->flags = kBufWidestUnknown;
  const char* tmp = std::getenv("TMPDIR");
  buf->spill_dir = !DefaultSpillDir().empty() ? DefaultSpillDir() : (tmp && *tmp ? tmp : "/tmp");
  MARK* point = nullptr;
  MARK* mark = nullptr;
  mark_new(&point);
  point->name = "the-point";
  mark_put(point, first, empty, 0);
  buf->marks.push_back(point);
  buf->the_point = point;
  mark_dup(buf, point, &mark);
  mark->name = "the-mark";
  buf->the_mark = mark;
  elib_trace_detail("edata_create: buffer made\n");
  *out = buf;
  return RC_OK;
}

int elib_buffer_destroy(EditBuffer** pbuf) {
  if (!pbuf || !*pbuf) return RC_FAIL;
  EditBuffer* buf = *pbuf;
  if (buf->region) {
    if (buf->region->owns_marks) buf->region->bor = buf->region->eor = nullptr;
    delete buf->region;
  }
  BLOCK* head = buf->blk_head;
  BLOCK* b = head->next;
  while (b != head) {
    BLOCK* next = b->next;
    elib_block_destroy(&b);
    b = next;
  }
  elib_block_destroy(&head);
  // The blocks have cut the marks loose from their lines.
  for (MARK* m : buf->marks) delete m;
  buf->marks.clear();
  delete buf;
  *pbuf = nullptr;
  return RC_OK;
}

// ---- stepping -------------------------------------------------------------------

int line_step(EditBuffer* buf, BLOCK** pblk, LINE** plin, int direction) {
  if (!buf || !pblk || !plin || !*pblk || !*plin) return RC_FAIL;
  bool fwd = direction == kStepFwd;
  BLOCK* blk = *pblk;
  LINE* lin = *plin;
  if ((fwd && (lin->flags & kLineEob)) || (!fwd && elib_line_is_bob(buf, lin) == RC_OK)) {
    blk->ref++;
    return RC_OK;
  }
  LINE* near = fwd ? lin->next : lin->prev;
  if (near->id != -1) {
    *plin = near;
    blk->ref++;
    return RC_OK;
  }
  for (BLOCK* b = fwd ? blk->next : blk->prev; b->id != -1; b = fwd ? b->next : b->prev) {
    if (!InMem(b) && reload(buf, b) != RC_OK) return RC_FAIL;
    maybe_flush(buf, b);
    LINE* l = fwd ? b->lin_head->next : b->lin_head->prev;
    if (l != b->lin_head) {
      *pblk = b;
      *plin = l;
      b->ref++;
      return RC_OK;
    }
  }
  blk->ref++;
  return RC_OK;
}

int line_walk(EditBuffer* buf, BLOCK** blk, LINE** lin, uint32_t mask, long count, int direction) {
  if (!buf || !blk || !lin) return RC_FAIL;
  while (count > 0) {
    LINE* before = *lin;
    if (line_step(buf, blk, lin, direction) != RC_OK || *lin == before) return RC_FAIL;
    uint32_t word = (*lin)->text && !(*lin)->text->chunks.empty() ? (*lin)->text->chunks.front().dispi.mask : 0;
    if (mask == kWalkAll || (word & mask) == mask) --count;
  }
  return RC_OK;
}

// ---- splitting and joining lines ----------------------------------------------

int line_newline(EditBuffer* buf, MARK* mark) {
  if (!buf || !mark || !mark->lin || (buf->flags & kBufReadOnly)) return RC_FAIL;
  BLOCK* blk = mark->blk;
  LINE* lin = mark->lin;
  blk->ref++;
  blk->mod++;
  lin->flags |= kLineRemeasure;
  buf->rdis = RDIS_FROM_POINT;
  if (buf->max_width_line == lin) {
    buf->max_width_line = nullptr;
    buf->flags |= kBufWidestUnknown;
  }
  LINE* made = nullptr;
  if (lin->flags & kLineEob) {
    // The end line never splits: an empty line goes in ahead of it, at the
    // end of the last text block.
    BLOCK* prev = blk->prev;
    if (!InMem(prev) && reload(buf, prev) != RC_OK) return RC_FAIL;
    if (line_new(&made, "", 0, &buf->default_dispi) != RC_OK) return RC_FAIL;
    made->flags |= kLineRemeasure;
    LinkAfter(prev->lin_head->prev, made);
    prev->n_lines++;
    buf->n_lines++;
    marks_move_all(buf, lin, prev, made, 0);
    mark_move(buf, mark, prev, made, 0);
  } else {
    long cut = mark->offset;
    ITEXT* tail = nullptr;
    if (itext_split(lin->text, cut, &tail) != RC_OK) return RC_FAIL;
    made = new LINE;
    made->text = tail;
    made->flags = kLineRemeasure;
    LinkAfter(lin, made);
    blk->n_lines++;
    buf->n_lines++;
    std::vector<MARK*> moving;
    for (MARK* m : lin->marks)
      if (m->offset > cut || m == mark) moving.push_back(m);
    for (MARK* m : moving) {
      long off = m == mark ? 0 : m->offset - cut;
      mark_lift(m);
      mark_put(m, blk, made, off);
    }
  }
  buf->flags &= ~kBufTotalsValid;
  return RC_OK;
}

int elib_line_join_prev(EditBuffer* buf, BLOCK* blk, LINE* lin) {
  if (!buf || !blk || !lin || (buf->flags & kBufReadOnly)) return RC_FAIL;
  if ((lin->flags & kLineEob) || elib_line_is_bob(buf, lin) == RC_OK) return RC_FAIL;
  BLOCK* pblk = blk;
  LINE* prev = lin;
  // Hold the line's block while the step may page others.
  blk->tmp_lock++;
  int rc = line_step(buf, &pblk, &prev, kStepBack);
  blk->tmp_lock--;
  if (rc != RC_OK || prev == lin) return RC_FAIL;
  if (pblk != blk) {
    pblk->ref++;
    pblk->mod++;
  }
  long join = itext_length(prev->text);
  ITEXT* second = lin->text;
  if (itext_join(prev->text, second) != RC_OK) return RC_FAIL;
  lin->text = nullptr;
  prev->flags |= kLineRemeasure;
  buf->rdis = RDIS_FROM_POINT;
  while (!lin->marks.empty()) {
    MARK* m = lin->marks.front();
    long off = m->offset + join;
    mark_lift(m);
    mark_put(m, pblk, prev, off);
  }
  Unlink(lin);
  if (buf->n_lines > 1) buf->n_lines--;
  if (blk->n_lines > 0) blk->n_lines--;
  bool widest = buf->max_width_line == lin;
  buffer_forget_screen(buf, nullptr, lin);
  if (widest) {
    buf->max_width_line = prev;
    buf->flags &= ~kBufWidestUnknown;
  }
  line_free(lin);
  if (blk->n_lines == 0 && !(blk->flags & kBlkPinned)) {
    BLOCK* gone = blk;
    if (elib_block_unchain(buf, gone) == RC_OK) elib_block_destroy(&gone);
  }
  buf->flags &= ~kBufTotalsValid;
  buf->start_state = 0;
  return RC_OK;
}

int lmergepv(EditBuffer* buf) {
  if (!buf || !buf->the_point) return RC_FAIL;
  return elib_line_join_prev(buf, buf->the_point->blk, buf->the_point->lin);
}

int elib_block_split(EditBuffer* buf, MARK* mark) {
  if (!buf || !mark || !mark->blk || (mark->lin->flags & kLineEob)) return RC_FAIL;
  BLOCK* blk = mark->blk;
  BLOCK* made = nullptr;
  // The old block must not page out while its lines are being moved.
  blk->tmp_lock++;
  if (line_newline(buf, mark) != RC_OK) {
    blk->tmp_lock--;
    return RC_FAIL;
  }
  LINE* first_moved = mark->lin;
  long moved = 0;
  for (LINE* l = first_moved; l != blk->lin_head; l = l->next) ++moved;
  elib_trace_detail("bsplit: moving split mark to eol on prev line:\n");
  mark_lift(mark);
  mark_put(mark, blk, first_moved->prev, line_last_offset(first_moved->prev));
  elib_block_new(&made);
  // Cut the chain ahead of first_moved and hang the rest on the new block.
  LINE* last_moved = blk->lin_head->prev;
  LINE* keep_last = first_moved->prev;
  keep_last->next = blk->lin_head;
  blk->lin_head->prev = keep_last;
  made->lin_head->next = first_moved;
  first_moved->prev = made->lin_head;
  last_moved->next = made->lin_head;
  made->lin_head->prev = last_moved;
  blk->n_lines -= moved;
  made->n_lines = moved;
  for (LINE* l = first_moved; l != made->lin_head; l = l->next) {
    for (MARK* m : l->marks) {
      m->blk = made;
      blk->tmp_lock--;
      made->tmp_lock++;
    }
  }
  elib_block_chain_after(blk, made);
  buf->n_blks++;
  buf->blks_in_mem++;
  made->flags |= BLK_IN_MEM;
  made->id = buf->n_blks;
  made->ref = made->mod = 1;
  blk->tmp_lock--;
  if (elib_block_integrity_check(blk) != RC_OK) elib_trace_fail("Block1 %d integrity failed after split\n", blk->id);
  if (elib_block_integrity_check(made) != RC_OK) elib_trace_fail("Block2 %d integrity failed after split\n", made->id);
  if (elib_block_integrity_check(made->next) != RC_OK)
    elib_trace_fail("Block3 %d integrity failed after split\n", made->next->id);
  return RC_OK;
}

// ---- integrity ------------------------------------------------------------------

int elib_block_integrity_check(const BLOCK* blk) {
  if (!blk || !blk->lin_head) return RC_FAIL;
  if (!InMem(blk)) {
    struct stat st;
    if (blk->fname.empty() || ::stat(blk->fname.c_str(), &st) != 0) return RC_FAIL;
    if (blk->lin_head->next != blk->lin_head || blk->lin_head->prev != blk->lin_head) return RC_FAIL;
    return blk->n_lines != 0 && blk->tmp_lock == 0 ? RC_OK : RC_FAIL;
  }
  if (!blk->fname.empty()) return RC_FAIL;
  long fwd = 0, back = 0, marks = 0;
  for (const LINE* l = blk->lin_head->next; l != blk->lin_head; l = l->next) {
    if (l->next->prev != l || ++fwd > blk->n_lines) return RC_FAIL;
    if (itext_check(l->text) != RC_OK) return RC_FAIL;
    for (const MARK* m : l->marks) {
      if (m->lin != l || m->blk != blk || m->offset < 0 || m->offset > itext_length(l->text)) return RC_FAIL;
      ++marks;
    }
  }
  for (const LINE* l = blk->lin_head->prev; l != blk->lin_head; l = l->prev)
    if (++back > blk->n_lines) return RC_FAIL;
  if (fwd != blk->n_lines || back != blk->n_lines) return RC_FAIL;
  return static_cast<long>(blk->tmp_lock) >= marks ? RC_OK : RC_FAIL;
}

int elib_buffer_integrity_check(EditBuffer* buf) {
  if (!buf || !buf->blk_head) return RC_FAIL;
  BLOCK* head = buf->blk_head;
  int fwd = 0, back = 0;
  long lines = 0;
  for (BLOCK* b = head->next; b != head; b = b->next) {
    if (b->next->prev != b || ++fwd > buf->n_blks) {
      elib_trace_fail("Buffer integrity: block chain broken forward.\n");
      return RC_FAIL;
    }
    if (elib_block_integrity_check(b) != RC_OK) {
      elib_trace_fail("Block %d integrity failed\n", b->id);
      return RC_FAIL;
    }
    lines += b->n_lines;
  }
  for (BLOCK* b = head->prev; b != head; b = b->prev)
    if (++back > buf->n_blks) break;
  if (fwd != buf->n_blks || back != buf->n_blks || lines != buf->n_lines) {
    elib_trace_fail("Buffer integrity: %d/%d blocks, %ld/%ld lines.\n", fwd, back, lines, buf->n_lines);
    return RC_FAIL;
  }
  BLOCK* first = head->next;
  BLOCK* tail = head->prev;
  MARK* point = buf->the_point;
  if (!InMem(first) || !InMem(tail) || !point || !point->blk || !InMem(point->blk)) {
    elib_trace_fail("Buffer integrity: first, tail or point block not in memory.\n");
    return RC_FAIL;
  }
  // Walk the text both ways; this reads spilled blocks back.
  for (int pass = 0; pass < 2; ++pass) {
    bool forward = pass == 0;
    BLOCK* blk = forward ? first : tail;
    LINE* lin = forward ? first->lin_head->next : tail->lin_head->prev;
    long count = 1;
    bool saw_point = lin == point->lin;
    while (forward ? !(lin->flags & kLineEob) : elib_line_is_bob(buf, lin) != RC_OK) {
      LINE* before = lin;
      if (line_step(buf, &blk, &lin, forward ? kStepFwd : kStepBack) != RC_OK || lin == before ||
          ++count > buf->n_lines) {
        std::string why = elib_last_error();
        elib_trace_fail("Buffer integrity: %s walk stopped after %ld lines. %s\n", forward ? "forward" : "backward",
                        count, why.c_str());
        return RC_FAIL;
      }
      saw_point = saw_point || lin == point->lin;
    }
    if (count != buf->n_lines || !saw_point) {
      elib_trace_fail("Buffer integrity: %s walk saw %ld of %ld lines%s.\n", forward ? "forward" : "backward",
                      count, buf->n_lines, saw_point ? "" : ", not the point");
      return RC_FAIL;
    }
  }
  return RC_OK;
}
