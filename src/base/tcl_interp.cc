#include "src/base/tcl_interp.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/base/keyed_list.h"

Tcl_Interp* task_interp = nullptr;

namespace {

std::unique_ptr<char[]> g_scratch;
bool g_executable_found = false;

int SetResult(Tcl_Interp* interp, const std::string& text) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
  return TCL_OK;
}

int PlatformCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) { return SetResult(interp, "unix"); }

int WorkDirCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) { return SetResult(interp, GetUserDir()); }

int ApplDirCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  return SetResult(interp, GetApplicationDir());
}

int InstallDatafileCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  return SetResult(interp, get_file_name(kFileInstallData));
}

int ScreenSizeCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  RCT r{};
  xvt_vobj_get_client_rect(SCREEN_WIN, &r);
  char text[64];
  std::snprintf(text, sizeof text, "%d %d", r.right - r.left, r.bottom - r.top);
  return SetResult(interp, text);
}

int NoteCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc != 2) return TclWrongArgs(interp, "note");
  xvt_dm_post_note("%s", Tcl_GetString(objv[1]));
  return TCL_OK;
}

int DebugTraceCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc != 2) return TclWrongArgs(interp, "debug_trace");
  Trace(kTraceFrame, kTraceLow, "%s\n", Tcl_GetString(objv[1]));
  return TCL_OK;
}

// A script must not end the process behind the program's back: options and
// open folders would not be saved.
int ExitCmd(ClientData, Tcl_Interp* interp, int, Tcl_Obj* const[]) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj("exit is not available to scripts; the program decides when to stop", -1));
  return TCL_ERROR;
}

struct CommandDef {
  const char* name;
  Tcl_ObjCmdProc* proc;
};

const CommandDef kCommands[] = {
    {"platform", PlatformCmd},       {"work_dir", WorkDirCmd},     {"appl_dir", ApplDirCmd},
    {"install_datafile", InstallDatafileCmd}, {"screen_size", ScreenSizeCmd}, {"note", NoteCmd},
    {"debug_trace", DebugTraceCmd},  {"exit", ExitCmd},
};

void EvalIfPresent(int kind) {
  std::string path = get_file_name(kind);
  if (path.empty() || !FileExists(path.c_str())) return;
  std::string error;
  if (!TclEvalFile(path.c_str(), &error))
    Trace(kTraceFrame, kTraceCritical, "TclCreate: error in %s: %s\n", path.c_str(), error.c_str());
}

}  // namespace

Tcl_Interp* TclCreate(WINDOW task_win, const char* argv0, void (*add_commands)(Tcl_Interp*)) {
  if (!g_executable_found) {
    Tcl_FindExecutable(argv0);
    g_executable_found = true;
  }
  Tcl_Interp* interp = Tcl_CreateInterp();
  if (!interp) return nullptr;
  if (Tcl_Init(interp) != TCL_OK)
    Trace(kTraceFrame, kTraceHigh, "TclCreate: Tcl_Init failed: %s\n", Tcl_GetStringResult(interp));
  g_scratch.reset(new char[kTclScratchSize]());
  for (const CommandDef& c : kCommands) Tcl_CreateObjCommand(interp, c.name, c.proc, nullptr, nullptr);
  TclRegisterKeyedListCommands(interp);
  if (add_commands) add_commands(interp);
  task_interp = interp;
  EvalIfPresent(kFileOptArgs);
  EvalIfPresent(kFileXvtTcl);
  TclBindWindow("TASK_WIN", task_win);
  return interp;
}

void TclDestroy() {
  if (task_interp) Tcl_DeleteInterp(task_interp);
  task_interp = nullptr;
  g_scratch.reset();
}

char* TclScratch() { return g_scratch.get(); }

int TclBindWindow(const char* name, WINDOW win) {
  if (!task_interp || !name) return 0;
  // Built as list objects so that no name can break out of the keyed list.
  char ptr[32];
  std::snprintf(ptr, sizeof ptr, "%p", static_cast<void*>(win));
  auto pair = [](const char* key, Tcl_Obj* value) {
    Tcl_Obj* items[2] = {Tcl_NewStringObj(key, -1), value};
    return Tcl_NewListObj(2, items);
  };
  Tcl_Obj* fields[4] = {pair("windowptr", Tcl_NewStringObj(ptr, -1)), pair("winname", Tcl_NewStringObj(name, -1)),
                        pair("type", Tcl_NewStringObj("external", -1)), pair("kidlist", Tcl_NewStringObj("", -1))};
  Tcl_Obj* list = Tcl_NewListObj(4, fields);
  return Tcl_SetVar2Ex(task_interp, "windows", name, list, TCL_GLOBAL_ONLY | TCL_LEAVE_ERR_MSG) ? 1 : 0;
}

int TclEvalFile(const char* path, std::string* error) {
  if (!task_interp || !path) {
    if (error) *error = "no interpreter";
    return 0;
  }
  // Tcl opens the file itself; a FIFO or a device in its place would
  // block that open, so only a regular file goes on.
  SafeFileError failure;
  const int fd = safe_open_read(path, &failure);
  if (fd < 0) {
    if (error) *error = std::string("couldn't read file \"") + path + "\": " +
                        (failure.error == EINVAL ? "not a regular file" : std::strerror(failure.error));
    return 0;
  }
  ::close(fd);
  Tcl_Obj* p = Tcl_NewStringObj(path, -1);
  Tcl_IncrRefCount(p);
  int rc = Tcl_FSEvalFileEx(task_interp, p, "utf-8");
  Tcl_DecrRefCount(p);
  if (rc != TCL_OK && rc != TCL_RETURN) {
    if (error) *error = Tcl_GetStringResult(task_interp);
    return 0;
  }
  return 1;
}

int TclWrongArgs(Tcl_Interp* interp, const char* name) {
  Tcl_SetObjResult(interp, Tcl_ObjPrintf("%s: wrong # of args", name));
  return TCL_ERROR;
}

int TclFail(Tcl_Interp* interp, const std::string& text) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj(text.data(), static_cast<int>(text.size())));
  return TCL_ERROR;
}
