#include "c-client/core/standin_driver.h"

namespace {


MailDriver* Valid(const char*) { return nullptr; }
void* Parameters(long, void*) { return nullptr; }
void Capabilities(MailStream*, long* word) {
  if (word) *word = 0;
}
void Pattern(MailStream*, const char*) {}
long Name(MailStream*, const char*) { return 0; }
long Rename(MailStream*, const char*, const char*) { return 0; }
void Close(MailStream*) {}
void Sequence(MailStream*, const char*) {}
Envelope* FetchStructure(MailStream*, unsigned long, BodyPart** body) {
  if (body) *body = nullptr;
  return nullptr;
}
MailText* FetchText(MailStream*, unsigned long) { return nullptr; }
MailText* FetchBody(MailStream*, unsigned long, const char*, BodyPart*, unsigned long, unsigned long* length) {
  if (length) *length = 0;
  return nullptr;
}
void Flags(MailStream*, const char*, const char*) {}
long Ping(MailStream*) { return 0; }
void Stream(MailStream*) {}
long Move(MailStream*, const char*, const char*) { return 0; }
long Append(MailStream*, const char*, const char*, const char*, StringSource*) { return 0; }
long SetAcl(MailStream*, const char*, const char*, const char*) { return 0; }
long DeleteAcl(MailStream*, const char*, const char*) { return 0; }
long SetQuota(MailStream*, const char*, long, long) { return 0; }
void Gc(MailStream*, long) {}
long Status(MailStream*, const char*, long, MailStatus*) { return 0; }

}  // namespace

MailDriver StandinDriver(const char* name, MailStream* (*open)(MailStream*), MailStream* prototype) {
  return MailDriver{
      .name = name,
      .next = nullptr,
      .valid = Valid,
      .parameters = Parameters,
      .capabilities = Capabilities,
      .find = Pattern,
      .find_bboards = Pattern,
      .find_all = Pattern,
      .find_all_bboards = Pattern,
      .subscribe = Name,
      .unsubscribe = Name,
      .subscribe_bboard = Name,
      .unsubscribe_bboard = Name,
      .create = Name,
      .remove = Name,
      .rename = Rename,
      .open = open,
      .close = Close,
      .fetchfast = Sequence,
      .fetchflags = Sequence,
      .fetchstructure = FetchStructure,
      .fetchheader = FetchText,
      .fetchtext = FetchText,
      .fetchbody = FetchBody,
      .setflag = Flags,
      .clearflag = Flags,
      .search = Pattern,
      .ping = Ping,
      .check = Stream,
      .expunge = Stream,
      .copy = Move,
      .move = Move,
      .append = Append,
      .getacl = Name,
      .setacl = SetAcl,
      .deleteacl = DeleteAcl,
      .myrights = Name,
      .setquota = SetQuota,
      .getquota = Name,
      .gc = Gc,
      .status = Status,
      .prototype = prototype,
  };
}
