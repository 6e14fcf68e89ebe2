// Feeds arbitrary server bytes to the option and address book client's
// reply loop: the line parser, the argument reader with its literals, the
// pairs, and every unsolicited keyword, in a plain or an expanding session.
// Input: one byte of settings (bit 0: expanding), then the server's stream,
// written by a thread to one end of a socket pair. Whatever arrives, the
// loop must stop, and what it keeps must stay within its limits.
#include <cstdint>
#include <string>
#include <thread>

#include "c-client/core/plain_env.h"
#include "c-client/imsp/imsp_internal.h"
#include "tests/fuzz/fuzz_feed.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

size_t g_heard = 0;

ImspCallbacks Callbacks() {
  ImspCallbacks cb;
  cb.abook_name = [](void*, const char* name, char) { g_heard += std::string(name).size(); };
  cb.address = [](void*, const char* book, const char* entry, const ImspPair* pairs, int n) {
    Check(n >= 0 && n <= kImspMaxPairs && (n == 0 || pairs));
    g_heard += std::string(book).size() + std::string(entry).size();
    for (int i = 0; i < n; ++i) g_heard += pairs[i].attribute.size() + pairs[i].value.size();
  };
  cb.option = [](void*, const char* name, const char* value, int writable) {
    Check(writable == 0 || writable == 1);
    g_heard += std::string(name).size() + std::string(value).size();
  };
  cb.acl = [](void*, const char* book, const char*, const char* rights) {
    g_heard += std::string(book).size() + std::string(rights).size();
  };
  return cb;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  tcp_set_timeouts_for_test(10, 10, 10);
  const bool expanding = data[0] & 1;
  const std::string input(reinterpret_cast<const char*>(data + 1), size - 1);

  std::thread writer;
  TcpStream* tcp = FeedThroughSocket(input, &writer);
  if (!tcp) return 0;

  ImspSession* session = imsp_session_new(Callbacks());
  imsp_attach_for_test(session, tcp);
  imsp_set_book(session, "fuzz");
  session->expand_mode = expanding;
  session->expand_queue.emplace_back("fuzz", "group");
  imsp_reply(session, "A00000");
  Check(session->expand_queue.size() <= kImspMaxExpand);
  for (const std::string& l : session->reply.literals) Check(l.size() <= kImspMaxLiteral);
  imsp_session_free(&session);
  Check(session == nullptr);
  writer.join();
  mail_env_clear();
  return 0;
}
