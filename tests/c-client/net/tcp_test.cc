// The plain transport against a server thread on loopback: the host forms,
// the failures users see, lines and counted blocks however the bytes are
// split, a peer that closes or stays silent, and the write rules.
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/c-client/net/tcp_test_util.h"

namespace {

using namespace tcptest;

std::string WithPort(const char* form, unsigned port) {
  char text[200];
  std::snprintf(text, sizeof text, form, port);
  return text;
}

// Every byte value, CR and LF and NUL among them, in an order that shows a
// lost or repeated piece.
std::string Pattern(size_t size) {
  std::string s(size, '\0');
  for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 7 + i / 251) & 0xff);
  return s;
}

using Transport = TcpFixture;

TEST_F(Transport, HostFormsReachTheServer) {
  struct Case {
    const char* form;  // %u: the server's port
    bool ipv6;
    bool port_in_name;
    const char* host;   // what tcp_host says
    const char* trace;  // how the name was taken
  };
  const Case cases[] = {
      {"[127.0.0.1]:%u", false, true, "[127.0.0.1]", "tcp_open(): using literal IP address\n"},
      {"[127.0.0.1]", false, false, "[127.0.0.1]", "tcp_open(): using literal IP address\n"},
      {"localhost:%u", false, true, "localhost", "tcp_open(): resolving hostname localhost to IP address\n"},
      {"LocalHOST", false, false, "localhost", "tcp_open(): resolving hostname localhost to IP address\n"},
      {"127.0.0.1", false, false, "127.0.0.1", "tcp_open(): resolving hostname 127.0.0.1 to IP address\n"},
      {"[::1]:%u", true, true, "[::1]", "tcp_open(): using literal IP address\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.form);
    mail_env_clear();
    HookLog::outcomes.clear();
    std::string said;  // before the server, whose thread writes it
    LoopbackServer server(c.ipv6);
    if (!server.ok()) {
      ASSERT_TRUE(c.ipv6) << "no IPv4 loopback";
      continue;  // a machine without IPv6 loopback
    }
    server.Serve([&](int fd) {
      SendAll(fd, "* OK hello\r\n");
      said = ReadLine(fd);
      SendAll(fd, "echo " + said + "\r\n");
      ReadLine(fd, nullptr, 3000);  // until the client closes
    });
    std::string name = WithPort(c.form, server.port());
    // A port in the name wins over the argument, which would be refused.
    TcpStream* s = tcp_open(name.c_str(), "imap", c.port_in_name ? 1 : server.port());
    ASSERT_NE(s, nullptr) << AllTold();
    EXPECT_STREQ(tcp_host(s), c.host);
    EXPECT_NE(std::string(tcp_localhost(s)), "");
    EXPECT_TRUE(Told("dlog", c.trace)) << AllTold();
    EXPECT_TRUE(Told("dlog", "tcp_open(): host = " + name + ", service = imap\n"));
    EXPECT_TRUE(Told("dlog", "tcp_open(): connected."));
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
      {"127.0.0.1:%u", "Failed to connect to 127.0.0.1: connection refused "},
      {"[127.0.0.1]:%u", "Failed to connect to [127.0.0.1]: connection refused "},
      {"[1.2.3]", literal + "[1.2.3]"},
      {"[127.0.0.1", literal + "[127.0.0.1"},
      {"[127.0.0.1]x", literal + "[127.0.0.1]x"},
      {"[]", literal + "[]"},
      {"localhost:143x", port + "localhost:143x"},
      {"localhost:", port + "localhost:"},
      {"localhost:99999", port + "localhost:99999"},
      {"localhost:0", port + "localhost:0"},
      // Without a network the resolver may not get as far as "no such host":
      // only the start is sure.
      {"No-Such-Host.invalid", "Failed to resolve hostname 'no-such-host.invalid' - *"},
  };
  for (const auto& [form, message] : cases) {
    SCOPED_TRACE(form);
    mail_env_clear();
    HookLog::outcomes.clear();
    std::string name = WithPort(form.c_str(), closed);
    EXPECT_EQ(tcp_open(name.c_str(), "imap", 143), nullptr);
    std::string expected = WithPort(message.c_str(), closed);
    bool prefix = expected.back() == '*';
    if (prefix) expected.pop_back();
    bool found = false;
    for (const MailEnvLine& l : mail_env_lines())
      found |= l.callback == "log" && l.level == 2 && (prefix ? l.text.rfind(expected, 0) == 0 : l.text == expected);
    EXPECT_TRUE(found) << AllTold();
    EXPECT_EQ(HookLog::outcomes, std::vector<int>{0});
    EXPECT_EQ(connections, baseline_);
  }
}

TEST_F(Transport, ConnectGivesUpAfterTheTimeout) {
  // A listener whose queue is full drops new handshakes, as a host behind
  // a filter does.
  LoopbackServer server(false, 0);
  ASSERT_TRUE(server.ok());
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(server.port());
    ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    fillers.push_back(fd);
  }
  Pause(200);
  tcp_set_timeouts_for_test(10, 10, 1);
  auto start = Clock::now();
  EXPECT_EQ(tcp_open("[127.0.0.1]", "imap", server.port()), nullptr);
  double took = SecondsSince(start);
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 5.0);
  EXPECT_TRUE(Told("log", "Failed to connect to [127.0.0.1]: connection timed out -- no response from server", 2))
      << AllTold();
  EXPECT_EQ(HookLog::outcomes, std::vector<int>{0});
  for (int fd : fillers) ::close(fd);
}

// A name server that doesn't answer holds the lookup no longer than a
// connect may take; the answer that comes later is dropped.
int SlowResolver(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
  Pause(3000);
  return ::getaddrinfo(node, service, hints, result);
}

TEST_F(Transport, ALookupGivesUpAfterTheTimeout) {
  tcp_set_timeouts_for_test(10, 10, 1);
  tcp_set_resolver_for_test(SlowResolver);
  auto start = Clock::now();
  EXPECT_EQ(tcp_open("localhost", "imap", 143), nullptr);
  EXPECT_LT(SecondsSince(start), 2.5);
  EXPECT_TRUE(Told("log", "Failed to resolve hostname 'localhost' - failed to contact name server", 2)) << AllTold();
  EXPECT_EQ(HookLog::outcomes, std::vector<int>{0});
}

// Opens a stream to a server that sends the pieces with pauses between
// them, so that each arrives in a read of its own, and then closes.
struct Scripted {
  LoopbackServer server;
  TcpStream* stream = nullptr;
  explicit Scripted(std::vector<std::string> pieces, int pause_ms = 30) {
    server.Serve([pieces, pause_ms](int fd) {
      for (const std::string& p : pieces) {
        SendAll(fd, p);
        Pause(pause_ms);
      }
    });
    stream = tcp_open("[127.0.0.1]", "imap", server.port());
  }
  ~Scripted() { tcp_close(stream); }
};

TEST_F(Transport, LinesAreJoinedHoweverTheBytesArrive) {
  const std::string big = std::string(20000, 'x') + "END";
  struct Case {
    const char* what;
    std::vector<std::string> pieces;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"CR and LF in separate reads", {"first\r", "\nsecond\r\n"}, {"first", "second"}},
      {"a line in three reads", {"he", "ll", "o\r\n"}, {"hello"}},
      {"several in one read, the last split", {"one\r\ntwo\r\nthr", "ee\r\n"}, {"one", "two", "three"}},
      {"a lone LF stays in the line", {"a\nb\r\n"}, {"a\nb"}},
      {"a CR at a read's end that is not followed by LF", {"a\r", "b\r\n"}, {"a\rb"}},
      {"a CR before the line's own CRLF, across reads", {"a\r", "\r\n"}, {"a\r"}},
      {"empty lines", {"\r\n", "\r\n\r\n"}, {"", "", ""}},
      {"a 20,000-byte line in pieces", {big.substr(0, 8000), big.substr(8000, 9000), big.substr(17000) + "\r\nnext\r\n"}, {big, "next"}},
      {"a 20,000-byte line in one write", {big + "\r\n"}, {big}},
      {"lines sent just before the close", {"last\r\nwords\r\n"}, {"last", "words"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Scripted t(c.pieces);
    ASSERT_NE(t.stream, nullptr);
    for (const std::string& expected : c.lines) EXPECT_EQ(Take(tcp_getline(t.stream)), expected);
    // Then the server has closed: the end of the stream, not a wait.
    Watchdog watchdog(8, "the read at the end of the stream");
    auto start = Clock::now();
    EXPECT_EQ(tcp_getline(t.stream), nullptr);
    EXPECT_LT(SecondsSince(start), 3.0);
    EXPECT_EQ(t.stream->socket, -1);
  }
}

TEST_F(Transport, CountedReadsAreExactAcrossReads) {
  for (size_t size : {size_t{0}, size_t{1}, size_t{8191}, size_t{8192}, size_t{8193}, size_t{20000}}) {
    SCOPED_TRACE(size);
    std::string payload = Pattern(size);
    std::string all = "HEAD\r\n" + payload + "TAIL\r\n";
    // Odd cut points, so that the block starts and ends inside reads.
    std::vector<std::string> pieces;
    for (size_t at = 0, step = 7; at < all.size(); at += step, step = step * 3 + 1) pieces.push_back(all.substr(at, step));
    Scripted t(pieces, 10);
    ASSERT_NE(t.stream, nullptr);
    EXPECT_EQ(Take(tcp_getline(t.stream)), "HEAD");
    std::vector<char> buffer(size + 1, '@');
    ASSERT_EQ(tcp_getbuffer(t.stream, size, buffer.data()), 1);
    EXPECT_EQ(std::string(buffer.data(), size), payload);
    EXPECT_EQ(buffer[size], '\0');
    EXPECT_EQ(Take(tcp_getline(t.stream)), "TAIL");
  }
}

TEST_F(Transport, APeerThatClosesEndsTheStreamAtOnce) {
  struct Case {
    const char* what;
    std::string sent;
    bool block;  // read a counted block instead of a line
  };
  const Case cases[] = {
      {"in the middle of a line", "* 1 FETCH (BODY[] {", false},
      {"right after a CR", "* OK\r", false},
      {"before anything", "", false},
      {"in the middle of a counted block", "0123456789", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LoopbackServer server;
    server.Serve([&](int fd) {
      SendAll(fd, c.sent);
      Pause(200);  // the client is waiting by now
    });
    TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
    ASSERT_NE(s, nullptr);
    Watchdog watchdog(8, std::string("a read after the peer closed ") + c.what);
    auto start = Clock::now();
    double cpu = ThreadCpuSeconds();
    if (c.block) {
      char buffer[101];
      EXPECT_EQ(tcp_getbuffer(s, 100, buffer), 0);
    } else {
      EXPECT_EQ(tcp_getline(s), nullptr);
    }
    EXPECT_LT(SecondsSince(start), 3.0);
    EXPECT_LT(ThreadCpuSeconds() - cpu, 0.5) << "the read spun instead of waiting";
    EXPECT_EQ(s->socket, -1);
    // A dead stream answers at once.
    EXPECT_EQ(tcp_getline(s), nullptr);
    EXPECT_EQ(tcp_soutr(s, "x\r\n"), 0);
    tcp_close(s);
  }
}

TEST_F(Transport, ASilentServerTimesTheReadOut) {
  LoopbackServer server;
  server.Serve([&](int fd) {
    SendAll(fd, "* OK half a li");
    server.WaitUntilDone();
  });
  tcp_set_timeouts_for_test(1, 10, 10);
  TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
  ASSERT_NE(s, nullptr);
  auto start = Clock::now();
  EXPECT_EQ(tcp_getline(s), nullptr);
  double took = SecondsSince(start);
  EXPECT_GE(took, 0.9);
  EXPECT_LT(took, 4.0);
  EXPECT_TRUE(Told("log", "tcp_getdata: timeout during select on read.", 0)) << AllTold();
  EXPECT_EQ(s->socket, -1);
  server.done() = true;
  tcp_close(s);
}

TEST_F(Transport, InputBeforeAWriteMeansTheServerHasGone) {
  const char* trace = "tcp_sout: this socket stream is 'closed' - abnormally or via server idle timeout. send() aborted.\n";
  for (bool closes : {false, true}) {
    SCOPED_TRACE(closes ? "the server closed" : "the server spoke");
    mail_env_clear();
    std::atomic<bool> got_bytes{false};
    LoopbackServer server;
    server.Serve([&](int fd) {
      if (closes) return;
      SendAll(fd, "* BYE Autologout; idle for too long\r\n");
      char byte;
      got_bytes = Readable(fd, 1000) && ::recv(fd, &byte, 1, 0) == 1;
      server.WaitUntilDone();
    });
    TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
    ASSERT_NE(s, nullptr);
    ASSERT_TRUE(Readable(s->socket, 3000));
    EXPECT_EQ(tcp_soutr(s, "a1 NOOP\r\n"), 0);
    EXPECT_TRUE(Told("dlog", trace)) << AllTold();
    EXPECT_EQ(s->socket, -1);
    server.done() = true;
    tcp_close(s);
    EXPECT_FALSE(got_bytes) << "the command went out anyway";
  }
}

TEST_F(Transport, WritesToAServerThatDoesNotReadTimeOut) {
  struct Case {
    const char* what;
    int write_timeout;
    bool short_next;  // the program says the server may have gone
    double at_least, at_most;
    const char* trace;
  };
  const Case cases[] = {
      {"the write time-out", 1, false, 0.9, 4.0, "tcp_sout: socket timeout during select: 1"},
      {"the short time-out, once", 60, true, 4.5, 9.0, "tcp_sout: socket timeout during select: 5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    HookLog::asked = 0;
    HookLog::short_next = c.short_next;
    LoopbackServer server;
    server.Serve([&](int) { server.WaitUntilDone(); });
    tcp_set_timeouts_for_test(10, c.write_timeout, 10);
    TcpStream* s = tcp_open("[127.0.0.1]", "smtp", server.port());
    ASSERT_NE(s, nullptr);
    int small = 64 * 1024;
    setsockopt(s->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    // Far more than the two socket buffers hold.
    std::string message(32u << 20, 'm');
    auto start = Clock::now();
    EXPECT_EQ(tcp_sout(s, message.data(), message.size()), 0);
    double took = SecondsSince(start);
    EXPECT_GE(took, c.at_least);
    EXPECT_LT(took, c.at_most);
    EXPECT_TRUE(Told("dlog", c.trace)) << AllTold();
    EXPECT_EQ(HookLog::asked, 1);
    EXPECT_FALSE(HookLog::short_next) << "the short time-out was not taken";
    server.done() = true;
    tcp_close(s);
  }
}

TEST_F(Transport, AServerThatKeepsTakingBytesIsNotCutOff) {
  // The time-out is for a server that takes nothing: a slow link that moves
  // a long message along must not lose it because the whole took longer.
  size_t received = 0;
  const size_t total = 1u << 20;
  LoopbackServer server;
  int small = 64 * 1024;
  setsockopt(server.listener(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  server.Serve([&](int fd) {
    std::vector<char> buffer(96 * 1024);
    while (received < total) {
      Pause(250);
      if (!Readable(fd, 5000)) break;
      ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      received += static_cast<size_t>(n);
    }
  });
  tcp_set_timeouts_for_test(10, 1, 10);
  TcpStream* s = tcp_open("[127.0.0.1]", "smtp", server.port());
  ASSERT_NE(s, nullptr);
  setsockopt(s->socket, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string message(total, 'm');
  auto start = Clock::now();
  EXPECT_EQ(tcp_sout(s, message.data(), message.size()), 1) << AllTold();
  EXPECT_GT(SecondsSince(start), 1.2) << "the server took it all at once: nothing tested";
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
      size_t sent = 0;
      while (sent < length && SendAll(fd, chunk.substr(0, std::min(chunk.size(), length - sent)))) sent += chunk.size();
      SendAll(fd, "\r\n");
      while (!server.done() && SendAll(fd, chunk)) {
      }
    });
    TcpStream* s = tcp_open("[127.0.0.1]", "imap", server.port());
    ASSERT_NE(s, nullptr);
    char* line = tcp_getline(s);
    if (length <= kTcpMaxLine) {
      ASSERT_NE(line, nullptr);
      EXPECT_EQ(std::strlen(line), length);
      FS_GIVE(&line);
    } else {
      EXPECT_EQ(line, nullptr);
      EXPECT_TRUE(Told("log", "The server [127.0.0.1] sent a line longer than 1048576 bytes; the connection is closed", 2))
          << AllTold();
      EXPECT_EQ(s->socket, -1);
    }
    server.done() = true;
    tcp_close(s);
  }
}

}  // namespace
