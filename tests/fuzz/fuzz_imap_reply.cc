// Feeds arbitrary server bytes to the IMAP reply reader: untagged replies,
// response codes, list, ACL, quota and STATUS rows (a STATUS of "Work" is
// awaited, as during mail_status), and the fetch-data parser
// (envelopes, addresses, body structures, literals, flags). Input: one byte
// that picks the mailbox size, then the server's stream. A thread writes
// the stream to one end of a socket pair and closes it; the reader reads
// until the tagged reply or the end. Whatever arrives, the reader must stop,
// and everything it stored must be sound (the sanitizers check the walk).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "c-client/core/env.h"
#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"
#include "tests/fuzz/fuzz_feed.h"

namespace {

void Check(bool ok) {
  if (!ok) std::abort();
}

// Message text, read in pieces so that an announced size costs nothing
// until the bytes are really there.
MailText* ChunkGets(readfn_t reader, void* handle, unsigned long size) {
  std::string text;
  char piece[4096];
  for (unsigned long left = size; left;) {
    unsigned long n = left < sizeof piece ? left : sizeof piece;
    if (!reader(handle, n, piece)) return nullptr;
    text.append(piece, n);
    left -= n;
  }
  MailText* t = mail_newtext();
  mail_text_set(t, kTextInMemory, text.data(), text.size());
  return t;
}

unsigned long Walk(const BodyPart* b, int depth) {
  Check(depth < 200);
  if (!b) return 0;
  unsigned long n = 1 + (b->subtype ? std::strlen(b->subtype) : 0);
  for (const BodyParameter* p = b->parameter; p; p = p->next) n += std::strlen(p->attribute) + std::strlen(p->value);
  for (const BodyPartNode* p = b->parts; p; p = p->next) n += Walk(&p->body, depth + 1);
  if (b->msg_env && b->msg_env->subject) n += std::strlen(b->msg_env->subject);
  return n + Walk(b->msg_body, depth + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tcp_set_timeouts_for_test(10, 10, 10);
  mail_gets = ChunkGets;
  if (size < 1) return 0;
  const unsigned long nmsgs = 1 + data[0] % 40;
  const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);

  long before = connections;
  std::thread writer;
  TcpStream* tcp = FeedThroughSocket(input, &writer);
  if (!tcp) return 0;

  MailStream* stream = imap_attach_for_test(tcp, nmsgs);
  MailStatus status{};
  imap_local(stream)->status = &status;
  imap_local(stream)->status_mailbox = "Work";
  ImapReply* r = imap_reply(stream, "A00000");
  Check(r != nullptr);
  imap_local(stream)->status = nullptr;
  // Only the items we know are ever marked answered.
  Check((status.flags & ~SA_ALL) == 0);
  Check(status.messages <= 0xffffffffUL && status.unseen <= 0xffffffffUL);
  // Everything stored must be whole.
  unsigned long sum = 0;
  for (unsigned long i = 1; i <= stream->nmsgs && i <= stream->cachesize; ++i) {
    MessageElt* e = stream->cache[i - 1];
    if (!e) continue;
    Check(e->msgno == i);
    if (e->envelope && e->envelope->subject) sum += std::strlen(e->envelope->subject);
    for (MailAddress* a = e->envelope ? e->envelope->from : nullptr; a; a = a->next)
      sum += a->mailbox ? std::strlen(a->mailbox) : 0;
    sum += Walk(e->body, 0);
    if (e->header_text) sum += e->header_text->size;
  }
  (void)sum;
  stream = mail_close(stream);
  writer.join();
  Check(connections == before);
  mail_env_clear();
  return 0;
}
