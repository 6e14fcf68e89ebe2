// Scroll bars: those attached to program windows and scroll bar controls.
// The program owns the thumb position: a line or page step is reported and
// the thumb moves only when the program sets the new position. Dragging the
// thumb moves it at once and is reported as it goes and when released.
#include <QScrollBar>
#include <algorithm>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

SCROLL_CONTROL ActionToScroll(int action) {
  switch (action) {
    case QAbstractSlider::SliderSingleStepAdd: return SC_LINE_DOWN;
    case QAbstractSlider::SliderSingleStepSub: return SC_LINE_UP;
    case QAbstractSlider::SliderPageStepAdd: return SC_PAGE_DOWN;
    case QAbstractSlider::SliderPageStepSub: return SC_PAGE_UP;
    case QAbstractSlider::SliderMove: return SC_THUMBTRACK;
    case QAbstractSlider::SliderToMinimum:
    case QAbstractSlider::SliderToMaximum: return SC_THUMB;
    default: return SC_NONE;
  }
}

void Deliver(xvt_object* rec, bool attached, SCROLL_TYPE dir, SCROLL_CONTROL what, int pos) {
  if (attached) {
    EVENT ev = MakeEvent(dir == VSCROLL ? E_VSCROLL : E_HSCROLL);
    ev.v.scroll.what = what;
    ev.v.scroll.pos = pos;
    Send(rec, &ev);
    return;
  }
  xvt_object* owner = rec->parent;
  EVENT ev = MakeEvent(E_CONTROL);
  ev.v.ctl.id = rec->id;
  ev.v.ctl.ci.type = rec->type;
  ev.v.ctl.ci.win = rec;
  ev.v.ctl.ci.v.scroll.what = what;
  ev.v.ctl.ci.v.scroll.pos = pos;
  Send(owner, &ev);
}

// The bar that a call about win and type concerns.
QScrollBar* Bar(WINDOW win, SCROLL_TYPE type) {
  if (!Live(win)) return nullptr;
  if (win->type == WC_HSCROLL || win->type == WC_VSCROLL) return qobject_cast<QScrollBar*>(win->outer);
  return win->bars[type == VSCROLL ? VSCROLL : HSCROLL];
}

// Setters given HVSCROLL change both bars.
template <typename Fn>
void ForBars(WINDOW win, SCROLL_TYPE type, Fn fn) {
  if (type == HVSCROLL && Live(win) && win->type != WC_HSCROLL && win->type != WC_VSCROLL) {
    for (SCROLL_TYPE t : {HSCROLL, VSCROLL})
      if (QScrollBar* b = Bar(win, t)) fn(b);
    return;
  }
  if (QScrollBar* b = Bar(win, type)) fn(b);
}

}  // namespace

void WireScrollBar(QScrollBar* bar, xvt_object* rec, bool attached, SCROLL_TYPE dir) {
  if (!bar || !rec) return;
  Bind(bar, rec);
  QObject::connect(bar, &QAbstractSlider::actionTriggered, bar, [bar, attached, dir](int action) {
    SCROLL_CONTROL what = ActionToScroll(action);
    if (what == SC_NONE) return;
    Native(XVT_NATIVE_SCROLL, what);
    xvt_object* r = RecordOf(bar);
    if (!r) return;
    int pos = bar->sliderPosition();
    if (what != SC_THUMBTRACK && what != SC_THUMB) {
      pos = bar->value();
      bar->setSliderPosition(pos);
    }
    Deliver(r, attached, dir, what, pos);
  });
  QObject::connect(bar, &QAbstractSlider::sliderPressed, bar, [] { Native(XVT_NATIVE_SCROLL, SC_THUMBTRACK); });
  QObject::connect(bar, &QAbstractSlider::sliderReleased, bar, [bar, attached, dir] {
    Native(XVT_NATIVE_SCROLL_END, SC_THUMB);
    if (xvt_object* r = RecordOf(bar)) Deliver(r, attached, dir, SC_THUMB, bar->sliderPosition());
  });
}

}  // namespace xvtqt

using namespace xvtqt;

void xvt_sbar_set_range(WINDOW win, SCROLL_TYPE type, int min, int max) {
  ForBars(win, type, [min, max](QScrollBar* b) {
    QSignalBlocker block(b);
    b->setRange(min, std::max(min, max));
  });
}

void xvt_sbar_get_range(WINDOW win, SCROLL_TYPE type, int* min, int* max) {
  QScrollBar* b = Bar(win, type == HVSCROLL ? HSCROLL : type);
  if (min) *min = b ? b->minimum() : 0;
  if (max) *max = b ? b->maximum() : 0;
}

void xvt_sbar_set_pos(WINDOW win, SCROLL_TYPE type, int pos) {
  ForBars(win, type, [pos](QScrollBar* b) {
    QSignalBlocker block(b);
    b->setValue(pos);
  });
}

int xvt_sbar_get_pos(WINDOW win, SCROLL_TYPE type) {
  QScrollBar* b = Bar(win, type == HVSCROLL ? HSCROLL : type);
  return b ? b->value() : 0;
}

void xvt_sbar_set_proportion(WINDOW win, SCROLL_TYPE type, int proportion) {
  ForBars(win, type, [proportion](QScrollBar* b) {
    QSignalBlocker block(b);
    b->setPageStep(std::max(1, proportion));
  });
}

void xvt_sbar_set_visible(WINDOW win, SCROLL_TYPE type, bool visible) {
  ForBars(win, type, [visible](QScrollBar* b) {
    b->setVisible(visible);
    // An attached bar takes its room from the client area.
    if (auto* frame = dynamic_cast<Frame*>(b->parentWidget())) frame->Relayout();
  });
}

void xvt_sbar_set_enabled(WINDOW win, SCROLL_TYPE type, bool enabled) {
  ForBars(win, type, [enabled](QScrollBar* b) { b->setEnabled(enabled); });
}
