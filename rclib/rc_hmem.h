// Memory layer of the support library: three replaceable hooks, and the
// named-allocation pattern every allocation of the library and the editor
// goes through.
//
// Each allocation names its type (a word such as LIST_HDR or ACHR). The name
// is printed in the memory trace and in the failure message, so a leak or an
// exhaustion can be traced to the kind of record involved. The release name
// need not be the allocation name: list cells are allocated as RC_BYTE and
// released as CELLPTR, a cell's value is released as CVALPTR.
//
// The default hooks use calloc/realloc/free. Anything the library releases
// on a caller's behalf (list values with free_values = RC_OK, tree data) is
// therefore handed to rc_hmem_give and must have come from RC_ALLOC or
// rc_hmem_zget, not from new or another allocator.
#pragma once

#include <cstddef>
#include <cstdio>

using RcZgetProc = void* (*)(const char* type_name, size_t size);
using RcResizeProc = void* (*)(const char* type_name, void* pointer, size_t size);
using RcGiveProc = void (*)(const char* type_name, void* pointer);

// The hooks. A null hook is filled with its default on first use, so a
// program may install its own (for instance over its free-storage frame) by
// assigning these, and the reset functions below put the defaults back.
extern RcZgetProc rc_hmem_zget_proc;
extern RcResizeProc rc_hmem_resize_proc;
extern RcGiveProc rc_hmem_give_proc;

// Zero-filled block of `size` bytes, or null.
void* rc_hmem_zget(const char* type_name, size_t size);
// Resized block, or null with the old block left as it was. A null pointer
// allocates.
void* rc_hmem_resize(const char* type_name, void* pointer, size_t size);
// Releases a block; null is ignored by the default.
void rc_hmem_give(const char* type_name, void* pointer);

// Each puts the default back and returns the hook that was installed.
RcZgetProc rc_hmem_hook_reset_zget();
RcGiveProc rc_hmem_hook_reset_give();
RcResizeProc rc_hmem_hook_reset_resize();

void* rc_hmem_zget_proc_default(const char* type_name, size_t size);
void* rc_hmem_resize_proc_default(const char* type_name, void* pointer, size_t size);
void rc_hmem_give_proc_default(const char* type_name, void* pointer);

// Live blocks of the default hooks (allocated and not yet freed).
extern long rc_hmem_live_blocks;

// Outstanding allocations of the named pattern: RC_ALLOC adds one, RC_GIVE
// takes one away. A test compares it before and after to find lost cells.
extern long rc_mem_outstanding;

// Where the allocation trace goes. Nobody in the library opens it; while it
// is null nothing is written.
extern FILE* rc_mem_trace_stream;

// printf to rc_mem_trace_stream; RC_OK and no output when it is null.
int rc_mem_trace(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The two halves of the pattern; use the macros, which supply the name,
// line and file.
void* rc_mem_alloc(const char* type_name, size_t size, int line, const char* file);
void rc_mem_release(const char* type_name, void* pointer, int line, const char* file);

template <typename T>
inline void rc_mem_give_ptr(const char* type_name, T*& pointer, int line, const char* file) {
  if (!pointer) return;
  rc_mem_release(type_name, const_cast<void*>(static_cast<const void*>(pointer)), line, file);
  pointer = nullptr;
}

// RC_ALLOC(LIST_HDR, sizeof(LIST_HDR)) -> zero-filled void*, or null after
// printing "Unable to allocate data type LIST_HDR".
#define RC_ALLOC(type_name, size) rc_mem_alloc(#type_name, (size), __LINE__, __FILE__)
// RC_NEW(LIST_HDR, LIST_HDR) -> LIST_HDR* of sizeof(LIST_HDR) bytes.
#define RC_NEW(type, type_name) static_cast<type*>(RC_ALLOC(type_name, sizeof(type)))
// Releases `pointer` under `type_name` if it is not null and nulls it.
#define RC_GIVE(type_name, pointer) rc_mem_give_ptr(#type_name, (pointer), __LINE__, __FILE__)
