// Scroll bars: those attached to a window and scroll bar controls. They only
// hold numbers here; the user's use of them is simulated as events.
#include <algorithm>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

static ScrollBar* Bar(WINDOW win, SCROLL_TYPE type) {
  if (!Live(win)) return nullptr;
  if (win->type == WC_HSCROLL) return &win->sbar[0];
  if (win->type == WC_VSCROLL) return &win->sbar[1];
  return &win->sbar[type == VSCROLL ? 1 : 0];
}

void xvt_sbar_set_range(WINDOW win, SCROLL_TYPE type, int min, int max) {
  if (auto* b = Bar(win, type)) {
    b->min = min;
    b->max = max < min ? min : max;
    b->pos = std::clamp(b->pos, b->min, b->max);
  }
}
void xvt_sbar_get_range(WINDOW win, SCROLL_TYPE type, int* min, int* max) {
  auto* b = Bar(win, type);
  if (min) *min = b ? b->min : 0;
  if (max) *max = b ? b->max : 0;
}
void xvt_sbar_set_pos(WINDOW win, SCROLL_TYPE type, int pos) {
  if (auto* b = Bar(win, type)) b->pos = std::clamp(pos, b->min, b->max);
}
int xvt_sbar_get_pos(WINDOW win, SCROLL_TYPE type) {
  auto* b = Bar(win, type);
  return b ? b->pos : 0;
}
void xvt_sbar_set_proportion(WINDOW win, SCROLL_TYPE type, int proportion) {
  if (auto* b = Bar(win, type)) b->proportion = proportion;
}
void xvt_sbar_set_visible(WINDOW win, SCROLL_TYPE type, bool visible) {
  if (auto* b = Bar(win, type)) b->visible = visible;
}
void xvt_sbar_set_enabled(WINDOW win, SCROLL_TYPE type, bool enabled) {
  if (auto* b = Bar(win, type)) b->enabled = enabled;
}
