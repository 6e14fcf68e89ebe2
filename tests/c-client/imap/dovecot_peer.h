// A private Dovecot for the IMAP tests (tests/peers/imap-dovecot.sh),
// started in a temporary directory and stopped by its pid.
#pragma once

#include <string>

#include "tests/support/peer_script.h"

namespace imap_test {

struct Dovecot : PeerServer {
  Dovecot() : PeerServer("imap-dovecot.sh", "velmar-imap") {}
  void Seed(int n, const std::string& mailbox) { Run("seed '" + dir + "' " + std::to_string(n) + " '" + mailbox + "'"); }
  // "{127.0.0.1:PORT/notls}mailbox" and friends.
  std::string Name(const std::string& mailbox, const std::string& switches = "/notls", bool ssl_port = false) const {
    return "{" + env.at("HOST") + ":" + env.at(ssl_port ? "SSLPORT" : "PORT") + switches + "}" + mailbox;
  }
};

}  // namespace imap_test
