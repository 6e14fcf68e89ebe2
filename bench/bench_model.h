// What the benchmarks of the model and above share: a fresh user directory
// with options, a local service over a large generated folder, and a
// private Dovecot with an IMAP service on it.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "bench/bench_mh_folder.h"
#include "c-client/core/mail.h"
#include "c-client/mh/mh_names.h"
#include "src/base/filenames.h"
#include "src/options/options.h"

namespace bench_model {

inline std::string Shell(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen((command + " 2>&1").c_str(), "r")) {
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
    ::pclose(p);
  }
  return out;
}

// A new temporary directory named after prefix; "" on failure.
inline std::string TempDir(const char* prefix) {
  std::string tmpl = std::string("/tmp/") + prefix + ".XXXXXX";
  if (!::mkdtemp(tmpl.data())) {
    std::perror("mkdtemp");
    return "";
  }
  return tmpl;
}

// Makes home the user directory and starts the option store.
inline bool UserHome(const std::string& home) {
  ::setenv("VELMAR_HOME", home.c_str(), 1);
  std::filesystem::create_directories(home);
  if (InitDirectories() && Opt_Init()) return true;
  std::fprintf(stderr, "cannot set up the user directory %s\n", home.c_str());
  return false;
}

inline void ServiceOption(int number, const char* key, const std::string& value) {
  Opt_AssignString(("MsgService.ms" + std::to_string(number) + "." + key).c_str(), value.c_str(), kOptPermanent, 0);
}

inline void LocalService(int number) {
  ServiceOption(number, "Name", "Local");
  ServiceOption(number, "Type", "local");
}

// Writes count generated messages into a new local folder, lets the writes
// settle, and opens it once so that its cache files exist. The bytes
// written, or 0 on failure.
inline uint64_t LocalFolder(const char* name, int count) {
  if (!mail_create(nullptr, name)) {
    std::fprintf(stderr, "cannot create the folder %s\n", name);
    return 0;
  }
  const std::string dir = mh_path(name);
  // Without an index the first open rebuilds it from the files written here.
  std::filesystem::remove(dir + "/mh_index.dat");
  std::filesystem::remove(dir + "/mh_cache.dat");
  const uint64_t bytes = bench_mh::BuildFolder(dir, count);
  bench_mh::Settle(dir, count);
  mail_close(mail_open(nullptr, name, 0));
  return bytes;
}

// A private Dovecot started by the tests' script, in a directory of its own
// (the server's users must reach it).
struct Dovecot {
  std::string dir;
  std::map<std::string, std::string> env;  // the KEY=VALUE lines of the start

  static std::string Script() { return "bash '" VELMAR_SOURCE_DIR "/tests/peers/imap-dovecot.sh' "; }
  bool Start(const char* prefix) {
    dir = TempDir(prefix);
    if (dir.empty()) return false;
    std::istringstream lines(Shell(Script() + "start " + dir));
    for (std::string line; std::getline(lines, line);)
      if (size_t eq = line.find('='); eq != std::string::npos) env[line.substr(0, eq)] = line.substr(eq + 1);
    if (env.count("PORT")) return true;
    std::fprintf(stderr, "Dovecot did not start (package dovecot-imapd)\n");
    return false;
  }
  void Seed(int count, const char* mailbox) {
    Shell(Script() + "seed " + dir + " " + std::to_string(count) + " " + mailbox);
  }
  void Stop() {
    if (dir.empty()) return;
    Shell(Script() + "stop " + dir);
    Shell("rm -rf " + dir);
    dir.clear();
  }
  // An IMAP service on this server in the clear, as the floor clients talk.
  void Service(int number) {
    const std::pair<const char*, std::string> options[] = {
        {"Name", "Bench"},         {"Type", "imap"},           {"Hostname", env["HOST"]},
        {"Port", env["PORT"]},     {"Userid", env["USER"]},    {"Password", env["PASSWORD"]},
        {"Security", "none"},
    };
    for (const auto& [key, value] : options) ServiceOption(number, key, value);
  }
};

}  // namespace bench_model
