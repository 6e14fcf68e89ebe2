// The client against a real cyrus-imspd (tests/peers/imsp-cyrus.sh): logins,
// options, books and entries, rights, and group expansion.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "c-client/imsp/imsp_internal.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/support/peer_script.h"

namespace {

// What the callbacks heard, a line each.
std::string g_heard;

ImspCallbacks Recorder() {
  ImspCallbacks cb;
  cb.abook_name = [](void*, const char* name, char delimiter) { g_heard += "book " + std::string(name) + delimiter + "\n"; };
  cb.address = [](void*, const char* book, const char* entry, const ImspPair* pairs, int n) {
    g_heard += "entry " + std::string(book) + "/" + entry + "\n";
    for (int i = 0; i < n; ++i) g_heard += " " + pairs[i].attribute + "=" + pairs[i].value + "\n";
  };
  cb.option = [](void*, const char* name, const char* value, int writable) {
    g_heard += "option " + std::string(name) + "=" + value + (writable ? " rw\n" : " ro\n");
  };
  cb.acl = [](void*, const char* book, const char* id, const char* rights) {
    g_heard += "acl " + std::string(book) + " " + (id ? id : "-") + " " + rights + "\n";
  };
  return cb;
}
bool Heard(const std::string& line) { return g_heard.find(line + "\n") != std::string::npos; }

struct ImspPeer : ::testing::Test {
  // One server offering CRAM-MD5, one with no mechanism of ours (LOGIN only).
  static void SetUpTestSuite() {
    cram_ = new PeerServer("imsp-cyrus.sh", "velmar-imsp");
    cram_->Start();
    ::setenv("IMSP_MECHS", "PLAIN LOGIN", 1);
    plain_ = new PeerServer("imsp-cyrus.sh", "velmar-imsp");
    plain_->Start();
    ::unsetenv("IMSP_MECHS");
  }
  static void TearDownTestSuite() { delete cram_, delete plain_; }
  void SetUp() override {
    if (!cram_->env.count("PORT") || !plain_->env.count("PORT")) GTEST_SKIP() << "no server";
    tcp_set_timeouts_for_test(10, 10, 10);
  }
  void TearDown() override { imsp_session_free(&s_); }

  bool Open(PeerServer* server, const char* password = "secret") {
    imsp_session_free(&s_);
    mail_env_set_login("testuser", password);
    mail_env_clear();
    s_ = imsp_session_new(Recorder());
    imsp_open(s_, "127.0.0.1", std::stol(server->env.at("PORT")));
    return imsp_is_open(s_);
  }
  static int Sent(const std::string& part) {  // traced lines holding part
    int n = 0;
    for (const std::string& l : EnvLines("dlog")) n += l.find(part) != std::string::npos;
    return n;
  }

  static PeerServer* cram_;
  static PeerServer* plain_;
  ImspSession* s_ = nullptr;
};
PeerServer* ImspPeer::cram_ = nullptr;
PeerServer* ImspPeer::plain_ = nullptr;

TEST_F(ImspPeer, Logins) {
  // A trace or log line that must appear, and how often the user was asked.
  struct Case { PeerServer** server; const char* password; bool open; const char* trace; size_t prompts; } cases[] = {
      {&cram_, "secret", true, "imsp_open(): CRAM-MD5 authentication successful.\n", 1},
      {&plain_, "secret", true, "imsp_open: simple IMSP authentication successful.\n", 1},
      {&plain_, "wrong", false, "Too many login failures.  Aborting IMSP login.", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.trace);
    EXPECT_EQ(Open(*c.server, c.password), c.open);
    EXPECT_EQ(std::string(imsp_user(s_)), c.open ? "testuser" : "");
    EXPECT_TRUE(EnvSaid("dlog", c.trace) || EnvSaid("log", c.trace, 2)) << EnvAll();
    EXPECT_EQ(EnvLines("login").size(), c.prompts);
    EXPECT_EQ(EnvAll().find(c.password), std::string::npos);
    EXPECT_EQ(imsp_noop(s_), c.open);
  }
}

TEST_F(ImspPeer, OptionsRoundTrip) {
  ASSERT_TRUE(Open(cram_));
  g_heard.clear();
  ASSERT_TRUE(imsp_option_set(s_, "mail.signature", "Say \"hi\"\\ and bye")) << imsp_last_text(s_);
  EXPECT_EQ(Sent("SET mail.signature {17}"), 1);
  ASSERT_TRUE(imsp_option_get(s_, "mail.*") && imsp_option_set(s_, "mail.signature", nullptr));
  ASSERT_TRUE(imsp_option_get(s_, "mail.*") && imsp_option_get(s_, "imsp.*"));
  // Once, before the UNSET; the count of options is the server's to keep.
  EXPECT_EQ(g_heard, "option mail.signature=Say \"hi\"\\ and bye rw\noption imsp.user.quota.usage=0 ro\n");
  EXPECT_FALSE(imsp_option_set(s_, "common.domain", "elsewhere.org"));
  EXPECT_NE(std::string(imsp_last_text(s_)).find("not authorized"), std::string::npos) << imsp_last_text(s_);
}

TEST_F(ImspPeer, BooksEntriesAndRights) {
  ASSERT_TRUE(Open(cram_));
  const char* work = "testuser.work contacts";
  imsp_set_book(s_, "testuser");
  ASSERT_TRUE(imsp_abook_create(s_, nullptr) && imsp_abook_create(s_, work)) << imsp_last_text(s_);
  const ImspPair alice[] = {{"email", "alice@example.org"}, {"notes", "line \"one\"\r\nline 2"}};
  const ImspPair bob[] = {{"email", "bob@example.org"}, {"phone", ""}};
  ASSERT_TRUE(imsp_abook_store(s_, work, "Alice Example", alice, 2) && imsp_abook_store(s_, work, "Bob", bob, 2));
  g_heard.clear();
  const ImspPair by_mail[] = {{"email", "*bob*"}};
  ASSERT_TRUE(imsp_abook_find(s_, "*") && imsp_abook_fetch(s_, work, "Alice Example") &&
              imsp_abook_getlist(s_, work) && imsp_abook_search(s_, work, nullptr, by_mail, 1) &&
              imsp_abook_search(s_, work, "*Example", nullptr, 0));
  EXPECT_EQ(g_heard,
            "book testuser.\nbook testuser.work contacts.\n"
            "entry testuser.work contacts/Alice Example\n email=alice@example.org\n notes=line \"one\"\r\nline 2\n"
            "entry testuser.work contacts/Alice Example\nentry testuser.work contacts/Bob\n"
            "entry testuser.work contacts/Bob\nentry testuser.work contacts/Alice Example\n");
  ASSERT_TRUE(imsp_abook_deleteent(s_, work, "Bob"));
  for (bool quiet : {true, false}) {
    imsp_set_quiet(s_, quiet);
    mail_env_clear();
    EXPECT_FALSE(imsp_abook_fetch(s_, work, "Bob"));
    EXPECT_EQ(EnvLogs(2).find("not found") != std::string::npos, !quiet) << EnvAll();
  }
  g_heard.clear();
  ASSERT_TRUE(imsp_abook_getacl(s_, nullptr, true) && imsp_abook_setacl(s_, nullptr, "otheruser", "lr") &&
              imsp_abook_getacl(s_, nullptr, false) && imsp_abook_delacl(s_, nullptr, "otheruser"));
  EXPECT_TRUE(Heard("acl testuser - lrswipcda") && Heard("acl testuser otheruser lr")) << g_heard;
  ASSERT_TRUE(imsp_abook_rename(s_, work, "testuser.old work") && imsp_abook_delete(s_, "testuser.old work"));
  EXPECT_FALSE(imsp_abook_delete(s_, work));
}

TEST_F(ImspPeer, GroupExpansion) {
  ASSERT_TRUE(Open(cram_));
  imsp_abook_create(s_, "testuser");  // there already when the book test ran first
  ASSERT_TRUE(imsp_abook_create(s_, "testuser.other")) << imsp_last_text(s_);
  struct Entry { const char* book; const char* name; std::vector<ImspPair> pairs; } entries[] = {
      {"testuser", "team", {{"email", "list@example.org"}, {"members", "Bob\r\ntestuser.other:Carol\r\nsub\r\nDr\\: Who"}}},
      {"testuser", "sub", {{"members", "team\r\nBob"}, {"email", "bob@example.org\r\nsub@example.org"}}},
      {"testuser", "Bob", {{"email", "bob@example.org"}}},
      {"testuser.other", "Carol", {{"email", "carol@example.org"}}},
      {"testuser", "Dr: Who", {{"email", "who@example.org"}}},
  };
  for (const Entry& e : entries)
    ASSERT_TRUE(imsp_abook_store(s_, e.book, e.name, e.pairs.data(), static_cast<int>(e.pairs.size())))
        << e.name << ": " << imsp_last_text(s_);
  mail_env_clear();
  g_heard.clear();
  std::string addresses;
  ASSERT_TRUE(imsp_abook_expand(s_, "testuser", "team", &addresses));
  EXPECT_EQ(addresses,
            "list@example.org\r\nbob@example.org\r\ncarol@example.org\r\nsub@example.org\r\nwho@example.org");
  EXPECT_EQ(Sent("FETCHADDRESS"), 5);  // each entry once, the cycle back to team ended
  EXPECT_EQ(g_heard, "");              // an expansion is not shown as fetched entries
}

}  // namespace
