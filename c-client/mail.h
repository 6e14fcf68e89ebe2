// The mail access layer's entry points, as far as the frame uses them.
#pragma once

// Driver settings (no stream: every driver). Operations 112/114 set the
// values of no_auth and no_login, 113/115 read them; value by reference.
void* mail_parameters(void* stream, long op, void* value);
