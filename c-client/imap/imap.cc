// The imap2 driver: its table and settings, opening a connection (TLS,
// greeting, capabilities, AUTHENTICATE and LOGIN, SELECT or EXAMINE) and
// closing it. The other slots are in imap_commands.cc and imap_fetch.cc.
#include <strings.h>

#include <cctype>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/imap/imap_slots.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

MailStream imap_prototype = [] {
  MailStream s{};
  s.driver = &imap2driver;
  return s;
}();

ImapSettings g_settings;

MailDriver* Valid(const char* name) { return mail_valid_net(name, &imap2driver, nullptr, nullptr); }

void* Parameters(long op, void* value) {
  ImapSettings& s = g_settings;
  auto number = [&](long* field) -> void* {
    *field = reinterpret_cast<long>(value);
    return value;
  };
  switch (op) {
    case 100:
      return number(&s.login_attempts);
    case 102:
      return number(&s.lookahead);
    case 103:
      return reinterpret_cast<void*>(s.lookahead);
    case 104:
      return number(&s.port);
    case 105:
      return reinterpret_cast<void*>(s.port);
    case 106:
      return number(&s.prefetch_text);
    case 107:
      return reinterpret_cast<void*>(s.prefetch_text);
    case 108:
      return number(&s.login_with_mailbox);
    case 109:
      return reinterpret_cast<void*>(s.login_with_mailbox);
    case 110:
      return number(&s.login_flag);
    case 111:
      return reinterpret_cast<void*>(s.login_flag);
    case 112:
      if (value) s.no_auth = *static_cast<long*>(value);
      return value;
    case 113:
      if (value) *static_cast<long*>(value) = s.no_auth;
      return value;
    case 114:
      if (value) s.no_login = *static_cast<long*>(value);
      return value;
    case 115:
      if (value) *static_cast<long*>(value) = s.no_login;
      return value;
    default:
      return nullptr;
  }
}

// "{host[:port][/switches]}" as the stream's names carry it: the transport
// switches stay, so that a control stream opened from such a name never
// falls back to a weaker connection.
std::string HostPart(const NetMailbox& net) {
  std::string h = "{" + std::string(net.host);
  if (net.port) h += ":" + std::to_string(net.port);
  if (net.ssl) h += "/ssl";
  if (net.tls) h += "/tls";
  if (net.notls) h += "/notls";
  if (net.novalidate_cert) h += "/novalidate-cert";
  return h + "}";
}

void ResetCapabilities(ImapLocal* local) {
  local->level = kImapLevelAtOpen;
  local->level2 = 0;
  for (auto& a : local->authenticators) a = nullptr;
  local->starttls = false;
  local->logindisabled = false;
}

bool Connected(ImapLocal* local) { return local->tcp && local->tcp->socket >= 0; }

// AUTHENTICATE with each mechanism in turn; true once one succeeds.
bool Authenticate(MailStream* stream, const char* host) {
  ImapLocal* local = imap_local(stream);
  if (g_settings.no_auth == 1 || stream->anonymous) return false;
  const Authenticator* const* list =
      (local->level & kImapImap4rev1) ? local->authenticators : kAuthenticators;
  for (const Authenticator* const* a = list; *a && Connected(local); ++a) {
    void* state = nullptr;
    bool running = false;
    for (;;) {
      if (!running && (*a)->client_start(host, "", 1, 0, nullptr, nullptr, &state) != 0) break;
      running = true;
      mail_lock(stream);
      long last = kAuthContinue;
      ImapReply* r = nullptr;
      if (!imap_send_line(stream, std::string("auth AUTHENTICATE ") + (*a)->name,
                          std::string("auth AUTHENTICATE ") + (*a)->name)) {
        r = imap_fake(stream, "auth", "IMAP connection broken while sending command");
      } else {
        for (r = imap_reply(stream, "auth"); r->tag == "+"; r = imap_reply(stream, "auth")) {
          std::string challenge, answer;
          if (!auth_unbase64(r->text == "Ready for more command" ? "" : r->text, &challenge)) {
            imap_send_line(stream, "*", "*");
            continue;
          }
          last = (*a)->client_step(state, challenge, &answer);
          std::string line = last == kAuthCancel ? "*" : auth_base64_line(answer);
          if (!imap_send_line(stream, line, last == kAuthCancel ? "*" : "***")) {
            r = imap_fake(stream, "auth", "IMAP connection broken while sending command");
            break;
          }
        }
      }
      mail_unlock(stream);
      if (r->key == "OK" && last == kAuthDone) {
        (*a)->client_end(&state);
        return true;
      }
      if (r->key == "BAD" || !(*a)->client_retry(state) || !Connected(local)) {
        Log(mail_format("Failed to authenticate using %s mechanism", (*a)->name), 0);
        (*a)->client_end(&state);
        break;
      }
    }
  }
  return false;
}

const std::string& LocalIdentity(MailStream* stream) {
  static std::string identity;
  if (identity.empty()) {
    const char* h = tcp_localhost(imap_local(stream)->tcp);
    identity = std::string("anonymous@") + (h && *h ? h : "localhost");
  }
  return identity;
}

bool Login(MailStream* stream, const char* host) {
  ImapLocal* local = imap_local(stream);
  if (g_settings.no_login == 1) return false;
  if (local->logindisabled) {
    Log("The IMAP server does not accept LOGIN on this connection", 2);
    return false;
  }
  for (long trial = 1; trial <= g_settings.login_attempts; ++trial) {
    char user[kMailLoginSize] = "";
    char password[kMailLoginSize] = "";
    if (stream->anonymous && trial == 1) {
      std::strcpy(user, "anonymous");
      std::snprintf(password, sizeof password, "%s", LocalIdentity(stream).c_str());
    } else {
      mm_login(g_settings.login_with_mailbox ? local->net.mailbox : host, user, password, trial);
    }
    if (!password[0]) return false;
    ImapArgs args;
    args.string1 = user;
    args.string2 = password;
    args.secret = true;
    ImapReply* r = imap_send(stream, "LOGIN", args);
    std::memset(password, 0, sizeof password);
    stream->anonymous = std::strcmp(user, "anonymous") == 0;
    if (imap_OK(stream, r)) return true;
    if (r->key == "BYE" || !Connected(local)) return false;
  }
  Log("Too many login failures.  Aborting login.", 2);
  return false;
}

void Probe(MailStream* stream) {
  ImapLocal* local = imap_local(stream);
  if (local->level & kImapProbed) return;
  imap_send(stream, "CAPABILITY");
  ImapArgs probe;
  probe.atom = "a1bcdefghijklmnop";
  if (!(local->level & kImapAcl)) {
    ImapArgs a;
    a.atom = "MAILBOX a1bcdefghijklmnop";
    if (!imap_key_is(imap_send(stream, "GETACL", a), "BAD")) local->level |= kImapAcl;
  }
  if (!(local->level & kImapQuota)) {
    if (!imap_key_is(imap_send(stream, "GETQUOTAROOT", probe), "BAD")) local->level |= kImapQuota;
  }
  local->level |= kImapProbed;
}

// STARTTLS when the server offers it (or the name demands it); afterwards
// everything learnt in the clear is forgotten.
bool StartTls(MailStream* stream) {
  ImapLocal* local = imap_local(stream);
  const NetMailbox& net = local->net;
  if (net.ssl || net.notls) return true;
  imap_send(stream, "CAPABILITY");
  if (!local->starttls) {
    if (!net.tls) return true;
    Log(mail_format("The IMAP server %s does not offer STARTTLS; the connection is closed", net.host), 2);
    return false;
  }
  ImapReply* r = imap_send(stream, "STARTTLS");
  if (!imap_OK(stream, r)) return !net.tls && Connected(local);
  if (!tcp_starttls(local->tcp, net.host, net.novalidate_cert ? TCP_TLS_NOVALIDATE : 0)) return false;
  ResetCapabilities(local);
  return true;
}

void FreeLocal(MailStream* stream) {
  ImapLocal* local = imap_local(stream);
  if (!local) return;
  if (local->tcp) tcp_close(local->tcp);
  delete local;
  stream->local = nullptr;
}

MailStream* Fail(MailStream* stream) {
  FreeLocal(stream);
  return nullptr;
}

}  // namespace

ImapSettings& imap_settings() { return g_settings; }

MailStream* map_open(MailStream* stream) {
  if (!stream) return &imap_prototype;
  imap_trace(stream, "map_open: function entry\n");
  if (stream->local) FreeLocal(stream);
  auto* local = new ImapLocal;
  stream->local = local;
  if (!mail_valid_net_parse(stream->mailbox, &local->net)) return Fail(stream);
  ResetCapabilities(local);
  NetMailbox& net = local->net;
  local->bboard = net.bboard;
  local->host = HostPart(net);
  unsigned long port = net.port ? net.port : g_settings.port ? g_settings.port : net.ssl ? 993 : 143;
  std::string host = net.host;
  if (net.port || g_settings.port) host += ":" + std::to_string(port);
  local->tcp = tcp_open(host.c_str(), net.ssl ? "imaps" : "imap", port);
  if (!local->tcp) return Fail(stream);
  if (net.ssl && !tcp_starttls(local->tcp, net.host, net.novalidate_cert ? TCP_TLS_NOVALIDATE : 0))
    return Fail(stream);
  stream->tag_counter = 0;
  ImapReply* greeting = imap_reply(stream, nullptr);
  if (!imap_OK(stream, greeting)) return Fail(stream);
  if (!StartTls(stream)) return Fail(stream);
  Probe(stream);
  if (g_settings.no_auth == 1 && g_settings.no_login == 1) {
    Log("IMAP AUTHENTICATE and LOGIN commands both disabled", 2);
    return Fail(stream);
  }
  if (!Authenticate(stream, net.host) && !Login(stream, net.host)) return Fail(stream);
  // Servers say more once the user is known (ACL, QUOTA): read it again.
  {
    ImapReply* r = &local->reply;
    if (r->text.rfind("[CAPABILITY ", 0) != 0) imap_send(stream, "CAPABILITY");
  }
  if ((local->level & kImapImap4) && !(local->level & kImapImap4rev1)) local->level &= ~kImapProbed;
  ++stream->sequence;
  if (stream->control) {
    std::string name = local->host + "<no_mailbox>";
    FS_GIVE(&stream->mailbox);
    stream->mailbox = cpystr(name.c_str());
    mail_exists(stream, 0);
    mail_recent(stream, 0);
  } else {
    ImapArgs args;
    args.string1 = net.mailbox;
    ImapReply* r = imap_send(stream, stream->rdonly ? "EXAMINE" : "SELECT", args);
    if (!imap_OK(stream, r)) return Fail(stream);
    std::string name = std::string(net.bboard ? "*" : "") + local->host + net.mailbox;
    FS_GIVE(&stream->mailbox);
    stream->mailbox = cpystr(name.c_str());
    std::string code = r->text.substr(0, 11);
    for (char& c : code) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    stream->rdonly = code == "[READ-ONLY]";
    if (!stream->nmsgs && !stream->silent) Log(mail_format("map_open: Mailbox %s is empty.\n", name.c_str()), 0);
  }
  if (!Connected(local)) return Fail(stream);
  return stream;
}

void map_close(MailStream* stream) {
  ImapLocal* local = imap_local(stream);
  if (!local) return;
  if (Connected(local)) {
    local->logging_out = true;
    ImapReply* r = imap_send(stream, "LOGOUT");
    if (r->key != "OK" && Connected(local)) Log(mail_format("Error in IMAP close: %.80s", r->text.c_str()), 1);
  }
  FreeLocal(stream);
  // The names of the user flags came from the server's FLAGS reply.
  for (char*& flag : stream->user_flags) FS_GIVE(&flag);
  mail_gc(stream, GC_TEXTS);
}

void map_capabilities(MailStream* stream, long* word) {
  *word = 0;
  ImapLocal* local = stream ? imap_local(stream) : nullptr;
  if (!local) return;
  if (Connected(local)) Probe(stream);
  long w = CAP_WORKS;
  if (local->level & kImapImap4) w |= CAP_FOLDERS | CAP_FOLDERS_FULL;
  if (local->level & kImapUseMailboxSubscribe) w |= CAP_SUBSCRIBE;
  if (local->level & kImapAcl) w |= CAP_ACL;
  if (local->level & kImapQuota) w |= CAP_QUOTA;
  if (local->level2 & kImapNoAtomicRename) w |= CAP_RENAME_NOT_ATOMIC;
  *word = w;
}

MailDriver imap2driver = {
    .name = "imap2",
    .next = nullptr,
    .valid = Valid,
    .parameters = Parameters,
    .capabilities = map_capabilities,
    .find = map_find,
    .find_bboards = map_find_bboards,
    .find_all = map_find_all,
    .find_all_bboards = map_find_all_bboards,
    .subscribe = map_subscribe,
    .unsubscribe = map_unsubscribe,
    .subscribe_bboard = map_subscribe_bboard,
    .unsubscribe_bboard = map_unsubscribe_bboard,
    .create = map_create,
    .remove = map_delete,
    .rename = map_rename,
    .open = map_open,
    .close = map_close,
    .fetchfast = map_fetchfast,
    .fetchflags = map_fetchflags,
    .fetchstructure = map_fetchstructure,
    .fetchheader = map_fetchheader,
    .fetchtext = map_fetchtext,
    .fetchbody = map_fetchbody,
    .setflag = map_setflag,
    .clearflag = map_clearflag,
    .search = map_search,
    .ping = map_ping,
    .check = map_check,
    .expunge = map_expunge,
    .copy = map_copy,
    .move = map_move,
    .append = map_append,
    .getacl = map_getacl,
    .setacl = map_setacl,
    .deleteacl = map_deleteacl,
    .myrights = map_myrights,
    .setquota = map_setquota,
    .getquota = map_getquota,
    .gc = map_gc,
    .status = map_status,
    .prototype = &imap_prototype,
};
