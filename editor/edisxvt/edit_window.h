// The editor bound to a window: the handler that turns the toolkit's events
// into commands, selections, scrolls and paints, and the editor controls
// that other windows place in themselves.
//
// TXEDIT is a multi-line text with a vertical scroll bar and soft-wrapped
// lines; TXEDITLINE is a one-line field that scrolls sideways. Both hold
// UTF-8 text and tell their parent of each change by E_CONTROL (control
// type WC_TEXTEDIT; edit.focus_change tells focus news from text changes).
#pragma once

#include <string>

#include "editor/edata.h"

long edit_eh(WINDOW win, EVENT* ev);

// A document window holding an empty buffer (parent null: the task
// window's document area); keybind_path null takes the shipped key maps.
WINDOW edit_window_create(WINDOW parent, const RCT* rct, const char* title, const char* keybind_path);
// The editor record of a window made here, or null.
E_DATA* edit_data(WINDOW win);

enum TXEDIT_KIND { TXEDIT = 1, TXEDITLINE = 2 };

// A control of `kind` in parent's rectangle rct; id names it in the
// parent's E_CONTROL events. CTL_FLAG_READONLY makes it read-only.
WINDOW txedit_create(TXEDIT_KIND kind, WINDOW parent, const RCT* rct, int id, unsigned long flags);
// The whole text. A one-line field turns line breaks into spaces. The
// program's own setting is not reported back as a change.
int txedit_set_text(WINDOW ctl, const char* utf8);
std::string txedit_get_text(WINDOW ctl);
void txedit_set_readonly(WINDOW ctl, bool read_only);
bool txedit_is_readonly(WINDOW ctl);
void txedit_focus(WINDOW ctl);
// A one-line field entered by Tab: the caret goes behind its text, so what
// is typed adds to it. A multi-line field keeps its caret.
void txedit_caret_to_end(WINDOW ctl);
// The text's face from now on: family, pixel size, XVT_FS_* style.
void txedit_set_font(WINDOW ctl, const char* family, int size, unsigned style);
// A multi-line field that hands Tab and Shift-Tab to its parent, as a
// one-line field always does, instead of taking them as text.
void txedit_set_tab_leaves(WINDOW ctl, bool leaves);
