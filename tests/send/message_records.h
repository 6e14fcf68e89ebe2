// Message records as the compose window hands them to the writer and the
// delivery: a text message, and the same with parts after the text.
#pragma once

#include <string>

#include "c-client/core/mail.h"

inline MailAddress* Addr(const char* mailbox, const char* host, const char* personal = nullptr) {
  MailAddress* a = mail_newaddr();
  a->mailbox = cpystr(mailbox);
  a->host = cpystr(host);
  if (personal) a->personal = cpystr(personal);
  return a;
}

// A text/plain message to `to` with the subject; no From, as the sender
// fills it from the options.
inline Message* TextMessage(const std::string& text, MailAddress* to, const char* subject) {
  Message* m = mail_newmessage();
  m->envelope = mail_newenvelope();
  m->envelope->to = to;
  m->envelope->subject = cpystr(subject);
  m->body = mail_newbody();
  m->body->type = TYPETEXT;
  m->body->subtype = cpystr("PLAIN");
  m->body->contents = mail_newtext();
  mail_text_set(m->body->contents, kTextInMemory, text.data(), text.size());
  return m;
}

// The body becomes the first part of a multipart/mixed one (once), and an
// application/octet-stream part with data of the kind given follows it.
inline void AddAttachment(Message* m, int kind, const std::string& data) {
  if (m->body->type != TYPEMULTIPART) {
    BodyPart* text = m->body;
    m->body = mail_newbody();
    m->body->type = TYPEMULTIPART;
    m->body->subtype = cpystr("MIXED");
    m->body->parts = mail_newbody_part();
    m->body->parts->body = *text;
    FS_GIVE(&text);
  }
  BodyPartNode** tail = &m->body->parts->next;
  while (*tail) tail = &(*tail)->next;
  *tail = mail_newbody_part();
  (*tail)->body.type = TYPEAPPLICATION;
  (*tail)->body.subtype = cpystr("OCTET-STREAM");
  (*tail)->body.contents = mail_newtext();
  mail_text_set((*tail)->body.contents, kind, data.data(), data.size());
}
