// A scripted IMAP server on 127.0.0.1 for what no real server does (old
// protocol generations, broken and hostile replies). The script is a list
// of lines:
//   "C: text"  a line the client must send, compared up to the length of
//              text; "$T" at the start stands for any tag, remembered
//   "S: text"  a line sent to the client (CRLF added; "$T" is the tag,
//              "$P" the tag before it, for two commands in flight)
//   "R: text"  bytes sent as they stand (no CRLF; "\n" written as is)
//   "CLOSE"    the connection ends
// Whatever the client sent is kept, in order, for the test to check.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace imap_test {

class FakeImapServer {
 public:
  explicit FakeImapServer(std::vector<std::string> script) : script_(std::move(script)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(listener_, 4);
    socklen_t n = sizeof a;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeImapServer() {
    Finish();
    ::close(listener_);
  }
  // Waits for the script to end (or a mismatch); idempotent.
  void Finish() {
    if (thread_.joinable()) thread_.join();
  }
  unsigned port() const { return port_; }
  std::string Name(const std::string& mailbox = "INBOX") const {
    return "{127.0.0.1:" + std::to_string(port_) + "/notls}" + mailbox;
  }
  // Lines the client sent; the first script line it did not match, if any.
  const std::vector<std::string>& received() const { return received_; }
  const std::string& mismatch() const { return mismatch_; }
  bool completed() const { return completed_; }

 private:
  bool ReadLine(int fd, std::string* line) {
    line->clear();
    for (;;) {
      size_t crlf = buffer_.find("\r\n");
      if (crlf != std::string::npos) {
        *line = buffer_.substr(0, crlf);
        buffer_.erase(0, crlf + 2);
        return true;
      }
      pollfd p{fd, POLLIN, 0};
      if (::poll(&p, 1, 10000) <= 0) return false;
      char chunk[4096];
      ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
      if (got <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(got));
    }
  }
  std::string WithTag(std::string text, const std::string& tag) const {
    for (size_t at; (at = text.find("$T")) != std::string::npos;) text.replace(at, 2, tag);
    for (size_t at; (at = text.find("$P")) != std::string::npos;) text.replace(at, 2, previous_tag_);
    return text;
  }
  void Send(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
      ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return;
      at += static_cast<size_t>(n);
    }
  }
  void Serve() {
    pollfd p{listener_, POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0) {
      mismatch_ = "no connection";
      return;
    }
    int fd = ::accept(listener_, nullptr, nullptr);
    std::string tag = "*";
    for (const std::string& step : script_) {
      if (step == "CLOSE") break;
      const std::string body = step.size() > 3 ? step.substr(3) : "";
      if (step.rfind("S: ", 0) == 0) {
        Send(fd, WithTag(body, tag) + "\r\n");
      } else if (step.rfind("R: ", 0) == 0) {
        Send(fd, WithTag(body, tag));
      } else if (step.rfind("C: ", 0) == 0) {
        std::string line;
        if (!ReadLine(fd, &line)) {
          mismatch_ = step + " (nothing came)";
          ::close(fd);
          return;
        }
        received_.push_back(line);
        std::string want = body;
        std::string got = line;
        if (want.rfind("$T", 0) == 0) {
          size_t sp = got.find(' ');
          previous_tag_ = tag;
          tag = got.substr(0, sp);
          want.erase(0, 2);
          got = sp == std::string::npos ? "" : got.substr(sp);
        }
        if (got.compare(0, want.size(), want) != 0) {
          mismatch_ = step + " (got: " + line + ")";
          ::close(fd);
          return;
        }
      }
    }
    completed_ = true;
    // Give the client's last words a moment before the line drops.
    std::string rest;
    pollfd q{fd, POLLIN, 0};
    if (::poll(&q, 1, 100) > 0) ReadLine(fd, &rest);
    ::close(fd);
  }

  std::vector<std::string> script_;
  int listener_ = -1;
  unsigned port_ = 0;
  std::thread thread_;
  std::string buffer_;
  std::string previous_tag_;
  std::vector<std::string> received_;
  std::string mismatch_;
  std::atomic<bool> completed_{false};
};

}  // namespace imap_test
