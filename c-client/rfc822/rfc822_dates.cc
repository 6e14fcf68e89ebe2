// Dates: the strict parser of internal dates ("dd-Mon-yyyy hh:mm:ss
// +zzzz", and the local drivers' "-ZZZ" form), the free parser of Date
// headers, and the comparison that sorts messages by them.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "c-client/rfc822/rfc822.h"

namespace {

const char* const kMonths[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
const char* const kWeekdays[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};

bool is_alpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
char up(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

// Three letters packed into one number, upper-cased, for comparison.
unsigned pack3(const char* s) {
  return (static_cast<unsigned char>(up(s[0])) << 16) | (static_cast<unsigned char>(up(s[1])) << 8) |
         static_cast<unsigned char>(up(s[2]));
}

// 1 to 12 for a month name's first three letters, 0 if none.
int month_of(const char* s) {
  if (!is_alpha(s[0]) || !is_alpha(s[1]) || !is_alpha(s[2])) return 0;
  unsigned key = pack3(s);
  for (int i = 0; i < 12; ++i)
    if (pack3(kMonths[i]) == key) return i + 1;
  return 0;
}

int weekday_of(const char* s) {
  if (!is_alpha(s[0]) || !is_alpha(s[1]) || !is_alpha(s[2])) return -1;
  unsigned key = pack3(s);
  for (int i = 0; i < 7; ++i)
    if (pack3(kWeekdays[i]) == key) return i;
  return -1;
}

// Reads digits; values beyond nine digits stay at the ninth (the rest is
// read and dropped), so no input overflows. -1 if there is no digit.
long number(const char** s) {
  const char* p = *s;
  if (!is_digit(*p)) return -1;
  long v = 0;
  int n = 0;
  for (; is_digit(*p); ++p)
    if (n++ < 9) v = v * 10 + (*p - '0');
  *s = p;
  return v;
}

bool leap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }
int days_in_month(long y, int m) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && leap(y) ? 29 : kDays[m - 1];
}

// The machine's offset east of Greenwich in minutes, within a day's half.
int local_offset_minutes() {
  time_t now = std::time(nullptr);
  struct tm tm;
  if (!localtime_r(&now, &tm)) return 0;
  long minutes = tm.tm_gmtoff / 60;
  if (minutes > 720) minutes = 720;
  if (minutes < -720) minutes = -720;
  return static_cast<int>(minutes);
}

// Named zones of the strict parser. keep_sign: the zone's sign bit is left
// as the element had it (east zones and Greenwich only set the hours).
struct NamedZone {
  const char* name;
  int hours;
  bool keep_sign;
};
const NamedZone kStrictZones[] = {
    {"UT", 0, true},    {"GMT", 0, true},   {"Z", 0, true},     {"MET", 1, true},   {"EET", 2, true},
    {"JST", 9, true},   {"AST", -4, false}, {"ADT", -3, false}, {"EST", -5, false}, {"EDT", -4, false},
    {"CST", -6, false}, {"CDT", -5, false}, {"MST", -7, false}, {"MDT", -6, false}, {"PST", -8, false},
    {"PDT", -7, false}, {"YST", -9, false}, {"YDT", -8, false}, {"HST", -10, false}, {"BST", -11, false},
    {"BDT", -10, false},
};

// Looks a zone name up: false if it has none of its own (the caller then
// takes the machine's offset).
bool strict_zone(const char* name, int* hours, bool* keep_sign) {
  char u[4] = {0, 0, 0, 0};
  size_t n = std::strlen(name);
  for (size_t i = 0; i < n && i < 3; ++i) u[i] = up(name[i]);
  for (const NamedZone& z : kStrictZones)
    if (!std::strcmp(z.name, u)) {
      *hours = z.hours;
      *keep_sign = z.keep_sign;
      return true;
    }
  if (n == 1) {
    // Military letters: A to I and K to M east, N to Y west; J (local
    // time) and P have no entry.
    char c = u[0];
    if (c >= 'A' && c <= 'I') {
      *hours = c - 'A' + 1;
      *keep_sign = true;
      return true;
    }
    if (c >= 'K' && c <= 'M') {
      *hours = c - 'K' + 10;
      *keep_sign = true;
      return true;
    }
    if (c >= 'N' && c <= 'Y' && c != 'P') {
      *hours = -(c - 'N' + 1);
      *keep_sign = false;
      return true;
    }
  }
  return false;
}

}  // namespace

long mail_parse_date(MessageElt* elt, const char* text) {
  if (!elt || !text) return 0;
  const char* s = text;
  while (*s == ' ') ++s;
  if (weekday_of(s) >= 0 && s[3] == ',') {
    s += 4;
    while (*s == ' ') ++s;
  }
  long day = number(&s);
  long month = 0;
  long year = 0;
  if (day < 0) return 0;
  if (*s == '/') {
    // Numeric form: month/day/year, and nothing after it.
    month = day;
    ++s;
    day = number(&s);
    if (*s++ != '/') return 0;
    year = number(&s);
    if (*s) return 0;
  } else if (*s == ' ' || *s == '-') {
    ++s;
    month = month_of(s);
    if (!month) return 0;
    s += 3;
    if (*s != ' ' && *s != '-') return 0;
    ++s;
    year = number(&s);
  } else {
    return 0;
  }
  if (year < 0) return 0;
  if (year < 69)
    year += 2000;
  else if (year < 100)
    year += 1900;
  if (month < 1 || month > 12 || day < 1 || year < 1969 || year > 1969 + 127) return 0;
  if (day > days_in_month(year, static_cast<int>(month))) return 0;

  long hours = 0, minutes = 0, seconds = 0;
  int zone = 0;         // minutes east
  bool set_sign = true;  // false: the element keeps its sign bit
  bool minus_zero = false;  // "-0000": no offset, but written as west
  if (*s) {
    if (*s++ != ' ') return 0;
    hours = number(&s);
    if (hours < 0 || *s++ != ':') return 0;
    minutes = number(&s);
    if (minutes < 0 || *s++ != ':') return 0;
    seconds = number(&s);
    if (seconds < 0 || hours > 23 || minutes > 59 || seconds > 60) return 0;
    if (*s == ' ' && (s[1] == '+' || s[1] == '-')) {
      // A numeric zone: sign and exactly four digits.
      bool west = s[1] == '-';
      s += 2;
      for (int i = 0; i < 4; ++i)
        if (!is_digit(s[i])) return 0;
      int zh = (s[0] - '0') * 10 + (s[1] - '0');
      int zm = (s[2] - '0') * 10 + (s[3] - '0');
      s += 4;
      if (*s || zh > 15 || zm > 59) return 0;
      zone = (west ? -1 : 1) * (zh * 60 + zm);
      minus_zero = west && !zone;
    } else if (*s == '-' && is_alpha(s[1])) {
      // The local drivers' "-ZZZ": a name of one to three letters.
      ++s;
      size_t n = 0;
      while (is_alpha(s[n])) ++n;
      if (n > 3 || s[n]) return 0;
      int zh;
      bool keep;
      if (strict_zone(s, &zh, &keep)) {
        zone = zh * 60;
        set_sign = !keep;
      } else {
        zone = local_offset_minutes();
      }
    } else if (*s) {
      return 0;
    }
  }
  elt->day = static_cast<unsigned>(day);
  elt->month = static_cast<unsigned>(month);
  elt->year = static_cast<unsigned>(year - 1969);
  elt->hours = static_cast<unsigned>(hours);
  elt->minutes = static_cast<unsigned>(minutes);
  elt->seconds = static_cast<unsigned>(seconds);
  int magnitude = zone < 0 ? -zone : zone;
  elt->zone_hours = static_cast<unsigned>(magnitude / 60);
  elt->zone_minutes = static_cast<unsigned>(magnitude % 60);
  if (set_sign) elt->zone_west = (zone < 0 || minus_zero) ? 1 : 0;
  return 1;
}

// --- The free parser ---------------------------------------------------------

namespace {

struct FreeZone {
  const char* name;
  int minutes;
};
// "ist" stands at +2 on purpose: sorted lists have always placed it there.
const FreeZone kFreeZones[] = {
    {"gmt", 0},    {"pst", -480}, {"pdt", -420}, {"mst", -420}, {"mdt", -360}, {"cst", -360},
    {"cdt", -300}, {"est", -300}, {"edt", -240}, {"ist", 120},  {"jst", 540},
};

void skip_separators(const char** s) {
  while (**s == ' ' || **s == '\t' || **s == ',' || **s == '-' || **s == '\r' || **s == '\n') ++*s;
}
void skip_blanks(const char** s) {
  while (**s == ' ' || **s == '\t' || **s == ',' || **s == '\r' || **s == '\n') ++*s;
}
void skip_word(const char** s) {
  while (is_alpha(**s) || **s == '.') ++*s;
}
// A number that a colon follows is a time, not a date field.
bool at_time(const char* s) {
  while (is_digit(*s)) ++s;
  return *s == ':';
}
long adjust_year(long y) {
  if (y < 50) return y + 2000;
  if (y < 100) return y + 1900;
  return y;
}

}  // namespace

void parse_date_fields(const char* text, DateFields* out) {
  out->weekday = out->day = out->month = out->year = -1;
  out->hour = out->minute = out->second = -1;
  // A missing zone reads as Greenwich: -1 would be a real offset.
  out->zone_minutes = 0;
  std::strcpy(out->zone_name, "???");
  if (!text) return;
  const char* s = text;
  skip_separators(&s);
  if (is_alpha(*s)) {
    int wd = weekday_of(s);
    if (wd >= 0) {
      out->weekday = wd;
      skip_word(&s);
      skip_separators(&s);
    }
  }
  // Day and month, in either order.
  if (is_digit(*s) && !at_time(s)) {
    out->day = static_cast<int>(number(&s));
    skip_separators(&s);
    if (int m = month_of(s)) {
      out->month = m;
      skip_word(&s);
    }
  } else if (int m = month_of(s)) {
    out->month = m;
    skip_word(&s);
    skip_separators(&s);
    if (is_digit(*s) && !at_time(s)) out->day = static_cast<int>(number(&s));
  }
  skip_separators(&s);
  if (is_digit(*s) && !at_time(s)) {
    out->year = static_cast<int>(adjust_year(number(&s)));
    skip_blanks(&s);
  }
  if (is_digit(*s) && at_time(s)) {
    out->hour = static_cast<int>(number(&s));
    ++s;  // the colon
    if (is_digit(*s)) {
      out->minute = static_cast<int>(number(&s));
      if (*s == ':' && is_digit(s[1])) {
        ++s;
        out->second = static_cast<int>(number(&s));
      }
    }
    skip_blanks(&s);
  }
  // The C library's form puts the year after the time.
  if (out->year < 0 && is_digit(*s)) {
    out->year = static_cast<int>(adjust_year(number(&s)));
    skip_blanks(&s);
  }
  if ((*s == '+' || *s == '-') && is_digit(s[1]) && is_digit(s[2]) && is_digit(s[3]) && is_digit(s[4])) {
    int minutes = ((s[1] - '0') * 10 + (s[2] - '0')) * 60 + (s[3] - '0') * 10 + (s[4] - '0');
    out->zone_minutes = *s == '-' ? -minutes : minutes;
    std::memcpy(out->zone_name, s, 5);
    out->zone_name[5] = '\0';
  } else if (is_alpha(*s)) {
    size_t n = 0;
    while (is_alpha(s[n])) ++n;
    if (n >= 3) {
      char key[4] = {static_cast<char>(std::tolower(static_cast<unsigned char>(s[0]))),
                     static_cast<char>(std::tolower(static_cast<unsigned char>(s[1]))),
                     static_cast<char>(std::tolower(static_cast<unsigned char>(s[2]))), 0};
      for (const FreeZone& z : kFreeZones)
        if (!std::strcmp(z.name, key)) {
          out->zone_minutes = z.minutes;
          size_t k = n < sizeof out->zone_name - 1 ? n : sizeof out->zone_name - 1;
          std::memcpy(out->zone_name, s, k);
          out->zone_name[k] = '\0';
          break;
        }
    }
  }
}

namespace {

// Days since 1970-01-01 of a proleptic Gregorian date (any day number).
int64_t days_from_civil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civil_from_days(int64_t z, int64_t* y, int64_t* m, int64_t* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp + (mp < 10 ? 3 : -9);
  *y = yoe + era * 400 + (*m <= 2);
}

// The fields brought to Greenwich, year first. A date without year, month
// or day can't be moved and is compared as written.
void gmt_key(const DateFields& f, int64_t key[6]) {
  if (f.year < 0 || f.month < 1 || f.day < 0) {
    const int raw[6] = {f.year, f.month, f.day, f.hour, f.minute, f.second};
    for (int i = 0; i < 6; ++i) key[i] = raw[i];
    return;
  }
  int64_t t = days_from_civil(f.year, f.month, f.day) * 86400 + int64_t{f.hour < 0 ? 0 : f.hour} * 3600 +
              int64_t{f.minute < 0 ? 0 : f.minute} * 60 + (f.second < 0 ? 0 : f.second) -
              int64_t{f.zone_minutes} * 60;
  int64_t days = t >= 0 ? t / 86400 : -((-t + 86399) / 86400);
  int64_t rest = t - days * 86400;
  civil_from_days(days, &key[0], &key[1], &key[2]);
  key[3] = rest / 3600;
  key[4] = rest / 60 % 60;
  key[5] = rest % 60;
}

}  // namespace

int compare_message_dates(const char* a, const char* b) {
  if (!a) return b ? -1 : 0;
  if (!b) return 1;
  DateFields fa, fb;
  parse_date_fields(a, &fa);
  parse_date_fields(b, &fb);
  int64_t ka[6], kb[6];
  gmt_key(fa, ka);
  gmt_key(fb, kb);
  for (int i = 0; i < 6; ++i)
    if (ka[i] != kb[i]) return ka[i] > kb[i] ? 1 : -1;
  return 0;
}
