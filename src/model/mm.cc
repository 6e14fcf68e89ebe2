// The mail model's start and stop. Services and folders come with the mail
// layer; until then every service slot is empty.
#include "src/model/mm.h"

#include "src/frame/trace.h"
#include "src/model/model_events.h"
#include "xvt/xvt.h"

namespace {

int g_quiet = 0;
int g_model_notifier = -1;

int MM_WantEvent(ModelEvent* ev, void*) { return ev->type == E_LOW_MEMORY; }

// Flushes the caches of open folders when memory runs short.
void mm_fs_handler(ModelEvent*, void*) {}

}  // namespace

int MM_Init() {
  Trace(kTraceModel, kTraceAll, "MM_Init: function entry.\n");
  MM_NotInit();
  MM_NotSetActive(true);
  g_quiet = 0;
  g_model_notifier = MM_NotRegister(MM_WantEvent, mm_fs_handler, nullptr, "mailmodel.c");
  return 1;
}

void MM_Shutdown(int expunge) {
  Trace(kTraceModel, kTraceAll, "MM_Shutdown: function entry (expunge %d).\n", expunge);
  for (int id = 0; id < kMaxServices; ++id) MM_MSClose(id);
  g_model_notifier = -1;
  MM_NotShutdown();
}

int MM_NeedsExpunge() { return 0; }
int MM_MSGetType(int) { return kServiceTypeNone; }
void MM_MSClose(int) {}

void MM_QuietOn() { ++g_quiet; }
void MM_QuietOff() {
  if (g_quiet > 0) --g_quiet;
}
int MM_Quiet() { return g_quiet; }

void mm_log(const char* text, long level) {
  if (level == 2 && g_quiet == 0) xvt_dm_post_error("%s", text ? text : "");
  Trace(kTraceModel, kTraceCritical, "mm_log: %s\n", text ? text : "");
}

void mm_dlog(const char* text) { Trace(kTraceMail, kTraceHigh, "mm_dlog: %s\n", text ? text : ""); }

void mm_fatal(const char* text) {
  Trace(kTraceModel, kTraceAlways, "mm_fatal: %s\n", text ? text : "");
  xvt_dm_post_fatal_exit("%s", text ? text : "");
}
