// The imap2 driver against a real Dovecot: every slot, both ports, the
// authenticators, and a second session changing the mailbox while ours
// watches.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/imap/imap_slots.h"
#include "c-client/imap/mutf7.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/mh_names.h"
#include "c-client/net/tcp.h"
#include "c-client/rfc822/rfc822.h"
#include "c-client/rfc822/strsrc.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/imap/dovecot_peer.h"

namespace {

using imap_test::Dovecot;

Dovecot* g_server = nullptr;

class ImapPeer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_server = new Dovecot;
    if (!g_server->Start()) {
      delete g_server;
      g_server = nullptr;
    }
  }
  static void TearDownTestSuite() {
    if (g_server) g_server->Remove();
    delete g_server;
    g_server = nullptr;
  }
  void SetUp() override {
    ASSERT_NE(g_server, nullptr) << "no Dovecot (package dovecot-imapd)";
    mail_unlink_all();
    mail_link(&imap2driver);
    mail_env_clear();
    mail_env_set_login(User().c_str(), Password().c_str());
    tcp_tls_set_ca_file(g_server->env["CAFILE"].c_str());
    tcp_set_timeouts_for_test(20, 20, 10);
    long zero = 0;
    mail_parameters(nullptr, 112, &zero);
    mail_parameters(nullptr, 114, &zero);
  }
  void TearDown() override {
    for (MailStream*& s : streams_) s = mail_close(s);
    tcp_tls_set_ca_file(nullptr);
    tcp_set_timeouts_for_test(0, 0, 0);
  }
  static std::string User() { return g_server->env["USER"]; }
  static std::string Password() { return g_server->env["PASSWORD"]; }
  static const Dovecot& Server() { return *g_server; }

  // Opens and keeps the stream for closing at the end.
  MailStream* Open(const std::string& name, long options = 0) {
    MailStream* s = mail_open(nullptr, name.c_str(), options);
    if (s) streams_.push_back(s);
    return s;
  }
  void Close(MailStream*& s) {
    streams_.erase(std::remove(streams_.begin(), streams_.end(), s), streams_.end());
    s = mail_close(s);
  }
  // The protocol lines the driver sent, as traced (OP_DEBUG).
  static std::vector<std::string> Sent(const std::string& prefix) {
    std::vector<std::string> out;
    for (const std::string& l : EnvLines("dlog"))
      if (l.rfind("* ", 0) != 0 && l.find(prefix) != std::string::npos) out.push_back(l);
    return out;
  }
  static bool Append(const std::string& mailbox, const std::string& text, const char* flags = nullptr,
                     const char* date = nullptr) {
    StringSource s;
    string_init(&s, &mail_string, const_cast<char*>(text.data()), text.size());
    return mail_append(nullptr, Server().Name(mailbox).c_str(), flags, date, &s) == 1;
  }
  static std::string Text(MailText* t) { return t ? std::string(t->data, t->size) : "(none)"; }

  std::vector<MailStream*> streams_;
};

// A part by its section number ("2", "1.3").
BodyPart* part_of(BodyPart* body, const std::string& section) {
  unsigned long offset = 0;
  return body ? mail_body_section(body, section.c_str(), &offset) : nullptr;
}

std::string Crlf(std::string s) {
  std::string out;
  for (char c : s) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

// --- Opening ------------------------------------------------------------------

TEST_F(ImapPeer, OpensSelectExamineAndControlStreams) {
  g_server->Seed(5, "Open1");
  struct Case {
    const char* mailbox;
    long options;
    unsigned long nmsgs;
    bool rdonly;
    const char* name_ends;
  } cases[] = {
      {"Open1", 0, 5, false, "/notls}Open1"},
      {"Open1", OP_READONLY, 5, true, "/notls}Open1"},
      {"Open1", OP_CONTROL, 0, false, "/notls}<no_mailbox>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.mailbox) + " options " + std::to_string(c.options));
    mail_env_clear();
    MailStream* s = Open(Server().Name(c.mailbox), c.options | OP_DEBUG);
    ASSERT_NE(s, nullptr) << EnvLogs(2);
    EXPECT_EQ(s->nmsgs, c.nmsgs);
    EXPECT_EQ(static_cast<bool>(s->rdonly), c.rdonly);
    std::string name = s->mailbox;
    EXPECT_EQ(name.substr(name.size() - std::strlen(c.name_ends)), c.name_ends);
    EXPECT_EQ(Sent(c.options & OP_READONLY ? "EXAMINE Open1" : "SELECT Open1").size(),
              c.options & OP_CONTROL ? 0u : 1u);
    // The password never reaches a trace.
    for (const std::string& l : EnvLines("dlog")) EXPECT_EQ(l.find(Password()), std::string::npos) << l;
    long word = 0;
    mail_capabilities(s, &word);
    // Dovecot announces ACL and QUOTA only once logged in.
    EXPECT_EQ(word & (CAP_WORKS | CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA | CAP_FOLDERS_FULL),
              CAP_WORKS | CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA | CAP_FOLDERS_FULL);
    Close(s);
    // The server's goodbye to our LOGOUT is no lost connection.
    for (const std::string& n : EnvLines("notify", true)) EXPECT_EQ(n.find("@4"), std::string::npos) << n;
  }
  // A mailbox that does not exist fails the open and says why.
  mail_env_clear();
  EXPECT_EQ(Open(Server().Name("NoSuchBox")), nullptr);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos) << EnvLogs(2);
}

TEST_F(ImapPeer, TransportsAndMechanisms) {
  struct Case {
    const char* what;
    std::string name;
    long no_auth;
    const char* must_trace;      // a line the driver sent
    const char* must_not_trace;  // a line it must not send
  } cases[] = {
      {"CRAM-MD5 on the plain port", Server().Name("INBOX"), 0, "auth AUTHENTICATE CRAM-MD5", " LOGIN "},
      {"LOGIN when AUTHENTICATE is off", Server().Name("INBOX"), 1, " LOGIN ",
       "AUTHENTICATE"},
      {"STARTTLS when offered", Server().Name("INBOX", ""), 1, " STARTTLS", "AUTHENTICATE"},
      {"STARTTLS required", Server().Name("INBOX", "/tls"), 0, " STARTTLS", " LOGIN "},
      {"implicit TLS", Server().Name("INBOX", "/ssl", true), 1, " LOGIN ", "STARTTLS"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    mail_parameters(nullptr, 112, const_cast<long*>(&c.no_auth));
    MailStream* s = Open(c.name, OP_DEBUG);
    ASSERT_NE(s, nullptr) << EnvLogs(2);
    EXPECT_FALSE(Sent(c.must_trace).empty());
    EXPECT_TRUE(Sent(c.must_not_trace).empty()) << Sent(c.must_not_trace)[0];
    for (const std::string& l : EnvLines("dlog")) EXPECT_EQ(l.find(Password()), std::string::npos) << l;
    EXPECT_EQ(EnvLines("login").size(), 1u);
    Close(s);
  }
  // Before STARTTLS nothing but CAPABILITY and STARTTLS goes in the clear.
  mail_env_clear();
  MailStream* s = Open(Server().Name("INBOX", "/tls"), OP_DEBUG);
  ASSERT_NE(s, nullptr);
  std::vector<std::string> lines = EnvLines("dlog");
  auto tls = std::find_if(lines.begin(), lines.end(), [](const std::string& l) { return l.find(" STARTTLS") != std::string::npos; });
  ASSERT_NE(tls, lines.end());
  for (auto it = lines.begin(); it != tls; ++it) EXPECT_EQ(it->find("AUTHENTICATE"), std::string::npos);
}

TEST_F(ImapPeer, WrongPasswordsAreRefused) {
  // Dovecot slows down each further failure from one address, so this
  // stays at a few; the count of tries is the fake server's to check.
  long one = 1, zero = 0;
  mail_parameters(nullptr, 100, reinterpret_cast<void*>(1));
  struct Case {
    const char* what;
    long* no_auth;
    size_t logins;  // questions asked
  } cases[] = {{"LOGIN", &one, 1}, {"CRAM-MD5 then LOGIN", &zero, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    mail_env_clear();
    mail_env_set_login(User().c_str(), "wrong");
    mail_parameters(nullptr, 112, c.no_auth);
    EXPECT_EQ(Open(Server().Name("INBOX")), nullptr);
    EXPECT_EQ(EnvLines("login").size(), c.logins);
    EXPECT_NE(EnvLogs(2).find("Too many login failures.  Aborting login."), std::string::npos) << EnvLogs(2);
  }
  // A cancelled question ends the attempt at once.
  mail_env_clear();
  mail_env_set_login("", "");
  mail_parameters(nullptr, 112, &one);
  EXPECT_EQ(Open(Server().Name("INBOX")), nullptr);
  EXPECT_EQ(EnvLines("login").size(), 1u);
  mail_parameters(nullptr, 100, reinterpret_cast<void*>(3));
}

// --- Fetching ------------------------------------------------------------------

TEST_F(ImapPeer, FetchesEnvelopesFlagsSizesAndDatesWithReadAhead) {
  g_server->Seed(30, "Fetch1");
  MailStream* s = Open(Server().Name("Fetch1"), OP_DEBUG);
  ASSERT_NE(s, nullptr);
  mail_env_clear();
  for (unsigned long i = 1; i <= 30; ++i) {
    SCOPED_TRACE("message " + std::to_string(i));
    BodyPart* body = nullptr;
    Envelope* env = mail_fetchstructure(s, i, &body);
    ASSERT_NE(env, nullptr);
    ASSERT_NE(body, nullptr);
    EXPECT_STREQ(env->subject, ("Seeded message " + std::to_string(i)).c_str());
    ASSERT_NE(env->from, nullptr);
    EXPECT_STREQ(env->from->mailbox, ("sender" + std::to_string(i % 7)).c_str());
    EXPECT_STREQ(env->from->host, "example.org");
    EXPECT_STREQ(env->from->personal, ("Sender " + std::to_string(i % 7)).c_str());
    EXPECT_STREQ(env->message_id, ("<seed." + std::to_string(i) + "@example.org>").c_str());
    EXPECT_EQ(body->type, TYPETEXT);
    EXPECT_STREQ(body->subtype, "PLAIN");
    MessageElt* e = mail_elt(s, i);
    EXPECT_EQ(static_cast<bool>(e->seen), i % 2 == 0);
    EXPECT_EQ(static_cast<bool>(e->flagged), i % 10 == 0);
    // Header of 5 lines plus the blank one, then the body lines.
    std::string body_text;
    for (unsigned long k = 0; k < 1 + i % 5; ++k) body_text += "Message " + std::to_string(i) + " of the seeded set.\r\n";
    EXPECT_EQ(body->size_bytes, body_text.size());
    EXPECT_EQ(e->year + 1969u, 2023u);
    EXPECT_EQ(e->month, 11u);
  }
  // Read-ahead: one command for the first 20, then a larger one for the rest.
  std::vector<std::string> fetches = Sent(" FETCH ");
  ASSERT_EQ(fetches.size(), 2u);
  EXPECT_NE(fetches[0].find("FETCH 1:20 (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)"), std::string::npos) << fetches[0];
  EXPECT_NE(fetches[1].find("FETCH 21:30 (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)"), std::string::npos) << fetches[1];
}

// One message with the dispositions mail carries today: every part's
// disposition and file name must read the same from the server, from a
// local folder's fresh parse and from its structure cache.
TEST_F(ImapPeer, DispositionsAndFileNamesMatchALocalFolder) {
  const std::string message = Crlf(
      "From: a@example.org\nSubject: files\nMIME-Version: 1.0\nContent-Disposition: inline\n"
      "Content-Type: multipart/mixed; boundary=\"b1\"\n\n"
      "--b1\nContent-Type: text/plain\nContent-Disposition: INLINE\n\nsee the files\n"
      "--b1\nContent-Type: application/pdf\nContent-Transfer-Encoding: base64\n"
      "Content-Disposition: attachment; filename*=utf-8''r%C3%A9sum%C3%A9.pdf; size=4\n\nJVBERg==\n"
      "--b1\nContent-Type: application/octet-stream\nContent-Disposition: Attachment;\n"
      " filename*0*=iso-8859-1'de'Gr%FC%DFe;\n filename*1=\" aus K\";\n filename*2*=%F6ln.txt\n\nabc\n"
      "--b1\nContent-Type: image/png\n"
      "Content-Disposition: attachment; filename=\"plain.png\"; filename*=utf-8''better.png\n\nx\n"
      "--b1\nContent-Type: message/rfc822\n\nSubject: inner\nContent-Type: text/plain\n"
      "Content-Disposition: attachment; filename=\"inner.txt\"\n\ninner text\n"
      "--b1\nContent-Type: text/plain\n\nno disposition\n--b1--\n");
  struct Want {
    const char* section;  // "" for the message itself; "5.0" for the enclosed message's body
    const char* disposition;
    const char* filename;  // as a lookup by name finds it (bytes in its charset)
  } wants[] = {
      {"", "INLINE", nullptr},
      {"1", "INLINE", nullptr},
      {"2", "ATTACHMENT", "r\xC3\xA9sum\xC3\xA9.pdf"},
      {"3", "ATTACHMENT", "Gr\xFC\xDF" "e aus K\xF6ln.txt"},
      {"4", "ATTACHMENT", "better.png"},
      {"5", nullptr, nullptr},
      {"5.0", "ATTACHMENT", "inner.txt"},
      {"6", nullptr, nullptr},
  };
  auto part = [](BodyPart* root, const std::string& section) -> BodyPart* {
    if (section.empty()) return root;
    if (section == "5.0") {
      BodyPart* m = part_of(root, "5");
      return m ? m->msg_body : nullptr;
    }
    return part_of(root, section);
  };

  // The server's reading, through the driver.
  ASSERT_EQ(mail_create(nullptr, Server().Name("Dispo").c_str()), 1) << EnvLogs(2);
  ASSERT_TRUE(Append("Dispo", message)) << EnvLogs(2);
  MailStream* remote = Open(Server().Name("Dispo"));
  ASSERT_NE(remote, nullptr);
  BodyPart* from_server = nullptr;
  ASSERT_NE(mail_fetchstructure(remote, 1, &from_server), nullptr);
  ASSERT_NE(from_server, nullptr);
  EXPECT_EQ(rfc822_parameter(from_server->parameter, "BOUNDARY").value, "b1");

  // A local folder's reading, fresh and from its cache.
  char home[] = "/tmp/imap_peer_local.XXXXXX";
  ASSERT_NE(::mkdtemp(home), nullptr);
  local_set_home(home);
  mh_forget_paths();
  mail_link(&mhdriver);
  ASSERT_EQ(mh_create(nullptr, "Dispo"), 1) << EnvLogs(2);
  StringSource src;
  string_init(&src, &mail_string, const_cast<char*>(message.data()), message.size());
  ASSERT_EQ(mail_append(nullptr, "Dispo", nullptr, nullptr, &src), 1) << EnvLogs(2);
  auto check = [&](const char* what, BodyPart* root) {
    for (const Want& w : wants) {
      SCOPED_TRACE(std::string(what) + " part " + w.section);
      BodyPart* b = part(root, w.section);
      ASSERT_NE(b, nullptr);
      EXPECT_STREQ(b->disposition, w.disposition);
      Rfc822Parameter name = rfc822_parameter(b->disposition_parameter, "FILENAME");
      EXPECT_EQ(name.found, w.filename != nullptr);
      if (w.filename) {
        EXPECT_EQ(name.value, w.filename);
      }
    }
  };
  check("server", from_server);
  // Without its index and cache the first open rebuilds them and parses
  // the file; the second open reads the structure the first one cached.
  for (const char* file : {"/mh_index.dat", "/mh_cache.dat"})
    ASSERT_EQ(::unlink((mh_path("Dispo") + file).c_str()), 0) << file;
  for (const char* what : {"local, rebuilt", "local, cached"}) {
    MailStream* local = Open("Dispo");
    ASSERT_NE(local, nullptr);
    BodyPart* body = nullptr;
    ASSERT_NE(mail_fetchstructure(local, 1, &body), nullptr);
    check(what, body);
    Close(local);
  }
  local_set_home(nullptr);
  mh_forget_paths();
  std::system((std::string("rm -rf '") + home + "'").c_str());
}

TEST_F(ImapPeer, FetchesHeadersTextsAndNestedSections) {
  const std::string enclosed = Crlf(
      "From: Inner <inner@example.org>\nSubject: Inner\nMIME-Version: 1.0\n"
      "Content-Type: multipart/alternative; boundary=\"in\"\n\n--in\nContent-Type: text/plain\n\ninner plain\n"
      "--in\nContent-Type: text/html\n\n<p>inner html</p>\n--in--\n");
  const std::string header = Crlf(
      "From: Outer <outer@example.org>\nTo: testuser@example.org\nSubject: Nested \"quoted\" subject\n"
      "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"out\"\n\n");
  const std::string text = Crlf("--out\nContent-Type: text/plain; charset=utf-8\n\nfirst part\n--out\n"
                                "Content-Type: message/rfc822\n\n") +
                           enclosed + Crlf("--out--\n");
  ASSERT_EQ(mail_create(nullptr, Server().Name("Sections1").c_str()), 1) << EnvLogs(2);
  ASSERT_TRUE(Append("Sections1", header + text)) << EnvLogs(2);
  MailStream* s = Open(Server().Name("Sections1"));
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(s->nmsgs, 1u);
  BodyPart* body = nullptr;
  Envelope* env = mail_fetchstructure(s, 1, &body);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "Nested \"quoted\" subject");  // unescaped
  EXPECT_EQ(Text(mail_fetchheader(s, 1)), header);
  EXPECT_EQ(Text(mail_fetchtext(s, 1)), text);
  struct Case {
    const char* section;
    std::string bytes;
  } cases[] = {
      {"1", Crlf("first part")},
      {"2", enclosed},
      {"2.1", Crlf("inner plain")},
      {"2.2", Crlf("<p>inner html</p>")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.section);
    unsigned long length = 0;
    MailText* t = mail_fetchbody(s, 1, c.section, &length);
    EXPECT_EQ(Text(t), c.bytes);
    EXPECT_EQ(length, c.bytes.size());
  }
  unsigned long offset = 0;
  BodyPart* inner = mail_body_section(body, "2", &offset);
  ASSERT_NE(inner, nullptr);
  ASSERT_NE(inner->msg_env, nullptr);
  EXPECT_STREQ(inner->msg_env->subject, "Inner");
}

// --- Changing the mailbox --------------------------------------------------------

TEST_F(ImapPeer, StoresSearchesExpungesAndRenumbers) {
  g_server->Seed(6, "Store1");
  MailStream* s = Open(Server().Name("Store1"));
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(s->nmsgs, 6u);
  mail_setflag(s, "2,4", "\\Deleted \\Flagged");
  mail_clearflag(s, "2", "\\Seen");
  mail_fetchflags(s, "1:6");
  EXPECT_TRUE(mail_elt(s, 2)->deleted && mail_elt(s, 4)->deleted && !mail_elt(s, 3)->deleted);
  EXPECT_FALSE(mail_elt(s, 2)->seen);
  EXPECT_TRUE(mail_elt(s, 4)->seen);
  mail_env_clear();
  mail_search(s, "DELETED");
  EXPECT_EQ(EnvLines("searched"), (std::vector<std::string>{"2", "4"}));
  mail_fetchstructure(s, 5, nullptr);
  mail_env_clear();
  mail_expunge(s);
  // Dovecot reports the higher number first.
  EXPECT_EQ(EnvLines("expunged"), (std::vector<std::string>{"4", "2"}));
  EXPECT_EQ(s->nmsgs, 4u);
  // The former message 5 is now 3 and kept its envelope.
  Envelope* env = mail_fetchstructure(s, 3, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "Seeded message 5");
  EXPECT_EQ(mail_ping(s), 1);
}

TEST_F(ImapPeer, ListsSubscribesCreatesRenamesAndDeletes) {
  MailStream* c = Open(Server().Name("", "/notls"), OP_CONTROL);
  ASSERT_NE(c, nullptr);
  const std::string prefix = "{" + Server().env.at("HOST") + ":" + Server().env.at("PORT") + "/notls}";
  EXPECT_EQ(mail_create(c, (prefix + "Work/Sub").c_str()), 1) << EnvLogs(2);
  EXPECT_EQ(mail_create(c, (prefix + "Work/Sub").c_str()), 0);  // exists
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos);
  mail_env_clear();
  mail_find_all(c, (prefix + "Work*").c_str());
  std::vector<std::string> all = EnvLines("mailbox");
  EXPECT_NE(std::find(all.begin(), all.end(), prefix + "Work/Sub / (\\HASNOCHILDREN)"), all.end()) << all.size();
  mail_env_clear();
  mail_find(c, "*");
  EXPECT_TRUE(EnvLines("mailbox").empty() || EnvLines("mailbox")[0].find("Work/Sub") == std::string::npos);
  EXPECT_EQ(mail_subscribe(c, (prefix + "Work/Sub").c_str()), 1);
  mail_env_clear();
  mail_find(c, "Work*");
  all = EnvLines("mailbox");
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].substr(0, prefix.size() + 8), prefix + "Work/Sub");
  EXPECT_EQ(mail_unsubscribe(c, (prefix + "Work/Sub").c_str()), 1);
  mail_env_clear();
  mail_find(c, "Work*");
  EXPECT_TRUE(EnvLines("mailbox").empty());
  // Names that are not atoms travel quoted or as literals.
  // Names outside ASCII go in their wire form (modified UTF-7).
  for (std::string name : {std::string("Play (2)"), std::string("Spaced name"), std::string("Quote\"d"),
                           imap_utf8_to_mutf7("Caf\xc3\xa9 & \xe6\x97\xa5\xe6\x9c\xac")}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(mail_rename(c, (prefix + "Work/Sub").c_str(), (prefix + name).c_str()), 1) << EnvLogs(2);
    std::string shown;
    EXPECT_TRUE(imap_mutf7_to_utf8(name, &shown));
    mail_env_clear();
    mail_find_all(c, "*");
    bool found = false;
    for (const std::string& l : EnvLines("mailbox")) found = found || l.rfind(prefix + name + " ", 0) == 0;
    EXPECT_TRUE(found);
    EXPECT_EQ(mail_rename(c, (prefix + name).c_str(), (prefix + "Work/Sub").c_str()), 1);
  }
  EXPECT_EQ(mail_delete(c, (prefix + "Work/Sub").c_str()), 1);
  // Without a stream the driver opens a control stream of its own.
  EXPECT_EQ(mail_create(nullptr, (prefix + "Solo").c_str()), 1) << EnvLogs(2);
  EXPECT_EQ(mail_delete(nullptr, (prefix + "Solo").c_str()), 1);
}

TEST_F(ImapPeer, CopiesMovesAndAppendsWithFlagsAndDate) {
  g_server->Seed(3, "Copy1");
  MailStream* s = Open(Server().Name("Copy1"));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(mail_create(s, Server().Name("Copy1Dest").c_str()), 1);
  EXPECT_EQ(mail_copy(s, "1", Server().Name("Copy1Dest").c_str()), 1);
  EXPECT_EQ(mail_move(s, "2:3", Server().Name("Copy1Dest").c_str()), 1);
  mail_fetchflags(s, "1:3");
  EXPECT_FALSE(mail_elt(s, 1)->deleted);
  EXPECT_TRUE(mail_elt(s, 2)->deleted && mail_elt(s, 3)->deleted);
  EXPECT_EQ(mail_copy(s, "1", Server().Name("Copy1Missing").c_str()), 0);
  EXPECT_TRUE(EnvSaid("notify", "The requested target folder does not exist - try creating it"));
  const std::string msg = Crlf("From: a@example.org\nSubject: appended\n\nbody line\n");
  EXPECT_TRUE(Append("Copy1Dest", msg, "(\\Flagged \\Seen)", "01-Feb-2020 10:11:12 +0100"));
  MailStream* d = Open(Server().Name("Copy1Dest"));
  ASSERT_NE(d, nullptr);
  ASSERT_EQ(d->nmsgs, 4u);
  Envelope* env = mail_fetchstructure(d, 4, nullptr);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "appended");
  MessageElt* e = mail_elt(d, 4);
  EXPECT_TRUE(e->flagged && e->seen);
  EXPECT_EQ(e->year + 1969u, 2020u);
  EXPECT_EQ(e->day, 1u);
  EXPECT_EQ(e->hours, 9u);  // Dovecot keeps the moment, in its own zone
  EXPECT_EQ(e->rfc822_size, msg.size());
  EXPECT_EQ(Text(mail_fetchtext(d, 4)), Crlf("body line\n"));
  EXPECT_STREQ(mail_fetchstructure(d, 2, nullptr)->subject, "Seeded message 2");
}

TEST_F(ImapPeer, AccessControlListsAndQuota) {
  MailStream* s = Open(Server().Name("INBOX"));
  ASSERT_NE(s, nullptr);
  const std::string other = Server().env.at("OTHERUSER");
  mail_env_clear();
  EXPECT_EQ(mail_setacl(s, "INBOX", other.c_str(), "lrs"), 1) << EnvLogs(2);
  EXPECT_EQ(mail_getacl(s, "INBOX"), 1);
  std::vector<std::string> acl = EnvLines("acl");
  EXPECT_NE(std::find(acl.begin(), acl.end(), "INBOX " + other + " lrs"), acl.end());
  mail_env_clear();
  EXPECT_EQ(mail_myrights(s, "INBOX"), 1);
  ASSERT_EQ(EnvLines("acl").size(), 1u);
  EXPECT_EQ(EnvLines("acl")[0].rfind("INBOX myrights_user lr", 0), 0u);
  EXPECT_EQ(mail_deleteacl(s, "INBOX", other.c_str()), 1);
  mail_env_clear();
  mail_getacl(s, "INBOX");
  for (const std::string& l : EnvLines("acl")) EXPECT_EQ(l.find(other), std::string::npos);
  mail_env_clear();
  EXPECT_EQ(mail_getquota(s, "INBOX"), 1);
  ASSERT_EQ(EnvLines("quota").size(), 1u);
  EXPECT_EQ(EnvLines("quota")[0].rfind("STORAGE ", 0), 0u);
  EXPECT_NE(EnvLines("quota")[0].find(" 10240"), std::string::npos);
  // Only an administrator may set a quota: the refusal is reported.
  mail_env_clear();
  EXPECT_EQ(mail_setquota(s, "User quota", 100, 10), 0);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos);
}

// --- Watching -----------------------------------------------------------------------

TEST_F(ImapPeer, SeesAnotherSessionChangeFlagsExpungeAndAppend) {
  g_server->Seed(5, "Watch1");
  MailStream* ours = Open(Server().Name("Watch1"));
  MailStream* theirs = Open(Server().Name("Watch1"));
  ASSERT_TRUE(ours && theirs);
  mail_fetchstructure(ours, 4, nullptr);
  mail_setflag(theirs, "1", "\\Flagged");
  mail_setflag(theirs, "3", "\\Deleted");
  mail_expunge(theirs);
  ASSERT_TRUE(Append("Watch1", Crlf("Subject: late\n\nx\n")));
  mail_env_clear();
  EXPECT_EQ(mail_ping(ours), 1);
  EXPECT_EQ(EnvLines("flags"), std::vector<std::string>{"1"});
  EXPECT_TRUE(mail_elt(ours, 1)->flagged);
  EXPECT_EQ(EnvLines("expunged"), std::vector<std::string>{"3"});
  EXPECT_EQ(EnvLines("exists").back(), "5");
  EXPECT_EQ(ours->nmsgs, 5u);
  EXPECT_STREQ(mail_fetchstructure(ours, 3, nullptr)->subject, "Seeded message 4");
  EXPECT_STREQ(mail_fetchstructure(ours, 5, nullptr)->subject, "late");
}

TEST_F(ImapPeer, ServerGoingAwayIsNotifiedAndLaterCommandsFailCleanly) {
  Dovecot own;
  ASSERT_TRUE(own.Start());
  MailStream* s = Open(own.Name("INBOX"));
  ASSERT_NE(s, nullptr);
  own.Stop();
  mail_env_clear();
  // The server's processes go a moment after its master.
  long alive = 1;
  for (int i = 0; i < 50 && alive; ++i) {
    alive = mail_ping(s);
    if (alive) usleep(100000);
  }
  EXPECT_EQ(alive, 0);
  std::vector<std::string> notes = EnvLines("notify", true);
  ASSERT_FALSE(notes.empty());
  EXPECT_EQ(notes.back().substr(notes.back().size() - 2), "@4");
  mail_env_clear();
  EXPECT_EQ(mail_ping(s), 0);
  EXPECT_EQ(mail_copy(s, "1", own.Name("X").c_str()), 0);
  EXPECT_TRUE(EnvSaid("log", "Copy rejected: connection to remote IMAP server closed"));
  own.Remove();
}

// --- Counts without opening ------------------------------------------------------

TEST_F(ImapPeer, StatusFollowsAnotherSessionsAppendsAndFlags) {
  g_server->Seed(3, "Stat1");  // messages 1 and 3 unread
  MailStream* control = Open(Server().Name(""), OP_CONTROL | OP_DEBUG);
  ASSERT_NE(control, nullptr) << EnvLogs(2);
  auto status = [&](const std::string& mailbox, MailStream* via = nullptr) {
    MailStatus st{};
    long ok = mail_status(via ? via : control, Server().Name(mailbox).c_str(), SA_ALL, &st);
    return std::make_pair(ok, st);
  };
  auto [ok, before] = status("Stat1");
  ASSERT_EQ(ok, 1) << EnvLogs(1);
  EXPECT_EQ(before.flags, SA_ALL);
  EXPECT_EQ(before.messages, 3u);
  EXPECT_EQ(before.unseen, 2u);
  EXPECT_NE(before.uidvalidity, 0u);
  // Asked over our control stream, not a new connection.
  EXPECT_EQ(Sent("STATUS Stat1 (MESSAGES RECENT UNSEEN UIDNEXT UIDVALIDITY)").size(), 1u);

  // Another session delivers one unread message and one read, then reads message 1.
  ASSERT_TRUE(Append("Stat1", Crlf("From: a@example.org\nSubject: new\n\nhello\n")));
  ASSERT_TRUE(Append("Stat1", Crlf("From: b@example.org\nSubject: old\n\nread\n"), "(\\Seen)"));
  {
    MailStream* other = mail_open(nullptr, Server().Name("Stat1").c_str(), 0);
    ASSERT_NE(other, nullptr);
    mail_setflag(other, "1", "\\Seen");
    mail_close(other);
  }
  auto [ok2, after] = status("Stat1");
  ASSERT_EQ(ok2, 1);
  EXPECT_EQ(after.messages, 5u);
  EXPECT_EQ(after.unseen, 2u);  // 3 and the new one
  EXPECT_EQ(after.uidnext, before.uidnext + 2);
  EXPECT_EQ(after.uidvalidity, before.uidvalidity);

  // The inbox in any case; with no stream a control stream comes and goes.
  g_server->Seed(2, "INBOX");
  auto [ok3, inbox] = status("inbox");
  EXPECT_EQ(ok3, 1);
  MailStatus direct{};
  EXPECT_EQ(mail_status(nullptr, Server().Name("INBOX").c_str(), SA_MESSAGES, &direct), 1);
  EXPECT_EQ(direct.messages, inbox.messages);
  EXPECT_EQ(direct.flags, SA_MESSAGES);

  // A folder that isn't there: 0, and no dialog.
  mail_env_clear();
  auto [ok4, none] = status("NoSuchFolder");
  EXPECT_EQ(ok4, 0);
  EXPECT_EQ(none.flags, 0);
  EXPECT_EQ(EnvLogs(2), "");
  // The connection is still good for the next question.
  EXPECT_EQ(mail_ping(control), 1);
}

}  // namespace
