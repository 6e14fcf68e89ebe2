// Shared by the indexed-file tests: a scratch directory per test, whole-file
// reads and patches, and the error stack emptied before each test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "isam/isam_error.h"
#include "tests/support/scratch_dir.h"

class IsamDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.empty());
    isam_error_clear();
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  static std::vector<uint8_t> bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  static void write_bytes(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  }
  static uint32_t u32(const std::vector<uint8_t>& b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
  }
  static uint16_t u16(const std::vector<uint8_t>& b, size_t at) {
    return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
  }
  static void set32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
  }
  static void set16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v), b[at + 1] = static_cast<uint8_t>(v >> 8);
  }
  // One little-endian field of a file: where, how wide (1, 2 or 4), what it holds.
  struct Field {
    size_t at;
    int width;
    uint32_t value;
  };
  static void expect_fields(const std::vector<uint8_t>& b, std::initializer_list<Field> fields) {
    for (const Field& f : fields) {
      ASSERT_LE(f.at + static_cast<size_t>(f.width), b.size()) << "at " << f.at;
      uint32_t got = f.width == 1 ? b[f.at] : f.width == 2 ? u16(b, f.at) : u32(b, f.at);
      EXPECT_EQ(got, f.value) << "at " << f.at;
    }
  }
  // True when the error stack holds err anywhere.
  static bool has_error(int err) {
    for (int i = 0; i < isam_error_count(); ++i)
      if (isam_error_at(i).error == err) return true;
    return false;
  }
  TempDir scratch_{"velmar-isam"};
  const std::filesystem::path dir_ = scratch_.path;
};
