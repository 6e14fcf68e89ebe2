// Feeds arbitrary server output to the password manager client's reply
// reader through a socket pair. Every reply must be the next bytes of the
// input, end at its line feed or at the limit, and the rest of a cut line
// must be skipped, so the next reply starts after that line's feed.
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "c-client/net/tcp.h"
#include "src/security/password_manager.h"
#include "tests/fuzz/fuzz_feed.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tcp_set_timeouts_for_test(10, 10, 10);
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::thread writer;
  TcpStream* stream = FeedThroughSocket(input, &writer, [] { return size_t{97}; });
  if (!stream) return 0;
  char reply[kPwReplyLimit + 1];
  size_t at = 0;
  while (PWM_ReadReply(stream, reply)) {
    size_t end = input.find('\n', at);
    size_t length = end == std::string::npos ? input.size() - at : end - at + 1;
    bool cut = length > kPwReplyLimit;
    if (cut) length = kPwReplyLimit;
    Check(at + length <= input.size());
    size_t shown = std::strlen(reply);
    Check(shown <= length && std::memcmp(reply, input.data() + at, shown) == 0);
    at += length;
    if (cut) {
      size_t feed = input.find('\n', at);
      at = feed != std::string::npos && feed - at < 65536 ? feed + 1 : std::min(input.size(), at + 65536);
    }
  }
  // A false reply is an unended line at the stream's end.
  Check(input.find('\n', at) == std::string::npos && input.size() - at < kPwReplyLimit);
  writer.join();
  tcp_close(stream);
  return 0;
}
