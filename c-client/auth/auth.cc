#include "c-client/auth/auth.h"

// The session's login is kept by the authenticators; nothing is kept yet.
void AUTH_ForgetLogin() {}

const char* login_user() { return nullptr; }
const char* login_password() { return nullptr; }
