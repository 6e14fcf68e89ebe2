// The dispatch of book calls to the drivers of a session's chain. A null
// session or book, or a driver without the operation, answers 0.
#include "src/base/trace.h"
#include "src/books/abook.h"

namespace {

const char* Text(const char* s) { return s ? s : "(null)"; }

// The first driver of the chain that has the operation.
template <typename Op>
AB_DRIVER* FirstWith(AB_SESSION* session, Op AB_DRIVER::*op) {
  for (AB_DRIVER* d = session ? session->drivers : nullptr; d; d = d->next)
    if (d->*op) return d;
  return nullptr;
}

}  // namespace

long abook_create(AB_SESSION* session, const char* name) {
  Trace(kTraceMail, kTraceHigh, "abook_create: %s\n", Text(name));
  AB_DRIVER* d = FirstWith(session, &AB_DRIVER::create);
  if (!d || !name) return 0;
  session->current_driver = d;
  return d->create(session, name);
}

long abook_delete(AB_SESSION* session, const char* name) {
  Trace(kTraceMail, kTraceHigh, "abook_delete: %s\n", Text(name));
  AB_DRIVER* d = FirstWith(session, &AB_DRIVER::remove);
  if (!d || !name) return 0;
  session->current_driver = d;
  return d->remove(session, name);
}

long abook_rename(AB_SESSION* session, const char* old_name, const char* new_name) {
  Trace(kTraceMail, kTraceHigh, "abook_rename: %s to %s\n", Text(old_name), Text(new_name));
  AB_DRIVER* d = FirstWith(session, &AB_DRIVER::rename);
  if (!d || !old_name || !new_name) return 0;
  session->current_driver = d;
  return d->rename(session, old_name, new_name);
}

long abook_find(AB_SESSION* session, const char* pattern) {
  Trace(kTraceMail, kTraceHigh, "abook_find: %s\n", Text(pattern));
  if (!session || !pattern) return 0;
  long result = 0;
  for (AB_DRIVER* d = session->drivers; d; d = d->next) {
    if (!d->find) continue;
    session->current_driver = d;
    result = d->find(session, pattern);
    if (!result) break;
  }
  return result;
}

MBook* abook_open(AB_SESSION* session, const char* name, long word) {
  Trace(kTraceMail, kTraceHigh, "abook_open: %s\n", Text(name));
  if (!session || !name) return nullptr;
  for (AB_DRIVER* d = session->drivers; d; d = d->next) {
    if (!d->open) continue;
    session->current_driver = d;
    MBook* book = d->open(session, name);
    if (!book) continue;
    book->session = session;
    book->driver = d;
    book->word = word;
    book->next = session->books;
    session->books = book;
    return book;
  }
  return nullptr;
}

long abook_close(MBook* book) {
  Trace(kTraceMail, kTraceHigh, "abook_close\n");
  if (!book) return 0;
  if (AB_SESSION* s = book->session) {
    for (MBook** at = &s->books; *at; at = &(*at)->next)
      if (*at == book) {
        *at = book->next;
        break;
      }
  }
  if (book->driver && book->driver->close) book->driver->close(book);
  return 1;
}

namespace {

// The book's own driver, made current for the callbacks.
AB_DRIVER* Driver(MBook* book) {
  if (!book || !book->driver) return nullptr;
  if (book->session) book->session->current_driver = book->driver;
  return book->driver;
}

}  // namespace

#define FORWARD_ENTRY(op)                                               \
  long abook_##op(MBook* book, const char* entry) {                     \
    Trace(kTraceMail, kTraceHigh, "abook_" #op ": %s\n", Text(entry)); \
    AB_DRIVER* d = Driver(book);                                        \
    return d && d->op ? d->op(book, entry) : 0;                         \
  }

FORWARD_ENTRY(fetch)
FORWARD_ENTRY(lock)
FORWARD_ENTRY(unlock)
FORWARD_ENTRY(deleteent)
FORWARD_ENTRY(expand)
FORWARD_ENTRY(getacl)
FORWARD_ENTRY(delacl)
#undef FORWARD_ENTRY

long abook_getlist(MBook* book) {
  Trace(kTraceMail, kTraceHigh, "abook_getlist\n");
  AB_DRIVER* d = Driver(book);
  return d && d->getlist ? d->getlist(book) : 0;
}

long abook_search(MBook* book, const char* name_pattern, const AbPair* pairs, int n) {
  Trace(kTraceMail, kTraceHigh, "abook_search: %s, %d pairs\n", Text(name_pattern), n);
  if (!name_pattern || (n <= 0 && !pairs)) return 0;
  AB_DRIVER* d = Driver(book);
  return d && d->search ? d->search(book, name_pattern, pairs, n < 0 ? 0 : n) : 0;
}

long abook_store(MBook* book, const char* entry, const AbPair* pairs, int n) {
  Trace(kTraceMail, kTraceHigh, "abook_store: %s, %d pairs\n", Text(entry), n);
  if (!entry || !pairs || n <= 0) return 0;
  AB_DRIVER* d = Driver(book);
  return d && d->store ? d->store(book, entry, pairs, n) : 0;
}

long abook_setacl(MBook* book, const char* identifier, const char* rights) {
  Trace(kTraceMail, kTraceHigh, "abook_setacl: %s %s\n", Text(identifier), Text(rights));
  AB_DRIVER* d = Driver(book);
  return d && d->setacl ? d->setacl(book, identifier, rights) : 0;
}
