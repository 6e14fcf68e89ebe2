// Where local folders live, and names of local mailboxes as paths. Names
// use "\" between the levels of the folder tree; paths use "/".
#pragma once

#include <string>

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
// (deleting base.dat if that fails), rename base.new to base.dat. base.new
// has been fsync'ed by its writer. 1 on success.
int file_install(const std::string& base);
// Writes all of text to fd, retrying short writes and EINTR. false with
// errno set (EIO for a write that took nothing).
bool local_write_all(int fd, const std::string& text);
