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

WINDOW OpenFormWindow(const char* file, bool tcl) {
  WINDOW win = createComposeWin(kComposeForm, 0, tcl ? "Phone Message" : "Form");
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return NULL_WIN;
  // The script lays its fields out in the place the text would take.
  RCT r{};
  xvt_vobj_get_outer_rect(info->text_pane, &r);
  r.right = std::max(r.right, r.left + 100);
  r.bottom = std::max(r.bottom, r.top + kTclFormMinHeight);
  if (tcl) {
    FormHost host;
    host.set_title = HostSetTitle;
    host.set_header = HostSetHeader;
    host.get_header = HostGetHeader;
    host.completed = HostCompleted;
    host.data = win;
    if (WINDOW pane = FormTclCreate(win, &r, file, host))
      Attach(info, pane, true, r.right - r.left, r.bottom - r.top);
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
