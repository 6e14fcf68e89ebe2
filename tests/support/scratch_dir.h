// A fresh directory under the system's temporary one, removed with all it
// holds when its owner goes (a fixture member outlives the test's TearDown),
// and whole files read and written byte for byte.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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

// "" for a file that can't be read.
inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}
