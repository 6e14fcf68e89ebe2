// Alias expansion: simple names in the address fields are looked up and
// replaced by the addresses they stand for: first in the address books (an
// entry's "Email", a list's members), then in the options named
// Compose.Alias.<name>, which hold "Full Name <address>" or a list of
// addresses, and last in the public directory when it is switched on.
#include <strings.h>

#include <cstring>

#include "src/base/critical.h"
#include "src/base/trace.h"
#include "src/books/address_model.h"
#include "src/books/directory.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/options/options.h"

namespace {

int OptionTable(const std::string& name, int fields, std::vector<AliasEntry>* hits) {
  if (!(fields & (kAliasAlias | kAliasName))) return 0;
  if (name.empty() || name.size() > 200 || name.find_first_of(" \t.*{}[]\"\\") != std::string::npos) return 0;
  const std::string v = Opt_LookupText(("Compose.Alias." + name).c_str(), kOptSession);
  if (ComposeTrim(v).empty()) return 0;
  size_t at = 0;
  while (at <= v.size() && hits->size() < 1000) {
    size_t end = v.find(';', at);
    if (end == std::string::npos) end = v.size();
    const std::string item = ComposeTrim(v.substr(at, end - at));
    at = end + 1;
    if (item.empty()) continue;
    AliasEntry e;
    const size_t lt = item.rfind('<');
    if (lt != std::string::npos && item.back() == '>') {
      e.personal = ComposeTrim(item.substr(0, lt));
      e.email = ComposeTrim(item.substr(lt + 1, item.size() - lt - 2));
    } else if (item.find('@') != std::string::npos) {
      e.email = item;
    } else {
      e.personal = item;
    }
    hits->push_back(e);
  }
  return hits->empty() ? 0 : 1;
}

int BooksThenOptions(const std::string& name, int fields, std::vector<AliasEntry>* hits) {
  ResolvedAddresses found;
  if ((fields & (kAliasName | kAliasAlias | kAliasEmail)) && ABK_ResolveAddress(name, "", &found)) {
    for (auto& [personal, email] : found) hits->push_back(AliasEntry{std::move(personal), std::move(email)});
    return 1;
  }
  if (OptionTable(name, fields, hits)) return 1;
  // The user's own books and aliases answer first; the network is asked
  // only for a name neither knows.
  found.clear();
  if (fields && DIR_Enabled() && DIR_ResolveName(name, &found)) {
    for (auto& [personal, email] : found) hits->push_back(AliasEntry{std::move(personal), std::move(email)});
    return 1;
  }
  return 0;
}

AliasLookupFn g_lookup = BooksThenOptions;
bool g_expanding = false;  // a second expansion waits for the first one's dialogs

// Which book fields to match: a missing option counts as on.
int Fields() {
  int fields = 0;
  const std::pair<const char*, int> options[] = {
      {"AddrBook.SearchName", kAliasName}, {"AddrBook.SearchAlias", kAliasAlias}, {"AddrBook.SearchEmail", kAliasEmail}};
  for (const auto& [name, bit] : options) {
    short on = 1;
    if (!Opt_LookupBoolean(name, &on, kOptSession) || on) fields |= bit;
  }
  return fields;
}

// "Personal Name <address>" in standard form (the name quoted when it
// needs to be); false, told, when it cannot be made.
bool EntryText(const AliasEntry& e, std::string* out) {
  const std::string email = ComposeTrim(e.email);
  if (email.empty()) {
    xvt_dm_post_error("Warning: matched address entry '%s', but email field is blank", e.personal.c_str());
    return false;
  }
  for (char c : e.personal)
    if (static_cast<unsigned char>(c) < 32 || c == 127) {
      xvt_dm_post_error("Error constructing standard form of Personal Name.");
      return false;
    }
  MailAddress* parsed = ComposeParseAddresses(email, false);
  const bool one = parsed && !parsed->next && !parsed->error && parsed->mailbox && parsed->host && !parsed->personal;
  if (!one) {
    mail_free_address(&parsed);
    xvt_dm_post_error("Warning: matched address entry '%s', but its email field '%s' is not an address",
                      e.personal.c_str(), email.c_str());
    return false;
  }
  if (!e.personal.empty()) parsed->personal = cpystr(e.personal.c_str());
  *out = ComposeAddressText(parsed);
  mail_free_address(&parsed);
  return true;
}

}  // namespace

void ComposeSetAliasLookup(AliasLookupFn fn) { g_lookup = fn ? fn : BooksThenOptions; }

int ComposeExpandField(const std::string& in, int fields, std::string* out) {
  MailAddress* list = ComposeParseAddresses(in, false);
  if (!list) {
    *out = in;
    return 1;
  }
  for (MailAddress* a = list; a; a = a->next)
    if (a->error) {
      mail_free_address(&list);
      xvt_dm_post_error("The address list \"%s\" cannot be read; its aliases were not expanded.", in.c_str());
      *out = in;
      return 0;
    }
  // A candidate is a bare name: no host, no personal name, no route.
  std::string result;
  int ok = 1;
  for (MailAddress* a = list; a; a = a->next) {
    MailAddress one = *a;
    one.next = nullptr;
    std::string text = ComposeAddressText(&one);
    const std::string mailbox = a->mailbox ? a->mailbox : "";
    const bool simple = !a->personal && !a->adl && !a->host && !mailbox.empty();
    if (!a->host && !mailbox.empty()) text = a->personal ? std::string(a->personal) + " <" + mailbox + ">" : mailbox;
    std::vector<AliasEntry> hits;
    if (simple && g_lookup(mailbox, fields, &hits)) {
      std::string expanded;
      for (const AliasEntry& h : hits) {
        std::string piece;
        if (!EntryText(h, &piece)) {
          ok = 0;
          expanded.clear();
          break;
        }
        expanded += (expanded.empty() ? "" : ", ") + piece;
      }
      if (!expanded.empty()) text = expanded;
    }
    if (!text.empty()) result += (result.empty() ? "" : ", ") + text;
  }
  mail_free_address(&list);
  *out = result;
  return ok;
}

int ExpandAllAddresses(WINDOW win) {
  Trace(kTraceCompose, kTraceAll, "ExpandAllAddresses: function entry.\n");
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info || g_expanding) return 0;
  const int fields = Fields();
  if (!fields) {
    xvt_dm_post_error(
        "Warning: There are no book fields selected to match aliases against, must select at least one field");
    return 0;
  }
  g_expanding = true;
  WIN_start_critical();
  xvt_progress_open("Alias Expansion", "Expanding addresses ...", false);
  ComposeFields f = ComposeGetFields(info);
  int ok = 1;
  for (std::string* field : {&f.to, &f.cc, &f.bcc, &f.reply_to}) {
    if (ComposeTrim(*field).empty()) continue;
    std::string out;
    ok &= ComposeExpandField(*field, fields, &out);
    *field = out;
  }
  ComposeSetFields(info, f);
  xvt_progress_close();
  WIN_end_critical();
  g_expanding = false;
  return ok;
}
