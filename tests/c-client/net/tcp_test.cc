// The plain transport against a server thread on loopback: the host forms,
// the failures users see, lines and counted blocks however the bytes are
// split, a peer that closes or stays silent, and the write rules.
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/c-client/net/tcp_test_util.h"

namespace {

using namespace tcptest;

std::string WithPort(const std::string& form, unsigned port) {
  char text[200];
  std::snprintf(text, sizeof text, form.c_str(), port);
  return text;
}

using Transport = TcpFixture;

TEST_F(Transport, HostFormsReachTheServer) {
  const std::string literal = "tcp_open(): using literal IP address\n";
  const std::tuple<const char*, bool, const char*, std::string> cases[] = {
      // form (%u: the server's port), IPv6, what tcp_host says, how the name was taken
      {"[127.0.0.1]:%u", false, "[127.0.0.1]", literal},
      {"localhost:%u", false, "localhost", "tcp_open(): resolving hostname localhost to IP address\n"},
      {"LocalHOST", false, "localhost", "tcp_open(): resolving hostname localhost to IP address\n"},
      {"[::1]:%u", true, "[::1]", literal},
  };
  for (const auto& [form, ipv6, host, trace] : cases) {
    SCOPED_TRACE(form);
    mail_env_clear();
    HookLog::outcomes.clear();
    std::string said;  // before the server, whose thread writes it
    LoopbackServer server(ipv6);
    if (!server.ok()) {
      ASSERT_TRUE(ipv6) << "no IPv4 loopback";
      continue;  // a machine without IPv6 loopback
    }
    server.Serve([&](int fd) {
      SendAll(fd, "* OK hello\r\n");
      said = ReadLine(fd);
      SendAll(fd, "echo " + said + "\r\n");
      ReadLine(fd, 3000);  // until the client closes
    });
    std::string name = WithPort(form, server.port());
    // A port in the name wins over the argument, which would be refused.
    TcpStream* s = tcp_open(name.c_str(), "imap", name != form ? 1 : server.port());
    ASSERT_NE(s, nullptr) << EnvAll();
    EXPECT_STREQ(tcp_host(s), host);
    EXPECT_NE(std::string(tcp_localhost(s)), "");
    EXPECT_TRUE(EnvSaid("dlog", trace)) << EnvAll();
    EXPECT_TRUE(EnvSaid("dlog", "tcp_open(): host = " + name + ", service = imap\n"));
    EXPECT_EQ(HookLog::outcomes, std::vector<int>{1});
    EXPECT_EQ(connections, baseline_ + 1);
    EXPECT_EQ(Take(tcp_getline(s)), "* OK hello");
    EXPECT_EQ(tcp_soutr(s, "a NOOP\r\n"), 1);
    EXPECT_EQ(Take(tcp_getline(s)), "echo a NOOP");
    tcp_close(s);
  }
}

TEST_F(Transport, FailedOpensSayWhyAndRecordTheOutcome) {
  unsigned closed = LoopbackServer().port();  // nobody listens there any more
  const std::string literal = "Illegal format for domain-literal hostname: ";
  const std::string port = "Invalid string after port number in host specification: ";
  const std::pair<std::string, std::string> cases[] = {
      {"[127.0.0.1]:%u", "Failed to connect to [127.0.0.1]: connection refused "},
      {"[1.2.3]", literal + "[1.2.3]"},
      {"[127.0.0.1", literal + "[127.0.0.1"},
      {"localhost:143x", port + "localhost:143x"},
      {"localhost:99999", port + "localhost:99999"},
      // Without a network the resolver may not get as far as "no such host":
      // only the start is sure.
      {"No-Such-Host.invalid", "Failed to resolve hostname 'no-such-host.invalid' - *"},
  };
  for (const auto& [form, message] : cases) {
    SCOPED_TRACE(form);
    mail_env_clear();
    HookLog::outcomes.clear();
    EXPECT_EQ(tcp_open(WithPort(form, closed).c_str(), "imap", 143), nullptr);
    std::string expected = WithPort(message, closed);
    const bool prefix = expected.back() == '*';
    if (prefix) expected.pop_back();
    EXPECT_TRUE(std::any_of(mail_env_lines().begin(), mail_env_lines().end(), [&](const MailEnvLine& l) {
      return l.callback == "log" && l.level == 2 && (prefix ? l.text.rfind(expected, 0) == 0 : l.text == expected);
    })) << EnvAll();
    EXPECT_EQ(HookLog::outcomes, std::vector<int>{0});
    EXPECT_EQ(connections, baseline_);
  }
}

// A host that drops the handshake (a listener whose queue is full, as
// behind a filter) and a name server that doesn't answer both give up
// after the connect time-out; the answer that comes later is dropped.
TEST_F(Transport, OpensGiveUpAfterTheConnectTimeout) {
  LoopbackServer server(false, 0);
  ASSERT_TRUE(server.ok());
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in a = Loopback4(server.port());
    ::connect(fillers.back(), reinterpret_cast<sockaddr*>(&a), sizeof a);
  }
  Pause(200);
  tcp_set_timeouts_for_test(10, 10, 1);
  auto start = Clock::now();
  EXPECT_EQ(tcp_open("[127.0.0.1]", "imap", server.port()), nullptr);
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 5.0);
  for (int fd : fillers) ::close(fd);

  tcp_set_resolver_for_test([](const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    Pause(3000);
    return ::getaddrinfo(node, service, hints, result);
  });
  start = Clock::now();
  EXPECT_EQ(tcp_open("localhost", "imap", 143), nullptr);
  EXPECT_LT(SecondsSince(start), 2.5);
  EXPECT_TRUE(EnvSaid("log", "Failed to connect to [127.0.0.1]: connection timed out -- no response from server", 2));
  EXPECT_TRUE(EnvSaid("log", "Failed to resolve hostname 'localhost' - failed to contact name server", 2)) << EnvAll();
  EXPECT_EQ(HookLog::outcomes, (std::vector<int>{0, 0}));
}

// Opens a stream to a server that sends the pieces with pauses between
// them, so that each arrives in a read of its own, and then closes.
struct Scripted {
  LoopbackServer server;
  TcpStream* stream = nullptr;
  explicit Scripted(std::vector<std::string> pieces, int pause_ms = 30) {
    server.Serve([pieces, pause_ms](int fd) {
      for (const std::string& p : pieces) SendAll(fd, p), Pause(pause_ms);
    });
    stream = tcp_open("[127.0.0.1]", "imap", server.port());
  }
  ~Scripted() { tcp_close(stream); }
};

// Whatever the split, the lines come out whole; when the peer closes, in
// the middle of a line or not, the stream ends at once, without spinning,
// and stays dead.
TEST_F(Transport, LinesAreJoinedHoweverTheBytesArriveAndEndWithThePeer) {
  const std::string big = std::string(20000, 'x') + "END";
  const std::tuple<const char*, std::vector<std::string>, std::vector<std::string>> cases[] = {
      {"CR and LF in separate reads", {"first\r", "\nsecond\r\n"}, {"first", "second"}},
      {"several in one read, the last split", {"one\r\ntwo\r\nthr", "ee\r\n"}, {"one", "two", "three"}},
      {"a lone LF stays in the line", {"a\nb\r\n"}, {"a\nb"}},
      {"a CR at a read's end that is not followed by LF", {"a\r", "b\r\n"}, {"a\rb"}},
      {"a CR before the line's own CRLF, across reads", {"a\r", "\r\n"}, {"a\r"}},
      {"empty lines", {"\r\n", "\r\n\r\n"}, {"", "", ""}},
      {"a long line in pieces", {big.substr(0, 8000), big.substr(8000, 9000), big.substr(17000) + "\r\nnext\r\n"}, {big, "next"}},
      {"closed in the middle of a line", {"* OK\r\n* 1 FETCH (BODY[] {"}, {"* OK"}},
      {"closed right after a CR", {"* OK\r"}, {}},
  };
  for (const auto& [what, pieces, lines] : cases) {
    SCOPED_TRACE(what);
    Scripted t(pieces);
    ASSERT_NE(t.stream, nullptr);
    for (const std::string& expected : lines) EXPECT_EQ(Take(tcp_getline(t.stream)), expected);
    ExpectEndsAtOnce(t.stream, what);
    EXPECT_EQ(tcp_getline(t.stream), nullptr);
    EXPECT_EQ(tcp_soutr(t.stream, "x\r\n"), 0);
  }
}

TEST_F(Transport, CountedReadsAreExactAcrossReads) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{8191}, size_t{8192}, size_t{8193}, size_t{20000}}) {
    SCOPED_TRACE(size);
    // Every byte value, CR and LF and NUL among them, in an order that
    // shows a lost or repeated piece.
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) payload[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
    // Odd cut points, so that the block starts and ends inside reads; the
    // peer closes in the middle of the last block.
    std::string all = "HEAD\r\n" + payload + "TAIL\r\n0123456789";
    std::vector<std::string> pieces;
    for (size_t at = 0, step = 7; at < all.size(); at += step, step = step * 3 + 1) pieces.push_back(all.substr(at, step));
    Scripted t(pieces, 10);
    ASSERT_NE(t.stream, nullptr);
    EXPECT_EQ(Take(tcp_getline(t.stream)), "HEAD");
    std::vector<char> buffer(size + 101, '@');
    ASSERT_EQ(tcp_getbuffer(t.stream, size, buffer.data()), 1);
    EXPECT_EQ(std::string(buffer.data(), size), payload);
    EXPECT_EQ(buffer[size], '\0');
    EXPECT_EQ(Take(tcp_getline(t.stream)), "TAIL");
    EXPECT_EQ(tcp_getbuffer(t.stream, 100, buffer.data()), 0);
    EXPECT_EQ(t.stream->socket, -1);
  }
}

// A server that sends half a line and waits times the read out; one that
// spoke (or closed) before a command was written has gone, and the command
// is not sent.
TEST_F(Transport, ASilentOrGoneServerEndsTheStream) {
  for (const std::string how : {"silent", "spoke", "closed"}) {
    SCOPED_TRACE(how);
    mail_env_clear();
    std::atomic<bool> got_bytes{false};
    LoopbackServer server;
    server.Serve([&](int fd) {
      if (how == "closed") return;
      SendAll(fd, how == "silent" ? "* OK half a li" : "* BYE Autologout; idle for too long\r\n");
      char byte;
      got_bytes = Readable(fd, 1000) && ::recv(fd, &byte, 1, 0) == 1;
      server.WaitUntilDone();
    });
    tcp_set_timeouts_for_test(1, 10, 10);
    TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
    ASSERT_NE(s, nullptr);
    auto start = Clock::now();
    if (how == "silent") {
      EXPECT_EQ(tcp_getline(s), nullptr);
      EXPECT_GE(SecondsSince(start), 0.9);
      EXPECT_LT(SecondsSince(start), 4.0);
      EXPECT_TRUE(EnvSaid("log", "tcp_getdata: timeout during select on read.", 0)) << EnvAll();
    } else {
      ASSERT_TRUE(Readable(s->socket, 3000));
      EXPECT_EQ(tcp_soutr(s, "a1 NOOP\r\n"), 0);
      EXPECT_TRUE(EnvSaid("dlog", "tcp_sout: this socket stream is 'closed' - abnormally or via server idle timeout. "
                               "send() aborted.\n")) << EnvAll();
    }
    EXPECT_EQ(s->socket, -1);
    server.done = true;
    tcp_close(s);
    EXPECT_FALSE(got_bytes) << "the command went out anyway";
  }
}

// The write time-out, and the short one the program asks for once, are for
// a server that takes nothing: a slow link that moves a long message along
// must not lose it because the whole took longer.
TEST_F(Transport, WritesTimeOutOnlyWhenTheServerTakesNothing) {
  const std::tuple<int, bool, bool, double, double, const char*> cases[] = {
      // write time-out, short next, server reads, seconds at least and at most, trace
      {1, false, false, 0.9, 4.0, "tcp_sout: socket timeout during select: 1"},
      {60, true, false, 4.5, 9.0, "tcp_sout: socket timeout during select: 5"},
      {1, false, true, 1.2, 60, ""},
  };
  for (const auto& [write_timeout, short_next, reads, at_least, at_most, trace] : cases) {
    SCOPED_TRACE(trace);
    mail_env_clear();
    HookLog::asked = 0;
    HookLog::short_next = short_next;
    const size_t total = reads ? 1u << 20 : 32u << 20;  // far more than the two socket buffers hold
    size_t received = 0;
    int small = 64 * 1024;
    LoopbackServer server;
    setsockopt(server.listener(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    server.Serve([&, reads = reads](int fd) {
      std::vector<char> buffer(96 * 1024);
      while (reads && received < total) {
        Pause(250);
        const ssize_t n = Readable(fd, 5000) ? ::recv(fd, buffer.data(), buffer.size(), 0) : 0;
        if (n <= 0) break;
        received += static_cast<size_t>(n);
      }
      server.WaitUntilDone();
    });
    tcp_set_timeouts_for_test(10, write_timeout, 10);
    TcpStream* s = tcp_open("[127.0.0.1]", "smtp", server.port());
    ASSERT_NE(s, nullptr);
    setsockopt(s->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string message(total, 'm');
    auto start = Clock::now();
    EXPECT_EQ(tcp_sout(s, message.data(), message.size()), reads ? 1 : 0) << EnvAll();
    EXPECT_GE(SecondsSince(start), at_least) << "the server took it all at once: nothing tested";
    EXPECT_LT(SecondsSince(start), at_most);
    if (!reads) {
      EXPECT_TRUE(EnvSaid("dlog", trace)) << EnvAll();
      EXPECT_EQ(HookLog::asked, 1);
      EXPECT_FALSE(HookLog::short_next) << "the short time-out was not taken";
    }
    server.done = true;
    tcp_close(s);
  }
}

// An attacker in the path adds a reply in the clear after the server's
// consent to STARTTLS, hoping it is read as if it came through TLS: the
// upgrade fails instead.
TEST_F(Transport, AReplyInTheClearBeforeTheHandshakeFailsTheUpgrade) {
  LoopbackServer front;
  front.Serve([&](int fd) {
    SendAll(fd, "* OK plain greeting\r\n");
    if (ReadLine(fd) == "a1 STARTTLS") SendAll(fd, "a1 OK Begin TLS\r\na2 OK LOGIN done\r\n");
    front.WaitUntilDone();
  });
  TcpStream* s = tcp_open("localhost", "imap", front.port());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(Take(tcp_getline(s)), "* OK plain greeting");
  ASSERT_EQ(tcp_soutr(s, "a1 STARTTLS\r\n"), 1);
  EXPECT_EQ(Take(tcp_getline(s)), "a1 OK Begin TLS");
  Pause(100);  // the injected line is in the same read
  EXPECT_EQ(tcp_starttls(s, "localhost", 0), 0);
  EXPECT_TRUE(EnvSaid("log", "TLS connection to localhost failed: the server sent data before the TLS handshake",
                      2))
      << EnvAll();
  EXPECT_EQ(s->socket, -1);
  front.done = true;
  tcp_close(s);
}

TEST_F(Transport, LinesHaveALimit) {
  for (size_t length : {kTcpMaxLine, kTcpMaxLine + 1}) {
    SCOPED_TRACE(length);
    mail_env_clear();
    LoopbackServer server;
    server.Serve([&](int fd) {
      // A server that would go on for ever.
      std::string chunk(64 * 1024, 'z');
      for (size_t sent = 0; sent < length && SendAll(fd, chunk.substr(0, std::min(chunk.size(), length - sent)));)
        sent += chunk.size();
      SendAll(fd, "\r\n");
      while (!server.done && SendAll(fd, chunk)) {
      }
    });
    TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
    ASSERT_NE(s, nullptr);
    std::string line = Take(tcp_getline(s));
    if (length <= kTcpMaxLine) {
      EXPECT_EQ(line.size(), length);
    } else {
      EXPECT_EQ(line, "(null)");
      EXPECT_TRUE(EnvSaid("log", "The server [127.0.0.1] sent a line longer than 1048576 bytes; the connection is closed", 2))
          << EnvAll();
      EXPECT_EQ(s->socket, -1);
    }
    server.done = true;
    tcp_close(s);
  }
}

// Writing while a reply is pending: input that waits when a command is
// written is the reply to the one before, not a dropped connection, and a
// peer that hangs up stops the write without losing what it sent.
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

}  // namespace
