// The login layer: the user name and password that worked for this session.
#pragma once

void AUTH_ForgetLogin();
// The login of this session (user, password), or null when there is none.
const char* login_user();
const char* login_password();
