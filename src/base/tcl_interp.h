// The program's one Tcl interpreter: it evaluates option files and drives
// script-built windows (the first-run setup, forms).
#pragma once

#include <tcl.h>

#include <string>

#include "xvt/xvt.h"

extern Tcl_Interp* task_interp;

// Size of the scratch buffer that commands format their results in.
constexpr size_t kTclScratchSize = 1000;

// Creates the interpreter: registers the program's commands and the keyed
// lists, then those that add_commands registers (the window commands live
// with the windows), evaluates optargs.tcl and xvt.tcl when they exist, and
// enters TASK_WIN. argv0 is the program's name as started, or null.
Tcl_Interp* TclCreate(WINDOW task_win, const char* argv0, void (*add_commands)(Tcl_Interp*));
// Deletes task_interp and frees the scratch buffer.
void TclDestroy();
// Announces a window the program made itself to the scripts as name.
int TclBindWindow(const char* name, WINDOW win);
// Evaluates a file read as UTF-8. On failure *error holds the result.
int TclEvalFile(const char* path, std::string* error);
char* TclScratch();

// Command results: "<name>: wrong # of args", or an error text; both fail.
int TclWrongArgs(Tcl_Interp* interp, const char* name);
int TclFail(Tcl_Interp* interp, const std::string& text);
