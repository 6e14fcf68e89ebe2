// A subject/from/body search over a large local folder, as a saved search
// runs it, against a floor measured in the same run.
//
//   search: the rule SUBJECT "budget" FROM "sender1" BODY "quarter" parsed
//           and run by the local evaluator over every message through the
//           model: header and body of each message read from its file on
//           a read-only stream, case-folded (Unicode simple folding), and
//           matched; the UMIs of the hits collected.
//   floor:  open each message file, read it whole, memmem for the three
//           words in the raw bytes (no header split, no folding): the
//           least any search of these files can do.
// The folder is settled in the page cache first; one warm-up of each, then
// three rounds alternating the order. MB/s is over the bytes of the
// message files; the search reads a body only for a message whose subject
// and sender already match (keys stop at the first that fails), the floor
// reads every byte.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_model.h"
#include "c-client/core/mail.h"
#include "c-client/mh/local_paths.h"
#include "c-client/mh/mh.h"
#include "c-client/mh/mh_names.h"
#include "src/base/filenames.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/model/local_search.h"

namespace {

using namespace bench_mh;

const char* const kRule = "SUBJECT \"budget\" FROM \"sender1\" BODY \"quarter\"";
// Every body read: what the common case costs when the cheap keys can't
// spare the body.
const char* const kBodyRule = "BODY \"quarter\"";

double Search(int ms, size_t* hits, const char* rule = kRule) {
  const auto start = Clock::now();
  const int id = MM_FolOpen(ms, "Bench");
  SearchProgram program;
  std::string error;
  std::vector<UMI> found;
  if (id == INVALID_FOLDER || !MM_SearchParseProgram(rule, &program, &error) ||
      !MM_FolSearchLocal(id, program, &found, &error)) {
    std::fprintf(stderr, "search failed: %s\n", error.c_str());
    std::exit(1);
  }
  MM_FolClose(id, 0);
  *hits = found.size();
  return Seconds(start);
}

double Floor(const std::string& dir, int count, size_t* hits) {
  const auto start = Clock::now();
  std::string buffer;
  *hits = 0;
  for (int i = 1; i <= count; ++i) {
    const int fd = ::open((dir + "/" + std::to_string(i)).c_str(), O_RDONLY);
    if (fd < 0) continue;
    buffer.resize(static_cast<size_t>(::lseek(fd, 0, SEEK_END)));
    const ssize_t n = ::pread(fd, buffer.data(), buffer.size(), 0);
    ::close(fd);
    if (n < 0) continue;
    bool all = true;
    for (const char* w : {"budget", "sender1", "quarter"})
      all = all && ::memmem(buffer.data(), static_cast<size_t>(n), w, std::strlen(w));
    *hits += all;
  }
  return Seconds(start);
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
  if (count < 1) {
    std::fprintf(stderr, "usage: %s [COUNT]\n", argv[0]);
    return 2;
  }
  const std::string home = bench_model::TempDir("search_bench");
  if (home.empty() || !bench_model::UserHome(home)) return 1;
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  bench_model::LocalService(1);
  MM_Init();
  const int ms = MM_MSNew(1);
  const uint64_t bytes = bench_model::LocalFolder("Bench", count);
  if (!bytes) return 1;
  const std::string dir = mh_path("Bench");
  std::printf("folder: %d messages, %.1f MB\nrule: %s\n", count, bytes / 1e6, kRule);
  size_t hits = 0, floor_hits = 0;
  Search(ms, &hits);
  Floor(dir, count, &floor_hits);
  for (int round = 0; round < 3; ++round) {
    double a, b;
    if (round % 2) {
      b = Floor(dir, count, &floor_hits);
      a = Search(ms, &hits);
    } else {
      a = Search(ms, &hits);
      b = Floor(dir, count, &floor_hits);
    }
    std::printf("round %d: search %.2f s (%.0f MB/s, %zu hits)  floor %.2f s (%.0f MB/s, %zu files with all "
                "three words)  ratio %.1f\n",
                round + 1, a, bytes / 1e6 / a, hits, b, bytes / 1e6 / b, floor_hits, a / b);
  }
  for (int round = 0; round < 2; ++round) {
    const double a = Search(ms, &hits, kBodyRule);
    std::printf("body only (%s), round %d: search %.2f s (%.0f MB/s, %zu hits)\n", kBodyRule, round + 1, a,
                bytes / 1e6 / a, hits);
  }
  MM_Shutdown(0);
  std::filesystem::remove_all(home);
  return 0;
}
