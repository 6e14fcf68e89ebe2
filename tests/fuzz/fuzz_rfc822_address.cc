// An address list, arbitrary bytes: parsed, written and parsed again must
// be a fixed point. The first parse may drop or repair what it can't read;
// what it keeps must then survive writing and reading unchanged.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/rfc822_write.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

MailAddress* Parse(const std::string& text) {
  std::vector<char> buf(text.begin(), text.end());
  buf.push_back('\0');
  MailAddress* list = nullptr;
  rfc822_parse_adrlist(&list, buf.data(), "fuzz.example");
  return list;
}

std::string Write(MailAddress* list, size_t input_size) {
  // Every address costs at most a few times its input bytes plus the
  // default host: a buffer this large is never cut.
  std::vector<char> buf(64 * input_size + 4096, '\0');
  rfc822_write_address(buf.data(), list);
  std::string out(buf.data());
  Check(out.size() < buf.size());
  return out;
}

std::string Field(const char* s) { return s ? std::string(s) + "|" : std::string("\x01|"); }

std::string Fields(const MailAddress* list) {
  std::string out;
  for (const MailAddress* a = list; a; a = a->next)
    out += Field(a->personal) + Field(a->adl) + Field(a->mailbox) + Field(a->host) + "\n";
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  mail_env_clear();
  std::string text(reinterpret_cast<const char*>(data), size);
  // What the header walk hands over: no NUL, line breaks and TABs unfolded.
  text = text.substr(0, text.find('\0'));
  for (char& c : text)
    if (c == '\r' || c == '\n' || c == '\t') c = ' ';

  MailAddress* first = Parse(text);
  const std::string written = Write(first, text.size());
  MailAddress* second = Parse(written);
  const std::string rewritten = Write(second, written.size());
  Check(written == rewritten);
  Check(Fields(first) == Fields(second));
  mail_free_address(&first);
  mail_free_address(&second);
  mail_env_clear();
  return 0;
}
