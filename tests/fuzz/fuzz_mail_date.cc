// Date texts, arbitrary bytes, through both date parsers. A date the strict
// parser accepts has fields in range and reads back the same from its
// canonical form; the free parser's order is consistent.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"

namespace {

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool SameDate(const MessageElt& a, const MessageElt& b) {
  return a.year == b.year && a.month == b.month && a.day == b.day && a.hours == b.hours && a.minutes == b.minutes &&
         a.seconds == b.seconds && a.zone_west == b.zone_west && a.zone_hours == b.zone_hours &&
         a.zone_minutes == b.zone_minutes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  mail_env_clear();
  std::string text(reinterpret_cast<const char*>(data), size);
  text = text.substr(0, text.find('\0'));

  MessageElt elt{};
  if (mail_parse_date(&elt, text.c_str())) {
    Check(elt.month >= 1 && elt.month <= 12 && elt.day >= 1 && elt.day <= 31);
    Check(elt.hours <= 23 && elt.minutes <= 59 && elt.seconds <= 60 && elt.zone_minutes <= 59);
    char canonical[64];
    std::snprintf(canonical, sizeof canonical, "%u-%s-%u %02u:%02u:%02u %c%02u%02u", elt.day, kMonths[elt.month - 1],
                  elt.year + 1969u, elt.hours, elt.minutes, elt.seconds, elt.zone_west ? '-' : '+', elt.zone_hours,
                  elt.zone_minutes);
    MessageElt again{};
    Check(mail_parse_date(&again, canonical) == 1);
    Check(SameDate(elt, again));
  }

  DateFields f;
  parse_date_fields(text.c_str(), &f);
  Check(f.month == -1 || (f.month >= 1 && f.month <= 12));
  Check(f.weekday >= -1 && f.weekday <= 6);
  Check(f.zone_name[sizeof f.zone_name - 1] == '\0' || std::strlen(f.zone_name) < sizeof f.zone_name);
  // The order is an order: a date equals itself, and swapping flips it.
  static const char kFixed[] = "Sat, 1 Jan 2000 12:00:00 +0000";
  Check(compare_message_dates(text.c_str(), text.c_str()) == 0);
  Check(compare_message_dates(text.c_str(), kFixed) == -compare_message_dates(kFixed, text.c_str()));
  mail_env_clear();
  return 0;
}
