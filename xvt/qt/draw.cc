// Drawing. Tools (pen, brush, colours, font, clip) belong to the window and
// last between updates; drawing happens only inside E_UPDATE, with the
// painter that the window's paint event opened. Outside it the calls change
// the tools and draw nothing.
#include <QApplication>
#include <QFontMetrics>
#include <QPainter>
#include <QPalette>
#include <QWidget>
#include <algorithm>
#include <cstring>
#include <qdrawutil.h>

#include "xvt/common/bmp.h"
#include "xvt/qt/qt_internal.h"

struct xvt_image {
  QImage image;
};

namespace xvtqt {
namespace {

QImage ToQImage(const xvtbmp::Image& bmp) {
  QImage img(bmp.width, bmp.height, QImage::Format_ARGB32);
  if (img.isNull()) return img;
  for (int y = 0; y < bmp.height; ++y)
    std::memcpy(img.scanLine(y), bmp.pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(bmp.width),
                static_cast<size_t>(bmp.width) * 4);
  return img;
}

QPen PenOf(const xvt_object* rec) {
  if (rec->pen_pat != PAT_SOLID && rec->pen_pat != PAT_DOT) return QPen(Qt::NoPen);
  QPen pen(ToQColor(rec->fore));
  if (rec->pen_pat == PAT_DOT) {
    // One pixel on, one off, whatever the width.
    pen.setStyle(Qt::CustomDashLine);
    pen.setDashPattern({1.0, 1.0});
  }
  pen.setWidth(std::max(0, rec->pen_width));
  return pen;
}

QBrush BrushOf(const xvt_object* rec) {
  if (rec->brush_pat != PAT_SOLID) return QBrush(Qt::NoBrush);
  return QBrush(ToQColor(rec->back));
}

QFont FontOf(const xvt_object* rec) { return rec->has_font ? rec->font : DefaultFont(); }

void ApplyTools(xvt_object* rec, QPainter* p) {
  p->setPen(PenOf(rec));
  p->setBrush(BrushOf(rec));
  p->setFont(FontOf(rec));
  p->setBackgroundMode(Qt::TransparentMode);
  if (rec->has_clip)
    p->setClipRect(rec->clip);
  else
    p->setClipping(false);
}

// The painter of win while its E_UPDATE runs, else null.
QPainter* Painter(WINDOW win) { return Live(win) ? win->painter : nullptr; }

QWidget* Surface(WINDOW win) {
  if (!Live(win)) return nullptr;
  return win->client ? win->client.data() : win->outer.data();
}

}  // namespace

QColor ToQColor(COLOR c) {
  if (c == COLOR_SYSTEM_WINDOW)
    return QCoreApplication::instance() ? QApplication::palette().color(QPalette::Window) : QColor(0xEF, 0xEF, 0xEF);
  return QColor(static_cast<int>((c >> 16) & 0xFF), static_cast<int>((c >> 8) & 0xFF), static_cast<int>(c & 0xFF));
}

QFont DefaultFont() { return QCoreApplication::instance() ? QApplication::font() : QFont(); }

QFont ToQFont(XVT_FNTID font) {
  QString family = FromUtf8(xvt_font_get_family(font));
  QString lower = family.toLower();
  QFont f = DefaultFont();
  // Generic names pick the kind of face; any other name is a real family.
  if (lower == "system" || lower.isEmpty()) {
  } else if (lower == "fixed" || lower == "courier" || lower == "monospace" || lower == "mono") {
    f.setFamily(QStringLiteral("Monospace"));
    f.setStyleHint(QFont::TypeWriter);
  } else if (lower == "helvetica" || lower == "sans" || lower == "sans-serif" || lower == "arial") {
    f.setFamily(QStringLiteral("Sans Serif"));
    f.setStyleHint(QFont::SansSerif);
  } else if (lower == "times" || lower == "serif") {
    f.setFamily(QStringLiteral("Serif"));
    f.setStyleHint(QFont::Serif);
  } else {
    f.setFamily(family);
  }
  f.setPixelSize(std::max(1, xvt_font_get_size(font)));
  unsigned style = xvt_font_get_style(font);
  f.setBold((style & XVT_FS_BOLD) != 0);
  f.setItalic((style & XVT_FS_ITALIC) != 0);
  f.setUnderline((style & XVT_FS_UNDERLINE) != 0);
  return f;
}

QImage IconImage(int rid) {
  auto& s = S();
  auto it = s.icons.find(rid);
  if (it != s.icons.end()) return it->second;
  QImage img;
  if (const char* path = xvt_res_icon_path(rid)) {
    xvtbmp::Image bmp;
    std::string error;
    if (xvtbmp::DecodeFile(path, &bmp, &error))
      img = ToQImage(bmp);
    else
      std::fprintf(stderr, "xvt: icon %d (%s): %s\n", rid, path, error.c_str());
  }
  // Failures are remembered too, so a bad file is reported once.
  s.icons[rid] = img;
  return img;
}

void PaintRecord(xvt_object* rec, QWidget* w, const QRect& area) {
  QPainter painter(w);
  rec->painter = &painter;
  rec->dirty = QRegion();
  ApplyTools(rec, &painter);
  uint64_t serial = rec->serial;
  EVENT ev = MakeEvent(E_UPDATE);
  ev.v.update.rct = ToRct(area);
  Send(rec, &ev);
  if (Live(rec) && rec->serial == serial) rec->painter = nullptr;
}

void ClearDrawCaches() { S().icons.clear(); }

}  // namespace xvtqt

using namespace xvtqt;

void xvt_dwin_set_pen(WINDOW win, const CPEN* pen) {
  if (!Live(win) || !pen) return;
  win->pen_width = pen->width;
  win->pen_pat = pen->pat == PAT_SOLID || pen->pat == PAT_DOT ? pen->pat : PAT_NONE;
  win->fore = pen->color;
  if (QPainter* p = Painter(win)) p->setPen(PenOf(win));
}

void xvt_dwin_set_brush(WINDOW win, const CBRUSH* brush) {
  if (!Live(win) || !brush) return;
  win->brush_pat = brush->pat == PAT_SOLID ? PAT_SOLID : PAT_NONE;
  win->back = brush->color;
  if (QPainter* p = Painter(win)) p->setBrush(BrushOf(win));
}

void xvt_dwin_set_fore_color(WINDOW win, COLOR color) {
  if (!Live(win)) return;
  win->fore = color;
  if (QPainter* p = Painter(win)) p->setPen(PenOf(win));
}

void xvt_dwin_set_back_color(WINDOW win, COLOR color) {
  if (!Live(win)) return;
  win->back = color;
  if (QPainter* p = Painter(win)) p->setBrush(BrushOf(win));
}

void xvt_dwin_set_font(WINDOW win, XVT_FNTID font) {
  if (!Live(win) || !font) return;
  win->font = ToQFont(font);
  win->has_font = true;
  if (QPainter* p = Painter(win)) p->setFont(win->font);
  // A control shows its text in the font set on it.
  if (IsControl(win->type) && win->outer) win->outer->setFont(win->font);
}

void xvt_dwin_set_clip(WINDOW win, const RCT* rct) {
  if (!Live(win)) return;
  win->has_clip = rct != nullptr;
  if (rct) win->clip = ToQRect(*rct);
  if (QPainter* p = Painter(win)) {
    if (win->has_clip)
      p->setClipRect(win->clip);
    else
      p->setClipping(false);
  }
}

void xvt_dwin_clear(WINDOW win, COLOR color) {
  QPainter* p = Painter(win);
  QWidget* w = Surface(win);
  if (p && w) p->fillRect(w->rect(), ToQColor(color));
}

void xvt_dwin_draw_line(WINDOW win, PNT from, PNT to) {
  if (QPainter* p = Painter(win)) p->drawLine(QPoint(from.h, from.v), QPoint(to.h, to.v));
}

void xvt_dwin_draw_rect(WINDOW win, const RCT* rct) {
  QPainter* p = Painter(win);
  if (!p || !rct) return;
  QRect r = ToQRect(*rct);
  if (r.isEmpty()) return;
  // The rectangle covers exactly its pixels: right and bottom are outside.
  if (win->brush_pat == PAT_SOLID) p->fillRect(r, BrushOf(win));
  if (win->pen_pat == PAT_SOLID || win->pen_pat == PAT_DOT) {
    p->save();
    p->setBrush(Qt::NoBrush);
    int inset = std::max(1, win->pen_width);
    p->drawRect(r.adjusted(0, 0, -inset, -inset));
    p->restore();
  }
}

void xvt_dwin_draw_3d_rect(WINDOW win, const RCT* rct, bool raised) {
  QPainter* p = Painter(win);
  QWidget* w = Surface(win);
  if (!p || !rct || !w) return;
  QBrush fill = BrushOf(win);
  qDrawShadePanel(p, ToQRect(*rct), w->palette(), !raised, 1, win->brush_pat == PAT_SOLID ? &fill : nullptr);
}

void xvt_dwin_draw_text(WINDOW win, int x, int y, const char* text, int len) {
  QPainter* p = Painter(win);
  if (!p || !text) return;
  p->save();
  p->setPen(ToQColor(win->fore));
  p->drawText(QPoint(x, y), FromUtf8(text, len));
  p->restore();
}

void xvt_dwin_get_font_metrics(WINDOW win, int* leading, int* ascent, int* descent) {
  if (!QCoreApplication::instance()) {
    if (leading) *leading = 0;
    if (ascent) *ascent = 12;
    if (descent) *descent = 4;
    return;
  }
  QFontMetrics fm(Live(win) ? FontOf(win) : DefaultFont());
  if (leading) *leading = std::max(0, fm.leading());
  if (ascent) *ascent = fm.ascent();
  if (descent) *descent = fm.descent();
}

int xvt_dwin_get_text_width(WINDOW win, const char* text, int len) {
  if (!text) return 0;
  if (!QCoreApplication::instance()) return 8 * (len < 0 ? static_cast<int>(std::strlen(text)) : len);
  QFontMetrics fm(Live(win) ? FontOf(win) : DefaultFont());
  return fm.horizontalAdvance(FromUtf8(text, len));
}

void xvt_dwin_draw_icon(WINDOW win, int x, int y, int icon_rid) {
  QPainter* p = Painter(win);
  if (!p) return;
  QImage img = IconImage(icon_rid);
  if (!img.isNull()) p->drawImage(QPoint(x, y), img);
}

void xvt_dwin_invalidate_rect(WINDOW win, const RCT* rct) {
  QWidget* w = Surface(win);
  if (!w) return;
  QRect r = rct ? ToQRect(*rct) : w->rect();
  win->dirty += r;
  w->update(r);
}

void xvt_dwin_scroll_rect(WINDOW win, const RCT* rct, int dh, int dv) {
  QWidget* w = Surface(win);
  if (!w) return;
  // Always with a rectangle: without one Qt would move the child widgets too.
  QRect r = rct ? ToQRect(*rct) : w->rect();
  w->scroll(dh, dv, r);
}

void xvt_dwin_update(WINDOW win) {
  QWidget* w = Surface(win);
  if (!w || win->dirty.isEmpty() || win->painter) return;
  w->repaint(win->dirty);
}

XVT_IMAGE xvt_image_read_bmp(const char* path) {
  if (!path) return nullptr;
  xvtbmp::Image bmp;
  std::string error;
  if (!xvtbmp::DecodeFile(path, &bmp, &error)) return nullptr;
  auto* img = new xvt_image;
  img->image = ToQImage(bmp);
  if (img->image.isNull()) {
    delete img;
    return nullptr;
  }
  return img;
}

void xvt_image_get_dimensions(XVT_IMAGE image, int* width, int* height) {
  if (width) *width = image ? image->image.width() : 0;
  if (height) *height = image ? image->image.height() : 0;
}

void xvt_image_destroy(XVT_IMAGE image) { delete image; }

void xvt_dwin_draw_image(WINDOW win, XVT_IMAGE image, const RCT* dest, const RCT* source) {
  QPainter* p = Painter(win);
  if (!p || !image || !dest) return;
  QRect src = source ? ToQRect(*source) : image->image.rect();
  p->save();
  p->setRenderHint(QPainter::SmoothPixmapTransform, true);
  p->drawImage(ToQRect(*dest), image->image, src);
  p->restore();
}
