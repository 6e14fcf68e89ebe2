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
#include "tests/c-client/core/records_dump.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

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

void ReverseAll(Envelope* env) {
  for (MailAddress** a : {&env->return_path, &env->from, &env->sender, &env->reply_to, &env->to, &env->cc, &env->bcc})
    Reverse(a);
  Reverse(&env->extra_headers);
}

// Parts are not a reversed list: they keep their order through the cache.
void ReverseAll(BodyPart* body) {
  Reverse(&body->parameter);
  for (BodyPartNode* n = body->parts; n; n = n->next) ReverseAll(&n->body);
  if (body->msg_env) ReverseAll(body->msg_env);
  if (body->msg_body) ReverseAll(body->msg_body);
}

const uint8_t* U(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

bool Decode(const uint8_t** p, const uint8_t* end, Envelope** e) { return mh_decode_envelope(p, end, e); }
bool Decode(const uint8_t** p, const uint8_t* end, BodyPart** b) { return mh_decode_body(p, end, b); }
std::string Encode(const Envelope* e) { return mh_encode_envelope(e); }
std::string Encode(const BodyPart* b) { return mh_encode_body(b); }
std::string Dump(const Envelope* e) { return DumpEnvelope(e); }
std::string Dump(const BodyPart* b) { return DumpBody(b); }
void Free(Envelope** e) { mail_free_envelope(e); }
void Free(BodyPart** b) { mail_free_body(b); }

// An envelope or a body read at start; returns where it ended, or null if
// it didn't read.
template <typename T>
const uint8_t* CheckRecord(const uint8_t* start, const uint8_t* end) {
  const uint8_t* p = start;
  T* first = nullptr;
  if (!Decode(&p, end, &first)) {
    Check(!first && p == start);
    return nullptr;
  }
  Check(first && p > start && p <= end);
  ReverseAll(first);
  const std::string bytes = Encode(first);
  Check(bytes.size() == static_cast<size_t>(p - start));
  const uint8_t* q = U(bytes);
  T* again = nullptr;
  Check(Decode(&q, U(bytes) + bytes.size(), &again));
  Check(q == U(bytes) + bytes.size());
  ReverseAll(first);  // as first read
  Check(Dump(first) == Dump(again));
  ReverseAll(again);
  Check(Encode(again) == bytes);
  Free(&first);
  Free(&again);
  return p;
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
  if (const uint8_t* after = CheckRecord<Envelope>(start, end)) CheckRecord<BodyPart>(after, end);
  CheckRecord<BodyPart>(start, end);
  return 0;
}
