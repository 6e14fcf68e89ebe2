// The mail layer's records: dates of elements, copies, texts, ordering.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"
#include "tests/c-client/core/records_dump.h"

namespace {

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
