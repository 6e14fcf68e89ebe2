// The progress window (one at a time) and the help viewer.
#include <QApplication>
#include <QCloseEvent>
#include <QDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>
#include <climits>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {

// Closing it, Escape and Cancel all mean "cancel" when cancelling is
// allowed, and nothing otherwise: the program closes it when done.
class ProgressDialog : public QDialog {
 public:
  explicit ProgressDialog(QWidget* parent) : QDialog(parent) {
    setAttribute(Qt::WA_DeleteOnClose, false);
    setModal(false);
    auto* layout = new QVBoxLayout(this);
    label = new QLabel(this);
    label->setWordWrap(true);
    label->setTextFormat(Qt::PlainText);
    bar = new QProgressBar(this);
    bar->setRange(0, 0);
    cancel = new QPushButton(QStringLiteral("Cancel"), this);
    cancel->setAutoDefault(false);
    auto* row = new QHBoxLayout;
    row->addStretch(1);
    row->addWidget(cancel);
    layout->addWidget(label);
    layout->addWidget(bar);
    layout->addLayout(row);
    connect(cancel, &QPushButton::clicked, this, [this] { Cancel(); });
    setMinimumWidth(360);
  }
  void reject() override { Cancel(); }
  void Cancel() {
    if (cancellable) S().progress_cancelled = true;
  }

  QLabel* label;
  QProgressBar* bar;
  QPushButton* cancel;
  bool cancellable = false;

 protected:
  void closeEvent(QCloseEvent* e) override {
    e->ignore();
    Cancel();
  }
};

class HelpWindow : public QWidget {
 public:
  HelpWindow() : QWidget(nullptr, Qt::Window) {
    setWindowTitle(QStringLiteral("Help"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    browser = new QTextBrowser(this);
    // Pages link to each other; links that leave the help go to the desktop.
    browser->setOpenExternalLinks(true);
    layout->addWidget(browser);
    resize(720, 560);
  }
  QTextBrowser* browser;
};

namespace {

ProgressDialog* Progress() {
  auto& s = S();
  return Live(s.progress) ? dynamic_cast<ProgressDialog*>(s.progress->outer.data()) : nullptr;
}

}  // namespace

void ForgetProgressWindow(xvt_object* rec) {
  if (S().progress == rec) S().progress = nullptr;
}

void CloseHelp() {
  auto& s = S();
  if (s.help_window) {
    s.help_window->hide();
    s.help_window->deleteLater();
  }
  s.help_window = nullptr;
}

}  // namespace xvtqt

using namespace xvtqt;

void xvt_progress_open(const char* title, const char* text, bool cancellable) {
  auto& s = S();
  if (!R().task || R().destroyed) return;
  ProgressDialog* dlg = Progress();
  if (!dlg) {
    dlg = new ProgressDialog(s.task_window);
    s.progress = NewRecord(W_MODELESS, R().screen);
    s.progress->outer = dlg;
    s.progress->client = dlg;
    s.progress->created = true;
    Bind(dlg, s.progress);
  }
  s.progress->title = title ? title : "";
  dlg->setWindowTitle(FromUtf8(title));
  dlg->label->setText(FromUtf8(text));
  dlg->bar->setRange(0, 0);
  dlg->cancellable = cancellable;
  dlg->cancel->setVisible(cancellable);
  s.progress_cancelled = false;
  dlg->show();
  dlg->raise();
}

void xvt_progress_set_text(const char* text) {
  if (ProgressDialog* dlg = Progress()) dlg->label->setText(FromUtf8(text));
}

void xvt_progress_set_range(long total) {
  ProgressDialog* dlg = Progress();
  if (!dlg) return;
  // Without a total the bar shows that work goes on, not how much is done.
  dlg->bar->setRange(0, total > 0 ? static_cast<int>(std::min<long>(total, INT_MAX)) : 0);
}

void xvt_progress_set_pos(long pos) {
  ProgressDialog* dlg = Progress();
  if (!dlg || dlg->bar->maximum() == 0) return;
  dlg->bar->setValue(static_cast<int>(std::clamp<long>(pos, 0, dlg->bar->maximum())));
}

bool xvt_progress_cancelled(void) { return S().progress_cancelled; }

void xvt_progress_close(void) {
  auto& s = S();
  if (Live(s.progress)) DestroyTree(s.progress);
  s.progress = nullptr;
}

WINDOW xvt_progress_win(void) { return Live(S().progress) ? S().progress : NULL_WIN; }

bool xvt_help_open_helpfile(const char* path) {
  if (!path || !*path) return false;
  QFileInfo fi(FromUtf8(path));
  if (!fi.isFile() || !fi.isReadable()) return false;
  S().help_file = fi.absoluteFilePath().toStdString();
  return true;
}

void xvt_help_close_helpfile(void) {
  S().help_file.clear();
  CloseHelp();
}

bool xvt_help_display(const char* topic) {
  auto& s = S();
  if (s.help_file.empty() || !QCoreApplication::instance()) return false;
  if (!s.help_window) s.help_window = new HelpWindow;
  QUrl url = QUrl::fromLocalFile(QString::fromStdString(s.help_file));
  if (topic && *topic) url.setFragment(FromUtf8(topic));
  s.help_window->browser->setSource(url);
  s.help_window->show();
  s.help_window->raise();
  s.help_window->activateWindow();
  return true;
}
