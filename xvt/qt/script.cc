// Automation: with VELMAR_XVT_SCRIPT naming a file, its lines drive the
// running program, one line per turn of the event loop, so that tests and
// runs without a user can exercise the real windows:
//
//   wait MS                 continue after MS milliseconds
//   screenshot PATH [screen|TITLE]  the task window (or the whole screen,
//                           or the window titled TITLE) as PNG
//   command TAG [TITLE]     a menu choice: E_COMMAND to the task window, or
//                           to the window titled TITLE from its menu bar
//   close                   the task window's close box: E_CLOSE
//   quit                    a request to quit: E_QUIT (not a query)
//   answer N                the next question (post_ask) answers button N
//   dismiss                 the next error/note/message box is not shown
//   dialog RID ID...        the next modal dialog RID gets these controls
//                           clicked, in order, once it is up (RID 0: any)
//   file PATH               the next file chooser (open or save) returns
//                           PATH, as if the user typed it and pressed OK
//   log TEXT                TEXT to stderr
//   key [MOD+]...NAME       a key press to the focused widget: a character,
//                           or Up Down Left Right PageUp PageDown Home End
//                           Return Escape Tab Backtab Delete Backspace Insert
//                           Space F1..F24; MOD is ctrl, shift or alt
//   click TITLE X Y         a left click at X,Y of the client area of the
//   dblclick TITLE X Y      window titled TITLE (the title may hold blanks)
//   type TEXT               TEXT typed, one key per character
//   dump PATH               the open windows as plain UTF-8: each title, then
//                           what the window and its children describe
//
// A line runs even while a box or modal dialog that an earlier line brought
// up waits for the user; "answer", "dismiss" and "dialog" then concern that
// box or dialog if it is of their kind, and otherwise the next one to come;
// so does "file" for a file chooser.
// Empty lines and lines starting with '#' are skipped; a line that cannot be
// understood is reported on stderr and skipped. After the last line the
// program simply goes on running.
#include <QApplication>
#include <QKeyEvent>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMouseEvent>
#include <QPixmap>
#include <QScreen>
#include <QTimer>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {

// One understood line of the script.
struct ScriptLine {
  enum Kind {
    kWait, kScreenshot, kCommand, kClose, kQuit, kAnswer, kDismiss, kDialog, kLog,
    kKey, kClick, kDoubleClick, kType, kDump, kFile
  } kind;
  long number = 0;  // wait: ms, command: tag, answer: N, dialog: rid
  std::string text;  // screenshot: path, log: text
  std::string title;  // screenshot, command: the window meant
  bool screen = false;
  std::vector<int> ids;
  int key = 0;  // key: the Qt key
  Qt::KeyboardModifiers modifiers;
  QString key_text;
  int x = 0, y = 0;  // click: the point
};

class ScriptRunner : public QObject {
 public:
  explicit ScriptRunner(std::vector<std::string> lines) : lines_(std::move(lines)) {}
  void Schedule(int ms) {
    QTimer::singleShot(ms, this, [this] { Step(); });
  }
  bool stopped = false;

 private:
  void Step();
  std::vector<std::string> lines_;
  size_t next_ = 0;
};

namespace {

bool ToLong(const std::string& word, long* out) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(word.c_str(), &end, 10);
  if (errno || word.empty() || end == word.c_str() || *end) return false;
  *out = v;
  return true;
}

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

// The line after its first `words` words, trimmed: a title or a path may
// hold blanks.
std::string RestAfter(const std::string& line, int words) {
  size_t at = 0;
  for (int i = 0; i < words; ++i) {
    at = line.find_first_not_of(" \t", at);
    at = line.find_first_of(" \t", at);
    if (at == std::string::npos) return std::string();
  }
  return Trim(line.substr(at));
}

// "ctrl+shift+Down", "F5", "a": the key and its modifiers.
bool ParseKey(const std::string& words, ScriptLine* out) {
  static const std::pair<const char*, int> kNames[] = {
      {"Up", Qt::Key_Up},         {"Down", Qt::Key_Down},       {"Left", Qt::Key_Left},
      {"Right", Qt::Key_Right},   {"PageUp", Qt::Key_PageUp},   {"PageDown", Qt::Key_PageDown},
      {"Home", Qt::Key_Home},     {"End", Qt::Key_End},         {"Return", Qt::Key_Return},
      {"Enter", Qt::Key_Return},  {"Escape", Qt::Key_Escape},   {"Tab", Qt::Key_Tab},
      {"Backtab", Qt::Key_Backtab}, {"Delete", Qt::Key_Delete}, {"Backspace", Qt::Key_Backspace},
      {"Insert", Qt::Key_Insert}, {"Space", Qt::Key_Space},
  };
  std::string rest = words;
  out->modifiers = Qt::NoModifier;
  for (size_t plus; (plus = rest.find('+')) != std::string::npos && plus + 1 < rest.size();) {
    QString mod = QString::fromStdString(rest.substr(0, plus)).toLower();
    if (mod == "ctrl" || mod == "control")
      out->modifiers |= Qt::ControlModifier;
    else if (mod == "shift")
      out->modifiers |= Qt::ShiftModifier;
    else if (mod == "alt")
      out->modifiers |= Qt::AltModifier;
    else
      return false;
    rest = rest.substr(plus + 1);
  }
  for (auto& [name, key] : kNames)
    if (rest == name) {
      out->key = key;
      if (key == Qt::Key_Space) out->key_text = " ";
      return true;
    }
  if (rest.size() > 1 && rest[0] == 'F') {
    long f = 0;
    if (!ToLong(rest.substr(1), &f) || f < 1 || f > 24) return false;
    out->key = Qt::Key_F1 + static_cast<int>(f - 1);
    return true;
  }
  QString text = QString::fromUtf8(rest.c_str());
  if (text.size() != 1 || !text[0].isPrint()) return false;
  const QChar c = text[0];
  out->key = c.isLetter() ? Qt::Key_A + (c.toUpper().unicode() - 'A') : c.unicode();
  if (c.isLetter() && (c.toUpper().unicode() < 'A' || c.toUpper().unicode() > 'Z')) out->key = 0;
  out->key_text = (out->modifiers & Qt::ShiftModifier) ? text.toUpper() : text;
  return true;
}

bool Parse(const std::string& line, ScriptLine* out) {
  std::istringstream in(line);
  std::vector<std::string> w;
  for (std::string word; in >> word;) w.push_back(word);
  if (w.empty()) return false;
  const std::string& verb = w[0];
  size_t n = w.size();
  if (verb == "wait") {
    out->kind = ScriptLine::kWait;
    return n == 2 && ToLong(w[1], &out->number) && out->number >= 0 && out->number <= 3600000;
  }
  if (verb == "screenshot") {
    out->kind = ScriptLine::kScreenshot;
    if (n < 2) return false;
    out->text = w[1];
    out->screen = n == 3 && w[2] == "screen";
    if (n > 2 && !out->screen) out->title = RestAfter(line, 2);
    return true;
  }
  if (verb == "command") {
    out->kind = ScriptLine::kCommand;
    if (n > 2) out->title = RestAfter(line, 2);
    return n >= 2 && ToLong(w[1], &out->number);
  }
  if (verb == "file") {
    out->kind = ScriptLine::kFile;
    out->text = RestAfter(line, 1);
    return n >= 2;
  }
  if (verb == "close" || verb == "quit" || verb == "dismiss") {
    out->kind = verb == "close" ? ScriptLine::kClose : verb == "quit" ? ScriptLine::kQuit : ScriptLine::kDismiss;
    return n == 1;
  }
  if (verb == "answer") {
    out->kind = ScriptLine::kAnswer;
    return n == 2 && ToLong(w[1], &out->number) && out->number >= 1 && out->number <= 3;
  }
  if (verb == "dialog") {
    out->kind = ScriptLine::kDialog;
    if (n < 2 || !ToLong(w[1], &out->number)) return false;
    for (size_t i = 2; i < n; ++i) {
      long id = 0;
      if (!ToLong(w[i], &id)) return false;
      out->ids.push_back(static_cast<int>(id));
    }
    return true;
  }
  if (verb == "log") {
    out->kind = ScriptLine::kLog;
    out->text = Trim(line.substr(3));
    return true;
  }
  if (verb == "key") {
    out->kind = ScriptLine::kKey;
    return n == 2 && ParseKey(w[1], out);
  }
  if (verb == "click" || verb == "dblclick") {
    out->kind = verb == "click" ? ScriptLine::kClick : ScriptLine::kDoubleClick;
    long x = 0, y = 0;
    if (n < 4 || !ToLong(w[n - 2], &x) || !ToLong(w[n - 1], &y) || x < 0 || y < 0 || x > 100000 || y > 100000)
      return false;
    std::string title;
    for (size_t i = 1; i + 2 < n; ++i) title += (i > 1 ? " " : "") + w[i];
    out->text = title;
    out->x = static_cast<int>(x);
    out->y = static_cast<int>(y);
    return true;
  }
  if (verb == "type") {
    out->kind = ScriptLine::kType;
    out->text = line.size() > 5 ? line.substr(5) : std::string();
    return !out->text.empty();
  }
  if (verb == "dump") {
    out->kind = ScriptLine::kDump;
    if (n != 2) return false;
    out->text = w[1];
    return true;
  }
  return false;
}


// The focused widget; without a window manager the program's window may
// never become active, and then the widget that would have the focus.
QWidget* KeyTarget() {
  if (QWidget* w = QApplication::focusWidget()) return w;
  if (QWidget* w = QApplication::activeModalWidget()) return w->focusWidget() ? w->focusWidget() : w;
  QWidget* task = S().task_window;
  if (task && task->focusWidget()) return task->focusWidget();
  if (QWidget* w = QApplication::activeWindow()) return w;
  return task;
}

void SendKey(int key, Qt::KeyboardModifiers mods, const QString& text) {
  QWidget* target = KeyTarget();
  if (!target) return;
  QKeyEvent press(QEvent::KeyPress, key, mods, text);
  QApplication::sendEvent(target, &press);
  if (!(target = KeyTarget())) return;
  QKeyEvent release(QEvent::KeyRelease, key, mods, text);
  QApplication::sendEvent(target, &release);
}

// The window of that title: the newest one that is not a control.
xvt_object* WindowTitled(const std::string& title) {
  xvt_object* found = nullptr;
  for (xvt_object* o : R().objects)
    if (Live(o) && !IsControl(o->type) && o->type != W_SCREEN && o->title == title) found = o;
  return found;
}

void Click(const ScriptLine& l, bool dbl) {
  xvt_object* rec = WindowTitled(l.text);
  QWidget* client = rec ? (rec == R().task ? static_cast<QWidget*>(S().task_window) : rec->client.data()) : nullptr;
  if (!client) {
    std::fprintf(stderr, "xvt: script: no window titled \"%s\"\n", l.text.c_str());
    return;
  }
  QPoint at(l.x, l.y);
  QWidget* target = client->childAt(at);
  if (!target) target = client;
  QPoint local = target->mapFrom(client, at);
  QPoint global = target->mapToGlobal(local);
  auto send = [&](QEvent::Type type, Qt::MouseButtons held) {
    if (!Live(rec)) return;
    QMouseEvent ev(type, QPointF(local), QPointF(global), Qt::LeftButton, held, Qt::NoModifier);
    QApplication::sendEvent(target, &ev);
  };
  QPointer<QWidget> guard(target);
  // A click moves the keyboard to the window clicked, as it does for a
  // person, even where no window manager activates windows.
  for (QWidget* w = target; w; w = w->parentWidget()) {
    if (auto* sub = qobject_cast<QMdiSubWindow*>(w)) {
      if (QMdiArea* area = sub->mdiArea()) area->setActiveSubWindow(sub);
      break;
    }
  }
  target->activateWindow();
  if (target->focusPolicy() & Qt::ClickFocus) target->setFocus(Qt::MouseFocusReason);
  send(QEvent::MouseButtonPress, Qt::LeftButton);
  if (guard) send(QEvent::MouseButtonRelease, Qt::NoButton);
  if (dbl && guard) {
    send(QEvent::MouseButtonDblClick, Qt::LeftButton);
    if (guard) send(QEvent::MouseButtonRelease, Qt::NoButton);
  }
}

void Screenshot(const ScriptLine& l) {
  auto& s = S();
  QPixmap pix;
  if (l.screen) {
    if (QScreen* screen = QGuiApplication::primaryScreen()) pix = screen->grabWindow(0);
  } else if (!l.title.empty()) {
    xvt_object* rec = WindowTitled(l.title);
    QWidget* frame = rec ? (rec == R().task ? static_cast<QWidget*>(s.task_window) : rec->outer.data()) : nullptr;
    if (!frame) std::fprintf(stderr, "xvt: script: no window titled \"%s\"\n", l.title.c_str());
    if (frame) pix = frame->grab();
  } else if (s.task_window) {
    pix = s.task_window->grab();
  }
  if (pix.isNull() || !pix.save(QString::fromStdString(l.text), "PNG"))
    std::fprintf(stderr, "xvt: screenshot %s failed\n", l.text.c_str());
}

bool TopLevel(const xvt_object* o) {
  auto& r = R();
  if (IsControl(o->type) || o == r.task || o == r.screen || o == r.mdi) return false;
  return o->parent == r.task || o->parent == r.screen || o->parent == r.mdi;
}

void Describe(xvt_object* o, std::string* out) {
  out->append(xvt_win_describe(o));
  for (xvt_object* k : o->children)
    if (Live(k) && !IsControl(k->type)) Describe(k, out);
}

void Dump(const std::string& path) {
  std::string out;
  for (xvt_object* o : R().objects) {
    if (!Live(o) || !TopLevel(o)) continue;
    if ((o->outer && !o->outer->isVisible()) || o->title.empty()) continue;
    out += "== " + o->title + "\n";
    Describe(o, &out);
  }
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (!f || std::fwrite(out.data(), 1, out.size(), f) != out.size()) std::fprintf(stderr, "xvt: dump %s failed\n", path.c_str());
  if (f) std::fclose(f);
}

void TaskEvent(EVENT_TYPE type) {
  auto& r = R();
  if (!Live(r.task)) return;
  EVENT ev = MakeEvent(type);
  ev.v.query = false;
  Send(r.task, &ev);
}

void Execute(const ScriptLine& l) {
  auto& s = S();
  switch (l.kind) {
    case ScriptLine::kWait: break;
    case ScriptLine::kScreenshot: Screenshot(l); break;
    case ScriptLine::kCommand: {
      xvt_object* to = l.title.empty() ? R().task : WindowTitled(l.title);
      if (!to || !Live(to)) {
        std::fprintf(stderr, "xvt: script: no window titled \"%s\"; command %ld not sent\n", l.title.c_str(),
                     l.number);
        break;
      }
      // As a menu choice: an item the program disabled cannot be chosen.
      if (MenuItem* m = FindMenuItem(to, static_cast<int>(l.number)); m && !m->enabled) {
        std::fprintf(stderr, "xvt: script: command %ld is disabled; not sent\n", l.number);
        break;
      }
      EVENT ev = MakeEvent(E_COMMAND);
      ev.v.cmd.tag = static_cast<int>(l.number);
      Send(to, &ev);
      break;
    }
    case ScriptLine::kFile:
      if (!ChooseInOpenFileDialog(l.text)) s.files.push_back(l.text);
      break;
    case ScriptLine::kClose: TaskEvent(E_CLOSE); break;
    case ScriptLine::kQuit: TaskEvent(E_QUIT); break;
    case ScriptLine::kAnswer:
      if (!AnswerOpenQuestion(static_cast<int>(l.number))) s.answers.push_back(static_cast<int>(l.number));
      break;
    case ScriptLine::kDismiss:
      if (!DismissOpenNotice()) ++s.dismiss;
      break;
    case ScriptLine::kDialog:
      if (!DriveOpenDialog(static_cast<int>(l.number), l.ids))
        s.dialogs.push_back(State::ScriptedDialog{static_cast<int>(l.number), l.ids});
      break;
    case ScriptLine::kLog: std::fprintf(stderr, "%s\n", l.text.c_str()); break;
    case ScriptLine::kKey: SendKey(l.key, l.modifiers, l.key_text); break;
    case ScriptLine::kClick: Click(l, false); break;
    case ScriptLine::kDoubleClick: Click(l, true); break;
    case ScriptLine::kType:
      for (char32_t c : QString::fromUtf8(l.text.c_str()).toUcs4()) {
        QString t = QString::fromUcs4(&c, 1);
        int key = (c >= 'a' && c <= 'z') ? Qt::Key_A + static_cast<int>(c - 'a')
                  : (c >= 'A' && c <= 'Z') ? Qt::Key_A + static_cast<int>(c - 'A') : static_cast<int>(c);
        SendKey(key, (c >= 'A' && c <= 'Z') ? Qt::ShiftModifier : Qt::NoModifier, t);
      }
      break;
    case ScriptLine::kDump: Dump(l.text); break;
  }
}

}  // namespace

void ScriptRunner::Step() {
  while (!stopped && next_ < lines_.size()) {
    size_t number = next_ + 1;
    std::string line = Trim(lines_[next_++]);
    if (line.empty() || line[0] == '#') continue;
    ScriptLine parsed{};
    if (!Parse(line, &parsed)) {
      std::fprintf(stderr, "xvt: script line %zu: cannot understand \"%s\"; skipped\n", number, line.c_str());
      continue;
    }
    if (parsed.kind == ScriptLine::kWait) {
      Schedule(static_cast<int>(parsed.number));
      return;
    }
    // The next line is due on the next turn even when this one opens a modal
    // dialog: the dialog's own loop then runs the rest of the script.
    Schedule(0);
    Execute(parsed);
    return;
  }
}

void StartScript() {
  auto& s = S();
  if (!s.scripted || s.script) return;
  const char* path = std::getenv("VELMAR_XVT_SCRIPT");
  std::ifstream file(path);
  if (!file) {
    std::fprintf(stderr, "xvt: cannot read the script %s: %s\n", path, std::strerror(errno));
    return;
  }
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line)) lines.push_back(line);
  s.script = new ScriptRunner(std::move(lines));
  s.script->Schedule(0);
}

void StopScript() {
  auto& s = S();
  if (!s.script) return;
  // The runner may be the caller (a "close" line ends the application).
  s.script->stopped = true;
  s.script->deleteLater();
  s.script = nullptr;
}

bool TakeScriptedAnswer(int* answer) {
  auto& s = S();
  if (s.answers.empty()) return false;
  *answer = s.answers.front();
  s.answers.pop_front();
  return true;
}

bool TakeScriptedDismiss() {
  auto& s = S();
  if (s.dismiss <= 0) return false;
  --s.dismiss;
  return true;
}

bool TakeScriptedFile(std::string* path) {
  auto& s = S();
  if (s.files.empty()) return false;
  *path = s.files.front();
  s.files.pop_front();
  return true;
}

bool TakeScriptedDialog(int rid, std::vector<int>* clicks) {
  auto& s = S();
  for (auto it = s.dialogs.begin(); it != s.dialogs.end(); ++it) {
    if (it->rid == rid || it->rid == 0) {
      *clicks = it->clicks;
      s.dialogs.erase(it);
      return true;
    }
  }
  return false;
}

}  // namespace xvtqt
