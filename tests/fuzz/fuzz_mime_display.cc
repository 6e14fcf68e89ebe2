// The display helpers on arbitrary bytes: the whole input as a header, and
// its lines ("ATTRIBUTE=value") as a part's parameters. Whatever comes in,
// the result is valid UTF-8 without control characters, and a file name
// is safe to create.
#include <cstdint>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/rfc822/mime_display.h"
#include "c-client/core/plain_env.h"

namespace {

constexpr int kMaxParameters = 64;

void CheckText(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = s[i];
    size_t len = c < 0x80 ? 1 : c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    if (!len || i + len > s.size() || c < 0x20 || c == 0x7F) __builtin_trap();
    for (size_t k = 1; k < len; ++k) {
      if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) __builtin_trap();
    }
    if (len == 3 && c == 0xED && static_cast<unsigned char>(s[i + 1]) >= 0xA0) __builtin_trap();  // surrogate
    i += len;
  }
}

void CheckFileName(const std::string& name) {
  CheckText(name);
  if (name.empty() || name.size() > 200 || name[0] == '.' || name[0] == ' ') __builtin_trap();
  if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  CheckText(mime_display_text(input.c_str()));

  BodyPart* part = mail_newbody();
  BodyParameter** tail = &part->parameter;
  std::string first;
  size_t start = 0;
  for (int n = 0; n < kMaxParameters && start < input.size(); ++n) {
    size_t end = input.find('\n', start);
    if (end == std::string::npos) end = input.size();
    const std::string line = input.substr(start, end - start);
    start = end + 1;
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    *tail = mail_newbody_parameter();
    (*tail)->attribute = cpystr(line.substr(0, eq).c_str());
    (*tail)->value = cpystr(line.substr(eq + 1).c_str());
    if (first.empty()) first = (*tail)->attribute;
    tail = &(*tail)->next;
  }
  CheckText(mime_parameter(part->parameter, "NAME"));
  const size_t star = first.find('*');
  CheckText(mime_parameter(part->parameter, first.substr(0, star).c_str()));
  CheckFileName(mime_file_name(part));
  mail_free_body(&part);
  mail_env_clear();
  return 0;
}
