// Tracing to "debug.txt", filtered by subsystem and level, and the
// telemetry window. Tracing never fails: a line that can't be written is
// dropped.
#pragma once

#include <cstdint>

// Levels: a line is written when its level is at most the threshold.
constexpr int kTraceAlways = 0;
constexpr int kTraceCritical = 1;
constexpr int kTraceHigh = 3;
constexpr int kTraceMedium = 5;
constexpr int kTraceLow = 7;
constexpr int kTraceAll = 9;

// Subsystem bits.
constexpr uint32_t kTraceTree = 1;
constexpr uint32_t kTracePrefs = 2;
constexpr uint32_t kTraceAttach = 4;  // attachments, read receipts, sections to file
constexpr uint32_t kTraceCompose = 8;
constexpr uint32_t kTraceOptions = 16;  // options and configuration
constexpr uint32_t kTraceOrganizer = 32;
constexpr uint32_t kTraceEnclosure = 40;  // compose | organizer
constexpr uint32_t kTraceBooks = 64;
constexpr uint32_t kTraceSent = 128;  // sent mail, drafts, outbox appends
constexpr uint32_t kTraceMail = 256;  // book drivers and the mail layer's debug lines
constexpr uint32_t kTraceModel = 512;
constexpr uint32_t kTraceFrame = 1024;  // application frame, DDE, the MIME tree
constexpr uint32_t kTraceToolbar = 2048;
constexpr uint32_t kTraceDnd = 4096;
constexpr uint32_t kTracePrint = 8192;
constexpr uint32_t kTraceSpell = 16384;
constexpr uint32_t kTraceMemory = 32768;

// Output flags.
constexpr unsigned kTraceToFile = 1;
constexpr unsigned kTraceToTelemetry = 2;
constexpr unsigned kTraceToStderr = 4;

// Output stops once the file is larger than this.
constexpr long kTraceFileLimit = 1000000;

// A null or empty name disables tracing. Otherwise the file is opened for
// appending (it is closed after every line) and the banner is written.
void TraceStart(const char* file);
void TraceEnd();
bool TraceEnabled();

void Trace(uint32_t subsystem, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
void TraceLevel(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The subsystem and level test of Trace, for callers that build costly text.
bool TraceWanted(uint32_t subsystem, int level);

void TraceSetSubsystem(uint32_t mask);
void TraceAddSubsystem(uint32_t bits);
void TraceRemoveSubsystem(uint32_t bits);
bool TraceHasSubsystem(uint32_t bits);
uint32_t TraceGetSubsystem();
void TraceSetThreshold(int level);
int TraceGetThreshold();
void TraceSetOutput(unsigned flags);
unsigned TraceGetOutput();

// Maps a Debugging.Level word ("none" ... "all") to its level; -1 if unknown.
int TraceLevelFromWord(const char* word);

// Registers the notifier that follows Debugging.Level and
// Debugging.SubSystem and closes the telemetry window at shutdown.
void TraceRegisterNotifier();
