// Address and parameter records for tests, each with the next one chained on.
#pragma once

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
