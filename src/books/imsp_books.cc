// The books on the option and address book server: a driver of the book
// chain over the server's client. A session's stream is its connection; a
// book is only its name, since the server is asked afresh on every call.
#include <strings.h>

#include <string>
#include <vector>

#include "c-client/imsp/imsp.h"
#include "src/base/trace.h"
#include "src/books/abook.h"

namespace {

// The book a call runs on: the server's answers name books by their
// (lower-cased) names, the book the caller holds is this one.
MBook* g_book = nullptr;
// While a store reads the entry's attributes first, answers land here and
// not with the model.
std::vector<std::string>* g_capture = nullptr;

ImspSession* Stream(AB_SESSION* session) { return session ? static_cast<ImspSession*>(session->stream) : nullptr; }
ImspSession* Stream(MBook* book) { return book ? Stream(book->session) : nullptr; }

std::vector<ImspPair> ToImsp(const AbPair* pairs, int n) {
  std::vector<ImspPair> out;
  for (int i = 0; pairs && i < n; ++i) out.push_back({pairs[i].attribute, pairs[i].value});
  return out;
}

MBook* BookNamed(AB_SESSION* session, const char* name) {
  if (g_book && (!name || strcasecmp(g_book->name.c_str(), name) == 0)) return g_book;
  for (MBook* b = session ? session->books : nullptr; b; b = b->next)
    if (name && strcasecmp(b->name.c_str(), name) == 0) return b;
  return g_book;
}

void OnBookName(void* owner, const char* name, char) {
  if (name) mm_abook_name(static_cast<AB_SESSION*>(owner), name);
}

void OnAddress(void* owner, const char* book, const char* entry, const ImspPair* pairs, int n) {
  if (g_capture) {
    for (int i = 0; i < n; ++i) g_capture->push_back(pairs[i].attribute);
    return;
  }
  std::vector<AbPair> ab;
  for (int i = 0; i < n; ++i) ab.push_back({pairs[i].attribute, pairs[i].value});
  mm_address(BookNamed(static_cast<AB_SESSION*>(owner), book), entry, ab.data(), n);
}

void OnAcl(void* owner, const char* book, const char* identifier, const char* rights) {
  if (MBook* b = BookNamed(static_cast<AB_SESSION*>(owner), book)) mm_abook_acl(b, identifier, rights);
}

// Runs one call with its book remembered for the answers.
template <typename F>
long OnBook(MBook* book, F&& call) {
  ImspSession* s = Stream(book);
  if (!s) return 0;
  MBook* saved = g_book;
  g_book = book;
  const long rc = call(s, book->name.c_str());
  g_book = saved;
  return rc;
}

long imsp_create(AB_SESSION* session, const char* name) { return Stream(session) ? imsp_abook_create(Stream(session), name) : 0; }
long imsp_delete(AB_SESSION* session, const char* name) { return Stream(session) ? imsp_abook_delete(Stream(session), name) : 0; }
long imsp_rename(AB_SESSION* session, const char* old_name, const char* new_name) {
  return Stream(session) ? imsp_abook_rename(Stream(session), old_name, new_name) : 0;
}
long imsp_find(AB_SESSION* session, const char* pattern) { return Stream(session) ? imsp_abook_find(Stream(session), pattern) : 0; }

// Opening asks the server nothing: a book that does not exist fails on
// its first use.
MBook* imsp_open_book(AB_SESSION* session, const char* name) {
  ImspSession* s = Stream(session);
  if (!s) return nullptr;
  auto* book = new MBook;
  book->name = name && *name ? name : imsp_user(s);
  return book;
}

void imsp_close_book(MBook* book) { delete book; }

long imsp_getlist(MBook* book) {
  return OnBook(book, [](ImspSession* s, const char* name) { return imsp_abook_getlist(s, name); });
}

long imsp_search(MBook* book, const char* name_pattern, const AbPair* pairs, int n) {
  const std::vector<ImspPair> p = ToImsp(pairs, n);
  return OnBook(book, [&](ImspSession* s, const char* name) {
    return imsp_abook_search(s, name, name_pattern, p.data(), static_cast<int>(p.size()));
  });
}

long imsp_fetch(MBook* book, const char* entry) {
  return OnBook(book, [entry](ImspSession* s, const char* name) { return imsp_abook_fetch(s, name, entry); });
}

long imsp_lock(MBook* book, const char* entry) {
  return OnBook(book, [entry](ImspSession* s, const char* name) { return imsp_abook_lock(s, name, entry); });
}

long imsp_unlock(MBook* book, const char* entry) {
  return OnBook(book, [entry](ImspSession* s, const char* name) { return imsp_abook_unlock(s, name, entry); });
}

// The model stores a whole entry, as a local book keeps it; the server
// merges the pairs into what it has. Attributes the new set lacks are sent
// empty, which removes them there.
long imsp_store(MBook* book, const char* entry, const AbPair* pairs, int n) {
  std::vector<ImspPair> p = ToImsp(pairs, n);
  return OnBook(book, [&](ImspSession* s, const char* name) {
    std::vector<std::string> old;
    g_capture = &old;
    imsp_set_quiet(s, true);  // a new entry is not found: no error for that
    imsp_abook_fetch(s, name, entry);
    imsp_set_quiet(s, false);
    g_capture = nullptr;
    for (const std::string& a : old) {
      bool kept = false;
      for (const ImspPair& q : p) kept |= strcasecmp(q.attribute.c_str(), a.c_str()) == 0;
      if (!kept) p.push_back({a, ""});
    }
    return imsp_abook_store(s, name, entry, p.data(), static_cast<int>(p.size()));
  });
}

long imsp_deleteent(MBook* book, const char* entry) {
  return OnBook(book, [entry](ImspSession* s, const char* name) { return imsp_abook_deleteent(s, name, entry); });
}

long imsp_expand(MBook* book, const char* entry) {
  return OnBook(book, [entry](ImspSession* s, const char* name) {
    std::string addresses;
    const long ok = imsp_abook_expand(s, name, entry, &addresses);
    Trace(kTraceBooks, kTraceAll, "imsp_expand: %s gives %zu bytes of addresses\n", entry, addresses.size());
    return ok;
  });
}

// Null identifier: the user's own rights.
long imsp_getacl(MBook* book, const char* identifier) {
  return OnBook(book, [identifier](ImspSession* s, const char* name) { return imsp_abook_getacl(s, name, !identifier); });
}

long imsp_setacl(MBook* book, const char* identifier, const char* rights) {
  return OnBook(book, [&](ImspSession* s, const char* name) { return imsp_abook_setacl(s, name, identifier, rights); });
}

long imsp_delacl(MBook* book, const char* identifier) {
  return OnBook(book, [identifier](ImspSession* s, const char* name) { return imsp_abook_delacl(s, name, identifier); });
}

AB_DRIVER g_imsp = {"IMSP",        nullptr,        nullptr,      imsp_create,     imsp_delete,  imsp_rename,
                    imsp_find,     imsp_open_book, imsp_close_book, imsp_getlist, imsp_search,  imsp_fetch,
                    imsp_lock,     imsp_unlock,    imsp_store,   imsp_deleteent,  imsp_expand,  imsp_getacl,
                    imsp_setacl,   imsp_delacl,    nullptr};

ImspSession* NewStream(AB_SESSION* session) {
  ImspCallbacks cb;
  cb.owner = session;
  cb.abook_name = OnBookName;
  cb.address = OnAddress;
  cb.acl = OnAcl;
  return imsp_session_new(cb);
}

}  // namespace

AB_DRIVER* imsp_driver() { return &g_imsp; }

AB_SESSION* imsp_abook_session_new(const char* host, long port) {
  if (!host || !*host) return nullptr;
  auto* session = new AB_SESSION;
  session->drivers = imsp_driver();
  session->stream = NewStream(session);
  if (!session->stream || !imsp_open(Stream(session), host, port)) {
    imsp_abook_session_free(session);
    return nullptr;
  }
  return session;
}

void imsp_abook_session_free(AB_SESSION*& session) {
  if (!session) return;
  auto* s = Stream(session);
  imsp_session_free(&s);
  delete session;
  session = nullptr;
}

long imsp_abook_reconnect(AB_SESSION* session, const char* host, long port) {
  if (!session) return 0;
  auto* s = Stream(session);
  imsp_session_free(&s);
  session->stream = NewStream(session);
  return session->stream && imsp_open(Stream(session), host, port);
}

long imsp_abook_ping(AB_SESSION* session) {
  ImspSession* s = Stream(session);
  return s && imsp_is_open(s) && imsp_send(s, "%t NOOP \r\n");
}

const char* imsp_abook_user(AB_SESSION* session) { return Stream(session) ? imsp_user(Stream(session)) : ""; }
