// The outbox and background submission: the foreground walk that sends
// what waits in the outbox, the background sender (tools/velmar-submit)
// and the local server through which the two programs talk.
#pragma once

#include <string>

#include "c-client/core/mail.h"
#include "src/model/mm.h"

// --- The outbox in the foreground ----------------------------------------------

// The outbox folder opened, or INVALID_FOLDER (999) when none is usable.
int OUTBOX_Open();
void OUTBOX_Close(int folder);
// Sends each message of the open outbox; returns how many are gone (sent,
// or found deleted). A message that fails stays, marked as before.
int OUTBOX_SendMessages(int folder);
// A message to send again made from a stored one: its envelope, and its
// MIME headers and body byte for byte. Free with mail_free_message.
Message* BuildMessageFromUMI(UMI umi);

// True when the outbox opens and holds messages.
int Mob_AnyQueuedMessages();
// Opens, sends, expunges; the number gone, or -1 when the outbox cannot
// be opened.
int Mob_ProcessOutbox();
// Expunges the outbox and rereads it where it is open.
void Mob_RebuildOutbox();

// 1 when the outbox holds no messages; any failure answers "empty".
int SUBMIT_OutboxIsEmpty();
// Whether folder is the outbox.
int SUBMIT_IsOutbox(int folder);
// Starts the background sender and has it send the outbox. 1 on success.
int SUBMIT_FlushOutbox();
// Makes sure the background sender runs. 1 when it does.
int SUBMIT_Startsubmit();
// Ends the link to the background sender.
void SUBMIT_StopLink();
// An outbox open here is read again (another program changed its files).
void RebuildOutbox();
void ReopenFolder(int folder);
// The background sender's program; tests point it elsewhere ("" restores).
std::string SUBMIT_ProgramPath();
void SUBMIT_SetProgramForTest(const std::string& path);
// The question asked at exit while messages wait; 1 when the program may
// go on to its exit question.
int SUBMIT_OfferSendAtExit();

// --- The program's local server --------------------------------------------------

int SDDE_StartServer();
void SDDE_StopServer();
bool SDDE_ServerRunning();
// Serves what waits on the server for up to timeout_ms (the event loop
// does this through a descriptor watcher; waits and tests call it).
void SDDE_Pump(int timeout_ms);
// Start-up is complete: the background sender may ask for the login.
void SDDE_SetFullyStarted(int flag);
int SDDE_FullyStarted();
// What a client's poke and request do. HandleRequest returns 0 when there
// is no answer.
int SDDE_HandlePoke(const char* item, const char* value);
int HandleRequest(const char* item, std::string* answer);
// Asks the background sender to send the outbox (20 s for its answer).
int SDDE_FlushOutbox();
// Waits up to 60 s for a background sender we started and tells it how it
// was started.
int SDDE_WeStartedSubmit();
// How long the two waits are, for tests (0 restores them).
void SDDE_SetWaitsForTest(int flush_ms, int start_ms);
