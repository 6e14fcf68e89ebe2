// The internal date of a message element as text: the IMAP form for
// APPEND and the ctime form for the "From " lines of local files.
#include <cstdio>

#include "c-client/core/mail.h"

namespace {

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
// Zeller's congruence counts from Saturday.
const char* const kWeekdays[] = {"Sat", "Sun", "Mon", "Tue", "Wed", "Thu", "Fri"};

constexpr int kYearBase = 1969;

int Weekday(int day, int month, int year) {
  // January and February count as months 13 and 14 of the year before.
  if (month < 3) {
    month += 12;
    --year;
  }
  int k = year % 100;
  int j = year / 100;
  int h = (day + (13 * (month + 1)) / 5 + k + k / 4 + j / 4 + 5 * j) % 7;
  return (h + 7) % 7;
}

}  // namespace

char* mail_date(char* buffer, MessageElt* elt) {
  // The four bits hold up to 15; a month outside the year is pinned to its
  // nearest end rather than read past the table.
  int month = static_cast<int>(elt->month);
  if (month < 1) month = 1;
  if (month > 12) month = 12;
  std::snprintf(buffer, kMailDateSize, "%2d-%s-%d %02d:%02d:%02d %c%02d%02d", static_cast<int>(elt->day),
                kMonths[month - 1], static_cast<int>(elt->year) + kYearBase, static_cast<int>(elt->hours),
                static_cast<int>(elt->minutes), static_cast<int>(elt->seconds), elt->zone_west ? '-' : '+',
                static_cast<int>(elt->zone_hours), static_cast<int>(elt->zone_minutes));
  return buffer;
}

char* mail_cdate(char* buffer, MessageElt* elt) {
  int day = static_cast<int>(elt->day);
  int month = static_cast<int>(elt->month);
  int year = static_cast<int>(elt->year) + kYearBase;
  const char* month_name = (month >= 1 && month <= 12) ? kMonths[month - 1] : "???";
  std::snprintf(buffer, kMailDateSize, "%s %s %2d %02d:%02d:%02d %4d\n", kWeekdays[Weekday(day, month, year)],
                month_name, day, static_cast<int>(elt->hours), static_cast<int>(elt->minutes),
                static_cast<int>(elt->seconds), year);
  return buffer;
}
