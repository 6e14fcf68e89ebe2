// Shared state of the Qt backend: the record behind every handle, the
// application-wide state, and the helpers the backend's files share.
// Nothing outside xvt/qt/ includes this header.
#pragma once

#include <QColor>
#include <QFont>
#include <QHash>
#include <QImage>
#include <QPointer>
#include <QRect>
#include <QRegion>
#include <QString>
#include <cstdarg>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "xvt/common/win_records.h"
#include "xvt/xvt.h"

class QAction;
class QApplication;
class QMdiArea;
class QMenu;
class QMenuBar;
class QPainter;
class QScrollBar;
class QSocketNotifier;
class QTimer;
class QWidget;


namespace xvtqt {

class TaskWindow;
class ProgressDialog;
class HelpWindow;
class InputFilter;
class ScriptRunner;

// The menu bar of one window: its menus and the action of every tagged item
// (the items' state is in the record).
// The menus go with deleteLater, as one of them may be running when its
// window is destroyed by the command it sent.
struct MenuSet {
  std::vector<QPointer<QMenu>> menus;  // every menu made for the bar, to delete
  std::vector<QPointer<QAction>> bar;  // what the bar shows, in order
  std::map<int, QAction*> actions;  // by tag
  ~MenuSet();
};

}  // namespace xvtqt

struct xvt_object : xvtrec::WinRecord {
  bool created = false;  // E_CREATE has been sent
  // outer: what is moved, shown and closed (frame, MDI sub-window, dialog,
  // control). client: what is drawn on and holds the children.
  QPointer<QWidget> outer;
  QPointer<QWidget> client;
  QPointer<QScrollBar> bars[2];  // attached bars: [HSCROLL], [VSCROLL]
  std::unique_ptr<xvtqt::MenuSet> menu;
  std::vector<const QObject*> bound;  // widgets whose input reaches this record

  // Drawing tools. Like the headless backend, the pen colour is the
  // foreground (text) colour and the brush colour the background colour.
  COLOR fore = COLOR_BLACK;
  COLOR back = COLOR_WHITE;
  int pen_width = 1;
  PAT pen_pat = PAT_SOLID;
  PAT brush_pat = PAT_SOLID;
  QFont font;
  bool has_font = false;
  bool has_clip = false;
  QRect clip;
  QPainter* painter = nullptr;  // set only while E_UPDATE runs
  QRegion dirty;                // invalidated since the last paint
  QPointer<QWidget> caret;      // a small child of the client, over the text
};

namespace xvtqt {

struct Timer {
  QTimer* timer = nullptr;
  WINDOW win = nullptr;
};

struct FdWatch {
  QSocketNotifier* notifier = nullptr;
};

struct State {
  QApplication* app = nullptr;  // the one xvt_app_create made
  bool own_app = false;
  int argc = 0;                 // QApplication keeps references to these
  std::vector<std::string> args;
  std::vector<char*> argv;

  bool running = false;  // inside xvt_app_create
  TaskWindow* task_window = nullptr;
  QWidget* toolbar_row = nullptr;
  QMdiArea* mdi_area = nullptr;
  std::string appl_name;
  int toolbar_height = 0;

  QHash<const QObject*, xvt_object*> by_widget;

  // Input.
  xvt_object* trapped = nullptr;
  InputFilter* filter = nullptr;
  int cursor_depth = 0;

  // Timers and watchers.
  std::map<long, Timer> timers;
  long next_timer = 1;
  std::map<long, FdWatch> watches;
  long next_watch = 1;

  // Progress window and help.
  xvt_object* progress = nullptr;
  bool progress_cancelled = false;
  std::string help_file;
  QPointer<HelpWindow> help_window;

  // Icons decoded once per id.
  std::map<int, QImage> icons;

  // Automation.
  ScriptRunner* script = nullptr;
  bool scripted = false;  // VELMAR_XVT_SCRIPT is set
  std::deque<int> answers;
  int dismiss = 0;
  struct ScriptedDialog {
    int rid;
    std::vector<int> clicks;
  };
  std::deque<ScriptedDialog> dialogs;
  std::deque<std::string> files;  // paths for the next file choosers

  int signal_fds[2] = {-1, -1};
};

State& S();

// --- Records ---------------------------------------------------------------
// The records themselves, the task, screen and document-area windows and
// the destruction order are shared with the headless backend.
using namespace xvtrec;
// What the backend lets go of when a record has been destroyed.
void ForgetRecord(xvt_object* rec);
// Ties a widget to the record its input is reported to; forgotten when the
// record is destroyed, so late signals from a dying widget find nothing.
void Bind(const QObject* widget, xvt_object* rec);
xvt_object* RecordOf(const QObject* widget);
// The nearest record at or above widget.
xvt_object* RecordAbove(const QWidget* widget);
// Where a record's child windows and controls are placed.
QWidget* Container(xvt_object* rec);
bool IsControl(WIN_TYPE type);
// Places a top-level widget so that its frame covers rct (screen coordinates).
void PlaceTopLevel(QWidget* w, const RCT& rct);
QWidget* DialogParent();

// --- Text ------------------------------------------------------------------
QString FromUtf8(const char* s, int len = -1);

// '~' marks the mnemonic ("~~" is a literal tilde); a literal '&' is doubled.
QString Mnemonic(const char* title);
void CopyOut(const QString& text, char* buf, size_t size);
RCT ToRct(const QRect& r);
QRect ToQRect(const RCT& r);

// --- Drawing ---------------------------------------------------------------
QColor ToQColor(COLOR c);
QFont ToQFont(XVT_FNTID font);
QFont DefaultFont();
QImage IconImage(int rid);  // null image when unknown or undecodable
void PaintRecord(xvt_object* rec, QWidget* w, const QRect& area);
void ClearDrawCaches();

// --- Windows ---------------------------------------------------------------
xvt_object* CreateWindowRecord(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                               unsigned long flags, EVENT_HANDLER eh, intptr_t app_data);
void ShowCreated(xvt_object* rec);
// Moves a window or control to rct (see the header for the coordinates).
void MoveRecord(xvt_object* rec, const RCT& rct);

// --- Controls --------------------------------------------------------------
xvt_object* CreateControl(WIN_TYPE type, const RCT& rct, const char* title, xvt_object* parent, unsigned long flags,
                          int id);
void NotifyControl(xvt_object* ctl, bool dbl_click = false, bool focus_change = false, bool active = false);
// Clicks a control as the user would (buttons flip and report themselves).
void ClickControl(xvt_object* ctl);
QString ControlTitle(xvt_object* ctl);
void SetControlTitle(xvt_object* ctl, const QString& title);

// --- Scroll bars -----------------------------------------------------------
// Reports a scroll bar's use: to the owning window (attached bar) or as a
// control event, and to the native hook.
void WireScrollBar(QScrollBar* bar, xvt_object* rec, bool attached, SCROLL_TYPE dir);

// --- Menus -----------------------------------------------------------------
void LoadMenuBar(xvt_object* rec, const MENU_ITEM* items);
void ShowTaskMenuBar();  // the active document's bar, else the task window's

// --- Input -----------------------------------------------------------------
void InstallInputFilter();
void RemoveInputFilter();
void Native(XVT_NATIVE_EVENT what, int code);
void ClearCursor();
void InstallMessageHandler(XVT_ERRMSG_HANDLER handler);

// --- Timers ----------------------------------------------------------------
void KillTimersOf(WINDOW w);
void KillAllTimers();
void KillAllWatches();

// --- Dialogs, progress, help -----------------------------------------------
void ForgetProgressWindow(xvt_object* rec);
void CloseHelp();
// Stderr line that tells a script-driven run what the program asked.
void Report(const char* kind, const std::string& text);
// A script line may concern a box or dialog that is already up and waiting:
// these answer, dismiss or drive it, and say false when there is none.
bool AnswerOpenQuestion(int answer);
bool DismissOpenNotice();
bool DriveOpenDialog(int rid, const std::vector<int>& clicks);
bool ChooseInOpenFileDialog(const std::string& path);

// --- Automation ------------------------------------------------------------
void StartScript();
void StopScript();
bool TakeScriptedAnswer(int* answer);
bool TakeScriptedDismiss();
bool TakeScriptedDialog(int rid, std::vector<int>* clicks);
bool TakeScriptedFile(std::string* path);

}  // namespace xvtqt
