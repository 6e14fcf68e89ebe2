// The book drivers: one thin dispatch (abook_*) over a chain of drivers, so
// that the address model does not care where a book lives. Answers come
// back through the callbacks at the end of this header, which the address
// model implements; errors go to mm_log, which shows them to the user.
#pragma once

#include <string>

struct AB_SESSION;
struct MBook;

// One (attribute, value) pair of an entry; in a search the value is a
// wildcard pattern.
struct AbPair {
  std::string attribute;
  std::string value;
};

// A driver's identity and operations, in the chain's order of use.
struct AB_DRIVER {
  const char* name;
  AB_DRIVER* next;
  void* data;  // the driver's own
  long (*create)(AB_SESSION* session, const char* name);
  long (*remove)(AB_SESSION* session, const char* name);
  long (*rename)(AB_SESSION* session, const char* old_name, const char* new_name);
  long (*find)(AB_SESSION* session, const char* pattern);
  MBook* (*open)(AB_SESSION* session, const char* name);
  void (*close)(MBook* book);
  long (*getlist)(MBook* book);
  long (*search)(MBook* book, const char* name_pattern, const AbPair* pairs, int n);
  long (*fetch)(MBook* book, const char* entry);
  long (*lock)(MBook* book, const char* entry);
  long (*unlock)(MBook* book, const char* entry);
  long (*store)(MBook* book, const char* entry, const AbPair* pairs, int n);
  long (*deleteent)(MBook* book, const char* entry);
  long (*expand)(MBook* book, const char* entry);
  long (*getacl)(MBook* book, const char* identifier);
  long (*setacl)(MBook* book, const char* identifier, const char* rights);
  long (*delacl)(MBook* book, const char* identifier);
  void* params;
};

struct AB_SESSION {
  void* stream = nullptr;           // the server connection of a remote session
  AB_DRIVER* drivers = nullptr;     // head of the chain
  MBook* books = nullptr;           // open books, newest first
  AB_DRIVER* current_driver = nullptr;
  int asked_convert = 0;            // 1 converted or not needed, -1 the user declined
};

// A book open in a driver. The ISAM driver keeps no file open: its book is
// only the book's name and its directory's name.
struct MBook {
  MBook* next = nullptr;
  AB_SESSION* session = nullptr;
  AB_DRIVER* driver = nullptr;
  long word = 0;  // given at opening
  std::string name;
  std::string dir;
};

long abook_create(AB_SESSION* session, const char* name);
long abook_delete(AB_SESSION* session, const char* name);
long abook_rename(AB_SESSION* session, const char* old_name, const char* new_name);
long abook_find(AB_SESSION* session, const char* pattern);
MBook* abook_open(AB_SESSION* session, const char* name, long word);
long abook_close(MBook* book);
long abook_getlist(MBook* book);
long abook_search(MBook* book, const char* name_pattern, const AbPair* pairs, int n);
long abook_fetch(MBook* book, const char* entry);
long abook_lock(MBook* book, const char* entry);
long abook_unlock(MBook* book, const char* entry);
long abook_store(MBook* book, const char* entry, const AbPair* pairs, int n);
long abook_deleteent(MBook* book, const char* entry);
long abook_expand(MBook* book, const char* entry);
long abook_getacl(MBook* book, const char* identifier);
long abook_setacl(MBook* book, const char* identifier, const char* rights);
long abook_delacl(MBook* book, const char* identifier);

// Upward, implemented by the address model.
void mm_abook_name(AB_SESSION* session, const char* name);
void mm_address(MBook* book, const char* entry, const AbPair* pairs, int n);
void mm_abook_acl(MBook* book, const char* identifier, const char* rights);

// The local driver (isam_books.cc).
AB_DRIVER* isam_driver();
// Forgets the remembered books directory (the user directory changed).
void isam_abook_forget_dir();
// Tests: the clock that names new book directories (null: the real one).
void isam_abook_set_clock_for_test(long (*now)());
// Books of the old format: 250-byte name records, fixed attribute files.
long convert_v3021_to_v4(AB_SESSION* session);

// The server driver (imsp_books.cc). A remote session's stream is its
// connection to the server; its books are opened by name without asking
// the server.
AB_DRIVER* imsp_driver();
// A session on the server at host (port 0: the default), logged in; null
// when the server can't be reached or the login fails.
AB_SESSION* imsp_abook_session_new(const char* host, long port);
void imsp_abook_session_free(AB_SESSION*& session);
// A new connection in place of the old one; the session's books stay.
long imsp_abook_reconnect(AB_SESSION* session, const char* host, long port);
// "NOOP": true while the connection answers.
long imsp_abook_ping(AB_SESSION* session);
// The user the session logged in as: the name of the personal book.
const char* imsp_abook_user(AB_SESSION* session);
