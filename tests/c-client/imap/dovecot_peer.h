// A private Dovecot for the IMAP tests (tests/peers/imap-dovecot.sh): started
// on first use in a temporary directory, stopped by its pid at the end.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

namespace imap_test {

inline std::string Run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen((command + " 2>&1").c_str(), "r")) {
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
    ::pclose(p);
  }
  return out;
}

struct Dovecot {
  std::map<std::string, std::string> env;  // KEY=VALUE lines of the start
  std::string dir;

  static std::string Script() { return "bash '" VELMAR_TEST_DATA_DIR "/../peers/imap-dovecot.sh' "; }

  // False with a failure that says why (the package missing, a start that failed).
  bool Start() {
    char name[] = "/tmp/velmar-imap-XXXXXX";
    if (!::mkdtemp(name)) return false;
    dir = name;
    std::string out = Run(Script() + "start '" + dir + "'");
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      size_t eq = line.find('=');
      if (eq != std::string::npos && eq > 0) env[line.substr(0, eq)] = line.substr(eq + 1);
    }
    if (!env.count("PORT")) {
      ADD_FAILURE() << "imap-dovecot.sh could not start Dovecot:\n" << out;
      return false;
    }
    return true;
  }
  void Stop() {
    if (dir.empty()) return;
    Run(Script() + "stop '" + dir + "'");
  }
  void Remove() {
    Stop();
    if (!dir.empty()) Run("rm -rf '" + dir + "'");
    dir.clear();
  }
  void Seed(int n, const std::string& mailbox = "INBOX", const std::string& user = "") {
    Run(Script() + "seed '" + dir + "' " + std::to_string(n) + " '" + mailbox + "'" + (user.empty() ? "" : " " + user));
  }
  // "{127.0.0.1:PORT/notls}mailbox" and friends.
  std::string Name(const std::string& mailbox, const std::string& switches = "/notls", bool ssl_port = false) const {
    return "{" + env.at("HOST") + ":" + env.at(ssl_port ? "SSLPORT" : "PORT") + switches + "}" + mailbox;
  }
};

}  // namespace imap_test
