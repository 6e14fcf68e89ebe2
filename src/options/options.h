// The option store: every setting of the program is a named string with
// three levels (default 0, permanent 1, session 2).
#pragma once

#include <cstddef>

enum OptionLevel { kOptDefault = 0, kOptPermanent = 1, kOptSession = 2 };

// Error codes of Opt_LastError.
constexpr int kOptErrNone = 0;
constexpr int kOptErrNoSuchOption = 1;
constexpr int kOptErrConversion = 2;
constexpr int kOptErrBadPointer = 3;
constexpr int kOptErrTooLong = 4;
constexpr int kOptErrBadLevel = 5;
constexpr int kOptErrPermission = 6;
constexpr int kOptErrReadonly = 7;
constexpr int kOptErrHashTable = 8;
constexpr int kOptErrAlloc = 9;
constexpr int kOptErrSiteDefaults = 10;
constexpr int kOptErrOther = 99;

int Opt_Init();
void Opt_Shutdown();
bool Opt_Ready();

// Lookups and assignments return 1 on success, 0 with Opt_GetLastError().
int Opt_LookupString(const char* name, char* buffer, size_t size, int level);
int Opt_LookupInt(const char* name, int* out, int level);
int Opt_LookupBoolean(const char* name, short* out, int level);
int Opt_AssignString(const char* name, const char* value, int level, int readonly);
// Writes the decimal text of value.
int Opt_AssignBoolean(const char* name, int value, int level, int readonly);
// Writes "ON" or "OFF": callers use it for truth values.
int Opt_AssignInt(const char* name, int flag, int level, int readonly);
int Opt_Delete(const char* name);
int Opt_DeleteMatching(const char* pattern);
int Opt_FlushSession(const char* pattern, int level);
int Opt_GetLastError();
void Opt_GetLocation();

// Evaluates an option file. 1 on success.
int Opt_LoadFromTCL(const char* file);
int Opt_Save();
int Opt_LoadFromIMSP();

// Case-insensitive wildcard match of option names ("*", "?").
bool Opt_PatternMatch(const char* pattern, const char* name);
