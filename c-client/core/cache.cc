// The message cache: each stream's array of elements, and the flush that
// drops the fetched data of the older messages of a large mailbox.
//
// Besides the array the stream carries an index (`cache_index`) of the long
// elements that may hold data, so that a flush costs in proportion to what
// is cached, not to the mailbox size. Drivers store envelopes, bodies and
// texts into elements directly, so the cache can't see data arrive: every
// long element handed out goes into the index, and a walk drops the entries
// it finds empty, except those of the most recent touches: a caller may
// still be about to store into an element it was handed a moment ago. The
// index is also pruned when it has doubled since the last walk, so a
// session that only reads flags keeps it small. Should an element gain data
// long after its last touch, its next touch indexes it again.
#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"

mailcache_t mailcache = mm_cache;

namespace {

constexpr unsigned long kGrowBy = 100;        // slots beyond the message asked for
constexpr size_t kMinPruneSize = 1024;        // index size below which pruning waits
constexpr unsigned long kRecentTouches = 64;  // empty entries kept for late stores

unsigned long long g_work = 0;

struct CacheIndex {
  std::unordered_set<MessageElt*> members;
  unsigned long capacity = 0;  // allocated slots; cachesize may be fewer
  size_t prune_at = kMinPruneSize;
  bool in_expunge = false;  // renumbering: flushes wait until it is done
};

CacheIndex* Index(MailStream* stream) {
  if (!stream->cache_index) stream->cache_index = new CacheIndex;
  return static_cast<CacheIndex*>(stream->cache_index);
}

void Trace(const std::string& text) { mm_dlog(text.c_str()); }

bool HoldsData(const MessageElt* elt) {
  return elt->is_long && (elt->envelope || elt->body || elt->header_text || elt->body_text);
}

MessageElt* Slot(MailStream* stream, unsigned long msgno) {
  if (msgno < 1 || msgno > stream->cachesize || !stream->cache) return nullptr;
  return stream->cache[msgno - 1];
}

// The stream's mirrors point at what the current long element owns; once
// that is freed they must not keep pointing at it.
void ForgetMirrors(MailStream* stream, const MessageElt* elt) {
  if (stream->scache || !elt->is_long) return;
  if (elt->envelope && stream->env == elt->envelope) stream->env = nullptr;
  if (elt->body && stream->body == elt->body) stream->body = nullptr;
  if (elt->header_text && stream->header_text == elt->header_text) stream->header_text = nullptr;
  if (elt->body_text && stream->body_text == elt->body_text) stream->body_text = nullptr;
}

bool Recent(const MailStream* stream, const MessageElt* elt) {
  return elt->lastref + kRecentTouches > stream->cacheref;
}

// Drops the index entries of elements that hold nothing and weren't just
// handed out.
void Prune(MailStream* stream, CacheIndex* index) {
  g_work += index->members.size();
  for (auto it = index->members.begin(); it != index->members.end();)
    it = HoldsData(*it) || Recent(stream, *it) ? std::next(it) : index->members.erase(it);
  index->prune_at = std::max(kMinPruneSize, 2 * index->members.size());
}

void Remember(MailStream* stream, MessageElt* elt) {
  if (!elt->is_long) return;
  CacheIndex* index = Index(stream);
  index->members.insert(elt);
  if (index->members.size() >= index->prune_at) Prune(stream, index);
}

// The elements that hold data, in slot order.
std::vector<MessageElt*> Holders(MailStream* stream) {
  std::vector<MessageElt*> holders;
  if (!stream->cache_index) return holders;
  CacheIndex* index = Index(stream);
  g_work += index->members.size();
  for (auto it = index->members.begin(); it != index->members.end();) {
    MessageElt* e = *it;
    // An entry whose element no longer sits in its slot is stale.
    bool placed = Slot(stream, e->msgno) == e;
    if (placed && HoldsData(e)) holders.push_back(e);
    if (placed && (HoldsData(e) || Recent(stream, e)))
      ++it;
    else
      it = index->members.erase(it);
  }
  index->prune_at = std::max(kMinPruneSize, 2 * index->members.size());
  std::sort(holders.begin(), holders.end(),
            [](const MessageElt* a, const MessageElt* b) { return a->msgno < b->msgno; });
  return holders;
}

void DoDump(MailStream* stream);

// Frees the data of one element and keeps the element.
void GcElement(MailStream* stream, MessageElt* elt, unsigned long msgno) {
  if (!HoldsData(elt)) return;
  ForgetMirrors(stream, elt);
  mail_free_envelope(&elt->envelope);
  mail_free_body(&elt->body);
  mail_free_text(&elt->header_text);
  mail_free_text(&elt->body_text);
  if (stream->cachecount) --stream->cachecount;
  if (stream->cache_index) Index(stream)->members.erase(elt);
  Trace(mail_format("mm_cache: CH_GC - garbage collected cache element %lu", msgno));
}

void DoFlush(MailStream* stream) {
  if (stream->scache) return;
  std::vector<MessageElt*> holders = Holders(stream);
  unsigned long threshold = 0;
  if (stream->cachesize >= kCacheBig || (!stream->cachelow && !holders.empty())) {
    // Big mailboxes spend no room on ranking: everything goes. So does
    // everything when the low water mark asks to keep nothing.
    threshold = stream->cacheref;
  } else if (holders.size() > stream->cachelow) {
    // The ranking sort compares every pair as equal, and a stable sort
    // leaves such an array as it was built: in slot order. So the cut is
    // the reference of the holder that stands cachelow places from the end.
    threshold = holders[holders.size() - stream->cachelow]->lastref;
  }
  if (!threshold) return;
  if (stream->debug) {
    Trace(mail_format("mm_cache: CH_FLUSH - garbage collecting elements with reference count <= %lu", threshold));
    DoDump(stream);
  }
  for (MessageElt* e : holders) {
    // The element just touched belongs to a caller that is using it.
    if (e->lastref <= threshold && e->lastref != stream->cacheref) GcElement(stream, e, e->msgno);
  }
  if (stream->debug) {
    Trace("mm_cache: CH_FLUSH - after garbage collecting");
    DoDump(stream);
  }
  Trace("mm_cache: Cache garbage collection completed.");
}

unsigned long StringBytes(const char* s) { return s ? std::strlen(s) : 0; }

unsigned long EnvelopeBytes(const Envelope* env) {
  if (!env) return 0;
  unsigned long n = 56 + StringBytes(env->remail) + StringBytes(env->date) + StringBytes(env->subject) +
                    StringBytes(env->in_reply_to) + StringBytes(env->message_id) + StringBytes(env->newsgroups);
  for (const MailAddress* list : {env->return_path, env->from, env->sender, env->reply_to, env->to, env->cc, env->bcc})
    for (const MailAddress* a = list; a; a = a->next)
      n += 24 + StringBytes(a->personal) + StringBytes(a->adl) + StringBytes(a->mailbox) + StringBytes(a->host) +
           StringBytes(a->error);
  return n;
}

// The part itself: its nested parts are left out of the estimate.
unsigned long BodyBytes(const BodyPart* body) {
  if (!body) return 0;
  unsigned long n = 56 + StringBytes(body->subtype) + StringBytes(body->id) + StringBytes(body->description);
  for (const BodyParameter* p = body->parameter; p; p = p->next) n += StringBytes(p->attribute) + StringBytes(p->value);
  return n;
}

void DoDump(MailStream* stream) {
  Trace("mm_cache: CH_DUMP");
  Trace(mail_format("\tcachesize = %lu", stream->cachesize));
  Trace(mail_format("\tcachecount = %lu", stream->cachecount));
  Trace(mail_format("\tcacheref = %lu", stream->cacheref));
  Trace(mail_format("\tcachehigh = %lu", stream->cachehigh));
  Trace(mail_format("\tcachelow = %lu", stream->cachelow));
  Trace(mail_format("\tnmsgs = %lu", stream->nmsgs));
  Trace(mail_format("\trecent = %lu", stream->recent));
  Trace(mail_format("\tmsgno = %lu", stream->msgno));
  unsigned long bytes = 0;
  for (unsigned long i = 1; i <= stream->cachesize; ++i) {
    MessageElt* e = Slot(stream, i);
    if (!e) {
      Trace(mail_format("\telement = %lu - NULL", i));
      continue;
    }
    Trace(mail_format("\telement = %lu - lastref = %lu, msgno = %lu", i, e->lastref, e->msgno));
    if (!e->is_long) {
      bytes += kShortEltSize;
      continue;
    }
    bytes += kLongEltSize + EnvelopeBytes(e->envelope) + BodyBytes(e->body);
    if (e->header_text) bytes += e->header_text->size;
    if (e->body_text) bytes += e->body_text->size;
  }
  Trace(mail_format("mm_cache: CH_DUMP - total bytes consumed by this stream = %lu", bytes));
}

void DoFree(MailStream* stream, unsigned long msgno) {
  MessageElt* e = Slot(stream, msgno);
  if (!e) return;
  Trace(mail_format("mm_cache: CH_FREE - freeing cache element %lu", msgno));
  if (stream->cache_index) Index(stream)->members.erase(e);
  stream->cache[msgno - 1] = nullptr;
  // Only the last reference frees the data; the mirrors must not outlive it.
  if (((e->lockcount - 1) & 0xff) == 0) ForgetMirrors(stream, e);
  mail_free_elt(&e);
}

void DoInit(MailStream* stream) {
  if (stream->debug) Trace("mm_cache: initializing cache.");
  while (stream->cachesize) {
    DoFree(stream, stream->cachesize);
    --stream->cachesize;
  }
  if (stream->cache) FS_GIVE(&stream->cache);
  delete static_cast<CacheIndex*>(stream->cache_index);
  stream->cache_index = nullptr;
  stream->nmsgs = 0;
  stream->cachecount = 0;
  stream->cacheref = 0;
  stream->cachehigh = kCacheHigh;
  stream->cachelow = kCacheLow;
  Trace(mail_format("mm_cache: CH_INIT cache highwater = %lu, lowwater = %lu", stream->cachehigh, stream->cachelow));
}

void DoSize(MailStream* stream, unsigned long msgno) {
  if (stream->cachesize >= msgno) return;
  Trace(mail_format("mm_cache: CH_SIZE requested cache size change to %lu.", msgno));
  unsigned long size = msgno + kGrowBy;
  CacheIndex* index = Index(stream);
  if (!stream->cache) index->capacity = 0;
  if (size > index->capacity) {
    // Room grows geometrically underneath the logical size, so that a
    // mailbox that grows a message at a time isn't copied each time.
    unsigned long capacity = std::max(size, index->capacity + index->capacity / 2);
    if (!stream->cache) {
      stream->cache = static_cast<MessageElt**>(FS_GET(capacity * sizeof(MessageElt*)));
    } else {
      if (!FS_RESIZE(&stream->cache, capacity * sizeof(MessageElt*))) fatal("Out of memory growing the message cache");
      std::fill(stream->cache + index->capacity, stream->cache + capacity, nullptr);
    }
    index->capacity = capacity;
  }
  std::fill(stream->cache + stream->cachesize, stream->cache + size, nullptr);
  stream->cachesize = size;
  Trace(mail_format("mm_cache: CH_SIZE changed cachesize to %lu.", stream->cachesize));
}

void Touch(MailStream* stream, MessageElt* elt) {
  if (elt->lastref != stream->cacheref) elt->lastref = ++stream->cacheref;
}

MessageElt* MakeElement(MailStream* stream, unsigned long msgno, bool want_long) {
  if (msgno < 1) fatal("Bad msgno in mm_cache");
  DoSize(stream, msgno);
  MessageElt*& slot = stream->cache[msgno - 1];
  if (!slot) {
    slot = static_cast<MessageElt*>(FS_GET(sizeof(MessageElt)));
    slot->msgno = msgno;
    slot->lockcount = 1;
    slot->is_long = want_long;
    slot->lastref = ++stream->cacheref;
  } else if (want_long && !slot->is_long) {
    // Every element is allocated whole, so a short one can become long in
    // place and whoever holds it keeps a valid pointer.
    slot->is_long = true;
  }
  return slot;
}

// The four element operations: find or make, touch, then keep the cache
// within its high water mark.
MessageElt* Element(MailStream* stream, unsigned long msgno, long op) {
  MessageElt* elt = nullptr;
  switch (op) {
    case CH_MAKELELT:
      elt = MakeElement(stream, msgno, true);
      break;
    case CH_MAKEELT:
      elt = MakeElement(stream, msgno, !stream->scache);
      break;
    case CH_LELT:
      elt = Slot(stream, msgno);
      if (elt && !elt->is_long) elt = nullptr;
      break;
    default:
      elt = Slot(stream, msgno);
      break;
  }
  if (elt) {
    Touch(stream, elt);
    Remember(stream, elt);
  }
  bool renumbering = stream->cache_index && Index(stream)->in_expunge;
  if (!renumbering && stream->cachehigh > 0 && stream->cachehigh < stream->cachecount) DoFlush(stream);
  return elt;
}

void DoExpunge(MailStream* stream, unsigned long msgno) {
  MessageElt* gone = Slot(stream, msgno);
  if (gone) {
    if (HoldsData(gone) && stream->cachecount) --stream->cachecount;
    if (stream->cache_index) Index(stream)->members.erase(gone);
  }
  if (msgno < 1 || !stream->cache) return;
  unsigned long end = std::min(stream->nmsgs, stream->cachesize);
  // Moved elements are renumbered through CH_ELT, which touches them; the
  // flush such a touch may call for waits until the gap is closed, so that
  // it never sees an element between two slots.
  CacheIndex* index = Index(stream);
  index->in_expunge = true;
  for (unsigned long i = msgno; i < end; ++i) {
    stream->cache[i - 1] = stream->cache[i];
    stream->cache[i] = nullptr;
    if (MessageElt* moved = Element(stream, i, CH_ELT)) moved->msgno = i;
  }
  if (end >= 1 && end >= msgno) stream->cache[end - 1] = nullptr;
  index->in_expunge = false;
  if (stream->cachehigh > 0 && stream->cachehigh < stream->cachecount) DoFlush(stream);
}

}  // namespace

unsigned long long mm_cache_work() { return g_work; }

void* mm_cache(MailStream* stream, unsigned long msgno, long op) {
  if (!stream) return nullptr;
  switch (op) {
    case CH_INIT:
      DoInit(stream);
      return nullptr;
    case CH_SIZE:
      DoSize(stream, msgno);
      return nullptr;
    case CH_FLUSH:
      DoFlush(stream);
      return nullptr;
    case CH_DUMP:
      DoDump(stream);
      return nullptr;
    case CH_MAKELELT:
    case CH_LELT:
    case CH_MAKEELT:
    case CH_ELT:
      return Element(stream, msgno, op);
    case CH_FREE:
      DoFree(stream, msgno);
      return nullptr;
    case CH_GC: {
      if (stream->scache) return nullptr;
      if (MessageElt* e = Slot(stream, msgno)) GcElement(stream, e, msgno);
      return nullptr;
    }
    case CH_EXPUNGE:
      DoExpunge(stream, msgno);
      return nullptr;
    default:
      fatal("Bad mm_cache op");
  }
}
