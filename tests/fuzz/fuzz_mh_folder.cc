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
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_names.h"
#include "c-client/core/plain_env.h"

namespace {

namespace fs = std::filesystem;

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

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

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

const std::string& Home() {
  static std::string home = [] {
    // Memory-backed where there is such a place: the driver fsyncs.
    std::string base = fs::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string t = base + "/fuzz_mh_folder.XXXXXX";
    Check(::mkdtemp(t.data()) != nullptr);
    return t;
  }();
  static const bool cleaned_at_exit = [] { return std::atexit([] { fs::remove_all(Home()); }) == 0; }();
  (void)cleaned_at_exit;
  return home;
}

uint16_t Length(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

// Every leaf section of a body, as the model would ask for them.
void Sections(const BodyPart* b, const std::string& prefix, int depth, std::vector<std::string>* out) {
  if (out->size() > 64 || depth > 8) return;
  if (b->type != TYPEMULTIPART) {
    if (prefix.empty()) out->push_back("1");
    return;
  }
  int k = 1;
  for (const BodyPartNode* n = b->parts; n && k < 32; n = n->next, ++k) {
    std::string name = prefix.empty() ? std::to_string(k) : prefix + "." + std::to_string(k);
    if (n->body.type != TYPEMULTIPART) out->push_back(name);
    if (n->body.type == TYPEMULTIPART) Sections(&n->body, name, depth + 1, out);
    if (n->body.msg_body && n->body.msg_body->type == TYPEMULTIPART) Sections(n->body.msg_body, name, depth + 1, out);
  }
}

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
    WriteFile(dir + "/" + std::to_string(number), reinterpret_cast<const uint8_t*>(text.data()), text.size());

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
      Sections(body, "", 0, &sections);
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
