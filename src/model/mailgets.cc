// The model's fetch hook: the mail layer hands every message text it reads
// to MM_Mailgets, which keeps it in memory (headers and first text parts,
// at most 65000 bytes) or spools it to a temporary file, decoding base64
// and quoted-printable on the way, so that big parts never sit in memory.
//
// The hook's state is global: one fetch runs at a time (the critical
// sections around fetches see to that), and a fetch that re-entered the
// hook would mix two texts in one file, so re-entry is refused.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/rfc822/rfc822_write.h"
#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/model_internal.h"

namespace {

constexpr unsigned long kBlock = 8092;
constexpr unsigned long kDiscardPiece = 1024;

struct HookState {
  bool file_mode = false;  // between MM_MailgetsToFile and FileDone/ToMemory
  int fd = -1;             // the open output file
  std::string name;        // its name ("" once a text has taken it)
  unsigned long written = 0;
  int encoding = 0;
  bool data_came = false;
  bool busy = false;  // a fetch is inside the hook
};

HookState g_hook;
bool g_write_failed = false;

// Marks the hook busy for one call; a second entry is refused.
struct HookEntry {
  bool ok;
  HookEntry() : ok(!g_hook.busy) {
    if (ok) g_hook.busy = true;
  }
  ~HookEntry() {
    if (ok) g_hook.busy = false;
  }
};

void CloseFile() {
  if (g_hook.fd >= 0) ::close(g_hook.fd);
  g_hook.fd = -1;
}

// A new temporary file, mode 0600, that nothing else can have made first.
bool OpenTemp() {
  const std::string dir = GetTempDir();
  for (int tries = 0; tries < 5; ++tries) {
    const std::string base = NewTempName();
    if (base.empty()) break;
    const std::string path = JoinPath(dir, base);
    SafeFileError err;
    const int fd = safe_create_exclusive(path.c_str(), 0600, &err);
    if (fd >= 0) {
      g_hook.fd = fd;
      g_hook.name = path;
      return true;
    }
    if (err.error != EEXIST) {
      Trace(kTraceModel, kTraceCritical, "MM_MailgetsToFile: failed to open file: %s - %s\n", path.c_str(),
            std::strerror(err.error));
      return false;
    }
  }
  Trace(kTraceModel, kTraceCritical, "MM_MailgetsToFile: failed to open file: %s - %s\n", dir.c_str(),
        "no free temporary name");
  return false;
}

// Where decoded and raw bytes go: the open file, counting what was written.
long WriteOut(void*, const char* data, unsigned long size) {
  if (g_write_failed) return 0;  // said once is enough
  if (!safe_write_all(g_hook.fd, data, size)) {
    char text[300];
    std::snprintf(text, sizeof text, "mm_mailgets: Failed to write data to output file - %s.\n",
                  std::strerror(errno));
    mm_log(text, 2);
    g_write_failed = true;
    return 0;
  }
  g_hook.written += size;
  return 1;
}

}  // namespace

int MM_MailgetsToFile() {
  if (g_hook.fd >= 0) {
    Trace(kTraceModel, kTraceLow, "MM_MailgetsToFile: implicit close of open message data file.\n");
    MM_MailgetsFileDone();
  }
  g_hook.written = 0;
  g_hook.data_came = false;
  g_hook.name.clear();
  if (!OpenTemp()) {
    g_hook.file_mode = false;
    return 0;
  }
  g_hook.file_mode = true;
  return 1;
}

void MM_MailgetsToMemory() {
  if (g_hook.fd >= 0) {
    Trace(kTraceModel, kTraceLow, "MM_MailgetsToFile: implicit close of open message data file.\n");
    MM_MailgetsFileDone();
  }
  g_hook.file_mode = false;
  g_hook.name.clear();
}

void MM_MailgetsFileDone() {
  CloseFile();
  // A file that no text took is ours to remove: an empty one when no data
  // came (the text was cached), or the rest of a failed fetch.
  if (!g_hook.name.empty()) ::unlink(g_hook.name.c_str());
  g_hook.name.clear();
  g_hook.file_mode = false;
  g_hook.written = 0;
  g_hook.data_came = false;
}

void MM_MailgetsSetEncoding(int encoding) {
  g_hook.encoding = (encoding == ENCBASE64 || encoding == ENCQUOTEDPRINTABLE) ? encoding : 0;
}

long mm_mailgets(readfn_t reader, void* handle, unsigned long size) {
  if (g_hook.fd < 0) return 0;
  static char buffer[kBlock];
  DecodeState* st = nullptr;
  static DecodeState state;
  if (g_hook.encoding == ENCBASE64) {
    st = &state;
    Base64DecodeInit(st, WriteOut, nullptr);
  } else if (g_hook.encoding == ENCQUOTEDPRINTABLE) {
    st = &state;
    QPDecodeInit(st, WriteOut, nullptr);
  }
  g_write_failed = false;
  bool ok = true;
  for (unsigned long left = size; left && ok;) {
    const unsigned long n = std::min(left, kBlock);
    if (!reader(handle, n, buffer)) {
      mm_log("mm_mailgets: failed during read of message data stream.", 2);
      ok = false;
      break;
    }
    left -= n;
    if (st) {
      for (unsigned long i = 0; i < n; ++i) {
        if (g_hook.encoding == ENCBASE64)
          Base64DecodeChar(st, buffer[i]);
        else
          QPDecodeChar(st, buffer[i]);
      }
    } else if (!WriteOut(nullptr, buffer, n)) {
      ok = false;
    }
    if (g_write_failed) ok = false;
  }
  if (st) {
    // The end call writes what the decoder still holds.
    if (g_hook.encoding == ENCBASE64)
      Base64DecodeEnd(st);
    else
      QPDecodeEnd(st);
  }
  // Faults of the encoding are reported by the decoder and keep what could
  // be read; only a failed write loses the text.
  return ok && !g_write_failed ? 1 : 0;
}

MailText* MM_Mailgets(readfn_t reader, void* handle, unsigned long size) {
  HookEntry entry;
  if (!entry.ok) {
    Trace(kTraceModel, kTraceCritical, "MM_Mailgets: refused a fetch inside a fetch.\n");
    return nullptr;
  }
  if (g_hook.file_mode) {
    g_hook.data_came = true;
    // A text took the file of an earlier fetch in this session: the next
    // one gets a file of its own.
    if (g_hook.fd < 0 && g_hook.name.empty() && !OpenTemp()) {
      Trace(kTraceModel, kTraceCritical, "MM_Mailgets: failed to dump message data to file.\n");
      return nullptr;
    }
    const unsigned long before = g_hook.written;
    if (!mm_mailgets(reader, handle, size)) {
      Trace(kTraceModel, kTraceCritical, "MM_Mailgets: failed to dump message data to file.\n");
      CloseFile();
      if (!g_hook.name.empty()) ::unlink(g_hook.name.c_str());
      g_hook.name.clear();
      return nullptr;
    }
    if (g_hook.name.empty()) {
      Trace(kTraceModel, kTraceCritical, "MM_Mailgets: message data went to an anonymous file.\n");
      return nullptr;
    }
    // The text owns the file from now on.
    CloseFile();
    MailText* text = mail_newtext();
    mail_text_set(text, kTextFile, g_hook.name.c_str(), g_hook.written - before);
    g_hook.name.clear();
    g_hook.written = 0;
    return text;
  }

  unsigned long keep = size;
  if (size > kMailgetsMemoryCap) {
    Trace(kTraceModel, kTraceCritical, "MM_Mailgets: message data truncated from %ld to %d characters\n",
          static_cast<long>(size), static_cast<int>(kMailgetsMemoryCap));
    keep = kMailgetsMemoryCap;
  }
  std::string data(keep, '\0');
  for (unsigned long done = 0; done < keep;) {
    const unsigned long n = std::min(keep - done, kBlock);
    if (!reader(handle, n, data.data() + done)) {
      mm_log("mm_mailgets: failed during read of message data stream.", 2);
      return nullptr;
    }
    done += n;
  }
  // The rest is read and dropped, so that the reader (a server's literal,
  // a file position) stays in step with what follows.
  char discard[kDiscardPiece];
  for (unsigned long left = size - keep; left;) {
    const unsigned long n = std::min(left, kDiscardPiece);
    if (!reader(handle, n, discard)) {
      mm_log("mm_mailgets: failed during read of message data stream.", 2);
      return nullptr;
    }
    left -= n;
  }
  MailText* text = mail_newtext();
  mail_text_set(text, kTextInMemory, data.data(), keep);
  return text;
}
