// The Check Spelling dialog: walks the misspelt words of a window's subject
// field and then of its message text, in order, and lets the user replace,
// ignore or learn each. Changes to the text go through the editor's own
// commands, so Undo takes them back one by one.
#pragma once

#include "xvt/xvt.h"

constexpr int kSpellDialogRid = 9450;
// Controls of the dialog.
constexpr int kSpellWordId = 9451;     // the word, and where it stands
constexpr int kSpellChangeId = 9452;   // "Change to"
constexpr int kSpellListId = 9453;     // suggestions
constexpr int kSpellReplaceId = 9454;
constexpr int kSpellReplaceAllId = 9455;
constexpr int kSpellIgnoreId = 9456;
constexpr int kSpellIgnoreAllId = 9457;
constexpr int kSpellAddId = 9458;
constexpr int kSpellCancelId = 9459;

// subject: an edit control (or null); text_pane: an editor control (or null).
// quiet: say nothing when the text is clean (the check before a send).
// 1 the check went to the end; 0 the user cancelled; -1 checking is not
// possible here (no library or dictionary; the user was told).
int Spell_CheckWindow(WINDOW subject, WINDOW text_pane, bool quiet);
