// Search phrases: the attribute and criterion tables, building a phrase's
// display and key forms, and reading a key form back for display and edit.
#include "src/search/search_rules.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>

#include "c-client/core/mail.h"
#include "c-client/rfc822/rfc822.h"
#include "src/search/search_internal.h"

namespace {

struct AttrRow {
  const char* name;
  const char* key;
  int kind;
};

const AttrRow kMessageAttributes[] = {
    {"Body", "BODY", 3},
    {"CC", "CC", 3},
    {"Comments", "HEADER Comments", 3},
    {"Date Received", "", 1},
    {"Date Sent", "", 1},
    {"Date String", "HEADER Date", 3},
    {"Deleted", "DELETED", 0},
    {"Not Deleted", "UNDELETED", 0},
    {"Draft", "DRAFT", 0},
    {"Not Draft", "UNDRAFT", 0},
    {"Encrypted", "HEADER Encrypted", 3},
    {"From", "FROM", 3},
    {"Header", "HEADER", 6},
    {"Header or Body", "TEXT", 3},
    {"In Reply To", "HEADER In-Reply-To", 3},
    {"Keyword", "KEYWORD", 5},
    {"Marked Special", "FLAGGED", 0},
    {"Not Marked Special", "UNFLAGGED", 0},
    {"Message ID", "HEADER Message-ID", 3},
    {"New", "NEW", 0},
    {"Old", "OLD", 0},
    // The header's name is spelt as it always was: rules saved with it
    // must keep finding what they found.
    {"Priority", "HEADER Priotity", 3},
    {"Read", "SEEN", 0},
    {"Unread", "UNSEEN", 0},
    {"Recent", "RECENT", 0},
    {"References", "HEADER References", 3},
    {"Replied To", "ANSWERED", 0},
    {"Not Replied To", "UNANSWERED", 0},
    {"Size", "", 2},
    {"Sender", "HEADER Sender", 3},
    {"Subject", "SUBJECT", 3},
    {"To", "TO", 3},
};

const AttrRow kBookAttributes[] = {
    {"Address", "Address", 8}, {"Alias", "Alias", 8},          {"Email", "Email", 8},
    {"Name", "Name", 8},       {"Phone number", "Phone", 8}, {"Other", "", 9},
};
const AttrRow kListAttributes[] = {{"Member", "Member", 8}, {"Name", "Name", 8}};

// The reverse table: the attribute rows with the dates and the size split
// by key. The two blanks of the received-date names are how rules were
// always displayed.
const AttrRow kReverseRows[] = {
    {"Body", "BODY", 3},
    {"CC", "CC", 3},
    {"Comments", "HEADER Comments", 3},
    {"Date Received  before", "BEFORE", 1},
    {"Date Received  on", "ON", 1},
    {"Date Received  since", "SINCE", 1},
    {"Date Sent before", "SENTBEFORE", 1},
    {"Date Sent on", "SENTON", 1},
    {"Date Sent since", "SENTSINCE", 1},
    {"Date String", "HEADER Date", 3},
    {"Deleted", "DELETED", 0},
    {"Not Deleted", "UNDELETED", 0},
    {"Draft", "DRAFT", 0},
    {"Not Draft", "UNDRAFT", 0},
    {"Encrypted", "HEADER Encrypted", 3},
    {"From", "FROM", 3},
    {"Header or Body", "TEXT", 3},
    {"Header", "HEADER", 6},
    {"In Reply To", "HEADER In-Reply-To", 3},
    {"Keyword", "KEYWORD", 5},
    {"Marked Special", "FLAGGED", 0},
    {"Not Marked Special", "UNFLAGGED", 0},
    {"Message ID", "HEADER Message-ID", 3},
    {"New", "NEW", 0},
    {"Old", "OLD", 0},
    {"Priority", "HEADER Priotity", 3},
    {"Read", "SEEN", 0},
    {"Unread", "UNSEEN", 0},
    {"Recent", "RECENT", 0},
    {"References", "HEADER References", 3},
    {"Replied To", "ANSWERED", 0},
    {"Not Replied To", "UNANSWERED", 0},
    {"larger than", "LARGER", 2},
    {"smaller than", "SMALLER", 2},
    {"Sender", "HEADER Sender", 3},
    {"Subject", "SUBJECT", 3},
    {"To", "TO", 3},
};
static_assert(std::size(kReverseRows) == 37);

const SRCH_Criterion kDateCriteria[] = {{"before", "BEFORE"}, {"on", "ON"}, {"since", "SINCE"}};
const SRCH_Criterion kSizeCriteria[] = {{"is larger than", "LARGER"},
                                        {"is not larger than", "NOT LARGER"},
                                        {"is smaller than", "SMALLER"},
                                        {"is not smaller than", "NOT SMALLER"},
                                        {"is in range", "LARGER SMALLER"}};
const SRCH_Criterion kTextCriteria[] = {{"contains", ""}, {"doesn't contain", "NOT "}};
const SRCH_Criterion kKeywordListCriteria[] = {{"is set", "KEYWORD"}, {"is not set", "UNKEYWORD"}};
const SRCH_Criterion kKeywordCriteria[] = {{"has", "KEYWORD"}, {"doesn't have", "UNKEYWORD"}};
const SRCH_Criterion kHeaderCriteria[] = {{"contains in ", ""}, {"doesn't contain in ", "NOT "}};
const SRCH_Criterion kRangeCriteria[] = {{"is in a range", "LARGER SMALLER"}};
const SRCH_Criterion kBookCriteria[] = {
    {"contains", "*%s*"}, {"starts with", "%s*"}, {"ends with", "*%s"}, {"is", "%s"}};

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

template <size_t N>
std::vector<SRCH_Criterion> List(const SRCH_Criterion (&rows)[N]) {
  return std::vector<SRCH_Criterion>(rows, rows + N);
}

std::vector<AttrRow> AttributeRows(int kind) {
  switch (kind) {
    case kSearchMessages:
      return {std::begin(kMessageAttributes), std::end(kMessageAttributes)};
    case kSrchBooks:
      return {std::begin(kBookAttributes), std::end(kBookAttributes)};
    case kSrchLists:
      return {std::begin(kListAttributes), std::end(kListAttributes)};
  }
  return {};
}

int Fail(int code) {
  srch_set_error(code);
  return 0;
}

// A text a phrase may carry: no line breaks or NULs (the key form is one
// line of an option file and of a command), and not too long.
bool TextOk(const std::string& s) {
  if (s.size() > kSearchMaxValue) return false;
  for (unsigned char c : s)
    if (c == '\r' || c == '\n' || c == '\0') return false;
  return true;
}

// An IMAP atom: what a keyword or a header name may be.
bool AtomOk(const std::string& s, bool header_name) {
  if (s.empty() || s.size() > kSearchMaxValue) return false;
  for (unsigned char c : s) {
    if (c <= ' ' || c >= 0x7f || std::strchr("(){%*\"\\]", c)) return false;
    if (header_name && c == ':') return false;
  }
  return true;
}

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...) {
  va_list ap, copy;
  va_start(ap, fmt);
  va_copy(copy, ap);
  const int n = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string out(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, copy);
  va_end(copy);
  return out;
}

bool Blank(char c) { return c == ' ' || c == '\t'; }

std::string TrimRight(std::string s) {
  while (!s.empty() && Blank(s.back())) s.pop_back();
  return s;
}

// Tokens of a key: atoms and quoted strings (unquoted). False on a broken
// quoted string.
bool Tokens(const char* p, std::vector<std::string>* out) {
  out->clear();
  for (;;) {
    while (Blank(*p)) ++p;
    if (!*p) return true;
    std::string t;
    if (*p == '"') {
      for (++p;; ++p) {
        if (!*p) return false;
        if (*p == '"') {
          ++p;
          break;
        }
        if (*p == '\\' && p[1]) ++p;
        t += *p;
      }
    } else {
      while (*p && !Blank(*p)) t += *p++;
    }
    out->push_back(t);
  }
}

bool Number(const std::string& s, long* out) {
  if (s.empty() || s.size() > 18) return false;
  long v = 0;
  for (char c : s) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    v = v * 10 + (c - '0');
  }
  *out = v;
  return true;
}

std::vector<SRCH_Criterion> CriterionPair(int kind) {
  switch (kind) {
    case 3:
      return List(kTextCriteria);
    case 4:
      return List(kKeywordListCriteria);
    case 5:
      return List(kKeywordCriteria);
    case 6:
      return List(kHeaderCriteria);
  }
  return {};
}

}  // namespace

// --- Tables -------------------------------------------------------------------

SRCH_INFO* SRCH_IMAPInfoNew() {
  auto* info = new (std::nothrow) SRCH_INFO;
  if (!info) {
    srch_set_error(kSrchErrMemory);
    return nullptr;
  }
  info->scope = "IMAP";
  info->kind = kSearchMessages;
  info->attributes = SRCH_GetAttributes(kSearchMessages);
  info->title = "Search Messages";
  return info;
}

SRCH_INFO* SRCH_IMSPInfoNew(int kind) {
  if (kind != kSrchBooks && kind != kSrchLists) {
    srch_set_error(kSrchErrNotFound);
    return nullptr;
  }
  auto* info = new (std::nothrow) SRCH_INFO;
  if (!info) {
    srch_set_error(kSrchErrMemory);
    return nullptr;
  }
  info->scope = "IMSP";
  info->kind = kind;
  info->attributes = SRCH_GetAttributes(kind);
  info->title = kind == kSrchBooks ? "Search Address Books" : "Search Lists";
  return info;
}

void SRCH_InfoDestroy(SRCH_INFO*& info) {
  delete info;
  info = nullptr;
}

std::vector<SRCH_Attribute> SRCH_GetAttributes(int kind) {
  std::vector<SRCH_Attribute> out;
  for (const AttrRow& r : AttributeRows(kind)) {
    SRCH_Attribute a{r.name, r.key, r.kind, {}};
    if (a.kind == kSrchValKeywordList) a.keywords = {"flag1", "flag2", "flag3", "flag4", "flag5"};
    out.push_back(std::move(a));
  }
  return out;
}

std::vector<SRCH_Criterion> SRCH_GetCriterion(int kind, int value_kind) {
  if (kind == kSrchBooks || kind == kSrchLists) return List(kBookCriteria);
  switch (value_kind) {
    case 1:
      return List(kDateCriteria);
    case 2:
      return List(kSizeCriteria);
    case 7:
      return List(kRangeCriteria);
    case 8:
    case 9:
      return List(kBookCriteria);
  }
  return CriterionPair(value_kind);
}

int SRCH_FindAttribute(int kind, const char* name, SRCH_Attribute* out) {
  if (!name) return Fail(kSrchErrNotFound);
  for (SRCH_Attribute& a : SRCH_GetAttributes(kind))
    if (a.name == name) {
      *out = std::move(a);
      return 1;
    }
  return Fail(kSrchErrNotFound);
}

int SRCH_FindCriterion(int kind, int value_kind, const char* name, SRCH_Criterion* out) {
  if (!name) return Fail(kSrchErrNotFound);
  for (SRCH_Criterion& c : SRCH_GetCriterion(kind, value_kind))
    if (c.name == name) {
      *out = std::move(c);
      return 1;
    }
  return Fail(kSrchErrNotFound);
}

int SRCH_FindSearchKey(int kind, const char* name, std::string* out) {
  SRCH_Attribute a;
  if (!SRCH_FindAttribute(kind, name, &a)) return 0;
  *out = a.key;
  return 1;
}

int SRCH_FindIMAPSearchKey(const char* phrase, std::string* name, std::string* key, int* kind) {
  if (!phrase) return Fail(kSrchErrNotFound);
  while (Blank(*phrase)) ++phrase;
  const AttrRow* best = nullptr;
  for (const AttrRow& r : kReverseRows) {
    const size_t n = std::strlen(r.key);
    // Keys are words: "HEADER" must not claim "HEADERS", nor "ON" "OLD".
    if (strncasecmp(phrase, r.key, n) == 0 && (phrase[n] == '\0' || Blank(phrase[n])) &&
        (!best || n > std::strlen(best->key)))
      best = &r;
  }
  if (!best) return Fail(kSrchErrNotFound);
  *name = best->name;
  *key = best->key;
  *kind = best->kind;
  return 1;
}

std::vector<std::string> SRCH_IMAPCreateTargetList() { return {"Message"}; }
std::vector<std::string> SRCH_IMSPCreateTargetList() { return {"Person", "List"}; }

// --- Values -------------------------------------------------------------------

std::string SRCH_Quote(const std::string& text) {
  std::string q = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') q += '\\';
    q += c;
  }
  return q + '"';
}

std::string SRCH_DateToIMAP(const char* input) {
  int day = 0, month = 0, year = 0;
  if (!input || std::sscanf(input, "%2d/%2d/%4d", &day, &month, &year) != 3) return "";
  // A day outside the month's range would make a key no server accepts.
  if (month < 1 || month > 12 || day < 1 || day > 31 || year < 0) return "";
  return Format("%d-%s-%d", day, kMonths[month - 1], year);
}

std::string SRCH_DateFromIMAP(const char* imap_date) {
  int day = 0, year = 0;
  char month[4] = {0};
  if (!imap_date || std::sscanf(imap_date, "%2d-%3[A-Za-z]-%4d", &day, month, &year) != 3) return "";
  // Day 31 has never been read back: rules saved with it are shown as
  // they are stored rather than changed by an edit.
  if (day < 1 || day > 30) return "";
  for (int m = 0; m < 12; ++m)
    if (strcasecmp(month, kMonths[m]) == 0) return Format("%02d/%02d/%04d", day, m + 1, year);
  return "";
}

std::vector<std::string> SRCH_SplitRule(const std::string& rule) {
  std::vector<std::string> out;
  std::string cur;
  bool quoted = false;
  for (size_t i = 0; i < rule.size(); ++i) {
    const char c = rule[i];
    if (quoted && c == '\\' && i + 1 < rule.size()) {
      cur += c;
      cur += rule[++i];
      continue;
    }
    if (c == '"') quoted = !quoted;
    if (c == '|' && !quoted) {
      out.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!cur.empty() || !out.empty()) out.push_back(cur);
  return out;
}

std::string SRCH_JoinRule(const std::vector<std::string>& phrases) {
  std::string out;
  for (size_t i = 0; i < phrases.size(); ++i) out += (i ? "|" : "") + phrases[i];
  return out;
}

std::vector<SRCH_RuleAddress> SRCH_ParseRule(const std::string& rule) {
  std::vector<SRCH_RuleAddress> out;
  for (const std::string& phrase : SRCH_SplitRule(rule)) {
    std::vector<std::string> t;
    if (!Tokens(phrase.c_str(), &t) || t.size() != 2 || t[1].size() > kSearchMaxValue) continue;
    static const char* const kAddressKeys[] = {"FROM", "TO", "CC", "BCC"};
    if (std::none_of(std::begin(kAddressKeys), std::end(kAddressKeys),
                     [&](const char* k) { return strcasecmp(k, t[0].c_str()) == 0; }))
      continue;
    MailAddress* list = nullptr;
    rfc822_parse_adrlist(&list, t[1].data(), nullptr);
    for (const MailAddress* a = list; a; a = a->next) {
      if (a->error || !a->mailbox || !*a->mailbox || !a->host || !*a->host) continue;
      std::string host = a->host;
      for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      std::string address = Format("%s@%s", a->mailbox, host.c_str());
      std::string name = a->personal && *a->personal ? a->personal : address;
      // An address given twice stands once, under a name if either gave one.
      auto same = std::find_if(out.begin(), out.end(), [&](const SRCH_RuleAddress& r) {
        return strcasecmp(r.address.c_str(), address.c_str()) == 0;
      });
      if (same == out.end())
        out.push_back({std::move(name), std::move(address)});
      else if (same->name == same->address)
        same->name = std::move(name);
    }
    mail_free_address(&list);
  }
  std::stable_sort(out.begin(), out.end(), [](const SRCH_RuleAddress& a, const SRCH_RuleAddress& b) {
    return strcasecmp(a.name.c_str(), b.name.c_str()) < 0;
  });
  return out;
}

// --- Building a phrase ----------------------------------------------------------

int SRCH_AddPhrase(int kind, const char* attribute, const char* criterion, const SRCH_Value& v,
                   std::string* out_display, std::string* out_key) {
  out_display->clear();
  out_key->clear();
  SRCH_Attribute a;
  if (!SRCH_FindAttribute(kind, attribute, &a)) return 0;
  int value_kind = a.kind;
  SRCH_Criterion c;
  bool have_c = criterion && SRCH_FindCriterion(kind, value_kind, criterion, &c);
  // "is in range" takes two sizes and the range's own criterion.
  if (have_c && value_kind == kSrchValSize && c.key == "LARGER SMALLER") {
    value_kind = kSrchValSizeRange;
    c = kRangeCriteria[0];
  }
  if (value_kind != kSrchValNone && !have_c) return Fail(kSrchErrNotFound);
  std::string display, key;
  switch (value_kind) {
    case kSrchValNone:
      display = a.name;
      key = a.key;
      break;
    case kSrchValDate: {
      const std::string date = SRCH_DateToIMAP(v.text.c_str());
      if (date.empty()) return Fail(kSrchErrNotFound);
      display = a.name + " " + c.name + " " + date;
      key = (a.name == "Date Sent" ? "SENT" : "") + c.key + " " + date;
      break;
    }
    case kSrchValSize:
      if (v.number < 0) return Fail(kSrchErrNotFound);
      display = Format("%s %s %ld", a.name.c_str(), c.name.c_str(), v.number);
      key = Format("%s %ld", c.key.c_str(), v.number);
      break;
    case kSrchValSizeRange:
      if (v.number < 0 || v.number2 < 0) return Fail(kSrchErrNotFound);
      display = Format("%s %s (%ld,%ld)", a.name.c_str(), c.name.c_str(), v.number, v.number2);
      key = Format("LARGER %ld SMALLER %ld", v.number, v.number2);
      break;
    case kSrchValText:
      if (!TextOk(v.text)) return Fail(kSrchErrNotFound);
      display = a.name + " " + c.name + " " + v.text;
      key = c.key + a.key + " " + SRCH_Quote(v.text);
      break;
    case kSrchValKeywordList:
    case kSrchValKeyword:
      // A keyword goes on the wire as an atom: anything else is no keyword.
      if (!AtomOk(v.text, false)) return Fail(kSrchErrNotFound);
      display = a.name + " " + c.name + " " + v.text;
      key = c.key + " " + v.text;
      break;
    case kSrchValHeader:
      if (!AtomOk(v.text, true) || !TextOk(v.text2)) return Fail(kSrchErrNotFound);
      display = a.name + " " + c.name + " " + v.text + " " + v.text2;
      key = c.key + a.key + " " + SRCH_Quote(v.text) + " " + SRCH_Quote(v.text2);
      break;
    case kSrchValBookText:
    case kSrchValBookField: {
      const std::string field = value_kind == kSrchValBookField ? v.text : a.key;
      const std::string text = value_kind == kSrchValBookField ? v.text2 : v.text;
      if (!TextOk(field) || !TextOk(text) || field.empty()) return Fail(kSrchErrNotFound);
      const std::string shown = value_kind == kSrchValBookField
                                    ? (field.find(' ') != std::string::npos ? "\"" + field + "\"" : field)
                                    : a.name;
      display = shown + " " + c.name + " " + text;
      const size_t at = c.key.find("%s");
      key = SRCH_Quote(field) + " " + SRCH_Quote(c.key.substr(0, at) + text + c.key.substr(at + 2));
      break;
    }
    default:
      return Fail(kSrchErrNotFound);
  }
  *out_display = display;
  *out_key = key;
  return 1;
}

// --- Reading a key back -----------------------------------------------------------

int SRCH_IMAPConvCriterionPhrase(int negated, const char* name, const SRCH_Criterion pair[2], const char* rest,
                                 std::string* out_display) {
  std::vector<std::string> tokens;
  if (!Tokens(rest ? rest : "", &tokens) || tokens.empty()) return Fail(kSrchErrNotFound);
  std::string text;
  for (size_t i = 0; i < tokens.size(); ++i) text += (i ? " " : "") + tokens[i];
  *out_display = std::string(name) + " " + pair[negated ? 1 : 0].name + " " + text;
  return 1;
}

namespace {

// The pieces of a key form: negation, the row, the tokens after its key.
struct Parsed {
  bool negated = false;
  std::string name, key;
  int kind = 0;
  std::vector<std::string> args;
};

bool ParseKey(const char* key, Parsed* out) {
  if (!key) return false;
  const std::string text = TrimRight(key);
  const char* p = text.c_str();
  while (Blank(*p)) ++p;
  if (strncasecmp(p, "NOT", 3) == 0 && Blank(p[3])) {
    out->negated = true;
    p += 3;
    while (Blank(*p)) ++p;
  }
  if (!SRCH_FindIMAPSearchKey(p, &out->name, &out->key, &out->kind)) return false;
  p += out->key.size();
  // "UNKEYWORD x" reads as a negated "KEYWORD x".
  return Tokens(p, &out->args);
}

}  // namespace

int SRCH_IMAPConvPhrase(const char* key, std::string* out_display) {
  out_display->clear();
  Parsed k;
  if (key) {
    const char* p = key;
    while (Blank(*p)) ++p;
    if (strncasecmp(p, "UNKEYWORD", 9) == 0 && Blank(p[9])) {
      std::string rest = std::string("NOT KEYWORD") + (p + 9);
      return SRCH_IMAPConvPhrase(rest.c_str(), out_display);
    }
  }
  if (!ParseKey(key, &k)) return Fail(kSrchErrNotFound);
  switch (k.kind) {
    case 0:
      if (k.negated || !k.args.empty()) return Fail(kSrchErrNotFound);
      *out_display = k.name;
      return 1;
    case 1:
      // A negated date was never offered, so it has no display form.
      if (k.negated || k.args.size() != 1) return Fail(kSrchErrNotFound);
      *out_display = k.name + " " + k.args[0];
      return 1;
    case 2: {
      long a = 0, b = 0;
      const char* prefix = k.negated ? "Size is not" : "Size is";
      if (k.args.size() == 1 && Number(k.args[0], &a)) {
        *out_display = Format("%s %s %s", prefix, k.name.c_str(), k.args[0].c_str());
        return 1;
      }
      if (k.key == "LARGER" && k.args.size() == 3 && strcasecmp(k.args[1].c_str(), "SMALLER") == 0 &&
          Number(k.args[0], &a) && Number(k.args[2], &b)) {
        *out_display = Format("%s %s (%s,%s)", prefix, "is in a range", k.args[0].c_str(), k.args[2].c_str());
        return 1;
      }
      return Fail(kSrchErrNotFound);
    }
    default: {
      const std::vector<SRCH_Criterion> pair = CriterionPair(k.kind);
      if (pair.size() != 2) return Fail(kSrchErrNotFound);
      if (k.args.size() != (k.kind == 6 ? 2u : 1u)) return Fail(kSrchErrNotFound);
      std::string rest;
      for (const std::string& t : k.args) rest += " " + SRCH_Quote(t);
      return SRCH_IMAPConvCriterionPhrase(k.negated, k.name.c_str(), pair.data(), rest.c_str(), out_display);
    }
  }
}

int SRCH_IMAPEditPhrase(const char* key, std::string* attribute, std::string* criterion, SRCH_Value* value) {
  *value = SRCH_Value{};
  Parsed k;
  const std::string unkeyword = key ? TrimRight(key) : "";
  std::string text = unkeyword;
  size_t lead = text.find_first_not_of(" \t");
  if (lead != std::string::npos && strncasecmp(text.c_str() + lead, "UNKEYWORD ", 10) == 0)
    text = "NOT KEYWORD " + text.substr(lead + 10);
  if (!ParseKey(text.c_str(), &k)) return Fail(kSrchErrNotFound);
  long a = 0, b = 0;
  switch (k.kind) {
    case 0:
      if (k.negated || !k.args.empty()) return Fail(kSrchErrNotFound);
      *attribute = k.name;
      criterion->clear();
      return 1;
    case 1: {
      if (k.negated || k.args.size() != 1) return Fail(kSrchErrNotFound);
      const std::string date = SRCH_DateFromIMAP(k.args[0].c_str());
      if (date.empty()) return Fail(kSrchErrNotFound);
      const bool sent = k.key.rfind("SENT", 0) == 0;
      *attribute = sent ? "Date Sent" : "Date Received";
      *criterion = k.name.substr(k.name.rfind(' ') + 1);
      *value = SRCH_Value{kSrchValDate, 0, 0, date, ""};
      return 1;
    }
    case 2:
      *attribute = "Size";
      if (k.args.size() == 1 && Number(k.args[0], &a)) {
        *criterion = std::string(k.negated ? "is not " : "is ") + k.name;
        *value = SRCH_Value{kSrchValSize, a, 0, "", ""};
        return 1;
      }
      if (!k.negated && k.key == "LARGER" && k.args.size() == 3 && strcasecmp(k.args[1].c_str(), "SMALLER") == 0 &&
          Number(k.args[0], &a) && Number(k.args[2], &b)) {
        *criterion = "is in range";
        *value = SRCH_Value{kSrchValSizeRange, a, b, "", ""};
        return 1;
      }
      return Fail(kSrchErrNotFound);
    default: {
      const std::vector<SRCH_Criterion> pair = CriterionPair(k.kind);
      if (pair.size() != 2 || k.args.size() != (k.kind == 6 ? 2u : 1u)) return Fail(kSrchErrNotFound);
      *attribute = k.name;
      *criterion = pair[k.negated ? 1 : 0].name;
      *value = SRCH_Value{k.kind, 0, 0, k.args[0], k.kind == 6 ? k.args[1] : ""};
      return 1;
    }
  }
}

std::string SRCH_ConvIMSPSearchKey(const char* word) {
  const std::string w = word ? word : "";
  for (const AttrRow& r : kBookAttributes)
    if (*r.key && w == r.key) return r.name;
  for (const AttrRow& r : kListAttributes)
    if (w == r.key) return r.name;
  return w;
}

namespace {

// "attr" "pattern" into its two words and the criterion its stars say.
bool ParseIMSP(const char* key, std::string* field, std::string* criterion, std::string* text) {
  std::vector<std::string> t;
  if (!key || !Tokens(key, &t) || t.size() != 2 || t[0].empty()) return false;
  *field = t[0];
  const std::string& p = t[1];
  // One character is a value, even a lone star.
  const bool lead = p.size() > 1 && p.front() == '*';
  const bool trail = p.size() > 1 && p.back() == '*';
  if (lead && trail && p.size() > 2) {
    *criterion = "contains";
    *text = p.substr(1, p.size() - 2);
  } else if (trail && !lead) {
    *criterion = "starts with";
    *text = p.substr(0, p.size() - 1);
  } else if (lead && !trail) {
    *criterion = "ends with";
    *text = p.substr(1);
  } else {
    *criterion = "is";
    *text = p;
  }
  return true;
}

}  // namespace

int SRCH_IMSPConvPhrase(const char* key, std::string* out_display) {
  out_display->clear();
  std::string field, criterion, text;
  if (!ParseIMSP(key, &field, &criterion, &text)) return Fail(kSrchErrNotFound);
  std::string name = SRCH_ConvIMSPSearchKey(field.c_str());
  if (name.find(' ') != std::string::npos) name = "\"" + name + "\"";
  *out_display = name + " " + criterion + " " + text;
  return 1;
}

int SRCH_IMSPEditPhrase(const char* key, std::string* attribute, std::string* criterion, SRCH_Value* value) {
  std::string field, text;
  if (!ParseIMSP(key, &field, criterion, &text)) return Fail(kSrchErrNotFound);
  bool known = false;
  for (const AttrRow& r : kBookAttributes) known |= *r.key && field == r.key;
  for (const AttrRow& r : kListAttributes) known |= field == r.key;
  const std::string name = SRCH_ConvIMSPSearchKey(field.c_str());
  if (known) {
    *attribute = name;
    *value = SRCH_Value{kSrchValBookText, 0, 0, text, ""};
  } else {
    *attribute = "Other";
    *value = SRCH_Value{kSrchValBookField, 0, 0, field, text};
  }
  return 1;
}
