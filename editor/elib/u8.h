// Stepping through UTF-8 text by code point. Every character step of the
// editor goes through these two functions, so that no insert, delete,
// split or style boundary ever lands inside a multibyte sequence.
//
// Text that is not valid UTF-8 (a Latin-1 file, a cut sequence) is still
// walkable: a byte that does not start a complete, well-formed sequence
// counts as one character of its own, and both directions agree on it.
#pragma once

#include <cstddef>

inline bool u8_is_cont(unsigned char c) { return (c & 0xC0) == 0x80; }

// The offset of the character after the one at `i` (i < len).
inline size_t u8_next(const char* s, size_t len, size_t i) {
  if (i >= len) return len;
  unsigned char c = static_cast<unsigned char>(s[i]);
  size_t n = 1;
  if (c >= 0xC2 && c <= 0xDF) n = 2;
  else if (c >= 0xE0 && c <= 0xEF) n = 3;
  else if (c >= 0xF0 && c <= 0xF4) n = 4;
  if (n == 1 || i + n > len) return i + 1;
  for (size_t k = 1; k < n; ++k)
    if (!u8_is_cont(static_cast<unsigned char>(s[i + k]))) return i + 1;
  return i + n;
}

// The offset of the character before `i` (0 < i <= len).
inline size_t u8_prev(const char* s, size_t len, size_t i) {
  if (i == 0) return 0;
  size_t j = i - 1;
  while (j > 0 && i - j < 4 && u8_is_cont(static_cast<unsigned char>(s[j]))) --j;
  if (u8_next(s, len, j) == i) return j;
  return i - 1;
}

// True when `i` is the start of a character or the end of the text.
inline bool u8_is_boundary(const char* s, size_t len, size_t i) {
  if (i == 0 || i >= len) return i <= len;
  if (!u8_is_cont(static_cast<unsigned char>(s[i]))) return true;
  size_t j = i;
  while (j > 0 && i - j < 3) {
    --j;
    if (!u8_is_cont(static_cast<unsigned char>(s[j]))) return u8_next(s, len, j) <= i;
  }
  return true;
}

// Encodes one code point; returns the byte count (0 for a value that is
// not a scalar value: a surrogate or above U+10FFFF).
inline int u8_encode(char32_t cp, char out[4]) {
  if (cp < 0x80) { out[0] = static_cast<char>(cp); return 1; }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp >= 0xD800 && cp <= 0xDFFF) return 0;
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  if (cp > 0x10FFFF) return 0;
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}
