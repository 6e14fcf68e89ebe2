// The outbox in the foreground: what waits there leaves through
// send_message, one message at a time; what fails stays for the next run.
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "rclib/safe_file.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/send/send.h"
#include "src/send/submit.h"

namespace {

// A stored message bigger than this is not read into memory to be sent
// again; it stays in the outbox and the trace says why.
constexpr unsigned long kMaxRebuiltMessage = 64ul * 1024 * 1024;

// Headers the writer makes itself from the envelope and the options: kept
// from the stored message they would appear twice.
bool WriterMakes(const char* name) {
  static const char* const kNames[] = {"Priority",           "X-Save-Outgoing",   "Read-Receipt-To",
                                       "Delivery-Receipt-To", "Return-Receipt-To", "Disposition-Notification-To",
                                       "X-Mailer",           "X-Authentication",  "MIME-Version",
                                       "Date",               "Message-ID",        "From",
                                       "Sender",             "X-Null-Sender"};
  if (!name) return true;
  if (!strncasecmp(name, "Content-", 8)) return true;
  for (const char* n : kNames)
    if (!strcasecmp(name, n)) return true;
  return false;
}

void DropWriterHeaders(Envelope* env) {
  ExtraHeader** link = &env->extra_headers;
  while (*link) {
    ExtraHeader* x = *link;
    if (!WriterMakes(x->name)) {
      link = &x->next;
      continue;
    }
    *link = x->next;
    x->next = nullptr;
    mail_free_extra(&x);
  }
}

// The Content-* fields of a header block, with their continuation lines,
// in CRLF form.
std::string MimeFields(const std::string& header) {
  std::string out;
  bool keep = false;
  size_t at = 0;
  while (at < header.size()) {
    size_t end = header.find('\n', at);
    if (end == std::string::npos) end = header.size();
    std::string line = header.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) break;
    if (line[0] == ' ' || line[0] == '\t') {
      if (keep) out += line + "\r\n";
      continue;
    }
    keep = !strncasecmp(line.c_str(), "Content-", 8);
    if (keep) out += line + "\r\n";
  }
  return out;
}

// Bare line feeds become CRLF: the wire wants nothing else.
std::string Crlf(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

bool ReadWhole(const std::string& path, std::string* out) {
  FILE* f = safe_fopen_read(path.c_str());
  if (!f) return false;
  char block[8192];
  while (size_t n = std::fread(block, 1, sizeof block, f)) {
    out->append(block, n);
    if (out->size() > kMaxRebuiltMessage) break;
  }
  const bool ok = !std::ferror(f) && out->size() <= kMaxRebuiltMessage;
  std::fclose(f);
  return ok;
}

bool HasHeader(UMI umi, const char* name) { return MM_MsgHeaderContent(umi, name).has_value(); }

}  // namespace

int OUTBOX_Open() {
  const std::string target = Opt_LookupText("General.OutboxFolder", kOptSession);
  int ms = INVALID_SERVICE;
  std::string folder;
  if (target.empty() || !MM_FolCanonNameParse(target.c_str(), &ms, &folder) || folder.empty()) return INVALID_FOLDER;
  std::string upper = folder;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  // Deleting what was sent must never reach the user's incoming mail.
  if (upper.find("INBOX") != std::string::npos) {
    Trace(kTraceCompose, kTraceCritical, "OUTBOX_Open(): can't use INBOX as outbox.\n");
    return INVALID_FOLDER;
  }
  MM_QuietOn();
  const int id = MM_FolOpen(ms, folder.c_str());
  MM_QuietOff();
  return id;
}

void OUTBOX_Close(int folder) {
  if (folder != INVALID_FOLDER) MM_FolClose(folder, 0);
}

Message* BuildMessageFromUMI(UMI umi) {
  const Envelope* stored = MM_MsgEnvelope(umi);
  const std::optional<std::string> header = MM_MsgRawHeaders(umi);
  if (!stored || !header) return nullptr;
  const std::string body_file = MM_MsgRawBodyToFile(umi);
  if (body_file.empty()) return nullptr;
  std::string body;
  const bool read = ReadWhole(body_file, &body);
  ::unlink(body_file.c_str());
  if (!read) {
    Trace(kTraceCompose, kTraceCritical, "BuildMessageFromUMI(): can't read the stored message (or it is too big).\n");
    return nullptr;
  }
  Message* m = mail_newmessage();
  m->envelope = mail_duplicate_envelope(stored);
  DropWriterHeaders(m->envelope);
  // The stored MIME structure goes out as it was written: a prepared part
  // reaches the wire byte for byte, so nothing is decoded and encoded again.
  m->body = mail_newbody();
  m->body->type = TYPEMULTIPART;
  m->body->contents = mail_newtext();
  const std::string raw = MimeFields(*header) + "\r\n" + Crlf(body);
  mail_text_set(m->body->contents, kTextBinary, raw.data(), raw.size());
  return m;
}

namespace {

// Every message sent changes the outbox: the views hold their redraws and
// redraw once at the end, however the run ends.
struct ViewBatch {
  ViewBatch() { MM_NotPostSimple(E_BATCH_BEGIN); }
  ~ViewBatch() { MM_NotPostSimple(E_BATCH_END); }
  ViewBatch(const ViewBatch&) = delete;
  ViewBatch& operator=(const ViewBatch&) = delete;
};

}  // namespace

int OUTBOX_SendMessages(int folder) {
  if (folder == INVALID_FOLDER) return 0;
  const long count = MM_FolGetNumMsgs(folder);
  if (count <= 0) return 0;
  // Offline, send_message would only queue them again.
  if (IsOffline()) return 0;
  Trace(kTraceCompose, kTraceLow, "OUTBOX_SendMessages(): %ld messages.\n", count);
  const bool own_progress = !xvt_progress_win();
  if (own_progress) {
    xvt_progress_open("Queued Messages", "Sending queued messages ...", true);
    xvt_progress_set_range(count);
  }
  const ViewBatch batch;
  // UMIs first: a deletion must not move the walk.
  std::vector<UMI> umis;
  for (long n = 1; n <= count; ++n)
    if (UMI umi = MM_UMIFromMsgno(folder, static_cast<unsigned long>(n))) umis.push_back(umi);
  int gone = 0;
  long pos = 0;
  for (UMI umi : umis) {
    if (own_progress) xvt_progress_set_pos(++pos);
    if (xvt_progress_win() && xvt_progress_cancelled()) break;
    if (MM_MsgIsDeleted(umi)) {
      ++gone;
      continue;
    }
    SendOptions options;
    // The folder counts priorities the other way round.
    const int stored = MM_MsgPriority(umi);
    options.priority = stored == kPriorityHigh ? 2 : stored == kPriorityLow ? 0 : 1;
    options.read_receipt = HasHeader(umi, "Read-Receipt-To") ? 1 : 0;
    options.delivery_receipt = HasHeader(umi, "Delivery-Receipt-To") ? 1 : 0;
    options.save_outgoing = HasHeader(umi, "X-Save-Outgoing") ? 1 : 0;
    options.null_sender = HasHeader(umi, "X-Null-Sender") ? 1 : 0;
    options.queued = 0;
    options.from_outbox = 1;
    Message* message = BuildMessageFromUMI(umi);
    if (!message) continue;
    const int sent = send_message(message, &options);
    mail_free_message(&message);
    if (sent) {
      MM_MsgSetFlag(umi, "\\Deleted");
      ++gone;
    } else {
      Trace(kTraceCompose, kTraceCritical, "OUTBOX_SendMessages(): a message stays queued.\n");
    }
  }
  if (own_progress) xvt_progress_close();
  return gone;
}

int Mob_AnyQueuedMessages() {
  const int folder = OUTBOX_Open();
  if (folder == INVALID_FOLDER) return 0;
  const long count = MM_FolGetNumMsgs(folder);
  OUTBOX_Close(folder);
  return count > 0 ? 1 : 0;
}

int Mob_ProcessOutbox() {
  const int folder = OUTBOX_Open();
  if (folder == INVALID_FOLDER) return -1;
  const ViewBatch batch;  // the expunge after the sends is part of the run
  const int gone = OUTBOX_SendMessages(folder);
  OUTBOX_Close(folder);
  if (gone > 0) Mob_RebuildOutbox();
  return gone;
}

void Mob_RebuildOutbox() {
  const int folder = OUTBOX_Open();
  if (folder == INVALID_FOLDER) return;
  MM_FolExpunge(folder);
  OUTBOX_Close(folder);
  RebuildOutbox();
}

int SUBMIT_IsOutbox(int folder) {
  if (folder == INVALID_FOLDER || !MM_FolGetName(folder)[0]) return 0;
  int ms = INVALID_SERVICE;
  std::string name;
  const std::string target = Opt_LookupText("General.OutboxFolder", kOptSession);
  if (target.empty() || !MM_FolCanonNameParse(target.c_str(), &ms, &name)) return 0;
  return MM_FolGetService(folder) == ms && name == MM_FolGetName(folder) ? 1 : 0;
}

int SUBMIT_OutboxIsEmpty() { return Mob_AnyQueuedMessages() ? 0 : 1; }

void ReopenFolder(int folder) {
  if (folder == INVALID_FOLDER) return;
  if (!MM_FolReread(folder)) Trace(kTraceCompose, kTraceCritical, "ReopenFolder(): the outbox can't be read again.\n");
}

void RebuildOutbox() {
  const std::string target = Opt_LookupText("General.OutboxFolder", kOptSession);
  int ms = INVALID_SERVICE;
  std::string name;
  if (target.empty() || !MM_FolCanonNameParse(target.c_str(), &ms, &name)) return;
  const int open = MM_FolFindOpen(ms, name.c_str());
  if (open != INVALID_FOLDER) ReopenFolder(open);
}
