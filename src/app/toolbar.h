// The task window's toolbar: a row of buttons for the commands used most,
// beside the busy window at the left of the toolbar row. Each button sends
// its command the way the menu does and is enabled exactly when the menu
// item it stands for is.
#pragma once

#include "xvt/xvt.h"

WINDOW TBAR_Create(WINDOW task_win);
void TBAR_Destroy();
WINDOW TBAR_Window();
// Takes the state of the front window's menu items (and the task window's,
// for the program's own commands) onto the buttons.
void TBAR_Refresh();
// Hides the toolbar while another window needs the row (the first-run setup).
// Lays the toolbar out for a task window of this client width: the buttons
// drop their names when the names do not fit.
void TBAR_Fit(int task_width);
void TBAR_SetVisible(bool visible);

// Control ids of the buttons, left to right.
enum TbarButton {
  kTbarNew = 1,
  kTbarReply,
  kTbarReplyAll,
  kTbarForward,
  kTbarDelete,
  kTbarPrevious,
  kTbarNext,
  kTbarCheck,
  kTbarSendQueue,
  kTbarBooks,
  kTbarPrint,
  kTbarOnline,
  kTbarCount = kTbarOnline
};

// The Online button's pictures: plugged in, and pulled out.
constexpr int kTbarIconOnline = 9511;
constexpr int kTbarIconOffline = 9512;
