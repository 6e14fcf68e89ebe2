// Delivery of a message file over SMTP: the host list, the envelope, and
// the file streamed in blocks with its Bcc fields taken out.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "c-client/rfc822/rfc822_write.h"
#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/send/send.h"
#include "src/send/smtp.h"

namespace {

constexpr size_t kDataBlock = 31998;
// A header block larger than this is no message we wrote: refused rather
// than sent with a Bcc that might lie beyond the part we looked at.
constexpr size_t kMaxHeaderBlock = 4u << 20;
constexpr long kGaugeFrom = 10000;

void Status(const std::string& text) {
  Trace(kTraceCompose, kTraceLow, "%s\n", text.c_str());
  if (xvt_progress_win()) xvt_progress_set_text(text.c_str());
}

bool Cancelled() { return xvt_progress_win() && xvt_progress_cancelled(); }

// Reads the header block (through its empty line) from fd into *header.
// -1 on a read error, 0 when it is too big, 1 otherwise.
int ReadHeader(int fd, std::string* header, std::string* rest) {
  char block[8192];
  for (;;) {
    const size_t searched_from = header->size() > 3 ? header->size() - 3 : 0;
    const ssize_t n = ::read(fd, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) return 1;  // all header: a message without a body
    header->append(block, static_cast<size_t>(n));
    size_t end = std::string::npos;
    for (size_t i = searched_from; i < header->size(); ++i) {
      if ((*header)[i] != '\n') continue;
      if (i + 1 < header->size() && (*header)[i + 1] == '\n') {
        end = i + 2;
        break;
      }
      if (i + 2 < header->size() && (*header)[i + 1] == '\r' && (*header)[i + 2] == '\n') {
        end = i + 3;
        break;
      }
    }
    if (header->size() >= 2 && header->compare(0, 2, "\r\n") == 0) end = 2;
    if (end != std::string::npos) {
      *rest = header->substr(end);
      header->resize(end);
      return 1;
    }
    if (header->size() > kMaxHeaderBlock) return 0;
  }
}

bool SendRecipients(SmtpStream* stream, Message* message) {
  struct Field {
    MailAddress* list;
    const char* name;
  };
  const Field fields[] = {{message->envelope->to, "To"},
                          {message->envelope->cc, "Cc"},
                          {message->envelope->bcc, "Bcc"}};
  bool any_failed = false;
  for (const Field& f : fields) {
    bool failed = false;
    if (f.list) smtp_rcpt(stream, f.list, &failed);
    any_failed |= failed;
  }
  if (!any_failed) return true;
  const std::string server = stream->reply;
  for (const Field& f : fields) {
    bool bad = false;
    for (MailAddress* a = f.list; a; a = a->next) {
      if (!a->error) continue;
      bad = true;
      const std::string address = std::string(a->mailbox ? a->mailbox : "") + "@" + (a->host ? a->host : "");
      xvt_dm_post_error("Invalid address in %s field - %s\n%s", f.name, address.c_str(), a->error);
    }
    if (bad && stream->tcp) {
      smtp_send(stream, "RSET", nullptr);
      smtp_fake(stream, kSmtpFailed,
                (std::string("One or more of the message ") + f.name + ": recipients failed.").c_str());
    }
  }
  return false;
}

}  // namespace

char** get_delivery_hostlist() {
  char** list = new char*[kMaxDeliveryHosts + 1]();
  int n = 0;
  std::string first;
  size_t length = 0;
  if (!Opt_LookupStringLength("General.DeliveryHost", kOptSession, &length)) {
    ErrorNote(2010, "General.DeliveryHost");
  } else {
    first = Opt_LookupText("General.DeliveryHost", kOptSession);
  }
  const std::string words = first + " " + Opt_LookupText("common.delivery.hosts", kOptSession);
  std::string word;
  for (size_t i = 0; i <= words.size() && n < kMaxDeliveryHosts; ++i) {
    const char c = i < words.size() ? words[i] : ' ';
    if (c == ' ' || c == '\t' || c == ',' || c == '(' || c == ')' || c == '{' || c == '}' || c == '\r' ||
        c == '\n') {
      if (!word.empty()) list[n++] = cpystr(word.c_str());
      word.clear();
    } else {
      word += c;
    }
  }
  if (n == 0) list[n++] = cpystr(get_mail_domain().c_str());
  return list;
}

void destroy_delivery_hostlist(char*** list) {
  if (!list || !*list) return;
  for (char** p = *list; *p; ++p) FS_GIVE(p);
  delete[] *list;
  *list = nullptr;
}

int deliver_message(char** hostlist, Message* message, const char* file, bool* cancelled, bool null_sender) {
  Trace(kTraceCompose, kTraceAll, "deliver_message: function entry.\n");
  if (cancelled) *cancelled = false;
  if (!message || !message->envelope || !file) return 0;
  Status(std::string("Connecting to SMTP Server: ") + (hostlist && hostlist[0] ? hostlist[0] : "") + " ...");
  int port = 0;
  if (!Opt_LookupInt("Send.TCPPort", &port, kOptSession) || port < 0 || port > 65535) port = 0;
  short debug = 0;
  Opt_LookupBoolean("Send.Debug", &debug, kOptSession);
  std::string why;
  SmtpStream* stream = smtp_open(hostlist, static_cast<unsigned long>(port), debug != 0, &why);
  if (!stream) {
    SendError(2006, ("Failed to open SMTP stream to host. " + why).c_str());
    return 0;
  }
  Status("Connected to SMTP Server: " + stream->host);
  if (Cancelled()) {
    if (cancelled) *cancelled = true;
    smtp_abort(&stream);
    return 0;
  }
  smtp_send(stream, "RSET", nullptr);
  char from[1024] = "";
  if (!null_sender && message->envelope->from && std::strlen(message->envelope->from->mailbox ? message->envelope->from->mailbox : "") +
                                         std::strlen(message->envelope->from->host ? message->envelope->from->host : "") <
                                     900)
    rfc822_write_one_address(from, message->envelope->from);
  struct stat st {};
  const bool have_size = ::stat(file, &st) == 0;
  std::string arguments = std::string("FROM:<") + from + ">";
  if (stream->ext.size && have_size) {
    if (stream->ext.max_size && static_cast<unsigned long>(st.st_size) > stream->ext.max_size) {
      SendError(2007, ("The message (" + std::to_string(st.st_size) + " bytes) is larger than " + stream->host +
                       " takes (" + std::to_string(stream->ext.max_size) + " bytes).")
                          .c_str());
      smtp_close(&stream);
      return 0;
    }
    arguments += " SIZE=" + std::to_string(st.st_size);
  }
  if (stream->ext.eightbitmime) arguments += " BODY=8BITMIME";
  if (smtp_send(stream, "MAIL", arguments.c_str()) != 250) {
    SendError(2007, ("Failed in SMTP startup negotiation: " + stream->reply).c_str());
    smtp_close(&stream);
    return 0;
  }
  if (!SendRecipients(stream, message)) {
    smtp_close(&stream);
    return 0;
  }
  SafeFileError error;
  const int fd = safe_open_read(file, &error);
  if (fd < 0) {
    Trace(kTraceCompose, kTraceCritical, "deliver_message(): failed to open message file %s\n", file);
    SendError(2003, (std::string(file) + " (" + error.text() + ")").c_str());
    smtp_close(&stream);
    return 0;
  }
  if (smtp_send(stream, "DATA", nullptr) != 354) {
    SendError(2007, ("failed to initiate SMTP DATA phase. " + stream->reply).c_str());
    ::close(fd);
    smtp_close(&stream);
    return 0;
  }
  smtp_fake(stream, kSmtpGone, "SMTP connection dropped during message send.");
  Status("Sending message to host: " + stream->host + " ...");
  const long total = have_size ? static_cast<long>(st.st_size) : 0;
  const bool gauge = total > kGaugeFrom && xvt_progress_win();
  if (gauge) xvt_progress_set_range(total);

  std::string header, rest;
  const int got = ReadHeader(fd, &header, &rest);
  bool ok = got == 1;
  if (got < 0) {
    Trace(kTraceCompose, kTraceCritical, "deliver_message(): failed read in message file.\n");
    SendError(2005, (std::string(file) + " (" + std::strerror(errno) + ")").c_str());
  } else if (got == 0) {
    SendError(2007, "The message's header block is too large to send.");
  }
  long sent = 0;
  if (ok) {
    const size_t header_size = header.size();
    smtp_strip_bcc(&header);
    ok = smtp_soutr(stream, header.data(), header.size()) && smtp_soutr(stream, rest.data(), rest.size());
    sent = static_cast<long>(header_size + rest.size());
  }
  std::string block(kDataBlock, '\0');
  while (ok) {
    if (Cancelled()) {
      if (cancelled) *cancelled = true;
      ::close(fd);
      smtp_abort(&stream);
      return 0;
    }
    const ssize_t n = ::read(fd, block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      Trace(kTraceCompose, kTraceCritical, "deliver_message(): failed read in message file.\n");
      SendError(2005, (std::string(file) + " (" + std::strerror(errno) + ")").c_str());
      ok = false;
      break;
    }
    if (n == 0) break;
    if (!smtp_soutr(stream, block.data(), static_cast<size_t>(n))) {
      SendError(2007, ("Failed during send of message in SMTP DATA phase. " + stream->reply).c_str());
      ok = false;
      break;
    }
    sent += n;
    if (gauge) xvt_progress_set_pos(sent);
  }
  ::close(fd);
  if (!ok) {
    smtp_abort(&stream);
    return 0;
  }
  if (!stream->line_start && !smtp_soutr(stream, "\r\n", 2)) ok = false;
  // The terminating dot goes out as is: it must not be stuffed.
  if (ok && smtp_send(stream, ".", nullptr) != 250) ok = false;
  if (!ok) {
    Trace(kTraceCompose, kTraceCritical, "deliver_message(): could not terminate the message body.\n");
    SendError(2007, ("The server did not take the message: " + stream->reply).c_str());
    smtp_abort(&stream);
    return 0;
  }
  smtp_close(&stream);
  return 1;
}
