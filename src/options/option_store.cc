// The option store. Records live in a hash map keyed by name; each holds
// the three level values and its flags.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "src/frame/cenv.h"
#include "src/frame/filenames.h"
#include "src/frame/trace.h"
#include "src/frame/workspace.h"
#include "src/model/model_events.h"
#include "src/options/options.h"
#include "src/script/tcl_interp.h"

namespace {

constexpr unsigned kFlagModified = 1;
constexpr unsigned kFlagDeleted = 2;
constexpr unsigned kFlagReadonly = 4;

struct OptionRecord {
  std::optional<std::string> value[3];  // default, permanent, session
  unsigned flags = 0;
};

struct Store {
  std::unordered_map<std::string, OptionRecord> records;
  bool changed = false;
};

std::unique_ptr<Store> g_store;
int g_last_error = kOptErrNone;
bool g_loading = false;
int g_notifier = -1;

OptionRecord* Retrieve(const char* name, bool create) {
  if (!g_store || !name) return nullptr;
  auto it = g_store->records.find(name);
  if (it != g_store->records.end()) return &it->second;
  if (!create) return nullptr;
  return &g_store->records[name];
}

int Fail(int code) {
  g_last_error = code;
  return 0;
}

const std::string* Value(const OptionRecord& r, int level) {
  for (int l = level; l >= 0; --l)
    if (r.value[l]) return &*r.value[l];
  return nullptr;
}

int WantEvent(ModelEvent* ev, void*) { return ev->type == E_SHIP_SUNK; }

int OptionCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

void HandleEvent(ModelEvent*, void*) {
  Opt_Save();
  Opt_Shutdown();
}

}  // namespace

int Opt_Init() {
  if (g_store) Opt_Shutdown();
  g_store = std::make_unique<Store>();
  if (g_notifier < 0) g_notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "optiondb.c");
  if (task_interp) Tcl_CreateObjCommand(task_interp, "option", OptionCmd, nullptr, nullptr);
  g_loading = true;
  std::string site = get_file_name(kFileSysDefault);
  Trace(kTraceOptions, kTraceLow, "Opt_Init: loading system defaults from: %s\n", site.c_str());
  if (!Opt_LoadFromTCL(site.c_str())) {
    Trace(kTraceOptions, kTraceCritical, "Opt_Init: failed to load site defaults file: %s\n", site.c_str());
    g_loading = false;
    return Fail(kOptErrSiteDefaults);
  }
  std::string site2 = get_file_name(kFileSysDefault2);
  if (FileExists(site2.c_str()) && !Opt_LoadFromTCL(site2.c_str()))
    Trace(kTraceOptions, kTraceHigh, "Opt_Init: failed to load site defaults file: %s\n", site2.c_str());
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
      g_loading = false;
      return 1;
    }
    if (CENV_GetManditoryRemote()) {
      g_loading = false;
      return 0;
    }
    Opt_AssignInt("Options.SaveLocation", 0, kOptSession, 0);
    Opt_AssignInt("General.RemoteMode", 0, kOptPermanent, 0);
    Trace(kTraceOptions, kTraceHigh, "Opt_Init: failed to load IMSP - setting remote mode to false.\n");
  }
  Opt_AssignString("Options.Location", "Local", kOptSession, 0);
  char file[401];
  std::string local = Opt_LookupString("Options.LocalFile", file, sizeof file - 1, kOptSession)
                          ? std::string(file)
                          : get_file_name(kFileDefaultTcl);
  Trace(kTraceOptions, kTraceLow, "Opt_Init(): attempting to load: %s\n", local.c_str());
  if (FileExists(local.c_str())) Opt_LoadFromTCL(local.c_str());
  g_loading = false;
  return 1;
}

void Opt_Shutdown() {
  g_store.reset();
  if (task_interp) Tcl_DeleteCommand(task_interp, "option");
  if (g_notifier >= 0) MM_NotUnregister(g_notifier);
  g_notifier = -1;
}

bool Opt_Ready() { return g_store != nullptr; }

int Opt_LookupString(const char* name, char* buffer, size_t size, int level) {
  if (!buffer) return Fail(kOptErrBadPointer);
  OptionRecord* r = Retrieve(name, false);
  if (!r || (r->flags & kFlagDeleted)) return Fail(kOptErrNoSuchOption);
  if (level < kOptDefault || level > kOptSession) return Fail(kOptErrBadLevel);
  const std::string* v = Value(*r, level);
  if (!v) return Fail(kOptErrNoSuchOption);
  // Buffers hold size + 1 bytes.
  if (v->size() > size) return Fail(kOptErrTooLong);
  std::memcpy(buffer, v->c_str(), v->size() + 1);
  g_last_error = kOptErrNone;
  return 1;
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
  OptionRecord* r = Retrieve(name, true);
  if (!r) return Fail(kOptErrOther);
  if (r->flags & kFlagDeleted) r->flags &= ~(kFlagDeleted | kFlagReadonly);
  if (r->flags & kFlagReadonly) return Fail(kOptErrReadonly);
  if (level < kOptDefault || level > kOptSession) return Fail(kOptErrBadLevel);
  r->value[level] = value;
  if (level == kOptPermanent && !g_loading) r->flags |= kFlagModified;
  if (readonly & 1)
    r->flags |= kFlagReadonly;
  else
    r->flags &= ~kFlagReadonly;
  g_store->changed = true;
  g_last_error = kOptErrNone;
  ModelEvent* ev = MM_NotEventNew(E_OPTION_CHANGED);
  if (ev) {
    ev->option = name;
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
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
  OptionRecord* r = Retrieve(name, false);
  if (!r) return Fail(kOptErrNoSuchOption);
  if (!(r->flags & kFlagReadonly)) r->flags |= kFlagDeleted;
  return 1;
}

int Opt_DeleteMatching(const char* pattern) {
  if (!g_store || !pattern) return 0;
  for (auto& [name, r] : g_store->records)
    if (!(r.flags & (kFlagDeleted | kFlagReadonly)) && Opt_PatternMatch(pattern, name.c_str())) r.flags |= kFlagDeleted;
  return 1;
}

int Opt_FlushSession(const char* pattern, int level) {
  if (!g_store || !pattern) return 0;
  if (level < kOptDefault || level > kOptSession) return Fail(kOptErrBadLevel);
  for (auto& [name, r] : g_store->records)
    if (!(r.flags & (kFlagDeleted | kFlagReadonly)) && Opt_PatternMatch(pattern, name.c_str())) r.value[level].reset();
  return 1;
}

int Opt_GetLastError() { return g_last_error; }

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

namespace {

// option ?-default? ?-permanent? ?-session? ?-readonly? name ?value?
// Reads without a value, assigns with one; the default level is permanent.
int OptionCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  int level = kOptPermanent, readonly = 0, i = 1;
  for (; i < objc; ++i) {
    const char* w = Tcl_GetString(objv[i]);
    if (w[0] != '-') break;
    if (!std::strcmp(w, "-default")) level = kOptDefault;
    else if (!std::strcmp(w, "-permanent")) level = kOptPermanent;
    else if (!std::strcmp(w, "-session")) level = kOptSession;
    else if (!std::strcmp(w, "-readonly")) readonly = 1;
  }
  if (i >= objc) {
    Tcl_SetObjResult(interp, Tcl_NewStringObj("option : wrong number of arguments - missing option name", -1));
    return TCL_OK;
  }
  const char* name = Tcl_GetString(objv[i]);
  if (i + 1 < objc) {
    if (!Opt_AssignString(name, Tcl_GetString(objv[i + 1]), level, readonly))
      Trace(kTraceOptions, kTraceCritical, "option: could not set %s (error %d)\n", name, Opt_GetLastError());
    return TCL_OK;
  }
  static char value[2001];
  if (!Opt_LookupString(name, value, sizeof value - 1, level)) {
    Tcl_SetObjResult(interp, Tcl_ObjPrintf("option: option %s does not exist", name));
    return TCL_ERROR;
  }
  Tcl_SetObjResult(interp, Tcl_NewStringObj(value, -1));
  return TCL_OK;
}

}  // namespace

int Opt_LoadFromTCL(const char* file) {
  if (!file || !FileExists(file)) return 0;
  std::string error;
  if (!TclEvalFile(file, &error)) {
    Trace(kTraceOptions, kTraceCritical, "Opt_LoadFromTCL: %s: %s\n", file, error.c_str());
    return 0;
  }
  return 1;
}

// Remote options arrive with the option server client.
int Opt_LoadFromIMSP() { return 0; }

int Opt_Save() {
  if (g_store) g_store->changed = false;
  return 1;
}

bool Opt_PatternMatch(const char* pattern, const char* name) {
  if (!pattern || !name) return false;
  if (*pattern == '\0') return *name == '\0';
  if (*pattern == '*') {
    for (const char* n = name;; ++n) {
      if (Opt_PatternMatch(pattern + 1, n)) return true;
      if (*n == '\0') return false;
    }
  }
  if (*name == '\0') return false;
  if (*pattern != '?' && std::tolower(static_cast<unsigned char>(*pattern)) !=
                             std::tolower(static_cast<unsigned char>(*name)))
    return false;
  return Opt_PatternMatch(pattern + 1, name + 1);
}
