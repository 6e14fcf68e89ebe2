// Writing while a reply is pending: input that waits when a command is
// written is the reply to the one before, not a dropped connection, and a
// peer that hangs up stops the write without losing what it sent.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "c-client/core/mail.h"
#include "c-client/net/tcp.h"

TEST(TcpPending, InputBeforeAWrite) {
  struct Case {
    bool pending, peer_closes;  // a command in flight; the peer gone after its reply
    long written;               // what tcp_sout answers
  } cases[] = {{false, false, 0}, {true, false, 1}, {true, true, 0}};
  const std::string reply = "* 1 FETCH (FLAGS (\\Seen))\r\nA00001 OK done\r\n", command = "A00002 FETCH 2 FLAGS\r\n";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pending + 2 * c.peer_closes);
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ASSERT_EQ(::write(fds[1], reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
    if (c.peer_closes) ::close(fds[1]);
    TcpStream* tcp = tcp_attach_fd(fds[0], "peer");
    tcp_set_reply_pending(tcp, c.pending);
    EXPECT_EQ(tcp_sout(tcp, command.data(), command.size()), c.written);
    tcp_set_reply_pending(tcp, false);
    char got[64] = {};  // the command arrives only when it was written
    ssize_t n = c.peer_closes ? 0 : ::recv(fds[1], got, sizeof got - 1, MSG_DONTWAIT);
    EXPECT_EQ(std::string(got, static_cast<size_t>(n > 0 ? n : 0)), c.written ? command : "");
    if (!c.peer_closes) ::close(fds[1]);
    // The reply that came first is read whole unless the stream was given up as dropped.
    char* line = tcp_getline(tcp);
    EXPECT_EQ(line ? std::string(line) : "(end)", c.pending ? "* 1 FETCH (FLAGS (\\Seen))" : "(end)");
    if (line) FS_GIVE(&line);
    tcp_close(tcp);
  }
}
