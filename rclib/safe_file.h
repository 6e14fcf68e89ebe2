// Writing files so that a crash, a full disk or a failing device never
// leaves half of one: the one place where the program opens files for
// writing, writes, syncs and renames. Mail folders, their caches, the
// subscription and folder-name files, option files and velmar.ini all go
// through it.
//
// Every call returns true (or a descriptor) on success. On failure it
// returns false (or -1) with errno set and, when a SafeFileError is given,
// fills it with the step that failed, so that callers can tell the user
// and the trace the real reason.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

// The steps a write goes through; also the kinds of fault a test can inject.
enum SafeStep { kSafeOpen = 0, kSafeWrite, kSafeSync, kSafeRename, kSafeStepCount };

struct SafeFileError {
  SafeStep step = kSafeOpen;
  int error = 0;  // errno
  // "open", "write", "sync" or "rename", and the system's text.
  std::string text() const;
};

// The word for a step: "open", "write", "sync", "rename".
const char* safe_step_name(SafeStep step);

// open(2), retrying EINTR, close-on-exec. Only a regular file is kept: the
// open never waits (on a FIFO without its other end), and anything but a
// file fails with EISDIR for a directory or EINVAL ("not a regular file").
// *st, when given, gets the file's stat.
int safe_open(const char* path, int flags, unsigned mode, SafeFileError* err = nullptr,
              struct stat* st = nullptr);
// Creates path, failing if anything (a file, a link, a FIFO) is there.
int safe_create_exclusive(const char* path, unsigned mode, SafeFileError* err = nullptr);
// Writes all of data, retrying EINTR and short writes; a write that takes
// nothing is ENOSPC.
bool safe_write_all(int fd, const void* data, size_t size, SafeFileError* err = nullptr);
bool safe_pwrite_all(int fd, const void* data, size_t size, off_t at, SafeFileError* err = nullptr);
// fsync(2), retrying EINTR.
bool safe_fsync(int fd, SafeFileError* err = nullptr);
// rename(2); the caller syncs the directory.
bool safe_rename(const char* from, const char* to, SafeFileError* err = nullptr);
// Makes names just created, removed or renamed in dir survive a crash.
bool safe_sync_dir(const std::string& dir, SafeFileError* err = nullptr);
// The directory part of path ("." for a bare name, "/" for the root).
std::string safe_dir_of(const std::string& path);

// Replaces path with data in one step: a temporary name in the same
// directory, written, chmod'ed to mode, fsync'ed, renamed over path, and the
// directory fsync'ed. On failure path is untouched and the temporary removed.
bool safe_replace_file(const std::string& path, std::string_view data, unsigned mode,
                       SafeFileError* err = nullptr);
// Appends one record with a single O_APPEND write (writers in other
// processes never interleave), fsync'ed; the directory is synced when the
// file was new. On failure what the call wrote is taken back (unless another
// writer has appended since), so a failure never shifts later records.
bool safe_append_record(const std::string& path, const void* data, size_t size, unsigned mode,
                        SafeFileError* err = nullptr);

// safe_open for reading: a FIFO, a device or a directory dropped where a
// file should be would otherwise block the open or the read forever.
int safe_open_read(const char* path, SafeFileError* err = nullptr, struct stat* st = nullptr);
// The same, as a stdio stream ("rb").
FILE* safe_fopen_read(const char* path, SafeFileError* err = nullptr);
// Opens a log for appending, creating it with mode: only a regular file,
// and the open never waits for a reader of a FIFO. The test hooks leave it
// alone, so that a log tells of the faults they inject.
FILE* safe_fopen_append(const char* path, unsigned mode, SafeFileError* err = nullptr);

// Test hooks: from now on, the nth call (1-based) of step and every later
// one fails with error, as a full disk or a failing device would; nth 0
// clears the fault. Counts start at the call.
void safe_fail_from_for_test(SafeStep step, long nth, int error);
void safe_clear_faults_for_test();
// Calls of step since the last clear.
long safe_calls_for_test(SafeStep step);
