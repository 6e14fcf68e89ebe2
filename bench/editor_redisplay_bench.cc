// The editor's redisplay over a generated 20 MB text in a headless window
// of 120 x 60 cells (the display list records every operation, so the
// figures include making it):
//   paint top      the first layout and full paint of a fresh window
//   goto end       the point to the end of the text, centring it, the
//                  line number of the new first line (from block totals,
//                  no block read to count) and a full paint
//   page down      one page forward from the top, with its full paint
//                  (mean of 200)
//   jump middle    the scroll bar's thumb to the middle line: the line is
//                  found from block totals, one block is read, full paint
//   type a key     a character typed in the middle: layout and the paint of
//                  the one row it changes (mean of 200)
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "bench/bench_rng.h"
#include "bench/bench_text_file.h"
#include "editor/edisxvt/edisplay.h"
#include "editor/edisxvt/edit_window.h"
#include "editor/elib/marks.h"
#include "rclib/rc.h"
#include "xvt/xvt_test.h"

namespace {

constexpr size_t kTarget = 20u << 20;

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
  static const char* const words[] = {"mail", "the", "\xC3\xBC" "ber", "message", "folder", "reply", "\t",
                                      "server", "and", "quoting", "a", "line", "of", "text"};
  BenchRng rng{15};
  std::string text;
  text.reserve(kTarget + 256);
  while (text.size() < kTarget) {
    size_t n = 4 + rng.below(14);
    for (size_t i = 0; i < n; ++i) {
      if (i) text.push_back(' ');
      text += words[rng.below(std::size(words))];
    }
    text.push_back('\n');
  }
  return text;
}

long task_eh(WINDOW, EVENT*) { return 0; }

void Run(const std::string& path, const std::string& spill) {
  RCT r{0, 0, 120 * 8, 60 * 16};
  WINDOW w = edit_window_create(TASK_WIN, &r, "bench", nullptr);
  E_DATA* ed = edit_data(w);
  EditBuffer* buf = ed->buf;
  elib_set_spill_dir(buf, spill.c_str());
  double t0 = Now();
  elib_file_read(path.c_str(), buf);
  elib_mark_goto_bob(buf, buf->the_point);
  std::printf("load           %8.1f ms  %ld lines, %d blocks\n", Now() - t0, buf->n_lines, buf->n_blks);

  t0 = Now();
  ed->rdis = RDIS_FULL;
  edis_layout(ed, true);
  size_t ops = xvt_test_paint(w).size();
  std::printf("paint top      %8.3f ms  %zu drawing operations\n", Now() - t0, ops);

  t0 = Now();
  elib_mark_goto_eob(buf, buf->the_point);
  edis_layout(ed, true);
  xvt_test_paint(w);
  std::printf("goto end       %8.1f ms  first line shown %ld of %ld\n", Now() - t0, ed->dis->cur_voac, buf->n_lines);

  elib_mark_goto_bob(buf, buf->the_point);
  edis_layout(ed, true);
  t0 = Now();
  for (int i = 0; i < 200; ++i) {
    edis_scroll_page(ed, 1);
    xvt_test_paint(w);
  }
  std::printf("page down      %8.3f ms  (mean of 200), now at line %ld\n", (Now() - t0) / 200, ed->dis->cur_voac);

  t0 = Now();
  EVENT thumb{};
  thumb.type = E_VSCROLL;
  thumb.v.scroll.what = SC_THUMB;
  thumb.v.scroll.pos = static_cast<int>(buf->n_lines / 2);
  xvt_win_dispatch_event(w, &thumb);
  xvt_test_paint(w);
  std::printf("jump middle    %8.3f ms  at line %ld\n", Now() - t0, ed->dis->cur_voac);

  BLOCK* blk = ed->dis->start.blk;
  LINE* lin = ed->dis->start.lin;
  line_walk(buf, &blk, &lin, kWalkAll, 20, kStepFwd);
  mark_move(buf, buf->the_point, blk, lin, 0);
  edis_layout(ed, true);
  xvt_test_paint(w);
  long drawn = 0;
  t0 = Now();
  for (int i = 0; i < 200; ++i) {
    size_t seen = xvt_test_invalidated(w).size();
    EVENT key{};
    key.type = E_CHAR;
    key.v.chr.ch = 'x';
    key.v.chr.text = true;
    xvt_win_dispatch_event(w, &key);
    ed->dis->rows_drawn = 0;
    // What this key invalidated: the rectangles after those seen before it.
    std::vector<RCT> inv = xvt_test_invalidated(w);
    if (inv.size() <= seen) continue;
    RCT all = inv[seen];
    for (size_t q = seen; q < inv.size(); ++q) {
      all.top = std::min(all.top, inv[q].top);
      all.bottom = std::max(all.bottom, inv[q].bottom);
      all.right = std::max(all.right, inv[q].right);
    }
    EVENT upd{};
    upd.type = E_UPDATE;
    upd.v.update.rct = all;
    xvt_win_dispatch_event(w, &upd);
    drawn += ed->dis->rows_drawn;
  }
  std::printf("type a key     %8.3f ms  (mean of 200), rows drawn per key %.1f\n", (Now() - t0) / 200,
              static_cast<double>(drawn) / 200);
  std::printf("peak RSS       %8ld kB  blocks in memory at most %d of limit %d\n", PeakKb(), buf->max_resident,
              buf->max_blks);
  xvt_vobj_destroy(w);
}

}  // namespace

int main() {
  BenchTextFile file;
  if (!file.Write("edis_bench", MakeText())) return 1;
  const std::string& path = file.path;
  const std::string& spill = file.spill;
  XVT_CONFIG config{0, 0, "bench", "Bench", "bench", 0};
  xvt_test_set_run_hook([&] { Run(path, spill); });
  xvt_app_create(0, nullptr, 0, task_eh, &config);
  return 0;
}
