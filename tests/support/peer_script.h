// Runs the peer scripts of tests/peers (private servers on loopback) and
// reads back the KEY=VALUE lines they print once their server answers.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

// Runs a script of tests/peers with these arguments: what it printed,
// errors included; its KEY=VALUE lines go into values.
inline std::string RunPeerScript(const std::string& script, const std::string& args,
                                 std::map<std::string, std::string>* values = nullptr, const std::string& vars = "") {
  std::string out;
  const std::string path = VELMAR_TEST_DATA_DIR "/../peers/" + script;
  if (FILE* p = ::popen((vars + " bash '" + path + "' " + args + " 2>&1").c_str(), "r")) {
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
    ::pclose(p);
  }
  std::istringstream lines(out);
  for (std::string line; values && std::getline(lines, line);)
    if (size_t eq = line.find('='); eq != std::string::npos && eq > 0)
      (*values)[line.substr(0, eq)] = line.substr(eq + 1);
  return out;
}

// A server of a peer script in a temporary directory of its own, stopped by
// the pid the script recorded there and removed with it.
struct PeerServer {
  PeerServer(std::string script_name, std::string dir_prefix)
      : script(std::move(script_name)), prefix(std::move(dir_prefix)) {}
  ~PeerServer() { Remove(); }

  std::string Run(const std::string& args) const { return RunPeerScript(script, args); }
  // False with a failure that says why (a package missing, a start that failed).
  bool Start() {
    std::string name = "/tmp/" + prefix + "-XXXXXX";
    dir = ::mkdtemp(name.data()) ? name : "/nonexistent";
    const std::string out = RunPeerScript(script, "start '" + dir + "'", &env, vars);
    if (!env.count("PORT")) ADD_FAILURE() << script << " could not start its server:\n" << out;
    return env.count("PORT");
  }
  void Stop() {
    if (!dir.empty()) Run("stop '" + dir + "'");
  }
  void Remove() {  // stops it and removes its directory
    std::error_code ignored;
    if (!dir.empty()) Stop(), std::filesystem::remove_all(dir, ignored), dir.clear();
  }

  std::string script, prefix, vars;  // vars: NAME=value words for the script's start
  std::map<std::string, std::string> env;  // the KEY=VALUE lines of the start
  std::string dir;
};
