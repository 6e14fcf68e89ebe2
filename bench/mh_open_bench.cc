// mh_open_bench: how fast a large local folder opens, and what it costs in
// memory per message.
//
//   mh_open_bench [COUNT]      (default 100000)
//
// Builds a folder of COUNT generated messages of a few KB (plain text,
// multipart with base64 attachments, nested alternatives, forwarded
// messages; CRLF and bare LF) in a temporary directory, settles the writes
// (syncfs on the folder, then an fsync of the directory) and reads every
// message file once, so that the timed open meets neither pending
// write-back nor a colder page cache than the files it reads next; then
// measures, each in a fresh process of its own (this program run again), so
// that nothing of the build is in its memory:
//   (a) the open with no cache files: the rebuild parses every message;
//   (b) the open with valid caches: the index alone is read;
//   (c) then every structure fetched from the cache and kept loaded.
// The baseline is a plain sequential read of mh_index.dat in the same run.
// Memory per message: the heap in use (mallinfo2) and the resident size
// (VmRSS) grown over the process before the open, right after the open and
// again with every structure loaded, and the peak (VmHWM) of the open.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "c-client/mh/local_paths.h"
#include "c-client/core/mail.h"
#include "c-client/core/mail_core.h"
#include "c-client/mh/mh_names.h"
#include "bench/bench_rng.h"
#include "c-client/core/plain_env.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// A figure of /proc/self/status ("VmHWM:" peak, "VmRSS:" now), in bytes.
long StatusBytes(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::strlen(key)) * 1024;
  return 0;
}

// What the process holds: heap bytes in use (after giving free pages
// back), resident bytes, and the resident peak so far.
struct Memory {
  long heap, resident, peak;
};

Memory Measure() {
  malloc_trim(0);
  return {static_cast<long>(mallinfo2().uordblks), StatusBytes("VmRSS:"), StatusBytes("VmHWM:")};
}

void PrintMemory(const char* when, const Memory& before, const Memory& now, int count) {
  std::printf("    memory %s: %.0f bytes per message of heap in use, %.0f resident (%.1f MB of heap, %.1f MB resident"
              " over the process before the open)\n",
              when, static_cast<double>(now.heap - before.heap) / count,
              static_cast<double>(now.resident - before.resident) / count, (now.heap - before.heap) / 1e6,
              (now.resident - before.resident) / 1e6);
}

// --- The folder -------------------------------------------------------------

using Rng = BenchRng;

const char* const kWords[] = {"the",    "message", "server", "folder", "meeting", "report", "draft",  "attached",
                              "see",    "below",   "thanks", "update", "quarter", "budget", "plan",   "review",
                              "please", "note",    "lorem",  "ipsum",  "dolor",   "amet",   "status", "numbers"};

std::string Text(Rng& r, size_t lines, const std::string& nl) {
  std::string s;
  for (size_t i = 0; i < lines; ++i) {
    for (size_t w = 0; w < 10; ++w) s += std::string(w ? " " : "") + kWords[r.below(std::size(kWords))];
    s += nl;
  }
  return s;
}

std::string Base64(Rng& r, size_t lines, const std::string& nl) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string s;
  for (size_t i = 0; i < lines; ++i) {
    for (int k = 0; k < 76; ++k) s += kDigits[r.below(64)];
    s += nl;
  }
  return s;
}

std::string Message(Rng& r, int i) {
  const std::string nl = r.below(2) ? "\r\n" : "\n";
  const std::string id = std::to_string(i);
  std::string head = "Return-Path: <sender" + id + "@example.org>" + nl + "Received: from mail.example.org by mx" + nl +
                     "\tid " + id + "; Mon, 3 Jun 2024 10:00:00 +0200" + nl + "From: Sender " + id + " <sender" + id +
                     "@example.org>" + nl + "To: Team <team@example.org>, lead@example.net" + nl +
                     "Subject: " + Text(r, 1, "") + nl + "Date: Mon, 3 Jun 2024 10:00:00 +0200" + nl +
                     "Message-ID: <" + id + "@example.org>" + nl;
  switch (r.below(4)) {
    case 0:
      return head + nl + Text(r, 20 + r.below(40), nl);
    case 1:
      return head + "MIME-Version: 1.0" + nl + "Content-Type: multipart/mixed; boundary=b" + id + nl + nl + "--b" +
             id + nl + "Content-Type: text/plain" + nl + nl + Text(r, 10 + r.below(20), nl) + "--b" + id + nl +
             "Content-Type: application/pdf; name=f.pdf" + nl + "Content-Transfer-Encoding: base64" + nl + nl +
             Base64(r, 10 + r.below(40), nl) + "--b" + id + "--" + nl;
    case 2:
      return head + "MIME-Version: 1.0" + nl + "Content-Type: multipart/alternative; boundary=a" + id + nl + nl +
             "--a" + id + nl + "Content-Type: text/plain" + nl + nl + Text(r, 15, nl) + "--a" + id + nl +
             "Content-Type: text/html" + nl + nl + "<html><body>" + Text(r, 15, nl) + "</body></html>" + nl + "--a" +
             id + "--" + nl;
    default:
      return head + "MIME-Version: 1.0" + nl + "Content-Type: multipart/mixed; boundary=m" + id + nl + nl + "--m" +
             id + nl + "Content-Type: text/plain" + nl + nl + Text(r, 5, nl) + "--m" + id + nl +
             "Content-Type: message/rfc822" + nl + nl + "From: inner@example.com" + nl + "Subject: fwd" + nl +
             "MIME-Version: 1.0" + nl + "Content-Type: multipart/mixed; boundary=e" + id + nl + nl + "--e" + id + nl +
             "Content-Type: text/plain" + nl + nl + Text(r, 10, nl) + "--e" + id + nl +
             "Content-Type: image/png" + nl + "Content-Transfer-Encoding: base64" + nl + nl + Base64(r, 20, nl) +
             "--e" + id + "--" + nl + "--m" + id + "--" + nl;
  }
}

// Writes the message files straight into the directory: the folder's
// cache files are made by the first open.
uint64_t BuildFolder(const std::string& dir, int count) {
  Rng r{20240603};
  uint64_t bytes = 0;
  for (int i = 1; i <= count; ++i) {
    const std::string text = Message(r, i);
    const std::string path = dir + "/" + std::to_string(i);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::perror(path.c_str());
      std::exit(1);
    }
    ::close(fd);
    bytes += text.size();
  }
  return bytes;
}

// Lets the build's writes reach the disk and reads every file once: the
// timed open then meets no pending write-back, and finds the files in the
// page cache as a folder in daily use is (dropping the cache to time a
// cold disk needs root).
void Settle(const std::string& dir, int count) {
  int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (dfd < 0 || ::syncfs(dfd) != 0 || ::fsync(dfd) != 0) {
    std::perror("syncfs");
    std::exit(1);
  }
  ::close(dfd);
  std::vector<char> buffer(64 * 1024);
  for (int i = 1; i <= count; ++i) {
    int fd = ::open((dir + "/" + std::to_string(i)).c_str(), O_RDONLY);
    while (fd >= 0 && ::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    if (fd >= 0) ::close(fd);
  }
}

void Setup(const std::string& home) {
  local_set_home(home.c_str());
  mail_link(&mhdriver);
  mail_set_default_driver(&mhdriver);
}

// --- The measurements, each in a process of its own -------------------------

int ChildRebuild(const std::string& home, int count, uint64_t bytes) {
  Setup(home);
  auto start = Clock::now();
  MailStream* s = mail_open(nullptr, "Bench", 0);
  const double t = Seconds(start);
  if (!s || s->nmsgs != static_cast<unsigned long>(count)) {
    std::fprintf(stderr, "rebuild failed: %lu messages\n", s ? s->nmsgs : 0ul);
    return 1;
  }
  std::printf("(a) open without caches (rebuild): %.2f s, %.0f messages/s, %.1f MB/s of message text\n", t, count / t,
              bytes / t / 1e6);
  mail_close(s);
  return 0;
}

int ChildOpen(const std::string& home, int count) {
  Setup(home);
  const std::string index = mh_path("Bench") + "/mh_index.dat";
  // Baseline: the index file read sequentially, nothing done with it.
  auto start = Clock::now();
  {
    std::vector<char> buffer(64 * 1024);
    int fd = ::open(index.c_str(), O_RDONLY);
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
    ::close(fd);
  }
  const double raw = Seconds(start);
  mail_env_clear();
  const Memory before = Measure();
  start = Clock::now();
  MailStream* s = mail_open(nullptr, "Bench", 0);
  const double t = Seconds(start);
  const Memory opened = Measure();
  if (!s || s->nmsgs != static_cast<unsigned long>(count)) {
    std::fprintf(stderr, "open failed\n");
    return 1;
  }
  bool rebuilt = false;
  for (const MailEnvLine& l : mail_env_lines()) rebuilt |= l.text.find("Rebuilding") != std::string::npos;
  std::printf("(b) open with valid caches: %.3f s, %.0f messages/s%s (baseline: reading mh_index.dat, %.3f s; ratio %.1f)\n",
              t, count / t, rebuilt ? " [rebuilt!]" : "", raw, raw > 0 ? t / raw : 0.0);
  PrintMemory("right after the open", before, opened, count);
  std::printf("    peak resident during the open: %.1f MB before, %.1f MB after: %.0f bytes per message\n",
              before.peak / 1e6, opened.peak / 1e6, static_cast<double>(opened.peak - before.peak) / count);
  // Where the bytes go: the core's element, allocated whole for every
  // message, and its slot in the cache array.
  MessageElt* e = mail_elt(s, 1);
  std::printf("    of which the core's element: %zu bytes (%zu with the allocator's overhead), its slot %zu bytes"
              " (array of %lu slots)\n",
              sizeof(MessageElt), malloc_usable_size(e) + sizeof(size_t), sizeof(MessageElt*), s->cachesize);
  mail_env_clear();
  // The message cache keeps the structures of only the last kCacheHigh
  // messages touched; with that limit off every structure stays loaded.
  s->cachehigh = 0;
  start = Clock::now();
  unsigned long fetched = 0;
  for (unsigned long i = 1; i <= s->nmsgs; ++i) {
    BodyPart* body = nullptr;
    fetched += mail_fetchstructure(s, i, &body) != nullptr && body;
  }
  const double f = Seconds(start);
  std::printf("(c) every structure from the cache: %.2f s, %.0f structures/s (%lu of %d), all kept loaded (the\n"
              "    cache's limit of %lu loaded messages turned off for this)\n",
              f, fetched / f, fetched, count, kCacheHigh);
  PrintMemory("with every structure loaded", before, Measure(), count);
  mail_close(s);
  return 0;
}

int RunChild(const char* self, const std::vector<std::string>& args) {
  pid_t pid = ::fork();
  if (pid < 0) return 1;
  if (pid == 0) {
    std::vector<char*> argv{const_cast<char*>(self)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    ::execv("/proc/self/exe", argv.data());
    _exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 5 && std::strcmp(argv[1], "--rebuild") == 0)
    return ChildRebuild(argv[2], std::atoi(argv[3]), std::strtoull(argv[4], nullptr, 10));
  if (argc >= 4 && std::strcmp(argv[1], "--open") == 0) return ChildOpen(argv[2], std::atoi(argv[3]));
  const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
  if (count < 1) {
    std::fprintf(stderr, "usage: %s [COUNT]\n", argv[0]);
    return 2;
  }
  char tmpl[] = "/tmp/mh_open_bench.XXXXXX";
  if (!::mkdtemp(tmpl)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string home = tmpl;
  Setup(home);
  if (!mh_create(nullptr, "Bench")) {
    std::fprintf(stderr, "cannot create the folder\n");
    return 1;
  }
  const std::string dir = mh_path("Bench");
  fs::remove(dir + "/mh_index.dat");
  fs::remove(dir + "/mh_cache.dat");
  auto start = Clock::now();
  const uint64_t bytes = BuildFolder(dir, count);
  std::printf("folder: %d messages, %.1f MB, written in %.1f s\n", count, bytes / 1e6, Seconds(start));
  start = Clock::now();
  Settle(dir, count);
  std::printf("    writes settled (syncfs of the folder, fsync of its directory) and every message file read once,\n"
              "    so the page cache is warm for all timings: %.1f s. Dropping the page cache needs root, so the\n"
              "    cold-disk open is not measured.\n",
              Seconds(start));
  std::fflush(stdout);
  int rc = RunChild(argv[0], {"--rebuild", home, std::to_string(count), std::to_string(bytes)});
  if (rc == 0) {
    std::printf("    caches: mh_index.dat %.1f MB, mh_cache.dat %.1f MB\n", fs::file_size(dir + "/mh_index.dat") / 1e6,
                fs::file_size(dir + "/mh_cache.dat") / 1e6);
    std::fflush(stdout);
    rc = RunChild(argv[0], {"--open", home, std::to_string(count)});
  }
  fs::remove_all(home);
  return rc;
}
