// Changing messages: flags with their model events, and copying, moving and
// appending messages between folders.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <new>

#include "c-client/rfc822/strsrc.h"
#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/model/message_internal.h"

namespace {

struct FlagEvent {
  const char* name;
  int set_event;
  int clear_event;
};

constexpr FlagEvent kFlagEvents[] = {
    {"\\Deleted", E_DELETED_FLAG_SET, E_DELETED_FLAG_CLEARED},
    {"\\Seen", E_SEEN_FLAG_SET, E_SEEN_FLAG_CLEARED},
    {"\\Flagged", E_FLAGGED_FLAG_SET, E_FLAGGED_FLAG_CLEARED},
    {"\\Answered", E_ANSWERED_FLAG_SET, E_ANSWERED_FLAG_CLEARED},
    {"\\Draft", E_DRAFT_FLAG_SET, E_DRAFT_FLAG_CLEARED},
};

void PostMessageEvent(int type, UMI umi) {
  ModelEvent* ev = MM_NotEventNew(type);
  ev->umi = umi;
  ev->folder = static_cast<int16_t>(MM_UMIFolder(umi));
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void MarkNeedsExpunge(UMI umi) {
  if (FolderInfo* f = FolderAt(MM_UMIFolder(umi))) f->needs_expunge = true;
}

// Changes a flag on the message and tells the listeners. Without a live
// stream nothing is stored, so nothing is posted: a window must not show a
// flag that the folder never got.
int ChangeFlag(UMI umi, const char* flag, bool set) {
  if (!flag) return 0;
  MailStream* stream;
  unsigned long msgno;
  if (!UmiLocate(umi, &stream, &msgno)) return 0;
  char sequence[32];
  std::snprintf(sequence, sizeof sequence, "%lu", msgno);
  {
    CriticalSection busy;
    if (set) {
      QuietSection quiet;
      mail_setflag(stream, sequence, flag);
    } else {
      mail_clearflag(stream, sequence, flag);
    }
  }
  for (const FlagEvent& f : kFlagEvents) {
    if (strcasecmp(flag, f.name) != 0) continue;
    if (set && f.set_event == E_DELETED_FLAG_SET) MarkNeedsExpunge(umi);
    PostMessageEvent(set ? f.set_event : f.clear_event, umi);
    break;
  }
  return 1;
}

}  // namespace

int MM_MsgSetFlag(UMI umi, const char* flag) { return ChangeFlag(umi, flag, true); }
int MM_MsgClearFlag(UMI umi, const char* flag) { return ChangeFlag(umi, flag, false); }

std::string MM_MsgAppendFlags(int flags, bool draft_capable) {
  std::string list;
  if (flags & kAppendSeen) list += "\\Seen ";
  if (flags & kAppendFlagged) list += "\\Flagged ";
  if (flags & kAppendAnswered) list += "\\Answered ";
  if (flags & kAppendDeleted) list += "\\Deleted ";
  if ((flags & kAppendDraft) && draft_capable) list += "\\Draft ";
  if (list.empty()) return "";
  list.pop_back();
  return "(" + list + ")";
}

int MM_MsgAppend(int ms, const char* folder, const char* file, int flags, const char* date) {
  Trace(kTraceModel, kTraceAll, "MM_MsgAppend: function entry.\n");
  if (ms == INVALID_SERVICE || !folder || !file) return 0;
  MailStream* stream = nullptr;
  if (MM_MSGetType(ms) != kServiceLocal) {
    stream = MM_MSGetStream(ms);
    if (!stream) {
      Trace(kTraceModel, kTraceCritical, "MM_MsgAppend(): failed to append message to folder: %s.\n", folder);
      return 0;
    }
  }
  std::string full;
  if (!MM_CCGenFolName(ms, folder, &full)) return 0;
  struct stat st;
  const int fd = safe_open_read(file, nullptr, &st);
  if (fd < 0) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgAppend(): failed to append message to folder: %s.\n", full.c_str());
    return 0;
  }
  std::unique_ptr<FileText> reader(new (std::nothrow) FileText{});
  if (!reader) {
    ::close(fd);
    ErrorShow(2002, "Allocating space for appending message to folder.");
    return 0;
  }
  reader->fd = fd;
  reader->start = 0;
  StringSource source;
  string_init(&source, &file_string, reader.get(), static_cast<unsigned long>(st.st_size));
  std::string flag_list;
  if (flags) {
    long capabilities = 0;
    const bool draft = MM_MSCapabilities(ms, &capabilities) && (capabilities & 2);
    flag_list = MM_MsgAppendFlags(flags, draft);
  }
  long ok;
  {
    CriticalSection busy;
    ok = mail_append(stream, full.c_str(), flag_list.empty() ? nullptr : flag_list.c_str(), date, &source);
  }
  ::close(fd);
  if (!ok) Trace(kTraceModel, kTraceCritical, "MM_MsgAppend(): failed to append message to folder: %s.\n", full.c_str());
  return ok ? 1 : 0;
}

int MM_MsgCopy(UMI umi, int ms, const char* folder) {
  Trace(kTraceModel, kTraceAll, "MM_MsgCopy: function entry.\n");
  if (ms == INVALID_SERVICE) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgCopy: bogus message service passed as parameter: %d\n", ms);
    return 0;
  }
  if (!folder) return 0;
  const int source_folder = MM_UMIFolder(umi);
  if (MM_MSGetType(ms) != kServiceLocal && !MM_MsgIsShadowMessage(umi) && MM_FolGetService(source_folder) == ms) {
    // Both folders live on the same server: it copies by itself.
    MailStream* stream;
    unsigned long msgno;
    if (!UmiLocate(umi, &stream, &msgno)) {
      Trace(kTraceModel, kTraceCritical, "MM_MsgCopy: invalid folder stream in source message UMI.\n");
      return 0;
    }
    char sequence[32];
    std::snprintf(sequence, sizeof sequence, "%lu", msgno);
    CriticalSection busy;
    mail_fetchstructure(stream, msgno, nullptr);
    xvt_scr_set_busy_cursor();
    return mail_copy(stream, sequence, folder) ? 1 : 0;
  }

  int flags = 0;
  char date[kMailDateSize] = "";
  const char* date_arg = nullptr;
  if (!MM_MsgIsShadowMessage(umi)) {
    MessageElt* elt = MM_UMIGetElt(umi);
    if (!elt) return 0;
    if (elt->deleted) flags |= kAppendDeleted;
    if (elt->seen) flags |= kAppendSeen;
    if (elt->answered) flags |= kAppendAnswered;
    if (elt->flagged) flags |= kAppendFlagged;
    if (elt->draft) flags |= kAppendDraft;
    if (elt->day) date_arg = mail_date(date, elt);
  }
  const std::string file = MM_MsgToFile(umi);
  // Reading the message to copy it marks it read; a copy is no reading, so
  // a message the user has not seen stays new where it was.
  if (!MM_MsgIsShadowMessage(umi) && !(flags & kAppendSeen) && MM_MsgIsRead(umi)) MM_MsgClearFlag(umi, "\\Seen");
  if (file.empty()) {
    ErrorShow(2009, "MM_MsgCopy: failed to dump a copy of the message to disk");
    return 0;
  }
  const int ok = MM_MsgAppend(ms, folder, file.c_str(), flags, date_arg);
  std::remove(file.c_str());
  return ok;
}

int MM_MsgMove(UMI umi, int ms, const char* folder) {
  Trace(kTraceModel, kTraceAll, "MM_MsgMove: function entry.\n");
  if (MM_MsgIsShadowMessage(umi)) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgMove: attempt to move shadow UMI message\n");
    return 0;
  }
  if (!folder || ms == INVALID_SERVICE) return 0;
  if (MM_FolGetService(MM_UMIFolder(umi)) == ms) {
    MailStream* stream;
    unsigned long msgno;
    if (!UmiLocate(umi, &stream, &msgno)) return 0;
    char sequence[32];
    std::snprintf(sequence, sizeof sequence, "%lu", msgno);
    long ok;
    {
      CriticalSection busy;
      ok = mail_move(stream, sequence, folder);
    }
    if (!ok) return 0;
    // The move marked the source deleted where it lives.
    MarkNeedsExpunge(umi);
    PostMessageEvent(E_DELETED_FLAG_SET, umi);
    return 1;
  }
  if (!MM_MsgCopy(umi, ms, folder)) {
    Trace(kTraceModel, kTraceCritical, "MM_MsgMove: call to MM_MsgCopy returned false.\n");
    return 0;
  }
  return MM_MsgSetFlag(umi, "\\Deleted");
}
