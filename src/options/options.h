// The option store: every setting of the program is a named string with
// three levels (default 0, permanent 1, session 2). Callers read at level 2
// to get the effective value; lower levels show through higher ones.
#pragma once

#include <cstddef>
#include <string>

#include "xvt/xvt.h"

enum OptionLevel { kOptDefault = 0, kOptPermanent = 1, kOptSession = 2 };

// Error codes of Opt_GetLastError.
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

// Record flags.
constexpr unsigned kOptModified = 1;
constexpr unsigned kOptDeleted = 2;
constexpr unsigned kOptReadonly = 4;

constexpr int kOptHashChains = 200;
// Limits on what an option may hold: a setting, not a document.
constexpr size_t kOptMaxName = 1024;
constexpr size_t kOptMaxValue = 1u << 20;

int Opt_Init();
void Opt_Shutdown();
bool Opt_Ready();

// Lookups and assignments return 1 on success, 0 with Opt_GetLastError().
// Buffers hold size + 1 bytes: a value exactly size long fits.
int Opt_LookupString(const char* name, char* buffer, size_t size, int level);
int Opt_LookupStringLength(const char* name, int level, size_t* length);
// A copy in fresh memory (free with delete[]), or null.
char* Opt_LookupAlloc(const char* name, int level);
// The whole value, however long; "" when there is none.
std::string Opt_LookupText(const char* name, int level);
int Opt_LookupInt(const char* name, int* out, int level);
// On failure *out is left as it was: callers set their default first.
int Opt_LookupBoolean(const char* name, short* out, int level);
int Opt_AssignString(const char* name, const char* value, int level, int readonly);
// Writes the decimal text of value: callers use it for numbers.
int Opt_AssignBoolean(const char* name, int value, int level, int readonly);
// Writes "ON" or "OFF": callers use it for truth values.
int Opt_AssignInt(const char* name, int flag, int level, int readonly);

int Opt_Delete(const char* name);
int Opt_DeleteMatching(const char* pattern);
// Appends the matching names, sorted, to *list (created when null).
int Opt_ListMatching(const char* pattern, SLIST* list);
int Opt_Rename(const char* old_name, const char* new_name);
int Opt_FlushSession(const char* pattern, int level);
int Opt_SetModified(const char* name, int flag);
int Opt_SetReadonly(const char* name, int flag);
int Opt_GetReadonly(const char* name);
void Opt_MarkChanged();
int Opt_GetLastError();
const char* Opt_ErrorText(int code);
void Opt_GetLocation();

// Names of option files and server keys: " " "#" "*" "\" "_" and bytes that
// don't print are escaped with "#". Null when the text can't be encoded.
char* Opt_EncodeName(const char* text);  // free with delete[]
char* Opt_DecodeName(const char* text);  // free with delete[]

// Blank- or tab-separated integers, one at a time; -1 at the end.
void Opt_ParseIntList(const char* text);
int Opt_NextInt();

// Case-insensitive wildcard match: * ? [a-z] [!x] [^x] \c, "|" between
// alternatives of the whole pattern, "&" before a pattern that must match too.
bool Opt_PatternMatch(const char* pattern, const char* name);
// The plainer match of address-book searches: a whole text, case-insensitive,
// "*" any run and "?" one character; every other byte stands for itself, so a
// book value holding "[" or "|" matches as typed. 1 on a match.
int string_match(const char* text, const char* pattern);

// Persistence.
int Opt_LoadFromTCL(const char* file);
int Opt_LoadFromIMSP();
// A logged-in session on the option server (Options.RemoteHost and
// Options.RemotePort), or null after showing why; free with imsp_session_free.
struct ImspSession* Open_NewStream();
int Opt_Save();
int Opt_SaveToTCL();
int Opt_SaveToIMSP();
int Opt_SaveLocation();
void Opt_TranslateVersion();
// The option server's callback: one option of a listing.
void mm_option(void* session, const char* name, const char* value, int writable);

// Walks the store in its table order; f gets every record, deleted or not.
struct OptionView {
  const char* name;
  const char* value[3];  // null where a level has no value
  unsigned flags;
};
void Opt_ForEach(void (*f)(const OptionView& view, void* data), void* data);
bool Opt_Changed();
bool Opt_Loading();
void Opt_SetLoading(bool loading);
// The `option` command, for interpreters that evaluate scripts.
void Opt_RegisterCommand(struct Tcl_Interp* interp);
