// Fetching a message's structure and texts through the cache, finding a
// body section, and giving memory back (mail_gc).
//
// Data already cached is never fetched again. On a short-cache stream the
// stream itself holds one message's data; otherwise the long element does,
// and the stream's four fields only mirror the current message's.
#include <cstring>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"

namespace {

// Where a message's data live: the stream's own fields on a short-cache
// stream (after dropping another message's), else the long element's.
struct Slots {
  Envelope** env;
  BodyPart** body;
  MailText** header_text;
  MailText** body_text;
  MessageElt* elt;  // null on a short-cache stream
};

void FreeCurrent(MailStream* stream) {
  mail_free_envelope(&stream->env);
  mail_free_body(&stream->body);
  mail_free_text(&stream->header_text);
  mail_free_text(&stream->body_text);
}

Slots SlotsFor(MailStream* stream, unsigned long msgno) {
  if (stream->scache) {
    if (stream->msgno != msgno) FreeCurrent(stream);
    stream->msgno = msgno;
    return {&stream->env, &stream->body, &stream->header_text, &stream->body_text, nullptr};
  }
  MessageElt* elt = mail_lelt(stream, msgno);
  return {&elt->envelope, &elt->body, &elt->header_text, &elt->body_text, elt};
}

void Mirror(MailStream* stream, unsigned long msgno, const MessageElt* elt) {
  if (!elt) return;
  stream->msgno = msgno;
  stream->env = elt->envelope;
  stream->body = elt->body;
  stream->header_text = elt->header_text;
  stream->body_text = elt->body_text;
}

// The model marks a text it has moved elsewhere; such a text is fetched anew.
void DropConsumed(MailStream* stream, MailText** text) {
  if (*text && (*text)->consumed) {
    if (stream->header_text == *text) stream->header_text = nullptr;
    if (stream->body_text == *text) stream->body_text = nullptr;
    mail_free_text(text);
  }
}

bool CheckMsgno(MailStream* stream, unsigned long msgno, const char* what) {
  if (!stream || !stream->driver) return false;
  if (msgno < 1 || msgno > stream->nmsgs) fatal(what);
  return true;
}

bool IsRfc822(const BodyPart* b) {
  return b->type == TYPEMESSAGE && b->subtype && std::strcmp(b->subtype, "RFC822") == 0;
}

void Debug(MailStream* stream, const char* text) {
  if (stream->debug) mm_dlog(text);
}

// The cached texts of every part under body.
void FreePartTexts(BodyPart* body) {
  if (!body) return;
  mail_free_text(&body->contents);
  mail_free_text(&body->msg_text);
  mail_free_text(&body->msg_header_text);
  mail_free_text(&body->msg_body_text);
  FreePartTexts(body->msg_body);
  for (BodyPartNode* p = body->parts; p; p = p->next) FreePartTexts(&p->body);
}

bool Holds(const MessageElt* e) { return e->envelope || e->body || e->header_text || e->body_text; }

}  // namespace

Envelope* mail_fetchstructure(MailStream* stream, unsigned long msgno, BodyPart** body) {
  if (body) *body = nullptr;
  if (!CheckMsgno(stream, msgno, "Invalid message number used to fetch message structure.")) return nullptr;
  Slots s = SlotsFor(stream, msgno);
  if (*s.env && *s.body) {
    Debug(stream, "mail_fetchstructure: returning cached structure.");
  } else {
    mail_free_envelope(s.env);
    mail_free_body(s.body);
    if (stream->driver->fetchstructure) {
      // The driver stores the body through the pointer it is given.
      Envelope* env = stream->driver->fetchstructure(stream, msgno, s.body);
      if (*s.env != env) {
        mail_free_envelope(s.env);
        *s.env = env;
      }
    }
  }
  if (body) *body = *s.body;
  return *s.env;
}

MailText* mail_fetchheader(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno, "Invalid message number used to fetch message header.")) return nullptr;
  Slots s = SlotsFor(stream, msgno);
  DropConsumed(stream, s.header_text);
  Mirror(stream, msgno, s.elt);
  if (*s.header_text) {
    Debug(stream, "mail_fetchheader: returning cached header");
    return *s.header_text;
  }
  // The driver keeps the header where it belongs.
  MailText* text = stream->driver->fetchheader ? stream->driver->fetchheader(stream, msgno) : nullptr;
  Mirror(stream, msgno, s.elt);
  return text;
}

MailText* mail_fetchtext(MailStream* stream, unsigned long msgno) {
  if (!CheckMsgno(stream, msgno, "Invalid message number used to fetch message body raw text.")) return nullptr;
  Slots s = SlotsFor(stream, msgno);
  DropConsumed(stream, s.body_text);
  Mirror(stream, msgno, s.elt);
  if (*s.body_text) {
    Debug(stream, "mail_fetchtext: returning cached body text");
    return *s.body_text;
  }
  MailText* text = stream->driver->fetchtext ? stream->driver->fetchtext(stream, msgno) : nullptr;
  if (*s.body_text != text) {
    mail_free_text(s.body_text);
    *s.body_text = text;
  }
  stream->body_text = text;
  Mirror(stream, msgno, s.elt);
  return text;
}

MailText* mail_fetchbody(MailStream* stream, unsigned long msgno, const char* section, unsigned long* length) {
  if (length) *length = 0;
  if (!CheckMsgno(stream, msgno, "Invalid message number used to fetch message body section.")) return nullptr;
  if (!section || !*section) {
    mm_log("Failed to fetch message section - invalid (NULL) section specifier", 1);
    return nullptr;
  }
  BodyPart* body = nullptr;
  mail_fetchstructure(stream, msgno, &body);
  if (!body) return nullptr;
  unsigned long offset = 0;
  BodyPart* part = mail_body_section(body, section, &offset);
  if (!part || part->type == TYPEMULTIPART) {
    mm_log("Failed to fetch message section - invalid section specifier", 2);
    return nullptr;
  }
  MailText** cached = IsRfc822(part) ? &part->msg_text : &part->contents;
  DropConsumed(stream, cached);
  if (*cached) {
    if (length) *length = part->size_bytes;
    return *cached;
  }
  unsigned long scratch = 0;
  return stream->driver->fetchbody
             ? stream->driver->fetchbody(stream, msgno, section, part, offset, length ? length : &scratch)
             : nullptr;
}

// Sections are dotted part numbers. Each number picks a part of a
// multipart; a message/rfc822 on the way is entered first (its body must
// then be a multipart) and its offset counts towards the result, which
// ends with the offset of the last part picked.
BodyPart* mail_body_section(BodyPart* body, const char* section, unsigned long* offset) {
  unsigned long scratch = 0;
  if (!offset) offset = &scratch;
  *offset = 0;
  if (!body) return nullptr;
  if (body->type != TYPEMULTIPART) {
    if (!section || !*section || std::strcmp(section, "1") == 0) return body;
    if (!IsRfc822(body)) return nullptr;
  }
  if (!section || !*section) return body;
  unsigned long descents = 0;
  unsigned long last = 0;
  const char* s = section;
  while (true) {
    unsigned long n = 0;
    if (*s < '0' || *s > '9') return nullptr;
    while (*s >= '0' && *s <= '9') {
      n = n > 1000000ul ? n : n * 10 + static_cast<unsigned long>(*s - '0');
      ++s;
    }
    if (!n) return nullptr;
    if (IsRfc822(body)) {
      const BodyPart* enclosing = body;
      descents += body->msg_offset;
      body = body->msg_body;
      if (!body) return nullptr;
      // An enclosed message of one part: that part is its "1". It has no
      // node of its own; it starts where the enclosed message's header
      // ends, which is the enclosing part's size less the body's. At the
      // top of a message there is no enclosing part to count from.
      if (body->type != TYPEMULTIPART) {
        if (n != 1 || !last || enclosing->size_bytes < body->size_bytes) return nullptr;
        last += enclosing->size_bytes - body->size_bytes;
        if (!*s) break;
        if (*s++ != '.') return nullptr;
        continue;
      }
    }
    if (body->type != TYPEMULTIPART) return nullptr;
    BodyPartNode* node = body->parts;
    while (node && --n) node = node->next;
    if (!node) return nullptr;
    last = node->offset;
    body = &node->body;
    if (!*s) break;
    if (*s++ != '.') return nullptr;
  }
  *offset = descents + last;
  return body;
}

void mail_gc(MailStream* stream, long flags) {
  if (!stream) return;
  if (stream->driver && stream->driver->gc) stream->driver->gc(stream, flags);
  if (flags & GC_ELT) {
    for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
      auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
      if (elt && elt->lockcount == 1) mailcache(stream, i, CH_FREE);
    }
    if (stream->scache) FreeCurrent(stream);
    stream->msgno = 0;
  }
  if (!(flags & (GC_ENV | GC_TEXTS))) return;
  if (stream->scache) {
    if (flags & GC_ENV) {
      mail_free_envelope(&stream->env);
      mail_free_body(&stream->body);
    }
    if (flags & GC_TEXTS) {
      FreePartTexts(stream->body);
      mail_free_text(&stream->header_text);
      mail_free_text(&stream->body_text);
    }
    return;
  }
  for (unsigned long i = 1; i <= stream->nmsgs; ++i) {
    auto* elt = static_cast<MessageElt*>(mailcache(stream, i, CH_ELT));
    if (!elt || !elt->is_long || !Holds(elt)) continue;
    if (flags & GC_ENV) {
      mail_free_envelope(&elt->envelope);
      mail_free_body(&elt->body);
    }
    if (flags & GC_TEXTS) {
      FreePartTexts(elt->body);
      mail_free_text(&elt->header_text);
      mail_free_text(&elt->body_text);
    }
    // The cache counts messages that hold data; this one may hold none now.
    if (!Holds(elt) && stream->cachecount) --stream->cachecount;
  }
  stream->env = nullptr;
  stream->body = nullptr;
  stream->header_text = nullptr;
  stream->body_text = nullptr;
}

void mail_reset_cached(MailStream* stream) {
  mailcache(stream, 0, CH_INIT);
  stream->msgno = 0;
  if (stream->scache) {
    mail_free_envelope(&stream->env);
    mail_free_body(&stream->body);
    mail_free_text(&stream->header_text);
    mail_free_text(&stream->body_text);
  }
  stream->env = nullptr;
  stream->body = nullptr;
  stream->header_text = nullptr;
  stream->body_text = nullptr;
}

void mail_keep_header(MailStream* stream, unsigned long msgno, MailText* text) {
  if (stream->scache) {
    if (stream->header_text != text) mail_free_text(&stream->header_text);
  } else {
    MessageElt* lelt = mail_lelt(stream, msgno);
    if (lelt->header_text != text) mail_free_text(&lelt->header_text);
    lelt->header_text = text;
  }
  stream->header_text = text;
}

void mail_keep_part_text(BodyPart* part, MailText* text) {
  MailText** slot = IsRfc822(part) ? &part->msg_text : &part->contents;
  if (*slot != text) mail_free_text(slot);
  *slot = text;
}
