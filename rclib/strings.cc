#include "rclib/strings.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "rclib/rc.h"

namespace {

constexpr const char* kWhite = " \t\n\r\f\v";
constexpr const char* kFieldSeparators = " \t\n";

bool is_white(char c) { return c != '\0' && std::strchr(kWhite, c) != nullptr; }

int no_fit(const char* function, char* out, size_t size) {
  if (out && size > 0) out[0] = '\0';
  rc_errno = kRcErrNoFit;
  if (rc_debug_bits & kRcDbgStrings) std::printf("%s: result does not fit in %zu bytes\n", function, size);
  return RC_FAIL;
}

int fail_empty(char* out, size_t size) {
  if (out && size > 0) out[0] = '\0';
  return RC_FAIL;
}

// Start and length of the n-th (from 0) run of characters not in `separators`.
bool find_token(const char* s, int n, const char* separators, const char** start, size_t* length) {
  if (!s || n < 0) return false;
  const char* p = s;
  for (;;) {
    p += std::strspn(p, separators);
    if (!*p) return false;
    size_t run = std::strcspn(p, separators);
    if (n-- == 0) {
      *start = p;
      *length = run;
      return true;
    }
    p += run;
  }
}

}  // namespace

int rc_str_copy(char* out, size_t size, const char* src, size_t length) {
  if (!out || size == 0) return no_fit("rc_str_copy", out, size);
  if (!src) length = 0;
  if (length + 1 > size) return no_fit("rc_str_copy", out, size);
  if (length) std::memmove(out, src, length);
  out[length] = '\0';
  return RC_OK;
}

int rc_str_is_blank(const char* s) {
  if (!s) return RC_OK;
  for (; *s; ++s)
    if (!is_white(*s)) return RC_FAIL;
  return RC_OK;
}

char* rc_str_ltrim(char* s) {
  if (!s) return nullptr;
  size_t skip = std::strspn(s, "\t\n\r ");
  if (skip) std::memmove(s, s + skip, std::strlen(s + skip) + 1);
  return s;
}

char* rc_str_rtrim(char* s) {
  if (!s) return nullptr;
  char* end = s + std::strlen(s);
  while (end > s && std::strchr(" \t\r\n", end[-1])) --end;
  *end = '\0';
  return end;
}

char* rc_str_trim(char* s) {
  rc_str_rtrim(s);
  return rc_str_ltrim(s);
}

int rc_str_pad(char* s, int width, char ch, size_t size) {
  if (!s || width < 0) return RC_FAIL;
  size_t length = std::strlen(s);
  if (length >= static_cast<size_t>(width)) return RC_OK;
  if (static_cast<size_t>(width) + 1 > size) {
    rc_errno = kRcErrNoFit;
    return RC_FAIL;
  }
  std::memset(s + length, ch, width - length);
  s[width] = '\0';
  return RC_OK;
}

char* rc_str_lower(char* s) {
  if (!s) return nullptr;
  for (char* p = s; *p; ++p)
    if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
  return s;
}

int rc_str_word(const char* s, int n, char* out, size_t size) {
  const char* start;
  size_t length;
  if (n < 1 || !find_token(s, n - 1, kWhite, &start, &length)) return fail_empty(out, size);
  return rc_str_copy(out, size, start, length);
}

const char* rc_str_word_ptr(const char* s, int n) {
  const char* start;
  size_t length;
  if (n < 1 || !find_token(s, n - 1, kWhite, &start, &length)) return nullptr;
  return start;
}

const char* rc_str_next_word(const char* p) {
  if (!p) return nullptr;
  p += std::strcspn(p, kWhite);
  p += std::strspn(p, kWhite);
  return *p ? p : nullptr;
}

int rc_str_word_count(const char* s) {
  int count = 0;
  for (const char* p = s ? s + std::strspn(s, kWhite) : nullptr; p && *p; p = rc_str_next_word(p)) ++count;
  return count;
}

int rc_str_field(const char* s, int n, char* out, size_t size) {
  const char* start;
  size_t length;
  if (!find_token(s, n, kFieldSeparators, &start, &length)) return fail_empty(out, size);
  return rc_str_copy(out, size, start, length);
}

int rc_str_field_spec(const char* s, const char* which, char* out, size_t size) {
  if (!which) return fail_empty(out, size);
  size_t digits = std::strspn(which, "0123456789");
  bool to_end = which[digits] == '+';
  if (digits == 0 || digits > 6 || which[digits + (to_end ? 1 : 0)] != '\0') return fail_empty(out, size);
  int n = 0;
  for (size_t i = 0; i < digits; ++i) n = n * 10 + (which[i] - '0');
  if (!to_end) return rc_str_word(s, n, out, size);
  const char* start = rc_str_word_ptr(s, n);
  if (!start) return fail_empty(out, size);
  return rc_str_copy(out, size, start, std::strlen(start));
}

int rc_str_after(const char* s, const char* sub, char* out, size_t size) {
  if (!s || !sub) return fail_empty(out, size);
  const char* found = std::strstr(s, sub);
  if (!found) return rc_str_copy(out, size, "", 0);
  const char* rest = found + std::strlen(sub);
  return rc_str_copy(out, size, rest, std::strlen(rest));
}

int rc_str_before(const char* s, const char* sub, char* out, size_t size) {
  if (!s || !sub) return fail_empty(out, size);
  const char* found = std::strstr(s, sub);
  return rc_str_copy(out, size, s, found ? static_cast<size_t>(found - s) : std::strlen(s));
}

int rc_str_tail(const char* s, int n, char* out, size_t size) {
  if (!s || n < 0) return fail_empty(out, size);
  size_t length = std::strlen(s);
  size_t take = static_cast<size_t>(n) < length ? static_cast<size_t>(n) : length;
  return rc_str_copy(out, size, s + length - take, take);
}

int rc_str_remove_all(char* s, const char* sub) {
  if (!s || !sub || !*sub) return 0;
  size_t sub_length = std::strlen(sub);
  int removed = 0;
  for (char* found = std::strstr(s, sub); found; found = std::strstr(s, sub)) {
    std::memmove(found, found + sub_length, std::strlen(found + sub_length) + 1);
    ++removed;
  }
  return removed;
}

char* rc_str_strip_char(char* s, char ch) {
  if (!s || ch == '\0') return s;
  if (*s == ch) std::memmove(s, s + 1, std::strlen(s + 1) + 1);
  size_t length = std::strlen(s);
  if (length && s[length - 1] == ch) s[length - 1] = '\0';
  return s;
}

int rc_str_replace(const char* s, const char* old_text, const char* new_text, char* out, size_t limit) {
  if (!s || !out) return RC_FAIL;
  size_t length = std::strlen(s);
  const char* found = old_text && *old_text ? std::strstr(s, old_text) : nullptr;
  if (!found) {
    if (length > limit) return no_fit("rc_str_replace", out, limit + 1);
    std::memmove(out, s, length + 1);
    return RC_OK;
  }
  size_t head = static_cast<size_t>(found - s);
  size_t old_length = std::strlen(old_text);
  size_t new_length = new_text ? std::strlen(new_text) : 0;
  size_t result = length - old_length + new_length;
  if (result > limit) return no_fit("rc_str_replace", out, limit + 1);
  // Built aside, so that out may be s itself.
  std::string built(s, head);
  if (new_length) built.append(new_text, new_length);
  built.append(found + old_length);
  std::memcpy(out, built.c_str(), built.size() + 1);
  return RC_OK;
}

int rc_str_replace_char(char* s, char old_ch, char new_ch) {
  if (!s || old_ch == '\0') return 0;
  int replaced = 0;
  for (char* p = s; *p; ++p)
    if (*p == old_ch) {
      *p = new_ch;
      ++replaced;
    }
  return replaced;
}

int rc_str_ch_count(const char* s, char ch) {
  if (!s || ch == '\0') return 0;
  int count = 0;
  for (; *s; ++s)
    if (*s == ch) ++count;
  return count;
}

int rc_str_mid(const char* s, int from, int count, char* out, size_t size) {
  if (!s || from < 1 || count < 0) return fail_empty(out, size);
  size_t length = std::strlen(s);
  size_t start = static_cast<size_t>(from - 1);
  if (start >= length) return rc_str_copy(out, size, "", 0);
  size_t take = length - start < static_cast<size_t>(count) ? length - start : static_cast<size_t>(count);
  return rc_str_copy(out, size, s + start, take);
}

namespace {

// Appends c to the work buffer of `capacity` bytes; false when full.
bool put(char* work, size_t capacity, size_t& used, char c) {
  if (used + 1 >= capacity) return false;
  work[used++] = c;
  return true;
}

bool put_tab(char* work, size_t capacity, size_t& used, size_t& column, int tab) {
  size_t spaces = static_cast<size_t>(tab) - column % static_cast<size_t>(tab);
  for (size_t i = 0; i < spaces; ++i)
    if (!put(work, capacity, used, ' ')) return false;
  column += spaces;
  return true;
}

}  // namespace

int rc_str_detab(int tab, char* s, size_t size) {
  if (!s || tab < 1) return RC_FAIL;
  char work[kRcLineBuf];
  const size_t capacity = size < sizeof work ? size : sizeof work;
  size_t used = 0;
  size_t column = 0;
  for (const char* p = s; *p; ++p) {
    bool ok = *p == '\t' ? put_tab(work, capacity, used, column, tab) : put(work, capacity, used, *p);
    if (!ok) {
      rc_errno = kRcErrNoFit;
      return RC_FAIL;
    }
    if (*p != '\t') column = *p == '\n' ? 0 : column + 1;
  }
  std::memcpy(s, work, used);
  s[used] = '\0';
  return RC_OK;
}

int rc_str_detab_quoted(const char* s, char* out, int tab, size_t size) {
  if (!s || !out || size == 0 || tab < 1) return fail_empty(out, size);
  size_t used = 0;
  size_t column = 0;
  bool quoted = false;
  for (const char* p = s; *p; ++p) {
    bool ok = true;
    if (quoted && *p == '\\' && p[1] == '"') {
      ok = put(out, size, used, *p) && put(out, size, used, *++p);
      column += 2;
    } else if (*p == '\t' && !quoted) {
      ok = put_tab(out, size, used, column, tab);
    } else {
      if (*p == '"') quoted = !quoted;
      ok = put(out, size, used, *p);
      column = *p == '\n' ? 0 : column + 1;
    }
    if (!ok) return no_fit("rc_str_detab_quoted", out, size);
  }
  out[used] = '\0';
  return RC_OK;
}

const char* rc_str_match_delim(const char* s, int n) {
  if (!s || n < 1) return nullptr;
  const char delimiter = s[0];
  if (delimiter == '\0' || delimiter == '\\') return nullptr;
  for (int i = 0; i < n; ++i)
    if (s[i] != delimiter) return nullptr;
  const char* p = s + n;
  while (*p) {
    if (*p == '\\') {
      if (!p[1]) return nullptr;
      p += 2;
      continue;
    }
    if (*p != delimiter) {
      ++p;
      continue;
    }
    size_t run = 0;
    while (p[run] == delimiter) ++run;
    if (run == static_cast<size_t>(n)) return p + n;
    if (n <= INT_MAX / 2 && run == 2 * static_cast<size_t>(n)) {
      // Each level doubles n, so the depth is bounded by log2 of the length.
      p = rc_str_match_delim(p, 2 * n);
      if (!p) return nullptr;
      continue;
    }
    p += run;  // any other run is text
  }
  return nullptr;
}

int rc_str_strip_delim(const char* s, char* out, size_t size) {
  const char* end = rc_str_match_delim(s, 1);
  if (!end) return fail_empty(out, size);
  return rc_str_copy(out, size, s + 1, static_cast<size_t>(end - s) - 2);
}
