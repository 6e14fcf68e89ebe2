#include "src/prefs/prefs.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "src/base/cenv.h"
#include "src/base/errors.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/base/window_list.h"
#include "src/options/font_options.h"
#include "src/options/options.h"
#include "src/options/session.h"
#include "src/prefs/prefs_internal.h"

namespace {

const char* const kPageNames[kPrefPageCount] = {
    "Identity", "Message Services", "Sending", "Reading", "Composing", "Address Books", "Options Location", "Fonts",
    "Directory",
};

// Fields whose control stands for one option, and a few that share one.
enum FieldKind {
  kText,
  kNumber,
  kCheck,
  kChoice,
  kSignature,     // Compose.Signature.Lines and one option per line
  kSmtpHost,      // the host part of General.DeliveryHost
  kSmtpSecurity,  // its security switch
};

struct Choice {
  const char* label;
  const char* word;
};

struct Field {
  int page;
  int row;
  FieldKind kind;
  int id;
  const char* label;
  const char* option;
  // kCheck: the words written for on and off, and the state of an option
  // without a value (what its reader assumes then).
  const char* on_word = "ON";
  const char* off_word = "OFF";
  bool default_on = false;
  const Choice* choices = nullptr;  // kChoice, kSmtpSecurity; ends with a null label
  int min = 0, max = 0;             // kNumber
  int event = -1;                   // model event to post when it changed
};

const Choice kSecurityChoices[] = {
    {"When offered (STARTTLS)", ""}, {"Always STARTTLS", "tls"}, {"TLS from the start", "ssl"}, {"Never", "none"}, {}};
const Choice kReceiptChoices[] = {{"Ask me", "Prompt"}, {"Always send", "Always"}, {"Never send", "Never"}, {}};
// The questions a reply or a forward may ask; anything but the two words asks.
const Choice kAskChoices[] = {{"Ask me", "Prompt"}, {"Always", "Always"}, {"Never", "Never"}, {}};
// A forward goes inline unless the option says otherwise.
const Choice kForwardChoices[] = {{"Never (inline)", ""}, {"Always", "Always"}, {"Ask me", "Prompt"}, {}};
const Choice kHeaderChoices[] = {{"Short", "Short"}, {"All (raw)", "Raw"}, {}};
const Choice kDirTlsChoices[] = {{"None", "none"}, {"STARTTLS", "starttls"}, {"TLS from the start (ldaps)", "ldaps"}, {}};

// Options whose readers compare with "TRUE" take TRUE and FALSE; the others
// read any truth word, and get ON and OFF.
const Field kFields[] = {
    {kPrefPageIdentity, 0, kText, kPrefFullname, "Full name:", "General.Fullname"},
    {kPrefPageIdentity, 1, kText, kPrefAddress, "Mail address:", "General.MailAddress"},
    {kPrefPageIdentity, 2, kText, kPrefReplyTo, "Reply-To:", "General.ReplyTo"},
    {kPrefPageIdentity, 3, kSignature, kPrefSignature, "Signature:", "Compose.Signature.Lines"},

    {kPrefPageSending, 0, kSmtpHost, kPrefSmtpHost, "SMTP server:", "General.DeliveryHost"},
    {kPrefPageSending, 1, kNumber, kPrefSmtpPort, "Port (0: default):", "Send.TCPPort", "", "", false, nullptr, 0,
     65535},
    {kPrefPageSending, 2, kSmtpSecurity, kPrefSmtpSecurity, "Security:", "General.DeliveryHost", "", "", false,
     kSecurityChoices},
    {kPrefPageSending, 3, kText, kPrefSmtpUser, "Login name:", "Send.User"},
    {kPrefPageSending, 4, kText, kPrefSmtpMechanisms, "Mechanisms:", "Send.AuthMechanisms"},
    {kPrefPageSending, 5, kCheck, kPrefUseOutbox, "Put outgoing mail in the outbox", "Compose.QueueOutgoing", "TRUE",
     "FALSE"},
    {kPrefPageSending, 6, kCheck, kPrefBackground, "Send the outbox in the background", "Send.Background", "TRUE",
     "FALSE"},

    {kPrefPageReading, 0, kChoice, kPrefReceiptPolicy, "Receipts asked of me:", "General.ReadReceiptPolicy", "", "",
     false, kReceiptChoices},
    {kPrefPageReading, 1, kChoice, kPrefHeaderStyle, "Headers shown:", "Viewer.HeaderStyle", "", "", false,
     kHeaderChoices},
    {kPrefPageReading, 2, kNumber, kPrefMailTimer, "Check mail (minutes):", "Timer.Interval", "", "", false,
     nullptr, 1, 1440, E_MAIL_TIMER_CHANGED},

    {kPrefPageComposing, 0, kNumber, kPrefLineWrap, "Wrap lines at:", "Compose.LineWrap", "", "", false, nullptr, 0,
     998},
    {kPrefPageComposing, 1, kChoice, kPrefReplyText, "Quote the original:", "Reply.Text", "", "", false, kAskChoices},
    {kPrefPageComposing, 2, kChoice, kPrefReplyAll, "Reply to all:", "Reply.All", "", "", false, kAskChoices},
    {kPrefPageComposing, 3, kChoice, kPrefForwardAttach, "Forward as attachment:", "Forward.Attachment", "", "",
     false, kForwardChoices},
    {kPrefPageComposing, 4, kCheck, kPrefReplyWrap, "Wrap quoted text of replies", "Reply.WrapOriginalText", "TRUE",
     "FALSE"},
    {kPrefPageComposing, 5, kCheck, kPrefForwardWrap, "Wrap forwarded text", "Forward.WrapOriginalText", "TRUE",
     "FALSE"},
    {kPrefPageComposing, 6, kText, kPrefQuotePrefix, "Quote prefix:", "Reply.OriginalTextPrefix"},
    {kPrefPageComposing, 7, kCheck, kPrefAskReceipt, "Ask for a read receipt", "Compose.RequestReadRcpt"},
    {kPrefPageComposing, 8, kCheck, kPrefSaveOutgoing, "Keep a copy of sent mail", "Compose.SaveOutgoing"},
    {kPrefPageComposing, 9, kCheck, kPrefSpellFirst, "Check spelling before sending", "Compose.SpellCheckBeforeSend",
     "1", "0"},
    {kPrefPageComposing, 10, kText, kPrefAttachWords, "Attachment words:", "Compose.AttachmentWords"},

    {kPrefPageBooks, 0, kCheck, kPrefBookLocal, "Use local address books", "AddrBook.EnableLocal", "ON", "OFF", true},
    {kPrefPageBooks, 1, kCheck, kPrefBookRemote, "Use address books on the server", "AddrBook.EnableRemote", "ON",
     "OFF", true},
    {kPrefPageBooks, 2, kText, kPrefBookHost, "Book server:", "AddrBook.Hostname"},
    {kPrefPageBooks, 3, kNumber, kPrefBookPort, "Port (0: default):", "AddrBook.TCPPort", "", "", false, nullptr, 0,
     65535},
    {kPrefPageBooks, 4, kCheck, kPrefBookByName, "Look up addresses by name", "AddrBook.SearchName", "ON", "OFF",
     true},
    {kPrefPageBooks, 5, kCheck, kPrefBookByEmail, "Look up addresses by mail address", "AddrBook.SearchEmail", "ON",
     "OFF", true},
    {kPrefPageBooks, 6, kCheck, kPrefBookByAlias, "Look up addresses by alias", "AddrBook.SearchAlias", "ON", "OFF",
     true},
    {kPrefPageBooks, 7, kCheck, kPrefBookExpand, "Expand addresses when sending", "AddrBook.ExpandOnSend"},

    // The public directory (LDAP): looked up for names no book knows.
    {kPrefPageDirectory, 0, kCheck, kPrefDirEnable, "Look up names in the directory", "Directory.Enable", "1", "0"},
    {kPrefPageDirectory, 1, kText, kPrefDirHost, "Directory server:", "Directory.Host"},
    {kPrefPageDirectory, 2, kNumber, kPrefDirPort, "Port (0: default):", "Directory.Port", "", "", false, nullptr, 0,
     65535},
    {kPrefPageDirectory, 3, kChoice, kPrefDirTls, "Security:", "Directory.TLS", "", "", false, kDirTlsChoices},
    {kPrefPageDirectory, 4, kText, kPrefDirBase, "Search base:", "Directory.BaseDN"},
    {kPrefPageDirectory, 5, kText, kPrefDirBind, "Log in as (DN):", "Directory.BindDN"},
    {kPrefPageDirectory, 6, kText, kPrefDirCaFile, "Trusted authorities:", "Directory.CACertFile"},
    {kPrefPageDirectory, 7, kNumber, kPrefDirTimeout, "Time-out (seconds):", "Directory.TimeoutSeconds", "", "", false,
     nullptr, 1, 300},
};
constexpr size_t kFieldCount = sizeof kFields / sizeof kFields[0];

constexpr int kMaxSignatureLines = 100;
constexpr int kLabelIdBase = 2900;  // labels are numbered after their page's controls

// Where the options live; its options are session values that the init
// file keeps, not options of the file itself.
struct Location {
  bool remote = false;
  std::string file, host, port;
  bool operator==(const Location&) const = default;
};

struct Prefs {
  int page = 0;
  std::vector<std::string> shown;  // per field, what its control showed after the last load or apply
  std::vector<PrefService> services;
  Location location;
  std::vector<std::pair<int, int>> controls;  // (control id, page)
  FontChoice fonts[kFontKindCount];         // as the page shows them
  FontChoice fonts_stored[kFontKindCount];  // as read, or as last assigned
  int result = 0;
};

std::vector<WIN_DEF>& Defs(Prefs* p) {
  static std::vector<WIN_DEF> defs;
  defs.clear();
  p->controls.clear();
  int label_id = kLabelIdBase;
  auto add = [&](int page, WIN_TYPE type, RCT r, const char* title, int id, unsigned long flags) {
    defs.push_back({type, r, title, id, flags});
    if (page >= 0) p->controls.push_back({id, page});
  };
  auto row = [&](int page, int r, const char* label, WIN_TYPE type, int id, int height = 24,
                 int right = kPrefPageRight) {
    const int top = PrefRowTop(r);
    add(page, WC_TEXT, {kPrefPageLeft, top + 4, kPrefLabelRight, top + 22}, label, ++label_id, 0);
    add(page, type, {kPrefControlLeft, top, right, top + height}, "", id, 0);
  };
  defs.push_back({W_MODAL, {0, 0, 660, 470}, "Preferences", 0, 0});
  add(-1, WC_LBOX, {12, 14, 184, 412}, "", kPrefPages, 0);
  for (const Field& f : kFields) {
    switch (f.kind) {
      case kCheck: add(f.page, WC_CHECKBOX, {kPrefPageLeft, PrefRowTop(f.row), kPrefPageRight, PrefRowTop(f.row) + 24},
                       f.label, f.id, 0);
        break;
      case kChoice:
      case kSmtpSecurity: row(f.page, f.row, f.label, WC_LISTBUTTON, f.id); break;
      case kSignature: row(f.page, f.row, f.label, WC_TEXTEDIT, f.id, 160); break;
      case kNumber: row(f.page, f.row, f.label, WC_EDIT, f.id, 24, kPrefControlLeft + kPrefNumberWidth); break;
      default: row(f.page, f.row, f.label, WC_EDIT, f.id); break;
    }
  }
  const int svc = kPrefPageServices;
  constexpr int kButtons = kPrefPageRight - 92;
  add(svc, WC_LBOX, {kPrefPageLeft, kPrefTop, kButtons - 12, 330}, "", kPrefServiceList, 0);
  add(svc, WC_PUSHBUTTON, {kButtons, kPrefTop, kPrefPageRight, kPrefTop + 28}, "Add...", kPrefServiceAdd, 0);
  add(svc, WC_PUSHBUTTON, {kButtons, kPrefTop + 36, kPrefPageRight, kPrefTop + 64}, "Edit...", kPrefServiceEdit, 0);
  add(svc, WC_PUSHBUTTON, {kButtons, kPrefTop + 72, kPrefPageRight, kPrefTop + 100}, "Delete", kPrefServiceDelete, 0);
  const int loc = kPrefPageLocation;
  add(loc, WC_RADIOBUTTON, {kPrefPageLeft, PrefRowTop(0), kPrefPageRight, PrefRowTop(0) + 24},
      "Local: options in a file", kPrefLocLocal, 0);
  row(loc, 1, "File:", WC_EDIT, kPrefLocFile);
  add(loc, WC_RADIOBUTTON, {kPrefPageLeft, PrefRowTop(2), kPrefPageRight, PrefRowTop(2) + 24},
      "Remote: options on an option server", kPrefLocRemote, 0);
  row(loc, 3, "Server:", WC_EDIT, kPrefLocHost);
  row(loc, 4, "Port:", WC_EDIT, kPrefLocPort, 24, kPrefControlLeft + kPrefNumberWidth);
  constexpr int kChooseLeft = kPrefPageRight - 96;
  for (int k = 0; k < kFontKindCount; ++k) {
    const int top = kPrefTop + k * 32;
    add(kPrefPageFonts, WC_TEXT, {kPrefPageLeft, top + 4, kPrefLabelRight, top + 22}, Font_KindLabel(k), ++label_id,
        0);
    add(kPrefPageFonts, WC_TEXT, {kPrefControlLeft, top + 4, kChooseLeft - 8, top + 22}, "", kPrefFontText + k, 0);
    add(kPrefPageFonts, WC_PUSHBUTTON, {kChooseLeft, top, kPrefPageRight, top + 26}, "Choose...",
        kPrefFontChoose + k, 0);
  }
  add(-1, WC_PUSHBUTTON, {kPrefPageRight - 192, 424, kPrefPageRight - 104, 454}, "OK", kPrefOk, CTL_FLAG_DEFAULT);
  add(-1, WC_PUSHBUTTON, {kPrefPageRight - 88, 424, kPrefPageRight, 454}, "Cancel", kPrefCancel, 0);
  defs.push_back({W_NONE, {}, nullptr, 0, 0});
  return defs;
}

WINDOW Ctl(WINDOW dlg, int id) { return xvt_win_get_ctl(dlg, id); }
std::string Text(WINDOW dlg, int id) { return xvt_ctl_get_text(dlg, id, kPrefFieldLimit); }
void SetText(WINDOW dlg, int id, const std::string& text) {
  if (WINDOW c = Ctl(dlg, id)) xvt_vobj_set_title(c, text.c_str());
}

std::string Stored(const char* option) { return Opt_LookupText(option, kOptSession); }

// The signature as the compose window reads it: a count and one option per line.
std::string StoredSignature() {
  int lines = 0;
  if (!Opt_LookupInt("Compose.Signature.Lines", &lines, kOptSession) || lines <= 0) return "";
  if (lines > kMaxSignatureLines) lines = kMaxSignatureLines;
  std::string text;
  for (int i = 1; i <= lines; ++i) {
    if (i > 1) text += '\n';
    text += Stored(("Compose.Signature." + std::to_string(i)).c_str());
  }
  return text;
}

int ChoiceIndex(const Choice* choices, const std::string& word) {
  for (int i = 0; choices[i].label; ++i)
    if (strcasecmp(choices[i].word, word.c_str()) == 0) return i;
  return 0;
}

// Puts the stored value of a field into its control.
void Load(WINDOW dlg, const Field& f) {
  WINDOW c = Ctl(dlg, f.id);
  if (!c) return;
  switch (f.kind) {
    case kCheck: {
      short on = f.default_on;
      Opt_LookupBoolean(f.option, &on, kOptSession);
      xvt_ctl_set_checked(c, on != 0);
      break;
    }
    case kChoice:
    case kSmtpSecurity: {
      xvt_list_clear(c);
      for (int i = 0; f.choices[i].label; ++i) xvt_list_add(c, -1, f.choices[i].label);
      const std::string word =
          f.kind == kChoice ? Stored(f.option) : PREF_SplitDeliveryHost(Stored(f.option)).security;
      xvt_list_set_sel(c, ChoiceIndex(f.choices, word), true);
      break;
    }
    case kSignature: SetText(dlg, f.id, StoredSignature()); break;
    case kSmtpHost: SetText(dlg, f.id, PREF_SplitDeliveryHost(Stored(f.option)).host); break;
    default: SetText(dlg, f.id, Stored(f.option)); break;
  }
  // A locked option shows what it holds and cannot be changed here.
  if (Opt_GetReadonly(f.option)) xvt_vobj_set_enabled(c, false);
}

// What the control of a field shows, in the words stored for it.
std::string Shown(WINDOW dlg, const Field& f) {
  WINDOW c = Ctl(dlg, f.id);
  if (!c) return "";
  switch (f.kind) {
    case kCheck: return xvt_ctl_is_checked(c) ? f.on_word : f.off_word;
    case kChoice:
    case kSmtpSecurity: {
      const int i = xvt_list_get_sel_index(c);
      return i < 0 ? f.choices[0].word : f.choices[i].word;
    }
    default: return Text(dlg, f.id);
  }
}

// The signature's text as lines: line ends of any kind, no more than the
// compose window reads.
std::vector<std::string> SignatureLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '\n' || text[i] == '\r') {
      if (i < text.size() && text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      lines.push_back(line);
      line.clear();
    } else {
      line += text[i];
    }
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  if (lines.size() > kMaxSignatureLines) lines.resize(kMaxSignatureLines);
  return lines;
}

void AssignSignature(const std::string& text) {
  int old_lines = 0;
  Opt_LookupInt("Compose.Signature.Lines", &old_lines, kOptSession);
  const std::vector<std::string> lines = SignatureLines(text);
  for (size_t i = 0; i < lines.size(); ++i)
    Opt_AssignString(("Compose.Signature." + std::to_string(i + 1)).c_str(), lines[i].c_str(), kOptPermanent, 0);
  // Lines past the new end would come back if the count grew again.
  for (int i = static_cast<int>(lines.size()) + 1; i <= old_lines && i <= kMaxSignatureLines; ++i)
    Opt_Delete(("Compose.Signature." + std::to_string(i)).c_str());
  Opt_AssignBoolean("Compose.Signature.Lines", static_cast<int>(lines.size()), kOptPermanent, 0);
}

Location LoadLocation() {
  Location l;
  l.remote = strcasecmp(Stored("Options.Location").c_str(), "Remote") == 0;
  l.file = Stored("Options.LocalFile");
  l.host = Stored("Options.RemoteHost");
  l.port = Stored("Options.RemotePort");
  return l;
}

Location ShownLocation(WINDOW dlg) {
  Location l;
  l.remote = xvt_ctl_is_checked(Ctl(dlg, kPrefLocRemote));
  l.file = Text(dlg, kPrefLocFile);
  l.host = Text(dlg, kPrefLocHost);
  l.port = Text(dlg, kPrefLocPort);
  return l;
}

void CheckLocation(WINDOW dlg, bool remote) {
  WINDOW radios[2] = {Ctl(dlg, kPrefLocLocal), Ctl(dlg, kPrefLocRemote)};
  xvt_ctl_check_radio_button(radios[remote ? 1 : 0], radios, 2);
}

void ShowLocation(WINDOW dlg, const Location& l) {
  CheckLocation(dlg, l.remote);
  SetText(dlg, kPrefLocFile, l.file);
  SetText(dlg, kPrefLocHost, l.host);
  SetText(dlg, kPrefLocPort, l.port);
  // Where the options must live is the site's choice; offline they can
  // only be in the file.
  const bool fixed = CENV_GetManditoryRemote() || Opt_GetReadonly("Options.Location");
  for (int id : {kPrefLocLocal, kPrefLocRemote, kPrefLocFile, kPrefLocHost, kPrefLocPort})
    if (fixed) xvt_vobj_set_enabled(Ctl(dlg, id), false);
  if (IsOffline()) xvt_vobj_set_enabled(Ctl(dlg, kPrefLocRemote), false);
}

bool FontLocked(int kind) {
  for (const char* part : {"Face", "Size", "Style"})
    if (Opt_GetReadonly((std::string("Font.") + part + "." + Font_KindName(kind)).c_str())) return true;
  return false;
}

void LoadFonts(WINDOW dlg, Prefs* p) {
  for (int k = 0; k < kFontKindCount; ++k) {
    p->fonts[k] = p->fonts_stored[k] = Font_Lookup(k);
    SetText(dlg, kPrefFontText + k, Font_Describe(p->fonts[k]));
    if (FontLocked(k)) xvt_vobj_set_enabled(Ctl(dlg, kPrefFontChoose + k), false);
  }
}

// The toolkit's chooser, starting from what the page shows. A face the
// options could not keep (a size out of range, too long a name) is
// brought into their bounds rather than refused.
void ChooseFont(WINDOW dlg, Prefs* p, int kind) {
  FontChoice& f = p->fonts[kind];
  XVT_FNTID font = xvt_font_create(f.family.c_str(), f.size, f.style);
  if (xvt_dm_post_font_sel(dlg, &font) && font) {
    std::string family = xvt_font_get_family(font) ? xvt_font_get_family(font) : "";
    if (!family.empty() && family.size() <= kFontFamilyLimit) f.family = family;
    f.size = std::clamp(xvt_font_get_size(font), kFontSizeMin, kFontSizeMax);
    f.style = xvt_font_get_style(font) & (XVT_FS_BOLD | XVT_FS_ITALIC | XVT_FS_UNDERLINE);
    SetText(dlg, kPrefFontText + kind, Font_Describe(f));
  }
  xvt_font_destroy(font);
}

void ShowPage(WINDOW dlg, Prefs* p, int page) {
  p->page = page;
  for (const auto& [id, on] : p->controls)
    if (WINDOW c = Ctl(dlg, id)) xvt_vobj_set_visible(c, on == page);
  WINDOW list = Ctl(dlg, kPrefPages);
  if (xvt_list_get_sel_index(list) != page) xvt_list_set_sel(list, page, true);
}

void Snapshot(WINDOW dlg, Prefs* p) {
  p->shown.clear();
  for (const Field& f : kFields) p->shown.push_back(Shown(dlg, f));
}

// The first field whose text cannot be stored, with the reason, its page
// and its control; empty when all can.
std::string Invalid(WINDOW dlg, const Prefs& p, int* page, int* id) {
  for (size_t i = 0; i < kFieldCount; ++i) {
    const Field& f = kFields[i];
    int n = 0;
    if (f.kind != kNumber || Shown(dlg, f) == p.shown[i] || PrefParseNumber(Shown(dlg, f), f.min, f.max, &n))
      continue;
    *page = f.page;
    *id = f.id;
    return std::string(f.label) + " takes a number from " + std::to_string(f.min) + " to " + std::to_string(f.max) +
           ".";
  }
  const Location l = ShownLocation(dlg);
  if (l == p.location) return "";
  *page = kPrefPageLocation;
  int port = 0;
  if (l.remote && l.host.empty()) {
    *id = kPrefLocHost;
    return "The option server needs a host name.";
  }
  if (l.remote && !l.port.empty() && !PrefParseNumber(l.port, 1, 65535, &port)) {
    *id = kPrefLocPort;
    return "The port of the option server is a number from 1 to 65535.";
  }
  if (!l.remote && l.file.empty()) {
    *id = kPrefLocFile;
    return "The options need a file name.";
  }
  return "";
}

bool AnyLocked() {
  bool locked = false;
  Opt_ForEach([](const OptionView& v, void* data) {
    if ((v.flags & kOptReadonly) && !(v.flags & kOptDeleted)) *static_cast<bool*>(data) = true;
  }, &locked);
  return locked;
}

// OK: checks every field, asks about locked options, assigns what changed
// and saves. The dialog stays up when something cannot be stored, the user
// would rather not save, or the save failed: what was typed is not lost.
void Ok(WINDOW dlg, Prefs* p) {
  int page = p->page, id = 0;
  const std::string why = Invalid(dlg, *p, &page, &id);
  if (!why.empty()) {
    ShowPage(dlg, p, page);
    xvt_dm_post_error("%s", why.c_str());
    if (WINDOW c = Ctl(dlg, id)) xvt_scr_set_focus_vobj(c);
    return;
  }
  std::vector<size_t> changed;
  for (size_t i = 0; i < kFieldCount; ++i)
    if (!Opt_GetReadonly(kFields[i].option) && Shown(dlg, kFields[i]) != p->shown[i]) changed.push_back(i);
  const Location location = ShownLocation(dlg);
  const bool moved = !(location == p->location);
  const bool services = PrefServicesChanged(p->services);
  std::vector<int> fonts;
  for (int k = 0; k < kFontKindCount; ++k)
    if (!(p->fonts[k] == p->fonts_stored[k]) && !FontLocked(k)) fonts.push_back(k);
  const bool anything = !changed.empty() || moved || services || !fonts.empty();
  if (!anything && !Opt_Changed()) {
    p->result = 1;
    xvt_vobj_destroy(dlg);
    return;
  }
  if (AnyLocked() && !ErrorAsk(3028)) return;

  Trace(kTraceOptions, kTraceLow, "PREF_Open: %zu fields changed\n", changed.size());
  if (services) PrefServicesApply(&p->services);
  bool smtp_done = false;
  std::vector<int> events;
  for (size_t i : changed) {
    const Field& f = kFields[i];
    if (f.kind == kSignature) {
      AssignSignature(Shown(dlg, f));
    } else if (f.kind == kSmtpHost || f.kind == kSmtpSecurity) {
      if (smtp_done) continue;
      smtp_done = true;
      DeliveryHost parts = PREF_SplitDeliveryHost(Stored(f.option));
      parts.host = Text(dlg, kPrefSmtpHost);
      for (const Field& g : kFields)
        if (g.kind == kSmtpSecurity) parts.security = Shown(dlg, g);
      Opt_AssignString(f.option, PREF_JoinDeliveryHost(parts).c_str(), kOptPermanent, 0);
    } else {
      Opt_AssignString(f.option, Shown(dlg, f).c_str(), kOptPermanent, 0);
    }
    if (f.event >= 0) events.push_back(f.event);
  }
  if (moved) {
    Opt_AssignString("Options.Location", location.remote ? "Remote" : "Local", kOptSession, 0);
    Opt_AssignString("Options.LocalFile", location.file.c_str(), kOptSession, 0);
    Opt_AssignString("Options.RemoteHost", location.host.c_str(), kOptSession, 0);
    Opt_AssignString("Options.RemotePort", location.port.c_str(), kOptSession, 0);
    // The init file names the new place for the next start, and the new
    // place gets every option, not only the changed ones.
    Opt_AssignInt("Options.SaveLocation", 1, kOptSession, 0);
    Opt_MarkChanged();
  }
  for (int k : fonts) {
    Font_Assign(k, p->fonts[k], kOptPermanent);
    p->fonts_stored[k] = p->fonts[k];
  }
  for (int type : events) MM_NotPostSimple(type);
  // Open windows take a new font at once, each only for its own kinds.
  for (int k : fonts) {
    ModelEvent* ev = MM_NotEventNew(E_FONT_CHANGED);
    if (!ev) continue;
    ev->value = k;
    MM_NotEventPost(ev);
    MM_NotEventFree(ev);
  }
  Snapshot(dlg, p);
  const int saved = Opt_Save();
  if (!saved && moved) {
    // Back to where the options were read from, so that they are not
    // stranded at a place that cannot take them.
    Opt_AssignString("Options.Location", p->location.remote ? "Remote" : "Local", kOptSession, 0);
    Opt_AssignString("Options.LocalFile", p->location.file.c_str(), kOptSession, 0);
    Opt_AssignString("Options.RemoteHost", p->location.host.c_str(), kOptSession, 0);
    Opt_AssignString("Options.RemotePort", p->location.port.c_str(), kOptSession, 0);
    return;
  }
  p->location = location;
  if (!saved) return;
  p->result = 1;
  xvt_vobj_destroy(dlg);
}

long prefs_eh(WINDOW dlg, EVENT* ev) {
  Prefs* p = reinterpret_cast<Prefs*>(xvt_vobj_get_data(dlg));
  switch (ev->type) {
    case E_CREATE: {
      DM_CentreOnScreen(dlg);
      WINDOW list = Ctl(dlg, kPrefPages);
      for (const char* name : kPageNames) xvt_list_add(list, -1, name);
      for (const Field& f : kFields) Load(dlg, f);
      Snapshot(dlg, p);
      p->services = PrefServicesLoad();
      PrefServicesFill(dlg, p->services);
      if (Opt_GetReadonly("MsgService.IDList")) {
        xvt_vobj_set_enabled(Ctl(dlg, kPrefServiceAdd), false);
        xvt_vobj_set_enabled(Ctl(dlg, kPrefServiceDelete), false);
      }
      p->location = LoadLocation();
      ShowLocation(dlg, p->location);
      LoadFonts(dlg, p);
      ShowPage(dlg, p, p->page);
      break;
    }
    case E_CONTROL: {
      const int id = ev->v.ctl.id;
      if (id == kPrefOk) {
        Ok(dlg, p);
      } else if (id == kPrefCancel) {
        xvt_vobj_destroy(dlg);
      } else if (id == kPrefPages) {
        const int page = xvt_list_get_sel_index(Ctl(dlg, kPrefPages));
        if (page >= 0 && page < kPrefPageCount && page != p->page) ShowPage(dlg, p, page);
      } else if (id == kPrefLocLocal || id == kPrefLocRemote) {
        CheckLocation(dlg, id == kPrefLocRemote);
      } else if (id == kPrefServiceList && ev->v.ctl.ci.v.lbox.dbl_click) {
        PrefServicesCommand(dlg, kPrefServiceEdit, &p->services);  // a double click edits
      } else if (id >= kPrefFontChoose && id < kPrefFontChoose + kFontKindCount) {
        ChooseFont(dlg, p, id - kPrefFontChoose);
      } else if (id == kPrefServiceAdd || id == kPrefServiceEdit || id == kPrefServiceDelete) {
        PrefServicesCommand(dlg, id, &p->services);
      }
      break;
    }
    case E_CLOSE: xvt_vobj_destroy(dlg); break;
    default: break;
  }
  return 0;
}

}  // namespace

bool PrefParseNumber(const std::string& text, int min, int max, int* out) {
  if (text.empty() || text.size() > 10) return false;
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno || *end || v < min || v > max) return false;
  *out = static_cast<int>(v);
  return true;
}

DeliveryHost PREF_SplitDeliveryHost(const std::string& value) {
  DeliveryHost parts;
  // Only the first word is this host; further hosts are kept elsewhere.
  std::string word = value.substr(0, std::min(value.size(), kPrefFieldLimit));
  const size_t blank = word.find_first_of(" \t,\r\n");
  if (blank != std::string::npos) word.resize(blank);
  size_t slash = word.find('/');
  parts.host = word.substr(0, slash);
  while (slash != std::string::npos) {
    const size_t next = word.find('/', slash + 1);
    const std::string sw = word.substr(slash, next == std::string::npos ? std::string::npos : next - slash);
    if (strcasecmp(sw.c_str(), "/ssl") == 0) parts.security = "ssl";
    else if (strcasecmp(sw.c_str(), "/tls") == 0) parts.security = "tls";
    else if (strcasecmp(sw.c_str(), "/notls") == 0) parts.security = "none";
    else parts.others += sw;
    slash = next;
  }
  return parts;
}

std::string PREF_JoinDeliveryHost(const DeliveryHost& parts) {
  if (parts.host.empty()) return "";
  std::string value = parts.host;
  if (parts.security == "ssl") value += "/ssl";
  else if (parts.security == "tls") value += "/tls";
  else if (parts.security == "none") value += "/notls";
  return value + parts.others;
}

std::vector<int> PREF_ParseIdList(const std::string& value) {
  std::vector<int> numbers;
  std::string word;
  for (size_t i = 0; i <= value.size() && i <= kPrefFieldLimit * 4 && numbers.size() < 100; ++i) {
    const char c = i < value.size() ? value[i] : ' ';
    if (c != ' ' && c != ',' && c != '\t') {
      word += c;
      continue;
    }
    int n = 0;
    if (PrefParseNumber(word, 1, 100000, &n) && std::find(numbers.begin(), numbers.end(), n) == numbers.end())
      numbers.push_back(n);
    word.clear();
  }
  return numbers;
}

int PREF_Open(int page) {
  Trace(kTraceOptions, kTraceAll, "PREF_Open: function entry.\n");
  auto p = std::make_unique<Prefs>();
  p->page = page >= 0 && page < kPrefPageCount ? page : 0;
  xvt_res_register_dialog(kPrefsRid, Defs(p.get()).data());
  if (!xvt_dlg_create_res(W_MODAL, kPrefsRid, EM_ALL, prefs_eh, reinterpret_cast<intptr_t>(p.get()))) {
    xvt_dm_post_error("The preferences could not be shown.");
    return 0;
  }
  return p->result;
}
