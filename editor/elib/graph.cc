#include "editor/elib/graph.h"

#include <algorithm>
#include <iterator>

#include "editor/elib/u8.h"

namespace {

struct Range {
  char32_t lo, hi;
};

// Sorted, non-overlapping.
constexpr Range kExtenders[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
    {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200D, 0x200D}, {0x20D0, 0x20FF}, {0x302A, 0x302F}, {0x3099, 0x309A}, {0xFE00, 0xFE0F},
    {0xFE20, 0xFE2F}, {0x1F3FB, 0x1F3FF}, {0xE0100, 0xE01EF},
};

constexpr Range kWide[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0x33FF},   {0x3400, 0x4DBF}, {0x4E00, 0x9FFF},
    {0xA000, 0xA4CF},   {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE4F}, {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6},   {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD},
};

template <size_t N>
bool InTable(const Range (&table)[N], char32_t cp) {
  const Range* end = table + N;
  const Range* r = std::upper_bound(table, end, cp, [](char32_t c, const Range& x) { return c < x.lo; });
  return r != table && cp <= (r - 1)->hi;
}

constexpr char32_t kZwj = 0x200D;

}  // namespace

char32_t u8_decode(const char* s, size_t len, size_t i) {
  const auto* u = reinterpret_cast<const unsigned char*>(s);
  size_t n = u8_next(s, len, i) - i;
  if (n == 1) return u[i];
  char32_t cp = u[i] & (n == 2 ? 0x1F : n == 3 ? 0x0F : 0x07);
  for (size_t k = 1; k < n; ++k) cp = (cp << 6) | (u[i + k] & 0x3F);
  return cp;
}

bool graph_is_extender(char32_t cp) { return cp >= 0x300 && InTable(kExtenders, cp); }

int graph_cp_width(char32_t cp) {
  if (cp < 0x300) return 1;
  if (graph_is_extender(cp)) return 0;
  return InTable(kWide, cp) ? 2 : 1;
}

size_t graph_next(const char* s, size_t len, size_t i) {
  if (i >= len) return len;
  char32_t prev = u8_decode(s, len, i);
  size_t j = u8_next(s, len, i);
  while (j < len) {
    char32_t cp = u8_decode(s, len, j);
    // A line end never joins, whatever precedes it.
    if (cp == '\n' || (!graph_is_extender(cp) && prev != kZwj)) break;
    prev = cp;
    j = u8_next(s, len, j);
  }
  return j;
}

size_t graph_prev(const char* s, size_t len, size_t i) {
  if (i == 0) return 0;
  size_t j = u8_prev(s, len, i);
  while (j > 0) {
    char32_t cp = u8_decode(s, len, j);
    if (cp == '\n') break;
    size_t k = u8_prev(s, len, j);
    if (!graph_is_extender(cp) && u8_decode(s, len, k) != kZwj) break;
    j = k;
  }
  return j;
}

int graph_width(const char* s, size_t len, size_t i, size_t j) {
  if (i >= j || i >= len) return 0;
  int w = graph_cp_width(u8_decode(s, len, i));
  return w == 0 ? 1 : w;
}
