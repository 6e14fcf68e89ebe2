// Where the options live between sessions: the local option file (a script
// of `option` commands), the option server, and the init file that says
// which of them to use.
#include <strings.h>
#include <tcl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "c-client/auth/auth.h"
#include "rclib/safe_file.h"
#include "src/base/base64.h"
#include "src/base/cenv.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/option_internal.h"
#include "src/options/options.h"

void OptRegisterByteCommand(Tcl_Interp* interp);

namespace {

// An option file is data, not a program: it is evaluated in an interpreter
// of its own that can set options and make simple decisions, but cannot
// start programs, touch files, loop or define procedures, and stops after
// a fixed number of commands.
constexpr const char* kAllowed[] = {"if", "expr", "list", "catch", "return", "error"};
constexpr int kCommandLimit = 100000;
constexpr const char* kLocalHeader = "[LOCAL]\n";
constexpr const char* kRemoteHeader = "[REMOTE]\n";
constexpr size_t kMaxFileSize = 16u << 20;

int PlatformCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj("unix", -1));
  return TCL_OK;
}

int DirCmd(ClientData data, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  std::string dir = data ? GetApplicationDir() : GetUserDir();
  Tcl_SetObjResult(interp, Tcl_NewStringObj(dir.c_str(), -1));
  return TCL_OK;
}

Tcl_Interp* NewOptionInterp() {
  Tcl_Interp* interp = Tcl_CreateInterp();
  if (!interp) return nullptr;
  if (Tcl_Eval(interp, "info commands") == TCL_OK) {
    Tcl_Obj* list = Tcl_GetObjResult(interp);
    Tcl_IncrRefCount(list);
    int n = 0;
    Tcl_Obj** names = nullptr;
    Tcl_ListObjGetElements(interp, list, &n, &names);
    for (int i = 0; i < n; ++i) {
      const char* name = Tcl_GetString(names[i]);
      bool keep = false;
      for (const char* a : kAllowed) keep |= std::strcmp(a, name) == 0;
      if (!keep) Tcl_DeleteCommand(interp, name);
    }
    Tcl_DecrRefCount(list);
  }
  Tcl_ResetResult(interp);
  OptRegisterByteCommand(interp);
  static int app_marker;
  Tcl_CreateObjCommand(interp, "platform", PlatformCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "work_dir", DirCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "appl_dir", DirCmd, &app_marker, nullptr);
  Tcl_LimitTypeSet(interp, TCL_LIMIT_COMMANDS);
  Tcl_LimitSetCommands(interp, kCommandLimit);
  return interp;
}

struct LoadResult {
  bool ok = false;
  bool opened = false;
  std::string error;
  int line = 0;
};

// Evaluates the file's bytes, each byte one character, so that whatever
// encoding the file was written in, its values come back byte for byte.
LoadResult Evaluate(const char* file) {
  LoadResult r;
  std::string data;
  if (!SlurpFile(file, &data, kMaxFileSize)) {
    r.error = errno ? std::strerror(errno) : "file too large";
    return r;
  }
  r.opened = true;
  Tcl_Interp* interp = NewOptionInterp();
  if (!interp) {
    r.error = "cannot create an interpreter";
    return r;
  }
  Tcl_DString script;
  Tcl_DStringInit(&script);
  Tcl_Encoding latin1 = Tcl_GetEncoding(interp, "iso8859-1");
  Tcl_ExternalToUtfDString(latin1, data.data(), static_cast<int>(data.size()), &script);
  Tcl_FreeEncoding(latin1);
  bool was_loading = Opt_Loading();
  Opt_SetLoading(true);
  int rc = Tcl_EvalEx(interp, Tcl_DStringValue(&script), Tcl_DStringLength(&script), TCL_EVAL_GLOBAL);
  Opt_SetLoading(was_loading);
  Tcl_DStringFree(&script);
  if (rc == TCL_OK || rc == TCL_RETURN) {
    r.ok = true;
  } else {
    r.error = Tcl_GetStringResult(interp);
    r.line = Tcl_GetErrorLine(interp);
  }
  Tcl_DeleteInterp(interp);
  return r;
}

std::string LookupText(const char* name) { return Opt_LookupText(name, kOptSession); }

bool LookupTrue(const char* name) {
  short v = 0;
  return Opt_LookupBoolean(name, &v, kOptSession) && v;
}

void AppendRecord(const OptionView& v, void* data) {
  auto* out = static_cast<std::pair<std::string, long>*>(data);
  if (++out->second % 5 == 0) xvt_progress_set_pos(out->second);
  if ((v.flags & (kOptDeleted | kOptReadonly)) || !v.value[kOptPermanent]) return;
  std::string line = OptFileLine(v.name, v.value[kOptPermanent]);
  if (line.empty()) return;
  out->first += line;
}

// Translators from older option sets, by the version that introduced them.
void TranslateTo40() {
  xvt_progress_set_text("Translating options to version 4.0 ... ");
  int interval = 10;
  if (!Opt_LookupInt("Timer.Interval", &interval, kOptSession)) interval = 10;
  // Older versions kept the interval in seconds.
  if (interval > 30) interval /= 60;
  if (interval < 1) interval = 10;
  Opt_AssignBoolean("Timer.Interval", interval, kOptPermanent, 0);
  Opt_AssignBoolean("Options.Version", 40, kOptPermanent, 0);
  Opt_MarkChanged();
}

const struct {
  int version;
  void (*translate)();
} kTranslators[] = {{40, TranslateTo40}};

}  // namespace

std::string OptFileLine(const char* name, const char* value) {
  bool ok = false;
  std::string encoded = OptEncodeNameString(name, &ok);
  if (!ok || encoded.empty() || !value) return std::string();
  return "option " + OptEscapeNameWord(encoded) + " \"" + OptEscapeValue(value) + "\"\n";
}

int Opt_LoadFromTCL(const char* file) {
  if (!file) return 0;
  if (FILE* f = safe_fopen_read(file)) {
    std::fclose(f);
  } else {
    Trace(kTraceOptions, kTraceCritical, "Opt_LoadFromTCL: cannot open TCL file: %s - %s\n", file,
          std::strerror(errno));
    return 0;
  }
  Trace(kTraceOptions, kTraceLow, "Opt_LoadFromTCL: starting Tcl_EvalFile on: %s\n", file);
  LoadResult r = Evaluate(file);
  if (r.ok) return 1;
  if (!r.opened) {
    Trace(kTraceOptions, kTraceCritical, "Opt_LoadFromTCL: cannot open TCL file: %s - %s\n", file, r.error.c_str());
    return 0;
  }
  Trace(kTraceOptions, kTraceCritical, "Opt_LoadFromTCL: failed to load TCL file %s - %s\n", file, r.error.c_str());
  // The next save would rewrite the file with only what was read: keep
  // the whole file for the user under another name first.
  std::string kept = std::string(file) + ".bad";
  bool copied = CopyFile(file, kept.c_str(), 0) == 1;
  xvt_dm_post_error("The options file %s has an error at line %d:\n%s\n\nThe options before that line were read.%s%s",
                    file, r.line, r.error.c_str(), copied ? " The file as it was is kept as " : "",
                    copied ? kept.c_str() : "");
  return 0;
}

int Opt_Save() {
  xvt_progress_open("Saving options", "Saving options", false);
  std::string location = LookupText("Options.Location");
  if (location.empty()) {
    xvt_progress_close();
    return 0;
  }
  int ok = strcasecmp(location.c_str(), "Remote") == 0 ? Opt_SaveToIMSP() : Opt_SaveToTCL();
  if (!CENV_GetManditoryRemote() && LookupTrue("Options.SaveLocation")) Opt_SaveLocation();
  // A failed save keeps the flag, so that the next one writes everything.
  if (ok) OptClearChanged(false);
  xvt_progress_close();
  return ok;
}

int Opt_SaveToTCL() {
  xvt_scr_set_busy_cursor();
  xvt_progress_set_text("Saving to disk...");
  std::string file = LookupText("Options.LocalFile");
  if (file.empty()) file = get_file_name(kFileDefaultTcl);
  Trace(kTraceOptions, kTraceLow, "Opt_SaveToTCL: saving to TCL config file: %s\n", file.c_str());
  BackupFile(file.c_str());
  std::time_t now = std::time(nullptr);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
  std::pair<std::string, long> out{std::string("# Velmar options, saved ") + stamp +
                                       ". Velmar rewrites this file when it saves its options.\n",
                                   0};
  Opt_ForEach(AppendRecord, &out);
  // Written whole to a new file and renamed over the old one: a crash or a
  // full disk leaves the old file, never half of one.
  SafeFileError err;
  if (!safe_replace_file(file, out.first, 0600, &err)) {
    // The user gets the message of any failed save; the trace tells which
    // step failed.
    Trace(kTraceOptions, kTraceCritical, "Opt_SaveToTCL: cannot save %s - %s\n", file.c_str(), err.text().c_str());
    std::string shown = ErrorText(2003);
    shown.replace(shown.find("%s"), 2, file + ": " + std::strerror(err.error));
    xvt_dm_post_error("%s", shown.c_str());
    return 0;
  }
  OptClearChanged(true);
  return 1;
}

int Opt_SaveLocation() {
  std::string file = get_file_name(kFileUserIni);
  std::string text;
  if (LookupTrue("Options.SaveAuthInfo")) {
    const char* user = login_user() ? login_user() : CENV_GetUserid();
    const char* password = login_password() ? login_password() : CENV_GetPassword();
    if (user && *user && password && *password)
      text += std::string("[userid]   ") + user + "\n[password] " + Base64Encode(password, true) + "\n";
  }
  if (CENV_GetSessionManagement() && CENV_GetConfigName(0)) {
    // The named configurations, in table order; the login lines above are
    // not part of this layout.
    text.clear();
    // A header before each change of kind: the reader keeps the last
    // header's section for every record after it.
    const char* last_header = nullptr;
    for (int i = 0; i < kMaxConfigs && CENV_GetConfigName(i); ++i) {
      const char* type = CENV_GetConfigType(i);
      const char* name = CENV_GetConfigName(i);
      int online = CENV_GetConfigOnlineDefault(i);
      const bool local = type && strcasecmp(type, "tcl") == 0;
      const char* header = local ? kLocalHeader : kRemoteHeader;
      if (last_header != header) text += header;
      last_header = header;
      text += std::string("name=") + name + "\n";
      if (local) {
        const char* f = CENV_GetConfigFilename(i);
        text += std::string("file=") + (f ? f : "") + "\n";
      } else {
        const char* host = CENV_GetConfigHost(i);
        text += std::string("host=") + (host ? host : "") + "\nport=" + std::to_string(CENV_GetConfigPort(i)) + "\n";
      }
      // Both default lines of a local record carry the online flag.
      text += "online_default=" + std::to_string(online) + "\noffline_default=" + std::to_string(local ? online : 0) +
              (local ? "\ntype=tcl\n" : "\ntype=imsp\n");
    }
  } else {
    bool remote_default = strcasecmp(LookupText("Options.Location").c_str(), "Remote") == 0;
    if (LookupText("Options.SaveLocation") == "OFF")
      remote_default = strcasecmp(LookupText("Options.LastLocation").c_str(), "Remote") == 0;
    std::string host = LookupText("Options.RemoteHost");
    if (!host.empty()) {
      text += std::string("[REMOTE]") + (remote_default ? " default\n" : "\n") + "host=" + host + "\n";
      int port = 0;
      if (Opt_LookupInt("Options.RemotePort", &port, kOptSession)) text += "port=" + std::to_string(port) + "\n";
      text += "type=imsp\n";
    }
    std::string local = LookupText("Options.LocalFile");
    if (!local.empty()) text += std::string("[LOCAL]") + (remote_default ? "\n" : " default\n") + "file=" + local + "\ntype=tcl\n";
  }
  SafeFileError err;
  if (!safe_replace_file(file, text, 0600, &err)) {
    Trace(kTraceOptions, kTraceCritical, "Opt_SaveLocation: failed to open system init file: %s - %s\n", file.c_str(),
          err.text().c_str());
    return 0;
  }
  return 1;
}

void Opt_TranslateVersion() {
  char buf[20];
  int version = 0;
  if (Opt_LookupString("Options.Version", buf, sizeof buf - 1, kOptPermanent)) version = std::atoi(buf);
  for (const auto& t : kTranslators)
    if (t.version > version) t.translate();
}
