// The attachment pane's actions: opening a part with a helper application
// (or a viewer, for a message inside the message), saving it decoded, and
// the wizard that picks or defines a helper.
#include <strings.h>

#include <cstdio>
#include <cstring>

#include "src/base/trace.h"
#include "src/viewer/attach.h"
#include "src/viewer/viewer_internal.h"

namespace {

constexpr int kWizardRid = 9310;
constexpr int kWizardText = 1;
constexpr int kWizardList = 2;
constexpr int kWizardName = 3;
constexpr int kWizardCommand = 4;
constexpr int kWizardOk = 5;
constexpr int kWizardCancel = 6;

const WIN_DEF kWizardDef[] = {
    {W_MODAL, {0, 0, 460, 330}, "Select A Helper Application", 0, 0},
    {WC_TEXT, {12, 10, 448, 46}, "", kWizardText, 0},
    {WC_LBOX, {12, 52, 448, 176}, "", kWizardList, 0},
    {WC_TEXT, {12, 190, 120, 210}, "~Name:", 11, 0},
    {WC_EDIT, {124, 186, 448, 210}, "", kWizardName, 0},
    {WC_TEXT, {12, 224, 120, 244}, "~Program:", 12, 0},
    {WC_EDIT, {124, 220, 448, 244}, "", kWizardCommand, 0},
    {WC_PUSHBUTTON, {120, 280, 210, 310}, "OK", kWizardOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {250, 280, 340, 310}, "Cancel", kWizardCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

struct Wizard {
  std::string mime, file;
  std::vector<HelperEntry> list;
  bool several = false;
  int result = -1;
};

std::string Text(WINDOW win, int id) { return xvt_ctl_get_text(win, id, 2047); }

// The program part of a command: its first word, unless the whole exists.
std::string ProgramOf(const std::string& command) {
  if (command.find("%s") == std::string::npos && !AttachFindExecutable(command).empty()) return command;
  return command.substr(0, command.find(' '));
}

bool WizardAccept(WINDOW win, Wizard* w) {
  const int sel = xvt_list_get_sel_index(xvt_win_get_ctl(win, kWizardList));
  const std::string name = Text(win, kWizardName), command = Text(win, kWizardCommand);
  if (sel >= 0 && static_cast<size_t>(sel) < w->list.size() && command.empty()) {
    w->result = w->list[static_cast<size_t>(sel)].number;
    return true;
  }
  if (name.empty()) {
    xvt_dm_post_error("The Helper Application must be given a name.");
    return false;
  }
  if (command.empty()) {
    xvt_dm_post_error("A Helper Application has not been entered.\nPlease enter one if you wish to view this attachment");
    return false;
  }
  const std::string program = ProgramOf(command);
  if (program.find_first_of("\n\r\t") != std::string::npos) {
    xvt_dm_post_error("The application name \"%s\" is not valid.", program.c_str());
    return false;
  }
  if (AttachFindExecutable(program).empty()) {
    xvt_dm_post_error("The file \"%s\" cannot be found.\nPlease enter another application name.", program.c_str());
    return false;
  }
  if (xvt_dm_post_ask("Yes", "No", nullptr, "Update the Helper Application \"%s\" in your user options?",
                      name.c_str()) != RESP_DEFAULT) {
    w->result = 0;
    return true;
  }
  w->result = AttachAddHelper(name, command, w->mime, AttachExtension(w->file));
  return true;
}

long wizard_eh(WINDOW win, EVENT* ev) {
  auto* w = reinterpret_cast<Wizard*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE: {
      char title[300];
      std::snprintf(title, sizeof title, "Select A Helper Application for %s", w->mime.c_str());
      xvt_vobj_set_title(win, title);
      xvt_vobj_set_title(xvt_win_get_ctl(win, kWizardText),
                         w->several ? "There are several Helper Applications for this attachment type.\n"
                                      "Please choose one, or define a new one."
                                    : "Unable to find a Helper Application for this attachment type.\n"
                                      "Please choose one.");
      WINDOW list = xvt_win_get_ctl(win, kWizardList);
      for (const HelperEntry& e : w->list) xvt_list_add(list, -1, (e.name + "  (" + e.command + ")").c_str());
      break;
    }
    case E_CONTROL:
      if (ev->v.ctl.id == kWizardOk || (ev->v.ctl.id == kWizardList && ev->v.ctl.ci.v.lbox.dbl_click)) {
        if (WizardAccept(win, w)) xvt_vobj_destroy(win);
      } else if (ev->v.ctl.id == kWizardCancel) {
        w->result = -1;
        xvt_vobj_destroy(win);
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

int Launch(const std::string& command, const std::string& file) {
  const std::vector<std::string> argv = AttachHelperArgv(command, file);
  std::string error;
  if (AttachSpawn(argv, &error) < 0) {
    Trace(kTraceAttach, kTraceCritical, "launch: %s: %s\n", AttachCommandLine(argv).c_str(), error.c_str());
    xvt_dm_post_error("Cannot find file %s (or one of its components).  Check to ensure the path and filename are "
                      "correct and that all required libraries are available.",
                      argv.empty() ? "" : argv[0].c_str());
    return -1;
  }
  return 1;
}

std::string CommandOf(int number) {
  for (const HelperEntry& e : AttachHelpers())
    if (e.number == number) return e.command;
  return {};
}

}  // namespace

int attach_get_info(const std::string& mime, const std::string& file, const std::vector<HelperEntry>& candidates) {
  xvt_res_register_dialog(kWizardRid, kWizardDef);
  Wizard w;
  w.mime = mime;
  w.file = file;
  w.several = !candidates.empty();
  w.list = candidates.empty() ? AttachHelpers() : candidates;
  if (!xvt_dlg_create_res(W_MODAL, kWizardRid, EM_ALL, wizard_eh, reinterpret_cast<intptr_t>(&w))) return 0;
  return w.result;
}

int LaunchAttachmentOrCallWizard(const std::string& mime, const std::string& file) {
  std::vector<HelperEntry> found;
  int n = AttachFindHelper(mime, file, &found);
  if (n == kHelperNone) {
    // The desktop's own choice, except for what it would run.
    if (AttachLooksExecutable(file)) {
      xvt_dm_post_error("This attachment is a program or a script; Velmar does not open it. Save it if you need it.");
      return 0;
    }
    return Launch("", file);
  }
  if (n > 0 && CommandOf(n).empty()) n = kHelperSeveral;
  if (n == kHelperSeveral) {
    const int chosen = attach_get_info(mime, file, found);
    if (chosen < 0) return -1;
    if (chosen == 0) return 0;
    n = chosen;
  }
  const std::string command = CommandOf(n);
  if (command.empty()) return 0;
  return Launch(command, file);
}

int ViewerOpenRow(ViewerInfo* v, size_t index) {
  if (!v || index >= v->content.rows.size()) return 0;
  AttachRow& row = v->content.rows[index];
  if (row.container) {
    xvt_dm_post_note("This type of attachment (%s) will be supported in a future release of Velmar", row.mime.c_str());
    return 0;
  }
  switch (row.kind) {
    case kAttachRfc822: {
      UMI shadow = 0;
      if (!MM_MsgShadowSubMessage(v->umi, row.section.c_str(), &shadow) || !shadow) {
        xvt_dm_post_error("The message inside this message could not be opened.");
        return 0;
      }
      spawnViewer(shadow, v->folder_node);
      row.opened = true;
      return 1;
    }
    case kAttachAppleFile:
    case kAttachBinhex:
      xvt_dm_post_note("This type of attachment (%s) can only be saved to disk", row.mime.c_str());
      return 0;
    case kAttachUuencode:
      xvt_dm_post_note("Cannot launch a UUEncoded attachment; but it's automatically decoded when saved to a file");
      return 0;
    default: break;
  }
  std::string bytes;
  if (!AttachPartBytes(v->umi, row.section, &bytes)) {
    xvt_dm_post_error("The attachment could not be fetched.");
    return 0;
  }
  const std::string file = AttachWriteTempFile(row.name, bytes);
  if (file.empty()) {
    xvt_dm_post_error("The attachment could not be written to a temporary file.");
    return 0;
  }
  const int r = LaunchAttachmentOrCallWizard(row.mime, file);
  if (r == 1) row.opened = true;
  return r;
}

int ViewerExtractEnclosures(ViewerInfo* v) {
  if (!v || !v->content.has_text || v->content.extracted) return 0;
  v->content.extracted = true;
  const std::string& text = v->content.text;
  int added = 0;
  size_t line = 0;
  auto add = [&](int kind, const char* mime, const std::string& name, size_t from, size_t to) {
    AttachRow row;
    row.section = v->content.text_section;
    row.kind = kind;
    row.mime = mime;
    row.name = name.empty() ? std::string("enclosure") : name;
    row.enclosure = text.substr(from, to - from);
    row.label = row.name + "  (" + row.mime + ", from the text)";
    v->content.rows.push_back(std::move(row));
    ++added;
  };
  constexpr int kMaxEnclosures = 100;
  while (line < text.size() && added < kMaxEnclosures) {
    size_t end = text.find('\n', line);
    if (end == std::string::npos) end = text.size();
    const std::string_view l(text.data() + line, end - line);
    size_t next = end + 1;
    if (l.substr(0, 6) == "begin ") {
      // To its "end" line; a block without one is not listed.
      const size_t stop = text.find("\nend", end);
      if (stop != std::string::npos) {
        const size_t eol = text.find('\n', stop + 1);
        const size_t after = eol == std::string::npos ? text.size() : eol + 1;
        std::string decoded, name;
        if (AttachUudecode(std::string_view(text).substr(line, after - line), &decoded, &name))
          add(kAttachUuencode, "application/x-uuencode", name, line, after);
        next = after;
      }
    } else if (l.substr(0, 10) == "(This file") {
      // To the colon that closes the data, after the one that opens it.
      const size_t open = text.find(':', end);
      const size_t close = open == std::string::npos ? open : text.find(':', open + 1);
      if (close != std::string::npos) {
        std::string decoded, name, why;
        if (AttachBinhexDecode(std::string_view(text).substr(line, close + 1 - line), &decoded, &name, &why))
          add(kAttachBinhex, "application/mac-binhex40", name, line, close + 1);
        next = close + 1;
      }
    }
    line = next;
  }
  if (added) v->content.panes = 3;
  return added;
}

int ViewerSaveRow(ViewerInfo* v, size_t index) {
  if (!v || index >= v->content.rows.size()) return 0;
  const AttachRow& row = v->content.rows[index];
  if (row.container) return 0;
  char path[4096];
  std::snprintf(path, sizeof path, "%s", row.name.c_str());
  if (!xvt_dm_post_file_save("Save attachment as:", path, sizeof path)) return 0;
  std::string bytes = row.enclosure;
  if (row.enclosure.empty() && !AttachPartBytes(v->umi, row.section, &bytes)) {
    xvt_dm_post_error("The attachment could not be fetched; it was not saved.");
    return 0;
  }
  if (row.kind == kAttachUuencode) {
    std::string decoded;
    if (!AttachUudecode(bytes, &decoded, nullptr)) {
      xvt_dm_post_error("Error in decoding the UUEcoded file; the attachment was not saved!");
      return 0;
    }
    bytes.swap(decoded);
  }
  if (row.kind == kAttachBinhex) {
    std::string decoded, why;
    if (!AttachBinhexDecode(bytes, &decoded, nullptr, &why)) {
      Trace(kTraceAttach, kTraceCritical, "ViewerSaveRow: %s\n", why.c_str());
      xvt_dm_post_error("Error in decoding the BinHex file; the attachment was not saved!");
      return 0;
    }
    bytes.swap(decoded);
  }
  return AttachSaveBytes(path, bytes) == 1 ? 1 : 0;
}
