// Who the user is on an outgoing message, and the names and stamps that
// make each message unique: date, message id, part delimiters.
#include <sys/random.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "c-client/rfc822/rfc822.h"
#include "src/base/cenv.h"
#include "src/base/trace.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/send/send.h"

namespace {

constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

long long g_clock = 0;

std::tm LocalTime() {
  const std::time_t now = g_clock ? static_cast<std::time_t>(g_clock) : std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  return tm;
}

char NextLetter() {
  static int letter = 0;
  const char c = static_cast<char>('A' + letter);
  letter = (letter + 1) % 26;
  return c;
}

unsigned int RandomBits() {
  unsigned int value = 0;
  if (getrandom(&value, sizeof value, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof value)) {
    static unsigned int state = static_cast<unsigned int>(std::time(nullptr)) ^ (static_cast<unsigned int>(getpid()) << 16);
    state = state * 1103515245u + 12345u;
    value = state;
  }
  return value;
}

// "user@host" (or "user", completed with the mail domain) as one address.
MailAddress* AddressOf(const std::string& text, const char* personal) {
  MailAddress* a = mail_newaddr();
  const size_t at = text.rfind('@');
  a->mailbox = cpystr(text.substr(0, at).c_str());
  a->host = cpystr(at == std::string::npos ? get_mail_domain().c_str() : text.substr(at + 1).c_str());
  if (personal && *personal) a->personal = cpystr(personal);
  return a;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.pop_back();
  size_t start = 0;
  while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) ++start;
  return text.substr(start);
}

}  // namespace

void send_set_clock_for_test_identity(long long seconds) { g_clock = seconds; }

MailAddress* get_from_address(int* authenticated) {
  Trace(kTraceCompose, kTraceAll, "get_from_address: function entry.\n");
  std::string from = Trimmed(Opt_LookupText("General.MailAddress", kOptSession));
  if (from.empty()) {
    from = Trimmed(Opt_LookupText("common.from", kOptSession));
    if (from.empty()) {
      xvt_dm_post_error("You must define a \"From\" address in your user options.");
      return nullptr;
    }
    if (authenticated) *authenticated = 1;
  }
  const std::string name = Opt_LookupText("General.Fullname", kOptSession);
  return AddressOf(from, name.c_str());
}

MailAddress* get_sender_address(int* authenticated) {
  const std::string common = Trimmed(Opt_LookupText("common.from", kOptSession));
  if (!common.empty() && Opt_GetReadonly("common.from") > 0) {
    if (authenticated) *authenticated = 1;
    return AddressOf(common, nullptr);
  }
  // The login of the first service that has one.
  for (int number = 0; number < 100; ++number) {
    const std::string key = "MsgService.ms" + std::to_string(number) + ".Userid";
    const std::string user = Trimmed(Opt_LookupText(key.c_str(), kOptSession));
    if (!user.empty()) return AddressOf(user, nullptr);
  }
  // No login anywhere (local folders only): the From address stands for
  // the sender, and verify_message then drops it as equal.
  return get_from_address(nullptr);
}

std::string get_mail_domain() {
  std::string domain = Trimmed(Opt_LookupText("common.domain", kOptSession));
  if (!domain.empty()) return domain;
  const std::string address = Opt_LookupText("General.MailAddress", kOptSession);
  const size_t at = address.rfind('@');
  if (at != std::string::npos && at + 1 < address.size()) return Trimmed(address.substr(at + 1));
  const char* host = CENV_GetRemoteHost();
  if (host && *host) return host;
  const char* env = std::getenv("MAILHOST");
  return env && *env ? env : "localhost";
}

std::string get_local_hostname() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0 || !name[0]) return "muahost";
  name[sizeof name - 1] = '\0';
  return name;
}

std::string get_message_id() {
  const std::tm tm = LocalTime();
  std::string host = get_local_hostname();
  if (host.empty()) host = "muahost";
  const std::string domain = get_mail_domain();
  if (!domain.empty() && host.find('.') == std::string::npos && domain != "localhost") host += "." + domain;
  char id[128];
  std::snprintf(id, sizeof id, "<VELMAR.%02d%02d%02d%02d%02d%02d.%c%d.%08x@", tm.tm_year % 100, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, NextLetter(), static_cast<int>(getpid()),
                RandomBits());
  return id + host + ">";
}

std::string get_part_delimiter() {
  const std::tm tm = LocalTime();
  char text[64];
  std::snprintf(text, sizeof text, "Part%02d%02d%02d%02d%02d.%c%08x", tm.tm_year % 100, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_sec, NextLetter(), RandomBits());
  return text;
}

std::string get_date_header() {
  const std::tm tm = LocalTime();
  const long offset = tm.tm_gmtoff / 60;  // minutes east, daylight saving included
  const long magnitude = offset < 0 ? -offset : offset;
  char text[96];
  std::snprintf(text, sizeof text, "%s, %d %s %d %02d:%02d:%02d %c%02ld%02ld (%.16s)", kDays[tm.tm_wday % 7],
                tm.tm_mday, kMonths[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec,
                offset < 0 ? '-' : '+', magnitude / 60, magnitude % 60, tm.tm_zone ? tm.tm_zone : "???");
  return text;
}
