// The names of the editor's commands, the one list that key maps may bind
// and that the command table is built from. "prefix" and "rescan" are words
// of the maps themselves, not commands.
#pragma once

// How the window calls a command: 3 f(buf, 1, key, 0), 4 f(buf),
// 5 f(1), 6 f(window).
struct KM_COMMAND_NAME {
  const char* name;
  int type;
};

extern const KM_COMMAND_NAME km_command_names[];
extern const int km_command_count;

// RC_OK when `name` is a command of the list.
int km_command_known(const char* name);
// RC_OK for what a key line may name: a command, "rescan" or "prefix".
int km_bind_known(const char* name);
