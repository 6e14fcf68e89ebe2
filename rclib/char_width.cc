#include "rclib/char_width.h"

#include <algorithm>
#include <cstddef>

namespace {

struct Range {
  char32_t lo, hi;
};

// Each table sorted and without overlaps.
constexpr Range kExtenders[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x0610, 0x061A}, {0x064B, 0x065F},
    {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},
    {0x200D, 0x200D}, {0x20D0, 0x20FF}, {0x302A, 0x302F}, {0x3099, 0x309A}, {0xFE00, 0xFE0F},
    {0xFE20, 0xFE2F}, {0x1F3FB, 0x1F3FF}, {0xE0100, 0xE01EF},
};

// Characters that take no room but do not join: the zero-width space, the
// non-joiner, direction marks, word joiner and invisible operators, the
// byte order mark.
constexpr Range kZeroWidth[] = {
    {0x200B, 0x200C}, {0x200E, 0x200F}, {0x2060, 0x2064}, {0xFEFF, 0xFEFF},
};

constexpr Range kWide[] = {
    {0x1100, 0x115F},    // Hangul Jamo, leading consonants
    {0x231A, 0x231B},    // watch, hourglass
    {0x2E80, 0x303E},    // CJK radicals, Kangxi radicals, ideographic punctuation
    {0x3041, 0x33FF},    // kana, bopomofo, Hangul compatibility Jamo, CJK symbols
    {0x3400, 0x4DBF},    // CJK extension A
    {0x4E00, 0x9FFF},    // CJK unified ideographs
    {0xA000, 0xA4CF},    // Yi
    {0xA960, 0xA97F},    // Hangul Jamo extended A
    {0xAC00, 0xD7A3},    // Hangul syllables
    {0xF900, 0xFAFF},    // CJK compatibility ideographs
    {0xFE10, 0xFE19},    // vertical forms
    {0xFE30, 0xFE4F},    // CJK compatibility forms
    {0xFE50, 0xFE6F},    // small form variants
    {0xFF00, 0xFF60},    // fullwidth forms
    {0xFFE0, 0xFFE6},    // fullwidth signs
    {0x1F300, 0x1F64F},  // pictographs, emoticons
    {0x1F680, 0x1F6FF},  // transport and map symbols
    {0x1F900, 0x1F9FF},  // supplemental pictographs
    {0x1FA70, 0x1FAFF},  // pictographs extended A
    {0x20000, 0x3FFFD},  // CJK extension planes
};

template <size_t N>
bool InTable(const Range (&table)[N], char32_t cp) {
  const Range* end = table + N;
  const Range* r = std::upper_bound(table, end, cp, [](char32_t c, const Range& x) { return c < x.lo; });
  return r != table && cp <= (r - 1)->hi;
}

}  // namespace

bool rc_char_is_extender(char32_t cp) { return cp >= 0x300 && InTable(kExtenders, cp); }

int rc_char_width(char32_t cp) {
  if (cp < 0x300) return 1;
  if (rc_char_is_extender(cp) || InTable(kZeroWidth, cp)) return 0;
  return InTable(kWide, cp) ? 2 : 1;
}
