// Internals shared by the RFC 822 parser's files: chunk-wise scanning over
// a StringSource, the parse context that carries the limits down the
// recursion, and the level-3 warning helper. Not for use outside them.
#pragma once

#include <cstring>

#include "c-client/rfc822/rfc822.h"

namespace rfc822_internal {

// Limits on hostile input.
constexpr unsigned long kMaxHeaderLine = 65536;      // one header line or folded value
constexpr unsigned long kMaxAddresses = 10000;       // one address list
constexpr int kMaxGroupDepth = 32;                   // nested address groups
constexpr unsigned long kMaxBoundary = 200;          // longer boundaries count as absent
constexpr unsigned long kMaxParts = 10000;           // parts of one multipart
constexpr unsigned long kMaxNodes = 100000;          // parts of one whole message
constexpr unsigned long kMaxNestedHeader = 262144;   // header copied for a message/rfc822 part

// What the body recursion carries: the depth of the part being parsed and
// the number of parts still allowed in the whole message.
struct ParseContext {
  int depth;
  unsigned long nodes_left;
};

// Logs a parser warning: fmt with up to two string arguments, each of
// which the format cuts itself (%.80s).
void warn(const char* fmt, const char* a = nullptr, const char* b = nullptr);

// Hostile text can hold a fault every few bytes: one call of a public
// parser logs at most kMaxWarnings warnings, then says the rest is
// suppressed. Every public entry holds a WarnScope; the outermost one
// starts the count.
constexpr int kMaxWarnings = 100;
struct WarnScope {
  WarnScope();
  ~WarnScope();
  WarnScope(const WarnScope&) = delete;
  WarnScope& operator=(const WarnScope&) = delete;
};

void parse_msg(Envelope** env, BodyPart** body, char* header, unsigned long size, StringSource* bs,
               const char* host, char* work, ParseContext* ctx);
void parse_content(BodyPart* body, StringSource* bs, const char* host, char* work, ParseContext* ctx);
// The subtype of the type, and for text the US-ASCII charset, when absent.
void apply_defaults(BodyPart* body);
// Appends to a list whose tail and length the caller keeps.
void parse_adrlist_tail(MailAddress** list, MailAddress** last, unsigned long* count, char* text,
                        const char* host);

// Bytes of the current chunk that lie before end (never past the source's
// size), refilling the chunk when it is used up; 0 at end. Drivers consume
// the byte they return from next, so it is put back into the chunk here.
inline unsigned long avail(StringSource* s, unsigned long end) {
  if (end > s->size) end = s->size;
  unsigned long pos = string_getpos(s);
  if (pos >= end) return 0;
  if (!s->cursize) {
    s->dtb->next(s);
    if (string_getpos(s) != pos + 1) return 0;  // nothing could be read
    --s->curpos;
    ++s->cursize;
  }
  unsigned long n = s->cursize;
  return n < end - pos ? n : end - pos;
}

inline void skip(StringSource* s, unsigned long n) {
  s->curpos += n;
  s->cursize -= n;
}

// The next byte without taking it; -1 at end.
inline int peek(StringSource* s, unsigned long end) {
  return avail(s, end) ? static_cast<unsigned char>(*s->curpos) : -1;
}

// The next byte, taken; -1 at end.
inline int take(StringSource* s, unsigned long end) {
  if (!avail(s, end)) return -1;
  --s->cursize;
  return static_cast<unsigned char>(*s->curpos++);
}

// Counts the line feeds up to end and leaves the source there.
inline unsigned long count_lines(StringSource* s, unsigned long end) {
  unsigned long lines = 0;
  while (unsigned long n = avail(s, end)) {
    const char* p = s->curpos;
    const char* e = p + n;
    while ((p = static_cast<const char*>(std::memchr(p, '\n', e - p)))) {
      ++lines;
      ++p;
    }
    skip(s, n);
  }
  return lines;
}

// Narrows the source to [current position, end) for a sub-part and puts the
// outer end back afterwards, unless reading found the text shorter.
struct Narrow {
  StringSource* s;
  unsigned long outer;
  unsigned long inner;
  Narrow(StringSource* src, unsigned long end) : s(src), outer(src->size), inner(end < src->size ? end : src->size) {
    s->size = inner;
  }
  ~Narrow() {
    if (s->size >= inner) s->size = outer;
  }
  Narrow(const Narrow&) = delete;
  Narrow& operator=(const Narrow&) = delete;
};

}  // namespace rfc822_internal
