// The mail layer's records: constructors that return zeroed records,
// destructors that take the address of the pointer and null it, and the
// copies the sending path makes.
//
// Lists (addresses, extra headers, parameters, sibling parts) are freed and
// copied in loops: a hostile header can hold many thousands of addresses,
// and recursion along `next` would grow the stack with them. Nesting of
// body parts is bounded by the parser, so parts recurse into their children.
#include <strings.h>
#include <unistd.h>

#include <cstring>

#include "c-client/core/mail.h"

namespace {

template <typename T>
T* NewZeroed() {
  return static_cast<T*>(FS_GET(sizeof(T)));
}

void FreeString(char** s) {
  if (*s) FS_GIVE(s);
}

// The addresses of one list, each record with its own strings.
MailAddress* CopyAddressList(const MailAddress* from) {
  MailAddress* head = nullptr;
  MailAddress** tail = &head;
  for (; from; from = from->next) {
    MailAddress* a = mail_newaddr();
    a->personal = cpystr(from->personal);
    a->adl = cpystr(from->adl);
    a->mailbox = cpystr(from->mailbox);
    a->host = cpystr(from->host);
    a->error = cpystr(from->error);
    *tail = a;
    tail = &a->next;
  }
  return head;
}

ExtraHeader* CopyExtraHeaders(const ExtraHeader* from) {
  ExtraHeader* head = nullptr;
  ExtraHeader** tail = &head;
  for (; from; from = from->next) {
    ExtraHeader* x = mail_newextra();
    x->name = cpystr(from->name);
    x->value = cpystr(from->value);
    *tail = x;
    tail = &x->next;
  }
  return head;
}

// Null sorts before any string; otherwise without regard to case, since
// neither mailbox nor host names differ by case in practice.
int CompareField(const char* a, const char* b) {
  if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
  return strcasecmp(a, b);
}

}  // namespace

Envelope* mail_newenvelope() { return NewZeroed<Envelope>(); }
MailAddress* mail_newaddr() { return NewZeroed<MailAddress>(); }
ExtraHeader* mail_newextra() { return NewZeroed<ExtraHeader>(); }
MailText* mail_newtext() { return NewZeroed<MailText>(); }
BodyPart* mail_newbody() { return mail_initbody(NewZeroed<BodyPart>()); }
BodyParameter* mail_newbody_parameter() { return NewZeroed<BodyParameter>(); }
BodyPartNode* mail_newbody_part() {
  BodyPartNode* node = NewZeroed<BodyPartNode>();
  mail_initbody(&node->body);
  return node;
}
Message* mail_newmessage() { return NewZeroed<Message>(); }

// A zeroed part is a 7bit text part without subtype or parameters: what a
// part is until a header says otherwise.
BodyPart* mail_initbody(BodyPart* body) {
  if (body) std::memset(body, 0, sizeof *body);
  return body;
}

void mail_free_address(MailAddress** address) {
  if (!address) return;
  MailAddress* a = *address;
  *address = nullptr;
  while (a) {
    MailAddress* next = a->next;
    FreeString(&a->personal);
    FreeString(&a->adl);
    FreeString(&a->mailbox);
    FreeString(&a->host);
    FreeString(&a->error);
    FS_GIVE(&a);
    a = next;
  }
}

void mail_free_extra(ExtraHeader** extra) {
  if (!extra) return;
  ExtraHeader* x = *extra;
  *extra = nullptr;
  while (x) {
    ExtraHeader* next = x->next;
    FreeString(&x->name);
    FreeString(&x->value);
    FS_GIVE(&x);
    x = next;
  }
}

void mail_free_envelope(Envelope** env) {
  if (!env || !*env) return;
  Envelope* e = *env;
  FreeString(&e->remail);
  mail_free_address(&e->return_path);
  FreeString(&e->date);
  mail_free_address(&e->from);
  mail_free_address(&e->sender);
  mail_free_address(&e->reply_to);
  FreeString(&e->subject);
  mail_free_address(&e->to);
  mail_free_address(&e->cc);
  mail_free_address(&e->bcc);
  FreeString(&e->in_reply_to);
  FreeString(&e->message_id);
  FreeString(&e->newsgroups);
  mail_free_extra(&e->extra_headers);
  FS_GIVE(env);
}

void mail_free_text(MailText** text) {
  if (!text || !*text) return;
  MailText* t = *text;
  if (t->kind == kTextFile && t->data) {
    // A spooled text owns its temporary file. Names longer than a path
    // the spooler can make are cut, as the spooler cut them.
    char path[256];
    std::strncpy(path, t->data, sizeof path - 1);
    path[sizeof path - 1] = '\0';
    ::unlink(path);
  }
  FreeString(&t->data);
  FS_GIVE(text);
}

void mail_text_set(MailText* text, int kind, const char* data, unsigned long size) {
  if (!text) return;
  FreeString(&text->data);
  text->kind = kind;
  text->size = size;
  text->consumed = 0;
  switch (kind) {
    case kTextInMemory: {
      char* copy = static_cast<char*>(FS_GET(size + 1));
      if (data && size) std::memcpy(copy, data, size);
      copy[size] = '\0';
      text->data = copy;
      break;
    }
    case kTextBinary: {
      char* copy = static_cast<char*>(FS_GET(size ? size : 1));
      if (data && size) std::memcpy(copy, data, size);
      text->data = copy;
      break;
    }
    default:
      text->data = cpystr(data);
      break;
  }
}

void mail_free_body_parameter(BodyParameter** parameter) {
  if (!parameter) return;
  BodyParameter* p = *parameter;
  *parameter = nullptr;
  while (p) {
    BodyParameter* next = p->next;
    FreeString(&p->attribute);
    FreeString(&p->value);
    FS_GIVE(&p);
    p = next;
  }
}

void mail_free_body_data(BodyPart* body) {
  if (!body) return;
  FreeString(&body->subtype);
  mail_free_body_parameter(&body->parameter);
  FreeString(&body->id);
  FreeString(&body->description);
  FreeString(&body->disposition);
  mail_free_body_parameter(&body->disposition_parameter);
  mail_free_text(&body->contents);
  mail_free_body_part(&body->parts);
  mail_free_envelope(&body->msg_env);
  mail_free_body(&body->msg_body);
  mail_free_text(&body->msg_text);
  mail_free_text(&body->msg_header_text);
  mail_free_text(&body->msg_body_text);
}

void mail_free_body(BodyPart** body) {
  if (!body || !*body) return;
  mail_free_body_data(*body);
  FS_GIVE(body);
}

void mail_free_body_part(BodyPartNode** part) {
  if (!part) return;
  BodyPartNode* node = *part;
  *part = nullptr;
  while (node) {
    BodyPartNode* next = node->next;
    mail_free_body_data(&node->body);
    FS_GIVE(&node);
    node = next;
  }
}

void mail_free_message(Message** message) {
  if (!message || !*message) return;
  Message* m = *message;
  mail_free_envelope(&m->envelope);
  mail_free_body(&m->body);
  for (void*& extra : m->extra)
    if (extra) FS_GIVE(&extra);
  FS_GIVE(message);
}

// Drops one reference; the last one frees the element and, on a long
// element, the data it holds. The counter is eight bits and wraps, so an
// element whose count already stood at 0 is not freed.
void mail_free_elt(MessageElt** elt) {
  if (!elt || !*elt) return;
  MessageElt* e = *elt;
  *elt = nullptr;
  e->lockcount = (e->lockcount - 1) & 0xff;
  if (e->lockcount) return;
  if (e->is_long) {
    mail_free_envelope(&e->envelope);
    mail_free_body(&e->body);
    mail_free_text(&e->header_text);
    mail_free_text(&e->body_text);
  }
  FS_GIVE(&e);
}

// Deep in every string and in every address of every list: the sending
// path frees the copy and the original independently.
Envelope* mail_duplicate_envelope(const Envelope* env) {
  if (!env) return nullptr;
  Envelope* e = mail_newenvelope();
  e->remail = cpystr(env->remail);
  e->return_path = CopyAddressList(env->return_path);
  e->date = cpystr(env->date);
  e->from = CopyAddressList(env->from);
  e->sender = CopyAddressList(env->sender);
  e->reply_to = CopyAddressList(env->reply_to);
  e->subject = cpystr(env->subject);
  e->to = CopyAddressList(env->to);
  e->cc = CopyAddressList(env->cc);
  e->bcc = CopyAddressList(env->bcc);
  e->in_reply_to = cpystr(env->in_reply_to);
  e->message_id = cpystr(env->message_id);
  e->newsgroups = cpystr(env->newsgroups);
  e->extra_headers = CopyExtraHeaders(env->extra_headers);
  return e;
}

BodyParameter* mail_duplicate_body_parameters(const BodyParameter* parameter) {
  BodyParameter* head = nullptr;
  BodyParameter** tail = &head;
  for (; parameter; parameter = parameter->next) {
    BodyParameter* p = mail_newbody_parameter();
    p->attribute = cpystr(parameter->attribute);
    p->value = cpystr(parameter->value);
    *tail = p;
    tail = &p->next;
  }
  return head;
}

// Orders by the heads of the two lists only: mailbox, then host.
int mail_compare_address(const MailAddress* a, const MailAddress* b) {
  if (!a || !b) return (a ? 1 : 0) - (b ? 1 : 0);
  int c = CompareField(a->mailbox, b->mailbox);
  return c ? c : CompareField(a->host, b->host);
}
