// nodes_bench: a large local folder opened into the organizer's tree, and
// re-sorted by each order.
//
//   nodes_bench [COUNT]      (default 100000)
//
// Builds a folder of COUNT generated messages and lets an open make its
// cache files. Then, after one warm-up run of each, in alternating order,
// times two ways of opening it:
//   model: MM_FolOpen, then for every message its UMI, MM_MsgEnvelope and
//          the flag tests; MM_FolClose. What any list of the folder must
//          read at least (the floor).
//   nodes: a folder line in a headless tree opened as a double click does:
//          MM_FolOpen, a draw record per message (texts, date key, flags),
//          one sort in "Most Recent Arrival", appends into the tree, the
//          UMI index; then the folder closed and its lines removed.
// Then, with the folder open in the tree, re-sorts its lines by each of
// the seven orders (each timed alone, the first re-read of headers for
// the conversation order included). Memory: heap held with the folder open
// in the tree against the model's open alone, per message.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_mh_folder.h"
#include "c-client/core/mail.h"
#include "c-client/mh/mh_names.h"
#include "src/base/filenames.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/organizer/nodes.h"
#include "xvt/xvt_test.h"

namespace {

using namespace bench_mh;

struct Run {
  double seconds;
  long heap;
  long lines;
};

Run ModelSide(int ms) {
  const Memory before = Measure();
  auto start = Clock::now();
  const int id = MM_FolOpen(ms, "Bench");
  long seen = 0;
  const unsigned long n = static_cast<unsigned long>(MM_FolGetNumMsgs(id));
  for (unsigned long i = 1; i <= n; ++i) {
    const UMI umi = MM_UMIFromMsgno(id, i);
    seen += MM_MsgEnvelope(umi) != nullptr && !(MM_MsgIsRead(umi) && MM_MsgIsDeleted(umi) && MM_MsgIsFlagged(umi) &&
                                                 MM_MsgIsAnswered(umi) && MM_MsgIsDraft(umi) && MM_MsgIsRecent(umi));
  }
  const double t = Seconds(start);
  const long heap = Measure().heap - before.heap;
  MM_FolClose(id, 1);
  return {t, heap, seen};
}

TreeNode* AddLine(WINDOW tree, int ms) {
  FolderListEntry e;
  e.name = "Bench";
  e.delimiter = '/';
  return folderAdd(TREE_GetRoot(tree), ms, e, 1, INVALID_FOLDER);
}

Run NodesSide(WINDOW tree, int ms, bool keep, TreeNode** out) {
  const Memory before = Measure();
  auto start = Clock::now();
  TreeNode* node = AddLine(tree, ms);
  if (!node || folderHandleNodeEvent(tree, node, kNodeEventDoubleClick) != kNodeActionOk) std::exit(1);
  const double t = Seconds(start);
  const long heap = Measure().heap - before.heap;
  const long lines = FOL_Info(node)->shown;
  if (keep) {
    *out = node;
  } else {
    folderCloseTree(node);
    TREE_RemoveNode(node);
  }
  return {t, heap, lines};
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

long TaskEh(WINDOW, EVENT*) { return 0; }

int g_count = 0;
int g_ms = INVALID_SERVICE;
int g_status = 0;

void Bench() {
  RCT r{0, 0, 800, 600};
  WINDOW tree = TREE_CreateTreeWidget(TASK_WIN, &r, 80, 0, 2, 0, 16, 0, nullptr, nullptr, nullptr, nullptr);
  TreeNode* unused = nullptr;
  ModelSide(g_ms);  // warm-up: page cache and allocator
  NodesSide(tree, g_ms, false, &unused);
  std::vector<double> model, nodes;
  Run m{}, n{};
  for (int round = 0; round < 5; ++round) {
    if (round % 2) {
      n = NodesSide(tree, g_ms, false, &unused);
      m = ModelSide(g_ms);
    } else {
      m = ModelSide(g_ms);
      n = NodesSide(tree, g_ms, false, &unused);
    }
    model.push_back(m.seconds);
    nodes.push_back(n.seconds);
    if (m.lines != g_count || n.lines != g_count) {
      std::fprintf(stderr, "the two sides saw %ld and %ld messages of %d\n", m.lines, n.lines, g_count);
      g_status = 1;
      return;
    }
  }
  const double tm = Median(model), tn = Median(nodes);
  std::printf("open, median of 5 alternating rounds: model %.3f s, nodes %.3f s, ratio %.2f (%.2f us per message"
              " over the floor)\n",
              tm, tn, tn / tm, (tn - tm) / g_count * 1e6);
  std::printf("heap held with the folder open: model %.1f bytes per message, nodes %.1f; the nodes' own %.1f bytes"
              " per message\n",
              static_cast<double>(m.heap) / g_count, static_cast<double>(n.heap) / g_count,
              static_cast<double>(n.heap - m.heap) / g_count);
  TreeNode* node = nullptr;
  NodesSide(tree, g_ms, true, &node);
  for (int order = 0; order < kSortOrders; ++order) {
    auto start = Clock::now();
    MSG_ResortKids(node, order);
    std::printf("re-sort by %-24s %.3f s (%.2f us per message)\n", MSG_SortName(order), Seconds(start),
                Seconds(start) / g_count * 1e6);
  }
  // A second conversation sort: the headers now come from the cache.
  auto start = Clock::now();
  MSG_ResortKids(node, kSortConversation);
  std::printf("re-sort by %-24s %.3f s again\n", MSG_SortName(kSortConversation), Seconds(start));
  folderCloseTree(node);
  TREE_RemoveNode(node);
}

}  // namespace

int main(int argc, char** argv) {
  g_count = argc > 1 ? std::atoi(argv[1]) : 100000;
  if (g_count < 1) {
    std::fprintf(stderr, "usage: %s [COUNT]\n", argv[0]);
    return 2;
  }
  char tmpl[] = "/tmp/nodes_bench.XXXXXX";
  if (!::mkdtemp(tmpl)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string home = tmpl;
  ::setenv("VELMAR_HOME", home.c_str(), 1);
  if (!InitDirectories() || !Opt_Init()) {
    std::fprintf(stderr, "cannot set up the user directory\n");
    return 1;
  }
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
  MM_Init();
  g_ms = MM_MSNew(1);
  if (!mail_create(nullptr, "Bench")) {
    std::fprintf(stderr, "cannot create the folder\n");
    return 1;
  }
  const std::string dir = mh_path("Bench");
  std::filesystem::remove(dir + "/mh_index.dat");
  std::filesystem::remove(dir + "/mh_cache.dat");
  auto start = Clock::now();
  const uint64_t bytes = BuildFolder(dir, g_count);
  Settle(dir, g_count);
  MailStream* s = mail_open(nullptr, "Bench", 0);  // makes the caches
  mail_close(s);
  std::printf("folder: %d messages, %.1f MB, written, settled and cached in %.1f s\n", g_count, bytes / 1e6,
              Seconds(start));
  XVT_CONFIG config{0, 0, "nodes_bench", "nodes_bench", "task", 42};
  xvt_test_set_unexpected_handler([](const XvtPost& p) { std::fprintf(stderr, "dialog: %s\n", p.text.c_str()); });
  xvt_test_set_run_hook(Bench);
  xvt_app_create(0, nullptr, 0, TaskEh, &config);
  MM_Shutdown(0);
  std::filesystem::remove_all(home);
  return g_status;
}
