#include "editor/elib/graph.h"

#include "editor/elib/u8.h"
#include "rclib/char_width.h"

namespace {

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

bool graph_is_extender(char32_t cp) { return rc_char_is_extender(cp); }

int graph_cp_width(char32_t cp) { return rc_char_width(cp); }

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
