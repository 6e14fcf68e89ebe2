// A header block, arbitrary bytes, into an envelope and a body record.
// Besides not crashing: every address list the walk builds is well formed
// (groups open and close in order, an address has a mailbox), the header
// walk never runs past the block, and the walk without unfolding finds the
// same lines.
#include <cstdint>
#include <cstring>
#include <vector>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void CheckList(const MailAddress* list) {
  int depth = 0;
  for (const MailAddress* a = list; a; a = a->next) {
    if (!a->mailbox && !a->host)  // a group's end
      Check(!a->personal && !a->adl && --depth >= 0);
    else if (!a->host)  // a group's name
      ++depth;
    else
      Check(a->mailbox != nullptr);
  }
  Check(depth == 0);
}

size_t CountLines(std::vector<char> block, bool unfold) {
  block.push_back('\0');
  char* text = block.data();
  unsigned long remaining = block.size() - 1;
  size_t n = 0;
  while (char* line = rfc822_next_header(&text, &remaining, unfold)) {
    Check(line >= block.data() && line < block.data() + block.size());
    Check(text <= block.data() + block.size() - 1);
    ++n;
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  mail_env_clear();
  std::vector<char> header(data, data + size);
  Check(CountLines(header, true) == CountLines(header, false));

  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  std::vector<char> work(kRfc822WorkSize);
  rfc822_parse_msg(&env, &body, header.data(), header.size(), nullptr, "fuzz.example", work.data());
  Check(env && body);
  for (const MailAddress* list : {env->from, env->sender, env->reply_to, env->to, env->cc, env->bcc}) CheckList(list);
  Check(env->message_id == nullptr);
  Check(body->type <= TYPEOTHER && body->encoding <= ENCOTHER && body->subtype);
  for (const BodyParameter* p = body->parameter; p; p = p->next) Check(p->attribute && p->value && *p->value);
  Check(!env->subject || std::strlen(env->subject) <= 65536);
  mail_free_envelope(&env);
  mail_free_body(&body);

  // The parser must not depend on the caller's block staying as it was.
  Check(!size || std::memcmp(header.data(), data, size) == 0);
  mail_env_clear();
  return 0;
}
