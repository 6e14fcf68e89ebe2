// The core driven through its real dispatch by a driver that serves five
// hand-built messages from memory ("#test/..." names), with a second
// driver ("#other/...") for changes of format on a stream.
#include "c-client/core/mail_core.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

// --- The test driver --------------------------------------------------------

// A mailbox holds the numbers of the messages it had at first: "message N"
// with its text, message 2 a multipart.
struct Local {
  std::vector<int> ids;
};

struct Calls {
  std::map<std::string, int> count;
  std::vector<std::string> log;  // arguments of the interesting calls
  long parameter_answer = 0;
  bool append_probe_says_yes = false;
  void Note(const std::string& what, const std::string& args = "") {
    ++count[what];
    if (!args.empty()) log.push_back(what + " " + args);
  }
};
Calls g_calls;

MailStream test_proto{};
MailStream other_proto{};

Local* L(MailStream* s) { return static_cast<Local*>(s->local); }
int Id(MailStream* s, unsigned long msgno) { return L(s)->ids[msgno - 1]; }
std::string Subject(int id) { return "message " + std::to_string(id); }

struct Reader {
  const std::string* text;
  size_t pos;
};
long ReadFrom(void* handle, unsigned long size, char* buffer) {
  auto* r = static_cast<Reader*>(handle);
  if (r->pos + size > r->text->size()) return 0;
  std::memcpy(buffer, r->text->data() + r->pos, size);
  r->pos += size;
  return 1;
}
MailText* TextOf(const std::string& s) {
  Reader r{&s, 0};
  return mail_gets(ReadFrom, &r, s.size());
}

BodyPartNode* Part(unsigned short type, const char* subtype, unsigned long offset, unsigned long bytes) {
  BodyPartNode* n = mail_newbody_part();
  n->body.type = type;
  n->body.subtype = cpystr(subtype);
  n->body.size_bytes = bytes;
  n->offset = offset;
  return n;
}

// Message 2: 1 text/plain, 2 message/rfc822 holding 1 text/plain and
// 2 image/gif, 3 multipart/alternative. The others are plain text.
BodyPart* BuildBody(int id) {
  BodyPart* b = mail_newbody();
  if (id != 2) {
    b->subtype = cpystr("PLAIN");
    return b;
  }
  b->type = TYPEMULTIPART;
  b->subtype = cpystr("MIXED");
  b->parts = Part(TYPETEXT, "PLAIN", 50, 11);
  BodyPartNode* p2 = b->parts->next = Part(TYPEMESSAGE, "RFC822", 200, 400);
  p2->next = Part(TYPEMULTIPART, "ALTERNATIVE", 700, 90);
  p2->body.msg_offset = 30;
  BodyPart* inner = p2->body.msg_body = mail_newbody();
  inner->type = TYPEMULTIPART;
  inner->subtype = cpystr("MIXED");
  inner->parts = Part(TYPETEXT, "PLAIN", 10, 20);
  inner->parts->next = Part(TYPEIMAGE, "GIF", 120, 250);
  return b;
}

void Finder(const char* what, MailStream* s, const char* pattern) {
  g_calls.Note(what, std::string(s ? "stream " : "none ") + pattern);
}
long NameCall(const char* what, MailStream* s, const std::string& name) {
  g_calls.Note(what, std::string(!s ? "none" : s == &test_proto ? "prototype" : "stream") + " " + name);
  return 1;
}

// Like the remote driver: count a message when it first gets data.
void CountFirstData(MailStream* s, unsigned long msgno) {
  if (s->scache) return;
  MessageElt* e = mail_lelt(s, msgno);
  if (!e->envelope && !e->body && !e->header_text && !e->body_text) ++s->cachecount;
}

void ApplyFlags(MailStream* s, const char* seq, const char* flags, bool value) {
  if (!mail_sequence(s, seq)) return;
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    MessageElt* e = mail_elt(s, i);
    if (!e->sequence) continue;
    if (std::strstr(flags, "\\Seen")) e->seen = value;
    if (std::strstr(flags, "\\Deleted")) e->deleted = value;
    if (std::strstr(flags, "\\Flagged")) e->flagged = value;
    mm_flags(s, i);
  }
}

void CloseLocal(const char* what, MailStream* s) {
  g_calls.Note(what);
  delete L(s);
  s->local = nullptr;
}

MailDriver test_driver = [] {
  MailDriver d{};
  d.name = "test";
  d.valid = [](const char* n) { return std::strncmp(n, "#test/", 6) == 0 ? &test_driver : nullptr; };
  d.parameters = [](long op, void* value) {
    g_calls.Note("parameters", std::to_string(op));
    return g_calls.parameter_answer ? value : nullptr;
  };
  d.capabilities = [](MailStream*, long* word) { *word = CAP_WORKS | CAP_FOLDERS | CAP_FOLDERS_FULL; };
  d.find = [](MailStream* s, const char* p) { Finder("find", s, p); };
  d.find_bboards = [](MailStream* s, const char* p) { Finder("find_bboards", s, p); };
  d.find_all = [](MailStream* s, const char* p) { Finder("find_all", s, p); };
  d.find_all_bboards = [](MailStream* s, const char* p) { Finder("find_all_bboards", s, p); };
  d.subscribe = [](MailStream* s, const char* n) { return NameCall("subscribe", s, n); };
  d.unsubscribe = [](MailStream* s, const char* n) { return NameCall("unsubscribe", s, n); };
  d.create = [](MailStream* s, const char* n) { return NameCall("create", s, n); };
  d.remove = [](MailStream* s, const char* n) { return NameCall("delete", s, n); };
  d.rename = [](MailStream* s, const char* o, const char* n) { return NameCall("rename", s, std::string(o) + ">" + n); };
  d.open = [](MailStream* s) -> MailStream* {
    if (!s) return &test_proto;
    g_calls.Note("open", s->mailbox);
    if (std::strcmp(s->mailbox, "#test/fail") == 0) return nullptr;
    delete L(s);
    s->local = new Local{{1, 2, 3, 4, 5}};
    mail_exists(s, 5);
    mail_recent(s, 1);
    return s;
  };
  d.close = [](MailStream* s) { CloseLocal("close", s); };
  d.fetchstructure = [](MailStream* s, unsigned long msgno, BodyPart** body) {
    g_calls.Note("fetchstructure");
    CountFirstData(s, msgno);
    Envelope* env = mail_newenvelope();
    env->subject = cpystr(Subject(Id(s, msgno)).c_str());
    *body = BuildBody(Id(s, msgno));
    return env;
  };
  d.fetchheader = [](MailStream* s, unsigned long msgno) {
    g_calls.Note("fetchheader");
    CountFirstData(s, msgno);
    MailText* t = TextOf("Subject: " + Subject(Id(s, msgno)) + "\r\n\r\n");
    (s->scache ? s->header_text : mail_lelt(s, msgno)->header_text) = t;
    return t;
  };
  d.fetchtext = [](MailStream* s, unsigned long msgno) {
    g_calls.Note("fetchtext");
    CountFirstData(s, msgno);
    return TextOf("Body of message " + std::to_string(Id(s, msgno)) + ".\r\n");
  };
  d.fetchbody = [](MailStream*, unsigned long msgno, const char* section, BodyPart* part, unsigned long offset,
                  unsigned long* length) {
    g_calls.Note("fetchbody", std::to_string(msgno) + " " + section + " @" + std::to_string(offset));
    std::string text = std::string("section ") + section;
    MailText* t = TextOf(text);
    (part->type == TYPEMESSAGE ? part->msg_text : part->contents) = t;
    *length = text.size();
    return t;
  };
  d.setflag = [](MailStream* s, const char* seq, const char* flags) { ApplyFlags(s, seq, flags, true); };
  d.clearflag = [](MailStream* s, const char* seq, const char* flags) { ApplyFlags(s, seq, flags, false); };
  d.search = [](MailStream* s, const char* criteria) {
    g_calls.Note("search", criteria);
    const char* word = std::strstr(criteria, "SUBJECT ");
    for (unsigned long i = 1; i <= s->nmsgs; ++i)
      if (word && Subject(Id(s, i)).find(word + 8) != std::string::npos) mail_searched(s, i);
  };
  d.expunge = [](MailStream* s) {
    for (unsigned long i = s->nmsgs; i >= 1; --i) {
      if (!mail_elt(s, i)->deleted) continue;
      L(s)->ids.erase(L(s)->ids.begin() + static_cast<long>(i - 1));
      mail_expunged(s, i);
    }
  };
  d.copy = [](MailStream*, const char* seq, const char* box) {
    return NameCall("copy", nullptr, std::string(seq) + ">" + box);
  };
  d.append = [](MailStream* s, const char* box, const char* flags, const char* date, StringSource*) {
    NameCall("append", s, std::string(box ? box : "(null)") + " " + (flags ? flags : "-") + " " + (date ? date : "-"));
    return box ? 1L : g_calls.append_probe_says_yes;
  };
  d.setacl = [](MailStream* s, const char* box, const char* id, const char* rights) {
    return NameCall("setacl", s, std::string(box) + " " + id + " " + rights);
  };
  d.setquota = [](MailStream* s, const char* root, long storage, long messages) {
    return NameCall("setquota", s, std::string(root) + " " + std::to_string(storage) + " " + std::to_string(messages));
  };
  d.gc = [](MailStream*, long flags) { g_calls.Note("gc", std::to_string(flags)); };
  d.prototype = &test_proto;
  return d;
}();

MailDriver other_driver = [] {
  MailDriver d{};
  d.name = "other";
  d.valid = [](const char* n) { return std::strncmp(n, "#other/", 7) == 0 ? &other_driver : nullptr; };
  d.parameters = [](long op, void*) {
    g_calls.Note("other parameters", std::to_string(op));
    return reinterpret_cast<void*>(static_cast<intptr_t>(op));
  };
  d.find_all = [](MailStream* s, const char* p) { Finder("other find_all", s, p); };
  d.find_all_bboards = [](MailStream* s, const char* p) { Finder("other find_all_bboards", s, p); };
  d.open = [](MailStream* s) -> MailStream* {
    if (!s) return &other_proto;
    g_calls.Note("other open", s->mailbox);
    s->local = new Local{};
    mail_exists(s, 0);
    return s;
  };
  d.close = [](MailStream* s) { CloseLocal("other close", s); };
  d.prototype = &other_proto;
  return d;
}();

// --- Fixture ----------------------------------------------------------------

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
    g_calls = Calls{};
    mail_env_clear();
  }
  void TearDown() override {
    for (MailStream* s : open_) mail_close(s);
    mail_unlink_all();
    mail_set_default_driver(&mhdriver);
    mail_env_clear();
  }

  MailStream* Open(const char* name = "#test/box", long options = 0) {
    MailStream* s = mail_open(nullptr, name, options);
    if (s) open_.push_back(s);
    mail_env_clear();
    g_calls.log.clear();
    return s;
  }
  void Forget(MailStream* s) { open_.erase(std::remove(open_.begin(), open_.end(), s), open_.end()); }

  static std::vector<std::string> Logs() { return EnvLines("log", true); }

  std::vector<MailStream*> open_;
};

// --- Opening, closing, handles ----------------------------------------------

TEST_F(MailCore, OpenSetsTheStreamUpFromTheOptions) {
  const std::pair<long, std::string> rows[] = {
      {0, ""},       {OP_DEBUG, "debug "},          {OP_READONLY, "rdonly "},        {OP_ANONYMOUS, "anonymous "},
      {OP_SILENT, "silent "}, {OP_CONTROL, "control "}, {OP_SHORTCACHE | OP_SILENT, "scache silent "},
  };
  for (const auto& [options, bits] : rows) {
    SCOPED_TRACE(options);
    mail_env_clear();
    MailStream* s = mail_open(nullptr, "#test/box", options);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->driver, &test_driver);
    EXPECT_STREQ(s->mailbox, "#test/box");
    EXPECT_EQ(s->nmsgs, 5u);
    EXPECT_EQ(s->recent, 1u);
    EXPECT_EQ(s->cachehigh, 400u);
    std::string got = std::string(s->debug ? "debug " : "") + (s->rdonly ? "rdonly " : "") +
                      (s->anonymous ? "anonymous " : "") + (s->scache ? "scache " : "") + (s->silent ? "silent " : "") +
                      (s->control ? "control " : "");
    EXPECT_EQ(got, bits);
    // The count reaches the model unless the stream is silent.
    EXPECT_EQ(EnvLines("exists"), s->silent ? std::vector<std::string>{} : std::vector<std::string>{"5"});
    mail_close(s);
  }
  EXPECT_EQ(g_calls.count["open"], 7);
  EXPECT_EQ(g_calls.count["close"], 7);
}

TEST_F(MailCore, OpensThatGiveNoNewStream) {
  EXPECT_EQ(mail_open(nullptr, "nowhere", 0), nullptr);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't open mailbox nowhere: no such mailbox @2"});
  mail_env_clear();
  EXPECT_EQ(mail_open(nullptr, "{host/pop3}INBOX", OP_SILENT), nullptr);
  EXPECT_TRUE(Logs().empty());
  MailStream* s = Open();
  EXPECT_EQ(mail_open(s, "nowhere", OP_SILENT), s);
  EXPECT_EQ(s->driver, &test_driver);
  EXPECT_EQ(s->nmsgs, 5u);
  // A prototype opens nothing, and closing it leaves the static entry alone.
  MailStream* p = mail_open(nullptr, "#test/anything", OP_PROTOTYPE);
  EXPECT_EQ(p, &test_proto);
  EXPECT_EQ(mail_close(p), nullptr);
  EXPECT_EQ(test_proto.driver, &test_driver);
  EXPECT_EQ(g_calls.count["open"], 1);
  // A driver that fails the open has the stream closed and freed.
  EXPECT_EQ(mail_open(nullptr, "#test/fail", 0), nullptr);
  EXPECT_EQ(g_calls.count["open"], 2);
  EXPECT_EQ(g_calls.count["close"], 1);
}

TEST_F(MailCore, ReopenOnAnotherFormatReusesTheRecord) {
  MailStream* s = Open();
  ASSERT_NE(mail_fetchstructure(s, 1, nullptr), nullptr);
  s->sequence = 41;
  MailHandle* h = mail_makehandle(s);
  EXPECT_EQ(mail_open(s, "#other/x", 0), s);
  // The old driver let go first; the cache was emptied; the record and its
  // generation carry on.
  EXPECT_EQ(g_calls.count["close"], 1);
  EXPECT_EQ(s->driver, &other_driver);
  EXPECT_STREQ(s->mailbox, "#other/x");
  EXPECT_EQ(mailcache(s, 1, CH_ELT), nullptr);
  EXPECT_EQ(s->sequence, 41u);
  EXPECT_EQ(mail_stream(h), s);
  // Back to the first format, on the same record again.
  EXPECT_EQ(mail_open(s, "#test/again", 0), s);
  EXPECT_EQ(g_calls.count["other close"], 1);
  EXPECT_EQ(s->nmsgs, 5u);
  mail_free_handle(&h);
}

TEST_F(MailCore, HandlesOutliveTheirStream) {
  MailStream* s = Open();
  MailHandle* a = mail_makehandle(s);
  MailHandle* b = mail_makehandle(s);
  EXPECT_EQ(s->use, 2u);
  unsigned short generation = s->sequence;
  Forget(s);
  mail_close(s);
  // The record stays for the handles, but they no longer lead anywhere.
  EXPECT_EQ(s->driver, nullptr);
  EXPECT_EQ(s->sequence, generation + 1);
  EXPECT_EQ(mail_stream(a), nullptr);
  EXPECT_EQ(mail_fetchheader(s, 1), nullptr);
  mail_free_handle(&a);
  EXPECT_EQ(mail_stream(b), nullptr);
  mail_free_handle(&b);  // the last handle frees the record
  EXPECT_EQ(mail_makehandle(nullptr), nullptr);
}

// --- Fetching ---------------------------------------------------------------

TEST_F(MailCore, FetchesAreCachedUntilCollectedOrConsumed) {
  MailStream* s = Open();
  BodyPart* body = nullptr;
  Envelope* env = mail_fetchstructure(s, 3, &body);
  ASSERT_NE(env, nullptr);
  EXPECT_STREQ(env->subject, "message 3");
  EXPECT_EQ(mail_lelt(s, 3)->body, body);
  EXPECT_EQ(mail_fetchstructure(s, 3, &body), env);
  EXPECT_EQ(s->cachecount, 1u);
  mail_gc(s, GC_ENV);
  EXPECT_EQ(s->cachecount, 0u);
  ASSERT_NE(mail_fetchstructure(s, 3, nullptr), nullptr);
  EXPECT_EQ(g_calls.count["fetchstructure"], 2);

  MailText* h = mail_fetchheader(s, 4);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->kind, kTextInMemory);
  EXPECT_STREQ(h->data, "Subject: message 4\r\n\r\n");
  EXPECT_EQ(h->size, std::strlen(h->data));
  EXPECT_EQ(mail_fetchheader(s, 4), h);
  MailText* t = mail_fetchtext(s, 4);
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->data, "Body of message 4.\r\n");
  // The core keeps the text on the element and shows it on the stream.
  EXPECT_EQ(mail_lelt(s, 4)->body_text, t);
  EXPECT_EQ(s->msgno, 4u);
  EXPECT_EQ(s->body_text, t);
  EXPECT_EQ(s->header_text, h);
  EXPECT_EQ(mail_fetchtext(s, 4), t);
  EXPECT_EQ(g_calls.count["fetchheader"], 1);
  EXPECT_EQ(g_calls.count["fetchtext"], 1);
  // Once the model has taken a text away, it is fetched again.
  t->consumed = h->consumed = 1;
  ASSERT_NE(mail_fetchtext(s, 4), nullptr);
  EXPECT_EQ(mail_fetchtext(s, 4)->consumed, 0);
  ASSERT_NE(mail_fetchheader(s, 4), nullptr);
  EXPECT_EQ(g_calls.count["fetchtext"], 2);
  EXPECT_EQ(g_calls.count["fetchheader"], 2);
  EXPECT_EQ(s->header_text, mail_lelt(s, 4)->header_text);
}

TEST_F(MailCore, ShortCacheHoldsOneMessageOnTheStream) {
  MailStream* s = Open("#test/box", OP_SHORTCACHE);
  Envelope* one = mail_fetchstructure(s, 1, nullptr);
  ASSERT_NE(one, nullptr);
  EXPECT_EQ(s->msgno, 1u);
  EXPECT_EQ(s->env, one);
  EXPECT_EQ(mail_fetchstructure(s, 1, nullptr), one);
  Envelope* two = mail_fetchstructure(s, 2, nullptr);
  EXPECT_STREQ(two->subject, "message 2");
  EXPECT_EQ(s->env, two);
  EXPECT_STREQ(mail_fetchheader(s, 2)->data, "Subject: message 2\r\n\r\n");
  EXPECT_EQ(g_calls.count["fetchstructure"], 2);
  ASSERT_NE(mail_fetchstructure(s, 1, nullptr), nullptr);
  EXPECT_EQ(g_calls.count["fetchstructure"], 3);
  EXPECT_EQ(s->header_text, nullptr);  // message 2's went with it
  EXPECT_FALSE(mail_elt(s, 1)->is_long);
  EXPECT_THROW(mail_lelt(s, 1), MailFatal);
  EXPECT_EQ(EnvLines("fatal"), std::vector<std::string>{"Short cache in mail_lelt"});
}

TEST_F(MailCore, FetchBodyFindsSectionsAndCachesThem) {
  MailStream* s = Open();
  struct Row {
    const char* section;
    const char* driver_call;  // null: answered without the driver
    const char* log;
  } rows[] = {
      {"1", "fetchbody 2 1 @50", nullptr},
      {"1", nullptr, nullptr},  // cached now
      {"2", "fetchbody 2 2 @200", nullptr},
      {"2.1", "fetchbody 2 2.1 @40", nullptr},
      {"2.2", "fetchbody 2 2.2 @150", nullptr},
      {"2.2", nullptr, nullptr},
      {"3", nullptr, "Failed to fetch message section - invalid section specifier @2"},  // a multipart
      {"4", nullptr, "Failed to fetch message section - invalid section specifier @2"},
      {"", nullptr, "Failed to fetch message section - invalid (NULL) section specifier @1"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.section);
    g_calls.log.clear();
    mail_env_clear();
    unsigned long length = 999;
    MailText* t = mail_fetchbody(s, 2, r.section, &length);
    EXPECT_EQ(g_calls.log, r.driver_call ? std::vector<std::string>{r.driver_call} : std::vector<std::string>{});
    if (r.log) {
      EXPECT_EQ(t, nullptr);
      EXPECT_EQ(Logs(), std::vector<std::string>{r.log});
      continue;
    }
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(std::string(t->data), std::string("section ") + r.section);
    if (!r.driver_call) {
      // A cached part answers with the size the structure gives.
      BodyPart* body = nullptr;
      mail_fetchstructure(s, 2, &body);
      unsigned long offset;
      EXPECT_EQ(length, mail_body_section(body, r.section, &offset)->size_bytes);
    } else {
      EXPECT_EQ(length, t->size);
    }
  }
  mail_env_clear();
  EXPECT_EQ(mail_fetchbody(s, 2, nullptr, nullptr), nullptr);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Failed to fetch message section - invalid (NULL) section specifier @1"});
  EXPECT_EQ(g_calls.count["fetchstructure"], 1);
  // A plain message is its own section 1; a consumed part text is fetched
  // again.
  g_calls.log.clear();
  MailText* t = mail_fetchbody(s, 5, "1", nullptr);
  ASSERT_NE(t, nullptr);
  t->consumed = 1;
  ASSERT_NE(mail_fetchbody(s, 5, "1", nullptr), nullptr);
  EXPECT_EQ(g_calls.log, (std::vector<std::string>{"fetchbody 5 1 @0", "fetchbody 5 1 @0"}));
}

TEST_F(MailCore, BadMessageNumbersAreFatal) {
  MailStream* s = Open();
  struct Row {
    const char* text;
    void (*call)(MailStream*, unsigned long);
  } rows[] = {
      {"Invalid message number used to fetch message structure.",
       [](MailStream* st, unsigned long n) { mail_fetchstructure(st, n, nullptr); }},
      {"Invalid message number used to fetch message header.",
       [](MailStream* st, unsigned long n) { mail_fetchheader(st, n); }},
      {"Invalid message number used to fetch message body raw text.",
       [](MailStream* st, unsigned long n) { mail_fetchtext(st, n); }},
      {"Invalid message number used to fetch message body section.",
       [](MailStream* st, unsigned long n) { mail_fetchbody(st, n, "1", nullptr); }},
  };
  for (const Row& r : rows) {
    for (unsigned long msgno : {0ul, 6ul}) {
      SCOPED_TRACE(std::string(r.text) + " " + std::to_string(msgno));
      try {
        r.call(s, msgno);
        ADD_FAILURE() << "no fatal";
      } catch (const MailFatal& f) {
        EXPECT_EQ(f.text, r.text);
      }
    }
  }
  EXPECT_EQ(g_calls.count["fetchstructure"] + g_calls.count["fetchheader"] + g_calls.count["fetchtext"], 0);
  EXPECT_THROW(mail_elt(s, 0), MailFatal);
  EXPECT_EQ(EnvLines("fatal").back(), "Bad msgno in mail_elt");
  // No stream is no answer, not an error.
  EXPECT_EQ(mail_fetchstructure(nullptr, 1, nullptr), nullptr);
}

// --- Flags, expunge, search, gc ------------------------------------------------

TEST_F(MailCore, ExpungeRenumbersAndKeepsTheSurvivorsData) {
  MailStream* s = Open();
  for (unsigned long i = 1; i <= 5; ++i) ASSERT_NE(mail_fetchstructure(s, i, nullptr), nullptr);
  mail_setflag(s, "4,2", "\\Deleted");
  EXPECT_EQ(EnvLines("flags"), (std::vector<std::string>{"2", "4"}));
  ASSERT_NE(mail_fetchtext(s, 5), nullptr);
  EXPECT_EQ(s->msgno, 5u);
  mail_env_clear();
  mail_expunge(s);
  EXPECT_EQ(EnvLines("expunged"), (std::vector<std::string>{"4", "2"}));
  EXPECT_EQ(s->nmsgs, 3u);
  EXPECT_EQ(s->msgno, 0u);
  EXPECT_EQ(s->body_text, nullptr);
  for (unsigned long i = 1; i <= 3; ++i) {
    MessageElt* e = mail_lelt(s, i);
    EXPECT_EQ(e->msgno, i);
    EXPECT_FALSE(e->deleted);
    ASSERT_NE(e->envelope, nullptr);
    EXPECT_EQ(e->envelope->subject, Subject(2 * i - 1));
  }
  EXPECT_EQ(mailcache(s, 4, CH_ELT), nullptr);
  // The survivors' data came along: nothing is fetched again.
  EXPECT_STREQ(mail_fetchstructure(s, 3, nullptr)->subject, "message 5");
  EXPECT_STREQ(mail_fetchtext(s, 3)->data, "Body of message 5.\r\n");
  EXPECT_EQ(g_calls.count["fetchstructure"], 5);
  EXPECT_EQ(g_calls.count["fetchtext"], 1);
  // Numbers the mailbox doesn't have are ignored.
  mail_expunged(s, 0);
  mail_expunged(s, 4);
  EXPECT_EQ(s->nmsgs, 3u);
}

TEST_F(MailCore, FlagsFollowSequences) {
  MailStream* s = Open();
  mail_setflag(s, "5:2", "\\Seen \\Flagged");
  mail_clearflag(s, "3", "\\Flagged");
  std::string seen, flagged;
  for (unsigned long i = 1; i <= 5; ++i) {
    seen += mail_elt(s, i)->seen ? '1' : '0';
    flagged += mail_elt(s, i)->flagged ? '1' : '0';
  }
  EXPECT_EQ(seen, "01111");
  EXPECT_EQ(flagged, "01011");
  mail_env_clear();
  mail_setflag(s, "1:9", "\\Seen");
  EXPECT_EQ(Logs(), std::vector<std::string>{"Sequence range invalid @2"});
  EXPECT_FALSE(mail_elt(s, 1)->seen);
}

TEST_F(MailCore, SearchCountsEachHitOnce) {
  MailStream* s = Open();
  mail_search(s, nullptr);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Invalid search criteria - NULL search string @2"});
  EXPECT_EQ(g_calls.count["search"], 0);
  mail_search(s, "SUBJECT message");
  EXPECT_EQ(s->searched, 5u);
  mail_searched(s, 3);  // again: no second count
  EXPECT_EQ(s->searched, 5u);
  EXPECT_EQ(EnvLines("searched").size(), 5u);
  mail_search_reset(s);
  EXPECT_EQ(s->searched, 0u);
  EXPECT_FALSE(mail_elt(s, 3)->searched);
  mail_search(s, "SUBJECT 4");
  EXPECT_EQ(s->searched, 1u);
  EXPECT_TRUE(mail_elt(s, 4)->searched);
}

TEST_F(MailCore, ExistsNeverShrinks) {
  MailStream* s = Open();
  mail_exists(s, 3);
  EXPECT_EQ(s->nmsgs, 5u);
  EXPECT_EQ(Logs(), std::vector<std::string>{
                        "Lost synchronization with the mailbox server -- close and reopen the mailbox. @2"});
  EXPECT_TRUE(EnvLines("exists").empty());
  mail_exists(s, 250);
  EXPECT_EQ(s->nmsgs, 250u);
  EXPECT_GE(s->cachesize, 350u);
  EXPECT_EQ(EnvLines("exists"), std::vector<std::string>{"250"});
}

TEST_F(MailCore, GcGivesMemoryBack) {
  MailStream* s = Open();
  for (unsigned long i = 1; i <= 5; ++i) mail_fetchstructure(s, i, nullptr);
  ASSERT_NE(mail_fetchbody(s, 2, "2.2", nullptr), nullptr);
  ASSERT_NE(mail_fetchheader(s, 2), nullptr);
  ASSERT_NE(mail_fetchtext(s, 2), nullptr);
  mail_gc(s, GC_TEXTS);
  EXPECT_EQ(g_calls.count["gc"], 1);
  MessageElt* two = mail_lelt(s, 2);
  ASSERT_NE(two->envelope, nullptr);  // structure stays
  EXPECT_EQ(two->header_text, nullptr);
  EXPECT_EQ(two->body_text, nullptr);
  unsigned long offset;
  EXPECT_EQ(mail_body_section(two->body, "2.2", &offset)->contents, nullptr);

  // Elements someone else holds survive the element collection.
  MessageElt* held = mail_elt(s, 4);
  ++held->lockcount;
  mail_gc(s, GC_ELT);
  EXPECT_EQ(mailcache(s, 1, CH_ELT), nullptr);
  EXPECT_EQ(mailcache(s, 5, CH_ELT), nullptr);
  EXPECT_EQ(mailcache(s, 4, CH_ELT), held);
  EXPECT_EQ(held->lockcount, 2u);
  mail_free_elt(&held);
  // The stream still works: what went is simply fetched again.
  EXPECT_STREQ(mail_fetchstructure(s, 4, nullptr)->subject, "message 4");
  EXPECT_STREQ(mail_fetchstructure(s, 1, nullptr)->subject, "message 1");
  EXPECT_EQ(g_calls.count["fetchstructure"], 6);
}

TEST_F(MailCore, LockViolationsAreFatal) {
  MailStream* s = Open();
  EXPECT_THROW(mail_unlock(s), MailFatal);
  mail_lock(s);
  EXPECT_THROW(mail_lock(s), MailFatal);
  mail_unlock(s);
  EXPECT_FALSE(s->lock);
  const std::string violation = "Fatal error - communications lock manager violation.";
  EXPECT_EQ(EnvLines("fatal"), (std::vector<std::string>{violation, violation}));
}

// --- Dispatch -----------------------------------------------------------------

TEST_F(MailCore, ParametersCapabilitiesAndFinding) {
  MailStream* s = Open();
  long value = 7;
  // No stream: every driver, and the last answer that isn't null.
  EXPECT_EQ(mail_parameters(nullptr, 103, &value), reinterpret_cast<void*>(103));
  g_calls.parameter_answer = 1;
  EXPECT_EQ(mail_parameters(nullptr, 0, &value), &value);  // the other answers null for op 0
  EXPECT_EQ(g_calls.count["parameters"], 2);
  EXPECT_EQ(g_calls.count["other parameters"], 2);
  EXPECT_EQ(mail_parameters(s, 105, &value), &value);
  EXPECT_EQ(g_calls.count["other parameters"], 2);

  long word = -1;
  mail_capabilities(nullptr, &word);
  EXPECT_EQ(word, 0);
  mail_capabilities(s, &word);
  EXPECT_EQ(word, CAP_WORKS | CAP_FOLDERS | CAP_FOLDERS_FULL);

  g_calls.log.clear();
  mail_find(nullptr, "*");
  mail_find_all(nullptr, "a%");
  mail_find_all_bboards(nullptr, "b%");  // the first driver only
  mail_find_bboards(s, "c");
  mail_find_all(s, "d");
  EXPECT_EQ(g_calls.log,
            (std::vector<std::string>{"find none *", "find_all none a%", "other find_all none a%",
                                      "find_all_bboards none b%", "find_bboards stream c", "find_all stream d"}));
}

TEST_F(MailCore, NameOperationsValidateWithTheirPurpose) {
  struct Row {
    long (*call)(const char*);
    const char* name;
    const char* complaint;
    const char* dispatched;
  } rows[] = {
      {[](const char* n) { return mail_subscribe(nullptr, n); }, "x",
       "Can't subscribe to mailbox x: no such mailbox @2", "subscribe none #test/x"},
      {[](const char* n) { return mail_unsubscribe(nullptr, n); }, "x",
       "Can't unsubscribe to mailbox x: no such mailbox @2", "unsubscribe none #test/x"},
      {[](const char* n) { return mail_subscribe_bboard(nullptr, n); }, "x",
       "Can't subscribe to bboard *x: no such bboard @2", nullptr},
      {[](const char* n) { return mail_unsubscribe_bboard(nullptr, n); }, "{h}x",
       "Can't unsubscribe to bboard *{h}x: invalid remote specification @2", nullptr},
      {[](const char* n) { return mail_delete(nullptr, n); }, "x", "Can't delete mailbox x: no such mailbox @2",
       "delete none #test/x"},
      {[](const char* n) { return mail_rename(nullptr, n, "#test/y"); }, "x",
       "Can't rename mailbox x: no such mailbox @2", "rename none #test/x>#test/y"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.complaint);
    mail_env_clear();
    g_calls.log.clear();
    EXPECT_EQ(r.call(r.name), 0);
    EXPECT_EQ(Logs(), std::vector<std::string>{r.complaint});
    EXPECT_TRUE(g_calls.log.empty());
    if (!r.dispatched) continue;
    mail_env_clear();
    EXPECT_EQ(r.call("#test/x"), 1);
    EXPECT_TRUE(Logs().empty());
    EXPECT_EQ(g_calls.log, std::vector<std::string>{r.dispatched});
  }
}

TEST_F(MailCore, CreateUsesTheStreamThePrefixOrTheDefault) {
  MailStream* s = Open();
  EXPECT_EQ(mail_create(s, "sub"), 1);
  EXPECT_EQ(mail_create(nullptr, "plain"), 1);      // the default format
  EXPECT_EQ(mail_create(nullptr, "#test/new"), 1);  // its driver's prototype
  EXPECT_EQ(g_calls.log,
            (std::vector<std::string>{"create stream sub", "create prototype plain", "create prototype #test/new"}));
  EXPECT_TRUE(Logs().empty());
  EXPECT_EQ(mail_create(nullptr, "{host}box"), 0);
  EXPECT_EQ(Logs(), (std::vector<std::string>{"Can't open mailbox {host}box: invalid remote specification @2",
                                              "Can't create mailbox {host}box: indeterminate format @2"}));
  EXPECT_EQ(g_calls.log.size(), 3u);
}

TEST_F(MailCore, AppendFindsTheDriverOrComplains) {
  EXPECT_EQ(mail_append(nullptr, "#test/box", "\\Seen", "1-Jan-2024 00:00:00 +0000", nullptr), 1);
  EXPECT_EQ(mail_append_simple(nullptr, "#test/box", nullptr), 1);
  EXPECT_TRUE(Logs().empty());
  // Unknown: the default format is asked with nothing, and says no.
  EXPECT_EQ(mail_append(nullptr, "nowhere", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't append to mailbox nowhere: no such mailbox @2"});
  EXPECT_EQ(g_calls.log, (std::vector<std::string>{"append none #test/box \\Seen 1-Jan-2024 00:00:00 +0000",
                                                   "append none #test/box - -", "append prototype (null) - -"}));
  // If it said yes, the validity rules would contradict each other.
  g_calls.append_probe_says_yes = true;
  EXPECT_THROW(mail_append(nullptr, "nowhere", nullptr, nullptr, nullptr), MailFatal);
  EXPECT_EQ(EnvLines("fatal"), std::vector<std::string>{"Append validity confusion"});
  // With a stream nothing is probed.
  MailStream* s = Open();
  g_calls.log.clear();
  mail_env_clear();
  EXPECT_EQ(mail_append(s, "nowhere", nullptr, nullptr, nullptr), 0);
  EXPECT_TRUE(g_calls.log.empty());
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't append to mailbox nowhere: no such mailbox @2"});
}

// The pass-through calls keep their arguments in order; quota without a
// stream goes to the first driver; a closed stream calls no one.
TEST_F(MailCore, PassThroughCallsAndClosedStreams) {
  MailStream* s = Open();
  EXPECT_EQ(mail_copy(s, "1", "#test/a"), 1);
  EXPECT_EQ(mail_setacl(s, "#test/box", "fred", "lrs"), 1);
  EXPECT_EQ(mail_setquota(s, "", 1024, 50), 1);
  EXPECT_EQ(mail_setquota(nullptr, "r", 10, 0), 1);
  EXPECT_EQ(g_calls.log, (std::vector<std::string>{"copy none 1>#test/a", "setacl stream #test/box fred lrs",
                                                   "setquota stream  1024 50", "setquota none r 10 0"}));
  MailHandle* h = mail_makehandle(s);
  Forget(s);
  mail_close(s);
  g_calls = Calls{};
  EXPECT_EQ(mail_ping(s), 0);
  EXPECT_EQ(mail_copy(s, "1", "#test/a"), 0);
  EXPECT_EQ(mail_setquota(s, "r", 1, 1), 0);
  mail_check(s);
  mail_expunge(s);
  mail_setflag(s, "1", "\\Seen");
  EXPECT_TRUE(g_calls.count.empty());
  mail_free_handle(&h);
}

// A reader that runs dry gives nothing, not a short text (the full one is
// checked through every fetch above).
TEST_F(MailCore, DefaultMailGetsRefusesAShortRead) {
  std::string shorter = "abc";
  Reader r{&shorter, 0};
  EXPECT_EQ(mail_gets(ReadFrom, &r, 10), nullptr);
}

// The stand-in drivers take no names and give their prototypes.
TEST_F(MailCore, StandInDriversRefuseEveryName) {
  mail_unlink_all();
  mail_link(&imap2driver);
  mail_link(&mhdriver);
  mail_link(&dawzdriver);
  // The mh driver is real; the other two still stand in and take nothing.
  mail_set_default_driver(&dawzdriver);
  for (MailDriver* d : {&imap2driver, &dawzdriver}) {
    SCOPED_TRACE(d->name);
    MailStream* p = d->open(nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p, d->prototype);
    EXPECT_EQ(p->driver, d);
    EXPECT_EQ(d->valid("INBOX"), nullptr);
    EXPECT_EQ(d->valid("{host}INBOX"), nullptr);
  }
  EXPECT_EQ(mail_open(nullptr, "{host}INBOX", 0), nullptr);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't open mailbox {host}INBOX: invalid remote specification @2"});
  long no_auth = 1;
  EXPECT_EQ(mail_parameters(nullptr, 112, &no_auth), nullptr);
  EXPECT_EQ(mail_create(nullptr, "newbox"), 0);
  mail_env_clear();
  EXPECT_EQ(mail_append(nullptr, "newbox", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(Logs(), std::vector<std::string>{"Can't append to mailbox newbox: no such mailbox @2"});
}

}  // namespace
