// Arbitrary bytes as a structure record of mh_cache.dat: an envelope, then
// a body where the envelope ended, and a body from the first byte. Each
// read must fail cleanly or give a structure that writes back to exactly
// as many bytes as it took.
//
// The reader prepends to lists, so writing what was read reverses every
// list once more. The check therefore reverses the lists of what was read
// before writing it: reading that writing must give the same structure,
// field by field and in the same order, and writing it again (reversed the
// same way) must give the same bytes.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/mh/mh_format.h"
#include "c-client/core/plain_env.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

template <typename T>
void Reverse(T** list) {
  T* done = nullptr;
  while (T* item = *list) {
    *list = item->next;
    item->next = done;
    done = item;
  }
  *list = done;
}

void ReverseEnvelope(Envelope* env) {
  for (MailAddress** a : {&env->return_path, &env->from, &env->sender, &env->reply_to, &env->to, &env->cc, &env->bcc})
    Reverse(a);
  Reverse(&env->extra_headers);
}

// Parts and disposition parameters are not reversed lists: they keep their
// order through the cache.
void ReverseBody(BodyPart* body) {
  Reverse(&body->parameter);
  for (BodyPartNode* n = body->parts; n; n = n->next) ReverseBody(&n->body);
  if (body->msg_env) ReverseEnvelope(body->msg_env);
  if (body->msg_body) ReverseBody(body->msg_body);
}

bool Same(const char* a, const char* b) { return (!a || !b) ? a == b : !std::strcmp(a, b); }

bool SameAddresses(const MailAddress* a, const MailAddress* b) {
  for (; a && b; a = a->next, b = b->next)
    if (!Same(a->personal, b->personal) || !Same(a->adl, b->adl) || !Same(a->mailbox, b->mailbox) ||
        !Same(a->host, b->host))
      return false;
  return !a && !b;
}

bool SameEnvelope(const Envelope* a, const Envelope* b) {
  if (!a || !b) return a == b;
  const ExtraHeader *x = a->extra_headers, *y = b->extra_headers;
  for (; x && y; x = x->next, y = y->next)
    if (!Same(x->name, y->name) || !Same(x->value, y->value)) return false;
  return !x && !y && SameAddresses(a->return_path, b->return_path) && Same(a->date, b->date) &&
         SameAddresses(a->from, b->from) && SameAddresses(a->sender, b->sender) &&
         SameAddresses(a->reply_to, b->reply_to) && Same(a->subject, b->subject) && SameAddresses(a->to, b->to) &&
         SameAddresses(a->cc, b->cc) && SameAddresses(a->bcc, b->bcc) && Same(a->in_reply_to, b->in_reply_to) &&
         Same(a->message_id, b->message_id) && Same(a->newsgroups, b->newsgroups);
}

bool SameBody(const BodyPart* a, const BodyPart* b) {
  if (!a || !b) return a == b;
  if (a->type != b->type || a->encoding != b->encoding || !Same(a->subtype, b->subtype) || !Same(a->id, b->id) ||
      !Same(a->description, b->description) || a->size_lines != b->size_lines || a->size_bytes != b->size_bytes ||
      a->size_raw != b->size_raw)
    return false;
  const BodyParameter *p = a->parameter, *q = b->parameter;
  for (; p && q; p = p->next, q = q->next)
    if (!Same(p->attribute, q->attribute) || !Same(p->value, q->value)) return false;
  if (p || q) return false;
  if (!Same(a->disposition, b->disposition)) return false;
  for (p = a->disposition_parameter, q = b->disposition_parameter; p && q; p = p->next, q = q->next)
    if (!Same(p->attribute, q->attribute) || !Same(p->value, q->value)) return false;
  if (p || q) return false;
  const BodyPartNode *m = a->parts, *n = b->parts;
  for (; m && n; m = m->next, n = n->next)
    if (m->offset != n->offset || !SameBody(&m->body, &n->body)) return false;
  return !m && !n && SameEnvelope(a->msg_env, b->msg_env) && SameBody(a->msg_body, b->msg_body);
}

const uint8_t* U(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// Returns where the envelope ended, or null if it didn't read.
const uint8_t* CheckEnvelope(const uint8_t* start, const uint8_t* end) {
  const uint8_t* p = start;
  Envelope* env = nullptr;
  if (!mh_decode_envelope(&p, end, &env)) {
    Check(!env && p == start);
    return nullptr;
  }
  Check(env && p > start && p <= end);
  ReverseEnvelope(env);
  const std::string bytes = mh_encode_envelope(env);
  Check(bytes.size() == static_cast<size_t>(p - start));
  const uint8_t* q = U(bytes);
  Envelope* again = nullptr;
  Check(mh_decode_envelope(&q, U(bytes) + bytes.size(), &again));
  Check(q == U(bytes) + bytes.size());
  ReverseEnvelope(env);  // as first read
  Check(SameEnvelope(env, again));
  ReverseEnvelope(again);
  Check(mh_encode_envelope(again) == bytes);
  mail_free_envelope(&env);
  mail_free_envelope(&again);
  return p;
}

void CheckBody(const uint8_t* start, const uint8_t* end) {
  const uint8_t* p = start;
  BodyPart* body = nullptr;
  if (!mh_decode_body(&p, end, &body)) {
    Check(!body && p == start);
    return;
  }
  Check(body && p > start && p <= end);
  ReverseBody(body);
  const std::string bytes = mh_encode_body(body);
  Check(bytes.size() == static_cast<size_t>(p - start));
  const uint8_t* q = U(bytes);
  BodyPart* again = nullptr;
  Check(mh_decode_body(&q, U(bytes) + bytes.size(), &again));
  Check(q == U(bytes) + bytes.size());
  ReverseBody(body);
  Check(SameBody(body, again));
  ReverseBody(again);
  Check(mh_encode_body(again) == bytes);
  mail_free_body(&body);
  mail_free_body(&again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (4u << 20)) return 0;
  mail_env_clear();
  // A copy of exactly the input's size, so that a read past the end is
  // caught whichever driver supplies the data.
  std::vector<uint8_t> copy(data, data + size);
  const uint8_t* start = copy.data();
  const uint8_t* end = start + size;
  if (const uint8_t* after = CheckEnvelope(start, end)) CheckBody(after, end);
  CheckBody(start, end);
  return 0;
}
