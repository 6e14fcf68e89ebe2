// The compose window: its record, panes and menu, how each kind is
// prefilled, the attachments, closing with changes and the exit question.
#include "src/compose/compose.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "c-client/rfc822/mime_display.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/books/book_window.h"
#include "src/compose/compose_internal.h"
#include "src/compose/compose_text.h"
#include "src/script/forms.h"
#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/security/pgp_mime.h"
#include "src/spell/spell_dialog.h"
#include "src/viewer/attach.h"
#include "src/viewer/viewer_internal.h"

namespace {

const MENU_ITEM kFileMenu[] = {
    {M_COMPOSE_SEND, "~Send\tCtrl+Return", true, false, false, nullptr},
    {M_COMPOSE_SAVE_DRAFT, "Save to ~Drafts\tCtrl+S", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_COMPOSE_ATTACH, "~Attach File...", true, false, false, nullptr},
    {M_COMPOSE_DETACH, "~Detach File", true, false, false, nullptr},
    {M_COMPOSE_INSERT, "~Insert File...", true, false, false, nullptr},
    {0, nullptr, false, false, true, nullptr},
    {M_COMPOSE_CLOSE, "~Close", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};
const MENU_ITEM kEditMenu[] = {
    {M_COMPOSE_EXPAND, "~Expand Aliases", true, false, false, nullptr},
    {M_COMPOSE_ADDRESS_BOOK, "~Address Book...", true, false, false, nullptr},
    {M_COMPOSE_SPELL, "Check ~Spelling...\tF7", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};
const MENU_ITEM kSecurityMenu[] = {
    {M_COMPOSE_SIGN, "~Sign", true, false, false, nullptr},
    {M_COMPOSE_ENCRYPT, "~Encrypt", true, false, false, nullptr},
    {M_COMPOSE_PGP_MIME, "~OpenPGP/MIME", true, false, false, nullptr},
    {0, nullptr, false, false, false, nullptr},
};
const MENU_ITEM kBar[] = {
    {1, "~File", true, false, false, kFileMenu},
    {2, "~Edit", true, false, false, kEditMenu},
    {3, "Se~curity", true, false, false, kSecurityMenu},
    {0, nullptr, false, false, false, nullptr},
};

const char* const kFieldLabels[5] = {"To:", "Cc:", "Bcc:", "Reply-To:", "Subject:"};
const int kFieldIds[5] = {kComposeToId, kComposeCcId, kComposeBccId, kComposeReplyToId, kComposeSubjectId};

struct State {
  std::vector<WINDOW> windows;
  bool building = false;  // one window under construction at a time
  int reply_all = -1;     // the choice compose_reply passes to the prefill
  const ComposeFields* restore_fields = nullptr;
  const std::string* restore_text = nullptr;
  const std::vector<ComposeAttachment>* restore_attachments = nullptr;
};
State& S() {
  static State s;
  return s;
}

std::string Title(int kind, const std::string& tag) {
  switch (kind) {
    case kComposeViewCopy: return "Viewer";
    case kComposeNew: return tag == kForwardAsAttachmentTag ? "Forward" : "Compose";
    case kComposeDraft: return "Compose Draft";
    case kComposeReply: return "Reply";
    case kComposeForward: return "Forward";
    case kComposeRestart: return "Restart Compose";
    default: return tag.empty() ? "Compose" : tag;
  }
}

std::string Header(UMI umi, const char* name) {
  auto v = MM_MsgHeaderContent(umi, name);
  return v ? ComposeTrim(*v) : "";
}

// A header as the reader sees it: encoded words decoded.
std::string Display(UMI umi, const char* name) { return ComposeTrim(mime_display_text(Header(umi, name).c_str())); }

// An address header for an address field: each personal name decoded on
// its own, so that a decoded comma or quote cannot split an address.
std::string Addresses(UMI umi, const char* name) {
  const std::string raw = Header(umi, name);
  MailAddress* list = ComposeParseAddresses(raw, false);
  if (!list) return "";
  // Group names and their ends carry no address: a reply goes to the members.
  MailAddress* kept = nullptr;
  MailAddress** tail = &kept;
  bool bad = false;
  while (list) {
    MailAddress* a = list;
    list = a->next;
    a->next = nullptr;
    bad |= a->error != nullptr;
    if (!a->host) {
      mail_free_address(&a);
      continue;
    }
    if (a->personal) {
      const std::string decoded = mime_display_text(a->personal);
      FS_GIVE(&a->personal);
      a->personal = cpystr(decoded.c_str());
    }
    *tail = a;
    tail = &a->next;
  }
  list = kept;
  if (bad) {
    mail_free_address(&list);
    return ComposeTrim(mime_display_text(raw.c_str()));  // shown as it came; Send will refuse it
  }
  std::string out = ComposeAddressText(list);
  mail_free_address(&list);
  return out;
}

// Yes for "Always", no for "Never", else the question.
bool Decide(const char* option, int question) {
  const std::string v = Opt_LookupText(option, kOptSession);
  if (!strcasecmp(v.c_str(), "Always")) return true;
  if (!strcasecmp(v.c_str(), "Never")) return false;
  return xvt_dm_post_ask("Yes", "No", nullptr, "%s", ErrorText(question)) == RESP_DEFAULT;
}

void Layout(ComposeInfo* info) {
  RCT c{};
  if (!xvt_vobj_get_client_rect(info->window, &c)) return;
  constexpr int kRow = 26, kLabel = 76;
  for (int i = 0; i < 5; ++i) {
    RCT label{4, 4 + i * kRow, kLabel, 4 + i * kRow + 22};
    RCT edit{kLabel + 4, 4 + i * kRow, std::max(kLabel + 40, c.right - 4), 4 + i * kRow + 22};
    if (WINDOW l = xvt_win_get_ctl(info->window, 100 + kFieldIds[i])) xvt_vobj_move(l, &label);
    if (info->address_panel[i]) xvt_vobj_move(info->address_panel[i], &edit);
  }
  const int top = 4 + 5 * kRow + 4;
  const bool attachments = !info->attachment_list.empty();
  const int list_h = attachments ? 80 : 0;
  RCT text{0, top, c.right, std::max(top + 20, c.bottom - list_h - (attachments ? 4 : 0))};
  RCT list{0, std::max(top + 24, c.bottom - list_h), c.right, c.bottom};
  xvt_vobj_move(info->text_pane, &text);
  ComposeLayoutForm(info, text);
  xvt_vobj_move(info->attachment_pane, &list);
  xvt_vobj_set_visible(info->attachment_pane, attachments);
}

void Describe(WINDOW win, std::string* out) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return;
  const ComposeFields f = ComposeGetFields(info);
  *out += "To: " + f.to + "\nCc: " + f.cc + "\nBcc: " + f.bcc + "\nReply-To: " + f.reply_to + "\nSubject: " +
          f.subject + "\n";
  if (!f.in_reply_to.empty()) *out += "In-Reply-To: " + f.in_reply_to + "\n";
  *out += "text:\n" + ComposeTextGet(info->text_pane);
  if (out->back() != '\n') *out += '\n';
  for (const ComposeAttachment& a : info->attachment_list) *out += "attachment: " + a.name + " (" + a.type + ")\n";
}

std::string FieldsKey(const ComposeFields& f) {
  return f.to + '\1' + f.cc + '\1' + f.bcc + '\1' + f.reply_to + '\1' + f.subject;
}

}  // namespace

void ComposeLayout(ComposeInfo* info) { Layout(info); }

namespace {

// Tab and Shift-Tab that a pane hands on: the address fields, then the
// text or the form (entered at its first field, or its last going back),
// then the attachment list when it shows, round the end.
void StepFocus(ComposeInfo* info, bool back) {
  std::vector<WINDOW> panes(info->address_panel, info->address_panel + 5);
  panes.push_back(info->form_pane ? info->form_pane : info->text_pane);
  if (xvt_vobj_is_visible(info->attachment_pane)) panes.push_back(info->attachment_pane);
  WINDOW focus = xvt_scr_get_focus_vobj();
  // Focus inside the form counts as the form's.
  if (info->form_pane && focus && xvt_vobj_get_parent(focus) == info->form_pane) focus = info->form_pane;
  const size_t n = panes.size();
  size_t at = back ? 0 : n - 1;
  for (size_t i = 0; i < n; ++i)
    if (panes[i] == focus) at = i;
  WINDOW next = panes[back ? (at + n - 1) % n : (at + 1) % n];
  if (next == info->form_pane)
    FormFocusEdge(next, back);
  else if (next)
    xvt_scr_set_focus_vobj(next);
}

}  // namespace

void ComposeMarkSaved(ComposeInfo* info) {
  info->address_snapshot = FieldsKey(ComposeGetFields(info));
  ComposeTextSetModified(info->text_pane, false);
  info->options.changed = 0;
}

namespace {

int Want(ModelEvent* ev, void* data) {
  auto* info = static_cast<ComposeInfo*>(data);
  switch (ev->type) {
    case E_ABANDON_SHIP:
    case E_EXIT_QUERY: return 1;
    case E_FONT_CHANGED: return ev->value == kFontCompose;
    case E_FOLDER_CLOSED:
    case E_FOLDER_INVALID: return info->umi && ev->folder == MM_UMIFolder(info->umi);
    case E_DELETED_FLAG_SET:
    case E_MSG_EXPUNGED: return info->umi && ev->umi == info->umi;
    default: return 0;
  }
}

void Handle(ModelEvent* ev, void* data) {
  auto* info = static_cast<ComposeInfo*>(data);
  if (ev->type == E_FONT_CHANGED) {
    ComposeTextSetFont(info->text_pane, Font_Lookup(kFontCompose));
    return;
  }
  if (ev->type == E_ABANDON_SHIP) {
    // The windows are about to go with the program: what was not dealt
    // with waits in the autosave file, written while the panes still stand.
    if (ComposeIsModified(info)) ComposeAutosave(info);
    else if (!info->autosave_file.empty()) ::unlink(info->autosave_file.c_str());
    info->umi = 0;
    return;
  }
  if (ev->type != E_EXIT_QUERY) {
    // The original is going: the window no longer refers to it.
    info->umi = 0;
    return;
  }
  short go_on = 1;
  if (Opt_LookupBoolean("General.ExitVelmar", &go_on, kOptSession) && go_on == 0) return;  // already refused
  compose_close(info->window);
}

void SignatureInto(std::string* text) {
  int lines = 0;
  if (!Opt_LookupInt("Compose.Signature.Lines", &lines, kOptSession) || lines <= 0) return;
  lines = std::min(lines, 100);
  std::string sig;
  for (int i = 1; i <= lines; ++i) {
    std::string line = Opt_LookupText(("Compose.Signature." + std::to_string(i)).c_str(), kOptSession);
    if (line.size() > 1000) line.resize(1000);
    sig += line + "\n";
  }
  if (!text->empty() && text->back() != '\n') *text += '\n';
  *text += sig;
}

void DeleteTempFiles(ComposeInfo* info) {
  for (const std::string& f : info->options.temp_files) ::unlink(f.c_str());
  info->options.temp_files.clear();
}

}  // namespace

// --- Pieces shared with the other compose files ---------------------------------------

std::string ComposeOriginalText(UMI umi) {
  if (!umi) return "";
  return ViewerBuildContent(umi).text;
}

std::string ComposeTypeForName(const std::string& name) {
  const std::string ext = AttachExtension(name);
  if (ext.empty()) return "application/octet-stream";
  FILE* f = std::fopen("/etc/mime.types", "r");
  if (!f) return "application/octet-stream";
  std::string found;
  char line[1024];
  // A bounded read: the table is a system file, but no reason to trust its size.
  for (int n = 0; n < 20000 && !found.size() && std::fgets(line, sizeof line, f); ++n) {
    if (line[0] == '#') continue;
    char* save = nullptr;
    char* type = strtok_r(line, " \t\r\n", &save);
    if (!type || !std::strchr(type, '/')) continue;
    while (char* e = strtok_r(nullptr, " \t\r\n", &save))
      if (!strcasecmp(e, ext.c_str())) {
        found = type;
        break;
      }
  }
  std::fclose(f);
  return found.empty() ? "application/octet-stream" : found;
}

void ComposeForgetFiles(ComposeInfo* info) {
  for (const ComposeAttachment& a : info->attachment_list)
    if (a.temporary) ::unlink(a.path.c_str());
  DeleteTempFiles(info);
  if (!info->autosave_file.empty()) ::unlink(info->autosave_file.c_str());
}

void ComposeRefreshAttachments(ComposeInfo* info) {
  if (!info->attachment_pane) return;
  xvt_list_suspend(info->attachment_pane);
  xvt_list_clear(info->attachment_pane);
  for (const ComposeAttachment& a : info->attachment_list)
    xvt_list_add(info->attachment_pane, -1, (a.name + "  (" + a.type + ")").c_str());
  xvt_list_resume(info->attachment_pane);
  Layout(info);
}

ComposeOptions ComposeReadOptions(int kind, const char* tag) {
  ComposeOptions o;
  o.kind = kind;
  o.tag = tag ? tag : "";
  short b = 0;
  o.save_outgoing = Opt_LookupBoolean("Compose.SaveOutgoing", &b, kOptSession) && b ? 1 : 0;
  o.queue_outgoing = strcasecmp(Opt_LookupText("Compose.QueueOutgoing", kOptSession).c_str(), "TRUE") == 0;
  o.read_receipt = Opt_LookupBoolean("Compose.RequestReadRcpt", &b, kOptSession) && b ? 1 : 0;
  o.delivery_receipt = Opt_LookupBoolean("Compose.RequestDeliveryRcpt", &b, kOptSession) && b ? 1 : 0;
  const std::string p = Opt_LookupText("Compose.Priority", kOptSession);
  o.priority = !strcasecmp(p.c_str(), "Low") ? 0 : !strcasecmp(p.c_str(), "High") ? 2 : 1;
  o.encrypt = Opt_LookupBoolean("Security.AutoEncrypt", &b, kOptSession) && b ? 1 : 0;
  o.sign = Opt_LookupBoolean("Security.AutoSign", &b, kOptSession) && b ? 1 : 0;
  o.pgp_mime = pgp_use_mime() ? 1 : 0;
  const std::string d = Opt_LookupText("Compose.Disposition", kOptSession);
  o.disposition = !strcasecmp(d.c_str(), "Clear") ? kDispositionClear
                  : !strcasecmp(d.c_str(), "Remain") ? kDispositionRemain
                                                      : kDispositionClose;
  short remote = 1;
  if (Opt_LookupBoolean("General.RemoteMode", &remote, kOptSession) && !remote) {
    o.queue_outgoing = 1;
    Opt_AssignString("Compose.QueueOutgoing", "TRUE", kOptSession, 0);
  }
  return o;
}

void ComposePrefill(ComposeInfo* info) {
  const int kind = info->options.kind;
  const UMI umi = info->umi;
  ComposeFields f;
  std::string text;
  const std::string reply_to_option = Opt_LookupText("General.ReplyTo", kOptSession);
  if (umi && (kind == kComposeReply || kind == kComposeForward)) {
    if (kind == kComposeReply) {
      std::string source;
      for (const char* h : {"Reply-To", "From", "Sender"})
        if (source.empty()) source = Addresses(umi, h);
      f.to = source;
      const std::string cc = remove_own_address(Addresses(umi, "Cc"));
      const std::string to = remove_own_address(Addresses(umi, "To"));
      if (!cc.empty() || !to.empty()) {
        const int all = S().reply_all;
        bool yes;
        if (all >= 0) {
          yes = all == 1;
        } else {
          const std::string v = Opt_LookupText("Reply.All", kOptSession);
          yes = !strcasecmp(v.c_str(), "Always") ? true
                : !strcasecmp(v.c_str(), "Never") ? false
                                                   : xvt_dm_post_ask("Yes", "No", nullptr, "%s", ErrorText(3011)) == RESP_DEFAULT;
        }
        if (yes) f.cc = cc.empty() ? to : to.empty() ? cc : cc + ", " + to;
      }
      f.subject = ComposeReplySubject(Display(umi, "Subject"));
      f.in_reply_to = Header(umi, "Message-ID");
      std::string refs = Header(umi, "References");
      if (refs.empty()) refs = Header(umi, "In-Reply-To");
      f.references = ComposeReferences(refs, f.in_reply_to);
      if (Decide("Reply.Text", 3046)) {
        std::string date = Header(umi, "Date"), from = Addresses(umi, "From");
        if (date.empty()) date = "<UNKNOWN DATE>";
        if (from.empty()) from = Addresses(umi, "Sender");
        if (from.empty()) from = "<UNKNOWN>";
        int width = 0;
        const bool wrap = Opt_LookupText("Reply.WrapOriginalText", kOptSession) == "TRUE" &&
                          Opt_LookupInt("Compose.LineWrap", &width, kOptSession) && width > 0;
        std::string prefix = Opt_LookupText("Reply.OriginalTextPrefix", kOptSession);
        if (prefix.empty()) prefix = "> ";
        text = "On " + date + " " + from + " wrote:\n" +
               ComposeQuoteText(ComposeOriginalText(umi), prefix, wrap ? std::min(width, 1000) : 150);
      }
    } else {
      f.subject = ComposeForwardSubject(Display(umi, "Subject"));
      if (info->options.tag != kForwardAsAttachmentTag) text = ComposeForwardBlock(umi, ComposeOriginalText(umi));
    }
    f.reply_to = reply_to_option;
  } else if (umi && kind == kComposeRestart) {
    f.to = Addresses(umi, "To");
    f.cc = Addresses(umi, "Cc");
    f.bcc = Addresses(umi, "Bcc");
    f.reply_to = Addresses(umi, "Reply-To");
    f.subject = Display(umi, "Subject");
    f.in_reply_to = Header(umi, "In-Reply-To");
    f.references = Header(umi, "References");
    ViewerContent content = ViewerBuildContent(umi);
    text = content.text;
    // The draft's enclosures come back as files of this window.
    for (const AttachRow& row : content.rows) {
      if (row.container || row.section.empty() || row.section == content.text_section) continue;
      const std::string file = MM_MsgSectionContentToFile(umi, row.section.c_str());
      if (file.empty()) continue;
      ComposeAttachment a;
      a.path = file;
      a.name = row.name.empty() ? "attachment" : row.name;
      a.type = row.mime.empty() ? "application/octet-stream" : row.mime;
      a.temporary = true;
      info->attachment_list.push_back(a);
    }
  } else {
    f.reply_to = reply_to_option;
  }
  if (kind != kComposeRestart) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    // The signature goes below what was quoted or forwarded; a new message
    // starts with an empty line above it for the user's text.
    if (kind == kComposeReply || kind == kComposeForward) text = "\n" + text;
    SignatureInto(&text);
  }
  ComposeSetFields(info, f);
  ComposeTextSet(info->text_pane, text);
}

// --- The record and the fields ---------------------------------------------------------

ComposeInfo* ComposeInfoOf(WINDOW win) {
  if (!win || !xvt_vobj_is_valid(win)) return nullptr;
  auto* info = reinterpret_cast<ComposeInfo*>(xvt_vobj_get_data(win));
  return info && info->kind == kComposeInfoKind ? info : nullptr;
}

std::vector<WINDOW> ComposeWindows() { return S().windows; }

ComposeFields ComposeGetFields(ComposeInfo* info) {
  ComposeFields f;
  std::string* slots[5] = {&f.to, &f.cc, &f.bcc, &f.reply_to, &f.subject};
  for (int i = 0; i < 5; ++i) {
    if (!info->address_panel[i]) continue;
    std::string buffer(65536, '\0');
    if (xvt_vobj_get_title(info->address_panel[i], buffer.data(), buffer.size())) *slots[i] = buffer.c_str();
  }
  f.in_reply_to = info->in_reply_to;
  f.references = info->references;
  return f;
}

void ComposeSetFields(ComposeInfo* info, const ComposeFields& f) {
  const std::string* slots[5] = {&f.to, &f.cc, &f.bcc, &f.reply_to, &f.subject};
  for (int i = 0; i < 5; ++i) {
    std::string v = *slots[i];
    std::replace(v.begin(), v.end(), '\n', ' ');
    std::replace(v.begin(), v.end(), '\r', ' ');
    if (info->address_panel[i]) xvt_vobj_set_title(info->address_panel[i], v.c_str());
  }
  info->in_reply_to = f.in_reply_to;
  info->references = f.references;
}

bool ComposeIsModified(ComposeInfo* info) {
  if (!info) return false;
  return info->options.changed || ComposeTextModified(info->text_pane) ||
         FieldsKey(ComposeGetFields(info)) != info->address_snapshot;
}

// --- Opening ----------------------------------------------------------------------------

WINDOW createComposeWin(int kind, UMI umi, const char* tag) {
  Trace(kTraceCompose, kTraceAll, "createComposeWin: function entry.\n");
  State& s = S();
  if (s.building) return NULL_WIN;
  s.building = true;
  if (!xvt_res_get_menubar(kComposeMenuBar)) xvt_res_register_menubar(kComposeMenuBar, kBar);
  auto* info = new ComposeInfo;
  info->umi = umi;
  info->options = ComposeReadOptions(kind, tag);
  const int n = static_cast<int>(s.windows.size());
  RCT r{80 + 20 * (n % 8), 50 + 20 * (n % 8), 80 + 20 * (n % 8) + 680, 50 + 20 * (n % 8) + 560};
  WINDOW win = xvt_win_create(W_DOC, &r, Title(kind, info->options.tag).c_str(), kComposeMenuBar, TASK_WIN,
                              WSF_SIZE | WSF_CLOSE | WSF_MAXIMIZABLE, EM_ALL, compose_eh,
                              reinterpret_cast<intptr_t>(info));
  if (!win) {
    xvt_dm_post_error("Unable to create editor compose window");
    delete info;
    s.building = false;
    return NULL_WIN;
  }
  info->window = win;
  xvt_vobj_set_data(win, reinterpret_cast<intptr_t>(info));
  RCT zero{0, 0, 10, 10};
  for (int i = 0; i < 5; ++i) {
    xvt_ctl_create(WC_TEXT, &zero, kFieldLabels[i], win, 0, 100 + kFieldIds[i]);
    info->address_panel[i] = xvt_ctl_create(WC_EDIT, &zero, "", win, 0, kFieldIds[i]);
  }
  info->text_pane = ComposeTextCreate(win, kComposeTextId);
  ComposeTextSetFont(info->text_pane, Font_Lookup(kFontCompose));
  info->attachment_pane = xvt_ctl_create(WC_LBOX, &zero, "", win, 0, kComposeAttachId);
  xvt_win_set_describe(win, Describe);
  info->notifier = MM_NotRegister(Want, Handle, info, "compose.c : compose");
  s.windows.push_back(win);
  if (s.restore_fields) {
    ComposeSetFields(info, *s.restore_fields);
    ComposeTextSet(info->text_pane, *s.restore_text);
    info->attachment_list = *s.restore_attachments;
  } else {
    if (umi && (kind == kComposeReply || kind == kComposeForward || kind == kComposeRestart) && !MM_MsgIsRead(umi))
      MM_MsgSetFlag(umi, "\\Seen");
    ComposePrefill(info);
  }
  ComposeMarkSaved(info);
  ComposeRefreshAttachments(info);
  info->autosave_timer = xvt_timer_create(win, kAutosavePeriodMs);
  setComposeMenus(win);
  Layout(info);
  xvt_scr_set_focus_vobj(kind == kComposeNew || kind == kComposeForward ? info->address_panel[0] : info->text_pane);
  s.building = false;
  return win;
}

WINDOW compose_new() { return createComposeWin(kComposeNew, 0, nullptr); }

WINDOW compose_reply(UMI umi, int all) {
  if (!umi) return NULL_WIN;
  S().reply_all = all;
  WINDOW win = createComposeWin(kComposeReply, umi, nullptr);
  S().reply_all = -1;
  return win;
}

WINDOW compose_forward(UMI umi, int as_attachment) {
  if (!umi) return NULL_WIN;
  if (as_attachment < 0) {
    const std::string v = Opt_LookupText("Forward.Attachment", kOptSession);
    as_attachment = !strcasecmp(v.c_str(), "Always") ? 1
                    : !strcasecmp(v.c_str(), "Prompt")
                        ? xvt_dm_post_ask("Yes", "No", nullptr, "Do you want to forward this message as an attachment?") ==
                              RESP_DEFAULT
                        : 0;
  }
  if (!as_attachment) return createComposeWin(kComposeForward, umi, nullptr);
  // The window is a new message that carries the original; it is prefilled
  // as a forward.
  WINDOW win = createComposeWin(kComposeForward, umi, kForwardAsAttachmentTag);
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return NULL_WIN;
  add_message_as_attachment(win, umi);
  info->options.kind = kComposeNew;
  xvt_vobj_set_title(win, Title(kComposeNew, info->options.tag).c_str());
  ComposeMarkSaved(info);
  return win;
}

WINDOW compose_restart(UMI umi) {
  if (!umi) return NULL_WIN;
  return createComposeWin(kComposeRestart, umi, nullptr);
}

WINDOW ComposeRestoreWindow(int kind, const ComposeFields& f, const std::string& text,
                            const std::vector<ComposeAttachment>& atts) {
  State& s = S();
  s.restore_fields = &f;
  s.restore_text = &text;
  s.restore_attachments = &atts;
  WINDOW win = createComposeWin(kind == kComposeRestart || kind == kComposeForm ? kComposeDraft : kind, 0, nullptr);
  s.restore_fields = nullptr;
  s.restore_text = nullptr;
  s.restore_attachments = nullptr;
  if (ComposeInfo* info = ComposeInfoOf(win)) {
    // What came back is not yet saved anywhere but in the autosave file.
    info->options.changed = 1;
    ComposeAutosave(info);
  }
  return win;
}

// --- Attachments ----------------------------------------------------------------------------

int add_message_as_attachment(WINDOW win, UMI umi) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info || !umi) return 0;
  const std::string file = MM_MsgToFile(umi);
  if (file.empty()) {
    xvt_dm_post_error("The message could not be attached.");
    return 0;
  }
  ComposeAttachment a;
  a.path = file;
  std::string subject = Display(umi, "Subject");
  a.name = AttachSafeName(subject.empty() ? "message" : subject);
  if (a.name.empty()) a.name = "message";
  a.type = "message/rfc822";
  a.temporary = true;
  info->attachment_list.push_back(a);
  ComposeRefreshAttachments(info);
  return 1;
}

int compose_attach_file(WINDOW win, const char* path) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return 0;
  char chosen[4096] = "";
  if (!path) {
    if (!xvt_dm_post_file_open("Select file to attach", chosen, sizeof chosen)) return 0;
    path = chosen;
  }
  struct stat st {};
  if (!*path || ::stat(path, &st) != 0 || !S_ISREG(st.st_mode) || ::access(path, R_OK) != 0) {
    xvt_dm_post_error("Invalid attachment filename - %s", path);
    return 0;
  }
  ComposeAttachment a;
  a.path = path;
  const std::string base = std::string(path).substr(std::string(path).rfind('/') + 1);
  a.name = AttachSafeName(base);
  if (a.name.empty()) a.name = "attachment";
  a.type = ComposeTypeForName(a.name);
  info->attachment_list.push_back(a);
  info->options.changed = 1;
  ComposeRefreshAttachments(info);
  return 1;
}

void compose_detach_selected(WINDOW win) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return;
  for (int i = static_cast<int>(info->attachment_list.size()) - 1; i >= 0; --i) {
    if (!xvt_list_is_sel(info->attachment_pane, i)) continue;
    const ComposeAttachment& a = info->attachment_list[static_cast<size_t>(i)];
    if (a.temporary) ::unlink(a.path.c_str());
    info->attachment_list.erase(info->attachment_list.begin() + i);
    info->options.changed = 1;
  }
  ComposeRefreshAttachments(info);
}

namespace {

void InsertFile(ComposeInfo* info) {
  char chosen[4096] = "";
  if (!xvt_dm_post_file_open("Select the file to insert:", chosen, sizeof chosen)) return;
  FILE* f = std::fopen(chosen, "rb");
  if (!f) {
    xvt_dm_post_error("The file %s could not be read.", chosen);
    return;
  }
  std::string data;
  char block[8192];
  while (size_t n = std::fread(block, 1, sizeof block, f)) {
    data.append(block, n);
    if (data.size() > (4u << 20)) break;
  }
  std::fclose(f);
  if (data.size() > (4u << 20)) {
    xvt_dm_post_error("The file %s is too big to insert as text; attach it instead.", chosen);
    return;
  }
  ComposeTextInsert(info->text_pane, data);
}

}  // namespace

// --- Closing ---------------------------------------------------------------------------------

int compose_close(WINDOW win) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info || info->closing) return 0;
  if (ComposeIsModified(info)) {
    // Whatever the answer, the text is on disk before the question is.
    ComposeAutosave(info);
    const ASK_RESPONSE r = xvt_dm_post_ask("Yes", "No", "Cancel", "%s", ErrorText(3010));
    if (r == RESP_3) {
      Opt_AssignInt("General.ExitVelmar", 0, kOptSession, 0);
      return 0;
    }
    if (r == RESP_DEFAULT) {
      const int16_t draft = info->options.draft;
      const int32_t disposition = info->options.disposition;
      info->options.draft = 1;
      info->options.disposition = kDispositionClose;
      const int ok = send_mail(win);
      info = ComposeInfoOf(win);
      if (!info) return 1;
      info->options.draft = draft;
      info->options.disposition = disposition;
      if (!ok) {
        // Not saved: the window stays, and so does the program.
        Opt_AssignInt("General.ExitVelmar", 0, kOptSession, 0);
        return 0;
      }
      ComposeMarkSaved(info);
    } else {
      ComposeMarkSaved(info);  // the user let it go
    }
  }
  info->closing = true;
  xvt_vobj_destroy(win);
  return 1;
}

// --- Menus and events ------------------------------------------------------------------------

void setComposeMenus(WINDOW win) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return;
  xvt_menu_set_item_enabled(win, M_COMPOSE_DETACH, !info->attachment_list.empty());
  xvt_menu_set_item_checked(win, M_COMPOSE_SIGN, info->options.sign != 0);
  xvt_menu_set_item_checked(win, M_COMPOSE_ENCRYPT, info->options.encrypt != 0);
  xvt_menu_set_item_checked(win, M_COMPOSE_PGP_MIME, info->options.pgp_mime != 0);
}

void doComposeMenu(WINDOW win, int command) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return;
  switch (command) {
    case M_COMPOSE_SEND: send_mail(win); break;
    case M_COMPOSE_SAVE_DRAFT: compose_save_draft(win); break;
    case M_COMPOSE_ATTACH: compose_attach_file(win, nullptr); break;
    case M_COMPOSE_DETACH: compose_detach_selected(win); break;
    case M_COMPOSE_INSERT: InsertFile(info); break;
    case M_COMPOSE_EXPAND: ExpandAllAddresses(win); break;
    case M_COMPOSE_ADDRESS_BOOK: {
      // Entries go to the address field being edited, else to To.
      WINDOW target = info->address_panel[0];
      for (int i = 0; i < 3; ++i)
        if (info->address_panel[i] && info->address_panel[i] == xvt_scr_get_focus_vobj()) target = info->address_panel[i];
      ABK_QuickSearch(0, target);
      break;
    }
    case M_COMPOSE_SPELL: Spell_CheckWindow(info->address_panel[4], info->text_pane, false); break;
    case M_COMPOSE_SIGN: info->options.sign = !info->options.sign; break;
    case M_COMPOSE_ENCRYPT: info->options.encrypt = !info->options.encrypt; break;
    case M_COMPOSE_PGP_MIME: info->options.pgp_mime = !info->options.pgp_mime; break;
    case M_COMPOSE_CLOSE: compose_close(win); return;
    default:
      // The program's own commands (Exit, Options) belong to the task window.
      if (TASK_WIN && win != TASK_WIN) {
        EVENT ev{};
        ev.type = E_COMMAND;
        ev.v.cmd.tag = command;
        xvt_win_dispatch_event(TASK_WIN, &ev);
      }
      return;
  }
  setComposeMenus(win);
}

long compose_eh(WINDOW win, EVENT* ev) {
  ComposeInfo* info = ComposeInfoOf(win);
  switch (ev->type) {
    case E_CREATE: WinList_AddHead(win); break;
    case E_FOCUS:
      if (ev->v.active && xvt_vobj_is_valid(win)) {
        WinList_AddHead(win);
        setComposeMenus(win);
      }
      break;
    case E_SIZE:
      if (info && info->text_pane) Layout(info);
      break;
    case E_CLOSE: compose_close(win); break;
    case E_COMMAND: doComposeMenu(win, ev->v.cmd.tag); break;
    case E_CHAR:
      if (ev->v.chr.control && (ev->v.chr.ch == 'w' || ev->v.chr.ch == 'W')) compose_close(win);
      if (info && !ev->v.chr.text && (ev->v.chr.ch == K_TAB || ev->v.chr.ch == K_BTAB))
        StepFocus(info, ev->v.chr.ch == K_BTAB || ev->v.chr.shift);
      // Enter ends an address or the subject: on to the next field, and
      // from the subject to the text, as the user expects; never Send.
      if (info && ev->v.chr.ch == K_ENTER &&
          std::count(info->address_panel, info->address_panel + 5, xvt_scr_get_focus_vobj()))
        StepFocus(info, false);
      break;
    case E_TIMER:
      if (info && ev->v.timer.id == info->autosave_timer && ComposeIsModified(info)) ComposeAutosave(info);
      break;
    case E_DESTROY:
      WinList_Remove(win);
      if (info) {
        auto& w = S().windows;
        w.erase(std::remove(w.begin(), w.end(), win), w.end());
        if (info->autosave_timer) xvt_timer_destroy(info->autosave_timer);
        if (info->notifier >= 0) MM_NotUnregister(info->notifier);
        // A window closed by the user has been dealt with: sent, saved or
        // let go. One destroyed any other way keeps its autosave file (and
        // what the file refers to) for the next start; the panes may be
        // gone already, so the file is not written again here.
        if (info->closing) {
          ComposeForgetFiles(info);
        } else {
          DeleteTempFiles(info);
          if (info->autosave_file.empty() || ::access(info->autosave_file.c_str(), F_OK) != 0)
            for (const ComposeAttachment& a : info->attachment_list)
              if (a.temporary) ::unlink(a.path.c_str());
        }
        ComposeTextForget(info->text_pane);
        xvt_vobj_set_data(win, 0);
        info->kind = 0;
        delete info;
      }
      break;
    default: break;
  }
  return 0;
}
