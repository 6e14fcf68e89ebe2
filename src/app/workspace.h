// The program's life: process entry, the task window, the workspace, online
// and offline.
#pragma once

#include "src/base/commands.h"
#include "src/base/critical.h"
#include "src/base/window_list.h"
#include "xvt/xvt.h"

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

void GoOnline();
void GoOffline();
// Titles the online/offline item and enables the send-queue item by state.
void UpdateConnectionMenus();

// The banner window, or null when there is no banner.
WINDOW ShowBanner();

// The first-run branch: the setup window and its script.
void RunFirstRunBranch();
WINDOW FirstRunWindow();
