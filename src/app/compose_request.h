// Other programs start a message through us: "velmar mailto:..." and
// "velmar --compose ...". A running copy gets the request over its local
// "COMPOSE" socket and opens a compose window; otherwise the program starts
// and opens it once start-up is done. Nothing is sent without the user.
#pragma once

#include <string>
#include <vector>

#include "src/base/mailto.h"
#include "xvt/xvt.h"

// Before the toolkit starts: takes our words out of *args (the words after
// the program's name). -1: go on starting (a request, if any, waits for
// CREQ_StartupDone); otherwise the process's exit status (0 a running copy
// took the request, 1 it did not answer, 2 a bad request: told on stderr and
// in a box of the running copy). A bad request with no copy running starts
// the program, which shows the reason once start-up is done.
int CREQ_FromCommandLine(std::vector<std::string>* args);

// Hands the request to the copy serving socket_path: 1 it took it, 0 it
// refused or did not answer (*why says which), -1 no copy runs there.
int CREQ_SendToRunning(const std::string& socket_path, const ComposeRequest& request, std::string* why);
std::string CREQ_SocketPath(const std::string& user_dir);

int CREQ_StartServer();
void CREQ_StopServer();
// Serves the socket for up to timeout_ms (the event loop does this through
// descriptor watchers; tests call it).
void CREQ_Pump(int timeout_ms);
// Start-up is complete (or the first-run setup done): waiting requests open.
void CREQ_StartupDone();

// Opens a compose window filled in from the request and raises it; null,
// with *why, when an attachment is not a readable regular file.
WINDOW CREQ_Open(const ComposeRequest& request, std::string* why);
