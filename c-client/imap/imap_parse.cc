// Reading server data: strings and literals, envelopes, addresses, body
// structures, and the items of a FETCH reply into the message cache.
//
// Every reader is bounded: strings held in memory, literals, list lengths
// and nesting depth have limits (imap_internal.h). A reply that breaks the
// grammar is reported and stepped over up to its end, literals included, so
// the next reply is read in step.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/rfc822/rfc822.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

const char* Rest(ImapCursor& c) { return c.line.c_str() + std::min(c.pos, c.line.size()); }

bool AtEnd(const ImapCursor& c) { return c.pos >= c.line.size(); }

// Bytes of a literal straight from the connection's buffer.
long ReadRaw(TcpStream* tcp, unsigned long size, char* buffer) {
  while (size) {
    if (!tcp_getdata(tcp)) return 0;
    unsigned long n = std::min(size, static_cast<unsigned long>(tcp->ictr));
    if (buffer) {
      std::memcpy(buffer, tcp->iptr, n);
      buffer += n;
    }
    tcp->iptr += n;
    tcp->ictr -= static_cast<long>(n);
    size -= n;
  }
  return 1;
}

long Reader(void* handle, unsigned long size, char* buffer) {
  auto* c = static_cast<ImapCursor*>(handle);
  if (!c->local->tcp || !ReadRaw(c->local->tcp, size, buffer)) {
    c->failed = true;
    return 0;
  }
  return 1;
}

// After a literal the reply goes on in the next line.
bool NextLine(ImapCursor& c) {
  char* line = c.local->tcp ? tcp_getline(c.local->tcp) : nullptr;
  if (!line) {
    c.failed = true;
    c.line.clear();
    c.pos = 0;
    return false;
  }
  c.line = line;
  c.pos = 0;
  FS_GIVE(&line);
  imap_trace(c.stream, c.line);
  return true;
}

// A literal's announced size at the cursor ("{n}" ending the line); false
// when there is none. Sizes over the limit close the connection.
bool LiteralSize(ImapCursor& c, unsigned long* size) {
  if (AtEnd(c) || c.line[c.pos] != '{') return false;
  size_t close = c.line.find('}', c.pos);
  if (close == std::string::npos || close + 1 != c.line.size() || close == c.pos + 1) return false;
  unsigned long n = 0;
  for (size_t i = c.pos + 1; i < close; ++i) {
    char d = c.line[i];
    if (d == '+' && i + 1 == close) break;
    if (d < '0' || d > '9' || n > kImapMaxLiteral) return false;
    n = n * 10 + static_cast<unsigned long>(d - '0');
  }
  if (n > kImapMaxLiteral || ++c.local->literals > kImapMaxLiteralsPerReply) {
    imap_drop(c.stream, mail_format("IMAP server sent a literal of %lu bytes (or too many literals); the limit is %lu "
                                    "bytes: the connection is closed",
                                    n, kImapMaxLiteral));
    c.failed = true;
    return false;
  }
  c.pos = close + 1;
  *size = n;
  return true;
}

bool IsAtomChar(char ch) {
  return static_cast<unsigned char>(ch) > ' ' && ch != '(' && ch != ')' && ch != '{' && ch != '"' && ch != '[' &&
         ch != ']' && ch != 0x7f;
}

}  // namespace

void imap_skip_spaces(ImapCursor& c) {
  while (!AtEnd(c) && c.line[c.pos] == ' ') ++c.pos;
}

bool imap_at(ImapCursor& c, char ch) {
  imap_skip_spaces(c);
  if (!AtEnd(c) && c.line[c.pos] == ch) {
    ++c.pos;
    return true;
  }
  return false;
}

std::string imap_atom(ImapCursor& c) {
  imap_skip_spaces(c);
  size_t start = c.pos;
  while (!AtEnd(c) && IsAtomChar(c.line[c.pos])) ++c.pos;
  return c.line.substr(start, c.pos - start);
}

bool imap_string(ImapCursor& c, std::string* out, bool* nil) {
  out->clear();
  *nil = false;
  if (c.failed) return false;
  imap_skip_spaces(c);
  if (AtEnd(c)) {
    Log("Not a string: (end of reply)", 1);
    return false;
  }
  char first = c.line[c.pos];
  if (first == '"') {
    // Backslash escapes the next character; the string ends at the first
    // unescaped quote.
    size_t i = c.pos + 1;
    for (; i < c.line.size() && c.line[i] != '"'; ++i) {
      if (c.line[i] == '\\' && i + 1 < c.line.size()) ++i;
      if (out->size() < kImapMaxString) *out += c.line[i];
    }
    if (i >= c.line.size()) {
      Log(mail_format("Unterminated string: %.80s", Rest(c)), 1);
      return false;
    }
    c.pos = i + 1;
    return true;
  }
  if (first == '{') {
    unsigned long n = 0;
    if (!LiteralSize(c, &n)) {
      if (!c.failed) Log(mail_format("Not a string: %c%.80s", first, Rest(c) + 1), 1);
      return false;
    }
    if (n > kImapMaxString) {
      Log(mail_format("IMAP server sent a string of %lu bytes; strings over %lu bytes are left out", n, kImapMaxString),
          1);
      if (!ReadRaw(c.local->tcp, n, nullptr)) {
        c.failed = true;
        return false;
      }
      *nil = true;
    } else {
      out->resize(n);
      if (!ReadRaw(c.local->tcp, n, out->data())) {
        c.failed = true;
        return false;
      }
    }
    return NextLine(c);
  }
  if ((first == 'N' || first == 'n') && strncasecmp(Rest(c), "NIL", 3) == 0 &&
      (c.pos + 3 >= c.line.size() || !IsAtomChar(c.line[c.pos + 3]))) {
    c.pos += 3;
    *nil = true;
    return true;
  }
  Log(mail_format("Not a string: %c%.80s", first, Rest(c) + 1), 1);
  return false;
}

bool imap_skip_value(ImapCursor& c, int depth) {
  if (c.failed) return false;
  imap_skip_spaces(c);
  if (AtEnd(c)) return false;
  char first = c.line[c.pos];
  if (first == '(') {
    if (depth >= kImapMaxDepth) {
      Log("IMAP server sent lists nested too deep", 1);
      return false;
    }
    ++c.pos;
    for (unsigned long n = 0;; ++n) {
      if (imap_at(c, ')')) return true;
      if (n > kImapMaxListItems || !imap_skip_value(c, depth + 1)) return false;
    }
  }
  if (first == '"' || first == '{') {
    std::string s;
    bool nil;
    return imap_string(c, &s, &nil);
  }
  if (first == '[') {
    size_t close = c.line.find(']', c.pos);
    if (close == std::string::npos) return false;
    c.pos = close + 1;
    return true;
  }
  return !imap_atom(c).empty();
}

void imap_skip_rest(ImapCursor& c) {
  if (c.failed) return;
  for (;;) {
    // Only a literal at the end of the line continues the reply.
    size_t open = c.line.rfind('{');
    if (open == std::string::npos || open < c.pos) return;
    c.pos = open;
    unsigned long n = 0;
    if (!LiteralSize(c, &n)) return;
    if (!ReadRaw(c.local->tcp, n, nullptr) || !NextLine(c)) {
      c.failed = true;
      return;
    }
  }
}

MailText* imap_text(ImapCursor& c) {
  imap_skip_spaces(c);
  if (c.failed || AtEnd(c)) return nullptr;
  unsigned long n = 0;
  if (c.line[c.pos] == '{') {
    if (!LiteralSize(c, &n)) return nullptr;
    MailText* text = mail_gets(Reader, &c, n);
    if (c.failed) {
      mail_free_text(&text);
      return nullptr;
    }
    NextLine(c);
    return text;
  }
  std::string s;
  bool nil;
  if (!imap_string(c, &s, &nil) || nil) return nullptr;
  MailText* text = mail_newtext();
  mail_text_set(text, kTextInMemory, s.data(), s.size());
  return text;
}

namespace {

char* Copy(const std::string& s, bool nil) { return nil ? nullptr : cpystr(s.c_str()); }

// One string field; false on a fault (already reported).
bool Field(ImapCursor& c, char** out) {
  std::string s;
  bool nil;
  if (!imap_string(c, &s, &nil)) return false;
  *out = Copy(s, nil);
  return true;
}

bool AddressList(ImapCursor& c, MailAddress** list) {
  *list = nullptr;
  imap_skip_spaces(c);
  std::string s;
  bool nil;
  if (!imap_at(c, '(')) {
    if (imap_string(c, &s, &nil) && nil) return true;
    Log(mail_format("Not an address: %.80s", Rest(c)), 1);
    return false;
  }
  MailAddress* last = nullptr;
  for (unsigned long n = 0;; ++n) {
    if (imap_at(c, ')')) return true;
    if (c.failed) return false;
    if (n >= kImapMaxListItems || !imap_at(c, '(')) {
      Log(mail_format("Junk at end of address list: %.80s", Rest(c)), 1);
      return false;
    }
    MailAddress* a = mail_newaddr();
    if (!Field(c, &a->personal) || !Field(c, &a->adl) || !Field(c, &a->mailbox) || !Field(c, &a->host)) {
      mail_free_address(&a);
      Log(mail_format("Not an address: %.80s", Rest(c)), 1);
      return false;
    }
    if (!imap_at(c, ')')) {
      mail_free_address(&a);
      Log(mail_format("Junk at end of address: %.80s", Rest(c)), 1);
      return false;
    }
    // The end of a group (no mailbox, no host) carries nothing to show.
    if (!a->mailbox && !a->host) {
      mail_free_address(&a);
      continue;
    }
    (last ? last->next : *list) = a;
    last = a;
  }
}

bool ParseEnvelope(ImapCursor& c, Envelope** out) {
  *out = nullptr;
  imap_skip_spaces(c);
  if (!imap_at(c, '(')) {
    std::string s;
    bool nil;
    if (imap_string(c, &s, &nil) && nil) return true;
    Log(mail_format("Not an envelope: %.80s", Rest(c)), 1);
    return false;
  }
  Envelope* env = mail_newenvelope();
  bool ok = Field(c, &env->date) && Field(c, &env->subject) && AddressList(c, &env->from) &&
            AddressList(c, &env->sender) && AddressList(c, &env->reply_to) && AddressList(c, &env->to) &&
            AddressList(c, &env->cc) && AddressList(c, &env->bcc) && Field(c, &env->in_reply_to) &&
            Field(c, &env->message_id);
  if (ok && !imap_at(c, ')')) {
    Log(mail_format("Junk at end of envelope: %.80s", Rest(c)), 1);
    ok = false;
  }
  if (!ok) {
    mail_free_envelope(&env);
    return false;
  }
  *out = env;
  return true;
}

std::string Upper(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  return s;
}

unsigned short Lookup(const char* const* table, unsigned short last, const std::string& word) {
  std::string w = Upper(word);
  for (unsigned short i = 0; i < last && table[i]; ++i)
    if (w == table[i]) return i;
  return last;
}

bool Number(ImapCursor& c, unsigned long* out) {
  std::string a = imap_atom(c);
  if (a.empty() || a.size() > 10 || a.find_first_not_of("0123456789") != std::string::npos) return false;
  *out = std::stoul(a);
  return true;
}

bool Parameters(ImapCursor& c, BodyParameter** out) {
  *out = nullptr;
  imap_skip_spaces(c);
  if (!imap_at(c, '(')) {
    std::string s;
    bool nil;
    if (imap_string(c, &s, &nil) && nil) return true;
    Log(mail_format("Bogus body parameter: %c%.80s", AtEnd(c) ? ' ' : c.line[c.pos], Rest(c)), 1);
    return false;
  }
  BodyParameter* last = nullptr;
  for (unsigned long n = 0;; ++n) {
    if (imap_at(c, ')')) return true;
    if (c.failed || n >= kImapMaxListItems) return false;
    std::string attribute, value;
    bool nil;
    if (!imap_string(c, &attribute, &nil) || nil) {
      Log("Missing parameter attribute", 1);
      return false;
    }
    if (!imap_string(c, &value, &nil)) {
      Log(mail_format("Missing value for parameter %.80s", attribute.c_str()), 1);
      return false;
    }
    BodyParameter* p = mail_newbody_parameter();
    p->attribute = cpystr(Upper(attribute).c_str());
    p->value = cpystr(nil ? "" : value.c_str());
    (last ? last->next : *out) = p;
    last = p;
  }
}

bool ParseBody(ImapCursor& c, BodyPart* body, int depth);

// Content-Disposition in extension data: ("TYPE" (parameters)) or NIL.
bool Disposition(ImapCursor& c, BodyPart* body) {
  imap_skip_spaces(c);
  if (!imap_at(c, '(')) {
    std::string s;
    bool nil;
    if (imap_string(c, &s, &nil) && nil) return true;
    Log(mail_format("Bogus body disposition: %.80s", Rest(c)), 1);
    return false;
  }
  std::string type;
  bool nil;
  if (!imap_string(c, &type, &nil)) return false;
  if (!nil && !type.empty()) body->disposition = cpystr(Upper(type).c_str());
  if (!Parameters(c, &body->disposition_parameter)) return false;
  if (!imap_at(c, ')')) {
    Log(mail_format("Junk at end of body disposition: %.80s", Rest(c)), 1);
    return false;
  }
  return true;
}

// What follows the known fields of a part: extension data. A multipart's
// parameters (BODYSTRUCTURE only) and a part's disposition are kept; the
// MD5, language, location and later extensions are stepped over.
bool EndOfPart(ImapCursor& c, BodyPart* body, int depth) {
  for (unsigned long n = 0;; ++n) {
    if (imap_at(c, ')')) return true;
    bool ok;
    if (c.failed || n > kImapMaxListItems) {
      ok = false;
    } else if (n == 0 && body->type == TYPEMULTIPART) {
      mail_free_body_parameter(&body->parameter);
      ok = Parameters(c, &body->parameter);
    } else if (n == 1) {
      // A second disposition would leak the first: a server sends one.
      ok = !body->disposition && !body->disposition_parameter && Disposition(c, body);
    } else {
      ok = imap_skip_value(c, depth + 1);  // a single part's MD5, language, location, ...
    }
    if (!ok) {
      Log(mail_format("Junk at end of body part: %.80s", Rest(c)), 1);
      return false;
    }
  }
}

bool ParseMultipart(ImapCursor& c, BodyPart* body, int depth) {
  body->type = TYPEMULTIPART;
  BodyPartNode* last = nullptr;
  for (unsigned long n = 0;; ++n) {
    imap_skip_spaces(c);
    if (AtEnd(c) || c.line[c.pos] != '(') break;
    if (n >= kImapMaxListItems) {
      Log("Junk at end of multipart body: too many parts", 1);
      return false;
    }
    BodyPartNode* part = mail_newbody_part();
    (last ? last->next : body->parts) = part;
    last = part;
    if (!ParseBody(c, &part->body, depth + 1)) return false;
  }
  std::string subtype;
  bool nil;
  if (!imap_string(c, &subtype, &nil) || nil) {
    Log("Missing multipart subtype", 1);
    return false;
  }
  body->subtype = cpystr(Upper(subtype).c_str());
  return EndOfPart(c, body, depth);
}

bool ParseBody(ImapCursor& c, BodyPart* body, int depth) {
  if (depth > kImapMaxDepth) {
    Log("Bogus body structure: parts nested too deep", 1);
    return false;
  }
  if (!imap_at(c, '(')) {
    Log(mail_format("Bogus body structure: %.80s", Rest(c)), 1);
    return false;
  }
  imap_skip_spaces(c);
  if (!AtEnd(c) && c.line[c.pos] == '(') return ParseMultipart(c, body, depth);
  std::string type, subtype, encoding;
  bool nil, nil2;
  if (!imap_string(c, &type, &nil) || !imap_string(c, &subtype, &nil2)) {
    Log(mail_format("Bogus body structure: %.80s", Rest(c)), 1);
    return false;
  }
  body->type = nil ? static_cast<unsigned short>(TYPEOTHER) : Lookup(body_types, TYPEOTHER, type);
  body->subtype = nil2 ? cpystr(rfc822_default_subtype(body->type)) : cpystr(Upper(subtype).c_str());
  if (!Parameters(c, &body->parameter) || !Field(c, &body->id) || !Field(c, &body->description)) return false;
  if (!imap_string(c, &encoding, &nil)) return false;
  body->encoding = nil ? static_cast<unsigned short>(ENC7BIT) : Lookup(body_encodings, ENCOTHER, encoding);
  unsigned long size = 0;
  if (!Number(c, &size)) {
    Log(mail_format("Bogus body structure: %.80s", Rest(c)), 1);
    return false;
  }
  body->size_bytes = body->size_raw = size;
  if (body->type == TYPEMESSAGE && body->subtype && std::strcmp(body->subtype, "RFC822") == 0) {
    body->msg_body = mail_newbody();
    if (!ParseEnvelope(c, &body->msg_env) || !ParseBody(c, body->msg_body, depth + 1)) return false;
    if (!Number(c, &body->size_lines)) return false;
  } else if (body->type == TYPETEXT) {
    if (!Number(c, &body->size_lines)) return false;
  }
  return EndOfPart(c, body, depth);
}

bool IsLong(MailStream* stream) { return !stream->scache; }

bool Holds(const MessageElt* e) { return e->envelope || e->body || e->header_text || e->body_text; }

// Where a fetched item of msgno goes.
struct Target {
  Envelope** env;
  BodyPart** body;
  MailText** header;
  MailText** text;
  MessageElt* elt;
};

Target TargetFor(MailStream* stream, unsigned long msgno, MessageElt* elt) {
  if (IsLong(stream)) return {&elt->envelope, &elt->body, &elt->header_text, &elt->body_text, elt};
  if (stream->msgno != msgno) {
    mail_free_envelope(&stream->env);
    mail_free_body(&stream->body);
    mail_free_text(&stream->header_text);
    mail_free_text(&stream->body_text);
    stream->msgno = msgno;
  }
  return {&stream->env, &stream->body, &stream->header_text, &stream->body_text, nullptr};
}

// The first data that a message holds counts in the cache.
void Counting(MailStream* stream, const Target& t) {
  if (t.elt && !Holds(t.elt)) ++stream->cachecount;
}

bool ParseFlags(MailStream* stream, ImapCursor& c, MessageElt* elt, unsigned long msgno) {
  if (!imap_at(c, '(')) return false;
  elt->seen = elt->deleted = elt->flagged = elt->answered = elt->draft = elt->recent = 0;
  elt->user_flags = 0;
  for (unsigned long n = 0;; ++n) {
    if (imap_at(c, ')')) break;
    if (n > kImapMaxListItems) return false;
    imap_skip_spaces(c);
    bool system = !AtEnd(c) && c.line[c.pos] == '\\';
    if (system) ++c.pos;
    std::string word = imap_atom(c);
    if (word.empty()) return false;
    if (system) {
      std::string w = Upper(word);
      if (w == "SEEN") elt->seen = 1;
      else if (w == "DELETED") elt->deleted = 1;
      else if (w == "FLAGGED") elt->flagged = 1;
      else if (w == "ANSWERED") elt->answered = 1;
      else if (w == "RECENT") elt->recent = 1;
      else if (w == "DRAFT") elt->draft = 1;
      else if (w != "XXXX" && w != "YYYY" && w != "UNDEFINEDFLAG" && w != "*")
        Log(mail_format("Unknown system flag: %.80s", word.c_str()), 1);
      continue;
    }
    int i = 0;
    for (; i < kMaxUserFlags && stream->user_flags[i]; ++i)
      if (strcasecmp(stream->user_flags[i], word.c_str()) == 0) break;
    if (i < kMaxUserFlags && stream->user_flags[i])
      elt->user_flags |= 1ul << i;
    else
      Log(mail_format("Unknown user flag: %.80s", word.c_str()), 3);
  }
  mm_flags(stream, msgno);
  return true;
}

bool BodyContents(MailStream* stream, ImapCursor& c, const Target& t, unsigned long msgno, const std::string& name) {
  // name is "BODY[section]" possibly with "<origin>".
  size_t close = name.find(']');
  std::string section = name.substr(5, close == std::string::npos ? 0 : close - 5);
  BodyPart* root = t.body ? *t.body : nullptr;
  if (!IsLong(stream) && stream->msgno != msgno) {
    Log(mail_format("Body received for %lu when current is %lu", msgno, stream->msgno), 1);
    return false;
  }
  MailText* text = imap_text(c);
  if (c.failed) {
    // The text came whole, but the line after it broke off.
    mail_free_text(&text);
    return false;
  }
  if (section.empty() || section.find_first_not_of("0123456789.") != std::string::npos) {
    // Whole-message sections land where the header and text go.
    if (section == "HEADER" && t.header && !*t.header) {
      Counting(stream, t);
      *t.header = text;
    } else if (section == "TEXT" && t.text && !*t.text) {
      Counting(stream, t);
      *t.text = text;
    } else {
      if (section != "HEADER" && section != "TEXT" && !section.empty())
        Log(mail_format("Bad body index: %.80s", name.c_str()), 1);
      mail_free_text(&text);
    }
    return true;
  }
  if (!root) {
    Log("Body contents received when body structure unknown", 1);
    mail_free_text(&text);
    return true;
  }
  unsigned long offset = 0;
  BodyPart* part = mail_body_section(root, section.c_str(), &offset);
  if (!part) {
    Log("Invalid section number", 1);
    mail_free_text(&text);
    return true;
  }
  if (part->type == TYPEMULTIPART) {
    Log("Textual body contents received for MULTIPART body part", 1);
    mail_free_text(&text);
    return true;
  }
  MailText** slot = part->type == TYPEMESSAGE && part->subtype && std::strcmp(part->subtype, "RFC822") == 0
                        ? &part->msg_text
                        : &part->contents;
  mail_free_text(slot);
  *slot = text;
  return true;
}

}  // namespace

void imap_parse_fetch(MailStream* stream, unsigned long msgno, ImapCursor& c) {
  MessageElt* elt = mail_elt(stream, msgno);
  Target t = TargetFor(stream, msgno, elt);
  if (!imap_at(c, '(')) {
    Log(mail_format("Bad body fetch: %.80s", Rest(c)), 1);
    imap_skip_rest(c);
    return;
  }
  for (unsigned long n = 0; !c.failed; ++n) {
    if (imap_at(c, ')')) return;
    std::string name = Upper(imap_atom(c));
    // A section's brackets and an origin belong to the name.
    if (!AtEnd(c) && c.line[c.pos] == '[') {
      size_t close = c.line.find(']', c.pos);
      if (close == std::string::npos) break;
      name += Upper(c.line.substr(c.pos, close + 1 - c.pos));
      c.pos = close + 1;
      if (!AtEnd(c) && c.line[c.pos] == '<') {
        size_t end = c.line.find('>', c.pos);
        if (end == std::string::npos) break;
        c.pos = end + 1;
      }
    }
    if (name.empty() || n > 100) break;
    bool ok = true;
    if (name == "FLAGS") {
      ok = ParseFlags(stream, c, elt, msgno);
    } else if (name == "ENVELOPE") {
      Envelope* env = nullptr;
      ok = ParseEnvelope(c, &env);
      if (ok) {
        Counting(stream, t);
        mail_free_envelope(t.env);
        *t.env = env;
      }
    } else if (name == "INTERNALDATE") {
      std::string s;
      bool nil;
      ok = imap_string(c, &s, &nil);
      if (ok && (nil || !mail_parse_date(elt, s.c_str()))) Log(mail_format("Bogus date: %.80s", s.c_str()), 1);
    } else if (name == "RFC822.SIZE") {
      ok = Number(c, &elt->rfc822_size);
    } else if (name == "UID") {
      unsigned long uid;
      ok = Number(c, &uid);
    } else if (name == "RFC822.HEADER" || name == "BODY[HEADER]") {
      MailText* text = imap_text(c);
      if (t.header) {
        Counting(stream, t);
        mail_free_text(t.header);
        *t.header = text;
      } else {
        mail_free_text(&text);
      }
    } else if (name == "RFC822.TEXT" || name == "BODY[TEXT]") {
      MailText* text = imap_text(c);
      if (t.text) {
        Counting(stream, t);
        mail_free_text(t.text);
        *t.text = text;
      } else {
        mail_free_text(&text);
      }
    } else if (name == "RFC822") {
      MailText* text = imap_text(c);
      mail_free_text(&text);
    } else if (name == "BODY" || name == "BODYSTRUCTURE") {
      BodyPart* body = mail_newbody();
      ok = ParseBody(c, body, 0);
      if (ok) {
        Counting(stream, t);
        mail_free_body(t.body);
        *t.body = body;
      } else {
        mail_free_body(&body);
      }
    } else if (name.rfind("BODY[", 0) == 0) {
      ok = BodyContents(stream, c, t, msgno, name);
    } else {
      Log(mail_format("Unknown message property: %.80s", name.c_str()), 1);
      ok = imap_skip_value(c, 0);
    }
    if (!ok) break;
  }
  if (!c.failed) Log(mail_format("Bad body fetch: %.80s", Rest(c)), 3);
  imap_skip_rest(c);
}
