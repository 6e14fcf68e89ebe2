// Alias expansion: simple names in the address fields are looked up and
// replaced by the addresses they stand for. The lookup is a function the
// address books provide; until they do, options named Compose.Alias.<name>
// hold "Full Name <address>" or a list of addresses.
#include <strings.h>

#include <cstring>

#include "src/base/critical.h"
#include "src/base/trace.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/options/options.h"

namespace {

int OptionTable(const std::string& name, int fields, std::string* expansion) {
  if (!(fields & (kAliasAlias | kAliasName))) return 0;
  if (name.empty() || name.size() > 200 || name.find_first_of(" \t.*{}[]\"\\") != std::string::npos) return 0;
  const std::string v = Opt_LookupText(("Compose.Alias." + name).c_str(), kOptSession);
  if (ComposeTrim(v).empty()) return 0;
  *expansion = v;
  return 1;
}

AliasLookupFn g_lookup = OptionTable;
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

}  // namespace

void ComposeSetAliasLookup(AliasLookupFn fn) { g_lookup = fn ? fn : OptionTable; }

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
    std::string expansion;
    if (simple && g_lookup(mailbox, fields, &expansion)) {
      MailAddress* hit = ComposeParseAddresses(expansion);
      bool usable = hit != nullptr;
      for (MailAddress* h = hit; h; h = h->next) usable &= !h->error && h->mailbox && h->host;
      if (!usable) {
        xvt_dm_post_error("Warning: matched address entry '%s', but email field is blank", mailbox.c_str());
        ok = 0;
      } else {
        text = ComposeAddressText(hit);
      }
      mail_free_address(&hit);
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
