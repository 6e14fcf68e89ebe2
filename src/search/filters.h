// Message filters: an ordered list of rules per service that file new mail
// in the INBOX as it arrives (move, copy, mark read, flag, delete).
//
// The filters run after a mail check is over, never from inside it, over
// the messages that check brought and no others: a message is handled at
// most once in a session, whatever the filters did to it. A move copies
// first and deletes only when every copy is stored, so that a failing
// filter leaves the message where it was.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "src/model/mm.h"

enum FilterAction : int { kFilterMove = 0, kFilterCopy, kFilterMarkRead, kFilterFlag, kFilterDelete };
constexpr int kFilterActionCount = 5;

struct MailFilter {
  std::string name;
  std::string rule;    // the name of a stored rule of the "IMAP" kind
  int action = kFilterMove;
  std::string folder;  // for a move or a copy: a folder of the same service
  bool stop = false;   // messages this filter acted on see no later filter
  bool enabled = true;
};

// Limits on what the options may hold: a list that a person keeps.
constexpr int kFilterMax = 200;
constexpr size_t kFilterFieldMax = 1000;

// The word stored for an action ("Move", "Copy", "MarkRead", "Flag",
// "Delete"), and back (-1 for an unknown word, whatever its case).
const char* FLT_ActionWord(int action);
int FLT_ActionFromWord(const char* word);
// What the dialog shows: "Move to Archive", "Mark read".
std::string FLT_Describe(const MailFilter& filter);

// Filters.<service number>.Count and Filters.<service number>.<n>.Name,
// .Rule, .Action, .Folder, .Stop, .Enabled with n from 1. Entries that
// cannot be used (no name, an unknown action, a move without a folder) are
// left out and counted in *damaged; nothing beyond kFilterMax is read.
std::vector<MailFilter> FLT_Load(int ms_number, int* damaged = nullptr);
// Replaces the list at the permanent level (where the session reads it
// too); entries of a longer earlier list go. 1, or 0 when an entry is
// unusable (see FLT_Problem) and nothing was written.
int FLT_Save(int ms_number, const std::vector<MailFilter>& filters);
// "" when the filter can be stored, else what is wrong with it.
std::string FLT_Problem(const MailFilter& filter);

struct FilterReport {
  int acted = 0;                      // actions that succeeded, per message
  std::vector<std::string> problems;  // one line per filter that failed
};

// Runs the enabled filters in order over the messages of an open folder
// (UMIs that are gone are skipped). A message moved or deleted by a filter
// sees no later filter, nor does one acted on by a filter with stop set.
// 1 when every filter ran, 0 when some failed (see problems).
int FLT_Apply(int folder, const std::vector<MailFilter>& filters, const std::vector<UMI>& messages,
              FilterReport* report);

// Listening for new mail in the INBOXes, and running the filters over it
// after each mail check.
void FLT_Init();
void FLT_Shutdown();
// Filters the messages noted since the last run; the problems are shown.
void FLT_RunPending();

// Message > Filters... for the service, and the folder "Run now" works on
// ("" for none).
void FLT_FiltersDialog(int ms, const std::string& folder);
