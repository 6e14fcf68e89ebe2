// The mail model's start and stop, the quiet counter, and the model's own
// notifier.
#include "src/model/mm.h"

#include "c-client/auth/auth.h"
#include "c-client/mh/local_paths.h"
#include "c-client/net/tcp.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/login_dialog.h"
#include "src/model/model_internal.h"
#include "src/options/options.h"

namespace {

int g_quiet = 0;
int g_model_notifier = -1;

int MM_WantEvent(ModelEvent* ev, void*) {
  switch (ev->type) {
    case E_MS_CLOSED:
    case E_MS_NAME_CHANGED:
    case E_MS_CHANGED:
    case E_FOLDER_RENAMED:
    case E_LOW_MEMORY:
      return 1;
    default:
      return 0;
  }
}

void ServiceChanged(int id) {
  MessageService* ms = ServiceAt(id);
  if (!ms) return;
  if (!ms->listed) {
    MM_MSReload(id);
    return;
  }
  char question[1200];
  std::snprintf(question, sizeof question, ErrorText(3017), ms->name.c_str());
  if (xvt_dm_post_ask("Re-open", "Cancel", nullptr, "%s", question) == RESP_DEFAULT) {
    MM_MSReload(id);
    MM_NotPostSimple(E_MS_REOPEN, id);
  } else {
    MM_MSReload(id);
    ErrorShow(3018, nullptr);
  }
}

// Memory is short: drop what the open folders cache of texts and
// structures. Elements (flags, sizes, dates) stay, so that every message
// is still reachable and is fetched again when it is next read.
void FlushCaches() {
  for (int id = 0; id < kMaxFolders; ++id)
    if (FolderInfo* f = FolderAt(id); f && f->stream && f->stream->driver) mail_gc(f->stream, GC_ENV | GC_TEXTS);
  for (int id = 0; id < kMaxServices; ++id)
    if (MessageService* ms = ServiceAt(id); ms && ms->stream && ms->stream->driver) mail_gc(ms->stream, GC_ENV | GC_TEXTS);
}

void mm_fs_handler(ModelEvent* ev, void*) {
  switch (ev->type) {
    case E_MS_CLOSED:
      if (MessageService* ms = ServiceAt(ev->ms)) ms->listed = 0;
      break;
    case E_MS_NAME_CHANGED:
      if (MessageService* ms = ServiceAt(ev->ms)) {
        const char* name = ev->new_name ? ev->new_name : ev->name;
        if (name) ms->name = name;
      }
      break;
    case E_MS_CHANGED:
      ServiceChanged(ev->ms);
      break;
    case E_FOLDER_RENAMED:
      if (ev->old_name && ev->new_name) {
        const int id = MM_FolFindOpen(ev->from_ms, ev->old_name);
        if (FolderInfo* f = FolderAt(id)) f->name = ev->new_name;
      }
      break;
    case E_LOW_MEMORY:
      FlushCaches();
      break;
    default:
      break;
  }
}

// The mail layer keeps the outcome of its last connection for the frame,
// and asks before each write whether the next one must not wait long.
void TcpOutcome(int ok) { Opt_AssignInt("General.TCPConnectOk", ok, kOptSession, 0); }

bool TcpShortTimeout() {
  short once = 0;
  if (!Opt_LookupBoolean("General.SentmailTimeout", &once, kOptSession) || !once) return false;
  Opt_AssignInt("General.SentmailTimeout", 0, kOptSession, 0);
  return true;
}

const TcpHooks kTcpHooks = {TcpOutcome, TcpShortTimeout};

}  // namespace

int MM_Init() {
  Trace(kTraceModel, kTraceAll, "MM_Init: function entry.\n");
  for (int id = 0; id < kMaxFolders; ++id) FolderRelease(id);
  for (int id = 0; id < kMaxServices; ++id) MM_MSDestroy(id);
  mail_unlink_all();
  mail_link(&imap2driver);
  mail_link(&mhdriver);
  mail_link(&dawzdriver);
  mail_gets = MM_Mailgets;
  tcp_set_hooks(&kTcpHooks);
  AUTH_SetDialog(LoginDialogAsk);
  local_set_home(GetUserDir().c_str());
  MM_NotInit();
  g_quiet = 0;
  g_model_notifier = MM_NotRegister(MM_WantEvent, mm_fs_handler, nullptr, "vmrmm.c");
  MM_NotSetActive(true);
  return 1;
}

void MM_Shutdown(int expunge) {
  Trace(kTraceModel, kTraceAll, "MM_Shutdown: function entry (expunge %d).\n", expunge);
  // Nothing may show now; the counter is not lowered again.
  MM_QuietOn();
  for (int id = 0; id < kMaxFolders; ++id) {
    if (!FolderAt(id)) continue;
    if (expunge) {
      xvt_scr_set_busy_cursor();
      MM_FolExpunge(id);
    }
    MM_FolClose(id, 1);
  }
  for (int id = 0; id < kMaxServices; ++id) {
    MM_MSClose(id);
    MM_MSDestroy(id);
  }
  g_model_notifier = -1;
  tcp_set_hooks(nullptr);
  AUTH_SetDialog(nullptr);
  MM_NotShutdown();
  MM_NotSetActive(false);
}

void MM_QuietOn() { ++g_quiet; }
void MM_QuietOff() {
  if (g_quiet > 0) --g_quiet;
}
int MM_Quiet() { return g_quiet; }
