// Counts of a folder that is not open, where they come cheaply: an IMAP
// server's STATUS over the service's control stream, a local folder's
// index. Asked by the organizer at every mail timer tick, so a failure is
// quiet (a trace, no dialog) and nothing here opens a connection the
// service doesn't already have or asks for a password.
#include <string>

#include "src/base/trace.h"
#include "src/model/model_internal.h"

int MM_FolGetStatus(int ms, const char* name, long* messages, long* unseen) {
  Trace(kTraceModel, kTraceAll, "MM_FolGetStatus: function entry.\n");
  if (messages) *messages = 0;
  if (unseen) *unseen = 0;
  MessageService* service = ServiceAt(ms);
  if (!service || !name || !*name || !messages || !unseen) return 0;
  std::string full;
  if (!MM_CCGenFolName(ms, name, &full)) return 0;
  CriticalSection busy;
  QuietSection quiet;
  MailStream* stream = nullptr;
  if (service->type != kServiceLocal) {
    // The connection the service already has, pinged (and reopened with the
    // login that worked if the server dropped it); none, no question.
    if (!service->stream) return 0;
    stream = MM_MSGetStream(ms);
    if (!stream) return 0;
  }
  MailStatus status{};
  const long asked = SA_MESSAGES | SA_UNSEEN;
  if (!mail_status(stream, full.c_str(), asked, &status) || (status.flags & asked) != asked) {
    Trace(kTraceModel, kTraceLow, "MM_FolGetStatus: no counts for %s\n", full.c_str());
    return 0;
  }
  *messages = static_cast<long>(status.messages);
  *unseen = static_cast<long>(status.unseen);
  return 1;
}
