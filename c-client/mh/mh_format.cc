// The MH folder's files byte for byte: index header and records, and the
// structure records of mh_cache.dat.
//
// The cache is read back on every fetch of a message seen before, and it
// is a file anybody can damage, so the readers trust nothing: every read is
// checked against the end of the buffer, strings and nesting have limits,
// and a failed read frees what it built. The writers refuse exactly what
// the readers would refuse, so that the program never caches a structure
// it would later call corrupt.
#include "c-client/mh/mh_format.h"

#include <cstring>

namespace {

// Tags of the structure records.
constexpr uint32_t kEnvelopeBegin = 500;
constexpr uint32_t kFrom = 501;
constexpr uint32_t kTo = 502;
constexpr uint32_t kSubject = 503;
constexpr uint32_t kReplyTo = 504;
constexpr uint32_t kReturnPath = 505;
constexpr uint32_t kDate = 506;
constexpr uint32_t kSender = 507;
constexpr uint32_t kCc = 508;
constexpr uint32_t kBcc = 509;
constexpr uint32_t kInReplyTo = 510;
constexpr uint32_t kMessageId = 511;
constexpr uint32_t kNewsgroups = 512;
constexpr uint32_t kExtraHeader = 515;
constexpr uint32_t kEnvelopeEnd = 599;
constexpr uint32_t kBodyBegin = 600;
constexpr uint32_t kParameter = 601;
constexpr uint32_t kParametersEnd = 602;
constexpr uint32_t kDisposition = 603;
constexpr uint32_t kDispositionParameter = 604;
constexpr uint32_t kPart = 605;
constexpr uint32_t kPartsEnd = 606;
constexpr uint32_t kBodyEnd = 699;

uint32_t Get32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

void Put32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

// Whether a body part carries an enclosed message in the record. Writer
// and reader must decide this the same way, or every record of such a
// part would read back as corruption.
bool IsEnclosedMessage(const BodyPart* body) {
  return body->type == TYPEMESSAGE && body->subtype && !std::strcmp(body->subtype, "RFC822");
}

// --- Writing ------------------------------------------------------------------

struct Writer {
  std::string out;
  bool ok = true;

  void U16(unsigned v) {
    out += static_cast<char>(v & 0xff);
    out += static_cast<char>((v >> 8) & 0xff);
  }
  void U32(uint32_t v) {
    uint8_t b[4];
    Put32(b, v);
    out.append(reinterpret_cast<const char*>(b), 4);
  }
  // Sizes and offsets are unsigned long in memory but four bytes on disk;
  // a value that doesn't fit would come back as another number.
  void Long(unsigned long v) {
    if (v > 0xffffffffUL) ok = false;
    U32(static_cast<uint32_t>(v));
  }
  void String(const char* s) {
    if (!s) {
      U32(0);
      return;
    }
    const size_t n = std::strlen(s) + 1;
    if (n > kMhMaxString) {
      ok = false;
      return;
    }
    U32(static_cast<uint32_t>(n));
    out.append(s, n);
  }
  void Addresses(uint32_t tag, const MailAddress* a) {
    for (; a && ok; a = a->next) {
      U32(tag);
      String(a->personal);
      String(a->adl);
      String(a->mailbox);
      String(a->host);
    }
  }
  void Field(uint32_t tag, const char* s) {
    if (!s) return;
    U32(tag);
    String(s);
  }
  void Env(const Envelope* env);
  void Body(const BodyPart* body, int depth);
};

void Writer::Env(const Envelope* env) {
  U32(kEnvelopeBegin);
  if (env) {
    Addresses(kReturnPath, env->return_path);
    Field(kDate, env->date);
    Addresses(kFrom, env->from);
    Addresses(kSender, env->sender);
    Addresses(kReplyTo, env->reply_to);
    Field(kSubject, env->subject);
    Addresses(kTo, env->to);
    Addresses(kCc, env->cc);
    Addresses(kBcc, env->bcc);
    Field(kInReplyTo, env->in_reply_to);
    Field(kMessageId, env->message_id);
    Field(kNewsgroups, env->newsgroups);
    for (const ExtraHeader* x = env->extra_headers; x && ok; x = x->next) {
      U32(kExtraHeader);
      String(x->name);
      String(x->value);
    }
  }
  U32(kEnvelopeEnd);
}

void Writer::Body(const BodyPart* body, int depth) {
  if (depth > kMhMaxDepth) ok = false;
  if (!ok) return;
  static const BodyPart kEmpty{};
  if (!body) body = &kEmpty;
  U32(kBodyBegin);
  U16(body->type);
  U16(body->encoding);
  if (body->type > TYPEOTHER || body->encoding > ENCOTHER) ok = false;
  String(body->subtype);
  String(body->id);
  String(body->description);
  Long(body->size_lines);
  Long(body->size_bytes);
  Long(body->size_raw);
  for (const BodyParameter* p = body->parameter; p && ok; p = p->next) {
    U32(kParameter);
    String(p->attribute);
    String(p->value);
  }
  U32(kParametersEnd);
  // The disposition follows only when the part has one: its type, then its
  // parameters in the order written, ended like the type's.
  if (body->disposition || body->disposition_parameter) {
    U32(kDisposition);
    String(body->disposition);
    for (const BodyParameter* p = body->disposition_parameter; p && ok; p = p->next) {
      U32(kDispositionParameter);
      String(p->attribute);
      String(p->value);
    }
    U32(kParametersEnd);
  }
  if (body->type == TYPEMULTIPART) {
    for (const BodyPartNode* n = body->parts; n && ok; n = n->next) {
      U32(kPart);
      Long(n->offset);
      Body(&n->body, depth + 1);
    }
    U32(kPartsEnd);
  } else if (IsEnclosedMessage(body) && (body->msg_env || body->msg_body)) {
    // A message part the parser kept opaque (encoded, or too deep) has
    // neither; it is written without the pair, which the reader tells
    // from 699. A part with only one of them gets an empty other one.
    Env(body->msg_env);
    Body(body->msg_body, depth + 1);
  }
  U32(kBodyEnd);
  if (out.size() > kMhMaxStructure) ok = false;
}

// --- Reading ------------------------------------------------------------------

struct Reader {
  const uint8_t* p;
  const uint8_t* end;

  size_t Left() const { return static_cast<size_t>(end - p); }
  bool U16(unsigned* v) {
    if (Left() < 2) return false;
    *v = static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8;
    p += 2;
    return true;
  }
  bool U32(uint32_t* v) {
    if (Left() < 4) return false;
    *v = Get32(p);
    p += 4;
    return true;
  }
  bool Long(unsigned long* v) {
    uint32_t x;
    if (!U32(&x)) return false;
    *v = x;
    return true;
  }
  bool Expect(uint32_t tag) {
    uint32_t t;
    return U32(&t) && t == tag;
  }
  // A string must end in its zero byte and hold no other: the writer
  // never makes anything else, and a string that reads shorter than its
  // stored length would not write back the same.
  bool String(char** s) {
    uint32_t n;
    if (!U32(&n)) return false;
    if (n == 0) {
      *s = nullptr;
      return true;
    }
    if (n > kMhMaxString || n > Left()) return false;
    if (p[n - 1] != 0 || std::memchr(p, 0, n - 1)) return false;
    *s = static_cast<char*>(FS_GET(n));
    std::memcpy(*s, p, n);
    p += n;
    return true;
  }
  // A single-valued field appears once, and only when it is set: the
  // writer leaves a null field out.
  bool OnceString(char** field) { return !*field && String(field) && *field; }
  bool Address(MailAddress** list) {
    // Linked first, so that a failure part-way is freed with the envelope.
    MailAddress* a = mail_newaddr();
    a->next = *list;
    *list = a;
    return String(&a->personal) && String(&a->adl) && String(&a->mailbox) && String(&a->host);
  }
  bool Env(Envelope* env);
  bool Body(BodyPart* body, int depth);
};

bool Reader::Env(Envelope* env) {
  if (!Expect(kEnvelopeBegin)) return false;
  for (;;) {
    uint32_t tag;
    if (!U32(&tag)) return false;
    bool ok;
    switch (tag) {
      case kEnvelopeEnd:
        return true;
      case kReturnPath: ok = Address(&env->return_path); break;
      case kFrom: ok = Address(&env->from); break;
      case kSender: ok = Address(&env->sender); break;
      case kReplyTo: ok = Address(&env->reply_to); break;
      case kTo: ok = Address(&env->to); break;
      case kCc: ok = Address(&env->cc); break;
      case kBcc: ok = Address(&env->bcc); break;
      case kDate: ok = OnceString(&env->date); break;
      case kSubject: ok = OnceString(&env->subject); break;
      case kInReplyTo: ok = OnceString(&env->in_reply_to); break;
      case kMessageId: ok = OnceString(&env->message_id); break;
      case kNewsgroups: ok = OnceString(&env->newsgroups); break;
      case kExtraHeader: {
        ExtraHeader* x = mail_newextra();
        x->next = env->extra_headers;
        env->extra_headers = x;
        ok = String(&x->name) && String(&x->value);
        break;
      }
      default:  // 513 and 514 among them: no writer of this format makes them
        ok = false;
        break;
    }
    if (!ok) return false;
  }
}

bool Reader::Body(BodyPart* body, int depth) {
  if (depth > kMhMaxDepth) return false;
  unsigned type, encoding;
  if (!Expect(kBodyBegin) || !U16(&type) || !U16(&encoding)) return false;
  if (type > TYPEOTHER || encoding > ENCOTHER) return false;
  body->type = static_cast<unsigned short>(type);
  body->encoding = static_cast<unsigned short>(encoding);
  if (!String(&body->subtype) || !String(&body->id) || !String(&body->description)) return false;
  if (!Long(&body->size_lines) || !Long(&body->size_bytes) || !Long(&body->size_raw)) return false;
  for (;;) {
    uint32_t tag;
    if (!U32(&tag)) return false;
    if (tag == kParametersEnd) break;
    if (tag != kParameter) return false;
    BodyParameter* param = mail_newbody_parameter();
    param->next = body->parameter;
    body->parameter = param;
    if (!String(&param->attribute) || !String(&param->value)) return false;
  }
  if (Left() >= 4 && Get32(p) == kDisposition) {
    p += 4;
    if (!String(&body->disposition)) return false;
    BodyParameter** tail = &body->disposition_parameter;
    for (;;) {
      uint32_t tag;
      if (!U32(&tag)) return false;
      if (tag == kParametersEnd) break;
      if (tag != kDispositionParameter) return false;
      BodyParameter* param = mail_newbody_parameter();
      *tail = param;
      tail = &param->next;
      if (!String(&param->attribute) || !String(&param->value)) return false;
    }
  }
  if (body->type == TYPEMULTIPART) {
    // Parts keep their order: section numbers and offsets depend on it.
    BodyPartNode** tail = &body->parts;
    for (;;) {
      uint32_t tag;
      if (!U32(&tag)) return false;
      if (tag == kPartsEnd) break;
      if (tag != kPart) return false;
      BodyPartNode* node = mail_newbody_part();
      *tail = node;
      tail = &node->next;
      if (!Long(&node->offset) || !Body(&node->body, depth + 1)) return false;
    }
  } else if (IsEnclosedMessage(body)) {
    // 699 straight away: an opaque message part (see the writer).
    if (Left() >= 4 && Get32(p) != kBodyEnd) {
      body->msg_env = mail_newenvelope();
      body->msg_body = mail_newbody();
      if (!Env(body->msg_env) || !Body(body->msg_body, depth + 1)) return false;
    }
  }
  return Expect(kBodyEnd);
}

// What one read may cover: a structure beyond the limit is refused even
// when the buffer holds more.
const uint8_t* Limit(const uint8_t* p, const uint8_t* end) {
  return static_cast<size_t>(end - p) > kMhMaxStructure ? p + kMhMaxStructure : end;
}

}  // namespace

void mh_encode_header(const MhIndexHeader& header, uint8_t out[kMhHeaderSize]) {
  Put32(out + 0, header.version);
  Put32(out + 4, header.nmsgs);
  Put32(out + 8, header.recent);
  Put32(out + 12, header.last_seen);
}

bool mh_decode_header(const uint8_t* data, size_t size, MhIndexHeader* header) {
  if (!data || size < kMhHeaderSize) return false;
  header->version = Get32(data + 0);
  header->nmsgs = Get32(data + 4);
  header->recent = Get32(data + 8);
  header->last_seen = Get32(data + 12);
  return true;
}

void mh_encode_record(const MhIndexRecord& record, uint8_t out[kMhRecordSize]) {
  Put32(out + 0, record.number);
  Put32(out + 4, record.mtime);
  Put32(out + 8, record.size);
  Put32(out + 12, record.header_size);
  Put32(out + 16, record.cache_offset);
  Put32(out + 20, record.envelope_size);
  Put32(out + 24, record.body_size);
  Put32(out + 28, record.changed);
  Put32(out + 32, record.flags);
  Put32(out + 36, record.user_flags);
  std::memcpy(out + 40, record.reserved, sizeof record.reserved);
}

void mh_decode_record(const uint8_t data[kMhRecordSize], MhIndexRecord* record) {
  record->number = Get32(data + 0);
  record->mtime = Get32(data + 4);
  record->size = Get32(data + 8);
  record->header_size = Get32(data + 12);
  record->cache_offset = Get32(data + 16);
  record->envelope_size = Get32(data + 20);
  record->body_size = Get32(data + 24);
  record->changed = Get32(data + 28);
  record->flags = Get32(data + 32);
  record->user_flags = Get32(data + 36);
  std::memcpy(record->reserved, data + 40, sizeof record->reserved);
}

std::string mh_encode_envelope(const Envelope* env) {
  Writer w;
  w.Env(env);
  if (w.out.size() > kMhMaxStructure) w.ok = false;
  return w.ok ? std::move(w.out) : std::string();
}

std::string mh_encode_body(const BodyPart* body) {
  Writer w;
  w.Body(body, 0);
  return w.ok ? std::move(w.out) : std::string();
}

bool mh_decode_envelope(const uint8_t** p, const uint8_t* end, Envelope** env) {
  *env = nullptr;
  if (!p || !*p || !end || end < *p) return false;
  Reader r{*p, Limit(*p, end)};
  Envelope* e = mail_newenvelope();
  if (!r.Env(e)) {
    mail_free_envelope(&e);
    return false;
  }
  *p = r.p;
  *env = e;
  return true;
}

bool mh_decode_body(const uint8_t** p, const uint8_t* end, BodyPart** body) {
  *body = nullptr;
  if (!p || !*p || !end || end < *p) return false;
  Reader r{*p, Limit(*p, end)};
  BodyPart* b = mail_newbody();
  if (!r.Body(b, 0)) {
    mail_free_body(&b);
    return false;
  }
  *p = r.p;
  *body = b;
  return true;
}
