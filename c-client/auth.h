// The login layer: the user name and password that worked for this session.
#pragma once

void AUTH_ForgetLogin();
