// The mail model's start, stop and service table, as far as the frame uses
// them.
#pragma once

#include <cstdint>

#include "c-client/core/env.h"

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

// The mail layer's callbacks (mm_*) are declared in c-client/env.h and
// defined with the model's start and stop, so that a program that starts
// the model has them.
