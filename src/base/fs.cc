#include "src/base/fs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "c-client/core/env.h"
#include "src/base/trace.h"
#include "src/base/commands.h"
#include "src/base/model_events.h"
#include "xvt/xvt.h"

namespace {

void* LibcAlloc(size_t size, bool zero) { return zero ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1); }
void* LibcResize(void* p, size_t size) { return std::realloc(p, size ? size : 1); }
void LibcRelease(void* p) { std::free(p); }
const FsAllocator kLibc = {LibcAlloc, LibcResize, LibcRelease};

struct FsState {
  const FsAllocator* allocator = &kLibc;
  FS_HANDLER fast_fail = fs_default_fc_handler;
  FS_HANDLER last_chance = fs_default_lc_handler;
  // The rainy-day reserve: a pool of blocks given back in one step.
  void* rainy_day[kRainyDayBlocks] = {};
  bool rainy_day_used = false;
  void* last_resort = nullptr;
  bool shutting_down_for_memory = false;
  bool ready = false;
  std::new_handler previous_new_handler = nullptr;
  bool in_new_handler = false;
};

FsState& F() {
  static FsState f;
  return f;
}

constexpr size_t kAllOnes = static_cast<size_t>(-1);

// operator new and the containers come here when the allocator says no: the
// same two stages as fs_alloc. Returning asks new to try again; throwing
// bad_alloc ends the attempt.
void NewHandler() {
  FsState& f = F();
  if (f.in_new_handler) throw std::bad_alloc();
  f.in_new_handler = true;
  int retry = fs_allocator_error_handler(2);
  if (!retry) f.last_chance();
  f.in_new_handler = false;
  if (!retry) throw std::bad_alloc();
}

}  // namespace

int fs_default_fc_handler() { mm_fatal("Velmar failed to allocate required memory.   Aborting."); }
int fs_default_lc_handler() { mm_fatal("Velmar failed to allocate required memory. Aborting."); }

int fs_init() {
  FsState& f = F();
  f.ready = true;
  f.shutting_down_for_memory = false;
  f.rainy_day_used = true;
  fs_allocate_rainy_day();
  f.last_resort = f.allocator->alloc(kLastResortSize, false);
  f.fast_fail = fs_fc_recover_handler;
  f.last_chance = fs_lc_recover_handler;
  f.previous_new_handler = std::set_new_handler(NewHandler);
  if (!f.last_resort) Trace(kTraceMemory, kTraceCritical, "fs_init: could not allocate the last resort block\n");
  return 1;
}

void fs_shutdown() {
  FsState& f = F();
  fs_release_rainy_day();
  f.rainy_day_used = false;
  if (f.last_resort) f.allocator->release(f.last_resort);
  f.last_resort = nullptr;
  std::set_new_handler(f.previous_new_handler);
  f.previous_new_handler = nullptr;
  f.fast_fail = fs_default_fc_handler;
  f.last_chance = fs_default_lc_handler;
  f.ready = false;
}

void* fs_alloc(size_t size) {
  FsState& f = F();
  if (size == kAllOnes) {
    char text[200];
    std::snprintf(text, sizeof text, "Requested allocation of %ld bytes is too large for MAC.  Aborting.",
                  static_cast<long>(size));
    mm_fatal(text);
  }
  void* p = f.allocator->alloc(size, true);
  if (!p && f.fast_fail() == 0) p = f.allocator->alloc(size, true);
  if (!p) f.last_chance();
  return p;
}

int fs_realloc(void** location, size_t size) {
  FsState& f = F();
  if (!location) return 0;
  if (size == kAllOnes) {
    char text[200];
    std::snprintf(text, sizeof text, "Requested allocation of %ld bytes is too large for DOS.  Aborting.",
                  static_cast<long>(size));
    mm_fatal(text);
  }
  void* p = f.allocator->resize(*location, size);
  if (!p && f.fast_fail() == 0) p = f.allocator->resize(*location, size);
  if (!p) f.last_chance();
  if (!p) return 0;
  *location = p;
  return 1;
}

void fs_free(void** location) {
  FsState& f = F();
  if (!location) return;
  f.allocator->release(*location);
  *location = nullptr;
  if (f.rainy_day_used) fs_allocate_rainy_day();
}

void* fs_get(size_t size, const char* file, int line) {
  void* p = fs_alloc(size);
  Trace(kTraceMemory, kTraceMedium, "fs_get: allocate %d bytes at %s:%d  ptr = %ld\n", static_cast<int>(size),
        file ? file : "", line, static_cast<long>(reinterpret_cast<intptr_t>(p)));
  return p;
}

int fs_resize(void** location, size_t size, const char* file, int line) {
  Trace(kTraceMemory, kTraceMedium, "fs_resize: allocate %d bytes at %s:%d\n", static_cast<int>(size),
        file ? file : "", line);
  return fs_realloc(location, size);
}

void fs_give(void** location, const char* file, int line) {
  Trace(kTraceMemory, kTraceMedium, "fs_give: %ld at %s:%d\n",
        static_cast<long>(reinterpret_cast<intptr_t>(location ? *location : nullptr)), file ? file : "", line);
  fs_free(location);
}

FS_HANDLER fs_set_fc_handler(FS_HANDLER handler) {
  FS_HANDLER old = F().fast_fail;
  F().fast_fail = handler;
  return old;
}

FS_HANDLER fs_set_lc_handler(FS_HANDLER handler) {
  FS_HANDLER old = F().last_chance;
  F().last_chance = handler;
  return old;
}

int fs_allocate_rainy_day() {
  FsState& f = F();
  Trace(kTraceMemory, kTraceAll, "fs_allocate_rainy_day: function entry\n");
  if (f.shutting_down_for_memory) return 0;
  void* blocks[kRainyDayBlocks] = {};
  for (size_t i = 0; i < kRainyDayBlocks; ++i) {
    blocks[i] = f.allocator->alloc(kRainyDayBlockSize, false);
    if (!blocks[i]) {
      for (size_t j = 0; j < i; ++j) f.allocator->release(blocks[j]);
      return 0;
    }
  }
  std::memcpy(f.rainy_day, blocks, sizeof blocks);
  f.rainy_day_used = false;
  Trace(kTraceMemory, kTraceAll, "fs_allocate_rainy_day: rainy day reallocated\n");
  return 1;
}

void fs_release_rainy_day() {
  FsState& f = F();
  for (void*& b : f.rainy_day) {
    if (b) f.allocator->release(b);
    b = nullptr;
  }
  f.rainy_day_used = true;
}

int fs_fc_recover_handler() {
  FsState& f = F();
  Trace(kTraceMemory, kTraceCritical, "fs_fc_recover_handler: out of free storage!  Attempting recovery.\n");
  if (f.rainy_day_used) return 1;
  fs_release_rainy_day();
  xvt_dm_post_message(
      "Velmar is very low on memory.\nPlease close any folders, address books, compose sesssions or viewers\nthat "
      "you do not need.  You may wish to increase the amount of memory\npartitioned to Velmar and restart.\n ");
  MM_NotPostSimple(E_LOW_MEMORY);
  return 0;
}

int fs_lc_recover_handler() {
  FsState& f = F();
  Trace(kTraceMemory, kTraceCritical, "fs_lc_recover_handler: fatal memory exhaustion!.\n");
  if (f.shutting_down_for_memory) return 1;
  if (f.last_resort) f.allocator->release(f.last_resort);
  f.last_resort = nullptr;
  f.shutting_down_for_memory = true;
  xvt_dm_post_message(
      "Velmar has run out of memory and cannot recover.\nIt will be automatically shutdown.\nYou may wish to "
      "increase the amount\nof memory given to Velmar before restarting.");
  // The same road as File > Exit: the task window asks every window and
  // shuts down in order.
  if (TASK_WIN) {
    EVENT ev{};
    ev.type = E_COMMAND;
    ev.v.cmd.tag = M_FILE_QUIT;
    xvt_win_dispatch_event(TASK_WIN, &ev);
  }
  return 1;
}

int fs_allocator_error_handler(int error) {
  Trace(kTraceMemory, kTraceCritical, "fs_allocator_error_handler: out of free storage (error %d)\n", error);
  if (error == 2) return F().fast_fail() != 1 ? 1 : 0;
  if (F().previous_new_handler) {
    F().previous_new_handler();
    return 1;
  }
  return 0;
}

bool fs_rainy_day_used() { return F().rainy_day_used; }
bool fs_shutting_down_for_memory() { return F().shutting_down_for_memory; }

void fs_set_allocator(const FsAllocator* allocator) { F().allocator = allocator ? allocator : &kLibc; }
