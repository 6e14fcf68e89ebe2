// The option and address book client on the wire: commands built from a
// format, reply lines parsed and their arguments read, and the loop that
// reads up to a command's tagged answer, handing unsolicited lines to the
// session's owner.
#include <openssl/crypto.h>
#include <strings.h>

#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "c-client/core/env.h"
#include "c-client/core/mail_core.h"
#include "c-client/imsp/imsp_internal.h"

namespace {

constexpr const char* kBroken = "Connection broken in reply";

const char* const kKeywords[] = {"",       "OK",   "NO",          "BAD",           "PREAUTH",       "BYE",
                                 "EXISTS", "RECENT", "EXPUNGE",   "FETCH",         "COPY",          "STORE",
                                 "MAILBOX", "BBOARD", "SEARCH",   "FLAGS",         "ADDRESSBOOK",   "SEARCHADDRESS",
                                 "FETCHADDRESS", "OPTION", "MYRIGHTS", "ACL"};
constexpr int kKeywordCount = sizeof kKeywords / sizeof kKeywords[0];

void Fail(ImspReply* reply, const std::string& text) {
  std::snprintf(reply->message, sizeof reply->message, "%s", text.c_str());
  mm_log(reply->message, 1);
}

void Upper(std::string* s) {
  for (char& c : *s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}
void Lower(std::string* s) {
  for (char& c : *s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// The next blank-separated token of s from *at; false when none is left.
bool Token(const std::string& s, size_t* at, std::string* token) {
  size_t start = s.find_first_not_of(' ', *at);
  if (start == std::string::npos) return false;
  size_t end = s.find(' ', start);
  if (end == std::string::npos) end = s.size();
  token->assign(s, start, end - start);
  *at = end;
  return true;
}

bool Connected(const ImspSession* session) { return session->tcp && session->tcp->socket >= 0; }

void CloseStream(ImspSession* session) {
  if (session->tcp) tcp_close(session->tcp);
  session->tcp = nullptr;
  session->reply.tcp = nullptr;
}

// Lines of a multi-line value; a bare LF ends a line as well as CR LF.
std::vector<std::string> Lines(const std::string& value) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= value.size()) {
    size_t end = value.find('\n', start);
    if (end == std::string::npos) end = value.size();
    std::string line = value.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) out.push_back(line);
    start = end + 1;
  }
  return out;
}

// One line of a group's members: "book:entry", the colon that separates
// being the first one a backslash does not quote; without one, an entry
// of the group's own book.
std::pair<std::string, std::string> Member(const std::string& line, const std::string& own_book) {
  std::string book, entry;
  bool split = false;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (c == '\\' && i + 1 < line.size()) c = line[++i];
    else if (c == ':' && !split) {
      split = true;
      book.swap(entry);
      continue;
    }
    entry += c;
  }
  return {split ? book : own_book, entry};
}

void Expand(ImspSession* s, const std::string& book, std::vector<ImspPair>& pairs) {
  for (ImspPair& p : pairs) {
    Lower(&p.attribute);
    if (p.attribute == "email") {
      for (const std::string& a : Lines(p.value)) {
        bool known = false;
        for (const std::string& b : s->expand_addresses) known = known || a == b;
        if (!known) s->expand_addresses.push_back(a);
      }
    } else if (p.attribute == "members") {
      for (const std::string& line : Lines(p.value)) {
        auto item = Member(line, book);
        bool queued = false;
        for (const auto& q : s->expand_queue) queued = queued || q == item;
        if (queued) continue;
        if (s->expand_queue.size() >= kImspMaxExpand) {
          mm_log("Address group too large to expand; the rest is left out", 1);
          return;
        }
        s->expand_queue.push_back(item);
      }
    }
  }
}

void Unsolicited(ImspSession* s) {
  ImspReply* r = &s->reply;
  const ImspCallbacks& cb = s->callbacks;
  std::string a, b, c, d;
  switch (r->keyword_id) {
    case kImspOk:
    case kImspNo:
    case kImspBad:
      mm_log(r->text.c_str(), r->keyword_id - kImspOk);
      break;
    case kImspAddressbook: {
      bool closed = false;
      while (!closed && imsp_next_arg(r, &a)) closed = !a.empty() && a.back() == ')';
      if (!closed) break;
      bool has_delimiter = imsp_next_arg(r, &d);
      if (has_delimiter && imsp_next_arg(r, &b) && cb.abook_name) cb.abook_name(cb.owner, b.c_str(), d.empty() ? '\0' : d[0]);
      break;
    }
    case kImspSearchaddress:
      if (imsp_next_arg(r, &a) && cb.address) cb.address(cb.owner, s->reply_book.c_str(), a.c_str(), nullptr, 0);
      break;
    case kImspFetchaddress: {
      if (!imsp_next_arg(r, &a) || !imsp_next_arg(r, &b)) break;
      int n = 0;
      std::vector<ImspPair> pairs = imsp_next_pairs(r, &n);
      if (s->expand_mode) Expand(s, a, pairs);
      else if (cb.address) cb.address(cb.owner, a.c_str(), b.c_str(), pairs.data(), n);
      break;
    }
    case kImspOption: {
      bool name = imsp_next_arg(r, &a);
      bool value = name && imsp_next_arg(r, &b);
      if (!value || !imsp_next_arg(r, &c)) {
        mm_log(mail_format("Incorrect arguments to keyword: %s", r->keyword.c_str()).c_str(), 1);
        break;
      }
      Upper(&c);
      if (cb.option) cb.option(cb.owner, a.c_str(), b.c_str(), c != "[READ-ONLY]");
      break;
    }
    case kImspMyrights:
    case kImspAcl: {
      const bool acl = r->keyword_id == kImspAcl;
      if (!imsp_next_arg(r, &a) || !imsp_next_arg(r, &b)) break;
      Upper(&a);
      if (a != "ADDRESSBOOK") break;
      if (acl && !imsp_next_arg(r, &c)) break;
      if (!imsp_next_arg(r, &d)) break;
      if (cb.acl) cb.acl(cb.owner, b.c_str(), acl ? c.c_str() : nullptr, d.c_str());
      break;
    }
    case kImspBye:
      if (s->logging_out) break;
      [[fallthrough]];
    default:
      mm_log(mail_format("Unhandled unsolicited keyword: %s", r->keyword.c_str()).c_str(), 1);
  }
}

// Atom characters: printable, but not '"', '%', '*', '\\' or '{'; the
// quoted form also takes the blank and '%', '*', '{'.
bool AtomChar(unsigned char c) { return c > ' ' && c < 127 && !std::strchr("\"%*\\{", c); }
bool QuotableChar(unsigned char c) { return AtomChar(c) || (c && std::strchr(" %*{", c)); }

struct Encoder {
  ImspSession* session;
  std::string wire, trace;
  bool failed = false;

  // Sends what is built so far; without a session it is only traced.
  bool Flush() {
    mm_dlog(trace.c_str());
    bool ok = !session || (Connected(session) && tcp_sout(session->tcp, wire.data(), wire.size()));
    OPENSSL_cleanse(wire.data(), wire.size());
    wire.clear(), trace.clear();
    if (!ok) session->gen_text = kBroken;
    return ok;
  }
  void Put(const std::string& s, const std::string& shown) { wire += s, trace += shown; }
  // A string in the form its characters allow; a literal waits for the
  // server's go-ahead before its bytes follow.
  void String(const std::string& s, bool secret, bool nil) {
    if (failed) return;
    if (s.empty()) return Put(nil ? "nil" : "\"\"", nil ? "nil" : "\"\"");
    const std::string shown = secret ? "********" : s;
    switch (imsp_string_form(s)) {
      case 0:
        return Put(s, shown);
      case 1:
        return Put("\"" + s + "\"", "\"" + shown + "\"");
    }
    Put(mail_format("{%zu}\r\n", s.size()), mail_format("{%zu}\r\n", s.size()));
    if (!Flush()) {
      failed = true;
      return;
    }
    if (session) {
      imsp_reply(session, session->awaited.c_str());
      if (session->reply.tag.empty() || session->reply.tag[0] != '+') {
        // A tagged answer has ended the command already; a broken stream
        // keeps its own text.
        if (Connected(session)) session->gen_text = "Literal prompt expected from server";
        failed = true;
        return;
      }
    }
    Put(s, shown);
  }
};

}  // namespace

int imsp_string_form(const std::string& s) {
  bool atom = true, quotable = true;
  for (unsigned char c : s) atom = atom && AtomChar(c), quotable = quotable && QuotableChar(c);
  return atom ? 0 : quotable ? 1 : 2;
}

bool imsp_parse_line(const char* line, ImspReply* reply) {
  reply->line = line ? line : "";
  reply->literals.clear();
  reply->tag.clear(), reply->keyword.clear(), reply->text.clear();
  reply->at = 0;
  reply->number = -1;
  reply->keyword_id = kImspNone;
  reply->message[0] = '\0';
  if (reply->line.size() > kTcpMaxLine) return Fail(reply, "Reply line too long"), false;
  if (size_t lf = reply->line.find_first_of("\r\n"); lf != std::string::npos) reply->line.erase(lf);
  const std::string& l = reply->line;
  size_t at = 0;
  if (!Token(l, &at, &reply->tag)) return Fail(reply, "server sent a blank line"), false;
  if (reply->tag[0] == '+') {
    reply->text = l.substr(std::min(at + 1, l.size()));
    return true;
  }
  std::string word;
  if (!Token(l, &at, &word)) return Fail(reply, mail_format("Missing server keyword: %.80s", l.c_str())), false;
  if (std::isdigit(static_cast<unsigned char>(word[0]))) {
    reply->number = std::strtol(word.c_str(), nullptr, 10);
    if (reply->number < 0) reply->number = 0;
    if (!Token(l, &at, &word))
      return Fail(reply, mail_format("Missing keyword after numeric argument: %ld", reply->number)), false;
  }
  Upper(&word);
  reply->keyword = word;
  reply->text = l.substr(std::min(at + 1, l.size()));
  for (int id = 1; id < kKeywordCount; ++id)
    if (word == kKeywords[id]) reply->keyword_id = id;
  if (reply->keyword_id == kImspNone) return Fail(reply, mail_format("Unknown keyword: %.80s", word.c_str())), false;
  if (reply->keyword_id >= kImspExists && reply->keyword_id <= kImspStore && reply->number < 0) {
    Fail(reply, mail_format("keyword '%s' requries numeric argument", word.c_str()));
    reply->keyword_id = kImspNone;
    return false;
  }
  return true;
}

bool imsp_next_arg(ImspReply* reply, std::string* arg) {
  arg->clear();
  std::string& t = reply->text;
  size_t& at = reply->at;
  while (at < t.size() && t[at] == ' ') ++at;
  if (at >= t.size()) return false;
  if (t[at] == '{') {
    size_t close = t.find('}', at);
    std::string digits = t.substr(at + 1, close == std::string::npos ? 0 : close - at - 1);
    if (!digits.empty() && digits.back() == '+') digits.pop_back();
    unsigned long size = 0;
    bool ok = close != std::string::npos && !digits.empty() && digits.size() <= 8 &&
              digits.find_first_not_of("0123456789") == std::string::npos;
    if (ok) size = std::strtoul(digits.c_str(), nullptr, 10);
    if (!ok || size > kImspMaxLiteral || !reply->tcp) {
      // The bytes that follow cannot be told from the next line, so the
      // rest of the conversation is lost: end it rather than guess.
      Fail(reply, ok && size > kImspMaxLiteral ? mail_format("Server literal too long: %lu bytes", size)
                                               : std::string("Bad literal in server reply"));
      if (reply->tcp && ok) tcp_abort(&reply->tcp->socket);
      at = t.size();
      return false;
    }
    std::vector<char> buffer(size + 1);
    if (!tcp_getbuffer(reply->tcp, size, buffer.data())) {
      at = t.size();
      return false;
    }
    std::string bytes(buffer.data(), size);
    char* rest = tcp_getline(reply->tcp);
    t = rest ? rest : "";
    if (rest) FS_GIVE(&rest);
    at = !t.empty() && t[0] == ' ' ? 1 : 0;
    reply->literals.push_back(bytes);
    if (size == 0) return false;
    *arg = std::move(bytes);
    return true;
  }
  if (t[at] == '"') {
    for (++at; at < t.size() && t[at] != '"'; ++at) {
      if (t[at] == '\\' && at + 1 < t.size()) ++at;
      *arg += t[at];
    }
    if (at < t.size()) ++at;
    return true;
  }
  size_t end = t.find(' ', at);
  if (end == std::string::npos) end = t.size();
  arg->assign(t, at, end - at);
  at = end;
  return true;
}

std::vector<ImspPair> imsp_next_pairs(ImspReply* reply, int* n) {
  std::vector<ImspPair> pairs;
  pairs.reserve(64);
  ImspPair p;
  while (imsp_next_arg(reply, &p.attribute)) {
    if (static_cast<int>(pairs.size()) >= kImspMaxPairs) {
      Fail(reply, "Too many fields in server reply");
      break;
    }
    imsp_next_arg(reply, &p.value);
    pairs.push_back(p);
  }
  *n = static_cast<int>(pairs.size());
  return pairs;
}

long imsp_reply(ImspSession* s, const char* awaited) {
  s->gen_text = kBroken;
  ImspReply* r = &s->reply;
  while (Connected(s)) {
    char* line = tcp_getline(s->tcp);
    if (!line) {
      CloseStream(s);
      break;
    }
    r->tcp = s->tcp;
    bool parsed = imsp_parse_line(line, r);
    FS_GIVE(&line);
    if (!parsed) continue;
    if (r->tag != "*") {
      if (awaited && (r->tag == awaited || r->tag[0] == '+')) {
        s->gen_text = r->text;
        return r->keyword_id == kImspOk || r->tag[0] == '+';
      }
      mm_log(mail_format("Unexpected tagged response: %.80s %.80s %.80s", r->tag.c_str(), r->keyword.c_str(),
                         r->text.c_str())
                 .c_str(),
             1);
      continue;
    }
    if (!awaited) {
      s->gen_text = r->text;
      return r->keyword_id == kImspOk || r->keyword_id == kImspPreauth;
    }
    Unsolicited(s);
  }
  r->tag.clear();
  return false;
}

long imsp_send(ImspSession* session, const char* format, ...) {
  Encoder e{session, {}, {}};
  if (session && !Connected(session)) {
    session->gen_text = "Not connected to the IMSP server";
    return 0;
  }
  va_list ap;
  va_start(ap, format);
  const std::string none;
  auto book_or = [&](const char* s) -> std::string { return s ? s : session ? session->book : none; };
  for (const char* f = format; *f && !e.failed; ++f) {
    if (*f != '%' || !f[1]) {
      e.Put(std::string(1, *f), std::string(1, *f));
      continue;
    }
    switch (*++f) {
      case 't': {
        const std::string tag = mail_format("A%05ld", static_cast<long>(session ? session->tag_counter++ : 0));
        if (session) session->awaited = tag;
        e.Put(tag, tag);
        break;
      }
      case 'a': {
        const char* s = va_arg(ap, const char*);
        e.Put(s ? s : "", s ? s : "");
        break;
      }
      case 'd': {
        const std::string n = std::to_string(va_arg(ap, long));
        e.Put(n, n);
        break;
      }
      case 's':
      case 'S':
      case 'n': {
        e.String(book_or(va_arg(ap, const char*)), *f == 'S', *f == 'n');
        break;
      }
      case 'k': {
        int n = va_arg(ap, int);
        const ImspPair* pairs = va_arg(ap, const ImspPair*);
        for (int i = 0; pairs && i < n && !e.failed; ++i) {
          e.Put(" ", " ");
          e.String(pairs[i].attribute, false, false);
          e.Put(" ", " ");
          e.String(pairs[i].value, false, false);
        }
        break;
      }
      case '%':
        e.Put("%", "%");
        break;
      default:  // an unknown directive goes as it stands
        e.Put(std::string("%") + *f, std::string("%") + *f);
    }
  }
  va_end(ap);
  if (e.failed) {
    OPENSSL_cleanse(e.wire.data(), e.wire.size());
    return 0;
  }
  if (!e.Flush()) return 0;
  if (!session) return 1;
  return imsp_reply(session, session->awaited.c_str());
}

void imsp_attach_for_test(ImspSession* session, TcpStream* tcp) {
  session->tcp = tcp;
  session->reply.tcp = tcp;
}
