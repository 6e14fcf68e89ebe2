// Feeds arbitrary sequence texts to mail_sequence and section numbers to
// mail_body_section. Input: one byte giving the mailbox size, the sequence
// up to the first newline, then a section. The sequence's outcome (result,
// marked messages, complaint) must match a second, differently built
// reading of the same rules.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

struct Outcome {
  long result = 1;
  std::set<unsigned long> marked;
  std::string error;
};

// A number of at most 19 significant digits is read exactly; longer ones
// are too big for any mailbox.
bool ReadNumber(const std::string& item, size_t* pos, unsigned long n, unsigned long* value) {
  size_t start = *pos;
  while (*pos < item.size() && item[*pos] >= '0' && item[*pos] <= '9') ++*pos;
  std::string digits = item.substr(start, *pos - start);
  if (digits.empty()) return false;
  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
  if (digits.size() > 19) return false;
  *value = std::stoull(digits);
  return *value >= 1 && *value <= n;
}

// Items between commas, each NUMBER or NUMBER:NUMBER; one trailing comma
// is allowed.
Outcome Reference(const std::string& text, unsigned long n) {
  Outcome out;
  std::vector<std::string> items;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) {
      items.push_back(text.substr(start));
      break;
    }
    items.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  if (!items.empty() && items.back().empty()) items.pop_back();
  for (const std::string& item : items) {
    size_t pos = 0;
    unsigned long first = 0, last = 0;
    if (!ReadNumber(item, &pos, n, &first)) return {0, out.marked, "Sequence invalid"};
    last = first;
    if (pos < item.size()) {
      if (item[pos] != ':') return {0, out.marked, "Syntax error in sequence"};
      ++pos;
      if (!ReadNumber(item, &pos, n, &last) || pos != item.size()) return {0, out.marked, "Sequence range invalid"};
    }
    for (unsigned long i = std::min(first, last); i <= std::max(first, last); ++i) out.marked.insert(i);
  }
  return out;
}

BodyPartNode* Node(unsigned short type, const char* subtype, unsigned long offset) {
  BodyPartNode* p = mail_newbody_part();
  p->body.type = type;
  p->body.subtype = cpystr(subtype);
  p->offset = offset;
  return p;
}

// multipart: 1 text, 2 message/rfc822 (multipart: 1 text, 2 multipart: 1 text)
BodyPart* Tree() {
  BodyPart* root = mail_newbody();
  root->type = TYPEMULTIPART;
  root->parts = Node(TYPETEXT, "PLAIN", 1);
  root->parts->next = Node(TYPEMESSAGE, "RFC822", 2);
  BodyPart* msg = &root->parts->next->body;
  msg->msg_offset = 10;
  msg->msg_body = mail_newbody();
  msg->msg_body->type = TYPEMULTIPART;
  msg->msg_body->parts = Node(TYPETEXT, "PLAIN", 100);
  msg->msg_body->parts->next = Node(TYPEMULTIPART, "MIXED", 200);
  msg->msg_body->parts->next->body.parts = Node(TYPETEXT, "PLAIN", 1000);
  return root;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  unsigned long n = data[0];
  std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  size_t newline = rest.find('\n');
  std::string sequence = rest.substr(0, newline);
  std::string section = newline == std::string::npos ? "" : rest.substr(newline + 1);
  sequence = sequence.c_str();
  section = section.c_str();

  mailcache = mm_cache;
  auto* stream = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
  stream->silent = 1;
  mailcache(stream, 0, CH_INIT);
  mail_exists(stream, n);
  mail_env_clear();
  long result = mail_sequence(stream, sequence.c_str());
  Outcome got;
  got.result = result;
  for (unsigned long i = 1; i <= stream->cachesize; ++i) {
    auto* e = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    if (e && e->sequence) got.marked.insert(i);
  }
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == "log") got.error = l.text;
  Outcome want = Reference(sequence, n);
  Check(got.result == want.result);
  Check(got.marked == want.marked);
  Check(got.error == want.error);
  mailcache(stream, 0, CH_INIT);
  FS_GIVE(&stream);
  mail_env_clear();

  BodyPart* tree = Tree();
  unsigned long offset = 0;
  if (mail_body_section(tree, section.c_str(), &offset)) Check(offset <= 10 + 1000 + 200);
  mail_free_body(&tree);
  return 0;
}
