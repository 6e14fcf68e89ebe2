// Date texts, arbitrary bytes, through both date parsers. A date the strict
// parser accepts has fields in range and reads back the same from its
// canonical form; the free parser's order is consistent.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/core/plain_env.h"
#include "c-client/rfc822/rfc822.h"
#include "tests/fuzz/fuzz_util.h"

namespace {

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  mail_env_clear();
  const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();

  MessageElt e{}, again{};
  if (mail_parse_date(&e, text.c_str())) {
    Check(e.month >= 1 && e.month <= 12 && e.day >= 1 && e.day <= 31);
    Check(e.hours <= 23 && e.minutes <= 59 && e.seconds <= 60 && e.zone_minutes <= 59);
    char canonical[64];
    std::snprintf(canonical, sizeof canonical, "%u-%s-%u %02u:%02u:%02u %c%02u%02u", e.day, kMonths[e.month - 1],
                  e.year + 1969u, e.hours, e.minutes, e.seconds, e.zone_west ? '-' : '+', e.zone_hours, e.zone_minutes);
    Check(mail_parse_date(&again, canonical) == 1);
    Check(e.year == again.year && e.month == again.month && e.day == again.day && e.hours == again.hours &&
          e.minutes == again.minutes && e.seconds == again.seconds && e.zone_west == again.zone_west &&
          e.zone_hours == again.zone_hours && e.zone_minutes == again.zone_minutes);
  }

  DateFields f;
  parse_date_fields(text.c_str(), &f);
  Check(f.month == -1 || (f.month >= 1 && f.month <= 12));
  Check(f.weekday >= -1 && f.weekday <= 6);
  Check(std::memchr(f.zone_name, 0, sizeof f.zone_name) != nullptr);
  // The order is an order: a date equals itself, and swapping flips it.
  static const char kFixed[] = "Sat, 1 Jan 2000 12:00:00 +0000";
  Check(compare_message_dates(text.c_str(), text.c_str()) == 0);
  Check(compare_message_dates(text.c_str(), kFixed) == -compare_message_dates(kFixed, text.c_str()));
  mail_env_clear();
  return 0;
}
