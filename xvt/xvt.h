// The toolkit facade: every window, control, dialog, menu, timer and drawing
// operation of the program goes through these functions. Two backends
// implement them: headless/ (records, a virtual clock, scripted dialog
// answers; all logic tests use it) and qt/ (Qt 6 Widgets). The backend is
// chosen at link time.
//
// Handles are opaque pointers. Window handlers have the form
//   long name_eh(WINDOW win, EVENT* ev);
// and receive events synchronously on the one application thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct xvt_object;
typedef xvt_object* WINDOW;
#define NULL_WIN (static_cast<WINDOW>(nullptr))

struct RCT {
  int left, top, right, bottom;
};
struct PNT {
  int h, v;
};

// 0x00RRGGBB
typedef uint32_t COLOR;
constexpr COLOR COLOR_BLACK = 0x000000;
constexpr COLOR COLOR_WHITE = 0xFFFFFF;
constexpr COLOR COLOR_GRAY = 0x808080;
constexpr COLOR COLOR_LTGRAY = 0xC0C0C0;
constexpr COLOR COLOR_DKGRAY = 0x404040;
constexpr COLOR COLOR_RED = 0xFF0000;
constexpr COLOR COLOR_BLUE = 0x0000FF;
// The system's window background colour, resolved by the backend.
constexpr COLOR COLOR_SYSTEM_WINDOW = 0xFF000001;

enum WIN_TYPE {
  W_NONE = 0,
  W_DOC = 1,        // document window (an MDI child of the task window)
  W_PLAIN = 2,      // plain top-level window
  W_DBL = 3,        // double-framed top-level window
  W_PRINT = 4,
  W_TASK = 5,       // the task window (frame with menu bar and client area)
  W_SCREEN = 6,     // the whole screen
  W_NO_BORDER = 7,  // borderless window (banner)
  W_MODAL = 8,      // modal dialog
  W_MODELESS = 9,   // modeless dialog
  WC_PUSHBUTTON = 100,
  WC_RADIOBUTTON,
  WC_CHECKBOX,
  WC_HSCROLL,
  WC_VSCROLL,
  WC_EDIT,
  WC_TEXT,       // static text
  WC_LBOX,       // list box
  WC_LISTBUTTON, // drop-down list
  WC_LISTEDIT,   // editable drop-down list
  WC_GROUPBOX,
  WC_TEXTEDIT,   // multi-line text (the editor's own controls sit on it)
  WC_ICON,
};

// Window creation flags.
constexpr unsigned long WSF_NONE = 0x0000;
constexpr unsigned long WSF_SIZE = 0x0001;       // user may resize
constexpr unsigned long WSF_HSCROLL = 0x0004;    // attached horizontal scroll bar
constexpr unsigned long WSF_VSCROLL = 0x0008;    // attached vertical scroll bar
constexpr unsigned long WSF_MAXIMIZABLE = 0x0010;
constexpr unsigned long WSF_INVISIBLE = 0x0020;  // created hidden
constexpr unsigned long WSF_DISABLED = 0x0040;
constexpr unsigned long WSF_CLOSE = 0x0080;      // has a close box
constexpr unsigned long WSF_ICONIZED = 0x0100;   // created minimised
constexpr unsigned long WSF_NO_MENUBAR = 0x0200;
constexpr unsigned long WSF_MAXIMIZED = 0x1000;  // created maximised
// Control flags.
constexpr unsigned long CTL_FLAG_DEFAULT = 0x0001;   // default push button
constexpr unsigned long CTL_FLAG_DISABLED = 0x0002;
constexpr unsigned long CTL_FLAG_INVISIBLE = 0x0004;
constexpr unsigned long CTL_FLAG_READONLY = 0x0008;
constexpr unsigned long CTL_FLAG_MULTISEL = 0x0010;  // list box with several selections
constexpr unsigned long CTL_FLAG_PASSWORD = 0x0020;  // edit that hides its text

enum EVENT_TYPE {
  E_NONE = 0,
  E_CREATE = 1,
  E_DESTROY,
  E_FOCUS,
  E_SIZE,
  E_UPDATE,
  E_CLOSE,
  E_MOUSE_DOWN,
  E_MOUSE_UP,
  E_MOUSE_MOVE,
  E_MOUSE_DBL,
  E_CHAR,
  E_VSCROLL,
  E_HSCROLL,
  E_COMMAND,
  E_CONTROL,
  E_FONT,
  E_TIMER,
  E_QUIT,
  E_HELP,
  E_USER,
};

// Scroll actions of E_HSCROLL / E_VSCROLL and of scroll bar controls.
enum SCROLL_CONTROL {
  SC_NONE = 0,
  SC_LINE_UP,
  SC_LINE_DOWN,
  SC_PAGE_UP,
  SC_PAGE_DOWN,
  SC_THUMB,       // thumb released at pos
  SC_THUMBTRACK,  // thumb being dragged, at pos
};
enum SCROLL_TYPE { HSCROLL = 0, VSCROLL = 1, HVSCROLL = 2 };

// Key codes of E_CHAR beyond plain characters.
constexpr int K_BS = 8;
constexpr int K_TAB = 9;
constexpr int K_ENTER = 13;
constexpr int K_ESC = 27;
constexpr int K_DEL = 127;
constexpr int K_UP = 301;
constexpr int K_DOWN = 302;
constexpr int K_LEFT = 303;
constexpr int K_RIGHT = 304;
constexpr int K_PREV = 305;  // page up
constexpr int K_NEXT = 306;  // page down
constexpr int K_LHOME = 307; // start of line
constexpr int K_LEND = 308;  // end of line
constexpr int K_HOME = 309;  // start of document
constexpr int K_END = 310;   // end of document
constexpr int K_INS = 311;
constexpr int K_WLEFT = 312;  // word left
constexpr int K_WRIGHT = 313; // word right
constexpr int K_F1 = 331;     // K_F1 .. K_F24 are consecutive
constexpr int K_F24 = 354;
constexpr int K_BTAB = 373;   // shift-tab

struct CONTROL_INFO {
  WIN_TYPE type;
  WINDOW win;
  union {
    struct {
      bool dbl_click;
    } lbox;
    struct {
      SCROLL_CONTROL what;
      int pos;
    } scroll;
    struct {
      bool focus_change;  // the edit gained or lost focus rather than changed
      bool active;
    } edit;
  } v;
};

typedef struct xvt_font* XVT_FNTID;

struct EVENT {
  EVENT_TYPE type;
  union {
    struct {
      PNT where;
      bool shift, control;
      int button;  // 0 left, 1 right, 2 middle
    } mouse;
    struct {
      int ch;
      bool shift, control;
      // ch is a typed character, even where its number is also a key
      // code's (letters U+012D to U+0175 share numbers with K_UP .. K_BTAB).
      bool text;
    } chr;
    bool active;  // E_FOCUS: gained (true) or lost
    bool query;   // E_QUIT: only asks whether quitting is allowed
    struct {
      SCROLL_CONTROL what;
      int pos;
    } scroll;
    struct {
      int tag;
      bool shift, control;
    } cmd;
    struct {
      int height, width;
    } size;
    struct {
      RCT rct;
    } update;
    struct {
      long id;
    } timer;
    struct {
      long id;
      void* ptr;
    } user;
    struct {
      int id;
      CONTROL_INFO ci;
    } ctl;
    struct {
      XVT_FNTID font_id;
    } font;
  } v;
};

typedef long (*EVENT_HANDLER)(WINDOW win, EVENT* ev);
typedef unsigned long EVENT_MASK;
constexpr EVENT_MASK EM_ALL = ~0UL;

// ---------------------------------------------------------------------------
// Resources are tables in code, registered by id before they are used.

// A dialog: the first entry describes the dialog window itself, the rest its
// controls; the table ends with an entry of type W_NONE.
struct WIN_DEF {
  WIN_TYPE type;
  RCT rct;
  const char* title;
  int id;               // control id (0 for the dialog entry)
  unsigned long flags;  // WSF_* for the dialog, CTL_FLAG_* for controls
};

// A menu: an array that ends with an entry whose tag is 0, text null and
// separator false. '~' marks the mnemonic letter in a title.
struct MENU_ITEM {
  int tag;
  const char* text;
  bool enabled;
  bool checked;
  bool separator;
  const MENU_ITEM* children;  // submenu, or null
};

void xvt_res_register_dialog(int rid, const WIN_DEF* defs);
void xvt_res_register_menubar(int rid, const MENU_ITEM* items);
const WIN_DEF* xvt_res_get_dialog(int rid);
const MENU_ITEM* xvt_res_get_menubar(int rid);
// An icon by resource id: the name of an image file (BMP) under the
// application directory's icons/ folder, registered by the program.
void xvt_res_register_icon(int rid, const char* path);
// The file registered for an icon id; null when none is.
const char* xvt_res_icon_path(int rid);

// ---------------------------------------------------------------------------
// Application

struct XVT_CONFIG {
  int menu_bar_rid;
  int about_box_rid;
  const char* base_appl_name;
  const char* appl_name;
  const char* taskwin_title;
  // Height of the row above the multiple-document area that holds the
  // program's own child windows of the task window (toolbar, busy window).
  int toolbar_height;
};

// Attributes for xvt_vobj_get_attr / xvt_vobj_set_attr on NULL_WIN.
enum XVT_ATTR {
  ATTR_ERRMSG_HANDLER = 1,  // value: XVT_ERRMSG_HANDLER
  ATTR_NATIVE_HOOK,         // value: XVT_NATIVE_HOOK
  ATTR_3D_CONTROLS,         // value: 0/1
  ATTR_NATIVE_DIALOGS,      // value: 0/1
  ATTR_RESOURCES_IN_CODE,   // value: 0/1
  ATTR_MDI_CLIENT_WIN,      // get: the multiple-document client area (a WINDOW)
  ATTR_SCREEN_WIDTH,        // get
  ATTR_SCREEN_HEIGHT,       // get
  ATTR_APP_ICON,            // set on the task window: icon resource id of the frame
  // On a top-level window: get / set its frame state.
  ATTR_WIN_MAXIMIZED,
  ATTR_WIN_MINIMIZED,
  // get: the width of a vertical and the height of a horizontal scroll bar.
  ATTR_CTL_VERT_SBAR_WIDTH,
  ATTR_CTL_HORZ_SBAR_HEIGHT,
};

enum XVT_SEVERITY { SEV_WARNING = 1, SEV_ERROR = 2, SEV_FATAL = 3 };
// Returns true when the toolkit needs to do nothing more about the message.
typedef bool (*XVT_ERRMSG_HANDLER)(XVT_SEVERITY severity, const char* function, const char* message);

// What the native hook is told: input that the busy mode cares about.
enum XVT_NATIVE_EVENT {
  XVT_NATIVE_LBUTTON_DOWN = 1,
  XVT_NATIVE_LBUTTON_UP,
  XVT_NATIVE_SCROLL,      // a scroll bar is being operated (code = SCROLL_CONTROL)
  XVT_NATIVE_SCROLL_END,  // the end of a scroll operation
  XVT_NATIVE_APP_SWITCH_AWAY,  // the user switches to another application
  XVT_NATIVE_APP_ACTIVATE,     // the application is active again
};
typedef void (*XVT_NATIVE_HOOK)(XVT_NATIVE_EVENT what, int code);

// Runs the event loop; returns when the application has ended. The task
// window gets E_CREATE first and E_DESTROY last.
void xvt_app_create(int argc, char** argv, unsigned long flags, EVENT_HANDLER task_eh, XVT_CONFIG* config);
// Destroys every window (the task window last, with E_DESTROY) and ends the
// event loop; xvt_app_create then returns.
void xvt_app_destroy(void);
// Answers an E_QUIT query with "yes, the application may quit".
void xvt_app_allow_quit(void);
// True once the session is ending (a termination signal came): nobody is
// there to answer a question, so the program ends without asking.
bool xvt_app_session_ending(void);
// Runs pending events, timers included, and returns.
void xvt_app_process_pending_events(void);
WINDOW xvt_task_win(void);
WINDOW xvt_screen_win(void);
#define TASK_WIN (xvt_task_win())
#define SCREEN_WIN (xvt_screen_win())

intptr_t xvt_vobj_get_attr(WINDOW win, XVT_ATTR attr);
bool xvt_vobj_set_attr(WINDOW win, XVT_ATTR attr, intptr_t value);

// ---------------------------------------------------------------------------
// Windows and objects

WINDOW xvt_win_create(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                      unsigned long flags, EVENT_MASK mask, EVENT_HANDLER eh, intptr_t app_data);
void xvt_vobj_destroy(WINDOW win);
bool xvt_vobj_is_valid(WINDOW win);
WIN_TYPE xvt_vobj_get_type(WINDOW win);
WINDOW xvt_vobj_get_parent(WINDOW win);
intptr_t xvt_vobj_get_data(WINDOW win);
void xvt_vobj_set_data(WINDOW win, intptr_t data);
// What a window shows, as plain UTF-8 lines, for the automation script's
// "dump": windows whose content the toolkit cannot see (a tree, a viewer)
// set a function that appends it. xvt_win_describe is empty without one.
using XVT_DESCRIBE_FN = void (*)(WINDOW win, std::string* out);
void xvt_win_set_describe(WINDOW win, XVT_DESCRIBE_FN fn);
std::string xvt_win_describe(WINDOW win);
// Copies at most size-1 bytes and terminates; returns buf, or null.
char* xvt_vobj_get_title(WINDOW win, char* buf, size_t size);
// The text of control id of win, at most limit bytes (not for pass phrases,
// which stay in buffers the caller wipes).
std::string xvt_ctl_get_text(WINDOW win, int id, size_t limit);
void xvt_vobj_set_title(WINDOW win, const char* title);
// Outer and client rectangles: of a top-level window in screen coordinates
// (client rectangle at 0,0), of a child or control relative to its parent.
// The screen window gives the screen.
RCT* xvt_vobj_get_outer_rect(WINDOW win, RCT* rct);
RCT* xvt_vobj_get_client_rect(WINDOW win, RCT* rct);
void xvt_vobj_move(WINDOW win, const RCT* rct);
void xvt_vobj_set_visible(WINDOW win, bool visible);
bool xvt_vobj_is_visible(WINDOW win);
void xvt_vobj_set_enabled(WINDOW win, bool enabled);
bool xvt_vobj_is_enabled(WINDOW win);
void xvt_vobj_raise(WINDOW win);
// The text shown when the pointer rests on a window or control.
void xvt_vobj_set_tooltip(WINDOW win, const char* text);
std::string xvt_vobj_get_tooltip(WINDOW win);

// Calls the window's handler with the event, at once.
long xvt_win_dispatch_event(WINDOW win, EVENT* ev);
// Queues an event for the window; it is delivered by the event loop.
void xvt_win_post_event(WINDOW win, const EVENT* ev);

// Pointer and cursor. Trapping never grabs the display: input to every
// window other than the trap window is swallowed by the toolkit.
enum CURSOR { CURSOR_ARROW = 0, CURSOR_WAIT, CURSOR_IBEAM, CURSOR_CROSS, CURSOR_HAND };
void xvt_win_trap_pointer(WINDOW win);
void xvt_win_release_pointer(void);
void xvt_win_set_cursor(WINDOW win, CURSOR cursor);
void xvt_scr_set_busy_cursor(void);
WINDOW xvt_scr_get_focus_vobj(void);
void xvt_scr_set_focus_vobj(WINDOW win);
void xvt_scr_beep(void);
// The clipboard's text, as UTF-8 with LF line ends as the program keeps
// them; the toolkit converts for other programs.
bool xvt_cb_put_text(const char* text, size_t length);
bool xvt_cb_has_text(void);
std::string xvt_cb_get_text(void);
// Draws the user's eye to the program (new mail) without taking the focus.
void xvt_app_request_attention(void);

// ---------------------------------------------------------------------------
// Drawing: valid inside E_UPDATE (headless records it always).

enum PAT { PAT_NONE = 0, PAT_SOLID, PAT_HOLLOW, PAT_DOT };  // PAT_DOT: a dotted pen
struct CPEN {
  int width;
  PAT pat;
  COLOR color;
};
struct CBRUSH {
  PAT pat;
  COLOR color;
};

enum XVT_FONT_STYLE { XVT_FS_NONE = 0, XVT_FS_BOLD = 1, XVT_FS_ITALIC = 2, XVT_FS_UNDERLINE = 4 };
// size is the font's pixel height.
XVT_FNTID xvt_font_create(const char* family, int size, unsigned style);
void xvt_font_destroy(XVT_FNTID font);
const char* xvt_font_get_family(XVT_FNTID font);
int xvt_font_get_size(XVT_FNTID font);
unsigned xvt_font_get_style(XVT_FNTID font);

void xvt_dwin_set_pen(WINDOW win, const CPEN* pen);
void xvt_dwin_set_brush(WINDOW win, const CBRUSH* brush);
void xvt_dwin_set_fore_color(WINDOW win, COLOR color);
void xvt_dwin_set_back_color(WINDOW win, COLOR color);
void xvt_dwin_set_font(WINDOW win, XVT_FNTID font);
void xvt_dwin_set_clip(WINDOW win, const RCT* rct);  // null: no clipping
void xvt_dwin_clear(WINDOW win, COLOR color);
void xvt_dwin_draw_line(WINDOW win, PNT from, PNT to);
void xvt_dwin_draw_rect(WINDOW win, const RCT* rct);
void xvt_dwin_draw_3d_rect(WINDOW win, const RCT* rct, bool raised);
// y is the baseline; len < 0 means up to the terminator.
void xvt_dwin_draw_text(WINDOW win, int x, int y, const char* text, int len);
void xvt_dwin_get_font_metrics(WINDOW win, int* leading, int* ascent, int* descent);
int xvt_dwin_get_text_width(WINDOW win, const char* text, int len);
void xvt_dwin_draw_icon(WINDOW win, int x, int y, int icon_rid);
void xvt_dwin_invalidate_rect(WINDOW win, const RCT* rct);  // null: the whole client area
void xvt_dwin_scroll_rect(WINDOW win, const RCT* rct, int dh, int dv);
void xvt_dwin_update(WINDOW win);  // paint invalid areas now

// Measures of a font outside any window: the width of a run of UTF-8 text
// and the font's vertical metrics.
int xvt_font_get_text_width(XVT_FNTID font, const char* text, int len);
void xvt_font_get_metrics(XVT_FNTID font, int* leading, int* ascent, int* descent);

// The text caret of a window: one per window, drawn by the toolkit over what
// the window paints, so that moving it never needs a repaint. pos is the
// caret's top-left corner in client coordinates. A new caret is hidden.
void xvt_caret_create(WINDOW win, int width, int height);
void xvt_caret_set_pos(WINDOW win, PNT pos);
void xvt_caret_show(WINDOW win, bool visible);
void xvt_caret_destroy(WINDOW win);

typedef struct xvt_image* XVT_IMAGE;
XVT_IMAGE xvt_image_read_bmp(const char* path);
void xvt_image_get_dimensions(XVT_IMAGE image, int* width, int* height);
void xvt_image_destroy(XVT_IMAGE image);
void xvt_dwin_draw_image(WINDOW win, XVT_IMAGE image, const RCT* dest, const RCT* source);

// ---------------------------------------------------------------------------
// Scroll bars attached to a window (WSF_HSCROLL / WSF_VSCROLL), or of a
// scroll bar control (pass HSCROLL/VSCROLL as its direction).

void xvt_sbar_set_range(WINDOW win, SCROLL_TYPE type, int min, int max);
void xvt_sbar_get_range(WINDOW win, SCROLL_TYPE type, int* min, int* max);
void xvt_sbar_set_pos(WINDOW win, SCROLL_TYPE type, int pos);
int xvt_sbar_get_pos(WINDOW win, SCROLL_TYPE type);
void xvt_sbar_set_proportion(WINDOW win, SCROLL_TYPE type, int proportion);
void xvt_sbar_set_visible(WINDOW win, SCROLL_TYPE type, bool visible);
void xvt_sbar_set_enabled(WINDOW win, SCROLL_TYPE type, bool enabled);

// ---------------------------------------------------------------------------
// Controls. A control's text is its title (xvt_vobj_get_title / set_title).

WINDOW xvt_ctl_create(WIN_TYPE type, const RCT* rct, const char* title, WINDOW parent, unsigned long flags,
                      int id);
WINDOW xvt_win_get_ctl(WINDOW win, int id);
int xvt_ctl_get_id(WINDOW ctl);
void xvt_ctl_set_checked(WINDOW ctl, bool checked);
// A push button shows the icon of resource id icon_rid before its text; 0
// takes the picture away. Other controls ignore it. A disabled button greys
// its picture with its text.
void xvt_ctl_set_icon(WINDOW ctl, int icon_rid);
bool xvt_ctl_is_checked(WINDOW ctl);
// Selects bytes [start, end) of an edit or text edit control's UTF-8 text
// (a text edit scrolls the selection into view); offsets inside
// a character are moved to its start, offsets past the end to the end.
void xvt_ctl_set_text_sel(WINDOW ctl, int start, int end);
// Scrolls a text edit control a page down (or up); false when it stood at
// that end already and nothing moved.
bool xvt_ctl_page_text(WINDOW ctl, bool down);
// Checks ctl and clears the other radio buttons of the group.
void xvt_ctl_check_radio_button(WINDOW ctl, WINDOW* group, int count);

// List boxes, list buttons and list edits. Indexes count from 0.
bool xvt_list_add(WINDOW ctl, int index, const char* text);  // index -1: at the end
bool xvt_list_rem(WINDOW ctl, int index);
void xvt_list_clear(WINDOW ctl);
int xvt_list_count_all(WINDOW ctl);
char* xvt_list_get_elt(WINDOW ctl, int index, char* buf, size_t size);
int xvt_list_get_sel_index(WINDOW ctl);  // -1 when nothing is selected
void xvt_list_set_sel(WINDOW ctl, int index, bool selected);
bool xvt_list_is_sel(WINDOW ctl, int index);
void xvt_list_suspend(WINDOW ctl);
void xvt_list_resume(WINDOW ctl);

// ---------------------------------------------------------------------------
// String lists: a toolkit list of (text, data) pairs in order.

typedef struct xvt_slist* SLIST;
typedef struct xvt_slist_elt* SLIST_ELT;
SLIST xvt_slist_create(void);
void xvt_slist_destroy(SLIST list);
// Inserts after elt (null: at the end); returns false when out of memory.
bool xvt_slist_add_at_elt(SLIST list, SLIST_ELT elt, const char* text, long data);
int xvt_slist_count(SLIST list);
SLIST_ELT xvt_slist_get_first(SLIST list);
SLIST_ELT xvt_slist_get_next(SLIST list, SLIST_ELT elt);
const char* xvt_slist_get(SLIST list, SLIST_ELT elt, long* data);
long xvt_slist_get_data(SLIST list, SLIST_ELT elt);

// ---------------------------------------------------------------------------
// Dialogs

// Creates a dialog from a registered resource. A modal dialog runs its own
// loop and the call returns after it has gone: the handle returned then only
// tells that it was shown (null when it could not be made).
WINDOW xvt_dlg_create_res(WIN_TYPE type, int rid, EVENT_MASK mask, EVENT_HANDLER eh, intptr_t app_data);
WINDOW xvt_dlg_create_def(const WIN_DEF* defs, EVENT_MASK mask, EVENT_HANDLER eh, intptr_t app_data);

enum ASK_RESPONSE { RESP_DEFAULT = 1, RESP_2 = 2, RESP_3 = 3 };
// Buttons b2 and b3 may be null. The text is a printf format.
ASK_RESPONSE xvt_dm_post_ask(const char* b1, const char* b2, const char* b3, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
void xvt_dm_post_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void xvt_dm_post_note(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void xvt_dm_post_message(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Shows the text and ends the process with status 1.
[[noreturn]] void xvt_dm_post_fatal_exit(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Asks for a line of text; buf holds the initial value. False on cancel.
bool xvt_dm_post_string_prompt(const char* prompt, char* buf, size_t size);
// File choosers: path holds the initial directory or file. False on cancel.
bool xvt_dm_post_file_open(const char* prompt, char* path, size_t size);
bool xvt_dm_post_file_save(const char* prompt, char* path, size_t size);
// Font chooser: replaces *font with the chosen one. False on cancel.
bool xvt_dm_post_font_sel(WINDOW win, XVT_FNTID* font);

// The progress window: one at a time.
void xvt_progress_open(const char* title, const char* text, bool cancellable);
void xvt_progress_set_text(const char* text);
void xvt_progress_set_range(long total);  // 0: no counted bar
void xvt_progress_set_pos(long pos);
bool xvt_progress_cancelled(void);
void xvt_progress_close(void);
WINDOW xvt_progress_win(void);  // null when none is open

// ---------------------------------------------------------------------------
// Menus of a window with a menu bar (the task window's bar also serves its
// document windows).

void xvt_menu_set_item_enabled(WINDOW win, int tag, bool enabled);
void xvt_menu_set_item_checked(WINDOW win, int tag, bool checked);
void xvt_menu_set_item_title(WINDOW win, int tag, const char* title);
bool xvt_menu_get_item_enabled(WINDOW win, int tag);
bool xvt_menu_get_item_checked(WINDOW win, int tag);
// Copies the title (with its '~'); returns false for an unknown tag.
bool xvt_menu_get_item_title(WINDOW win, int tag, char* buf, size_t size);
void xvt_menu_update(WINDOW win);
// The menu bar a window shows (its own, else the task window's), as it was
// registered; null when there is none. Tells apart windows whose bars reuse
// command numbers for different things.
const MENU_ITEM* xvt_menu_get_bar(WINDOW win);
// Shows a pop-up menu at pnt (client coordinates of win); the chosen item
// reaches win as E_COMMAND.
void xvt_menu_popup(const MENU_ITEM* items, WINDOW win, PNT pnt);

// ---------------------------------------------------------------------------
// Printing: a job of pages of plain text lines in a fixed-pitch font, so
// that the program lays out the pages itself and knows every page break.

struct XVT_PRINT_GEOMETRY {
  int lines;    // lines that fit on a page
  int columns;  // characters that fit on a line
};
// Starts a job. pdf_path null: the user chooses a printer in the toolkit's
// print dialog (false when cancelled or no printer exists); else the pages
// go to that PDF file. Fills in the page's size.
bool xvt_print_start(const char* title, const char* pdf_path, XVT_PRINT_GEOMETRY* geometry);
// One page; lines past the page's size are not printed.
bool xvt_print_page(const std::vector<std::string>& lines);
// Ends the job; false when the printer or the file failed.
bool xvt_print_end(void);

// ---------------------------------------------------------------------------
// Timers: deliver E_TIMER with the id to the window every period.

constexpr long XVT_TIMER_ERROR = 0;
long xvt_timer_create(WINDOW win, long period_ms);
void xvt_timer_destroy(long id);

// ---------------------------------------------------------------------------
// Descriptor watchers, for the program's local socket server.

typedef void (*XVT_FD_CALLBACK)(int fd, void* data);
long xvt_fd_watch(int fd, XVT_FD_CALLBACK cb, void* data);
void xvt_fd_unwatch(long id);

// ---------------------------------------------------------------------------
// Help: the help pages are HTML files.

bool xvt_help_open_helpfile(const char* path);
void xvt_help_close_helpfile(void);
bool xvt_help_display(const char* topic);  // null: the contents page
