// The address model's state and the callbacks that the book drivers answer
// through. One mode word says what mm_address is to do with what a driver
// reports, so calls into the drivers must not nest; each runs inside a
// critical section, which keeps timers out.
#include "src/books/address_model.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

#include "c-client/auth/auth.h"
#include "c-client/core/env.h"
#include "src/base/cenv.h"
#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/books/isam_books.h"
#include "src/options/options.h"
#include "src/options/session.h"

const char* const kNoMembers = "NOENTRIESINMEMBERFIELD";

namespace {

enum Mode { kLoadDefault, kLoadAttributes, kLoadValue, kLoadCheck, kLoadQuiet };

AB_SESSION* g_local = nullptr;
AB_SESSION* g_remote = nullptr;
bool g_enable_local = true;
bool g_enable_remote = true;
std::string g_remote_host;
long g_remote_port = 0;
std::vector<std::string> g_remote_names;  // the server's books, as last listed
BOOK_SLOT g_slots[kMaxBooks];

Mode g_mode = kLoadDefault;
EntryList* g_result = nullptr;        // where do_default puts entries
AddressEntry g_current;               // the entry reported last
long g_loaded = 0;
AttrList* g_attrs = nullptr;          // attribute fetch
std::string g_want;                   // value fetch: the attribute wanted
std::optional<std::string> g_value;   // and its value
bool g_found = false;                 // check mode
std::vector<std::string>* g_names = nullptr;
EntryList g_search;                   // AM_Search's results

// A call into the drivers: a critical section, and the mode restored after.
class DriverCall {
 public:
  explicit DriverCall(Mode mode) : saved_(g_mode) {
    WIN_start_critical();
    g_mode = mode;
  }
  ~DriverCall() {
    g_mode = saved_;
    WIN_end_critical();
  }
  DriverCall(const DriverCall&) = delete;
  DriverCall& operator=(const DriverCall&) = delete;

 private:
  Mode saved_;
};

int SlotOf(const MBook* book) {
  for (int i = 0; i < kMaxBooks; ++i)
    if (book && g_slots[i].book == book) return i + 1;
  return 0;
}

MBook* BookOf(int id) {
  BOOK_SLOT* s = ABK_slot(id);
  return s && s->open ? s->book : nullptr;
}

bool HasMember(const AbPair* pairs, int n) {
  for (int i = 0; i < n; ++i)
    if (strcasecmp(pairs[i].attribute.c_str(), "member") == 0) return true;
  return false;
}

bool Less(const AddressEntry& a, const AddressEntry& b) {
  return a.name != b.name ? a.name < b.name : a.book < b.book;
}

void do_default(MBook* book, const char* name, const AbPair* pairs, int n) {
  if (!g_result) return;
  const int16_t id = static_cast<int16_t>(SlotOf(book));
  if (g_current.book == id && g_current.name == name) {
    Trace(kTraceBooks, kTraceAll, "Updating entry '%s'\n", name);
    for (AddressEntry& e : *g_result)
      if (e.book == id && e.name == name && HasMember(pairs, n)) e.is_list = 1;
    return;
  }
  AddressEntry entry{id, HasMember(pairs, n) ? 1 : 0, name};
  g_current = entry;
  auto at = std::lower_bound(g_result->begin(), g_result->end(), entry, Less);
  if (at != g_result->end() && at->book == id && at->name == entry.name) {
    at->is_list |= entry.is_list;
    return;
  }
  Trace(kTraceBooks, kTraceAll, "Adding new entry '%s'\n", name);
  g_result->insert(at, std::move(entry));
  if (++g_loaded > 40 && g_loaded % 40 == 0) Trace(kTraceBooks, kTraceLow, "Retrieving entries ... %ld\n", g_loaded);
}

// Runs a driver call that reports entries, collecting them in *out.
template <typename F>
long Collect(EntryList* out, F&& call) {
  DriverCall c(kLoadDefault);
  EntryList* saved = g_result;
  g_result = out;
  g_current = AddressEntry{};
  g_loaded = 0;
  const long rc = call();
  g_result = saved;
  g_current = AddressEntry{};
  return rc;
}

std::vector<std::string> FindBooks(AB_SESSION* session, const char* pattern, bool* ok = nullptr) {
  std::vector<std::string> names;
  if (!session) return names;
  DriverCall c(kLoadQuiet);
  g_names = &names;
  const long rc = abook_find(session, pattern);
  g_names = nullptr;
  if (ok) *ok = rc != 0;
  return names;
}

// Opens name in session into slot id, with the user's rights read.
bool ReopenIn(int id, AB_SESSION* session, const char* name) {
  BOOK_SLOT& s = g_slots[id - 1];
  DriverCall c(kLoadQuiet);
  s.book = abook_open(session, name, id);
  if (!s.book) return false;
  s.open = 1;
  abook_getacl(s.book, nullptr);
  return true;
}

// The server is asked for the user of the init file first.
void PrimeLogin() {
  const char* user = CENV_GetUserid();
  const char* password = CENV_GetPassword();
  AUTH_InitLogin(user ? user : "", password ? password : "");
}

void ReadServerAddress() {
  g_remote_host = Opt_LookupText("AddrBook.Hostname", kOptSession);
  int port = 0;
  g_remote_port = Opt_LookupInt("AddrBook.TCPPort", &port, kOptSession) ? port : 0;
}

bool RemoteActive() { return g_remote && g_enable_remote && !IsOffline(); }

// A new user has no book on the server yet, and the server makes the
// personal book on the first store into it: store a dummy entry and take
// it away again. Only when that fails is the book created outright.
void CreateDefaultRemoteBook() {
  const std::string user = imsp_abook_user(g_remote);
  if (user.empty()) return;
  // The whole listing, searched here: the server drops the connection when
  // a find names an existing book exactly.
  for (const std::string& name : FindBooks(g_remote, "*"))
    if (strcasecmp(name.c_str(), user.c_str()) == 0) return;
  Trace(kTraceBooks, kTraceMedium, "CreateDefaultBooks: making the server book \"%s\"\n", user.c_str());
  MBook* book;
  {
    DriverCall c(kLoadQuiet);
    book = abook_open(g_remote, user.c_str(), 0);
  }
  if (!book) return;
  const AbPair dummy{"fdjhhjfdhjfd", "kjfhlfjh"};
  if (Nice_imsp_io(kBookLocal, book, kNoMembers, &dummy, 1)) {
    Nice_imsp_io(kBookRemote, book, kNoMembers, nullptr, 0);
  } else {
    DriverCall c(kLoadQuiet);
    if (!abook_create(g_remote, user.c_str())) {
      const std::string text = "Failed to create address book " + user + "...";
      mm_log(text.c_str(), 2);
    }
  }
  DriverCall c(kLoadQuiet);
  abook_close(book);
}

void CreateDefaultBooks() {
  if (RemoteActive()) CreateDefaultRemoteBook();
  // A find that failed (old books not converted) makes nothing.
  bool ok = false;
  if (g_local && g_enable_local && FindBooks(g_local, "local", &ok).empty() && ok) {
    Trace(kTraceBooks, kTraceMedium, "CreateDefaultBooks: making the book \"local\"\n");
    DriverCall c(kLoadQuiet);
    abook_create(g_local, "local");
  }
}

}  // namespace

// --- Callbacks from the drivers -------------------------------------------------

void mm_abook_name(AB_SESSION*, const char* name) {
  if (g_names && name) g_names->push_back(name);
}

void mm_address(MBook* book, const char* entry, const AbPair* pairs, int n) {
  if (!entry) return;
  switch (g_mode) {
    case kLoadAttributes:
      if (g_attrs)
        for (int i = 0; i < n; ++i) g_attrs->emplace_back(pairs[i].attribute, pairs[i].value);
      break;
    case kLoadValue:
      for (int i = 0; i < n && !g_value; ++i)
        if (strcasecmp(pairs[i].attribute.c_str(), g_want.c_str()) == 0) g_value = pairs[i].value;
      break;
    case kLoadCheck:
      g_found = true;
      break;
    case kLoadQuiet:
      break;
    case kLoadDefault:
      do_default(book, entry, pairs, n);
      break;
  }
}

// Collects a listing of a book's access list (ABK_GetBookACL) while set.
static std::vector<AM_ACL>* g_acl_rows = nullptr;

void mm_abook_acl(MBook* book, const char* identifier, const char* rights) {
  const int id = SlotOf(book);
  if (id && !identifier && rights) g_slots[id - 1].rights = rights;
  // A server's list is bounded: a runaway answer must not eat the memory.
  if (id && identifier && rights && g_acl_rows && g_acl_rows->size() < 10000)
    g_acl_rows->push_back(AM_ACL{identifier, ABK_FlagsOfRights(rights), rights});
}

// --- Entries --------------------------------------------------------------------

AddressEntry* allocateNewEntry(const char* name, int is_list, int book) {
  return new AddressEntry{static_cast<int16_t>(book), is_list, name ? name : ""};
}

void ABK_freeEntry(AddressEntry*& entry) {
  if (!entry) {
    Trace(kTraceBooks, kTraceAll, "Attempted to free NULL entry struct\n");
    return;
  }
  Trace(kTraceBooks, kTraceAll, "About to free entry struct for '%s'\n", entry->name.c_str());
  delete entry;
  entry = nullptr;
}

bool ABK_entriesEqual(const AddressEntry& a, const AddressEntry& b) { return a.book == b.book && a.name == b.name; }
const char* ABK_EntryGetName(const AddressEntry& entry) { return entry.name.c_str(); }
void AM_DestroyEntryList(EntryList& list) { list.clear(); }

// --- Start and end --------------------------------------------------------------

int ABK_init() {
  for (BOOK_SLOT& s : g_slots) s = BOOK_SLOT{};
  short on = 1;
  g_enable_remote = !Opt_LookupBoolean("AddrBook.EnableRemote", &on, kOptSession) || on;
  on = 1;
  g_enable_local = !Opt_LookupBoolean("AddrBook.EnableLocal", &on, kOptSession) || on;
  imsp_abook_session_free(g_remote);
  g_remote_names.clear();
  ReadServerAddress();
  if (g_remote_host.empty()) g_enable_remote = false;
  if (g_enable_remote && !IsOffline()) {
    PrimeLogin();
    WIN_start_critical();
    g_remote = imsp_abook_session_new(g_remote_host.c_str(), g_remote_port);
    WIN_end_critical();
    if (!g_remote) {
      // This session goes on with the local books alone.
      g_enable_remote = false;
      const std::string text = "Failed to initialize support stream " + g_remote_host + "...";
      mm_log(text.c_str(), 2);
    }
  }
  isam_abook_forget_dir();
  delete g_local;
  g_local = new AB_SESSION;
  g_local->drivers = isam_driver();
  if (!g_local->drivers) {
    ErrorShow(2028, "ABK_init: Failed to initialize support stream data structure");
    return 0;
  }
  return 1;
}

void ABK_shutdown() {
  for (int id = 1; id <= kMaxBooks; ++id) ABK_closeBook(id);
  delete g_local;
  imsp_abook_session_free(g_remote);
  g_local = nullptr;
  g_remote_names.clear();
  g_search.clear();
}

AB_SESSION* ABK_localSession() { return g_local; }
AB_SESSION* ABK_remoteSession() { return RemoteActive() ? g_remote : nullptr; }

int ABK_ping() {
  if (!g_remote || IsOffline()) return 1;
  {
    DriverCall c(kLoadQuiet);
    if (imsp_abook_ping(g_remote)) return 1;
  }
  Trace(kTraceBooks, kTraceCritical, "ABK_ping: IMSP server ping failed.\n");
  if (IsOffline()) return 1;
  // The address is read again: a server moved in the preferences is
  // reached at its new place.
  ReadServerAddress();
  long ok;
  {
    PrimeLogin();
    DriverCall c(kLoadQuiet);
    ok = imsp_abook_reconnect(g_remote, g_remote_host.c_str(), g_remote_port);
  }
  if (!ok) {
    Trace(kTraceBooks, kTraceCritical, "ABK_ping: failed to reconnect to server.\n");
    return 0;
  }
  // Each book opened anew in its own slot, so that windows holding ids keep
  // their books, now on the new connection.
  for (int id = 1; id <= kMaxBooks; ++id) {
    BOOK_SLOT& s = g_slots[id - 1];
    if (!s.open) continue;
    AB_SESSION* session = s.book->session;
    const std::string name = s.book->name;
    ABK_closeBook(id);
    ReopenIn(id, session, name.c_str());
  }
  return 1;
}

// --- Books ----------------------------------------------------------------------

std::vector<std::string> AM_BookGetBooks() {
  CreateDefaultBooks();
  std::vector<std::string> names;
  if (g_enable_local) names = FindBooks(g_local, "*");
  if (RemoteActive()) {
    g_remote_names = FindBooks(g_remote, "*");
    names.insert(names.end(), g_remote_names.begin(), g_remote_names.end());
  }
  return names;
}

BOOK_SLOT* ABK_slot(int id) { return id >= 1 && id <= kMaxBooks ? &g_slots[id - 1] : nullptr; }

int AM_GetBookID(const char* name) {
  for (int i = 0; i < kMaxBooks; ++i)
    if (name && g_slots[i].open && g_slots[i].book->name == name) return i + 1;
  return 0;
}

int ABK_openBook(const char* name) {
  if (int id = AM_GetBookID(name)) return id;
  int id = 0;
  for (int i = 0; i < kMaxBooks && !id; ++i)
    if (!g_slots[i].open) id = i + 1;
  if (!id) {
    Trace(kTraceBooks, kTraceCritical, "ABK_openBook: no free slot for '%s'\n", name ? name : "");
    return 0;
  }
  // A name the server listed is the server's book.
  const bool remote = RemoteActive() && name &&
                      std::find(g_remote_names.begin(), g_remote_names.end(), name) != g_remote_names.end();
  return ReopenIn(id, remote ? g_remote : g_local, name) ? id : 0;
}

bool ABK_isRemoteBook(int id) {
  MBook* b = BookOf(id);
  return !b || (b->driver && std::strcmp(b->driver->name, "IMSP") == 0);
}

void ABK_closeBook(int id) {
  BOOK_SLOT* s = ABK_slot(id);
  if (!s || !s->open) return;
  {
    DriverCall c(kLoadQuiet);
    abook_close(s->book);
  }
  *s = BOOK_SLOT{};
}

bool ABK_DoesUserHaveACLRight(int id, char right) {
  MBook* b = BookOf(id);
  return b && right && g_slots[id - 1].rights.find(right) != std::string::npos;
}

int AM_BookSave(int id, const char* new_name) {
  MBook* b = BookOf(id);
  if (!b || !new_name) return 0;
  AB_SESSION* session = b->session;
  long ok;
  {
    DriverCall c(kLoadQuiet);
    ok = abook_rename(session, b->name.c_str(), new_name);
  }
  if (!ok) {
    mm_log("AM_BookSave: failed to rename book.", 2);
    return 0;
  }
  // The same slot, so that windows holding the id keep their book.
  ABK_closeBook(id);
  if (session == g_remote)
    std::replace(g_remote_names.begin(), g_remote_names.end(), b->name, std::string(new_name));
  return ReopenIn(id, session, new_name);
}

std::string ABK_createNewABook(int kind, const char* name) {
  if (!name || !*name) return "";
  if (kind == kBookRemote) {
    if (!RemoteActive()) return "";
    // The server keeps a user's books under the user's name.
    const std::string full = std::string(imsp_abook_user(g_remote)) + "." + name;
    DriverCall c(kLoadQuiet);
    if (!abook_create(g_remote, full.c_str())) return "";
    g_remote_names.push_back(full);
    return full;
  }
  if (kind != kBookLocal) return "";
  DriverCall c(kLoadQuiet);
  return abook_create(g_local, name) ? name : "";
}

int ABK_SetBookACL(int id, const char* identifier, unsigned flags) {
  MBook* b = BookOf(id);
  if (!b || !identifier || !*identifier) return 0;
  const char* rights = (flags & 4) ? "lrwcda" : (flags & 2) ? "lrwcd" : (flags & 1) ? "lr" : "";
  DriverCall c(kLoadQuiet);
  return abook_setacl(b, identifier, rights) ? 1 : 0;
}

int ABK_DeleteBookACL(int id, const char* identifier) {
  MBook* b = BookOf(id);
  if (!b || !identifier || !*identifier) return 0;
  DriverCall c(kLoadQuiet);
  return abook_delacl(b, identifier) ? 1 : 0;
}

unsigned ABK_FlagsOfRights(const char* rights) {
  const std::string r = rights ? rights : "";
  auto all = [&r](const char* letters) { return std::string(letters).find_first_not_of(r) == std::string::npos; };
  return (all("lr") ? 1u : 0u) | (all("wcd") ? 2u : 0u) | (all("a") ? 4u : 0u);
}

int ABK_GetBookACL(int id, std::vector<AM_ACL>* out) {
  out->clear();
  MBook* b = BookOf(id);
  if (!b) return 0;
  std::vector<AM_ACL> rows;
  DriverCall c(kLoadQuiet);
  abook_getacl(b, nullptr);
  g_acl_rows = &rows;
  const long ok = abook_getacl(b, "");
  g_acl_rows = nullptr;
  if (!ok) return 0;
  *out = std::move(rows);
  return 1;
}

// --- Entries in books -----------------------------------------------------------

EntryList AM_EntryGetEntries(int id) {
  EntryList list;
  MBook* b = BookOf(id);
  if (!b) return list;
  Collect(&list, [&] { return abook_getlist(b); });
  if (ABK_isRemoteBook(id)) {
    // The server's search does not tell entries without an attribute
    // reliably: each entry is fetched, and its "member" marks a list.
    for (AddressEntry& e : list)
      for (const auto& [a, v] : entry_get_attributes(e))
        if (strcasecmp(a.c_str(), "member") == 0) e.is_list = 1;
    return list;
  }
  // Lists are told apart by their "member" attribute: one search marks them.
  EntryList lists = AM_EntryGetListEntries(id);
  for (AddressEntry& e : list)
    for (const AddressEntry& l : lists)
      if (l.name == e.name) e.is_list = 1;
  return list;
}

EntryList AM_EntryGetListEntries(int id) {
  EntryList list;
  MBook* b = BookOf(id);
  if (!b) return list;
  if (ABK_isRemoteBook(id)) {
    for (AddressEntry& e : AM_EntryGetEntries(id))
      if (e.is_list) list.push_back(std::move(e));
    return list;
  }
  const AbPair member{"member", "*"};
  Collect(&list, [&] { return abook_search(b, "*", &member, 1); });
  for (AddressEntry& e : list) e.is_list = 1;
  return list;
}

EntryList AM_FetchLists() {
  EntryList all;
  for (int id = 1; id <= kMaxBooks; ++id)
    if (BookOf(id))
      for (AddressEntry& e : AM_EntryGetListEntries(id)) all.push_back(std::move(e));
  std::sort(all.begin(), all.end(), Less);
  return all;
}

AttrList entry_get_attributes(const AddressEntry& entry) {
  AttrList attrs;
  MBook* b = BookOf(entry.book);
  if (!b) return attrs;
  DriverCall c(kLoadAttributes);
  g_attrs = &attrs;
  abook_fetch(b, entry.name.c_str());
  g_attrs = nullptr;
  return attrs;
}

std::optional<std::string> entry_get_value(const AddressEntry& entry, const char* attribute) {
  MBook* b = BookOf(entry.book);
  if (!b || !attribute) return std::nullopt;
  DriverCall c(kLoadValue);
  g_want = attribute;
  g_value.reset();
  abook_fetch(b, entry.name.c_str());
  std::optional<std::string> v = std::move(g_value);
  g_value.reset();
  return v;
}

// A store replaces the whole entry, so the other attributes go with it.
int entry_set_value(const AddressEntry& entry, const char* attribute, const char* value) {
  MBook* b = BookOf(entry.book);
  if (!b || !attribute) return 0;
  AttrList attrs = entry_get_attributes(entry);
  bool set = false;
  for (auto& [a, v] : attrs)
    if (!set && strcasecmp(a.c_str(), attribute) == 0) {
      v = value ? value : "";
      set = true;
    }
  if (!set) attrs.emplace_back(attribute, value ? value : "");
  std::vector<AbPair> pairs;
  for (auto& [a, v] : attrs) pairs.push_back({a, v});
  return Nice_imsp_io(kBookLocal, b, entry.name.c_str(), pairs.data(), static_cast<int>(pairs.size()));
}

int Nice_imsp_io(int op, MBook* book, const char* entry, const AbPair* pairs, int n) {
  if (!book || !entry) return 0;
  DriverCall c(kLoadQuiet);
  if (!abook_lock(book, entry)) return 0;
  const long ok = op == kBookLocal ? abook_store(book, entry, pairs, n) : op == kBookRemote ? abook_deleteent(book, entry) : 0;
  abook_unlock(book, entry);
  return ok ? 1 : 0;
}

int AM_EntryRemove(const AddressEntry& entry) {
  return Nice_imsp_io(kBookRemote, BookOf(entry.book), entry.name.c_str(), nullptr, 0);
}

// A person becomes an empty list; a list becomes a person, its members gone.
int AM_EntryChangeType(AddressEntry& entry) {
  MBook* b = BookOf(entry.book);
  if (!b) return 0;
  AttrList attrs = entry_get_attributes(entry);
  std::vector<AbPair> pairs;
  for (auto& [a, v] : attrs)
    if (strcasecmp(a.c_str(), "member") != 0) pairs.push_back({a, v});
  if (!entry.is_list) pairs.push_back({"member", kNoMembers});
  if (pairs.empty()) pairs.push_back({"member", kNoMembers});  // nothing left would delete the entry
  if (!Nice_imsp_io(kBookLocal, b, entry.name.c_str(), pairs.data(), static_cast<int>(pairs.size()))) return 0;
  entry.is_list = !entry.is_list;
  return 1;
}

// --- Search ---------------------------------------------------------------------

void AM_SearchStart() { g_search.clear(); }
EntryList AM_SearchGetList() { return g_search; }
void AM_SearchCleanup() { g_search.clear(); }

int AM_Search(int id, const char* criteria) {
  MBook* b = BookOf(id);
  std::string name_pattern;
  std::vector<AbPair> pairs;
  if (!b || AM_ParseCriteria(criteria, &name_pattern, &pairs) != kSearchOk) return kSearchFailed;
  EntryList found;
  const long ok = Collect(&found, [&] {
    // A search by name alone still hands the drivers a (empty) list of pairs.
    static const AbPair kNone{};
    return abook_search(b, name_pattern.c_str(), pairs.empty() ? &kNone : pairs.data(), static_cast<int>(pairs.size()));
  });
  if (!ok) return kSearchFailed;
  const bool lists = std::any_of(pairs.begin(), pairs.end(),
                                 [](const AbPair& p) { return strcasecmp(p.attribute.c_str(), "member") == 0; });
  for (AddressEntry& e : found) {
    if (lists) e.is_list = 1;
    auto at = std::lower_bound(g_search.begin(), g_search.end(), e, Less);
    if (at == g_search.end() || !ABK_entriesEqual(*at, e)) g_search.insert(at, e);
  }
  return kSearchOk;
}

// --- Lists ----------------------------------------------------------------------

namespace {

bool IsSentinel(const std::string& v) { return v.compare(0, 21, kNoMembers, 21) == 0; }

std::vector<std::string> Tokens(const std::string& v) {
  std::vector<std::string> out;
  size_t at = 0;
  while (at < v.size()) {
    size_t end = v.find('\n', at);
    if (end == std::string::npos) end = v.size();
    if (end > at) out.push_back(v.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

std::string Joined(const std::vector<std::string>& tokens) {
  std::string v;
  for (const std::string& t : tokens) v += t + "\n";
  return v.empty() ? kNoMembers : v;
}

}  // namespace

int ABK_NewList(int id, const char* name) {
  MBook* b = BookOf(id);
  if (!b || !name || !*name) return 0;
  const AbPair member{"member", kNoMembers};
  return Nice_imsp_io(kBookLocal, b, name, &member, 1);
}

EntryList ABK_membersOfList(const AddressEntry& list) {
  EntryList members;
  const std::optional<std::string> v = entry_get_value(list, "member");
  if (!v || IsSentinel(*v)) return members;
  for (std::string& t : Tokens(*v)) members.push_back(AddressEntry{list.book, 0, std::move(t)});
  return members;
}

EntryList ABK_membersOfNameList(int id, const char* name) {
  return ABK_membersOfList(AddressEntry{static_cast<int16_t>(id), 1, name ? name : ""});
}

int ABK_addToList(const AddressEntry& list, const AddressEntry& entry) {
  std::optional<std::string> v = entry_get_value(list, "member");
  std::string value;
  if (!v || IsSentinel(*v)) {
    value = entry.name;
  } else {
    value = *v;
    if (!value.empty() && value.back() != '\n') value += '\n';
    value += entry.name;
  }
  return entry_set_value(list, "member", value.c_str());
}

int AM_EntryRemoveFromList(const AddressEntry& entry, const AddressEntry& list) {
  MBook* b = BookOf(list.book);
  if (!b) return 0;
  const AbPair cond{"Member", "*" + entry.name + "*"};
  {
    DriverCall c(kLoadCheck);
    g_found = false;
    abook_search(b, list.name.c_str(), &cond, 1);
  }
  if (!g_found) return 1;
  const std::optional<std::string> v = entry_get_value(list, "member");
  if (!v || IsSentinel(*v)) return 1;
  std::vector<std::string> tokens = Tokens(*v);
  tokens.erase(std::remove(tokens.begin(), tokens.end(), entry.name), tokens.end());
  return entry_set_value(list, "member", Joined(tokens).c_str());
}

int ABK_RenameEntryInList(int id, const char* list, const char* old_name, const char* new_name) {
  const AddressEntry l{static_cast<int16_t>(id), 1, list ? list : ""};
  const std::optional<std::string> v = entry_get_value(l, "member");
  if (!v || !old_name || !new_name || v->find(old_name) == std::string::npos) return 1;
  std::vector<std::string> tokens = Tokens(*v);
  auto at = std::find(tokens.begin(), tokens.end(), old_name);
  if (at == tokens.end()) return 1;
  *at = new_name;  // the first occurrence only
  Trace(kTraceBooks, kTraceMedium, "ABK_RenameEntryInList: substituting %s for %s in list entry %s\n", new_name, old_name,
        l.name.c_str());
  return entry_set_value(l, "member", Joined(tokens).c_str());
}

int AM_EntryRenameInAllLists(int id, const AddressEntry& entry, const char* new_name) {
  if (!BookOf(id)) {
    Trace(kTraceBooks, kTraceCritical, "AM_EntryRenameInAllLists: failed to get dl entry list for addressbook\n");
    return 0;
  }
  int ok = 1;
  for (const AddressEntry& l : AM_EntryGetListEntries(id))
    if (!ABK_RenameEntryInList(id, l.name.c_str(), entry.name.c_str(), new_name)) ok = 0;
  return ok;
}

// --- Compose's lookup -----------------------------------------------------------

namespace {

// Lists may hold lists; a list that holds itself, or a chain deeper than
// this, stops there.
constexpr int kMaxListDepth = 8;

void Addresses(const AddressEntry& e, int depth, std::vector<std::string>* seen,
               std::vector<std::pair<std::string, std::string>>* hits) {
  if (depth > kMaxListDepth || std::find(seen->begin(), seen->end(), e.name) != seen->end()) return;
  seen->push_back(e.name);
  std::optional<std::string> member, email;
  for (auto& [a, v] : entry_get_attributes(e)) {
    if (!member && strcasecmp(a.c_str(), "member") == 0) member = v;
    if (!email && strcasecmp(a.c_str(), "email") == 0) email = v;
  }
  if (!member) {
    hits->emplace_back(e.name, email.value_or(""));
    return;
  }
  if (IsSentinel(*member)) return;
  for (std::string& t : Tokens(*member)) Addresses(AddressEntry{e.book, 0, std::move(t)}, depth + 1, seen, hits);
}

}  // namespace

void ABK_EntryAddresses(const AddressEntry& entry, ResolvedAddresses* hits) {
  std::vector<std::string> seen;
  Addresses(entry, 0, &seen, hits);
}

namespace {

// A search option: its value, with the default stored when it is missing.
int SearchSwitch(const char* name) {
  short on = 1;
  if (!Opt_LookupBoolean(name, &on, kOptSession)) {
    Opt_AssignBoolean(name, 1, kOptPermanent, 0);
    on = 1;
  }
  return on ? 1 : 0;
}

std::string SearchType() {
  std::string type = Opt_LookupText("AddrBook.SearchType", kOptSession);
  if (type.empty()) {
    type = "Starts With";
    Opt_AssignString("AddrBook.SearchType", type.c_str(), kOptPermanent, 0);
  }
  return type;
}

}  // namespace

int ABK_ResolveAddress(const std::string& mailbox, const std::string& host, ResolvedAddresses* hits) {
  // The criteria have no escape for quotes and bars; such text is never a
  // book name, so it is not looked up rather than searched wrongly.
  const auto plain = [](const std::string& s) {
    return s.size() < 200 && std::none_of(s.begin(), s.end(), [](char c) {
             return c == '"' || c == '|' || static_cast<unsigned char>(c) < 32;
           });
  };
  if (!g_local || !g_enable_local || mailbox.empty() || !plain(mailbox) || !plain(host)) return 0;
  const int by_name = SearchSwitch("AddrBook.SearchName");
  const int by_alias = SearchSwitch("AddrBook.SearchAlias");
  const int by_email = SearchSwitch("AddrBook.SearchEmail");
  const std::string type = SearchType();
  const bool leading = type == "Ends With" || type == "Contains";
  const bool trailing = type == "Starts With" || type == "Contains";
  std::string pattern = std::string(leading ? "*" : "") + mailbox;
  if (!host.empty() && host[0] != ' ') pattern += "@" + host;
  if (trailing) pattern += "*";

  // Every book takes part unless its AddrBook.SearchFlag.<book> is off.
  for (const std::string& book : FindBooks(g_local, "*")) {
    const int id = ABK_openBook(book.c_str());
    if (!id) continue;
    short flag = 1;
    Opt_LookupBoolean(("AddrBook.SearchFlag." + book).c_str(), &flag, kOptSession);
    g_slots[id - 1].search = flag ? 1 : 0;
  }
  const EntryList saved = g_search;  // a search window's results stay
  AM_SearchStart();
  const std::pair<int, const char*> wanted[] = {{by_name, "Name"}, {by_alias, "Alias"}, {by_email, "Email"}};
  for (int id = 1; id < kMaxBooks; ++id) {
    if (!g_slots[id - 1].open || !g_slots[id - 1].search) continue;
    for (const auto& [on, attribute] : wanted) {
      if (!on) continue;
      const std::string criterion = "\"" + std::string(attribute) + "\" \"" + pattern + "\"";
      if (AM_Search(id, criterion.c_str()) == kSearchFailed) {
        AM_SearchCleanup();
        g_search = saved;
        return 0;
      }
    }
  }
  const EntryList found = AM_SearchGetList();
  AM_SearchCleanup();
  g_search = saved;
  for (const AddressEntry& e : found) {
    std::vector<std::string> seen;
    Addresses(e, 0, &seen, hits);
  }
  Trace(kTraceBooks, kTraceMedium, "ABK_ResolveAddress: '%s' gave %zu entries, %zu addresses\n", pattern.c_str(),
        found.size(), hits->size());
  return hits->empty() ? 0 : 1;
}
