// Memory exhaustion as a designed path: the reserve, the warning with the cache flush, and the orderly shutdown.
// The allocator under the frame is replaced by one that fails on demand.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "src/base/fs.h"
#include "src/base/model_events.h"
#include "tests/support/frame_fixture.h"

namespace {

// Requests of exactly kTestSize fail while g_fail_count > 0 (or always with g_fail_always); everything else (the
// reserve included) is served.
constexpr size_t kTestSize = 777777;
int g_fail_count = 0;
bool g_fail_always = false;

void* TestAlloc(size_t size, bool zero) {
  if (size == kTestSize && (g_fail_always || g_fail_count > 0)) {
    if (g_fail_count > 0) --g_fail_count;
    return nullptr;
  }
  return zero ? std::calloc(1, size) : std::malloc(size);
}
void* TestResize(void* p, size_t size) { return std::realloc(p, size); }
void TestRelease(void* p) { std::free(p); }
const FsAllocator kTestAllocator = {TestAlloc, TestResize, TestRelease};

int g_low_memory_events = 0;
int LowWant(ModelEvent* ev, void*) { return ev->type == E_LOW_MEMORY; }
void LowHandle(ModelEvent*, void*) { ++g_low_memory_events; }

class Memory : public UserFrameTest {
 protected:
  void SetUp() override {
    UserFrameTest::SetUp();
    g_fail_count = 0;
    g_fail_always = false;
    g_low_memory_events = 0;
  }
  void TearDown() override {
    fs_set_allocator(nullptr);
    UserFrameTest::TearDown();
  }
  // Runs body inside a started program with the failing allocator.
  void InProgram(std::function<void()> body) {
    Run({"-b"}, [&] {
      fs_set_allocator(&kTestAllocator);
      MM_NotRegister(LowWant, LowHandle, nullptr, "folder node");
      body();
      if (xvt_test_app_running()) Exit();
    });
  }
  static int CountPosts(const std::string& kind, const std::string& start) {
    int n = 0;
    for (const XvtPost& p : xvt_test_posts())
      if (p.kind == kind && p.text.compare(0, start.size(), start) == 0) ++n;
    return n;
  }
};

TEST_F(Memory, OneFailureWarnsOnceFlushesAndServesTheCaller) {
  InProgram([&] {
    for (int shortage = 1; shortage <= 2; ++shortage) {
      g_fail_count = 1;
      void* p = fs_alloc(kTestSize);
      EXPECT_NE(p, nullptr);
      EXPECT_TRUE(fs_rainy_day_used());
      EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), shortage);
      EXPECT_EQ(g_low_memory_events, shortage);
      // A free rebuilds the reserve; a later shortage warns again.
      fs_free(&p);
      EXPECT_EQ(p, nullptr);
      EXPECT_FALSE(fs_rainy_day_used());
    }
    // Memory comes zero-filled, and a resize keeps the content.
    char* p = static_cast<char*>(fs_alloc(64));
    std::memset(p, 0x5a, 64);
    fs_free(p);
    p = static_cast<char*>(fs_alloc(64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 64), std::string(64, '\0'));
    std::memcpy(p, "abc", 4);
    void* v = p;
    ASSERT_EQ(fs_realloc(&v, 100000), 1);
    EXPECT_STREQ(static_cast<char*>(v), "abc");
    fs_free(&v);
    fs_free(&v);  // null: harmless
    fs_free(static_cast<void**>(nullptr));
  });
}

TEST_F(Memory, ExhaustionEndsAtTheExitQuestionAndAsksOnlyOnce) {
  InProgram([&] {
    g_fail_always = true;
    xvt_test_push_answer(RESP_2);  // Cancel at the exit question
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), 1);
    EXPECT_EQ(CountPosts("message", "Velmar has run out of memory and cannot recover."), 1);
    EXPECT_EQ(CountPosts("ask", "Are you sure you want to exit Velmar?"), 1);
    EXPECT_TRUE(fs_shutting_down_for_memory());
    EXPECT_TRUE(xvt_test_app_running());
    // Nothing is rebuilt and nothing more is asked: null at once.
    void* p = nullptr;
    fs_free(&p);
    EXPECT_TRUE(fs_rainy_day_used());
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_EQ(CountPosts("ask", "Are you sure you want to exit Velmar?"), 1);
    int* q = static_cast<int*>(fs_alloc(16));
    EXPECT_NE(q, nullptr);
    fs_free(q);
  });
}

TEST_F(Memory, AnsweringExitAtTheLastChanceShutsDownInOrder) {
  TraceEverything();
  InProgram([&] {
    g_fail_always = true;
    xvt_test_push_answer(RESP_DEFAULT);
    EXPECT_EQ(fs_alloc(kTestSize), nullptr);
    EXPECT_FALSE(xvt_test_app_running());
  });
  std::string why;
  EXPECT_TRUE(TraceInOrder({"fs_fc_recover_handler: out of free storage!  Attempting recovery.\n",
                            "fs_lc_recover_handler: fatal memory exhaustion!.\n", "Shutdown_Prompt: function entry\n",
                            "ShutdownWorkspace : posting E_ABANDON_SHIP\n"},
                           &why))
      << why;
}

TEST_F(Memory, OperatorNewSharesTheReserveAndTheWarning) {
  InProgram([&] {
    std::new_handler handler = std::get_new_handler();
    ASSERT_NE(handler, nullptr);
    // The first shortage gives the reserve back: new may try again.
    EXPECT_NO_THROW(handler());
    EXPECT_EQ(CountPosts("message", "Velmar is very low on memory."), 1);
    // The second has nothing left: the last chance, then bad_alloc.
    xvt_test_push_answer(RESP_2);
    EXPECT_THROW(handler(), std::bad_alloc);
    EXPECT_EQ(CountPosts("message", "Velmar has run out of memory and cannot recover."), 1);
  });
}

TEST_F(Memory, AnAllOnesSizeIsFatal) {
  EXPECT_EXIT(InProgram([] { fs_alloc(static_cast<size_t>(-1)); }), ::testing::ExitedWithCode(1),
              "Requested allocation of -1 bytes is too large for MAC.  Aborting.");
}

}  // namespace
