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
};
