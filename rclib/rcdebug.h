// Numbered debug topics. A code is topic * 10 + level: the last decimal
// digit is the level, and levels above 3 count as 3. The editor guards its
// traces with rc_debug_test.
#pragma once

struct DBTOPIC {
  int topic;
  int level;
};

// Make and destroy the global topic list. rc_debug_add makes it on demand,
// so topics can be set before an explicit init.
int rc_debug_init();
int rc_debug_term();
// Appends a topic; adding one that is already there is RC_OK and changes
// nothing. RC_FAIL for a negative code or without memory.
int rc_debug_add(int code);
// Removes the entry with exactly that topic and level; RC_FAIL with
// rc_errno 4 when there is none.
int rc_debug_remove(int code);
// 1 if an entry has the code's topic and a level at or above its level,
// else 0 (also before init).
int rc_debug_test(int code);

// The library's and the editor's trace file. A line is written when
// rc_debug_test(code) holds; the file is opened for each line and closed,
// like the program's main trace, and stops growing past the limit.
constexpr const char* kTrickleFile = "trickle.out";
constexpr long kTrickleLimit = 1000000;
// The file's name (default "trickle.out" in the current directory).
void rc_debug_set_file(const char* path);
int rc_debug_trace(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
