// Shared by the transport tests: a one-connection loopback server on a
// thread, socket helpers for its side, and a fixture that records the
// transport's hooks and checks that every test gives its sockets back.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <semaphore>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "c-client/core/env.h"
#include "c-client/core/plain_env.h"
#include "c-client/net/tcp.h"
#include "tests/c-client/core/env_lines.h"

namespace tcptest {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A line the transport gave, freed; "(null)" for none.
inline std::string Take(char* line) {
  std::string text = line ? line : "(null)";
  if (line) FS_GIVE(&line);
  return text;
}

inline void Pause(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

inline bool Readable(int fd, int limit_ms) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, limit_ms) > 0;
}

inline bool SendAll(int fd, const std::string& data) {
  ssize_t n = 0;
  for (size_t done = 0; done < data.size(); done += static_cast<size_t>(n))
    if ((n = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL)) <= 0) return false;
  return true;
}

// One CRLF line (without it) within the time limit; "" when none comes.
inline std::string ReadLine(int fd, int limit_ms = 10000) {
  std::string line;
  for (auto end = Clock::now() + std::chrono::milliseconds(limit_ms); Clock::now() < end;) {
    char c;
    if (!Readable(fd, 100)) continue;
    if (::recv(fd, &c, 1, 0) != 1) break;
    line += c;
    if (line.size() >= 2 && line.compare(line.size() - 2, 2, "\r\n") == 0) return line.substr(0, line.size() - 2);
  }
  return "";
}

inline sockaddr_in Loopback4(unsigned short port) { return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}}; }

// The next read ends the stream at once, without spinning (CPU time of
// this thread shows that even when the read ends in time). A read that
// hangs ends the test process in seconds, with a message, instead of
// waiting for the test runner's time-out.
inline void ExpectEndsAtOnce(TcpStream* s, const std::string& what) {
  std::binary_semaphore returned{0};
  std::thread watchdog([&] {
    if (returned.try_acquire_for(std::chrono::seconds(8))) return;
    std::fprintf(stderr, "HANG: the read at the end of the stream (%s) did not return within 8 s\n", what.c_str());
    std::_Exit(1);
  });
  const auto start = Clock::now();
  timespec cpu[2];
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu[0]);
  EXPECT_EQ(tcp_getline(s), nullptr);
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu[1]);
  returned.release();
  watchdog.join();
  EXPECT_LT(SecondsSince(start), 3.0);
  EXPECT_LT(double(cpu[1].tv_sec - cpu[0].tv_sec) + double(cpu[1].tv_nsec - cpu[0].tv_nsec) / 1e9, 0.5)
      << "the read spun instead of waiting";
  EXPECT_EQ(s->socket, -1);
}

// Listens on a loopback address at a free port and serves one connection
// on its own thread with the given script; the descriptor is closed when
// the script returns. A test that never connects does not hang it.
class LoopbackServer {
 public:
  explicit LoopbackServer(bool ipv6 = false, int backlog = 1) {
    listener_ = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 v6{AF_INET6, 0, 0, in6addr_loopback, 0};
    sockaddr_in v4 = Loopback4(0);
    auto* a = ipv6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t len = ipv6 ? sizeof v6 : sizeof v4;
    ok_ = ::bind(listener_, a, len) == 0 && ::listen(listener_, backlog) == 0 && ::getsockname(listener_, a, &len) == 0;
    port_ = ntohs(ipv6 ? v6.sin6_port : v4.sin_port);
  }
  ~LoopbackServer() {
    done = true;
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) ::close(listener_);
  }
  bool ok() const { return ok_; }
  unsigned short port() const { return port_; }
  int listener() const { return listener_; }

  void Serve(std::function<void(int fd)> script) {
    thread_ = std::thread([this, script] {
      for (auto end = Clock::now() + std::chrono::seconds(20); !done && Clock::now() < end;) {
        if (!Readable(listener_, 50)) continue;
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        script(fd);
        ::close(fd);
        return;
      }
    });
  }
  // Waits for the script to end, or for no connection to come.
  void Join() {
    if (thread_.joinable()) thread_.join();
  }
  // Holds the connection until the test sets done (or the server goes).
  void WaitUntilDone() {
    while (!done) Pause(10);
  }
  std::atomic<bool> done{false};

 private:
  int listener_ = -1;
  unsigned short port_ = 0;
  bool ok_ = false;
  std::thread thread_;
};

// What the transport told the program, through the hooks; the short
// time-out is, like the program's option, true once and then reset.
struct HookLog {
  static inline std::vector<int> outcomes;
  static inline int asked = 0;
  static inline bool short_next = false;
};

// Short time-outs so that a broken test fails in seconds, not minutes; the
// hooks recorded; every socket given back at the end.
class TcpFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_env_clear();
    HookLog::outcomes.clear();
    HookLog::asked = 0;
    HookLog::short_next = false;
    static const TcpHooks hooks = {[](int ok) { HookLog::outcomes.push_back(ok); },
                                   [] { return ++HookLog::asked, std::exchange(HookLog::short_next, false); }};
    tcp_set_hooks(&hooks);
    tcp_set_timeouts_for_test(10, 10, 10);
    baseline_ = connections;
  }
  void TearDown() override {
    tcp_set_hooks(nullptr);
    tcp_set_timeouts_for_test(0, 0, 0);
    tcp_set_resolver_for_test(nullptr);
    EXPECT_EQ(connections, baseline_) << "a socket was not given back";
  }
  long baseline_ = 0;
};

}  // namespace tcptest
