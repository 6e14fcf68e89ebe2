// Handles and their lifetime: the widget-to-record bindings, what a
// destroyed record lets go of, and small conversions the other files share.
#include <QApplication>
#include <QDialog>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "xvt/common/strfmt.h"
#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {

State& S() {
  static State s;
  return s;
}

void Bind(const QObject* widget, xvt_object* rec) {
  if (!widget || !rec) return;
  S().by_widget.insert(widget, rec);
  rec->bound.push_back(widget);
}

xvt_object* RecordOf(const QObject* widget) {
  if (!widget) return nullptr;
  xvt_object* r = S().by_widget.value(widget, nullptr);
  return Live(r) ? r : nullptr;
}

xvt_object* RecordAbove(const QWidget* widget) {
  for (const QWidget* w = widget; w; w = w->parentWidget())
    if (xvt_object* r = RecordOf(w)) return r;
  return nullptr;
}

bool IsControl(WIN_TYPE type) { return type >= WC_PUSHBUTTON; }

QWidget* Container(xvt_object* rec) {
  auto& s = S();
  if (!Live(rec)) return nullptr;
  if (rec == R().task) return s.toolbar_row;
  if (rec == R().mdi) return s.mdi_area ? s.mdi_area->viewport() : nullptr;
  if (rec == R().screen) return nullptr;
  if (IsControl(rec->type)) return rec->outer;
  return rec->client;
}

QWidget* DialogParent() {
  auto& s = S();
  if (QWidget* modal = QApplication::activeModalWidget()) return modal;
  if (QWidget* active = QApplication::activeWindow()) return active;
  return s.task_window ? static_cast<QWidget*>(s.task_window) : nullptr;
}

void PlaceTopLevel(QWidget* w, const RCT& rct) {
  if (!w) return;
  // The rectangle is the outer one; the frame's extent is known once the
  // window manager has decorated the window, and taken as nothing before.
  QSize extra(0, 0);
  if (w->isVisible()) extra = w->frameGeometry().size() - w->geometry().size();
  int width = std::max(1, rct.right - rct.left - extra.width());
  int height = std::max(1, rct.bottom - rct.top - extra.height());
  w->move(rct.left, rct.top);
  w->resize(width, height);
}

void ForgetRecord(xvt_object* rec) {
  auto& s = S();
  KillTimersOf(rec);
  ForgetProgressWindow(rec);
  if (s.trapped == rec) s.trapped = nullptr;
  for (const QObject* o : rec->bound) {
    auto it = s.by_widget.find(o);
    if (it != s.by_widget.end() && it.value() == rec) s.by_widget.erase(it);
  }
  // The widgets may be in the middle of delivering the very event that led
  // here (a click on the dialog's own button), so they are hidden now and
  // deleted when the event loop gets back control.
  if (QWidget* outer = rec->outer) {
    outer->blockSignals(true);
    for (QObject* o : outer->findChildren<QObject*>()) o->blockSignals(true);
    if (auto* sub = qobject_cast<QMdiSubWindow*>(outer)) {
      if (s.mdi_area) s.mdi_area->removeSubWindow(sub);
    }
    outer->hide();
    outer->deleteLater();
  }
  bool had_menu = rec->menu != nullptr;
  rec->menu.reset();
  if (had_menu && !R().destroyed) ShowTaskMenuBar();
}

// ---------------------------------------------------------------------------
// Text

QString FromUtf8(const char* s, int len) {
  if (!s) return QString();
  return QString::fromUtf8(s, len < 0 ? static_cast<qsizetype>(std::strlen(s)) : len);
}


QString Mnemonic(const char* title) {
  QString in = FromUtf8(title);
  QString out;
  out.reserve(in.size() + 2);
  for (qsizetype i = 0; i < in.size(); ++i) {
    QChar c = in[i];
    if (c == u'&') {
      out += u"&&";
    } else if (c == u'~') {
      if (i + 1 < in.size() && in[i + 1] == u'~') {
        out += u'~';
        ++i;
      } else {
        out += u'&';
      }
    } else {
      out += c;
    }
  }
  return out;
}

void CopyOut(const QString& text, char* buf, size_t size) { ::CopyOut(text.toUtf8().toStdString(), buf, size); }

RCT ToRct(const QRect& r) { return RCT{r.left(), r.top(), r.left() + r.width(), r.top() + r.height()}; }

QRect ToQRect(const RCT& r) { return QRect(r.left, r.top, std::max(0, r.right - r.left), std::max(0, r.bottom - r.top)); }

}  // namespace xvtqt
