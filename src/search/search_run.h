// Running selected rules over folders and collecting what they find: what
// a search window shows. Local folders are searched here, message by
// message; folders on a server get the rules as SEARCH commands.
#pragma once

#include <string>
#include <vector>

#include "src/model/mm.h"

struct SrchFolderRef {
  int ms = INVALID_SERVICE;
  std::string name;
};

struct SrchRun {
  std::vector<int> folders;  // the folders this run opened; closed by SRCH_RunClose
  std::vector<UMI> found;    // in folder order, then message order
  std::vector<std::string> problems;  // one line per folder or rule that failed
  std::string notice;                 // "Search contains no messages." when nothing was found
};

// The program as a server gets it: "CHARSET UTF-8 " in front when it holds
// 8-bit text (quoted strings carry the UTF-8 bytes).
std::string SRCH_ProgramForServer(const std::string& program);

// Runs the named rules of the "IMAP" scope over the folders; a message
// found by any rule is in the result once. 1 when every folder was
// searched, 0 when some could not be (see problems); what was found stays.
int SRCH_RunRules(const std::vector<std::string>& rule_names, const std::vector<SrchFolderRef>& folders,
                  SrchRun* run);
// One line per message found: folder, sender, subject, separated by TABs.
std::vector<std::string> SRCH_ResultLines(const SrchRun& run);
void SRCH_RunClose(SrchRun* run);

// A folder's selection: with MessageSelection.<service number>.<folder>.IsSelecting
// true, the folder shows only the messages that the rules whose ids stand
// in ...SearchIDList find (a message found by any of them). -1: the folder
// is not selecting; 1: found holds the selection, in folder order; 0: the
// selection could not run (a rule is gone, a search failed) and found is
// empty, so that nothing is shown rather than messages the rules exclude.
std::string SRCH_SelectionKey(int ms_number, const char* folder, const char* attribute);
int SRCH_FolderSelection(int ms, const char* folder, int id, std::vector<UMI>* found);
