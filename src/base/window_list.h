// The program's windows, most recently active first, and the listeners of
// the dialog manager.
#pragma once

#include "xvt/xvt.h"

void WinList_AddHead(WINDOW win);
void WinList_Remove(WINDOW win);
WINDOW WinList_Head();
void WinList_Clear();
// Windows that take part in drag and drop.
void DndList_AddHead(WINDOW win);
void DndList_Remove(WINDOW win);
WINDOW DndList_Head();
void DndList_Clear();

// Listeners of the dialog manager (preferences and search dialogs).
typedef void (*DM_LISTENER)(int what, void* data);
void DM_InitListeners();
void DM_RegisterListener(DM_LISTENER listener);
void DM_FreeListeners();
int DM_ListenerCount();

// Puts a dialog in the middle of the screen, keeping its size.
void DM_CentreOnScreen(WINDOW win);
