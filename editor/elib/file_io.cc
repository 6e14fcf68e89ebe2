// Reading a file into the buffer and writing the buffer out.
#include <cstdio>
#include <cstring>

#include "editor/elib/buffer.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "rclib/rcdebug.h"
#include "rclib/safe_file.h"

char* elib_fgets(char* buf, int size, FILE* stream) {
  if (!buf || size < 2 || !stream) return nullptr;
  int n = 0;
  while (n < size - 1) {
    int c = getc_unlocked(stream);
    if (c == EOF) break;
    if (c == '\r') {
      // CR LF and a lone CR both end the line as LF; what followed a lone
      // CR belongs to the next line.
      int next = getc_unlocked(stream);
      if (next != '\n' && next != EOF) ungetc(next, stream);
      buf[n++] = '\n';
      break;
    }
    buf[n++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  if (n == 0) return nullptr;
  buf[n] = '\0';
  return buf;
}

namespace {

// One whole line of the file without its line end: pieces from elib_fgets
// are put together, so a long line is never broken in two. False at the end.
bool ReadLine(FILE* f, char* piece, std::string* line) {
  line->clear();
  bool any = false;
  while (elib_fgets(piece, kAbigbuf, f)) {
    any = true;
    size_t n = std::strlen(piece);
    if (n && piece[n - 1] == '\n') {
      line->append(piece, n - 1);
      return true;
    }
    line->append(piece, n);
  }
  return any;
}

bool HasNul(FILE* f) {
  char block[65536];
  size_t n;
  bool found = false;
  while (!found && (n = std::fread(block, 1, sizeof block, f)) > 0) found = std::memchr(block, '\0', n) != nullptr;
  std::rewind(f);
  return found;
}

LINE* NewLine(EditBuffer* buf, const std::string& text) {
  LINE* lin = nullptr;
  if (line_new(&lin, text.data(), text.size(), &buf->default_dispi) != RC_OK) return nullptr;
  lin->flags |= kLineRemeasure;
  return lin;
}

void LinkAfter(LINE* after, LINE* lin) {
  lin->prev = after;
  lin->next = after->next;
  after->next->prev = lin;
  after->next = lin;
}

}  // namespace

int elib_file_read(const char* path, EditBuffer* buf) {
  if (!path || !buf) return RC_FAIL;
  if (!*path) return RC_OK;
  if (buf->flags & kBufReadOnly) return RC_FAIL;
  SafeFileError err;
  FILE* f = safe_fopen_read(path, &err);
  if (!f) {
    elib_trace_fail("Unable to open input file.  %s (%s)\n", path, err.text().c_str());
    return RC_FAIL;
  }
  if (HasNul(f)) {
    std::fclose(f);
    elib_trace_fail("Input file holds NUL bytes, not text.  %s\n", path);
    return RC_FAIL;
  }
  char piece[kAbigbuf];
  std::string line;
  if (!ReadLine(f, piece, &line)) {
    std::fclose(f);
    elib_trace_fail("Input file is empty.  %s\n", path);
    return RC_FAIL;
  }
  MARK* point = buf->the_point;
  BLOCK* lock = point->blk;
  lock->tmp_lock++;
  // The file goes in as its own lines: unless the point ends the text, what
  // follows it moves behind the file's last line. Deciding by the end of the
  // text, not of the point's block, keeps the result independent of paging.
  bool at_end = point->offset == line_last_offset(point->lin) && point->lin->next == point->blk->lin_head &&
                (point->blk->next->flags & kBlkTail);
  if (!at_end) {
    if (elib_block_split(buf, point) != RC_OK) {
      lock->tmp_lock--;
      std::fclose(f);
      return RC_FAIL;
    }
  }
  // The first line joins the text at the point.
  LINE* lin = NewLine(buf, line);
  if (!lin) {
    lock->tmp_lock--;
    std::fclose(f);
    return RC_FAIL;
  }
  BLOCK* blk = point->blk;
  LinkAfter(point->lin, lin);
  blk->n_lines++;
  buf->n_lines++;
  lin->id = static_cast<int32_t>(blk->n_lines);
  region_clear(buf);
  mark_move(buf, point, blk, lin, 0);
  int rc = lmergepv(buf);
  BLOCK* append_blk = point->blk;
  LINE* append_lin = point->lin;
  if (append_blk != lock) {
    lock->tmp_lock--;
    lock = append_blk;
    lock->tmp_lock++;
  }
  while (rc == RC_OK && ReadLine(f, piece, &line)) {
    maybe_flush(buf, append_blk);
    if (BLOCK* made = elib_block_maybe_add_one(buf, append_blk)) {
      elib_trace_detail("Decr blk_id %3d tmp_lock fm %u to %u\n", lock->id, lock->tmp_lock, lock->tmp_lock - 1);
      lock->tmp_lock--;
      made->tmp_lock++;
      elib_trace_detail("Incr blk_id %3d tmp_lock fm %u to %u\n", made->id, made->tmp_lock - 1, made->tmp_lock);
      lock = made;
      append_blk = made;
      append_lin = made->lin_head;
    }
    LINE* next = NewLine(buf, line);
    if (!next) {
      rc = RC_FAIL;
      break;
    }
    LinkAfter(append_lin, next);
    append_blk->n_lines++;
    buf->n_lines++;
    buf->flags &= ~kBufTotalsValid;
    next->id = static_cast<int32_t>(append_blk->n_lines);
    append_lin = next;
  }
  lock->tmp_lock--;
  if (std::ferror(f)) {
    elib_trace_fail("File read failed.  %s\n", path);
    rc = RC_FAIL;
  }
  std::fclose(f);
  buf->flags |= kBufModified;
  buf->rdis = RDIS_FULL;
  if (rc == RC_OK && rc_debug_test(kElibTraceStrict) && elib_buffer_integrity_check(buf) != RC_OK) rc = RC_FAIL;
  return rc;
}

int elib_file_write(const char* path, EditBuffer* buf) {
  if (!path || !*path || !buf) return RC_FAIL;
  std::string data;
  BLOCK* blk = elib_first_block(buf);
  LINE* lin = blk->lin_head->next;
  while (!(lin->flags & kLineEob)) {
    if (itext_output(lin->text, &data) != RC_OK) return RC_FAIL;
    data.push_back('\n');
    LINE* before = lin;
    if (line_step(buf, &blk, &lin, kStepFwd) != RC_OK || lin == before) {
      elib_trace_fail("File not written: text could not be read back.  %s\n", path);
      return RC_FAIL;
    }
  }
  SafeFileError err;
  if (!safe_replace_file(path, data, 0600, &err)) {
    elib_trace_fail("Unable to open input file.  %s (%s)\n", path, err.text().c_str());
    return RC_FAIL;
  }
  buf->flags &= ~kBufModified;
  return RC_OK;
}
