// A fresh directory under the system's temporary one, removed with all it
// holds when its owner goes (a fixture member outlives the test's TearDown).
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

struct TempDir {
  explicit TempDir(const std::string& prefix) {
    path = (std::filesystem::temp_directory_path() / (prefix + ".XXXXXX")).string();
    if (!::mkdtemp(path.data())) path.clear();
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
  std::string path;  // empty when none could be made
};
