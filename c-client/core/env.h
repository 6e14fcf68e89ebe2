// What the mail layer needs from the program around it. The program (the
// frame's free storage and the mail model) provides these functions; tests
// and tools that use the mail layer alone provide their own.
#pragma once

#include <cstddef>

struct MailStream;

// Free storage (zero-filled; freeing takes the pointer's address and nulls it).
void* fs_get(size_t size, const char* file, int line);
int fs_resize(void** location, size_t size, const char* file, int line);
void fs_give(void** location, const char* file, int line);

#define FS_GET(size) fs_get((size), __FILE__, __LINE__)
#define FS_GIVE(location) fs_give(reinterpret_cast<void**>(location), __FILE__, __LINE__)
#define FS_RESIZE(location, size) fs_resize(reinterpret_cast<void**>(location), (size), __FILE__, __LINE__)

// Callbacks towards the mail model. Levels of mm_log: 0 information,
// 1 warning, 2 error (opens a dialog), 3 parser warning (logged only).
void mm_dlog(const char* text);
void mm_log(const char* text, long level);
// 1 note, 2 error, 4 the server is going away; all unless the stream is silent.
void mm_notify(MailStream* stream, const char* text, long level);
void mm_flags(MailStream* stream, unsigned long msgno);
void mm_exists(MailStream* stream, unsigned long count);
void mm_expunged(MailStream* stream, unsigned long msgno);
void mm_searched(MailStream* stream, unsigned long msgno);
// attributes: "\NOINFERIORS", "\MARKED", "\UNMARKED", "\NOSELECT" in any mix.
void mm_mailbox(const char* name, char delimiter, const char* attributes);
void mm_mailbox_progress(const char* name, char delimiter, const char* attributes);
void mm_acl(MailStream* stream, const char* mailbox, const char* identifier, const char* rights);
void mm_quota(MailStream* stream, const char* resource, unsigned long used, unsigned long limit);
// Asks for credentials; user and password are buffers of kMailLoginSize.
constexpr size_t kMailLoginSize = 61;
void mm_login(const char* host, char* user, char* password, long trial);
void mm_critical(MailStream* stream);
void mm_nocritical(MailStream* stream);
// Shows the text and ends the program.
[[noreturn]] void mm_fatal(const char* text);

// fatal(text): the mail layer's end for broken invariants; never returns.
[[noreturn]] void fatal(const char* text);

// A copy of s in free storage, or null for null.
char* cpystr(const char* s);
