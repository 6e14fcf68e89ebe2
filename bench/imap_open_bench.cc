// imap_open_bench: how fast a large IMAP folder opens with what a folder
// list shows, against a private Dovecot, and what it costs in memory.
//
//   imap_open_bench [COUNT]      (default 100000)
//
// Starts Dovecot with tests/peers/imap-dovecot.sh, seeds COUNT messages into
// the folder "Big" (once per server directory), then measures:
//   floor:  a minimal client of this program: connect, LOGIN, SELECT, then
//           the very FETCH commands the driver sent (recorded in a warm-up
//           run), one after the other as the driver sends them, reading the
//           bytes up to each tagged reply. It parses nothing, stores nothing,
//           probes nothing and does no TLS.
//   driver: mail_open (greeting, capability probe, LOGIN, SELECT) plus
//           mail_fetchstructure and the element (flags, size, internal date)
//           of every message in order, as a folder list fills itself: every
//           reply is parsed into the message cache while it is read.
// Each side runs once to warm up, then three times each in alternating
// order; the medians are printed, with their ratio and the heap (mallinfo2)
// that the open stream holds per message (elements, the cache's array and
// index, the envelopes the cache keeps).
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "c-client/core/mail.h"
#include "c-client/core/plain_env.h"

namespace {

using Clock = std::chrono::steady_clock;
double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

std::string Run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen((command + " 2>&1").c_str(), "r")) {
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, p)) out.append(buffer, n);
    ::pclose(p);
  }
  return out;
}

const std::string kScript = "bash '" VELMAR_SOURCE_DIR "/tests/peers/imap-dovecot.sh' ";

// --- The floor: a client that only moves bytes -------------------------------

struct Raw {
  int fd = -1;
  std::string buffer;
  bool Connect(int port) {
    fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  void Send(const std::string& s) { (void)!::write(fd, s.data(), s.size()); }
  // Reads until a line that starts with tag (or the first line when empty);
  // returns the bytes read.
  size_t Until(const std::string& tag) {
    size_t total = 0;
    std::string needle = "\r\n" + tag + " ";
    buffer.clear();
    char chunk[1 << 16];
    for (;;) {
      if (tag.empty() ? buffer.find("\r\n") != std::string::npos
                      : (buffer.compare(0, needle.size() - 2, needle.substr(2)) == 0 ||
                         buffer.find(needle) != std::string::npos))
        return total;
      // Keep only the tail that may hold the start of the tagged line.
      if (buffer.size() > needle.size()) buffer.erase(0, buffer.size() - needle.size());
      ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n <= 0) return total;
      total += static_cast<size_t>(n);
      buffer.append(chunk, static_cast<size_t>(n));
    }
  }
  void Close() { ::close(fd); }
};

double Floor(int port, const std::vector<std::string>& fetches, size_t* bytes) {
  auto start = Clock::now();
  Raw r;
  if (!r.Connect(port)) return -1;
  *bytes = r.Until("");
  r.Send("a1 LOGIN testuser secret\r\n");
  r.Until("a1");
  r.Send("a2 SELECT Big\r\n");
  r.Until("a2");
  int n = 3;
  for (const std::string& f : fetches) {
    std::string tag = "a" + std::to_string(n++);
    r.Send(tag + " " + f + "\r\n");
    *bytes += r.Until(tag);
  }
  double t = Seconds(start);
  r.Send("z LOGOUT\r\n");
  r.Close();
  return t;
}

// --- The driver ---------------------------------------------------------------

struct DriverResult {
  double seconds = 0;
  long heap = 0;  // bytes left in use by the open stream
  unsigned long nmsgs = 0;
  unsigned long checked = 0;  // messages whose subject and size were there
};

DriverResult Driver(const std::string& name, bool debug) {
  DriverResult out;
  mail_env_clear();
  long heap0 = static_cast<long>(mallinfo2().uordblks);
  auto start = Clock::now();
  MailStream* s = mail_open(nullptr, name.c_str(), debug ? OP_DEBUG : 0);
  if (!s) return out;
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    Envelope* env = mail_fetchstructure(s, i, nullptr);
    MessageElt* e = mail_elt(s, i);
    if (env && env->subject && e->rfc822_size && e->year) ++out.checked;
  }
  out.seconds = Seconds(start);
  out.nmsgs = s->nmsgs;
  out.heap = static_cast<long>(mallinfo2().uordblks) - heap0;
  mail_close(s);
  return out;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 100000;
  char dir[] = "/tmp/velmar-imapbench-XXXXXX";
  if (!::mkdtemp(dir)) return 1;
  std::map<std::string, std::string> env;
  std::istringstream lines(Run(kScript + "start " + dir));
  for (std::string line; std::getline(lines, line);)
    if (size_t eq = line.find('='); eq != std::string::npos) env[line.substr(0, eq)] = line.substr(eq + 1);
  if (!env.count("PORT")) {
    std::fprintf(stderr, "imap_open_bench: Dovecot did not start (package dovecot-imapd)\n");
    return 1;
  }
  auto seeding = Clock::now();
  Run(kScript + "seed " + dir + " " + std::to_string(count) + " Big");
  std::printf("seeded %ld messages into Big in %.1f s\n", count, Seconds(seeding));
  const int port = std::atoi(env["PORT"].c_str());
  const std::string name = "{127.0.0.1:" + env["PORT"] + "/notls}Big";
  mail_link(&imap2driver);
  mail_env_set_login("testuser", "secret");
  mail_env_set_echo(2);

  // Warm-up of the driver, recording the FETCH commands it sends.
  DriverResult warm = Driver(name, true);
  std::vector<std::string> fetches;
  for (const MailEnvLine& l : mail_env_lines())
    if (l.callback == "dlog" && l.text.rfind("A", 0) == 0 && l.text.find(" FETCH ") != std::string::npos)
      fetches.push_back(l.text.substr(l.text.find(' ') + 1));
  mail_env_clear();
  size_t bytes = 0;
  Floor(port, fetches, &bytes);

  std::vector<double> floor_times, driver_times;
  DriverResult last;
  for (int round = 0; round < 3; ++round) {
    if (round % 2 == 0) {
      floor_times.push_back(Floor(port, fetches, &bytes));
      last = Driver(name, false);
      driver_times.push_back(last.seconds);
    } else {
      last = Driver(name, false);
      driver_times.push_back(last.seconds);
      floor_times.push_back(Floor(port, fetches, &bytes));
    }
  }
  Run(kScript + "stop " + dir);
  Run(std::string("rm -rf ") + dir);

  double f = Median(floor_times), d = Median(driver_times);
  std::printf("messages: %lu (all fields present for %lu, warm-up %lu)\n", last.nmsgs, last.checked, warm.checked);
  std::printf("FETCH commands: %zu (first: %s, last: %s), %.1f MB of replies\n", fetches.size(),
              fetches.empty() ? "-" : fetches.front().c_str(), fetches.empty() ? "-" : fetches.back().c_str(),
              static_cast<double>(bytes) / 1e6);
  std::printf("floor  (connect, LOGIN, SELECT, the same FETCHes, bytes only):   %.3f s\n", f);
  std::printf("driver (mail_open + structure, flags, size, date of each):        %.3f s\n", d);
  std::printf("ratio driver/floor: %.2f (target <= 1.5)\n", d / f);
  // The heap, not the resident size: the timed runs reuse the pages of the warm-up.
  std::printf("memory left by the open stream in the mail layer: heap %.0f bytes/message\n",
              static_cast<double>(last.heap) / static_cast<double>(last.nmsgs ? last.nmsgs : 1));
  return 0;
}
