// Every touch of a compose window's message text goes through these few
// calls, so that the pane behind them can change without the rest of the
// window noticing.
#pragma once

#include <string>

#include "src/options/font_options.h"
#include "xvt/xvt.h"

// Makes the pane as a child of win with the control id.
WINDOW ComposeTextCreate(WINDOW win, int id);
std::string ComposeTextGet(WINDOW pane);
void ComposeTextSet(WINDOW pane, const std::string& text);
// Inserts at the insertion point (the end while the pane has none to tell).
void ComposeTextInsert(WINDOW pane, const std::string& text);
bool ComposeTextModified(WINDOW pane);
void ComposeTextSetModified(WINDOW pane, bool modified);
void ComposeTextSetFont(WINDOW pane, const FontChoice& font);
// The window is going: forget what the pane kept.
void ComposeTextForget(WINDOW pane);
