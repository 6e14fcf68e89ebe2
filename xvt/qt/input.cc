// Input that concerns the whole application: the pointer trap of busy mode,
// the native hook, cursors, focus, and the Qt message handler.
//
// Busy mode never grabs the pointer or keyboard of the display: a stuck grab
// would lock the user's whole desktop. Trapping is done inside the program,
// by an application event filter that swallows input to everything outside
// the trap window.
#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QCursor>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QWidget>
#include <QWindow>
#include <cstdio>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {

class InputFilter : public QObject {
 public:
  bool eventFilter(QObject* o, QEvent* e) override;
};

namespace {

bool IsUserInput(QEvent::Type t) {
  switch (t) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::Wheel:
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
    case QEvent::ShortcutOverride:
    case QEvent::Shortcut:
    case QEvent::ContextMenu:
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
    case QEvent::TouchEnd:
    case QEvent::TabletPress:
    case QEvent::TabletRelease:
    case QEvent::TabletMove:
    case QEvent::NonClientAreaMouseButtonPress:
    case QEvent::NonClientAreaMouseButtonRelease:
    case QEvent::NonClientAreaMouseButtonDblClick:
      return true;
    default:
      return false;
  }
}

// Input may reach the trap window, the progress window (its Cancel button
// must work while the program is busy) and a modal box shown meanwhile,
// which could not be answered otherwise.
bool Reachable(const QWidget* w) {
  auto& s = S();
  if (!s.trapped) return true;
  const QWidget* trap = Live(s.trapped) ? (s.trapped == R().task ? static_cast<QWidget*>(s.task_window) : s.trapped->outer.data()) : nullptr;
  const QWidget* progress = Live(s.progress) ? s.progress->outer.data() : nullptr;
  const QWidget* modal = QApplication::activeModalWidget();
  for (const QWidget* p = w; p; p = p->parentWidget())
    if (p == trap || p == progress || (modal && p == modal)) return true;
  return false;
}

Qt::ApplicationState g_last_state = Qt::ApplicationActive;
QMetaObject::Connection g_state_connection;

}  // namespace

bool InputFilter::eventFilter(QObject* o, QEvent* e) {
  auto& s = S();
  QEvent::Type t = e->type();
  // Each press reaches its window first and then the widget (and maybe
  // its parents); the window level sees it exactly once.
  if ((t == QEvent::MouseButtonPress || t == QEvent::MouseButtonRelease) && o->isWindowType() && R().native) {
    auto* me = static_cast<QMouseEvent*>(e);
    if (me->button() == Qt::LeftButton)
      Native(t == QEvent::MouseButtonPress ? XVT_NATIVE_LBUTTON_DOWN : XVT_NATIVE_LBUTTON_UP, 0);
  }
  if (!s.trapped || !IsUserInput(t)) return false;
  if (o->isWidgetType()) return !Reachable(static_cast<QWidget*>(o));
  // A shortcut is delivered to its action, not to a widget: while trapped
  // only those of a reachable widget (a button's mnemonic) may fire.
  if (t == QEvent::Shortcut) return true;
  return false;
}

void InstallInputFilter() {
  auto& s = S();
  if (s.filter || !QCoreApplication::instance()) return;
  s.filter = new InputFilter;
  QCoreApplication::instance()->installEventFilter(s.filter);
  g_last_state = QGuiApplication::applicationState();
  g_state_connection = QObject::connect(qApp, &QGuiApplication::applicationStateChanged, s.filter,
                                        [](Qt::ApplicationState state) {
                                          bool was_active = g_last_state == Qt::ApplicationActive;
                                          g_last_state = state;
                                          if (state == Qt::ApplicationActive && !was_active)
                                            Native(XVT_NATIVE_APP_ACTIVATE, 0);
                                          else if (state != Qt::ApplicationActive && was_active)
                                            Native(XVT_NATIVE_APP_SWITCH_AWAY, 0);
                                        });
}

void RemoveInputFilter() {
  auto& s = S();
  s.trapped = nullptr;
  if (!s.filter) return;
  QObject::disconnect(g_state_connection);
  if (QCoreApplication::instance()) QCoreApplication::instance()->removeEventFilter(s.filter);
  delete s.filter;
  s.filter = nullptr;
}

void Native(XVT_NATIVE_EVENT what, int code) {
  if (XVT_NATIVE_HOOK hook = R().native) hook(what, code);
}

void ClearCursor() {
  auto& s = S();
  while (s.cursor_depth > 0) {
    if (QCoreApplication::instance()) QApplication::restoreOverrideCursor();
    --s.cursor_depth;
  }
}

namespace {

void SetWaitCursor() {
  auto& s = S();
  if (!QCoreApplication::instance()) return;
  // One level is enough: asking for the busy cursor twice must not need two
  // restores.
  if (s.cursor_depth == 0) {
    QApplication::setOverrideCursor(QCursor(Qt::WaitCursor));
    s.cursor_depth = 1;
  } else {
    QApplication::changeOverrideCursor(QCursor(Qt::WaitCursor));
  }
}

QtMessageHandler g_previous_handler = nullptr;
bool g_handler_installed = false;
thread_local bool g_in_handler = false;

void MessageHandler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  XVT_ERRMSG_HANDLER handler = R().errmsg;
  XVT_SEVERITY severity = SEV_WARNING;
  bool mapped = true;
  switch (type) {
    case QtFatalMsg: severity = SEV_FATAL; break;
    case QtCriticalMsg: severity = SEV_ERROR; break;
    case QtWarningMsg: severity = SEV_WARNING; break;
    default: mapped = false; break;
  }
  if (mapped && handler && !g_in_handler) {
    g_in_handler = true;
    QByteArray text = message.toUtf8();
    bool done = handler(severity, context.function ? context.function : "", text.constData());
    g_in_handler = false;
    if (done) return;
  }
  if (g_previous_handler) {
    g_previous_handler(type, context, message);
  } else {
    QByteArray line = qFormatLogMessage(type, context, message).toLocal8Bit();
    std::fprintf(stderr, "%s\n", line.constData());
  }
}

}  // namespace

void InstallMessageHandler(XVT_ERRMSG_HANDLER handler) {
  if (handler && !g_handler_installed) {
    g_previous_handler = qInstallMessageHandler(MessageHandler);
    g_handler_installed = true;
  } else if (!handler && g_handler_installed) {
    qInstallMessageHandler(g_previous_handler);
    g_previous_handler = nullptr;
    g_handler_installed = false;
  }
}

}  // namespace xvtqt

using namespace xvtqt;

void xvt_win_trap_pointer(WINDOW win) {
  if (!Live(win)) return;
  InstallInputFilter();
  S().trapped = win;
}

void xvt_win_release_pointer(void) { S().trapped = nullptr; }

void xvt_win_set_cursor(WINDOW win, CURSOR cursor) {
  if (!QCoreApplication::instance()) return;
  QWidget* target = Live(win) ? (win->client ? win->client.data() : win->outer.data()) : nullptr;
  switch (cursor) {
    case CURSOR_WAIT: SetWaitCursor(); return;
    case CURSOR_ARROW:
      ClearCursor();
      if (target) target->unsetCursor();
      return;
    case CURSOR_IBEAM:
      if (target) target->setCursor(Qt::IBeamCursor);
      return;
    case CURSOR_CROSS:
      if (target) target->setCursor(Qt::CrossCursor);
      return;
    case CURSOR_HAND:
      if (target) target->setCursor(Qt::PointingHandCursor);
      return;
  }
}

void xvt_scr_set_busy_cursor(void) { SetWaitCursor(); }

WINDOW xvt_scr_get_focus_vobj(void) {
  if (!QCoreApplication::instance()) return NULL_WIN;
  return RecordAbove(QApplication::focusWidget());
}

void xvt_scr_set_focus_vobj(WINDOW win) {
  if (!Live(win)) return;
  QWidget* target = win == R().task ? static_cast<QWidget*>(S().task_window) : (win->client ? win->client.data() : win->outer.data());
  if (!target) return;
  QWidget* top = target->window();
  if (top && top->isVisible() && !top->isActiveWindow()) top->activateWindow();
  target->setFocus(Qt::OtherFocusReason);
}

void xvt_scr_beep(void) {
  if (QCoreApplication::instance()) QApplication::beep();
}

void xvt_app_request_attention(void) {
  if (QCoreApplication::instance() && S().task_window) QApplication::alert(S().task_window);
}

bool xvt_cb_put_text(const char* text, size_t length) {
  QClipboard* cb = QGuiApplication::clipboard();
  if (!cb) return false;
  cb->setText(QString::fromUtf8(text ? text : "", text ? static_cast<qsizetype>(length) : 0));
  return true;
}

bool xvt_cb_has_text(void) {
  QClipboard* cb = QGuiApplication::clipboard();
  return cb && !cb->text().isEmpty();
}

std::string xvt_cb_get_text(void) {
  QClipboard* cb = QGuiApplication::clipboard();
  if (!cb) return std::string();
  // Other programs may hand over CR LF or lone CR; the editor keeps LF.
  QString text = cb->text();
  text.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
  text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
  return text.toStdString();
}
