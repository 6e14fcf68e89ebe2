// Body structures over a StringSource: multiparts split at their
// delimiters, part headers, encapsulated messages, and the sizes.
//
// Offsets and sizes. The parser counts the text as it is stored, whatever
// its line ends:
// - BodyPartNode.offset is the source position of the part's first content
//   byte (after its part headers): an absolute position in the text that
//   the source reads, so for a source over the whole message it is the
//   part's place in the message, through any depth of nesting.
// - size_bytes and size_raw are the part's exact byte count; reading
//   size_bytes bytes at offset gives exactly the part. A CRLF text thus
//   gives the sizes a server reports, and a bare-LF text its own.
// - size_lines counts line feeds, for every type (a multipart's and a
//   message's count run over their whole text).
// - msg_offset stays 0: node offsets are already absolute, and a structure
//   read back from a cache, which does not keep msg_offset, must name the
//   same bytes as a fresh parse.
// A part ends before the line break that precedes its delimiter (CRLF or
// LF, whichever is there).
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_scan.h"

namespace rfc822_internal {

namespace {

// Consumes a delimiter line if one starts here: "--" boundary, "--" for
// the close, blanks and TABs of transport padding, then a line end or the
// end of the text. Stops before the first byte that doesn't fit, which is
// never a line feed it has taken (the boundary holds none).
// Returns 0 (no delimiter), 1 (a part opens) or 2 (the multipart closes).
int take_delimiter(StringSource* s, unsigned long end, const char* delim, unsigned long dlen, int* last,
                   unsigned long* lines) {
  for (unsigned long i = 0; i < dlen; ++i) {
    if (peek(s, end) != static_cast<unsigned char>(delim[i])) return 0;
    *last = take(s, end);
  }
  bool close = false;
  int c = peek(s, end);
  if (c == '-') {
    *last = take(s, end);
    if (peek(s, end) != '-') return 0;
    *last = take(s, end);
    close = true;
    c = peek(s, end);
  }
  while (c == ' ' || c == '\t') {
    *last = take(s, end);
    c = peek(s, end);
  }
  if (c == '\r') {
    *last = take(s, end);
    c = peek(s, end);
  }
  if (c == '\n') {
    *last = take(s, end);
    ++*lines;
    return close ? 2 : 1;
  }
  // A delimiter that the end of the text cuts off also ends the
  // multipart: no part could have anything in it.
  if (c < 0) return 2;
  return 0;
}

// Reads one logical header line of a part into work, unfolded as the
// message's own header is: the line breaks of folds go, the blanks after
// them stay. Returns its length without blanks at either end; 0 for an
// empty or blank line, which ends the headers; -1 at the end of the text
// with nothing read.
long read_part_line(StringSource* s, unsigned long end, char* work, bool* cut) {
  unsigned long len = 0;
  int c = take(s, end);
  if (c < 0) return -1;
  for (; c >= 0; c = take(s, end)) {
    if (c == '\n') {
      if (len && work[len - 1] == '\r') --len;
      const int next = peek(s, end);
      if (len && (next == ' ' || next == '\t')) continue;
      break;
    }
    if (!len && (c == ' ' || c == '\t' || c == '\r')) continue;
    if (len < kRfc822WorkSize - 1)
      work[len++] = static_cast<char>(c);
    else
      *cut = true;
  }
  while (len && (work[len - 1] == ' ' || work[len - 1] == '\t' || work[len - 1] == '\r')) --len;
  work[len] = '\0';
  return static_cast<long>(len);
}

// Does the line look like a header ("name: value", with a name of
// printable characters)?
bool is_header_line(const char* line) {
  const char* p = line;
  while (*p && *p != ':' && static_cast<unsigned char>(*p) > ' ' && *p != 0x7f) ++p;
  return *p == ':' && p > line;
}

bool starts_content(const char* line) {
  static const char kPrefix[] = "CONTENT-";
  for (int i = 0; i < 8; ++i)
    if ((line[i] & ~0x20) != kPrefix[i] && !(line[i] == '-' && kPrefix[i] == '-')) return false;
  return true;
}

// The part headers at the source's position: only Content headers count.
// A part whose first line is no header has none: its text starts at once
// (broken mailers write such parts, and their text must still be seen).
void read_part_headers(StringSource* s, BodyPart* body, char* work) {
  unsigned long end = s->size;
  unsigned long start = string_getpos(s);
  bool cut = false;
  bool first = true;
  for (;;) {
    long len = read_part_line(s, end, work, &cut);
    if (len <= 0) break;
    if (first && !is_header_line(work)) {
      string_setpos(s, start);
      break;
    }
    first = false;
    char* colon = std::strchr(work, ':');
    if (!colon || !starts_content(work)) continue;
    char* name_end = colon;
    while (name_end > work && (name_end[-1] == ' ' || name_end[-1] == '\t')) --name_end;
    *name_end = '\0';
    for (char* p = work; *p; ++p)
      if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 'a' + 'A');
    char* value = colon + 1;
    while (*value == ' ' || *value == '\t') ++value;
    rfc822_parse_content_header(body, work + 8, value);
  }
  if (cut) warn("Part header line too long, cut");
}

void parse_multipart(BodyPart* body, StringSource* s, const char* host, char* work, ParseContext* ctx) {
  const unsigned long start = string_getpos(s);
  const unsigned long end = s->size;
  // Signed mail often writes the boundary in the RFC 2231 forms; one that
  // decodes to a line break or a NUL could never be matched.
  const Rfc822Parameter param = rfc822_parameter(body->parameter, "BOUNDARY");
  const char* boundary = param.value.c_str();
  unsigned long blen = param.value.size();
  if (!blen || blen > kMaxBoundary || param.value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    boundary = "-";
    blen = 1;
  }
  // The delimiter lives in the shared work buffer only during this first
  // pass; the second pass gives the buffer to the part headers.
  std::memcpy(work, "--", 2);
  std::memcpy(work + 2, boundary, blen);
  const unsigned long dlen = blen + 2;

  // First pass: find the parts. A node holds its part's start in offset
  // and its end in body.size_raw until the second pass.
  BodyPartNode* first = nullptr;
  BodyPartNode* last = nullptr;
  BodyPartNode* open = nullptr;
  unsigned long nparts = 0;
  unsigned long lines = 0;
  int prev = -1;        // the byte before the current position
  bool cr_break = false;  // the last line break was CRLF
  bool line_start = true;
  bool full = false;
  for (;;) {
    if (line_start) {
      const unsigned long at = string_getpos(s);
      int kind = take_delimiter(s, end, work, dlen, &prev, &lines);
      if (kind) {
        if (kind == 1 && (nparts >= kMaxParts || !ctx->nodes_left)) {
          // Too many parts: the last one keeps the rest of the text, so
          // that nothing becomes unreachable.
          full = true;
          break;
        }
        if (open) {
          unsigned long brk = at == start ? 0 : (cr_break ? 2 : 1);
          unsigned long part_end = at - brk;
          open->body.size_raw = part_end > open->offset ? part_end : open->offset;
          open = nullptr;
        }
        if (kind == 2) break;
        BodyPartNode* node = mail_newbody_part();
        node->offset = string_getpos(s);
        if (last)
          last->next = node;
        else
          first = node;
        last = open = node;
        ++nparts;
        --ctx->nodes_left;
        continue;
      }
      line_start = false;
    }
    unsigned long n = avail(s, end);
    if (!n) break;
    const char* p = s->curpos;
    const char* lf = static_cast<const char*>(std::memchr(p, '\n', n));
    if (!lf) {
      prev = static_cast<unsigned char>(p[n - 1]);
      skip(s, n);
      continue;
    }
    unsigned long i = static_cast<unsigned long>(lf - p);
    cr_break = i ? p[i - 1] == '\r' : prev == '\r';
    prev = '\n';
    skip(s, i + 1);
    ++lines;
    line_start = true;
  }
  if (full) {
    char n[32];
    std::snprintf(n, sizeof n, "%lu", nparts);
    warn("Multipart has too many parts: part %.80s runs to the end of the text", n);
  }
  // A part whose closing delimiter is missing ends at the end of the text.
  if (open) open->body.size_raw = end;
  lines += count_lines(s, end);
  body->parts = first;
  body->size_lines = lines;

  // Second pass: each part's headers, then its contents.
  const bool digest = body->subtype && !std::strcmp(body->subtype, "DIGEST");
  ParseContext inner{ctx->depth + 1, ctx->nodes_left};
  for (BodyPartNode* node = first; node; node = node->next) {
    const unsigned long part_end = node->body.size_raw;
    node->body.size_raw = 0;
    string_setpos(s, node->offset);
    Narrow narrow(s, part_end);
    read_part_headers(s, &node->body, work);
    if (digest && node->body.type == TYPETEXT && !node->body.subtype && !node->body.parameter) {
      // In a digest a part without a type is a message.
      node->body.type = TYPEMESSAGE;
      node->body.subtype = cpystr("RFC822");
    }
    node->offset = string_getpos(s);
    parse_content(&node->body, s, host, work, &inner);
  }
  ctx->nodes_left = inner.nodes_left;
  string_setpos(s, end);
}

// An encapsulated message: its header block is copied (the envelope parser
// works in place), its body parsed where it lies.
void parse_message(BodyPart* body, StringSource* s, const char* host, char* work, ParseContext* ctx) {
  const unsigned long end = s->size;
  std::string header;
  unsigned long lines = 0;
  bool cut = false;
  for (;;) {
    // At a line start: CRs and a line feed make the empty line that ends
    // the header.
    int c;
    while ((c = peek(s, end)) == '\r') {
      take(s, end);
      if (header.size() < kMaxNestedHeader) header += '\r';
    }
    if (c == '\n') {
      take(s, end);
      ++lines;
      break;
    }
    if (c < 0) break;
    bool eol = false;
    while (!eol) {
      unsigned long n = avail(s, end);
      if (!n) break;
      const char* p = s->curpos;
      const char* lf = static_cast<const char*>(std::memchr(p, '\n', n));
      unsigned long k = lf ? static_cast<unsigned long>(lf - p) + 1 : n;
      unsigned long room = header.size() < kMaxNestedHeader ? kMaxNestedHeader - header.size() : 0;
      if (room < k) cut = true;
      header.append(p, k < room ? k : room);
      skip(s, k);
      if (lf) {
        eol = true;
        ++lines;
      }
    }
    if (!eol) break;
  }
  if (cut) warn("Header of an enclosed message is too long, cut");
  parse_msg(&body->msg_env, &body->msg_body, header.data(), header.size(), s, host, work, ctx);
  body->size_lines = lines + (body->msg_body ? body->msg_body->size_lines : 0);
}

}  // namespace

void apply_defaults(BodyPart* body) {
  if (!body->subtype) body->subtype = cpystr(rfc822_default_subtype(body->type));
  if (body->type == TYPETEXT && !rfc822_parameter(body->parameter, "CHARSET").found) {
    BodyParameter* param = mail_newbody_parameter();
    param->attribute = cpystr("CHARSET");
    param->value = cpystr("US-ASCII");
    BodyParameter** tail = &body->parameter;
    while (*tail) tail = &(*tail)->next;
    *tail = param;
  }
}

void parse_content(BodyPart* body, StringSource* s, const char* host, char* work, ParseContext* ctx) {
  const unsigned long end = s->size;
  const unsigned long start = string_getpos(s);
  body->size_raw = body->size_bytes = end > start ? end - start : 0;
  apply_defaults(body);
  // Below the depth cap a container is kept as an opaque leaf: its text
  // is still there (offset and size), but nothing recurses into it.
  const bool deep = ctx->depth >= kRfc822MaxDepth;
  switch (body->type) {
    case TYPEMULTIPART:
      if (body->encoding == ENCBASE64 || body->encoding == ENCQUOTEDPRINTABLE || body->encoding == ENCOTHER) {
        warn("Nested encoding of multipart contents");
        break;
      }
      if (deep) break;
      parse_multipart(body, s, host, work, ctx);
      return;
    case TYPEMESSAGE:
      if (std::strcmp(body->subtype, "RFC822")) break;
      if (body->encoding != ENC7BIT && body->encoding != ENC8BIT && body->encoding != ENCBINARY) {
        warn("Nested encoding of message contents");
        break;
      }
      if (deep) break;
      {
        ParseContext inner{ctx->depth + 1, ctx->nodes_left};
        parse_message(body, s, host, work, &inner);
        ctx->nodes_left = inner.nodes_left;
      }
      return;
    default:
      break;
  }
  body->size_lines = count_lines(s, end);
}

}  // namespace rfc822_internal

void rfc822_parse_content(BodyPart* body, StringSource* bs, const char* host, char* work) {
  rfc822_internal::WarnScope scope;
  rfc822_internal::ParseContext ctx{0, rfc822_internal::kMaxNodes};
  rfc822_internal::parse_content(body, bs, host, work, &ctx);
}
