// The message cache on bare streams: element life, the flush and its cut,
// expunge renumbering, the dump, and what a flush costs on a big mailbox;
// and the records it holds: dates of elements, copies, texts, ordering.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"
#include "tests/c-client/core/records_dump.h"

namespace {

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
