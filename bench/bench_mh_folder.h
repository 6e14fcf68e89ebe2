// What the local-folder benchmarks share: a folder of generated messages
// of a few KB (plain text, multipart with base64 attachments, nested
// alternatives, forwarded messages; CRLF and bare LF), settled on disk, and
// the clock and memory figures they print.
#pragma once

#include <malloc.h>
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

#include "bench/bench_rng.h"

namespace bench_mh {

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

}  // namespace bench_mh
