// Ids of the task window's menu bar, its about box and the commands every
// window passes on to the task window.
#pragma once

#include "xvt/xvt.h"

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
constexpr int M_OPTIONS_CHANGE_PASSWORD = 20803;  // offered when the password manager is enabled
constexpr int M_OPTIONS_PREFERENCES = 20804;
constexpr int M_OPTIONS_AUTO_REPLY = 20810;
constexpr int M_HELP_CONTENTS = 32301;
constexpr int M_HELP_ABOUT = 32302;

// The Options and Help menus every window's menu bar carries; their
// commands go to the task window.
extern const MENU_ITEM kOptionsMenu[];
extern const MENU_ITEM kHelpMenu[];
