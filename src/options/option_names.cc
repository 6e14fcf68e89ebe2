// How option names travel: the escaping of names in option files and on the
// option server, the wildcard patterns that select names, and the small
// integer-list reader.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/charvalue.h"
#include "src/options/option_internal.h"
#include "src/options/options.h"

namespace {

char* Dup(const std::string& s) {
  char* out = new (std::nothrow) char[s.size() + 1];
  if (out) std::memcpy(out, s.c_str(), s.size() + 1);
  return out;
}


const char kHex[] = "0123456789abcdef";

unsigned char Fold(unsigned char c) { return static_cast<unsigned char>(std::tolower(c)); }

// Matches a bracket class at p (just after '['); sets *end behind ']'.
// A class without its ']' matches nothing.
bool MatchClass(const char* p, unsigned char c, const char** end) {
  bool negate = false;
  if (*p == '!' || *p == '^') {
    negate = true;
    ++p;
  }
  bool matched = false;
  bool first = true;
  while (*p && (*p != ']' || first)) {
    first = false;
    unsigned char lo = static_cast<unsigned char>(*p);
    if (lo == '\\' && p[1]) lo = static_cast<unsigned char>(*++p);
    unsigned char hi = lo;
    if (p[1] == '-' && p[2] && p[2] != ']') {
      hi = static_cast<unsigned char>(p[2]);
      if (hi == '\\' && p[3]) {
        hi = static_cast<unsigned char>(p[3]);
        ++p;
      }
      p += 2;
    }
    if (Fold(c) >= Fold(lo) && Fold(c) <= Fold(hi)) matched = true;
    ++p;
  }
  if (*p != ']') {
    *end = p;
    return false;
  }
  *end = p + 1;
  return matched != negate;
}

// One element of a pattern at p: its length in the pattern, or 0 at the end.
size_t ElementLength(const char* p) {
  if (!*p) return 0;
  if (*p == '\\' && p[1]) return 2;
  if (*p == '[') {
    const char* q = p + 1;
    if (*q == '!' || *q == '^') ++q;
    if (*q == ']') ++q;
    while (*q && *q != ']') q += (*q == '\\' && q[1]) ? 2 : 1;
    return *q ? static_cast<size_t>(q - p + 1) : std::strlen(p);
  }
  return 1;
}

// Glob match of a whole name against pattern[0, plen), with backtracking
// over the last '*' only: linear in practice, quadratic at worst.
bool GlobMatch(const char* pat, size_t plen, const char* name) {
  const char* p = pat;
  const char* pend = pat + plen;
  const char* n = name;
  const char* star_p = nullptr;
  const char* star_n = nullptr;
  while (*n) {
    if (p < pend && *p == '*') {
      while (p < pend && *p == '*') ++p;
      if (p == pend) return true;
      star_p = p;
      star_n = n;
      continue;
    }
    bool ok = false;
    const char* next = p;
    if (p < pend) {
      size_t len = ElementLength(p);
      next = p + len;
      if (*p == '?') {
        ok = true;
      } else if (*p == '[') {
        const char* end = nullptr;
        ok = MatchClass(p + 1, static_cast<unsigned char>(*n), &end) && end <= pend;
      } else if (*p == '\\' && len == 2) {
        ok = Fold(static_cast<unsigned char>(p[1])) == Fold(static_cast<unsigned char>(*n));
      } else {
        ok = Fold(static_cast<unsigned char>(*p)) == Fold(static_cast<unsigned char>(*n));
      }
    }
    if (ok) {
      p = next;
      ++n;
    } else if (star_p) {
      p = star_p;
      n = ++star_n;
    } else {
      return false;
    }
  }
  while (p < pend && *p == '*') ++p;
  return p == pend;
}

// Splits pattern[begin, end) at each unescaped sep outside bracket classes.
std::vector<std::pair<size_t, size_t>> Split(const char* pattern, size_t begin, size_t end, char sep) {
  std::vector<std::pair<size_t, size_t>> parts;
  size_t start = begin, i = begin;
  while (i < end) {
    if (pattern[i] == sep) {
      parts.push_back({start, i});
      start = ++i;
      continue;
    }
    size_t len = ElementLength(pattern + i);
    i += len ? len : 1;
  }
  parts.push_back({start, end});
  return parts;
}

std::vector<int> g_int_list;
size_t g_int_pos = 0;

}  // namespace

int string_match(const char* text, const char* pattern) {
  if (!text || !pattern) return 0;
  // Backtracking over the last '*' only: linear in practice.
  const char* p = pattern;
  const char* n = text;
  const char* star_p = nullptr;
  const char* star_n = nullptr;
  while (*n) {
    if (*p == '*') {
      while (*p == '*') ++p;
      if (!*p) return 1;
      star_p = p;
      star_n = n;
    } else if (*p && (*p == '?' || Fold(static_cast<unsigned char>(*p)) == Fold(static_cast<unsigned char>(*n)))) {
      ++p;
      ++n;
    } else if (star_p) {
      p = star_p;
      n = ++star_n;
    } else {
      return 0;
    }
  }
  while (*p == '*') ++p;
  return *p ? 0 : 1;
}

bool Opt_PatternMatch(const char* pattern, const char* name) {
  if (!pattern || !name) return false;
  size_t len = std::strlen(pattern);
  for (auto [a, b] : Split(pattern, 0, len, '|')) {
    bool all = true;
    for (auto [c, d] : Split(pattern, a, b, '&'))
      if (!GlobMatch(pattern + c, d - c, name)) {
        all = false;
        break;
      }
    if (all) return true;
  }
  return false;
}

// Printing ASCII stands for itself, and so do bytes of 0x80 and above, so
// that names in any language (UTF-8) are kept. Control bytes, which the
// original escaping could not carry, are written "#x" and two hex digits.
std::string OptEncodeNameString(const char* text, bool* ok) {
  std::string out;
  *ok = text != nullptr;
  if (!text) return out;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    switch (*p) {
      case ' ': out += "#-"; break;
      case '#': out += "##"; break;
      case '*': out += "#&"; break;
      case '\\': out += "#/"; break;
      case '_': out += "#_"; break;
      default:
        if (*p < 0x20 || *p == 0x7F) {
          out += "#x";
          out += kHex[*p >> 4];
          out += kHex[*p & 15];
        } else {
          out += static_cast<char>(*p);
        }
    }
  }
  return out;
}

std::string OptDecodeNameString(const char* text) {
  std::string out;
  if (!text) return out;
  for (const char* p = text; *p; ++p) {
    if (*p != '#' || !p[1]) {
      out += *p;
      continue;
    }
    char c = *++p;
    switch (c) {
      case '#': out += '#'; break;
      case '&': out += '*'; break;
      case '-': out += ' '; break;
      case '/': out += '\\'; break;
      case '_': out += '_'; break;
      case 'x': {
        int hi = hex_value(p[1]), lo = hi >= 0 ? hex_value(p[2]) : -1;
        if (hi >= 0 && lo >= 0 && (hi || lo)) {
          out += static_cast<char>(hi * 16 + lo);
          p += 2;
        } else {
          out += 'x';
        }
        break;
      }
      default: out += c; break;  // "#" before anything else drops the "#"
    }
  }
  return out;
}

char* Opt_EncodeName(const char* text) {
  bool ok = false;
  std::string s = OptEncodeNameString(text, &ok);
  return ok ? Dup(s) : nullptr;
}

char* Opt_DecodeName(const char* text) { return text ? Dup(OptDecodeNameString(text)) : nullptr; }

// Inside a quoted Tcl word: a backslash before \ [ ] $ " and, so that the
// file stays one line per option and every byte comes back, control bytes
// as \u00XX.
std::string OptEscapeValue(const std::string& value) {
  std::string out;
  out.reserve(value.size() + 8);
  for (unsigned char c : value) {
    if (c == '\\' || c == '[' || c == ']' || c == '$' || c == '"') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// A name is written as a bare word: besides the value's escapes, the
// characters that would end or open a word in Tcl get a backslash too.
std::string OptEscapeNameWord(const std::string& encoded) {
  std::string out;
  for (char c : OptEscapeValue(encoded)) {
    if (c == ';' || c == '{' || c == '}') out += '\\';
    out += c;
  }
  return out;
}

void Opt_ParseIntList(const char* text) {
  g_int_list.clear();
  g_int_pos = 0;
  if (!text) return;
  const char* p = text;
  while (*p) {
    while (*p == ' ' || *p == '\t') ++p;
    if (!*p) break;
    char* end = nullptr;
    long v = std::strtol(p, &end, 10);
    if (end == p) {
      // A word that isn't a number ends the list.
      break;
    }
    g_int_list.push_back(static_cast<int>(v));
    p = end;
  }
}

int Opt_NextInt() { return g_int_pos < g_int_list.size() ? g_int_list[g_int_pos++] : -1; }
