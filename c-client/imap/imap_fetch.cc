// The imap2 driver's fetch slots. A structure fetch reads ahead: the
// messages after the one asked for that have no envelope yet come in the
// same command, and a caller that walks the mailbox in order gets ranges
// that double up to what the message cache can hold without a flush, so
// opening a large folder costs a few hundred round trips, not one per
// message.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/net/tcp.h"

namespace {

constexpr unsigned long kMaxAhead = 5000;  // per command when the cache has no limit
constexpr const char* kFullStructure = "(FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)";

bool Connected(MailStream* stream) {
  ImapLocal* local = imap_local(stream);
  return local && local->tcp && local->tcp->socket >= 0;
}

bool HasEnvelope(MailStream* stream, unsigned long i) {
  if (i < 1 || i > stream->cachesize || !stream->cache) return false;
  MessageElt* e = stream->cache[i - 1];
  return e && e->is_long && e->envelope;
}

std::string Range(unsigned long lo, unsigned long hi) {
  return lo == hi ? std::to_string(lo) : std::to_string(lo) + ":" + std::to_string(hi);
}

ImapReply* Fetch(MailStream* stream, const std::string& sequence, const char* what) {
  ImapArgs args;
  args.sequence = sequence.c_str();
  args.atom = what;
  return imap_send(stream, "FETCH", args);
}

// Commands of one structure fetch sent before their replies are read, and
// the fewest messages a command of the window covers.
constexpr size_t kWindow = 4;
constexpr unsigned long kMinPiece = 64;

// The range lo..hi in up to kWindow FETCH commands sent back to back, the
// replies read (and parsed) after: the server works on the next command
// while this side parses the reply to the last. Every message fits the
// cache already (AheadRange), so no flush runs while the replies come.
// True when every command succeeded; *bad when one was refused as BAD.
bool FetchPipelined(MailStream* stream, unsigned long lo, unsigned long hi, const char* what, bool* bad) {
  ImapLocal* local = imap_local(stream);
  *bad = false;
  const unsigned long count = hi - lo + 1;
  const size_t pieces = std::max<size_t>(1, std::min<size_t>(kWindow, count / kMinPiece));
  const unsigned long each = (count + pieces - 1) / pieces;
  mail_lock(stream);
  std::vector<std::string> tags;
  bool sent_all = true;
  for (unsigned long from = lo; from <= hi; from += each) {
    // Input before the first command still means a dropped connection.
    if (local->tcp) tcp_set_reply_pending(local->tcp, !tags.empty());
    std::string tag = imap_send_tagged(stream, "FETCH " + Range(from, std::min(hi, from + each - 1)) + " " + what);
    if (tag.empty()) {
      sent_all = false;
      break;
    }
    tags.push_back(tag);
  }
  if (local->tcp) tcp_set_reply_pending(local->tcp, false);
  bool ok = sent_all;
  // The replies may come in any order; each is matched by its tag.
  while (!tags.empty()) {
    ImapReply* r = imap_reply_among(stream, tags, tags.front().c_str());
    if (!Connected(stream)) {
      // Made up for the lost connection: the user has been told once.
      imap_OK(stream, r);
      ok = false;
      tags.clear();
      break;
    }
    auto it = std::find(tags.begin(), tags.end(), r->tag);
    if (it == tags.end()) continue;  // a stray "+": not an answer to a FETCH
    tags.erase(it);
    if (imap_key_is(r, "BAD")) {
      *bad = true;
      ok = false;
    } else if (!imap_OK(stream, r)) {
      ok = false;
    }
  }
  if (!sent_all && Connected(stream)) imap_fake(stream, "", "IMAP connection broken while sending command");
  mail_unlock(stream);
  return ok;
}

// The range of a structure fetch for msgno: up from it, then down, while
// the budget lasts and the messages have no envelope.
void AheadRange(MailStream* stream, unsigned long msgno, unsigned long* lo, unsigned long* hi) {
  ImapLocal* local = imap_local(stream);
  unsigned long budget = static_cast<unsigned long>(std::max(1L, imap_settings().lookahead));
  unsigned long cap = stream->cachehigh ? stream->cachehigh - std::min(stream->cachehigh - 1, 1ul) : kMaxAhead;
  // A walk in order, up or down (a list sorted newest first reads the
  // mailbox from its end), doubles the range each time it steps past it.
  const bool up = local->ahead_size && msgno == local->ahead_end + 1;
  const bool down = local->ahead_size && msgno + 1 == local->ahead_lo;
  if (up || down) budget = std::max(budget, std::min(2 * local->ahead_size, cap));
  if (stream->cachehigh) {
    // Make room first: a flush in the middle of the reply would drop what
    // it has just brought, the message asked for included.
    if (stream->cachecount + budget > stream->cachehigh) mailcache(stream, 0, CH_FLUSH);
    unsigned long room = stream->cachehigh > stream->cachecount ? stream->cachehigh - stream->cachecount : 1;
    budget = std::max(1ul, std::min(budget, room));
  }
  *lo = *hi = msgno;
  unsigned long left = budget - 1;
  auto extend_up = [&] {
    while (left && *hi < stream->nmsgs && !HasEnvelope(stream, *hi + 1)) ++*hi, --left;
  };
  auto extend_down = [&] {
    while (left && *lo > 1 && !HasEnvelope(stream, *lo - 1)) --*lo, --left;
  };
  if (down) {
    extend_down();
    extend_up();
  } else {
    extend_up();
    extend_down();
  }
  local->ahead_end = *hi;
  local->ahead_lo = *lo;
  local->ahead_size = *hi - *lo + 1;
}

}  // namespace

void map_fetchfast(MailStream* stream, const char* sequence) {
  if (Connected(stream)) imap_OK(stream, Fetch(stream, sequence, "FAST"));
}

void map_fetchflags(MailStream* stream, const char* sequence) {
  if (Connected(stream)) imap_OK(stream, Fetch(stream, sequence, "FLAGS"));
}

Envelope* map_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body) {
  ImapLocal* local = imap_local(stream);
  if (!Connected(stream)) return nullptr;
  std::string sequence = std::to_string(msgno);
  unsigned long lo = msgno, hi = msgno;
  if (!stream->scache) {
    AheadRange(stream, msgno, &lo, &hi);
    sequence = Range(lo, hi);
  }
  if ((local->level & kImapUseFull) && (local->level & (kImapImap4 | kImapImap4rev1)) &&
      hi - lo + 1 >= 2 * kMinPiece) {
    bool bad = false;
    if (!FetchPipelined(stream, lo, hi, kFullStructure, &bad) && bad && Connected(stream)) {
      local->level &= ~kImapUseFull;
      imap_OK(stream, Fetch(stream, sequence, "ALL"));
    }
  } else if (local->level & kImapUseFull) {
    // FULL brings BODY, which has no extension data: IMAP4 servers are asked
    // for BODYSTRUCTURE, so that each part's disposition comes along.
    const char* full = (local->level & (kImapImap4 | kImapImap4rev1)) ? kFullStructure : "FULL";
    ImapReply* r = Fetch(stream, sequence, full);
    if (imap_key_is(r, "BAD") && Connected(stream)) {
      local->level &= ~kImapUseFull;
      imap_OK(stream, Fetch(stream, sequence, "ALL"));
    } else {
      imap_OK(stream, r);
    }
  } else {
    imap_OK(stream, Fetch(stream, sequence, "ALL"));
  }
  if (stream->scache) {
    if (body) *body = stream->body;
    return stream->env;
  }
  MessageElt* elt = mail_lelt(stream, msgno);
  if (body && *body != elt->body) *body = elt->body;
  return elt->envelope;
}

MailText* map_fetchheader(MailStream* stream, unsigned long msgno) {
  if (!Connected(stream)) return nullptr;
  MailText** header = stream->scache ? &stream->header_text : &mail_lelt(stream, msgno)->header_text;
  MailText** text = stream->scache ? &stream->body_text : &mail_lelt(stream, msgno)->body_text;
  bool both = imap_settings().prefetch_text && !*text;
  imap_OK(stream, Fetch(stream, std::to_string(msgno), both ? "(RFC822.HEADER RFC822.TEXT)" : "RFC822.HEADER"));
  header = stream->scache ? &stream->header_text : &mail_lelt(stream, msgno)->header_text;
  return *header;
}

MailText* map_fetchtext(MailStream* stream, unsigned long msgno) {
  if (!Connected(stream)) return nullptr;
  imap_OK(stream, Fetch(stream, std::to_string(msgno), "RFC822.TEXT"));
  return stream->scache ? stream->body_text : mail_lelt(stream, msgno)->body_text;
}

MailText* map_fetchbody(MailStream* stream, unsigned long msgno, const char* section, BodyPart* part, unsigned long,
                        unsigned long* length) {
  if (length) *length = 0;
  ImapLocal* local = imap_local(stream);
  if (!part || !section) return nullptr;
  if (!(local->level & kImapUseFull)) {
    if (std::strcmp(section, "1") != 0) return nullptr;
    MailText* text = mail_fetchtext(stream, msgno);
    if (text && length) *length = text->size;
    return text;
  }
  bool message = part->type == TYPEMESSAGE && part->subtype && std::strcmp(part->subtype, "RFC822") == 0;
  MailText** slot = message ? &part->msg_text : &part->contents;
  if (*slot && !(*slot)->consumed) {
    if (length) *length = (*slot)->size;
    return *slot;
  }
  mail_free_text(slot);
  if (!Connected(stream)) return nullptr;
  std::string what = std::string("BODY[") + section + "]";
  imap_OK(stream, Fetch(stream, std::to_string(msgno), what.c_str()));
  // The reply may have brought a new structure; find the part again.
  BodyPart* root = stream->scache ? stream->body : mail_lelt(stream, msgno)->body;
  unsigned long offset = 0;
  BodyPart* now = root ? mail_body_section(root, section, &offset) : nullptr;
  if (!now) return nullptr;
  message = now->type == TYPEMESSAGE && now->subtype && std::strcmp(now->subtype, "RFC822") == 0;
  MailText* text = message ? now->msg_text : now->contents;
  if (text && length) *length = text->size;
  return text;
}
