#include "c-client/auth.h"

// The session's login is kept by the authenticators; nothing is kept yet.
void AUTH_ForgetLogin() {}
