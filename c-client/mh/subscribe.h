// The subscription database of the local drivers: subscrib.dat in the
// user's directory, one name per line.
#pragma once

long subscribe_add(const char* name);
long subscribe_remove(const char* name);
// The next subscribed name, or null at the end (then the walk starts
// again). *state is the walk's; start with null.
const char* subscribe_next(void** state);
