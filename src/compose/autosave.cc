// The autosave file: a window's fields, attachments and text written every
// minute and before every question on closing, so that a program that ends
// without closing its windows loses nothing. The next start offers them.
//
// The file is plain text: "Velmar-Autosave: 1", one "Name: value" line per
// field, one "Attachment: name<TAB>type<TAB>path" per file, an empty line,
// then the text as typed.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/compose/compose_text.h"
#include "src/script/forms.h"

namespace {

constexpr const char* kMagic = "Velmar-Autosave: 1";
constexpr size_t kMaxLine = 64 * 1024;
constexpr size_t kMaxAttachments = 1000;

std::string OneLine(std::string v) {
  std::replace(v.begin(), v.end(), '\n', ' ');
  return v;
}

std::string NewName() {
  static int serial = 0;
  return ComposeAutosaveDir() + "/compose-" + std::to_string(::getpid()) + "-" + std::to_string(++serial) + ".txt";
}

bool ReadSmallFile(const std::string& path, std::string* out, std::string* error) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    return false;
  }
  if (static_cast<size_t>(st.st_size) > kAutosaveMaxSize) {
    *error = "larger than an autosave file can be";
    return false;
  }
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    *error = std::strerror(errno);
    return false;
  }
  char block[8192];
  while (size_t n = std::fread(block, 1, sizeof block, f)) {
    out->append(block, n);
    if (out->size() > kAutosaveMaxSize) break;
  }
  std::fclose(f);
  if (out->size() > kAutosaveMaxSize) {
    *error = "larger than an autosave file can be";
    return false;
  }
  return true;
}

}  // namespace

std::string ComposeAutosaveDir() { return JoinPath(GetUserDir(), "autosave"); }

std::string ComposeAutosaveText(const ComposeFields& f, int kind, const std::vector<ComposeAttachment>& atts,
                                const std::string& text, const std::string& form,
                                const ComposeScriptForm& script) {
  std::string out = std::string(kMagic) + "\n";
  out += "Kind: " + std::to_string(kind) + "\n";
  const std::pair<const char*, const std::string*> fields[] = {
      {"To", &f.to},           {"Cc", &f.cc},   {"Bcc", &f.bcc}, {"Reply-To", &f.reply_to}, {"Subject", &f.subject},
      {"In-Reply-To", &f.in_reply_to}, {"References", &f.references}};
  for (const auto& [name, value] : fields) out += std::string(name) + ": " + OneLine(*value) + "\n";
  for (const ComposeAttachment& a : atts) {
    std::string name = OneLine(a.name), type = OneLine(a.type), path = OneLine(a.path);
    std::replace(name.begin(), name.end(), '\t', ' ');
    std::replace(type.begin(), type.end(), '\t', ' ');
    out += "Attachment: " + name + "\t" + type + "\t" + path + (a.temporary ? "\ttemporary" : "") + "\n";
  }
  // The form's bytes come first after the header, counted, so that any
  // text may follow them.
  if (!form.empty()) out += "Form: " + std::to_string(form.size()) + "\n";
  // A form script's values follow the stored form's bytes, counted the same way.
  const bool scripted = !script.name.empty() && script.name.find('\n') == std::string::npos;
  if (scripted) out += "Script-Form: " + std::to_string(script.values.size()) + " " + script.name + "\n";
  return out + "\n" + form + (scripted ? script.values : std::string()) + text;
}

bool ComposeAutosaveParse(const std::string& data, ComposeFields* f, int* kind,
                          std::vector<ComposeAttachment>* atts, std::string* text, std::string* error,
                          std::string* form, ComposeScriptForm* script) {
  if (data.size() > kAutosaveMaxSize) {
    *error = "the file is too large";
    return false;
  }
  size_t at = 0;
  bool first = true;
  size_t form_size = 0, script_size = 0;
  std::string script_name;
  *kind = kComposeNew;
  for (;;) {
    const size_t end = data.find('\n', at);
    if (end == std::string::npos) {
      *error = "the file ends inside its header";
      return false;
    }
    if (end - at > kMaxLine) {
      *error = "a header line is too long";
      return false;
    }
    const std::string line = data.substr(at, end - at);
    at = end + 1;
    if (first) {
      if (line != kMagic) {
        *error = "not an autosave file";
        return false;
      }
      first = false;
      continue;
    }
    if (line.empty()) break;
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) {
      *error = "a header line has no name";
      return false;
    }
    const std::string name = line.substr(0, colon), value = line.substr(colon + 2);
    if (name == "Kind") {
      char* e = nullptr;
      const long k = std::strtol(value.c_str(), &e, 10);
      if (*e || k < kComposeViewCopy || k > kComposeForm) {
        *error = "the kind is not known";
        return false;
      }
      *kind = static_cast<int>(k);
    } else if (name == "To") {
      f->to = value;
    } else if (name == "Cc") {
      f->cc = value;
    } else if (name == "Bcc") {
      f->bcc = value;
    } else if (name == "Reply-To") {
      f->reply_to = value;
    } else if (name == "Subject") {
      f->subject = value;
    } else if (name == "In-Reply-To") {
      f->in_reply_to = value;
    } else if (name == "References") {
      f->references = value;
    } else if (name == "Form") {
      char* e = nullptr;
      const unsigned long long n = std::strtoull(value.c_str(), &e, 10);
      if (value.empty() || *e || value[0] == '-' || n > data.size()) {
        *error = "the form is longer than the file";
        return false;
      }
      form_size = static_cast<size_t>(n);
    } else if (name == "Script-Form") {
      char* e = nullptr;
      const unsigned long long n = std::strtoull(value.c_str(), &e, 10);
      if (value.empty() || value[0] == '-' || *e != ' ' || e[1] == '\0' || n > data.size()) {
        *error = "the form script's values are longer than the file";
        return false;
      }
      script_size = static_cast<size_t>(n);
      script_name = e + 1;
    } else if (name == "Attachment") {
      if (atts->size() >= kMaxAttachments) {
        *error = "too many attachments";
        return false;
      }
      const size_t t1 = value.find('\t'), t2 = t1 == std::string::npos ? t1 : value.find('\t', t1 + 1);
      if (t2 == std::string::npos || t2 + 1 >= value.size()) {
        *error = "an attachment line is incomplete";
        return false;
      }
      ComposeAttachment a;
      a.name = value.substr(0, t1);
      a.type = value.substr(t1 + 1, t2 - t1 - 1);
      std::string rest = value.substr(t2 + 1);
      if (rest.size() > 10 && rest.compare(rest.size() - 10, 10, "\ttemporary") == 0) {
        a.temporary = true;
        rest.resize(rest.size() - 10);
      }
      a.path = rest;
      atts->push_back(a);
    }
    // Other names are skipped: a later version may write more.
  }
  if (form_size > data.size() - at || script_size > data.size() - at - form_size) {
    *error = "the form is longer than the file";
    return false;
  }
  if (form) *form = data.substr(at, form_size);
  if (script) *script = {script_name, data.substr(at + form_size, script_size)};
  *text = data.substr(at + form_size + script_size);
  return true;
}

int ComposeAutosave(ComposeInfo* info) {
  if (!info) return 0;
  const std::string dir = ComposeAutosaveDir();
  ::mkdir(dir.c_str(), 0700);
  if (info->autosave_file.empty()) info->autosave_file = NewName();
  std::string form;
  FormLayout layout;
  std::string form_error;
  // A stored form's fields are what the user wrote; a form script's window
  // has no text of its own to keep.
  if (info->form_pane && !info->form_tcl && FormCurrent(info->form_pane, &layout) &&
      !FormFormat(layout, &form, &form_error)) {
    Trace(kTraceCompose, kTraceCritical, "ComposeAutosave: the form: %s\n", form_error.c_str());
    form.clear();
  }
  ComposeScriptForm script;
  if (info->form_pane && info->form_tcl) ComposeSnapshotScriptForm(info, &script);
  const std::string data = ComposeAutosaveText(ComposeGetFields(info), info->options.kind, info->attachment_list,
                                               ComposeTextGet(info->text_pane), form, script);
  SafeFileError err;
  if (!safe_replace_file(info->autosave_file, data, 0600, &err)) {
    Trace(kTraceCompose, kTraceCritical, "ComposeAutosave: %s: %s\n", info->autosave_file.c_str(), err.text().c_str());
    return 0;
  }
  return 1;
}

int COMP_OfferRestore() {
  const std::string dir = ComposeAutosaveDir();
  DIR* d = ::opendir(dir.c_str());
  if (!d) return 0;
  std::vector<std::string> names;
  while (dirent* e = ::readdir(d)) {
    long pid = 0;
    int serial = 0;
    char tail[8] = "";
    if (std::sscanf(e->d_name, "compose-%ld-%d.%4s", &pid, &serial, tail) != 3 || std::strcmp(tail, "txt") != 0) continue;
    // A file of a program still running belongs to its window.
    if (pid != ::getpid() && pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM)) continue;
    names.push_back(e->d_name);
    if (names.size() >= 100) break;
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  int restored = 0;
  for (const std::string& name : names) {
    const std::string path = dir + "/" + name;
    bool ours = false;
    for (WINDOW w : ComposeWindows())
      if (ComposeInfo* info = ComposeInfoOf(w)) ours |= info->autosave_file == path;
    if (ours) continue;
    std::string data, error, text, form;
    ComposeScriptForm script;
    ComposeFields f;
    int kind = kComposeNew;
    std::vector<ComposeAttachment> atts;
    if (!ReadSmallFile(path, &data, &error) || !ComposeAutosaveParse(data, &f, &kind, &atts, &text, &error, &form, &script)) {
      xvt_dm_post_error("A message kept from an earlier session could not be read (%s: %s). The file is left as it is.",
                        path.c_str(), error.c_str());
      continue;
    }
    const ASK_RESPONSE r = xvt_dm_post_ask(
        "Restore", "Later", "Discard",
        "Velmar ended while you were writing a message.\n\nTo: %s\nSubject: %s\n\nRestore it in a compose window?",
        f.to.c_str(), f.subject.c_str());
    if (r == RESP_2) continue;
    if (r == RESP_3) {
      for (const ComposeAttachment& a : atts)
        if (a.temporary) ::unlink(a.path.c_str());
      ::unlink(path.c_str());
      continue;
    }
    std::string missing;
    std::vector<ComposeAttachment> present;
    for (const ComposeAttachment& a : atts) {
      if (::access(a.path.c_str(), R_OK) == 0)
        present.push_back(a);
      else
        missing += "\n" + a.name;
    }
    WINDOW win = ComposeRestoreWindow(kind, f, text, present);
    ComposeInfo* info = ComposeInfoOf(win);
    if (info && !form.empty() && ComposeRestoreForm(info, form)) ComposeAutosave(info);
    if (info && !script.name.empty() && ComposeRestoreScriptForm(info, script)) ComposeAutosave(info);
    // The old file stays until the new one stands.
    if (!info || info->autosave_file.empty() || ::access(info->autosave_file.c_str(), F_OK) != 0) continue;
    ::unlink(path.c_str());
    ++restored;
    if (!missing.empty()) xvt_dm_post_note("These attachments could not be found any more:%s", missing.c_str());
  }
  return restored;
}
