// Feeds arbitrary text to the mailto: reader and to the reader of the
// request that travels between two copies of the program. Besides not
// crashing: what is accepted keeps the limits, and a request written out
// again reads back the same.
#include <cstddef>
#include <cstdint>
#include <string>

#include "src/base/mailto.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

void CheckRoundTrip(const ComposeRequest& r) {
  Check(r.to.size() + r.cc.size() + r.bcc.size() <= kMailtoMaxAddresses);
  Check(r.subject.size() <= kMailtoMaxField && r.body.size() <= kComposeMaxBody);
  Check(r.attach.size() <= kComposeMaxAttachments);
  ComposeRequest back;
  std::string why;
  Check(ComposeRequestDecode(ComposeRequestEncode(r), &back, &why));
  Check(back.to == r.to && back.cc == r.cc && back.bcc == r.bcc && back.subject == r.subject &&
        back.body == r.body && back.in_reply_to == r.in_reply_to && back.attach == r.attach);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  ComposeRequest link, request;
  std::string why;
  if (MailtoParse("mailto:" + text, &link, &why))
    CheckRoundTrip(link);
  else
    Check(!why.empty());
  why.clear();
  if (ComposeRequestDecode(text, &request, &why))
    CheckRoundTrip(request);
  else
    Check(!why.empty());
  return 0;
}
