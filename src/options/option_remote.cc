// The options kept on the option server: a session opened for one load or
// one save, the listing that fills the store through mm_option, and the
// save that sends the user's own options back under the program's prefix.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/auth/auth.h"
#include "c-client/imsp/imsp.h"
#include "src/base/cenv.h"
#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/options/option_internal.h"
#include "src/options/options.h"

namespace {

// Set while a save runs: the server echoes nothing we want to read back
// into the store then.
bool g_saving_to_server = false;

// The user's own options, and those written before the program was renamed.
constexpr const char* kOwnPrefixes[] = {"velmar.", "vmrmail."};

class Critical {
 public:
  Critical() { WIN_start_critical(); }
  ~Critical() { WIN_end_critical(); }
  Critical(const Critical&) = delete;
  Critical& operator=(const Critical&) = delete;
};

struct Pending {
  std::string name;  // the store's name
  std::string value;
  bool deleted;
};

void CollectPending(const OptionView& v, void* data) {
  auto* out = static_cast<std::vector<Pending>*>(data);
  const bool deleted = v.flags & kOptDeleted;
  if (!deleted && ((v.flags & kOptReadonly) || !v.value[kOptPermanent] || (!Opt_Changed() && !(v.flags & kOptModified))))
    return;
  out->push_back({v.name, deleted || !v.value[kOptPermanent] ? "" : v.value[kOptPermanent], deleted});
}

}  // namespace

ImspSession* Open_NewStream() {
  char host[101];
  if (!Opt_LookupString("Options.RemoteHost", host, sizeof host - 1, kOptSession) || !*host) return nullptr;
  int port = 0;
  if (!Opt_LookupInt("Options.RemotePort", &port, kOptSession)) port = 0;
  ImspCallbacks callbacks;
  callbacks.option = mm_option;
  ImspSession* session = imsp_session_new(callbacks);
  if (!session) {
    ErrorShow(2041, "Open_NewStream");
    return nullptr;
  }
  xvt_progress_set_text("Connecting to option server ...");
  long ok;
  {
    Critical c;
    // The option server gets the user of the init file first; the login
    // dialog asks only when that is missing or refused.
    const char* user = CENV_GetUserid();
    const char* password = CENV_GetPassword();
    AUTH_InitLogin(user ? user : "", password ? password : "");
    ok = imsp_open(session, host, port);
  }
  if (!ok) {
    Trace(kTraceOptions, kTraceCritical, "Open_NewStream: cannot open %s:%d - %s\n", host, port, imsp_last_text(session));
    if (!AUTH_LoginCancelled()) ErrorShow(2040, host);
    imsp_session_free(&session);
    return nullptr;
  }
  return session;
}

int Opt_LoadFromIMSP() {
  Critical c;
  ImspSession* session = Open_NewStream();
  if (!session) return 0;
  xvt_progress_set_text("Reading user options ... ");
  const bool was_loading = Opt_Loading();
  Opt_SetLoading(true);
  int ok = 1;
  for (const char* pattern : {"common.*", "imsp.*", "velmar.*"})
    if (!imsp_option_get(session, pattern)) ok = 0;
  int version = 0;
  if (!Opt_LookupInt("Options.Version", &version, kOptSession) && !imsp_option_get(session, "vmrmail.*")) ok = 0;
  Opt_SetLoading(was_loading);
  if (!ok) Trace(kTraceOptions, kTraceCritical, "Opt_LoadFromIMSP: a listing failed - %s\n", imsp_last_text(session));
  imsp_session_free(&session);
  return ok;
}

int Opt_SaveToIMSP() {
  ImspSession* session;
  {
    Critical c;
    session = Open_NewStream();
  }
  if (!session) return 0;
  g_saving_to_server = true;
  const std::string host = Opt_LookupText("Options.RemoteHost", kOptSession);
  char text[160];
  std::snprintf(text, sizeof text, "Saving to %.100s ...", host.c_str());
  xvt_progress_set_text(text);

  // Collected first: the store is not walked while the network is in use.
  std::vector<Pending> pending;
  Opt_ForEach(CollectPending, &pending);
  int ok = 1;
  for (const Pending& p : pending) {
    char* key = Opt_EncodeName(("velmar." + p.name).c_str());
    if (!key) continue;  // a name that can't be encoded can't be stored either
    long sent;
    {
      Critical c;
      sent = imsp_option_set(session, key, p.deleted ? nullptr : p.value.c_str());
    }
    if (!sent) {
      Trace(kTraceOptions, kTraceCritical, "Opt_SaveToIMSP: %s refused - %s\n", key, imsp_last_text(session));
      xvt_dm_post_error("Failed to store option: %s = %s.  IMSP stream closed", key, p.value.c_str());
      delete[] key;
      ok = 0;
      break;
    }
    delete[] key;
    Opt_SetModified(p.name.c_str(), 0);
  }
  // A save that stopped keeps the store's changed flag, so that the next
  // one sends everything again.
  if (ok) OptClearChanged(false);
  g_saving_to_server = false;
  imsp_session_free(&session);
  return ok;
}

void mm_option(void*, const char* name, const char* value, int writable) {
  if (g_saving_to_server || !name || !value) return;
  std::string decoded = OptDecodeNameString(name);
  int level = kOptDefault;
  std::string key = decoded;
  for (const char* prefix : kOwnPrefixes) {
    size_t n = std::strlen(prefix);
    if (decoded.compare(0, n, prefix) == 0) {
      level = kOptPermanent;
      key = decoded.substr(n);
      break;
    }
  }
  if (key.empty()) return;
  // A lock held on the server arrives as a readonly option.
  Opt_AssignString(key.c_str(), value, level, writable ? 0 : 1);
}
