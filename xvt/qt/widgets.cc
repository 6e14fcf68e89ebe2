// Qt events of program windows turned into the program's events.
#include <QCloseEvent>
#include <QFocusEvent>
#include <QKeyEvent>
#include <QMenuBar>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QResizeEvent>
#include <QScrollBar>
#include <QWheelEvent>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

int ButtonIndex(Qt::MouseButton b) {
  switch (b) {
    case Qt::LeftButton: return 0;
    case Qt::RightButton: return 1;
    case Qt::MiddleButton: return 2;
    default: return -1;
  }
}

void SendMouse(QWidget* w, EVENT_TYPE type, QMouseEvent* e, int button) {
  xvt_object* rec = RecordOf(w);
  if (!rec) return;
  EVENT ev = MakeEvent(type);
  QPoint p = e->position().toPoint();
  ev.v.mouse.where = PNT{p.x(), p.y()};
  ev.v.mouse.shift = (e->modifiers() & Qt::ShiftModifier) != 0;
  ev.v.mouse.control = (e->modifiers() & Qt::ControlModifier) != 0;
  ev.v.mouse.button = button;
  Send(rec, &ev);
}

// The program's key code for a key press, or 0 for keys it is not told
// about (modifiers alone, dead keys). Home and End move within the line;
// with Control they go to the start and end of the document, as Control
// with the arrows moves by words.
int KeyCode(const QKeyEvent* e, bool* typed) {
  *typed = false;
  bool ctrl = (e->modifiers() & Qt::ControlModifier) != 0;
  bool shift = (e->modifiers() & Qt::ShiftModifier) != 0;
  int key = e->key();
  switch (key) {
    case Qt::Key_Up: return K_UP;
    case Qt::Key_Down: return K_DOWN;
    case Qt::Key_Left: return ctrl ? K_WLEFT : K_LEFT;
    case Qt::Key_Right: return ctrl ? K_WRIGHT : K_RIGHT;
    case Qt::Key_PageUp: return K_PREV;
    case Qt::Key_PageDown: return K_NEXT;
    case Qt::Key_Home: return ctrl ? K_HOME : K_LHOME;
    case Qt::Key_End: return ctrl ? K_END : K_LEND;
    case Qt::Key_Insert: return K_INS;
    case Qt::Key_Delete: return K_DEL;
    case Qt::Key_Backspace: return K_BS;
    case Qt::Key_Return:
    case Qt::Key_Enter: return K_ENTER;
    case Qt::Key_Escape: return K_ESC;
    case Qt::Key_Backtab: return K_BTAB;
    case Qt::Key_Tab: return shift ? K_BTAB : K_TAB;
    default: break;
  }
  if (key >= Qt::Key_F1 && key <= Qt::Key_F24) return K_F1 + (key - Qt::Key_F1);
  // Control with a letter: the letter itself, the control flag says the rest.
  if (ctrl && key >= Qt::Key_A && key <= Qt::Key_Z) return 'a' + (key - Qt::Key_A);
  QString text = e->text();
  if (text.isEmpty()) return 0;
  char32_t cp = text.toUcs4().value(0, 0);
  if (cp < 0x20 || cp == 0x7F) return 0;
  *typed = true;
  return static_cast<int>(cp);
}

}  // namespace

// ---------------------------------------------------------------------------
// Canvas

Canvas::Canvas(QWidget* parent) : QWidget(parent) {
  setMouseTracking(true);
  setFocusPolicy(Qt::StrongFocus);
  setAutoFillBackground(true);
  setAttribute(Qt::WA_InputMethodEnabled, false);
}

void Canvas::paintEvent(QPaintEvent* e) {
  if (xvt_object* rec = RecordOf(this)) PaintRecord(rec, this, e->rect());
}

void Canvas::mousePressEvent(QMouseEvent* e) {
  int b = ButtonIndex(e->button());
  if (b >= 0) SendMouse(this, E_MOUSE_DOWN, e, b);
}

void Canvas::mouseReleaseEvent(QMouseEvent* e) {
  int b = ButtonIndex(e->button());
  if (b >= 0) SendMouse(this, E_MOUSE_UP, e, b);
}

void Canvas::mouseDoubleClickEvent(QMouseEvent* e) {
  int b = ButtonIndex(e->button());
  if (b >= 0) SendMouse(this, E_MOUSE_DBL, e, b);
}

void Canvas::mouseMoveEvent(QMouseEvent* e) {
  Qt::MouseButtons held = e->buttons();
  int b = (held & Qt::LeftButton) ? 0 : (held & Qt::RightButton) ? 1 : (held & Qt::MiddleButton) ? 2 : 0;
  SendMouse(this, E_MOUSE_MOVE, e, b);
}

void Canvas::wheelEvent(QWheelEvent* e) {
  xvt_object* rec = RecordOf(this);
  if (!rec) return;
  // A wheel notch scrolls three lines of the attached bar, if there is one.
  QPoint delta = e->angleDelta();
  bool vertical = delta.y() != 0;
  int steps = (vertical ? delta.y() : delta.x()) / 40;
  if (steps == 0) return;
  EVENT_TYPE type;
  if (vertical && (rec->flags & WSF_VSCROLL))
    type = E_VSCROLL;
  else if (!vertical && (rec->flags & WSF_HSCROLL))
    type = E_HSCROLL;
  else if (vertical && (rec->flags & WSF_HSCROLL) && !(rec->flags & WSF_VSCROLL))
    type = E_HSCROLL;
  else
    return;
  QScrollBar* bar = rec->bars[type == E_VSCROLL ? VSCROLL : HSCROLL];
  int n = steps < 0 ? -steps : steps;
  for (int i = 0; i < n && Live(rec); ++i) {
    EVENT ev = MakeEvent(type);
    ev.v.scroll.what = steps > 0 ? SC_LINE_UP : SC_LINE_DOWN;
    ev.v.scroll.pos = bar ? bar->value() : 0;
    Send(rec, &ev);
  }
  e->accept();
}

void Canvas::keyPressEvent(QKeyEvent* e) {
  xvt_object* rec = RecordOf(this);
  bool typed = false;
  int code = KeyCode(e, &typed);
  if (!rec || code == 0) {
    QWidget::keyPressEvent(e);
    return;
  }
  EVENT ev = MakeEvent(E_CHAR);
  ev.v.chr.ch = code;
  ev.v.chr.shift = (e->modifiers() & Qt::ShiftModifier) != 0;
  ev.v.chr.control = (e->modifiers() & Qt::ControlModifier) != 0;
  ev.v.chr.text = typed;
  Send(rec, &ev);
}

// A window hears of its new size once it has been created.
static void SendSize(xvt_object* rec, const QSize& size) {
  if (!Live(rec) || !rec->created) return;
  EVENT ev = MakeEvent(E_SIZE);
  ev.v.size.width = size.width();
  ev.v.size.height = size.height();
  Send(rec, &ev);
}

// E_FOCUS to the window that a canvas draws, when it has one.
static void SendFocus(QWidget* canvas, bool active) {
  if (xvt_object* rec = RecordOf(canvas)) {
    EVENT ev = MakeEvent(E_FOCUS);
    ev.v.active = active;
    Send(rec, &ev);
  }
}

void Canvas::focusInEvent(QFocusEvent* e) {
  QWidget::focusInEvent(e);
  SendFocus(this, true);
}

void Canvas::focusOutEvent(QFocusEvent* e) {
  QWidget::focusOutEvent(e);
  SendFocus(this, false);
}

void Canvas::resizeEvent(QResizeEvent* e) {
  QWidget::resizeEvent(e);
  SendSize(RecordOf(this), e->size());
}

bool Canvas::focusNextPrevChild(bool) { return false; }

// ---------------------------------------------------------------------------
// Frame

Frame::Frame(QWidget* parent, Qt::WindowFlags flags) : QWidget(parent, flags) {
  canvas = new Canvas(this);
  hbar = new QScrollBar(Qt::Horizontal, this);
  vbar = new QScrollBar(Qt::Vertical, this);
  hbar->hide();
  vbar->hide();
}

void Frame::Relayout() {
  int w = width(), h = height();
  int top = 0;
  if (menubar && !menubar->isHidden()) {
    top = menubar->sizeHint().height();
    menubar->setGeometry(0, 0, w, top);
  }
  int vw = vbar->isHidden() ? 0 : vbar->sizeHint().width();
  int hh = hbar->isHidden() ? 0 : hbar->sizeHint().height();
  int cw = std::max(0, w - vw);
  int ch = std::max(0, h - top - hh);
  canvas->setGeometry(0, top, cw, ch);
  if (vw) vbar->setGeometry(cw, top, vw, ch);
  if (hh) hbar->setGeometry(0, top + ch, cw, hh);
}

void Frame::resizeEvent(QResizeEvent* e) {
  QWidget::resizeEvent(e);
  Relayout();
}

void Frame::closeEvent(QCloseEvent* e) {
  // Only the program closes its windows.
  e->ignore();
  if (isWindow()) SendClose(this);
}

// ---------------------------------------------------------------------------
// Sub-windows, dialogs, the task window

SubWindow::SubWindow(QWidget* parent) : QMdiSubWindow(parent) { setAttribute(Qt::WA_DeleteOnClose, false); }

void SubWindow::closeEvent(QCloseEvent* e) {
  e->ignore();
  SendClose(this);
}

Dialog::Dialog(QWidget* parent) : QDialog(parent) { setAttribute(Qt::WA_DeleteOnClose, false); }

void Dialog::reject() { SendClose(this); }

void Dialog::closeEvent(QCloseEvent* e) {
  e->ignore();
  SendClose(this);
}

void Dialog::paintEvent(QPaintEvent* e) {
  if (xvt_object* rec = RecordOf(this)) PaintRecord(rec, this, e->rect());
}

void Dialog::resizeEvent(QResizeEvent* e) {
  QDialog::resizeEvent(e);
  SendSize(RecordOf(this), e->size());
}

void TaskClient::resizeEvent(QResizeEvent* e) {
  QWidget::resizeEvent(e);
  SendSize(R().task, e->size());
}

TaskWindow::TaskWindow() : QMainWindow(nullptr) { setAttribute(Qt::WA_DeleteOnClose, false); }

void TaskWindow::closeEvent(QCloseEvent* e) {
  e->ignore();
  SendClose(this);
}

void SendClose(QWidget* w) {
  xvt_object* rec = RecordOf(w);
  if (!rec) return;
  EVENT ev = MakeEvent(E_CLOSE);
  Send(rec, &ev);
}

}  // namespace xvtqt
