// The banner: banner.bmp in a borderless window, centred on the screen,
// while the program starts.
#include <sys/stat.h>

#include <string>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/app/workspace.h"

namespace {

long banner_eh(WINDOW win, EVENT* ev) {
  auto image = reinterpret_cast<XVT_IMAGE>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_UPDATE: {
      int w = 0, h = 0;
      xvt_image_get_dimensions(image, &w, &h);
      RCT r{0, 0, w, h};
      xvt_dwin_draw_image(win, image, &r, &r);
      break;
    }
    case E_DESTROY:
      xvt_image_destroy(image);
      xvt_vobj_set_data(win, 0);
      break;
    default: break;
  }
  return 0;
}

}  // namespace

WINDOW ShowBanner() {
  std::string file = get_file_name(kFileBanner);
  struct stat st;
  if (file.empty() || ::stat(file.c_str(), &st) != 0) return NULL_WIN;
  XVT_IMAGE image = xvt_image_read_bmp(file.c_str());
  if (!image) {
    Trace(kTraceFrame, kTraceLow, "ShowBanner: %s is not a bitmap\n", file.c_str());
    return NULL_WIN;
  }
  int w = 0, h = 0;
  xvt_image_get_dimensions(image, &w, &h);
  RCT screen{};
  xvt_vobj_get_client_rect(SCREEN_WIN, &screen);
  int left = (screen.right - screen.left - w) / 2, top = (screen.bottom - screen.top - h) / 2;
  RCT r{left, top, left + w, top + h};
  WINDOW win = xvt_win_create(W_NO_BORDER, &r, "Velmar", 0, SCREEN_WIN, WSF_NONE, EM_ALL, banner_eh,
                              reinterpret_cast<intptr_t>(image));
  if (!win) {
    xvt_image_destroy(image);
    return NULL_WIN;
  }
  // Start-up is one long event; paint now so the banner shows during it.
  xvt_dwin_invalidate_rect(win, nullptr);
  xvt_dwin_update(win);
  xvt_app_process_pending_events();
  return win;
}
