// Window geometry and the saved desktop, kept in options.
#pragma once

#include <cstddef>
#include <string>

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

// Moves and shrinks a rectangle so that the whole of it lies on the screen.
void fitWindowToScreen(RCT* r);
// Deletes every saved geometry and node (the desktop is not kept).
void DesktopForget();

// One saved line of the organizer: service number, folder name, group id,
// and state (1 collapsed, 2 expanded, 3 open in a window, 4 end of list,
// 0 an unknown word).
struct SavedNode {
  int ms = 999;
  std::string folder;
  int group = 0;
  int state = 4;
};
int SaveMsgStateFromWord(const char* word);
bool readSavedNode(int n, SavedNode* out);  // false when record n is not there
int reloadOneNode(WINDOW win, const SavedNode& record);
void reloadMsgPositions(WINDOW win, int state);
void reopenMsgService(int ms);

// A saved search that had a window of its own: where the window stood, its
// frame state word, and the search's name (names outlive search numbers).
struct SavedSearchWindow {
  RCT rect{};
  std::string state = "Norm";
  std::string name;
};
// Reads one record as written by saveMsgWinsContents ("l t r b state name");
// false for anything else, with *out untouched.
bool DesktopParseSearchWindow(const char* value, SavedSearchWindow* out);
bool readSavedSearchWindow(int n, SavedSearchWindow* out);  // false past the last
