// Feeds arbitrary server output to the password manager client's reply
// reader through a socket pair. Every reply must be the next bytes of the
// input, end at its line feed or at the limit, and the rest of a cut line
// must be skipped, so the next reply starts after that line's feed.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "c-client/net/tcp.h"
#include "src/security/password_manager.h"
#include "tests/fuzz/fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tcp_set_timeouts_for_test(10, 10, 10);
  const std::string input(reinterpret_cast<const char*>(data), size);
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return 0;
  TcpStream* stream = tcp_attach_fd(pair[0], "fuzz");
  Check(stream != nullptr);
  std::thread writer([&input, fd = pair[1]] {
    for (size_t at = 0; at < input.size();) {
      ssize_t sent = ::send(fd, input.data() + at, std::min<size_t>(97, input.size() - at), MSG_NOSIGNAL);
      if (sent <= 0) break;
      at += static_cast<size_t>(sent);
    }
    ::close(fd);
  });
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
