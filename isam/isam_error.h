// The error stack shared by the three layers of the indexed-file library.
// Every failing call pushes one entry (module, function number, error
// number, line) and returns -1; a caller that wants to tell the user walks
// the stack, newest first.
#pragma once

#include <cstdio>
#include <string>

constexpr int kIsamStackSize = 15;

struct IsamErrorEntry {
  const char* module = "";
  int function = 0;
  int error = 0;
  int line = 0;
};

// Pushes an entry (the oldest falls off a full stack); always returns -1.
int isam_error(const char* module, int function, int error, int line);
// Entries on the stack, at most kIsamStackSize; 0 is the newest.
int isam_error_count();
IsamErrorEntry isam_error_at(int i);
// The newest error number, 0 when the stack is empty.
int isam_last_error();
void isam_error_clear();

// The text of an error number and the name of a function number; null when
// the number has none.
const char* isam_error_text(int error);
const char* isam_function_name(int function);

// Without the tables the report shows bare numbers (a build that leaves the
// texts out to save space; tests switch them off to see that form).
void isam_set_tables(bool installed);

// The whole stack as a table, heading and rule first.
std::string isam_error_report();
void isam_print_errors(FILE* out);
// One entry as "Error %4d (line %4d, %s): %s".
std::string isam_error_line(const IsamErrorEntry& e);

// Error numbers used by more than one file.
enum IsamCode {
  kIsBadArgs = 20,
  kIsModeAction = 21,
  kIsVersion = 22,
  kIsInternal = 23,
  kIsNoFile = 126,
  kIsReadOnly = 129,
  kIsMinSize = 130,
  kIsBadRecord = 141,
  kIsCorrupt = 142,
  kIsFloat = 143,
  kIsExists = 234,
  kIsOverflow = 236,
  kIsNoHook = 239,
  kIsBadKeyDef = 344,
  kIsBadIndexCount = 345,
  kIsMaxKeys = 346,
  kIsNoCurrent = 348,
  kIsNotRead = 349,
  kIsWrongRecord = 350,
  kIsBadIndex = 351,
  kIsRecordTooSmall = 353,
  kIsKeyNotFound = 354,
  kIsKeyInsert = 355,
  kIsKeyExists = 356,
  kIsNoTempIndex = 358,
  kIsWrongKind = 359,
  kIsBadBuffer = 360,
  kIsBufferUsage = 361,
};
