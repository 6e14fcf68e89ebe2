// Drawing: every operation is recorded in the window's display list with
// the pen, brush and font of the moment. Metrics are fixed (8 px a
// character, 16 px a line) so that what a test expects is exact.
#include <cstring>
#include <memory>

#include "xvt/common/bmp.h"
#include "xvt/headless/headless_internal.h"

struct xvt_image {
  xvtbmp::Image image;
};

namespace {

constexpr int kCharWidth = 8;
constexpr int kAscent = 12;
constexpr int kDescent = 4;

void DrawOp(WINDOW w, XvtDrawOp op) {
  if (!xvthl::Live(w)) return;
  op.fore = w->fore;
  op.pen = w->pen_pat;
  op.back = w->back;
  op.font = w->font;
  w->display.push_back(std::move(op));
}

}  // namespace

using namespace xvthl;

void xvt_dwin_set_pen(WINDOW win, const CPEN* pen) {
  if (Live(win) && pen) {
    win->fore = pen->color;
    win->pen_pat = pen->pat;
  }
}
void xvt_dwin_set_brush(WINDOW win, const CBRUSH* brush) {
  if (Live(win) && brush) win->back = brush->color;
}
void xvt_dwin_set_fore_color(WINDOW win, COLOR color) {
  if (Live(win)) win->fore = color;
}
void xvt_dwin_set_back_color(WINDOW win, COLOR color) {
  if (Live(win)) win->back = color;
}
void xvt_dwin_set_font(WINDOW win, XVT_FNTID font) {
  if (!Live(win) || !font) return;
  win->font = std::string(xvt_font_get_family(font)) + " " + std::to_string(xvt_font_get_size(font)) + " " +
              std::to_string(xvt_font_get_style(font));
}
void xvt_dwin_set_clip(WINDOW, const RCT*) {}

void xvt_dwin_clear(WINDOW win, COLOR color) {
  if (!Live(win)) return;
  XvtDrawOp op;
  op.op = "clear";
  xvt_vobj_get_client_rect(win, &op.rct);
  DrawOp(win, op);
  win->display.back().back = color;
}

void xvt_dwin_draw_line(WINDOW win, PNT from, PNT to) {
  XvtDrawOp op;
  op.op = "line";
  op.rct = RCT{from.h, from.v, to.h, to.v};
  DrawOp(win, op);
}

void xvt_dwin_draw_rect(WINDOW win, const RCT* rct) {
  if (!rct) return;
  XvtDrawOp op;
  op.op = "rect";
  op.rct = *rct;
  DrawOp(win, op);
}

void xvt_dwin_draw_3d_rect(WINDOW win, const RCT* rct, bool raised) {
  if (!rct) return;
  XvtDrawOp op;
  op.op = "3d";
  op.rct = *rct;
  op.text = raised ? "raised" : "sunken";
  DrawOp(win, op);
}

void xvt_dwin_draw_text(WINDOW win, int x, int y, const char* text, int len) {
  if (!text) return;
  std::string t = len < 0 ? std::string(text) : std::string(text, static_cast<size_t>(len));
  XvtDrawOp op;
  op.op = "text";
  op.text = t;
  op.rct = RCT{x, y - kAscent, x + kCharWidth * static_cast<int>(t.size()), y + kDescent};
  DrawOp(win, op);
}

void xvt_dwin_get_font_metrics(WINDOW, int* leading, int* ascent, int* descent) {
  if (leading) *leading = 0;
  if (ascent) *ascent = kAscent;
  if (descent) *descent = kDescent;
}

int xvt_dwin_get_text_width(WINDOW, const char* text, int len) {
  if (!text) return 0;
  return kCharWidth * (len < 0 ? static_cast<int>(std::strlen(text)) : len);
}

void xvt_dwin_draw_icon(WINDOW win, int x, int y, int icon_rid) {
  XvtDrawOp op;
  op.op = "icon";
  op.icon = icon_rid;
  op.rct = RCT{x, y, x + 32, y + 32};
  DrawOp(win, op);
}

void xvt_dwin_invalidate_rect(WINDOW win, const RCT* rct) {
  if (!Live(win)) return;
  RCT r;
  if (rct)
    r = *rct;
  else
    xvt_vobj_get_client_rect(win, &r);
  win->invalid.push_back(r);
  win->damage.push_back(XvtDamage{"invalidate", r, 0, 0, {}});
}

void xvt_dwin_scroll_rect(WINDOW win, const RCT* rct, int dh, int dv) {
  if (!Live(win)) return;
  XvtDrawOp op;
  op.op = "scroll";
  if (rct) op.rct = *rct;
  op.text = std::to_string(dh) + " " + std::to_string(dv);
  DrawOp(win, op);
  win->damage.push_back(XvtDamage{"scroll", op.rct, dh, dv, {}});
}

void xvt_dwin_update(WINDOW win) {
  if (!Live(win) || win->invalid.empty()) return;
  XvtDamage done{"update", {}, 0, 0, {}};
  for (const XvtDrawOp& op : xvt_test_paint(win))
    if (op.op == "text") done.texts.push_back(op);
  if (Live(win)) win->damage.push_back(std::move(done));
}

XVT_IMAGE xvt_image_read_bmp(const char* path) {
  Record("image", path ? path : "");
  auto img = std::make_unique<xvt_image>();
  std::string error;
  if (!xvtbmp::DecodeFile(path, &img->image, &error)) return nullptr;
  return img.release();
}

void xvt_image_get_dimensions(XVT_IMAGE image, int* width, int* height) {
  if (width) *width = image ? image->image.width : 0;
  if (height) *height = image ? image->image.height : 0;
}

void xvt_image_destroy(XVT_IMAGE image) { delete image; }

void xvt_dwin_draw_image(WINDOW win, XVT_IMAGE image, const RCT* dest, const RCT*) {
  if (!image || !dest) return;
  XvtDrawOp op;
  op.op = "image";
  op.rct = *dest;
  op.text = std::to_string(image->image.width) + "x" + std::to_string(image->image.height);
  DrawOp(win, op);
}

// ---------------------------------------------------------------------------
// Test hooks

const std::vector<XvtDrawOp>& xvt_test_paint(WINDOW win) {
  static const std::vector<XvtDrawOp> empty;
  if (!Live(win)) return empty;
  win->display.clear();
  win->invalid.clear();
  EVENT ev = MakeEvent(E_UPDATE);
  xvt_vobj_get_client_rect(win, &ev.v.update.rct);
  Send(win, &ev);
  return Live(win) ? win->display : empty;
}

const std::vector<XvtDrawOp>& xvt_test_display_list(WINDOW win) {
  static const std::vector<XvtDrawOp> empty;
  return Live(win) ? win->display : empty;
}

std::vector<RCT> xvt_test_invalidated(WINDOW win) { return Live(win) ? win->invalid : std::vector<RCT>{}; }

std::vector<XvtDamage> xvt_test_damage(WINDOW win) { return Live(win) ? win->damage : std::vector<XvtDamage>{}; }
void xvt_test_clear_damage(WINDOW win) {
  if (Live(win)) win->damage.clear();
}
