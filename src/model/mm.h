// The mail model's start, stop and service table, as far as the frame uses
// them.
#pragma once

#include <cstdint>

constexpr int kMaxServices = 20;
constexpr int kMaxFolders = 50;
constexpr int INVALID_FOLDER = 999;
constexpr int INVALID_SERVICE = 999;
constexpr int kServiceTypeNone = 7;  // an unconfigured slot, or local folders

int MM_Init();
void MM_Shutdown(int expunge);
int MM_NeedsExpunge();
int MM_MSGetType(int id);
void MM_MSClose(int id);
void MM_QuietOn();
void MM_QuietOff();
int MM_Quiet();

// Callbacks from the mail layer.
void mm_log(const char* text, long level);
void mm_dlog(const char* text);
[[noreturn]] void mm_fatal(const char* text);
