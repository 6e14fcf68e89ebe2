// The table of open folders: opening with a use count, the stream gate,
// closing, counts, expunge, new-mail checks and searches.
#include <strings.h>

#include <cstring>

#include "src/base/trace.h"
#include "src/model/model_internal.h"

namespace {

std::array<std::unique_ptr<FolderInfo>, kMaxFolders> g_folders;

// mm_exists and mm_expunged come many times in a row for one stream.
int g_memo_id = INVALID_FOLDER;
MailStream* g_memo_stream = nullptr;

}  // namespace

FolderInfo* FolderAt(int id) {
  if (id < 0 || id >= kMaxFolders) return nullptr;
  return g_folders[id].get();
}

int FolderForStream(MailStream* stream) {
  if (!stream) return INVALID_FOLDER;
  if (g_memo_stream == stream && FolderAt(g_memo_id) && g_folders[g_memo_id]->stream == stream) return g_memo_id;
  for (int id = 0; id < kMaxFolders; ++id) {
    if (g_folders[id] && g_folders[id]->stream == stream) {
      g_memo_id = id;
      g_memo_stream = stream;
      return id;
    }
  }
  return INVALID_FOLDER;
}

// Closes the folder's stream, quietly, and forgets it as the last one found.
static void CloseStream(int id, FolderInfo* f) {
  if (g_memo_id == id) {
    g_memo_id = INVALID_FOLDER;
    g_memo_stream = nullptr;
  }
  if (f->stream) {
    QuietSection quiet;
    f->stream = mail_close(f->stream);
  }
}

void FolderRelease(int id) {
  FolderInfo* f = FolderAt(id);
  if (!f) return;
  CloseStream(id, f);
  ShadowReleaseAll(f);
  g_folders[id].reset();
}

FolderInfo* ReportExpunged(int id, unsigned long msgno) {
  FolderInfo* f = FolderAt(id);
  if (!f || msgno < 1 || msgno > f->count()) return f;
  // Listeners still find the message in the table while they hear of it.
  ModelEvent* ev = MM_NotEventNew(E_MSG_EXPUNGED);
  ev->umi = MM_UMIMake(id, 0, f->serials[msgno]);
  ev->folder = static_cast<int16_t>(id);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  f = FolderAt(id);
  if (f && msgno <= f->count()) f->serials.erase(f->serials.begin() + static_cast<long>(msgno));
  return f;
}

int MM_FolFindOpen(int ms, const char* name) {
  if (!name) return INVALID_FOLDER;
  for (int id = 0; id < kMaxFolders; ++id) {
    const FolderInfo* f = g_folders[id].get();
    if (f && f->service == ms && f->name == name) return id;
  }
  return INVALID_FOLDER;
}

int MM_FolOpen(int ms, const char* name) {
  Trace(kTraceModel, kTraceAll, "MM_FolOpen: function entry.\n");
  if (!name) return INVALID_FOLDER;
  const int open = MM_FolFindOpen(ms, name);
  if (open != INVALID_FOLDER) {
    FolderInfo* f = g_folders[open].get();
    // Nothing legitimate opens a folder this often; a count that wrapped
    // would close it under its other users.
    if (f->use_count < kUseCountMax) {
      ++f->use_count;
    } else {
      Trace(kTraceModel, kTraceCritical, "MM_FolOpen: use count of folder %d stays at %d\n", open, kUseCountMax);
    }
    return open;
  }
  int id = 0;
  while (id < kMaxFolders && g_folders[id]) ++id;
  if (id == kMaxFolders) {
    Trace(kTraceModel, kTraceCritical, "MM_FolOpen: no free folder slot for %s\n", name);
    return INVALID_FOLDER;
  }
  MailStream* stream = MM_CCOpenFolStream(ms, name, 0);
  if (!stream) return INVALID_FOLDER;
  auto f = std::make_unique<FolderInfo>();
  f->service = ms;
  f->name = name;
  f->stream = stream;
  f->use_count = 1;
  const unsigned long count = stream->nmsgs;
  f->serials.resize(count + 1);
  f->serials[0] = 0;
  for (unsigned long n = 1; n <= count; ++n) f->serials[n] = ++f->next_serial;
  g_folders[id] = std::move(f);
  return id;
}

int MM_FolReOpen(int id) {
  FolderInfo* f = FolderAt(id);
  if (!f) return 0;
  CloseStream(id, f);
  f->stream = MM_CCOpenFolStream(f->service, f->name.c_str(), 0);
  if (!f->stream) return 0;
  f->dead = false;
  f->death_reported = false;
  return 1;
}

int MM_FolReread(int id) {
  FolderInfo* f = FolderAt(id);
  if (!f) return 0;
  Trace(kTraceModel, kTraceAll, "MM_FolReread: function entry.\n");
  // Another program changed the files: the messages we knew go, last
  // first, as expunges do; the folder's messages as read now come back as
  // new ones.
  for (unsigned long n = f->count(); n >= 1; --n)
    if (!(f = ReportExpunged(id, n))) return 0;
  ShadowReleaseAll(f);
  CloseStream(id, f);
  f->stream = MM_CCOpenFolStream(f->service, f->name.c_str(), 0);
  if (!f->stream) {
    f->dead = true;
    return 0;
  }
  f->dead = false;
  f->death_reported = false;
  const unsigned long count = f->stream->nmsgs;
  f->serials.assign(count + 1, 0);
  for (unsigned long n = 1; n <= count; ++n) f->serials[n] = ++f->next_serial;
  ModelEvent* ev = MM_NotEventNew(E_NEW_MESSAGES);
  ev->folder = static_cast<int16_t>(id);
  ev->ms = static_cast<int16_t>(f->service);
  ev->value = 0;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  return 1;
}

void MM_FolClose(int id, int force) {
  if (!FolderAt(id)) return;
  Trace(kTraceModel, kTraceAll, "MM_FolClose: function entry.\n");
  ModelEvent* ev = MM_NotEventNew(E_FOLDER_CLOSED);
  ev->folder = static_cast<int16_t>(id);
  ev->value = force ? 1 : 0;
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  FolderInfo* f = FolderAt(id);  // a handler may have closed it already
  if (!f) return;
  if (!force && f->use_count > 1) {
    --f->use_count;
    return;
  }
  FolderRelease(id);
}

MailStream* MM_FolStream(int id) {
  FolderInfo* f = FolderAt(id);
  if (!f) return nullptr;
  if (f->dead && !f->death_reported) {
    f->death_reported = true;
    ModelEvent* ev = MM_NotEventNew(E_FOLDER_STREAM_DIED);
    ev->folder = static_cast<int16_t>(id);
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
    f = FolderAt(id);  // a handler may have reopened or closed the folder
    if (!f) return nullptr;
  }
  if (f->dead || !f->stream || !f->stream->driver) return nullptr;
  return f->stream;
}

int MM_FolStreamValid(int id) { return MM_FolStream(id) != nullptr; }

long MM_FolGetNumMsgs(int id) {
  const FolderInfo* f = FolderAt(id);
  return f ? static_cast<long>(f->count()) : 0;
}

long MM_FolGetNumMsgsOnStream(int id) {
  MailStream* stream = MM_FolStream(id);
  return stream ? static_cast<long>(stream->nmsgs) : 0;
}

const char* MM_FolGetName(int id) {
  const FolderInfo* f = FolderAt(id);
  return f ? f->name.c_str() : "";
}

int MM_FolGetService(int id) {
  const FolderInfo* f = FolderAt(id);
  return f ? f->service : INVALID_SERVICE;
}

const char* MM_FolGetFriendlyName(int ms, const char* name) {
  if (!name) return "";
  const int type = MM_MSGetType(ms);
  const char* prefix = MM_MSGetFolderPrefix(ms);
  const size_t n = std::strlen(prefix);
  if (type == kServiceBboard || type == kServiceNntp || n == 0 || std::strncmp(name, prefix, n) != 0) return name;
  return name + n;
}

int MM_MSFolIsReadonly(int id) {
  MailStream* stream = MM_FolStream(id);
  return stream ? stream->rdonly : 0;
}

int MM_NeedsExpunge() {
  for (int id = 0; id < kMaxFolders; ++id)
    if (g_folders[id] && g_folders[id]->needs_expunge) return 1;
  return 0;
}

int MM_FolExpunge(int id) {
  MailStream* stream = MM_FolStream(id);
  if (!stream) return 0;
  {
    CriticalSection busy;
    mail_expunge(stream);
  }
  if (FolderInfo* f = FolderAt(id)) f->needs_expunge = false;
  ModelEvent* ev = MM_NotEventNew(E_FOLDER_EXPUNGED);
  ev->folder = static_cast<int16_t>(id);
  ev->ms = static_cast<int16_t>(MM_FolGetService(id));
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  return 1;
}

int MM_FolCheckNewMail(int id, int checkpoint) {
  MailStream* stream = MM_FolStream(id);
  if (!stream) {
    Trace(kTraceModel, kTraceCritical, "MM_FolCheckNewMail: NULL stream returned for folder id.\n");
    return 0;
  }
  CriticalSection busy;
  QuietSection quiet;
  if (checkpoint == 1) {
    mail_check(stream);
    // A check has no result of its own; the stream tells whether it lived.
    return stream->driver != nullptr;
  }
  return mail_ping(stream) != 0;
}

// --- Searches ----------------------------------------------------------------------

void MM_FolSearchStart(int id) {
  if (MailStream* stream = MM_FolStream(id)) mail_search_reset(stream);
}

int MM_FolSearch(int id, const char* criteria) {
  MailStream* stream = MM_FolStream(id);
  if (!stream || !criteria) return 0;
  CriticalSection busy;
  mail_search(stream, criteria);
  return stream->search_failed ? 0 : 1;
}

int MM_FolSearchGetList(int id, std::vector<UMI>* out) {
  out->clear();
  MailStream* stream = MM_FolStream(id);
  if (!stream) return 0;
  out->reserve(stream->searched);
  for (unsigned long n = 1; n <= stream->nmsgs && out->size() < stream->searched; ++n) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, n, CH_ELT));
    if (elt && elt->searched) {
      if (UMI umi = MM_UMIFromMsgno(id, n)) out->push_back(umi);
    }
  }
  return 1;
}

long MM_FolSearchGetNumSearched(int id) {
  MailStream* stream = MM_FolStream(id);
  return stream ? static_cast<long>(stream->searched) : 0;
}

long MM_FolGetNumReadMsgs(int id) {
  MM_FolSearchStart(id);
  if (!MM_FolSearch(id, "SEEN")) return 0;
  return MM_FolSearchGetNumSearched(id);
}
