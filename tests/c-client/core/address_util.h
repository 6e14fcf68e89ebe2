// An address record for tests, with the next one chained on.
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
