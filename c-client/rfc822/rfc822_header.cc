// The header walk: header lines of a block, the envelope fields they fill,
// the MIME content headers of a part, and the constant tables.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_scan.h"

const char* const body_types[] = {"TEXT",  "MULTIPART", "MESSAGE", "APPLICATION",
                                  "AUDIO", "IMAGE",     "VIDEO",   "X-UNKNOWN"};
const char* const body_encodings[] = {"7BIT", "8BIT", "BINARY", "BASE64", "QUOTED-PRINTABLE", "X-UNKNOWN"};
const char* const wspecials = " ()<>@,;:\"";
const char* const specials = " ()<>@,;:\"[]";
const char* const rspecials = "()<>@,;:\"[].";
const char* const tspecials = " ()<>@,;:\"[]/?=";

const char* rfc822_default_subtype(unsigned short type) {
  switch (type) {
    case TYPETEXT: return "PLAIN";
    case TYPEMULTIPART: return "MIXED";
    case TYPEMESSAGE: return "RFC822";
    case TYPEAPPLICATION: return "OCTET-STREAM";
    case TYPEAUDIO: return "BASIC";
    default: return "UNKNOWN";
  }
}

namespace rfc822_internal {

namespace {
thread_local int g_scope_depth = 0;
thread_local int g_warnings = 0;
}  // namespace

WarnScope::WarnScope() {
  if (g_scope_depth++ == 0) g_warnings = 0;
}
WarnScope::~WarnScope() { --g_scope_depth; }

void warn(const char* fmt, const char* a, const char* b) {
  if (g_warnings > kMaxWarnings) return;
  if (g_warnings++ == kMaxWarnings) {
    mm_log("Too many faults in this text: further parser warnings suppressed", 3);
    return;
  }
  char text[512];
  std::snprintf(text, sizeof text, fmt, a ? a : "", b ? b : "");
  mm_log(text, 3);
}

}  // namespace rfc822_internal

using rfc822_internal::warn;

namespace {

void upcase(char* s) {
  for (; *s; ++s) *s = static_cast<char>(std::toupper(static_cast<unsigned char>(*s)));
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// A MIME-Version value without its comments must be 1.0 (or the name
// that drafts of the standard used).
void check_mime_version(const char* value) {
  char text[64];
  size_t n = 0;
  char* copy = cpystr(value);
  char* s = copy;
  while (*s && n < sizeof text - 1) {
    rfc822_skipws(&s);
    while (*s && !is_blank(*s) && *s != '(' && n < sizeof text - 1) text[n++] = *s++;
  }
  text[n] = '\0';
  FS_GIVE(&copy);
  if (std::strcmp(text, "1.0") && std::strcmp(text, "RFC-XXXX")) warn("Warning: message has unknown MIME version");
}

// Tails and counts of the envelope's address lists, so that appending to a
// list that many headers fill stays linear.
struct ListTail {
  MailAddress* last = nullptr;
  unsigned long count = 0;
};

void add_addresses(MailAddress** list, ListTail* tail, char* value, const char* host) {
  rfc822_internal::parse_adrlist_tail(list, &tail->last, &tail->count, value, host);
}

void first_wins(char** field, const char* value) {
  if (!*field) *field = cpystr(value);
}

// A token of a content header: up to a tspecial, a blank or a control.
char* token_end(char* s) {
  while (*s && !std::strchr(tspecials, *s) && static_cast<unsigned char>(*s) > ' ' && *s != 0x7f) ++s;
  return s;
}

char* copy_range(const char* s, const char* e) {
  size_t n = static_cast<size_t>(e - s);
  char* out = static_cast<char*>(FS_GET(n + 1));
  std::memcpy(out, s, n);
  return out;
}

// The parameters after a content type or disposition: "; ATTRIBUTE=value"
// pairs, appended to *list.
void parse_parameters(BodyParameter** list, char* s) {
  BodyParameter* last = *list;
  while (last && last->next) last = last->next;
  for (;;) {
    rfc822_skipws(&s);
    if (!*s) return;
    if (*s != ';') {
      warn("Junk at end of parameters: %.80s", s);
      return;
    }
    ++s;
    rfc822_skipws(&s);
    if (!*s) return;  // a trailing ";" is common and harmless
    char* ae = token_end(s);
    if (ae == s) {
      warn("Missing parameter");
      // Resynchronise at the next ";" rather than drop what follows.
      while (*s && *s != ';') ++s;
      continue;
    }
    BodyParameter* param = mail_newbody_parameter();
    param->attribute = copy_range(s, ae);
    upcase(param->attribute);
    if (last)
      last->next = param;
    else
      *list = param;
    last = param;
    s = ae;
    rfc822_skipws(&s);
    if (*s != '=') {
      warn("Missing parameter value: %.80s", param->attribute);
      param->value = cpystr("UNKNOWN");
      continue;
    }
    ++s;
    rfc822_skipws(&s);
    char* v = s;
    if (*s == '"') {
      // A quoted value; one left open takes the rest of the line.
      for (++s; *s && *s != '"'; ++s)
        if (*s == '\\' && s[1]) ++s;
      if (*s == '"') ++s;
      param->value = rfc822_quote(copy_range(v, s));
    } else {
      // Unquoted values in the wild hold "=", "/" and "?" (boundaries,
      // encoded words), so only a ";" or a blank ends them.
      while (*s && *s != ';' && !is_blank(*s)) ++s;
      param->value = copy_range(v, s);
    }
    if (!*param->value) {
      FS_GIVE(&param->value);
      param->value = cpystr("UNKNOWN");
    }
  }
}

unsigned short lookup(const char* const* table, unsigned short count, const char* word) {
  for (unsigned short i = 0; i < count; ++i)
    if (!std::strcmp(table[i], word)) return i;
  return count;
}

// RFC 2231 forms of a parameter. Continuations looked at, and the bytes of
// a joined value.
constexpr int kMaxSegments = 1000;
constexpr size_t kMaxParameterBytes = 65536;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

void append_percent_decoded(std::string& out, const char* s) {
  for (; *s; ++s) {
    int hi, lo;
    if (*s == '%' && (hi = hex_digit(s[1])) >= 0 && (lo = hex_digit(s[2])) >= 0) {
      out += static_cast<char>((hi << 4) | lo);
      s += 2;
    } else {
      out += *s;  // a stray "%" is kept as it stands
    }
  }
}

// charset'language'text: the charset, and the text after the prefix.
// Without both quotes the whole value is text, of no charset.
const char* split_extended(const char* s, std::string* charset) {
  const char* q1 = std::strchr(s, '\'');
  const char* q2 = q1 ? std::strchr(q1 + 1, '\'') : nullptr;
  if (!q2) return s;
  charset->assign(s, q1);
  return q2 + 1;
}

// The index of a continuation from what follows "NAME*": digits without
// leading zeros, then "*" for an extended one. -1 if it is none.
int segment_index(const char* s, bool* extended) {
  int index = 0;
  int digits = 0;
  // Counting stops past four digits, so a long run cannot overflow.
  for (; *s >= '0' && *s <= '9'; ++s, ++digits)
    if (digits < 5) index = index * 10 + (*s - '0');
  if (!digits || digits > 4 || (digits > 1 && s[-digits] == '0')) return -1;
  *extended = *s == '*';
  if (*extended) ++s;
  return *s ? -1 : index;
}

}  // namespace

Rfc822Parameter rfc822_parameter(const BodyParameter* list, const char* attribute) {
  Rfc822Parameter out;
  if (!attribute) return out;
  const size_t n = std::strlen(attribute);
  const BodyParameter* plain = nullptr;
  const BodyParameter* star = nullptr;
  std::vector<const BodyParameter*> segments;  // by index; the first of a number wins
  for (const BodyParameter* p = list; p; p = p->next) {
    if (!p->attribute || !p->value || strncasecmp(p->attribute, attribute, n)) continue;
    const char* rest = p->attribute + n;
    if (!*rest) {
      if (!plain) plain = p;
    } else if (*rest == '*' && !rest[1]) {
      if (!star) star = p;
    } else if (*rest == '*') {
      bool extended = false;
      const int i = segment_index(rest + 1, &extended);
      if (i < 0 || i >= kMaxSegments) continue;
      if (segments.size() <= static_cast<size_t>(i)) segments.resize(i + 1);
      if (!segments[i]) segments[i] = p;
    }
  }
  // The extended forms are preferred: a sender that writes both means the
  // plain one for readers that don't know them.
  if (star) {
    out.found = out.extended = true;
    append_percent_decoded(out.value, split_extended(star->value, &out.charset));
  } else if (!segments.empty() && segments[0]) {
    out.found = true;
    // A gap in the numbers ends the value.
    for (size_t i = 0; i < segments.size() && segments[i] && out.value.size() < kMaxParameterBytes; ++i) {
      bool extended = false;
      segment_index(segments[i]->attribute + n + 1, &extended);
      const char* v = segments[i]->value;
      if (extended && i == 0) v = split_extended(v, &out.charset);
      if (extended) {
        out.extended = true;
        append_percent_decoded(out.value, v);
      } else {
        out.value += v;
      }
    }
    if (out.value.size() > kMaxParameterBytes) out.value.resize(kMaxParameterBytes);
  } else if (plain) {
    out.found = true;
    out.value = plain->value;
  }
  return out;
}

void rfc822_parse_content_header(BodyPart* body, char* name, char* value) {
  rfc822_internal::WarnScope scope;
  if (!std::strcmp(name, "TYPE")) {
    // The first type header wins: later ones find the part no longer default.
    if (body->type != TYPETEXT || body->subtype || body->parameter) return;
    char* s = value;
    rfc822_skipws(&s);
    char* e = token_end(s);
    char save = *e;
    *e = '\0';
    upcase(s);
    body->type = lookup(body_types, TYPEOTHER, s);
    *e = save;
    s = e;
    rfc822_skipws(&s);
    if (*s == '/') {
      ++s;
      rfc822_skipws(&s);
      e = token_end(s);
      if (e > s) {
        body->subtype = copy_range(s, e);
        upcase(body->subtype);
      }
      s = e;
    }
    if (!body->subtype) body->subtype = cpystr(rfc822_default_subtype(body->type));
    parse_parameters(&body->parameter, s);
  } else if (!std::strcmp(name, "DISPOSITION")) {
    // The first disposition wins, as the first type does. The type word is
    // kept upper-cased like a subtype; one that isn't a token leaves the
    // part without a disposition rather than with a made-up one.
    if (body->disposition) return;
    char* s = value;
    rfc822_skipws(&s);
    char* e = token_end(s);
    if (e == s) {
      warn("Missing disposition type: %.80s", value);
      return;
    }
    body->disposition = copy_range(s, e);
    upcase(body->disposition);
    parse_parameters(&body->disposition_parameter, e);
  } else if (!std::strcmp(name, "TRANSFER-ENCODING")) {
    char* s = value;
    rfc822_skipws(&s);
    char* e = token_end(s);
    *e = '\0';
    upcase(s);
    body->encoding = lookup(body_encodings, ENCOTHER, s);
  } else if (!std::strcmp(name, "DESCRIPTION")) {
    first_wins(&body->description, value);
  } else if (!std::strcmp(name, "ID")) {
    first_wins(&body->id, value);
  }
}

char* rfc822_next_header(char** text, unsigned long* remaining, bool unfold) {
  char* s = *text;
  unsigned long n = *remaining;
  if (!s || !n) return nullptr;
  // A line of nothing but line breaks (a CR alone is no break) ends the block.
  unsigned long i = 0;
  while (i < n && s[i] == '\r') ++i;
  if (i == n || s[i] == '\n') {
    *remaining = 0;
    *text = s + n;
    return nullptr;
  }
  // The logical line runs to a line feed that no blank or TAB follows.
  unsigned long end = 0;
  for (;;) {
    const char* lf = static_cast<const char*>(std::memchr(s + end, '\n', n - end));
    if (!lf) {
      end = n;
      break;
    }
    end = static_cast<unsigned long>(lf - s);
    if (end + 1 < n && (s[end + 1] == ' ' || s[end + 1] == '\t')) {
      ++end;
      continue;
    }
    break;
  }
  unsigned long next = end < n ? end + 1 : n;
  s[end] = '\0';
  *text = s + next;
  *remaining = n - next;
  while (end > 0 && (s[end - 1] == '\r' || s[end - 1] == '\n' || s[end - 1] == ' ' || s[end - 1] == '\t'))
    s[--end] = '\0';
  if (unfold) {
    // Only the line break of a fold goes; the blank or TAB after it is
    // part of the value.
    unsigned long to = 0;
    for (unsigned long k = 0; k < end; ++k) {
      if (s[k] == '\r' && s[k + 1] == '\n') continue;
      if (s[k] != '\n') s[to++] = s[k];
    }
    s[to] = '\0';
  }
  return s;
}

namespace rfc822_internal {

void parse_msg(Envelope** env, BodyPart** body, char* header, unsigned long size, StringSource* bs,
               const char* host, char* work, ParseContext* ctx) {
  Envelope* e = nullptr;
  if (env) e = *env = mail_newenvelope();
  BodyPart* b = nullptr;
  if (body) b = *body = mail_newbody();

  // A private, terminated copy: the walk writes into the block, and the
  // last line may run to its very end.
  char* block = static_cast<char*>(FS_GET(size + 1));
  if (size) std::memcpy(block, header, size);
  ListTail from, sender, reply_to, to, cc, bcc;

  char* text = block;
  unsigned long remaining = size;
  while (char* line = rfc822_next_header(&text, &remaining, true)) {
    if (std::strlen(line) > kMaxHeaderLine) {
      warn("Header line longer than 64 KB, cut: %.80s", line);
      line[kMaxHeaderLine] = '\0';
    }
    char* colon = std::strchr(line, ':');
    if (!colon) continue;
    char* name_end = colon;
    while (name_end > line && (name_end[-1] == ' ' || name_end[-1] == '\t')) --name_end;
    *name_end = '\0';
    upcase(line);
    char* value = colon + 1;
    while (*value == ' ' || *value == '\t') ++value;

    switch (line[0]) {
      case '>':
        if (e && !std::strcmp(line, ">FROM")) add_addresses(&e->from, &from, value, host);
        break;
      case 'B':
        if (e && !std::strcmp(line, "BCC")) add_addresses(&e->bcc, &bcc, value, host);
        break;
      case 'C':
        if (e && !std::strcmp(line, "CC")) {
          add_addresses(&e->cc, &cc, value, host);
        } else if (!std::strncmp(line, "CONTENT-", 8)) {
          // Content headers count with or without MIME-Version, as servers
          // read them: a message has one structure wherever it is stored.
          if (b) rfc822_parse_content_header(b, line + 8, value);
        }
        break;
      case 'D':
        if (e && !std::strcmp(line, "DATE")) first_wins(&e->date, value);
        break;
      case 'F':
        if (e && !std::strcmp(line, "FROM")) add_addresses(&e->from, &from, value, host);
        break;
      case 'I':
        if (e && !std::strcmp(line, "IN-REPLY-TO")) first_wins(&e->in_reply_to, value);
        break;
      case 'M':
        if (!std::strcmp(line, "MIME-VERSION")) check_mime_version(value);
        // Message-ID is not kept for a message parsed here: the local
        // mailbox caches have never held it, and a fresh envelope has none
        // to replace.
        break;
      case 'N':
        if (e && !std::strcmp(line, "NEWSGROUPS")) first_wins(&e->newsgroups, value);
        break;
      case 'R':
        if (e && !std::strcmp(line, "REPLY-TO")) add_addresses(&e->reply_to, &reply_to, value, host);
        break;
      case 'S':
        if (e && !std::strcmp(line, "SUBJECT"))
          first_wins(&e->subject, value);
        else if (e && !std::strcmp(line, "SENDER"))
          add_addresses(&e->sender, &sender, value, host);
        break;
      case 'T':
        if (e && !std::strcmp(line, "TO")) add_addresses(&e->to, &to, value, host);
        break;
    }
  }
  FS_GIVE(&block);
  if (b) {
    if (bs)
      parse_content(b, bs, host, work, ctx);
    else
      apply_defaults(b);
  }
}

}  // namespace rfc822_internal

void rfc822_parse_msg(Envelope** env, BodyPart** body, char* header, unsigned long size, StringSource* bs,
                      const char* host, char* work) {
  rfc822_internal::WarnScope scope;
  rfc822_internal::ParseContext ctx{0, rfc822_internal::kMaxNodes};
  rfc822_internal::parse_msg(env, body, header, size, bs, host, work, &ctx);
}
