// Read receipts. A message asks for one with Disposition-Notification-To
// (or the older Read-Receipt-To); the answer is a multipart/report with a
// sentence for people and a message/disposition-notification for programs.
// Each message is answered at most once: its Message-ID goes into a small
// file in the user directory, so that opening it again, in this session or
// a later one, neither asks nor sends again.
#include "src/send/receipt.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <set>
#include <string>

#include "c-client/rfc822/rfc822.h"
#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/own_message.h"
#include "src/options/options.h"
#include "src/send/send.h"

namespace {

constexpr int kAskCode = 3044;
constexpr int kAlwaysCode = 3043;
constexpr size_t kPolicyBuffer = 19;

// Messages without a Message-ID can't be named in the file; they are
// remembered for the session only.
std::set<UMI> g_answered_without_id;

std::string Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return "";
  return text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1);
}

std::string Option(const char* name) { return Trimmed(Opt_LookupText(name, kOptSession)); }

// A numbered text with the address in place of its %s (the address is
// data, never a format).
std::string Numbered(int code, const std::string& address) {
  std::string text = ErrorText(code) ? ErrorText(code) : "";
  if (const size_t at = text.find("%s"); at != std::string::npos) text.replace(at, 2, address);
  return text;
}

char* Copy(const std::string& text, unsigned long* size) {
  if (size) *size = text.size();
  return cpystr(text.c_str());
}

std::string MessageId(UMI umi) {
  std::string id = Trimmed(MM_MsgHeaderContent(umi, "Message-ID").value_or(""));
  for (char& c : id)
    if (c == '\r' || c == '\n' || c == '\0') c = ' ';
  return id;
}

// The newest kReceiptLogMax bytes of the file; "" when there is none.
std::string ReadLog() {
  struct stat st {};
  const int fd = safe_open_read(receipt_log_file().c_str(), nullptr, &st);
  if (fd < 0) return "";
  const off_t from = st.st_size > static_cast<off_t>(kReceiptLogMax) ? st.st_size - kReceiptLogMax : 0;
  std::string text(static_cast<size_t>(st.st_size - from), '\0');
  const ssize_t n = ::pread(fd, text.data(), text.size(), from);
  ::close(fd);
  text.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return text;
}

bool Answered(UMI umi, const std::string& id) {
  if (id.empty() || id.size() > kReceiptIdMax) return g_answered_without_id.count(umi) != 0;
  return receipt_log_contains(ReadLog(), id);
}

void Remember(UMI umi, const std::string& id) {
  if (id.empty() || id.size() > kReceiptIdMax) {
    g_answered_without_id.insert(umi);
    return;
  }
  const std::string file = receipt_log_file();
  const std::string line = id + "\n";
  std::string log = ReadLog();
  SafeFileError err;
  bool ok;
  if (log.size() + line.size() <= kReceiptLogMax) {
    ok = safe_append_record(file, line.data(), line.size(), 0600, &err);
  } else {
    // Full: the older half goes, so the file stays small and a lookup quick.
    log.erase(0, log.size() / 2);
    log.erase(0, log.find('\n') == std::string::npos ? log.size() : log.find('\n') + 1);
    ok = safe_replace_file(file, log + line, 0600, &err);
  }
  if (!ok) {
    // Not worth a dialog: the worst is that the user is asked again.
    Trace(kTraceAttach, kTraceHigh, "read receipt: can't remember %s in %s: %s\n", id.c_str(), file.c_str(),
          err.text().c_str());
    g_answered_without_id.insert(umi);
  }
}

BodyParameter* Param(const char* attribute, const std::string& value, BodyParameter* next) {
  BodyParameter* p = mail_newbody_parameter();
  p->attribute = cpystr(attribute);
  p->value = cpystr(value.c_str());
  p->next = next;
  return p;
}

// The multipart/report; null when a part could not be made.
Message* BuildReceipt(UMI umi, const std::string& address) {
  Message* message = mail_newmessage();
  message->envelope = mail_newenvelope();
  std::string to = address;
  const std::string domain = get_mail_domain();
  rfc822_parse_adrlist(&message->envelope->to, to.data(), domain.c_str());
  message->envelope->subject = cpystr("Read receipt");
  BodyPart* body = message->body = mail_newbody();
  body->type = TYPEMULTIPART;
  body->subtype = cpystr("REPORT");
  body->parameter = Param("report-type", "disposition-notification", Param("BOUNDARY", get_part_delimiter(), nullptr));

  BodyPartNode* human = body->parts = mail_newbody_part();
  human->body.type = TYPETEXT;
  human->body.subtype = cpystr("PLAIN");
  unsigned long size = 0;
  char* text = create_receipt_text(umi, &size);
  BodyPartNode* machine = human->next = mail_newbody_part();
  machine->body.type = TYPEMESSAGE;
  machine->body.subtype = cpystr("DISPOSITION-NOTIFICATION");
  unsigned long machine_size = 0;
  char* report = CreateMachineProcessableText(umi, &machine_size);
  if (!text || !report || !message->envelope->to) {
    if (text) FS_GIVE(&text);
    if (report) FS_GIVE(&report);
    receipt_free(message);
    return nullptr;
  }
  human->body.contents = mail_newtext();
  mail_text_set(human->body.contents, kTextInMemory, text, size);
  machine->body.msg_text = mail_newtext();
  mail_text_set(machine->body.msg_text, kTextInMemory, report, machine_size);
  FS_GIVE(&text);
  FS_GIVE(&report);
  return message;
}

}  // namespace

std::string receipt_log_file() { return JoinPath(GetUserDir(), "receipts.txt"); }

bool receipt_log_contains(std::string_view log, std::string_view id) {
  if (id.empty() || id.size() > kReceiptIdMax) return false;
  if (log.size() > kReceiptLogMax) log.remove_prefix(log.size() - kReceiptLogMax);
  while (!log.empty()) {
    const size_t end = log.find('\n');
    const std::string_view line = log.substr(0, end);
    if (line == id) return true;
    if (end == std::string_view::npos) break;
    log.remove_prefix(end + 1);
  }
  return false;
}

void receipt_forget_session_for_test() { g_answered_without_id.clear(); }

char* create_receipt_text(UMI umi, unsigned long* size) {
  const Envelope* env = MM_MsgEnvelope(umi);
  if (!env) return nullptr;
  const std::optional<std::string> subject = MM_MsgHeaderContent(umi, "Subject");
  std::string name = Option("General.Fullname");
  if (name.empty()) name = Option("common.from");
  if (name.empty()) name = Option("General.MailAddress");
  if (name.empty()) name = "<Unknown User>";
  std::string text = "Your message concerning \"";
  text += subject ? *subject : "<No Subject>";
  text += "\" has been displayed by " + name;
  text += Opt_LookupText("General.ReadReceiptAdditionalText", kOptSession);
  text += ".\nThis is no guarantee that the message has been read or understood.\n";
  return Copy(text, size);
}

char* CreateMachineProcessableText(UMI umi, unsigned long* size) {
  if (!MM_MsgEnvelope(umi)) return nullptr;
  std::string text = "Reporting-UA: Velmar for Linux Version 4.1.4 Build (41)\n";
  std::string own = Option("General.MailAddress");
  if (own.empty()) own = Option("common.from");
  text += "Final-Recipient: " + (own.empty() ? std::string("x-local;information lost") : "rfc822;" + own) + "\n";
  if (const std::string id = MessageId(umi); !id.empty()) text += "Original-Message-ID: " + id + "\n";
  text += "Disposition: displayed \n";
  return Copy(text, size);
}

void receipt_free(Message*& message) { mail_free_message(&message); }

int send_read_receipt(UMI umi) {
  Trace(kTraceAttach, kTraceAll, "send_read_receipt: function entry.\n");
  if (!umi || MM_MsgIsShadowMessage(umi) || MM_MsgIsOutgoing(umi)) return 0;
  std::string address = Trimmed(MM_MsgHeaderContent(umi, "Disposition-Notification-To").value_or(""));
  if (address.empty()) address = Trimmed(MM_MsgHeaderContent(umi, "Read-Receipt-To").value_or(""));
  if (address.empty()) return 0;
  const std::string id = MessageId(umi);
  if (Answered(umi, id)) return 0;

  const std::string policy = Option("General.ReadReceiptPolicy").substr(0, kPolicyBuffer);
  if (!strcasecmp(policy.c_str(), "Never")) return 0;
  if (!strcasecmp(policy.c_str(), "Always")) {
    xvt_dm_post_note("%s", Numbered(kAlwaysCode, address).c_str());
  } else {
    // "Prompt", missing, or a word we don't know: the user decides.
    const std::string question = Numbered(kAskCode, address);
    const ASK_RESPONSE answer = xvt_dm_post_ask("OK", "Cancel", nullptr, "%s", question.c_str());
    if (answer != RESP_DEFAULT) {
      // A refusal is an answer too: the message does not ask again.
      Remember(umi, id);
      return 0;
    }
  }

  xvt_progress_open("Sending Read Receipt", "Building message...", false);
  Message* message = BuildReceipt(umi, address);
  if (!message) {
    xvt_progress_close();
    Trace(kTraceAttach, kTraceCritical, "send_read_receipt: can't build a receipt for %s.\n", address.c_str());
    return 0;
  }
  SendOptions options;  // all zero: not saved, not queued by choice, not itself receipted
  const int sent = send_message(message, &options);
  receipt_free(message);
  xvt_progress_close();
  if (sent) Remember(umi, id);
  return sent;
}
