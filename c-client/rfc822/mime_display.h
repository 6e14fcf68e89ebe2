// Turning stored header text into what a reader sees: RFC 2047 encoded
// words and raw 8-bit bytes to UTF-8, and RFC 2231 parameters (split and
// charset-tagged file names) reassembled. Stored envelopes stay raw; these
// run at display time.
#pragma once

#include <string>
#include <string_view>

#include "c-client/core/mail.h"

// Header text for display, in UTF-8: encoded words decoded, raw bytes
// taken as UTF-8 when they are valid UTF-8, else as Windows-1252.
std::string mime_display_text(const char* raw);
// UTF-8 helpers every reader of display text shares: a code point
// appended (the caller has checked it), and the length of the well-formed
// sequence at s (shortest form, no surrogates, at most U+10FFFF), 0 when
// there is none.
void utf8_append(std::string& out, unsigned long cp);
size_t utf8_length(const unsigned char* s, size_t n);
// A body part's text in UTF-8 from the bytes in its charset (iconv for
// the charsets this file does not know itself; unlabelled bytes as in
// mime_display_text). Line breaks become LF; TABs stay; other control
// characters are dropped, and bad sequences become U+FFFD.
std::string mime_display_body(std::string_view bytes, const char* charset);
// A parameter's value from a part's list (found as rfc822_parameter finds
// it, RFC 2231 forms included) in UTF-8; empty when absent.
std::string mime_parameter(const BodyParameter* list, const char* attribute);
// The file name a part suggests (FILENAME of a disposition if kept, else
// NAME), made safe for a file system: no "/" or control characters.
std::string mime_file_name(const BodyPart* part);
