// The date parsers: the strict one of internal dates (with its zone table and sign quirk), the free one of Date
// headers, and the ordering of Date headers in time.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"

namespace {

// The strict parser on a fresh element: "refused" or the date as "yyyy-mm-dd hh:mm:ss +hhmm".
std::string Strict(const char* text, bool west_before = false) {
  MessageElt elt{};
  elt.zone_west = west_before;
  if (!mail_parse_date(&elt, text)) return "refused";
  char out[64];
  std::snprintf(out, sizeof out, "%04u-%02u-%02u %02u:%02u:%02u %c%02u%02u", elt.year + 1969u, elt.month, elt.day,
                elt.hours, elt.minutes, elt.seconds, elt.zone_west ? '-' : '+', elt.zone_hours, elt.zone_minutes);
  return out;
}

// The machine's zone for the duration of a test.
struct ZoneGuard {
  const char* old = std::getenv("TZ");  // only whether there was one
  std::string saved = old ? old : "";
  explicit ZoneGuard(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ZoneGuard() {
    old ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
  }
};

TEST(MailParseDate, Table) {
  ZoneGuard tz("<+0330>-3:30");  // a machine at +03:30
  const std::pair<const char*, const char*> cases[] = {
      {"1-Jan-70 00:00:00 +0000", "1970-01-01 00:00:00 +0000"}, {"1/2/97", "1997-01-02 00:00:00 +0000"},
      {"17-Jul-1996 02:44:25 -0700", "1996-07-17 02:44:25 -0700"},
      {" 5-Mar-2001 23:59:59 +0930", "2001-03-05 23:59:59 +0930"},
      {"Mon, 13 Dec 1997 10:00:00 +0100", "1997-12-13 10:00:00 +0100"}, {"13 dec 1997", "1997-12-13 00:00:00 +0000"},
      {"1-Jan-68 00:00:00 +0000", "2068-01-01 00:00:00 +0000"},
      {"1-Jan-69 00:00:00 +0000", "1969-01-01 00:00:00 +0000"},
      {"1-Jan-99 00:00:00 +0000", "1999-01-01 00:00:00 +0000"},
      {"1-Jan-1969 00:00:00 -0000", "1969-01-01 00:00:00 -0000"},
      {"29-Feb-2000 12:00:00 +0000", "2000-02-29 12:00:00 +0000"},
      // Refused.
      {"1-Jan-100 00:00:00 +0000", "refused"}, {"Sat, 1 Jan 2000 00:00:00 PST", "refused"},
      {"1/2/97 10:00:00", "refused"}, {"1-Jan-2000 10:00", "refused"}, {"1-Jan-2000 10:00:00 +05", "refused"},
      {"1-Jan-2000 10:00:00 +05000", "refused"}, {"1-Jan-2000 10:00:00-ESTX", "refused"},
      {"1-Jan-2000 24:00:00 +0000", "refused"}, {"32-Jan-2000", "refused"}, {"29-Feb-2001", "refused"},
      {"1-Foo-2000", "refused"}, {"1-Jan-1968", "refused"}, {"1-Jan-2097", "refused"}, {"13/1/2000", "refused"},
      {"Xyz, 1-Jan-2000", "refused"}, {"", "refused"}, {"1 Jan", "refused"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(Strict(text), want) << text;
  // The local drivers' "-ZONE" form, on a fresh element and on one whose last date was west: east zones, Greenwich
  // and A to M leave the sign bit as it was; J, P and names not in the table take the machine's offset.
  const struct { const char *zone, *fresh, *west; } zones[] = {
      {"EST", "-0500", "-0500"}, {"pdt", "-0700", "-0700"}, {"BST", "-1100", "-1100"}, {"GMT", "+0000", "-0000"},
      {"UT", "+0000", "-0000"},  {"JST", "+0900", "-0900"}, {"MET", "+0100", "-0100"}, {"A", "+0100", "-0100"},
      {"I", "+0900", "-0900"},   {"K", "+1000", "-1000"},   {"M", "+1200", "-1200"},   {"N", "-0100", "-0100"},
      {"Y", "-1200", "-1200"},   {"Z", "+0000", "-0000"},   {"J", "+0330", "+0330"},   {"P", "+0330", "+0330"},
      {"XYZ", "+0330", "+0330"},
  };
  for (const auto& z : zones) {
    const std::string text = std::string("12-Dec-1997 10:00:00-") + z.zone;
    EXPECT_EQ(Strict(text.c_str()), std::string("1997-12-12 10:00:00 ") + z.fresh) << text;
    EXPECT_EQ(Strict(text.c_str(), true), std::string("1997-12-12 10:00:00 ") + z.west) << text << " (west before)";
  }
  EXPECT_EQ(Strict("12-Dec-1997 10:00:00 +0100", true), "1997-12-12 10:00:00 +0100");
}

TEST(MailParseDate, MachineOffsetIsBounded) {
  for (auto [zone, want] :
       {std::pair{"<+14>-14", "2000-01-01 00:00:00 +1200"}, {"<-0230>2:30", "2000-01-01 00:00:00 -0230"}}) {
    ZoneGuard tz(zone);
    EXPECT_EQ(Strict("1-Jan-2000 00:00:00-J"), want) << zone;
  }
}

TEST(MailParseDate, RefusalLeavesTheElementAlone) {
  MessageElt elt{};
  ASSERT_EQ(mail_parse_date(&elt, "2-Feb-2002 02:02:02 +0200"), 1);
  MessageElt before = elt;
  EXPECT_EQ(mail_parse_date(&elt, "3-Mar-2003 03:03:03 PST"), 0);
  EXPECT_EQ(std::memcmp(&before, &elt, sizeof elt), 0);
}

std::string Free(const char* text) {
  DateFields f;
  parse_date_fields(text, &f);
  char out[128];
  std::snprintf(out, sizeof out, "wd=%d %d/%d/%d %d:%d:%d zone=%d %s", f.weekday, f.year, f.month, f.day, f.hour,
                f.minute, f.second, f.zone_minutes, f.zone_name);
  return out;
}

TEST(ParseDateFields, Table) {
  const std::pair<const char*, const char*> cases[] = {
      {"Sat, 1 Jan 2000 00:00:00 PST", "wd=6 2000/1/1 0:0:0 zone=-480 PST"},
      {"Tue, 04 Feb 1997 17:53:24 -0500 (EST)", "wd=2 1997/2/4 17:53:24 zone=-300 -0500"},
      {"4 Feb 97 17:53 +0530", "wd=-1 1997/2/4 17:53:-1 zone=330 +0530"},
      {"Feb 4, 1997 5:06:07 edt", "wd=-1 1997/2/4 5:6:7 zone=-240 edt"},
      {"12-Dec-49 10:00:00 ist", "wd=-1 2049/12/12 10:0:0 zone=120 ist"},
      {"12-Dec-50 10:00:00 JST", "wd=-1 1950/12/12 10:0:0 zone=540 JST"},
      {"thursday, 1 jan 1998 10:00:00 Europe/Paris", "wd=4 1998/1/1 10:0:0 zone=0 ???"},
      {"Sat Jan  1 10:20:30 2000", "wd=6 2000/1/1 10:20:30 zone=0 ???"},
      {"1 Jan 2000 10:00:00 UT", "wd=-1 2000/1/1 10:0:0 zone=0 ???"},
      {"", "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???"}, {"garbage", "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???"},
      {"99999999999999999999 Jan 1", "wd=-1 2001/1/999999999 -1:-1:-1 zone=0 ???"},
  };
  for (const auto& [text, want] : cases) EXPECT_EQ(Free(text), want) << text;
  EXPECT_EQ(Free(nullptr), "wd=-1 -1/-1/-1 -1:-1:-1 zone=0 ???");
}

TEST(CompareMessageDates, Table) {
  const struct { const char *a, *b; int want; } cases[] = {
      {nullptr, nullptr, 0}, {nullptr, "Sat, 1 Jan 2000 00:00:00 +0000", -1},
      {"Sat, 1 Jan 2000 00:00:00 PST", "Sat, 1 Jan 2000 08:00:00 GMT", 0},
      {"Sat, 1 Jan 2000 00:00:00 -0800", "Sat, 1 Jan 2000 08:00:01 +0000", -1},
      {"Sat, 1 Jan 2000 00:30:00 +0100", "Fri, 31 Dec 1999 23:29:59 +0000", 1},
      {"1 Mar 2000 00:00:00 +0000", "29 Feb 2000 23:59:59 -0000", 1},
      {"Tue, 04 Feb 1997 17:53:24 -0500", "Tue, 04 Feb 1997 22:53:24 +0000", 0},
      {"1 Jan 2000", "2 Jan 2000", -1}, {"garbage", "1 Jan 1970", -1},
      {"1 Jan 1999 10:00:00 ist", "1 Jan 1999 08:00:00 gmt", 0},
  };
  for (const auto& c : cases)  // that the order is antisymmetric, the fuzz target checks
    EXPECT_EQ(compare_message_dates(c.a, c.b), c.want) << (c.a ? c.a : "null") << " / " << (c.b ? c.b : "null");
}

}  // namespace
