// nodes_bench: a large folder opened into the organizer's tree, and
// re-sorted by each order: a local folder, and a folder on a private Dovecot.
//
//   nodes_bench [COUNT] [local|imap|both]     (default 100000 both)
//
// Local: builds a folder of COUNT generated messages and lets an open make
// its cache files. IMAP: starts Dovecot with tests/peers/imap-dovecot.sh and
// seeds COUNT messages into "Big"; the service says Security "none", so the
// session talks in the clear as the IMAP bench's floor does. For each, after
// one warm-up run of each side, in alternating order (five rounds local,
// three over IMAP), times two ways of opening it:
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
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/bench_model.h"
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

Run ModelSide(int ms, const char* folder) {
  const Memory before = Measure();
  auto start = Clock::now();
  const int id = MM_FolOpen(ms, folder);
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

TreeNode* AddLine(WINDOW tree, int ms, const char* folder) {
  FolderListEntry e;
  e.name = folder;
  e.delimiter = '/';
  return folderAdd(TREE_GetRoot(tree), ms, e, 1, INVALID_FOLDER);
}

Run NodesSide(WINDOW tree, int ms, const char* folder, bool keep, TreeNode** out) {
  const Memory before = Measure();
  auto start = Clock::now();
  TreeNode* node = AddLine(tree, ms, folder);
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
int g_imap = INVALID_SERVICE;
int g_status = 0;

void Side(WINDOW tree, const char* label, int ms, const char* folder, int rounds) {
  TreeNode* unused = nullptr;
  ModelSide(ms, folder);  // warm-up: page cache, allocator, the server's indexes
  NodesSide(tree, ms, folder, false, &unused);
  std::vector<double> model, nodes;
  Run m{}, n{};
  for (int round = 0; round < rounds; ++round) {
    if (round % 2) {
      n = NodesSide(tree, ms, folder, false, &unused);
      m = ModelSide(ms, folder);
    } else {
      m = ModelSide(ms, folder);
      n = NodesSide(tree, ms, folder, false, &unused);
    }
    model.push_back(m.seconds);
    nodes.push_back(n.seconds);
    if (m.lines != g_count || n.lines != g_count) {
      std::fprintf(stderr, "%s: the two sides saw %ld and %ld messages of %d\n", label, m.lines, n.lines, g_count);
      g_status = 1;
      return;
    }
  }
  const double tm = Median(model), tn = Median(nodes);
  std::printf("%s open, median of %d alternating rounds: model %.3f s, nodes %.3f s, ratio %.2f (%.2f us per message"
              " over the floor)\n",
              label, rounds, tm, tn, tn / tm, (tn - tm) / g_count * 1e6);
  std::printf("%s heap held with the folder open: model %.1f bytes per message, nodes %.1f; the nodes' own %.1f"
              " bytes per message\n",
              label, static_cast<double>(m.heap) / g_count, static_cast<double>(n.heap) / g_count,
              static_cast<double>(n.heap - m.heap) / g_count);
  TreeNode* node = nullptr;
  NodesSide(tree, ms, folder, true, &node);
  for (int order = 0; order < kSortOrders; ++order) {
    auto start = Clock::now();
    MSG_ResortKids(node, order);
    std::printf("%s re-sort by %-24s %.3f s (%.2f us per message)\n", label, MSG_SortName(order), Seconds(start),
                Seconds(start) / g_count * 1e6);
  }
  // A second conversation sort: the headers now come from the cache (of a
  // local folder; a remote one keeps only its last few thousand).
  auto start = Clock::now();
  MSG_ResortKids(node, kSortConversation);
  std::printf("%s re-sort by %-24s %.3f s again\n", label, MSG_SortName(kSortConversation), Seconds(start));
  folderCloseTree(node);
  TREE_RemoveNode(node);
}

void Bench() {
  RCT r{0, 0, 800, 600};
  WINDOW tree = TREE_CreateTreeWidget(TASK_WIN, &r, 80, 0, 2, 0, 16, 0, nullptr, nullptr, nullptr, nullptr);
  if (g_ms != INVALID_SERVICE) Side(tree, "local", g_ms, "Bench", 5);
  if (g_imap != INVALID_SERVICE) Side(tree, "imap", g_imap, "Big", 3);
}

}  // namespace

int main(int argc, char** argv) {
  g_count = argc > 1 ? std::atoi(argv[1]) : 100000;
  const std::string which = argc > 2 ? argv[2] : "both";
  const bool local = which == "local" || which == "both", imap = which == "imap" || which == "both";
  if (g_count < 1 || (!local && !imap)) {
    std::fprintf(stderr, "usage: %s [COUNT] [local|imap|both]\n", argv[0]);
    return 2;
  }
  const std::string home = bench_model::TempDir("nodes_bench");
  if (home.empty()) return 1;
  bench_model::Dovecot server;
  if (imap) {
    if (!server.Start("nodes_bench-imap")) return 1;
    auto seeding = Clock::now();
    server.Seed(g_count, "Big");
    std::printf("imap folder: %d messages seeded into Big in %.1f s\n", g_count, Seconds(seeding));
  }
  if (!bench_model::UserHome(home + "/user")) return 1;
  Opt_AssignString("MsgService.IDList", "1,2", kOptPermanent, 0);
  bench_model::LocalService(1);
  if (imap) server.Service(2);
  MM_Init();
  if (local) {
    g_ms = MM_MSNew(1);
    auto start = Clock::now();
    const uint64_t bytes = bench_model::LocalFolder("Bench", g_count);
    if (!bytes) return 1;
    std::printf("local folder: %d messages, %.1f MB, written, settled and cached in %.1f s\n", g_count, bytes / 1e6,
                Seconds(start));
  }
  if (imap) {
    g_imap = MM_MSNew(2);
    MM_MSInitAuthInfo(g_imap);
  }
  XVT_CONFIG config{0, 0, "nodes_bench", "nodes_bench", "task", 42};
  xvt_test_set_unexpected_handler([](const XvtPost& p) { std::fprintf(stderr, "dialog: %s\n", p.text.c_str()); });
  xvt_test_set_run_hook(Bench);
  xvt_app_create(0, nullptr, 0, TaskEh, &config);
  MM_Shutdown(0);
  server.Stop();
  std::filesystem::remove_all(home);
  return g_status;
}
