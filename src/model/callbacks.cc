// What the mail layer calls upward (mm_*): dialogs, trace lines, and model
// events for the windows. New and expunged messages change the folder's
// UMI table here.
#include <strings.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c-client/auth/auth.h"
#include "src/base/trace.h"
#include "src/model/model_internal.h"

FolderList* g_listing = nullptr;
ACLList* g_acl_list = nullptr;
QuotaValues* g_quota = nullptr;

namespace {

const char* Text(const char* s) { return s ? s : ""; }

bool Muted(MailStream* stream) { return MM_Quiet() != 0 || (stream && stream->silent); }

void AddListing(const char* name, char delimiter, const char* attributes) {
  if (!g_listing || !name) return;
  // Remote drivers report "{host}name"; the model keeps names relative to
  // their service, as MM_FolOpen and the option keys take them.
  if (*name == '{') {
    if (const char* close = std::strchr(name, '}')) name = close + 1;
  }
  if (!*name) return;
  FolderListEntry entry;
  entry.name = name;
  if (strcasecmp(name, "INBOX") == 0) {
    // The inbox is listed on its own before a "*" listing, which has it too.
    for (const FolderListEntry& e : *g_listing)
      if (e.name == "INBOX") return;
    entry.name = "INBOX";
  }
  entry.delimiter = delimiter;
  entry.flags = kFolderSelectable;
  // Attributes are words between blanks and parentheses.
  const char* p = Text(attributes);
  while (*p) {
    while (*p == ' ' || *p == '(' || *p == ')') ++p;
    const char* start = p;
    while (*p && *p != ' ' && *p != '(' && *p != ')') ++p;
    const std::string word(start, p);
    if (strcasecmp(word.c_str(), "\\NOINFERIORS") == 0) entry.flags |= kFolderNoInferiors;
    else if (strcasecmp(word.c_str(), "\\MARKED") == 0) entry.flags |= kFolderMarked;
    else if (strcasecmp(word.c_str(), "\\UNMARKED") == 0) entry.flags &= ~kFolderMarked;
    else if (strcasecmp(word.c_str(), "\\NOSELECT") == 0) entry.flags &= ~kFolderSelectable;
  }
  g_listing->push_back(std::move(entry));
}

}  // namespace

void mm_log(const char* text, long level) {
  if (level == 2 && MM_Quiet() == 0) xvt_dm_post_error("%s", Text(text));
  Trace(kTraceModel, kTraceCritical, "mm_log: %s\n", Text(text));
}

void mm_dlog(const char* text) { Trace(kTraceMail, kTraceHigh, "mm_dlog: %s\n", Text(text)); }

[[noreturn]] void mm_fatal(const char* text) {
  Trace(kTraceModel, kTraceAlways, "mm_fatal: %s\n", Text(text));
  xvt_dm_post_fatal_exit("%s", Text(text));
  std::abort();  // the toolkit ends the program; this is never reached
}

void mm_notify(MailStream* stream, const char* text, long level) {
  Trace(kTraceModel, kTraceLow, "mm_notify: %s\n", Text(text));
  if (level == 4) {
    // The server is going away: the folder's stream is dead from now on,
    // and the next use of it through the gate tells the windows.
    if (FolderInfo* f = FolderAt(FolderForStream(stream))) f->dead = true;
  }
  if (!Muted(stream)) {
    if (level == 1) xvt_dm_post_note("%s", Text(text));
    if (level == 2 || level == 4) xvt_dm_post_error("%s", Text(text));
  }
  Trace(kTraceModel, kTraceCritical, "mm_log: %s\n", Text(text));
}

void mm_flags(MailStream* stream, unsigned long msgno) {
  Trace(kTraceModel, kTraceAll, "mm_flags: %lu\n", msgno);
  MM_MsgFlagsReported(stream, msgno);
}

void mm_exists(MailStream* stream, unsigned long count) {
  Trace(kTraceModel, kTraceLow, "mm_exists called with exists=%ld\n", static_cast<long>(count));
  const int id = FolderForStream(stream);
  FolderInfo* f = FolderAt(id);
  if (!f) return;
  const unsigned long old = f->count();
  if (count <= old) return;
  f->serials.reserve(count + 1);
  f->serials.resize(count + 1);
  for (unsigned long n = old + 1; n <= count; ++n) f->serials[n] = ++f->next_serial;
  ModelEvent* ev = MM_NotEventNew(E_NEW_MESSAGES);
  ev->folder = static_cast<int16_t>(id);
  ev->ms = static_cast<int16_t>(f->service);
  ev->value = static_cast<int32_t>(old);
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
  xvt_app_request_attention();
  xvt_scr_beep();
}

void mm_expunged(MailStream* stream, unsigned long msgno) {
  Trace(kTraceModel, kTraceLow, "mm_expunged: %lu\n", msgno);
  if (!stream || msgno > stream->nmsgs) return;
  ReportExpunged(FolderForStream(stream), msgno);
}

void mm_searched(MailStream*, unsigned long) {}

void mm_mailbox(const char* name, char delimiter, const char* attributes) {
  AddListing(name, delimiter, attributes);
}

void mm_mailbox_progress(const char* name, char delimiter, const char* attributes) {
  if (!g_listing || !name) return;
  char text[300];
  std::snprintf(text, sizeof text, "Retrieved: %.280s", name);
  if (xvt_progress_win()) xvt_progress_set_text(text);
  AddListing(name, delimiter, attributes);
}

void mm_acl(MailStream*, const char*, const char* identifier, const char* rights) {
  if (!g_acl_list || !identifier || !rights) return;
  g_acl_list->push_back(ACLEntry{identifier, MM_CCACLParse(rights), rights});
}

void mm_quota(MailStream*, const char* resource, unsigned long used, unsigned long limit) {
  if (!g_quota || !resource) return;
  if (strcasecmp(resource, "STORAGE") == 0) {
    g_quota->storage_used = static_cast<long>(used);
    g_quota->storage_limit = static_cast<long>(limit);
  } else if (strcasecmp(resource, "MESSAGE") == 0) {
    g_quota->messages_used = static_cast<long>(used);
    g_quota->messages_limit = static_cast<long>(limit);
  }
}

void mm_login(const char* host, char* user, char* password, long trial) {
  Trace(kTraceModel, kTraceAll, "AUTH_Login: function entry - host = %s, trial = %ld\n", Text(host), trial);
  AUTH_Login(host, user, password, trial);
}

void mm_critical(MailStream*) {}
void mm_nocritical(MailStream*) {}
