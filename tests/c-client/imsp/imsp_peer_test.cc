// The client against a real cyrus-imspd (tests/peers/imsp-cyrus.sh): logins,
// options, books and entries, rights, and group expansion.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <memory>

#include "c-client/imsp/imsp_internal.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/support/peer_script.h"

namespace {

struct Cyrus : PeerServer {
  Cyrus() : PeerServer("imsp-cyrus.sh", "velmar-imsp") {}
};

// What the callbacks heard.
struct Heard {
  std::vector<std::string> books, entries, rights;
  std::string book;  // of the last entry heard
  std::map<std::string, std::string> fields;  // "entry/attribute" -> value
  std::map<std::string, std::pair<std::string, int>> options;

  static ImspCallbacks For(Heard* h) {
    ImspCallbacks cb;
    cb.owner = h;
    cb.abook_name = [](void* o, const char* name, char delimiter) {
      static_cast<Heard*>(o)->books.push_back(std::string(name) + delimiter);
    };
    cb.address = [](void* o, const char* book, const char* entry, const ImspPair* pairs, int n) {
      auto* h = static_cast<Heard*>(o);
      h->book = book;
      h->entries.push_back(entry);
      for (int i = 0; i < n; ++i) h->fields[std::string(entry) + "/" + pairs[i].attribute] = pairs[i].value;
    };
    cb.option = [](void* o, const char* name, const char* value, int writable) {
      static_cast<Heard*>(o)->options[name] = {value, writable};
    };
    cb.acl = [](void* o, const char* book, const char* id, const char* rights) {
      static_cast<Heard*>(o)->rights.push_back(std::string(book) + " " + (id ? id : "-") + " " + rights);
    };
    return cb;
  }
};

struct ImspPeer : ::testing::Test {
  // One server offering CRAM-MD5, one with no mechanism of ours (LOGIN only).
  static void SetUpTestSuite() {
    cram_ = new Cyrus;
    cram_->Start();
    ::setenv("IMSP_MECHS", "PLAIN LOGIN", 1);
    plain_ = new Cyrus;
    plain_->Start();
    ::unsetenv("IMSP_MECHS");
  }
  static void TearDownTestSuite() {
    delete cram_;
    delete plain_;
  }
  void SetUp() override {
    if (!cram_->env.count("PORT") || !plain_->env.count("PORT")) GTEST_SKIP() << "no server";
    tcp_set_timeouts_for_test(10, 10, 10);
  }
  void TearDown() override { imsp_session_free(&s_); }

  ImspSession* Open(Cyrus* server, const char* user = "testuser", const char* password = "secret") {
    imsp_session_free(&s_);
    heard_ = Heard{};
    mail_env_set_login(user, password);
    mail_env_clear();
    s_ = imsp_session_new(Heard::For(&heard_));
    imsp_open(s_, "127.0.0.1", std::stol(server->env.at("PORT")));
    return s_;
  }
  static int Count(const std::string& callback, const std::string& part) {
    int n = 0;
    for (const std::string& l : EnvLines(callback)) n += l.find(part) != std::string::npos;
    return n;
  }

  static Cyrus* cram_;
  static Cyrus* plain_;
  ImspSession* s_ = nullptr;
  Heard heard_;
};
Cyrus* ImspPeer::cram_ = nullptr;
Cyrus* ImspPeer::plain_ = nullptr;

TEST_F(ImspPeer, Logins) {
  struct Case {
    const char* name;
    Cyrus** server;
    const char* password;
    bool open;
    const char* trace;  // a trace or log line that must appear
    int prompts;
  } cases[] = {
      {"cram-md5", &cram_, "secret", true, "imsp_open(): CRAM-MD5 authentication successful.\n", 1},
      {"login", &plain_, "secret", true, "imsp_open: simple IMSP authentication successful.\n", 1},
      {"three wrong passwords", &plain_, "wrong", false, "Too many login failures.  Aborting IMSP login.", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Open(*c.server, "testuser", c.password);
    EXPECT_EQ(imsp_is_open(s_), c.open);
    EXPECT_EQ(std::string(imsp_user(s_)), c.open ? "testuser" : "");
    EXPECT_TRUE(EnvSaid("dlog", c.trace) || EnvSaid("log", c.trace, 2)) << EnvAll();
    EXPECT_EQ(EnvLines("login").size(), static_cast<size_t>(c.prompts));
    EXPECT_EQ(EnvAll().find(c.password), std::string::npos);
    if (c.open) {
      EXPECT_TRUE(imsp_noop(s_));
    }
  }
}

TEST_F(ImspPeer, OptionsRoundTrip) {
  ASSERT_TRUE(imsp_is_open(Open(cram_)));
  const std::string value = "Say \"hi\"\\ and bye";
  ASSERT_TRUE(imsp_option_set(s_, "mail.signature", value.c_str())) << imsp_last_text(s_);
  EXPECT_EQ(Count("dlog", "SET mail.signature {17}"), 1);
  ASSERT_TRUE(imsp_option_get(s_, "mail.*"));
  EXPECT_EQ(heard_.options["mail.signature"], std::make_pair(value, 1));
  EXPECT_TRUE(imsp_option_lock(s_, "mail.signature") && imsp_option_unlock(s_, "mail.signature"));
  ASSERT_TRUE(imsp_option_set(s_, "mail.signature", nullptr));
  heard_.options.clear();
  ASSERT_TRUE(imsp_option_get(s_, "mail.*"));
  EXPECT_EQ(heard_.options.count("mail.signature"), 0u);
  // A site option is there to read, not to change.
  ASSERT_TRUE(imsp_option_get(s_, "imsp.*"));
  ASSERT_EQ(heard_.options.count("imsp.user.quota.usage"), 1u);
  EXPECT_EQ(heard_.options["imsp.user.quota.usage"].second, 0);
  EXPECT_FALSE(imsp_option_set(s_, "common.domain", "elsewhere.org"));
  EXPECT_NE(std::string(imsp_last_text(s_)).find("not authorized"), std::string::npos) << imsp_last_text(s_);
  EXPECT_TRUE(imsp_noop(s_));
}

TEST_F(ImspPeer, BooksEntriesAndRights) {
  ASSERT_TRUE(imsp_is_open(Open(cram_)));
  imsp_set_book(s_, "testuser");
  ASSERT_TRUE(imsp_abook_create(s_, nullptr)) << imsp_last_text(s_);
  ASSERT_TRUE(imsp_abook_create(s_, "testuser.work contacts")) << imsp_last_text(s_);
  ASSERT_TRUE(imsp_abook_find(s_, "*"));
  EXPECT_EQ(heard_.books, (std::vector<std::string>{"testuser.", "testuser.work contacts."}));

  const ImspPair alice[] = {{"email", "alice@example.org"}, {"alias", "al"}, {"notes", "line \"one\"\r\nline 2"}};
  ASSERT_TRUE(imsp_abook_store(s_, "testuser.work contacts", "Alice Example", alice, 3)) << imsp_last_text(s_);
  const ImspPair bob[] = {{"email", "bob@example.org"}, {"phone", ""}};
  ASSERT_TRUE(imsp_abook_store(s_, "testuser.work contacts", "Bob", bob, 2)) << imsp_last_text(s_);
  heard_ = Heard{};
  ASSERT_TRUE(imsp_abook_fetch(s_, "testuser.work contacts", "Alice Example"));
  EXPECT_EQ(heard_.fields["Alice Example/notes"], "line \"one\"\r\nline 2");
  EXPECT_EQ(heard_.fields["Alice Example/email"], "alice@example.org");
  heard_ = Heard{};
  ASSERT_TRUE(imsp_abook_getlist(s_, "testuser.work contacts"));
  EXPECT_EQ(heard_.entries, (std::vector<std::string>{"Alice Example", "Bob"}));
  EXPECT_EQ(heard_.book, "testuser.work contacts");
  heard_ = Heard{};
  const ImspPair by_mail[] = {{"email", "*bob*"}};
  ASSERT_TRUE(imsp_abook_search(s_, "testuser.work contacts", nullptr, by_mail, 1));
  ASSERT_TRUE(imsp_abook_search(s_, "testuser.work contacts", "*Example", nullptr, 0));
  EXPECT_EQ(heard_.entries, (std::vector<std::string>{"Bob", "Alice Example"}));
  EXPECT_TRUE(imsp_abook_lock(s_, "testuser.work contacts", "Bob") &&
              imsp_abook_unlock(s_, "testuser.work contacts", "Bob"));
  ASSERT_TRUE(imsp_abook_deleteent(s_, "testuser.work contacts", "Bob"));
  imsp_set_quiet(s_, true);
  mail_env_clear();
  EXPECT_FALSE(imsp_abook_fetch(s_, "testuser.work contacts", "Bob"));
  EXPECT_EQ(EnvLogs(2), "");  // quiet: the failure is the caller's to show
  imsp_set_quiet(s_, false);
  EXPECT_FALSE(imsp_abook_fetch(s_, "testuser.work contacts", "Bob"));
  EXPECT_NE(EnvLogs(2).find("not found"), std::string::npos) << EnvAll();

  heard_ = Heard{};
  ASSERT_TRUE(imsp_abook_getacl(s_, nullptr, true));
  ASSERT_TRUE(imsp_abook_setacl(s_, nullptr, "otheruser", "lr"));
  ASSERT_TRUE(imsp_abook_getacl(s_, nullptr, false));
  ASSERT_TRUE(imsp_abook_delacl(s_, nullptr, "otheruser"));
  ASSERT_EQ(heard_.rights.size(), 3u);
  EXPECT_EQ(heard_.rights[0], "testuser - lrswipcda");
  EXPECT_EQ(heard_.rights[2], "testuser otheruser lr");

  ASSERT_TRUE(imsp_abook_rename(s_, "testuser.work contacts", "testuser.old work"));
  ASSERT_TRUE(imsp_abook_delete(s_, "testuser.old work"));
  heard_ = Heard{};
  ASSERT_TRUE(imsp_abook_find(s_, "*"));
  EXPECT_EQ(heard_.books, (std::vector<std::string>{"testuser."}));
}

TEST_F(ImspPeer, GroupExpansion) {
  ASSERT_TRUE(imsp_is_open(Open(cram_)));
  imsp_abook_create(s_, "testuser");  // there already when the book test ran first
  ASSERT_TRUE(imsp_abook_create(s_, "testuser.other")) << imsp_last_text(s_);
  struct Entry {
    const char* book;
    const char* name;
    std::vector<ImspPair> pairs;
  } entries[] = {
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
  heard_ = Heard{};
  std::string addresses;
  ASSERT_TRUE(imsp_abook_expand(s_, "testuser", "team", &addresses));
  EXPECT_EQ(addresses,
            "list@example.org\r\nbob@example.org\r\ncarol@example.org\r\nsub@example.org\r\nwho@example.org");
  EXPECT_EQ(Count("dlog", "FETCHADDRESS"), 5);  // each entry once, the cycle back to team ended
  EXPECT_TRUE(heard_.entries.empty());           // an expansion is not shown as fetched entries
}

}  // namespace
