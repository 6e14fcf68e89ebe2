// Searching a local folder (mh, dawz): the criteria are taken one keyword at a time, and
// each keyword clears the mark of every message that fails it; the marked
// messages that remain are the hits.
//
// Text is looked at as mail_gets gives it: a text spooled to a file is not
// searched (it does not match). Reading a message's text for a search does
// not mark it seen.
#include <cctype>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"
#include "c-client/mh/local_search.h"
#include "c-client/mh/mh_internal.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

// A literal can't promise more than this: the criteria are a line of text.
constexpr unsigned long kMaxLiteral = 1ul << 20;

enum class Arg { kNone, kString, kDate };

struct Criterion {
  std::string text;  // string argument
  unsigned long date = 0;  // date argument, as DateKey gives it
  const LocalSearchOps* ops = nullptr;  // the driver's text reader
};

unsigned long DateKey(unsigned year, unsigned month, unsigned day) { return year * 512ul + month * 32ul + day; }

unsigned long EltDate(const MessageElt* e) { return DateKey(e->year, e->month, e->day); }

// Case-insensitive search of needle in size bytes of haystack.
bool Contains(const char* haystack, unsigned long size, const std::string& needle) {
  if (!haystack) return false;
  if (needle.empty()) return true;
  const unsigned long n = needle.size();
  for (unsigned long i = 0; i + n <= size; ++i) {
    unsigned long k = 0;
    while (k < n && std::tolower(static_cast<unsigned char>(haystack[i + k])) ==
                        std::tolower(static_cast<unsigned char>(needle[k])))
      ++k;
    if (k == n) return true;
  }
  return false;
}

bool InText(const MailText* text, const std::string& needle) {
  return text && text->kind == kTextInMemory && Contains(text->data, text->size, needle);
}

Envelope* EnvelopeOf(MailStream* stream, unsigned long msgno) { return mail_fetchstructure(stream, msgno, nullptr); }

bool InAddresses(MailStream*, MailAddress* list, const std::string& needle) {
  if (!list) return false;
  char buffer[kMhBufferSize + 1];
  buffer[0] = '\0';
  rfc822_write_address_limited(buffer, sizeof buffer, list);
  return Contains(buffer, std::strlen(buffer), needle);
}

bool InHeader(MailStream* stream, unsigned long msgno, const std::string& needle) {
  return InText(mail_fetchheader(stream, msgno), needle);
}

// The body text: what the stream holds already, else read for the search
// alone.
bool InBody(MailStream* stream, unsigned long msgno, const Criterion& c) {
  const std::string& needle = c.text;
  const MailText* held = nullptr;
  if (stream->scache) {
    if (stream->msgno == msgno) held = stream->body_text;
  } else if (auto* elt = static_cast<MessageElt*>(mailcache(stream, msgno, CH_LELT))) {
    held = elt->body_text;
  }
  if (held && !held->consumed) return InText(held, needle);
  MailText* text = c.ops->read_text(stream, msgno);
  const bool found = InText(text, needle);
  mail_free_text(&text);
  return found;
}

using Test = bool (*)(MailStream* stream, unsigned long msgno, MessageElt* elt, const Criterion& c);

struct Keyword {
  const char* name;
  Arg arg;
  Test test;
};

const Keyword kKeywords[] = {
    {"ALL", Arg::kNone, [](MailStream*, unsigned long, MessageElt*, const Criterion&) { return true; }},
    {"ANSWERED", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->answered; }},
    {"BCC", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       Envelope* env = EnvelopeOf(s, m);
       return env && InAddresses(s, env->bcc, c.text);
     }},
    {"BEFORE", Arg::kDate,
     [](MailStream*, unsigned long, MessageElt* e, const Criterion& c) { return EltDate(e) < c.date; }},
    {"BODY", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) { return InBody(s, m, c); }},
    {"CC", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       Envelope* env = EnvelopeOf(s, m);
       return env && InAddresses(s, env->cc, c.text);
     }},
    {"DELETED", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->deleted; }},
    {"DRAFT", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->draft; }},
    {"FLAGGED", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->flagged; }},
    {"FROM", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       Envelope* env = EnvelopeOf(s, m);
       return env && InAddresses(s, env->from, c.text);
     }},
    // A local folder has no keywords: none is set, and every one is unset.
    {"KEYWORD", Arg::kString, [](MailStream*, unsigned long, MessageElt*, const Criterion&) { return false; }},
    {"NEW", Arg::kNone,
     [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return e->recent && !e->seen; }},
    {"OLD", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !e->recent; }},
    {"ON", Arg::kDate,
     [](MailStream*, unsigned long, MessageElt* e, const Criterion& c) { return EltDate(e) == c.date; }},
    {"RECENT", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->recent; }},
    {"SEEN", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !!e->seen; }},
    {"SINCE", Arg::kDate,
     [](MailStream*, unsigned long, MessageElt* e, const Criterion& c) { return EltDate(e) >= c.date; }},
    {"SUBJECT", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       Envelope* env = EnvelopeOf(s, m);
       return env && env->subject && Contains(env->subject, std::strlen(env->subject), c.text);
     }},
    {"TEXT", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       return InHeader(s, m, c.text) || InBody(s, m, c);
     }},
    {"TO", Arg::kString,
     [](MailStream* s, unsigned long m, MessageElt*, const Criterion& c) {
       Envelope* env = EnvelopeOf(s, m);
       return env && InAddresses(s, env->to, c.text);
     }},
    {"UNANSWERED", Arg::kNone,
     [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !e->answered; }},
    {"UNDELETED", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !e->deleted; }},
    {"UNFLAGGED", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !e->flagged; }},
    {"UNKEYWORD", Arg::kString, [](MailStream*, unsigned long, MessageElt*, const Criterion&) { return true; }},
    {"UNSEEN", Arg::kNone, [](MailStream*, unsigned long, MessageElt* e, const Criterion&) { return !e->seen; }},
};

void SkipBlanks(const char** p, const char* end) {
  while (*p < end && (**p == ' ' || **p == '\t')) ++*p;
}

// An atom, a quoted string, or a literal "{n}" and a line end then n bytes.
bool ReadString(const char** p, const char* end, std::string* out) {
  out->clear();
  SkipBlanks(p, end);
  if (*p >= end) return false;
  if (**p == '"') {
    for (++*p; *p < end; ++*p) {
      if (**p == '"') {
        ++*p;
        return true;
      }
      if (**p == '\\' && *p + 1 < end) ++*p;
      out->push_back(**p);
    }
    return false;
  }
  if (**p == '{') {
    unsigned long n = 0;
    const char* q = *p + 1;
    if (q >= end || !std::isdigit(static_cast<unsigned char>(*q))) return false;
    while (q < end && std::isdigit(static_cast<unsigned char>(*q))) {
      n = n * 10 + static_cast<unsigned long>(*q++ - '0');
      if (n > kMaxLiteral) return false;
    }
    if (q >= end || *q++ != '}') return false;
    if (q < end && *q == '\r') ++q;
    if (q >= end || *q++ != '\n') return false;
    if (static_cast<unsigned long>(end - q) < n) return false;
    out->assign(q, n);
    *p = q + n;
    return true;
  }
  const char* start = *p;
  while (*p < end && **p != ' ' && **p != '\t') ++*p;
  out->assign(start, *p);
  return true;
}

void ClearMarks(MailStream* stream) {
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) mail_elt(stream, i)->search_mark = 0;
}

}  // namespace

void mh_search(MailStream* stream, const char* criteria) {
  if (!mh_local(stream)) return;
  static const LocalSearchOps kOps = {mh_read_text, true};
  local_search(stream, criteria, kOps);
}

void local_search(MailStream* stream, const char* criteria, const LocalSearchOps& ops) {
  if (!criteria) return;
  const std::string copy(criteria);
  const char* p = copy.data();
  const char* end = p + copy.size();
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) mail_elt(stream, i)->search_mark = 1;
  for (;;) {
    SkipBlanks(&p, end);
    if (p >= end) break;
    const char* start = p;
    while (p < end && *p != ' ' && *p != '\t') ++p;
    std::string word(start, p);
    for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const Keyword* keyword = nullptr;
    for (const Keyword& k : kKeywords)
      if (word == k.name) keyword = &k;
    if (keyword && !ops.draft && std::strcmp(keyword->name, "DRAFT") == 0) keyword = nullptr;
    Criterion criterion;
    criterion.ops = &ops;
    bool ok = keyword != nullptr;
    if (ok && keyword->arg != Arg::kNone) ok = ReadString(&p, end, &criterion.text);
    if (ok && keyword->arg == Arg::kDate) {
      MessageElt date{};
      ok = mail_parse_date(&date, criterion.text.c_str()) != 0;
      criterion.date = EltDate(&date);
    }
    if (!ok) {
      mm_log(mail_format("Unknown search criterion: %s", word.c_str()).c_str(), 2);
      ClearMarks(stream);
      return;
    }
    for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
      MessageElt* elt = mail_elt(stream, i);
      if (elt->search_mark && !keyword->test(stream, i, elt, criterion)) mail_elt(stream, i)->search_mark = 0;
    }
  }
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    MessageElt* elt = mail_elt(stream, i);
    if (elt->search_mark && !elt->searched) mail_searched(stream, i);
  }
}
