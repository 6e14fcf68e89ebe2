// A private Dovecot for the IMAP tests (tests/peers/imap-dovecot.sh),
// started in a temporary directory and stopped by its pid.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

namespace imap_test {

struct Dovecot {
  std::map<std::string, std::string> env;  // the KEY=VALUE lines of the start
  std::string dir;

  // The script run with `args`, its output with errors.
  std::string Run(const std::string& args) {
    std::string out;
    if (FILE* p = ::popen(("bash '" VELMAR_TEST_DATA_DIR "/../peers/imap-dovecot.sh' " + args + " 2>&1").c_str(), "r")) {
      char buffer[512];
      while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
      ::pclose(p);
    }
    return out;
  }
  // False with a failure that says why (the package missing, a start that failed).
  bool Start() {
    char name[] = "/tmp/velmar-imap-XXXXXX";
    dir = ::mkdtemp(name) ? name : "/nonexistent";
    std::istringstream lines(Run("start '" + dir + "'"));
    for (std::string line; std::getline(lines, line);)
      if (size_t eq = line.find('='); eq != std::string::npos && eq > 0) env[line.substr(0, eq)] = line.substr(eq + 1);
    if (!env.count("PORT")) ADD_FAILURE() << "imap-dovecot.sh could not start Dovecot:\n" << lines.str();
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
