// Filters: the list in the options, and running it over new mail where
// the messages live (the server searches its own folders; local folders
// are searched here).
#include "src/search/filters.h"

#include <strings.h>

#include <algorithm>
#include <map>

#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/model/local_search.h"
#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "src/search/search_run.h"
#include "xvt/xvt.h"

namespace {

const char* const kActionWords[kFilterActionCount] = {"Move", "Copy", "MarkRead", "Flag", "Delete"};

std::string Key(int ms_number, int n, const char* attribute) {
  return "Filters." + std::to_string(ms_number) + "." + std::to_string(n) + "." + attribute;
}
std::string CountKey(int ms_number) { return "Filters." + std::to_string(ms_number) + ".Count"; }

bool NeedsFolder(int action) { return action == kFilterMove || action == kFilterCopy; }

int StoredCount(int ms_number) {
  int count = 0;
  if (!Opt_LookupInt(CountKey(ms_number).c_str(), &count, kOptSession) || count < 0) return 0;
  return std::min(count, kFilterMax);
}

// Message numbers change with every expunge: they are taken from the UMIs
// just before each command that uses them.
std::vector<unsigned long> Msgnos(const std::vector<UMI>& umis) {
  std::vector<unsigned long> out;
  for (UMI u : umis) out.push_back(MM_UMIMsgno(u));
  return out;
}

void Keep(std::vector<UMI>* found, const std::vector<UMI>& allowed) {
  found->erase(std::remove_if(found->begin(), found->end(),
                              [&](UMI u) { return !std::binary_search(allowed.begin(), allowed.end(), u); }),
               found->end());
}

// What the rule finds among the candidates (sorted UMIs), never a message
// already deleted: a filter does not bring back what the user threw away.
bool Find(int folder, const std::string& rule, const std::vector<UMI>& candidates, std::vector<UMI>* found,
          std::string* error) {
  found->clear();
  const int ms = MM_FolGetService(folder);
  if (MM_MSGetType(ms) == kServiceLocal) {
    SearchProgram program;
    unsigned long first = ~0ul;
    for (unsigned long n : Msgnos(candidates))
      if (n) first = std::min(first, n);
    if (first == ~0ul) return true;
    if (!MM_SearchParseProgram(("UNDELETED " + rule).c_str(), &program, error) ||
        !MM_FolSearchLocal(folder, program, found, error, first))
      return false;
  } else {
    const std::string set = MM_SequenceSet(Msgnos(candidates));
    if (set.empty()) return true;
    MM_FolSearchStart(folder);
    if (!MM_FolSearch(folder, SRCH_ProgramForServer(set + " UNDELETED " + rule).c_str())) {
      *error = "the server refused the search";
      return false;
    }
    MM_FolSearchGetList(folder, found);
  }
  std::sort(found->begin(), found->end());
  Keep(found, candidates);
  return true;
}

// 1 when the action was done to every message found.
bool Act(const MailFilter& f, int folder, const std::vector<UMI>& found, std::string* why) {
  const int ms = MM_FolGetService(folder);
  const int n = static_cast<int>(found.size());
  switch (f.action) {
    case kFilterMove:
    case kFilterCopy:
      if (strcasecmp(f.folder.c_str(), MM_FolGetName(folder)) == 0) {
        *why = "it would file the messages into the folder they are in";
        return false;
      }
      // The copies first: nothing is deleted unless each one is stored.
      if (MM_MsgCopyMany(found, ms, f.folder.c_str()) != n) {
        *why = "they could not be copied to \"" + f.folder + "\"";
        return false;
      }
      if (f.action == kFilterMove && MM_MsgSetFlagMany(found, "\\Deleted") != n) {
        *why = "they were copied to \"" + f.folder + "\" but could not be deleted here";
        return false;
      }
      return true;
    case kFilterMarkRead:
    case kFilterFlag:
    case kFilterDelete: {
      const char* flag = f.action == kFilterMarkRead ? "\\Seen" : f.action == kFilterFlag ? "\\Flagged" : "\\Deleted";
      if (MM_MsgSetFlagMany(found, flag) == n) return true;
      *why = std::string("the flag ") + flag + " could not be set";
      return false;
    }
    default: *why = "its action is unknown"; return false;
  }
}

// --- New mail ------------------------------------------------------------------

struct Mark {
  std::string canon;       // the folder the id stood for when noted
  uint32_t last = 0;       // the highest serial handled
  std::vector<UMI> waiting;
};

struct State {
  int notifier = -1;
  bool running = false;
  std::map<int, Mark> folders;  // by folder id
};

State& S() {
  static State s;
  return s;
}

constexpr size_t kMaxWaiting = 100000;

int WantEvent(ModelEvent* ev, void*) { return ev->type == E_NEW_MESSAGES || ev->type == E_FOLDER_CLOSED; }

void HandleEvent(ModelEvent* ev, void*) {
  if (ev->type == E_FOLDER_CLOSED) {
    // The id may stand for another folder, or the same one with its
    // serials counted anew, from now on.
    // (Reset, not erased: the list may be being walked.)
    if (auto it = S().folders.find(ev->folder); it != S().folders.end()) it->second = Mark{};
    return;
  }
  // Told from inside the mail layer's command: only note the messages here.
  const char* name = MM_FolGetName(ev->folder);
  if (!name || strcasecmp(name, "INBOX") != 0) return;
  if (StoredCount(MM_MSGetNumber(MM_FolGetService(ev->folder))) == 0) return;
  Mark& m = S().folders[ev->folder];
  const std::string canon = MM_FolCanonNameBuild(MM_FolGetService(ev->folder), name);
  if (m.canon != canon) m = Mark{canon, 0, {}};
  const long count = MM_FolGetNumMsgs(ev->folder);
  for (long n = std::max<long>(ev->value, 0) + 1; n <= count && m.waiting.size() < kMaxWaiting; ++n)
    if (const UMI umi = MM_UMIFromMsgno(ev->folder, static_cast<unsigned long>(n)))
      if (MM_UMISerial(umi) > m.last) m.waiting.push_back(umi);
}

}  // namespace

const char* FLT_ActionWord(int action) {
  return action >= 0 && action < kFilterActionCount ? kActionWords[action] : "";
}

int FLT_ActionFromWord(const char* word) {
  for (int i = 0; word && i < kFilterActionCount; ++i)
    if (strcasecmp(word, kActionWords[i]) == 0) return i;
  return -1;
}

std::string FLT_Describe(const MailFilter& f) {
  switch (f.action) {
    case kFilterMove: return "Move to " + f.folder;
    case kFilterCopy: return "Copy to " + f.folder;
    case kFilterMarkRead: return "Mark read";
    case kFilterFlag: return "Flag";
    case kFilterDelete: return "Delete";
    default: return "?";
  }
}

std::string FLT_Problem(const MailFilter& f) {
  if (f.name.empty()) return "The filter has no name.";
  if (f.rule.empty()) return "The filter \"" + f.name + "\" has no rule.";
  if (f.action < 0 || f.action >= kFilterActionCount) return "The filter \"" + f.name + "\" has no action.";
  if (NeedsFolder(f.action) && f.folder.empty()) return "The filter \"" + f.name + "\" has no folder to file into.";
  for (const std::string* s : {&f.name, &f.rule, &f.folder})
    if (s->size() > kFilterFieldMax || s->find_first_of("\r\n") != std::string::npos)
      return "The filter \"" + f.name.substr(0, 60) + "\" has a name, rule or folder that is too long or has line breaks.";
  return "";
}

std::vector<MailFilter> FLT_Load(int ms_number, int* damaged) {
  std::vector<MailFilter> out;
  int bad = 0;
  const int count = StoredCount(ms_number);
  for (int n = 1; n <= count; ++n) {
    MailFilter f;
    f.name = Opt_LookupText(Key(ms_number, n, "Name").c_str(), kOptSession);
    f.rule = Opt_LookupText(Key(ms_number, n, "Rule").c_str(), kOptSession);
    f.action = FLT_ActionFromWord(Opt_LookupText(Key(ms_number, n, "Action").c_str(), kOptSession).c_str());
    f.folder = Opt_LookupText(Key(ms_number, n, "Folder").c_str(), kOptSession);
    short on = 0;
    if (Opt_LookupBoolean(Key(ms_number, n, "Stop").c_str(), &on, kOptSession)) f.stop = on != 0;
    on = 1;
    if (Opt_LookupBoolean(Key(ms_number, n, "Enabled").c_str(), &on, kOptSession)) f.enabled = on != 0;
    if (!NeedsFolder(f.action)) f.folder.clear();
    if (!FLT_Problem(f).empty()) {
      Trace(kTraceOrganizer, kTraceHigh, "FLT_Load: filter %d of service %d left out: %s\n", n, ms_number,
            FLT_Problem(f).c_str());
      ++bad;
      continue;
    }
    out.push_back(std::move(f));
  }
  if (damaged) *damaged = bad;
  return out;
}

int FLT_Save(int ms_number, const std::vector<MailFilter>& filters) {
  if (filters.size() > static_cast<size_t>(kFilterMax)) return 0;
  for (const MailFilter& f : filters)
    if (!FLT_Problem(f).empty()) return 0;
  const int old_count = StoredCount(ms_number);
  int n = 0;
  for (const MailFilter& f : filters) {
    ++n;
    const std::pair<const char*, std::string> fields[] = {
        {"Name", f.name}, {"Rule", f.rule}, {"Action", FLT_ActionWord(f.action)},
        {"Folder", NeedsFolder(f.action) ? f.folder : ""}, {"Stop", f.stop ? "1" : "0"},
        {"Enabled", f.enabled ? "1" : "0"}};
    for (const auto& field : fields)
      if (!Opt_AssignString(Key(ms_number, n, field.first).c_str(), field.second.c_str(), kOptPermanent, 0)) return 0;
  }
  for (int k = n + 1; k <= old_count; ++k)
    for (const char* a : {"Name", "Rule", "Action", "Folder", "Stop", "Enabled"}) Opt_Delete(Key(ms_number, k, a).c_str());
  return Opt_AssignString(CountKey(ms_number).c_str(), std::to_string(n).c_str(), kOptPermanent, 0) ? 1 : 0;
}

int FLT_Apply(int folder, const std::vector<MailFilter>& filters, const std::vector<UMI>& messages,
              FilterReport* report) {
  std::vector<UMI> left;
  for (UMI u : messages)
    if (MM_UMIFolder(u) == folder && !MM_MsgIsShadowMessage(u) && MM_UMIMsgno(u)) left.push_back(u);
  std::sort(left.begin(), left.end());
  left.erase(std::unique(left.begin(), left.end()), left.end());
  bool all = true;
  for (const MailFilter& f : filters) {
    if (!f.enabled) continue;
    left.erase(std::remove_if(left.begin(), left.end(), [](UMI u) { return MM_UMIMsgno(u) == 0; }), left.end());
    if (left.empty()) break;
    std::string rule, why;
    std::vector<UMI> found;
    if (!SRCH_GetRuleByName("IMAP", f.rule.c_str(), &rule, nullptr)) {
      why = "its rule \"" + f.rule + "\" is gone";
    } else if (!Find(folder, rule, left, &found, &why)) {
      why = "its rule \"" + f.rule + "\" could not run: " + why;
    } else if (found.empty()) {
      continue;
    } else if (Act(f, folder, found, &why)) {
      Trace(kTraceOrganizer, kTraceLow, "filter %s: %zu messages, %s\n", f.name.c_str(), found.size(),
            FLT_Describe(f).c_str());
      report->acted += static_cast<int>(found.size());
      // A message moved or deleted has left the folder as far as the
      // filters go; one that a stopping filter took is done.
      if (f.stop || f.action == kFilterMove || f.action == kFilterDelete) {
        left.erase(std::remove_if(left.begin(), left.end(),
                                  [&](UMI u) { return std::binary_search(found.begin(), found.end(), u); }),
                   left.end());
      }
      continue;
    } else {
      why = "the messages stay where they are: " + why;
    }
    report->problems.push_back("Filter \"" + f.name + "\": " + why + ".");
    all = false;
  }
  return all ? 1 : 0;
}

void FLT_Init() {
  if (S().notifier < 0) S().notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "filters");
}

void FLT_Shutdown() {
  if (S().notifier >= 0) MM_NotUnregister(S().notifier);
  S().notifier = -1;
  S().folders.clear();
}

void FLT_RunPending() {
  State& s = S();
  if (s.running) return;
  s.running = true;
  std::vector<std::string> problems;
  for (auto& entry : s.folders) {
    const int folder = entry.first;
    Mark& m = entry.second;
    std::vector<UMI> work;
    work.swap(m.waiting);
    work.erase(std::remove_if(work.begin(), work.end(), [&](UMI u) { return MM_UMISerial(u) <= m.last; }), work.end());
    if (work.empty() || !MM_FolStream(folder)) continue;
    // Handled from here on, whatever the filters make of them: a message a
    // filter could not file stays in the INBOX and is not tried again.
    for (UMI u : work) m.last = std::max(m.last, MM_UMISerial(u));
    FilterReport report;
    FLT_Apply(folder, FLT_Load(MM_MSGetNumber(MM_FolGetService(folder))), work, &report);
    for (const std::string& p : report.problems)
      problems.push_back(std::string(MM_MSGetName(MM_FolGetService(folder))) + ": " + p);
  }
  s.running = false;
  if (!problems.empty()) {
    std::string text = "New mail could not be filtered as the filters say:";
    for (size_t i = 0; i < problems.size() && i < 10; ++i) text += "\n" + problems[i];
    xvt_dm_post_error("%s", text.c_str());
  }
}
