// Shared by the fuzz targets: a failed check stops the run where the fuzzer
// sees it, a scratch directory that goes at exit, and whole-file I/O.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/scratch_dir.h"

inline void Check(bool ok) {
  if (!ok) __builtin_trap();
}

// A new directory, memory-backed where there is such a place (the drivers
// fsync), removed when the run ends. One per run.
inline std::string ScratchDir(const char* name) {
  static std::string path;
  path = std::string(std::filesystem::exists("/dev/shm") ? "/dev/shm/" : "/tmp/") + name + ".XXXXXX";
  Check(::mkdtemp(path.data()) != nullptr);
  std::atexit([] { std::error_code ignored; std::filesystem::remove_all(path, ignored); });
  return path;
}

inline void WriteFile(const std::string& path, const void* data, size_t size) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
}
