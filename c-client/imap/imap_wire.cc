// The imap2 driver's conversation: writing a command with its arguments
// (atoms, quoted strings, literals), reading replies up to the tagged one,
// and the made-up reply that stands for a lost connection.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "c-client/core/mail_core.h"
#include "c-client/imap/imap_internal.h"
#include "c-client/rfc822/strsrc.h"

namespace {

void Log(const std::string& text, long level) { mm_log(text.c_str(), level); }

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// Splits a line into tag, key and text.
void Split(ImapReply* r) {
  r->tag.clear();
  r->key.clear();
  r->text.clear();
  const std::string& l = r->line;
  size_t sp = l.find(' ');
  r->tag = l.substr(0, sp);
  if (sp == std::string::npos) return;
  size_t sp2 = l.find(' ', sp + 1);
  r->key = Upper(l.substr(sp + 1, sp2 == std::string::npos ? std::string::npos : sp2 - sp - 1));
  if (sp2 != std::string::npos) r->text = l.substr(sp2 + 1);
}

// Characters that keep a string from being an atom.
bool AtomSpecial(unsigned char c) {
  return c <= ' ' || c >= 0x7f || std::strchr("(){%*\"\\]", c) != nullptr;
}

// How a string goes on the wire: as an atom when it is one, quoted when
// quoting can carry it, else as a literal (line breaks, NUL, 8-bit bytes).
enum class Form { kAtom, kQuoted, kLiteral };

Form FormOf(const char* s, bool second) {
  if (!*s) return Form::kQuoted;
  Form form = Form::kAtom;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p) {
    if (*p == '\r' || *p == '\n' || *p >= 0x80) return Form::kLiteral;
    // The second string of a command is a name or pattern the server takes
    // as typed: the list wildcards keep their meaning only in the first.
    if (AtomSpecial(*p) && !(!second && (*p == '%' || *p == '*'))) form = Form::kQuoted;
  }
  return form;
}

std::string Quote(const char* s) {
  std::string q = "\"";
  for (const char* p = s; *p; ++p) {
    if (*p == '"' || *p == '\\') q += '\\';
    q += *p;
  }
  return q + "\"";
}

bool Lost(ImapLocal* local) { return !local || !local->tcp || local->tcp->socket < 0; }

// A literal: announce it, wait for the go-ahead, then the bytes follow on
// the next part of the line. False with *reply set when the server said no.
bool Literal(MailStream* stream, std::string& line, std::string& shown, const char* s, bool secret, ImapReply** reply,
             const std::string& tag) {
  size_t n = std::strlen(s);
  std::string head = "{" + std::to_string(n) + "}";
  line += head;
  shown += head;
  if (!imap_send_line(stream, line, shown)) {
    *reply = imap_fake(stream, tag.c_str(), "IMAP connection broken while sending command");
    return false;
  }
  ImapReply* r = imap_reply(stream, tag.c_str());
  if (r->tag != "+") {
    *reply = r;
    return false;
  }
  line.assign(s, n);
  shown = secret ? "***" : std::string(s, n);
  return true;
}

// Adds one string argument; false with *reply when the command ended.
bool AddString(MailStream* stream, std::string& line, std::string& shown, const char* s, bool second, bool secret,
               ImapReply** reply, const std::string& tag) {
  line += ' ';
  shown += ' ';
  switch (FormOf(s, second)) {
    case Form::kAtom:
      line += s;
      shown += secret ? "***" : s;
      return true;
    case Form::kQuoted:
      line += Quote(s);
      shown += secret ? "***" : Quote(s);
      return true;
    case Form::kLiteral:
      return Literal(stream, line, shown, s, secret, reply, tag);
  }
  return true;
}

}  // namespace

void imap_trace(MailStream* stream, const std::string& text) {
  if (stream->debug) mm_dlog(text.c_str());
}

bool imap_key_is(const ImapReply* reply, const char* key) { return reply && reply->key == key; }

bool imap_send_line(MailStream* stream, const std::string& line, const std::string& shown) {
  ImapLocal* local = imap_local(stream);
  if (Lost(local)) return false;
  imap_trace(stream, shown);
  std::string out = line + "\r\n";
  return tcp_sout(local->tcp, out.data(), out.size()) != 0;
}

void imap_drop(MailStream* stream, const std::string& why) {
  ImapLocal* local = imap_local(stream);
  if (!local || !local->tcp) return;
  Log(why, 2);
  tcp_close(local->tcp);
  local->tcp = nullptr;
}

ImapReply* imap_fake(MailStream* stream, const char* tag, const char* text) {
  ImapLocal* local = imap_local(stream);
  if (local->tcp) {
    tcp_close(local->tcp);
    local->tcp = nullptr;
  }
  local->reply.line = mail_format("%s NO %s", tag && *tag ? tag : "NOTAG", text);
  Split(&local->reply);
  if (!stream->silent && !local->logging_out) mm_notify(stream, text, 4);
  return &local->reply;
}

ImapReply* imap_send(MailStream* stream, const char* command, const ImapArgs& args) {
  ImapLocal* local = imap_local(stream);
  char tag[16];
  std::snprintf(tag, sizeof tag, "A%05lu", stream->tag_counter++ % 100000);
  if (Lost(local)) {
    local->reply.line = mail_format("%s NO %s", tag, "Attempt to send on an invalid IMAP (dropped?) connection");
    Split(&local->reply);
    return &local->reply;
  }
  mail_lock(stream);
  ImapReply* reply = nullptr;
  std::string line = std::string(tag) + " " + command;
  std::string shown = line;
  bool going = true;
  if (args.string1) going = AddString(stream, line, shown, args.string1, false, false, &reply, tag);
  if (going && args.sequence) line += std::string(" ") + args.sequence, shown += std::string(" ") + args.sequence;
  if (going && args.atom) line += std::string(" ") + args.atom, shown += std::string(" ") + args.atom;
  if (going && args.flags) {
    std::string f = args.flags[0] == '(' ? std::string(" ") + args.flags : std::string(" (") + args.flags + ")";
    line += f;
    shown += f;
  }
  if (going && args.string2) going = AddString(stream, line, shown, args.string2, true, args.secret, &reply, tag);
  if (going && args.string3) going = AddString(stream, line, shown, args.string3, true, false, &reply, tag);
  if (going && args.source) {
    std::string head = " {" + std::to_string(string_remaining(args.source)) + "}";
    line += head;
    shown += head;
    if (!imap_send_line(stream, line, shown)) {
      reply = imap_fake(stream, tag, "IMAP connection broken while sending command data");
      going = false;
    } else {
      ImapReply* r = imap_reply(stream, tag);
      if (r->tag != "+") {
        reply = r;
        going = false;
      } else {
        // The message goes in chunks straight from its source.
        StringSource* s = args.source;
        std::string chunk;
        while (going && string_remaining(s)) {
          chunk.clear();
          while (chunk.size() < 65536 && string_remaining(s)) chunk += string_next(s);
          if (!tcp_sout(local->tcp, chunk.data(), chunk.size())) {
            reply = imap_fake(stream, tag, "IMAP connection broken while sending command data");
            going = false;
          }
        }
        line.clear();
        shown = "{message text}";
      }
    }
  }
  if (going) {
    if (!imap_send_line(stream, line, shown))
      reply = imap_fake(stream, tag, "IMAP connection broken while sending command");
    else
      reply = imap_reply(stream, tag);
  }
  mail_unlock(stream);
  return reply;
}

std::string imap_send_tagged(MailStream* stream, const std::string& command) {
  ImapLocal* local = imap_local(stream);
  char tag[16];
  std::snprintf(tag, sizeof tag, "A%05lu", stream->tag_counter++ % 100000);
  if (Lost(local)) return "";
  const std::string line = std::string(tag) + " " + command;
  return imap_send_line(stream, line, line) ? tag : "";
}

ImapReply* imap_reply(MailStream* stream, const char* tag) {
  if (!tag) return imap_reply_among(stream, {}, nullptr);
  return imap_reply_among(stream, {tag}, tag);
}

ImapReply* imap_reply_among(MailStream* stream, const std::vector<std::string>& tags, const char* tag) {
  ImapLocal* local = imap_local(stream);
  ImapReply* r = &local->reply;
  for (;;) {
    if (!local->tcp)
      return imap_fake(stream, tag, "IMAP server connection broken during server response");
    char* line = tcp_getline(local->tcp);
    if (!line) return imap_fake(stream, tag, "IMAP server connection broken during server response");
    r->line = line;
    FS_GIVE(&line);
    imap_trace(stream, r->line);
    Split(r);
    if (r->tag == "+") {
      r->key = "BAD";
      r->text = r->line.size() > 2 ? r->line.substr(2) : "Ready for more command";
      return r;
    }
    if (r->line.empty()) {
      Log("IMAP server sent a blank line", 1);
      continue;
    }
    if (r->key.empty()) {
      Log(mail_format("Missing IMAP reply key: %.80s", r->line.c_str()), 1);
      continue;
    }
    if (r->tag == "*") {
      imap_parse_unsolicited(stream, r);
      if (!tag) return r;
      continue;
    }
    if (tag && std::find(tags.begin(), tags.end(), r->tag) != tags.end()) {
      // Codes of the tagged reply count as well (READ-ONLY, TRYCREATE, a
      // login's CAPABILITY).
      if (!r->text.empty() && r->text[0] == '[') imap_parse_response_code(stream, r->text);
      return r;
    }
    Log(mail_format("Unexpected tagged response: %.80s %.80s %.80s", r->tag.c_str(), r->key.c_str(), r->text.c_str()),
        1);
  }
}

bool imap_OK(MailStream*, ImapReply* reply) {
  if (reply->key == "OK") return true;
  if (reply->tag == "*" && reply->key == "PREAUTH") return true;
  if (reply->key == "NO")
    Log(mail_format("IMAP operation failed: %.80s", reply->text.c_str()), 2);
  else if (reply->key == "BAD")
    Log(mail_format("IMAP protocol error: %.80s", reply->text.c_str()), 2);
  else
    Log(mail_format("Unexpected IMAP server response: %.80s %.80s", reply->key.c_str(), reply->text.c_str()), 2);
  return false;
}
