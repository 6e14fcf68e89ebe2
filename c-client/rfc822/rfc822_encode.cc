// Making a body tree fit for sending: every multipart gets a boundary that
// its parts don't contain, and no part is left that needs 8-bit transport.
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "c-client/core/env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

// Longest line that 7-bit transport carries (without its CRLF).
constexpr unsigned long kMaxLine = 998;
// Tries before a boundary is taken although a part's text holds it; with
// a fresh random number each time this is never reached in practice.
constexpr int kBoundaryTries = 8;

// Process, time, a counter and a random number: unique within the process
// by the counter, across processes and runs by the rest. The "=:" in it can
// occur in neither base64 nor quoted-printable text.
std::string NewBoundary() {
  static std::atomic<long> counter{0};
  long random_part;
  try {
    std::random_device random;
    random_part = static_cast<long>(random() & 0x7fffffff);
  } catch (...) {
    // No entropy source: the clock's fine part still varies between runs.
    random_part = static_cast<long>(std::clock() & 0x7fffffff);
  }
  char text[96];
  std::snprintf(text, sizeof text, "%ld-%ld-%ld=:%ld", static_cast<long>(::getpid()),
                static_cast<long>(std::time(nullptr)), ++counter, random_part);
  return text;
}

bool IsMessageRfc822(const BodyPart* body) {
  return body->type == TYPEMESSAGE && (!body->subtype || !strcasecmp(body->subtype, "RFC822"));
}

bool TextHolds(const MailText* text, const std::string& needle) {
  // Only text in memory is checked: reading a spooled file again would cost
  // more than a collision of the random boundary is worth.
  if (!text || text->kind == kTextFile || !text->data) return false;
  return memmem(text->data, text->size, needle.data(), needle.size()) != nullptr;
}

// Whether text written as it stands somewhere under body holds needle.
// Encoded parts are left out: their text can't hold "=:".
bool RawTextHolds(const BodyPart* body, const std::string& needle) {
  if (body->type == TYPEMULTIPART) {
    for (const BodyPartNode* part = body->parts; part; part = part->next) {
      if (RawTextHolds(&part->body, needle)) return true;
    }
    return false;
  }
  if (IsMessageRfc822(body)) {
    if (body->msg_text) return TextHolds(body->msg_text, needle);
    return body->msg_body && RawTextHolds(body->msg_body, needle);
  }
  if (body->encoding == ENCBASE64 || body->encoding == ENCQUOTEDPRINTABLE) return false;
  return TextHolds(body->contents, needle);
}

// A part called 7BIT whose text says otherwise would lose bytes on the way
// (a zero byte can't even be written): it is sent quoted-printable.
bool NeedsEncoding(const MailText* text) {
  if (!text || text->kind == kTextFile || !text->data) return false;
  unsigned long line = 0;
  for (unsigned long i = 0; i < text->size; ++i) {
    const unsigned char c = static_cast<unsigned char>(text->data[i]);
    if (!c || c >= 0x80) return true;
    line = c == '\n' ? 0 : line + 1;
    if (line > kMaxLine + 1) return true;  // the +1 lets a CR before LF pass
  }
  return false;
}

BodyParameter* FindParameter(BodyPart* body, const char* attribute) {
  for (BodyParameter* p = body->parameter; p; p = p->next) {
    if (p->attribute && !strcasecmp(p->attribute, attribute)) return p;
  }
  return nullptr;
}

void GiveBoundary(BodyPart* body) {
  if (!rfc822_parameter(body->parameter, "BOUNDARY").value.empty()) return;
  BodyParameter* p = FindParameter(body, "BOUNDARY");
  std::string boundary;
  for (int i = 0; i < kBoundaryTries; ++i) {
    boundary = NewBoundary();
    if (!RawTextHolds(body, "--" + boundary)) break;
  }
  if (!p) {
    p = mail_newbody_parameter();
    p->attribute = cpystr("BOUNDARY");
    BodyParameter** tail = &body->parameter;
    while (*tail) tail = &(*tail)->next;
    *tail = p;
  }
  if (p->value) FS_GIVE(&p->value);
  p->value = cpystr(boundary.c_str());
}

void Encode(BodyPart* body) {
  switch (body->type) {
    case TYPEMULTIPART:
      for (BodyPartNode* part = body->parts; part; part = part->next) Encode(&part->body);
      // A multipart is never encoded as a whole (readers drop such a
      // part); its parts carry their own encodings.
      if (body->encoding > ENCBINARY) body->encoding = ENC7BIT;
      GiveBoundary(body);
      return;
    case TYPEMESSAGE:
      if (body->encoding > ENCBINARY) fatal("Invalid rfc822_encode_body message encoding");
      // Only a message that will be written from its structure is walked;
      // a message sent from its own text keeps the structure that describes
      // that text (it may be a cached one the viewer still uses).
      if (IsMessageRfc822(body) && !body->msg_text && body->msg_body) Encode(body->msg_body);
      return;
    default:
      if (body->encoding == ENC8BIT) {
        body->encoding = ENCQUOTEDPRINTABLE;
      } else if (body->encoding == ENCBINARY) {
        body->encoding = ENCBASE64;
      } else if (body->encoding == ENC7BIT && NeedsEncoding(body->contents)) {
        body->encoding = ENCQUOTEDPRINTABLE;
      }
      return;
  }
}

}  // namespace

void rfc822_encode_body(Envelope*, BodyPart* body) {
  if (body) Encode(body);
}
