// The option and address book client: the session, the login (PREAUTH,
// the authenticators, then LOGIN) and the commands on books and options.
#include <openssl/crypto.h>

#include <cstring>

#include "c-client/auth/authenticators.h"
#include "c-client/core/env.h"
#include "c-client/core/mail_core.h"
#include "c-client/imsp/imsp_internal.h"

namespace {

constexpr int kLoginTries = 3;

void Trace(const std::string& text) { mm_dlog(text.c_str()); }

// The answer of a book command: a failure is shown unless the session is quiet.
long Book(ImspSession* s, long ok) {
  if (!ok && !s->quiet) mm_log(s->gen_text.c_str(), 2);
  return ok;
}

// The mechanisms of the table in order; true once one logs in. A
// mechanism whose exchange has begun and failed ends the attempts.
bool Authenticate(ImspSession* s, const char* host) {
  for (const Authenticator* const* a = kAuthenticators; *a; ++a) {
    void* state = nullptr;
    if ((*a)->client_start(host, s->user.c_str(), 1, 0, nullptr, nullptr, &state) != 0) continue;
    Trace(mail_format("imsp_open(): attempting %s authentication.\n", (*a)->name));
    long last = kAuthContinue;
    std::string user;
    long ok = imsp_send(s, "%t AUTHENTICATE %s\r\n", (*a)->name);
    while (s->tcp && !s->reply.tag.empty() && s->reply.tag[0] == '+') {
      std::string challenge, answer;
      last = auth_unbase64(s->reply.text, &challenge) ? (*a)->client_step(state, challenge, &answer) : kAuthCancel;
      if (last == kAuthCancel) {
        ok = imsp_send(s, "*\r\n");
        continue;
      }
      // The answer names the user before its first blank.
      if (last == kAuthDone) user = answer.substr(0, answer.find(' '));
      std::string line = auth_base64_line(answer);
      OPENSSL_cleanse(answer.data(), answer.size());
      ok = imsp_send(s, "%a\r\n", line.c_str());
    }
    (*a)->client_end(&state);
    if (ok && s->reply.keyword_id == kImspOk) {
      if (last != kAuthDone) {
        mm_log("IMSP server ended KERBEROS login exchange too early", 2);
        return false;
      }
      s->user = user;
      Trace(mail_format("imsp_open(): %s authentication successful.\n", (*a)->name));
      return true;
    }
    return false;
  }
  return false;
}

bool Login(ImspSession* s, const char* host) {
  for (long trial = 1; trial <= kLoginTries; ++trial) {
    char user[kMailLoginSize] = "";
    char password[kMailLoginSize] = "";
    std::snprintf(user, sizeof user, "%s", s->user.c_str());
    mm_login(host, user, password, trial);
    if (!password[0]) {
      mm_log("Login aborted by user.", 1);
      return false;
    }
    long ok = imsp_send(s, "%t LOGIN %s %S\r\n", user, password);
    OPENSSL_cleanse(password, sizeof password);
    if (ok) {
      s->user = user;
      Trace("imsp_open: simple IMSP authentication successful.\n");
      return true;
    }
    if (!s->tcp || s->reply.keyword_id == kImspBye) return false;
    mm_log(s->gen_text.c_str(), 2);
  }
  mm_log("Too many login failures.  Aborting IMSP login.", 2);
  return false;
}

}  // namespace

ImspSession* imsp_session_new(const ImspCallbacks& callbacks) {
  auto* s = new ImspSession;
  s->callbacks = callbacks;
  return s;
}

void imsp_session_free(ImspSession** session) {
  if (!session || !*session) return;
  imsp_close(*session);
  delete *session;
  *session = nullptr;
}

long imsp_open(ImspSession* s, const char* host, long port) {
  imsp_close(s);
  const std::string shown = port ? mail_format("%s:%ld", host, port) : std::string(host ? host : "");
  Trace(mail_format("imsp_open(): opening connection to IMSP host: %s\n", shown.c_str()));
  s->tcp = tcp_open(host, "imsp", static_cast<unsigned long>(port ? port : kImspPort));
  s->reply.tcp = s->tcp;
  if (!s->tcp) {
    Trace("imsp_open(): connect failed.\n");
    return 0;
  }
  if (!imsp_reply(s, nullptr)) {
    mm_log(s->gen_text.c_str(), 2);
    imsp_close(s);
    return 0;
  }
  if (s->reply.keyword_id == kImspPreauth) {
    Trace("imsp_open(): preauthorized connection established.\n");
    s->logged_in = true;
    return 1;
  }
  if (Authenticate(s, host) || (s->tcp && Login(s, host))) {
    s->logged_in = true;
    return 1;
  }
  imsp_close(s);
  return 0;
}

void imsp_close(ImspSession* s) {
  // The server writes what a session stored when the session logs out: a
  // connection merely dropped may leave the last changes unwritten, and a
  // new session would not see them.
  if (s->logged_in && imsp_is_open(s)) {
    s->logging_out = true;
    imsp_send(s, "%t LOGOUT\r\n");
    s->logging_out = false;
  }
  s->logged_in = false;
  if (s->tcp) tcp_close(s->tcp);
  s->tcp = nullptr;
  s->reply.tcp = nullptr;
}

bool imsp_is_open(const ImspSession* s) { return s && s->tcp && s->tcp->socket >= 0; }
const char* imsp_user(const ImspSession* s) { return s->user.c_str(); }
const char* imsp_last_text(const ImspSession* s) { return s->gen_text.c_str(); }
void imsp_set_quiet(ImspSession* s, bool quiet) { s->quiet = quiet; }
void imsp_set_book(ImspSession* s, const char* book) { s->book = book ? book : ""; }

long imsp_noop(ImspSession* s) { return imsp_send(s, "%t NOOP\r\n"); }

long imsp_abook_create(ImspSession* s, const char* book) {
  return Book(s, imsp_send(s, "%t CREATEADDRESSBOOK %s\r\n", book));
}
long imsp_abook_delete(ImspSession* s, const char* book) {
  return Book(s, imsp_send(s, "%t DELETEADDRESSBOOK %s\r\n", book));
}
long imsp_abook_rename(ImspSession* s, const char* old_book, const char* new_book) {
  return Book(s, imsp_send(s, "%t RENAMEADDRESSBOOK %s %s\r\n", old_book, new_book));
}
long imsp_abook_find(ImspSession* s, const char* pattern) {
  return Book(s, imsp_send(s, "%t ADDRESSBOOK %s\r\n", pattern));
}
// The answers of a search name only the entry; they belong to its book.
static void SearchIn(ImspSession* s, const char* book) { s->reply_book = book ? book : s->book; }

long imsp_abook_getlist(ImspSession* s, const char* book) {
  SearchIn(s, book);
  return Book(s, imsp_send(s, "%t SEARCHADDRESS %s name \"*\"\r\n", book));
}
long imsp_abook_search(ImspSession* s, const char* book, const char* name_pattern, const ImspPair* pairs, int n) {
  SearchIn(s, book);
  if (name_pattern) return Book(s, imsp_send(s, "%t SEARCHADDRESS %s name %s%k\r\n", book, name_pattern, n, pairs));
  return Book(s, imsp_send(s, "%t SEARCHADDRESS %s%k\r\n", book, n, pairs));
}
long imsp_abook_fetch(ImspSession* s, const char* book, const char* entry) {
  return Book(s, imsp_send(s, "%t FETCHADDRESS %s %s\r\n", book, entry));
}
long imsp_abook_lock(ImspSession* s, const char* book, const char* entry) {
  return Book(s, imsp_send(s, "%t LOCK ADDRESSBOOK %s %s\r\n", book, entry));
}
long imsp_abook_unlock(ImspSession* s, const char* book, const char* entry) {
  return Book(s, imsp_send(s, "%t UNLOCK ADDRESSBOOK %s %s\r\n", book, entry));
}
long imsp_abook_store(ImspSession* s, const char* book, const char* entry, const ImspPair* pairs, int n) {
  return Book(s, imsp_send(s, "%t STOREADDRESS %s %s%k\r\n", book, entry, n, pairs));
}
long imsp_abook_deleteent(ImspSession* s, const char* book, const char* entry) {
  return Book(s, imsp_send(s, "%t DELETEADDRESS %s %s\r\n", book, entry));
}
long imsp_abook_getacl(ImspSession* s, const char* book, bool myrights) {
  return Book(s, imsp_send(s, "%t %a ADDRESSBOOK %s\r\n", myrights ? "MYRIGHTS" : "GETACL", book));
}
long imsp_abook_setacl(ImspSession* s, const char* book, const char* identifier, const char* rights) {
  return Book(s, imsp_send(s, "%t SETACL ADDRESSBOOK %s %s %s\r\n", book, identifier, rights));
}
long imsp_abook_delacl(ImspSession* s, const char* book, const char* identifier) {
  return Book(s, imsp_send(s, "%t DELETEACL ADDRESSBOOK %s %s\r\n", book, identifier));
}

long imsp_abook_expand(ImspSession* s, const char* book, const char* entry, std::string* addresses) {
  addresses->clear();
  s->expand_queue.clear();
  s->expand_addresses.clear();
  s->expand_mode = true;
  s->expand_queue.emplace_back(book ? book : s->book, entry ? entry : "");
  long ok = 1;
  // Members found on the way join the queue's end; each item is fetched once.
  for (size_t i = 0; i < s->expand_queue.size() && imsp_is_open(s); ++i) {
    const auto item = s->expand_queue[i];
    long fetched = imsp_abook_fetch(s, item.first.c_str(), item.second.c_str());
    if (i == 0) ok = fetched;
  }
  s->expand_mode = false;
  for (const std::string& a : s->expand_addresses) *addresses += a + "\r\n";
  if (!addresses->empty()) addresses->resize(addresses->size() - 2);
  return ok;
}

long imsp_option_get(ImspSession* s, const char* pattern) { return imsp_send(s, "%t GET %s\r\n", pattern); }
long imsp_option_lock(ImspSession* s, const char* name) { return imsp_send(s, "%t LOCK OPTION %s\r\n", name); }
long imsp_option_unlock(ImspSession* s, const char* name) { return imsp_send(s, "%t UNLOCK OPTION %s\r\n", name); }
long imsp_option_set(ImspSession* s, const char* name, const char* value) {
  if (!value) return imsp_send(s, "%t UNSET %s\r\n", name);
  return imsp_send(s, "%t SET %s %s\r\n", name, value);
}
