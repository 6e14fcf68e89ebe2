// velmar-submit: the background sender. It reads the user's options from
// the user directory (VELMAR_HOME), serves the "SUBMIT" channel there, and
// on a flush request sends each message of the outbox with the program's
// own sending code, deletes what went, expunges, and tells the program
// that the outbox changed. It stays up or ends as the program asks.
//
// Usage: velmar-submit [--once]
//   --once  send the outbox now and end (no channel needed)
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/mm.h"
#include "src/options/options.h"
#include "src/send/channel.h"
#include "src/send/submit.h"

namespace {

constexpr int kAskMs = 5000;

struct Run {
  bool stay_up = true;
  bool flush_pending = false;
  bool started_by_program = false;
};

Run g_run;

bool Handle(const ChannelLine& line, std::string* answer) {
  if (line.kind == ChannelKind::kPoke) {
    if (line.item == "STARTEDBYVELMARSTAYUP" || line.item == "STARTEDBYVELMARGODOWN") {
      g_run.started_by_program = line.value == "1";
      g_run.stay_up = line.item == "STARTEDBYVELMARSTAYUP";
      return true;
    }
    return false;
  }
  if (line.item == "FLUSHOUTBOXSTAYUP" || line.item == "FLUSHOUTBOXGODOWN") {
    // Answered at once: the sending itself may take longer than the
    // program waits for an answer.
    g_run.stay_up = line.item == "FLUSHOUTBOXSTAYUP";
    g_run.flush_pending = true;
    *answer = "1";
    return true;
  }
  return false;
}

std::string ProgramPath() { return ChannelPath(GetUserDir(), "VELMAR"); }

// The login comes from the running program over the channel, never from
// the command line.
void AskForLogin() {
  ChannelClient client;
  if (!client.Connect(ProgramPath())) return;
  std::string value;
  if (!client.Transact({ChannelKind::kRequest, "GETLOGININFO", ""}, &value, kAskMs)) return;
  const size_t split = value.find(":::");
  if (split == std::string::npos) return;
  // Session values: every folder open primes the login layer anew, and
  // this process never writes its options back.
  if (Opt_LookupText("Send.User", kOptSession).empty()) {
    Opt_AssignString("Send.User", value.substr(0, split).c_str(), kOptSession, 0);
    Opt_AssignString("Send.Password", value.substr(split + 3).c_str(), kOptSession, 0);
  }
  std::fill(value.begin(), value.end(), '\0');
}

void TellOutboxModified() {
  ChannelClient client;
  if (!client.Connect(ProgramPath())) return;
  if (!client.Transact({ChannelKind::kPoke, "OUTBOXMODIFIED", "1"}, nullptr, kAskMs))
    Trace(kTraceCompose, kTraceCritical, "velmar-submit: the program did not take OUTBOXMODIFIED.\n");
}

int Flush() {
  AskForLogin();
  const int folder = OUTBOX_Open();
  if (folder == INVALID_FOLDER) {
    std::fprintf(stderr, "velmar-submit: the outbox cannot be opened\n");
    return -1;
  }
  const int gone = OUTBOX_SendMessages(folder);
  if (gone > 0) MM_FolExpunge(folder);
  OUTBOX_Close(folder);
  if (gone > 0) TellOutboxModified();
  std::fprintf(stderr, "velmar-submit: %d message(s) gone from the outbox\n", gone);
  return gone;
}

bool ProgramRuns() {
  ChannelClient client;
  return client.Connect(ProgramPath());
}

bool StartModel() {
  if (!InitDirectories()) return false;
  const char* trace = std::getenv("VELMAR_SUBMIT_TRACE");
  if (trace && *trace) {
    TraceSetThreshold(kTraceAll);
    TraceSetSubsystem(0xFFFFFFFFu);
    TraceStart(trace);
  }
  if (!Opt_Init() || !MM_Init()) return false;
  std::istringstream ids(Opt_LookupText("MsgService.IDList", kOptSession));
  for (int number; ids >> number;) MM_MSNew(number);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const bool once = argc > 1 && !std::strcmp(argv[1], "--once");
  if (argc > 2 || (argc == 2 && !once)) {
    std::fprintf(stderr, "usage: velmar-submit [--once]\n");
    return 2;
  }
  if (!StartModel()) {
    std::fprintf(stderr, "velmar-submit: the user directory or the options cannot be read\n");
    return 1;
  }
  int status = 0;
  if (once) {
    status = Flush() < 0 ? 1 : 0;
  } else {
    ChannelServer server;
    std::string why;
    if (!server.Start(ChannelPath(GetUserDir(), "SUBMIT"), Handle, &why)) {
      std::fprintf(stderr, "velmar-submit: %s\n", why.c_str());
      MM_Shutdown(0);
      return 1;
    }
    int idle_ms = 0;
    for (;;) {
      server.Pump(250);
      if (g_run.flush_pending) {
        g_run.flush_pending = false;
        Flush();
        if (!g_run.stay_up) break;
      }
      // Once the program has ended nobody is left to ask for anything.
      idle_ms += 250;
      if (idle_ms >= 5000) {
        idle_ms = 0;
        if (!ProgramRuns()) break;
      }
    }
    server.Stop();
  }
  MM_Shutdown(0);
  Opt_Shutdown();
  return status;
}
