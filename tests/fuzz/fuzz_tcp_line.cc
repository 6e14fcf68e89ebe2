// Feeds arbitrary bytes to the transport's line and block reader. Input:
// four bytes that seed the choices (the sizes of the pieces the writer
// sends, and whether the reader takes a line or a counted block of what
// size), then the stream itself. A thread writes the stream in those
// pieces to one end of a socket pair and closes it; the reader reads until
// the stream ends. Whatever the chunking, every line and block must be
// exactly the next bytes of the input, and the reader must stop at the end.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "c-client/core/env.h"
#include "c-client/core/plain_env.h"
#include "c-client/net/tcp.h"
#include "tests/fuzz/fuzz_feed.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

// xorshift32: cheap, and the same choices for the same input.
uint32_t Next(uint32_t* state, uint32_t bound) {
  *state ^= *state << 13;
  *state ^= *state >> 17;
  *state ^= *state << 5;
  return *state % bound;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A reader that waits where it should not fails in seconds instead of
  // sitting out the two-minute time-out.
  tcp_set_timeouts_for_test(10, 10, 10);
  if (size < 4) return 0;
  uint32_t seed;
  std::memcpy(&seed, data, 4);
  const std::string input(reinterpret_cast<const char*>(data + 4), size - 4);

  long before = connections;
  std::thread writer;
  TcpStream* stream =
      FeedThroughSocket(input, &writer, [pick = seed | 1]() mutable { return size_t{1 + Next(&pick, 300)}; });
  if (!stream) return 0;

  uint32_t pick = (seed * 2654435761u) | 1;
  for (size_t at = 0;;) {  // where the reader is in the input
    if (Next(&pick, 4) != 0) {
      char* line = tcp_getline(stream);
      size_t end = input.find("\r\n", at);
      if (end == std::string::npos || end - at > kTcpMaxLine) {
        Check(line == nullptr);
        break;
      }
      // The line may hold a NUL; what a C string shows must match.
      Check(line != nullptr);
      size_t shown = std::strlen(line);
      Check(shown <= end - at && std::memcmp(line, input.data() + at, shown) == 0);
      Check(shown == end - at || input[at + shown] == '\0');
      FS_GIVE(&line);
      at = end + 2;
    } else {
      unsigned long want = Next(&pick, 600);
      std::vector<char> buffer(want + 1, '@');
      long ok = tcp_getbuffer(stream, want, buffer.data());
      if (at + want > input.size()) {
        Check(ok == 0);
        break;
      }
      Check(ok == 1 && std::memcmp(buffer.data(), input.data() + at, want) == 0 && buffer[want] == '\0');
      at += want;
    }
  }
  // The end of the input is the end of the stream: nothing more, no wait.
  Check(tcp_getline(stream) == nullptr && stream->socket == -1);
  writer.join();
  tcp_close(stream);
  Check(connections == before);
  mail_env_clear();
  return 0;
}
