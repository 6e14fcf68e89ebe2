// Shared by the fuzz targets of readers on the transport: the input as a
// server that sends it and hangs up. A thread writes it to the far end of
// a socket pair, in pieces no bigger than piece() when one is given, and
// closes that end; the caller joins it once the reading is done.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>

#include "c-client/net/tcp.h"

// The near end as a stream; null, with no thread started, when no socket
// pair can be made.
inline TcpStream* FeedThroughSocket(const std::string& input, std::thread* writer,
                                    std::function<size_t()> piece = nullptr) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return nullptr;
  *writer = std::thread([&input, piece, fd = pair[1]] {
    for (size_t at = 0; at < input.size();) {
      const size_t left = input.size() - at;
      const ssize_t sent = ::send(fd, input.data() + at, piece ? std::min(piece(), left) : left, MSG_NOSIGNAL);
      if (sent <= 0) break;  // the reader has gone
      at += static_cast<size_t>(sent);
    }
    ::close(fd);
  });
  return tcp_attach_fd(pair[0], "fuzz");
}
