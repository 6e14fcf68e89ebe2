// The message writer: an outgoing Message becomes the message file, the
// one form in which it travels on (wire, sent mail, drafts, outbox). All
// transfer encodings are decided here.
#include <fcntl.h>
#include <strings.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>
#include <algorithm>
#include <cctype>

#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/send/send.h"
#include "src/send/writer_codec.h"

namespace {

constexpr const char* kMailer = "Velmar for Linux Version 4.1.4 Build (41)";
constexpr size_t kFlushAt = 64 * 1024;
constexpr size_t kFoldColumn = 78;
// Raw bytes of one encoded word: 52 characters of base64, so that a word
// with its "=?UTF-8?B?" and "?=" stays under 76 and a header's first line
// under 78.
constexpr size_t kWordBytes = 39;
// A personal name longer than this is cut (at a character) before it is
// written: no header line may pass 998 octets.
constexpr size_t kMaxPersonalBytes = 300;


// Where the writer's text goes: a string, flushed to a descriptor when there
// is one.
struct Sink {
  std::string buffer;
  int fd = -1;
  SafeFileError error;
  bool failed = false;
  bool Flush() {
    if (fd < 0 || failed) return !failed;
    if (!safe_write_all(fd, buffer.data(), buffer.size(), &error)) failed = true;
    buffer.clear();
    return !failed;
  }
  bool Put(const std::string& text) {
    buffer += text;
    return buffer.size() < kFlushAt || Flush();
  }
};

bool Ascii(const char* text) {
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p)
    if (*p >= 0x80) return false;
  return true;
}

std::string Base64(const std::string& bytes) {
  std::string out;
  Base64Encoder encoder;
  encoder.Feed(bytes.data(), bytes.size(), &out);
  encoder.Finish(&out);
  if (out.size() >= 2) out.resize(out.size() - 2);  // one line: its CRLF goes
  return out;
}

// Splits UTF-8 text into pieces of at most `limit` bytes without cutting a
// character in two (a byte that is no valid start counts alone).
std::string NextPiece(const std::string& text, size_t* at, size_t limit) {
  size_t end = *at;
  while (end < text.size()) {
    size_t n = 1;
    const unsigned char c = static_cast<unsigned char>(text[end]);
    if (c >= 0xf0) n = 4;
    else if (c >= 0xe0) n = 3;
    else if (c >= 0xc0) n = 2;
    if (end + n > text.size()) n = text.size() - end;
    if (end - *at + n > limit && end > *at) break;
    end += n;
  }
  std::string piece = text.substr(*at, end - *at);
  *at = end;
  return piece;
}

std::vector<std::string> EncodedWords(const std::string& text) {
  std::vector<std::string> words;
  for (size_t at = 0; at < text.size();) words.push_back("=?UTF-8?B?" + Base64(NextPiece(text, &at, kWordBytes)) + "?=");
  return words;
}

std::string CleanValue(const char* value) {
  std::string text;
  for (const char* p = value; *p; ++p) text += (*p == '\r' || *p == '\n') ? ' ' : *p;
  return text;
}

void Report2004(const char* what) { SendError(2004, what); }

}  // namespace

void send_set_clock_for_test_identity(long long seconds);
void send_set_clock_for_test(long long seconds) { send_set_clock_for_test_identity(seconds); }

std::string encode_header_text(const char* name, const char* value) {
  const std::string text = CleanValue(value ? value : "");
  size_t column = std::strlen(name) + 2;
  std::string out;
  bool longest_word_fits = true;
  {
    size_t word = 0;
    for (char c : text) {
      word = c == ' ' ? 0 : word + 1;
      if (word + column > kMaxLineOctets - 10) longest_word_fits = false;
    }
  }
  if (Ascii(text.c_str()) && longest_word_fits) {
    // Folds at blanks: the blank stays, after the line break.
    size_t start = 0;
    while (start <= text.size()) {
      size_t end = text.find(' ', start + 1);
      if (end == std::string::npos) end = text.size();
      const std::string word = text.substr(start, end - start);
      if (column + word.size() > kFoldColumn && start > 0 && !out.empty()) {
        out += "\r\n";
        column = 0;
      }
      out += word;
      column += word.size();
      if (end == text.size()) break;
      start = end;
    }
    return out;
  }
  bool first = true;
  for (const std::string& word : EncodedWords(text)) {
    if (!first) {
      if (column + 1 + word.size() > kFoldColumn) {
        out += "\r\n";
        column = 0;
      }
      out += ' ';
      ++column;
    }
    out += word;
    column += word.size();
    first = false;
  }
  return out;
}

MailAddress* encode_address_list(const MailAddress* list) {
  MailAddress* head = nullptr;
  MailAddress** tail = &head;
  for (const MailAddress* a = list; a; a = a->next) {
    MailAddress* copy = mail_newaddr();
    copy->adl = a->adl ? cpystr(a->adl) : nullptr;
    copy->mailbox = a->mailbox ? cpystr(a->mailbox) : nullptr;
    copy->host = a->host ? cpystr(a->host) : nullptr;
    if (a->personal) {
      std::string personal = CleanValue(a->personal);
      if (personal.size() > kMaxPersonalBytes) {
        size_t at = 0;
        personal = NextPiece(personal, &at, kMaxPersonalBytes);
      }
      if (!Ascii(personal.c_str())) {
        std::string joined;
        for (const std::string& word : EncodedWords(personal)) joined += (joined.empty() ? "" : " ") + word;
        personal = joined;
      }
      copy->personal = cpystr(personal.c_str());
    }
    *tail = copy;
    tail = &copy->next;
  }
  return head;
}

// --- Headers --------------------------------------------------------------------

namespace {

std::string AddressHeader(const std::string& name, const MailAddress* list) {
  if (!list) return "";
  MailAddress* encoded = encode_address_list(list);
  // The line writer appends to a caller's buffer: size it from the text.
  size_t size = 64 + name.size();
  for (const MailAddress* a = encoded; a; a = a->next) {
    size += 16;
    for (const char* s : {a->personal, a->adl, a->mailbox, a->host}) size += s ? 2 * std::strlen(s) + 2 : 0;
  }
  std::unique_ptr<char[]> buffer(new char[size + kFoldColumn]());
  rfc822_address_line(buffer.get(), name.c_str(), encoded);
  mail_free_address(&encoded);
  return buffer.get();
}

std::string StringHeader(const std::string& name, const char* value) {
  if (!value) return "";
  return name + ": " + encode_header_text(name.c_str(), value) + "\r\n";
}

}  // namespace

// --- Bodies ---------------------------------------------------------------------

namespace {

// A part's bytes, read block by block from memory or from its file.
struct Source {
  const char* data = nullptr;
  size_t size = 0;
  size_t at = 0;
  int fd = -1;
  std::string name;
  bool Open(const MailText* text) {
    if (text->kind == kTextFile) {
      name = text->data ? text->data : "";
      SafeFileError error;
      fd = safe_open_read(name.c_str(), &error);
      if (fd < 0) {
        Trace(kTraceCompose, kTraceCritical, "write_file_body_contents(): unable to open file for input: %s\n",
              name.c_str());
        SendError(2003, (name + " (" + error.text() + ")").c_str());
        return false;
      }
      return true;
    }
    data = text->data ? text->data : "";
    size = text->data ? text->size : 0;
    return true;
  }
  // Bytes of the next block; 0 at the end, -1 on a read error.
  long Next(char* block, size_t capacity) {
    if (fd < 0) {
      const size_t n = std::min(capacity, size - at);
      std::memcpy(block, data + at, n);
      at += n;
      return static_cast<long>(n);
    }
    for (;;) {
      const ssize_t n = ::read(fd, block, capacity);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        Trace(kTraceCompose, kTraceCritical, "write_file_body_contents(): failed read in part content file.\n");
        SendError(2005, (name + " (" + std::strerror(errno) + ")").c_str());
      }
      return static_cast<long>(n);
    }
  }
  ~Source() {
    if (fd >= 0) ::close(fd);
  }
};

// Converted text of a canonical part: in memory, or in a temporary file
// (0600) for a part that came from a file.
struct Canonical {
  std::string memory;
  std::string file;
  ~Canonical() {
    if (!file.empty()) ::unlink(file.c_str());
  }
};

enum class Treatment { kCanonical, kRaw, kLineEnds };

Treatment TreatmentOf(BodyPart* body) {
  switch (body->type) {
    case TYPETEXT:
      return Treatment::kCanonical;
    case TYPEMESSAGE:
      body->encoding = ENC7BIT;
      return Treatment::kLineEnds;
    case TYPEAPPLICATION: {
      const char* sub = body->subtype ? body->subtype : "";
      if (!strcasecmp(sub, "x-uuencode") || !strcasecmp(sub, "mac-binhex40")) {
        body->encoding = ENC7BIT;
        return Treatment::kCanonical;
      }
      if (!strcasecmp(sub, "tcl-form")) {
        body->encoding = ENC7BIT;
        return Treatment::kRaw;
      }
      body->encoding = ENCBASE64;
      return Treatment::kRaw;
    }
    default:
      body->encoding = ENCBASE64;
      return Treatment::kRaw;
  }
}

// Sets CHARSET=UTF-8 on a text part that holds bytes above 127 (our
// editor writes UTF-8), over a missing or US-ASCII charset.
void MarkUtf8(BodyPart* body) {
  for (BodyParameter* p = body->parameter; p; p = p->next) {
    if (p->attribute && !strcasecmp(p->attribute, "CHARSET")) {
      if (!p->value || !strcasecmp(p->value, "US-ASCII")) {
        FS_GIVE(&p->value);
        p->value = cpystr("UTF-8");
      }
      return;
    }
  }
  BodyParameter* p = mail_newbody_parameter();
  p->attribute = cpystr("CHARSET");
  p->value = cpystr("UTF-8");
  p->next = body->parameter;
  body->parameter = p;
}

std::string DispositionHeader(const BodyPart* body) {
  if (!body->disposition || !*body->disposition) return "";
  std::string out = "Content-Disposition: " + CleanValue(body->disposition);
  for (const BodyParameter* p = body->disposition_parameter; p; p = p->next) {
    if (!p->attribute || !p->value) continue;
    const std::string value = CleanValue(p->value);
    if (Ascii(value.c_str()) && value.find_first_of("\"\\") == std::string::npos) {
      out += ";\r\n " + CleanValue(p->attribute) + "=\"" + value + "\"";
    } else {
      // Non-ASCII names in the extended form, percent-escaped.
      static const char kHex[] = "0123456789ABCDEF";
      std::string escaped;
      for (unsigned char c : value) {
        if (std::isalnum(c) || std::strchr("!#$&+-.^_`|~", c)) {
          escaped += static_cast<char>(c);
        } else {
          escaped += '%';
          escaped += kHex[c >> 4];
          escaped += kHex[c & 15];
        }
      }
      out += ";\r\n " + CleanValue(p->attribute) + "*=UTF-8''" + escaped;
    }
  }
  return out + "\r\n";
}

std::string PartHeaders(BodyPart* body) {
  size_t size = 1024;
  for (const BodyParameter* p = body->parameter; p; p = p->next)
    size += 2 * ((p->attribute ? std::strlen(p->attribute) : 0) + (p->value ? std::strlen(p->value) : 0)) + 8;
  for (const char* s : {body->subtype, body->id, body->description}) size += s ? 2 * std::strlen(s) : 0;
  std::unique_ptr<char[]> buffer(new char[size]());
  rfc822_write_body_header(buffer.get(), body);
  return buffer.get() + DispositionHeader(body) + "\r\n";
}

// Streams text through the part's encoder into the sink.
bool Encode(unsigned short encoding, Source* source, Sink* sink) {
  Base64Encoder base64;
  QPEncoder qp;
  char block[kSendBlockSize];
  std::string out;
  for (;;) {
    const long n = source->Next(block, sizeof block);
    if (n < 0) return false;
    if (n == 0) break;
    out.clear();
    if (encoding == ENCBASE64) {
      base64.Feed(block, static_cast<size_t>(n), &out);
    } else if (encoding == ENCQUOTEDPRINTABLE) {
      qp.Feed(block, static_cast<size_t>(n), &out);
    } else {
      out.assign(block, static_cast<size_t>(n));
    }
    if (!sink->Put(out)) return false;
  }
  out.clear();
  if (encoding == ENCBASE64) base64.Finish(&out);
  if (encoding == ENCQUOTEDPRINTABLE) qp.Finish(&out);
  return sink->Put(out);
}

// Converts the part's line ends into `canonical`; the encoding it needs
// comes back.
bool Canonicalize(const MailText* text, Canonical* canonical, Canonicalizer* state) {
  Source source;
  if (!source.Open(text)) return false;
  int fd = -1;
  SafeFileError error;
  if (text->kind == kTextFile) {
    canonical->file = NewTempName();
    fd = safe_create_exclusive(canonical->file.c_str(), 0600, &error);
    if (fd < 0) {
      Trace(kTraceCompose, kTraceCritical, "canonicalize_rfc822_file: unable to open file for output: %s\n",
            canonical->file.c_str());
      SendError(2003, (canonical->file + " (" + error.text() + ")").c_str());
      canonical->file.clear();
      return false;
    }
  }
  char block[kSendBlockSize];
  std::string out;
  bool ok = true;
  for (;;) {
    const long n = source.Next(block, sizeof block);
    if (n < 0) {
      ok = false;
      break;
    }
    out.clear();
    if (n == 0) {
      state->Finish(&out);
    } else {
      state->Feed(block, static_cast<size_t>(n), &out);
    }
    if (fd >= 0) {
      if (!safe_write_all(fd, out.data(), out.size(), &error)) {
        SendError(2004, (canonical->file + " (" + error.text() + ")").c_str());
        ok = false;
        break;
      }
    } else {
      canonical->memory += out;
    }
    if (n == 0) break;
  }
  if (fd >= 0) ::close(fd);
  return ok;
}

bool WriteBody(BodyPart* body, Sink* sink);

bool WriteMultipart(BodyPart* body, Sink* sink) {
  const Rfc822Parameter found = rfc822_parameter(body->parameter, "BOUNDARY");
  std::string boundary = found.value;
  if (boundary.empty()) {
    boundary = get_part_delimiter();
    BodyParameter* p = mail_newbody_parameter();
    p->attribute = cpystr("BOUNDARY");
    p->value = cpystr(boundary.c_str());
    p->next = body->parameter;
    body->parameter = p;
  }
  if (!sink->Put(PartHeaders(body))) return false;
  for (BodyPartNode* part = body->parts; part; part = part->next) {
    if (!sink->Put("--" + boundary + "\r\n") || !WriteBody(&part->body, sink)) {
      Trace(kTraceCompose, kTraceCritical, "write_body_header(): unable to write cookie to file.\n");
      return false;
    }
  }
  return sink->Put("--" + boundary + "--\r\n");
}

bool WriteBody(BodyPart* body, Sink* sink) {
  // A signed or encrypted part comes prepared, headers and all, and must
  // reach the wire byte for byte.
  if (body->type == TYPEMULTIPART && !body->parts && body->contents && body->contents->data) {
    const MailText* t = body->contents;
    return sink->Put(std::string(t->data, t->size));
  }
  if (body->type == TYPEMULTIPART) return WriteMultipart(body, sink);
  const MailText* text = body->type == TYPEMESSAGE && body->msg_text ? body->msg_text : body->contents;
  const Treatment treatment = TreatmentOf(body);
  if (!text) return sink->Put(PartHeaders(body));
  if (treatment == Treatment::kRaw) {
    Source source;
    if (!source.Open(text) || !sink->Put(PartHeaders(body))) return false;
    return Encode(body->encoding, &source, sink) && sink->Put("\r\n");
  }
  Canonical canonical;
  Canonicalizer state;
  if (!Canonicalize(text, &canonical, &state)) return false;
  if (treatment == Treatment::kCanonical && body->type == TYPETEXT) {
    // A part asked for as quoted-printable stays so (a signed part must
    // keep its blanks at line ends through any transport).
    const bool want_qp = body->encoding == ENCQUOTEDPRINTABLE;
    body->encoding = state.Encoding();
    if (want_qp && body->encoding == ENC7BIT) body->encoding = ENCQUOTEDPRINTABLE;
    if (state.high) MarkUtf8(body);
  } else if (treatment == Treatment::kCanonical) {
    // Enclosures are 7-bit by their nature; one that is not goes as base64.
    body->encoding = state.high || state.zero ? ENCBASE64 : state.long_line ? ENCQUOTEDPRINTABLE : ENC7BIT;
  } else if (state.high || state.zero) {
    // A forwarded message keeps its form: 8-bit bytes are labelled as such.
    body->encoding = ENC8BIT;
  }
  if (!sink->Put(PartHeaders(body))) return false;
  MailText converted{};
  if (canonical.file.empty()) {
    converted.kind = kTextBinary;
    converted.data = canonical.memory.data();
    converted.size = canonical.memory.size();
  } else {
    converted.kind = kTextFile;
    converted.data = canonical.file.data();
  }
  Source source;
  if (!source.Open(&converted)) return false;
  return Encode(body->encoding == ENC8BIT ? static_cast<unsigned short>(ENC7BIT) : body->encoding, &source, sink) && sink->Put("\r\n");
}

bool WriteMessage(Sink* sink, Message* message, const int* authenticated, const SendOptions* options) {
  Envelope* env = message->envelope;
  std::string prefix;
  std::string head;
  if (env->remail && *env->remail) {
    std::string original = env->remail;
    while (!original.empty() && (original.back() == '\r' || original.back() == '\n')) original.pop_back();
    head += original + "\r\n";
    prefix = "ReSent-";
  }
  short suppress = 0;
  Opt_LookupBoolean("Send.SuppressSenderHeader", &suppress, kOptSession);
  head += AddressHeader(prefix + "From", env->from);
  if (!suppress) head += AddressHeader(prefix + "Sender", env->sender);
  head += AddressHeader(prefix + "Reply-To", env->reply_to);
  head += AddressHeader(prefix + "To", env->to);
  head += AddressHeader(prefix + "Cc", env->cc);
  head += AddressHeader(prefix + "Bcc", env->bcc);
  head += StringHeader(prefix + "Subject", env->subject);
  head += StringHeader(prefix + "In-Reply-To", env->in_reply_to);
  // Headers the composer adds (References for threading), by name.
  for (const ExtraHeader* x = env->extra_headers; x; x = x->next)
    if (x->name && x->value && std::strchr(x->name, ':') == nullptr) head += StringHeader(prefix + x->name, x->value);
  head += StringHeader(prefix + "Message-ID", env->message_id);
  head += StringHeader(prefix + "Date", env->date);
  head += StringHeader(prefix + "Newsgroups", env->newsgroups);
  if (options) {
    if (options->read_receipt == 1) {
      head += AddressHeader("Read-Receipt-To", env->from);
      head += AddressHeader("Disposition-Notification-To", env->from);
    }
    if (options->delivery_receipt == 1) {
      head += AddressHeader("Delivery-Receipt-To", env->from);
      head += AddressHeader("Return-Receipt-To", env->from);
    }
    if (options->save_outgoing && options->queued) head += "X-Save-Outgoing: True\r\n";
    // The outbox reads this back to send with an empty envelope sender.
    if (options->null_sender && options->queued) head += "X-Null-Sender: True\r\n";
    head += std::string("Priority: ") +
            (options->priority == 0 ? "LOW" : options->priority == 2 ? "HIGH" : "NORMAL") + "\r\n";
  }
  if (authenticated) {
    head += std::string("X-Mailer: ") + kMailer + "\r\n";
    head += std::string("X-Authentication: ") + (*authenticated == 1 ? "IMSP" : "none") + "\r\n";
  }
  head += "MIME-Version: 1.0\r\n";
  if (!sink->Put(head)) {
    Report2004("Writing message header.");
    return false;
  }
  if (!message->body) return sink->Put("\r\n");
  return WriteBody(message->body, sink);
}

}  // namespace

int write_message(std::string* out, Message* message, const int* authenticated, const SendOptions* options) {
  if (!out || !message || !message->envelope) return 0;
  Sink sink;
  const bool ok = WriteMessage(&sink, message, authenticated, options);
  *out = std::move(sink.buffer);
  return ok ? 1 : 0;
}

int dump_message(Message* message, const char* file, const int* authenticated, const SendOptions* options) {
  Trace(kTraceCompose, kTraceAll, "dump_message: function entry.\n");
  if (!message || !message->envelope || !file) return 0;
  Sink sink;
  sink.fd = safe_open(file, O_WRONLY | O_CREAT | O_TRUNC, 0600, &sink.error);
  if (sink.fd < 0) {
    Trace(kTraceCompose, kTraceCritical, "dump_message(): unable to open file for output: %s\n", file);
    Trace(kTraceCompose, kTraceCritical, "\t%s\n", sink.error.text().c_str());
    SendError(2003, (std::string(file) + " (" + sink.error.text() + ")").c_str());
    return 0;
  }
  bool ok = WriteMessage(&sink, message, authenticated, options) && sink.Flush() && safe_fsync(sink.fd, &sink.error);
  if (sink.failed) {
    Trace(kTraceCompose, kTraceCritical, "write_buf_body_contents: failed write to dump file.\n");
    SendError(2004, (std::string(file) + " (" + sink.error.text() + ")").c_str());
  }
  ::close(sink.fd);
  if (!ok) ::unlink(file);
  return ok ? 1 : 0;
}
