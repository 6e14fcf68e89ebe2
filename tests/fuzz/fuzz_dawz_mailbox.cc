// Arbitrary bytes as a dawz mailbox file. Opening, fetching every message's
// structure, header, text and sections, setting flags, checking and
// expunging (on a scratch copy) must neither crash nor hang, and the
// expunge must keep every message not marked deleted, byte for byte.
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/dawz/dawz.h"
#include "c-client/mh/local_paths.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/records_dump.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

const std::string& Home() {
  static const std::string home = ScratchDir("fuzz_dawz_mailbox");
  return home;
}

std::string Text(const MailText* t) { return t && t->kind != kTextFile ? std::string(t->data, t->size) : std::string(); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  static bool linked = false;
  if (!linked) {
    mail_unlink_all();
    mail_link(&dawzdriver);
    mail_set_default_driver(&dawzdriver);
    linked = true;
  }
  local_set_home(Home().c_str());
  std::filesystem::create_directories(Home() + "/folders");
  WriteFile(Home() + "/folders/fz", data, size);
  mail_env_clear();
  MailStream* s = mail_open(nullptr, "#dawz/fz", 0);
  if (!s) return 0;
  std::vector<std::string> kept;
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    BodyPart* body = nullptr;
    mail_fetchstructure(s, i, &body);
    mail_fetchheader(s, i);
    std::vector<std::string> sections;
    if (body) Sections(body, "", &sections);
    for (size_t k = 0; k < sections.size() && k < 20; ++k) {
      unsigned long length = 0;
      mail_fetchbody(s, i, sections[k].c_str(), &length);
    }
    if (i % 2 == 0) mail_setflag(s, std::to_string(i).c_str(), "\\Deleted");
    if (!mail_elt(s, i)->deleted) kept.push_back(Text(mail_fetchtext(s, i)));
  }
  mail_search(s, "TEXT a");
  mail_check(s);
  if (s->nmsgs && s->local && static_cast<DawzLocal*>(s->local)->fd >= 0) {
    mail_expunge(s);
    if (static_cast<DawzLocal*>(s->local)->fd >= 0) {
      Check(s->nmsgs == kept.size());
      for (unsigned long i = 1; i <= s->nmsgs; ++i) Check(Text(mail_fetchtext(s, i)) == kept[i - 1]);
    }
  }
  mail_close(s);
  return 0;
}
