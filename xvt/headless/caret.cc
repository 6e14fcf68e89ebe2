// The caret and the font measures outside a window. The caret is only a
// rectangle in the window's record; the metrics are the fixed ones of the
// display list (8 px a character, 16 px a line).
#include <cstring>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

namespace {
constexpr int kCharWidth = 8;
}  // namespace

int xvt_font_get_text_width(XVT_FNTID, const char* text, int len) {
  if (!text) return 0;
  size_t n = len < 0 ? std::strlen(text) : static_cast<size_t>(len);
  // One cell per character, not per byte, so that UTF-8 text measures as
  // it is shown.
  int chars = 0;
  for (size_t i = 0; i < n; ++i)
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++chars;
  return kCharWidth * chars;
}

void xvt_font_get_metrics(XVT_FNTID, int* leading, int* ascent, int* descent) {
  xvt_dwin_get_font_metrics(NULL_WIN, leading, ascent, descent);
}

void xvt_caret_create(WINDOW win, int width, int height) {
  if (!Live(win)) return;
  win->caret = true;
  win->caret_shown = false;
  win->caret_rct = RCT{win->caret_rct.left, win->caret_rct.top, win->caret_rct.left + width,
                       win->caret_rct.top + height};
}

void xvt_caret_set_pos(WINDOW win, PNT pos) {
  if (!Live(win) || !win->caret) return;
  RCT& r = win->caret_rct;
  int w = r.right - r.left, h = r.bottom - r.top;
  r = RCT{pos.h, pos.v, pos.h + w, pos.v + h};
}

void xvt_caret_show(WINDOW win, bool visible) {
  if (Live(win) && win->caret) win->caret_shown = visible;
}

void xvt_caret_destroy(WINDOW win) {
  if (!Live(win)) return;
  win->caret = false;
  win->caret_shown = false;
}

bool xvt_test_caret(WINDOW win, RCT* rct, bool* visible) {
  if (!Live(win) || !win->caret) return false;
  if (rct) *rct = win->caret_rct;
  if (visible) *visible = win->caret_shown;
  return true;
}
