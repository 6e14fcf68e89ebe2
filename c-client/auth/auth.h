// The login layer: the login record that the model primes before each open,
// the login dialog contract through which LOGIN and the authenticators get a
// user name and a password, and the session's login that worked.
#pragma once

#include <cstddef>

// States of the login record.
constexpr long kLoginOk = 0;
constexpr long kLoginCancel = 2;
constexpr long kLoginTimeout = 120000;
constexpr long kLoginDialogMs = 120000;

// The dialog that asks the user. user holds the name to offer and receives
// the answer; both buffers hold kMailLoginSize bytes. Returns kLoginOk,
// kLoginCancel or kLoginTimeout; a dialog that cannot be made ends the
// program itself. The program installs it; without one every question is
// cancelled.
typedef long (*AuthDialogFn)(const char* host, char* user, char* password, long timeout_ms);
void AUTH_SetDialog(AuthDialogFn dialog);

// Primes the record before an open: the user and password to try first
// (either may be empty), state back to 0.
void AUTH_InitLogin(const char* user, const char* password);
// mm_login's work: the primed login on the first trial, the dialog on a
// later one or when the primed login is incomplete.
void AUTH_Login(const char* host, char* user, char* password, long trial);
// What the record holds now: the login that the last open used.
const char* AUTH_LoginUser();
const char* AUTH_LoginPassword();
// The user cancelled (or let the dialog time out): later logins of the
// session end at once until the record is primed again.
bool AUTH_LoginCancelled();

void AUTH_ForgetLogin();
// The login of this session (user, password), or null when there is none.
const char* login_user();
const char* login_password();
