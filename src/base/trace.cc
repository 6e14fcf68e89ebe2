#include "src/base/trace.h"

#include <strings.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/model_events.h"
#include "xvt/common/strfmt.h"
#include "xvt/xvt.h"

namespace {

constexpr const char* kVersion = "Version 4.1.4 Build (41)";
constexpr const char* kPlatform = "Linux";
constexpr size_t kTelemetryLineBuffer = 1000;
constexpr size_t kTelemetryKeep = 500;

struct TraceState {
  bool enabled = false;
  std::string file;
  // Out of the box, critical lines of every subsystem reach the file, so that
  // a user's report has something in it; sites raise the level by option.
  int threshold = kTraceCritical;
  uint32_t mask = 0xFFFFFFFFu;
  unsigned output = kTraceToFile;
  WINDOW telemetry = NULL_WIN;
  std::deque<std::string> telemetry_lines;
  int notifier = -1;
};

TraceState& T() {
  static TraceState t;
  return t;
}

std::string Now() {
  std::time_t now = std::time(nullptr);
  char buf[64];
  struct tm tm;
  localtime_r(&now, &tm);
  std::strftime(buf, sizeof buf, "%a %b %d %H:%M:%S %Y", &tm);
  return buf;
}

long TelemetryHandler(WINDOW win, EVENT* ev) {
  auto& t = T();
  switch (ev->type) {
    case E_UPDATE: {
      RCT client;
      xvt_vobj_get_client_rect(win, &client);
      xvt_dwin_clear(win, COLOR_WHITE);
      int leading, ascent, descent;
      xvt_dwin_get_font_metrics(win, &leading, &ascent, &descent);
      int line_height = leading + ascent + descent;
      if (line_height <= 0) line_height = 16;
      size_t rows = static_cast<size_t>((client.bottom - client.top) / line_height);
      size_t first = t.telemetry_lines.size() > rows ? t.telemetry_lines.size() - rows : 0;
      int y = ascent;
      for (size_t i = first; i < t.telemetry_lines.size(); ++i, y += line_height)
        xvt_dwin_draw_text(win, 2, y, t.telemetry_lines[i].c_str(), -1);
      break;
    }
    case E_CLOSE:
      // Closing the window is the user's way of saying "no more of this".
      t.output &= ~kTraceToTelemetry;
      xvt_vobj_destroy(win);
      break;
    case E_DESTROY:
      if (t.telemetry == win) t.telemetry = NULL_WIN;
      break;
    default: break;
  }
  return 0;
}

void CloseTelemetry() {
  auto& t = T();
  if (t.telemetry) xvt_vobj_destroy(t.telemetry);
  t.telemetry = NULL_WIN;
  t.telemetry_lines.clear();
}

void ToTelemetry(const std::string& line) {
  auto& t = T();
  if (!TASK_WIN) return;
  if (!t.telemetry) {
    RCT r{20, 20, 620, 420};
    t.telemetry = xvt_win_create(W_DOC, &r, "Debug Telemetry Output", 0, TASK_WIN, WSF_SIZE | WSF_CLOSE, EM_ALL,
                                 TelemetryHandler, 0);
    if (!t.telemetry) return;
  }
  std::string text = line.substr(0, kTelemetryLineBuffer - 1);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  t.telemetry_lines.push_back(text);
  if (t.telemetry_lines.size() > kTelemetryKeep) t.telemetry_lines.pop_front();
  xvt_dwin_invalidate_rect(t.telemetry, nullptr);
}

void ToFile(const std::string& line) {
  auto& t = T();
  struct stat st;
  if (::stat(t.file.c_str(), &st) == 0 && st.st_size > kTraceFileLimit) return;
  FILE* f = safe_fopen_append(t.file.c_str(), 0600);
  if (!f) return;
  std::fwrite(line.data(), 1, line.size(), f);
  std::fclose(f);
}

void Emit(const std::string& line) {
  auto& t = T();
  if (t.output & kTraceToFile) ToFile(line);
  if (t.output & kTraceToTelemetry) ToTelemetry(line);
  if (t.output & kTraceToStderr) {
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
  }
}


int WantEvent(ModelEvent* ev, void*) {
  if (ev->type == E_ABANDON_SHIP) return 1;
  if (ev->type != E_OPTION_CHANGED || !ev->option) return 0;
  // The subsystem key is spelled two ways by its writers.
  return strcasecmp(ev->option, "Debugging.Level") == 0 || strcasecmp(ev->option, "Debugging.SubSystem") == 0;
}

void HandleEvent(ModelEvent* ev, void*) {
  if (ev->type == E_ABANDON_SHIP) {
    TraceSetOutput(TraceGetOutput() & ~kTraceToTelemetry);
    return;
  }
  if (strcasecmp(ev->option, "Debugging.Level") == 0) {
    if (ev->option_value) {
      int level = TraceLevelFromWord(ev->option_value);
      if (level >= 0) TraceSetThreshold(level);
    }
  } else if (ev->option_value) {
    char* end = nullptr;
    unsigned long mask = std::strtoul(ev->option_value, &end, 10);
    if (end != ev->option_value) TraceSetSubsystem(static_cast<uint32_t>(mask));
  }
}

}  // namespace

void TraceStart(const char* file) {
  auto& t = T();
  if (!file || !*file) {
    t.enabled = false;
    t.file.clear();
    return;
  }
  // A file that reached the limit in an earlier session would silence this
  // one; it moves aside so that each session's trace starts fresh.
  struct stat st;
  if (::stat(file, &st) == 0 && st.st_size > kTraceFileLimit) {
    std::string backup = MakeBackupName(file);
    std::rename(file, backup.c_str());
  }
  FILE* f = safe_fopen_append(file, 0600);
  if (!f) return;
  std::fclose(f);
  t.enabled = true;
  t.file = file;
  char banner[512];
  std::snprintf(banner, sizeof banner, "*\n%s for %s\nDebug tracing (threshold %d) started at %s\n*\n", kVersion,
                kPlatform, t.threshold, Now().c_str());
  Emit(banner);
}

void TraceEnd() {
  auto& t = T();
  if (t.enabled) {
    char line[200];
    std::snprintf(line, sizeof line, "\nDebug tracing terminated at %s\n", Now().c_str());
    Emit(line);
  }
  CloseTelemetry();
  t.enabled = false;
  t.file.clear();
}

bool TraceEnabled() { return T().enabled; }

bool TraceWanted(uint32_t subsystem, int level) {
  auto& t = T();
  return t.enabled && (t.mask & subsystem) != 0 && level <= t.threshold;
}

void Trace(uint32_t subsystem, int level, const char* format, ...) {
  if (!TraceWanted(subsystem, level)) return;
  va_list ap;
  va_start(ap, format);
  std::string line = StringPrintfV(format, ap);
  va_end(ap);
  Emit(line);
}

void TraceLevel(int level, const char* format, ...) {
  auto& t = T();
  if (!t.enabled || level > t.threshold) return;
  va_list ap;
  va_start(ap, format);
  std::string line = StringPrintfV(format, ap);
  va_end(ap);
  Emit(line);
}

void TraceSetSubsystem(uint32_t mask) {
  auto& t = T();
  if (t.mask == mask) return;
  t.mask = mask;
  TraceLevel(kTraceAlways, "Debug subsystem changed to %d\n", static_cast<int>(mask));
}
void TraceAddSubsystem(uint32_t bits) { TraceSetSubsystem(T().mask | bits); }
void TraceRemoveSubsystem(uint32_t bits) { TraceSetSubsystem(T().mask & ~bits); }
bool TraceHasSubsystem(uint32_t bits) { return (T().mask & bits) != 0; }
uint32_t TraceGetSubsystem() { return T().mask; }

void TraceSetThreshold(int level) {
  auto& t = T();
  if (t.threshold == level) return;
  t.threshold = level;
  TraceLevel(kTraceAlways, "Debug threshold changed to %d\n", level);
}
int TraceGetThreshold() { return T().threshold; }

void TraceSetOutput(unsigned flags) {
  auto& t = T();
  bool closing = (t.output & kTraceToTelemetry) && !(flags & kTraceToTelemetry);
  t.output = flags;
  if (closing) CloseTelemetry();
}
unsigned TraceGetOutput() { return T().output; }

int TraceLevelFromWord(const char* word) {
  static const struct {
    const char* word;
    int level;
  } kWords[] = {{"none", kTraceAlways}, {"critical", kTraceCritical}, {"high", kTraceHigh},
                {"medium", kTraceMedium}, {"low", kTraceLow},          {"all", kTraceAll}};
  if (!word) return -1;
  for (auto& w : kWords)
    if (strcasecmp(word, w.word) == 0) return w.level;
  return -1;
}

void TraceRegisterNotifier() { T().notifier = MM_NotRegister(WantEvent, HandleEvent, nullptr, "vmrdebug.c"); }
