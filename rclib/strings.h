// String helpers working in caller-given buffers.
//
// Every function that writes a result takes the size of the output buffer
// in bytes (`size`, the last argument) unless stated otherwise, and never
// writes past it: a result that would not fit leaves an empty string (when
// size > 0), sets rc_errno to 3 and answers RC_FAIL. In-place functions
// only ever shorten the string, except rc_str_pad and rc_str_detab, which
// take the buffer size too. White space is " \t\n\r\f\v".
#pragma once

#include <cstddef>

// Sizes of the library's fixed buffer types, in bytes including the NUL.
constexpr size_t kRcShortBuf = 32;    // ASSTRBUF: short string
constexpr size_t kRcNameBuf = 32;     // ATSTRBUF: drive, file-name and extension parts
constexpr size_t kRcMediumBuf = 128;  // AMSTRBUF
constexpr size_t kRcLongBuf = 256;    // ALSTRBUF: long string, one line of a stream
constexpr size_t kRcPathBuf = 256;    // APATHBUF: a path
constexpr size_t kRcLineBuf = 512;    // ALINEBUF: a line being tab-expanded or edited

// Copies `length` bytes of `src` (which may overlap `out`) and a NUL.
int rc_str_copy(char* out, size_t size, const char* src, size_t length);

// RC_OK for a null, empty or all-white string.
int rc_str_is_blank(const char* s);
// Remove leading "\t\n\r " / trailing blanks, tabs, CR, LF in place.
// ltrim and trim return s; rtrim returns the new end (the NUL).
char* rc_str_ltrim(char* s);
char* rc_str_rtrim(char* s);
char* rc_str_trim(char* s);
// Pads s on the right with ch to `width` characters; a longer string stays.
// RC_FAIL (rc_errno 3) when width + 1 exceeds size, with s unchanged.
int rc_str_pad(char* s, int width, char ch, size_t size);
char* rc_str_lower(char* s);

// Word `n`, counting from 1, split at white space. RC_FAIL with an empty
// result when there are fewer words.
int rc_str_word(const char* s, int n, char* out, size_t size);
// Start of word n (from 1), or null.
const char* rc_str_word_ptr(const char* s, int n);
// Skips the word at p (if p is inside one) and the white space behind it:
// the start of the next word, or null when none follows.
const char* rc_str_next_word(const char* p);
int rc_str_word_count(const char* s);
// Field `n`, counting from 0, split at runs of " \t\n".
int rc_str_field(const char* s, int n, char* out, size_t size);
// `which` is digits with an optional "+": "3" picks word 3, "3+" word 3 and
// everything behind it as it stands. Other forms (and word 0) give RC_FAIL.
int rc_str_field_spec(const char* s, const char* which, char* out, size_t size);

// Text behind the first occurrence of sub (empty when absent) / ahead of it
// (all of s when absent). RC_OK unless the result does not fit.
int rc_str_after(const char* s, const char* sub, char* out, size_t size);
int rc_str_before(const char* s, const char* sub, char* out, size_t size);
// Last n characters (all of s when shorter).
int rc_str_tail(const char* s, int n, char* out, size_t size);

// Deletes every occurrence of sub, scanning again from the start after each
// deletion (so pieces that join up are deleted too). Returns the number of
// deletions.
int rc_str_remove_all(char* s, const char* sub);
// Deletes one leading and one trailing ch, where present.
char* rc_str_strip_char(char* s, char ch);
// Replaces the first occurrence of old_text; out receives the result and
// holds `limit` characters plus the NUL. A longer result: rc_errno 3,
// RC_FAIL. An absent (or empty) old_text copies s unchanged and succeeds.
int rc_str_replace(const char* s, const char* old_text, const char* new_text, char* out, size_t limit);
// Replaces every old_ch by new_ch in place; returns the number replaced.
int rc_str_replace_char(char* s, char old_ch, char new_ch);
int rc_str_ch_count(const char* s, char ch);
// `count` characters from position `from` (both counting from 1); stops at
// the string's end. RC_FAIL for from < 1 or count < 0.
int rc_str_mid(const char* s, int from, int count, char* out, size_t size);

// Expands tabs to the next multiple of `tab` columns in place. A result
// over kRcLineBuf - 1 characters, or one that does not fit `size`, leaves s
// unchanged and fails with rc_errno 3.
int rc_str_detab(int tab, char* s, size_t size);
// The same into out, but a double-quoted stretch (a backslash-quote inside
// it does not end it) is copied unchanged, tabs and all.
int rc_str_detab_quoted(const char* s, char* out, int tab, size_t size);

// s begins with n copies of a delimiter character: finds the closing run of
// exactly n copies, skipping backslash escapes; a run of 2n copies opens a
// nested stretch closed by 2n copies (and so on). Returns the position
// behind the closing run, or null.
const char* rc_str_match_delim(const char* s, int n);
// The text between the delimiters of such a stretch with n = 1, as written.
int rc_str_strip_delim(const char* s, char* out, size_t size);

// Non-const forms for callers that edit the string they navigate.
inline char* rc_str_word_ptr(char* s, int n) {
  return const_cast<char*>(rc_str_word_ptr(static_cast<const char*>(s), n));
}
inline char* rc_str_next_word(char* p) {
  return const_cast<char*>(rc_str_next_word(static_cast<const char*>(p)));
}
inline char* rc_str_match_delim(char* s, int n) {
  return const_cast<char*>(rc_str_match_delim(static_cast<const char*>(s), n));
}
