// Operations on many messages at once. A flag change or a copy on a
// selection goes to each folder as one sequence set ("3:7,9,12:15"), one
// round trip per folder instead of one per message; the listeners still
// hear of each message. Flag changes that the server reports on its own
// (another client's) are kept per folder until the folder's window asks.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <map>

#include "src/base/trace.h"
#include "src/model/model_internal.h"

namespace {

struct FlagEvents {
  const char* name;
  int set_event, clear_event;
};

constexpr FlagEvents kFlagEvents[] = {
    {"\\Deleted", E_DELETED_FLAG_SET, E_DELETED_FLAG_CLEARED},
    {"\\Seen", E_SEEN_FLAG_SET, E_SEEN_FLAG_CLEARED},
    {"\\Flagged", E_FLAGGED_FLAG_SET, E_FLAGGED_FLAG_CLEARED},
    {"\\Answered", E_ANSWERED_FLAG_SET, E_ANSWERED_FLAG_CLEARED},
    {"\\Draft", E_DRAFT_FLAG_SET, E_DRAFT_FLAG_CLEARED},
};

void Post(int type, UMI umi) {
  ModelEvent* ev = MM_NotEventNew(type);
  ev->umi = umi;
  ev->folder = static_cast<int16_t>(MM_UMIFolder(umi));
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

// The messages of one folder among umis, with their numbers now.
struct FolderBatch {
  MailStream* stream = nullptr;
  std::vector<UMI> umis;
  std::vector<unsigned long> msgnos;
};

// Groups the live messages by folder; shadows and gone messages drop out.
std::map<int, FolderBatch> ByFolder(const std::vector<UMI>& umis) {
  std::map<int, FolderBatch> out;
  for (UMI umi : umis) {
    if (MM_MsgIsShadowMessage(umi)) continue;
    MailStream* stream;
    unsigned long msgno;
    if (!UmiLocate(umi, &stream, &msgno)) continue;
    FolderBatch& b = out[MM_UMIFolder(umi)];
    b.stream = stream;
    b.umis.push_back(umi);
    b.msgnos.push_back(msgno);
  }
  // In folder order, as a server takes a sequence set, whatever the order of selection.
  for (auto& entry : out) {
    FolderBatch& b = entry.second;  // a plain reference: lambdas may not capture bindings
    std::vector<size_t> order(b.umis.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t x, size_t y) { return b.msgnos[x] < b.msgnos[y]; });
    FolderBatch sorted;
    sorted.stream = b.stream;
    for (size_t i : order) {
      sorted.umis.push_back(b.umis[i]);
      sorted.msgnos.push_back(b.msgnos[i]);
    }
    b = std::move(sorted);
  }
  return out;
}

// Reports of flags the server sent by itself, per folder id. Past the cap a
// folder's list is dropped and marked whole: its window then reads every line.
constexpr size_t kMaxFlagReports = 1u << 20;
struct FlagReports {
  std::vector<UMI> umis;
  bool overflow = false;
};
std::map<int, FlagReports> g_reports;

}  // namespace

std::string MM_SequenceSet(std::vector<unsigned long> msgnos) {
  std::sort(msgnos.begin(), msgnos.end());
  msgnos.erase(std::unique(msgnos.begin(), msgnos.end()), msgnos.end());
  std::string out;
  char buf[48];
  for (size_t i = 0; i < msgnos.size();) {
    if (msgnos[i] == 0) {
      ++i;
      continue;
    }
    size_t j = i;
    while (j + 1 < msgnos.size() && msgnos[j + 1] == msgnos[j] + 1) ++j;
    if (j == i)
      std::snprintf(buf, sizeof buf, "%s%lu", out.empty() ? "" : ",", msgnos[i]);
    else
      std::snprintf(buf, sizeof buf, "%s%lu:%lu", out.empty() ? "" : ",", msgnos[i], msgnos[j]);
    out += buf;
    i = j + 1;
  }
  return out;
}

namespace {

int ChangeMany(const std::vector<UMI>& umis, const char* flag, bool set) {
  if (!flag) return 0;
  const FlagEvents* events = nullptr;
  for (const FlagEvents& f : kFlagEvents)
    if (strcasecmp(flag, f.name) == 0) events = &f;
  int changed = 0;
  for (auto& [id, batch] : ByFolder(umis)) {
    const std::string sequence = MM_SequenceSet(batch.msgnos);
    if (sequence.empty()) continue;
    Trace(kTraceModel, kTraceLow, "MM_MsgSetFlagMany: %s %s on %s\n", set ? "set" : "clear", flag, sequence.c_str());
    {
      CriticalSection busy;
      QuietSection quiet;
      if (set)
        mail_setflag(batch.stream, sequence.c_str(), flag);
      else
        mail_clearflag(batch.stream, sequence.c_str(), flag);
    }
    if (!MM_FolStream(id)) continue;  // the stream died under the change: nothing was stored
    if (set && events && events->set_event == E_DELETED_FLAG_SET)
      if (FolderInfo* f = FolderAt(id)) f->needs_expunge = true;
    for (UMI umi : batch.umis) {
      ++changed;
      if (events) Post(set ? events->set_event : events->clear_event, umi);
    }
  }
  return changed;
}

}  // namespace

int MM_MsgSetFlagMany(const std::vector<UMI>& umis, const char* flag) { return ChangeMany(umis, flag, true); }
int MM_MsgClearFlagMany(const std::vector<UMI>& umis, const char* flag) { return ChangeMany(umis, flag, false); }

int MM_MsgCopyMany(const std::vector<UMI>& umis, int ms, const char* folder) {
  Trace(kTraceModel, kTraceAll, "MM_MsgCopyMany: function entry.\n");
  if (ms == INVALID_SERVICE || !folder) return 0;
  int copied = 0;
  for (auto& [id, batch] : ByFolder(umis)) {
    if (MM_MSGetType(ms) != kServiceLocal && MM_FolGetService(id) == ms) {
      // Both ends on one server: it copies the whole set by itself.
      const std::string sequence = MM_SequenceSet(batch.msgnos);
      long ok;
      {
        CriticalSection busy;
        ok = mail_copy(batch.stream, sequence.c_str(), folder);
      }
      if (!ok) return 0;
      copied += static_cast<int>(batch.umis.size());
      continue;
    }
    // Across services each message travels as a file; MM_MsgCopy keeps its flags and date.
    for (UMI umi : batch.umis) {
      if (!MM_MsgCopy(umi, ms, folder)) return 0;
      ++copied;
    }
  }
  return copied;
}

void MM_MsgFlagsReported(MailStream* stream, unsigned long msgno) {
  const int id = FolderForStream(stream);
  FolderInfo* f = FolderAt(id);
  if (!f || msgno < 1 || msgno > f->count()) return;
  FlagReports& r = g_reports[id];
  if (r.overflow) return;
  if (r.umis.size() >= kMaxFlagReports) {
    r.umis.clear();
    r.umis.shrink_to_fit();
    r.overflow = true;
    return;
  }
  r.umis.push_back(MM_UMIMake(id, 0, f->serials[msgno]));
}

int MM_FolTakeFlagReports(int id, std::vector<UMI>* out) {
  out->clear();
  auto it = g_reports.find(id);
  if (it == g_reports.end()) return 0;
  const bool overflow = it->second.overflow;
  out->swap(it->second.umis);
  g_reports.erase(it);
  std::sort(out->begin(), out->end());
  out->erase(std::unique(out->begin(), out->end()), out->end());
  return overflow ? -1 : static_cast<int>(out->size());
}
