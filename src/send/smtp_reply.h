// Reading what an SMTP server answers: reply lines, multi-line replies and
// the keywords of an EHLO answer. Pure functions over text, so that the
// client and the fuzz target share them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// A server that talks without end is cut off here.
constexpr size_t kSmtpMaxReplyLine = 4096;     // bytes of one reply line
constexpr size_t kSmtpMaxReplyLines = 200;     // lines of one reply
constexpr size_t kSmtpMaxReplyText = 16384;    // text kept of one reply
constexpr size_t kSmtpMaxExtensions = 100;     // EHLO keywords kept

// One line as the server sent it: "250-text" continues, "250 text" ends.
struct SmtpReplyLine {
  int code = 0;          // 200..599
  bool last = false;     // no "-" after the code
  std::string text;      // after the separator
};
// False for a line that is no reply line (too long, no three-digit code in
// 200..599, or a fourth character other than blank, "-" or the end).
bool smtp_parse_reply_line(const char* line, size_t length, SmtpReplyLine* out);

// A whole reply, put together line by line.
struct SmtpReply {
  int code = 0;
  std::string text;                // the lines' texts joined by "\n", capped
  std::vector<std::string> lines;  // each line's text (capped in number)
  bool complete = false;
  std::string error;               // why the reply is broken, when it is
};
// Adds one line. Returns false once the reply is broken (a bad line, a
// code that changes inside the reply, too many lines); true otherwise.
// complete is set by the last line.
bool smtp_reply_add(SmtpReply* reply, const char* line, size_t length);

// What an EHLO answer offers.
struct SmtpExtensions {
  bool esmtp = false;  // the server answered EHLO
  bool starttls = false;
  bool eightbitmime = false;
  bool size = false;
  unsigned long max_size = 0;  // 0: no limit given
  bool pipelining = false;
  std::vector<std::string> auth;  // mechanisms, upper case
};
// Reads the keywords of an EHLO reply (its first line is the greeting and
// is skipped). Unknown keywords are ignored.
void smtp_parse_extensions(const SmtpReply& reply, SmtpExtensions* out);
