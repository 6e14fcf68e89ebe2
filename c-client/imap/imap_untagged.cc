// Untagged replies: counts, expunges and fetch data go to the cache and the
// model; list, ACL and quota rows to their callbacks; response codes and
// capability words to the stream's record.
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

bool StartsWith(const std::string& s, const char* prefix) { return s.compare(0, std::strlen(prefix), prefix) == 0; }

// A cursor over the reply's text (after tag and key).
ImapCursor CursorAt(MailStream* stream, const std::string& text) {
  ImapCursor c{stream, imap_local(stream), text, 0, false};
  c.local->literals = 0;
  return c;
}

// A mailbox name: atom, quoted string or literal.
bool Name(ImapCursor& c, std::string* name) {
  imap_skip_spaces(c);
  if (c.pos < c.line.size() && c.line[c.pos] != '"' && c.line[c.pos] != '{') {
    *name = imap_atom(c);
    return !name->empty();
  }
  bool nil;
  return imap_string(c, name, &nil) && !nil;
}

void List(MailStream* stream, ImapCursor& c) {
  std::string attributes, delimiter, name;
  bool nil = false;
  imap_skip_spaces(c);
  size_t close = c.line.find(')', c.pos);
  if (!imap_at(c, '(') || close == std::string::npos) {
    Log("Incomplete mailbox response from server.", 2);
    return imap_skip_rest(c);
  }
  attributes = "(" + c.line.substr(c.pos, close - c.pos) + ")";
  c.pos = close + 1;
  imap_skip_spaces(c);
  if (!imap_string(c, &delimiter, &nil) || !Name(c, &name)) {
    Log("Incomplete mailbox response from server.", 2);
    return imap_skip_rest(c);
  }
  char d = nil || delimiter.empty() ? '\0' : delimiter[0];
  const std::string& host = imap_local(stream)->host;
  std::string full = host + name;
  mm_mailbox(full.c_str(), d, Upper(attributes).c_str());
  imap_skip_rest(c);
}

void Acl(MailStream* stream, ImapCursor& c, bool myrights) {
  std::string word = imap_atom(c);
  std::string mailbox;
  // The old form puts the word MAILBOX before the name.
  if (Upper(word) == "MAILBOX") {
    if (!Name(c, &mailbox)) return imap_skip_rest(c);
  } else if (!word.empty()) {
    mailbox = word;
  } else if (!Name(c, &mailbox)) {
    return imap_skip_rest(c);
  }
  for (unsigned long n = 0; n < kImapMaxListItems && !c.failed; ++n) {
    std::string id, rights;
    if (myrights) {
      id = "myrights_user";
    } else if (!Name(c, &id)) {
      break;
    }
    if (!Name(c, &rights)) break;
    mm_acl(stream, mailbox.c_str(), id.c_str(), rights.c_str());
    if (myrights) break;
  }
  imap_skip_rest(c);
}

void Quota(MailStream* stream, ImapCursor& c) {
  std::string root;
  if (!Name(c, &root) || !imap_at(c, '(')) return imap_skip_rest(c);
  for (unsigned long n = 0; n < kImapMaxListItems && !c.failed; ++n) {
    if (imap_at(c, ')')) break;
    std::string resource = imap_atom(c), used = imap_atom(c), limit = imap_atom(c);
    if (resource.empty() || used.empty() || limit.empty()) break;
    mm_quota(stream, Upper(resource).c_str(), std::strtoul(used.c_str(), nullptr, 10),
             std::strtoul(limit.c_str(), nullptr, 10));
  }
  imap_skip_rest(c);
}

// A number of a STATUS item: digits only, within 32 bits.
bool StatusNumber(const std::string& word, unsigned long* value) {
  if (word.empty() || word.size() > 10 || word.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long long v = std::strtoull(word.c_str(), nullptr, 10);
  if (v > 0xffffffffull) return false;
  *value = static_cast<unsigned long>(v);
  return true;
}

// The STATUS items the mail layer knows, and where each answer goes.
struct StatusItem {
  const char* word;
  long flag;
  unsigned long MailStatus::*field;
};
constexpr StatusItem kStatusItems[] = {
    {"MESSAGES", SA_MESSAGES, &MailStatus::messages}, {"RECENT", SA_RECENT, &MailStatus::recent},
    {"UNSEEN", SA_UNSEEN, &MailStatus::unseen},       {"UIDNEXT", SA_UIDNEXT, &MailStatus::uidnext},
    {"UIDVALIDITY", SA_UIDVALIDITY, &MailStatus::uidvalidity},
};

// "* STATUS mailbox (ITEM n ...)": stored only when it answers the STATUS
// command in flight, for the mailbox it named (INBOX in any case). Items
// we don't know (a modification sequence, a size) are stepped over.
void Status(MailStream* stream, ImapCursor& c) {
  ImapLocal* local = imap_local(stream);
  std::string name;
  MailStatus got{};
  bool whole = Name(c, &name) && imap_at(c, '(');
  for (unsigned long n = 0; whole && !c.failed; ++n) {
    if (imap_at(c, ')')) break;
    const std::string item = Upper(imap_atom(c));
    if (item.empty() || n >= kImapMaxListItems) {
      whole = false;
      break;
    }
    const StatusItem* known = nullptr;
    for (const StatusItem& k : kStatusItems)
      if (item == k.word) known = &k;
    if (!known) {
      whole = imap_skip_value(c, 1);
      continue;
    }
    unsigned long value = 0;
    if (!StatusNumber(imap_atom(c), &value)) {
      whole = false;
      break;
    }
    got.*(known->field) = value;
    got.flags |= known->flag;
  }
  if (!whole || c.failed) {
    if (!c.failed) Log(mail_format("Bad STATUS reply from server: %.80s", c.line.c_str()), 1);
    return imap_skip_rest(c);
  }
  const bool inbox =
      strcasecmp(name.c_str(), "INBOX") == 0 && strcasecmp(local->status_mailbox.c_str(), "INBOX") == 0;
  if (local->status && (name == local->status_mailbox || inbox)) {
    // A server may answer in more than one line: each adds its items.
    for (const StatusItem& k : kStatusItems)
      if (got.flags & k.flag) local->status->*(k.field) = got.*(k.field);
    local->status->flags |= got.flags;
  }
  imap_skip_rest(c);
}

void Flags(MailStream* stream, const std::string& text) {
  FS_GIVE(&stream->flagstring);
  stream->flagstring = cpystr(text.c_str());
  for (int i = 0; i < kMaxUserFlags; ++i) FS_GIVE(&stream->user_flags[i]);
  int n = 0;
  size_t at = 0;
  while (n < kMaxUserFlags && at < text.size()) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '(' || text[at] == ')')) ++at;
    size_t end = text.find_first_of(" ()", at);
    if (end == std::string::npos) end = text.size();
    if (end > at && text[at] != '\\') stream->user_flags[n++] = cpystr(text.substr(at, end - at).c_str());
    at = end;
  }
}

}  // namespace

void imap_parse_capabilities(MailStream* stream, const std::string& words) {
  ImapLocal* local = imap_local(stream);
  std::string all = Upper(words);
  int nauth = 0;
  while (nauth < kImapMaxAuthenticators && local->authenticators[nauth]) ++nauth;
  size_t at = 0;
  while (at < all.size()) {
    size_t end = all.find(' ', at);
    if (end == std::string::npos) end = all.size();
    std::string w = all.substr(at, end - at);
    at = end + 1;
    if (w == "ACL") {
      local->level |= kImapAcl;
    } else if (StartsWith(w, "AUTH=")) {
      const Authenticator* a = auth_lookup(w.c_str() + 5);
      bool known = false;
      for (int i = 0; i < nauth; ++i) known = known || local->authenticators[i] == a;
      if (a && !known && nauth < kImapMaxAuthenticators) local->authenticators[nauth++] = a;
    } else if (w == "IMAP4") {
      local->level |= kImapImap4 | kImapUseMailboxSubscribe;
    } else if (w == "IMAP4REV1") {
      local->level |= kImapImap4 | kImapImap4rev1 | kImapUseMailboxSubscribe;
    } else if (w == "QUOTA") {
      local->level |= kImapQuota;
    } else if (w == "NO-ATOMIC-RENAME" || w == "X-NO-ATOMIC-RENAME" || w == "X-NO-HIERARCHICAL-RENAME") {
      local->level2 |= kImapNoAtomicRename;
    } else if (w == "STARTTLS") {
      local->starttls = true;
    } else if (w == "LOGINDISABLED") {
      local->logindisabled = true;
    }
  }
  // Only as the first word of the list.
  if (StartsWith(all, "X-PMDF")) local->level |= kImapUseMailboxSubscribe | kImapPmdf;
}

void imap_parse_response_code(MailStream* stream, const std::string& text) {
  size_t close = text.find(']');
  std::string code = text.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  std::string upper = Upper(code);
  std::string rest = close == std::string::npos ? "" : text.substr(close + 1);
  if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
  if (StartsWith(upper, "ALERT")) {
    mm_notify(stream, rest.c_str(), 1);
  } else if (StartsWith(upper, "PARSE")) {
    mm_notify(stream, rest.c_str(), 3);
  } else if (StartsWith(upper, "PERMANENTFLAGS")) {
    mm_notify(stream, rest.c_str(), 0);
  } else if (StartsWith(upper, "READ-ONLY")) {
    stream->rdonly = 1;
  } else if (StartsWith(upper, "READ-WRITE")) {
    stream->rdonly = 0;
  } else if (StartsWith(upper, "TRYCREATE")) {
    mm_notify(stream, "The requested target folder does not exist - try creating it", 0);
  } else if (StartsWith(upper, "UIDVALIDITY ")) {
    imap_local(stream)->uidvalidity = std::strtoul(code.c_str() + 12, nullptr, 10);
  } else if (StartsWith(upper, "UNSEEN ")) {
    stream->first_unseen = std::strtoul(code.c_str() + 7, nullptr, 10);
  } else if (StartsWith(upper, "CAPABILITY ")) {
    imap_parse_capabilities(stream, code.substr(11));
  }
}

void imap_parse_unsolicited(MailStream* stream, ImapReply* reply) {
  ImapLocal* local = imap_local(stream);
  const std::string& key = reply->key;
  if (!key.empty() && std::isdigit(static_cast<unsigned char>(key[0]))) {
    // "n WORD ..."
    if (key.size() > 10 || key.find_first_not_of("0123456789") != std::string::npos) {
      Log(mail_format("Unexpected unsolicited message from server: %.80s", reply->line.c_str()), 1);
      return;
    }
    unsigned long n = std::stoul(key);
    size_t sp = reply->text.find(' ');
    std::string word = Upper(reply->text.substr(0, sp));
    std::string rest = sp == std::string::npos ? "" : reply->text.substr(sp + 1);
    if (word == "EXISTS") {
      if (n > kImapMaxMessages) {
        imap_drop(stream, mail_format("The IMAP server claims %lu messages, more than %lu: the connection is closed", n,
                                      kImapMaxMessages));
        return;
      }
      mail_exists(stream, n);
    } else if (word == "RECENT") {
      mail_recent(stream, n);
    } else if (word == "EXPUNGE") {
      mail_expunged(stream, n);
    } else if (word == "FETCH" || word == "STORE") {
      ImapCursor c = CursorAt(stream, rest);
      if (n < 1 || n > stream->nmsgs) {
        Log(mail_format("Unknown message data: %lu %.80s", n, reply->text.c_str()), 1);
        imap_skip_rest(c);
        return;
      }
      imap_parse_fetch(stream, n, c);
    } else if (word == "COPY") {
    } else {
      Log(mail_format("Unknown message data: %lu %.80s", n, reply->text.c_str()), 1);
      ImapCursor c = CursorAt(stream, rest);
      imap_skip_rest(c);
    }
    return;
  }
  ImapCursor c = CursorAt(stream, reply->text);
  if (key == "LIST" || key == "LSUB") {
    List(stream, c);
  } else if (key == "ACL") {
    Acl(stream, c, false);
  } else if (key == "MYRIGHTS") {
    Acl(stream, c, true);
  } else if (key == "QUOTA") {
    Quota(stream, c);
  } else if (key == "QUOTAROOT") {
    imap_skip_rest(c);
  } else if (key == "STATUS") {
    Status(stream, c);
  } else if (key == "MAILBOX" || key == "BBOARD") {
    std::string name;
    if (Name(c, &name)) mm_mailbox((local->host + name).c_str(), 0, "(\\NOINFERIORS)");
    imap_skip_rest(c);
  } else if (key == "SEARCH") {
    for (size_t at = 0; at < reply->text.size();) {
      size_t end = reply->text.find(' ', at);
      if (end == std::string::npos) end = reply->text.size();
      std::string w = reply->text.substr(at, end - at);
      at = end + 1;
      if (w.empty() || w.size() > 10 || w.find_first_not_of("0123456789") != std::string::npos) continue;
      unsigned long m = std::stoul(w);
      if (m >= 1 && m <= stream->nmsgs) mail_searched(stream, m);
    }
  } else if (key == "FLAGS") {
    Flags(stream, reply->text);
  } else if (key == "CAPABILITY") {
    imap_parse_capabilities(stream, reply->text);
  } else if (key == "BYE") {
    if (!stream->silent && !local->logging_out) mm_notify(stream, reply->text.c_str(), 4);
  } else if (key == "OK" || key == "NO" || key == "BAD") {
    if (!reply->text.empty() && reply->text[0] == '[') {
      imap_parse_response_code(stream, reply->text);
    } else if (key == "OK") {
      mm_notify(stream, reply->text.c_str(), 0);
    } else if (key == "NO") {
      if (!stream->silent) mm_notify(stream, reply->text.c_str(), 1);
    } else {
      mm_notify(stream, reply->text.c_str(), 2);
    }
  } else if (key == "PREAUTH") {
    std::string text = reply->text;
    if (Upper(text.substr(0, 11)) == "[READ-ONLY]") {
      stream->rdonly = 1;
      text.erase(0, 11);
    }
    mm_notify(stream, text.c_str(), 0);
  } else {
    Log(mail_format("Unexpected unsolicited message from server: %.80s", reply->line.c_str()), 1);
    imap_skip_rest(c);
  }
}
