// Local evaluation of IMAP SEARCH programs: parsing with limits, Unicode
// simple case folding, and the tests of each search key.
#include "src/model/local_search.h"

#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "src/model/case_fold_table.h"

// --- Case folding -------------------------------------------------------------------

unsigned MM_SearchFoldCodePoint(unsigned cp) {
  if (cp < 0x80) return cp >= 'A' && cp <= 'Z' ? cp + 32 : cp;
  // Runs are sorted by their first code point.
  size_t lo = 0, hi = std::size(srch_fold::kFoldRuns);
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    if (srch_fold::kFoldRuns[mid].last < cp)
      lo = mid + 1;
    else
      hi = mid;
  }
  if (lo == std::size(srch_fold::kFoldRuns)) return cp;
  const srch_fold::FoldRun& r = srch_fold::kFoldRuns[lo];
  if (cp < r.first || (cp - r.first) % r.stride != 0) return cp;
  return static_cast<unsigned>(static_cast<int>(cp) + r.delta);
}

namespace {

// One UTF-8 sequence at p (n bytes left): the code point and its length,
// or 0 when the bytes are not well-formed UTF-8.
int Decode(const unsigned char* p, size_t n, unsigned* cp) {
  if (p[0] < 0x80) {
    *cp = p[0];
    return 1;
  }
  int len = p[0] >= 0xF0 && p[0] <= 0xF4 ? 4 : p[0] >= 0xE0 ? 3 : p[0] >= 0xC2 && p[0] < 0xE0 ? 2 : 0;
  if (!len || static_cast<size_t>(len) > n) return 0;
  unsigned v = p[0] & (0x7F >> len);
  for (int i = 1; i < len; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    v = (v << 6) | (p[i] & 0x3F);
  }
  if ((len == 3 && v < 0x800) || (len == 4 && (v < 0x10000 || v > 0x10FFFF)) || (v >= 0xD800 && v < 0xE000))
    return 0;
  *cp = v;
  return len;
}

void Encode(unsigned cp, std::string* out) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

namespace {

// Appends the folded form of n bytes at data to out; with `from`, also the
// offset in data of each byte appended.
void FoldAppend(const char* data, size_t n, std::string* out, std::vector<size_t>* from = nullptr) {
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  for (size_t i = 0; i < n;) {
    const size_t at = i;
    if (p[i] < 0x80) {
      out->push_back(static_cast<char>(p[i] >= 'A' && p[i] <= 'Z' ? p[i] + 32 : p[i]));
      ++i;
    } else {
      unsigned cp;
      const int len = Decode(p + i, n - i, &cp);
      if (!len) {
        out->push_back(static_cast<char>(p[i++]));
      } else {
        Encode(MM_SearchFoldCodePoint(cp), out);
        i += static_cast<size_t>(len);
      }
    }
    if (from) from->resize(out->size(), at);
  }
}

// Bytes at the end of n bytes at p that start a UTF-8 sequence the block
// does not finish (0 to 3).
size_t CutSequence(const unsigned char* p, size_t n) {
  for (size_t k = 1; k <= 3 && k <= n; ++k) {
    const unsigned char c = p[n - k];
    if ((c & 0xC0) == 0x80) continue;  // a continuation byte: look further back
    const size_t len = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    return len > k ? k : 0;
  }
  return 0;
}

}  // namespace

std::string MM_SearchFoldCase(const std::string& text, std::vector<size_t>* from) {
  std::string out;
  out.reserve(text.size());
  if (from) from->clear();
  FoldAppend(text.data(), text.size(), &out, from);
  if (from) from->push_back(text.size());
  return out;
}

SearchTextScan::SearchTextScan(const std::vector<std::string>& needles, std::vector<char>* found)
    : needles_(needles), found_(found) {
  found_->resize(needles.size(), 0);
  for (size_t i = 0; i < needles.size(); ++i) {
    if (!(*found_)[i]) ++left_;
    if (needles[i].size() > keep_ + 1) keep_ = needles[i].size() - 1;
  }
}

void SearchTextScan::Feed(const char* data, size_t size) {
  if (!left_ || !size) return;
  if (!carry_.empty()) {
    // Finish the sequence the last block cut, with the continuation bytes
    // this one starts with; a sequence that another byte breaks is taken
    // as the bytes it is, as folding the whole text at once would.
    const auto lead = static_cast<unsigned char>(carry_[0]);
    const size_t need = (lead >= 0xF0 ? 4u : lead >= 0xE0 ? 3u : 2u) - carry_.size();
    size_t take = 0;
    while (take < need && take < size && (static_cast<unsigned char>(data[take]) & 0xC0) == 0x80) ++take;
    carry_.append(data, take);
    data += take;
    size -= take;
    if (take < need && !size) return;  // the block ended again inside it
    FoldAppend(carry_.data(), carry_.size(), &window_);
    carry_.clear();
  }
  const size_t cut = CutSequence(reinterpret_cast<const unsigned char*>(data), size);
  FoldAppend(data, size - cut, &window_);
  carry_.assign(data + size - cut, cut);
  Match();
}

void SearchTextScan::Match() {
  for (size_t i = 0; i < needles_.size(); ++i) {
    if ((*found_)[i]) continue;
    if (needles_[i].empty() || window_.find(needles_[i]) != std::string::npos) {
      (*found_)[i] = 1;
      --left_;
    }
  }
  // What a needle could still start with.
  if (window_.size() > keep_) window_.erase(0, window_.size() - keep_);
}

void SearchTextScan::EndSegment() {
  if (!carry_.empty() && left_) {
    // A sequence the text never finished: its bytes as they are.
    FoldAppend(carry_.data(), carry_.size(), &window_);
    Match();
  }
  carry_.clear();
  window_.clear();
}

// --- Headers ---------------------------------------------------------------------------

std::vector<std::string> MM_SearchHeaderValues(const std::string& headers, const std::string& name) {
  std::vector<std::string> out;
  size_t pos = 0;
  while (pos < headers.size()) {
    size_t eol = headers.find('\n', pos);
    if (eol == std::string::npos) eol = headers.size();
    const bool match = eol - pos > name.size() && strncasecmp(headers.c_str() + pos, name.c_str(), name.size()) == 0;
    size_t colon = pos + name.size();
    while (match && colon < eol && (headers[colon] == ' ' || headers[colon] == '\t')) ++colon;
    if (match && colon < eol && headers[colon] == ':') {
      std::string value = headers.substr(colon + 1, eol - colon - 1);
      // Continuation lines belong to the value.
      while (eol + 1 < headers.size() && (headers[eol + 1] == ' ' || headers[eol + 1] == '\t')) {
        size_t next = headers.find('\n', eol + 1);
        if (next == std::string::npos) next = headers.size();
        while (!value.empty() && (value.back() == '\r')) value.pop_back();
        value += headers.substr(eol + 1, next - eol - 1);
        eol = next;
      }
      while (!value.empty() && (value.back() == '\r' || value.back() == ' ' || value.back() == '\t'))
        value.pop_back();
      size_t lead = value.find_first_not_of(" \t");
      out.push_back(mime_display_text(lead == std::string::npos ? "" : value.c_str() + lead));
    }
    pos = eol + 1;
  }
  return out;
}

// --- Parsing -------------------------------------------------------------------------------

namespace {

struct Parser {
  const char* p;
  const char* end;
  SearchProgram* prog;
  std::string* error;
  int depth = 0;

  bool Fail(const std::string& why) {
    *error = why;
    return false;
  }
  void Blanks() {
    while (p < end && (*p == ' ' || *p == '\t')) ++p;
  }
  bool Word(std::string* out) {
    Blanks();
    const char* s = p;
    while (p < end && *p != ' ' && *p != '\t' && *p != '(' && *p != ')') ++p;
    out->assign(s, p);
    return !out->empty();
  }
  // An atom, a quoted string or a literal.
  bool String(std::string* out) {
    out->clear();
    Blanks();
    if (p >= end) return Fail("A search key is missing its value");
    if (*p == '"') {
      for (++p; p < end; ++p) {
        if (*p == '"') {
          ++p;
          return true;
        }
        if (*p == '\\' && p + 1 < end) ++p;
        if (out->size() >= kSearchMaxString) return Fail("A search text is too long");
        out->push_back(*p);
      }
      return Fail("A quoted search text has no end");
    }
    if (*p == '{') {
      size_t n = 0;
      const char* q = p + 1;
      while (q < end && *q >= '0' && *q <= '9') {
        n = n * 10 + static_cast<size_t>(*q++ - '0');
        if (n > kSearchMaxString) return Fail("A search text is too long");
      }
      if (q < end && *q == '+') ++q;
      if (q == p + 1 || q >= end || *q++ != '}') return Fail("A search literal is malformed");
      if (q < end && *q == '\r') ++q;
      if (q >= end || *q++ != '\n' || static_cast<size_t>(end - q) < n) return Fail("A search literal is cut short");
      out->assign(q, n);
      p = q + n;
      return true;
    }
    if (!Word(out)) return Fail("A search key is missing its value");
    return true;
  }
  bool Number(unsigned long* out) {
    std::string w;
    if (!Word(&w) || w.size() > 18 || w.find_first_not_of("0123456789") != std::string::npos)
      return Fail("A search size is not a number");
    *out = std::stoul(w);
    return true;
  }
  bool Date(unsigned long* out) {
    std::string w;
    if (!String(&w)) return false;
    MessageElt elt{};
    if (w.size() > 40 || !mail_parse_date(&elt, w.c_str())) return Fail("A search date is not a date: " + w);
    *out = elt.year * 512ul + elt.month * 32ul + elt.day;
    return true;
  }
  int Needle(const std::string& folded) {
    auto& list = prog->needles;
    const auto at = std::find(list.begin(), list.end(), folded);
    if (at != list.end()) return static_cast<int>(at - list.begin());
    list.push_back(folded);
    return static_cast<int>(list.size() - 1);
  }
  int Add(SearchNode node) {
    if (prog->nodes.size() >= kSearchMaxNodes) return -1;
    prog->nodes.push_back(std::move(node));
    return static_cast<int>(prog->nodes.size() - 1);
  }

  // One search key (with its arguments); the node's index, or -1.
  int Key() {
    Blanks();
    if (p >= end) return Fail("A search key is missing"), -1;
    if (++depth > kSearchMaxDepth) return Fail("A search is nested too deeply"), -1;
    struct DepthGuard {
      int& d;
      ~DepthGuard() { --d; }
    } guard{depth};
    SearchNode n;
    if (*p == '(') {
      ++p;
      n.op = SearchNode::kAnd;
      for (;;) {
        Blanks();
        if (p < end && *p == ')') {
          ++p;
          break;
        }
        if (p >= end) return Fail("A parenthesis of the search is not closed"), -1;
        const int kid = Key();
        if (kid < 0) return -1;
        n.kids.push_back(kid);
      }
      if (n.kids.empty()) return Fail("An empty parenthesis in the search"), -1;
      return Add(std::move(n));
    }
    std::string word;
    Word(&word);
    for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    struct FlagKey {
      const char* name;
      int flag;
      bool set;
    };
    static const FlagKey kFlags[] = {
        {"SEEN", kSearchFlagSeen, true},         {"UNSEEN", kSearchFlagSeen, false},
        {"DELETED", kSearchFlagDeleted, true},   {"UNDELETED", kSearchFlagDeleted, false},
        {"FLAGGED", kSearchFlagFlagged, true},   {"UNFLAGGED", kSearchFlagFlagged, false},
        {"ANSWERED", kSearchFlagAnswered, true}, {"UNANSWERED", kSearchFlagAnswered, false},
        {"DRAFT", kSearchFlagDraft, true},       {"UNDRAFT", kSearchFlagDraft, false},
        {"RECENT", kSearchFlagRecent, true},
    };
    for (const FlagKey& f : kFlags)
      if (word == f.name) {
        n.op = f.set ? SearchNode::kFlag : SearchNode::kUnflag;
        n.flag = f.flag;
        return Add(std::move(n));
      }
    struct TextKey {
      const char* name;
      SearchNode::Op op;
      const char* field;
    };
    static const TextKey kTexts[] = {{"FROM", SearchNode::kHeader, "From"}, {"TO", SearchNode::kHeader, "To"},
                                     {"CC", SearchNode::kHeader, "Cc"},     {"BCC", SearchNode::kHeader, "Bcc"},
                                     {"SUBJECT", SearchNode::kHeader, "Subject"},
                                     {"BODY", SearchNode::kBody, ""},       {"TEXT", SearchNode::kText, ""}};
    for (const TextKey& t : kTexts)
      if (word == t.name) {
        std::string value;
        if (!String(&value)) return -1;
        n.op = t.op;
        n.field = t.field;
        n.folded = MM_SearchFoldCase(value);
        if (t.op != SearchNode::kHeader) n.needle = Needle(n.folded);
        prog->needs_headers |= t.op != SearchNode::kBody;
        prog->needs_body |= t.op != SearchNode::kHeader;
        return Add(std::move(n));
      }
    struct DateKey {
      const char* name;
      SearchNode::Op op;
    };
    static const DateKey kDates[] = {{"BEFORE", SearchNode::kBefore},         {"ON", SearchNode::kOn},
                                     {"SINCE", SearchNode::kSince},           {"SENTBEFORE", SearchNode::kSentBefore},
                                     {"SENTON", SearchNode::kSentOn},         {"SENTSINCE", SearchNode::kSentSince}};
    for (const DateKey& d : kDates)
      if (word == d.name) {
        if (!Date(&n.number)) return -1;
        n.op = d.op;
        prog->needs_headers |= word.rfind("SENT", 0) == 0;
        return Add(std::move(n));
      }
    if (word == "ALL" || word == "NEW" || word == "OLD") {
      n.op = word == "ALL" ? SearchNode::kAll : word == "NEW" ? SearchNode::kNew : SearchNode::kOld;
      return Add(std::move(n));
    }
    if (word == "LARGER" || word == "SMALLER") {
      if (!Number(&n.number)) return -1;
      n.op = word == "LARGER" ? SearchNode::kLarger : SearchNode::kSmaller;
      return Add(std::move(n));
    }
    if (word == "KEYWORD" || word == "UNKEYWORD") {
      if (!String(&n.field)) return -1;
      n.op = word == "KEYWORD" ? SearchNode::kKeyword : SearchNode::kUnkeyword;
      return Add(std::move(n));
    }
    if (word == "HEADER") {
      std::string value;
      if (!String(&n.field) || !String(&value)) return -1;
      n.op = SearchNode::kHeader;
      n.folded = MM_SearchFoldCase(value);
      prog->needs_headers = true;
      return Add(std::move(n));
    }
    if (word == "NOT" || word == "OR") {
      n.op = word == "NOT" ? SearchNode::kNot : SearchNode::kOr;
      for (int i = 0; i < (word == "NOT" ? 1 : 2); ++i) {
        const int kid = Key();
        if (kid < 0) return -1;
        n.kids.push_back(kid);
      }
      return Add(std::move(n));
    }
    if (error->empty()) Fail("Unknown search key: " + word.substr(0, 64));
    return -1;
  }
};

}  // namespace

int MM_SearchParseProgram(const char* text, SearchProgram* out, std::string* error) {
  *out = SearchProgram{};
  error->clear();
  if (!text) return *error = "No search", 0;
  const size_t n = std::strlen(text);
  if (n > kSearchMaxProgram) return *error = "The search is too long", 0;
  out->nodes.push_back(SearchNode{SearchNode::kAnd, 0, "", "", 0, {}, -1});
  Parser parser{text, text + n, out, error};
  parser.Blanks();
  // A charset names the program's text: only UTF-8 (and ASCII, its part).
  if (static_cast<size_t>(parser.end - parser.p) > 8 && strncasecmp(parser.p, "CHARSET", 7) == 0 &&
      (parser.p[7] == ' ' || parser.p[7] == '\t')) {
    parser.p += 7;
    std::string charset;
    if (!parser.String(&charset)) return 0;
    if (strcasecmp(charset.c_str(), "UTF-8") != 0 && strcasecmp(charset.c_str(), "US-ASCII") != 0)
      return *error = "Unknown search charset: " + charset.substr(0, 64), 0;
  }
  for (;;) {
    parser.Blanks();
    if (parser.p >= parser.end) break;
    const int kid = parser.Key();
    if (kid < 0) {
      if (error->empty()) *error = "The search has too many keys";
      return 0;
    }
    out->nodes[0].kids.push_back(kid);
  }
  if (out->nodes[0].kids.empty()) return *error = "The search is empty", 0;
  return 1;
}

// --- Running ----------------------------------------------------------------------------------

namespace {

bool Headers(SearchMessage* m) {
  if (!m->have_headers) {
    m->have_headers = true;
    if (m->fetch_headers && !m->fetch_headers(m->ctx, &m->headers)) m->headers.clear();
  }
  return true;
}

// Whether the body holds the needle; one pass answers every needle.
bool InBody(const SearchProgram& prog, SearchMessage* m, int needle) {
  if (!m->have_body) {
    m->have_body = true;
    m->found.assign(prog.needles.size(), 0);
    if (m->scan_body && !m->scan_body(m->ctx, prog.needles, &m->found)) m->found.assign(prog.needles.size(), 0);
  }
  return needle >= 0 && static_cast<size_t>(needle) < m->found.size() && m->found[static_cast<size_t>(needle)];
}

unsigned long Sent(SearchMessage* m) {
  if (!m->sent_known) {
    m->sent_known = true;
    Headers(m);
    const std::vector<std::string> dates = MM_SearchHeaderValues(m->headers, "Date");
    MessageElt elt{};
    // Without a readable Date the message's arrival stands in for it.
    if (!dates.empty() && dates[0].size() < 200 && mail_parse_date(&elt, dates[0].c_str()))
      m->sent = elt.year * 512ul + elt.month * 32ul + elt.day;
    else
      m->sent = m->date;
  }
  return m->sent;
}

bool Contains(const std::string& folded_hay, const std::string& folded_needle) {
  return folded_needle.empty() || folded_hay.find(folded_needle) != std::string::npos;
}

bool InHeader(SearchMessage* m, const std::string& field, const std::string& needle) {
  Headers(m);
  for (const std::string& v : MM_SearchHeaderValues(m->headers, field))
    if (Contains(MM_SearchFoldCase(v), needle)) return true;
  return false;
}

bool Eval(const SearchProgram& prog, int index, SearchMessage* m) {
  const SearchNode& n = prog.nodes[static_cast<size_t>(index)];
  switch (n.op) {
    case SearchNode::kAnd:
      // Cheap tests first would change nothing but time; keys run in
      // order and stop at the first that fails.
      for (int kid : n.kids)
        if (!Eval(prog, kid, m)) return false;
      return true;
    case SearchNode::kOr:
      return Eval(prog, n.kids[0], m) || Eval(prog, n.kids[1], m);
    case SearchNode::kNot:
      return !Eval(prog, n.kids[0], m);
    case SearchNode::kAll:
      return true;
    case SearchNode::kFlag:
      return (m->flags & n.flag) != 0;
    case SearchNode::kUnflag:
      return (m->flags & n.flag) == 0;
    case SearchNode::kNew:
      return (m->flags & kSearchFlagRecent) && !(m->flags & kSearchFlagSeen);
    case SearchNode::kOld:
      return !(m->flags & kSearchFlagRecent);
    // Local folders keep no keywords: none is set, every one is unset.
    case SearchNode::kKeyword:
      return false;
    case SearchNode::kUnkeyword:
      return true;
    case SearchNode::kHeader:
      return InHeader(m, n.field, n.folded);
    case SearchNode::kBody:
      return InBody(prog, m, n.needle);
    case SearchNode::kText:
      // The header as stored, and as read (encoded words decoded).
      Headers(m);
      return Contains(MM_SearchFoldCase(m->headers), n.folded) ||
             (m->headers.find("=?") != std::string::npos &&
              Contains(MM_SearchFoldCase(mime_display_text(m->headers.c_str())), n.folded)) ||
             InBody(prog, m, n.needle);
    case SearchNode::kLarger:
      return m->size > n.number;
    case SearchNode::kSmaller:
      return m->size < n.number;
    case SearchNode::kBefore:
      return m->date < n.number;
    case SearchNode::kOn:
      return m->date == n.number;
    case SearchNode::kSince:
      return m->date >= n.number;
    case SearchNode::kSentBefore:
      return Sent(m) < n.number;
    case SearchNode::kSentOn:
      return Sent(m) == n.number;
    case SearchNode::kSentSince:
      return Sent(m) >= n.number;
  }
  return false;
}

// Texts come from a read-only stream of the search's own: reading a body
// there marks nothing seen on disk, and its texts go when it closes.
struct Side {
  MailStream* stream;
  unsigned long msgno;
};

bool TakeText(MailText* text, std::string* out) {
  if (!text || !text->data) return false;
  if (text->kind == kTextFile) {
    std::ifstream in(text->data, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    *out = ss.str();
    // The file is dropped with the text; fetch anew next time.
    text->consumed = 1;
    return true;
  }
  out->assign(text->data, text->size);
  return true;
}

bool FetchHeaders(void* ctx, std::string* out) {
  auto* side = static_cast<Side*>(ctx);
  MM_MailgetsToMemory();
  MM_MailgetsSetEncoding(0);
  return TakeText(mail_fetchheader(side->stream, side->msgno), out);
}

// --- Bodies as a server reads them -------------------------------------------------
//
// BODY and TEXT look into each text part decoded: base64 and quoted-printable
// undone, the part's charset converted to UTF-8. Parts that aren't text
// (images, PDFs, any application/*) aren't searched, nor the preamble and
// epilogue of a multipart: the server finds nothing there either. The
// bytes flow from the driver's reader through the decoder and the
// converter into the scan in blocks, so a part of any size takes no more
// memory than a block.

// Where the decoded bytes of a part go: the charset converter, or straight
// to the scan for UTF-8 and ASCII (and a charset iconv doesn't know).
struct PartSink {
  SearchTextScan* scan;
  iconv_t cd = reinterpret_cast<iconv_t>(-1);
  std::string held;  // bytes of a character the last block cut
};

void Convert(PartSink* sink, const char* data, size_t size) {
  if (sink->cd == reinterpret_cast<iconv_t>(-1)) {
    sink->scan->Feed(data, size);
    return;
  }
  std::string in = sink->held;
  in.append(data, size);
  sink->held.clear();
  char* from = in.data();
  size_t from_left = in.size();
  char out[16384];
  while (from_left) {
    char* to = out;
    size_t to_left = sizeof out;
    const size_t r = iconv(sink->cd, &from, &from_left, &to, &to_left);
    const int err = r == static_cast<size_t>(-1) ? errno : 0;
    sink->scan->Feed(out, sizeof out - to_left);
    if (!err || err == E2BIG) continue;
    if (err == EINVAL) {  // a character the block cut: wait for the rest
      sink->held.assign(from, from_left);
      break;
    }
    // A byte that isn't of the charset stands for one unknown character.
    sink->scan->Feed("\xEF\xBF\xBD", 3);
    ++from;
    --from_left;
  }
}

long DecodedOut(void* sink, const char* data, unsigned long size) {
  Convert(static_cast<PartSink*>(sink), data, size);
  return 1;
}

// What the search's fetch hook does with the bytes a driver reads: one
// part at a time, decoded as its encoding says.
struct PartRead {
  PartSink* sink;
  int encoding;
  // An enclosed message read whole: its header is passed over, up to the
  // empty line, and the rest is its body.
  bool in_header = false;
  int header_state = 1;  // 1 at a line's start, 2 after a CR there, 0 inside a line
};

// How many of the n bytes at p belong to the header still being passed.
unsigned long PassHeader(PartRead* read, const char* p, unsigned long n) {
  for (unsigned long i = 0; i < n; ++i) {
    const char c = p[i];
    if (c == '\n' && read->header_state) {
      read->in_header = false;
      return i + 1;
    }
    read->header_state = c == '\n' ? 1 : c == '\r' && read->header_state == 1 ? 2 : 0;
  }
  return n;
}
PartRead* g_part_read = nullptr;

MailText* SearchGets(readfn_t reader, void* handle, unsigned long size) {
  constexpr unsigned long kBlock = 64 * 1024;
  static char block[kBlock];
  PartRead* read = g_part_read;
  auto state = std::make_unique<DecodeState>();
  if (read->encoding == ENCBASE64) Base64DecodeInit(state.get(), DecodedOut, read->sink);
  if (read->encoding == ENCQUOTEDPRINTABLE) QPDecodeInit(state.get(), DecodedOut, read->sink);
  bool ok = true;
  for (unsigned long left = size; left;) {
    const unsigned long n = std::min(left, kBlock);
    if (!reader(handle, n, block)) {
      ok = false;
      break;
    }
    left -= n;
    // Once every needle is found the rest is read and dropped: the reader
    // must still get to the end of what it was asked for.
    if (read->sink->scan->AllFound()) continue;
    const unsigned long from = read->in_header ? PassHeader(read, block, n) : 0;
    if (read->encoding == ENCBASE64)
      for (unsigned long i = from; i < n; ++i) Base64DecodeChar(state.get(), block[i]);
    else if (read->encoding == ENCQUOTEDPRINTABLE)
      for (unsigned long i = from; i < n; ++i) QPDecodeChar(state.get(), block[i]);
    else
      Convert(read->sink, block + from, n - from);
  }
  if (read->encoding == ENCBASE64) Base64DecodeEnd(state.get());
  if (read->encoding == ENCQUOTEDPRINTABLE) QPDecodeEnd(state.get());
  if (!ok) return nullptr;
  // The text went to the search; the cache keeps nothing of it, and a
  // second fetch reads it anew.
  MailText* text = mail_newtext();
  mail_text_set(text, kTextInMemory, "", 0);
  text->consumed = 1;
  return text;
}

// The hook is the search's own for one fetch, then the model's again.
struct HookForPart {
  mailgets_t saved;
  explicit HookForPart(PartRead* read) : saved(mail_gets) {
    g_part_read = read;
    mail_gets = SearchGets;
  }
  ~HookForPart() {
    mail_gets = saved;
    g_part_read = nullptr;
  }
};

// A charset iconv may be asked about: no "/" (glibc reads options after
// it), no blanks or controls, not too long.
bool PlausibleCharset(const std::string& name) {
  if (name.empty() || name.size() > 64) return false;
  for (unsigned char c : name)
    if (!std::isalnum(c) && !std::strchr("-_.:+()", c)) return false;
  return true;
}

// Scans one text part (section "" is the whole body of a message of one
// part) through the side stream; with whole_message the section is an
// enclosed message and part its body.
bool ScanPart(Side* side, const std::string& section, const BodyPart* part, SearchTextScan* scan,
              bool whole_message = false) {
  PartSink sink{scan, reinterpret_cast<iconv_t>(-1), {}};
  const Rfc822Parameter charset = rfc822_parameter(part->parameter, "CHARSET");
  std::string name = charset.value;
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (!name.empty() && name != "utf-8" && name != "utf8" && name != "us-ascii" && PlausibleCharset(name))
    sink.cd = iconv_open("UTF-8", name.c_str());
  PartRead read{&sink, part->encoding, whole_message};
  bool ok;
  {
    HookForPart hook(&read);
    unsigned long length = 0;
    ok = (section.empty() ? mail_fetchtext(side->stream, side->msgno)
                          : mail_fetchbody(side->stream, side->msgno, section.c_str(), &length)) != nullptr;
  }
  if (sink.cd != reinterpret_cast<iconv_t>(-1)) {
    if (!sink.held.empty()) scan->Feed("\xEF\xBF\xBD", 3);  // cut at the end
    iconv_close(sink.cd);
  }
  scan->EndSegment();
  return ok;
}

// Text parts in order, entering multiparts and enclosed messages.
constexpr int kMaxPartDepth = 32;
bool ScanParts(Side* side, const BodyPart* body, const std::string& section, int depth, SearchTextScan* scan) {
  if (depth > kMaxPartDepth || scan->AllFound()) return true;
  auto child = [&section](int n) { return section.empty() ? std::to_string(n) : section + "." + std::to_string(n); };
  if (body->type == TYPEMULTIPART) {
    int n = 0;
    bool ok = true;
    for (const BodyPartNode* p = body->parts; p; p = p->next)
      ok = ScanParts(side, &p->body, child(++n), depth + 1, scan) && ok;
    return ok;
  }
  if (body->type == TYPEMESSAGE && body->msg_body && !section.empty()) {
    // An enclosed message's parts are numbered under its own.
    const BodyPart* inner = body->msg_body;
    if (inner->type == TYPEMULTIPART) return ScanParts(side, inner, section, depth + 1, scan);
    // A body of one part has no position of its own in the structure:
    // the enclosed message is read whole and its header passed over.
    if (inner->type != TYPETEXT) return true;
    return ScanPart(side, section, inner, scan, true);
  }
  // A message that is one enclosed message is searched as text, as it is.
  if (body->type != TYPETEXT && !(body->type == TYPEMESSAGE && section.empty())) return true;
  return ScanPart(side, section, body, scan);
}

bool ScanBody(void* ctx, const std::vector<std::string>& needles, std::vector<char>* found) {
  auto* side = static_cast<Side*>(ctx);
  SearchTextScan scan(needles, found);
  BodyPart* body = nullptr;
  mail_fetchstructure(side->stream, side->msgno, &body);
  if (!body) {
    // No structure: the body as it is, one text.
    BodyPart plain{};
    plain.type = TYPETEXT;
    return ScanPart(side, "", &plain, &scan);
  }
  return ScanParts(side, body, "", 0, &scan);
}

}  // namespace

bool MM_SearchMatches(const SearchProgram& program, SearchMessage* message) {
  return !program.nodes.empty() && Eval(program, 0, message);
}

int MM_FolSearchLocal(int folder, const SearchProgram& program, std::vector<UMI>* out, std::string* error,
                      unsigned long first) {
  const long count = MM_FolGetNumMsgs(folder);
  std::string name;
  if (count < 0 || !MM_FolStream(folder) ||
      !MM_CCGenFolName(MM_FolGetService(folder), MM_FolGetName(folder), &name))
    return *error = "The folder is not open", 0;
  // One message's data at a time on the side stream: what a search reads
  // is let go at the next message, so memory stays flat in any folder.
  MailStream* side = mail_open(nullptr, name.c_str(), OP_READONLY | OP_SILENT | OP_SHORTCACHE);
  if (!side) return *error = "The folder could not be read", 0;
  // Message numbers agree: this program is the folder's only writer, and
  // messages that arrived since the model's last check come after its count.
  MailStream* model = MM_FolStream(folder);
  const unsigned long last = std::min({static_cast<unsigned long>(count), side->nmsgs, model->nmsgs});
  for (unsigned long i = std::max(first, 1ul); i <= last; ++i) {
    const UMI umi = MM_UMIFromMsgno(folder, i);
    if (!umi) continue;
    MessageElt* elt = mail_elt(side, i);
    SearchMessage m;
    m.flags = (elt->seen ? kSearchFlagSeen : 0) | (elt->deleted ? kSearchFlagDeleted : 0) |
              (elt->flagged ? kSearchFlagFlagged : 0) | (elt->answered ? kSearchFlagAnswered : 0) |
              (elt->draft ? kSearchFlagDraft : 0) | (elt->recent ? kSearchFlagRecent : 0);
    // Flags as the model holds them: a change not yet on disk counts.
    if (MessageElt* shown = mail_elt(model, i))
      m.flags = (shown->seen ? kSearchFlagSeen : 0) | (shown->deleted ? kSearchFlagDeleted : 0) |
                (shown->flagged ? kSearchFlagFlagged : 0) | (shown->answered ? kSearchFlagAnswered : 0) |
                (shown->draft ? kSearchFlagDraft : 0) | (shown->recent ? kSearchFlagRecent : 0);
    m.size = elt->rfc822_size;
    m.date = elt->year * 512ul + elt->month * 32ul + elt->day;
    Side ctx{side, i};
    m.fetch_headers = FetchHeaders;
    m.scan_body = ScanBody;
    m.ctx = &ctx;
    if (MM_SearchMatches(program, &m)) out->push_back(umi);
  }
  mail_close(side);
  return 1;
}
