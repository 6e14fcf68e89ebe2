// Free storage: the frame around all heap memory of the program, with a
// designed path for exhaustion: a reserve that is given back with a warning
// (and the mail caches are flushed), then an orderly shutdown.
#pragma once

#include <cstddef>

typedef int (*FS_HANDLER)();

constexpr size_t kRainyDayBlocks = 4;
constexpr size_t kRainyDayBlockSize = 33000;
constexpr size_t kLastResortSize = 20480;

int fs_init();
void fs_shutdown();

// Zero-filled memory, or null once both recovery stages have run.
void* fs_alloc(size_t size);
// Resizes *location; the new address is stored there. 1 on success.
int fs_realloc(void** location, size_t size);
// Frees *location and stores null there.
void fs_free(void** location);

void* fs_get(size_t size, const char* file, int line);
int fs_resize(void** location, size_t size, const char* file, int line);
void fs_give(void** location, const char* file, int line);

template <typename T>
inline void fs_free(T*& p) {
  void* v = p;
  fs_free(&v);
  p = nullptr;
}

FS_HANDLER fs_set_fc_handler(FS_HANDLER handler);
FS_HANDLER fs_set_lc_handler(FS_HANDLER handler);
int fs_allocate_rainy_day();
void fs_release_rainy_day();

int fs_fc_recover_handler();
int fs_lc_recover_handler();
int fs_default_fc_handler();
int fs_default_lc_handler();
// The allocator's error hook: 1 tells the allocator to retry.
int fs_allocator_error_handler(int error);

bool fs_rainy_day_used();
bool fs_shutting_down_for_memory();

// The allocator underneath, replaceable so that tests can make it fail.
struct FsAllocator {
  void* (*alloc)(size_t size, bool zero);
  void* (*resize)(void* p, size_t size);
  void (*release)(void* p);
};
void fs_set_allocator(const FsAllocator* allocator);  // null: the C library's
