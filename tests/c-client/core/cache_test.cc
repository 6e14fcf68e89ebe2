// The message cache on bare streams: element life, the flush and its cut,
// expunge renumbering, the dump, and what a flush costs on a big mailbox.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/env_lines.h"

namespace {

class Cache : public ::testing::Test {
 protected:
  void SetUp() override {
    mail_env_clear();
    mailcache = mm_cache;
  }
  void TearDown() override {
    for (MailStream* s : streams_) {
      mm_cache(s, 0, CH_INIT);
      FS_GIVE(&s);
    }
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

  static std::vector<unsigned long> Holders(MailStream* s) {
    std::vector<unsigned long> out;
    for (unsigned long i = 1; i <= s->cachesize; ++i)
      if (MessageElt* e = s->cache[i - 1]; e && (e->envelope || e->body || e->header_text || e->body_text))
        out.push_back(i);
    return out;
  }

  static std::vector<std::string> Dlogs() { return EnvLines("dlog"); }
  static bool Logged(const std::string& text) { return EnvSaid("dlog", text); }

  std::vector<MailStream*> streams_;
};

TEST_F(Cache, SizeGrowsInStepsAndKeepsElements) {
  MailStream* s = NewStream(5);
  EXPECT_EQ(s->cachesize, 105u);
  MessageElt* kept = Elt(s, 105);
  mm_cache(s, 105, CH_SIZE);  // big enough already: nothing
  EXPECT_EQ(s->cachesize, 105u);
  mm_cache(s, 106, CH_SIZE);
  EXPECT_EQ(s->cachesize, 206u);
  EXPECT_EQ(Elt(s, 105, CH_ELT), kept);
  for (unsigned long i = 106; i <= 206; ++i) EXPECT_EQ(s->cache[i - 1], nullptr);
}

TEST_F(Cache, ElementsTouchesAndShortElements) {
  MailStream* s = NewStream(10);
  EXPECT_EQ(Elt(s, 3, CH_ELT), nullptr);
  EXPECT_EQ(Elt(s, 3, CH_LELT), nullptr);
  MessageElt* e = Elt(s, 3, CH_MAKEELT);
  ASSERT_NE(e, nullptr);
  EXPECT_TRUE(e->is_long);  // a normal stream gives long elements
  EXPECT_EQ(e->msgno, 3u);
  EXPECT_EQ(e->lockcount, 1u);
  EXPECT_EQ(e->lastref, 1u);
  // Touching the same element again costs nothing.
  EXPECT_EQ(Elt(s, 3, CH_ELT), e);
  EXPECT_EQ(Elt(s, 3, CH_LELT), e);
  EXPECT_EQ(s->cacheref, 1u);
  EXPECT_EQ(Elt(s, 4)->lastref, 2u);
  EXPECT_EQ(Elt(s, 3, CH_ELT)->lastref, 3u);
  EXPECT_THROW(mm_cache(s, 3, 99), MailFatal);
  EXPECT_EQ(mail_env_lines().back().text, "Bad mm_cache op");

  MailStream* shortc = NewStream(10, true);
  e = Elt(shortc, 2, CH_MAKEELT);
  EXPECT_FALSE(e->is_long);
  EXPECT_EQ(Elt(shortc, 2, CH_ELT), e);
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
  mm_cache(s, 4, CH_FREE);  // absent: nothing at all

  Fill(s, 5);
  e = Elt(s, 5);
  e->body = mail_newbody();
  e->header_text = mail_newtext();
  s->msgno = 5;
  s->env = e->envelope;
  s->header_text = e->header_text;
  mm_cache(s, 5, CH_GC);
  EXPECT_EQ(Elt(s, 5, CH_ELT), e);
  EXPECT_EQ(e->envelope, nullptr);
  EXPECT_EQ(e->body, nullptr);
  EXPECT_EQ(e->header_text, nullptr);
  EXPECT_EQ(s->cachecount, 0u);
  // The stream's mirrors of the freed data are gone with it.
  EXPECT_EQ(s->env, nullptr);
  EXPECT_EQ(s->header_text, nullptr);
  mm_cache(s, 5, CH_GC);  // holds nothing now
  mm_cache(s, 6, CH_GC);  // absent
  EXPECT_EQ(s->cachecount, 0u);
}

// Nothing is flushed with the high-water mark at 0, nor when the holders
// are at or below the low-water mark whatever the count says.
TEST_F(Cache, FlushingOffOrNothingAboveLowWater) {
  for (auto [high, filled] : {std::pair{0ul, 500ul}, {400ul, 200ul}}) {
    MailStream* s = NewStream(600);
    s->cachehigh = high;
    for (unsigned long i = 1; i <= filled; ++i) Fill(s, i);
    s->cachecount = 450;  // the local driver counts fetches, not messages
    Elt(s, 300);
    Elt(s, 301);
    EXPECT_EQ(Holders(s).size(), filled) << high;
    EXPECT_EQ(s->cachecount, 450u) << high;
  }
}

// The flush ranks holders with a comparison that calls every pair equal, so
// under a stable sort the cut falls at the holder cachelow places from the
// end in slot order, whatever the age of the others.
TEST_F(Cache, FlushCutsInSlotOrder) {
  struct Row {
    bool ascending;  // holders touched from slot 1 up, or from slot 210 down
    std::vector<unsigned long> kept;
  };
  std::vector<unsigned long> first_ten, all_but_first_eleven;
  for (unsigned long i = 1; i <= 10; ++i) first_ten.push_back(i);
  for (unsigned long i = 12; i <= 210; ++i) all_but_first_eleven.push_back(i);
  Row rows[] = {{true, all_but_first_eleven}, {false, first_ten}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.ascending ? "ascending" : "descending");
    MailStream* s = NewStream(300);
    for (unsigned long k = 0; k < 210; ++k) Fill(s, r.ascending ? k + 1 : 210 - k);
    ASSERT_EQ(s->cachecount, 210u);
    s->cachehigh = 209;
    mail_env_clear();
    Elt(s, 250);  // one touch past the mark
    EXPECT_EQ(Holders(s), r.kept);
    EXPECT_EQ(s->cachecount, r.kept.size());
    auto d = Dlogs();
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(d.back(), "mm_cache: Cache garbage collection completed.");
    // Collected in slot order.
    unsigned long first_gone = r.ascending ? 1 : 11;
    EXPECT_EQ(d.front(), "mm_cache: CH_GC - garbage collected cache element " + std::to_string(first_gone));
    EXPECT_EQ(d.size(), 210 - r.kept.size() + 1);
  }
}

TEST_F(Cache, FlushUnderDebugDumpsBeforeAndAfter) {
  MailStream* s = NewStream(300);
  for (unsigned long i = 1; i <= 202; ++i) Fill(s, i);
  s->cachehigh = 201;
  s->debug = 1;
  mail_env_clear();
  Elt(s, 203);
  auto d = Dlogs();
  EXPECT_EQ(std::count(d.begin(), d.end(), "mm_cache: CH_DUMP"), 2);
  EXPECT_EQ(Holders(s).front(), 4u);
}

TEST_F(Cache, BigCacheEmptiesEverythingButTheTouchedElement) {
  MailStream* s = NewStream(4901);
  ASSERT_EQ(s->cachesize, 5001u);
  for (unsigned long i = 1; i <= 400; ++i) Fill(s, i * 10);
  ASSERT_EQ(s->cachecount, 400u);
  EXPECT_EQ(Holders(s).size(), 400u);  // at the mark, not past it
  MessageElt* mine = Elt(s, 1230);     // a caller is working on this one
  ++s->cachecount;                     // ... and the count passes the mark
  Elt(s, 1230);                        // the touch that finds it past the mark
  EXPECT_EQ(Holders(s), std::vector<unsigned long>{1230});
  ASSERT_NE(mine->envelope, nullptr);
  EXPECT_STREQ(mine->envelope->subject, "subject");
  EXPECT_TRUE(Logged("mm_cache: Cache garbage collection completed."));
  // The next touch elsewhere may take it too.
  s->cachecount = 401;
  Elt(s, 7);
  EXPECT_TRUE(Holders(s).empty());
}

// A driver may store into an element after touching a few others (flags
// of other messages arriving meanwhile); the flush must still see the data.
TEST_F(Cache, DataStoredAfterLaterTouchesIsStillCollected) {
  MailStream* s = NewStream(6000);
  s->cachecount = 1000;  // every touch flushes
  s->cachehigh = 10;
  MessageElt* a = Elt(s, 1);
  for (unsigned long i = 2; i <= 20; ++i) Elt(s, i);
  a->envelope = mail_newenvelope();
  Elt(s, 21);
  EXPECT_EQ(a->envelope, nullptr);
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
  EXPECT_EQ(s->cacheref, before + 3);
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
  auto d = Dlogs();
  ASSERT_EQ(d.size(), 8u + 101u + 2u);
  EXPECT_EQ(d[0], "mm_cache: CH_DUMP");
  EXPECT_EQ(d[1], "\tcachesize = 101");
  EXPECT_EQ(d[3], "\tcacheref = 2");
  EXPECT_EQ(d[6], "\tnmsgs = 1");
  EXPECT_EQ(d[9], "\telement = 1 - lastref = 1, msgno = 1");
  EXPECT_EQ(d[10], "\telement = 2 - NULL");
  EXPECT_EQ(d[11], "\telement = 3 - lastref = 2, msgno = 3");
  // 52 + (56 + 3 + 24 + 3 + 5) + (56 + 5) + 10, and 52 for the empty one.
  EXPECT_EQ(d.back(), "mm_cache: CH_DUMP - total bytes consumed by this stream = 266");

  MailStream* shortc = NewStream(1, true);
  Elt(shortc, 1, CH_MAKEELT);
  Elt(shortc, 2, CH_MAKEELT);
  mail_env_clear();
  mm_cache(shortc, 0, CH_DUMP);
  EXPECT_EQ(Dlogs().back(), "mm_cache: CH_DUMP - total bytes consumed by this stream = 72");
}

// A long session on a big mailbox: every message fetched once in order,
// then read at random with a driver that counts every fetch, then flags
// read for all. The flush may only ever look at what holds data (plus the
// elements touched since it last looked).
TEST_F(Cache, FlushCostStaysBoundedOnAHundredThousandMessages) {
  constexpr unsigned long kMessages = 100000;
  MailStream* s = NewStream(kMessages);
  ASSERT_GE(s->cachesize, kCacheBig);
  unsigned long long start = mm_cache_work();
  unsigned long long worst_call = 0;
  unsigned long max_holders = 0;
  auto Step = [&](auto&& body) {
    unsigned long long before = mm_cache_work();
    body();
    worst_call = std::max(worst_call, mm_cache_work() - before);
  };
  for (unsigned long i = 1; i <= kMessages; ++i) {
    Step([&] { Fill(s, i); });
    if (i % 5000 == 0) {
      max_holders = std::max<unsigned long>(max_holders, Holders(s).size());
      mail_env_clear();
    }
  }
  unsigned long x = 12345;
  for (unsigned long k = 0; k < kMessages; ++k) {
    x = x * 1103515245 + 12345;
    unsigned long msgno = 1 + (x >> 8) % kMessages;
    Step([&] {
      Fill(s, msgno);
      ++s->cachecount;  // counted again although cached
    });
    if (k % 5000 == 0) mail_env_clear();
  }
  for (unsigned long i = 1; i <= kMessages; ++i) {
    Step([&] { Elt(s, i, CH_ELT)->seen = 1; });
    if (i % 5000 == 0) mail_env_clear();
  }
  unsigned long long total = mm_cache_work() - start;
  EXPECT_LE(max_holders, s->cachehigh + 1);
  // A walk over every element would cost thousands per touch here.
  EXPECT_LE(total, 100 * 3 * kMessages) << "flush work per touch is not bounded";
  EXPECT_LE(worst_call, 4 * s->cachehigh + 2048) << "one touch looked at far more than the cached messages";
}

// The same for a mailbox small enough to rank its holders.
TEST_F(Cache, RankedFlushKeepsAboutTheLowWaterMark) {
  MailStream* s = NewStream(4000);
  ASSERT_LT(s->cachesize, kCacheBig);
  unsigned long long start = mm_cache_work();
  for (int pass = 0; pass < 3; ++pass)
    for (unsigned long i = 1; i <= 4000; ++i) {
      Fill(s, i);
      EXPECT_LE(Holders(s).size(), s->cachehigh + 1) << "at " << i;
      if (i % 1000 == 0) mail_env_clear();
      if (HasFailure()) return;
    }
  EXPECT_LE(mm_cache_work() - start, 20ull * 12000);
}

}  // namespace
