// The option store: one record per name in a chained hash table, each
// with its three level values and its flags.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rclib/dshash.h"
#include "rclib/rc.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/session.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "src/base/tcl_interp.h"

namespace {

struct OptionRecord {
  std::string key;
  std::optional<std::string> value[3];  // default, permanent, session
  unsigned flags = 0;
};

struct Store {
  HASH_TABLE* table = nullptr;
  long count = 0;
  bool changed = false;
};

constexpr int kHashId = 4;
constexpr int kHashParam = 1;

Store* g_store = nullptr;
int g_last_error = kOptErrNone;
bool g_loading = false;
int g_notifier = -1;

int Fail(int code) {
  g_last_error = code;
  return 0;
}

int Succeed() {
  g_last_error = kOptErrNone;
  return 1;
}

OptionRecord* RetrieveRecord(const char* name, bool create) {
  if (!g_store || !name) return nullptr;
  void* ptr = nullptr;
  if (ht_get(g_store->table, name, nullptr, &ptr) == RC_OK) return static_cast<OptionRecord*>(ptr);
  if (!create) return nullptr;
  auto* r = new (std::nothrow) OptionRecord;
  if (!r) return nullptr;
  r->key = name;
  if (ht_put(g_store->table, name, 0, r) != RC_OK) {
    delete r;
    return nullptr;
  }
  ++g_store->count;
  return r;
}

// The value seen at a level: its own, else the next lower one that has one.
const std::string* Effective(const OptionRecord& r, int level) {
  for (int l = level; l >= kOptDefault; --l)
    if (r.value[l]) return &*r.value[l];
  return nullptr;
}

bool ValidLevel(int level) { return level >= kOptDefault && level <= kOptSession; }

template <typename F>
void ForEachRecord(F f) {
  if (!g_store) return;
  void* ptr = nullptr;
  for (int rc = ht_get_first(g_store->table, nullptr, nullptr, &ptr); rc == RC_OK;
       rc = ht_get_next(g_store->table, nullptr, nullptr, &ptr))
    f(*static_cast<OptionRecord*>(ptr));
}

int WantEvent(ModelEvent* ev, void*) { return ev->type == E_SHIP_SUNK; }

// The store saves itself at the last moment the windows leave it.
void HandleEvent(ModelEvent*, void*) {
  Opt_Save();
  Opt_Shutdown();
}

void PostChanged(const char* name) {
  const std::string value = Opt_LookupText(name, kOptSession);
  ModelEvent* ev = MM_NotEventNew(E_OPTION_CHANGED);
  ev->option = name;
  ev->option_value = value.c_str();
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

bool LoadSiteDefaults() {
  std::string site = get_file_name(kFileSysDefault);
  Trace(kTraceOptions, kTraceLow, "Opt_Init: loading system defaults from: %s\n", site.c_str());
  if (!Opt_LoadFromTCL(site.c_str())) {
    Trace(kTraceOptions, kTraceCritical, "Opt_Init: failed to load site defaults file: %s\n", site.c_str());
    return false;
  }
  std::string site2 = get_file_name(kFileSysDefault2);
  if (FileExists(site2.c_str())) {
    Trace(kTraceOptions, kTraceLow, "Opt_Init: loading system defaults from: %s\n", site2.c_str());
    if (!Opt_LoadFromTCL(site2.c_str()))
      Trace(kTraceOptions, kTraceCritical, "Opt_Init: failed to load site defaults file: %s\n", site2.c_str());
  }
  return true;
}

void Finish() {
  g_loading = false;
  Opt_TranslateVersion();
  xvt_progress_close();
}

}  // namespace

int Opt_Init() {
  if (g_store) Opt_Shutdown();
  g_store = new (std::nothrow) Store;
  if (!g_store) {
    Trace(kTraceOptions, kTraceCritical, "Opt_Init: failed to allocate %d bytes for cache db\n",
          static_cast<int>(sizeof(Store)));
    return Fail(kOptErrAlloc);
  }
  if (ht_create(kOptHashChains, kHashId, kHashParam, &g_store->table) != RC_OK) {
    Trace(kTraceOptions, kTraceCritical, "Opt_Init: failed cache db hash table\n");
    delete g_store;
    g_store = nullptr;
    return Fail(kOptErrHashTable);
  }
  if (g_notifier < 0) g_notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "optiondb.c");
  Opt_RegisterCommand(task_interp);
  xvt_scr_set_busy_cursor();
  g_loading = true;
  xvt_progress_open("Velmar", "Reading site defaults ...", false);

  if (!LoadSiteDefaults()) {
    g_loading = false;
    xvt_progress_close();
    return Fail(kOptErrSiteDefaults);
  }
  Opt_AssignInt("General.RemoteMode", 1, kOptSession, 0);
  short mobile = 0;
  if (Opt_LookupBoolean("General.Mobile", &mobile, kOptSession) && mobile) {
    CENV_SetSessionManagrment(1);
    CENV_SetConnectionMode(kConnPrompt);
  }
  ResolveConnectionMode();
  Opt_GetLocation();

  char location[51];
  if (!Opt_LookupString("Options.Location", location, sizeof location - 1, kOptSession)) {
    Opt_AssignString("Options.Location", "Local", kOptSession, 0);
    std::snprintf(location, sizeof location, "Local");
  }
  if (strcasecmp(location, "Remote") == 0) {
    if (Opt_LoadFromIMSP()) {
      Finish();
      return 1;
    }
    if (CENV_GetManditoryRemote()) {
      g_loading = false;
      xvt_progress_close();
      return 0;
    }
    Opt_AssignInt("Options.SaveLocation", 0, kOptSession, 0);
    Opt_AssignInt("General.RemoteMode", 0, kOptPermanent, 0);
    Trace(kTraceOptions, kTraceHigh, "Opt_Init: failed to load IMSP - setting remote mode to false.\n");
  }

  xvt_progress_set_text("Reading options from disk ...");
  Opt_AssignString("Options.Location", "Local", kOptSession, 0);
  std::string local = Opt_LookupText("Options.LocalFile", kOptSession);
  if (local.empty()) local = get_file_name(kFileDefaultTcl);
  Trace(kTraceOptions, kTraceLow, "Opt_Init(): attempting to load: %s\n", local.c_str());
  // A new user has no file yet; that is no failure.
  if (FileExists(local.c_str())) Opt_LoadFromTCL(local.c_str());
  Finish();
  return 1;
}

void Opt_Shutdown() {
  if (g_store) {
    ForEachRecord([](OptionRecord& r) { delete &r; });
    ht_destroy(&g_store->table);
    delete g_store;
    g_store = nullptr;
  }
  if (g_notifier >= 0) MM_NotUnregister(g_notifier);
  g_notifier = -1;
  if (task_interp) Tcl_DeleteCommand(task_interp, "option");
}

bool Opt_Ready() { return g_store != nullptr; }
bool Opt_Changed() { return g_store && g_store->changed; }
bool Opt_Loading() { return g_loading; }
void Opt_SetLoading(bool loading) { g_loading = loading; }

int Opt_LookupString(const char* name, char* buffer, size_t size, int level) {
  if (!buffer || !name) return Fail(kOptErrBadPointer);
  OptionRecord* r = RetrieveRecord(name, false);
  if (!r || (r->flags & kOptDeleted)) return Fail(kOptErrNoSuchOption);
  if (!ValidLevel(level)) return Fail(kOptErrBadLevel);
  const std::string* v = Effective(*r, level);
  if (!v) return Fail(kOptErrNoSuchOption);
  if (v->size() > size) return Fail(kOptErrTooLong);
  std::memcpy(buffer, v->c_str(), v->size() + 1);
  return Succeed();
}

int Opt_LookupStringLength(const char* name, int level, size_t* length) {
  if (!length || !name) return Fail(kOptErrBadPointer);
  OptionRecord* r = RetrieveRecord(name, false);
  if (!r || (r->flags & kOptDeleted)) return Fail(kOptErrNoSuchOption);
  if (!ValidLevel(level)) return Fail(kOptErrBadLevel);
  const std::string* v = Effective(*r, level);
  if (!v) return 0;
  *length = v->size();
  return Succeed();
}

char* Opt_LookupAlloc(const char* name, int level) {
  size_t length = 0;
  if (!Opt_LookupStringLength(name, level, &length)) return nullptr;
  char* copy = new (std::nothrow) char[length + 1];
  if (!copy) {
    Fail(kOptErrAlloc);
    return nullptr;
  }
  if (!Opt_LookupString(name, copy, length, level)) {
    delete[] copy;
    return nullptr;
  }
  return copy;
}

std::string Opt_LookupText(const char* name, int level) {
  size_t length = 0;
  if (!Opt_LookupStringLength(name, level, &length)) return std::string();
  std::string value(length, '\0');
  if (!Opt_LookupString(name, value.data(), length, level)) return std::string();
  return value;
}

int Opt_LookupInt(const char* name, int* out, int level) {
  char buf[101];
  if (!out) return Fail(kOptErrBadPointer);
  if (!Opt_LookupString(name, buf, sizeof buf - 1, level)) return 0;
  int value;
  if (std::sscanf(buf, "%d", &value) != 1) return Fail(kOptErrConversion);
  *out = value;
  return 1;
}

int Opt_LookupBoolean(const char* name, short* out, int level) {
  char buf[2001];
  if (!out) return Fail(kOptErrBadPointer);
  if (!Opt_LookupString(name, buf, sizeof buf - 1, level)) return 0;
  if (!strcasecmp(buf, "TRUE") || !strcasecmp(buf, "YES") || !strcasecmp(buf, "ON") || !std::strcmp(buf, "1")) {
    *out = 1;
    return 1;
  }
  if (!strcasecmp(buf, "FALSE") || !strcasecmp(buf, "NO") || !strcasecmp(buf, "OFF") || !std::strcmp(buf, "0")) {
    *out = 0;
    return 1;
  }
  return Fail(kOptErrConversion);
}

int Opt_AssignString(const char* name, const char* value, int level, int readonly) {
  if (!name || !value) return Fail(kOptErrBadPointer);
  if (std::strlen(name) > kOptMaxName || std::strlen(value) > kOptMaxValue) return Fail(kOptErrTooLong);
  OptionRecord* r = RetrieveRecord(name, true);
  if (!r) return 0;
  if (r->flags & kOptDeleted) r->flags &= ~(kOptDeleted | kOptReadonly);
  if (r->flags & kOptReadonly) return Fail(kOptErrReadonly);
  if (!ValidLevel(level)) return Fail(kOptErrBadLevel);
  r->value[level] = value;
  if (level == kOptPermanent && !g_loading) r->flags |= kOptModified;
  if (readonly & 1)
    r->flags |= kOptReadonly;
  else
    r->flags &= ~kOptReadonly;
  Succeed();
  // The record's key outlives the post, whatever the listeners do.
  std::string key = r->key;
  PostChanged(key.c_str());
  return 1;
}

int Opt_AssignBoolean(const char* name, int value, int level, int readonly) {
  char text[32];
  std::snprintf(text, sizeof text, "%d", value);
  return Opt_AssignString(name, text, level, readonly);
}

int Opt_AssignInt(const char* name, int flag, int level, int readonly) {
  return Opt_AssignString(name, flag ? "ON" : "OFF", level, readonly);
}

int Opt_Delete(const char* name) {
  OptionRecord* r = RetrieveRecord(name, false);
  if (!r) return Fail(kOptErrNoSuchOption);
  if (r->flags & kOptReadonly) return Fail(kOptErrReadonly);
  r->flags |= kOptDeleted;
  return Succeed();
}

int Opt_DeleteMatching(const char* pattern) {
  if (!g_store || !pattern) return Fail(kOptErrBadPointer);
  ForEachRecord([&](OptionRecord& r) {
    if (!(r.flags & (kOptDeleted | kOptReadonly)) && Opt_PatternMatch(pattern, r.key.c_str())) r.flags |= kOptDeleted;
  });
  return Succeed();
}

int Opt_ListMatching(const char* pattern, SLIST* list) {
  if (!g_store || !pattern || !list) return Fail(kOptErrBadPointer);
  std::vector<std::string> names;
  ForEachRecord([&](OptionRecord& r) {
    if (!(r.flags & kOptDeleted) && Opt_PatternMatch(pattern, r.key.c_str())) names.push_back(r.key);
  });
  std::sort(names.begin(), names.end());
  if (!*list) *list = xvt_slist_create();
  if (!*list) return Fail(kOptErrAlloc);
  for (const std::string& n : names) xvt_slist_add_at_elt(*list, nullptr, n.c_str(), 0);
  return Succeed();
}

int Opt_Rename(const char* old_name, const char* new_name) {
  OptionRecord* from = RetrieveRecord(old_name, false);
  if (!from || (from->flags & kOptDeleted)) return Fail(kOptErrNoSuchOption);
  if (from->flags & kOptReadonly) return Fail(kOptErrReadonly);
  if (!new_name) return Fail(kOptErrBadPointer);
  OptionRecord* to = RetrieveRecord(new_name, true);
  if (!to) return 0;
  if (to == from) return Succeed();
  for (int l = kOptDefault; l <= kOptSession; ++l) {
    to->value[l] = std::move(from->value[l]);
    from->value[l].reset();
  }
  to->flags = (to->flags & ~kOptDeleted) | kOptModified;
  from->flags |= kOptDeleted;
  return Succeed();
}

int Opt_FlushSession(const char* pattern, int level) {
  if (!g_store || !pattern) return Fail(kOptErrBadPointer);
  if (!ValidLevel(level)) return Fail(kOptErrBadLevel);
  ForEachRecord([&](OptionRecord& r) {
    if (!(r.flags & (kOptDeleted | kOptReadonly)) && Opt_PatternMatch(pattern, r.key.c_str())) r.value[level].reset();
  });
  return Succeed();
}

int Opt_SetModified(const char* name, int flag) {
  OptionRecord* r = RetrieveRecord(name, false);
  if (!r) return Fail(kOptErrNoSuchOption);
  if (flag)
    r->flags |= kOptModified;
  else
    r->flags &= ~kOptModified;
  return Succeed();
}

int Opt_SetReadonly(const char* name, int flag) {
  OptionRecord* r = RetrieveRecord(name, false);
  if (!r) return Fail(kOptErrNoSuchOption);
  if (flag)
    r->flags |= kOptReadonly;
  else
    r->flags &= ~kOptReadonly;
  return Succeed();
}

int Opt_GetReadonly(const char* name) {
  OptionRecord* r = RetrieveRecord(name, false);
  return r && (r->flags & kOptReadonly) ? 1 : 0;
}

void Opt_MarkChanged() {
  if (g_store) g_store->changed = true;
}

int Opt_GetLastError() { return g_last_error; }

void Opt_ForEach(void (*f)(const OptionView& view, void* data), void* data) {
  ForEachRecord([&](OptionRecord& r) {
    OptionView v{r.key.c_str(), {}, r.flags};
    for (int l = 0; l < 3; ++l) v.value[l] = r.value[l] ? r.value[l]->c_str() : nullptr;
    f(v, data);
  });
}

// Clears the store's changed flag and, with clear_modified, each record's.
void OptClearChanged(bool clear_modified) {
  if (!g_store) return;
  g_store->changed = false;
  if (clear_modified) ForEachRecord([](OptionRecord& r) { r.flags &= ~kOptModified; });
}

void Opt_GetLocation() {
  const char* file = CENV_GetConfigFile();
  std::string local = file ? std::string(file) : get_file_name(kFileDefaultTcl);
  Opt_AssignString("Options.LocalFile", local.c_str(), kOptSession, 0);
  if (IsOffline()) {
    Trace(kTraceOptions, kTraceLow, "Opt_GetLocation: forcing to local.\n");
    Opt_AssignString("Options.Location", "Local", kOptSession, 0);
    Opt_AssignInt("Options.MandatoryRemote", 0, kOptSession, 0);
    Opt_AssignInt("Options.SaveLocation", 0, kOptSession, 0);
    return;
  }
  if (const char* host = CENV_GetRemoteHost()) {
    Opt_AssignString("Options.RemoteHost", host, kOptSession, 0);
    Opt_AssignBoolean("Options.RemotePort", static_cast<int>(CENV_GetRemotePort()), kOptSession, 0);
  }
  Opt_AssignString("Options.Location", CENV_GetDefaultRemote() ? "Remote" : "Local", kOptSession, 0);
  short mandatory = 0;
  if (Opt_LookupBoolean("Options.MandatoryRemote", &mandatory, kOptSession) && mandatory) CENV_SetManditoryRemote(1);
  if (CENV_GetManditoryRemote()) {
    Opt_AssignString("Options.Location", "Remote", kOptSession, 0);
    Opt_AssignInt("Options.MandatoryRemote", 1, kOptSession, 0);
  }
}
