// The imap2 driver's commands other than fetching: lists and
// subscriptions in the dialects of four server generations, mailbox
// management, flags, search, ping, expunge, copy, move, append, ACL and
// quota.
#include <cstring>
#include <string>
#include <utility>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/rfc822/strsrc.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

bool Connected(MailStream* stream) {
  ImapLocal* local = stream && stream->driver == &imap2driver ? imap_local(stream) : nullptr;
  return local && local->tcp && local->tcp->socket >= 0;
}

// The name without its "{host}" part (and a bulletin board's "*").
std::string Bare(const char* name) {
  std::string s = name ? name : "";
  if (!s.empty() && s[0] == '*' && s.size() > 1 && s[1] == '{') s.erase(0, 1);
  if (!s.empty() && s[0] == '{') {
    size_t close = s.find('}');
    if (close != std::string::npos) s.erase(0, close + 1);
  }
  return s;
}

// Whether a live stream talks to the server a remote name names.
bool SameServer(MailStream* stream, const char* name) {
  if (!Connected(stream)) return false;
  NetMailbox a{}, b{};
  return mail_valid_net_parse(name, &a) && mail_valid_net_parse(stream->mailbox, &b) &&
         std::strcmp(a.host, b.host) == 0 && a.port == b.port;
}

// A stream for a call that came with none (or a dead one): a control
// stream on the name's server, closed again by the destructor.
struct Control {
  MailStream* stream = nullptr;
  bool owned = false;
  Control(MailStream* given, const char* name) {
    if (Connected(given)) {
      stream = given;
      return;
    }
    if (!name || (name[0] != '{' && !(name[0] == '*' && name[1] == '{'))) return;
    stream = mail_open(nullptr, name, OP_CONTROL | OP_SILENT);
    owned = stream != nullptr;
  }
  ~Control() {
    if (owned) mail_close(stream);
  }
};

ImapReply* Send(MailStream* stream, const char* command, const char* string1 = nullptr, const char* string2 = nullptr) {
  ImapArgs args;
  args.string1 = string1;
  args.string2 = string2;
  return imap_send(stream, command, args);
}

// find and find_all in both dialects. `first` is LSUB or LIST, `flag` the
// bit that says it is worth trying, `fallback` the FIND form.
void FindWith(MailStream* stream, const char* pattern, const char* first, unsigned flag, const char* fallback,
              bool all) {
  if (!Connected(stream)) return;
  ImapLocal* local = imap_local(stream);
  std::string bare = Bare(pattern);
  if (local->level & flag) {
    ImapReply* r = Send(stream, first, "", bare.c_str());
    if (!imap_key_is(r, "BAD")) return;
    local->level &= ~flag;
    local->level |= kImapUseFind;
  }
  if ((local->level & kImapUseFind) && !(local->level & flag)) {
    ImapArgs args;
    args.atom = fallback;
    args.string2 = bare.c_str();
    ImapReply* r = imap_send(stream, "FIND", args);
    if (!imap_key_is(r, "BAD")) return;
    if (all) {
      map_find(stream, pattern);
      return;
    }
    Log("Server does not support IMAP4, IMAP2bis, or IMAP2 folder management.  Contact your system adminstrator.", 2);
    local->level &= ~kImapUseFind;
  }
}

long Subscription(MailStream* stream, const char* command, const char* dialect, const char* name) {
  Control c(stream, name);
  if (!c.stream) return 0;
  ImapLocal* local = imap_local(c.stream);
  std::string bare = Bare(name);
  if (local->level & kImapUseSubscribe) {
    ImapReply* r = Send(c.stream, command, bare.c_str());
    if (!imap_key_is(r, "BAD")) return 1;
    local->level &= ~kImapUseSubscribe;
  }
  unsigned flag = std::strcmp(dialect, "MAILBOX") == 0 ? kImapUseMailboxSubscribe : kImapUseBboardSubscribe;
  if (local->level & flag) {
    std::string word = std::string(command) + " " + dialect;
    ImapReply* r = Send(c.stream, word.c_str(), bare.c_str());
    if (imap_key_is(r, "BAD")) local->level &= ~flag;
  }
  return 1;
}

long Manage(MailStream* stream, const char* command, const char* name, const char* second) {
  Control c(stream, name);
  if (!c.stream) {
    Log("Can't access server", 2);
    return 0;
  }
  std::string bare = Bare(name), bare2 = second ? Bare(second) : "";
  ImapReply* r = Send(c.stream, command, bare.c_str(), second ? bare2.c_str() : nullptr);
  if (!imap_OK(c.stream, r)) return 0;
  Log(r->text, 0);
  return 1;
}

void Store(MailStream* stream, const char* sequence, const char* flags, bool on) {
  if (!Connected(stream)) return;
  ImapArgs args;
  args.sequence = sequence;
  args.atom = on ? "+Flags" : "-Flags";
  args.flags = flags;
  imap_OK(stream, imap_send(stream, "STORE", args));
}

// ACL commands in the plain form, then in the old one with MAILBOX.
long AclCommand(MailStream* stream, const char* word, const char* mailbox, const char* id, const char* rights,
                const char* lost) {
  Control c(stream, mailbox);
  if (!c.stream) {
    Log(lost, 2);
    return 0;
  }
  ImapLocal* local = imap_local(c.stream);
  std::string bare = Bare(mailbox);
  for (int round = 0; round < 2; ++round) {
    bool old = local->level & kImapAclOldSyntax;
    std::string command = std::string(word) + (old ? " MAILBOX" : "");
    ImapArgs args;
    args.string1 = bare.c_str();
    args.string2 = id;
    args.string3 = rights;
    ImapReply* r = imap_send(c.stream, command.c_str(), args);
    if (!Connected(c.stream)) {
      Log(lost, 2);
      return 0;
    }
    if (!imap_key_is(r, "BAD")) return imap_OK(c.stream, r) ? 1 : 0;
    if (old) {
      Log("Server does not support mailbox ACL management.", 2);
      local->level &= ~kImapAcl;
      return 0;
    }
    local->level |= kImapAclOldSyntax;
  }
  return 0;
}

}  // namespace

void map_find(MailStream* stream, const char* pattern) {
  FindWith(stream, pattern, "LSUB", kImapUseLsub, "MAILBOXES", false);
}
void map_find_bboards(MailStream* stream, const char* pattern) {
  FindWith(stream, pattern, "LSUB", kImapUseLsub, "BBOARDS", false);
}
void map_find_all(MailStream* stream, const char* pattern) {
  FindWith(stream, pattern, "LIST", kImapUseList, "ALL.MAILBOXES", true);
}
void map_find_all_bboards(MailStream* stream, const char* pattern) {
  FindWith(stream, pattern, "LIST", kImapUseList, "ALL.BBOARDS", true);
}

long map_subscribe(MailStream* stream, const char* mailbox) {
  return Subscription(stream, "SUBSCRIBE", "MAILBOX", mailbox);
}
long map_unsubscribe(MailStream* stream, const char* mailbox) {
  return Subscription(stream, "UNSUBSCRIBE", "MAILBOX", mailbox);
}
long map_subscribe_bboard(MailStream* stream, const char* name) {
  return Subscription(stream, "SUBSCRIBE", "BBOARD", name);
}
long map_unsubscribe_bboard(MailStream* stream, const char* name) {
  return Subscription(stream, "UNSUBSCRIBE", "BBOARD", name);
}

long map_create(MailStream* stream, const char* mailbox) { return Manage(stream, "Create", mailbox, nullptr); }
long map_delete(MailStream* stream, const char* mailbox) { return Manage(stream, "Delete", mailbox, nullptr); }
long map_rename(MailStream* stream, const char* old_name, const char* new_name) {
  return Manage(stream, "Rename", old_name, new_name);
}

void map_setflag(MailStream* stream, const char* sequence, const char* flags) { Store(stream, sequence, flags, true); }
void map_clearflag(MailStream* stream, const char* sequence, const char* flags) {
  Store(stream, sequence, flags, false);
}

void map_search(MailStream* stream, const char* criteria) {
  // NO or BAD (a charset the server doesn't take, a key it doesn't know):
  // the caller must not take the marks as the answer.
  if (!Connected(stream)) {
    stream->search_failed = 1;
    return;
  }
  ImapArgs args;
  args.atom = criteria;
  if (!imap_OK(stream, imap_send(stream, "SEARCH", args))) stream->search_failed = 1;
}

long map_ping(MailStream* stream) {
  if (!Connected(stream)) return 0;
  ImapReply* r = imap_send(stream, "NOOP");
  return imap_OK(stream, r) && Connected(stream) ? 1 : 0;
}

void map_check(MailStream* stream) {
  if (!Connected(stream)) return;
  imap_OK(stream, imap_send(stream, "CHECK"));
}

void map_expunge(MailStream* stream) {
  if (!Connected(stream)) return;
  ImapReply* r = imap_send(stream, "EXPUNGE");
  if (imap_OK(stream, r)) imap_trace(stream, mail_format("map_expunge: %s.\n", r->text.c_str()));
}

long map_copy(MailStream* stream, const char* sequence, const char* mailbox) {
  if (!Connected(stream)) {
    Log("Copy rejected: connection to remote IMAP server closed", 2);
    return 0;
  }
  std::string bare = Bare(mailbox);
  ImapArgs args;
  args.sequence = sequence;
  args.string2 = bare.c_str();
  ImapReply* r = imap_send(stream, "COPY", args);
  if (!Connected(stream) && r->key != "OK") {
    Log("Copy rejected: connection to remote IMAP server closed", 2);
    return 0;
  }
  return imap_OK(stream, r) ? 1 : 0;
}

long map_move(MailStream* stream, const char* sequence, const char* mailbox) {
  if (!map_copy(stream, sequence, mailbox)) return 0;
  map_setflag(stream, sequence, "\\Deleted");
  return 1;
}

long map_append(MailStream* stream, const char* mailbox, const char* flags, const char* date, StringSource* message) {
  if (!mailbox || !message) return 0;
  // Another server's stream is no use: the name says where the message goes.
  Control c(SameServer(stream, mailbox) ? stream : nullptr, mailbox);
  if (!c.stream) {
    Log("Can't access server for append", 2);
    return 0;
  }
  std::string bare = Bare(mailbox);
  unsigned long start = string_getpos(message);
  ImapArgs args;
  args.string1 = bare.c_str();
  args.flags = flags && *flags ? flags : nullptr;
  args.string2 = date && *date ? date : nullptr;
  args.source = message;
  ImapReply* r = imap_send(c.stream, "APPEND", args);
  if (imap_key_is(r, "BAD") && (args.flags || args.string2) && Connected(c.stream)) {
    // The older form takes neither flags nor a date.
    string_setpos(message, start);
    args.flags = nullptr;
    args.string2 = nullptr;
    r = imap_send(c.stream, "APPEND", args);
  }
  return imap_OK(c.stream, r) ? 1 : 0;
}

long map_getacl(MailStream* stream, const char* mailbox) {
  return AclCommand(stream, "GETACL", mailbox, nullptr, nullptr,
                    "Get ACL rejected: connection to remote IMAP server closed");
}
long map_setacl(MailStream* stream, const char* mailbox, const char* identifier, const char* rights) {
  return AclCommand(stream, "SETACL", mailbox, identifier, rights ? rights : "",
                    "Set ACL rejected: connection to remote IMAP server closed");
}
long map_deleteacl(MailStream* stream, const char* mailbox, const char* identifier) {
  return AclCommand(stream, "DELETEACL", mailbox, identifier, nullptr,
                    "Set ACL rejected: connection to remote IMAP server closed");
}
long map_myrights(MailStream* stream, const char* mailbox) {
  return AclCommand(stream, "MYRIGHTS", mailbox, nullptr, nullptr,
                    "Set ACL rejected: connection to remote IMAP server closed");
}

long map_getquota(MailStream* stream, const char* root) {
  Control c(stream, root);
  if (!c.stream) {
    Log("Get QUOTA rejected: connection to remote IMAP server closed", 2);
    return 0;
  }
  std::string bare = Bare(root);
  return imap_OK(c.stream, Send(c.stream, "GETQUOTAROOT", bare.c_str())) ? 1 : 0;
}

long map_setquota(MailStream* stream, const char* root, long storage, long messages) {
  Control c(stream, root);
  if (!c.stream) {
    Log("Set QUOTA rejected: connection to remote IMAP server closed", 2);
    return 0;
  }
  std::string bare = Bare(root);
  std::string limits = mail_format("(STORAGE %ld MESSAGE %ld)", storage, messages);
  ImapArgs args;
  args.string1 = bare.c_str();
  args.flags = limits.c_str();
  return imap_OK(c.stream, imap_send(c.stream, "SETQUOTA", args)) ? 1 : 0;
}

void map_gc(MailStream*, long) {}

long map_status(MailStream* stream, const char* mailbox, long flags, MailStatus* out) {
  if (!mailbox || !out) return 0;
  // Another server's stream is no use: the name says which server.
  MailStream* given = SameServer(stream, mailbox) ? stream : nullptr;
  Control c(given, mailbox);
  if (!c.stream) return 0;
  ImapLocal* local = imap_local(c.stream);
  // STATUS came with IMAP4rev1: an older server can't tell without a SELECT,
  // which is no cheap question.
  if (!(local->level & kImapImap4rev1) || (local->level2 & kImapNoStatus)) return 0;
  std::string items;
  static constexpr std::pair<long, const char*> kWords[] = {
      {SA_MESSAGES, "MESSAGES"}, {SA_RECENT, "RECENT"}, {SA_UNSEEN, "UNSEEN"},
      {SA_UIDNEXT, "UIDNEXT"},   {SA_UIDVALIDITY, "UIDVALIDITY"},
  };
  for (const auto& [flag, word] : kWords)
    if (flags & flag) items += std::string(items.empty() ? "(" : " ") + word;
  if (items.empty()) return 0;
  items += ")";
  const std::string bare = Bare(mailbox);
  MailStatus got{};
  local->status = &got;
  local->status_mailbox = bare;
  ImapArgs args;
  args.string1 = bare.c_str();
  args.flags = items.c_str();
  ImapReply* r = imap_send(c.stream, "STATUS", args);
  local->status = nullptr;
  // No dialog on failure: the question comes from a timer. A folder that
  // is gone or can't be read just shows no count.
  if (imap_key_is(r, "BAD") && Connected(c.stream)) {
    local->level2 |= kImapNoStatus;
    imap_trace(c.stream, mail_format("map_status: STATUS refused, not asked again: %.80s\n", r->text.c_str()));
    return 0;
  }
  if (!imap_key_is(r, "OK") || !(got.flags & flags)) {
    imap_trace(c.stream, mail_format("map_status: no status of %.80s: %.80s\n", bare.c_str(), r->text.c_str()));
    return 0;
  }
  *out = got;
  return 1;
}

MailStream* imap_attach_for_test(TcpStream* tcp, unsigned long nmsgs) {
  auto* stream = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
  mailcache(stream, 0, CH_INIT);
  stream->driver = &imap2driver;
  stream->mailbox = cpystr("{test}INBOX");
  stream->silent = 1;
  auto* local = new ImapLocal;
  local->tcp = tcp;
  local->level = kImapLevelAtOpen | kImapImap4 | kImapImap4rev1 | kImapProbed;
  local->host = "{test}";
  stream->local = local;
  mail_exists(stream, nmsgs);
  return stream;
}
