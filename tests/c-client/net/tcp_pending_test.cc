// Writing while a reply is pending: input that waits when a command is
// written is the reply to the one before, not a dropped connection, and a
// peer that hangs up stops the write without losing what it sent.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "c-client/core/mail.h"
#include "c-client/net/tcp.h"

namespace {

struct Case {
  const char* what;
  bool pending;
  bool peer_closes;  // after writing its reply
  long written;      // what tcp_sout answers
  bool arrives;      // the peer reads the command
};

TEST(TcpPending, InputBeforeAWrite) {
  const Case cases[] = {
      {"nothing in flight: input means the server dropped us", false, false, 0, false},
      {"a command in flight: input is its reply", true, false, 1, true},
      {"a command in flight and the server gone: the reply is still read", true, true, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const std::string reply = "* 1 FETCH (FLAGS (\\Seen))\r\nA00001 OK done\r\n";
    ASSERT_EQ(::write(fds[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    if (c.peer_closes) ::close(fds[1]);
    TcpStream* tcp = tcp_attach_fd(fds[0], "peer");
    tcp_set_reply_pending(tcp, c.pending);
    const std::string command = "A00002 FETCH 2 FLAGS\r\n";
    EXPECT_EQ(tcp_sout(tcp, command.data(), command.size()), c.written);
    tcp_set_reply_pending(tcp, false);
    if (!c.peer_closes) {
      char got[64] = {};
      ssize_t n = ::recv(fds[1], got, sizeof got - 1, MSG_DONTWAIT);
      EXPECT_EQ(n > 0 ? std::string(got, static_cast<size_t>(n)) : "", c.arrives ? command : "");
      ::close(fds[1]);
    }
    // The reply that came first is read whole unless the stream was
    // given up as dropped.
    char* line = tcp_getline(tcp);
    EXPECT_EQ(line ? std::string(line) : "(end)", c.pending ? "* 1 FETCH (FLAGS (\\Seen))" : "(end)");
    if (line) FS_GIVE(&line);
    tcp_close(tcp);
  }
}

}  // namespace
