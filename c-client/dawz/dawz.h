// The dawz driver: a mailbox held in one text file. Each message is
// preceded by an internal header line
//
//   " 3-Jun-2024 10:00:00-+0200,1234;000000000003\r\n"
//
// (date, zone, message size, then twelve octal digits: ten of user flags
// and two of system flags), so that a flag change rewrites twelve bytes in
// place. Names are "#dawz/name" (the file name under the folders
// directory) or INBOX, which the mh driver is asked for first.
//
// No file locks: another writer is noticed through the file's size at the
// next check.
#pragma once

#include <cstddef>
#include <string>

#include "c-client/core/mail.h"

struct DawzLocal {
  int fd = -1;                 // the mailbox file; -1 when closed
  unsigned long filesize = 0;  // bytes parsed so far
  std::string path;
  bool parsed_once = false;    // messages found after the first parse are recent
};

// An internal header line is read in one piece of at most this many bytes.
constexpr size_t kDawzLineMax = 88;
// A mailbox of more messages than this is not believed.
constexpr unsigned long kDawzMaxMessages = 10'000'000;
// Headers longer than this are cut for the structure parse.
constexpr unsigned long kDawzParseHeaderMax = 65000;

// The element's header_size holds the internal line's length in its top
// eight bits and the size of the message header in the rest.
constexpr int kDawzLineShift = 56;
constexpr unsigned long kDawzHeaderMask = (1ul << kDawzLineShift) - 1;
inline unsigned long dawz_line_length(const MessageElt* e) { return e->header_size >> kDawzLineShift; }
inline unsigned long dawz_header_size(const MessageElt* e) { return e->header_size & kDawzHeaderMask; }
// Where the message text starts in the file.
inline unsigned long dawz_text_start(const MessageElt* e) { return e->file_number + dawz_line_length(e); }

// --- The file format (dawz_parse.cc) -----------------------------------------

// What an internal header line says.
struct DawzLine {
  size_t length = 0;        // with its CRLF
  std::string date;         // the text before ","
  unsigned long size = 0;   // the size it claims
  unsigned long user_flags = 0;
  unsigned system_flags = 0;  // 1 seen, 2 deleted, 4 flagged, 8 answered
};
// Reasons a line is refused, worded as the user sees them.
enum class DawzLineError { kNone, kNoLineEnd, kNoMarks, kComponents };
// Parses the line at the start of bytes (n of them, at most kDawzLineMax looked at).
DawzLineError dawz_parse_line(const char* bytes, size_t n, DawzLine* out);
// Whether the first bytes of a file (n of them) have the form of this format:
// empty, or dashes at 2 and 6 (or 1 and 5), and from offset 20 a "," and,
// at least two bytes later, a ";", all within 64 bytes.
bool dawz_format_ok(const char* bytes, size_t n);
// Whether a line has the full form of an internal header: what ends a
// message while scanning.
bool dawz_looks_like_line(const char* bytes, size_t n);
// Whether path is a regular file of this format (an empty one counts).
// errno ENOENT when there is nothing, kLocalNotAFile / EISDIR for the wrong kind.
bool dawz_is_mailbox(const std::string& path, int* error = nullptr);
// The end of the message whose text starts at start: the next line that
// looks like an internal header, or the end of the file.
unsigned long dawz_message_end(int fd, unsigned long start, unsigned long file_size);
// Reads the records after local->filesize into elements; false (told, the
// stream closed) when the file can't be read as this format.
bool dawz_parse(MailStream* stream);
// Flags of a line and of an element, both ways.
void dawz_set_element_flags(MessageElt* e, unsigned long user_flags, unsigned system_flags);
unsigned dawz_system_flags(const MessageElt* e);
// The internal header line for a date text, a size and flags.
std::string dawz_make_line(const std::string& date, unsigned long size, unsigned long user_flags,
                           unsigned system_flags);
// The current local time as the line writes it.
std::string dawz_now();

// --- Slots ---------------------------------------------------------------------

DawzLocal* dawz_local(MailStream* stream);
// The path of a name: "#dawz/" dropped, INBOX in any case is INBOX.
std::string dawz_file(const char* name);
MailDriver* dawz_valid(const char* name);
MailStream* dawz_open(MailStream* stream);
void dawz_close(MailStream* stream);
void dawz_abort(MailStream* stream);  // closes the file after a failure
long dawz_ping(MailStream* stream);
void dawz_check(MailStream* stream);
Envelope* dawz_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body);
MailText* dawz_fetchheader(MailStream* stream, unsigned long msgno);
MailText* dawz_fetchtext(MailStream* stream, unsigned long msgno);
MailText* dawz_fetchbody(MailStream* stream, unsigned long msgno, const char* section, BodyPart* part,
                         unsigned long offset, unsigned long* length);
MailText* dawz_read_text(MailStream* stream, unsigned long msgno);
void dawz_setflag(MailStream* stream, const char* sequence, const char* flags);
void dawz_clearflag(MailStream* stream, const char* sequence, const char* flags);
void dawz_search(MailStream* stream, const char* criteria);
void dawz_expunge(MailStream* stream);
long dawz_copy(MailStream* stream, const char* sequence, const char* mailbox);
long dawz_move(MailStream* stream, const char* sequence, const char* mailbox);
long dawz_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message);
// Writes the element's flags into its line: twelve bytes, nothing else.
bool dawz_update_status(MailStream* stream, unsigned long msgno);
void dawz_find(MailStream* stream, const char* pattern);
void dawz_find_all(MailStream* stream, const char* pattern);
long dawz_subscribe(MailStream* stream, const char* mailbox);
long dawz_unsubscribe(MailStream* stream, const char* mailbox);
long dawz_create(MailStream* stream, const char* mailbox);
long dawz_delete(MailStream* stream, const char* mailbox);
long dawz_rename(MailStream* stream, const char* old_name, const char* new_name);

// For tests: the expunge stops dead after the named step, as if killed:
// "written" (the new file synced), "renamed". Null: off.
void dawz_set_crash_point_for_test(const char* step);
