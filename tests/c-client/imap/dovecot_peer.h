// A private Dovecot for the IMAP tests (tests/peers/imap-dovecot.sh),
// started in a temporary directory and stopped by its pid.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <string>

#include "tests/c-client/net/tcp_test_util.h"

namespace imap_test {

struct Dovecot {
  std::map<std::string, std::string> env;  // the KEY=VALUE lines of the start
  std::string dir;

  static std::string Run(const std::string& args) {
    return tcptest::RunPeerScript("imap-dovecot.sh", args);
  }
  // False with a failure that says why (the package missing, a start that failed).
  bool Start() {
    char name[] = "/tmp/velmar-imap-XXXXXX";
    dir = ::mkdtemp(name) ? name : "/nonexistent";
    const std::string out = tcptest::RunPeerScript("imap-dovecot.sh", "start '" + dir + "'", &env);
    if (!env.count("PORT")) ADD_FAILURE() << "imap-dovecot.sh could not start Dovecot:\n" << out;
    return env.count("PORT");
  }
  void Stop() {
    if (!dir.empty()) Run("stop '" + dir + "'");
  }
  ~Dovecot() { Remove(); }
  void Remove() {  // stops it and removes its directory
    if (!dir.empty()) Stop(), std::system(("rm -rf '" + dir + "'").c_str()), dir.clear();
  }
  void Seed(int n, const std::string& mailbox) { Run("seed '" + dir + "' " + std::to_string(n) + " '" + mailbox + "'"); }
  // "{127.0.0.1:PORT/notls}mailbox" and friends.
  std::string Name(const std::string& mailbox, const std::string& switches = "/notls", bool ssl_port = false) const {
    return "{" + env.at("HOST") + ":" + env.at(ssl_port ? "SSLPORT" : "PORT") + switches + "}" + mailbox;
  }
};

}  // namespace imap_test
