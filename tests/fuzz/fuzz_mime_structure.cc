// A whole message, arbitrary bytes, through rfc822_parse_msg: once from a
// memory source and once from a file source over the same bytes (placed
// after other text in the file, as in a mailbox). Both must give the same
// structure, and every part must lie inside its parent.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

// One line per part: where it is, what it is, how big.
void Describe(const BodyPart* b, unsigned long offset, unsigned long lo, unsigned long hi, int depth,
              std::string* out) {
  Check(depth <= kRfc822MaxDepth + 1);
  Check(b->type <= TYPEOTHER && b->encoding <= ENCOTHER && b->subtype);
  Check(b->size_bytes == b->size_raw && offset >= lo && offset + b->size_bytes <= hi);
  *out += std::to_string(offset) + " " + std::to_string(b->size_bytes) + " " + std::to_string(b->size_lines) + " " +
          std::to_string(b->type) + "/" + b->subtype + " " + std::to_string(b->encoding);
  for (const BodyParameter* p = b->parameter; p; p = p->next) *out += std::string(" ") + p->attribute + "=" + p->value;
  *out += "\n";
  unsigned long previous = offset;
  for (const BodyPartNode* n = b->parts; n; n = n->next) {
    Check(n->offset >= previous);  // parts come in order
    previous = n->offset + n->body.size_bytes;
    Describe(&n->body, n->offset, offset, offset + b->size_bytes, depth + 1, out);
  }
  if (b->msg_body) {
    Check(b->msg_offset == 0 && b->msg_env && b->msg_body->size_bytes <= b->size_bytes);
    Describe(b->msg_body, offset + b->size_bytes - b->msg_body->size_bytes, offset, offset + b->size_bytes, depth + 1,
             out);
  }
}

std::string Parse(const char* header, unsigned long header_size, StringSource* s, unsigned long total) {
  std::vector<char> head(header, header + header_size);
  std::vector<char> work(kRfc822WorkSize);
  string_setpos(s, header_size);
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  rfc822_parse_msg(&env, &body, head.data(), head.size(), s, "fuzz.example", work.data());
  std::string out;
  Describe(body, header_size, header_size, total, 0, &out);
  if (env->subject) out += env->subject;
  mail_free_envelope(&env);
  mail_free_body(&body);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  mail_env_clear();
  static int fd = memfd_create("fuzz_mime_structure", 0);
  Check(fd >= 0);
  static const char kJunk[] = "From fuzz Sat Jan  1 00:00:00 2000\n";
  const unsigned long start = sizeof kJunk - 1;
  Check(ftruncate(fd, 0) == 0 && pwrite(fd, kJunk, start, 0) == static_cast<ssize_t>(start));
  Check(!size || pwrite(fd, data, size, start) == static_cast<ssize_t>(size));

  // The header's size as the local drivers find it.
  Check(lseek(fd, static_cast<off_t>(start), SEEK_SET) == static_cast<off_t>(start));
  long header_size = rfc822_header_size(fd);
  Check(header_size >= 0 && static_cast<unsigned long>(header_size) <= size);

  const char* text = reinterpret_cast<const char*>(data);
  StringSource memory, file;
  string_init(&memory, &mail_string, const_cast<char*>(text), size);
  FileText ft{};
  ft.fd = fd;
  ft.start = start;
  string_init(&file, &file_string, &ft, size);
  Check(Parse(text, header_size, &memory, size) == Parse(text, header_size, &file, size));
  mail_env_clear();
  return 0;
}
