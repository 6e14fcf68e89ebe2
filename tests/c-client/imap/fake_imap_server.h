// A scripted IMAP server on 127.0.0.1 for what no real server does (old
// protocol generations, broken and hostile replies). Script lines:
//   "C: text"  the client's next line must start with text; a leading "$T"
//              stands for any tag, which is remembered
//   "S: text"  sent with CRLF ("$T" is the tag, "$P" the one before it)
//   "R: text"  sent as it stands;   "CLOSE"  hangs up
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"
#include "tests/c-client/core/env_lines.h"

namespace imap_test {

using Script = std::vector<std::string>;
inline Script operator+(Script a, const Script& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class FakeImapServer {
 public:
  explicit FakeImapServer(Script script) : script_(std::move(script)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&a), n);
    ::listen(listener_, 1);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~FakeImapServer() {
    Finish();
    ::close(listener_);
  }
  void Finish() {  // waits for the script's end or its first mismatch
    if (thread_.joinable()) thread_.join();
  }
  std::string Name(const std::string& box = "INBOX") const {
    return "{127.0.0.1:" + std::to_string(port_) + "/notls}" + box;
  }
  unsigned port_ = 0;
  std::vector<std::string> received;  // the client's lines
  std::string mismatch = "not finished";  // the step not met; "" once all were

 private:
  static bool Wait(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, ms) > 0;
  }
  bool ReadLine(int fd, std::string* line) {
    size_t crlf;
    while ((crlf = buffer_.find("\r\n")) == std::string::npos) {
      char chunk[4096];
      ssize_t got = Wait(fd, 10000) ? ::recv(fd, chunk, sizeof chunk, 0) : 0;
      if (got <= 0) return false;
      buffer_.append(chunk, static_cast<size_t>(got));
    }
    *line = buffer_.substr(0, crlf);
    buffer_.erase(0, crlf + 2);
    return true;
  }
  void Serve() {
    int fd = Wait(listener_, 10000) ? ::accept(listener_, nullptr, nullptr) : -1;
    std::string tag = "*", previous, line;
    for (const std::string& step : script_) {
      std::string body = step.substr(std::min<size_t>(3, step.size()));
      if (fd < 0 || step == "CLOSE") break;
      if (step[0] == 'C') {
        bool got = ReadLine(fd, &line);
        received.push_back(line);
        if (got && body.rfind("$T", 0) == 0) {
          previous = tag;
          tag = line.substr(0, line.find(' '));
          body.replace(0, 2, tag);
        }
        if (!got || line.compare(0, body.size(), body) != 0) {
          mismatch = step + " (got: " + line + ")";
          ::close(fd);
          return;
        }
        continue;
      }
      for (size_t at; (at = body.find("$T")) != std::string::npos;) body.replace(at, 2, tag);
      for (size_t at; (at = body.find("$P")) != std::string::npos;) body.replace(at, 2, previous);
      if (step[0] == 'S') body += "\r\n";
      for (size_t at = 0; at < body.size();) {
        ssize_t n = ::send(fd, body.data() + at, body.size() - at, MSG_NOSIGNAL);
        if (n <= 0) break;
        at += static_cast<size_t>(n);
      }
    }
    mismatch = fd < 0 ? "no connection" : "";
    // Give the client's last words a moment before the line drops.
    if (fd >= 0 && Wait(fd, 100) && ReadLine(fd, &line)) received.push_back(line);
    if (fd >= 0) ::close(fd);
  }

  Script script_;
  int listener_ = -1;
  std::thread thread_;
  std::string buffer_;
};

// Greeting, capability probe and LOGIN of a server announcing `caps`, then
// SELECT with `exists` messages (none: a control stream). Only the first
// word comes before the login.
inline Script Opening(int exists = -1, const std::string& caps = "IMAP4rev1 ACL") {
  Script s{"S: * OK fake ready", "C: $T CAPABILITY", "S: * CAPABILITY " + caps.substr(0, caps.find(' ')),
           "S: $T OK done",
           "C: $T GETACL MAILBOX a1bcdefghijklmnop", "S: $T BAD unknown",
           "C: $T GETQUOTAROOT a1bcdefghijklmnop", "S: $T BAD unknown"};
  // Below IMAP4rev1 every mechanism of the table is tried first.
  if (caps.find("IMAP4rev1") == std::string::npos) s = s + Script{"C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD ?"};
  s = s + Script{"C: $T LOGIN user secret", "S: $T OK [CAPABILITY " + caps + "] logged in"};
  if (exists >= 0) s = s + Script{"C: $T SELECT INBOX", "S: * " + std::to_string(exists) + " EXISTS", "S: $T OK done"};
  return s;
}

// Everything the environment's callbacks were told, a line each.
inline std::string EnvAll() {
  std::string all;
  for (const MailEnvLine& l : mail_env_lines()) all += l.callback + ": " + l.text + "\n";
  return all;
}

class ImapFake : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_unlink_all();
    mail_link(&imap2driver);
    mail_env_clear();
    mail_env_set_login("user", "secret");
    tcp_set_timeouts_for_test(5, 5, 5);
    long zero = 0;
    mail_parameters(nullptr, 112, &zero);  // AUTHENTICATE allowed
    mail_parameters(nullptr, 114, &zero);  // LOGIN allowed
  }
  void TearDown() override {
    stream_ = mail_close(stream_);
    tcp_set_timeouts_for_test(0, 0, 0);
  }
  // A fresh log and the server's mailbox (or a control stream) opened.
  MailStream* Open(FakeImapServer& server, long options = 0) {
    stream_ = mail_close(stream_);
    mail_env_clear();
    stream_ = mail_open(nullptr, server.Name(options & OP_CONTROL ? "" : "INBOX").c_str(), options);
    return stream_;
  }
  static void Done(FakeImapServer& server) {
    server.Finish();
    EXPECT_EQ(server.mismatch, "");
  }
  MailStream* stream_ = nullptr;
};

}  // namespace imap_test
