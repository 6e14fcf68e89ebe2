// The caret and the font measures outside a window. The caret is a small
// child widget of the window's drawing surface: it sits over the painted
// text, so moving it repaints nothing of the program's, and it lets the
// pointer through to the surface below.
#include <QApplication>
#include <QFontMetrics>
#include <QPalette>
#include <QWidget>
#include <algorithm>
#include <cstring>

#include "xvt/qt/qt_internal.h"

using namespace xvtqt;

int xvt_font_get_text_width(XVT_FNTID font, const char* text, int len) {
  if (!text) return 0;
  if (!QCoreApplication::instance() || !font) return xvt_dwin_get_text_width(NULL_WIN, text, len);
  return QFontMetrics(ToQFont(font)).horizontalAdvance(FromUtf8(text, len));
}

void xvt_font_get_metrics(XVT_FNTID font, int* leading, int* ascent, int* descent) {
  if (!QCoreApplication::instance() || !font) {
    xvt_dwin_get_font_metrics(NULL_WIN, leading, ascent, descent);
    return;
  }
  QFontMetrics fm(ToQFont(font));
  if (leading) *leading = std::max(0, fm.leading());
  if (ascent) *ascent = fm.ascent();
  if (descent) *descent = fm.descent();
}

void xvt_caret_create(WINDOW win, int width, int height) {
  if (!Live(win)) return;
  QWidget* surface = win->client ? win->client.data() : win->outer.data();
  if (!surface) return;
  if (!win->caret) {
    auto* c = new QWidget(surface);
    c->setAttribute(Qt::WA_TransparentForMouseEvents);
    c->setAutoFillBackground(true);
    QPalette pal = c->palette();
    pal.setColor(QPalette::Window, Qt::black);
    c->setPalette(pal);
    win->caret = c;
  }
  win->caret->resize(std::max(1, width), std::max(1, height));
  win->caret->hide();
}

void xvt_caret_set_pos(WINDOW win, PNT pos) {
  if (Live(win) && win->caret) win->caret->move(pos.h, pos.v);
}

void xvt_caret_show(WINDOW win, bool visible) {
  if (Live(win) && win->caret) win->caret->setVisible(visible);
}

void xvt_caret_destroy(WINDOW win) {
  if (!Live(win) || !win->caret) return;
  win->caret->deleteLater();
  win->caret = nullptr;
}
