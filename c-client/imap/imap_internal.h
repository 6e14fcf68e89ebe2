// What the imap2 driver's files share: the stream's private record, the
// command writer and reply reader, the untagged and fetch-data parsers.
#pragma once

#include <string>
#include <vector>

#include "c-client/auth/authenticators.h"
#include "c-client/core/mail.h"
#include "c-client/net/tcp.h"

struct StringSource;

// Bits of ImapLocal::level: what the server is known or believed to do.
constexpr unsigned kImapProbed = 1;
constexpr unsigned kImapUseFull = 2;
constexpr unsigned kImapUseFind = 4;
constexpr unsigned kImapUseLsub = 8;
constexpr unsigned kImapUseList = 16;
constexpr unsigned kImapUseBboardSubscribe = 32;
constexpr unsigned kImapUseScan = 64;
constexpr unsigned kImapUseSubscribe = 256;
constexpr unsigned kImapAclOldSyntax = 512;
constexpr unsigned kImapImap4 = 1024;
constexpr unsigned kImapImap4rev1 = 2048;
constexpr unsigned kImapUseMailboxSubscribe = 4096;
constexpr unsigned kImapPmdf = 8192;
constexpr unsigned kImapAcl = 16384;
constexpr unsigned kImapQuota = 32768;
constexpr unsigned kImapLevelAtOpen = kImapUseFull | kImapUseFind | kImapUseLsub | kImapUseList |
                                      kImapUseBboardSubscribe | kImapUseScan | kImapUseSubscribe |
                                      kImapUseMailboxSubscribe;
// Bits of ImapLocal::level2.
constexpr unsigned kImapNoAtomicRename = 2;
constexpr unsigned kImapNoStatus = 4;  // the server answered STATUS with BAD

constexpr int kImapMaxAuthenticators = 5;

// Limits on what a server may send. Beyond them the reply is refused with
// an error, or the connection is closed where staying in step would mean
// reading without bound.
constexpr unsigned long kImapMaxString = 1ul << 20;        // a string held in memory
constexpr unsigned long kImapMaxLiteral = 1ul << 30;       // any literal, texts included
constexpr int kImapMaxDepth = 50;                          // nested lists and body parts
constexpr unsigned long kImapMaxListItems = 10000;         // addresses, parts, parameters, flags
constexpr unsigned long kImapMaxMessages = 50000000;       // EXISTS
constexpr unsigned long kImapMaxLiteralsPerReply = 100000;  // literals in one response

// The current reply: the line as read (literals of an untagged reply are
// consumed by its parser) and its three fields.
struct ImapReply {
  std::string line;
  std::string tag;
  std::string key;   // upper-cased
  std::string text;  // the rest
};

struct ImapLocal {
  TcpStream* tcp = nullptr;  // null once the connection is lost
  unsigned long uidvalidity = 0;
  ImapReply reply;
  unsigned level = 0;
  unsigned level2 = 0;
  const Authenticator* authenticators[kImapMaxAuthenticators + 1] = {};
  bool starttls = false;        // the server offers STARTTLS
  bool logindisabled = false;   // the server refuses LOGIN on this connection
  bool bboard = false;
  bool logging_out = false;     // the server's BYE now is the expected answer
  NetMailbox net{};             // the name the stream was opened with
  std::string host;             // "{...}" part of canonical names, switches kept
  // Reading ahead: where the last structure fetch ended and how big it was,
  // so that a caller walking the mailbox in order gets ever larger ranges.
  unsigned long ahead_end = 0;
  unsigned long ahead_lo = 0;
  unsigned long ahead_size = 0;
  unsigned long literals = 0;  // literals read in the current response
  // A STATUS command in flight: the untagged answer for this mailbox (as
  // sent) lands in *status; answers for other mailboxes are stepped over.
  MailStatus* status = nullptr;
  std::string status_mailbox;
};

inline ImapLocal* imap_local(MailStream* stream) { return static_cast<ImapLocal*>(stream->local); }

// Settings (mail_parameters 100-115).
struct ImapSettings {
  long login_attempts = 3;
  long lookahead = 20;
  long port = 0;
  long prefetch_text = 0;
  long login_with_mailbox = 0;
  long login_flag = 0;  // stored, read by no one
  long no_auth = 0;
  long no_login = 0;
};
ImapSettings& imap_settings();

// --- Commands and replies (imap_wire.cc) ------------------------------------

// The optional arguments of a command, in the order they go on the line.
struct ImapArgs {
  const char* string1 = nullptr;  // mailbox-like string
  const char* sequence = nullptr;
  const char* atom = nullptr;
  const char* flags = nullptr;    // "(...)" or a bare list that gets parentheses
  const char* string2 = nullptr;
  const char* string3 = nullptr;   // a third string (ACL rights)
  StringSource* source = nullptr;  // message text, sent as a literal
  bool secret = false;             // string2 is a password: traced as ***
};

// Sends a command and reads up to its tagged reply; the untagged replies
// on the way are dispatched. Never null.
ImapReply* imap_send(MailStream* stream, const char* command, const ImapArgs& args = {});
// Reads replies until the one tagged `tag` (null: the greeting).
ImapReply* imap_reply(MailStream* stream, const char* tag);
// Reads replies until one tagged with any of `tags` (commands in flight);
// `tag` names a lost connection's made-up reply.
ImapReply* imap_reply_among(MailStream* stream, const std::vector<std::string>& tags, const char* tag);
// Sends a command line without waiting for its reply; its tag, or "" when
// the line could not be sent.
std::string imap_send_tagged(MailStream* stream, const std::string& command);
// A made-up reply for a lost connection; closes the connection and tells
// the user at level 4.
ImapReply* imap_fake(MailStream* stream, const char* tag, const char* text);
// The reply is a success; otherwise the user is told why (level 2).
bool imap_OK(MailStream* stream, ImapReply* reply);
// The reply's key is exactly this word.
bool imap_key_is(const ImapReply* reply, const char* key);
// Sends a raw line (with CRLF added); false on a broken connection.
bool imap_send_line(MailStream* stream, const std::string& line, const std::string& shown);
// Drops the connection (when the server broke the protocol beyond repair).
void imap_drop(MailStream* stream, const std::string& why);
// Traces a protocol line under the debug flag.
void imap_trace(MailStream* stream, const std::string& text);

// --- Untagged replies and the fetch data (imap_untagged.cc, imap_parse.cc) --
// Settings live in imap.cc, the fetch slots in imap_fetch.cc.

// A reader over the current reply that can step over literals: after a
// literal the next line is read and parsing goes on in it.
struct ImapCursor {
  MailStream* stream;
  ImapLocal* local;
  std::string line;
  size_t pos = 0;
  bool failed = false;  // the connection broke or a limit was hit
};

void imap_parse_unsolicited(MailStream* stream, ImapReply* reply);
void imap_parse_response_code(MailStream* stream, const std::string& text);
void imap_parse_capabilities(MailStream* stream, const std::string& words);
// The data of one "n FETCH (...)" reply.
void imap_parse_fetch(MailStream* stream, unsigned long msgno, ImapCursor& cursor);
// Steps over whatever is left of the reply, literals included, so that
// the next read starts at a reply.
void imap_skip_rest(ImapCursor& cursor);

// Cursor primitives.
void imap_skip_spaces(ImapCursor& c);
bool imap_at(ImapCursor& c, char ch);
// An atom (up to a blank, parenthesis, bracket or the end).
std::string imap_atom(ImapCursor& c);
// NIL, a quoted string or a literal. False when none is there; *nil says
// NIL. Strings over kImapMaxString are dropped (reported) and read as NIL.
bool imap_string(ImapCursor& c, std::string* out, bool* nil);
// Any value: atom, string or parenthesised list, stepped over.
bool imap_skip_value(ImapCursor& c, int depth);

// The text of a literal or string value, through mail_gets.
MailText* imap_text(ImapCursor& c);
