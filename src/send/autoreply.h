// Auto-reply: while the user is away, new mail in the watched INBOXes is
// answered once per sender with a text of the user's choosing. Mail from
// programs (lists, bounces, other auto-replies) is never answered, so two
// responders can't talk to each other for ever.
//
// The answers go out after a mail check is over, never from inside it: the
// new messages are noted when the model reports them and answered when the
// mail timer's tick has finished.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "src/model/mm.h"

// Why a message gets no answer; kAutoReplyAnswer when it gets one.
enum AutoReplyVerdict {
  kAutoReplyAnswer = 0,
  kAutoReplyOwn,            // the user's own message, or addressed back to the user
  kAutoReplyNotToUser,      // the user's address is in neither To nor Cc
  kAutoReplyAutoSubmitted,  // Auto-Submitted other than "no"
  kAutoReplyBulk,           // Precedence bulk, list or junk
  kAutoReplyList,           // List-Id or List-Unsubscribe
  kAutoReplyNoReturnPath,   // Return-Path missing or null
  kAutoReplyRobot,          // mailer-daemon, noreply and their kind
  kAutoReplyRecent,         // this sender was answered within the days
  kAutoReplyRule,           // the chosen search rule does not find it (or is gone)
  kAutoReplyNoAddress,      // no usable address to answer
  kAutoReplyRead,           // already read: the user has seen it
};

// --- The record of who was answered ------------------------------------------

// "<user dir>/autoreply.dat": one line per sender, "YYYY-MM-DD address".
std::string autoreply_record_file();
constexpr size_t kAutoReplyLineMax = 400;       // longer lines are damaged
constexpr size_t kAutoReplyEntriesMax = 5000;   // the oldest go first beyond this
constexpr size_t kAutoReplyFileMax = kAutoReplyLineMax * kAutoReplyEntriesMax;

struct AutoReplyRecord {
  std::map<std::string, long> day_of;  // address (lower case) -> day number
  size_t damaged = 0;                  // lines that could not be read
};
// Days since 1970-01-01 of "YYYY-MM-DD"; -1 when it is not a real date.
long autoreply_day_number(std::string_view date);
std::string autoreply_day_text(long day);
// Reads the file's text. Entries from days or more days before today, and
// from after today, are left out; damaged lines are counted, never kept.
void autoreply_parse_record(std::string_view text, long today, int days, AutoReplyRecord* out);
std::string autoreply_format_record(const AutoReplyRecord& record);

// --- Deciding and answering --------------------------------------------------

// Whether the message in folder gets an answer, and where it goes (the
// Reply-To, else the From, as "mailbox@host").
AutoReplyVerdict autoreply_check(int folder, UMI umi, std::string* to);
// Builds and sends (or, offline, queues) the answer to one message and
// records its sender. 1 when it went, 0 when none was due, -1 when the
// send failed (nothing is recorded: a later try may answer).
int autoreply_answer(int folder, UMI umi);
// Whether AutoReply.Enable is on, today is within the dates, and the folder
// is one of AutoReply.Folders (by default, any service's INBOX).
bool autoreply_active();
bool autoreply_watches(int folder);

// Listens for new messages; called once the model is up.
void autoreply_init();
void autoreply_shutdown();
// Answers the messages noted since the last run. Called after a mail check.
void autoreply_run_pending();
// For tests: today's date comes from this time (0: the clock).
void autoreply_set_clock_for_test(long long seconds);

// Options > Auto Reply...
void autoreply_dialog();
// The dialog's checks, also for tests: "" when days and dates are usable,
// else what is wrong.
std::string autoreply_settings_error(const std::string& days, const std::string& start, const std::string& end);
