// A service's control stream, its capabilities, and folder listings with
// their per-service cache in temporary files, so that listing the same
// pattern again costs no server round trip.
#include <strings.h>

#include <cstring>

#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/folder_list_internal.h"
#include "src/model/model_internal.h"

// --- The progress window --------------------------------------------------------

ProgressScope::ProgressScope(const char* text) {
  if (xvt_progress_win()) {
    xvt_progress_set_text(text);
  } else {
    xvt_progress_open("Velmar", text, true);
    opened_ = xvt_progress_win() != NULL_WIN;
  }
}

ProgressScope::~ProgressScope() {
  if (opened_) xvt_progress_close();
}

void ProgressScope::Text(const char* text) { xvt_progress_set_text(text); }
void ProgressScope::Range(long total) { xvt_progress_set_range(total); }
void ProgressScope::Pos(long pos) { xvt_progress_set_pos(pos); }
bool ProgressScope::Stopped() const { return xvt_progress_win() && xvt_progress_cancelled(); }

// --- The control stream ---------------------------------------------------------

MailStream* MM_MSGetStream(int id) {
  Trace(kTraceModel, kTraceAll, "MM_MSGetStream: function entry.\n");
  MessageService* ms = ServiceAt(id);
  // Local folders are reached without a stream, and the X.400 types have
  // none to open.
  if (!ms || ms->type == kServiceLocal || ms->type == kServiceLmap || ms->type == kServiceP7) return nullptr;
  if (ms->stream) {
    CriticalSection busy;
    QuietSection quiet;
    if (!mail_ping(ms->stream)) ms->stream = mail_close(ms->stream);
  }
  if (ms->stream) return ms->stream;
  CriticalSection busy;
  ProgressScope progress("Connecting...");
  MailStream* stream = MM_CCOpenSvcStream(id);
  ms = ServiceAt(id);  // a login dialog runs the event loop
  if (!ms) return stream ? mail_close(stream) : nullptr;
  ms->stream = stream;
  return stream;
}

int MM_MSCapabilities(int id, long* out) {
  *out = 0;
  MessageService* ms = ServiceAt(id);
  if (!ms) return 0;
  if (ms->type == kServiceLocal) {
    // Local folders have no control stream; the local driver answers
    // through its prototype.
    MailStream* proto = mhdriver.open ? mhdriver.open(nullptr) : mhdriver.prototype;
    mail_capabilities(proto, out);
    return proto != nullptr;
  }
  MailStream* stream = MM_MSGetStream(id);
  if (!stream) return 0;
  mail_capabilities(stream, out);
  return 1;
}

// --- Listing patterns -----------------------------------------------------------

void MM_CCSplitPrefixes(const char* locations, const char* pattern, std::vector<std::string>* patterns) {
  patterns->clear();
  const std::string pat = pattern ? pattern : "";
  // The inbox is the same folder under every prefix.
  if (strcasecmp(pat.c_str(), "inbox") == 0) {
    patterns->push_back(pat);
    return;
  }
  constexpr int kMaxPrefixes = 50;
  int prefixes = 0;
  const char* p = locations ? locations : "";
  while (*p && prefixes < kMaxPrefixes) {
    const size_t len = std::strcspn(p, ",;");
    std::string prefix(p, len);
    p += len;
    if (*p) ++p;
    const size_t first = prefix.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    prefix = prefix.substr(first, prefix.find_last_not_of(" \t") - first + 1);
    ++prefixes;
    std::string joined = pat.compare(0, prefix.size(), prefix) == 0 ? pat : prefix + pat;
    // Two prefixes can give one pattern; listing it twice would list its
    // folders twice.
    bool seen = false;
    for (const std::string& s : *patterns) seen = seen || s == joined;
    if (!seen) patterns->push_back(std::move(joined));
  }
  if (prefixes == 0) patterns->push_back(pat);
}

// --- The listing cache ----------------------------------------------------------

bool ListCacheFormat(const FolderList& list, std::string* out) {
  out->clear();
  auto word = [](bool b) { return b ? "true" : "false"; };
  for (const FolderListEntry& e : list) {
    if (e.name.find_first_of("\t\r\n") != std::string::npos) return false;
    if (e.delimiter == '\t' || e.delimiter == '\n' || e.delimiter == '\r') return false;
    out->push_back(e.delimiter ? e.delimiter : '?');
    *out += '\t';
    *out += word(e.flags & kFolderNoInferiors);
    *out += '\t';
    *out += word(e.flags & kFolderMarked);
    *out += '\t';
    *out += word(e.flags & kFolderSelectable);
    *out += '\t';
    *out += e.name;
    *out += '\n';
  }
  return true;
}

namespace {

bool ParseBool(std::string_view s, bool* out) {
  if (s == "true") return *out = true, true;
  if (s == "false") return *out = false, true;
  return false;
}

}  // namespace

bool ListCacheParse(std::string_view text, FolderList* out) {
  out->clear();
  if (text.size() > kListCacheMaxBytes) return false;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    // Every line ends with a line end; a cut-off last line is damage.
    if (end == std::string_view::npos || out->size() >= kListCacheMaxEntries) {
      out->clear();
      return false;
    }
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    std::string_view col[5];
    int n = 0;
    for (; n < 4; ++n) {
      const size_t tab = line.find('\t');
      if (tab == std::string_view::npos) break;
      col[n] = line.substr(0, tab);
      line.remove_prefix(tab + 1);
    }
    col[4] = line;
    bool noinf = false, marked = false, selectable = false;
    if (n < 4 || col[0].size() != 1 || col[4].empty() || !ParseBool(col[1], &noinf) || !ParseBool(col[2], &marked) ||
        !ParseBool(col[3], &selectable)) {
      out->clear();
      return false;
    }
    FolderListEntry e;
    e.delimiter = col[0][0] == '?' ? 0 : col[0][0];
    e.flags = (noinf ? kFolderNoInferiors : 0) | (marked ? kFolderMarked : 0) | (selectable ? kFolderSelectable : 0);
    e.name = std::string(col[4]);
    out->push_back(std::move(e));
  }
  return true;
}

namespace {

// A cached listing of this pattern: 1 and the list, 0 on a miss. A file
// that can't be read or parsed marks the whole cache invalid.
int CacheLookup(MessageService* ms, const std::string& pattern, int all, FolderList* out) {
  for (const ListCacheEntry& e : ms->list_cache) {
    if (e.pattern != pattern || e.all != all) continue;
    std::string text;
    if (SlurpFile(e.file.c_str(), &text, kListCacheMaxBytes) && ListCacheParse(text, out)) return 1;
    Trace(kTraceModel, kTraceCritical, "MM_MSFindFol: list cache file %s is damaged; listing again\n", e.file.c_str());
    ms->cache_invalid = 1;
    out->clear();
    return 0;
  }
  return 0;
}

void CacheStore(MessageService* ms, const std::string& pattern, int all, const FolderList& list) {
  std::string text;
  if (!ListCacheFormat(list, &text)) {
    Trace(kTraceModel, kTraceMedium, "MM_MSFindFol: a folder name of %s can't be cached\n", pattern.c_str());
    return;
  }
  const std::string temp = NewTempName();
  const std::string file = temp.empty() ? temp : JoinPath(GetTempDir(), temp);
  SafeFileError err;
  if (file.empty() || !safe_replace_file(file, text, 0600, &err)) {
    // The listing is still good; only the next one costs a round trip.
    Trace(kTraceModel, kTraceCritical, "MM_MSFindFol: can't write list cache file %s\n", file.c_str());
    return;
  }
  ms->list_cache.push_back(ListCacheEntry{pattern, file, all});
}

}  // namespace

int MM_MSFindFol(int id, const char* pattern, int all, FolderList* out) {
  Trace(kTraceModel, kTraceAll, "MM_MSFindFol: function entry.\n");
  out->clear();
  MessageService* ms = ServiceAt(id);
  if (!ms) return 0;
  const std::string pat = pattern ? pattern : "";
  all = all ? 1 : 0;
  if (ms->cache_invalid) DropListCache(ms);
  if (CacheLookup(ms, pat, all, out)) return 1;

  FolderList list;
  Collecting<FolderList> collecting(g_listing, &list);
  std::vector<std::string> patterns;
  MM_CCSplitPrefixes(ms->location.c_str(), pat.c_str(), &patterns);
  CriticalSection busy;
  bool stopped = false;
  const int type = ms->type;
  if (type == kServiceLmap || type == kServiceP7) {
    // Nothing can be listed there; an empty list is the honest answer.
    return 1;
  }
  if (type == kServiceLocal) {
    ProgressScope progress("Retrieving list of folders ...");
    for (const std::string& p : patterns) {
      if ((stopped = progress.Stopped())) break;
      all ? mail_find_all(nullptr, p.c_str()) : mail_find(nullptr, p.c_str());
    }
  } else {
    MailStream* stream = MM_MSGetStream(id);
    ms = ServiceAt(id);
    if (!stream || !ms) {
      ReportNoStream(2034, "MM_MSFindFol: failed to open stream to message service");
      return 0;
    }
    const bool news = type == kServiceBboard || type == kServiceNntp;
    ProgressScope progress(news ? "Retrieving list of news groups ..." : "Retrieving list of folders ...");
    if (!news && (pat == "*" || pat == "%")) mail_find_all(stream, "INBOX");
    for (const std::string& p : patterns) {
      if ((stopped = progress.Stopped())) break;
      if (news)
        all ? mail_find_all_bboards(stream, p.c_str()) : mail_find_bboards(stream, p.c_str());
      else
        all ? mail_find_all(stream, p.c_str()) : mail_find(stream, p.c_str());
    }
  }
  ms = ServiceAt(id);
  if (!ms) return 0;
  ms->listed = 1;
  // A listing the user stopped is short: it is shown, never cached.
  if (!stopped) CacheStore(ms, pat, all, list);
  *out = std::move(list);
  return 1;
}
