// Shared by the mh driver's tests: a temporary user directory with folders,
// generated messages of many MIME shapes in CRLF and bare-LF form, and a
// dump of everything a stream gives for a message, to compare two reads
// of a folder byte for byte.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh.h"
#include "c-client/mh/mh_format.h"
#include "c-client/mh/mh_names.h"
#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/core/records_dump.h"
#include "tests/support/scratch_dir.h"

namespace mh_test {

namespace fs = std::filesystem;

inline std::string Le32(uint32_t v) {
  std::string s(4, '\0');
  for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xff);
  return s;
}

// --- Generated messages -------------------------------------------------

// Shapes by i % 6: plain; multipart with a base64 attachment; nested
// alternative inside mixed; an enclosed message/rfc822 in a multipart; a
// whole message/rfc822 body; quoted-printable with every address field.
// Line ends are CRLF or bare LF as asked; sizes grow with i. In a shape
// "#" stands for the message's number, \1 for some lines of text and \2
// for some lines of base64.
inline std::string MakeMessage(int i, bool crlf) {
  static const char* const kShapes[] = {
      "\n\1",
      "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"b#\"\n\npreamble\n--b#\n"
      "Content-Type: text/plain; charset=us-ascii\n\n\1--b#\nContent-Type: application/octet-stream; name=\"f#.bin\"\n"
      "Content-Transfer-Encoding: base64\nContent-Description: attachment #\n\n\2--b#--\nepilogue\n",
      "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=outer#\n\n--outer#\n"
      "Content-Type: multipart/alternative; boundary=inner#\n\n--inner#\nContent-Type: text/plain\n\n\1--inner#\n"
      "Content-Type: text/html\n\n<p>html #</p>\n--inner#--\n--outer#\nContent-Type: image/png\n"
      "Content-Transfer-Encoding: base64\nContent-ID: <img#@example.org>\n\n\2--outer#--\n",
      "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=m#\n\n--m#\nContent-Type: text/plain\n\n\1--m#\n"
      "Content-Type: message/rfc822\n\nFrom: inner#@example.com\nSubject: enclosed #\nMIME-Version: 1.0\n"
      "Content-Type: multipart/mixed; boundary=e#\n\n--e#\nContent-Type: text/plain\n\nenclosed text #\n--e#\n"
      "Content-Type: application/pdf\nContent-Transfer-Encoding: base64\n\n\2--e#--\n--m#--\n",
      "MIME-Version: 1.0\nContent-Type: message/rfc822\n\nFrom: wrapped#@example.com\nSubject: wrapped #\n\n\1",
      "From: Q # <q#@example.org>\nSender: s@example.org\nReply-To: r@example.org\n"
      "To: a@example.org, B <b@example.org>\nCc: c@example.org\nBcc: d@example.org\n"
      "Subject: =?utf-8?q?caf=C3=A9?= #\nIn-Reply-To: <parent#@example.org>\nNewsgroups: comp.mail\n"
      "MIME-Version: 1.0\nContent-Type: text/plain; charset=utf-8; format=flowed\n"
      "Content-Transfer-Encoding: quoted-printable\n\n\1",
  };
  const std::string nl = crlf ? "\r\n" : "\n", id = std::to_string(i);
  std::string text, base64, out;
  for (int k = 0; k <= i % 7; ++k)
    text += "Line " + std::to_string(k) + " of message " + id + ", some words to search: needle" + id + nl;
  for (int k = 0; k < 3 + i % 5; ++k) base64 += "QUJDREVGR0hJSktMTU5PUFFSU1RVVldYWVphYmNkZWZnaGlqa2xtbm9w" + nl;
  const std::string head = i % 6 == 5 ? "" : "From: Sender # <sender#@example.org>\nTo: First <first@example.org>, "
      "second@example.net\nSubject: Shape " + std::to_string(i % 6) + " number #\nDate: Mon, 3 Jun 2024 10:0" +
      std::to_string(i % 10) + ":00 +0200\n";
  for (char c : head + kShapes[i % 6])
    out += c == '#' ? id : c == '\n' ? nl : c == '\1' ? text : c == '\2' ? base64 : std::string(1, c);
  return out;
}

// --- Dumps of what a stream gives -----------------------------------------

inline std::string TextOf(const MailText* t) {
  if (!t) return "<no text>";
  if (t->kind == kTextFile) return "<file " + ReadFile(t->data) + ">";
  return std::string(t->data, t->size);
}

inline std::string DumpStructure(MailStream* s, unsigned long msgno, BodyPart** body_out = nullptr) {
  BodyPart* body = nullptr;
  Envelope* env = mail_fetchstructure(s, msgno, &body);
  if (body_out) *body_out = body;
  return DumpEnvelope(env, false) + "\n" + DumpBody(body, false);
}

// Everything the stream gives for one message, through the core.
inline std::string DumpMessage(MailStream* stream, unsigned long msgno) {
  BodyPart* body = nullptr;
  std::string out = DumpStructure(stream, msgno, &body);
  out += "header:" + TextOf(mail_fetchheader(stream, msgno)) + "\n";
  out += "text:" + TextOf(mail_fetchtext(stream, msgno)) + "\n";
  std::vector<std::string> sections;
  if (body) Sections(body, "", &sections);
  for (const std::string& s : sections) {
    unsigned long length = 0;
    MailText* t = mail_fetchbody(stream, msgno, s.c_str(), &length);
    out += "section " + s + " (" + std::to_string(length) + "):" + TextOf(t) + "\n";
  }
  return out;
}

// --- The fixture -----------------------------------------------------------

inline long TestClock() {
  static long now = 1700000000;
  return ++now;
}

class MhTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(home_.empty());
    local_set_home(home_.c_str());
    mh_set_clock_for_test(TestClock);
    mh_forget_paths();
    safe_clear_faults_for_test();
    mh_set_crash_point_for_test(nullptr);
    mail_unlink_all();
    mail_link(&mhdriver);
    mail_set_default_driver(&mhdriver);
    mailcache = mm_cache;
    mail_env_clear();
  }
  void TearDown() override {
    safe_clear_faults_for_test();
    mh_set_crash_point_for_test(nullptr);
    for (MailStream* s : streams_) mail_close(s);
    mh_set_clock_for_test(nullptr);
    mh_forget_paths();
    mail_unlink_all();
    mail_env_clear();
  }

  // Makes a folder; its directory.
  std::string Create(const char* name) {
    EXPECT_EQ(mh_create(nullptr, name), 1) << Logs();
    return mh_path(name);
  }
  // Streams opened here are closed at the end unless closed before.
  MailStream* Open(const char* name) { return streams_.emplace_back(mail_open(nullptr, name, 0)); }
  // A folder the test cannot go on without: not opening it ends the test.
  MailStream* OpenOk(const char* name) {
    if (MailStream* s = Open(name)) return s;
    throw std::runtime_error(std::string("cannot open ") + name + "\n" + Logs());
  }
  void Close(MailStream*& stream) {
    std::replace(streams_.begin(), streams_.end(), stream, static_cast<MailStream*>(nullptr));
    stream = mail_close(stream);
  }
  long Append(const char* name, const std::string& text, const char* flags = nullptr, const char* date = nullptr) {
    StringSource source;
    string_init(&source, &mail_string, const_cast<char*>(text.data()), text.size());
    return mail_append(nullptr, name, flags, date, &source);
  }
  // The folder's message files by number, and their bytes.
  static std::map<uint32_t, std::string> Messages(const std::string& dir) {
    std::map<uint32_t, std::string> out;
    for (const auto& e : fs::directory_iterator(dir)) {
      const std::string name = e.path().filename().string();
      if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos)
        out[static_cast<uint32_t>(std::stoul(name))] = ReadFile(e.path().string());
    }
    return out;
  }
  // A message's flags as the element has them, as "SDFAR" letters
  // (seen, deleted, flagged, answered, draft) or "-".
  static std::string Flags(MailStream* s, unsigned long msgno) {
    const MessageElt* e = mail_elt(s, msgno);
    return std::string() + (e->seen ? 'S' : '-') + (e->deleted ? 'D' : '-') + (e->flagged ? 'F' : '-') +
           (e->answered ? 'A' : '-') + (e->draft ? 'd' : '-');
  }
  // file number -> flags, for every message of a stream.
  static std::map<unsigned long, std::string> FlagMap(MailStream* s) {
    std::map<unsigned long, std::string> out;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) out[mail_elt(s, i)->file_number] = Flags(s, i);
    return out;
  }
  static std::string Logs() { return EnvAll(false); }
  static bool Said(const std::string& callback, const std::string& text) { return EnvSaid(callback, text); }
  static MhIndexHeader Header(const std::string& dir) {
    std::string bytes = ReadFile(dir + "/mh_index.dat");
    MhIndexHeader h{};
    mh_decode_header(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &h);
    return h;
  }
  static std::vector<MhIndexRecord> Records(const std::string& dir, const char* file = "mh_index.dat") {
    std::string bytes = ReadFile(dir + "/" + file);
    std::vector<MhIndexRecord> out;
    size_t from = std::string(file).find("updat") == std::string::npos ? kMhHeaderSize : 0;
    for (size_t at = from; at + kMhRecordSize <= bytes.size(); at += kMhRecordSize) {
      MhIndexRecord r;
      mh_decode_record(reinterpret_cast<const uint8_t*>(bytes.data() + at), &r);
      out.push_back(r);
    }
    return out;
  }

  TempDir scratch_{"mh_driver_test"};
  const std::string home_ = scratch_.path;
  std::vector<MailStream*> streams_;
};

}  // namespace mh_test
