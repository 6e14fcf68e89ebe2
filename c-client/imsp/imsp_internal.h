// The inside of the option and address book client: the session record,
// one parsed reply line and the reader of its arguments, shared by the
// wire code (imsp_wire.cc), the commands (imsp.cc) and the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "c-client/imsp/imsp.h"
#include "c-client/net/tcp.h"

// Limits on what a server may send. A line is already capped by the
// transport (kTcpMaxLine); a literal, the pairs of one entry and the
// entries one expansion walks are capped here, so that a hostile or broken
// server costs bounded memory and time.
constexpr size_t kImspMaxLiteral = 1u << 20;
constexpr int kImspMaxPairs = 4096;
constexpr size_t kImspMaxExpand = 2000;

// Keyword ids of reply lines.
enum ImspKeyword {
  kImspNone = 0,
  kImspOk = 1,
  kImspNo,
  kImspBad,
  kImspPreauth,
  kImspBye,
  kImspExists,  // 6 .. 11 need a number before them
  kImspRecent,
  kImspExpunge,
  kImspFetch,
  kImspCopy,
  kImspStore,
  kImspMailbox,
  kImspBboard,
  kImspSearch,
  kImspFlags,
  kImspAddressbook,
  kImspSearchaddress,
  kImspFetchaddress,
  kImspOption,
  kImspMyrights,
  kImspAcl,
};

struct ImspReply {
  std::string line;     // the line as read
  std::string tag;
  std::string keyword;  // upper-cased; empty for a "+" line
  std::string text;     // what follows the keyword; replaced after a literal
  size_t at = 0;        // the argument reader's place in text
  long number = -1;
  int keyword_id = kImspNone;
  std::vector<std::string> literals;  // live until the next line is parsed
  TcpStream* tcp = nullptr;           // where literals come from; null: none can
  char message[192] = "";             // the last parse error
};

struct ImspSession {
  ImspCallbacks callbacks;
  TcpStream* tcp = nullptr;
  uint32_t tag_counter = 0;
  std::string awaited;  // the tag of the command in flight
  std::string book;     // what a null book argument stands for
  std::string reply_book;  // the book a search's answers belong to
  std::string user;
  std::string gen_text;
  bool quiet = false;
  bool logged_in = false;    // a LOGOUT is owed before the connection closes
  bool logging_out = false;  // the server's BYE is the expected answer
  ImspReply reply;
  // Group expansion: the walk's queue and the addresses found so far.
  bool expand_mode = false;
  std::vector<std::pair<std::string, std::string>> expand_queue;
  std::vector<std::string> expand_addresses;
};

// Parses one line (without its CR LF) into reply. False, with the reason
// in reply->message and given to mm_log, when the line makes no sense.
bool imsp_parse_line(const char* line, ImspReply* reply);
// The next argument of the reply's text: false at the end of the text, for
// an empty literal, or when a literal cannot be read.
bool imsp_next_arg(ImspReply* reply, std::string* arg);
// (attribute, value) pairs up to the end of the text, at most kImspMaxPairs.
std::vector<ImspPair> imsp_next_pairs(ImspReply* reply, int* n);
// Reads lines up to the tagged answer of awaited (null: the greeting).
long imsp_reply(ImspSession* session, const char* awaited);
// Which form a string goes in: 0 atom, 1 quoted, 2 literal.
int imsp_string_form(const std::string& s);
// For tests and the fuzzer: the session talks over this stream.
void imsp_attach_for_test(ImspSession* session, TcpStream* tcp);
