// A scripted IMAP server on 127.0.0.1 for what no real server does (old
// protocol generations, broken and hostile replies). Script lines:
//   "C: text"  the client's next line must start with text; a leading "$T"
//              stands for any tag, which is remembered
//   "S: text"  sent with CRLF ("$T" is the tag, "$P" the one before it)
//   "R: text"  sent as it stands;   "CLOSE"  hangs up
// Lines end in CRLF unless another end is given (a bare LF protocol).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/net/tcp_test_util.h"

namespace imap_test {

using Script = std::vector<std::string>;
inline Script operator+(Script a, const Script& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct FakeImapServer {
  explicit FakeImapServer(Script script, std::string line_end = "\r\n") : eol(std::move(line_end)) {
    name = "{127.0.0.1:" + std::to_string(server.port()) + "/notls}";
    server.Serve([this, script](int fd) { Serve(fd, script); });
  }
  void Finish() { server.Join(); }  // the script ran out, or a step was not met
  std::string Name(const std::string& box = "INBOX") const { return name + box; }

  std::string eol, name, buffer;
  std::vector<std::string> received;      // the client's lines
  std::string mismatch = "not finished";  // the step not met; "" once all were
  tcptest::LoopbackServer server;         // last: gone first, with its thread

  bool ReadLine(int fd, std::string* line) {
    size_t crlf;
    while ((crlf = buffer.find(eol)) == std::string::npos) {
      char chunk[4096];
      ssize_t got = tcptest::Readable(fd, 10000) ? ::recv(fd, chunk, sizeof chunk, 0) : 0;
      if (got <= 0) return false;
      buffer.append(chunk, static_cast<size_t>(got));
    }
    *line = buffer.substr(0, crlf);
    buffer.erase(0, crlf + eol.size());
    return true;
  }
  void Serve(int fd, const Script& script) {
    std::string tag = "*", previous, line;
    for (const std::string& step : script) {
      std::string body = step.substr(std::min<size_t>(3, step.size()));
      if (step == "CLOSE") break;
      if (step[0] == 'C') {
        bool got = ReadLine(fd, &line);
        received.push_back(line);
        if (got && body.rfind("$T", 0) == 0) {
          previous = std::exchange(tag, line.substr(0, line.find(' ')));
          body.replace(0, 2, tag);
        }
        if (!got || line.compare(0, body.size(), body) != 0) {
          mismatch = step + " got " + line;
          return;
        }
        continue;
      }
      for (size_t at; (at = body.find("$T")) != std::string::npos;) body.replace(at, 2, tag);
      for (size_t at; (at = body.find("$P")) != std::string::npos;) body.replace(at, 2, previous);
      tcptest::SendAll(fd, step[0] == 'S' ? body + eol : body);
    }
    mismatch = "";
    // Give the client's last words a moment before the line drops.
    if (tcptest::Readable(fd, 100) && ReadLine(fd, &line)) received.push_back(line);
  }
};

// Greeting, capability probe and LOGIN of a server announcing `caps` (only
// the first word before the login), then SELECT with `exists` messages
// (none: a control stream).
inline Script Opening(int exists = -1, const std::string& caps = "IMAP4rev1 ACL") {
  Script s{"S: * OK fake ready", "C: $T CAPABILITY", "S: * CAPABILITY " + caps.substr(0, caps.find(' ')),
           "S: $T OK done", "C: $T GETACL MAILBOX a1bcdefghijklmnop", "S: $T BAD unknown",
           "C: $T GETQUOTAROOT a1bcdefghijklmnop", "S: $T BAD unknown"};
  // Below IMAP4rev1 every mechanism of the table is tried first.
  if (caps.find("IMAP4rev1") == std::string::npos) s = s + Script{"C: auth AUTHENTICATE CRAM-MD5", "S: auth BAD ?"};
  s = s + Script{"C: $T LOGIN user secret", "S: $T OK [CAPABILITY " + caps + "] logged in"};
  if (exists >= 0) s = s + Script{"C: $T SELECT INBOX", "S: * " + std::to_string(exists) + " EXISTS", "S: $T OK done"};
  return s;
}

// The IMAP driver alone, logging in as this user, with LOGIN and
// AUTHENTICATE allowed.
inline void UseImapDriver(const char* user, const char* password) {
  mail_unlink_all();
  mail_link(&imap2driver);
  mail_env_set_login(user, password);
  long zero = 0;
  mail_parameters(nullptr, 112, &zero);  // AUTHENTICATE allowed
  mail_parameters(nullptr, 114, &zero);  // LOGIN allowed
}

struct ImapFake : ::testing::Test {
  void SetUp() override {
    UseImapDriver("user", "secret");
    tcp_set_timeouts_for_test(5, 5, 5);
  }
  void TearDown() override {
    stream_ = mail_close(stream_);
    tcp_set_timeouts_for_test(0, 0, 0);
    mail_parameters(nullptr, 100, reinterpret_cast<void*>(3));   // login attempts
    mail_parameters(nullptr, 102, reinterpret_cast<void*>(20));  // messages read ahead
  }
  // A fresh log and the server's mailbox (or a control stream) opened.
  MailStream* Open(FakeImapServer& server, long options = 0) {
    stream_ = mail_close(stream_);
    mail_env_clear();
    return stream_ = mail_open(nullptr, server.Name(options & OP_CONTROL ? "" : "INBOX").c_str(), options);
  }
  static void Done(FakeImapServer& server) {
    server.Finish();
    EXPECT_EQ(server.mismatch, "");
  }
  MailStream* stream_ = nullptr;
};

}  // namespace imap_test
