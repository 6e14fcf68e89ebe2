#include "editor/elib/itext.h"

#include <cstdlib>
#include <cstring>

#include "editor/elib/elib_trace.h"
#include "editor/elib/graph.h"
#include "editor/elib/u8.h"
#include "rclib/rc.h"

namespace {

bool Boundary(const ITEXT* item, long offset) {
  long len = itext_length(item);
  if (offset < 0 || offset > len) return false;
  return u8_is_boundary(item->text, static_cast<size_t>(len), static_cast<size_t>(offset));
}

// Makes room for `extra` more bytes. The buffer grows with 16 spare bytes,
// so that typing does not reallocate at every key.
bool Reserve(ITEXT* item, long extra) {
  long need = item->text_len + extra;
  if (item->text_size >= need) return true;
  long size = need + 16;
  // A line without tabs shows its own bytes as the expanded copy; that
  // alias dies with the old buffer, so it goes first.
  itext_unexpand(item);
  char* grown = static_cast<char*>(std::realloc(item->text, static_cast<size_t>(size)));
  if (!grown) return false;
  item->text = grown;
  item->text_size = size;
  return true;
}

// Index of the run that takes text inserted at offset: the one ending at or
// past it, the first one at 0.
size_t RunFor(const ITEXT* item, long offset) {
  if (offset == 0) return 0;
  long start = 0;
  for (size_t i = 0; i < item->chunks.size(); ++i) {
    long end = start + item->chunks[i].length_ac;
    if (offset > start && offset <= end) return i;
    start = end;
  }
  return item->chunks.empty() ? 0 : item->chunks.size() - 1;
}

// Removes runs left empty, keeping one if all are.
void DropEmptyRuns(ITEXT* item) {
  if (item->chunks.size() <= 1) return;
  std::vector<CHUNK> kept;
  for (const CHUNK& c : item->chunks)
    if (c.length_ac > 0) kept.push_back(c);
  if (kept.empty()) kept.push_back(item->chunks.front());
  item->chunks.swap(kept);
}

}  // namespace

int itext_new(ITEXT** out, const char* s, size_t n, const DISPI* dispi) {
  if (!out) return RC_FAIL;
  *out = nullptr;
  if (n && (!s || std::memchr(s, '\0', n))) return RC_FAIL;
  ITEXT* item = new ITEXT;
  item->text = static_cast<char*>(std::malloc(n + 1));
  if (!item->text) {
    delete item;
    return RC_FAIL;
  }
  if (n) std::memcpy(item->text, s, n);
  item->text[n] = '\0';
  item->text_size = static_cast<long>(n) + 1;
  item->text_len = static_cast<long>(n) + 1;
  CHUNK c;
  if (dispi) c.dispi = *dispi;
  c.length_ac = static_cast<long>(n);
  item->chunks.push_back(c);
  *out = item;
  return RC_OK;
}

void itext_unexpand(ITEXT* item) {
  if (!item) return;
  if (item->text_exp && item->text_exp != item->text) std::free(item->text_exp);
  item->text_exp = nullptr;
  item->flags &= ~kItextExpValid;
}

void itext_free(ITEXT*& item) {
  if (!item) return;
  itext_unexpand(item);
  std::free(item->text);
  delete item;
  item = nullptr;
}

int itext_check(const ITEXT* item) {
  if (!item) return RC_FAIL;
  if (!item->text) return item->chunks.empty() ? RC_OK : RC_FAIL;
  long len = static_cast<long>(std::strlen(item->text));
  if (item->text_len != len + 1 || item->text_size < item->text_len) return RC_FAIL;
  if (item->chunks.empty()) return RC_FAIL;
  long sum = 0;
  for (const CHUNK& c : item->chunks) {
    if (c.length_ac < 0) return RC_FAIL;
    if (c.length_ac == 0 && item->chunks.size() > 1) return RC_FAIL;
    sum += c.length_ac;
    if (sum > len || !u8_is_boundary(item->text, len, sum)) return RC_FAIL;
  }
  return sum == len ? RC_OK : RC_FAIL;
}

int chunklist_partition(ITEXT* item, long offset) {
  if (!item || offset < 0) return RC_FAIL;
  long len = itext_length(item);
  if (offset == 0 || item->chunks.empty() || offset >= len) return RC_OK;
  if (!Boundary(item, offset)) return RC_FAIL;
  long start = 0;
  for (size_t i = 0; i < item->chunks.size(); ++i) {
    long end = start + item->chunks[i].length_ac;
    if (offset == end) {
      elib_trace_detail("Chunk already divided at offset %ld\n", offset);
      return RC_OK;
    }
    if (offset > start && offset < end) {
      itext_unexpand(item);
      CHUNK head = item->chunks[i];
      head.length_ac = offset - start;
      head.flags &= ~CHUNK_LENGTH_VALID;
      item->chunks[i].length_ac = end - offset;
      item->chunks[i].flags &= ~CHUNK_LENGTH_VALID;
      item->chunks.insert(item->chunks.begin() + static_cast<long>(i), head);
      return RC_OK;
    }
    start = end;
  }
  return RC_OK;
}

void dispi_set_style(DISPI* dispi, uint32_t style) {
  if (!dispi) return;
  if (style == kStyleToggleHighlight) dispi->style ^= kStyleHighlight;
  else if (style == kStyleClearHighlight) dispi->style &= ~kStyleHighlight;
  else dispi->style = style;
}

namespace {
struct StyleMap {
  uint32_t toolkit, style;
};
constexpr StyleMap kStyleMap[] = {{0x100, 4},  {1, 8},    {128, 16},     {2, 32},
                                  {16, 64},    {32, 128}, {64, 256},     {0x200, 0x200}};
}  // namespace

uint32_t dispi_style_from_toolkit(uint32_t bits) {
  uint32_t out = 0;
  for (const StyleMap& m : kStyleMap)
    if (bits & m.toolkit) out |= m.style;
  return out;
}

uint32_t dispi_style_to_toolkit(uint32_t style) {
  uint32_t out = 0;
  for (const StyleMap& m : kStyleMap)
    if (style & m.style) out |= m.toolkit;
  return out;
}

int itext_style_part(ITEXT* item, long start, long end, uint32_t style) {
  if (!item || start < 0 || end < start) return RC_FAIL;
  long len = itext_length(item);
  if (end > len) end = len;
  if (start > len) return RC_FAIL;
  if (chunklist_partition(item, start) != RC_OK || chunklist_partition(item, end) != RC_OK) return RC_FAIL;
  itext_unexpand(item);
  if (len == 0) {
    for (CHUNK& c : item->chunks) dispi_set_style(&c.dispi, style);
    return RC_OK;
  }
  long at = 0;
  for (CHUNK& c : item->chunks) {
    if (at >= start && at < end) dispi_set_style(&c.dispi, style);
    at += c.length_ac;
  }
  return RC_OK;
}

int itext_expand(ITEXT* item, int tab_width) {
  if (!item || !item->text || tab_width < 1) return RC_FAIL;
  if (item->flags & kItextExpValid) return RC_OK;
  long len = itext_length(item);
  long tabs = 0;
  for (long i = 0; i < len; ++i) tabs += item->text[i] == '\t';
  if (tabs == 0) {
    item->text_exp = item->text;
    for (CHUNK& c : item->chunks) c.length_exp = c.length_ac;
    item->flags |= kItextExpValid;
    return RC_OK;
  }
  char* exp = static_cast<char*>(std::malloc(static_cast<size_t>(len + tab_width * tabs + 1)));
  if (!exp) return RC_FAIL;
  long column = 0, out = 0, in = 0;
  for (CHUNK& c : item->chunks) {
    long begin = out;
    for (long end = in + c.length_ac; in < end;) {
      if (item->text[in] == '\t') {
        do exp[out++] = ' ';
        while (++column % tab_width);
        ++in;
      } else {
        // Tab stops count cells, as the screen does; a cluster cut by a
        // style change counts once, in the run that holds its base.
        long at = in;
        long next = static_cast<long>(graph_next(item->text, len, in));
        if (next > end) next = end;
        while (in < next) exp[out++] = item->text[in++];
        size_t ulen = static_cast<size_t>(len), uat = static_cast<size_t>(at);
        if (graph_prev(item->text, ulen, static_cast<size_t>(next)) == uat)
          column += graph_width(item->text, ulen, uat, static_cast<size_t>(next));
      }
    }
    c.length_exp = out - begin;
  }
  exp[out] = '\0';
  item->text_exp = exp;
  item->flags |= kItextExpValid;
  return RC_OK;
}

int unexp_to_exp(const char* text, long offset, int tab_width, long* column) {
  if (!text || !column || offset < 0 || tab_width < 1) return RC_FAIL;
  size_t len = std::strlen(text);
  if (static_cast<size_t>(offset) > len) return RC_FAIL;
  long col = 0;
  for (size_t i = 0; i < static_cast<size_t>(offset);) {
    size_t j = graph_next(text, len, i);
    col = text[i] == '\t' ? (col / tab_width + 1) * tab_width : col + graph_width(text, len, i, j);
    i = j;
  }
  *column = col;
  return RC_OK;
}

int exp_to_unexp(const char* text, long column, int tab_width, long* offset) {
  if (!text || !offset || column < 0 || tab_width < 1) return RC_FAIL;
  size_t len = std::strlen(text);
  long col = 0;
  size_t i = 0;
  while (i < len) {
    size_t j = graph_next(text, len, i);
    long next = text[i] == '\t' ? (col / tab_width + 1) * tab_width : col + graph_width(text, len, i, j);
    if (column < next) break;
    col = next;
    i = j;
  }
  *offset = static_cast<long>(i);
  return RC_OK;
}

int itext_insert_string(ITEXT* item, const char* s, size_t n, long offset) {
  if (!item || !item->text || (n && !s)) return RC_FAIL;
  if (!Boundary(item, offset)) return RC_FAIL;
  if (n == 0) return RC_OK;
  if (std::memchr(s, '\0', n)) return RC_FAIL;
  if (!Reserve(item, static_cast<long>(n))) return RC_FAIL;
  itext_unexpand(item);
  long len = itext_length(item);
  std::memmove(item->text + offset + n, item->text + offset, static_cast<size_t>(len - offset + 1));
  std::memcpy(item->text + offset, s, n);
  item->text_len += static_cast<long>(n);
  if (item->chunks.empty()) item->chunks.emplace_back();
  CHUNK& c = item->chunks[RunFor(item, offset)];
  c.length_ac += static_cast<long>(n);
  c.flags &= ~CHUNK_LENGTH_VALID;
  return RC_OK;
}

int itext_insert_char(ITEXT* item, char32_t ch, long offset) {
  char bytes[4];
  int n = u8_encode(ch, bytes);
  if (n == 0 || ch == 0) return RC_FAIL;
  return itext_insert_string(item, bytes, static_cast<size_t>(n), offset);
}

int itext_delete_range(ITEXT* item, long from, long to) {
  if (!item || !item->text || from > to) return RC_FAIL;
  if (!Boundary(item, from) || !Boundary(item, to)) return RC_FAIL;
  if (from == to) return RC_OK;
  itext_unexpand(item);
  long len = itext_length(item);
  std::memmove(item->text + from, item->text + to, static_cast<size_t>(len - to + 1));
  item->text_len -= to - from;
  long start = 0;
  for (CHUNK& c : item->chunks) {
    long end = start + c.length_ac;
    long lo = from > start ? from : start, hi = to < end ? to : end;
    if (hi > lo) {
      c.length_ac -= hi - lo;
      c.flags &= ~CHUNK_LENGTH_VALID;
    }
    start = end;
  }
  DropEmptyRuns(item);
  return RC_OK;
}

int itext_delete(ITEXT* item, long offset) {
  if (!item || !item->text || offset < 0 || offset >= itext_length(item)) return RC_FAIL;
  if (!Boundary(item, offset)) return RC_FAIL;
  long next = static_cast<long>(u8_next(item->text, itext_length(item), offset));
  return itext_delete_range(item, offset, next);
}

int itext_delete_before(ITEXT* item, long offset) {
  if (!item || !item->text || offset <= 0 || offset > itext_length(item)) return RC_FAIL;
  if (!Boundary(item, offset)) return RC_FAIL;
  long prev = static_cast<long>(u8_prev(item->text, itext_length(item), offset));
  return itext_delete_range(item, prev, offset);
}

int itext_split(ITEXT* item, long offset, ITEXT** second) {
  if (!item || !item->text || !second) return RC_FAIL;
  *second = nullptr;
  long len = itext_length(item);
  if (!Boundary(item, offset)) return RC_FAIL;
  elib_trace_detail("\nBefore item split: -----------------------\n");
  if (chunklist_partition(item, offset) != RC_OK) return RC_FAIL;
  ITEXT* tail = nullptr;
  if (itext_new(&tail, item->text + offset, static_cast<size_t>(len - offset)) != RC_OK) return RC_FAIL;
  tail->chunks.clear();
  std::vector<CHUNK> head;
  long at = 0;
  for (const CHUNK& c : item->chunks) {
    (at < offset ? head : tail->chunks).push_back(c);
    at += c.length_ac;
  }
  // An empty line still carries the attributes of the text it came from.
  if (head.empty()) {
    CHUNK c;
    c.dispi = tail->chunks.front().dispi;
    head.push_back(c);
  }
  if (tail->chunks.empty()) {
    CHUNK c;
    c.dispi = head.back().dispi;
    tail->chunks.push_back(c);
  }
  itext_unexpand(item);
  item->chunks.swap(head);
  item->text[offset] = '\0';
  item->text_len = offset + 1;
  DropEmptyRuns(item);
  DropEmptyRuns(tail);
  elib_trace_detail("\nAfter split, item 1: --------\n");
  elib_trace_detail("\nAfter split, item 2:\n");
  *second = tail;
  return RC_OK;
}

int itext_join(ITEXT* first, ITEXT*& second) {
  if (!first || !first->text || !second || !second->text) return RC_FAIL;
  long add = itext_length(second);
  if (add > 0) {
    if (!Reserve(first, add)) return RC_FAIL;
    itext_unexpand(first);
    std::memcpy(first->text + itext_length(first), second->text, static_cast<size_t>(add + 1));
    first->text_len += add;
  }
  // The run structure of both sides survives; an empty run at the seam goes.
  bool first_empty = itext_length(first) == add;
  if (add > 0) {
    if (first_empty) first->chunks.clear();
    for (const CHUNK& c : second->chunks)
      if (c.length_ac > 0) first->chunks.push_back(c);
  }
  DropEmptyRuns(first);
  itext_free(second);
  return RC_OK;
}

int itext_output(const ITEXT* item, std::string* out) {
  if (!item || !item->text || !out) return RC_FAIL;
  out->append(item->text, static_cast<size_t>(itext_length(item)));
  return RC_OK;
}
