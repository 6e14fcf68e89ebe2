// Reading a message by UMI: its structure, envelope, size and priority,
// header values, and its raw header and body in memory or in files.
//
// Every file a function here returns is the caller's: the cached text that
// held it gives it up (and is fetched anew next time), so that the cache
// never deletes a file under a caller nor keeps a name that a caller
// deleted.
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/message_internal.h"

namespace {

// Address lists are written out into this much at most.
constexpr size_t kAddressTextLimit = 60000;

enum class Fetch { kHeader, kBody };

MailText* FetchText(MailStream* stream, unsigned long msgno, Fetch what) {
  CriticalSection busy;
  return what == Fetch::kHeader ? mail_fetchheader(stream, msgno) : mail_fetchtext(stream, msgno);
}

// The header or body of a real message, through the hook in file mode: a
// text cached in memory is dropped and fetched again into a file.
std::string RawToFile(UMI umi, Fetch what) {
  if (MM_MsgIsShadowMessage(umi))
    return what == Fetch::kHeader ? ShadowUMIRawHeadersToFile(umi) : ShadowUMIRawBodyToFile(umi);
  MailStream* stream;
  unsigned long msgno;
  std::string file;
  MM_MailgetsSetEncoding(0);
  for (int attempt = 0; attempt < 2 && file.empty(); ++attempt) {
    if (!UmiLocate(umi, &stream, &msgno)) break;
    if (!MM_MailgetsToFile()) break;
    MailText* text = FetchText(stream, msgno, what);
    MM_MailgetsFileDone();
    if (!text) break;
    if (text->kind == kTextFile && text->data && FileExists(text->data)) {
      file = TakeTextFile(text);
      break;
    }
    text->consumed = 1;
  }
  return file;
}

std::optional<std::string> ReadWhole(const std::string& file) {
  std::string data;
  if (!SlurpFile(file.c_str(), &data)) return std::nullopt;
  return data;
}

const char* SkipBlanks(const char* s) {
  while (*s == ' ' || *s == '\t') ++s;
  return s;
}

std::optional<std::string> Value(const char* s) {
  if (!s) return std::nullopt;
  return std::string(SkipBlanks(s));
}

std::optional<std::string> Addresses(MailAddress* list) {
  if (!list) return std::nullopt;
  std::vector<char> buffer(kAddressTextLimit + 1, '\0');
  rfc822_write_address_limited(buffer.data(), kAddressTextLimit, list);
  return std::string(SkipBlanks(buffer.data()));
}

// The header values the envelope holds.
struct EnvelopeField {
  const char* name;
  std::optional<std::string> (*get)(const Envelope*);
};
const EnvelopeField kEnvelopeFields[] = {
    {"Cc", [](const Envelope* e) { return Addresses(e->cc); }},
    {"Date", [](const Envelope* e) { return Value(e->date); }},
    {"From", [](const Envelope* e) { return Addresses(e->from); }},
    {"In-Reply-To", [](const Envelope* e) { return Value(e->in_reply_to); }},
    {"Message-ID", [](const Envelope* e) { return Value(e->message_id); }},
    {"Newsgroups", [](const Envelope* e) { return Value(e->newsgroups); }},
    {"Reply-To", [](const Envelope* e) { return Addresses(e->reply_to); }},
    {"Sender", [](const Envelope* e) { return Addresses(e->sender); }},
    {"Subject", [](const Envelope* e) { return Value(e->subject); }},
    {"To", [](const Envelope* e) { return Addresses(e->to); }},
};

// For each name, the value of the first header line called so (any case,
// blanks allowed before the colon), folds joined and the line end trimmed;
// one pass over the block whatever the number of names.
std::vector<std::optional<std::string>> ScanHeader(const std::string& header,
                                                   std::initializer_list<const char*> names) {
  std::vector<std::optional<std::string>> found(names.size());
  size_t missing = names.size();
  std::vector<char> block(header.begin(), header.end());
  block.push_back('\0');
  char* text = block.data();
  unsigned long remaining = header.size();
  while (missing > 0) {
    char* line = rfc822_next_header(&text, &remaining, true);
    if (!line) break;
    size_t i = 0;
    for (const char* name : names) {
      const size_t n = std::strlen(name);
      const char* p = n && !found[i] && strncasecmp(line, name, n) == 0 ? SkipBlanks(line + n) : nullptr;
      if (p && *p == ':') found[i] = std::string(SkipBlanks(p + 1)), --missing;
      ++i;
    }
  }
  return found;
}

}  // namespace

int CreateTempFile(std::string* path) {
  const std::string dir = GetTempDir();
  for (int tries = 0; tries < 5; ++tries) {
    const std::string base = NewTempName();
    if (base.empty()) break;
    *path = JoinPath(dir, base);
    SafeFileError err;
    const int fd = safe_create_exclusive(path->c_str(), 0600, &err);
    if (fd >= 0) return fd;
    if (err.error != EEXIST) break;
  }
  path->clear();
  return -1;
}

std::string TakeTextFile(MailText* text) {
  std::string name = text->data ? text->data : "";
  mail_text_set(text, kTextInMemory, nullptr, 0);
  text->consumed = 1;
  return name;
}

int MM_MsgIsMultipart(UMI umi) {
  const BodyPart* b = MM_MsgSectionBody(umi, "");
  if (MM_MsgIsShadowMessage(umi) && IsMessageRfc822(b)) b = b->msg_body;
  return b && b->type == TYPEMULTIPART ? 1 : 0;
}

unsigned long MM_MsgSize(UMI umi) {
  if (MM_MsgIsShadowMessage(umi)) return MM_MsgSectionSize(umi, "");
  const MessageElt* elt = MM_UMIGetElt(umi);
  return elt ? elt->rfc822_size : 0;
}

int MM_MsgPriority(UMI umi) {
  const std::optional<std::string> p = MM_MsgHeaderContent(umi, "Priority");
  if (!p) return kPriorityNormal;
  if (*p == "HIGH") return kPriorityHigh;
  if (*p == "LOW") return kPriorityLow;
  return kPriorityNormal;
}

Envelope* MM_MsgEnvelope(UMI umi) {
  if (MM_MsgIsShadowMessage(umi)) {
    BodyPart* part = MM_MsgSectionBody(umi, "");
    return part ? part->msg_env : nullptr;
  }
  MailStream* stream;
  unsigned long msgno;
  if (!UmiLocate(umi, &stream, &msgno)) return nullptr;
  return mail_fetchstructure(stream, msgno, nullptr);
}

MailAddress* MM_MsgToAddress(UMI umi, int kind) {
  switch (kind) {
    case 1: case 2: case 3: case 5: case 6: case 7:
      break;
    default:
      Trace(kTraceModel, kTraceCritical, "MM_MsgAddress: non-address header name used to get address: %d\n", kind);
      return nullptr;
  }
  Envelope* env = MM_MsgEnvelope(umi);
  if (!env) return nullptr;
  switch (kind) {
    case 1: return env->from;
    case 2: return env->sender;
    case 3: return env->reply_to;
    case 5: return env->to;
    case 6: return env->cc;
    default: return env->bcc;
  }
}

std::optional<std::string> MM_MsgHeaderContent(UMI umi, const char* name) {
  if (!name || !*name) return std::nullopt;
  // The envelope already holds these; the first letter picks the few to
  // compare the name with. An envelope without the value (a locally parsed
  // one never keeps Message-ID) sends the question on to the raw header,
  // so that a header the message has is never reported missing.
  for (const EnvelopeField& f : kEnvelopeFields) {
    if (f.name[0] != name[0] || std::strcmp(f.name, name) != 0) continue;
    Envelope* env = MM_MsgEnvelope(umi);
    if (!env) return std::nullopt;  // the message is gone
    if (std::optional<std::string> value = f.get(env)) return value;
    break;
  }
  const std::optional<std::string> header = MM_MsgRawHeaders(umi);
  if (!header) return std::nullopt;
  return ScanHeader(*header, {name})[0];
}

std::vector<std::optional<std::string>> MM_HeaderFieldContents(const std::string& header,
                                                               std::initializer_list<const char*> names) {
  return ScanHeader(header, names);
}

std::optional<std::string> MM_MsgHeader(UMI umi, const char* name) {
  std::optional<std::string> content = MM_MsgHeaderContent(umi, name);
  if (!content) return std::nullopt;
  return std::string(name) + ": " + *content;
}

std::optional<std::string> MM_MsgRawHeaders(UMI umi) {
  if (MM_MsgIsShadowMessage(umi)) {
    const std::string file = ShadowUMIRawHeadersToFile(umi);
    if (file.empty()) return std::nullopt;
    std::optional<std::string> data = ReadWhole(file);
    std::remove(file.c_str());
    return data;
  }
  MM_MailgetsToMemory();
  MM_MailgetsSetEncoding(0);
  for (int attempt = 0; attempt < 2; ++attempt) {
    MailStream* stream;
    unsigned long msgno;
    if (!UmiLocate(umi, &stream, &msgno)) return std::nullopt;
    MailText* text = FetchText(stream, msgno, Fetch::kHeader);
    if (!text) return std::nullopt;
    if (text->kind == kTextInMemory && text->data) return std::string(text->data, text->size);
    text->consumed = 1;
  }
  return std::nullopt;
}

std::string MM_MsgRawHeadersToFile(UMI umi) { return RawToFile(umi, Fetch::kHeader); }
std::string MM_MsgRawBodyToFile(UMI umi) { return RawToFile(umi, Fetch::kBody); }

std::string MM_MsgToFile(UMI umi) {
  if (MM_MsgIsShadowMessage(umi)) return ShadowUMIToFile(umi);
  const std::string header = MM_MsgRawHeadersToFile(umi);
  if (header.empty()) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgToFile: failed to get raw header text to file.\n");
    return "";
  }
  const std::string body = MM_MsgRawBodyToFile(umi);
  if (body.empty()) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgToFile: failed to get raw body text to file.\n");
    std::remove(header.c_str());
    return "";
  }
  std::string target;
  const int fd = CreateTempFile(&target);
  FILE* out = fd >= 0 ? ::fdopen(fd, "wb") : nullptr;
  const char* failure = nullptr;
  if (!out) {
    if (fd >= 0) ::close(fd);
    failure = "MM_MsgToFile: failed to generate message file pathname.\n";
  } else if (!AppendFile(out, header.c_str(), 0)) {
    failure = "MM_MsgToFile: failed to append raw message headers to message file.\n";
  } else if (!AppendFile(out, body.c_str(), 0)) {
    failure = "MM_MsgToFile: failed to append raw message body to message file.\n";
  }
  if (out && std::fclose(out) != 0 && !failure)
    failure = "MM_MsgToFile: failed to append raw message body to message file.\n";
  std::remove(header.c_str());
  std::remove(body.c_str());
  if (failure) {
    Trace(kTraceModel, kTraceCritical, "%s", failure);
    if (!target.empty()) std::remove(target.c_str());
    return "";
  }
  return target;
}

std::optional<std::string> MM_MsgIPMContent(UMI umi) {
  const BodyPart* b = MM_MsgSectionBody(umi, "1");
  if (!b || b->type != TYPETEXT) return std::nullopt;
  const std::string full = MM_UMISectionName(umi, "1");
  MM_MailgetsToMemory();
  MM_MailgetsSetEncoding(0);
  for (int attempt = 0; attempt < 2; ++attempt) {
    MailStream* stream;
    unsigned long msgno;
    if (!UmiLocate(umi, &stream, &msgno)) return std::nullopt;
    unsigned long length = 0;
    MailText* text;
    {
      CriticalSection busy;
      text = mail_fetchbody(stream, msgno, full.c_str(), &length);
    }
    if (!text) return std::nullopt;
    if (text->kind == kTextInMemory && text->data) return std::string(text->data, text->size);
    text->consumed = 1;
  }
  return std::nullopt;
}

std::string MM_MsgIPMContentToFile(UMI umi) {
  const BodyPart* b = MM_MsgSectionBody(umi, "1");
  if (!b || b->type != TYPETEXT) return "";
  return MM_MsgSectionContentToFile(umi, "1");
}
