// The progress window and the help viewer, as records of what was shown.
#include <cstdio>

#include "xvt/headless/headless_internal.h"

using namespace xvthl;

void xvt_progress_open(const char* title, const char* text, bool) {
  auto& s = S();
  if (!R().task) return;
  if (!Live(s.progress)) {
    RCT r{400, 400, 800, 520};
    s.progress = NewObject(W_MODELESS, R().screen, &r, title);
  }
  s.progress->title = title ? title : "";
  s.progress->items = {text ? text : ""};
  s.progress_cancel = false;
  Record("progress", std::string(title ? title : "") + ": " + (text ? text : ""));
}

void xvt_progress_set_text(const char* text) {
  auto& s = S();
  if (!Live(s.progress)) return;
  s.progress->items = {text ? text : ""};
  Record("progress", s.progress->title + ": " + (text ? text : ""));
}
void xvt_progress_set_range(long total) {
  if (Live(S().progress)) xvt_sbar_set_range(S().progress, HSCROLL, 0, static_cast<int>(total));
}
void xvt_progress_set_pos(long pos) {
  if (Live(S().progress)) xvt_sbar_set_pos(S().progress, HSCROLL, static_cast<int>(pos));
}
bool xvt_progress_cancelled(void) { return S().progress_cancel; }
void xvt_progress_close(void) {
  if (Live(S().progress)) DestroyTree(S().progress);
  S().progress = nullptr;
}
WINDOW xvt_progress_win(void) { return Live(S().progress) ? S().progress : NULL_WIN; }

bool xvt_help_open_helpfile(const char* path) {
  if (!path) return false;
  FILE* f = std::fopen(path, "r");
  if (!f) return false;
  std::fclose(f);
  S().help = path;
  return true;
}
void xvt_help_close_helpfile(void) { S().help.clear(); }
bool xvt_help_display(const char* topic) {
  Record("help", topic ? topic : "");
  return !S().help.empty();
}

std::string xvt_test_help_shown(void) { return S().help; }
