// The program's life: process entry, the task window, the workspace, busy
// mode, online and offline.
#pragma once

#include "xvt/xvt.h"

// Menu bar, about box and command ids of the task window.
constexpr int kTaskMenuBar = 14000;
constexpr int kAboutBox = 9050;
constexpr int kToolbarHeight = 42;
constexpr int kCriticalWinWidth = 48;

constexpr int M_FILE_PRINT = 32008;
constexpr int M_FILE_QUIT = 32009;
constexpr int M_GO_ONLINE_OFFLINE = 14113;
constexpr int M_SEND_QUEUE_NOW = 14403;
constexpr int M_OPTIONS_LOAD = 20801;
constexpr int M_OPTIONS_SAVE = 20802;
constexpr int M_HELP_CONTENTS = 32301;
constexpr int M_HELP_ABOUT = 32302;

// Process entry: runs the program and returns its exit status.
int velmar_main(int argc, char** argv);
int VelmarArgc();
char** VelmarArgv();

long task_eh(WINDOW win, EVENT* ev);
int InitWorkspace(WINDOW task_win);
void ShutdownWorkspace();
void ReinitWorkspace();
void Shutdown();
void Shutdown_Prompt();

void SessionManagerDialog();
void ResolveConnectionMode();
int IsOffline();
void GoOnline();
void GoOffline();
// Titles the online/offline item and enables the send-queue item by state.
void UpdateConnectionMenus();

// The banner window, or null when there is no banner.
WINDOW ShowBanner();

// The first-run branch: the setup window and its script.
void RunFirstRunBranch();
WINDOW FirstRunWindow();

// Busy mode. The calls nest; they guard against re-entrance through the
// event loop, not against threads.
void WIN_start_critical();
void WIN_end_critical();
void WIN_capture_pointer();
int WIN_in_critical();
int WIN_mouse_captured();
void WIN_set_mouse_captured(int flag);
int WIN_critical_depth();
WINDOW WIN_critical_window();
int WIN_critical_icon();
WINDOW WIN_create_critical_window(WINDOW task_win);
void WIN_destroy_critical_window();
// What the toolkit reports of raw input (mouse presses, scrolling, switching
// to another application).
void WIN_native_hook(XVT_NATIVE_EVENT what, int code);

// The program's windows, most recently active first.
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
