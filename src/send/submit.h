// The outbox and background submission, as far as the frame uses them, and
// the local server through which the background sender reaches us.
#pragma once

// 1 when the outbox holds no messages; any failure answers "empty".
int SUBMIT_OutboxIsEmpty();
// Starts the background sender and has it send the outbox. 1 on success.
int SUBMIT_FlushOutbox();
// Ends the link to the background sender.
void SUBMIT_StopLink();

// The program's local server (the channel of the background sender).
int SDDE_StartServer();
void SDDE_StopServer();
bool SDDE_ServerRunning();
// Start-up is complete: the background sender may ask for the login.
void SDDE_SetFullyStarted(int flag);
int SDDE_FullyStarted();
