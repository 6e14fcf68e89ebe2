// Shared by the mail layer's tests and fuzz targets: address and parameter
// records built, each with the next one chained on; envelopes and bodies as
// text, to compare two readings of a message field by field; and the leaf
// sections of a body as the model asks for them.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "c-client/core/mail.h"

inline MailAddress* Address(const char* personal, const char* mailbox, const char* host,
                            MailAddress* next = nullptr) {
  MailAddress* a = mail_newaddr();
  a->personal = cpystr(personal);
  a->mailbox = cpystr(mailbox);
  a->host = cpystr(host);
  a->next = next;
  return a;
}

inline BodyParameter* Parameter(const char* attribute, const char* value,
                                BodyParameter* next = nullptr) {
  BodyParameter* p = mail_newbody_parameter();
  p->attribute = cpystr(attribute);
  p->value = cpystr(value);
  p->next = next;
  return p;
}

inline std::string S(const char* s) { return s ? std::string("\"") + s + "\"" : "null"; }

// Lists come back from the cache in reverse order; `reverse` turns a fresh
// parse's lists round so the two compare.
template <typename T>
std::vector<const T*> Items(const T* list, bool reverse) {
  std::vector<const T*> v;
  for (; list; list = list->next) v.push_back(list);
  if (reverse) std::reverse(v.begin(), v.end());
  return v;
}

inline std::string DumpAddresses(const MailAddress* list, bool reverse) {
  std::string out = "[";
  for (const MailAddress* a : Items(list, reverse))
    out += "(" + S(a->personal) + " " + S(a->adl) + " " + S(a->mailbox) + " " + S(a->host) + ")";
  return out + "]";
}

inline std::string DumpEnvelope(const Envelope* e, bool reverse = false) {
  if (!e) return "no envelope";
  std::string out = "return_path=" + DumpAddresses(e->return_path, reverse) + " date=" + S(e->date) +
                    " from=" + DumpAddresses(e->from, reverse) + " sender=" + DumpAddresses(e->sender, reverse) +
                    " reply_to=" + DumpAddresses(e->reply_to, reverse) + " subject=" + S(e->subject) +
                    " to=" + DumpAddresses(e->to, reverse) + " cc=" + DumpAddresses(e->cc, reverse) +
                    " bcc=" + DumpAddresses(e->bcc, reverse) + " in_reply_to=" + S(e->in_reply_to) +
                    " message_id=" + S(e->message_id) + " newsgroups=" + S(e->newsgroups) + " extra=";
  for (const ExtraHeader* x : Items(e->extra_headers, reverse)) out += S(x->name) + ":" + S(x->value) + ";";
  return out;
}

inline std::string DumpBody(const BodyPart* b, bool reverse = false, int depth = 0) {
  if (!b) return "no body";
  std::string pad(static_cast<size_t>(depth) * 2, ' ');
  std::string out = pad + "type=" + std::to_string(b->type) + " enc=" + std::to_string(b->encoding) +
                    " subtype=" + S(b->subtype) + " id=" + S(b->id) + " desc=" + S(b->description) +
                    " lines=" + std::to_string(b->size_lines) + " bytes=" + std::to_string(b->size_bytes) +
                    " raw=" + std::to_string(b->size_raw) + " msg_offset=" + std::to_string(b->msg_offset) +
                    " params=";
  for (const BodyParameter* p : Items(b->parameter, reverse)) out += S(p->attribute) + "=" + S(p->value) + ";";
  // Disposition parameters keep their order through the structure cache.
  out += " disposition=" + S(b->disposition) + " dparams=";
  for (const BodyParameter* p : Items(b->disposition_parameter, false))
    out += S(p->attribute) + "=" + S(p->value) + ";";
  out += "\n";
  for (const BodyPartNode* n = b->parts; n; n = n->next)
    out += pad + "part@" + std::to_string(n->offset) + "\n" + DumpBody(&n->body, reverse, depth + 1);
  if (b->msg_env) out += pad + "msg_env " + DumpEnvelope(b->msg_env, reverse) + "\n";
  if (b->msg_body) out += pad + "msg_body\n" + DumpBody(b->msg_body, reverse, depth + 1);
  return out;
}

// Every leaf section of a body ("1", "2.1", ...); an enclosed message's own
// parts are sections under its number. Bounded for hostile bodies.
inline void Sections(const BodyPart* b, const std::string& prefix, std::vector<std::string>* out, int depth = 0) {
  if (out->size() > 64 || depth > 8) return;
  if (b->type != TYPEMULTIPART) {
    if (prefix.empty()) out->push_back("1");
    return;
  }
  int k = 1;
  for (const BodyPartNode* n = b->parts; n && k < 32; n = n->next, ++k) {
    const std::string name = prefix.empty() ? std::to_string(k) : prefix + "." + std::to_string(k);
    if (n->body.type == TYPEMULTIPART) Sections(&n->body, name, out, depth + 1);
    else out->push_back(name);
    if (n->body.msg_body && n->body.msg_body->type == TYPEMULTIPART) Sections(n->body.msg_body, name, out, depth + 1);
  }
}
