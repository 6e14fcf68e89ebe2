// Requests to compose from other programs: the command line, the local
// socket between two copies of the program, and the window they open.
//
// A request crosses the socket as pokes, since one channel line holds at
// most kChannelMaxValue bytes:
//   POKE PART <id> <piece of the encoded request>   (as many as needed)
//   POKE OPEN <id>                                  -> OK, or NO when refused
// The id keeps two callers that talk at once apart. A caller whose request
// could not be read at all sends the reason instead, for us to show:
//   POKE FAIL <reason>                              -> OK
// (a program that does not know FAIL answers NO, as to any unknown line).
#include "src/app/compose_request.h"

#include <unistd.h>

#include <cstdio>
#include <map>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/compose/compose.h"
#include "src/compose/compose_text.h"
#include "src/send/channel.h"

namespace {

constexpr int kAnswerWaitMs = 10000;
constexpr size_t kMaxPartial = 4;  // callers sending at once
constexpr size_t kMaxWaiting = 8;  // requests held until start-up is done
constexpr size_t kMaxId = 32;
constexpr size_t kMaxFaults = 4;  // reasons shown at once; more are traced only

struct State {
  ChannelServer server;
  std::map<int, long> watches;  // descriptor -> watcher
  std::map<std::string, std::string> partial;
  std::vector<ComposeRequest> waiting;
  bool started = false;
  // Shown after the answer has gone, so that a caller never waits on a box.
  std::string refusal;
  // Requests that could not be read, shown the same way (or once start-up is done).
  std::vector<std::string> faults;
};

State& S() {
  static State s;
  return s;
}

void TellRefusal() {
  State& s = S();
  if (!s.started) return;
  std::vector<std::string> faults;
  faults.swap(s.faults);
  for (const std::string& why : faults)
    xvt_dm_post_error("Velmar was asked to start a message, but %s.\nNo message was opened.", why.c_str());
  if (s.refusal.empty()) return;
  const std::string why = s.refusal;
  s.refusal.clear();
  xvt_dm_post_error("Another program asked Velmar to start a message, but %s.\nNo message was opened.",
                    why.c_str());
}

void KeepFault(const std::string& why) {
  State& s = S();
  if (s.faults.size() < kMaxFaults) s.faults.push_back(why);
}

// One channel value: no controls, no more bytes than a line holds, cut
// between characters.
std::string ChannelSafe(const std::string& text, size_t max) {
  std::string out;
  for (unsigned char c : text) out += c < 0x20 || c == 0x7f ? ' ' : static_cast<char>(c);
  if (out.size() <= max) return out;
  size_t cut = max;
  while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
  return out.substr(0, cut);
}

void SyncWatches();

void OnReadable(int, void*) {
  S().server.Pump(0);
  SyncWatches();
  TellRefusal();
}

void SyncWatches() { ChannelSyncWatches(&S().server, &S().watches, OnReadable); }

bool OpenOrKeep(const ComposeRequest& request) {
  State& s = S();
  if (!s.started) {
    if (s.waiting.size() >= kMaxWaiting) return false;
    s.waiting.push_back(request);
    return true;
  }
  std::string why;
  if (CREQ_Open(request, &why)) return true;
  s.refusal = why;
  return false;
}

bool Handle(const ChannelLine& line, std::string*) {
  State& s = S();
  if (line.kind != ChannelKind::kPoke) return false;
  if (line.item == "FAIL") {
    Trace(kTraceFrame, kTraceLow, "compose request could not be read: %s\n", line.value.c_str());
    KeepFault(line.value.empty() ? "the request could not be read" : line.value);
    return true;
  }
  const size_t blank = line.value.find(' ');
  const std::string id = line.value.substr(0, blank);
  if (id.empty() || id.size() > kMaxId) return false;
  if (line.item == "PART") {
    if (blank == std::string::npos) return false;
    if (!s.partial.count(id) && s.partial.size() >= kMaxPartial) return false;
    std::string& text = s.partial[id];
    if (text.size() + line.value.size() - blank - 1 > kComposeMaxRequest) {
      s.partial.erase(id);
      return false;
    }
    text.append(line.value, blank + 1, std::string::npos);
    return true;
  }
  if (line.item != "OPEN" || blank != std::string::npos) return false;
  const std::string text = s.partial[id];
  s.partial.erase(id);
  ComposeRequest request;
  std::string why;
  if (!ComposeRequestDecode(text, &request, &why)) {
    Trace(kTraceFrame, kTraceCritical, "compose request refused: %s\n", why.c_str());
    return false;
  }
  return OpenOrKeep(request);
}

}  // namespace

std::string CREQ_SocketPath(const std::string& user_dir) { return ChannelPath(user_dir, "COMPOSE"); }

int CREQ_SendToRunning(const std::string& socket_path, const ComposeRequest& request, std::string* why) {
  static int counter = 0;
  ChannelClient client;
  if (!client.Connect(socket_path)) return -1;
  const std::string text = ComposeRequestEncode(request);
  const std::string id = std::to_string(::getpid()) + "-" + std::to_string(counter++);
  const size_t piece = kChannelMaxValue - id.size() - 1;
  for (size_t at = 0; at < text.size(); at += piece) {
    ChannelLine part{ChannelKind::kPoke, "PART", id + " " + text.substr(at, piece)};
    if (!client.Transact(part, nullptr, kAnswerWaitMs)) {
      *why = "the running Velmar did not take the request";
      return 0;
    }
  }
  if (!client.Transact(ChannelLine{ChannelKind::kPoke, "OPEN", id}, nullptr, kAnswerWaitMs)) {
    *why = "the running Velmar refused the request or did not answer (its window tells why)";
    return 0;
  }
  return 1;
}

int CREQ_FromCommandLine(std::vector<std::string>* args) {
  ComposeRequest request;
  std::vector<std::string> rest;
  bool found = false;
  std::string why;
  char cwd[4096];
  if (!::getcwd(cwd, sizeof cwd)) cwd[0] = '\0';
  const bool ok = ComposeParseArgs(*args, cwd, &request, &rest, &found, &why) &&
                  (!found || ComposeCheckAttachments(request, &why));
  if (!found) return -1;
  *args = rest;
  const std::string dir = FindUserDir();
  if (!ok) {
    // Whoever started us (a browser, a file manager) may show no error
    // output, so the reason goes to a window too: the running copy's, or
    // ours once it is up.
    std::fprintf(stderr, "velmar: %s\nNo message was opened.\n", why.c_str());
    if (!dir.empty()) {
      ChannelClient client;
      if (client.Connect(CREQ_SocketPath(dir))) {
        client.Transact(ChannelLine{ChannelKind::kPoke, "FAIL", ChannelSafe(why, kChannelMaxValue)}, nullptr,
                        kAnswerWaitMs);
        return 2;
      }
    }
    KeepFault(why);
    return -1;
  }
  if (!dir.empty()) {
    const int sent = CREQ_SendToRunning(CREQ_SocketPath(dir), request, &why);
    if (sent == 1) return 0;
    if (sent == 0) {
      std::fprintf(stderr, "velmar: %s\n", why.c_str());
      return 1;
    }
  }
  S().waiting.push_back(request);
  return -1;
}

int CREQ_StartServer() {
  State& s = S();
  if (s.server.Running()) return 1;
  std::string why;
  if (!s.server.Start(CREQ_SocketPath(GetUserDir()), Handle, &why)) {
    Trace(kTraceFrame, kTraceCritical, "CREQ_StartServer: %s\n", why.c_str());
    return 0;
  }
  SyncWatches();
  return 1;
}

void CREQ_StopServer() {
  State& s = S();
  s.server.Stop();
  SyncWatches();
  s.partial.clear();
  s.waiting.clear();
  s.faults.clear();
  s.started = false;
}

void CREQ_Pump(int timeout_ms) {
  S().server.Pump(timeout_ms);
  SyncWatches();
  TellRefusal();
}

void CREQ_StartupDone() {
  State& s = S();
  s.started = true;
  std::vector<ComposeRequest> waiting;
  waiting.swap(s.waiting);
  for (const ComposeRequest& request : waiting) OpenOrKeep(request);
  TellRefusal();
}

WINDOW CREQ_Open(const ComposeRequest& request, std::string* why) {
  if (!ComposeCheckAttachments(request, why)) return NULL_WIN;
  for (const std::string& name : request.ignored)
    Trace(kTraceFrame, kTraceLow, "compose request: header %s ignored\n", name.c_str());
  WINDOW win = compose_new();
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) {
    *why = "the compose window could not be made";
    return NULL_WIN;
  }
  ComposeFields fields = ComposeGetFields(info);
  fields.to = ComposeJoinAddresses(request.to);
  fields.cc = ComposeJoinAddresses(request.cc);
  fields.bcc = ComposeJoinAddresses(request.bcc);
  fields.subject = request.subject;
  fields.in_reply_to = request.in_reply_to;
  ComposeSetFields(info, fields);
  // The caller's text goes above the signature the new window may hold.
  if (!request.body.empty()) {
    const std::string signature = ComposeTextGet(info->text_pane);
    ComposeTextSet(info->text_pane, request.body + (signature.empty() ? "" : "\n" + signature));
  }
  for (const std::string& path : request.attach) compose_attach_file(win, path.c_str());
  xvt_vobj_raise(win);
  return win;
}
