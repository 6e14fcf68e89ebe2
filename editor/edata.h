// The record of one editor window: its text, its key maps, the command
// layer's state (selection, undo, clipboard) and the redisplay's state
// (scrolling, metrics, the lines on the screen). Each layer owns its part
// and frees it; edata_create and edata_destroy tie them together.
#pragma once

#include "xvt/xvt.h"

struct EditBuffer;
struct KMSTATE;
struct ECommandState;  // editor/elib: the commands
struct EDisplay;       // editor/edisxvt

struct E_DATA {
  EditBuffer* buf = nullptr;
  KMSTATE* km = nullptr;
  ECommandState* cmd = nullptr;
  EDisplay* dis = nullptr;
  WINDOW win = NULL_WIN;
  unsigned long flags = 0;
  // What the last command needs redrawn: 1 nothing, 2 the optimized pass,
  // 3 the point's line onward, 4 everything. The window redraws after
  // each command and sets it back to 1.
  int rdis = 1;
};

// A window's record with an empty buffer and the key maps of keybind_path
// (null: the shipped file); null on failure, with the reason traced.
E_DATA* edata_create(WINDOW win, const char* keybind_path);
void edata_destroy(E_DATA*& ed);
// A key event through the key maps to its command; 1 when it was used.
int edata_key(E_DATA* ed, const EVENT* ev);
// A command by its name (as keybind.def names it); 1 when it ran.
int edata_command(E_DATA* ed, const char* name);
