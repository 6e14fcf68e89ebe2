// Where local folders live, and names of local mailboxes as paths. Names
// use "\" between the levels of the folder tree; paths use "/".
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "rclib/safe_file.h"

// The user's directory (the program sets it at start; tests set it too).
// Relative names and names beginning "~" live under <home>/folders/.
void local_set_home(const char* dir);
const std::string& local_home();
// The absolute path of a mailbox name: "/..." stays absolute, "~" and
// anything else go under <home>/folders/; "\" becomes "/"; no trailing "/".
std::string mailbox_path(const char* name);
// This machine's name, the default host of unqualified local addresses.
const char* local_host_name();
// Wildcard match of a folder name against a listing pattern: "*" matches
// anything, "%" anything but the delimiter.
bool local_pattern_match(const char* name, const char* pattern, char delimiter);
// Install a rewritten file: delete base.bak, rename base.dat to base.bak
// (deleting base.dat if that fails), rename base.new to base.dat, and sync
// the directory. base.new has been fsync'ed by its writer. 1 on success;
// otherwise errno and err say which step failed.
int file_install(const std::string& base, SafeFileError* err = nullptr);
// Creates path afresh for writing, mode 0600: whatever stands there (the
// leftover of a stopped rewrite, or something planted) is removed first,
// and the new file is made exclusively. -1 with errno.
int local_create_new(const std::string& path, SafeFileError* err = nullptr);
// Writes path afresh (as local_create_new), whole and fsync'ed: the new
// half of a small file's rewrite, which file_install then puts in place.
// On failure path is gone.
bool local_write_new(const std::string& path, std::string_view data, SafeFileError* err);

// Files of the user's directory are opened without ever blocking: a FIFO, a
// device or a directory where a file belongs is refused (errno EISDIR for a
// directory, kLocalNotAFile for the rest), since reading a FIFO waits for a
// writer that never comes. -1 with errno; *st gets the file's stat.
constexpr int kLocalNotAFile = EINVAL;
int local_open_read(const std::string& path, struct stat* st = nullptr);
// The same for reading and writing an existing file; an open refused by the
// safe writer's hooks counts as an open.
int local_open_update(const std::string& path, SafeFileError* err = nullptr);
// strerror, with kLocalNotAFile worded as what it means here.
const char* local_strerror(int error);
