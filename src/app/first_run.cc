// The first run: without a name and a mail address the program can't send
// mail, so a setup window collects them through startup.tcl.
#include <cstdio>
#include <string>

#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/app/toolbar.h"
#include "src/app/workspace.h"
#include "src/app/compose_request.h"
#include "src/organizer/organizer.h"
#include "src/base/tcl_interp.h"
#include "src/script/tcl_window_cmds.h"
#include "src/send/submit.h"

namespace {

constexpr int kHeadingHeight = 40;
constexpr int kSmallestHeading = 16;
constexpr int kHeadingMargin = 8;

WINDOW g_setup = NULL_WIN;
XVT_FNTID g_heading_font = nullptr;

long setup_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_UPDATE: {
      RCT r;
      xvt_vobj_get_client_rect(win, &r);
      xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW);
      const char* heading = "Welcome to Velmar";
      // The heading is 40 high unless the window's fonts are too wide for
      // that: then it shrinks until it fits.
      int size = g_heading_font ? xvt_font_get_size(g_heading_font) : kHeadingHeight;
      int width = 0;
      for (;;) {
        if (!g_heading_font) g_heading_font = xvt_font_create("sans-serif", size, XVT_FS_BOLD);
        xvt_dwin_set_font(win, g_heading_font);
        width = xvt_dwin_get_text_width(win, heading, -1);
        if (width <= r.right - 2 * kHeadingMargin || size <= kSmallestHeading) break;
        xvt_font_destroy(g_heading_font);
        g_heading_font = nullptr;
        size -= 2;
      }
      int leading, ascent, descent;
      xvt_dwin_get_font_metrics(win, &leading, &ascent, &descent);
      xvt_dwin_draw_text(win, (r.right - width) / 2, 20 + leading + ascent, heading, -1);
      break;
    }
    case E_CONTROL:
    case E_CHAR:
      // startup.tcl builds the form in this window and drives it like a
      // window of its own. The window may be gone when the script returns.
      TclScriptWindowEvent("startupwin", win, ev);
      break;
    case E_CLOSE:
      // The setup must finish before the program can go on; closing the
      // window is asking to leave.
      Shutdown_Prompt();
      break;
    case E_DESTROY:
      TclScriptWindowEvent("startupwin", win, ev);
      if (g_setup == win) g_setup = NULL_WIN;
      xvt_font_destroy(g_heading_font);
      g_heading_font = nullptr;
      break;
    default: break;
  }
  return 0;
}

int DoneStartupCmd(ClientData, Tcl_Interp*, int, Tcl_Obj* const[]) {
  if (g_setup) xvt_vobj_destroy(g_setup);
  TBAR_SetVisible(true);
  openMessageServicesWindow();
  SDDE_SetFullyStarted(1);
  CREQ_StartupDone();
  return TCL_OK;
}

}  // namespace

void RunFirstRunBranch() {
  Trace(kTraceFrame, kTraceLow, "main.c: first run - no name or mail address, starting the setup.\n");
  RCT client{};
  WINDOW mdi = reinterpret_cast<WINDOW>(xvt_vobj_get_attr(NULL_WIN, ATTR_MDI_CLIENT_WIN));
  xvt_vobj_get_client_rect(mdi ? mdi : TASK_WIN, &client);
  int left = (client.right - 400) / 2, top = (client.bottom - 300) / 2;
  if (left < 0) left = 0;
  if (top < 0) top = 0;
  RCT r{left, top, left + 400, top + 300};
  g_setup = xvt_win_create(W_DOC, &r, "Velmar Setup", 0, TASK_WIN, WSF_CLOSE, EM_ALL, setup_eh, 0);
  if (!g_setup) return;
  TBAR_SetVisible(false);
  if (task_interp) {
    Tcl_CreateObjCommand(task_interp, "doneVMRStartup", DoneStartupCmd, nullptr, nullptr);
    TclBindWindow("startupwin", g_setup);
  }
  std::string script = get_file_name(kFileStartupTcl);
  std::string error;
  if (!TclEvalFile(script.c_str(), &error)) xvt_dm_post_error("%s", error.c_str());
}

WINDOW FirstRunWindow() { return g_setup; }
