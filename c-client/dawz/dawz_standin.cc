// Stand-in for the dawz driver until its own code lands here.
#include "c-client/core/standin_driver.h"

namespace {
extern MailStream dawz_prototype;
MailStream* DawzOpen(MailStream* stream) { return stream ? nullptr : &dawz_prototype; }
}  // namespace

MailDriver dawzdriver = StandinDriver("dawz", DawzOpen, &dawz_prototype);

namespace {
MailStream dawz_prototype = [] {
  MailStream stream{};
  stream.driver = &dawzdriver;
  return stream;
}();
}  // namespace
