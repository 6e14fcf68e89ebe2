// Automation: with VELMAR_XVT_SCRIPT naming a file, its lines drive the
// running program, one line per turn of the event loop, so that tests and
// runs without a user can exercise the real windows:
//
//   wait MS                 continue after MS milliseconds
//   screenshot PATH [screen]  the task window (or the whole screen) as PNG
//   command TAG             a menu choice: E_COMMAND to the task window
//   close                   the task window's close box: E_CLOSE
//   quit                    a request to quit: E_QUIT (not a query)
//   answer N                the next question (post_ask) answers button N
//   dismiss                 the next error/note/message box is not shown
//   dialog RID ID...        the next modal dialog RID gets these controls
//                           clicked, in order, once it is up (RID 0: any)
//   log TEXT                TEXT to stderr
//
// A line runs even while a box or modal dialog that an earlier line brought
// up waits for the user; "answer", "dismiss" and "dialog" then concern that
// box or dialog if it is of their kind, and otherwise the next one to come.
// Empty lines and lines starting with '#' are skipped; a line that cannot be
// understood is reported on stderr and skipped. After the last line the
// program simply goes on running.
#include <QApplication>
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
  enum Kind { kWait, kScreenshot, kCommand, kClose, kQuit, kAnswer, kDismiss, kDialog, kLog } kind;
  long number = 0;  // wait: ms, command: tag, answer: N, dialog: rid
  std::string text;  // screenshot: path, log: text
  bool screen = false;
  std::vector<int> ids;
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
    if (n < 2 || n > 3 || (n == 3 && w[2] != "screen")) return false;
    out->text = w[1];
    out->screen = n == 3;
    return true;
  }
  if (verb == "command") {
    out->kind = ScriptLine::kCommand;
    return n == 2 && ToLong(w[1], &out->number);
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
  return false;
}

void Screenshot(const std::string& path, bool whole_screen) {
  auto& s = S();
  QPixmap pix;
  if (whole_screen) {
    if (QScreen* screen = QGuiApplication::primaryScreen()) pix = screen->grabWindow(0);
  } else if (s.task_window) {
    pix = s.task_window->grab();
  }
  if (pix.isNull() || !pix.save(QString::fromStdString(path), "PNG"))
    std::fprintf(stderr, "xvt: screenshot %s failed\n", path.c_str());
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
    case ScriptLine::kScreenshot: Screenshot(l.text, l.screen); break;
    case ScriptLine::kCommand: {
      if (!Live(R().task)) break;
      // As a menu choice: an item the program disabled cannot be chosen.
      if (MenuItem* m = FindMenuItem(R().task, static_cast<int>(l.number)); m && !m->enabled) {
        std::fprintf(stderr, "xvt: script: command %ld is disabled; not sent\n", l.number);
        break;
      }
      EVENT ev = MakeEvent(E_COMMAND);
      ev.v.cmd.tag = static_cast<int>(l.number);
      Send(R().task, &ev);
      break;
    }
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
