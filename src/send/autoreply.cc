// Auto-reply: the decision, the answer, and the record of who was answered.
#include "src/send/autoreply.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <ctime>
#include <set>
#include <vector>

#include "c-client/rfc822/rfc822.h"
#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/model/own_message.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/search/search_rules.h"
#include "src/send/send.h"

namespace {

constexpr int kDefaultDays = 7;
constexpr int kMaxDays = 365;
constexpr int kMaxTries = 3;           // a send that keeps failing is given up after this many checks
constexpr size_t kMaxPending = 1000;   // a flood of new mail is not all answered in one go
constexpr size_t kMaxAddress = 320;
constexpr const char* kDefaultSubject = "Auto: %s";
constexpr const char* kDefaultText = "I am away from my mail and will read your message when I return.";

struct Pending {
  int folder;
  UMI umi;
  int tries;
};

struct State {
  int notifier = -1;
  bool running = false;
  std::vector<Pending> pending;
  // Answered this session when the record could not be written: the
  // sender still isn't answered twice before the program ends.
  std::map<std::string, long> unsaved;
  long long clock_for_test = 0;
};

State& S() {
  static State s;
  return s;
}

std::string Trimmed(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return "";
  return std::string(text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1));
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Option(const char* name) { return Trimmed(Opt_LookupText(name, kOptSession)); }

int Days() {
  int days = kDefaultDays;
  if (!Opt_LookupInt("AutoReply.Days", &days, kOptSession)) days = kDefaultDays;
  return std::clamp(days, 1, kMaxDays);
}

long Today() {
  const time_t now = S().clock_for_test ? static_cast<time_t>(S().clock_for_test) : std::time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &local);
  return autoreply_day_number(text);
}

std::string Address(const MailAddress* a) {
  if (!a || !a->mailbox || !*a->mailbox || !a->host || !*a->host || a->error) return "";
  std::string text = std::string(a->mailbox) + "@" + a->host;
  if (text.size() > kMaxAddress) return "";
  for (char c : text)
    if (static_cast<unsigned char>(c) <= ' ' || c == 0x7f) return "";
  return Lower(text);
}

// Addresses no person reads: bounces, list robots, "do not reply" senders.
bool IsRobot(const std::string& address) {
  const std::string local = address.substr(0, address.find('@'));
  static const char* const kExact[] = {"mailer-daemon", "postmaster", "listserv", "majordomo", "mailer"};
  for (const char* word : kExact)
    if (local == word) return true;
  if (local.rfind("owner-", 0) == 0) return true;
  if (local.size() > 8 && local.compare(local.size() - 8, 8, "-request") == 0) return true;
  std::string squeezed;
  for (char c : local)
    if (std::isalnum(static_cast<unsigned char>(c))) squeezed += c;
  return squeezed.find("noreply") != std::string::npos || squeezed.find("donotreply") != std::string::npos;
}

bool ToUser(UMI umi) {
  const std::string own[] = {Option("General.MailAddress"), Option("common.from")};
  if (own[0].empty() && own[1].empty()) return true;  // nothing to compare with
  for (int kind : {5, 6})
    for (const MailAddress* a = MM_MsgToAddress(umi, kind); a; a = a->next)
      for (const std::string& mine : own)
        if (!mine.empty() && MM_SameAddress(a, mine.c_str())) return true;
  return false;
}

bool RuleFinds(int folder, UMI umi) {
  const std::string name = Option("AutoReply.Rule");
  if (name.empty()) return true;
  std::string rule;
  if (!SRCH_GetRuleByName("IMAP", name.c_str(), &rule, nullptr)) {
    Trace(kTraceCompose, kTraceHigh, "auto-reply: the rule \"%s\" is gone; nothing is answered\n", name.c_str());
    return false;
  }
  MM_FolSearchStart(folder);
  std::vector<UMI> found;
  if (!MM_FolSearch(folder, rule.c_str()) || !MM_FolSearchGetList(folder, &found)) return false;
  return std::find(found.begin(), found.end(), umi) != found.end();
}

std::string ReadRecordText() {
  struct stat st {};
  SafeFileError err;
  const int fd = safe_open_read(autoreply_record_file().c_str(), &err, &st);
  if (fd < 0) return "";
  // Only the newest part of an oversized file; the cut line is damaged.
  const off_t from = st.st_size > static_cast<off_t>(kAutoReplyFileMax) ? st.st_size - kAutoReplyFileMax : 0;
  std::string text(static_cast<size_t>(st.st_size - from), '\0');
  const ssize_t n = ::pread(fd, text.data(), text.size(), from);
  ::close(fd);
  text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return text;
}

bool WriteRecord(const AutoReplyRecord& record) {
  SafeFileError err;
  if (safe_replace_file(autoreply_record_file(), autoreply_format_record(record), 0600, &err)) return true;
  Trace(kTraceCompose, kTraceCritical, "auto-reply: can't write %s: %s\n", autoreply_record_file().c_str(),
        err.text().c_str());
  return false;
}

// The record as it stands; a damaged file is traced and written again
// with its good lines.
AutoReplyRecord LoadRecord() {
  AutoReplyRecord record;
  autoreply_parse_record(ReadRecordText(), Today(), Days(), &record);
  if (record.damaged) {
    Trace(kTraceCompose, kTraceCritical, "auto-reply: %zu damaged line(s) in %s; rewritten with the %zu good ones\n",
          record.damaged, autoreply_record_file().c_str(), record.day_of.size());
    record.damaged = 0;
    WriteRecord(record);
  }
  return record;
}

void Remember(const std::string& address) {
  AutoReplyRecord record = LoadRecord();
  record.day_of[address] = Today();
  if (!WriteRecord(record)) S().unsaved[address] = Today();
}

bool AnsweredRecently(const std::string& address) {
  const long today = Today();
  if (auto it = S().unsaved.find(address); it != S().unsaved.end() && today - it->second < Days()) return true;
  return LoadRecord().day_of.count(address) != 0;
}

ExtraHeader* Extra(const char* name, const std::string& value, ExtraHeader* next) {
  ExtraHeader* x = mail_newextra();
  x->name = cpystr(name);
  x->value = cpystr(value.c_str());
  x->next = next;
  return x;
}

// One line of a header value: folded lines joined, control bytes gone.
std::string OneLine(std::string text) {
  for (char& c : text)
    if (c == '\r' || c == '\n' || c == '\t' || c == '\0') c = ' ';
  return Trimmed(text);
}

Message* BuildAnswer(UMI umi, const std::string& to) {
  Message* message = mail_newmessage();
  message->envelope = mail_newenvelope();
  std::string address = to;
  rfc822_parse_adrlist(&message->envelope->to, address.data(), get_mail_domain().c_str());
  std::string subject = Opt_LookupText("AutoReply.Subject", kOptSession);
  if (Trimmed(subject).empty()) subject = kDefaultSubject;
  const std::string original = OneLine(MM_MsgHeaderContent(umi, "Subject").value_or(""));
  if (const size_t at = subject.find("%s"); at != std::string::npos) subject.replace(at, 2, original);
  message->envelope->subject = cpystr(OneLine(subject).c_str());
  const std::string id = OneLine(MM_MsgHeaderContent(umi, "Message-ID").value_or(""));
  ExtraHeader* extras = Extra("Auto-Submitted", "auto-replied", nullptr);
  if (!id.empty() && id.size() < kAutoReplyLineMax) {
    message->envelope->in_reply_to = cpystr(id.c_str());
    std::string references = OneLine(MM_MsgHeaderContent(umi, "References").value_or(""));
    // A long thread keeps its newest ids: the header stays one sane line.
    while (references.size() > 900) {
      const size_t blank = references.find(' ');
      references = blank == std::string::npos ? "" : Trimmed(references.substr(blank));
    }
    extras = Extra("References", references.empty() ? id : references + " " + id, extras);
  }
  message->envelope->extra_headers = extras;
  std::string text = Opt_LookupText("AutoReply.Text", kOptSession);
  if (Trimmed(text).empty()) text = kDefaultText;
  if (text.back() != '\n') text += "\n";
  message->body = mail_newbody();
  message->body->type = TYPETEXT;
  message->body->subtype = cpystr("PLAIN");
  message->body->contents = mail_newtext();
  mail_text_set(message->body->contents, kTextInMemory, text.c_str(), text.size());
  return message;
}

int WantEvent(ModelEvent* ev, void*) { return ev->type == E_NEW_MESSAGES; }

void HandleEvent(ModelEvent* ev, void*) {
  // Told from inside the mail layer's command: only note the messages here.
  if (!autoreply_active() || !autoreply_watches(ev->folder)) return;
  const long count = MM_FolGetNumMsgs(ev->folder);
  for (long n = std::max<long>(ev->value, 0) + 1; n <= count && S().pending.size() < kMaxPending; ++n)
    if (const UMI umi = MM_UMIFromMsgno(ev->folder, static_cast<unsigned long>(n)))
      S().pending.push_back({ev->folder, umi, 0});
}

}  // namespace

std::string autoreply_record_file() { return JoinPath(GetUserDir(), "autoreply.dat"); }

long autoreply_day_number(std::string_view date) {
  if (date.size() != 10 || date[4] != '-' || date[7] != '-') return -1;
  int parts[3] = {0, 0, 0};
  const size_t at[3][2] = {{0, 4}, {5, 2}, {8, 2}};
  for (int i = 0; i < 3; ++i)
    for (size_t k = at[i][0]; k < at[i][0] + at[i][1]; ++k) {
      if (!std::isdigit(static_cast<unsigned char>(date[k]))) return -1;
      parts[i] = parts[i] * 10 + (date[k] - '0');
    }
  using namespace std::chrono;
  const year_month_day ymd{year{parts[0]}, month{static_cast<unsigned>(parts[1])}, day{static_cast<unsigned>(parts[2])}};
  if (parts[0] < 1970 || !ymd.ok()) return -1;
  return static_cast<long>(sys_days(ymd).time_since_epoch().count());
}

std::string autoreply_day_text(long day) {
  using namespace std::chrono;
  const year_month_day ymd{sys_days(days(day))};
  char text[16];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()));
  return text;
}

void autoreply_parse_record(std::string_view text, long today, int days, AutoReplyRecord* out) {
  out->day_of.clear();
  out->damaged = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) continue;
    const long day = line.size() > 11 ? autoreply_day_number(line.substr(0, 10)) : -1;
    std::string address = line.size() > 11 && line[10] == ' ' ? Lower(std::string(line.substr(11))) : "";
    const bool good = line.size() <= kAutoReplyLineMax && day >= 0 && day <= today && address.size() <= kMaxAddress &&
                      address.find('@') != std::string::npos &&
                      std::none_of(address.begin(), address.end(),
                                   [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == 0x7f; });
    if (!good) {
      ++out->damaged;
      continue;
    }
    if (today - day >= days) continue;  // old enough to answer again
    long& kept = out->day_of[address];
    kept = std::max(kept, day);
  }
  // Beyond the limit the oldest answers go: at worst someone hears twice.
  if (out->day_of.size() > kAutoReplyEntriesMax) {
    std::vector<std::pair<long, std::string>> by_day;
    for (const auto& [address, day] : out->day_of) by_day.emplace_back(-day, address);
    std::nth_element(by_day.begin(), by_day.begin() + kAutoReplyEntriesMax, by_day.end());
    by_day.resize(kAutoReplyEntriesMax);
    out->day_of.clear();
    for (const auto& [day, address] : by_day) out->day_of[address] = -day;
  }
}

std::string autoreply_format_record(const AutoReplyRecord& record) {
  std::string text;
  for (const auto& [address, day] : record.day_of) text += autoreply_day_text(day) + " " + address + "\n";
  return text;
}

bool autoreply_active() {
  short on = 0;
  if (!Opt_LookupBoolean("AutoReply.Enable", &on, kOptSession) || !on) return false;
  const long today = Today();
  const long start = autoreply_day_number(Option("AutoReply.StartDate"));
  const long end = autoreply_day_number(Option("AutoReply.EndDate"));
  return (start < 0 || today >= start) && (end < 0 || today <= end);
}

bool autoreply_watches(int folder) {
  const char* name = MM_FolGetName(folder);
  if (!name || !*name) return false;
  const std::string folders = Option("AutoReply.Folders");
  if (folders.empty()) return strcasecmp(name, "INBOX") == 0;
  const std::string canon = MM_FolCanonNameBuild(MM_FolGetService(folder), name);
  size_t at = 0;
  while (at < folders.size()) {
    const size_t end = std::min(folders.find(',', at), folders.size());
    if (strcasecmp(Trimmed(std::string_view(folders).substr(at, end - at)).c_str(), canon.c_str()) == 0) return true;
    at = end + 1;
  }
  return false;
}

AutoReplyVerdict autoreply_check(int folder, UMI umi, std::string* to) {
  to->clear();
  if (MM_MsgIsOutgoing(umi)) return kAutoReplyOwn;
  if (MM_MsgIsRead(umi)) return kAutoReplyRead;
  const auto header = [umi](const char* name) { return MM_MsgHeaderContent(umi, name); };
  const std::string submitted = Lower(Trimmed(header("Auto-Submitted").value_or("no")));
  if (Trimmed(submitted.substr(0, submitted.find(';'))) != "no") return kAutoReplyAutoSubmitted;
  const std::string precedence = Lower(Trimmed(header("Precedence").value_or("")));
  if (precedence == "bulk" || precedence == "list" || precedence == "junk") return kAutoReplyBulk;
  if (header("List-Id") || header("List-Unsubscribe")) return kAutoReplyList;
  // The envelope sender: empty for bounces and other notices.
  std::string path = Trimmed(header("Return-Path").value_or(""));
  MailAddress* parsed = nullptr;
  rfc822_parse_adrlist(&parsed, path.data(), "");
  const std::string return_path = Address(parsed);
  mail_free_address(&parsed);
  if (return_path.empty()) return kAutoReplyNoReturnPath;
  const std::string from = Address(MM_MsgToAddress(umi, 1));
  std::string target = Address(MM_MsgToAddress(umi, 3));
  if (target.empty()) target = from;
  if (target.empty()) return kAutoReplyNoAddress;
  if (IsRobot(target) || IsRobot(return_path) || (!from.empty() && IsRobot(from))) return kAutoReplyRobot;
  for (const char* mine : {"General.MailAddress", "common.from"})
    if (const std::string own = Lower(Option(mine)); !own.empty() && (own == target || own == return_path))
      return kAutoReplyOwn;
  if (!ToUser(umi)) return kAutoReplyNotToUser;
  if (AnsweredRecently(target)) return kAutoReplyRecent;
  if (!RuleFinds(folder, umi)) return kAutoReplyRule;
  *to = target;
  return kAutoReplyAnswer;
}

int autoreply_answer(int folder, UMI umi) {
  std::string to;
  const AutoReplyVerdict verdict = autoreply_check(folder, umi, &to);
  if (verdict != kAutoReplyAnswer) {
    Trace(kTraceCompose, kTraceLow, "auto-reply: message %lu not answered (%d)\n", MM_UMIMsgno(umi), verdict);
    return 0;
  }
  Message* message = BuildAnswer(umi, to);
  SendOptions options;
  // Nobody wrote this message: a failed delivery offers no draft, the
  // next check tries again. Offline, it waits in the outbox.
  options.from_outbox = IsOffline() ? 0 : 1;
  options.null_sender = 1;  // its bounce must not be answered again
  const int sent = send_message(message, &options);
  mail_free_message(&message);
  Trace(kTraceCompose, kTraceLow, "auto-reply to %s: %s\n", to.c_str(), sent ? "sent" : "failed");
  // Only an answer that left (or is in the outbox) counts as given.
  if (!sent) return -1;
  Remember(to);
  return 1;
}

void autoreply_init() {
  if (S().notifier < 0) S().notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "auto-reply");
}

void autoreply_shutdown() {
  if (S().notifier >= 0) MM_NotUnregister(S().notifier);
  S().notifier = -1;
  S().pending.clear();
  S().unsaved.clear();
}

void autoreply_run_pending() {
  State& s = S();
  if (s.running || s.pending.empty()) return;
  s.running = true;
  std::vector<Pending> work;
  work.swap(s.pending);
  std::vector<Pending> again;
  for (Pending& p : work) {
    if (!autoreply_active()) break;
    if (!MM_UMIMsgno(p.umi)) continue;  // expunged meanwhile
    if (autoreply_answer(p.folder, p.umi) < 0 && ++p.tries < kMaxTries) again.push_back(p);
  }
  s.pending.insert(s.pending.begin(), again.begin(), again.end());
  s.running = false;
}

void autoreply_set_clock_for_test(long long seconds) { S().clock_for_test = seconds; }
