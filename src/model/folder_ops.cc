// Folders as whole things: create, delete, rename, move and copy with
// their contents, subscriptions, and the questions a listing answers
// (exists, subscribed, delimiter).
#include <strings.h>

#include <cstring>

#include "src/base/trace.h"
#include "src/model/folder_list_internal.h"
#include "src/model/model_internal.h"

namespace {

// The control stream for a folder operation: none is needed (nor made)
// for local folders. False when a remote service has no stream; the user
// has then been told, unless the login was cancelled.
bool OpStream(int ms, const char* report, MailStream** stream) {
  *stream = nullptr;
  const MessageService* svc = ServiceAt(ms);
  if (!svc) return false;
  if (svc->type == kServiceLocal) return true;
  *stream = MM_MSGetStream(ms);
  if (*stream) return true;
  ReportNoStream(2101, report);
  return false;
}

void InvalidateListCache(int ms) {
  if (MessageService* svc = ServiceAt(ms)) svc->cache_invalid = 1;
}

// A news service's full name carries the "*" of a bulletin board, which
// the subscription calls add themselves.
std::string BboardName(int ms, std::string full) {
  if (MM_MSGetType(ms) != kServiceBboard) return full;
  const size_t brace = full.find('}');
  const size_t star = full.find('*', brace == std::string::npos ? 0 : brace);
  if (star != std::string::npos) full.erase(star, 1);
  return full;
}

void PostNamed(int type, int ms, const char* name) {
  ModelEvent* ev = MM_NotEventNew(type);
  ev->ms = static_cast<int16_t>(ms);
  ev->name = name;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void PostRenamed(int from_ms, const char* old_name, int to_ms, const char* new_name) {
  ModelEvent* ev = MM_NotEventNew(E_FOLDER_RENAMED);
  ev->from_ms = static_cast<int16_t>(from_ms);
  ev->to_ms = static_cast<int16_t>(to_ms);
  ev->ms = static_cast<int16_t>(from_ms);
  ev->old_name = old_name;
  ev->new_name = new_name;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

// The number of folders a listing of name finds, or -1 if it failed.
long ListCount(int ms, const char* name, int all, FolderList* list) {
  if (!MM_MSFindFol(ms, name, all, list)) return -1;
  return static_cast<long>(list->size());
}

// The user's inbox is never deleted by a move: neither the inbox itself,
// in any case, nor a folder whose name begins with "inbox" (an old inbox
// kept as "inbox.old").
bool KeepsSource(int ms, const char* name) {
  const char* friendly = MM_FolGetFriendlyName(ms, name);
  return strcasecmp(friendly, "inbox") == 0 || strcasecmp(name, "inbox") == 0 ||
         std::strncmp(friendly, "inbox", 5) == 0;
}

}  // namespace

int MM_FolCreate(int ms, const char* name, int subscribe) {
  Trace(kTraceModel, kTraceAll, "MM_FolCreate: function entry.\n");
  if (!name) return 0;
  MailStream* stream;
  if (!OpStream(ms, "MM_FolCreate: failed to open stream for folder create", &stream)) return 0;
  std::string full;
  if (!MM_CCGenFolName(ms, name, &full)) return 0;
  {
    CriticalSection busy;
    if (!mail_create(stream, full.c_str())) return 0;
    if (subscribe == 1) mail_subscribe(stream, full.c_str());
  }
  InvalidateListCache(ms);
  // The new folder's entry as the server reports it (delimiter, flags).
  FolderList list;
  if (!MM_MSFindFol(ms, name, 1, &list) || list.empty()) return 0;
  ModelEvent* ev = MM_NotEventNew(E_NEWFOLDER);
  ev->ms = static_cast<int16_t>(ms);
  ev->name = list.front().name.c_str();
  ev->entry = &list.front();
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  return 1;
}

int MM_FolDelete(int ms, const char* name) {
  Trace(kTraceModel, kTraceAll, "MM_FolDelete: function entry.\n");
  if (!name) return 0;
  MailStream* stream;
  if (!OpStream(ms, "MM_FolDelete: failed to open stream for delete", &stream)) return 0;
  {
    QuietSection quiet;
    MM_FolSubscribe(ms, name, 0);
  }
  std::string full;
  if (!MM_CCGenFolName(ms, name, &full)) return 0;
  const int open = MM_FolFindOpen(ms, name);
  if (open != INVALID_FOLDER) MM_FolClose(open, 1);
  // The unsubscribe or a close handler may have reached the network.
  if (MM_MSGetType(ms) != kServiceLocal && !(stream = MM_MSGetStream(ms))) return 0;
  long ok;
  {
    CriticalSection busy;
    ok = mail_delete(stream, full.c_str());
  }
  if (!ok) return 0;
  InvalidateListCache(ms);
  PostNamed(E_FOLDER_DELETED, ms, name);
  return 1;
}

int MM_FolRename(int ms, const char* old_name, const char* new_name, int skip_server) {
  Trace(kTraceModel, kTraceAll, "MM_FolRename: function entry.\n");
  if (!old_name || !new_name) return 0;
  MailStream* stream;
  // The text names another function; it is what users have quoted to us.
  if (!OpStream(ms, "MM_FolSubscribe: failed to open stream for rename", &stream)) return 0;
  std::string full_old, full_new;
  if (!MM_CCGenFolName(ms, old_name, &full_old) || !MM_CCGenFolName(ms, new_name, &full_new)) return 0;
  const bool board = MM_MSGetType(ms) == kServiceBboard;
  const std::string sub_old = BboardName(ms, full_old), sub_new = BboardName(ms, full_new);
  auto subscription = [&](bool on, const std::string& which) -> long {
    if (board) return on ? mail_subscribe_bboard(stream, which.c_str()) : mail_unsubscribe_bboard(stream, which.c_str());
    return on ? mail_subscribe(stream, which.c_str()) : mail_unsubscribe(stream, which.c_str());
  };
  CriticalSection busy;
  long unsubscribed;
  {
    QuietSection quiet;
    unsubscribed = subscription(false, sub_old);
  }
  if (!skip_server && !mail_rename(stream, full_old.c_str(), full_new.c_str())) {
    if (unsubscribed) {
      QuietSection quiet;
      subscription(true, sub_old);
    }
    return 0;
  }
  if (unsubscribed) subscription(true, sub_new);
  InvalidateListCache(ms);
  PostRenamed(ms, old_name, ms, new_name);
  return 1;
}

int MM_FolMove(int from_ms, const char* name, int to_ms, const char* new_name) {
  Trace(kTraceModel, kTraceAll, "MM_FolMove: function entry.\n");
  if (!name) return 0;
  const std::string source = name;  // handlers may rename what name points at
  const std::string target = new_name ? new_name : name;
  if (from_ms == to_ms && source == target) return 1;
  const int exists = MM_FolExists(to_ms, target.c_str());
  if (from_ms == to_ms && !exists) return MM_FolRename(from_ms, source.c_str(), target.c_str(), 0);
  if (!exists) {
    if (!MM_FolCreate(to_ms, target.c_str(), 0)) return 0;
    if (MM_MSFolIsSubscribed(from_ms, source.c_str())) MM_FolSubscribe(to_ms, target.c_str(), 1);
  }
  // A move that did not finish keeps the source whole.
  if (!MM_FolCopyContent(from_ms, source.c_str(), to_ms, target.c_str(), 1)) return 0;
  PostRenamed(from_ms, source.c_str(), to_ms, target.c_str());
  if (KeepsSource(from_ms, source.c_str())) return 1;
  MM_FolDelete(from_ms, source.c_str());
  return 1;
}

int MM_FolCopy(int from_ms, const char* name, int to_ms, const char* new_name) {
  Trace(kTraceModel, kTraceAll, "MM_FolCopy: function entry.\n");
  if (!name) return 0;
  const std::string source = name;
  const std::string target = new_name ? new_name : name;
  if (from_ms == to_ms && source == target) return 0;
  if (!MM_FolExists(to_ms, target.c_str())) {
    if (!MM_FolCreate(to_ms, target.c_str(), 0)) return 0;
    if (MM_MSFolIsSubscribed(from_ms, source.c_str())) MM_FolSubscribe(to_ms, target.c_str(), 1);
  }
  return MM_FolCopyContent(from_ms, source.c_str(), to_ms, target.c_str(), 0);
}

int MM_FolCopyContent(int from_ms, const char* name, int to_ms, const char* new_name, int move) {
  Trace(kTraceModel, kTraceAll, "MM_FolCopyContent: function entry.\n");
  if (!name || !new_name) return 0;
  const std::string target = new_name;
  const int source = MM_FolOpen(from_ms, name);
  if (source == INVALID_FOLDER) return 0;
  // The UMIs are taken first: a move may expunge as it goes, and the
  // message numbers shift under it while the UMIs stay.
  const long count = MM_FolGetNumMsgs(source);
  std::vector<UMI> umis;
  umis.reserve(static_cast<size_t>(count));
  for (long n = 1; n <= count; ++n) umis.push_back(MM_UMIFromMsgno(source, static_cast<unsigned long>(n)));
  bool done = true;
  // A counted bar only where it is worth watching.
  constexpr long kCountedAbove = 10;
  ProgressScope progress("Transferring folder contents ...");
  if (count > kCountedAbove) progress.Range(count + 1);
  long n = 0;
  for (UMI umi : umis) {
    ++n;
    if (progress.Stopped()) {
      done = false;
      break;
    }
    if (count > kCountedAbove && n % 5 == 0) progress.Pos(n);
    const int ok = move ? MM_MsgMove(umi, to_ms, target.c_str()) : MM_MsgCopy(umi, to_ms, target.c_str());
    if (!ok) {
      Trace(kTraceModel, kTraceCritical, "MM_FolCopyContent: message %ld of %s was not transferred\n", n, name);
      done = false;
      break;
    }
  }
  // Our own use of the source ends either way; other users keep it open.
  MM_FolClose(source, 0);
  if (!done) return 0;
  const int open = MM_FolFindOpen(to_ms, target.c_str());
  if (open != INVALID_FOLDER) MM_FolCheckNewMail(open, 1);
  return 1;
}

int MM_FolSubscribe(int ms, const char* name, int subscribe) {
  Trace(kTraceModel, kTraceAll, "MM_FolSubscribe: function entry.\n");
  if (!name || !*name) return 0;
  long result = 0;
  const int type = MM_MSGetType(ms);
  if (!ServiceAt(ms)) return 0;
  switch (type) {
    case kServiceImap:
    case kServicePop:
    case kServiceBboard:
    case kServiceNntp: {
      CriticalSection busy;
      MailStream* stream = MM_MSGetStream(ms);
      if (!stream) {
        ReportNoStream(2101, "MM_FolSubscribe: failed to open stream for subscription");
        return 0;
      }
      std::string full;
      if (!MM_CCGenFolName(ms, name, &full)) return 0;
      if (type == kServiceImap || type == kServicePop) {
        result = subscribe ? mail_subscribe(stream, full.c_str()) : mail_unsubscribe(stream, full.c_str());
      } else {
        full = BboardName(ms, full);
        result = subscribe ? mail_subscribe_bboard(stream, full.c_str()) : mail_unsubscribe_bboard(stream, full.c_str());
      }
      break;
    }
    case kServiceLocal:
      result = subscribe ? mail_subscribe(nullptr, name) : mail_unsubscribe(nullptr, name);
      break;
    default:
      return 0;
  }
  if (result != 1) return 0;
  // A cached listing of subscribed folders no longer tells the truth.
  InvalidateListCache(ms);
  PostNamed(subscribe ? E_FOLDER_SUBSCRIBED : E_FOLDER_UNSUBSCRIBED, ms, name);
  return 1;
}

int MM_MSFolIsSubscribed(int ms, const char* name) {
  FolderList list;
  return ListCount(ms, name, 0, &list) == 1;
}

int MM_FolExists(int ms, const char* name) {
  FolderList list;
  const bool exists = ListCount(ms, name, 1, &list) == 1;
  Trace(kTraceModel, kTraceLow, exists ? "MM_FolExists: folder %s exists\n" : "MM_FolExists: folder %s does not exist\n",
        name ? name : "");
  return exists;
}

char MM_FolDelimiter(int ms, const char* name) {
  FolderList list;
  if (ListCount(ms, name, 1, &list) <= 0) ListCount(ms, "", 1, &list);
  return list.size() == 1 ? list.front().delimiter : 0;
}
