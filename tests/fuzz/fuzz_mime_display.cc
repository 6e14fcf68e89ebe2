// The display helpers on arbitrary bytes: the whole input as a header, and
// its lines ("ATTRIBUTE=value") as a part's parameters. Whatever comes in,
// the result is valid UTF-8 without control characters, and a file name
// is safe to create.
#include <algorithm>
#include <cstdint>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/mime_display.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void CheckText(const std::string& s) {
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = s[i];
    size_t len = c < 0x80 ? 1 : c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    Check(len && i + len <= s.size() && c >= 0x20 && c != 0x7F);
    for (size_t k = 1; k < len; ++k) Check((static_cast<unsigned char>(s[i + k]) & 0xC0) == 0x80);
    Check(!(len == 3 && c == 0xED && static_cast<unsigned char>(s[i + 1]) >= 0xA0));  // a surrogate
    i += len;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  CheckText(mime_display_text(input.c_str()));

  BodyPart* part = mail_newbody();
  BodyParameter** tail = &part->parameter;
  std::string first;
  for (size_t start = 0, n = 0; n < 64 && start < input.size(); ++n) {
    size_t end = std::min(input.find('\n', start), input.size());
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
  CheckText(mime_parameter(part->parameter, first.substr(0, first.find('*')).c_str()));
  const std::string name = mime_file_name(part);
  CheckText(name);
  Check(!name.empty() && name.size() <= 200 && name[0] != '.' && name[0] != ' ');
  Check(name.find('/') == std::string::npos && name.find('\\') == std::string::npos);
  mail_free_body(&part);
  mail_env_clear();
  return 0;
}
