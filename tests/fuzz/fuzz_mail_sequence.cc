// Feeds arbitrary sequence texts to mail_sequence and section numbers to
// mail_body_section. Input: one byte giving the mailbox size, the sequence
// up to the first newline, then a section. The sequence's outcome (result,
// marked messages, complaint) must match a second, differently built
// reading of the same rules.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

struct Outcome {
  long result = 1;
  std::set<unsigned long> marked;
  std::string error;
  bool operator==(const Outcome&) const = default;
};

// A number in 1..n at *pos. One of more than 19 significant digits is too
// big for any mailbox; shorter ones are read exactly.
bool ReadNumber(const std::string& item, size_t* pos, unsigned long n, unsigned long* value) {
  size_t start = *pos;
  while (*pos < item.size() && item[*pos] >= '0' && item[*pos] <= '9') ++*pos;
  std::string digits = item.substr(start, *pos - start);
  size_t zeros = std::min(digits.find_first_not_of('0'), digits.size());
  if (digits.empty() || digits.size() - zeros > 19) return false;
  *value = digits.size() == zeros ? 0 : std::stoull(digits.substr(zeros));
  return *value >= 1 && *value <= n;
}

// Items between commas (getline drops one trailing empty item), each
// NUMBER or NUMBER:NUMBER.
Outcome Reference(const std::string& text, unsigned long n) {
  Outcome out;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    size_t pos = 0;
    unsigned long first = 0, last = 0;
    if (!ReadNumber(item, &pos, n, &first)) return {0, out.marked, "Sequence invalid"};
    last = first;
    if (pos < item.size() && item[pos] != ':') return {0, out.marked, "Syntax error in sequence"};
    if (pos < item.size() && (++pos, !ReadNumber(item, &pos, n, &last) || pos != item.size()))
      return {0, out.marked, "Sequence range invalid"};
    for (unsigned long i = std::min(first, last); i <= std::max(first, last); ++i) out.marked.insert(i);
  }
  return out;
}

BodyPartNode* Node(unsigned short type, unsigned long offset, BodyPartNode* first_child = nullptr) {
  BodyPartNode* p = mail_newbody_part();
  p->body.type = type;
  p->body.subtype = cpystr(type == TYPEMESSAGE ? "RFC822" : "X");
  p->offset = offset;
  p->body.parts = first_child;
  return p;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  unsigned long n = data[0];
  std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  size_t newline = rest.find('\n');
  std::string sequence = rest.substr(0, newline).c_str();
  std::string section = newline == std::string::npos ? "" : rest.substr(newline + 1).c_str();

  mailcache = mm_cache;
  auto* stream = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
  stream->silent = 1;
  mailcache(stream, 0, CH_INIT);
  mail_exists(stream, n);
  mail_env_clear();
  Outcome got;
  got.result = mail_sequence(stream, sequence.c_str());
  for (unsigned long i = 1; i <= stream->cachesize; ++i)
    if (auto* e = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT)); e && e->sequence) got.marked.insert(i);
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == "log") got.error = l.text;
  Check(got == Reference(sequence, n));
  mailcache(stream, 0, CH_INIT);
  FS_GIVE(&stream);
  mail_env_clear();

  // multipart: 1 text, 2 message/rfc822 (multipart: 1 text, 2 multipart: 1 text)
  BodyPartNode* root = Node(TYPEMULTIPART, 0, Node(TYPETEXT, 1));
  BodyPartNode* msg = root->body.parts->next = Node(TYPEMESSAGE, 2);
  msg->body.msg_offset = 10;
  msg->body.msg_body = mail_newbody();
  msg->body.msg_body->type = TYPEMULTIPART;
  msg->body.msg_body->parts = Node(TYPETEXT, 100);
  msg->body.msg_body->parts->next = Node(TYPEMULTIPART, 200, Node(TYPETEXT, 1000));
  unsigned long offset = 0;
  if (mail_body_section(&root->body, section.c_str(), &offset)) Check(offset <= 10 + 1000 + 200);
  mail_free_body_part(&root);
  return 0;
}
