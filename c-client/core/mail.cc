// The mail core: the driver list, streams and handles, dispatch through the
// drivers' tables, the calls drivers make back (exists, expunged, locks),
// and sequences.
#include "c-client/core/mail.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"

namespace {

MailDriver* g_drivers = nullptr;
MailDriver* g_default_driver = &mhdriver;

// Message text the default mail_gets holds in memory; beyond it the text
// is read and dropped so that the driver's reader stays in step.
constexpr unsigned long kMemoryTextLimit = 64ul << 20;
constexpr unsigned long kReadChunk = 64ul << 10;

MailText* MemoryMailGets(readfn_t reader, void* handle, unsigned long size) {
  if (size > kMemoryTextLimit) {
    char discard[8192];
    for (unsigned long left = size; left;) {
      unsigned long n = std::min<unsigned long>(left, sizeof discard);
      if (!reader(handle, n, discard)) break;
      left -= n;
    }
    mm_log(mail_format("Message text of %lu bytes is too large to hold in memory", size).c_str(), 2);
    return nullptr;
  }
  char* data = static_cast<char*>(FS_GET(size + 1));
  for (unsigned long done = 0; done < size;) {
    unsigned long n = std::min(size - done, kReadChunk);
    if (!reader(handle, n, data + done)) {
      FS_GIVE(&data);
      return nullptr;
    }
    done += n;
  }
  data[size] = '\0';
  MailText* text = mail_newtext();
  text->kind = kTextInMemory;
  text->size = size;
  text->data = data;
  return text;
}

bool Live(MailStream* stream) { return stream && stream->driver; }

bool IsPrototype(MailStream* stream) { return stream->driver && stream->driver->prototype == stream; }

}  // namespace

mailgets_t mail_gets = MemoryMailGets;

// --- Shared helpers ---------------------------------------------------------

std::string mail_format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int n = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

void fatal(const char* text) { mm_fatal(text); }

char* cpystr(const char* s) {
  if (!s) return nullptr;
  size_t n = std::strlen(s);
  char* copy = static_cast<char*>(FS_GET(n + 1));
  std::memcpy(copy, s, n + 1);
  return copy;
}

MailDriver* mail_default_driver() { return g_default_driver; }
void mail_set_default_driver(MailDriver* driver) { g_default_driver = driver; }

// --- The driver list --------------------------------------------------------

void mail_link(MailDriver* driver) {
  if (!driver) return;
  MailDriver** tail = &g_drivers;
  while (*tail) {
    if (*tail == driver) return;  // linking twice would make a cycle
    tail = &(*tail)->next;
  }
  driver->next = nullptr;
  *tail = driver;
}

MailDriver* mail_drivers() { return g_drivers; }

void mail_unlink_all() {
  while (g_drivers) {
    MailDriver* next = g_drivers->next;
    g_drivers->next = nullptr;
    g_drivers = next;
  }
}

void* mail_parameters(MailStream* stream, long op, void* value) {
  if (stream) return Live(stream) && stream->driver->parameters ? stream->driver->parameters(op, value) : nullptr;
  void* answer = nullptr;
  for (MailDriver* d = g_drivers; d; d = d->next)
    if (d->parameters)
      if (void* r = d->parameters(op, value)) answer = r;
  return answer;
}

void mail_capabilities(MailStream* stream, long* word) {
  if (!word) return;
  *word = 0;
  if (Live(stream) && stream->driver->capabilities) stream->driver->capabilities(stream, word);
}

// --- Listing and subscriptions ----------------------------------------------

namespace {

using FindSlot = void (*MailDriver::*)(MailStream*, const char*);

void Find(MailStream* stream, const char* pattern, FindSlot slot, bool every_driver) {
  if (stream) {
    if (Live(stream) && stream->driver->*slot) (stream->driver->*slot)(stream, pattern);
    return;
  }
  for (MailDriver* d = g_drivers; d; d = d->next) {
    if (d->*slot) (d->*slot)(nullptr, pattern);
    if (!every_driver) break;
  }
}

using NameSlot = long (*MailDriver::*)(MailStream*, const char*);

long ValidThen(MailStream* stream, const char* name, const char* purpose, NameSlot slot, const char* argument) {
  MailDriver* d = mail_valid(stream, name, purpose);
  return d && d->*slot ? (d->*slot)(stream, argument) : 0;
}

}  // namespace

void mail_find(MailStream* stream, const char* pattern) { Find(stream, pattern, &MailDriver::find, true); }
void mail_find_bboards(MailStream* stream, const char* pattern) {
  Find(stream, pattern, &MailDriver::find_bboards, true);
}
void mail_find_all(MailStream* stream, const char* pattern) { Find(stream, pattern, &MailDriver::find_all, true); }
// Only the first driver lists all bulletin boards: the others have none.
void mail_find_all_bboards(MailStream* stream, const char* pattern) {
  Find(stream, pattern, &MailDriver::find_all_bboards, false);
}

long mail_subscribe(MailStream* stream, const char* mailbox) {
  return ValidThen(stream, mailbox, "subscribe to mailbox", &MailDriver::subscribe, mailbox);
}
long mail_unsubscribe(MailStream* stream, const char* mailbox) {
  return ValidThen(stream, mailbox, "unsubscribe to mailbox", &MailDriver::unsubscribe, mailbox);
}
long mail_subscribe_bboard(MailStream* stream, const char* name) {
  std::string board = std::string("*") + (name ? name : "");
  return ValidThen(stream, board.c_str(), "subscribe to bboard", &MailDriver::subscribe_bboard, name);
}
long mail_unsubscribe_bboard(MailStream* stream, const char* name) {
  std::string board = std::string("*") + (name ? name : "");
  return ValidThen(stream, board.c_str(), "unsubscribe to bboard", &MailDriver::unsubscribe_bboard, name);
}
long mail_delete(MailStream* stream, const char* mailbox) {
  return ValidThen(stream, mailbox, "delete mailbox", &MailDriver::remove, mailbox);
}

long mail_rename(MailStream* stream, const char* old_name, const char* new_name) {
  MailDriver* d = mail_valid(stream, old_name, "rename mailbox");
  return d && d->rename ? d->rename(stream, old_name, new_name) : 0;
}

long mail_create(MailStream* stream, const char* mailbox) {
  if (!mailbox) return 0;
  if (stream) return Live(stream) && stream->driver->create ? stream->driver->create(stream, mailbox) : 0;
  if (mailbox[0] != '{' && mailbox[0] != '#') {
    // A plain name is a new mailbox of the default local format.
    MailDriver* d = g_default_driver;
    return d && d->create ? d->create(d->prototype, mailbox) : 0;
  }
  MailStream* prototype = mail_open(nullptr, mailbox, OP_PROTOTYPE);
  if (!prototype || !prototype->driver) {
    mm_log(mail_format("Can't create mailbox %s: indeterminate format", mailbox).c_str(), 2);
    return 0;
  }
  return prototype->driver->create ? prototype->driver->create(prototype, mailbox) : 0;
}

// --- Streams and handles ----------------------------------------------------

namespace {

// What a stream holds for its current message: owned on a short-cache
// stream, mirrors of the long element's otherwise.
void DropCurrent(MailStream* stream) {
  if (stream->scache) {
    mail_free_envelope(&stream->env);
    mail_free_body(&stream->body);
    mail_free_text(&stream->header_text);
    mail_free_text(&stream->body_text);
  } else {
    stream->env = nullptr;
    stream->body = nullptr;
    stream->header_text = nullptr;
    stream->body_text = nullptr;
  }
}

void CacheReset(MailStream* stream) {
  mailcache(stream, 0, CH_INIT);
  stream->msgno = 0;
  DropCurrent(stream);
}

void ReplaceMailbox(MailStream* stream, const char* mailbox) {
  if (stream->mailbox) FS_GIVE(&stream->mailbox);
  stream->mailbox = cpystr(mailbox);
}

}  // namespace

MailStream* mail_open(MailStream* stream, const char* mailbox, long options) {
  MailDriver* d = mail_valid(nullptr, mailbox, (options & OP_SILENT) ? nullptr : "open mailbox");
  if (!d) return stream;
  if (stream) {
    if (stream->driver != d) {
      // The record changes format: the old driver lets go of it first.
      if (stream->driver && stream->driver->close) stream->driver->close(stream);
      stream->driver = d;
      stream->local = nullptr;
      CacheReset(stream);
    }
    ReplaceMailbox(stream, mailbox);
  } else {
    if (options & OP_PROTOTYPE) return d->open ? d->open(nullptr) : d->prototype;
    stream = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
    stream->driver = d;
    stream->mailbox = cpystr(mailbox);
    mailcache(stream, 0, CH_INIT);
  }
  stream->lock = 0;
  stream->debug = (options & OP_DEBUG) ? 1 : 0;
  stream->rdonly = (options & OP_READONLY) ? 1 : 0;
  stream->anonymous = (options & OP_ANONYMOUS) ? 1 : 0;
  stream->scache = (options & OP_SHORTCACHE) ? 1 : 0;
  stream->silent = (options & OP_SILENT) ? 1 : 0;
  stream->control = (options & OP_CONTROL) ? 1 : 0;
  MailStream* opened = d->open ? d->open(stream) : nullptr;
  if (!opened) {
    mail_close(stream);
    return nullptr;
  }
  return opened;
}

MailStream* mail_close(MailStream* stream) {
  // A prototype is part of its driver's static table: nothing to close.
  if (!stream || IsPrototype(stream)) return nullptr;
  if (stream->driver && stream->driver->close) stream->driver->close(stream);
  stream->driver = nullptr;
  stream->local = nullptr;
  if (stream->mailbox) FS_GIVE(&stream->mailbox);
  ++stream->sequence;
  // The user flag names point into the flag string.
  if (stream->flagstring) FS_GIVE(&stream->flagstring);
  std::fill(std::begin(stream->user_flags), std::end(stream->user_flags), nullptr);
  CacheReset(stream);
  if (!stream->use) FS_GIVE(&stream);
  return nullptr;
}

MailHandle* mail_makehandle(MailStream* stream) {
  if (!stream) return nullptr;
  MailHandle* handle = static_cast<MailHandle*>(FS_GET(sizeof(MailHandle)));
  handle->stream = stream;
  handle->sequence = stream->sequence;
  ++stream->use;
  return handle;
}

void mail_free_handle(MailHandle** handle) {
  if (!handle || !*handle) return;
  MailStream* stream = (*handle)->stream;
  // A closed stream waits for its last handle before it goes.
  if (stream && stream->use && !--stream->use && !stream->driver) FS_GIVE(&stream);
  FS_GIVE(handle);
}

MailStream* mail_stream(MailHandle* handle) {
  if (!handle || !handle->stream) return nullptr;
  MailStream* stream = handle->stream;
  return stream->driver && stream->sequence == handle->sequence ? stream : nullptr;
}

// --- Elements ---------------------------------------------------------------

MessageElt* mail_elt(MailStream* stream, unsigned long msgno) {
  if (msgno < 1) fatal("Bad msgno in mail_elt");
  mailcache(stream, msgno, CH_SIZE);
  return static_cast<MessageElt*>(mailcache(stream, msgno, CH_MAKEELT));
}

MessageElt* mail_lelt(MailStream* stream, unsigned long msgno) {
  if (stream->scache) fatal("Short cache in mail_lelt");
  if (msgno < 1) fatal("Bad msgno in mail_lelt");
  mailcache(stream, msgno, CH_SIZE);
  return static_cast<MessageElt*>(mailcache(stream, msgno, CH_MAKELELT));
}

// --- One-line dispatches ----------------------------------------------------

void mail_fetchfast(MailStream* stream, const char* sequence) {
  if (Live(stream) && stream->driver->fetchfast) stream->driver->fetchfast(stream, sequence);
}
void mail_fetchflags(MailStream* stream, const char* sequence) {
  if (Live(stream) && stream->driver->fetchflags) stream->driver->fetchflags(stream, sequence);
}
void mail_setflag(MailStream* stream, const char* sequence, const char* flags) {
  if (Live(stream) && stream->driver->setflag) stream->driver->setflag(stream, sequence, flags);
}
void mail_clearflag(MailStream* stream, const char* sequence, const char* flags) {
  if (Live(stream) && stream->driver->clearflag) stream->driver->clearflag(stream, sequence, flags);
}
long mail_ping(MailStream* stream) { return Live(stream) && stream->driver->ping ? stream->driver->ping(stream) : 0; }
void mail_check(MailStream* stream) {
  if (Live(stream) && stream->driver->check) stream->driver->check(stream);
}
void mail_expunge(MailStream* stream) {
  if (Live(stream) && stream->driver->expunge) stream->driver->expunge(stream);
}
long mail_copy(MailStream* stream, const char* sequence, const char* mailbox) {
  return Live(stream) && stream->driver->copy ? stream->driver->copy(stream, sequence, mailbox) : 0;
}
long mail_move(MailStream* stream, const char* sequence, const char* mailbox) {
  return Live(stream) && stream->driver->move ? stream->driver->move(stream, sequence, mailbox) : 0;
}
long mail_getacl(MailStream* stream, const char* mailbox) {
  return Live(stream) && stream->driver->getacl ? stream->driver->getacl(stream, mailbox) : 0;
}
long mail_setacl(MailStream* stream, const char* mailbox, const char* identifier, const char* rights) {
  return Live(stream) && stream->driver->setacl ? stream->driver->setacl(stream, mailbox, identifier, rights) : 0;
}
long mail_deleteacl(MailStream* stream, const char* mailbox, const char* identifier) {
  return Live(stream) && stream->driver->deleteacl ? stream->driver->deleteacl(stream, mailbox, identifier) : 0;
}
long mail_myrights(MailStream* stream, const char* mailbox) {
  return Live(stream) && stream->driver->myrights ? stream->driver->myrights(stream, mailbox) : 0;
}

// Quota also works without a stream: the first driver (the remote one)
// then opens what it needs.
long mail_setquota(MailStream* stream, const char* root, long storage, long messages) {
  MailDriver* d = stream ? stream->driver : g_drivers;
  return d && d->setquota ? d->setquota(stream, root, storage, messages) : 0;
}
long mail_getquota(MailStream* stream, const char* root) {
  MailDriver* d = stream ? stream->driver : g_drivers;
  return d && d->getquota ? d->getquota(stream, root) : 0;
}

long mail_status(MailStream* stream, const char* mailbox, long flags, MailStatus* out) {
  if (!out) return 0;
  *out = MailStatus{};
  if (!mailbox || !*mailbox || !(flags & SA_ALL)) return 0;
  // No purpose: a name no driver takes is not worth a dialog here, since
  // the question comes from timers.
  MailDriver* d = mail_valid(nullptr, mailbox, nullptr);
  if (!d || !d->status) return 0;
  // Another driver's stream can't carry the question.
  if (stream && stream->driver != d) stream = nullptr;
  if (!d->status(stream, mailbox, flags & SA_ALL, out)) {
    *out = MailStatus{};
    return 0;
  }
  out->flags &= flags;
  return 1;
}

// --- Searching --------------------------------------------------------------

void mail_search_reset(MailStream* stream) {
  if (!stream) return;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i)
    if (auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT))) elt->searched = 0;
  stream->searched = 0;
}

void mail_search(MailStream* stream, const char* criteria) {
  if (!criteria) {
    mm_log("Invalid search criteria - NULL search string", 2);
    return;
  }
  if (!stream) return;
  // The driver says when the search was refused; a stream that can't
  // search has not searched.
  stream->search_failed = 0;
  if (Live(stream) && stream->driver->search)
    stream->driver->search(stream, criteria);
  else
    stream->search_failed = 1;
}

void mail_searched(MailStream* stream, unsigned long msgno) {
  MessageElt* elt = mail_elt(stream, msgno);
  if (elt->searched) return;
  elt->searched = 1;
  ++stream->searched;
  mm_searched(stream, msgno);
}

// --- Appending --------------------------------------------------------------

long mail_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message) {
  if (MailDriver* d = mail_valid(stream, mailbox, nullptr))
    return d->append ? d->append(stream, mailbox, flags, date, message) : 0;
  // No driver knows the name. The default format is asked whether it would
  // take a mailbox of no name at all; a yes means the two disagree about
  // what is valid, which is a programming error.
  MailDriver* def = g_default_driver;
  if (!stream && def && def->append && def->append(def->prototype, nullptr, nullptr, nullptr, nullptr))
    fatal("Append validity confusion");
  mail_valid(stream, mailbox, "append to mailbox");
  return 0;
}

long mail_append_simple(MailStream* stream, const char* mailbox, StringSource* message) {
  return mail_append(stream, mailbox, nullptr, nullptr, message);
}

// --- Calls from the drivers -------------------------------------------------

void mail_exists(MailStream* stream, unsigned long count) {
  mailcache(stream, count, CH_SIZE);
  if (count < stream->nmsgs) {
    // The server can't take messages back without expunging them: the
    // model's table would no longer match, so nothing is changed.
    mm_log("Lost synchronization with the mailbox server -- close and reopen the mailbox.", 2);
    return;
  }
  stream->nmsgs = count;
  if (!stream->silent) mm_exists(stream, count);
}

void mail_recent(MailStream* stream, unsigned long count) { stream->recent = count; }

void mail_expunged(MailStream* stream, unsigned long msgno) {
  // A number the mailbox doesn't have comes from a confused server; acting
  // on it would renumber the wrong messages.
  if (msgno < 1 || msgno > stream->nmsgs) {
    mm_dlog(mail_format("mail_expunged: no message %lu of %lu", msgno, stream->nmsgs).c_str());
    return;
  }
  if (!stream->silent) mm_expunged(stream, msgno);
  if (auto* elt = static_cast<MessageElt*>(mailcache(stream, msgno, CH_ELT))) elt->msgno = 0;
  mailcache(stream, msgno, CH_FREE);
  mailcache(stream, msgno, CH_EXPUNGE);
  --stream->nmsgs;
  stream->msgno = 0;
  DropCurrent(stream);
}

void mail_lock(MailStream* stream) {
  if (stream->lock) fatal("Fatal error - communications lock manager violation.");
  stream->lock = 1;
}

void mail_unlock(MailStream* stream) {
  if (!stream->lock) fatal("Fatal error - communications lock manager violation.");
  stream->lock = 0;
}

void mail_debug(MailStream* stream) { stream->debug = 1; }
void mail_nodebug(MailStream* stream) { stream->debug = 0; }

// --- Sequences --------------------------------------------------------------

namespace {

// Decimal digits, saturating instead of overflowing; 0 when there are none.
unsigned long ReadNumber(const char** s) {
  unsigned long n = 0;
  while (**s >= '0' && **s <= '9') {
    n = n > 1000000000000ul ? n : n * 10 + static_cast<unsigned long>(**s - '0');
    ++*s;
  }
  return n;
}

}  // namespace

long mail_sequence(MailStream* stream, const char* sequence) {
  for (unsigned long i = 1; i <= stream->nmsgs; ++i)
    if (auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT))) elt->sequence = 0;
  const char* s = sequence ? sequence : "";
  while (*s) {
    unsigned long first = ReadNumber(&s);
    if (first < 1 || first > stream->nmsgs) {
      mm_log("Sequence invalid", 2);
      return 0;
    }
    unsigned long last = first;
    if (*s == ':') {
      ++s;
      last = ReadNumber(&s);
      if (last < 1 || last > stream->nmsgs || (*s && *s != ',')) {
        mm_log("Sequence range invalid", 2);
        return 0;
      }
    } else if (*s && *s != ',') {
      mm_log("Syntax error in sequence", 2);
      return 0;
    }
    if (*s == ',') ++s;
    if (first > last) std::swap(first, last);
    for (unsigned long i = first; i <= last; ++i) mail_elt(stream, i)->sequence = 1;
  }
  return 1;
}
