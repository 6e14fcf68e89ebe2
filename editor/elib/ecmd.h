// The editor's commands: the named operations that key bindings and menus
// run on a window's buffer, the keyboard selection around them, the
// clipboard, forward search and replace, wrapping while typing, the undo
// log, and the queue that keeps a window's events in order while one of
// them is still being handled.
//
// Commands answer RC_OK or RC_FAIL. A failing command has no effect and
// says nothing: the key seems to do nothing.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "editor/edata.h"
#include "editor/ekeys/key_event.h"
#include "editor/elib/buffer.h"
#include "rclib/dshash.h"

// How the table calls a command (the calling types of the key maps' list).
constexpr int kCmdTypeKey = 3;     // f(ed, 1, key, 0): the typed key
constexpr int kCmdTypeBuffer = 4;  // f(ed)
constexpr int kCmdTypeCount = 5;   // f(1)
constexpr int kCmdTypeWindow = 6;  // f(ed): scrolling, which the window does

using ECmdKeyFn = int (*)(E_DATA* ed, int count, const KM_KEY* key, int flags);
using ECmdBufferFn = int (*)(E_DATA* ed);
using ECmdCountFn = int (*)(int count);

struct ECmdEntry {
  const char* name;
  int type;
  ECmdKeyFn key_fn;
  ECmdBufferFn buffer_fn;  // types 4 and 6
  ECmdCountFn count_fn;
};

// The window's commands of type 6 (scrolling, paging) belong to the
// redisplay: it hands them over here. Without one they fail.
using ECmdWindowHandler = int (*)(E_DATA* ed, const char* name);

// Menu ids of the window's own Edit entries and of its close command.
constexpr int kMenuCut = 32027;
constexpr int kMenuCopy = 32028;
constexpr int kMenuPaste = 32029;
constexpr int kMenuClose = 32009;

// The window's flag while it handles an event.
constexpr unsigned long kEdataBusy = 8;

// Limits of what comes in from the clipboard, and of the undo log.
constexpr size_t kPasteMaxBytes = 64u << 20;
constexpr size_t kUndoMaxBytes = 64u << 20;
constexpr size_t kUndoMaxSteps = 10000;
constexpr size_t kEventQueueMax = 4096;

// A place in the text that survives paging: line number from 0 (the
// first line of the text) and byte offset in that line.
struct EPos {
  long line = 0;
  long offset = 0;
  bool operator==(const EPos&) const = default;
};

// One change to the text: `text` went in at `at`, or came out from `at`.
// A line feed in `text` is a line end.
struct EUndoOp {
  bool insert = true;
  EPos at;
  std::string text;
};

// What one command did, with the point before and after.
struct EUndoStep {
  std::vector<EUndoOp> ops;
  EPos point_before, point_after;
  bool typing = false;  // a run of typed characters, which later ones join
  size_t bytes = 0;
};

// A queued event of a busy window: a copy of the record, so that nothing
// points into the toolkit's event.
struct EVPAIR {
  WINDOW win = NULL_WIN;
  EVENT ev{};
};

struct ECommandState {
  HASH_TABLE* table = nullptr;  // name -> ECmdEntry*
  ECmdWindowHandler window_handler = nullptr;
  // Undo log: steps done, and steps undone that redo can do again.
  std::vector<EUndoStep> undo, redo;
  size_t undo_bytes = 0;
  EUndoStep open;        // the step of the running command
  int depth = 0;         // commands running (a paste runs line-newline)
  bool replaying = false;
  std::string last_command;
  // The code point column that line-by-line moves keep; -1 when unset.
  long goal_column = -1;
  // Wrapping while typing: the column a line may reach; 0 turns it off.
  int wrap_margin = 72;
  std::deque<EVPAIR> queue;  // events that came while busy
  void (*display_release)(E_DATA* ed) = nullptr;
};

int ecmd_state_new(ECommandState** state);
void ecmd_state_destroy(ECommandState** state);
// The table's entry of a command name, or null.
const ECmdEntry* ecmd_lookup(const ECommandState* state, const char* name);
void ecmd_set_window_handler(E_DATA* ed, ECmdWindowHandler handler);
void ecmd_set_wrap_margin(E_DATA* ed, int margin);
// Where edata_create finds keybind.def when it is given no path.
void edata_set_data_dir(const char* dir);
const std::string& edata_data_dir();

// Runs a command the way a key does: selection step before, the command,
// selection step after, the undo record. `key` may be null (a menu or a
// program); `shift` is the key's shift state.
int ecmd_run(E_DATA* ed, const char* name, const KM_KEY* key, bool shift);

// The keyboard selection's steps around a command, by binding name.
void ecmd_selection_pre(EditBuffer* buf, const char* name, bool shift);
void ecmd_selection_post(EditBuffer* buf, const char* name);

// The Edit menu: cut, copy, paste (by menu id); RC_FAIL for other ids.
int ecmd_menu(E_DATA* ed, int id);
// Splits clipboard text at CR LF, LF or a lone CR. Each piece tells
// whether a line end followed it.
struct EClipPiece {
  std::string_view text;
  bool line_end = false;
};
std::vector<EClipPiece> ecmd_clip_split(std::string_view text);
// Pastes text as the clipboard would hand it over (one undo step).
int ecmd_paste_text(E_DATA* ed, std::string_view text);
// The region's text with CR LF line ends, as copy puts it.
int ecmd_region_text(EditBuffer* buf, REGION* region, std::string* out);

// Forward, case-sensitive search from the point to the end of the text;
// the point goes to the start of the match.
int ecmd_search_forward(E_DATA* ed, std::string_view text);
// Replaces every `old_text` from the point to the end (one undo step);
// *count gets the number replaced.
int ecmd_replace_forward(E_DATA* ed, std::string_view old_text, std::string_view new_text, long* count);

// Breaks the point's line (and the tails it carries) at the margin.
int ecmd_refill(E_DATA* ed, int margin);

// The mouse, at a text place the window worked out from the pointer.
int ecmd_mouse_down(E_DATA* ed, const EPos& pos, bool shift);
int ecmd_mouse_drag(E_DATA* ed, const EPos& pos);
int ecmd_mouse_up(E_DATA* ed, const EPos& pos);
int ecmd_mouse_double(E_DATA* ed, const EPos& pos);

int ecmd_undo(E_DATA* ed);
int ecmd_redo(E_DATA* ed);
// For a program that changes the text other than through the commands (a
// file read into the window): the log's places would no longer hold.
void ecmd_forget_undo(E_DATA* ed);

// Place of a mark as line and offset, and a mark put at such a place.
int ecmd_pos_of(EditBuffer* buf, const MARK* mark, EPos* pos);
int ecmd_mark_to(EditBuffer* buf, MARK* mark, const EPos& pos);

// Event serialisation for an editor window: handles ev through `handle`,
// or queues a copy of it while the window is still busy with an earlier
// one. The queue is worked off, in order, before the first call returns.
// After a close or destroy event the loop goes on only if the record is
// still the live one that edata_create registered.
using EdataEventFn = long (*)(E_DATA* ed, WINDOW win, EVENT* ev);
long ehserial(E_DATA* ed, WINDOW win, EVENT* ev, EdataEventFn handle);
void ecmd_register_live(const E_DATA* ed, bool live);

// The redisplay's release of E_DATA::dis, which edata_destroy calls.
void edata_set_display_release(E_DATA* ed, void (*release)(E_DATA* ed));
