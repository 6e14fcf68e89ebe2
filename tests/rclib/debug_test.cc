#include <cstdio>
#include <regex>
#include <string>

#include "rclib/dsllist.h"
#include "rclib/rcdebug.h"
#include "tests/rclib/rclib_fixture.h"

class DebugTest : public ScratchTest {
 protected:
  void TearDown() override {
    rc_debug_term();
    ScratchTest::TearDown();
  }
};

TEST_F(DebugTest, TopicLevelRules) {
  struct Case { const char* name; std::vector<int> add, remove; int ask, answer; };
  const Case cases[] = {
      {"lower level asked", {2321}, {}, 2320, 1},
      {"higher level asked", {2320}, {}, 2323, 0},
      {"level 9 stored as 3", {2329}, {}, 2323, 1},
      {"level 9 asked as 3", {2323}, {}, 2329, 1},
      {"other topic", {2321}, {}, 2331, 0},
      {"removed", {2321}, {2321}, 2321, 0},
      {"remove takes the exact level", {2321, 2323}, {2321}, 2322, 1},
      {"remove caps the level too", {2329}, {2325}, 2320, 0},
      {"a duplicate is stored once", {2011, 2011}, {2011}, 2010, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(rc_debug_init(), RC_OK);
    for (int code : c.add) EXPECT_EQ(rc_debug_add(code), RC_OK);
    for (int code : c.remove) EXPECT_EQ(rc_debug_remove(code), RC_OK);
    EXPECT_EQ(rc_debug_test(c.ask), c.answer);
    EXPECT_EQ(rc_debug_term(), RC_OK);
  }
  // Without init: nothing is set, and an add makes the list on demand.
  EXPECT_EQ(rc_debug_test(2010), 0);
  EXPECT_EQ(rc_debug_add(2011), RC_OK);
  EXPECT_EQ(rc_debug_test(2010), 1);
  rc_errno = 0;
  EXPECT_EQ(rc_debug_remove(2012), RC_FAIL);
  EXPECT_EQ(rc_errno, kRcErrNotFound);
  EXPECT_EQ(rc_debug_add(-1), RC_FAIL);
}

TEST_F(DebugTest, TrickleTraceFollowsTheTopics) {
  const std::string path = file("trickle.out", "");
  rc_debug_set_file(path.c_str());
  EXPECT_EQ(rc_debug_trace(2011, "not wanted %d\n", 1), RC_FAIL);
  rc_debug_add(2012);
  EXPECT_EQ(rc_debug_trace(2011, "wanted %d\n", 2), RC_OK);
  EXPECT_EQ(rc_debug_trace(2013, "too detailed\n"), RC_FAIL);
  EXPECT_EQ(read(path), "wanted 2\n");
  std::ofstream(path, std::ios::app) << std::string(kTrickleLimit, 'x');
  EXPECT_EQ(rc_debug_trace(2011, "past the limit\n"), RC_FAIL);
  EXPECT_EQ(read(path).size(), 9u + kTrickleLimit);
  rc_debug_set_file(nullptr);
}

class MemoryTest : public RclibTest {};

TEST_F(MemoryTest, TraceLinesFollowEachAllocationAndRelease) {
  FILE* trace = std::tmpfile();
  ASSERT_NE(trace, nullptr);
  rc_mem_trace_stream = trace;
  long before = rc_mem_outstanding;
  LIST_HDR* list = nullptr;
  dsl_create(&list);
  EXPECT_EQ(rc_mem_outstanding, before + 1);
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<void*>(list));
  dsl_destroy(&list, RC_FAIL);
  rc_mem_trace_stream = nullptr;
  EXPECT_EQ(rc_mem_trace("dropped %d\n", 1), RC_OK);

  std::string text(4096, '\0');
  std::rewind(trace);
  text.resize(std::fread(text.data(), 1, text.size(), trace));
  std::fclose(trace);
  // The type name is padded to 15 columns and the line number to 5.
  const std::string pattern = std::string("^") + std::to_string(sizeof(LIST_HDR)) + " bytes at " + address +
                              " alloc LIST_HDR        Line +[0-9]+ File [^\n]*dsllist\\.cc\n" + address +
                              " free  LIST_HDR        Line +[0-9]+ File [^\n]*dsllist\\.cc\n$";
  EXPECT_TRUE(std::regex_match(text, std::regex(pattern))) << text;
}

TEST_F(MemoryTest, HooksResetToDefaultsAndResizeKeepsOneBlock) {
  rc_hmem_zget_proc = budget_zget;
  EXPECT_EQ(rc_hmem_hook_reset_zget(), budget_zget);
  EXPECT_EQ(rc_hmem_zget_proc, rc_hmem_zget_proc_default);
  rc_hmem_give_proc = nullptr;  // filled on first use
  rc_hmem_hook_reset_resize();

  long live = rc_hmem_live_blocks;
  char* block = static_cast<char*>(rc_hmem_zget("ACHR", 4));
  block = static_cast<char*>(rc_hmem_resize("ACHR", block, 4000));
  block[3999] = 'x';
  rc_hmem_give("ACHR", block);
  rc_hmem_give("ACHR", nullptr);
  EXPECT_EQ(rc_hmem_live_blocks, live);
  EXPECT_EQ(rc_hmem_give_proc, rc_hmem_give_proc_default);
}
