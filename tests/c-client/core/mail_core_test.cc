// The core driven through its real dispatch by a driver that serves five
// hand-built messages from memory ("#test/..." names), with a second
// driver ("#other/...") for changes of format on a stream; the small
// languages it parses for the drivers; and its message cache.
#include "c-client/core/mail_core.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "c-client/core/standin_driver.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/core/records_dump.h"

namespace {

using Lines = std::vector<std::string>;

// What the drivers were asked: a count per call, and the arguments of the
// calls that take names or sections.
struct Calls {
  std::map<std::string, int> count;
  std::string log;
  bool parameter_answer = false, append_probe_says_yes = false;
} g;

MailStream test_proto{}, other_proto{};

// A mailbox holds the numbers of the messages it had at first.
std::vector<int>& Ids(MailStream* s) { return *static_cast<std::vector<int>*>(s->local); }
std::string Subject(MailStream* s, unsigned long msgno) { return "message " + std::to_string(Ids(s)[msgno - 1]); }

long Note(const std::string& what, MailStream* s, const std::string& args) {
  ++g.count[what];
  g.log += what + " " + (!s ? "none" : s == &test_proto ? "prototype" : "stream") + " " + args + "|";
  return 1;
}

// Through the core's reader, as drivers do; a source shorter than the size
// asked for gives nothing.
MailText* TextOf(std::string s, unsigned long size = ~0ul) {
  auto read = [](void* source, unsigned long n, char* buffer) -> long {
    auto* text = static_cast<std::string*>(source);
    if (n > text->size()) return 0;
    text->copy(buffer, n);
    text->erase(0, n);
    return 1;
  };
  return mail_gets(read, &s, size == ~0ul ? s.size() : size);
}

BodyPartNode* Part(unsigned short type, const char* subtype, unsigned long offset, unsigned long bytes) {
  BodyPartNode* n = mail_newbody_part();
  n->body.type = type;
  n->body.subtype = cpystr(subtype);
  n->body.size_bytes = bytes;
  n->offset = offset;
  return n;
}

// Message 2: 1 text/plain, 2 message/rfc822 (at 30 in its part) holding
// 1 text/plain and 2 image/gif, 3 multipart/alternative. The others are
// plain text.
BodyPart* BuildBody(int id) {
  BodyPart* b = mail_newbody();
  b->subtype = cpystr(id == 2 ? "MIXED" : "PLAIN");
  if (id != 2) return b;
  b->type = TYPEMULTIPART;
  b->parts = Part(TYPETEXT, "PLAIN", 50, 11);
  BodyPartNode* p2 = b->parts->next = Part(TYPEMESSAGE, "RFC822", 200, 400);
  p2->next = Part(TYPEMULTIPART, "ALTERNATIVE", 700, 90);
  p2->body.msg_offset = 30;
  BodyPart* inner = p2->body.msg_body = mail_newbody();
  inner->type = TYPEMULTIPART;
  inner->parts = Part(TYPETEXT, "PLAIN", 10, 20);
  inner->parts->next = Part(TYPEIMAGE, "GIF", 120, 250);
  return b;
}

// A fetch: counted, and like the remote driver, the message counted in the
// cache when it first gets data.
void Fetched(const char* what, MailStream* s, unsigned long msgno) {
  ++g.count[what];
  MessageElt* e = mail_lelt(s, msgno);
  if (!e->envelope && !e->body && !e->header_text && !e->body_text) ++s->cachecount;
}

MailDriver test_driver = [] {
  MailDriver d{};
  d.name = "test";
  d.valid = [](const char* n) { return std::strncmp(n, "#test/", 6) == 0 ? &test_driver : nullptr; };
  d.parameters = [](long op, void* value) {
    Note("parameters", nullptr, std::to_string(op));
    return g.parameter_answer ? value : nullptr;
  };
  d.capabilities = [](MailStream*, long* word) { *word = CAP_WORKS | CAP_FOLDERS; };
  d.find = [](MailStream* s, const char* p) { Note("find", s, p); };
  d.find_bboards = [](MailStream* s, const char* p) { Note("find_bboards", s, p); };
  d.find_all = [](MailStream* s, const char* p) { Note("find_all", s, p); };
  d.find_all_bboards = [](MailStream* s, const char* p) { Note("find_all_bboards", s, p); };
  d.subscribe = [](MailStream* s, const char* n) { return Note("subscribe", s, n); };
  d.unsubscribe = [](MailStream* s, const char* n) { return Note("unsubscribe", s, n); };
  d.create = [](MailStream* s, const char* n) { return Note("create", s, n); };
  d.remove = [](MailStream* s, const char* n) { return Note("delete", s, n); };
  d.rename = [](MailStream* s, const char* o, const char* n) { return Note("rename", s, std::string(o) + ">" + n); };
  d.open = [](MailStream* s) -> MailStream* {
    if (!s) return &test_proto;
    ++g.count["open"];
    if (std::strcmp(s->mailbox, "#test/fail") == 0) return nullptr;
    s->local = new std::vector<int>{1, 2, 3, 4, 5};
    mail_exists(s, 5);
    mail_recent(s, 1);
    return s;
  };
  d.close = [](MailStream* s) {  // nothing to free after a failed open
    ++g.count["close"], delete static_cast<std::vector<int>*>(s->local), s->local = nullptr;
  };
  d.fetchstructure = [](MailStream* s, unsigned long msgno, BodyPart** body) {
    Fetched("fetchstructure", s, msgno);
    Envelope* env = mail_newenvelope();
    env->subject = cpystr(Subject(s, msgno).c_str());
    *body = BuildBody(Ids(s)[msgno - 1]);
    return env;
  };
  d.fetchheader = [](MailStream* s, unsigned long msgno) {
    Fetched("fetchheader", s, msgno);
    return mail_lelt(s, msgno)->header_text = TextOf("Subject: " + Subject(s, msgno) + "\r\n\r\n");
  };
  d.fetchtext = [](MailStream* s, unsigned long msgno) {
    return Fetched("fetchtext", s, msgno), TextOf("Body of " + Subject(s, msgno) + ".\r\n");
  };
  d.fetchbody = [](MailStream*, unsigned long msgno, const char* section, BodyPart* part, unsigned long offset,
                  unsigned long* length) {
    Note("fetchbody", nullptr, std::to_string(msgno) + " " + section + " @" + std::to_string(offset));
    std::string text = std::string("section ") + section;
    *length = text.size();
    return (part->type == TYPEMESSAGE ? part->msg_text : part->contents) = TextOf(text);
  };
  d.search = [](MailStream* s, const char* criteria) { mail_searched(s, std::strtoul(criteria, nullptr, 10)); };
  d.expunge = [](MailStream* s) {
    for (unsigned long i = s->nmsgs; i >= 1; --i)
      if (mail_elt(s, i)->deleted) Ids(s).erase(Ids(s).begin() + static_cast<long>(i - 1)), mail_expunged(s, i);
  };
  d.copy = [](MailStream*, const char* seq, const char* box) { return Note("copy", nullptr, std::string(seq) + ">" + box); };
  d.append = [](MailStream* s, const char* box, const char* flags, const char* date, StringSource*) {
    Note("append", s, std::string(box ? box : "(null)") + " " + (flags ? flags : "-") + " " + (date ? date : "-"));
    return box ? 1L : g.append_probe_says_yes;
  };
  d.setacl = [](MailStream* s, const char* box, const char* id, const char* rights) {
    return Note("setacl", s, std::string(box) + " " + id + " " + rights);
  };
  d.setquota = [](MailStream* s, const char* root, long storage, long messages) {
    return Note("setquota", s, std::string(root) + " " + std::to_string(storage) + " " + std::to_string(messages));
  };
  d.gc = [](MailStream*, long) { ++g.count["gc"]; };
  d.prototype = &test_proto;
  return d;
}();

MailDriver other_driver = [] {
  MailDriver d{};
  d.name = "other";
  d.valid = [](const char* n) { return std::strncmp(n, "#other/", 7) == 0 ? &other_driver : nullptr; };
  d.parameters = [](long op, void*) {
    Note("other parameters", nullptr, std::to_string(op));
    return reinterpret_cast<void*>(static_cast<intptr_t>(op));
  };
  d.find_all = [](MailStream* s, const char* p) { Note("other find_all", s, p); };
  d.open = [](MailStream* s) { return s ? s : &other_proto; };
  d.close = [](MailStream*) { ++g.count["other close"]; };
  d.prototype = &other_proto;
  return d;
}();

class MailCore : public ::testing::Test {
 protected:
  void SetUp() override {
    test_proto.driver = &test_driver;
    other_proto.driver = &other_driver;
    mail_unlink_all();
    mail_link(&test_driver);
    mail_link(&other_driver);
    mail_set_default_driver(&test_driver);
    mailcache = mm_cache;
    g = Calls{};
    mail_env_clear();
  }
  void TearDown() override {
    if (stream_) mail_close(stream_);
    mail_unlink_all();
    mail_set_default_driver(&mhdriver);
    mail_env_clear();
  }

  MailStream* Open() {
    stream_ = mail_open(nullptr, "#test/box", 0);
    mail_env_clear();
    g = Calls{};
    return stream_;
  }

  static Lines Logs() { return EnvLines("log", true); }

  MailStream* stream_ = nullptr;
};

// Opening sets the stream up from the options or gives no stream; a record
// changes format in place, and outlives its closing while handles point at
// it, which then lead nowhere.
TEST_F(MailCore, StreamsOpenReopenAndClose) {
  MailStream* s = mail_open(nullptr, "#test/box", OP_SILENT | OP_READONLY | OP_ANONYMOUS);
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(s->silent && s->rdonly && s->anonymous && !s->debug && !s->scache && !s->control);
  EXPECT_EQ(s->recent, 1u);
  EXPECT_TRUE(EnvLines("exists").empty());  // a silent stream tells the model nothing
  mail_close(s);
  EXPECT_EQ(mail_open(nullptr, "nowhere", 0), nullptr);
  EXPECT_EQ(Logs(), Lines{"Can't open mailbox nowhere: no such mailbox @2"});
  // A prototype opens nothing, and closing it leaves the static entry alone.
  EXPECT_EQ(mail_close(mail_open(nullptr, "#test/anything", OP_PROTOTYPE)), nullptr);
  EXPECT_EQ(test_proto.driver, &test_driver);
  // A driver that fails the open has the stream closed and freed.
  EXPECT_EQ(mail_open(nullptr, "#test/fail", 0), nullptr);
  EXPECT_EQ(g.count["close"], 2);

  mail_env_clear();
  s = stream_ = mail_open(nullptr, "#test/box", OP_DEBUG | OP_SHORTCACHE | OP_CONTROL);
  EXPECT_TRUE(s->debug && s->scache && s->control && !s->silent);
  EXPECT_EQ(EnvLines("exists"), Lines{"5"});
  MailHandle* a = mail_makehandle(s);
  MailHandle* b = mail_makehandle(s);
  EXPECT_EQ(mail_open(s, "nowhere", OP_SILENT), s);
  EXPECT_EQ(mail_open(s, "#other/x", 0), s);
  // The old driver let go first and the cache was emptied.
  EXPECT_EQ(g.count["close"], 3);
  EXPECT_STREQ(s->mailbox, "#other/x");
  EXPECT_EQ(s->nmsgs, 0u);
  EXPECT_EQ(mail_stream(a), s);
  EXPECT_EQ(mail_open(s, "#test/again", 0), s);
  EXPECT_EQ(g.count["other close"], 1);
  EXPECT_EQ(s->nmsgs, 5u);
  stream_ = nullptr;
  mail_close(s);
  EXPECT_EQ(mail_fetchheader(s, 1), nullptr);
  for (MailHandle* h : {a, b}) {
    EXPECT_EQ(mail_stream(h), nullptr);
    mail_free_handle(&h);  // the last handle frees the record
  }
}

TEST_F(MailCore, FetchesAreCachedUntilCollectedOrConsumed) {
  MailStream* s = Open();
  BodyPart* body = nullptr;
  Envelope* env = mail_fetchstructure(s, 3, &body);
  ASSERT_NE(env, nullptr);
  EXPECT_EQ(mail_fetchstructure(s, 3, &body), env);
  EXPECT_EQ(mail_lelt(s, 3)->body, body);
  EXPECT_EQ(s->cachecount, 1u);
  mail_gc(s, GC_ENV);
  EXPECT_EQ(s->cachecount, 0u);
  EXPECT_STREQ(mail_fetchstructure(s, 3, nullptr)->subject, "message 3");
  EXPECT_EQ(g.count["fetchstructure"], 2);

  MailText* h = mail_fetchheader(s, 2);
  MailText* t = mail_fetchtext(s, 2);
  ASSERT_TRUE(h && t);
  EXPECT_EQ(std::string(h->data, h->size), "Subject: message 2\r\n\r\n");
  EXPECT_STREQ(t->data, "Body of message 2.\r\n");
  // The core keeps the texts on the element and shows them on the stream.
  EXPECT_TRUE(mail_fetchheader(s, 2) == h && mail_fetchtext(s, 2) == t && mail_lelt(s, 2)->body_text == t);
  EXPECT_TRUE(s->msgno == 2 && s->body_text == t && s->header_text == h);
  // Once the model has taken a text away, it is fetched again.
  t->consumed = h->consumed = 1;
  EXPECT_EQ(mail_fetchtext(s, 2)->consumed, 0);
  EXPECT_EQ(mail_fetchheader(s, 2)->consumed, 0);
  EXPECT_EQ(g.count["fetchtext"] + g.count["fetchheader"], 4);
  EXPECT_EQ(TextOf("abc", 10), nullptr);  // a reader that runs dry: nothing, not a short text

  // Collecting texts keeps the structure; collecting elements spares those
  // someone else holds; what went is simply fetched again.
  ASSERT_NE(mail_fetchbody(s, 2, "2.2", nullptr), nullptr);
  mail_gc(s, GC_TEXTS);
  EXPECT_EQ(g.count["gc"], 2);
  MessageElt* two = mail_lelt(s, 2);
  ASSERT_NE(two->envelope, nullptr);
  EXPECT_TRUE(!two->header_text && !two->body_text && !mail_body_section(two->body, "2.2", nullptr)->contents);
  MessageElt* held = mail_elt(s, 2);
  ++held->lockcount;
  mail_gc(s, GC_ELT);
  EXPECT_EQ(mailcache(s, 3, CH_ELT), nullptr);
  EXPECT_EQ(mailcache(s, 2, CH_ELT), held);
  mail_free_elt(&held);
  EXPECT_STREQ(mail_fetchstructure(s, 3, nullptr)->subject, "message 3");
  EXPECT_EQ(g.count["fetchstructure"], 4);
}

TEST_F(MailCore, FetchBodyFindsSectionsAndCachesThem) {
  MailStream* s = Open();
  const std::pair<const char*, std::string> rows[] = {
      // section, the driver's call or what was logged (nothing: from the cache)
      {"1", "fetchbody none 2 1 @50|"}, {"2", "fetchbody none 2 2 @200|"}, {"2.1", "fetchbody none 2 2.1 @40|"},
      {"2.2", "fetchbody none 2 2.2 @150|"}, {"2.2", ""},
      {"3", "Failed to fetch message section - invalid section specifier @2"},  // a multipart
      {"4", "Failed to fetch message section - invalid section specifier @2"},
      {"", "Failed to fetch message section - invalid (NULL) section specifier @1"},
  };
  for (const auto& [section, said] : rows) {
    SCOPED_TRACE(section);
    g.log.clear();
    mail_env_clear();
    unsigned long length = 999;
    MailText* t = mail_fetchbody(s, 2, section, &length);
    EXPECT_EQ(g.log + (Logs().empty() ? "" : Logs()[0]), said);
    if (said.find("Failed") != std::string::npos) {
      EXPECT_EQ(t, nullptr);
      continue;
    }
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(std::string(t->data), std::string("section ") + section);
    // A cached part answers with the size the structure gives.
    BodyPart* body = nullptr;
    mail_fetchstructure(s, 2, &body);
    EXPECT_EQ(length, said.empty() ? mail_body_section(body, section, nullptr)->size_bytes : t->size);
  }
  EXPECT_EQ(g.count["fetchstructure"], 1);
  // A plain message is its own section 1; a consumed part text is fetched
  // again.
  g.log.clear();
  mail_fetchbody(s, 5, "1", nullptr)->consumed = 1;
  ASSERT_NE(mail_fetchbody(s, 5, "1", nullptr), nullptr);
  EXPECT_EQ(g.log, "fetchbody none 5 1 @0|fetchbody none 5 1 @0|");
}

TEST_F(MailCore, ExpungeRenumbersAndKeepsTheSurvivorsData) {
  MailStream* s = Open();
  for (unsigned long i = 1; i <= 5; ++i) ASSERT_NE(mail_fetchstructure(s, i, nullptr), nullptr);
  mail_elt(s, 2)->deleted = mail_elt(s, 4)->deleted = 1;
  ASSERT_NE(mail_fetchtext(s, 5), nullptr);
  mail_expunge(s);
  EXPECT_EQ(EnvLines("expunged"), (Lines{"4", "2"}));
  EXPECT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->msgno, 0u);
  EXPECT_EQ(s->body_text, nullptr);
  for (unsigned long i = 1; i <= 3; ++i) {
    MessageElt* e = mail_lelt(s, i);
    EXPECT_TRUE(e->msgno == i && !e->deleted && e->envelope) << i;
    EXPECT_EQ(e->envelope->subject, "message " + std::to_string(2 * i - 1));
  }
  EXPECT_EQ(mailcache(s, 4, CH_ELT), nullptr);
  // The survivors' data came along: nothing is fetched again.
  EXPECT_STREQ(mail_fetchtext(s, 3)->data, "Body of message 5.\r\n");
  EXPECT_EQ(g.count["fetchstructure"] + g.count["fetchtext"], 6);
  // Numbers the mailbox doesn't have are ignored.
  mail_expunged(s, 0);
  mail_expunged(s, 4);
  EXPECT_EQ(s->nmsgs, 3u);
}

// What drivers report is checked: hits counted once, a count that never
// shrinks, a lock never taken twice, message numbers in range.
TEST_F(MailCore, DriverReportsAreChecked) {
  MailStream* s = Open();
  for (unsigned long msgno : {0ul, 6ul}) {
    EXPECT_THROW(mail_fetchstructure(s, msgno, nullptr), MailFatal);
    EXPECT_THROW(mail_fetchheader(s, msgno), MailFatal);
    EXPECT_THROW(mail_fetchtext(s, msgno), MailFatal);
    EXPECT_THROW(mail_fetchbody(s, msgno, "1", nullptr), MailFatal);
  }
  EXPECT_EQ(EnvLines("fatal")[7], "Invalid message number used to fetch message body section.");
  EXPECT_TRUE(g.count.empty());
  EXPECT_EQ(mail_fetchstructure(nullptr, 1, nullptr), nullptr);  // no stream: no answer, no error
  mail_search(s, nullptr);
  EXPECT_EQ(Logs(), Lines{"Invalid search criteria - NULL search string @2"});
  mail_search(s, "3");
  mail_search(s, "3");
  mail_searched(s, 4);
  EXPECT_EQ(s->searched, 2u);
  EXPECT_EQ(EnvLines("searched"), (Lines{"3", "4"}));
  mail_search_reset(s);
  EXPECT_TRUE(s->searched == 0 && !mail_elt(s, 3)->searched);

  mail_env_clear();
  mail_exists(s, 3);
  EXPECT_EQ(s->nmsgs, 5u);
  EXPECT_EQ(Logs(), Lines{"Lost synchronization with the mailbox server -- close and reopen the mailbox. @2"});
  mail_exists(s, 250);
  EXPECT_EQ(s->nmsgs, 250u);
  EXPECT_EQ(EnvLines("exists"), Lines{"250"});

  EXPECT_THROW(mail_unlock(s), MailFatal);
  mail_lock(s);
  EXPECT_THROW(mail_lock(s), MailFatal);
  mail_unlock(s);
  EXPECT_FALSE(s->lock);
  EXPECT_EQ(EnvLines("fatal").size(), 2u);
}

// Each call reaches the right driver with its arguments in order, validated
// with its purpose: "result;what the drivers were asked;what was logged".
TEST_F(MailCore, CallsReachTheRightDriver) {
  MailStream* s = Open();
  long value = 7;
  const std::string no_such = ": no such mailbox @2", bad = ": invalid remote specification @2";
  const std::pair<std::function<long()>, std::string> rows[] = {
      // No stream: every driver, and the last answer that isn't null.
      {[&] { return mail_parameters(nullptr, 103, &value) == reinterpret_cast<void*>(103); },
       "1;parameters none 103|other parameters none 103|;"},
      {[&] { return g.parameter_answer = true, mail_parameters(nullptr, 0, &value) == &value; },
       "1;parameters none 0|other parameters none 0|;"},
      {[&] { return mail_parameters(s, 105, &value) == &value; }, "1;parameters none 105|;"},
      {[&] {
         mail_find(nullptr, "*");
         mail_find_all(nullptr, "a%");
         mail_find_all_bboards(nullptr, "b%");  // the first driver only
         mail_find_bboards(s, "c");
         mail_find_all(s, "d");
         return 0;
       },
       "0;find none *|find_all none a%|other find_all none a%|find_all_bboards none b%|find_bboards stream c|"
       "find_all stream d|;"},
      {[&] { return mail_subscribe(nullptr, "#test/x"); }, "1;subscribe none #test/x|;"},
      {[&] { return mail_subscribe(nullptr, "x"); }, "0;;Can't subscribe to mailbox x" + no_such},
      {[&] { return mail_unsubscribe(nullptr, "#test/x"); }, "1;unsubscribe none #test/x|;"},
      {[&] { return mail_subscribe_bboard(nullptr, "x"); }, "0;;Can't subscribe to bboard *x: no such bboard @2"},
      {[&] { return mail_unsubscribe_bboard(nullptr, "{h}x"); }, "0;;Can't unsubscribe to bboard *{h}x" + bad},
      {[&] { return mail_delete(nullptr, "#test/x"); }, "1;delete none #test/x|;"},
      {[&] { return mail_rename(nullptr, "#test/x", "#test/y"); }, "1;rename none #test/x>#test/y|;"},
      {[&] { return mail_rename(nullptr, "x", "#test/y"); }, "0;;Can't rename mailbox x" + no_such},
      // Create: on the stream, in the default format for a plain name, or
      // through the prototype of the prefix's driver.
      {[&] { return mail_create(s, "sub"); }, "1;create stream sub|;"},
      {[&] { return mail_create(nullptr, "plain"); }, "1;create prototype plain|;"},
      {[&] { return mail_create(nullptr, "#test/new"); }, "1;create prototype #test/new|;"},
      {[&] { return mail_create(nullptr, "{host}box"); },
       "0;;Can't open mailbox {host}box" + bad + "|Can't create mailbox {host}box: indeterminate format @2"},
      {[&] { return mail_append(nullptr, "#test/box", "\\Seen", "1-Jan-2024 00:00:00 +0000", nullptr); },
       "1;append none #test/box \\Seen 1-Jan-2024 00:00:00 +0000|;"},
      {[&] { return mail_append_simple(nullptr, "#test/box", nullptr); }, "1;append none #test/box - -|;"},
      // Unknown: the default format is asked with nothing, and says no;
      // with a stream nothing is asked.
      {[&] { return mail_append(nullptr, "nowhere", nullptr, nullptr, nullptr); },
       "0;append prototype (null) - -|;Can't append to mailbox nowhere" + no_such},
      {[&] { return mail_append(s, "nowhere", nullptr, nullptr, nullptr); },
       "0;;Can't append to mailbox nowhere" + no_such},
      {[&] { return mail_copy(s, "1", "#test/a"); }, "1;copy none 1>#test/a|;"},
      {[&] { return mail_setacl(s, "#test/box", "fred", "lrs"); }, "1;setacl stream #test/box fred lrs|;"},
      {[&] { return mail_setquota(s, "", 1024, 50); }, "1;setquota stream  1024 50|;"},
      // Quota without a stream goes to the first driver.
      {[&] { return mail_setquota(nullptr, "r", 10, 0); }, "1;setquota none r 10 0|;"},
      {[&] { return mail_capabilities(s, &value), value; }, "3;;"},
      {[&] { return mail_capabilities(nullptr, &value), value; }, "0;;"},
  };
  for (const auto& [call, expected] : rows) {
    g.log.clear();
    mail_env_clear();
    std::string got = std::to_string(call()) + ";" + g.log + ";";
    for (const std::string& l : Logs()) got += (got.back() == ';' ? "" : "|") + l;
    EXPECT_EQ(got, expected);
  }
  // If the default format took a nameless append, the validity rules would
  // contradict each other.
  g.append_probe_says_yes = true;
  EXPECT_THROW(mail_append(nullptr, "nowhere", nullptr, nullptr, nullptr), MailFatal);

  // A closed stream calls no one.
  MailHandle* h = mail_makehandle(s);
  stream_ = nullptr;
  mail_close(s);
  g = Calls{};
  EXPECT_EQ(mail_ping(s) + mail_copy(s, "1", "#test/a") + mail_setquota(s, "r", 1, 1), 0);
  mail_check(s);
  mail_expunge(s);
  mail_setflag(s, "1", "\\Seen");
  EXPECT_TRUE(g.count.empty());
  mail_free_handle(&h);
}

// A driver not written yet stands in: it takes no names and gives its
// prototype.
MailStream g_standin_prototype{};
MailDriver g_standin = StandinDriver(
    "standin", [](MailStream* s) { return s ? nullptr : &g_standin_prototype; }, &g_standin_prototype);

TEST_F(MailCore, StandInDriversRefuseEveryName) {
  g_standin_prototype.driver = &g_standin;
  mail_unlink_all();
  mail_link(&g_standin);
  mail_set_default_driver(&g_standin);
  for (MailDriver* d : {&g_standin})
    EXPECT_TRUE(d->open(nullptr) == d->prototype && d->prototype->driver == d && !d->valid("{host}INBOX")) << d->name;
  long no_auth = 1;
  EXPECT_EQ(mail_open(nullptr, "{host}INBOX", 0), nullptr);
  EXPECT_EQ(mail_parameters(nullptr, 112, &no_auth), nullptr);
  EXPECT_EQ(mail_create(nullptr, "newbox") + mail_append(nullptr, "newbox", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Logs(), (Lines{"Can't open mailbox {host}INBOX: invalid remote specification @2",
                           "Can't append to mailbox newbox: no such mailbox @2"}));
}

// The small languages the core parses on behalf of the drivers: remote
// mailbox names (and the choice of driver for a name), sequence texts and
// body section numbers.

// What the parser fills: host, mailbox, service, port and the switches set
// (each followed by a blank), as one line.
std::string Record(const NetMailbox& n) {
  return std::string(n.host) + "|" + n.mailbox + "|" + n.service + "|" + std::to_string(n.port) + "|" +
         (n.anonymous ? "anonymous " : "") + (n.bboard ? "bboard " : "") + (n.ssl ? "ssl " : "") +
         (n.tls ? "tls " : "") + (n.notls ? "notls " : "") + (n.novalidate_cert ? "novalidate " : "");
}

// Lengths past the limits are refused rather than cut; switches may make
// the braces longer than a host can be.
TEST(MailNames, ParserTable) {
  const std::string h255(255, 'h'), h256(256, 'h'), m1023(1023, 'm');
  std::string many = "{h";
  for (int i = 0; i < 100; ++i) many += "/anonymous";
  const std::pair<std::string, std::string> accepted[] = {
      {"{" + h255 + "}x", h255 + "|x|imap|0|"}, {"{h}" + m1023, "h|" + m1023 + "|imap|0|"},
      {many + "}x", "h|x|imap|0|anonymous "},
      {"{mail.example.org}INBOX", "mail.example.org|INBOX|imap|0|"}, {"{host}", "host|INBOX|imap|0|"},
      {"{Mail.Example.ORG}Lists/Work", "Mail.Example.ORG|Lists/Work|imap|0|"}, {"{host}a}b", "host|a}b|imap|0|"},
      {"*{host}", "host|general|imap|0|bboard "}, {"*{host}comp.mail", "host|comp.mail|imap|0|bboard "},
      {"{host:1}x", "host|x|imap|1|"}, {"{host:65535}x", "host|x|imap|65535|"},
      {"{host/IMAP2}x", "host|x|imap2|0|"}, {"{host/nntp}x", "host|x|nntp|0|"},
      {"{host/SERVICE=Imap}x", "host|x|imap|0|"}, {"{host/service=other}x", "host|x|other|0|"},
      {"{host/anonymous/anonymous}x", "host|x|imap|0|anonymous "}, {"{host/notls}x", "host|x|imap|0|notls "},
      {"{host:993/imap/ssl/novalidate-cert}x", "host|x|imap|993|ssl novalidate "},
      {"{host/tls:143}x", "host|x|imap|143|tls "}, {"{[::1]:143}x", "[::1]|x|imap|143|"},
      {"{[fe80::1:2]/imap2}x", "[fe80::1:2]|x|imap2|0|"}, {"{[::ffff:192.0.2.1]}x", "[::ffff:192.0.2.1]|x|imap|0|"},
  };
  for (const auto& [name, record] : accepted) {
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_TRUE(mail_valid_net_parse(name.c_str(), &net)) << name;
    EXPECT_EQ(Record(net), record) << name;
  }
  const std::string refused[] = {
      "{" + h256 + "}x", "{" + h256 + ":143}x", "{h}" + m1023 + "m",
      // Not remote names at all.
      "INBOX", "host}x", "{host", "{}x", "*", "**{host}x", "",
      // Remote in form, refused by a rule.
      "{host/imap=1}x", "{host:0}x", "{host:-1}x", "{host:65536}x", "{host:}x", "{host:14x}x", "{host:143:144}x",
      "{host:0143000}x", "{host/imap/imap2}x", "{host/pop3/service=imap}x", "{host/service=}x",
      "{host/service=abcdefghijklmnopqrstuvwxyz0123456}x", "{host/user=fred}x", "{host/bogus}x", "{host/}x",
      "{:143}x", "{/imap}x", "{host/ssl/tls}x", "{host/notls/ssl}x", "{host/tls/notls}x", "{[::1}x", "{[]}x",
      "{[127.0.0.1]}x", "{[::g]}x", "{[::1]x}y",
  };
  for (const std::string& name : refused) {
    NetMailbox net;
    std::memset(&net, 0x5a, sizeof net);
    ASSERT_FALSE(mail_valid_net_parse(name.c_str(), &net)) << name;
    // A refusal leaves nothing half-filled behind.
    EXPECT_STREQ(net.host, "") << name;
    EXPECT_STREQ(net.mailbox, "") << name;
  }
  EXPECT_FALSE(mail_valid_net_parse(nullptr, nullptr));
}

TEST(MailNames, ValidNetAcceptsOnlyItsService) {
  MailDriver imap2{}, imap4{}, pop3{};
  imap2.name = "imap2";
  imap4.name = "imap4rev1";
  pop3.name = "pop3";
  const std::tuple<const char*, MailDriver*, bool> rows[] = {
      {"{h}x", &imap2, true},        {"{h/imap}x", &imap2, true},    {"{h/imap2}x", &imap2, true},
      {"{h/imap4}x", &imap2, false}, {"{h/imap4}x", &imap4, false},  {"{h}x", &imap4, true},
      {"{h/pop3}x", &imap2, false},  {"{h/pop3}x", &pop3, true},     {"{h/nntp}x", &imap2, false},
      {"{h}x", &pop3, false},        {"{h/imap=1}x", &imap2, false}, {"INBOX", &imap2, false},
      {"{h}x", nullptr, false},
  };
  for (const auto& [name, driver, accepted] : rows) {
    SCOPED_TRACE(std::string(name) + " for " + (driver ? driver->name : "none"));
    char host[256] = "unchanged", mailbox[1024] = "unchanged";
    EXPECT_EQ(mail_valid_net(name, driver, host, mailbox), accepted ? driver : nullptr);
    EXPECT_STREQ(host, accepted ? "h" : "unchanged");
    EXPECT_STREQ(mailbox, accepted ? "x" : "unchanged");
  }
  EXPECT_EQ(mail_valid_net("{h}x", &imap2, nullptr, nullptr), &imap2);
}

// A driver that takes remote names through the parser, as the remote
// driver does, one that takes local names of one prefix, and a dummy.
MailDriver g_remote{}, g_local{}, g_dummy{};

TEST(MailValid, FindsTheDriverOrSaysWhyNot) {
  g_remote.valid = [](const char* name) { return mail_valid_net(name, &g_remote, nullptr, nullptr); };
  g_local.valid = [](const char* name) { return std::strncmp(name, "#local/", 7) == 0 ? &g_local : nullptr; };
  g_dummy.valid = [](const char* name) { return std::strncmp(name, "#dummy/", 7) == 0 ? &g_dummy : nullptr; };
  g_remote.name = "imap2";
  g_dummy.name = "dummy";
  mail_unlink_all();
  for (MailDriver* d : {&g_remote, &g_local, &g_dummy}) mail_link(d);
  const std::string bad = ": invalid remote specification @2";
  const std::tuple<const char*, MailDriver*, std::string> rows[] = {
      {"{host}INBOX", &g_remote, ""}, {"*{host}news", &g_remote, ""}, {"#local/box", &g_local, ""},
      {"{host/pop3}x", nullptr, "Can't open mailbox {host/pop3}x" + bad},
      {"*{host", nullptr, "Can't open mailbox *{host" + bad},
      {"*news", nullptr, "Can't open mailbox *news: no such bboard @2"},
      {"mybox", nullptr, "Can't open mailbox mybox: no such mailbox @2"},
  };
  for (const auto& [name, driver, complaint] : rows) {
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, name, "open mailbox"), driver) << name;
    std::vector<std::string> logs = EnvLines("log", true);
    EXPECT_EQ(logs.empty() ? "" : logs[0], complaint);
    // Without a purpose the answer is the same, and silent.
    mail_env_clear();
    EXPECT_EQ(mail_valid(nullptr, name, nullptr), driver) << name;
    EXPECT_TRUE(mail_env_lines().empty());
  }

  // A stream serves only its own format, and dummy names. A good local name
  // not for this stream: the caller hears only that there is no such mailbox.
  MailStream stream{};
  stream.driver = &g_remote;
  EXPECT_EQ(mail_valid(&stream, "#local/box", "subscribe to mailbox"), nullptr);
  EXPECT_EQ(EnvLines("log"), std::vector<std::string>{"Can't subscribe to mailbox #local/box: no such mailbox"});
  EXPECT_EQ(mail_valid(&stream, "{host}x", "open mailbox"), &g_remote);
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", "open mailbox"), &g_remote);
  stream.driver = nullptr;
  EXPECT_EQ(mail_valid(&stream, "#dummy/x", nullptr), nullptr);
  mail_unlink_all();
  mail_env_clear();
}

TEST(Sequences, MarksOrExplains) {
  mailcache = mm_cache;
  MailStream stream{};
  stream.silent = 1;
  mail_exists(&stream, 5);
  // The text, then the messages marked and the complaint at level 2.
  const std::pair<const char*, std::string> rows[] = {
      {"1", "1 "}, {"2:4", "2 3 4 "}, {"5:2", "2 3 4 5 "}, {"1,3:4", "1 3 4 "}, {"4:4,1", "1 4 "}, {"1,", "1 "}, {"", ""},
      {"0", "Sequence invalid"}, {"6", "Sequence invalid"}, {"x", "Sequence invalid"}, {"-1", "Sequence invalid"},
      {"2,9", "2 Sequence invalid"}, {"1,,2", "1 Sequence invalid"}, {"99999999999999999999999", "Sequence invalid"},
      {"1x", "Syntax error in sequence"}, {"1 ", "Syntax error in sequence"}, {"3,1;2", "3 Syntax error in sequence"},
      {"1:6", "Sequence range invalid"}, {"1:0", "Sequence range invalid"}, {"1:", "Sequence range invalid"},
      {"1:3x", "Sequence range invalid"}, {"1:3:4", "Sequence range invalid"},
      {"2,1:99999999999999999999", "2 Sequence range invalid"},
  };
  for (const auto& [text, outcome] : rows) {
    // Marks of an earlier call never survive into the next.
    ASSERT_EQ(mail_sequence(&stream, "1:5"), 1);
    mail_env_clear();
    long result = mail_sequence(&stream, text);
    std::string got;
    for (unsigned long i = 1; i <= 5; ++i) got += mail_elt(&stream, i)->sequence ? std::to_string(i) + " " : "";
    for (const std::string& complaint : EnvLines("log", true)) got += complaint;
    EXPECT_EQ(got, outcome + (result ? "" : " @2")) << '"' << text << '"';
    EXPECT_EQ(result, outcome.find("Seq") == std::string::npos && outcome.find("Syn") == std::string::npos);
  }
  mailcache(&stream, 0, CH_INIT);
  mail_env_clear();
}

BodyPartNode* Node(unsigned short type, unsigned long offset, std::vector<BodyPartNode*> parts = {}) {
  BodyPartNode* n = Part(type, type == TYPEMESSAGE ? "RFC822" : "X", offset, 0);
  for (size_t i = parts.size(); i-- > 0;) {
    parts[i]->next = n->body.parts;
    n->body.parts = parts[i];
  }
  return n;
}

TEST(BodySection, WalksPartsAndMessages) {
  // 1 text at 100, 2 message at 300 (its body at 40) holding 1 text at 7
  // and 2 a multipart at 60 of two texts at 5 and 80, 3 a text at 900, 4 a
  // message of 500 bytes (its body at 30) whose one text part is 380.
  BodyPartNode *a1 = Node(TYPETEXT, 5), *a2 = Node(TYPETEXT, 80), *alt = Node(TYPEMULTIPART, 60, {a1, a2}),
               *inner1 = Node(TYPETEXT, 7), *text1 = Node(TYPETEXT, 100), *msg2 = Node(TYPEMESSAGE, 300),
               *app3 = Node(TYPEAPPLICATION, 900), *msg4 = Node(TYPEMESSAGE, 1200),
               *root = Node(TYPEMULTIPART, 0, {text1, msg2, app3, msg4});
  BodyPartNode* inner = Node(TYPEMULTIPART, 0, {inner1, alt});
  msg2->body.msg_offset = 40;
  msg2->body.msg_body = &inner->body;
  msg4->body.msg_offset = 30;
  msg4->body.size_bytes = 500;
  msg4->body.msg_body = mail_newbody();
  msg4->body.msg_body->size_bytes = 380;
  const std::tuple<const char*, BodyPartNode*, unsigned long> rows[] = {
      {"1", text1, 100}, {"2", msg2, 300}, {"3", app3, 900}, {"2.1", inner1, 40 + 7}, {"2.2", alt, 40 + 60},
      // The offset is the last part's own plus the messages entered on the way.
      {"2.2.1", a1, 40 + 5}, {"2.2.2", a2, 40 + 80}, {"4", msg4, 1200},
  };
  for (const auto& [section, part, offset] : rows) {
    unsigned long got = 12345;
    EXPECT_EQ(mail_body_section(&root->body, section, &got), &part->body) << section;
    EXPECT_EQ(got, offset) << section;
  }
  unsigned long got = 0;
  // Its "1" has no node: it starts past the enclosed header (500 - 380).
  EXPECT_EQ(mail_body_section(&root->body, "4.1", &got), msg4->body.msg_body);
  EXPECT_EQ(got, 30u + 1200u + 120u);
  // "1.1": a text part has no parts.
  for (const char* none : {"5", "0", "2.0", "2.3", "1.1", "2.1.1", "2.", ".1", "1..2", "x", "1x", "2.2.2.2.2.2.2.2", "4.2", "4.1.1",
                           "99999999999999999999"})
    EXPECT_EQ(mail_body_section(&root->body, none, nullptr), nullptr) << none;
  // A message whose whole body is a message: "1" is the body itself; other
  // numbers are parts of the message inside.
  unsigned long offset = 0;
  EXPECT_EQ(mail_body_section(&msg2->body, "1", &offset), &msg2->body);
  EXPECT_EQ(mail_body_section(&msg2->body, "2.2", &offset), &a2->body);
  EXPECT_EQ(offset, 40u + 80u);
  msg2->body.msg_body = nullptr;
  mail_free_body_part(&inner);
  mail_free_body_part(&root);

  // A single part is its own "1"; a message that isn't RFC822 has no
  // numbered parts.
  BodyPart* single = mail_newbody();
  EXPECT_EQ(mail_body_section(single, "", &offset), single);
  single->type = TYPEMESSAGE;
  single->subtype = cpystr("PARTIAL");
  EXPECT_EQ(mail_body_section(single, "2", &offset), nullptr);
  mail_free_body(&single);
  EXPECT_EQ(mail_body_section(nullptr, "1", &offset), nullptr);
}

// The message cache on bare streams: element life, the flush and its cut,
// expunge renumbering, the dump, and what a flush costs on a big mailbox;
// and the records it holds: dates of elements, copies, texts, ordering.

using Msgnos = std::vector<unsigned long>;

class Cache : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_env_clear();
    mailcache = mm_cache;
  }
  void TearDown() override {
    for (MailStream* s : streams_) mm_cache(s, 0, CH_INIT), FS_GIVE(&s);
    mail_env_clear();
  }

  MailStream* NewStream(unsigned long nmsgs, bool scache = false) {
    auto* s = static_cast<MailStream*>(FS_GET(sizeof(MailStream)));
    s->scache = scache;
    mm_cache(s, 0, CH_INIT);
    mm_cache(s, nmsgs, CH_SIZE);
    s->nmsgs = nmsgs;
    streams_.push_back(s);
    mail_env_clear();
    return s;
  }

  static MessageElt* Elt(MailStream* s, unsigned long msgno, long op = CH_MAKELELT) {
    return static_cast<MessageElt*>(mm_cache(s, msgno, op));
  }

  // What a remote driver does on its first fetch of a message: store an
  // envelope and count the message.
  static void Fill(MailStream* s, unsigned long msgno) {
    MessageElt* e = Elt(s, msgno);
    if (e->envelope) return;
    e->envelope = mail_newenvelope();
    e->envelope->subject = cpystr("subject");
    ++s->cachecount;
  }

  static Msgnos Holders(MailStream* s) {
    Msgnos out;
    for (unsigned long i = 1; i <= s->cachesize; ++i)
      if (MessageElt* e = s->cache[i - 1]; e && (e->envelope || e->body || e->header_text || e->body_text))
        out.push_back(i);
    return out;
  }

  std::vector<MailStream*> streams_;
};

TEST_F(Cache, ElementsSizesAndTouches) {
  MailStream* s = NewStream(5);
  EXPECT_EQ(s->cachesize, 105u);
  MessageElt* kept = Elt(s, 105);
  mm_cache(s, 106, CH_SIZE);
  EXPECT_EQ(s->cachesize, 206u);
  EXPECT_EQ(Elt(s, 105, CH_ELT), kept);
  EXPECT_EQ(s->cache[205], nullptr);

  EXPECT_EQ(Elt(s, 3, CH_ELT), nullptr);
  MessageElt* e = Elt(s, 3, CH_MAKEELT);
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(e->is_long && e->msgno == 3 && e->lastref == 2);  // a normal stream gives long elements
  // Touching the same element again costs nothing; another one does.
  EXPECT_EQ(Elt(s, 3, CH_LELT), e);
  EXPECT_EQ(s->cacheref, 2u);
  EXPECT_EQ(Elt(s, 4)->lastref, 3u);
  EXPECT_EQ(Elt(s, 3, CH_ELT)->lastref, 4u);
  EXPECT_THROW(mm_cache(s, 3, 99), MailFatal);

  MailStream* shortc = NewStream(10, true);
  e = Elt(shortc, 2, CH_MAKEELT);
  EXPECT_FALSE(e->is_long);
  EXPECT_EQ(Elt(shortc, 2, CH_LELT), nullptr);  // not a long element
  // Asked for explicitly, the element becomes long where it stands.
  EXPECT_EQ(Elt(shortc, 2, CH_MAKELELT), e);
  EXPECT_TRUE(e->is_long);
}

TEST_F(Cache, FreeDropsOneReferenceAndGcFreesTheData) {
  MailStream* s = NewStream(10);
  MessageElt* e = Elt(s, 4);
  e->envelope = mail_newenvelope();
  e->lockcount = 2;  // someone else holds it too
  mm_cache(s, 4, CH_FREE);
  EXPECT_EQ(s->cache[3], nullptr);
  EXPECT_EQ(e->lockcount, 1u);
  EXPECT_NE(e->envelope, nullptr);  // alive in the other holder's hands
  mail_free_elt(&e);

  Fill(s, 5);
  e = Elt(s, 5);
  e->header_text = mail_newtext();
  s->env = e->envelope;
  s->header_text = e->header_text;
  mm_cache(s, 5, CH_GC);
  EXPECT_EQ(Elt(s, 5, CH_ELT), e);
  EXPECT_TRUE(!e->envelope && !e->header_text && s->cachecount == 0);
  // The stream's mirrors of the freed data are gone with it.
  EXPECT_TRUE(!s->env && !s->header_text);
  mm_cache(s, 5, CH_GC);  // holds nothing now
  EXPECT_EQ(s->cachecount, 0u);
}

// Nothing is flushed with the high-water mark at 0, nor when the holders
// are at or below the low-water mark whatever the count says. Above it,
// the flush ranks holders with a comparison that calls every pair equal, so
// under a stable sort the cut falls at the holder cachelow places from the
// end in slot order, whatever the age of the others.
TEST_F(Cache, WhenAndWhereTheFlushCuts) {
  Msgnos last_199(199), first_10(10);
  std::iota(last_199.begin(), last_199.end(), 12ul);
  std::iota(first_10.begin(), first_10.end(), 1ul);
  const std::tuple<unsigned long, unsigned long, bool, Msgnos> rows[] = {
      // high-water mark, holders (filled ascending or not), what is left
      {0, 500, true, {}}, {400, 200, true, {}}, {209, 210, true, last_199}, {209, 210, false, first_10}};
  for (const auto& [high, filled, ascending, kept] : rows) {
    SCOPED_TRACE(std::to_string(high) + (ascending ? " ascending" : " descending"));
    MailStream* s = NewStream(600);
    if (kept.empty()) s->cachehigh = high;
    for (unsigned long k = 0; k < filled; ++k) Fill(s, ascending ? k + 1 : filled - k);
    s->cachehigh = high;
    if (kept.empty()) s->cachecount = 450;  // the local driver counts fetches, not messages
    mail_env_clear();
    Elt(s, 300);  // one touch past the mark
    if (kept.empty()) {
      EXPECT_EQ(Holders(s).size(), filled);
      EXPECT_EQ(s->cachecount, 450u);
      continue;
    }
    EXPECT_EQ(Holders(s), kept);
    EXPECT_EQ(s->cachecount, kept.size());
    auto d = EnvLines("dlog");
    ASSERT_EQ(d.size(), filled - kept.size() + 1);
    EXPECT_EQ(d.front(), "mm_cache: CH_GC - garbage collected cache element " + std::to_string(ascending ? 1 : 11));
    EXPECT_EQ(d.back(), "mm_cache: Cache garbage collection completed.");
  }
}

// A big cache drops everything but the element just touched: a caller is
// working on it. Data stored after a few later touches (flags of other
// messages arriving meanwhile) is still seen.
TEST_F(Cache, BigCacheFlushSparesOnlyTheTouchedElement) {
  MailStream* s = NewStream(4901);
  ASSERT_EQ(s->cachesize, kCacheBig);
  for (unsigned long i = 1; i <= 400; ++i) Fill(s, i * 10);
  EXPECT_EQ(Holders(s).size(), 400u);  // at the mark, not past it
  MessageElt* mine = Elt(s, 1230);
  ++s->cachecount;
  Elt(s, 1230);  // the touch that finds the count past the mark
  EXPECT_EQ(Holders(s), Msgnos{1230});
  EXPECT_STREQ(mine->envelope->subject, "subject");
  s->cachecount = 1000;  // every touch flushes from here on
  MessageElt* late = Elt(s, 1);
  for (unsigned long i = 2; i <= 20; ++i) Elt(s, i);
  late->envelope = mail_newenvelope();
  Elt(s, 21);
  EXPECT_TRUE(Holders(s).empty());
}

TEST_F(Cache, ExpungeClosesTheGapAndTouchesTheMoved) {
  MailStream* s = NewStream(5);
  std::vector<MessageElt*> e(6);
  for (unsigned long i = 1; i <= 5; ++i) Fill(s, i), e[i] = Elt(s, i);
  unsigned long before = s->cacheref;
  mm_cache(s, 2, CH_FREE);
  mm_cache(s, 2, CH_EXPUNGE);
  EXPECT_EQ(std::vector<MessageElt*>(s->cache, s->cache + 5), (std::vector<MessageElt*>{e[1], e[3], e[4], e[5], nullptr}));
  for (unsigned long i = 1; i <= 4; ++i) EXPECT_EQ(s->cache[i - 1]->msgno, i);
  EXPECT_EQ(e[3]->lastref, before + 1);
  EXPECT_EQ(e[5]->lastref, before + 3);
  // The slot was already empty when the gap closed: the count stays.
  EXPECT_EQ(s->cachecount, 5u);
  s->nmsgs = 4;
  // Expunged while still in its slot, a holder leaves the count.
  MessageElt* last = Elt(s, 4);
  mm_cache(s, 4, CH_EXPUNGE);
  EXPECT_EQ(s->cachecount, 4u);
  EXPECT_EQ(s->cache[3], nullptr);
  mail_free_elt(&last);
}

TEST_F(Cache, DumpListsSlotsAndCountsBytes) {
  MailStream* s = NewStream(1);
  MessageElt* e = Elt(s, 1);
  e->envelope = mail_newenvelope();
  e->envelope->subject = cpystr("abc");
  e->envelope->from = mail_newaddr();
  e->envelope->from->mailbox = cpystr("ann");
  e->envelope->from->host = cpystr("x.org");
  e->body = mail_newbody();
  e->body->subtype = cpystr("PLAIN");
  e->body->parts = mail_newbody_part();  // nested parts are left out
  e->body->parts->body.subtype = cpystr("IGNORED");
  e->header_text = mail_newtext();
  mail_text_set(e->header_text, kTextInMemory, "0123456789", 10);
  Elt(s, 3);
  mail_env_clear();
  mm_cache(s, 0, CH_DUMP);
  auto d = EnvLines("dlog");
  ASSERT_EQ(d.size(), 8u + 101u + 2u);
  EXPECT_EQ(d[1], "\tcachesize = 101");
  EXPECT_EQ(d[3], "\tcacheref = 2");
  EXPECT_EQ(d[10], "\telement = 2 - NULL");
  EXPECT_EQ(d[11], "\telement = 3 - lastref = 2, msgno = 3");
  // 52 + (56 + 3 + 24 + 3 + 5) + (56 + 5) + 10, and 52 for the empty one.
  EXPECT_EQ(d.back(), "mm_cache: CH_DUMP - total bytes consumed by this stream = 266");

  MailStream* shortc = NewStream(1, true);
  Elt(shortc, 1, CH_MAKEELT);
  Elt(shortc, 2, CH_MAKEELT);
  mail_env_clear();
  mm_cache(shortc, 0, CH_DUMP);
  EXPECT_EQ(EnvLines("dlog").back(), "mm_cache: CH_DUMP - total bytes consumed by this stream = 72");

  // A flush under debug dumps before and after.
  MailStream* big = NewStream(300);
  for (unsigned long i = 1; i <= 202; ++i) Fill(big, i);
  big->cachehigh = 201;
  big->debug = 1;
  mail_env_clear();
  Elt(big, 203);
  d = EnvLines("dlog");
  EXPECT_EQ(std::count(d.begin(), d.end(), "mm_cache: CH_DUMP"), 2);
}

// The flush may only ever look at what holds data (plus the elements
// touched since it last looked). A big mailbox has every message fetched in
// order, then read at random by a driver that counts every fetch, then
// flagged; one small enough to rank its holders is read in order three times.
TEST_F(Cache, FlushCostStaysBounded) {
  const std::tuple<unsigned long, std::vector<int>, unsigned long long> rows[] = {
      // messages, phases (0: fetch in order, 1: fetch at random, 2: set a flag), work per touch
      {100000, {0, 1, 2}, 100}, {4000, {0, 0, 0}, 20}};
  for (const auto& [messages, phases, work_per_touch] : rows) {
    SCOPED_TRACE(messages);
    MailStream* s = NewStream(messages);
    ASSERT_EQ(s->cachesize >= kCacheBig, messages > kCacheBig);
    unsigned long long start = mm_cache_work(), worst_call = 0;
    unsigned long x = 12345;
    for (int phase : phases)
      for (unsigned long i = 1; i <= messages; ++i) {
        unsigned long long before = mm_cache_work();
        if (phase == 0) {
          Fill(s, i);
        } else if (phase == 1) {
          x = x * 1103515245 + 12345;
          Fill(s, 1 + (x >> 8) % messages);
          ++s->cachecount;  // counted again although cached
        } else {
          Elt(s, i, CH_ELT)->seen = 1;
        }
        worst_call = std::max(worst_call, mm_cache_work() - before);
        if (i % 1000 == 0 || messages < kCacheBig) {
          ASSERT_LE(Holders(s).size(), s->cachehigh + 1) << "at " << i;
          mail_env_clear();
        }
      }
    // A walk over every element would cost thousands per touch here.
    EXPECT_LE(mm_cache_work() - start, work_per_touch * 3 * messages) << "flush work per touch is not bounded";
    EXPECT_LE(worst_call, 4 * s->cachehigh + 2048) << "one touch looked at far more than the cached messages";
  }
}

// The internal form pins a month outside the year into it; the ctime form says it doesn't know.
TEST(MailDates, InternalAndCtimeForms) {
  struct { int year, month, day, h, m, s; bool west; int zh, zm; const char *date, *cdate; } rows[] = {
      {2000, 1, 1, 0, 0, 0, false, 0, 0, " 1-Jan-2000 00:00:00 +0000", "Sat Jan  1 00:00:00 2000\n"},
      {2024, 2, 29, 23, 59, 58, true, 5, 30, "29-Feb-2024 23:59:58 -0530", "Thu Feb 29 23:59:58 2024\n"},
      {1969, 12, 31, 7, 8, 9, false, 14, 0, "31-Dec-1969 07:08:09 +1400", "Wed Dec 31 07:08:09 1969\n"},
      {2096, 2, 29, 12, 0, 0, true, 12, 45, "29-Feb-2096 12:00:00 -1245", "Wed Feb 29 12:00:00 2096\n"},
      {2001, 0, 5, 1, 2, 3, false, 0, 0, " 5-Jan-2001 01:02:03 +0000", "???  5 01:02:03 2001\n"},
      {2001, 13, 5, 1, 2, 3, false, 0, 0, " 5-Dec-2001 01:02:03 +0000", "???  5 01:02:03 2001\n"},
  };
  for (auto& r : rows) {
    MessageElt e{};
    e.year = r.year - 1969, e.month = r.month, e.day = r.day, e.hours = r.h, e.minutes = r.m, e.seconds = r.s;
    e.zone_west = r.west, e.zone_hours = r.zh, e.zone_minutes = r.zm;
    char buffer[kMailDateSize];
    EXPECT_STREQ(mail_date(buffer, &e), r.date);
    // Without a month the weekday means nothing: only the rest is checked.
    const std::string cdate = mail_cdate(buffer, &e);
    EXPECT_EQ(std::strncmp(r.cdate, "???", 3) ? cdate : cdate.substr(4), r.cdate) << r.date;
  }
}

// A copy must be readable after the original is freed (the sanitizer run catches anything shared).
TEST(MailRecords, DuplicatesAreIndependentOfTheOriginal) {
  Envelope* env = mail_newenvelope();
  env->subject = cpystr("Quarterly figures");
  env->message_id = cpystr("<1@example.org>");
  env->from = Address("Ann", "ann", "example.org");
  env->to = Address("Bob", "bob", "example.org", Address(nullptr, "carol", "example.net", Address("D", "dan", "x.org")));
  env->extra_headers = mail_newextra();
  env->extra_headers->name = cpystr("X-Mailer");
  env->extra_headers->value = cpystr("Velmar");
  Envelope* copy = mail_duplicate_envelope(env);
  mail_free_envelope(&env);
  EXPECT_EQ(env, nullptr);
  ASSERT_NE(copy, nullptr);
  std::string to;
  for (MailAddress* a = copy->to; a; a = a->next) to += std::string(a->mailbox) + "@" + a->host + ";";
  EXPECT_EQ(std::string(copy->subject) + copy->message_id + copy->from->personal + to + copy->extra_headers->value,
            "Quarterly figures<1@example.org>Annbob@example.org;carol@example.net;dan@x.org;Velmar");
  EXPECT_EQ(copy->cc, nullptr);
  mail_free_envelope(&copy);
  EXPECT_EQ(mail_duplicate_envelope(nullptr), nullptr);

  BodyParameter* p = Parameter("CHARSET", "UTF-8", Parameter("FORMAT", "flowed"));
  BodyParameter* params = mail_duplicate_body_parameters(p);
  mail_free_body_parameter(&p);
  ASSERT_TRUE(params && params->next && !params->next->next);
  EXPECT_EQ(std::string(params->attribute) + "=" + params->value + ";" + params->next->attribute + "=" +
                params->next->value,
            "CHARSET=UTF-8;FORMAT=flowed");
  mail_free_body_parameter(&params);
  EXPECT_EQ(params, nullptr);
}

TEST(MailRecords, CompareAddressByHeadMailboxThenHost) {
  MailAddress* ann = Address(nullptr, "ann", "b.org");
  MailAddress* ann_a = Address(nullptr, "ann", "a.org", Address(nullptr, "zed", "z.org"));
  MailAddress* bob = Address(nullptr, "bob", "a.org");
  MailAddress* no_mailbox = Address(nullptr, nullptr, "a.org");
  MailAddress* no_host = Address(nullptr, "ann", nullptr);
  MailAddress* ann_upper = Address(nullptr, "ANN", "B.ORG");
  const struct { const MailAddress *a, *b; int sign; } rows[] = {
      {ann, bob, -1},    {bob, ann, 1},         {ann_a, ann, -1},      {ann, ann, 0},        {nullptr, ann, -1},
      {ann, nullptr, 1}, {nullptr, nullptr, 0}, {no_mailbox, ann, -1}, {no_host, ann_a, -1}, {ann, ann_upper, 0},
  };
  for (const auto& r : rows) {
    int c = mail_compare_address(r.a, r.b);
    EXPECT_EQ((c > 0) - (c < 0), r.sign) << (r.a && r.a->mailbox ? r.a->mailbox : "-") << " vs "
                                         << (r.b && r.b->mailbox ? r.b->mailbox : "-");
  }
  for (MailAddress* a : {ann, ann_a, bob, no_mailbox, no_host, ann_upper}) mail_free_address(&a);
}

// A text copies what it is given by kind; a spooled one's file goes with it. Long lists free without recursing.
// (Trees of parts free every level: the parser tests build and free them under the sanitizer.)
TEST(MailRecords, TextsAndLongListsFreeCompletely) {
  MailText* t = mail_newtext();
  const char bytes[] = {'a', '\0', 'b', 'c'};
  mail_text_set(t, kTextInMemory, "hello world", 5);
  EXPECT_STREQ(t->data, "hello");  // size + 1 bytes: terminated
  mail_text_set(t, kTextBinary, bytes, sizeof bytes);
  EXPECT_EQ(t->size, 4u);
  EXPECT_EQ(std::memcmp(t->data, bytes, 4), 0);
  char path[] = "/tmp/velmar-mailtext-XXXXXX";
  ::close(mkstemp(path));
  mail_text_set(t, kTextFile, path, 12345);
  EXPECT_EQ(std::string(t->data) + " " + std::to_string(t->size), std::string(path) + " 12345");
  mail_free_text(&t);
  EXPECT_EQ(t, nullptr);
  EXPECT_NE(::access(path, F_OK), 0);

  MailAddress* list = nullptr;
  for (int i = 0; i < 200000; ++i) list = Address(nullptr, "u", "h", list);
  mail_free_address(&list);
  EXPECT_EQ(list, nullptr);
  Message* m = mail_newmessage();
  m->envelope = mail_newenvelope();
  m->body = mail_newbody();
  m->extra[1] = cpystr("spare");
  mail_free_message(&m);
  EXPECT_EQ(m, nullptr);
}

}  // namespace
