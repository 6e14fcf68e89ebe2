// imap_open_bench: how fast a large IMAP folder opens with what a folder
// list shows, against a private Dovecot, and what it costs in memory.
//
//   imap_open_bench [COUNT]      (default 100000)
//
// Starts Dovecot with tests/peers/imap-dovecot.sh, seeds COUNT messages into
// the folder "Big" (once per server directory), then measures:
//   floor:  a minimal client of this program: connect, LOGIN, SELECT, then
//           the very FETCH commands the driver sent (recorded in a warm-up
//           run through a relay), four in flight as the driver sends them,
//           reading the bytes up to each tagged reply. It parses nothing,
//           stores nothing, probes nothing and does no TLS.
//   driver: mail_open (greeting, capability probe, LOGIN, SELECT) plus
//           mail_fetchstructure and the element (flags, size, internal date)
//           of every message in order, as a folder list fills itself: every
//           reply is parsed into the message cache while it is read. Its
//           cache holds what the model lets a remote folder's cache hold.
//   model:  MM_FolOpen on an IMAP service of the options, then for every
//           message its UMI (MM_UMIFromMsgno), MM_MsgEnvelope and the five
//           flag tests by UMI, as model_open_bench does for local folders.
//           Its service says Security "none", so that like the other two it
//           talks in the clear.
// None of them draws, sorts or fetches texts. Each side runs once to warm
// up, then three times in rotating order; the medians are printed, with
// their ratios to the floor, and the heap (mallinfo2) that the open stream
// holds per message: the mail layer alone (elements, the cache's array and
// index, the envelopes the cache keeps) and the model with the mail layer
// right after the model's walk, before the folder is closed.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_model.h"
#include "c-client/core/mail.h"
#include "c-client/net/tcp.h"
#include "src/base/filenames.h"
#include "src/model/mm.h"
#include "src/options/options.h"

namespace {

using Clock = std::chrono::steady_clock;
double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// What the model sets on a remote folder's stream (src/model/services.cc).
constexpr unsigned long kRemoteCacheHigh = 4000;
constexpr unsigned long kRemoteCacheLow = 2000;

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
  // Reads until a whole line that starts with tag (the first line when tag
  // is empty) and returns the bytes read. What came after that line stays
  // for the next call: with several commands in flight it is their reply.
  size_t Until(const std::string& tag) {
    size_t total = 0;
    const std::string needle = "\r\n" + tag + " ";
    char chunk[1 << 16];
    for (;;) {
      size_t at = std::string::npos;
      if (tag.empty() || buffer.compare(0, needle.size() - 2, needle, 2) == 0) {
        at = 0;
      } else if ((at = buffer.find(needle)) != std::string::npos) {
        at += 2;
      }
      if (at != std::string::npos) {
        const size_t eol = buffer.find("\r\n", at);
        if (eol != std::string::npos) {
          buffer.erase(0, eol + 2);
          return total;
        }
      } else if (buffer.size() > needle.size()) {
        // Keep only the tail that may hold the start of the tagged line.
        buffer.erase(0, buffer.size() - needle.size());
      }
      ssize_t n = ::read(fd, chunk, sizeof chunk);
      if (n <= 0) return total;
      total += static_cast<size_t>(n);
      buffer.append(chunk, static_cast<size_t>(n));
    }
  }
  void Close() { ::close(fd); }
};

// The FETCHes go as the driver sends them: several in flight at once (a
// window of kInFlight), each next one sent when the oldest reply is in.
constexpr size_t kInFlight = 4;

double Floor(int port, const std::vector<std::string>& fetches, size_t* bytes) {
  auto start = Clock::now();
  Raw r;
  if (!r.Connect(port)) return -1;
  *bytes = r.Until("");
  r.Send("a1 LOGIN testuser secret\r\n");
  r.Until("a1");
  r.Send("a2 SELECT Big\r\n");
  r.Until("a2");
  size_t sent = 0, done = 0;
  auto tag = [](size_t i) { return "a" + std::to_string(i + 3); };
  while (done < fetches.size()) {
    for (; sent < fetches.size() && sent < done + kInFlight; ++sent) r.Send(tag(sent) + " " + fetches[sent] + "\r\n");
    *bytes += r.Until(tag(done++));
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

DriverResult Driver(const std::string& name) {
  DriverResult out;
  malloc_trim(0);
  long heap0 = static_cast<long>(mallinfo2().uordblks);
  auto start = Clock::now();
  MailStream* s = mail_open(nullptr, name.c_str(), 0);
  if (!s) return out;
  // The cache the model gives a remote folder, so that both read ahead alike.
  s->cachehigh = kRemoteCacheHigh;
  s->cachelow = kRemoteCacheLow;
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    Envelope* env = mail_fetchstructure(s, i, nullptr);
    MessageElt* e = mail_elt(s, i);
    if (env && env->subject && e->rfc822_size && e->year) ++out.checked;
  }
  out.seconds = Seconds(start);
  out.nmsgs = s->nmsgs;
  malloc_trim(0);
  out.heap = static_cast<long>(mallinfo2().uordblks) - heap0;
  mail_close(s);
  return out;
}

// --- Recording what the driver sends ------------------------------------------

// A relay between the driver and the server for the warm-up run: it keeps
// the FETCH commands the driver sends, so that the floor sends the same.
struct Recorder {
  int listener = -1;
  int port = 0;
  std::vector<std::string> fetches;
  std::thread thread;

  void Start(int server_port) {
    listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::listen(listener, 1);
    socklen_t n = sizeof a;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &n);
    port = ntohs(a.sin_port);
    thread = std::thread([this, server_port] { Relay(server_port); });
  }
  void Relay(int server_port) {
    int client = ::accept(listener, nullptr, nullptr);
    Raw server;
    if (client < 0 || !server.Connect(server_port)) return;
    std::string line;
    char chunk[1 << 16];
    pollfd fds[2] = {{client, POLLIN, 0}, {server.fd, POLLIN, 0}};
    for (;;) {
      if (::poll(fds, 2, 60000) <= 0) break;
      if (fds[0].revents) {
        ssize_t n = ::read(client, chunk, sizeof chunk);
        if (n <= 0) break;
        server.Send(std::string(chunk, static_cast<size_t>(n)));
        line.append(chunk, static_cast<size_t>(n));
        for (size_t eol; (eol = line.find("\r\n")) != std::string::npos; line.erase(0, eol + 2)) {
          std::string l = line.substr(0, eol);
          if (size_t sp = l.find(' '); sp != std::string::npos && l.compare(sp, 7, " FETCH ") == 0)
            fetches.push_back(l.substr(sp + 1));
        }
      }
      if (fds[1].revents) {
        ssize_t n = ::read(server.fd, chunk, sizeof chunk);
        if (n <= 0) break;
        for (ssize_t at = 0; at < n;) {
          ssize_t w = ::write(client, chunk + at, static_cast<size_t>(n - at));
          if (w <= 0) break;
          at += w;
        }
      }
    }
    ::close(client);
    server.Close();
  }
  void Stop() {
    if (thread.joinable()) thread.join();
    ::close(listener);
  }
};

// --- The model ----------------------------------------------------------------

struct ModelResult {
  double seconds = 0;
  long heap = 0;  // bytes held by the model and the mail layer after the walk
  unsigned long nmsgs = 0;
  unsigned long checked = 0;
};

ModelResult Model(int ms) {
  ModelResult out;
  malloc_trim(0);
  long heap0 = static_cast<long>(mallinfo2().uordblks);
  auto start = Clock::now();
  const int id = MM_FolOpen(ms, "Big");
  if (id == INVALID_FOLDER) return out;
  const unsigned long n_msgs = static_cast<unsigned long>(MM_FolGetNumMsgs(id));
  for (unsigned long n = 1; n <= n_msgs; ++n) {
    const UMI umi = MM_UMIFromMsgno(id, n);
    Envelope* env = MM_MsgEnvelope(umi);
    bool all = MM_MsgIsRead(umi) && MM_MsgIsDeleted(umi) && MM_MsgIsFlagged(umi) && MM_MsgIsAnswered(umi) &&
               MM_MsgIsDraft(umi);
    if (env && env->subject && !all) ++out.checked;
  }
  out.seconds = Seconds(start);
  out.nmsgs = n_msgs;
  malloc_trim(0);
  out.heap = static_cast<long>(mallinfo2().uordblks) - heap0;
  MM_FolClose(id, 1);
  return out;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const long count = argc > 1 ? std::atol(argv[1]) : 100000;
  bench_model::Dovecot server;
  if (!server.Start("velmar-imapbench")) return 1;
  std::map<std::string, std::string>& env = server.env;
  auto seeding = Clock::now();
  server.Seed(static_cast<int>(count), "Big");
  std::printf("seeded %ld messages into Big in %.1f s\n", count, Seconds(seeding));
  const int port = std::atoi(env["PORT"].c_str());
  const std::string name = "{127.0.0.1:" + env["PORT"] + "/notls}Big";

  // The model, with one IMAP service on the server; its login fills the
  // login record that the driver's opens use as well.
  const std::string home = bench_model::TempDir("velmar-imapbench-home");
  if (home.empty() || !bench_model::UserHome(home)) return 1;
  tcp_tls_set_ca_file(env["CAFILE"].c_str());
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  server.Service(1);
  MM_Init();
  const int ms = MM_MSNew(1);
  MM_MSInitAuthInfo(ms);

  // Warm-up of each side; the driver's goes through the recorder.
  Recorder recorder;
  recorder.Start(port);
  DriverResult warm = Driver("{127.0.0.1:" + std::to_string(recorder.port) + "/notls}Big");
  recorder.Stop();
  const std::vector<std::string>& fetches = recorder.fetches;
  size_t bytes = 0;
  Floor(port, fetches, &bytes);
  ModelResult warm_model = Model(ms);

  std::vector<double> floor_times, driver_times, model_times;
  DriverResult last;
  ModelResult last_model;
  for (int round = 0; round < 3; ++round) {
    // Each side goes first once.
    for (int k = 0; k < 3; ++k) {
      switch ((round + k) % 3) {
        case 0:
          floor_times.push_back(Floor(port, fetches, &bytes));
          break;
        case 1:
          last = Driver(name);
          driver_times.push_back(last.seconds);
          break;
        default:
          last_model = Model(ms);
          model_times.push_back(last_model.seconds);
          break;
      }
    }
  }
  MM_Shutdown(0);
  tcp_tls_set_ca_file(nullptr);
  server.Stop();
  bench_model::Shell("rm -rf " + home);

  double f = Median(floor_times), d = Median(driver_times), m = Median(model_times);
  std::printf("messages: %lu (all fields present: driver %lu, model %lu; warm-up %lu and %lu)\n", last.nmsgs,
              last.checked, last_model.checked, warm.checked, warm_model.checked);
  std::printf("FETCH commands of the driver: %zu (first: %s, last: %s), %.1f MB of replies\n", fetches.size(),
              fetches.empty() ? "-" : fetches.front().c_str(), fetches.empty() ? "-" : fetches.back().c_str(),
              static_cast<double>(bytes) / 1e6);
  std::printf("floor  (connect, LOGIN, SELECT, the driver's FETCHes 4 in flight, bytes only; no TLS): %.3f s\n", f);
  std::printf("driver (mail_open + structure, flags, size, date of each; no TLS):            %.3f s\n", d);
  std::printf("model  (MM_FolOpen + UMI, envelope, five flag tests of each; no TLS):        %.3f s\n", m);
  std::printf("ratio driver/floor: %.2f, model/floor: %.2f (target <= 1.5)\n", d / f, m / f);
  // The heap, not the resident size: the timed runs reuse the pages of the warm-up.
  const double n = static_cast<double>(last.nmsgs ? last.nmsgs : 1);
  std::printf("heap held after the open and the walk: mail layer %.0f bytes/message (driver side); model and mail"
              " layer together %.0f bytes/message (target <= 300)\n",
              static_cast<double>(last.heap) / n, static_cast<double>(last_model.heap) / n);
  return 0;
}
