// MH folders as directories: generated short directory names recorded in
// each parent's mhname.dat, the path of a folder name, listing, creating,
// deleting and renaming folders.
#pragma once

#include <string>

#include "c-client/core/mail.h"

// The path of a folder (directories by their short names), from a
// one-entry memory when asked again.
std::string mh_path(const char* name);
void mh_forget_paths();  // for tests
// Checks a name; with syntax_only nothing on disk is looked at. On failure
// errno says why (ENOENT: no such folder, EINVAL: a bad name).
bool mh_valid_name(const char* name, bool syntax_only);

// mhname.dat of parent: long name to short directory name and back.
// 1 if found; *out is the name itself when not.
int mh_name_to_dir(const char* long_name, std::string* out, const std::string& parent);
int mh_dir_to_name(const char* short_name, std::string* out, const std::string& parent);
// The short name of long_name in parent, made (and recorded) if new.
bool mh_name_create(const std::string& parent, const char* long_name, std::string* short_name);
bool mh_name_delete(const std::string& parent, const char* long_name);
// For tests: the clock the short names are made from.
void mh_set_clock_for_test(long (*now)());

// Reports matching folders under dir through mm_mailbox(name, '\\', "()"),
// a folder's inner folders before the folder.
void mh_list_dir(const std::string& dir, const std::string& name_prefix, const char* pattern);

// Driver slots.
void mh_find(MailStream* stream, const char* pattern);
void mh_find_all(MailStream* stream, const char* pattern);
long mh_subscribe(MailStream* stream, const char* mailbox);
long mh_unsubscribe(MailStream* stream, const char* mailbox);
long mh_create(MailStream* stream, const char* mailbox);
long mh_delete(MailStream* stream, const char* mailbox);
long mh_rename(MailStream* stream, const char* old_name, const char* new_name);
