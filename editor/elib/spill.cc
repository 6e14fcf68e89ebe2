// Paging blocks out to spill files and back, and the spill file format.
//
// A spill file is text: a block header, then per line a line record, a
// text header, two records per run and the line's bytes. The bytes are
// read back by the length in the text header, not up to a line end, so a
// line of any length (or one holding a carriage return) comes back whole.
// Every number is checked against limits and against what is left of the
// file, so a damaged or hostile file fails cleanly.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "editor/elib/buffer.h"
#include "editor/elib/elib_trace.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "rclib/safe_file.h"

namespace {

bool InMem(const BLOCK* blk) { return blk->flags & BLK_IN_MEM; }

void Resident(EditBuffer* buf) {
  if (buf->blks_in_mem > buf->max_resident) buf->max_resident = buf->blks_in_mem;
}

void Appendf(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Appendf(std::string* out, const char* format, ...) {
  char line[256];
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  if (n > 0) out->append(line, static_cast<size_t>(n) < sizeof line ? n : sizeof line - 1);
}

// One record up to its line feed, at most `limit` characters. 1 got one,
// -1 at the end of the data, 0 too long or cut off.
int Record(const char** pos, const char* end, size_t limit, std::string_view* out) {
  if (*pos >= end) return -1;
  size_t avail = static_cast<size_t>(end - *pos);
  size_t scan = avail < limit + 1 ? avail : limit + 1;
  const char* nl = static_cast<const char*>(std::memchr(*pos, '\n', scan));
  if (!nl) return 0;
  *out = std::string_view(*pos, static_cast<size_t>(nl - *pos));
  *pos = nl + 1;
  return 1;
}

// Exactly n numbers separated by single blanks; each base 10 or 8 as
// `bases` says ('d' or 'o'), each within [lo, hi].
bool Fields(std::string_view rec, const char* bases, long long* out, long long lo, long long hi) {
  size_t n = std::strlen(bases);
  size_t at = 0;
  for (size_t i = 0; i < n; ++i) {
    if (i > 0) {
      if (at >= rec.size() || rec[at] != ' ') return false;
      ++at;
    }
    size_t start = at;
    if (at < rec.size() && rec[at] == '-' && bases[i] == 'd') ++at;
    size_t digits = at;
    while (at < rec.size() && rec[at] >= '0' && rec[at] <= (bases[i] == 'o' ? '7' : '9')) ++at;
    if (at == digits || at - start > 22) return false;
    long long v = 0;
    auto [end, ec] = std::from_chars(rec.data() + start, rec.data() + at, v, bases[i] == 'o' ? 8 : 10);
    if (ec != std::errc() || end != rec.data() + at || v < lo || v > hi) return false;
    out[i] = v;
  }
  return at == rec.size();
}

// mask and flags in octal, then the style and the two colours.
bool ParseDispi(std::string_view rec, long long* d) {
  size_t sp1 = rec.find(' ');
  size_t sp2 = sp1 == std::string_view::npos ? sp1 : rec.find(' ', sp1 + 1);
  if (sp2 == std::string_view::npos) return false;
  return Fields(rec.substr(0, sp2), "oo", d, 0, UINT32_MAX) &&
         Fields(rec.substr(sp2 + 1), "ddd", d + 2, LONG_MIN, LONG_MAX) && d[2] >= 0 && d[2] <= UINT32_MAX;
}

}  // namespace

// ---- format -----------------------------------------------------------------------

int line_write(std::string* out, const LINE* lin) {
  if (!out || !lin || !lin->text || !lin->text->text) return RC_FAIL;
  const ITEXT* t = lin->text;
  Appendf(out, "%d %o\n", lin->id, lin->flags);
  Appendf(out, "%ld %ld %d\n", t->text_size, t->text_len, static_cast<int>(t->chunks.size()));
  for (const CHUNK& c : t->chunks) {
    Appendf(out, "%ld %d %d %d %d %d %d\n", c.length_ac, c.h_px, c.w_px, c.metric_a, c.metric_b, c.metric_c,
            c.metric_d);
    Appendf(out, "%lo %lo %ld %ld %ld\n", static_cast<unsigned long>(c.dispi.mask),
            static_cast<unsigned long>(c.dispi.flags), static_cast<long>(c.dispi.style), c.dispi.fg, c.dispi.bg);
  }
  out->append(t->text, static_cast<size_t>(itext_length(t)));
  out->push_back('\n');
  return RC_OK;
}

int elib_block_write_spill(const BLOCK* blk, std::string* out) {
  if (!blk || !out) return RC_FAIL;
  Appendf(out, "%d %ld\n", blk->id, blk->n_lines);
  long dumped = 0;
  for (const LINE* l = blk->lin_head->next; l != blk->lin_head; l = l->next) {
    if (line_write(out, l) != RC_OK) return RC_FAIL;
    ++dumped;
  }
  if (dumped != blk->n_lines)
    elib_trace_fail("Block_flush: id=%3d, blk->n_lines=%3ld, dumped=%3ld\n", blk->id, blk->n_lines, dumped);
  return RC_OK;
}

int elib_line_read(const char** pos, const char* end, LINE* after_lin, LINE** made) {
  if (!pos || !*pos || !end || !after_lin) return 1;
  std::string_view rec;
  int got = Record(pos, end, 2044, &rec);
  if (got <= 0) {
    if (got == 0)
      elib_trace_fail("elib_line_read: Cv of binary data failed.  %.*s\n",
                      static_cast<int>(end - *pos < 40 ? end - *pos : 40), *pos);
    return got;
  }
  long long v[7];
  if (!Fields(rec, "do", v, INT32_MIN, INT32_MAX) || (v[1] & ~static_cast<long long>(kLineRemeasure))) {
    elib_trace_fail("elib_line_read: Cv of binary data failed.  %.*s\n", static_cast<int>(rec.size() > 40 ? 40 : rec.size()), rec.data());
    return 0;
  }
  int32_t id = static_cast<int32_t>(v[0]);
  uint32_t flags = static_cast<uint32_t>(v[1]);
  if (Record(pos, end, 2044, &rec) != 1 || !Fields(rec, "ddd", v, 0, kSpillMaxText)) {
    elib_trace_fail("elib_line_read: bad text header.\n");
    return 0;
  }
  long size = static_cast<long>(v[0]), len = static_cast<long>(v[1]), n_chunks = static_cast<long>(v[2]);
  long bytes = len - 1;
  if (len < 1 || size < len || n_chunks < 1 || n_chunks > kSpillMaxChunks || (bytes > 0 && n_chunks > bytes) ||
      bytes > end - *pos) {
    elib_trace_fail("elib_line_read: text header out of range: %ld %ld %ld\n", size, len, n_chunks);
    return 0;
  }
  ITEXT* item = new ITEXT;
  item->chunks.reserve(static_cast<size_t>(n_chunks));
  for (long i = 0; i < n_chunks; ++i) {
    CHUNK c;
    if (Record(pos, end, 2044, &rec) != 1 || !Fields(rec, "ddddddd", v, INT32_MIN, INT32_MAX) || v[0] < 0) {
      elib_trace_fail("elib_line_read: bad chunk record.\n");
      itext_free(item);
      return 0;
    }
    c.length_ac = static_cast<long>(v[0]);
    c.h_px = static_cast<int>(v[1]);
    c.w_px = static_cast<int>(v[2]);
    c.metric_a = static_cast<int>(v[3]);
    c.metric_b = static_cast<int>(v[4]);
    c.metric_c = static_cast<int>(v[5]);
    c.metric_d = static_cast<int>(v[6]);
    long long d[5];
    int r = Record(pos, end, 126, &rec);
    bool parsed = r == 1 && ParseDispi(rec, d);
    if (!parsed) {
      if (r == -1) {
        itext_free(item);
        return -1;
      }
      if (r == 1)
        elib_trace_fail("Error dispi_read: scanned fewer items, wanted 5 %.*s\n",
                        static_cast<int>(rec.size() > 40 ? 40 : rec.size()), rec.data());
      else
        elib_trace_fail("Error dispi_read: record missing or longer than 127 characters\n");
      itext_free(item);
      return 0;
    }
    c.dispi.mask = static_cast<uint32_t>(d[0]);
    c.dispi.flags = static_cast<uint32_t>(d[1]);
    c.dispi.style = static_cast<uint32_t>(d[2]);
    c.dispi.fg = static_cast<long>(d[3]);
    c.dispi.bg = static_cast<long>(d[4]);
    item->chunks.push_back(c);
  }
  if (end - *pos < bytes + 1 || (*pos)[bytes] != '\n' || std::memchr(*pos, '\0', static_cast<size_t>(bytes))) {
    elib_trace_fail("elib_line_read: line text cut off or damaged.\n");
    itext_free(item);
    return 0;
  }
  item->text = static_cast<char*>(std::malloc(static_cast<size_t>(len)));
  if (!item->text) {
    itext_free(item);
    return 44;
  }
  std::memcpy(item->text, *pos, static_cast<size_t>(bytes));
  item->text[bytes] = '\0';
  *pos += bytes + 1;
  // The allocation is what the item owns now, whatever size was written.
  item->text_size = len;
  item->text_len = len;
  if (itext_check(item) != RC_OK) {
    elib_trace_fail("Integ on read item fails.  %.40s\n", item->text);
    itext_free(item);
    return 0;
  }
  LINE* lin = new LINE;
  lin->id = id;
  lin->flags = flags;
  lin->text = item;
  lin->prev = after_lin;
  lin->next = after_lin->next;
  after_lin->next->prev = lin;
  after_lin->next = lin;
  if (made) *made = lin;
  return 1;
}

int elib_block_read_spill(BLOCK* blk, std::string_view data) {
  if (!blk || !blk->lin_head || blk->lin_head->next != blk->lin_head) return RC_FAIL;
  const char* pos = data.data();
  const char* end = data.data() + data.size();
  std::string_view rec;
  if (Record(&pos, end, 2045, &rec) != 1) {
    elib_trace_fail("Input file is empty.  %s\n", blk->fname.c_str());
    return RC_FAIL;
  }
  long long v[2];
  if (!Fields(rec, "dd", v, INT32_MIN, kSpillMaxLines)) {
    elib_trace_fail("load: bad block header.\n");
    return RC_FAIL;
  }
  if (v[0] != blk->id) {
    elib_trace_fail("load: Mismatched block ids. %lld  %d\n", v[0], blk->id);
    return RC_FAIL;
  }
  // A line record takes at least eight bytes: a larger count is a lie.
  long count = static_cast<long>(v[1]);
  if (count < 1 || count > static_cast<long>(data.size() / 8)) {
    elib_trace_fail("load: line count %ld out of range.\n", count);
    return RC_FAIL;
  }
  LINE* last = blk->lin_head;
  int rc = RC_OK;
  for (long i = 0; i < count; ++i) {
    int r = elib_line_read(&pos, end, last, &last);
    if (r != 1) {
      elib_trace_fail(r == -1 ? "load: file ends after %ld of %ld lines.\n" : "Line read failed. (%ld of %ld)\n", i,
                      count);
      rc = RC_FAIL;
      break;
    }
  }
  if (rc == RC_OK && pos != end) {
    elib_trace_fail("load: data behind the last line.\n");
    rc = RC_FAIL;
  }
  if (rc != RC_OK) {
    LINE* l = blk->lin_head->next;
    while (l != blk->lin_head) {
      LINE* next = l->next;
      line_free(l);
      l = next;
    }
    blk->lin_head->next = blk->lin_head->prev = blk->lin_head;
    return RC_FAIL;
  }
  blk->n_lines = count;
  return RC_OK;
}

// ---- paging -------------------------------------------------------------------------

int elib_block_nur_select(EditBuffer* buf, BLOCK** victim) {
  if (!buf || !victim) return RC_FAIL;
  *victim = nullptr;
  BLOCK* head = buf->blk_head;
  int look = buf->n_blks > 1 ? buf->start_idx % (buf->n_blks - 1) : 0;
  BLOCK* start = nullptr;
  for (BLOCK* b = head->next; b != head; b = b->next) {
    if (look < 1) {
      start = b;
      break;
    }
    --look;
  }
  if (!start) return RC_FAIL;
  BLOCK *class1 = nullptr, *class2 = nullptr, *class3 = nullptr;
  int eligible = 0;
  BLOCK* b = start;
  do {
    if (!(b->flags & kBlkPinned) && b->tmp_lock == 0 && b->n_lines != 0 && InMem(b) && b->id != -1) {
      ++eligible;
      if (b->ref == 0 && b->mod == 0) {
        if (!class1) class1 = b;
      } else if (b->ref == 0) {
        if (!class2) class2 = b;
        b->mod = 0;
      } else {
        if (!class3) class3 = b;
        b->ref = 0;
        b->mod = 1;
      }
    }
    b = b->next;
  } while (b != start);
  *victim = class1 ? class1 : class2 ? class2 : class3;
  buf->start_idx = buf->n_blks > 0 ? (buf->start_idx + 1) % buf->n_blks : 0;
  int target = (buf->blk_hint / (buf->max_lines > 0 ? buf->max_lines : 1)) * 2;
  if (buf->max_blks > 50 && 2 * target < eligible) {
    elib_trace_detail("LIMIT DECREASE blks_in_mem %d to %d\n", buf->max_blks, buf->max_blks - buf->max_blks_step);
    buf->max_blks -= buf->max_blks_step;
  } else if (target > eligible) {
    elib_trace_detail("LIMIT INCREASE blks_in_mem %d to %d\n", buf->max_blks, buf->max_blks + buf->max_blks_step);
    buf->max_blks += buf->max_blks_step;
  }
  return *victim ? RC_OK : RC_FAIL;
}

int maybe_flush(EditBuffer* buf, BLOCK* protect_blk) {
  if (!buf) return 0;
  Resident(buf);
  if (buf->blks_in_mem < buf->max_blks) return 0;
  if (protect_blk) protect_blk->tmp_lock++;
  BLOCK* victim = nullptr;
  int rc = 0;
  if (elib_block_nur_select(buf, &victim) == RC_OK) {
    rc = Block_flush(buf, victim) == RC_OK ? 1 : 0;
    // The count is only a trigger: it goes down even when the write failed,
    // so that a full disk does not make every step try again.
    buf->blks_in_mem--;
  }
  if (protect_blk) protect_blk->tmp_lock--;
  return rc;
}

int Block_flush(EditBuffer* buf, BLOCK* blk) {
  if (!buf || !blk) return RC_FAIL;
  if (!InMem(blk)) return RC_OK;
  static unsigned counter = 0;
  std::string content;
  if (elib_block_write_spill(blk, &content) != RC_OK) return RC_FAIL;
  std::string path;
  int fd = -1;
  SafeFileError err;
  for (int tries = 0; tries < 100000 && fd < 0; ++tries) {
    char name[32];
    std::snprintf(name, sizeof name, "%05utmp", counter++ % 100000);
    path = buf->spill_dir + "/" + name;
    fd = safe_create_exclusive(path.c_str(), 0600, &err);
    if (fd < 0 && err.error != EEXIST) break;
  }
  if (fd < 0) {
    elib_trace_fail("        Temp filename failure -> %s (%s)\n", path.c_str(), err.text().c_str());
    return RC_FAIL;
  }
  // Scratch data: no fsync, a crash loses the editing session anyway.
  bool ok = safe_write_all(fd, content.data(), content.size(), &err);
  if (::close(fd) != 0) ok = false;
  if (!ok) {
    ::unlink(path.c_str());
    elib_trace_fail("Block_flush: cannot write %s: %s\n", path.c_str(), err.text().c_str());
    return RC_FAIL;
  }
  blk->fname = path;
  LINE* l = blk->lin_head->next;
  while (l != blk->lin_head) {
    LINE* next = l->next;
    buffer_forget_screen(buf, blk, l);
    line_free(l);
    l = next;
  }
  blk->lin_head->next = blk->lin_head->prev = blk->lin_head;
  blk->flags &= ~BLK_IN_MEM;
  return RC_OK;
}

int reload(EditBuffer* buf, BLOCK* blk) {
  if (!blk) {
    elib_trace_fail("Null block pointer.\n");
    return RC_FAIL;
  }
  if (!buf || InMem(blk)) return RC_FAIL;
  SafeFileError err;
  int fd = safe_open_read(blk->fname.c_str(), &err);
  if (fd < 0) {
    elib_trace_fail("Null file ptr for blk %d, file = %s! (%s)\n", blk->id, blk->fname.c_str(), err.text().c_str());
    return RC_FAIL;
  }
  std::string data;
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0 && st.st_size >= 0;
  if (ok) {
    data.resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < data.size()) {
      ssize_t n = ::read(fd, data.data() + got, data.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    ok = got == data.size();
  }
  ::close(fd);
  long n_lines = blk->n_lines;
  if (!ok || elib_block_read_spill(blk, data) != RC_OK || blk->n_lines != n_lines) {
    // The file stays: the block's text is in it and nowhere else. The block
    // stays on disk, every step into it fails, and the caller can tell.
    if (ok) elib_trace_fail("Block %d could not be read back from %s: %s\n", blk->id, blk->fname.c_str(),
                            elib_last_error().c_str());
    else elib_trace_fail("Block %d could not be read back from %s\n", blk->id, blk->fname.c_str());
    blk->n_lines = n_lines;
    return RC_FAIL;
  }
  ::unlink(blk->fname.c_str());
  blk->fname.clear();
  blk->flags |= BLK_IN_MEM;
  blk->ref++;
  blk->mod++;
  buf->blks_in_mem++;
  Resident(buf);
  if (elib_block_integrity_check(blk) != RC_OK) elib_trace_fail("Block %d integrity failed after reloading\n", blk->id);
  return RC_OK;
}
