// Stand-in for the imap2 driver until its own code lands here.
#include "c-client/core/standin_driver.h"

namespace {
extern MailStream imap2_prototype;
MailStream* Imap2Open(MailStream* stream) { return stream ? nullptr : &imap2_prototype; }
}  // namespace

MailDriver imap2driver = StandinDriver("imap2", Imap2Open, &imap2_prototype);

namespace {
MailStream imap2_prototype = [] {
  MailStream stream{};
  stream.driver = &imap2driver;
  return stream;
}();
}  // namespace
