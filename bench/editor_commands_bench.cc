// The editor's command layer on a generated 20 MB text (default paging:
// 50 blocks of 500 lines in memory, the rest in spill files):
//   typing   2,000 characters in the middle through the command table, each
//            logged for undo (the log finds places by the blocks' line
//            counts): mean and worst time per key;
//   cut      select-all, then the Edit menu's cut: the text goes to the
//            clipboard with CR LF line ends and into the undo log;
//   undo     the cut put back, and redo, which cuts it again;
//   paste    the 20 MB clipboard pasted into the empty buffer.
// Peak RSS and the most blocks in memory at once are printed at the end.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "bench/bench_rng.h"
#include "bench/bench_text_file.h"
#include "editor/elib/ecmd.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"

namespace {

double Now() {
  using namespace std::chrono;
  return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

long PeakKb() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

std::string MakeText(size_t target) {
  static const char* const words[] = {"mail", "the", "über", "message", "folder", "naïve", "reply",
                                      "server", "and", "quoting", "a", "line", "of", "text"};
  BenchRng rng{15};
  std::string text;
  text.reserve(target + 256);
  while (text.size() < target) {
    size_t n = 4 + rng.below(12);
    for (size_t i = 0; i < n; ++i) {
      if (i) text.push_back(' ');
      text += words[rng.below(std::size(words))];
    }
    text.push_back('\n');
  }
  return text;
}

}  // namespace

int main() {
  BenchTextFile file;
  if (!file.Write("ecmd_bench", MakeText(20u << 20))) return 1;
  const std::string& path = file.path;
  const std::string& dir = file.dir;
  E_DATA ed;
  elib_buffer_create(&ed.buf);
  elib_set_spill_dir(ed.buf, dir.c_str());
  ecmd_state_new(&ed.cmd);
  mark_dup(ed.buf, ed.buf->the_point, &ed.buf->high_start);
  mark_dup(ed.buf, ed.buf->the_point, &ed.buf->high_end);
  double t0 = Now();
  if (elib_file_read(path.c_str(), ed.buf) != RC_OK) return 1;
  std::printf("load            %8.1f ms  %ld lines, %d blocks\n", Now() - t0, ed.buf->n_lines, ed.buf->n_blks - 1);

  BLOCK* blk = elib_first_block(ed.buf);
  LINE* lin = blk->lin_head->next;
  line_walk(ed.buf, &blk, &lin, kWalkAll, ed.buf->n_lines / 2, kStepFwd);
  mark_move(ed.buf, ed.buf->the_point, blk, lin, 0);
  double worst = 0, total = 0;
  const int keys = 2000;
  for (int i = 0; i < keys; ++i) {
    KM_KEY key;
    key.text[0] = i % 9 == 8 ? ' ' : static_cast<char>('a' + i % 26);
    key.text_len = 1;
    double k0 = Now();
    ecmd_run(&ed, "self-insert", &key, false);
    double dt = Now() - k0;
    total += dt;
    if (dt > worst) worst = dt;
  }
  std::printf("typing          %8.3f ms a key on average, worst %.3f ms (%d keys, wrapped at 72; %zu undo steps)\n",
              total / keys, worst, keys, ed.cmd->undo.size());

  ecmd_run(&ed, "buffer-select-all", nullptr, false);
  t0 = Now();
  int rc = ecmd_menu(&ed, kMenuCut);
  std::printf("cut all         %8.1f ms  clipboard %zu bytes, %ld lines left%s\n", Now() - t0,
              xvt_cb_get_text().size(), ed.buf->n_lines, rc == RC_OK ? "" : " FAILED");
  t0 = Now();
  rc = ecmd_undo(&ed);
  std::printf("undo the cut    %8.1f ms  %ld lines, %d blocks, %d in memory%s\n", Now() - t0, ed.buf->n_lines,
              ed.buf->n_blks - 1, ed.buf->blks_in_mem, rc == RC_OK ? "" : " FAILED");
  t0 = Now();
  rc = ecmd_redo(&ed);
  std::printf("redo the cut    %8.1f ms  %ld lines left%s\n", Now() - t0, ed.buf->n_lines, rc == RC_OK ? "" : " FAILED");
  t0 = Now();
  rc = ecmd_menu(&ed, kMenuPaste);
  std::printf("paste 20 MB     %8.1f ms  %ld lines%s\n", Now() - t0, ed.buf->n_lines, rc == RC_OK ? "" : " FAILED");
  std::printf("peak RSS        %8ld kB  most blocks in memory at once: %d of limit %d\n", PeakKb(),
              ed.buf->max_resident, ed.buf->max_blks);
  ecmd_state_destroy(&ed.cmd);
  elib_buffer_destroy(&ed.buf);
  return 0;
}
