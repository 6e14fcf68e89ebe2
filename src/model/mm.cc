// The mail model's start and stop. Services and folders come with the mail
// layer; until then every service slot is empty.
#include "src/model/mm.h"

#include "c-client/core/mail.h"
#include "c-client/mh/local_paths.h"
#include "c-client/net/tcp.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/base/model_events.h"
#include "src/options/options.h"
#include "xvt/xvt.h"

namespace {

int g_quiet = 0;
int g_model_notifier = -1;

int MM_WantEvent(ModelEvent* ev, void*) { return ev->type == E_LOW_MEMORY; }

// Flushes the caches of open folders when memory runs short.
void mm_fs_handler(ModelEvent*, void*) {}

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
  mail_unlink_all();
  mail_link(&imap2driver);
  mail_link(&mhdriver);
  mail_link(&dawzdriver);
  tcp_set_hooks(&kTcpHooks);
  local_set_home(GetUserDir().c_str());
  MM_NotInit();
  MM_NotSetActive(true);
  g_quiet = 0;
  g_model_notifier = MM_NotRegister(MM_WantEvent, mm_fs_handler, nullptr, "mailmodel.c");
  return 1;
}

void MM_Shutdown(int expunge) {
  Trace(kTraceModel, kTraceAll, "MM_Shutdown: function entry (expunge %d).\n", expunge);
  for (int id = 0; id < kMaxServices; ++id) MM_MSClose(id);
  g_model_notifier = -1;
  tcp_set_hooks(nullptr);
  MM_NotShutdown();
}

int MM_NeedsExpunge() { return 0; }
int MM_MSGetType(int) { return kServiceTypeNone; }
void MM_MSClose(int) {}

void MM_QuietOn() { ++g_quiet; }
void MM_QuietOff() {
  if (g_quiet > 0) --g_quiet;
}
int MM_Quiet() { return g_quiet; }

void mm_log(const char* text, long level) {
  if (level == 2 && g_quiet == 0) xvt_dm_post_error("%s", text ? text : "");
  Trace(kTraceModel, kTraceCritical, "mm_log: %s\n", text ? text : "");
}

void mm_dlog(const char* text) { Trace(kTraceMail, kTraceHigh, "mm_dlog: %s\n", text ? text : ""); }

void mm_fatal(const char* text) {
  Trace(kTraceModel, kTraceAlways, "mm_fatal: %s\n", text ? text : "");
  xvt_dm_post_fatal_exit("%s", text ? text : "");
}

void mm_notify(MailStream* stream, const char* text, long level) {
  Trace(kTraceModel, kTraceLow, "mm_notify: %s\n", text ? text : "");
  bool quiet = g_quiet != 0 || (stream && stream->silent);
  // Level 4 is the server going away: the folder of this stream will be
  // marked dead when folders exist; the user hears it like an error.
  if (!quiet && level == 1) xvt_dm_post_note("%s", text ? text : "");
  if (!quiet && (level == 2 || level == 4)) xvt_dm_post_error("%s", text ? text : "");
  Trace(kTraceModel, kTraceCritical, "mm_log: %s\n", text ? text : "");
}

void mm_flags(MailStream*, unsigned long msgno) { Trace(kTraceModel, kTraceAll, "mm_flags: %lu\n", msgno); }

void mm_exists(MailStream*, unsigned long count) {
  Trace(kTraceModel, kTraceLow, "mm_exists called with exists=%ld\n", static_cast<long>(count));
}

void mm_expunged(MailStream*, unsigned long msgno) { Trace(kTraceModel, kTraceLow, "mm_expunged: %lu\n", msgno); }

void mm_searched(MailStream*, unsigned long) {}

// Listings are collected only while the model runs one.
void mm_mailbox(const char*, char, const char*) {}
void mm_mailbox_progress(const char*, char, const char*) {}
void mm_acl(MailStream*, const char*, const char*, const char*) {}
void mm_quota(MailStream*, const char*, unsigned long, unsigned long) {}

// The login dialog arrives with the authenticators; until then a login is
// cancelled.
void mm_login(const char*, char* user, char* password, long) {
  if (user) user[0] = '\0';
  if (password) password[0] = '\0';
}

void mm_critical(MailStream*) {}
void mm_nocritical(MailStream*) {}
