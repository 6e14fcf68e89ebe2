// Parsing RFC 822 and MIME: header blocks into envelopes, addresses, body
// structures over a StringSource, and dates.
//
// Hostile input is bounded: header lines, address lists and MIME nesting
// have limits (kRfc822MaxDepth parts deep; deeper parts are kept opaque).
// Parser faults never fail a message: they log at level 3 and keep what
// was understood.
#pragma once

#include <string>

#include "c-client/core/mail.h"
#include "c-client/rfc822/strsrc.h"

// Size of the work buffer that callers pass down (part header lines and
// the boundary share it).
constexpr size_t kRfc822WorkSize = 16384;
constexpr int kRfc822MaxDepth = 50;

extern const char* const body_types[];      // "TEXT" ... "X-UNKNOWN"
extern const char* const body_encodings[];  // "7BIT" ... "X-UNKNOWN"
const char* rfc822_default_subtype(unsigned short type);
extern const char* const wspecials;
extern const char* const specials;
extern const char* const rspecials;
extern const char* const tspecials;

// Parses the header block header[0, size) into *env, and, with body given,
// the body structure from bs (positioned at the body's first byte; its size
// is where the body ends). The block is parsed from a private copy and left
// as it is. host is the default host of unqualified addresses; work is a
// buffer of kRfc822WorkSize bytes. Either out argument may be null.
//
// Part offsets (BodyPartNode.offset) are positions in bs's text, through
// any depth of nesting, at the part's first byte after its part headers;
// msg_offset stays 0. Sizes are exact byte counts of the text as stored
// (reading size_bytes bytes at the offset gives exactly the part, for LF
// and CRLF text alike); size_lines counts line feeds.
void rfc822_parse_msg(Envelope** env, BodyPart** body, char* header, unsigned long size, StringSource* bs,
                      const char* host, char* work);
// Header lines: *text points into a block of *remaining bytes. Returns the
// current line (zero-terminated in place; with unfold set, the line breaks
// of its folds are taken out and the blanks after them kept) and
// advances; null at the end of the block. A last line without a line feed
// is terminated at (*text)[*remaining], which must be writable (as the zero
// after a MailText of kind 1 is).
char* rfc822_next_header(char** text, unsigned long* remaining, bool unfold);
// Appends the addresses of text to *list.
void rfc822_parse_adrlist(MailAddress** list, char* text, const char* host);
MailAddress* rfc822_parse_address(MailAddress** list, MailAddress* last, char** text, const char* host);
void rfc822_skipws(char** text);
// Strips double quotes and backslashes from a word in place.
char* rfc822_quote(char* text);
void rfc822_parse_content(BodyPart* body, StringSource* bs, const char* host, char* work);
// name is the header's name after "CONTENT-" (upper case), value its value.
void rfc822_parse_content_header(BodyPart* body, char* name, char* value);

// A part's parameter by name (any case), as its sender meant it: the
// extended form NAME* ("charset'language'" and %XX escapes), else the
// continuations NAME*0, NAME*1*, ... joined in order, else plain NAME.
// Every lookup of a parameter by name goes through here, so that a
// boundary or a file name written in either form is found alike.
struct Rfc822Parameter {
  bool found = false;
  bool extended = false;  // value holds decoded bytes in charset
  std::string charset;    // of an extended value, as declared ("" if none)
  std::string value;
};
Rfc822Parameter rfc822_parameter(const BodyParameter* list, const char* attribute);

// The exact byte count of a message file's header, from the descriptor's
// position through the empty (or blank) line that ends it, whatever the
// line ends; the position is left alone. -1 after a read error (reported).
long rfc822_header_size(int fd);

// Dates. The strict parser fills an element's date fields; 1 if valid.
long mail_parse_date(MessageElt* elt, const char* text);
// The free parser for Date headers: missing fields stay -1; a missing or
// unknown zone reads as offset 0 named "???".
struct DateFields {
  int weekday;  // 0 Sunday
  int day;
  int month;  // 1 to 12
  int year;   // four digits
  int hour, minute, second;
  int zone_minutes;   // offset east of Greenwich
  char zone_name[8];  // as written, or "???"
};
void parse_date_fields(const char* text, DateFields* out);
// Orders two Date header texts in time; null before non-null.
int compare_message_dates(const char* a, const char* b);
