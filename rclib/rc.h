// Status values, the error detail and the debug bit mask shared by every
// part of the support library (and by the editor, which answers its yes/no
// questions with the same pair).
#pragma once

// Success and failure are deliberately not 1 and 0: a caller that tests the
// result as a boolean gets "true" for both and notices at once.
constexpr int RC_OK = 66;
constexpr int RC_FAIL = 44;

// Detail of the last failure. The library sets it but never clears it: a
// caller that needs to tell "not found" from "at the end" sets it to 0 first.
extern int rc_errno;

constexpr int kRcErrNoFit = 3;     // result would not fit in the caller's limit
constexpr int kRcErrNotFound = 4;  // list or tree element not found
constexpr int kRcErrNoSubst = 8;   // path pattern still holds "=" after substitution
constexpr int kRcErrNoDrive = 9;   // drive does not exist (never on Linux)
constexpr int kRcErrStream = -1;   // stream read, write or close failed

// Global debug bit mask, independent of the numbered debug topics. Nobody in
// the library sets it; the low bits below select library detail printed to
// stdout, the top bits belong to the editor.
extern unsigned long rc_debug_bits;

constexpr unsigned long kRcDbgStrings = 0x8;    // string helper failures
constexpr unsigned long kRcDbgHashGet = 0x10;   // hash lookups
constexpr unsigned long kRcDbgEntry = 0x400;    // "Entered %s" lines, directory creation
constexpr unsigned long kRcDbgHashPut = 0x1000; // hash insertions
constexpr unsigned long kRcDbgMemory = 0x2000;  // every default allocation and release

// Prints "Entered %s\n" when kRcDbgEntry is set.
void rc_debug_entry(const char* function_name);
