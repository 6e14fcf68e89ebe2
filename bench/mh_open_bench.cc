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
#include "bench/bench_mh_folder.h"
#include "c-client/core/plain_env.h"

namespace {

using namespace bench_mh;

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
