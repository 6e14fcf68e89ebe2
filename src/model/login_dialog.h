// The login dialog that the login layer (c-client/auth) asks through: the
// host, the user name and the password, with a time-out.
#pragma once

// Resource id of the dialog, and its controls.
constexpr int kLoginDialogRid = 3110;
constexpr int kLoginDialogLabel = 3111;
constexpr int kLoginDialogUser = 3112;
constexpr int kLoginDialogPassword = 3113;
constexpr int kLoginDialogOk = 3114;
constexpr int kLoginDialogCancel = 3115;

// Asks for the login to host. user holds the name to offer (Options.Userid
// comes first when set) and receives the answer; both buffers hold
// kMailLoginSize bytes. Returns kLoginOk, kLoginCancel or kLoginTimeout
// (message 3004 is shown); a dialog that cannot be made ends the program.
// Matches AuthDialogFn, for AUTH_SetDialog.
long LoginDialogAsk(const char* host, char* user, char* password, long timeout_ms);
