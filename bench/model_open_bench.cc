// model_open_bench: what the mail model adds to opening a large local
// folder and reading what a folder list shows.
//
//   model_open_bench [COUNT]      (default 100000)
//
// Builds a folder of COUNT generated messages, lets an open make its cache
// files, and then, in alternating order after one warm-up run of each,
// times the same work done two ways on the same folder:
//   bare:  mail_open, then for every message number mail_fetchstructure
//          and the flags of mail_elt; mail_close.
//   model: MM_FolOpen, then for every message its UMI (MM_UMIFromMsgno),
//          MM_MsgEnvelope and the flag tests (MM_MsgIsRead and the rest)
//          by UMI; MM_FolClose.
// Neither side draws anything or sorts; both read envelopes from the same
// caches. Memory: the heap that each open holds right after it (mallinfo2),
// per message; the model's share is the difference.
#include <algorithm>
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

namespace {

using namespace bench_mh;

struct Run {
  double seconds;
  long heap;  // heap held right after the open
  unsigned long seen;
};

Run Bare(int count) {
  const Memory before = Measure();
  auto start = Clock::now();
  MailStream* s = mail_open(nullptr, "Bench", 0);
  const long heap = Measure().heap - before.heap;
  unsigned long seen = 0;
  for (unsigned long n = 1; s && n <= s->nmsgs; ++n) {
    Envelope* env = mail_fetchstructure(s, n, nullptr);
    const MessageElt* e = mail_elt(s, n);
    seen += env != nullptr && !(e->seen && e->deleted && e->flagged && e->answered && e->draft);
  }
  const double t = Seconds(start);
  if (!s || s->nmsgs != static_cast<unsigned long>(count)) std::exit(1);
  mail_close(s);
  return {t, heap, seen};
}

Run Model(int ms, int count) {
  const Memory before = Measure();
  auto start = Clock::now();
  const int id = MM_FolOpen(ms, "Bench");
  const long heap = Measure().heap - before.heap;
  unsigned long seen = 0;
  const unsigned long n_msgs = static_cast<unsigned long>(MM_FolGetNumMsgs(id));
  for (unsigned long n = 1; n <= n_msgs; ++n) {
    const UMI umi = MM_UMIFromMsgno(id, n);
    Envelope* env = MM_MsgEnvelope(umi);
    seen += env != nullptr && !(MM_MsgIsRead(umi) && MM_MsgIsDeleted(umi) && MM_MsgIsFlagged(umi) &&
                                MM_MsgIsAnswered(umi) && MM_MsgIsDraft(umi));
  }
  const double t = Seconds(start);
  if (id == INVALID_FOLDER || n_msgs != static_cast<unsigned long>(count)) std::exit(1);
  MM_FolClose(id, 1);
  return {t, heap, seen};
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
  if (count < 1) {
    std::fprintf(stderr, "usage: %s [COUNT]\n", argv[0]);
    return 2;
  }
  const std::string home = bench_model::TempDir("model_open_bench");
  if (home.empty() || !bench_model::UserHome(home)) return 1;
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  bench_model::LocalService(1);
  MM_Init();
  const int ms = MM_MSNew(1);
  auto start = Clock::now();
  const uint64_t bytes = bench_model::LocalFolder("Bench", count);
  if (!bytes) return 1;
  std::printf("folder: %d messages, %.1f MB, written, settled and cached in %.1f s\n", count, bytes / 1e6,
              Seconds(start));
  std::printf("bare:  mail_open, mail_fetchstructure and the element's flags for every message number\n"
              "model: MM_FolOpen, MM_UMIFromMsgno, MM_MsgEnvelope and the five flag tests by UMI\n"
              "both read the same cache files; neither draws, sorts or fetches text\n");
  Bare(count);  // warm-up: page cache and allocator
  Model(ms, count);
  std::vector<double> bare, model;
  long bare_heap = 0, model_heap = 0;
  for (int round = 0; round < 5; ++round) {
    Run b{}, m{};
    if (round % 2) {
      m = Model(ms, count);
      b = Bare(count);
    } else {
      b = Bare(count);
      m = Model(ms, count);
    }
    bare.push_back(b.seconds);
    model.push_back(m.seconds);
    bare_heap = b.heap;
    model_heap = m.heap;
    if (b.seen != static_cast<unsigned long>(count) || m.seen != b.seen) {
      std::fprintf(stderr, "the two sides saw different messages: %lu and %lu\n", b.seen, m.seen);
      return 1;
    }
  }
  const double tb = Median(bare), tm = Median(model);
  std::printf("median of 5 alternating rounds: bare %.3f s, model %.3f s, ratio %.2f (target <= 1.3)\n", tb, tm,
              tm / tb);
  std::printf("heap held right after the open: bare %.1f bytes per message, model %.1f; the model's own %.1f bytes"
              " per message (target <= 64)\n",
              static_cast<double>(bare_heap) / count, static_cast<double>(model_heap) / count,
              static_cast<double>(model_heap - bare_heap) / count);
  MM_Shutdown(0);
  std::filesystem::remove_all(home);
  return 0;
}
