// A private SMTP server for the peer tests (tests/peers/smtp-aiosmtpd.sh):
// started in a temporary directory, stopped by its recorded pid, and each
// message it took read back as it arrived (NNNNNN.eml, envelope in
// NNNNNN.json).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/model/model_fixture.h"

struct SmtpSink {
  std::map<std::string, std::string> env;
  std::string dir;
  std::string Run(const std::string& args) {
    std::string out;
    if (FILE* p = ::popen(("bash '" VELMAR_TEST_DATA_DIR "/../peers/smtp-aiosmtpd.sh' " + args + " 2>&1").c_str(), "r")) {
      char buffer[512];
      while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
      ::pclose(p);
    }
    return out;
  }
  bool Start() {
    char name[] = "/tmp/velmar-smtp-XXXXXX";
    dir = ::mkdtemp(name) ? name : "/nonexistent";
    const std::string out = Run("start '" + dir + "'");
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
      if (size_t eq = line.find('='); eq != std::string::npos && eq > 0) env[line.substr(0, eq)] = line.substr(eq + 1);
    if (!env.count("PORT")) ADD_FAILURE() << "smtp-aiosmtpd.sh could not start (package python3-aiosmtpd):\n" << out;
    return env.count("PORT");
  }
  ~SmtpSink() {
    if (dir.empty()) return;
    Run("stop '" + dir + "'");
    std::filesystem::remove_all(dir);
  }
  std::vector<std::string> Delivered(const char* ext) const {
    std::vector<std::string> out;
    for (int n = 1; std::filesystem::exists(dir + "/mail/" + Name(n, ext)); ++n) out.push_back(ReadFile(dir + "/mail/" + Name(n, ext)));
    return out;
  }
  static std::string Name(int n, const char* ext) {
    char text[32];
    std::snprintf(text, sizeof text, "%06d.%s", n, ext);
    return text;
  }
};
