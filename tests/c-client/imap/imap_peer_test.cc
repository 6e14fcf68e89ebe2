// The imap2 driver against a real Dovecot: every slot, both ports, the
// authenticators, and a second session changing the mailbox while ours
// watches.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <stdexcept>
#include <string>
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
#include "tests/c-client/imap/fake_imap_server.h"

namespace {

imap_test::Dovecot g_dovecot, *g_server = &g_dovecot;
bool g_up = false;

std::string Crlf(const std::string& s) { return std::regex_replace(s, std::regex("\n"), "\r\n"); }
std::string Text(MailText* t) { return t ? std::string(t->data, t->size) : "(none)"; }
std::string Name(const std::string& mailbox) { return g_server->Name(mailbox); }
bool Append(const std::string& name, const std::string& text, const char* flags = nullptr, const char* date = nullptr) {
  StringSource s;
  string_init(&s, &mail_string, const_cast<char*>(text.data()), text.size());
  return mail_append(nullptr, name.c_str(), flags, date, &s) == 1;
}
// The protocol lines the driver sent, as traced (OP_DEBUG).
std::vector<std::string> Sent(const std::string& part) {
  std::vector<std::string> out;
  for (const std::string& l : EnvLines("dlog"))
    if (l.rfind("* ", 0) != 0 && l.find(part) != std::string::npos) out.push_back(l);
  return out;
}

class ImapPeer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { g_up = g_server->Start(); }
  static void TearDownTestSuite() { g_server->Remove(); }
  void SetUp() override {
    ASSERT_TRUE(g_up) << "no Dovecot (package dovecot-imapd)";
    imap_test::UseImapDriver(g_server->env["USER"].c_str(), g_server->env["PASSWORD"].c_str());
    tcp_tls_set_ca_file(g_server->env["CAFILE"].c_str());
    tcp_set_timeouts_for_test(20, 20, 10);
  }
  void TearDown() override {
    for (MailStream*& s : streams_) s = mail_close(s);
    tcp_tls_set_ca_file(nullptr);
    tcp_set_timeouts_for_test(0, 0, 0);
  }
  // Opens and keeps the stream for closing at the end.
  MailStream* Open(const std::string& name, long options = 0) {
    MailStream* s = mail_open(nullptr, name.c_str(), options);
    if (s) streams_.push_back(s);
    return s;
  }
  // A mailbox the test needs: not opening it ends the test.
  MailStream* OpenOk(const std::string& name, long options = 0) {
    if (MailStream* s = Open(name, options)) return s;
    throw std::runtime_error("cannot open " + name + "\n" + EnvLogs(2));
  }
  void Close(MailStream* s) {
    streams_.erase(std::remove(streams_.begin(), streams_.end(), s), streams_.end());
    mail_close(s);
  }
  std::vector<MailStream*> streams_;
};

TEST_F(ImapPeer, OpensOverEachTransportAndMechanism) {
  g_server->Seed(5, "Open1");
  struct Case {
    std::string name;
    long options, no_auth;
    const char* sent;      // a line the driver sent
    const char* not_sent;  // a line it must not send
  } cases[] = {
      {Name("Open1"), 0, 0, "auth AUTHENTICATE CRAM-MD5", " LOGIN "},
      {Name("Open1"), OP_READONLY, 1, " LOGIN ", "AUTHENTICATE"},
      {Name("Open1"), OP_CONTROL, 0, "AUTHENTICATE", "SELECT"},
      {g_server->Name("Open1", ""), 0, 1, " STARTTLS", "AUTHENTICATE"},  // STARTTLS when offered
      {g_server->Name("Open1", "/tls"), 0, 0, " STARTTLS", " LOGIN "},
      {g_server->Name("Open1", "/ssl", true), 0, 1, " LOGIN ", "STARTTLS"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + " " + c.sent);
    mail_env_clear();
    mail_parameters(nullptr, 112, const_cast<long*>(&c.no_auth));
    MailStream* s = OpenOk(c.name, c.options | OP_DEBUG);
    EXPECT_FALSE(Sent(c.sent).empty());
    EXPECT_TRUE(Sent(c.not_sent).empty()) << Sent(c.not_sent)[0];
    EXPECT_EQ(EnvLines("login").size(), 1u);
    EXPECT_EQ(s->nmsgs, c.options == OP_CONTROL ? 0u : 5u);
    EXPECT_EQ(static_cast<bool>(s->rdonly), c.options == OP_READONLY);
    EXPECT_EQ(std::string(s->mailbox).substr(std::string(s->mailbox).find('}')),
              c.options == OP_CONTROL ? "}<no_mailbox>" : "}Open1");
    EXPECT_EQ(Sent(c.options ? "EXAMINE Open1" : "SELECT Open1").size(), c.options == OP_CONTROL ? 0u : 1u);
    // The password never reaches a trace; before STARTTLS nothing but
    // CAPABILITY and STARTTLS goes in the clear.
    bool clear = true;
    for (const std::string& l : EnvLines("dlog")) {
      EXPECT_EQ(l.find(g_server->env["PASSWORD"]), std::string::npos) << l;
      clear = clear && l.find(" STARTTLS") == std::string::npos;
      EXPECT_FALSE(c.sent == std::string(" STARTTLS") && clear && l.find("AUTHENTICATE") != std::string::npos);
    }
    long word = 0, all = CAP_WORKS | CAP_FOLDERS | CAP_SUBSCRIBE | CAP_ACL | CAP_QUOTA | CAP_FOLDERS_FULL;
    mail_capabilities(s, &word);
    EXPECT_EQ(word & all, all);  // Dovecot announces ACL and QUOTA only once logged in
    Close(s);
    // The server's goodbye to our LOGOUT is no lost connection.
    for (const std::string& n : EnvLines("notify", true)) EXPECT_EQ(n.find("@4"), std::string::npos) << n;
  }
  mail_env_clear();
  EXPECT_EQ(Open(Name("NoSuchBox")), nullptr);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos) << EnvLogs(2);
}

TEST_F(ImapPeer, FetchesStoresSearchesExpungesCopiesMovesAndAppends) {
  g_server->Seed(30, "Fetch1");
  MailStream* s = OpenOk(Name("Fetch1"), OP_DEBUG);
  mail_env_clear();
  for (unsigned long i = 1; i <= 30; ++i) {
    SCOPED_TRACE(i);
    BodyPart* body = nullptr;
    Envelope* env = mail_fetchstructure(s, i, &body);
    ASSERT_TRUE(env && body && env->from);
    const std::string n = std::to_string(i), k = std::to_string(i % 7);
    EXPECT_EQ(std::string(env->subject) + "|" + env->from->personal + " <" + env->from->mailbox + "@" +
                  env->from->host + ">|" + env->message_id,
              "Seeded message " + n + "|Sender " + k + " <sender" + k + "@example.org>|<seed." + n + "@example.org>");
    EXPECT_EQ(body->type == TYPETEXT ? body->subtype : "not text", std::string("PLAIN"));
    EXPECT_EQ(body->size_bytes, (1 + i % 5) * ("Message " + n + " of the seeded set.\r\n").size());
    MessageElt* e = mail_elt(s, i);
    EXPECT_EQ(e->seen * 2 + e->flagged, (i % 2 == 0) * 2 + (i % 10 == 0));
    EXPECT_EQ((e->year + 1969) * 100 + e->month, 202311u);
  }
  // Read-ahead: one command for the first 20, then one for the rest.
  std::vector<std::string> fetches = Sent(" FETCH ");
  ASSERT_EQ(fetches.size(), 2u);
  EXPECT_NE(fetches[0].find("FETCH 1:20 (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)"), std::string::npos);
  EXPECT_NE(fetches[1].find("FETCH 21:30 (FLAGS INTERNALDATE RFC822.SIZE ENVELOPE BODYSTRUCTURE)"), std::string::npos);

  mail_setflag(s, "2,4", "\\Deleted \\Flagged");
  mail_clearflag(s, "2", "\\Seen");
  mail_fetchflags(s, "1:6");
  EXPECT_TRUE(mail_elt(s, 2)->deleted && mail_elt(s, 4)->deleted && !mail_elt(s, 3)->deleted);
  EXPECT_TRUE(!mail_elt(s, 2)->seen && mail_elt(s, 4)->seen);
  mail_search(s, "DELETED");
  EXPECT_EQ(EnvLines("searched"), (std::vector<std::string>{"2", "4"}));
  mail_env_clear();
  mail_expunge(s);
  EXPECT_EQ(EnvLines("expunged"), (std::vector<std::string>{"4", "2"}));  // Dovecot: the higher first
  EXPECT_EQ(s->nmsgs, 28u);
  // The former message 5 is now 3 and kept its envelope.
  EXPECT_STREQ(mail_fetchstructure(s, 3, nullptr)->subject, "Seeded message 5");

  EXPECT_EQ(mail_create(s, Name("Dest").c_str()), 1);
  EXPECT_EQ(mail_copy(s, "1", Name("Dest").c_str()), 1);
  EXPECT_EQ(mail_move(s, "2:3", Name("Dest").c_str()), 1);
  mail_fetchflags(s, "1:3");
  EXPECT_TRUE(!mail_elt(s, 1)->deleted && mail_elt(s, 2)->deleted && mail_elt(s, 3)->deleted);
  EXPECT_EQ(mail_copy(s, "1", Name("Missing").c_str()), 0);
  EXPECT_TRUE(EnvSaid("notify", "The requested target folder does not exist - try creating it"));
  const std::string msg = Crlf("From: a@example.org\nSubject: appended\n\nbody line\n");
  EXPECT_TRUE(Append(Name("Dest"), msg, "(\\Flagged \\Seen)", "01-Feb-2020 10:11:12 +0100"));
  MailStream* d = OpenOk(Name("Dest"));
  ASSERT_EQ(d->nmsgs, 4u);
  EXPECT_STREQ(mail_fetchstructure(d, 3, nullptr)->subject, "Seeded message 5");
  EXPECT_STREQ(mail_fetchstructure(d, 4, nullptr)->subject, "appended");
  MessageElt* e = mail_elt(d, 4);
  EXPECT_TRUE(e->flagged && e->seen);
  // Dovecot keeps the moment, in its own zone.
  EXPECT_EQ(std::to_string(e->year + 1969) + " " + std::to_string(e->day) + " " + std::to_string(e->hours), "2020 1 9");
  EXPECT_EQ(e->rfc822_size, msg.size());
  EXPECT_EQ(Text(mail_fetchtext(d, 4)), Crlf("body line\n"));
}

// Headers, texts and nested sections as sent; every part's disposition and
// file name read the same from the server, from a local folder's fresh
// parse and from its structure cache.
TEST_F(ImapPeer, SectionsDispositionsAndFileNamesMatchALocalFolder) {
  const std::string enclosed = Crlf(
      "Subject: Inner\nContent-Disposition: attachment; filename=\"inner.txt\"\n"
      "Content-Type: multipart/alternative; boundary=\"in\"\n\n--in\nContent-Type: text/plain\n\ninner plain\n"
      "--in\nContent-Type: text/html\n\n<p>inner html</p>\n--in--\n");
  const std::string header = Crlf("From: a@example.org\nSubject: Nested \"quoted\" files\nMIME-Version: 1.0\n"
                                  "Content-Disposition: inline\nContent-Type: multipart/mixed; boundary=\"b1\"\n\n");
  const std::string text = Crlf(
      "--b1\nContent-Type: text/plain\nContent-Disposition: INLINE\n\nfirst part\n"
      "--b1\nContent-Type: application/pdf\nContent-Transfer-Encoding: base64\n"
      "Content-Disposition: attachment; filename*=utf-8''r%C3%A9sum%C3%A9.pdf; size=4\n\nJVBERg==\n"
      "--b1\nContent-Type: application/octet-stream\nContent-Disposition: Attachment;\n"
      " filename*0*=iso-8859-1'de'Gr%FC%DFe;\n filename*1=\" aus K\";\n filename*2*=%F6ln.txt\n\nabc\n"
      "--b1\nContent-Type: image/png\n"
      "Content-Disposition: attachment; filename=\"plain.png\"; filename*=utf-8''better.png\n\nx\n"
      "--b1\nContent-Type: message/rfc822\n\n") + enclosed + Crlf("--b1--\n");
  struct Want {
    const char* section;  // "" the message; "5.0" the enclosed message's body
    const char* disposition;
    const char* filename;  // as a lookup by name finds it (bytes in its charset)
    std::string bytes;     // as fetched ("" not fetched)
  } wants[] = {
      {"", "INLINE", nullptr, ""},
      {"1", "INLINE", nullptr, Crlf("first part")},
      {"2", "ATTACHMENT", "r\xC3\xA9sum\xC3\xA9.pdf", "JVBERg=="},
      {"3", "ATTACHMENT", "Gr\xFC\xDF" "e aus K\xF6ln.txt", "abc"},
      {"4", "ATTACHMENT", "better.png", "x"},
      {"5", nullptr, nullptr, enclosed},
      {"5.0", "ATTACHMENT", "inner.txt", ""},
      {"5.1", nullptr, nullptr, Crlf("inner plain")},
      {"5.2", nullptr, nullptr, Crlf("<p>inner html</p>")},
  };
  auto check = [&](MailStream* s) {
    BodyPart* root = nullptr;
    Envelope* env = mail_fetchstructure(s, 1, &root);
    ASSERT_TRUE(env && root);
    EXPECT_STREQ(env->subject, "Nested \"quoted\" files");
    EXPECT_EQ(rfc822_parameter(root->parameter, "BOUNDARY").value, "b1");
    for (const Want& w : wants) {
      SCOPED_TRACE(std::string(s->mailbox) + " part " + w.section);
      unsigned long offset = 0, length = 0;
      BodyPart* b = std::string(w.section) == "5.0" ? mail_body_section(root, "5", &offset)
                    : *w.section                     ? mail_body_section(root, w.section, &offset)
                                                     : root;
      if (b && std::string(w.section) == "5.0") b = b->msg_body;
      ASSERT_NE(b, nullptr);
      EXPECT_STREQ(b->disposition, w.disposition);
      Rfc822Parameter name = rfc822_parameter(b->disposition_parameter, "FILENAME");
      EXPECT_EQ(name.found ? name.value : "-", w.filename ? w.filename : "-");
      if (s->mailbox[0] != '{' || w.bytes.empty()) continue;  // the bytes as the server sends them
      EXPECT_EQ(Text(mail_fetchbody(s, 1, w.section, &length)), w.bytes);
      EXPECT_EQ(length, w.bytes.size());
    }
    if (s->mailbox[0] != '{') return;
    EXPECT_EQ(Text(mail_fetchheader(s, 1)), header);
    EXPECT_EQ(Text(mail_fetchtext(s, 1)), text);
  };
  ASSERT_EQ(mail_create(nullptr, Name("Dispo").c_str()), 1) << EnvLogs(2);
  ASSERT_TRUE(Append(Name("Dispo"), header + text)) << EnvLogs(2);
  MailStream* remote = OpenOk(Name("Dispo"));
  check(remote);

  // Without its index and cache the first local open parses the file; the
  // second reads the structure the first one cached.
  char home[] = "/tmp/imap_peer_local.XXXXXX";
  ASSERT_NE(::mkdtemp(home), nullptr);
  local_set_home(home);
  mh_forget_paths();
  mail_link(&mhdriver);
  ASSERT_EQ(mh_create(nullptr, "Dispo"), 1) << EnvLogs(2);
  ASSERT_TRUE(Append("Dispo", header + text)) << EnvLogs(2);
  for (const char* file : {"/mh_index.dat", "/mh_cache.dat"}) ASSERT_EQ(::unlink((mh_path("Dispo") + file).c_str()), 0);
  for (int round = 0; round < 2; ++round) {
    MailStream* local = OpenOk("Dispo");
    check(local);
    Close(local);
  }
  local_set_home(nullptr);
  mh_forget_paths();
  std::system((std::string("rm -rf '") + home + "'").c_str());
}

TEST_F(ImapPeer, FoldersAccessControlListsAndQuota) {
  MailStream* c = OpenOk(Name(""), OP_CONTROL);
  const std::string sub = Name("Work/Sub");
  auto listed = [&](bool all, const char* pattern) {
    mail_env_clear();
    all ? mail_find_all(c, (Name("") + pattern).c_str()) : mail_find(c, pattern);
    return EnvLines("mailbox");
  };
  EXPECT_EQ(mail_create(c, sub.c_str()), 1) << EnvLogs(2);
  EXPECT_EQ(mail_create(c, sub.c_str()), 0);  // exists
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos);
  std::vector<std::string> all = listed(true, "Work*");
  EXPECT_NE(std::find(all.begin(), all.end(), sub + " / (\\HASNOCHILDREN)"), all.end());
  EXPECT_TRUE(listed(false, "Work*").empty());
  EXPECT_EQ(mail_subscribe(c, sub.c_str()), 1);
  all = listed(false, "Work*");
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].rfind(sub + " ", 0), 0u);
  EXPECT_EQ(mail_unsubscribe(c, sub.c_str()), 1);
  EXPECT_TRUE(listed(false, "Work*").empty());
  // Names that are not atoms travel quoted or as literals; names outside
  // ASCII go in their wire form (modified UTF-7).
  for (std::string name : {std::string("Play (2)"), std::string("Spaced name"), std::string("Quote\"d"),
                           imap_utf8_to_mutf7("Caf\xc3\xa9 & \xe6\x97\xa5\xe6\x9c\xac")}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(mail_rename(c, sub.c_str(), Name(name).c_str()), 1) << EnvLogs(2);
    all = listed(true, "*");
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [&](auto& l) { return l.rfind(Name(name) + " ", 0) == 0; }));
    EXPECT_EQ(mail_rename(c, Name(name).c_str(), sub.c_str()), 1);
  }
  EXPECT_EQ(mail_delete(c, sub.c_str()), 1);
  // Without a stream the driver opens a control stream of its own.
  EXPECT_EQ(mail_create(nullptr, Name("Solo").c_str()), 1) << EnvLogs(2);
  EXPECT_EQ(mail_delete(nullptr, Name("Solo").c_str()), 1);
  // Access control lists and quota, over the control stream.
  const std::string other = g_server->env.at("OTHERUSER"), entry = "INBOX " + other + " lrs";
  mail_env_clear();
  EXPECT_EQ(mail_setacl(c, "INBOX", other.c_str(), "lrs"), 1) << EnvLogs(2);
  EXPECT_EQ(mail_getacl(c, "INBOX"), 1);
  EXPECT_TRUE(EnvSaid("acl", entry));
  mail_env_clear();
  EXPECT_EQ(mail_myrights(c, "INBOX"), 1);
  EXPECT_EQ(EnvLines("acl"), std::vector<std::string>{"INBOX myrights_user lrwstipekxacd"});
  EXPECT_EQ(mail_deleteacl(c, "INBOX", other.c_str()), 1);
  mail_env_clear();
  mail_getacl(c, "INBOX");
  EXPECT_FALSE(EnvSaid("acl", entry));
  EXPECT_EQ(mail_getquota(c, "INBOX"), 1);
  std::vector<std::string> quota = EnvLines("quota");  // "STORAGE used 10240"
  ASSERT_EQ(quota.size(), 1u);
  EXPECT_EQ(quota[0].substr(0, 8) + quota[0].substr(quota[0].size() - 6), "STORAGE  10240");
  // Only an administrator may set a quota: the refusal is reported.
  EXPECT_EQ(mail_setquota(c, "User quota", 100, 10), 0);
  EXPECT_NE(EnvLogs(2).find("IMAP operation failed"), std::string::npos);
}

// Ours watches the mailbox and asks its counts over a control stream while
// another session changes flags, expunges and delivers.
TEST_F(ImapPeer, SeesAnotherSessionChangeFlagsExpungeAndAppend) {
  g_server->Seed(5, "Watch1");  // 1, 3 and 5 unread
  MailStream* ours = OpenOk(Name("Watch1"));
  MailStream* theirs = OpenOk(Name("Watch1"));
  MailStream* control = OpenOk(Name(""), OP_CONTROL | OP_DEBUG);
  MailStatus before{}, after{};
  ASSERT_EQ(mail_status(control, Name("Watch1").c_str(), SA_ALL, &before), 1) << EnvLogs(1);
  EXPECT_EQ(Sent("STATUS Watch1 (MESSAGES RECENT UNSEEN UIDNEXT UIDVALIDITY)").size(), 1u);
  EXPECT_EQ(before.flags, SA_ALL);
  EXPECT_EQ(before.messages * 10 + before.unseen, 53u);
  EXPECT_NE(before.uidvalidity, 0u);
  mail_fetchstructure(ours, 4, nullptr);
  mail_setflag(theirs, "1", "\\Flagged \\Seen");
  mail_setflag(theirs, "3", "\\Deleted");
  mail_expunge(theirs);
  ASSERT_TRUE(Append(Name("Watch1"), Crlf("Subject: late\n\nx\n")));
  mail_env_clear();
  EXPECT_EQ(mail_ping(ours), 1);
  EXPECT_EQ(EnvLines("flags"), std::vector<std::string>{"1"});
  EXPECT_TRUE(mail_elt(ours, 1)->flagged);
  EXPECT_EQ(EnvLines("expunged"), std::vector<std::string>{"3"});
  EXPECT_EQ(EnvLines("exists").back(), "5");
  EXPECT_EQ(ours->nmsgs, 5u);
  EXPECT_STREQ(mail_fetchstructure(ours, 3, nullptr)->subject, "Seeded message 4");
  EXPECT_STREQ(mail_fetchstructure(ours, 5, nullptr)->subject, "late");
  ASSERT_EQ(mail_status(control, Name("Watch1").c_str(), SA_ALL, &after), 1);
  EXPECT_EQ(after.messages * 10 + after.unseen, 52u);  // 5 and the late one unread
  EXPECT_EQ(after.uidnext, before.uidnext + 1);
  EXPECT_EQ(after.uidvalidity, before.uidvalidity);
  // Without a stream a control stream comes and goes; names no driver
  // takes, nothing asked, and a folder that isn't there are answered 0.
  mail_env_clear();
  EXPECT_EQ(mail_status(nullptr, Name("Watch1").c_str(), SA_MESSAGES, &after), 1);
  EXPECT_EQ(after.messages + after.flags, 5u + SA_MESSAGES);
  EXPECT_EQ(mail_status(nullptr, "{}nothing", SA_UNSEEN, &after), 0);
  EXPECT_EQ(mail_status(control, Name("Watch1").c_str(), 0, &after), 0);
  EXPECT_EQ(mail_status(control, Name("NoSuchFolder").c_str(), SA_ALL, &after), 0);
  EXPECT_EQ(after.flags, 0);
  EXPECT_EQ(EnvLogs(2), "");  // never a dialog: the question comes from a timer
  EXPECT_EQ(mail_ping(control), 1);
}

TEST_F(ImapPeer, ServerGoingAwayIsNotifiedAndLaterCommandsFailCleanly) {
  imap_test::Dovecot own;
  ASSERT_TRUE(own.Start());
  MailStream* s = OpenOk(own.Name("INBOX"));
  own.Stop();
  mail_env_clear();
  long alive = 1;  // the server's processes go a moment after its master
  for (int i = 0; i < 50 && alive; ++i)
    if ((alive = mail_ping(s))) usleep(100000);
  EXPECT_EQ(alive, 0);
  std::vector<std::string> notes = EnvLines("notify", true);
  ASSERT_FALSE(notes.empty());
  EXPECT_EQ(notes.back().substr(notes.back().size() - 2), "@4");
  EXPECT_EQ(mail_ping(s), 0);
}

}  // namespace
