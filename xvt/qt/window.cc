// Program windows: creation, geometry, visibility, titles and events.
#include <QApplication>
#include <QLayout>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMetaObject>
#include <QScreen>
#include <QScrollBar>
#include <algorithm>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

bool IsWindowType(WIN_TYPE type) {
  return type == W_DOC || type == W_PLAIN || type == W_DBL || type == W_NO_BORDER || type == W_MODELESS;
}

Qt::WindowFlags TopLevelFlags(WIN_TYPE type, unsigned long flags) {
  if (type == W_NO_BORDER) return Qt::Window | Qt::FramelessWindowHint;
  Qt::WindowFlags wf = (type == W_PLAIN) ? Qt::Window : Qt::Dialog;
  wf |= Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint;
  if (type == W_PLAIN) wf |= Qt::WindowMinimizeButtonHint;
  if (flags & WSF_CLOSE) wf |= Qt::WindowCloseButtonHint;
  if (flags & WSF_MAXIMIZABLE) wf |= Qt::WindowMaximizeButtonHint;
  return wf;
}

// A top-level window the user may not resize keeps the size the program gives.
void FixSize(xvt_object* rec) {
  QWidget* w = rec->outer;
  if (!w || !w->isWindow() || (rec->flags & WSF_SIZE) || rec->type == W_NO_BORDER) return;
  w->setFixedSize(w->size());
}

void UnfixSize(QWidget* w) {
  w->setMinimumSize(0, 0);
  w->setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
}

QRect ScreenRect() {
  QScreen* screen = QGuiApplication::primaryScreen();
  return screen ? QRect(QPoint(0, 0), screen->geometry().size()) : QRect(0, 0, 1024, 768);
}

}  // namespace

xvt_object* CreateWindowRecord(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                               unsigned long flags, EVENT_HANDLER eh, intptr_t app_data) {
  auto& s = S();
  if (!R().task || R().destroyed || !IsWindowType(type)) return nullptr;
  if (!parent) parent = R().screen;
  if (!Live(parent) || IsControl(parent->type)) return nullptr;
  RCT r = rct ? *rct : RCT{0, 0, 400, 300};
  QString qtitle = FromUtf8(title);

  xvt_object* rec = NewRecord(type, parent);
  rec->eh = eh;
  rec->data = app_data;
  rec->flags = flags;
  rec->title = title ? title : "";

  Frame* frame = nullptr;
  bool top_level = false;
  if (type == W_DOC && s.mdi_area) {
    auto* sub = new SubWindow(nullptr);
    frame = new Frame(nullptr, {});
    sub->setWidget(frame);
    Qt::WindowFlags wf = Qt::SubWindow | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint;
    if (flags & WSF_CLOSE) wf |= Qt::WindowCloseButtonHint;
    if (flags & (WSF_SIZE | WSF_MAXIMIZABLE)) wf |= Qt::WindowMinMaxButtonsHint;
    sub->setWindowFlags(wf);
    s.mdi_area->addSubWindow(sub);
    sub->setWindowTitle(qtitle);
    sub->setGeometry(ToQRect(r));
    // A hidden sub-window lays out its contents only when shown; the program
    // asks for its client size already in E_CREATE.
    sub->ensurePolished();
    if (sub->layout()) sub->layout()->activate();
    frame->setGeometry(sub->contentsRect());
    rec->outer = sub;
    Bind(sub, rec);
  } else if (parent == R().screen) {
    top_level = true;
    QWidget* owner = (type == W_DBL || type == W_MODELESS) ? static_cast<QWidget*>(s.task_window) : nullptr;
    frame = new Frame(owner, TopLevelFlags(type, flags));
    frame->setWindowTitle(qtitle);
    rec->outer = frame;
    PlaceTopLevel(frame, r);
  } else {
    QWidget* container = Container(parent);
    if (!container) {
      rec->eh = nullptr;  // never created, so it hears of no destruction either
      DestroyTree(rec);
      return nullptr;
    }
    frame = new Frame(container, {});
    frame->setWindowTitle(qtitle);
    frame->setGeometry(ToQRect(r));
    rec->outer = frame;
  }
  rec->client = frame->canvas;
  Bind(frame, rec);
  Bind(frame->canvas, rec);
  rec->bars[HSCROLL] = frame->hbar;
  rec->bars[VSCROLL] = frame->vbar;
  WireScrollBar(frame->hbar, rec, true, HSCROLL);
  WireScrollBar(frame->vbar, rec, true, VSCROLL);
  if (flags & WSF_HSCROLL) frame->hbar->show();
  if (flags & WSF_VSCROLL) frame->vbar->show();

  if (menu_rid && !(flags & WSF_NO_MENUBAR)) {
    if (const MENU_ITEM* items = xvt_res_get_menubar(menu_rid)) {
      LoadMenuBar(rec, items);
      // A document's bar is shown by the task window while the document is
      // active; a top-level window carries its own.
      if (top_level && rec->menu) {
        frame->menubar = new QMenuBar(frame);
        for (QAction* a : rec->menu->bar)
          if (a) frame->menubar->addAction(a);
      }
    }
  }
  frame->Relayout();
  if (flags & WSF_DISABLED) rec->outer->setEnabled(false);
  if (top_level) FixSize(rec);
  if (flags & WSF_MAXIMIZED)
    rec->outer->setWindowState(rec->outer->windowState() | Qt::WindowMaximized);
  else if (flags & WSF_ICONIZED)
    rec->outer->setWindowState(rec->outer->windowState() | Qt::WindowMinimized);
  return rec;
}

void ShowCreated(xvt_object* rec) {
  if (!Live(rec) || !rec->outer || (rec->flags & WSF_INVISIBLE)) return;
  QWidget* w = rec->outer;
  if (w->windowState() & Qt::WindowMaximized)
    w->showMaximized();
  else if (w->windowState() & Qt::WindowMinimized)
    w->showMinimized();
  else
    w->show();
}

void MoveRecord(xvt_object* rec, const RCT& rct) {
  auto& s = S();
  if (!Live(rec) || rec == R().screen || rec == R().mdi) return;
  if (rec == R().task) {
    if (!s.task_window) return;
    PlaceTopLevel(s.task_window, rct);
    return;
  }
  QWidget* w = rec->outer;
  if (!w) return;
  if (w->isWindow()) {
    UnfixSize(w);
    PlaceTopLevel(w, rct);
    FixSize(rec);
  } else {
    w->setGeometry(ToQRect(rct));
  }
}

}  // namespace xvtqt

using namespace xvtqt;

WINDOW xvt_win_create(WIN_TYPE type, const RCT* rct, const char* title, int menu_rid, WINDOW parent,
                      unsigned long flags, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  xvt_object* rec = CreateWindowRecord(type, rct, title, menu_rid, parent, flags, eh, app_data);
  if (!rec) return NULL_WIN;
  rec->created = true;
  EVENT ev = MakeEvent(E_CREATE);
  Send(rec, &ev);
  if (!Live(rec)) return NULL_WIN;
  ShowCreated(rec);
  if (rec->type == W_DOC) ShowTaskMenuBar();
  return rec;
}

char* xvt_vobj_get_title(WINDOW win, char* buf, size_t size) {
  auto& s = S();
  if (!Live(win) || !buf || size == 0) return nullptr;
  QString text;
  if (win == R().task && s.task_window)
    text = s.task_window->windowTitle();
  else if (IsControl(win->type))
    text = ControlTitle(win);
  else if (win->outer)
    text = win->outer->windowTitle();
  else
    text = FromUtf8(win->title.c_str());
  CopyOut(text, buf, size);
  return buf;
}

void xvt_vobj_set_title(WINDOW win, const char* title) {
  auto& s = S();
  if (!Live(win)) return;
  QString text = FromUtf8(title);
  win->title = title ? title : "";
  if (win == R().task && s.task_window)
    s.task_window->setWindowTitle(text);
  else if (IsControl(win->type))
    SetControlTitle(win, text);
  else if (win->outer)
    win->outer->setWindowTitle(text);
}

RCT* xvt_vobj_get_outer_rect(WINDOW win, RCT* rct) {
  auto& s = S();
  if (!Live(win) || !rct) return nullptr;
  if (win == R().screen) {
    *rct = ToRct(ScreenRect());
  } else if (win == R().task) {
    *rct = s.task_window ? ToRct(s.task_window->frameGeometry()) : ToRct(ScreenRect());
  } else if (win == R().mdi) {
    if (!s.mdi_area) return nullptr;
    QWidget* central = s.task_window->centralWidget();
    *rct = ToRct(QRect(s.mdi_area->mapTo(central, QPoint(0, 0)), s.mdi_area->size()));
  } else if (win->outer) {
    *rct = ToRct(win->outer->isWindow() ? win->outer->frameGeometry() : win->outer->geometry());
  } else {
    return nullptr;
  }
  return rct;
}

RCT* xvt_vobj_get_client_rect(WINDOW win, RCT* rct) {
  auto& s = S();
  if (!Live(win) || !rct) return nullptr;
  QSize size;
  if (win == R().screen)
    size = ScreenRect().size();
  else if (win == R().task)
    size = s.task_window && s.task_window->centralWidget() ? s.task_window->centralWidget()->size() : ScreenRect().size();
  else if (win == R().mdi)
    size = s.mdi_area ? s.mdi_area->viewport()->size() : QSize();
  else if (win->client)
    size = win->client->size();
  else if (win->outer)
    size = win->outer->size();
  else
    return nullptr;
  *rct = RCT{0, 0, size.width(), size.height()};
  return rct;
}

void xvt_vobj_move(WINDOW win, const RCT* rct) {
  if (Live(win) && rct) MoveRecord(win, *rct);
}

static QWidget* OuterWidget(WINDOW win) {
  auto& s = S();
  if (!Live(win)) return nullptr;
  if (win == R().task) return s.task_window;
  if (win == R().mdi) return s.mdi_area;
  return win->outer;
}

void xvt_vobj_set_visible(WINDOW win, bool visible) {
  if (Live(win) && win == R().screen) return;
  if (QWidget* w = OuterWidget(win)) w->setVisible(visible);
}

bool xvt_vobj_is_visible(WINDOW win) {
  if (Live(win) && win == R().screen) return true;
  QWidget* w = OuterWidget(win);
  return w && !w->isHidden();
}

void xvt_vobj_set_enabled(WINDOW win, bool enabled) {
  if (QWidget* w = OuterWidget(win)) w->setEnabled(enabled);
}

bool xvt_vobj_is_enabled(WINDOW win) {
  if (Live(win) && win == R().screen) return true;
  QWidget* w = OuterWidget(win);
  // The window's own state, whatever its parent's.
  return w && !w->testAttribute(Qt::WA_ForceDisabled);
}

void xvt_vobj_raise(WINDOW win) {
  QWidget* w = OuterWidget(win);
  if (!w) return;
  if (auto* sub = qobject_cast<QMdiSubWindow*>(w)) {
    if (S().mdi_area) S().mdi_area->setActiveSubWindow(sub);
    return;
  }
  w->raise();
  if (w->isWindow() && w->isVisible()) w->activateWindow();
}

void xvt_win_post_event(WINDOW win, const EVENT* ev) {
  if (!Live(win) || !ev || !QCoreApplication::instance()) return;
  EVENT copy = *ev;
  uint64_t serial = win->serial;
  QMetaObject::invokeMethod(
      QCoreApplication::instance(),
      [win, serial, copy]() mutable {
        if (Live(win) && win->serial == serial) Send(win, &copy);
      },
      Qt::QueuedConnection);
}
