// Searches run here rather than by the folder's driver: a rule's IMAP
// SEARCH program is parsed once into a tree of tests and run over each
// message of a local folder. Text compares under Unicode simple case
// folding, so "ÉTÉ" finds "été" as a server does.
#pragma once

#include <string>
#include <vector>

#include "src/model/mm.h"

// Limits on a program: its text, the nesting of NOT, OR and parentheses,
// the number of tests, one string's length.
constexpr size_t kSearchMaxProgram = 64 * 1024;
constexpr int kSearchMaxDepth = 32;
constexpr size_t kSearchMaxNodes = 4096;
constexpr size_t kSearchMaxString = 64 * 1024;

struct SearchNode {
  enum Op { kAnd, kOr, kNot, kAll, kFlag, kUnflag, kNew, kOld, kKeyword, kUnkeyword, kHeader, kBody, kText,
            kLarger, kSmaller, kBefore, kOn, kSince, kSentBefore, kSentOn, kSentSince };
  Op op = kAll;
  int flag = 0;             // kFlag, kUnflag: one of kSearchFlag*
  std::string field;        // kHeader: the header's name
  std::string folded;       // texts: the value, case-folded
  unsigned long number = 0;  // sizes; dates as year*512 + month*32 + day
  std::vector<int> kids;    // kAnd, kOr, kNot: indexes into the program
};

constexpr int kSearchFlagSeen = 1, kSearchFlagDeleted = 2, kSearchFlagFlagged = 4, kSearchFlagAnswered = 8,
              kSearchFlagDraft = 16, kSearchFlagRecent = 32;

struct SearchProgram {
  std::vector<SearchNode> nodes;  // nodes[0] is the root (an AND)
  bool needs_headers = false, needs_body = false;
};

// 1 with the tree, or 0 with a reason in *error ("Unknown search key: X").
int MM_SearchParseProgram(const char* text, SearchProgram* out, std::string* error);

// What the tests read of one message; the texts are fetched on first use.
struct SearchMessage {
  int flags = 0;
  unsigned long size = 0;
  unsigned long date = 0;  // received, as year*512 + month*32 + day
  // Fill headers/body on demand; false when the message can't be read.
  bool (*fetch_headers)(void* ctx, std::string* out) = nullptr;
  bool (*fetch_body)(void* ctx, std::string* out) = nullptr;
  void* ctx = nullptr;
  // Filled by the evaluator.
  bool have_headers = false, have_body = false, sent_known = false;
  std::string headers, body;
  unsigned long sent = 0;
};

bool MM_SearchMatches(const SearchProgram& program, SearchMessage* message);

// Case folding of UTF-8 text (bytes that are not UTF-8 stay as they are).
std::string MM_SearchFoldCase(const std::string& text);
unsigned MM_SearchFoldCodePoint(unsigned cp);
// Every value of the headers with this name, unfolded, decoded for display.
std::vector<std::string> MM_SearchHeaderValues(const std::string& headers, const std::string& name);

// Runs the program over every message of an open folder through the model
// and appends the UMIs found. 1, or 0 with a reason.
int MM_FolSearchLocal(int folder, const SearchProgram& program, std::vector<UMI>* out, std::string* error);
