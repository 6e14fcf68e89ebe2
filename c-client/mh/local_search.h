// The search of the local drivers (mh, dawz): one set of keywords, each
// checked against the cache's elements and the texts the driver reads.
#pragma once

#include "c-client/core/mail.h"

struct LocalSearchOps {
  // A message's body text, read without marking it seen; the caller frees it.
  MailText* (*read_text)(MailStream* stream, unsigned long msgno);
  bool draft;  // the format keeps a draft flag, so DRAFT is a keyword
};

// Marks the messages that meet every criterion (mail_searched); an unknown
// keyword or a bad argument is "Unknown search criterion" and finds nothing.
void local_search(MailStream* stream, const char* criteria, const LocalSearchOps& ops);
