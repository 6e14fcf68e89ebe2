// Feeds arbitrary server output, line by line, to the SMTP reply reader and
// the EHLO keyword parser. Besides not crashing: a reply never holds more
// lines or text than its limits, and a complete reply has one code.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/send/smtp_reply.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  SmtpReply reply;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!smtp_reply_add(&reply, line.data(), line.size())) break;
    if (reply.complete) {
      Check(reply.code >= 200 && reply.code <= 599);
      SmtpExtensions ext;
      smtp_parse_extensions(reply, &ext);
      Check(ext.auth.size() <= kSmtpMaxExtensions);
      reply = SmtpReply{};
    }
    start = end + 1;
  }
  Check(reply.lines.size() <= kSmtpMaxReplyLines);
  Check(reply.text.size() <= kSmtpMaxReplyText + kSmtpMaxReplyLines);
  return 0;
}
