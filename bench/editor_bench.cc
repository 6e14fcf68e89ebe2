// The editor's text store on a generated 20 MB text, against a plain
// std::string doing the same load and search in the same run.
//
//   editor:   elib_file_read into a buffer with the default paging (50
//             blocks of 500 lines in memory, the rest in spill files):
//             every line becomes a line record with its run of attributes;
//             search_region for a word near the end (a line at a time,
//             reading spilled blocks back); inserts at the start, middle
//             and end; a cut of the middle 80% (whole blocks, their spill
//             files deleted); and the write of the result.
//   baseline: fread of the file into one std::string and std::string::find
//             for the same word. No lines, no attributes, no paging, no
//             editing: the least any load and search of this text can do.
// Each side runs in a child process of its own, so each peak RSS is its own.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "bench/bench_rng.h"
#include "bench/bench_text_file.h"
#include "editor/elib/buffer.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"

namespace {

constexpr size_t kTarget = 20u << 20;
const char* const kNeedle = "zebracorn";

double Now() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

long PeakKb() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

std::string MakeText() {
  static const char* const words[] = {"mail", "the", "über", "message", "folder", "naïve", "reply", "€uro",
                                      "server", "and", "quoting", "a", "line", "of", "text", "\t"};
  BenchRng rng{20};
  std::string text;
  text.reserve(kTarget + 256);
  while (text.size() < kTarget) {
    size_t n = 4 + rng.below(12);
    for (size_t i = 0; i < n; ++i) {
      if (i) text.push_back(' ');
      text += words[rng.below(std::size(words))];
    }
    text.push_back('\n');
    // The needle sits in the last 1% of the text.
    if (text.size() > kTarget - kTarget / 100 && text.find(kNeedle, text.size() - 200) == std::string::npos &&
        text.size() < kTarget - kTarget / 200)
      text += std::string("here is the ") + kNeedle + " at last\n";
  }
  return text;
}

int Lines(EditBuffer* buf) { return static_cast<int>(buf->n_lines); }

int SpillFiles(const std::string& dir) {
  int n = 0;
  for (auto& e : std::filesystem::directory_iterator(dir)) n += e.is_regular_file();
  return n;
}

void EditorSide(const std::string& path, const std::string& spill) {
  EditBuffer* buf = nullptr;
  elib_buffer_create(&buf);
  elib_set_spill_dir(buf, spill.c_str());
  double t0 = Now();
  if (elib_file_read(path.c_str(), buf) != RC_OK) {
    std::printf("editor: load failed\n");
    return;
  }
  double load = Now() - t0;
  std::printf("editor   load     %8.1f ms  %d lines, %d blocks, %d in memory (most at once %d), %d spill files\n",
              load, Lines(buf), buf->n_blks - 1, buf->blks_in_mem, buf->max_resident, SpillFiles(spill));

  REGION* all = nullptr;
  region_from_whole(buf, kWholeAll, &all);
  elib_mark_goto_bob(buf, buf->the_point);
  t0 = Now();
  int found = search_region(buf, all, kNeedle);
  std::printf("editor   search   %8.1f ms  %s\n", Now() - t0, found == RC_OK ? "found" : "NOT FOUND");
  region_free_whole(buf, &all);

  // Inserts: the point at the start, the middle line, the end.
  const char* names[] = {"start", "middle", "end"};
  for (int where = 0; where < 3; ++where) {
    MARK* p = buf->the_point;
    t0 = Now();
    if (where == 0) elib_mark_goto_bob(buf, p);
    if (where == 1) {
      elib_mark_goto_bob(buf, p);
      BLOCK* blk = p->blk;
      LINE* lin = p->lin;
      line_walk(buf, &blk, &lin, kWalkAll, buf->n_lines / 2, kStepFwd);
      mark_move(buf, p, blk, lin, 0);
    }
    if (where == 2) elib_mark_goto_eob(buf, p);
    double move = Now() - t0;
    t0 = Now();
    int rc = elib_insert(buf, p, "inserted text\nand a new line");
    std::printf("editor   insert %-6s %6.3f ms  (reaching the place %.1f ms)%s\n", names[where], Now() - t0, move,
                rc == RC_OK ? "" : " FAILED");
  }

  // Cut the middle 80%.
  MARK *a = nullptr, *b = nullptr;
  mark_dup(buf, buf->the_point, &a);
  mark_dup(buf, buf->the_point, &b);
  for (auto [m, frac] : {std::pair{a, 10}, std::pair{b, 90}}) {
    elib_mark_goto_bob(buf, m);
    BLOCK* blk = m->blk;
    LINE* lin = m->lin;
    line_walk(buf, &blk, &lin, kWalkAll, buf->n_lines * frac / 100, kStepFwd);
    mark_move(buf, m, blk, lin, 3);
  }
  REGION* r = nullptr;
  region_new(&r);
  region_set(r, a, b);
  int before = Lines(buf);
  t0 = Now();
  int rc = region_cut(buf, r);
  std::printf("editor   cut 80%%  %8.1f ms  %d -> %d lines, %d spill files left%s\n", Now() - t0, before, Lines(buf),
              SpillFiles(spill), rc == RC_OK ? "" : " FAILED");
  region_free(&r);

  t0 = Now();
  rc = elib_file_write((path + ".out").c_str(), buf);
  std::printf("editor   write    %8.1f ms%s\n", Now() - t0, rc == RC_OK ? "" : " FAILED");
  std::remove((path + ".out").c_str());
  std::printf("editor   peak RSS %8ld kB  most blocks in memory at once: %d of limit %d\n", PeakKb(),
              buf->max_resident, buf->max_blks);
  elib_buffer_destroy(&buf);
}

void BaselineSide(const std::string& path) {
  double t0 = Now();
  std::string text;
  FILE* f = std::fopen(path.c_str(), "rb");
  char block[1 << 16];
  size_t n;
  while ((n = std::fread(block, 1, sizeof block, f)) > 0) text.append(block, n);
  std::fclose(f);
  std::printf("baseline load     %8.1f ms  %zu bytes in one string\n", Now() - t0, text.size());
  t0 = Now();
  size_t at = text.find(kNeedle);
  std::printf("baseline search   %8.1f ms  %s\n", Now() - t0, at != std::string::npos ? "found" : "NOT FOUND");
  std::printf("baseline peak RSS %8ld kB\n", PeakKb());
}

template <typename Fn>
void InChild(Fn fn) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    fn();
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
}

}  // namespace

int main() {
  BenchTextFile file;
  if (!file.Write("editor_bench", MakeText())) return 1;
  const std::string& path = file.path;
  const std::string& spill = file.spill;
  InChild([&] { EditorSide(path, spill); });
  InChild([&] { BaselineSide(path); });
  return 0;
}
