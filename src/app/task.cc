// Process entry and the task window's handler: the start-up sequence on
// E_CREATE and the final one on E_DESTROY.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "rclib/safe_file.h"
#include "c-client/auth/auth.h"
#include "src/base/cenv.h"
#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/fs.h"
#include "src/base/trace.h"
#include "src/app/compose_request.h"
#include "src/app/toolbar.h"
#include "src/app/workspace.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/send/autoreply.h"
#include "src/organizer/organizer.h"
#include "src/base/tcl_interp.h"
#include "src/books/book_window.h"
#include "src/script/tcl_window_cmds.h"
#include "src/prefs/prefs.h"
#include "src/security/password_manager.h"
#include "src/send/submit.h"

namespace {

const MENU_ITEM kFileMenu[] = {
    {M_GO_ONLINE_OFFLINE, "~Go Offline", true, false, false, nullptr},
    {M_SEND_QUEUE_NOW, "Send ~Queue Now\tCtrl+Shift+Q", true, false, false, nullptr},
    {M_ADDRESS_BOOKS, "~Address Books...\tCtrl+Shift+B", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_FILE_PRINT, "~Print...\tCtrl+P", false, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_FILE_QUIT, "E~xit\tCtrl+Q", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};

const MENU_ITEM kTaskMenuBarItems[] = {
    {14100, "~File", true, false, false, kFileMenu},
    {20800, "~Options", true, false, false, kOptionsMenu},
    {32300, "~Help", true, false, false, kHelpMenu},
    {0, nullptr, false, false, false, nullptr},
};

// The icons the frame draws, by resource id, under the application
// directory's icons/ folder.
const int kIcons[] = {9251, 9252, 9253, 9254, 9355, 9356, 9357, 9000};

struct Process {
  std::vector<std::string> args;
  std::vector<char*> argv;
  int32_t* task_data = nullptr;
  bool icon_set = false;
  WINDOW mdi_client = NULL_WIN;
  int lock_fd = -1;
  long end_timer = 0;  // the session's end, waiting for a network call to return
};

Process& P() {
  static Process p;
  return p;
}

void RegisterIcons() {
  std::string dir = JoinPath(GetApplicationDir(), "icons");
  for (int id : kIcons) xvt_res_register_icon(id, JoinPath(dir, std::to_string(id) + ".bmp").c_str());
}

// Stops the help file, the background submission link and the local
// server; false if the process should end at once.
bool StopFrameServices() {
  CloseHelpFile();
  SUBMIT_StopLink();
  SDDE_StopServer();
  CREQ_StopServer();
  return true;
}

// Two programs on one directory would rewrite each other's folder indexes
// and option files: the second one stops and says why.
bool LockUserDir() {
  Process& p = P();
  std::string path = JoinPath(GetUserDir(), ".velmar.lock");
  p.lock_fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (p.lock_fd < 0) return true;  // a directory we can't lock in is found out later
  if (::flock(p.lock_fd, LOCK_EX | LOCK_NB) == 0) return true;
  ::close(p.lock_fd);
  p.lock_fd = -1;
  xvt_dm_post_error("Velmar is already running with the directory %s.\nUse that window, or start Velmar with "
                    "another VELMAR_HOME.",
                    GetUserDir().c_str());
  return false;
}

void OnCreate(WINDOW win) {
  WINDOW progress = xvt_progress_win();
  if (WIN_in_critical() && progress)
    xvt_win_set_cursor(progress, CURSOR_WAIT);
  else
    xvt_scr_set_busy_cursor();
  ErrorInit();
  P().task_data = new int32_t(1);
  xvt_vobj_set_data(win, reinterpret_cast<intptr_t>(P().task_data));
  xvt_vobj_set_attr(NULL_WIN, ATTR_ERRMSG_HANDLER, reinterpret_cast<intptr_t>(&XvtErrorHook));

  if (!InitDirectories() || !LockUserDir()) {
    xvt_app_destroy();
    return;
  }
  RegisterIcons();
  if (!CENV_Init(VelmarArgc(), VelmarArgv())) {
    xvt_app_destroy();
    return;
  }
  WINDOW banner = CENV_GetSuppressBannerDisplay() ? NULL_WIN : ShowBanner();
  if (!CheckWorkingDir()) {
    ErrorShow(4011, GetUserDir().c_str());
    xvt_app_destroy();
    return;
  }
  std::string folders = get_file_name(kFileFolders);
  if (!EnsureDirectory(folders.c_str())) {
    ErrorShow(2079, folders.c_str());
    xvt_app_destroy();
    return;
  }
  Trace(kTraceFrame, kTraceLow, "main.c: task_eh - creating TCL interpretter.\n");
  TclCreate(win, VelmarArgc() > 0 ? VelmarArgv()[0] : nullptr, TclRegisterWindowCommands);
  std::string keybind = get_file_name(kFileKeybind);
  if (FILE* f = safe_fopen_read(keybind.c_str())) {
    std::fclose(f);
  } else {
    xvt_dm_post_fatal_exit("Unable to load keybind.def file!");
  }
  // General.TCPConnectOk is set once the option store exists (InitWorkspace).

  SDDE_StartServer();
  CREQ_StartServer();
  P().mdi_client = reinterpret_cast<WINDOW>(xvt_vobj_get_attr(NULL_WIN, ATTR_MDI_CLIENT_WIN));
  OpenHelpFile();
  WIN_create_critical_window(win);
  TBAR_Create(win);

  if (!InitWorkspace(win)) return;
  if (banner && xvt_vobj_is_valid(banner)) xvt_vobj_destroy(banner);

  if (!IsOffline() && !CENV_GetSuppressDesktopReload()) {
    short connect_ok = 0;
    if (Opt_LookupBoolean("General.TCPConnectOk", &connect_ok, kOptSession) && connect_ok && !SUBMIT_OutboxIsEmpty()) {
      if (xvt_dm_post_ask("Send Now", "Cancel", nullptr,
                          "There are unsent messages in your outbox. Do you want to send them now?") == RESP_DEFAULT)
        SUBMIT_FlushOutbox();
    }
  }
  if (IsOffline()) Opt_AssignInt("General.RemoteMode", 0, kOptSession, 0);
}

void OnDestroy() {
  Process& p = P();
  Trace(kTraceFrame, kTraceLow, "main.c : task_eh - E_DESTROY\n");
  delete p.task_data;
  p.task_data = nullptr;
  DndList_Clear();
  WinList_Clear();
  if (!StopFrameServices()) return;
  TraceEnd();
  TclDestroy();
  AUTH_ForgetLogin();
  ErrorShutdown();
  p.icon_set = false;
  p.mdi_client = NULL_WIN;
  if (p.lock_fd >= 0) ::close(p.lock_fd);
  p.lock_fd = -1;
  fs_shutdown();
}

void LoadOptionsCommand() {
  Opt_AssignInt("Options.Loading", 1, kOptSession, 0);
  if (CENV_GetSessionManagement() && CENV_GetConfigName(0) && CENV_GetConfigName(1)) {
    if (SessionManagerDialog()) ReinitWorkspace();
    return;
  }
  // Without named configurations the place of the options is chosen on
  // the preferences' own page.
  PREF_Open(kPrefPageLocation);
  Opt_AssignInt("Options.Loading", 0, kOptSession, 0);
}

void OnCommand(WINDOW win, EVENT* ev) {
  int command = ev->v.cmd.tag;
  if (command == M_FILE_QUIT) {
    Shutdown_Prompt();
    return;
  }
  if (command == M_OPTIONS_LOAD) {
    LoadOptionsCommand();
    return;
  }
  if (command == M_OPTIONS_PREFERENCES) {
    PREF_Open(kPrefPageIdentity);
    return;
  }
  if (command == M_OPTIONS_CHANGE_PASSWORD) {
    if (PWM_Enabled()) PWM_ChangePassword();
    return;
  }
  if (command == M_OPTIONS_AUTO_REPLY) {
    autoreply_dialog();
    return;
  }
  if (command == M_ADDRESS_BOOKS) {
    ABK_BookWindow();
    return;
  }
  // Handled here rather than passed on: the compose window uses the same
  // number for one of its own commands.
  if (command == M_SEND_QUEUE_NOW) {
    SUBMIT_FlushOutbox();
    return;
  }
  if (command == M_GO_ONLINE_OFFLINE) {
    if (IsOffline())
      GoOnline();
    else
      GoOffline();
    return;
  }
  // A window hands a command it does not know back here; it is then the
  // program's own, never sent to that window again.
  static WINDOW routing = NULL_WIN;
  WINDOW front = WinList_Head();
  if (front && front != win && front != routing && xvt_vobj_is_valid(front)) {
    WINDOW outer = routing;
    routing = front;
    xvt_win_dispatch_event(front, ev);
    routing = outer;
  } else {
    MSG_DoCommonCommand(win, command);
  }
}

}  // namespace

int VelmarArgc() { return static_cast<int>(P().args.size()); }
char** VelmarArgv() { return P().argv.data(); }

namespace {

// The session is ending and nobody is there to answer the exit question.
// A network call may be under way below us (a box it raised was just
// cancelled): the program ends once that call has returned, never under it.
void EndSession(WINDOW win) {
  if (!WIN_in_critical()) {
    Shutdown();
    return;
  }
  if (!P().end_timer) P().end_timer = xvt_timer_create(win, 250);
}

}  // namespace

long task_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE: OnCreate(win); break;
    case E_DESTROY: OnDestroy(); break;
    case E_SIZE:
      Trace(kTraceFrame, kTraceLow, "main.c : task_eh - E_SIZE\n");
      TBAR_Fit(ev->v.size.width);
      if (!P().icon_set) {
        xvt_vobj_set_attr(win, ATTR_APP_ICON, 9000);
        P().icon_set = true;
      }
      break;
    case E_CLOSE:
      Trace(kTraceFrame, kTraceLow, "main.c : task_eh - E_CLOSE\n");
      Shutdown_Prompt();
      break;
    case E_COMMAND: OnCommand(win, ev); break;
    case E_QUIT:
      Trace(kTraceFrame, kTraceLow, "main.c : task_eh - E_QUIT\n");
      if (ev->v.query)
        xvt_app_allow_quit();
      else if (xvt_app_session_ending())
        EndSession(win);
      else
        Shutdown_Prompt();
      break;
    case E_TIMER:
      if (ev->v.timer.id == P().end_timer) {
        xvt_timer_destroy(P().end_timer);
        P().end_timer = 0;
        EndSession(win);
      }
      break;
    case E_USER:
      if (WINDOW target = DndList_Head()) {
        xvt_scr_set_focus_vobj(target);
        xvt_win_dispatch_event(target, ev);
      }
      break;
    default: break;
  }
  return 0;
}

int velmar_main(int argc, char** argv) {
  // A request to compose goes to a running copy when there is one; the
  // words of the request are not options of ours.
  std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  if (const int status = CREQ_FromCommandLine(&words); status >= 0) return status;
  words.insert(words.begin(), argc > 0 ? argv[0] : "velmar");
  argc = static_cast<int>(words.size());
  fs_init();
  if (!xvt_vobj_set_attr(NULL_WIN, ATTR_3D_CONTROLS, 1) || !xvt_vobj_set_attr(NULL_WIN, ATTR_NATIVE_DIALOGS, 1) ||
      !xvt_vobj_set_attr(NULL_WIN, ATTR_RESOURCES_IN_CODE, 1))
    return 0;
  XVT_CONFIG config{kTaskMenuBar, kAboutBox, "velmar", "Velmar", "Velmar", kToolbarHeight};
  xvt_res_register_menubar(kTaskMenuBar, kTaskMenuBarItems);
  xvt_vobj_set_attr(NULL_WIN, ATTR_NATIVE_HOOK, reinterpret_cast<intptr_t>(&WIN_native_hook));
  // The command line is kept as given (less a request's words), for the configuration environment;
  // the toolkit gets a copy it may rearrange.
  Process& p = P();
  p.args = words;
  p.argv.clear();
  for (std::string& a : p.args) p.argv.push_back(a.data());
  p.argv.push_back(nullptr);
  std::vector<std::string> toolkit_args = p.args;
  std::vector<char*> toolkit_argv;
  for (std::string& a : toolkit_args) toolkit_argv.push_back(a.data());
  toolkit_argv.push_back(nullptr);
  xvt_app_create(argc, toolkit_argv.data(), 0, task_eh, &config);
  return 0;
}
