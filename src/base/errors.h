// The numbered user messages, and the routes by which they reach the user.
#pragma once

#include "xvt/xvt.h"

void ErrorInit();
void ErrorShutdown();
// The text of a message (a printf format for the caller), or null.
const char* ErrorText(int code);
// Shows the text as an error; traces it with the detail. Unknown codes do nothing.
void ErrorShow(int code, const char* detail);
void ErrorNote(int code, const char* detail);
// Asks with "OK" and "Cancel"; 1 on OK.
int ErrorAsk(int code);
// The message dialog (resource 1040); 1 if the user answered with OK.
int DisplayDialogue(int code);
[[noreturn]] void AssertFail(const char* file, int line);
int ErrorCount();  // entries in the table

// The toolkit's error hook: traces the toolkit's own messages.
bool XvtErrorHook(XVT_SEVERITY severity, const char* function, const char* message);
