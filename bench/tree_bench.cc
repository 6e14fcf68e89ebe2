// tree_bench: the tree widget with a large folder's worth of message lines.
//
//   tree_bench [COUNT]      (default 100000)
//
// On the headless toolkit (which paints into a display list, so a paint
// costs what the widget asks of it), with a window of 40 lines:
//   build:   COUNT message nodes appended under one open folder node,
//            under suspension, then one redraw.
//            baseline: the same records allocated and kept in a vector.
//   sort:    re-sorting the COUNT kids by date, sender, subject and size,
//            each ascending and descending, keys computed once per node
//            (TREE_ResortTreeByKey), and by a compare callback
//            (TREE_ResortTree).
//            baseline: std::stable_sort of (key, pointer) pairs built from
//            the same records, with the same comparison; nothing relinked.
//   scroll:  page-down events from the top to the bottom; time per page.
//            baseline: walking as many lines with TREE_NextNode alone.
//   select:  Ctrl+A (every line selected, one selection callback), then a
//            click that leaves one.
//   remove:  removing a selected line on the screen, and a line far from
//            the screen, one at a time.
// Each figure is the median of 5 runs after a warm-up; sides alternate.
// Memory: heap held per node after the build (mallinfo2), next to the
// baseline's records.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_rng.h"
#include "src/organizer/tree.h"
#include "xvt/xvt_test.h"

namespace {

struct Msg {
  int32_t type = kNodeDataTypeMessage;
  int64_t date = 0;
  int64_t size = 0;
  std::string from, subject;
};

int g_selection_calls = 0;

int MsgAction(WINDOW, TreeNode* n, int event) {
  if (event == kNodeEventDestroy) delete static_cast<Msg*>(TREE_GetData(n));
  return kNodeActionOk;
}
void MsgDraw(WINDOW win, TreeNode* n, RCT* r) {
  auto* m = static_cast<Msg*>(TREE_GetData(n));
  if (m) xvt_dwin_draw_text(win, r->left + 2, r->top + 12, m->subject.c_str(), -1);
}
void OnSelection(WINDOW, TreeNode*) { ++g_selection_calls; }

TreeSortKey ByDate(void* d) { return {static_cast<Msg*>(d)->date, {}, 0}; }
TreeSortKey BySize(void* d) { return {static_cast<Msg*>(d)->size, {}, 0}; }
TreeSortKey ByFrom(void* d) { return {0, static_cast<Msg*>(d)->from, 0}; }
TreeSortKey BySubject(void* d) { return {0, static_cast<Msg*>(d)->subject, 0}; }
int CompareDate(void* a, void* b) {
  int64_t x = static_cast<Msg*>(a)->date, y = static_cast<Msg*>(b)->date;
  return x < y ? -1 : x > y;
}

double Seconds(const std::function<void()>& fn) {
  auto t0 = std::chrono::steady_clock::now();
  fn();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Runs a then b five times each, alternating, after one warm-up of each.
std::pair<double, double> Alternate(const std::function<void()>& a, const std::function<void()>& b) {
  a();
  if (b) b();
  std::vector<double> ta, tb;
  for (int i = 0; i < 5; ++i) {
    ta.push_back(Seconds(a));
    if (b) tb.push_back(Seconds(b));
  }
  return {Median(ta), b ? Median(tb) : 0};
}

std::vector<Msg> Records(size_t count) {
  static const char* kNames[] = {"Ann Archer", "bob@example.org", "Carla Diaz", "dev-list", "Eve", "Frank Ode"};
  static const char* kWords[] = {"Re: ", "meeting", "report", "lunch", "build", "release", "notes", "draft"};
  BenchRng rng{42};
  std::vector<Msg> out(count);
  for (size_t i = 0; i < count; ++i) {
    out[i].date = 1600000000 + static_cast<int64_t>(i) * 60 + static_cast<int64_t>(rng.below(600));
    out[i].size = static_cast<int64_t>(500 + rng.below(200000));
    out[i].from = kNames[rng.below(6)];
    out[i].subject = std::string(kWords[rng.below(8)]) + kWords[rng.below(8)] + " " + std::to_string(rng.below(1000));
  }
  return out;
}

size_t Heap() { return mallinfo2().uordblks; }

void Key(WINDOW w, int ch, bool ctrl = false) {
  EVENT ev{};
  ev.type = E_CHAR;
  ev.v.chr.ch = ch;
  ev.v.chr.control = ctrl;
  xvt_win_dispatch_event(w, &ev);
}

void Bench(size_t count) {
  std::vector<Msg> records = Records(count);
  RCT r{0, 0, 800, 40 * 16};
  WINDOW w = TREE_CreateTreeWidget(TASK_WIN, &r, 50, 0, 2, 0, 16, 0, OnSelection, nullptr, nullptr, nullptr);
  TreeNode* root = TREE_GetRoot(w);
  auto* folder_data = new Msg{kNodeDataTypeFolder, 0, 0, "", "Inbox"};
  TreeNode* folder = TREE_NewNode(0, folder_data, 10, MsgDraw, MsgAction, nullptr);
  TREE_AppendNode(root, folder);
  TREE_OpenSubtree(folder, 1, 0);

  // Build.
  auto build = [&] {
    TREE_SuspendUpdates(w);
    for (const Msg& m : records) TREE_AppendNode(folder, TREE_NewNode(1, new Msg(m), 10, MsgDraw, MsgAction, nullptr));
    TREE_ResumeUpdates(w);
  };
  auto unbuild = [&] { TREE_RemoveKidNodes(folder); };
  std::vector<std::unique_ptr<Msg>> plain;
  auto baseline_build = [&] {
    plain.clear();
    plain.reserve(count);
    for (const Msg& m : records) plain.push_back(std::make_unique<Msg>(m));
  };
  std::vector<double> tb, tp;
  for (int i = 0; i < 6; ++i) {
    double t = Seconds(build);
    if (i) tb.push_back(t);
    if (i < 5) unbuild();
    double p = Seconds(baseline_build);
    if (i) tp.push_back(p);
  }
  size_t before = Heap();
  unbuild();
  size_t after_tree = Heap();
  plain.clear();
  size_t empty = Heap();
  baseline_build();
  size_t plain_heap = Heap() - empty;
  plain.clear();
  build();
  double per_node = static_cast<double>(before - after_tree) / static_cast<double>(count);
  std::printf("tree_bench: %zu message lines, window of 40 lines\n", count);
  std::printf("build         %8.2f ms  (%6.0f ns/node)   baseline records in a vector %8.2f ms  ratio %.2f\n",
              Median(tb) * 1e3, Median(tb) * 1e9 / static_cast<double>(count), Median(tp) * 1e3,
              Median(tb) / Median(tp));
  std::printf("memory        %8.0f bytes/node (node %zu + record and its strings)   baseline record %.0f bytes/node\n",
              per_node, sizeof(TreeNode), static_cast<double>(plain_heap) / static_cast<double>(count));

  // Sort.
  struct SortCase {
    const char* name;
    TREE_KEY_FN key;
  };
  const SortCase sorts[] = {{"date", ByDate}, {"from", ByFrom}, {"subject", BySubject}, {"size", BySize}};
  for (const SortCase& s : sorts)
    for (bool desc : {false, true}) {
      auto ours = [&] { TREE_ResortTreeByKey(folder, s.key, desc); };
      auto base = [&] {
        struct Keyed {
          TreeSortKey key;
          const Msg* m;
        };
        std::vector<Keyed> v;
        v.reserve(count);
        for (const Msg& m : records) v.push_back({s.key(const_cast<Msg*>(&m)), &m});
        auto less = [](const TreeSortKey& a, const TreeSortKey& b) {
          if (a.number != b.number) return a.number < b.number;
          if (int c = a.text.compare(b.text)) return c < 0;
          return a.tie < b.tie;
        };
        std::stable_sort(v.begin(), v.end(),
                         [&](const Keyed& a, const Keyed& b) { return desc ? less(b.key, a.key) : less(a.key, b.key); });
      };
      auto [t, b] = Alternate(ours, base);
      std::printf("sort %-8s %s %8.2f ms   baseline std::stable_sort %8.2f ms  ratio %.2f\n", s.name,
                  desc ? "desc" : "asc ", t * 1e3, b * 1e3, t / b);
    }
  {
    auto [t, unused] = Alternate([&] { TREE_ResortTree(folder, CompareDate); }, nullptr);
    (void)unused;
    std::printf("sort date by compare callback %8.2f ms\n", t * 1e3);
  }

  // Scroll page by page.
  int pages = 0;
  auto scroll = [&] {
    TREE_ScrollLines(w, -TREE_EntriesVisible(w));
    pages = 0;
    int last = -1;
    while (TREE_TopLine(w) != last) {
      last = TREE_TopLine(w);
      EVENT ev{};
      ev.type = E_VSCROLL;
      ev.v.scroll.what = SC_PAGE_DOWN;
      xvt_win_dispatch_event(w, &ev);
      ++pages;
      if (pages % 256 == 0) xvt_test_clear_damage(w);
    }
  };
  auto walk = [&] {
    int steps = 0;
    for (TreeNode* n = TREE_GetFirstKid(root); n; n = TREE_NextNode(n)) ++steps;
    if (steps == 0) std::abort();
  };
  auto [ts, tw] = Alternate(scroll, walk);
  std::printf("scroll        %8.2f ms for %d pages (%6.2f us/page)   baseline TREE_NextNode over every line %8.2f ms\n",
              ts * 1e3, pages, ts * 1e6 / pages, tw * 1e3);
  {
    EVENT ev{};
    ev.type = E_VSCROLL;
    ev.v.scroll.what = SC_THUMB;
    auto jump = [&] {
      ev.v.scroll.pos = TREE_TopLine(w) < 10 ? static_cast<int>(count) - 100 : 0;
      xvt_win_dispatch_event(w, &ev);
    };
    auto [tj, unused] = Alternate(jump, nullptr);
    (void)unused;
    std::printf("thumb jump    %8.2f ms (from one end of the tree to the other)\n", tj * 1e3);
  }

  // Select all, then one.
  TREE_ScrollLines(w, -TREE_EntriesVisible(w));
  TreeNode* first = TREE_GetFirstKid(folder);
  auto select_all = [&] { Key(w, 'a', true); };
  auto select_one = [&] { TREE_SelectOnlyNode(first); };
  std::vector<double> sa, so;
  for (int i = 0; i < 6; ++i) {
    g_selection_calls = 0;
    double a = Seconds(select_all);
    int calls = g_selection_calls;
    double o = Seconds(select_one);
    if (i) sa.push_back(a), so.push_back(o);
    if (calls != 1) std::printf("select all made %d callbacks\n", calls);
  }
  std::printf("select all    %8.2f ms (%d selected)   back to one line %8.2f ms\n", Median(sa) * 1e3,
              static_cast<int>(count) + 1, Median(so) * 1e3);

  // Removing lines.
  std::vector<double> rs, rf;
  for (int i = 0; i < 200; ++i) {
    TreeNode* on_screen = TREE_GetNext(TREE_GetFirstKid(folder));
    TREE_SelectOnlyNode(on_screen);
    rs.push_back(Seconds([&] { TREE_RemoveNode(on_screen); }));
    TreeNode* far = TREE_GetLastKid(folder);
    for (int k = 0; k < 1000; ++k) far = TREE_GetPrev(far);
    rf.push_back(Seconds([&] { TREE_RemoveNode(far); }));
    if (i % 64 == 0) xvt_test_clear_damage(w);
  }
  std::printf("remove        %8.2f us a selected line on the screen   %8.2f us a line far below it (view at the top)\n",
              Median(rs) * 1e6, Median(rf) * 1e6);
  TREE_ScrollLines(w, TREE_EntriesVisible(w) / 2);
  rf.clear();
  for (int i = 0; i < 50; ++i) {
    TreeNode* far = TREE_GetFirstKid(folder);
    for (int k = 0; k < 1000; ++k) far = TREE_GetNext(far);
    rf.push_back(Seconds([&] { TREE_RemoveNode(far); }));
    xvt_test_clear_damage(w);
  }
  std::printf("remove        %8.2f us a line far above the screen (view in the middle: the offset is counted)\n",
              Median(rf) * 1e6);
  xvt_vobj_destroy(w);
}

long TaskEh(WINDOW, EVENT*) { return 0; }

}  // namespace

int main(int argc, char** argv) {
  size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  if (count < 2000) count = 2000;
  XVT_CONFIG config{0, 0, "tree_bench", "tree_bench", "tree_bench", 42};
  xvt_test_set_run_hook([count] { Bench(count); });
  xvt_app_create(0, nullptr, 0, TaskEh, &config);
  return 0;
}
