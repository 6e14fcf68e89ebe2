// The road of a message from the compose window to the wire or to a
// folder, and the folders that take it: sent mail, drafts, the outbox.
//
// A message the user has written is never lost without a question: a
// failed delivery offers the draft folder; what can't go there goes to the
// outbox; what can't go there either stays as a file in the user directory.
#include <unistd.h>

#include <strings.h>

#include <cstring>
#include <ctime>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/send/send.h"
#include "src/send/submit.h"

namespace {

void Status(const char* text) {
  Trace(kTraceCompose, kTraceLow, "%s\n", text);
  if (xvt_progress_win()) xvt_progress_set_text(text);
}

bool Cancelled() { return xvt_progress_win() && xvt_progress_cancelled(); }

bool SameMailbox(const MailAddress* a, const MailAddress* b) {
  return a && b && a->mailbox && b->mailbox && a->host && b->host && !std::strcmp(a->mailbox, b->mailbox) &&
         !std::strcmp(a->host, b->host);
}

// What each folder kind says.
struct FolderWords {
  const char* option;
  const char* missing;   // error 2011/2012's detail
  int missing_code;
  const char* offline;
  const char* title;
  const char* progress;
  const char* failed;
  int flags;
  // Asked before the folder is made. A sent-mail copy the user does not
  // want is no loss (the message went out), but a draft that is not kept
  // is: there a refusal fails, so that the caller keeps the message.
  const char* create;
  bool refusal_fails;
};

const FolderWords kSentmail = {"Compose.SentmailFolder",
                               "no sentmail folder specification in configuration",
                               2011,
                               "Your sentmail folder cannot be accessed at this time. Click OK to select a local "
                               "folder to save the message to.",
                               "Save Outgoing",
                               "Saving message to sentmail folder",
                               "Appending message to sentmail folder",
                               kAppendSeen,
                               nullptr,
                               false};
const FolderWords kDraft = {"Compose.DraftFolder",
                            "No draft folder specification in configuration",
                            2012,
                            "Your draft folder cannot be accessed at this time. Click OK to select a local folder "
                            "to save the message to.",
                            "Save Draft",
                            "Saving message to draft folder",
                            "Appending message to draft folder",
                            kAppendSeen | kAppendDraft,
                            "You have requested that the message be saved to your draft folder. This folder does "
                            "not exist. Create it?",
                            true};

// Opens (creating after a question, when asked to) and appends. 1 on
// success; -1 when the user declined to create a folder whose refusal is
// no failure.
int AppendTo(int ms, const std::string& folder, const char* file, const FolderWords& words, bool ask_create) {
  int id = MM_FolFindOpen(ms, folder.c_str());
  bool opened_here = false;
  if (id == INVALID_FOLDER) {
    MM_QuietOn();
    id = MM_FolOpen(ms, folder.c_str());
    MM_QuietOff();
    if (id == INVALID_FOLDER) {
      const char* question = words.create ? words.create : ErrorText(3030);
      if (ask_create && xvt_dm_post_ask("Yes", "No", nullptr, "%s", question) != RESP_DEFAULT)
        return words.refusal_fails ? 0 : -1;
      if (!MM_FolCreate(ms, folder.c_str(), 1)) {
        SendError(2008, (MM_FolCanonNameBuild(ms, folder.c_str()) + ": could not be created").c_str());
        return 0;
      }
      id = MM_FolOpen(ms, folder.c_str());
    }
    opened_here = id != INVALID_FOLDER;
  }
  Status(words.progress);
  // A dead connection must show within seconds, not minutes.
  Opt_AssignBoolean("General.SentmailTimeout", 1, kOptSession, 0);
  const int ok = MM_MsgAppend(ms, folder.c_str(), file, words.flags, nullptr);
  Opt_AssignBoolean("General.SentmailTimeout", 0, kOptSession, 0);
  if (opened_here) MM_FolClose(id, 0);
  if (!ok) {
    SendError(2009, (std::string(words.failed) + ": " + MM_FolCanonNameBuild(ms, folder.c_str())).c_str());
    return 0;
  }
  return 1;
}

int AppendToConfigured(const char* file, const FolderWords& words) {
  const std::string target = Opt_LookupText(words.option, kOptSession);
  if (target.empty()) {
    SendError(words.missing_code, words.missing);
    return 0;
  }
  int ms;
  std::string folder;
  if (!MM_FolCanonNameParse(target.c_str(), &ms, &folder) || folder.empty()) {
    SendError(2008, ("Invalid message service specification in folder name: " + target).c_str());
    return 0;
  }
  if (IsOffline() && MM_MSGetType(ms) != kServiceLocal) {
    xvt_dm_post_note("%s", words.offline);
    char chosen[1024] = "";
    if (!xvt_dm_post_string_prompt(words.title, chosen, sizeof chosen) || !chosen[0]) return 0;
    std::string local(chosen);
    if (!MM_FolCanonNameParse(local.c_str(), &ms, &folder) || MM_MSGetType(ms) != kServiceLocal) {
      SendError(2008, ("Not a local folder: " + local).c_str());
      return 0;
    }
  }
  const int r = AppendTo(ms, folder, file, words, true);
  return r < 0 ? 1 : r;  // a refused creation ends quietly
}

// The last place for a message: a file of its own in the user directory.
std::string KeepInUserDir(const char* file) {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char name[64];
  std::strftime(name, sizeof name, "unsent-%Y%m%d-%H%M%S", &tm);
  for (int i = 0; i < 100; ++i) {
    const std::string path = JoinPath(GetUserDir(), std::string(name) + (i ? "-" + std::to_string(i) : "") + ".eml");
    if (FileExists(path.c_str())) continue;
    if (CopyFile(file, path.c_str(), 1)) return path;
  }
  return "";
}

}  // namespace

void SendError(int code, const std::string& detail) {
  Trace(kTraceCompose, kTraceCritical, "%s: %s\n", ErrorText(code) ? ErrorText(code) : "", detail.c_str());
  xvt_dm_post_error("%s\n%s", ErrorText(code) ? ErrorText(code) : "", detail.c_str());
}

int SendIsQueued() {
  const std::string value = Opt_LookupText("Compose.QueueOutgoing", kOptSession);
  return value.size() == 4 && !strncasecmp(value.c_str(), "true", 4) ? 1 : 0;
}

int verify_message(Message* message, int* authenticated) {
  Trace(kTraceCompose, kTraceAll, "verify_message: function entry.\n");
  if (!message || !message->envelope) {
    SendError(2001, "Missing message envelope on send");
    return 0;
  }
  if (!message->body) {
    SendError(2001, "Missing message body on send");
    return 0;
  }
  Envelope* env = message->envelope;
  if (!env->to) {
    SendError(2001, "Missing destination (to) address on send");
    return 0;
  }
  int from_auth = 0, sender_auth = 0;
  MailAddress* from = get_from_address(&from_auth);
  if (!from) return 0;
  MailAddress* sender = get_sender_address(&sender_auth);
  if (!sender) {
    mail_free_address(&from);
    return 0;
  }
  if (SameMailbox(from, sender)) mail_free_address(&sender);
  mail_free_address(&env->from);
  mail_free_address(&env->sender);
  env->from = from;
  env->sender = sender;
  FS_GIVE(&env->date);
  FS_GIVE(&env->message_id);
  env->date = cpystr(get_date_header().c_str());
  env->message_id = cpystr(get_message_id().c_str());
  if (authenticated) *authenticated = from_auth || sender_auth ? 1 : 0;
  return 1;
}

int outbox_folder_get(int* ms, std::string* folder) {
  for (;;) {
    const std::string target = Opt_LookupText("General.OutboxFolder", kOptSession);
    std::string question;
    if (target.empty()) {
      question = "You have not defined an outbox folder. Would you like to define one now?";
    } else if (!MM_FolCanonNameParse(target.c_str(), ms, folder) || folder->empty()) {
      question = "The outbox folder definition \"" + target +
                 "\" is invalid: The message service does not exist. Would you like to define a new outbox folder?";
    } else if (MM_MSGetType(*ms) != kServiceLocal) {
      question = "The outbox folder definition \"" + target +
                 "\" is invalid: An outbox must be on a local message service. Would you like to define a new "
                 "outbox folder?";
    } else {
      return 1;
    }
    if (xvt_dm_post_ask("Define", "Cancel", nullptr, "%s", question.c_str()) != RESP_DEFAULT) return 0;
    int local = INVALID_SERVICE;
    for (int n = 0; n < kMaxServices && local == INVALID_SERVICE; ++n)
      if (MM_MSGetName(n)[0] && MM_MSGetType(n) == kServiceLocal) local = n;
    if (local == INVALID_SERVICE) {
      xvt_dm_post_error("There is no local message service to hold an outbox.");
      return 0;
    }
    MM_QuietOn();
    MM_FolCreate(local, "outbox", 1);  // it may be there already
    MM_QuietOff();
    Opt_AssignString("General.OutboxFolder", (std::string(MM_MSGetName(local)) + "!outbox").c_str(), kOptPermanent, 0);
  }
}

int append_message_to_sentmail(const char* file) { return AppendToConfigured(file, kSentmail); }
int append_message_to_draft(const char* file) { return AppendToConfigured(file, kDraft); }

int append_message_to_outbox(const char* file) {
  static const FolderWords kOutbox = {"General.OutboxFolder", "", 0, "", "", "Saving message to outbox folder",
                                      "Appending message to outbox folder", 0, nullptr, true};
  int ms;
  std::string folder;
  if (!outbox_folder_get(&ms, &folder)) return 0;
  return AppendTo(ms, folder, file, kOutbox, false) == 1 ? 1 : 0;
}

namespace {
bool g_delivered = false;  // the last inject_message went out (not to a folder)
}  // namespace

int inject_message(Message* message, const char* file, int queued, int from_outbox, bool null_sender) {
  g_delivered = false;
  Trace(kTraceCompose, kTraceAll, "inject_message: function entry.\n");
  if (queued) {
    if (!append_message_to_outbox(file)) return 0;
    Trace(kTraceCompose, kTraceLow, "inject_message(): queued message in outbox folder.\n");
    short background = 0;
    if (!IsOffline() && Opt_LookupBoolean("Send.Background", &background, kOptSession) && background)
      SUBMIT_FlushOutbox();
    return 1;
  }
  char** hosts = get_delivery_hostlist();
  bool cancelled = false;
  const int delivered = deliver_message(hosts, message, file, &cancelled, null_sender);
  destroy_delivery_hostlist(&hosts);
  g_delivered = delivered != 0;
  if (delivered || cancelled || from_outbox) return delivered;
  if (xvt_dm_post_ask("Yes", "No", nullptr, "%s", ErrorText(2077)) != RESP_DEFAULT) return 0;
  if (append_message_to_draft(file)) return 1;
  // Neither sent nor in drafts: the outbox keeps it, or else a file.
  if (append_message_to_outbox(file)) {
    xvt_dm_post_note("The message could not be sent or saved to drafts. It has been kept in your outbox folder %s.",
                     Opt_LookupText("General.OutboxFolder", kOptSession).c_str());
    return 1;
  }
  const std::string kept = KeepInUserDir(file);
  if (!kept.empty()) {
    xvt_dm_post_note("The message could not be sent or saved to a folder. It has been kept in the file %s.",
                     kept.c_str());
  }
  return 0;
}

int send_message(Message* message, SendOptions* options) {
  Trace(kTraceCompose, kTraceAll, "send_message: function entry.\n");
  if (!message || !options) return 0;
  int authenticated = 0;
  if (!options->draft) {
    if (!verify_message(message, &authenticated)) return 0;
    Trace(kTraceCompose, kTraceLow, "send_message(): verified message content.\n");
    if (IsOffline()) {
      // What waits in the outbox must not be queued a second time.
      if (options->from_outbox) return 0;
      options->queued = 1;
    }
  }
  if (Cancelled()) return 0;
  const std::string file = NewTempName();
  if (file.empty()) {
    SendError(2045, "generating temp file for message dump");
    return 0;
  }
  Status("Building message...");
  if (!dump_message(message, file.c_str(), options->draft ? nullptr : &authenticated, options)) return 0;
  int result = 1;
  if (Cancelled()) {
    ::unlink(file.c_str());
    return 0;
  }
  if (!options->draft) {
    if (!inject_message(message, file.c_str(), options->queued, options->from_outbox, options->null_sender != 0)) {
      ::unlink(file.c_str());
      return 0;
    }
    if (options->save_outgoing == 1 && !options->queued && g_delivered) {
      Status("Sending message to sent mail folder...");
      append_message_to_sentmail(file.c_str());  // its failure does not fail the send
    }
  } else if (!append_message_to_draft(file.c_str())) {
    result = 0;
  }
  ::unlink(file.c_str());
  return result;
}
