// The one test of "the user wrote this", shared by every window.
#include "src/model/own_message.h"

#include <strings.h>

#include <string>

#include "src/options/options.h"

namespace {

std::string Trimmed(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) return "";
  return text.substr(start, text.find_last_not_of(" \t") - start + 1);
}

}  // namespace

bool MM_SameAddress(const MailAddress* a, const char* text) {
  if (!a || !a->mailbox || !text) return false;
  const std::string own = Trimmed(text);
  const size_t at = own.rfind('@');
  if (own.empty() || at == 0) return false;
  const std::string mailbox = own.substr(0, at);
  if (strcasecmp(mailbox.c_str(), a->mailbox) != 0) return false;
  // An option without a host names the user on any host of the mail domain;
  // the parser fills a host in, so only the mailbox can be compared.
  if (at == std::string::npos) return true;
  return a->host && strcasecmp(own.c_str() + at + 1, a->host) == 0;
}

int MM_MsgIsOutgoing(UMI umi) {
  if (MM_MsgIsDraft(umi)) return 1;
  const Envelope* env = MM_MsgEnvelope(umi);
  if (!env || !env->from) return 0;
  for (const char* option : {"General.MailAddress", "common.from"}) {
    const std::string own = Opt_LookupText(option, kOptSession);
    for (const MailAddress* a = env->from; a; a = a->next)
      if (MM_SameAddress(a, own.c_str())) return 1;
  }
  return 0;
}
