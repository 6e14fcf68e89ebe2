#include "src/script/forms.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "editor/edisxvt/edit_window.h"
#include "rclib/safe_file.h"
#include "src/base/tcl_interp.h"
#include "src/base/trace.h"
#include "src/script/tcl_window_cmds.h"

namespace {

// ---------------------------------------------------------------------------
// The form window

struct FormRecord {
  char kind[8] = "V2FORM";
  FormLayout layout;
  std::vector<WINDOW> controls;  // one for each field, in order
};

FormRecord* RecordOf(WINDOW win) {
  if (!win || !xvt_vobj_is_valid(win)) return nullptr;
  auto* rec = reinterpret_cast<FormRecord*>(xvt_vobj_get_data(win));
  return rec && !std::strcmp(rec->kind, "V2FORM") ? rec : nullptr;
}

// Tab steps through the fields that take input, round the end.
void StepFocus(FormRecord* rec, bool back) {
  std::vector<WINDOW> inputs;
  for (size_t i = 0; i < rec->controls.size(); ++i)
    if (rec->layout.fields[i].type != kFormText && rec->controls[i]) inputs.push_back(rec->controls[i]);
  if (inputs.empty()) return;
  const WINDOW focus = xvt_scr_get_focus_vobj();
  size_t at = back ? 0 : inputs.size() - 1;
  for (size_t i = 0; i < inputs.size(); ++i)
    if (inputs[i] == focus) at = i;
  const size_t next = back ? (at + inputs.size() - 1) % inputs.size() : (at + 1) % inputs.size();
  xvt_scr_set_focus_vobj(inputs[next]);
  // Selected, as in dialogs, so typing does not go in front of the old text.
  xvt_ctl_set_text_sel(inputs[next], 0, INT_MAX);
}

long form_eh(WINDOW win, EVENT* ev) {
  FormRecord* rec = RecordOf(win);
  switch (ev->type) {
    case E_UPDATE: xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW); break;
    case E_CHAR:
      if (rec && (ev->v.chr.ch == K_TAB || ev->v.chr.ch == K_BTAB))
        StepFocus(rec, ev->v.chr.ch == K_BTAB || ev->v.chr.shift);
      break;
    case E_DESTROY:
      xvt_vobj_set_data(win, 0);
      if (rec) rec->kind[0] = '\0';
      delete rec;
      break;
    default: break;
  }
  return 0;
}

WINDOW BuildForm(WINDOW parent, const FormLayout& layout, unsigned long flags, int* width, int* height) {
  auto rec = std::make_unique<FormRecord>();
  rec->layout = layout;
  RCT r{0, 0, layout.width, layout.height};
  FormRecord* raw = rec.get();
  WINDOW win = xvt_win_create(W_PLAIN, &r, layout.title.c_str(), 0, parent, WSF_NONE, EM_ALL, form_eh,
                              reinterpret_cast<intptr_t>(raw));
  if (!win) return NULL_WIN;
  rec.release();  // the window's now: E_DESTROY frees it
  const unsigned long ro = flags & CTL_FLAG_READONLY;
  for (size_t i = 0; i < layout.fields.size(); ++i) {
    const FormField& f = layout.fields[i];
    RCT fr{f.left, f.top, f.left + f.width, f.top + f.height};
    const int id = static_cast<int>(i) + 1;
    WINDOW ctl = NULL_WIN;
    if (f.type == kFormTxEdit) {
      ctl = txedit_create(TXEDIT, win, &fr, id, ro);
      if (ctl) {
        txedit_set_tab_leaves(ctl, true);
        txedit_set_text(ctl, f.value.c_str());
      }
    } else {
      ctl = xvt_ctl_create(f.type == kFormText ? WC_TEXT : WC_EDIT, &fr, f.value.c_str(), win,
                           f.type == kFormText ? 0 : ro, id);
    }
    if (!ctl) {
      xvt_dm_post_error("v2form.c: Cannot create form fields");
      xvt_vobj_destroy(win);
      return NULL_WIN;
    }
    raw->controls.push_back(ctl);
  }
  if (width) *width = layout.width;
  if (height) *height = layout.height;
  return win;
}

}  // namespace

WINDOW form_read_text(WINDOW parent, std::string_view data, unsigned long flags, int* width, int* height) {
  FormLayout layout;
  std::string error;
  if (!FormParse(data, &layout, &error)) {
    Trace(kTraceFrame, kTraceMedium, "form: %s\n", error.c_str());
    xvt_dm_post_error("%s", error.c_str());
    xvt_dm_post_error("Invalid form file. Cannot create form");
    return NULL_WIN;
  }
  return BuildForm(parent, layout, flags, width, height);
}

WINDOW form_read_file(WINDOW parent, const char* file, unsigned long flags, int* width, int* height) {
  SafeFileError err;
  struct stat st {};
  const int fd = file ? safe_open_read(file, &err, &st) : -1;
  if (fd < 0) {
    xvt_dm_post_error("Invalid form, cannot open for reading.");
    return NULL_WIN;
  }
  std::string data;
  char block[8192];
  ssize_t n = 0;
  while ((n = ::read(fd, block, sizeof block)) > 0 && data.size() <= kFormFileMax)
    data.append(block, static_cast<size_t>(n));
  ::close(fd);
  if (n < 0 || data.size() > kFormFileMax) {
    xvt_dm_post_error("Invalid form, cannot open for reading.");
    return NULL_WIN;
  }
  return form_read_text(parent, data, flags, width, height);
}

bool FormCurrent(WINDOW win, FormLayout* out) {
  FormRecord* rec = RecordOf(win);
  if (!rec) return false;
  FormLayout layout = rec->layout;
  for (size_t i = 0; i < layout.fields.size() && i < rec->controls.size(); ++i) {
    FormField& f = layout.fields[i];
    WINDOW ctl = rec->controls[i];
    if (!xvt_vobj_is_valid(ctl)) continue;
    if (f.type == kFormTxEdit) {
      f.value = txedit_get_text(ctl);
    } else if (f.type == kFormEdit) {
      std::vector<char> buf(kFormValueMax + 2);
      if (xvt_vobj_get_title(ctl, buf.data(), buf.size())) f.value = buf.data();
    }
  }
  *out = std::move(layout);
  return true;
}

int form_write_file(WINDOW win, const char* file) {
  FormLayout layout;
  std::string text, error;
  if (!file || !FormCurrent(win, &layout)) return 0;
  if (!FormFormat(layout, &text, &error)) {
    xvt_dm_post_error("%s", error.c_str());
    return 0;
  }
  SafeFileError err;
  if (!safe_replace_file(file, text, 0600, &err)) {
    xvt_dm_post_error("The form could not be written to %s: %s", file, err.text().c_str());
    return 0;
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Tcl forms

namespace {

struct TclForm {
  WINDOW win = NULL_WIN;
  FormHost host;
};

// One Tcl form at a time: its window has the one name its script knows.
TclForm& Current() {
  static TclForm form;
  return form;
}

std::string PtrText(WINDOW win) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", static_cast<void*>(win));
  return text;
}

long tclform_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_UPDATE: xvt_dwin_clear(win, COLOR_SYSTEM_WINDOW); break;
    case E_CHAR:
    case E_SIZE:
    case E_CONTROL: TclScriptWindowEvent(kFormWinName, win, ev); break;
    case E_DESTROY:
      TclScriptWindowEvent(kFormWinName, win, ev);
      if (Current().win == win) Current() = TclForm{};
      break;
    default: break;
  }
  return 0;
}

// form_completion ?send?: the user is done; 1 (the default) sends.
int FormCompletionCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc > 2) return TclWrongArgs(interp, "form_completion");
  int send = 1;
  if (objc == 2 && Tcl_GetBooleanFromObj(interp, objv[1], &send) != TCL_OK) return TCL_ERROR;
  const TclForm form = Current();
  if (!form.win) return TclFail(interp, "form_completion: no form is open");
  if (form.host.completed) form.host.completed(form.host.data, send);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// go_to_container: the focus goes back to the window holding the form.
int GoToContainerCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const[]) {
  if (objc != 1) return TclWrongArgs(interp, "go_to_container");
  const TclForm& form = Current();
  if (!form.win) return TclFail(interp, "go_to_container: no form is open");
  WINDOW container = xvt_vobj_get_parent(form.win);
  if (container && xvt_vobj_is_valid(container)) xvt_scr_set_focus_vobj(container);
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// settitle text
int SetTitleCmd(ClientData, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  if (objc != 2) return TclWrongArgs(interp, "settitle");
  const TclForm& form = Current();
  if (form.win && form.host.set_title) form.host.set_title(form.host.data, Tcl_GetString(objv[1]));
  Tcl_ResetResult(interp);
  return TCL_OK;
}

// setheader name value: sets a header field. headerMod name value: the
// same, only when the user has left the field empty, so that a form never
// overwrites what was typed.
int SetHeaderCmd(ClientData only_empty, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  const char* cmd = only_empty ? "headerMod" : "setheader";
  if (objc != 3) return TclWrongArgs(interp, cmd);
  const TclForm form = Current();
  if (!form.win || !form.host.set_header) return TclFail(interp, std::string(cmd) + ": no form is open");
  const std::string name = Tcl_GetString(objv[1]);
  if (only_empty && form.host.get_header && !form.host.get_header(form.host.data, name).empty())
    return Tcl_ResetResult(interp), TCL_OK;
  if (!form.host.set_header(form.host.data, name, Tcl_GetString(objv[2])))
    return TclFail(interp, std::string(cmd) + ": unknown header \"" + name +
                               "\": must be To, Cc, Bcc, Reply-To or Subject");
  Tcl_ResetResult(interp);
  return TCL_OK;
}

bool EvalWords(Tcl_Interp* interp, std::initializer_list<std::string> words) {
  Tcl_Obj* list = Tcl_NewListObj(0, nullptr);
  Tcl_IncrRefCount(list);
  for (const std::string& w : words) Tcl_ListObjAppendElement(nullptr, list, Tcl_NewStringObj(w.data(), static_cast<int>(w.size())));
  const int code = Tcl_EvalObjEx(interp, list, TCL_EVAL_GLOBAL);
  Tcl_DecrRefCount(list);
  return code == TCL_OK;
}

}  // namespace

WINDOW FormTclCreate(WINDOW parent, const RCT* rect, const char* file, const FormHost& host) {
  Tcl_Interp* interp = task_interp;
  if (!interp || !file || !rect) return NULL_WIN;
  if (FormTclIsOpen()) {
    xvt_dm_post_error("%s", kFormTclBusy);
    return NULL_WIN;
  }
  Tcl_CreateObjCommand(interp, "form_completion", FormCompletionCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "go_to_container", GoToContainerCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "settitle", SetTitleCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "setheader", SetHeaderCmd, nullptr, nullptr);
  Tcl_CreateObjCommand(interp, "headerMod", SetHeaderCmd, reinterpret_cast<ClientData>(1), nullptr);
  WINDOW win = xvt_win_create(W_PLAIN, rect, "", 0, parent, WSF_NONE, EM_ALL, tclform_eh, 0);
  if (!win) {
    xvt_dm_post_error("invalid phone message");
    return NULL_WIN;
  }
  Current() = TclForm{win, host};
  // A window of the program's: the scripts know it by name like their own.
  Tcl_UnsetVar2(interp, "windows", kFormWinName, TCL_GLOBAL_ONLY);
  bool ok = EvalWords(interp, {"keylset", "windows(formwin)", "windowptr", PtrText(win)}) &&
            EvalWords(interp, {"keylset", "windows(formwin)", "winname", kFormWinName, "type", "external",
                               "kidlist", ""}) &&
            EvalWords(interp, {"keylset", "windows(formwin)", "entercommand", ""});
  if (ok) {
    Trace(kTraceFrame, kTraceAll, "calling Tcl_EvalFile\n");
    const int code = Tcl_EvalFile(interp, file);
    Trace(kTraceFrame, kTraceAll, "after caling Tcl_EvalFile, code = %d\n", code);
    if (code != TCL_OK) {
      const char* info = Tcl_GetVar(interp, "errorInfo", TCL_GLOBAL_ONLY);
      Trace(kTraceFrame, kTraceHigh, "form script: %s\n", info ? info : Tcl_GetStringResult(interp));
      ok = false;
    }
  }
  if (!ok) {
    xvt_dm_post_error("invalid phone message");
    if (xvt_vobj_is_valid(win)) xvt_vobj_destroy(win);
    Current() = TclForm{};
    return NULL_WIN;
  }
  return win;
}

bool FormIsTcl(WINDOW win) { return win && Current().win == win; }

void FormFocusEdge(WINDOW form, bool last) {
  if (FormIsTcl(form)) {
    if (task_interp && !EvalWords(task_interp, {last ? "focus_last_kid" : "focus_first_kid", kFormWinName}))
      Trace(kTraceFrame, kTraceHigh, "form focus: %s\n", Tcl_GetStringResult(task_interp));
    return;
  }
  FormRecord* rec = RecordOf(form);
  if (!rec) return;
  for (size_t k = 0; k < rec->controls.size(); ++k) {
    const size_t i = last ? rec->controls.size() - 1 - k : k;
    if (rec->layout.fields[i].type != kFormText && rec->controls[i]) {
      xvt_scr_set_focus_vobj(rec->controls[i]);
      xvt_ctl_set_text_sel(rec->controls[i], 0, INT_MAX);
      return;
    }
  }
}

bool FormTclIsOpen() { return Current().win && xvt_vobj_is_valid(Current().win); }

namespace {

// Runs `command formwin file` of the form's script; false with *why.
bool RunFileCommand(WINDOW form, const char* command, const char* file, std::string* why) {
  if (!FormIsTcl(form) || !task_interp || !file) {
    *why = "there is no form script";
    return false;
  }
  if (!EvalWords(task_interp, {command, kFormWinName, file})) {
    *why = Tcl_GetStringResult(task_interp);
    return false;
  }
  return true;
}

}  // namespace

int FormTclProduce(WINDOW form, const char* file) {
  std::string why;
  if (!RunFileCommand(form, "produce_win_file", file, &why)) {
    xvt_dm_post_error("The form could not be written: %s", why.c_str());
    return 0;
  }
  struct stat st {};
  if (::stat(file, &st) != 0 || !S_ISREG(st.st_mode)) {
    xvt_dm_post_error("The form could not be written: its script left no file.");
    return 0;
  }
  return 1;
}

bool FormTclSnapshot(WINDOW form, const char* file, std::string* why) {
  return RunFileCommand(form, "produce_win_file", file, why);
}

bool FormTclRestore(WINDOW form, const char* file, std::string* why) {
  if (task_interp && !Tcl_FindCommand(task_interp, "restore_win_file", nullptr, 0)) {
    *why = "the form script cannot take back what was entered";
    return false;
  }
  return RunFileCommand(form, "restore_win_file", file, why);
}
