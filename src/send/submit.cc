// The outbox folder and the background sender come with local folders and
// delivery; until then the outbox is always empty and the server only
// keeps its state.
#include "src/send/submit.h"

#include "src/base/trace.h"

namespace {
bool g_server = false;
int g_fully_started = 0;
}  // namespace

int SUBMIT_OutboxIsEmpty() { return 1; }
int SUBMIT_FlushOutbox() { return 0; }
void SUBMIT_StopLink() {}

int SDDE_StartServer() {
  Trace(kTraceFrame, kTraceLow, "SDDE_StartServer: function entry.\n");
  g_server = true;
  return 1;
}

void SDDE_StopServer() {
  g_server = false;
  g_fully_started = 0;
}

bool SDDE_ServerRunning() { return g_server; }
void SDDE_SetFullyStarted(int flag) { g_fully_started = flag; }
int SDDE_FullyStarted() { return g_fully_started; }
