// The client of the option and address book server: one TCP connection that,
// after a login, serves the address book driver and the option store. One
// command at a time; unsolicited lines arrive only while a command waits for
// its tagged answer, and reach the session's owner through its callbacks.
#pragma once

#include <string>

struct ImspSession;

constexpr long kImspPort = 406;

// One (attribute, value) pair of an entry; in a search the value is a
// wildcard pattern.
struct ImspPair {
  std::string attribute;
  std::string value;
};

// What the session's owner hears. Any callback may be null; owner is handed
// back unchanged.
struct ImspCallbacks {
  void* owner = nullptr;
  // "* ADDRESSBOOK (flags) delimiter name": a book that a find matched.
  void (*abook_name)(void* owner, const char* name, char delimiter) = nullptr;
  // "* SEARCHADDRESS name" (pairs null, n 0) and "* FETCHADDRESS book name
  // pairs" outside an expansion.
  void (*address)(void* owner, const char* book, const char* entry, const ImspPair* pairs, int n) = nullptr;
  // "* OPTION name value [READ-WRITE|READ-ONLY]".
  void (*option)(void* owner, const char* name, const char* value, int writable) = nullptr;
  // "* MYRIGHTS ADDRESSBOOK book rights" (identifier null) and
  // "* ACL ADDRESSBOOK book identifier rights".
  void (*acl)(void* owner, const char* book, const char* identifier, const char* rights) = nullptr;
};

ImspSession* imsp_session_new(const ImspCallbacks& callbacks);
// Closes the connection if open, frees the session and nulls the pointer.
void imsp_session_free(ImspSession** session);

// Connects to host (port 0: kImspPort) and logs in: PREAUTH, then the
// authenticators in table order, then LOGIN with up to three tries; the
// user and password come from mm_login. True when logged in.
long imsp_open(ImspSession* session, const char* host, long port);
void imsp_close(ImspSession* session);
bool imsp_is_open(const ImspSession* session);
// The user name the login used (empty before one).
const char* imsp_user(const ImspSession* session);
// The text of the last reply: the error to show after a failed command.
const char* imsp_last_text(const ImspSession* session);
// Quiet: failed book commands are not shown through mm_log.
void imsp_set_quiet(ImspSession* session, bool quiet);
// The book word that a null book argument stands for.
void imsp_set_book(ImspSession* session, const char* book);

// Sends one command built from format (%t tag, %a as is, %d number, %s
// string as atom, quoted or literal, %S the same and the buffer wiped
// afterwards, %n the same with "" as nil, %k a count and an ImspPair array,
// %% a percent sign) and reads up to its tagged answer. True on OK.
long imsp_send(ImspSession* session, const char* format, ...);
long imsp_noop(ImspSession* session);

// Address books. A null book is the session's book word.
long imsp_abook_create(ImspSession* session, const char* book);
long imsp_abook_delete(ImspSession* session, const char* book);
long imsp_abook_rename(ImspSession* session, const char* old_book, const char* new_book);
long imsp_abook_find(ImspSession* session, const char* pattern);
long imsp_abook_getlist(ImspSession* session, const char* book);
// name_pattern null: only the pairs select.
long imsp_abook_search(ImspSession* session, const char* book, const char* name_pattern, const ImspPair* pairs, int n);
long imsp_abook_fetch(ImspSession* session, const char* book, const char* entry);
long imsp_abook_lock(ImspSession* session, const char* book, const char* entry);
long imsp_abook_unlock(ImspSession* session, const char* book, const char* entry);
long imsp_abook_store(ImspSession* session, const char* book, const char* entry, const ImspPair* pairs, int n);
long imsp_abook_deleteent(ImspSession* session, const char* book, const char* entry);
// myrights true: "MYRIGHTS", else "GETACL".
long imsp_abook_getacl(ImspSession* session, const char* book, bool myrights);
long imsp_abook_setacl(ImspSession* session, const char* book, const char* identifier, const char* rights);
long imsp_abook_delacl(ImspSession* session, const char* book, const char* identifier);
// A group flattened to its addresses, CR LF between them; members in other
// books are followed, each entry fetched once, so cycles end.
long imsp_abook_expand(ImspSession* session, const char* book, const char* entry, std::string* addresses);

// Options.
long imsp_option_get(ImspSession* session, const char* pattern);
long imsp_option_lock(ImspSession* session, const char* name);
long imsp_option_unlock(ImspSession* session, const char* name);
// A null value unsets the option.
long imsp_option_set(ImspSession* session, const char* name, const char* value);
