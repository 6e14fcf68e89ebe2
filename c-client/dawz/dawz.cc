// The dawz driver's table and its stream life: names, open, close, ping,
// check, fetching and flags. Parsing the file is in dawz_parse.cc, what
// writes records in dawz_write.cc, names and listing in dawz_names.cc.
#include "c-client/dawz/dawz.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "c-client/core/local_slots.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/local_search.h"
#include "c-client/mh/mh.h"
#include "c-client/mh/mh_format.h"
#include "c-client/rfc822/rfc822.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

MailStream dawz_prototype = [] {
  MailStream stream{};
  stream.driver = &dawzdriver;
  return stream;
}();

bool HasPrefix(const char* name) { return name && ::strncasecmp(name, "#dawz/", 6) == 0; }

void FreeLocal(MailStream* stream) {
  DawzLocal* local = dawz_local(stream);
  if (!local) return;
  if (local->fd >= 0) ::close(local->fd);
  delete local;
  stream->local = nullptr;
}

void ResetStream(MailStream* stream) {
  mail_reset_cached(stream);
  stream->nmsgs = 0;
  stream->recent = 0;
}

bool CheckMsgno(MailStream* stream, unsigned long msgno) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0 || msgno < 1 || msgno > stream->nmsgs) {
    mm_log("Invalid message number encountered in local DAWZ mailbox stream", 2);
    return false;
  }
  return true;
}

struct Reader {
  int fd;
  off_t pos;
  bool failed;
};

long ReadFn(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<Reader*>(handle);
  if (r->failed) return 0;
  unsigned long done = 0;
  while (done < size) {
    const ssize_t n = ::pread(r->fd, buffer + done, size - done, r->pos);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      r->failed = true;
      return 0;
    }
    done += static_cast<unsigned long>(n);
    r->pos += n;
  }
  return 1;
}

// size bytes of a message's text from offset, kept within the message.
MailText* ReadText(MailStream* stream, unsigned long msgno, unsigned long offset, unsigned long size,
                   unsigned long* got) {
  *got = 0;
  DawzLocal* local = dawz_local(stream);
  MessageElt* elt = mail_elt(stream, msgno);
  offset = std::min(offset, elt->rfc822_size);
  size = std::min(size, elt->rfc822_size - offset);
  Reader reader{local->fd, static_cast<off_t>(dawz_text_start(elt) + offset), false};
  MailText* text = mail_gets(ReadFn, &reader, size);
  if (reader.failed) {
    Log(mail_format("Unable to read message from mailbox file: %s - %s", local->path.c_str(),
                    local_strerror(errno ? errno : EIO)),
        2);
  }
  if (text) *got = size;
  return text;
}

void MarkSeen(MailStream* stream, unsigned long msgno) {
  MessageElt* elt = mail_elt(stream, msgno);
  if (elt->seen) return;
  elt->seen = 1;
  dawz_update_status(stream, msgno);
}


void SetBits(MessageElt* e, uint32_t bits, bool on) {
  if (bits & kMhSeen) e->seen = on;
  if (bits & kMhDeleted) e->deleted = on;
  if (bits & kMhFlagged) e->flagged = on;
  if (bits & kMhAnswered) e->answered = on;
}

void ChangeFlags(MailStream* stream, const char* sequence, const char* flags, bool on) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0) return;
  const uint32_t bits = mh_parse_flags(stream, flags);
  if (!mail_sequence(stream, sequence)) return;
  bool wrote = false, ok = true;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    if (!elt || !elt->sequence) continue;
    const unsigned before = dawz_system_flags(elt);
    SetBits(elt, bits, on);
    if (dawz_system_flags(elt) != before && ok) {
      ok = dawz_update_status(stream, i);
      wrote = true;
    }
  }
  if (ok && wrote && !stream->rdonly && !safe_fsync(local->fd))
    Log(mail_format("Unable to write flags to mailbox file: %s - %s", local->path.c_str(), std::strerror(errno)), 2);
}

using namespace local_slots;
void* NoParameters(long, void*) { return nullptr; }
// The counts would need the whole file parsed: not cheap, so not said.
long NoStatus(MailStream*, const char*, long, MailStatus*) { return 0; }

void Capabilities(MailStream*, long* word) {
  if (word) *word = CAP_WORKS | CAP_FOLDERS | CAP_SUBSCRIBE;
}

}  // namespace

DawzLocal* dawz_local(MailStream* stream) {
  return stream && stream->driver == &dawzdriver ? static_cast<DawzLocal*>(stream->local) : nullptr;
}

std::string dawz_file(const char* name) {
  if (!name) return {};
  std::string rest = name;
  if (rest[0] == '#') rest = rest.size() > 6 ? rest.substr(6) : std::string();
  if (::strcasecmp(rest.c_str(), "INBOX") == 0) rest = "INBOX";
  while (!rest.empty() && rest.back() == '\\') rest.pop_back();
  if (rest.empty()) return {};
  return mailbox_path(rest.c_str());
}

// A "#dawz/" name is ours when its file is of this format or not there yet
// (so that it can be created and refused as an append target by us, with
// our words); INBOX only when its file is one.
MailDriver* dawz_valid(const char* name) {
  if (!name) return nullptr;
  const bool prefixed = HasPrefix(name);
  if (!prefixed && ::strcasecmp(name, "INBOX") != 0) return nullptr;
  const std::string path = dawz_file(name);
  if (path.empty()) return nullptr;
  int error = 0;
  if (dawz_is_mailbox(path, &error)) return &dawzdriver;
  return prefixed && error == ENOENT ? &dawzdriver : nullptr;
}

void dawz_abort(MailStream* stream) {
  DawzLocal* local = dawz_local(stream);
  if (local && local->fd >= 0) {
    ::close(local->fd);
    local->fd = -1;
  }
}

MailStream* dawz_open(MailStream* stream) {
  if (!stream) return &dawz_prototype;
  if (stream->local) {
    FreeLocal(stream);
    ResetStream(stream);
  }
  const std::string path = dawz_file(stream->mailbox);
  int error = 0;
  if (!dawz_is_mailbox(path, &error)) {
    if (error)
      Log(mail_format("Can't open mailbox file: %s - %s", path.c_str(), local_strerror(error)), 2);
    else
      mm_log("Invalid folder", 1);
    return nullptr;
  }
  const int fd = stream->rdonly ? local_open_read(path) : local_open_update(path);
  if (fd < 0) {
    Log(mail_format("Can't open mailbox file: %s - %s", path.c_str(), local_strerror(errno)), 2);
    return nullptr;
  }
  auto* local = new DawzLocal;
  local->fd = fd;
  local->path = path;
  stream->local = local;
  ++stream->sequence;
  stream->nmsgs = 0;
  stream->recent = 0;
  if (!dawz_parse(stream)) {
    FreeLocal(stream);
    return nullptr;
  }
  if (!stream->nmsgs && !stream->silent) mm_log("Mailbox is empty", 0);
  return stream;
}

void dawz_close(MailStream* stream) {
  if (!stream) return;
  FreeLocal(stream);
  stream->driver = nullptr;
}

long dawz_ping(MailStream* stream) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0) return 0;
  return dawz_parse(stream) ? 1 : 0;
}

void dawz_check(MailStream* stream) {
  if (!dawz_ping(stream)) return;
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) mail_elt(stream, i);
  mm_log("Check completed", 0);
}

Envelope* dawz_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body_out) {
  if (body_out) *body_out = nullptr;
  if (!CheckMsgno(stream, msgno)) return nullptr;
  DawzLocal* local = dawz_local(stream);
  ++stream->cachecount;
  MessageElt* elt = mail_elt(stream, msgno);
  const unsigned long header = std::min(dawz_header_size(elt), elt->rfc822_size);
  const unsigned long n = std::min(header, kDawzParseHeaderMax);
  std::vector<char> bytes(n + 1);
  Reader reader{local->fd, static_cast<off_t>(dawz_text_start(elt)), false};
  if (n && !ReadFn(&reader, n, bytes.data())) {
    Log(mail_format("Unable to read message from mailbox file: %s - %s", local->path.c_str(),
                    local_strerror(errno ? errno : EIO)),
        2);
    return nullptr;
  }
  // The source holds the message alone, so part offsets count from its
  // first byte.
  FileText file{};
  file.fd = local->fd;
  file.start = dawz_text_start(elt);
  StringSource bs;
  string_init(&bs, &file_string, &file, elt->rfc822_size);
  string_setpos(&bs, header);
  std::vector<char> work(kRfc822WorkSize);
  Envelope* env = nullptr;
  BodyPart* body = nullptr;
  rfc822_parse_msg(&env, &body, bytes.data(), n, &bs, local_host_name(), work.data());
  if (body_out)
    *body_out = body;
  else
    mail_free_body(&body);
  stream->msgno = msgno;
  stream->env = env;
  stream->body = body;
  return env;
}

MailText* dawz_fetchheader(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  ++stream->cachecount;
  unsigned long got = 0;
  MailText* text = ReadText(stream, msgno, 0, dawz_header_size(mail_elt(stream, msgno)), &got);
  if (!text) return nullptr;
  mail_keep_header(stream, msgno, text);
  return text;
}

MailText* dawz_read_text(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  MessageElt* elt = mail_elt(stream, msgno);
  const unsigned long start = std::min(dawz_header_size(elt), elt->rfc822_size);
  unsigned long got = 0;
  return ReadText(stream, msgno, start, elt->rfc822_size - start, &got);
}

MailText* dawz_fetchtext(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno)) return nullptr;
  ++stream->cachecount;
  MarkSeen(stream, msgno);
  return dawz_read_text(stream, msgno);
}

MailText* dawz_fetchbody(MailStream* stream, unsigned long msgno, const char*, BodyPart* part, unsigned long offset,
                         unsigned long* length) {
  if (length) *length = 0;
  if (!CheckMsgno(stream, msgno) || !part) return nullptr;
  ++stream->cachecount;
  MarkSeen(stream, msgno);
  const unsigned long start = offset ? offset : dawz_header_size(mail_elt(stream, msgno));
  unsigned long got = 0;
  MailText* text = ReadText(stream, msgno, start, part->size_bytes, &got);
  if (!text) return nullptr;
  mail_keep_part_text(part, text);
  if (length) *length = got;
  return text;
}

void dawz_setflag(MailStream* stream, const char* sequence, const char* flags) {
  ChangeFlags(stream, sequence, flags, true);
}

void dawz_clearflag(MailStream* stream, const char* sequence, const char* flags) {
  ChangeFlags(stream, sequence, flags, false);
}

bool dawz_update_status(MailStream* stream, unsigned long msgno) {
  DawzLocal* local = dawz_local(stream);
  if (!local || local->fd < 0) return false;
  if (stream->rdonly) return true;
  MessageElt* elt = mail_elt(stream, msgno);
  unsigned long user = 0;
  for (int i = 0; i < kMaxUserFlags; ++i)
    if (elt->user_flags & (1ul << i)) user |= 1ul << (29 - i);
  char digits[16];
  std::snprintf(digits, sizeof digits, "%010lo%02o", user, dawz_system_flags(elt));
  const off_t at = static_cast<off_t>(elt->file_number + dawz_line_length(elt) - 14);
  if (!safe_pwrite_all(local->fd, digits, 12, at)) {
    Log(mail_format("Unable to write flags to mailbox file: %s - %s", local->path.c_str(), std::strerror(errno)), 2);
    return false;
  }
  return true;
}

void dawz_search(MailStream* stream, const char* criteria) {
  if (!dawz_local(stream)) return;
  // The format has no draft flag.
  static const LocalSearchOps kOps = {dawz_read_text, false};
  local_search(stream, criteria, kOps);
}

MailDriver dawzdriver = {
    .name = "dawz",
    .next = nullptr,
    .valid = dawz_valid,
    .parameters = NoParameters,
    .capabilities = Capabilities,
    .find = dawz_find,
    .find_bboards = NoPattern,
    .find_all = dawz_find_all,
    .find_all_bboards = NoPattern,
    .subscribe = dawz_subscribe,
    .unsubscribe = dawz_unsubscribe,
    .subscribe_bboard = NoBoard,
    .unsubscribe_bboard = NoBoard,
    .create = dawz_create,
    .remove = dawz_delete,
    .rename = dawz_rename,
    .open = dawz_open,
    .close = dawz_close,
    .fetchfast = NoSequence,
    .fetchflags = NoSequence,
    .fetchstructure = dawz_fetchstructure,
    .fetchheader = dawz_fetchheader,
    .fetchtext = dawz_fetchtext,
    .fetchbody = dawz_fetchbody,
    .setflag = dawz_setflag,
    .clearflag = dawz_clearflag,
    .search = dawz_search,
    .ping = dawz_ping,
    .check = dawz_check,
    .expunge = dawz_expunge,
    .copy = dawz_copy,
    .move = dawz_move,
    .append = dawz_append,
    .getacl = AclOk,
    .setacl = SetAclOk,
    .deleteacl = DeleteAclOk,
    .myrights = AclOk,
    .setquota = SetQuotaOk,
    .getquota = NoQuota,
    .gc = NoGc,
    .status = NoStatus,
    .prototype = &dawz_prototype,
};
