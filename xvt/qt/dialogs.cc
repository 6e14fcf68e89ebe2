// Dialogs from WIN_DEF tables, questions and notices, and the standard
// choosers (text, file, font).
#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QFontDialog>
#include <QFontInfo>
#include <QInputDialog>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QTimer>
#include <cstdarg>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <utility>

#include "xvt/common/strfmt.h"
#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

QString BoxTitle() { return FromUtf8(S().appl_name.c_str()); }

// A box or chooser lives on the heap: the window it belongs to may be
// destroyed while it waits for the user (by a timer's handler, or a quit
// request), and that deletes the box with it.
template <typename T>
class Guarded {
 public:
  template <typename... A>
  explicit Guarded(A&&... a) : p_(new T(std::forward<A>(a)...)) {}
  ~Guarded() { delete p_.data(); }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;
  T* operator->() const { return p_.data(); }
  T* get() const { return p_.data(); }
  // Rejected when the box is gone.
  int Exec() { return p_ ? p_->exec() : QDialog::Rejected; }

 private:
  QPointer<T> p_;
};

// The boxes and modal dialogs that wait for the user right now, innermost
// last, for a script that answers them after they came up.
struct OpenBox {
  QPointer<QMessageBox> box;
  std::vector<QPushButton*> buttons;  // a question's, in the program's order
  std::string kind;
  std::string text;
};
std::vector<OpenBox> g_open_boxes;

struct OpenDialog {
  xvt_object* rec;
  uint64_t serial;
  int rid;
  bool driven;
};
std::vector<OpenDialog> g_open_dialogs;

// File choosers waiting for the user, innermost last, and the path a script
// chose for one of them.
struct OpenChooser {
  QPointer<QFileDialog> dlg;
  QString scripted;
};
std::vector<OpenChooser> g_open_choosers;

// Puts w's middle on over's (the task window's without one), kept on over's screen.
void CentreOver(QWidget* w, QWidget* over) {
  over = over ? over->window() : S().task_window;
  if (!over) return;
  QPoint at = over->frameGeometry().center() - QPoint(w->width() / 2, w->height() / 2);
  if (const QScreen* screen = over->screen()) {
    const QRect room = screen->availableGeometry();
    at.setX(std::clamp(at.x(), room.left(), std::max(room.left(), room.right() - w->width())));
    at.setY(std::clamp(at.y(), room.top(), std::max(room.top(), room.bottom() - w->height())));
  }
  w->move(at);
}

// Builds the dialog and its controls; E_CREATE comes once all exist.
xvt_object* BuildDialog(const WIN_DEF* defs, EVENT_HANDLER eh, intptr_t app_data) {
  auto& s = S();
  if (!R().task || R().destroyed || !defs) return nullptr;
  xvt_object* rec = nullptr;
  if (defs->type == W_MODAL || defs->type == W_MODELESS) {
    auto* dlg = new Dialog(defs->type == W_MODAL ? DialogParent() : static_cast<QWidget*>(s.task_window));
    dlg->setWindowTitle(FromUtf8(defs->title));
    rec = NewRecord(defs->type, R().screen);
    rec->outer = dlg;
    rec->client = dlg;
    rec->eh = eh;
    rec->data = app_data;
    rec->flags = defs->flags;
    rec->title = defs->title ? defs->title : "";
    Bind(dlg, rec);
    PlaceTopLevel(dlg, defs->rct);
    // A table that gives no place (the origin) means "where the user is
    // looking": over the window it belongs to, not in the screen's corner.
    if (defs->rct.left == 0 && defs->rct.top == 0) CentreOver(dlg, dlg->parentWidget());
    // Controls sit at fixed places: the dialog keeps its size unless the
    // table says it may be resized.
    if (!(defs->flags & WSF_SIZE)) dlg->setFixedSize(dlg->size());
  } else if (defs->type == W_DOC || defs->type == W_PLAIN) {
    rec = CreateWindowRecord(defs->type, &defs->rct, defs->title, 0, nullptr, defs->flags, eh, app_data);
  }
  if (!rec) return nullptr;
  for (const WIN_DEF* d = defs + 1; d->type != W_NONE; ++d) {
    if (!CreateControl(d->type, d->rct, d->title, rec, d->flags, d->id))
      std::fprintf(stderr, "xvt: dialog \"%s\": entry %d (type %d) is not a control; left out\n",
                   defs->title ? defs->title : "", static_cast<int>(d - defs), static_cast<int>(d->type));
  }
  rec->created = true;
  EVENT ev = MakeEvent(E_CREATE);
  Send(rec, &ev);
  return rec;
}

// Clicks the listed controls of a scripted dialog once it is up.
void ScheduleClicks(xvt_object* rec, int rid, const std::vector<int>& clicks) {
  uint64_t serial = rec->serial;
  QTimer::singleShot(0, rec->outer, [rec, serial, rid, clicks] {
    for (int id : clicks) {
      if (!Live(rec) || rec->serial != serial) return;
      xvt_object* ctl = xvt_win_get_ctl(rec, id);
      if (!ctl) {
        std::fprintf(stderr, "xvt: dialog %d has no control %d to click\n", rid, id);
        continue;
      }
      ClickControl(ctl);
    }
    if (Live(rec) && rec->serial == serial)
      std::fprintf(stderr, "xvt: dialog %d is still open after the scripted clicks\n", rid);
  });
}

WINDOW Finish(xvt_object* rec, int rid) {
  if (!rec) return NULL_WIN;
  WINDOW shown = rec;
  if (!Live(rec) || rec->type != W_MODAL) return shown;
  auto* dlg = qobject_cast<QDialog*>(rec->outer);
  if (!dlg) return shown;
  std::vector<int> clicks;
  bool driven = TakeScriptedDialog(rid, &clicks);
  if (driven) ScheduleClicks(rec, rid, clicks);
  uint64_t serial = rec->serial;
  g_open_dialogs.push_back(OpenDialog{rec, serial, rid, driven});
  // Runs until the handler destroys the dialog (which hides it).
  dlg->exec();
  g_open_dialogs.pop_back();
  // Hidden some other way: it goes now, so that the call never returns
  // with the dialog half alive.
  if (Live(rec) && rec->serial == serial) DestroyTree(rec);
  return shown;
}

ASK_RESPONSE Ask(const char* b1, const char* b2, const char* b3, const std::string& text) {
  std::vector<const char*> labels;
  for (const char* b : {b1, b2, b3})
    if (b) labels.push_back(b);
  if (labels.empty()) labels.push_back("OK");
  Report("ask", text);
  int scripted = 0;
  if (TakeScriptedAnswer(&scripted)) {
    if (scripted > static_cast<int>(labels.size())) {
      std::fprintf(stderr, "xvt: scripted answer %d, but the question has %zu buttons; answering %zu\n", scripted,
                   labels.size(), labels.size());
      scripted = static_cast<int>(labels.size());
    }
    return static_cast<ASK_RESPONSE>(scripted);
  }
  if (!QCoreApplication::instance()) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return static_cast<ASK_RESPONSE>(labels.size());
  }
  Guarded<QMessageBox> box(QMessageBox::Question, BoxTitle(), FromUtf8(text.c_str()), QMessageBox::NoButton,
                           DialogParent());
  std::vector<QPushButton*> buttons;
  // One role for all keeps the buttons in the program's order.
  for (const char* l : labels) buttons.push_back(box->addButton(Mnemonic(l), QMessageBox::ActionRole));
  box->setDefaultButton(buttons.front());
  box->setEscapeButton(buttons.back());
  g_open_boxes.push_back(OpenBox{box.get(), buttons, "ask", text});
  box.Exec();
  g_open_boxes.pop_back();
  // A box that went away unanswered counts as Escape.
  QAbstractButton* clicked = box.get() ? box->clickedButton() : nullptr;
  for (size_t i = 0; i < buttons.size(); ++i)
    if (buttons[i] == clicked) return static_cast<ASK_RESPONSE>(i + 1);
  return static_cast<ASK_RESPONSE>(buttons.size());
}

void Notice(const char* kind, QMessageBox::Icon icon, const std::string& text) {
  Report(kind, text);
  if (TakeScriptedDismiss()) {
    std::fprintf(stderr, "xvt: dismissed %s: %s\n", kind, text.c_str());
    return;
  }
  if (!QCoreApplication::instance()) {
    std::fprintf(stderr, "%s\n", text.c_str());
    return;
  }
  Guarded<QMessageBox> box(icon, BoxTitle(), FromUtf8(text.c_str()), QMessageBox::Ok, DialogParent());
  g_open_boxes.push_back(OpenBox{box.get(), {}, kind, text});
  box.Exec();
  g_open_boxes.pop_back();
}

bool Fits(const QString& text, size_t size) { return static_cast<size_t>(text.toUtf8().size()) < size; }

void TooLong(QWidget* parent, size_t size) {
  QMessageBox::warning(parent, BoxTitle(),
                       QStringLiteral("That is too long: at most %1 bytes fit here. Please shorten it.")
                           .arg(size > 0 ? static_cast<qulonglong>(size - 1) : 0));
}

bool ChooseFile(const char* kind, const char* prompt, char* path, size_t size, bool save) {
  Report(kind, prompt ? prompt : "");
  if (!QCoreApplication::instance() || !path || size == 0) return false;
  // A path the script gave beforehand is taken as typed and accepted.
  if (std::string scripted; TakeScriptedFile(&scripted)) {
    const QString chosen = FromUtf8(scripted.c_str());
    if (!Fits(chosen, size)) return false;
    std::fprintf(stderr, "xvt: chose file %s\n", scripted.c_str());
    CopyOut(chosen, path, size);
    return true;
  }
  Guarded<QFileDialog> dlg(DialogParent(), FromUtf8(prompt));
  dlg->setOption(QFileDialog::DontUseNativeDialog, true);
  dlg->setAcceptMode(save ? QFileDialog::AcceptSave : QFileDialog::AcceptOpen);
  dlg->setFileMode(save ? QFileDialog::AnyFile : QFileDialog::ExistingFile);
  QString initial = FromUtf8(path);
  if (!initial.isEmpty()) {
    QFileInfo fi(initial);
    if (fi.isDir()) {
      dlg->setDirectory(initial);
    } else {
      dlg->setDirectory(fi.absolutePath());
      dlg->selectFile(fi.fileName());
    }
  }
  for (;;) {
    g_open_choosers.push_back(OpenChooser{dlg.get(), QString()});
    const int result = dlg.Exec();
    const QString scripted = g_open_choosers.back().scripted;
    g_open_choosers.pop_back();
    if (result != QDialog::Accepted) break;
    QString chosen = scripted.isEmpty() ? dlg->selectedFiles().value(0) : scripted;
    if (chosen.isEmpty()) return false;
    if (Fits(chosen, size)) {
      CopyOut(chosen, path, size);
      return true;
    }
    TooLong(dlg.get(), size);
  }
  return false;
}

}  // namespace

bool AnswerOpenQuestion(int answer) {
  for (auto it = g_open_boxes.rbegin(); it != g_open_boxes.rend(); ++it) {
    if (it->kind != "ask" || !it->box || it->buttons.empty()) continue;
    size_t i = static_cast<size_t>(std::clamp(answer, 1, static_cast<int>(it->buttons.size()))) - 1;
    it->buttons[i]->click();
    return true;
  }
  return false;
}

bool ChooseInOpenFileDialog(const std::string& path) {
  for (auto it = g_open_choosers.rbegin(); it != g_open_choosers.rend(); ++it) {
    if (!it->dlg) continue;
    std::fprintf(stderr, "xvt: chose file %s\n", path.c_str());
    it->scripted = FromUtf8(path.c_str());
    // done(), not accept(): the chooser's own check wants a typed name.
    static_cast<QDialog*>(it->dlg.data())->done(QDialog::Accepted);
    return true;
  }
  return false;
}

bool DismissOpenNotice() {
  for (auto it = g_open_boxes.rbegin(); it != g_open_boxes.rend(); ++it) {
    if (it->kind == "ask" || !it->box) continue;
    std::fprintf(stderr, "xvt: dismissed %s: %s\n", it->kind.c_str(), it->text.c_str());
    it->box->accept();
    return true;
  }
  return false;
}

bool DriveOpenDialog(int rid, const std::vector<int>& clicks) {
  for (auto it = g_open_dialogs.rbegin(); it != g_open_dialogs.rend(); ++it) {
    if (it->driven || (rid != 0 && it->rid != rid) || !Live(it->rec) || it->rec->serial != it->serial) continue;
    it->driven = true;
    ScheduleClicks(it->rec, it->rid, clicks);
    return true;
  }
  return false;
}

void Report(const char* kind, const std::string& text) {
  if (!S().scripted) return;
  // A box that the program's start-up brings up (a server that fails, a
  // first-run question) waits before the script would otherwise start:
  // it starts now, so that the box can be answered.
  StartScript();
  std::string one = text;
  for (char& c : one)
    if (c == '\n' || c == '\r') c = ' ';
  std::fprintf(stderr, "xvt: %s: %s\n", kind, one.c_str());
}

}  // namespace xvtqt

using namespace xvtqt;

WINDOW xvt_dlg_create_def(const WIN_DEF* defs, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  if (!defs) return NULL_WIN;
  return Finish(BuildDialog(defs, eh, app_data), 0);
}

WINDOW xvt_dlg_create_res(WIN_TYPE type, int rid, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  const WIN_DEF* defs = xvt_res_get_dialog(rid);
  if (!defs) {
    std::fprintf(stderr, "xvt: no dialog resource %d\n", rid);
    return NULL_WIN;
  }
  std::vector<WIN_DEF> copy;
  for (const WIN_DEF* d = defs; d->type != W_NONE; ++d) copy.push_back(*d);
  copy.push_back(WIN_DEF{W_NONE, {}, nullptr, 0, 0});
  copy[0].type = type;
  return Finish(BuildDialog(copy.data(), eh, app_data), rid);
}

ASK_RESPONSE xvt_dm_post_ask(const char* b1, const char* b2, const char* b3, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = StringPrintfV(fmt, ap);
  va_end(ap);
  return Ask(b1, b2, b3, text);
}

#define FORMAT_TEXT               \
  va_list ap;                     \
  va_start(ap, fmt);              \
  std::string text = StringPrintfV(fmt, ap); \
  va_end(ap);

void xvt_dm_post_error(const char* fmt, ...) {
  FORMAT_TEXT
  Notice("error", QMessageBox::Critical, text);
}

void xvt_dm_post_note(const char* fmt, ...) {
  FORMAT_TEXT
  Notice("note", QMessageBox::Information, text);
}

void xvt_dm_post_message(const char* fmt, ...) {
  FORMAT_TEXT
  Notice("message", QMessageBox::NoIcon, text);
}

void xvt_dm_post_fatal_exit(const char* fmt, ...) {
  FORMAT_TEXT
  Report("fatal", text);
  std::fprintf(stderr, "%s\n", text.c_str());
  if (QCoreApplication::instance() && !TakeScriptedDismiss()) {
    Guarded<QMessageBox> box(QMessageBox::Critical, BoxTitle(), FromUtf8(text.c_str()), QMessageBox::Ok,
                             DialogParent());
    box.Exec();
  }
  std::exit(1);
}

bool xvt_dm_post_string_prompt(const char* prompt, char* buf, size_t size) {
  Report("prompt", prompt ? prompt : "");
  if (!QCoreApplication::instance() || !buf || size == 0) return false;
  Guarded<QInputDialog> dlg(DialogParent());
  dlg->setWindowTitle(BoxTitle());
  dlg->setInputMode(QInputDialog::TextInput);
  dlg->setLabelText(FromUtf8(prompt));
  dlg->setTextValue(FromUtf8(buf));
  // A text that does not fit is refused with the dialog still open, so
  // nothing typed is lost.
  while (dlg.Exec() == QDialog::Accepted) {
    QString text = dlg->textValue();
    if (Fits(text, size)) {
      CopyOut(text, buf, size);
      return true;
    }
    TooLong(dlg.get(), size);
  }
  return false;
}

bool xvt_dm_post_file_open(const char* prompt, char* path, size_t size) {
  return ChooseFile("file_open", prompt, path, size, false);
}

bool xvt_dm_post_file_save(const char* prompt, char* path, size_t size) {
  return ChooseFile("file_save", prompt, path, size, true);
}

bool xvt_dm_post_font_sel(WINDOW, XVT_FNTID* font) {
  Report("font", "");
  if (!QCoreApplication::instance() || !font) return false;
  QFont initial = *font ? ToQFont(*font) : DefaultFont();
  Guarded<QFontDialog> dlg(initial, DialogParent());
  dlg->setOption(QFontDialog::DontUseNativeDialog, true);
  if (dlg.Exec() != QDialog::Accepted) return false;
  QFont f = dlg->selectedFont();
  int pixels = f.pixelSize() > 0 ? f.pixelSize() : QFontInfo(f).pixelSize();
  unsigned style = (f.bold() ? XVT_FS_BOLD : 0) | (f.italic() ? XVT_FS_ITALIC : 0) | (f.underline() ? XVT_FS_UNDERLINE : 0);
  QByteArray family = f.family().toUtf8();
  XVT_FNTID chosen = xvt_font_create(family.constData(), pixels, style);
  if (!chosen) return false;
  xvt_font_destroy(*font);
  *font = chosen;
  return true;
}
