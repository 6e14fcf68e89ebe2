#include "rclib/rcdebug.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "rclib/dsllist.h"
#include "rclib/rc.h"
#include "rclib/rc_hmem.h"

namespace {

LIST_HDR* topics = nullptr;

constexpr int kMaxLevel = 3;

DBTOPIC decode(int code) {
  int level = code % 10;
  return DBTOPIC{code / 10, level > kMaxLevel ? kMaxLevel : level};
}

CELL* find_exact(const DBTOPIC& wanted) {
  for (CELL* cell = dsl_first(topics); cell; cell = dsl_next(cell)) {
    const DBTOPIC* entry = static_cast<const DBTOPIC*>(dsl_value(cell));
    if (entry->topic == wanted.topic && entry->level == wanted.level) return cell;
  }
  return nullptr;
}

}  // namespace

int rc_debug_init() {
  if (topics) return RC_OK;
  return dsl_create(&topics);
}

int rc_debug_term() { return dsl_destroy(&topics, RC_OK); }

int rc_debug_add(int code) {
  if (code < 0 || rc_debug_init() != RC_OK) return RC_FAIL;
  DBTOPIC wanted = decode(code);
  if (find_exact(wanted)) return RC_OK;
  DBTOPIC* entry = RC_NEW(DBTOPIC, DBTOPIC);
  if (!entry) return RC_FAIL;
  *entry = wanted;
  if (!dsl_append(topics, entry)) {
    RC_GIVE(DBTOPIC, entry);
    return RC_FAIL;
  }
  return RC_OK;
}

int rc_debug_remove(int code) {
  CELL* cell = code < 0 ? nullptr : find_exact(decode(code));
  if (!cell) {
    rc_errno = kRcErrNotFound;
    return RC_FAIL;
  }
  dsl_delete_cell(topics, &cell, RC_OK);
  return RC_OK;
}

int rc_debug_test(int code) {
  if (code < 0) return 0;
  DBTOPIC wanted = decode(code);
  for (CELL* cell = dsl_first(topics); cell; cell = dsl_next(cell)) {
    const DBTOPIC* entry = static_cast<const DBTOPIC*>(dsl_value(cell));
    if (entry->topic == wanted.topic && entry->level >= wanted.level) return 1;
  }
  return 0;
}

namespace {
std::string& TrickleFile() {
  static std::string name = kTrickleFile;
  return name;
}
}  // namespace

void rc_debug_set_file(const char* path) { TrickleFile() = path && *path ? path : kTrickleFile; }

int rc_debug_trace(int code, const char* format, ...) {
  if (!rc_debug_test(code) || !format) return RC_FAIL;
  struct stat st;
  if (::stat(TrickleFile().c_str(), &st) == 0 && st.st_size > kTrickleLimit) return RC_FAIL;
  FILE* f = std::fopen(TrickleFile().c_str(), "a");
  if (!f) return RC_FAIL;
  va_list ap;
  va_start(ap, format);
  std::vfprintf(f, format, ap);
  va_end(ap);
  std::fclose(f);
  return RC_OK;
}
