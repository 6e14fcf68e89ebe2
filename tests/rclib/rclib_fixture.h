// Shared fixture of the support library tests: every test must give back all it allocated through the library, and
// may make allocations fail.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "rclib/dsllist.h"
#include "rclib/rc.h"
#include "rclib/rc_hmem.h"
#include "tests/support/scratch_dir.h"

// Lets `alloc_budget` allocations through, then fails every later one.
inline int alloc_budget = 0;
inline void* budget_zget(const char* name, size_t size) {
  return alloc_budget-- > 0 ? rc_hmem_zget_proc_default(name, size) : nullptr;
}

class RclibTest : public ::testing::Test {
 protected:
  void SetUp() override { outstanding_ = rc_mem_outstanding, rc_errno = 0, rc_debug_bits = 0; }
  void TearDown() override {
    rc_hmem_hook_reset_zget();
    rc_debug_bits = 0;
    EXPECT_EQ(rc_mem_outstanding, outstanding_) << "allocations were lost or released twice";
  }
  static void fail_allocations_after(int budget) { alloc_budget = budget, rc_hmem_zget_proc = budget_zget; }
  long outstanding_ = 0;
};

// Runs each test in a fresh scratch directory, which is the current one.
class ScratchTest : public RclibTest {
 protected:
  void SetUp() override {
    RclibTest::SetUp();
    ASSERT_FALSE(dir_.empty());
    old_cwd_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    std::filesystem::current_path(old_cwd_);
    RclibTest::TearDown();
  }
  // Writes a file below the scratch directory; its full path.
  std::string file(const std::string& name, const std::string& text = "x") const {
    std::ofstream(dir_ / name, std::ios::binary) << text;
    return (dir_ / name).string();
  }
  std::set<std::string> names() const {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) out.insert(e.path().filename());
    return out;
  }
  TempDir scratch_{"velmar-rclib"};
  const std::filesystem::path dir_ = scratch_.path;
  std::filesystem::path old_cwd_;
};

inline void* V(intptr_t n) { return reinterpret_cast<void*>(n); }

// Values of a list of small integers, after checking every link in both directions and the count against the cells.
inline std::vector<intptr_t> values_of(const LIST_HDR* list) {
  std::vector<intptr_t> forward;
  const CELL* prev = nullptr;
  for (const CELL* cell = dsl_first(list); cell; prev = cell, cell = cell->next) {
    EXPECT_EQ(cell->prev, prev) << "broken back link at position " << forward.size();
    forward.push_back(reinterpret_cast<intptr_t>(cell->value));
  }
  EXPECT_EQ(dsl_last(list), prev) << "tail is not the last cell";
  EXPECT_EQ(dsl_count(list), static_cast<int>(forward.size())) << "count differs from the cells";
  return forward;
}

inline LIST_HDR* make_list(const std::vector<intptr_t>& values) {
  LIST_HDR* list = nullptr;
  dsl_create(&list);
  for (intptr_t v : values) dsl_append(list, V(v));
  return list;
}

inline CELL* nth_cell(LIST_HDR* list, int n) { return dsl_step(list, dsl_first(list), n); }
