// Writing RFC 822 and MIME: addresses, header blocks, part headers, and
// whole messages through a caller's output function.
//
// Texts are built as strings and then appended to the caller's buffer, so
// that the folding and the limit work on whole addresses.
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

constexpr size_t kFoldColumn = 78;
constexpr const char* kFold = "\r\n    ";
constexpr const char* kTruncated = "(address list truncated ...)";
// Parameter values are quoted when they hold one of these or a blank.
constexpr const char* kParameterSpecials = " ()<>@,;:\"[]./?=";
// The local part of an address is quoted when it is no dot-atom: a dot is
// fine there, between words.
constexpr const char* kLocalSpecials = " ()<>@,;:\"[]\\";

bool HasAny(const char* text, const char* set) { return std::strpbrk(text, set) != nullptr; }

// Control characters end an atom for a reader: a word holding one must be
// quoted to come back whole.
bool HasControl(const char* text) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    if (*p < 0x20 || *p == 0x7f) return true;
  }
  return false;
}

// A name must never start a header line of its own: CR and LF in a word
// become blanks.
char Clean(char c) { return c == '\r' || c == '\n' ? ' ' : c; }

void AppendClean(std::string& out, const char* text) {
  for (const char* p = text; *p; ++p) out += Clean(*p);
}

// Hosts are written as they stand, but a reader takes a backslash in one
// for a quoting one.
void AppendEscaped(std::string& out, const char* text) {
  for (const char* p = text; *p; ++p) {
    if (*p == '\\') out += '\\';
    out += Clean(*p);
  }
}

void AppendQuoted(std::string& out, const char* text) {
  out += '"';
  for (const char* p = text; *p; ++p) {
    if (*p == '"' || *p == '\\') out += '\\';
    out += Clean(*p);
  }
  out += '"';
}

// Phrases (personal names, group names): quoted when they hold rspecials,
// when empty, or with blanks at an end that a reader would otherwise drop.
void AppendPhrase(std::string& out, const char* text) {
  const size_t n = std::strlen(text);
  // An empty group name must still be a word.
  const bool blank_end = !n || text[0] == ' ' || text[n - 1] == ' ';
  if (blank_end || HasAny(text, rspecials) || HasAny(text, "\\") || HasControl(text)) {
    AppendQuoted(out, text);
  } else {
    AppendClean(out, text);
  }
}

void AppendLocalPart(std::string& out, const char* mailbox) {
  const size_t n = std::strlen(mailbox);
  const bool dots_wrong = n && (mailbox[0] == '.' || mailbox[n - 1] == '.' || std::strstr(mailbox, ".."));
  if (HasAny(mailbox, kLocalSpecials) || dots_wrong || HasControl(mailbox)) {
    AppendQuoted(out, mailbox);
  } else {
    AppendClean(out, mailbox);
  }
}

bool IsGroupStart(const MailAddress* a) { return a->mailbox && !a->host; }
bool IsGroupEnd(const MailAddress* a) { return !a->mailbox && !a->host; }

// route ":" mailbox "@" host; a host beginning "@" marks an unknown host
// and is left out with its "@".
void AppendAddressSpec(std::string& out, const MailAddress* a) {
  if (a->adl && *a->adl) {
    AppendClean(out, a->adl);  // a reader keeps a route whole, as written
    out += ':';
  }
  AppendLocalPart(out, a->mailbox ? a->mailbox : "");
  if (a->host && *a->host && a->host[0] != '@') {
    out += '@';
    AppendEscaped(out, a->host);
  }
}

void AppendOneAddress(std::string& out, const MailAddress* a) {
  const bool personal = a->personal && *a->personal;
  const bool route = a->adl && *a->adl;
  // An empty address ("<>", as bounces carry) keeps its brackets.
  const bool angle = personal || route || !a->mailbox || !*a->mailbox;
  if (personal) {
    AppendPhrase(out, a->personal);
    out += ' ';
  }
  if (angle) out += '<';
  AppendAddressSpec(out, a);
  if (angle) out += '>';
}

// A list as pieces: the places between pieces are where a line may fold.
struct Piece {
  std::string text;
  bool blank_after;  // a blank (or a fold) separates it from the next
};

std::vector<Piece> AddressPieces(const MailAddress* list) {
  std::vector<Piece> pieces;
  for (const MailAddress* a = list; a; a = a->next) {
    Piece piece{{}, false};
    if (IsGroupStart(a)) {
      AppendPhrase(piece.text, a->mailbox);
      piece.text += ':';
      piece.blank_after = true;
    } else {
      if (IsGroupEnd(a)) {
        piece.text = ";";
      } else {
        AppendOneAddress(piece.text, a);
      }
      if (a->next && !IsGroupEnd(a->next)) {
        piece.text += ',';
        piece.blank_after = true;
      }
    }
    pieces.push_back(std::move(piece));
  }
  return pieces;
}

std::string AddressText(const MailAddress* list) {
  std::string out;
  bool blank = false;
  for (const Piece& p : AddressPieces(list)) {
    if (blank) out += ' ';
    out += p.text;
    blank = p.blank_after;
  }
  return out;
}

// Header values: a line break in the text becomes a continuation line, so
// a value can't add a header of its own.
void AppendValue(std::string& out, const char* text) {
  for (const char* p = text; *p; ++p) {
    if (*p != '\r' && *p != '\n') {
      out += *p;
      continue;
    }
    if (*p == '\r' && p[1] == '\n') ++p;
    out += "\r\n";
    if (p[1] != ' ' && p[1] != '\t') out += ' ';
  }
}

void HeaderLine(std::string& out, const std::string& name, const char* text) {
  if (!text) return;
  out += name;
  out += ": ";
  AppendValue(out, text);
  out += "\r\n";
}

void AddressLine(std::string& out, const std::string& name, const MailAddress* list) {
  if (!list) return;
  out += name;
  out += ':';
  size_t column = name.size() + 1;
  bool blank = true;
  bool line_empty = true;  // nothing written yet after the name or a fold
  for (const Piece& p : AddressPieces(list)) {
    if (blank) {
      if (!line_empty && column + 1 + p.text.size() > kFoldColumn) {
        out += kFold;
        column = 4;
      } else {
        out += ' ';
        ++column;
      }
    }
    out += p.text;
    column += p.text.size();
    line_empty = false;
    blank = p.blank_after;
  }
  out += "\r\n";
}

const char* TypeName(unsigned short type) { return body_types[type > TYPEOTHER ? unsigned{TYPEOTHER} : type]; }
const char* EncodingName(unsigned short encoding) {
  return body_encodings[encoding > ENCOTHER ? unsigned{ENCOTHER} : encoding];
}

void AppendParameterValue(std::string& out, const char* value) {
  bool quote = !*value || HasAny(value, kParameterSpecials) || HasAny(value, "\t\\");
  if (quote) {
    AppendQuoted(out, value);
  } else {
    AppendClean(out, value);
  }
}

std::string BodyHeaderText(const BodyPart* body) {
  std::string out = "Content-Type: ";
  out += TypeName(body->type);
  out += '/';
  AppendClean(out, body->subtype && *body->subtype ? body->subtype : rfc822_default_subtype(body->type));
  if (body->parameter) {
    for (const BodyParameter* p = body->parameter; p; p = p->next) {
      if (!p->attribute) continue;
      out += "; ";
      AppendClean(out, p->attribute);
      out += '=';
      AppendParameterValue(out, p->value ? p->value : "");
    }
  } else if (body->type == TYPETEXT) {
    out += "; CHARSET=US-ASCII";
  }
  out += "\r\n";
  if (body->encoding != ENC7BIT) {
    out += "Content-Transfer-Encoding: ";
    out += EncodingName(body->encoding);
    out += "\r\n";
  }
  HeaderLine(out, "Content-ID", body->id);
  HeaderLine(out, "Content-Description", body->description);
  return out;
}

std::string HeaderText(const Envelope* env, const BodyPart* body) {
  std::string out;
  std::string prefix;
  if (env->remail) {
    // The original header, without its blank line: the resent headers
    // follow it in the same block.
    std::string_view remail(env->remail);
    while (!remail.empty() && (remail.back() == '\r' || remail.back() == '\n')) remail.remove_suffix(1);
    if (!remail.empty()) {
      out.append(remail);
      out += "\r\n";
    }
    prefix = "ReSent-";
  }
  HeaderLine(out, prefix + "Newsgroups", env->newsgroups);
  HeaderLine(out, prefix + "Date", env->date);
  AddressLine(out, prefix + "From", env->from);
  AddressLine(out, prefix + "Sender", env->sender);
  AddressLine(out, prefix + "Reply-To", env->reply_to);
  HeaderLine(out, prefix + "Subject", env->subject);
  AddressLine(out, prefix + "To", env->to);
  AddressLine(out, prefix + "cc", env->cc);  // lower case, as it always was
  HeaderLine(out, prefix + "In-Reply-To", env->in_reply_to);
  HeaderLine(out, prefix + "Message-ID", env->message_id);
  if (body && prefix.empty()) {
    out += "MIME-Version: 1.0\r\n";
    out += BodyHeaderText(body);
  }
  out += "\r\n";
  return out;
}

void Append(char* buffer, const std::string& text) {
  const size_t at = std::strlen(buffer);
  std::memcpy(buffer + at, text.c_str(), text.size() + 1);
}

// --- Output of whole messages ---------------------------------------------------

constexpr size_t kOutputChunk = 8192;

// The writer takes zero-terminated text: raw bytes go in chunks. A zero
// byte can't pass; rfc822_encode_body leaves none in a raw part.
long WriteRaw(const char* data, unsigned long size, soutr_t f, void* stream) {
  char chunk[kOutputChunk + 1];
  unsigned long i = 0;
  while (i < size) {
    size_t n = 0;
    while (i < size && n < kOutputChunk) {
      if (data[i]) chunk[n++] = data[i];
      ++i;
    }
    chunk[n] = '\0';
    if (n && !f(stream, chunk)) return 0;
  }
  return 1;
}

// A part's text as bytes: in memory, or read from its temporary file.
bool PartBytes(const MailText* text, std::string& file_data, const char** data, unsigned long* size) {
  if (text->kind != kTextFile) {
    *data = text->data ? text->data : "";
    *size = text->data ? text->size : 0;
    return true;
  }
  file_data.clear();
  const int fd = text->data ? ::open(text->data, O_RDONLY | O_CLOEXEC) : -1;
  bool ok = fd >= 0;
  while (ok) {
    char block[kOutputChunk];
    const ssize_t n = ::read(fd, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    file_data.append(block, static_cast<size_t>(n));
  }
  if (!ok) {
    char message[512];
    std::snprintf(message, sizeof message, "Can't read message part file %.200s: %.200s",
                  text->data ? text->data : "", std::strerror(errno));
    mm_log(message, 2);
  }
  if (fd >= 0) ::close(fd);
  *data = file_data.data();
  *size = file_data.size();
  return ok;
}

long OutputLeaf(const BodyPart* body, const MailText* text, soutr_t f, void* stream) {
  if (!text) return 1;
  std::string file_data;
  const char* data;
  unsigned long size;
  if (!PartBytes(text, file_data, &data, &size)) return 0;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
  unsigned char* encoded = nullptr;
  if (body->encoding == ENCBASE64) {
    encoded = rfc822_binary(bytes, size, nullptr);
  } else if (body->encoding == ENCQUOTEDPRINTABLE) {
    encoded = rfc822_8bit(bytes, size, nullptr);
  } else {
    return WriteRaw(data, size, f, stream);
  }
  const long ok = f(stream, reinterpret_cast<char*>(encoded));
  FS_GIVE(&encoded);
  return ok;
}

bool IsMessageRfc822(const BodyPart* body) {
  return body->type == TYPEMESSAGE && (!body->subtype || !strcasecmp(body->subtype, "RFC822"));
}

std::string Boundary(const BodyPart* body) {
  const Rfc822Parameter p = rfc822_parameter(body->parameter, "BOUNDARY");
  return p.value.empty() ? "-" : p.value;  // "-": what a reader takes for a multipart without one
}

long OutputBody(const BodyPart* body, soutr_t f, void* stream);

long OutputMessage(const Envelope* env, const BodyPart* body, soutr_t f, void* stream) {
  if (!f(stream, HeaderText(env, body).c_str())) return 0;
  return body ? OutputBody(body, f, stream) : 1;
}

long OutputBody(const BodyPart* body, soutr_t f, void* stream) {
  if (body->type == TYPEMULTIPART) {
    const std::string boundary = Boundary(body);
    for (const BodyPartNode* part = body->parts; part; part = part->next) {
      // The CRLF after a part belongs to the delimiter that follows, so the
      // part's own text keeps its last line end.
      const std::string head = "--" + boundary + "\r\n" + BodyHeaderText(&part->body) + "\r\n";
      if (!f(stream, head.c_str()) || !OutputBody(&part->body, f, stream) || !f(stream, "\r\n")) return 0;
    }
    return f(stream, ("--" + boundary + "--\r\n").c_str());
  }
  if (IsMessageRfc822(body)) {
    if (body->msg_text) return OutputLeaf(body, body->msg_text, f, stream);
    if (body->msg_env) return OutputMessage(body->msg_env, body->msg_body, f, stream);
    return 1;
  }
  return OutputLeaf(body, body->contents, f, stream);
}

}  // namespace

char* rfc822_write_address(char* buffer, MailAddress* list) {
  Append(buffer, AddressText(list));
  return buffer;
}

// size is the whole buffer's, with what it holds already and the final
// zero; only whole addresses are written.
char* rfc822_write_address_limited(char* buffer, size_t size, MailAddress* list) {
  if (!size) return buffer;
  size_t used = strnlen(buffer, size);
  if (used == size) return buffer;  // not even terminated: leave it alone
  bool blank = false;
  for (const Piece& p : AddressPieces(list)) {
    if (used + (blank ? 1 : 0) + p.text.size() + 1 > size) {
      const bool separate = used && buffer[used - 1] != ' ';
      const size_t mark = std::strlen(kTruncated);
      if (used + (separate ? 1 : 0) + mark + 1 <= size) {
        if (separate) buffer[used++] = ' ';
        std::memcpy(buffer + used, kTruncated, mark + 1);
      }
      return buffer;
    }
    if (blank) buffer[used++] = ' ';
    std::memcpy(buffer + used, p.text.c_str(), p.text.size() + 1);
    used += p.text.size();
    blank = p.blank_after;
  }
  return buffer;
}

// The address alone, as a transfer agent wants it: no name, no group.
void rfc822_write_one_address(char* buffer, MailAddress* address) {
  if (!address || IsGroupStart(address) || IsGroupEnd(address)) return;
  std::string out;
  AppendAddressSpec(out, address);
  Append(buffer, out);
}

void rfc822_header(char* buffer, Envelope* env, BodyPart* body) {
  if (env) Append(buffer, HeaderText(env, body));
}

void rfc822_output_header_line(char* buffer, const char* name, const char* text) {
  std::string out;
  HeaderLine(out, name, text);
  Append(buffer, out);
}

void rfc822_address_line(char* buffer, const char* name, MailAddress* list) {
  std::string out;
  AddressLine(out, name, list);
  Append(buffer, out);
}

void rfc822_write_body_header(char* buffer, BodyPart* body) {
  if (body) Append(buffer, BodyHeaderText(body));
}

long rfc822_output(char* buffer, Envelope* env, BodyPart* body, soutr_t f, void* stream) {
  if (body) rfc822_encode_body(env, body);
  buffer[0] = '\0';
  if (env) rfc822_header(buffer, env, body);
  if (!f(stream, buffer)) return 0;
  return body ? OutputBody(body, f, stream) : 1;
}

long rfc822_output_body(BodyPart* body, soutr_t f, void* stream) { return body ? OutputBody(body, f, stream) : 1; }
