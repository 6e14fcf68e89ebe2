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
  int needle = -1;          // kBody, kText: index into SearchProgram::needles
};

constexpr int kSearchFlagSeen = 1, kSearchFlagDeleted = 2, kSearchFlagFlagged = 4, kSearchFlagAnswered = 8,
              kSearchFlagDraft = 16, kSearchFlagRecent = 32;

struct SearchProgram {
  std::vector<SearchNode> nodes;  // nodes[0] is the root (an AND)
  bool needs_headers = false, needs_body = false;
  // The folded texts of the BODY and TEXT keys, each once: one pass over a
  // message's body answers them all.
  std::vector<std::string> needles;
};

// 1 with the tree, or 0 with a reason in *error ("Unknown search key: X").
int MM_SearchParseProgram(const char* text, SearchProgram* out, std::string* error);

// What the tests read of one message; the texts are fetched on first use.
struct SearchMessage {
  int flags = 0;
  unsigned long size = 0;
  unsigned long date = 0;  // received, as year*512 + month*32 + day
  // Fill the headers on demand; false when the message can't be read.
  bool (*fetch_headers)(void* ctx, std::string* out) = nullptr;
  // Looks for every needle (folded) in the message's body as a server
  // reads it, and sets (*found)[i] for each one there; false when the
  // body can't be read.
  bool (*scan_body)(void* ctx, const std::vector<std::string>& needles, std::vector<char>* found) = nullptr;
  void* ctx = nullptr;
  // Filled by the evaluator.
  bool have_headers = false, have_body = false, sent_known = false;
  std::string headers;
  std::vector<char> found;  // per needle of the program
  unsigned long sent = 0;
};

// Finds folded needles in text that comes in blocks: the text is folded
// block by block (a UTF-8 sequence cut by a block's end waits for the next)
// and a needle is found across the joins. Memory stays at a block and the
// longest needle whatever the length of the text. Each segment (one part
// of a message) is searched on its own: a match never spans two parts.
class SearchTextScan {
 public:
  SearchTextScan(const std::vector<std::string>& needles, std::vector<char>* found);
  void Feed(const char* data, size_t size);
  void EndSegment();
  bool AllFound() const { return left_ == 0; }

 private:
  void Match();
  const std::vector<std::string>& needles_;
  std::vector<char>* found_;
  size_t left_ = 0;   // needles not found yet
  size_t keep_ = 0;   // folded bytes kept between blocks: longest needle - 1
  std::string carry_;   // the start of a UTF-8 sequence cut by a block's end
  std::string window_;  // folded: the kept tail, then the new block
};

bool MM_SearchMatches(const SearchProgram& program, SearchMessage* message);

// Case folding of UTF-8 text (bytes that are not UTF-8 stay as they are).
// With `from`, the offset in text of each byte of the result, and the
// text's size behind them, so that a match found in the folded text names
// the text's own bytes however folding changed the lengths.
std::string MM_SearchFoldCase(const std::string& text, std::vector<size_t>* from = nullptr);
unsigned MM_SearchFoldCodePoint(unsigned cp);
// Every value of the headers with this name, unfolded, decoded for display.
std::vector<std::string> MM_SearchHeaderValues(const std::string& headers, const std::string& name);

// Runs the program over every message of an open folder through the model
// and appends the UMIs found. 1, or 0 with a reason. Messages before
// `first` are not looked at: new mail is searched without the old.
int MM_FolSearchLocal(int folder, const SearchProgram& program, std::vector<UMI>* out, std::string* error,
                      unsigned long first = 1);
