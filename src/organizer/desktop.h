// Window geometry and the saved desktop, kept in options.
#pragma once

#include <cstddef>

#include "xvt/xvt.h"

enum WindowSlot {
  kSlotViewer = 1,
  kSlotCompose = 2,
  kSlotTopMS = 3,
  kSlotBook = 4,
  kSlotAddrBook = 5,
  kSlotAddrSearch = 6,
  kSlotFolder = 7,
  kSlotMsgSrv = 8,
  kSlotMsgGroup = 9,
  kSlotTaskWin = 10,
  kSlotSearch = 11,
};

const char* WindowSlotKey(int slot);
int saveWindowGeometry(int slot, WINDOW win);
// Reads a slot: rectangle and state word ("Max", "Icon" or "Norm"). 1 if read.
int getWindowGeometry(int slot, RCT* rct, char* state, size_t size);
unsigned long windowAttrForState(const char* state);
void compareScreenSize();
void scaleWindowForScreen(const RCT* screen, const RCT* in, RCT* out);
int screenWasDownsized();
void DesktopRegister();
void saveMsgWinsContents(int reopening);
