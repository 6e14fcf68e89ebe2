// Background submission: starting tools/velmar-submit, asking it to send
// the outbox, and the program's own local server that answers it.
#include "src/send/submit.h"

#include <errno.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "c-client/auth/auth.h"
#include "rclib/safe_file.h"
#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/send/channel.h"
#include "src/send/send.h"

extern char** environ;

namespace {

constexpr int kFlushWaitMs = 20000;
constexpr int kStartWaitMs = 60000;

struct State {
  ChannelServer server;
  std::map<int, long> watches;  // descriptor -> watcher
  int fully_started = 0;
  int last_result = 0;
  int outbox_modified = 0;
  std::string session_handle;
  pid_t child = -1;
  std::string program_override;
  int flush_wait_ms = kFlushWaitMs;
  int start_wait_ms = kStartWaitMs;
};

State& S() {
  static State s;
  return s;
}

void Reap() {
  State& s = S();
  if (s.child > 0 && ::waitpid(s.child, nullptr, WNOHANG) == s.child) s.child = -1;
}

void SyncWatches();

void OnReadable(int, void*) {
  S().server.Pump(0);
  SyncWatches();
}

void SyncWatches() { ChannelSyncWatches(&S().server, &S().watches, OnReadable); }

bool Handle(const ChannelLine& line, std::string* answer) {
  if (line.kind == ChannelKind::kPoke) return SDDE_HandlePoke(line.item.c_str(), line.value.c_str()) != 0;
  return HandleRequest(line.item.c_str(), answer) != 0;
}

std::string SubmitPath() { return ChannelPath(GetUserDir(), "SUBMIT"); }

bool Background() {
  short background = 0;
  return Opt_LookupBoolean("Send.Background", &background, kOptSession) && background;
}

// Windows stay alive and the background sender's own questions are
// answered while we wait for it.
void KeepAlive() {
  xvt_app_process_pending_events();
  SDDE_Pump(0);
  Reap();
}

void StartFailed(const std::string& detail) { SendError(4008, detail); }

}  // namespace

// --- The server ----------------------------------------------------------------

int SDDE_StartServer() {
  Trace(kTraceFrame, kTraceLow, "SDDE_StartServer: function entry.\n");
  State& s = S();
  if (s.server.Running()) return 1;
  std::string why;
  if (!s.server.Start(ChannelPath(GetUserDir(), "VELMAR"), Handle, &why)) {
    Trace(kTraceFrame, kTraceCritical, "SDDE_StartServer: %s\n", why.c_str());
    return 0;
  }
  SyncWatches();
  return 1;
}

void SDDE_StopServer() {
  State& s = S();
  s.server.Stop();
  SyncWatches();
  s.fully_started = 0;
}

bool SDDE_ServerRunning() { return S().server.Running(); }

void SDDE_Pump(int timeout_ms) {
  S().server.Pump(timeout_ms);
  SyncWatches();
}

void SDDE_SetFullyStarted(int flag) { S().fully_started = flag; }
int SDDE_FullyStarted() { return S().fully_started; }

int SDDE_HandlePoke(const char* item, const char* value) {
  State& s = S();
  Trace(kTraceFrame, kTraceLow, "SDDE_HandlePoke: %s %s\n", item, value);
  if (!std::strcmp(item, "OUTBOXMODIFIED")) {
    s.outbox_modified = std::atoi(value);
    if (s.outbox_modified == 1) RebuildOutbox();
    return 1;
  }
  if (!std::strcmp(item, "CURSESSHANDLE")) {
    s.session_handle = value;
    return 1;
  }
  return 0;
}

int HandleRequest(const char* item, std::string* answer) {
  State& s = S();
  if (!std::strcmp(item, "LASTRESULT")) {
    *answer = std::to_string(s.last_result);
  } else if (!std::strcmp(item, "FULLYSTARTED")) {
    *answer = std::to_string(s.fully_started);
  } else if (!std::strcmp(item, "GETLOGININFO")) {
    // No answer until both halves are known.
    const char* user = login_user();
    const char* password = login_password();
    if (!user || !*user || !password || !*password) return 0;
    *answer = std::string(user) + ":::" + password;
  } else if (!std::strcmp(item, "READINGFROMLOCAL")) {
    *answer = !strcasecmp(Opt_LookupText("Options.Location", kOptSession).c_str(), "Local") ? "1" : "0";
  } else if (!std::strcmp(item, "COMMANDINPROGRESS")) {
    *answer = WIN_in_critical() ? "1" : "0";
  } else {
    return 0;
  }
  return 1;
}

// --- The background sender -----------------------------------------------------

std::string SUBMIT_ProgramPath() {
  if (!S().program_override.empty()) return S().program_override;
  char self[4096];
  const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "velmar-submit";
  self[n] = '\0';
  return JoinPath(safe_dir_of(self), "velmar-submit");
}

void SUBMIT_SetProgramForTest(const std::string& path) { S().program_override = path; }

void SDDE_SetWaitsForTest(int flush_ms, int start_ms) {
  S().flush_wait_ms = flush_ms > 0 ? flush_ms : kFlushWaitMs;
  S().start_wait_ms = start_ms > 0 ? start_ms : kStartWaitMs;
}

int SUBMIT_Startsubmit() {
  State& s = S();
  Reap();
  ChannelClient probe;
  if (probe.Connect(SubmitPath())) return 1;  // it runs already
  const std::string program = SUBMIT_ProgramPath();
  // The login travels over the channel (GETLOGININFO), never on the
  // command line, where every user of the machine could read it.
  char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
  int code = ::access(program.c_str(), X_OK) == 0 ? 0 : errno;
  pid_t pid = -1;
  if (code == 0) code = ::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ);
  if (code != 0) {
    Trace(kTraceFrame, kTraceCritical, "SUBMIT_Startsubmit: %s: %s\n", program.c_str(), std::strerror(code));
    char text[4200];
    if (code == ENOENT || code == ENOTDIR) {
      std::snprintf(text, sizeof text, "Submit could not be started: File \"%s\" not found.", program.c_str());
    } else if (code == ENOMEM) {
      std::snprintf(text, sizeof text, "Insufficient memory to start \"%s\"", program.c_str());
    } else {
      std::snprintf(text, sizeof text, "Unknown error");
    }
    StartFailed(text);
    return 0;
  }
  s.child = pid;
  return SDDE_WeStartedSubmit();
}

int SDDE_WeStartedSubmit() {
  State& s = S();
  for (int waited = 0; waited < s.start_wait_ms; waited += 50) {
    ChannelClient client;
    if (client.Connect(SubmitPath())) {
      ChannelLine poke{ChannelKind::kPoke, Background() ? "STARTEDBYVELMARSTAYUP" : "STARTEDBYVELMARGODOWN", "1"};
      if (!client.Transact(poke, nullptr, s.flush_wait_ms, KeepAlive))
        Trace(kTraceFrame, kTraceCritical, "SDDE_WeStartedSubmit(): problem sending dde message.\n");
      return 1;
    }
    KeepAlive();
    if (s.child < 0) break;  // it ended without ever answering
    ::usleep(50 * 1000);
  }
  Trace(kTraceFrame, kTraceCritical, "SDDE_WeStartedSubmit(): the background sender did not answer.\n");
  StartFailed("Submit did not answer: " + SUBMIT_ProgramPath());
  return 0;
}

int SDDE_FlushOutbox() {
  ChannelClient client;
  if (!client.Connect(SubmitPath())) return 0;
  ChannelLine request{ChannelKind::kRequest, Background() ? "FLUSHOUTBOXSTAYUP" : "FLUSHOUTBOXGODOWN", ""};
  std::string value;
  return client.Transact(request, &value, S().flush_wait_ms, KeepAlive) ? 1 : 0;
}

int SUBMIT_FlushOutbox() {
  if (!SUBMIT_Startsubmit()) return 0;
  return SDDE_FlushOutbox();
}

void SUBMIT_StopLink() { Reap(); }

int SUBMIT_OfferSendAtExit() {
  if (IsOffline()) return 1;
  short connect_ok = 0;
  if (!Opt_LookupBoolean("General.TCPConnectOk", &connect_ok, kOptSession) || !connect_ok) return 1;
  if (!Mob_AnyQueuedMessages()) return 1;
  const ASK_RESPONSE answer = xvt_dm_post_ask(
      "Send Now", "Don't Send", "Cancel", "There are unsent messages in your outbox. Do you want to send them now?");
  if (answer == RESP_3) return 0;
  if (answer == RESP_DEFAULT) Mob_ProcessOutbox();
  return 1;
}
