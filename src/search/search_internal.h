// What the search files share among themselves.
#pragma once

// Sets the code SRCH_GetLastError gives.
void srch_set_error(int code);
