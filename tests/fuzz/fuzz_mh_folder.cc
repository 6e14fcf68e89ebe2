// Arbitrary bytes as the cache files of an mh folder that holds a few
// message files: the input is split into mh_index.dat, mh_updat.dat and
// mh_cache.dat. Byte 0 says which of the three exist (bits 0, 1, 2), two
// little-endian u16 give the lengths of the index and the queue, whose
// bytes follow; the rest is the cache.
// Opening, fetching every structure, header, text and section, checking,
// expunging and closing must neither crash nor hang, and no message file
// may change, nor go unless its message was marked deleted.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_names.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/records_dump.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

namespace fs = std::filesystem;

// The folder's messages: CRLF and bare LF, multipart, an enclosed message,
// an empty file and a header without an end.
const std::map<uint32_t, std::string>& Messages() {
  static const std::map<uint32_t, std::string> m = {
      {1, "From: a@example.org\r\nTo: b@example.org, c@example.org\r\nSubject: one\r\n\r\nbody one\r\n"},
      {2, "From: d@example.org\nSubject: two\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=x\n\n"
          "--x\nContent-Type: text/plain\n\npart one\n--x\nContent-Type: application/octet-stream\n"
          "Content-Transfer-Encoding: base64\n\nQUJD\n--x--\n"},
      {3, "Subject: three\nMIME-Version: 1.0\nContent-Type: message/rfc822\n\nFrom: e@example.org\n"
          "Subject: inner\nMIME-Version: 1.0\nContent-Type: multipart/alternative; boundary=y\n\n--y\n\nplain\n"
          "--y\nContent-Type: text/html\n\n<p>html</p>\n--y--\n"},
      {4, ""},
      {5, "Subject: five, a header that never ends"},
      {7, "From: f@example.org\r\nSubject: seven\r\n\r\nseven\r\n"},
  };
  return m;
}

const std::string& Home() {
  static const std::string home = ScratchDir("fuzz_mh_folder");
  return home;
}

uint16_t Length(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

void Deleted(MailStream* s, std::set<uint32_t>* numbers) {
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    MessageElt* e = mail_elt(s, i);
    if (e->deleted) numbers->insert(static_cast<uint32_t>(e->file_number));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5 || size > (1u << 20)) return 0;
  static bool linked = false;
  if (!linked) {
    mail_unlink_all();
    mail_link(&mhdriver);
    mail_set_default_driver(&mhdriver);
    linked = true;
  }
  local_set_home(Home().c_str());
  const std::string dir = Home() + "/folders/fz";
  fs::remove_all(dir);
  fs::create_directories(dir);
  for (const auto& [number, text] : Messages())
    WriteFile(dir + "/" + std::to_string(number), text.data(), text.size());

  // The three cache files from the input.
  const uint8_t present = data[0];
  const uint16_t index_length = Length(data + 1), queue_length = Length(data + 3);
  size_t at = 5;
  auto take = [&](size_t length, int bit, const char* name) {
    const size_t n = std::min(length, size - at);
    if (present & bit) WriteFile(dir + "/" + name, data + at, n);
    at += n;
  };
  take(index_length, 1, "mh_index.dat");
  take(queue_length, 2, "mh_updat.dat");
  take(size - at, 4, "mh_cache.dat");

  mail_env_clear();
  mh_forget_paths();
  std::set<uint32_t> deleted;
  if (MailStream* s = mail_open(nullptr, "fz", 0)) {
    for (unsigned long i = 1; i <= s->nmsgs; ++i) {
      BodyPart* body = nullptr;
      mail_fetchstructure(s, i, &body);
      mail_fetchheader(s, i);
      mail_fetchtext(s, i);
      if (!body) continue;
      std::vector<std::string> sections;
      Sections(body, "", &sections);
      unsigned long length = 0;
      for (const std::string& section : sections) mail_fetchbody(s, i, section.c_str(), &length);
    }
    mail_check(s);
    Deleted(s, &deleted);
    mail_search(s, "TEXT needle");
    mail_expunge(s);
    mail_close(s);
  }

  for (const auto& [number, text] : Messages()) {
    const std::string path = dir + "/" + std::to_string(number);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
      Check(deleted.count(number) == 1);
    } else {
      Check(ReadFile(path) == text);
    }
  }
  mail_env_clear();
  return 0;
}
