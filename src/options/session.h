// Where this session's options come from and whether it is online: the
// session manager dialog chooses a named configuration, and General.Offline
// (session level) is the state that everyone reads.
#pragma once

// Answers 1 when the user chose a configuration with OK. When options are
// being loaded again (Options.Loading) the caller then starts the workspace
// anew on the chosen configuration.
int SessionManagerDialog();
// Settles online or offline from the command line and velmar.ini, asking
// with the session manager when the mode is "prompt".
void ResolveConnectionMode();
int IsOffline();
