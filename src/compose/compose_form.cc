// Compose windows that carry a form: the phone message (a form script) and
// stored forms chosen by the user. The form takes the place of the message
// text and is sent as the message's first part.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/compose/compose_text.h"
#include "src/script/forms.h"

namespace {

constexpr size_t kMaxFormPart = 1u << 20;
constexpr int kTclFormMinHeight = 200;

const char* const kHeaderNames[5] = {"To", "Cc", "Bcc", "Reply-To", "Subject"};

int HeaderSlot(const std::string& name) {
  for (int i = 0; i < 5; ++i)
    if (!strcasecmp(kHeaderNames[i], name.c_str())) return i;
  return -1;
}

ComposeInfo* Info(void* data) { return ComposeInfoOf(static_cast<WINDOW>(data)); }

void HostSetTitle(void* data, const std::string& title) {
  if (ComposeInfo* info = Info(data)) xvt_vobj_set_title(info->window, title.c_str());
}

bool HostSetHeader(void* data, const std::string& name, const std::string& value) {
  ComposeInfo* info = Info(data);
  const int slot = HeaderSlot(name);
  if (!info || slot < 0) return false;
  xvt_vobj_set_title(info->address_panel[slot], value.c_str());
  return true;
}

std::string HostGetHeader(void* data, const std::string& name) {
  ComposeInfo* info = Info(data);
  const int slot = HeaderSlot(name);
  if (!info || slot < 0) return {};
  char text[1024] = "";
  xvt_vobj_get_title(info->address_panel[slot], text, sizeof text);
  return text;
}

void HostCompleted(void* data, int send) {
  ComposeInfo* info = Info(data);
  if (!info) return;
  if (send)
    send_mail(info->window);
  else
    compose_close(info->window);
}

// The text pane gives its place to the form.
void Attach(ComposeInfo* info, WINDOW pane, bool tcl, int width, int height) {
  info->form_pane = pane;
  info->form_tcl = tcl;
  info->form_width = width;
  info->form_height = height;
  xvt_vobj_set_visible(info->text_pane, false);
  ComposeLayout(info);
}

// Runs the form script in the place the text would take.
bool AttachScript(ComposeInfo* info, const char* file) {
  RCT r{};
  xvt_vobj_get_outer_rect(info->text_pane, &r);
  r.right = std::max(r.right, r.left + 100);
  r.bottom = std::max(r.bottom, r.top + kTclFormMinHeight);
  FormHost host;
  host.set_title = HostSetTitle;
  host.set_header = HostSetHeader;
  host.get_header = HostGetHeader;
  host.completed = HostCompleted;
  host.data = info->window;
  WINDOW pane = FormTclCreate(info->window, &r, file, host);
  if (!pane) return false;
  Attach(info, pane, true, r.right - r.left, r.bottom - r.top);
  return true;
}

// A file of our own for a form script to write or read, mode 0600 in the
// autosave folder; empty when none could be made.
std::string ScratchFile() {
  const std::string dir = ComposeAutosaveDir();
  ::mkdir(dir.c_str(), 0700);
  std::string path = dir + "/form-XXXXXX";
  const int fd = ::mkstemp(path.data());
  if (fd < 0) return {};
  ::close(fd);
  return path;
}

WINDOW OpenFormWindow(const char* file, bool tcl) {
  WINDOW win = createComposeWin(kComposeForm, 0, tcl ? "Phone Message" : "Form");
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return NULL_WIN;
  if (tcl) {
    AttachScript(info, file);
  } else {
    int w = 0, h = 0;
    if (WINDOW pane = form_read_file(win, file, 0, &w, &h)) {
      Attach(info, pane, false, w, h);
      char title[256] = "";
      if (xvt_vobj_get_title(pane, title, sizeof title) && *title) {
        xvt_vobj_set_title(win, title);
        // The form's title says what the message is.
        xvt_vobj_set_title(info->address_panel[4], title);
      }
    }
  }
  // What the form starts with is not the user's yet.
  ComposeMarkSaved(info);
  return win;
}

bool ReadPart(const std::string& path, std::string* out) {
  SafeFileError err;
  const int fd = safe_open_read(path.c_str(), &err);
  if (fd < 0) return false;
  char block[8192];
  ssize_t n = 0;
  while ((n = ::read(fd, block, sizeof block)) > 0 && out->size() <= kMaxFormPart)
    out->append(block, static_cast<size_t>(n));
  ::close(fd);
  return n >= 0 && out->size() <= kMaxFormPart;
}

BodyParameter* Param(const char* attribute, const char* value) {
  BodyParameter* p = mail_newbody_parameter();
  p->attribute = cpystr(attribute);
  p->value = cpystr(value);
  return p;
}

}  // namespace

void ComposeLayoutForm(ComposeInfo* info, const RCT& area) {
  if (!info->form_pane || !xvt_vobj_is_valid(info->form_pane)) return;
  RCT r = area;
  if (info->form_tcl) {
    // The script laid its fields out for the width it was given.
    r.right = std::max(area.right, area.left + info->form_width);
  } else {
    r.right = area.left + info->form_width;
    r.bottom = area.top + info->form_height;
  }
  xvt_vobj_move(info->form_pane, &r);
}

WINDOW phone_message() {
  if (FormTclIsOpen()) {
    xvt_dm_post_error("%s", kFormTclBusy);
    return NULL_WIN;
  }
  const std::string file = get_file_name(kFilePhoneMsgForm);
  struct stat st {};
  if (file.empty() || ::stat(file.c_str(), &st) != 0) {
    xvt_dm_post_error("invalid phone message");
    return NULL_WIN;
  }
  return OpenFormWindow(file.c_str(), true);
}

bool ComposeRestoreForm(ComposeInfo* info, const std::string& form) {
  if (!info || info->form_pane) return false;
  int w = 0, h = 0;
  WINDOW pane = form_read_text(info->window, form, 0, &w, &h);
  if (!pane) return false;
  Attach(info, pane, false, w, h);
  char title[256] = "";
  if (xvt_vobj_get_title(pane, title, sizeof title) && *title) xvt_vobj_set_title(info->window, title);
  return true;
}

bool ComposeSnapshotScriptForm(ComposeInfo* info, ComposeScriptForm* out) {
  if (!info || !info->form_pane || !info->form_tcl) return false;
  const std::string script = get_file_name(kFilePhoneMsgForm);
  const std::string scratch = ScratchFile();
  std::string why = "no scratch file in the autosave folder";
  std::string values;
  const bool ok = !scratch.empty() && FormTclSnapshot(info->form_pane, scratch.c_str(), &why) &&
                  (ReadPart(scratch, &values) || (why = "its file could not be read", false));
  if (!scratch.empty()) ::unlink(scratch.c_str());
  if (!ok) {
    Trace(kTraceCompose, kTraceCritical, "autosave: the form script's values: %s\n", why.c_str());
    return false;
  }
  *out = {script.substr(script.rfind('/') + 1), values};
  return true;
}

bool ComposeRestoreScriptForm(ComposeInfo* info, const ComposeScriptForm& script) {
  if (!info || info->form_pane) return false;
  const std::string file = get_file_name(kFilePhoneMsgForm);
  if (file.empty() || file.substr(file.rfind('/') + 1) != script.name) {
    xvt_dm_post_error("The form \"%s\" of the restored message is not known here; its fields were not restored.",
                      script.name.c_str());
    return false;
  }
  if (!AttachScript(info, file.c_str())) {
    // Told why by the script's host; the values stay with the message as text.
    ComposeTextSet(info->text_pane, ComposeTextGet(info->text_pane) + script.values);
    return false;
  }
  const std::string scratch = ScratchFile();
  SafeFileError err;
  std::string why = "no scratch file in the autosave folder";
  const bool ok = !scratch.empty() &&
                  (safe_replace_file(scratch, script.values, 0600, &err) || (why = err.text(), false)) &&
                  FormTclRestore(info->form_pane, scratch.c_str(), &why);
  if (!scratch.empty()) ::unlink(scratch.c_str());
  if (!ok) xvt_dm_post_error("The fields of the restored form could not be filled in: %s", why.c_str());
  // The window holds what the user wrote, whatever the fields show.
  return true;
}

WINDOW compose_form(const char* file) {
  char chosen[4096] = "";
  if (!file) {
    // The chooser lists stored forms first.
    const std::string home = get_file_name(kFileUserIni);
    std::snprintf(chosen, sizeof chosen, "%s*.frm", home.substr(0, home.rfind('/') + 1).c_str());
    if (!xvt_dm_post_file_open("Select form file...", chosen, sizeof chosen)) return NULL_WIN;
    file = chosen;
  }
  return OpenFormWindow(file, false);
}

int ComposeFormPart(ComposeInfo* info, BodyPart** out) {
  if (!info || !info->form_pane || !out) return 0;
  const std::string file = get_file_name(kFileTemp);
  if (file.empty()) {
    xvt_dm_post_error("The form could not be written: no temporary file name is free.");
    return 0;
  }
  info->options.temp_files.push_back(file);
  const int written = info->form_tcl ? FormTclProduce(info->form_pane, file.c_str())
                                     : form_write_file(info->form_pane, file.c_str());
  std::string data;
  if (!written) return 0;
  if (!ReadPart(file, &data)) {
    xvt_dm_post_error("The form could not be read back from %s.", file.c_str());
    return 0;
  }
  BodyPart* part = mail_newbody();
  if (info->form_tcl) {
    part->type = TYPEAPPLICATION;
    part->subtype = cpystr("TCL-FORM");
    part->description = cpystr("Tcl-Form");
    part->parameter = Param("name", "Form");
  } else {
    part->type = TYPETEXT;
    part->subtype = cpystr("FORM");
    part->parameter = Param("CHARSET", "UTF-8");
  }
  part->contents = mail_newtext();
  mail_text_set(part->contents, kTextBinary, data.data(), data.size());
  *out = part;
  return 1;
}
