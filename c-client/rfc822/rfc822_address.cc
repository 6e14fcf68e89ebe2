// Address lists: phrases, route addresses, address specs and groups, with
// comments and quoted strings, into MailAddress chains.
//
// Everything works on a zero-terminated text in place (quote stripping and
// the cut at an unterminated comment write into it). Nothing recurses: group
// nesting is a counter, comments are scanned with a depth count.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_scan.h"

using rfc822_internal::warn;

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Characters that end a word of a phrase or a mailbox (the specials without
// the quote, which opens a quoted string inside the word instead). Other
// control characters stay in the word: raw ISO-2022-JP names carry ESC.
bool ends_word(char c) { return is_blank(c) || (c && std::strchr("()<>@,;:[]", c)); }
// Characters that end a host: the wspecials, so that a domain literal
// such as [1.2.3.4] stays one token.
bool ends_host(char c) { return is_blank(c) || (c && std::strchr("()<>@,;:\"", c)); }

// The end of the comment that opens at p, or null if it never closes (the
// caller reports which kind of openness). Comments nest; backslashes quote
// the next character; a quoted string inside may hold parentheses.
char* comment_end(char* p, bool* in_quote) {
  int depth = 0;
  *in_quote = false;
  for (; *p; ++p) {
    switch (*p) {
      case '\\':
        if (!*++p) return nullptr;
        break;
      case '"':
        for (++p; *p != '"'; ++p) {
          if (!*p) {
            *in_quote = true;
            return nullptr;
          }
          if (*p == '\\' && !*++p) {
            *in_quote = true;
            return nullptr;
          }
        }
        break;
      case '(':
        ++depth;
        break;
      case ')':
        if (--depth == 0) return p + 1;
        break;
    }
  }
  return nullptr;
}

// A word: atom characters and quoted strings up to an unquoted delimiter.
// Returns its end, or null for an empty word or an unterminated quote.
char* word_end(char* s, bool (*ends)(char)) {
  char* p = s;
  while (*p) {
    if (*p == '"') {
      for (++p; *p != '"'; ++p) {
        if (!*p) return nullptr;
        if (*p == '\\' && !*++p) return nullptr;
      }
      ++p;
    } else if (*p == '\\' && p[1]) {
      p += 2;
    } else if (ends(*p)) {
      break;
    } else {
      ++p;
    }
  }
  return p == s ? nullptr : p;
}

// A phrase: one or more words separated by blanks and comments. Returns the
// end of its last word, or null if there is no word.
char* phrase_end(char* s) {
  char* end = word_end(s, ends_word);
  if (!end) return nullptr;
  for (;;) {
    char* p = end;
    rfc822_skipws(&p);
    char* next = (p != end) ? word_end(p, ends_word) : nullptr;
    if (!next) return end;
    end = next;
  }
}

// A copy of [s, e) with quotes and backslashes taken out.
char* copy_word(const char* s, const char* e) {
  size_t n = static_cast<size_t>(e - s);
  char* out = static_cast<char*>(FS_GET(n + 1));
  std::memcpy(out, s, n);
  out[n] = '\0';
  return rfc822_quote(out);
}

void append(MailAddress** list, MailAddress** last, MailAddress* adr) {
  if (*last)
    (*last)->next = adr;
  else
    *list = adr;
  *last = adr;
}

// mailbox [@ host], on *text; fills adr's mailbox and host. False (and
// nothing filled) when there is no mailbox.
bool parse_addrspec(char** text, MailAddress* adr, const char* host) {
  char* s = *text;
  char* end = word_end(s, ends_word);
  if (!end) return false;
  adr->mailbox = copy_word(s, end);
  if (!*adr->mailbox) {
    // "" unquotes to nothing: no address can be written or sent to that.
    FS_GIVE(&adr->mailbox);
    return false;
  }
  char* p = end;
  rfc822_skipws(&p);
  if (*p == '@') {
    ++p;
    rfc822_skipws(&p);
    char* h = p;
    // A host has no quoted strings: a quote ends it like any wspecial.
    char* he = h;
    if (*he == '[') {
      // A domain literal runs to its "]", so that IPv6 forms such as
      // [IPv6:2001:db8::1] keep their colons.
      // Only address characters count, so that nothing a writer would
      // have to quote can hide inside the brackets.
      char* q = he + 1;
      while (std::isalnum(static_cast<unsigned char>(*q)) || *q == ':' || *q == '.' || *q == '-') ++q;
      if (*q == ']') he = q + 1;
    }
    while (*he && !ends_host(*he)) ++he;
    if (he > h) {
      adr->host = copy_word(h, he);
      end = he;
    } else {
      warn("Missing or invalid host name after @");
      adr->host = cpystr(host);
      end = h;
    }
  } else {
    adr->host = cpystr(host);
  }
  *text = end;
  return true;
}

// <[@route,@route:]mailbox@host>, with *text on the "<".
bool parse_routeaddr(char** text, MailAddress* adr, const char* host) {
  char* s = *text + 1;
  rfc822_skipws(&s);
  if (*s == '>') {
    // "<>" is an address that is empty on purpose (bounces, senders that
    // hide): it stays empty rather than become user@default-host, with
    // both fields set so that it reads as no group marker.
    adr->mailbox = cpystr("");
    adr->host = cpystr("");
    *text = s + 1;
    return true;
  }
  if (*s == '@') {
    char* colon = s;
    while (*colon && *colon != ':' && *colon != '>') ++colon;
    if (*colon != ':') return false;
    char* e = colon;
    while (e > s && is_blank(e[-1])) --e;
    size_t n = static_cast<size_t>(e - s);
    adr->adl = static_cast<char*>(FS_GET(n + 1));
    std::memcpy(adr->adl, s, n);
    s = colon + 1;
    rfc822_skipws(&s);
  }
  if (!parse_addrspec(&s, adr, host)) {
    FS_GIVE(&adr->adl);
    return false;
  }
  rfc822_skipws(&s);
  if (*s == '>') {
    ++s;
  } else {
    const char* h = (!adr->host || adr->host[0] == '@') ? "<null>" : adr->host;
    warn("Unterminated mailbox: %.80s@%.80s", adr->mailbox, h);
  }
  *text = s;
  return true;
}

// The comment right after an address becomes its personal name.
void take_comment_as_personal(char** text, MailAddress* adr) {
  char* p = *text;
  while (*p == ' ' || *p == '\t') ++p;
  if (*p != '(' || adr->personal) return;
  bool in_quote;
  char* e = comment_end(p, &in_quote);
  if (!e) return;  // rfc822_skipws reports it
  char* s = p + 1;
  char* t = e - 1;
  while (s < t && is_blank(*s)) ++s;
  while (t > s && is_blank(t[-1])) --t;
  if (t > s) adr->personal = copy_word(s, t);
  if (adr->personal && !*adr->personal) FS_GIVE(&adr->personal);
  *text = e;
}

struct ListState {
  MailAddress** list;
  MailAddress* last;
  unsigned long count;
};

// The list loop: addresses, groups and their ends, until the text ends or
// an address fails.
void parse_list(ListState* st, char* text, const char* host) {
  if (!text) return;
  int groups = 0;
  char* s = text;
  for (;;) {
    rfc822_skipws(&s);
    if (!*s) break;
    if (*s == ',') {
      ++s;
      continue;
    }
    if (st->count >= rfc822_internal::kMaxAddresses) {
      // Said once per list: a count past the limit marks it said.
      if (st->count == rfc822_internal::kMaxAddresses) {
        char n[32];
        std::snprintf(n, sizeof n, "%lu", rfc822_internal::kMaxAddresses);
        warn("Address list longer than %.80s addresses, rest dropped: %.80s", n, s);
        ++st->count;
      }
      break;
    }
    if (*s == ';') {
      ++s;
      if (groups) {
        --groups;
        append(st->list, &st->last, mail_newaddr());
        ++st->count;
      }
      rfc822_skipws(&s);
      if (*s && *s != ',' && *s != ';') warn("Junk at end of group: %.80s", s);
      continue;
    }
    // A phrase and a colon open a group.
    if (char* pe = phrase_end(s)) {
      char* p = pe;
      rfc822_skipws(&p);
      char* name = *p == ':' ? copy_word(s, pe) : nullptr;
      if (name && !*name) FS_GIVE(&name);  // a group needs a name to be written back
      if (name) {
        if (groups >= rfc822_internal::kMaxGroupDepth) {
          warn("Address groups nested too deeply: %.80s", s);
          FS_GIVE(&name);
          break;
        }
        MailAddress* g = mail_newaddr();
        g->mailbox = name;
        append(st->list, &st->last, g);
        ++st->count;
        ++groups;
        s = p + 1;
        continue;
      }
    }
    char* before = s;
    MailAddress* adr = rfc822_parse_address(st->list, st->last, &s, host);
    if (!adr) {
      warn("Bad mailbox: %.80s", before);
      break;
    }
    st->last = adr;
    ++st->count;
    if (!s) break;
  }
  // The end of the text closes any group still open.
  for (; groups > 0; --groups) {
    append(st->list, &st->last, mail_newaddr());
    ++st->count;
  }
}

}  // namespace

namespace rfc822_internal {

// Appends to a list whose tail the caller keeps, so that a header block
// with many address headers of one kind costs no walk of the list.
void parse_adrlist_tail(MailAddress** list, MailAddress** last, unsigned long* count, char* text,
                        const char* host) {
  ListState st{list, *last, *count};
  parse_list(&st, text, host);
  *last = st.last;
  *count = st.count;
}

}  // namespace rfc822_internal

void rfc822_skipws(char** text) {
  rfc822_internal::WarnScope scope;
  char* s = *text;
  for (;;) {
    while (is_blank(*s)) ++s;
    if (*s != '(') break;
    bool in_quote;
    char* e = comment_end(s, &in_quote);
    if (!e) {
      warn(in_quote ? "Unterminated quoted string within comment: %.80s" : "Unterminated comment: %.80s", s);
      *s = '\0';
      break;
    }
    s = e;
  }
  *text = s;
}

char* rfc822_quote(char* text) {
  if (!text) return text;
  char* out = text;
  for (char* p = text; *p; ++p) {
    if (*p == '"') continue;
    if (*p == '\\' && p[1]) ++p;
    *out++ = *p;
  }
  *out = '\0';
  return text;
}

void rfc822_parse_adrlist(MailAddress** list, char* text, const char* host) {
  rfc822_internal::WarnScope scope;
  MailAddress* last = *list;
  unsigned long count = 0;
  for (; last && last->next; last = last->next) ++count;
  if (last) ++count;
  rfc822_internal::parse_adrlist_tail(list, &last, &count, text, host);
}

// One address and what follows it: separating commas are taken, junk ends
// the list (*text becomes null). Returns the address appended, or null if
// none could be read (*text is then unchanged).
MailAddress* rfc822_parse_address(MailAddress** list, MailAddress* last, char** text, const char* host) {
  rfc822_internal::WarnScope scope;
  char* s = *text;
  if (!s) return nullptr;
  rfc822_skipws(&s);
  if (!*s) return nullptr;
  MailAddress* adr = mail_newaddr();
  bool ok = false;
  if (*s == '<') {
    ok = parse_routeaddr(&s, adr, host);
  } else if (char* pe = phrase_end(s)) {
    char* p = pe;
    rfc822_skipws(&p);
    if (*p == '<' && parse_routeaddr(&p, adr, host)) {
      adr->personal = copy_word(s, pe);
      if (!*adr->personal) FS_GIVE(&adr->personal);  // "" is no name
      s = p;
      ok = true;
    }
  }
  if (!ok) {
    mail_free_address(&adr);
    adr = mail_newaddr();
    ok = parse_addrspec(&s, adr, host);
    if (ok) take_comment_as_personal(&s, adr);
  }
  if (!ok) {
    mail_free_address(&adr);
    return nullptr;
  }
  if (!last)
    for (last = *list; last && last->next; last = last->next) {
    }
  append(list, &last, adr);

  rfc822_skipws(&s);
  if (*s == ',') {
    while (*s == ',') {
      ++s;
      rfc822_skipws(&s);
    }
  } else if (*s && *s != ';') {
    if (std::isalnum(static_cast<unsigned char>(*s)))
      warn("Must use comma to separate addresses: %.80s", s);
    else
      warn("Junk at end of address: %.80s", s);
    s = nullptr;
  }
  *text = s;
  return adr;
}
