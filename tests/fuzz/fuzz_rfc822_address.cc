// An address list, arbitrary bytes: parsed, written and parsed again must
// be a fixed point. The first parse may drop or repair what it can't read;
// what it keeps must then survive writing and reading unchanged.
#include <cstdint>
#include <string>
#include <vector>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

MailAddress* Parse(std::string text) {
  MailAddress* list = nullptr;
  rfc822_parse_adrlist(&list, text.data(), "fuzz.example");
  return list;
}

std::string Write(MailAddress* list, size_t input_size) {
  // Every address costs at most a few times its input bytes plus the
  // default host: a buffer this large is never cut.
  std::vector<char> buf(64 * input_size + 4096, '\0');
  rfc822_write_address(buf.data(), list);
  Check(buf.back() == '\0');
  return buf.data();
}

std::string Fields(const MailAddress* list) {
  std::string out;
  for (const MailAddress* a = list; a; a = a->next)
    for (const char* f : {a->personal, a->adl, a->mailbox, a->host}) out += f ? std::string(f) + "|" : "\x01|";
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  mail_env_clear();
  // What the header walk hands over: no NUL, line breaks and TABs unfolded.
  std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
  for (char& c : text)
    if (c == '\r' || c == '\n' || c == '\t') c = ' ';

  MailAddress* first = Parse(text);
  const std::string written = Write(first, text.size());
  MailAddress* second = Parse(written);
  Check(Write(second, written.size()) == written);
  Check(Fields(first) == Fields(second));
  mail_free_address(&first);
  mail_free_address(&second);
  mail_env_clear();
  return 0;
}
