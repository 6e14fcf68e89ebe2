// The Tcl commands by which scripts build and drive windows, and the event
// handler of the windows they build.
//
// Every window and control a script knows is an element of the global
// array `windows`, indexed by the script's name for it: a keyed list with
// windowptr (the toolkit handle, "%p"), winname, type, kidlist (names of
// its controls, in creation order), and for controls id, parent, command
// (evaluated when the control is activated) and entercommand (evaluated on
// Enter in it). Commands name windows and controls by these names; a
// control may also be named by its id within its window.
#pragma once

#include <tcl.h>

#include "xvt/xvt.h"

// Registers the window commands, get_filename, ideal_height and
// change_debug_level.
void TclRegisterWindowCommands(Tcl_Interp* interp);

// Hands an event of a script-driven window to the scripts of task_interp:
// E_CREATE "winmapped name", E_CHAR Tab and Shift-Tab "focus_next_kid" and
// "focus_prev_kid" with the name and the focused object, E_CHAR Enter the
// entercommand of the focused control (else of the window), E_CONTROL
// "activate_control name id", E_DESTROY "windestroyed name" followed by
// removing the window and its controls from `windows`. Windows the program
// makes itself call it from their own handler so that scripts can drive
// them the same way. Returns 1 when a script was run for the event.
// A script error is shown to the user; win may be gone on return.
int TclScriptWindowEvent(const char* name, WINDOW win, EVENT* ev);

// Text heights of the controls scripts lay out (ideal_height): the font's
// leading + ascent + descent plus the control's own frame.
constexpr int kIdealMarginLabel = 2;
constexpr int kIdealMarginCheck = 4;  // check boxes and radio buttons
constexpr int kIdealMarginEdit = 8;
constexpr int kIdealMarginButton = 10;
