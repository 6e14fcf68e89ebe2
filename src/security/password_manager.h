// Changing the user's password through the password manager server, a
// separate TCP service with a short line protocol, in two dialogs: the
// login (host, port, user, old password) and the new password twice.
#pragma once

#include <cstddef>

struct TcpStream;

// Resource ids of the two dialogs and their controls.
constexpr int kPwLoginRid = 3150;
constexpr int kPwLoginHost = 3151;
constexpr int kPwLoginPort = 3152;
constexpr int kPwLoginUser = 3153;
constexpr int kPwLoginPassword = 3154;
constexpr int kPwLoginOk = 3155;
constexpr int kPwLoginCancel = 3156;
constexpr int kPwChangeRid = 3160;
constexpr int kPwChangeNew = 3161;
constexpr int kPwChangeConfirm = 3162;
constexpr int kPwChangeOk = 3163;
constexpr int kPwChangeCancel = 3164;

// Field sizes: the login fields and the new passwords.
constexpr size_t kPwFieldSize = 500;
constexpr size_t kPwNewPasswordSize = 20;
// Longest reply kept; the rest of a longer line is skipped.
constexpr size_t kPwReplyLimit = 499;
// The port for a host without General.PasswordManager.port.<host> when
// General.PasswordManager.port.default is not set either.
constexpr int kPwDefaultPort = 106;

// Whether the change-password command is offered (General.PasswordManager.Enable).
bool PWM_Enabled();
// The port to use for host, from the options.
int PWM_PortFor(const char* host);
// Opens the login dialog and runs the whole talk; returns when both
// dialogs are gone and the connection is closed.
void PWM_ChangePassword();
// Reads one reply into buffer (kPwReplyLimit + 1 bytes): up to and with
// the line feed, or the first kPwReplyLimit bytes of a longer line. False
// when the stream ended before a line feed or the limit.
bool PWM_ReadReply(TcpStream* stream, char* buffer);
