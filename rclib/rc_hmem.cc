#include "rclib/rc_hmem.h"

#include <cstdarg>
#include <cstdlib>

#include "rclib/rc.h"

RcZgetProc rc_hmem_zget_proc = nullptr;
RcResizeProc rc_hmem_resize_proc = nullptr;
RcGiveProc rc_hmem_give_proc = nullptr;

long rc_hmem_live_blocks = 0;
long rc_mem_outstanding = 0;
FILE* rc_mem_trace_stream = nullptr;

static const char* name_or_blank(const char* type_name) { return type_name ? type_name : ""; }

void* rc_hmem_zget_proc_default(const char* type_name, size_t size) {
  rc_debug_entry("rc_hmem_zget_proc_default");
  // calloc(0) may legitimately return null; ask for one byte so that a
  // zero-sized request is not mistaken for exhaustion.
  void* block = std::calloc(1, size ? size : 1);
  if (!block) return nullptr;
  ++rc_hmem_live_blocks;
  if (rc_debug_bits & kRcDbgMemory)
    std::printf("Allocated %d bytes for %s\n", static_cast<int>(size), name_or_blank(type_name));
  return block;
}

void* rc_hmem_resize_proc_default(const char* type_name, void* pointer, size_t size) {
  rc_debug_entry("rc_hmem_resize_proc_default");
  if (!pointer) return rc_hmem_zget_proc_default(type_name, size);
  void* block = std::realloc(pointer, size ? size : 1);
  if (!block) return nullptr;
  if (rc_debug_bits & kRcDbgMemory)
    std::printf("Reallocated %d bytes for %s\n", static_cast<int>(size), name_or_blank(type_name));
  return block;
}

void rc_hmem_give_proc_default(const char* type_name, void* pointer) {
  rc_debug_entry("rc_hmem_give_proc_default");
  if (!pointer) return;
  std::free(pointer);
  --rc_hmem_live_blocks;
  if (rc_debug_bits & kRcDbgMemory) std::printf("Freed memory for %s\n", name_or_blank(type_name));
}

void* rc_hmem_zget(const char* type_name, size_t size) {
  if (!rc_hmem_zget_proc) rc_hmem_zget_proc = rc_hmem_zget_proc_default;
  return rc_hmem_zget_proc(type_name, size);
}

void* rc_hmem_resize(const char* type_name, void* pointer, size_t size) {
  if (!rc_hmem_resize_proc) rc_hmem_resize_proc = rc_hmem_resize_proc_default;
  return rc_hmem_resize_proc(type_name, pointer, size);
}

void rc_hmem_give(const char* type_name, void* pointer) {
  if (!rc_hmem_give_proc) rc_hmem_give_proc = rc_hmem_give_proc_default;
  rc_hmem_give_proc(type_name, pointer);
}

RcZgetProc rc_hmem_hook_reset_zget() {
  RcZgetProc previous = rc_hmem_zget_proc;
  rc_hmem_zget_proc = rc_hmem_zget_proc_default;
  return previous;
}

RcGiveProc rc_hmem_hook_reset_give() {
  RcGiveProc previous = rc_hmem_give_proc;
  rc_hmem_give_proc = rc_hmem_give_proc_default;
  return previous;
}

RcResizeProc rc_hmem_hook_reset_resize() {
  RcResizeProc previous = rc_hmem_resize_proc;
  rc_hmem_resize_proc = rc_hmem_resize_proc_default;
  return previous;
}

int rc_mem_trace(const char* format, ...) {
  if (!rc_mem_trace_stream || !format) return RC_OK;
  va_list args;
  va_start(args, format);
  int written = std::vfprintf(rc_mem_trace_stream, format, args);
  va_end(args);
  return written < 0 ? RC_FAIL : RC_OK;
}

void* rc_mem_alloc(const char* type_name, size_t size, int line, const char* file) {
  void* block = rc_hmem_zget(type_name, size);
  if (!block) {
    std::fprintf(stderr, "Unable to allocate data type %s\n", name_or_blank(type_name));
    return nullptr;
  }
  ++rc_mem_outstanding;
  rc_mem_trace("%d bytes at %p alloc %-15s Line %5d File %s\n", static_cast<int>(size), block,
               name_or_blank(type_name), line, file ? file : "");
  return block;
}

void rc_mem_release(const char* type_name, void* pointer, int line, const char* file) {
  if (!pointer) return;
  rc_mem_trace("%p free  %-15s Line %5d File %s\n", pointer, name_or_blank(type_name), line,
               file ? file : "");
  rc_hmem_give(type_name, pointer);
  --rc_mem_outstanding;
}
