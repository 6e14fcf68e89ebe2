// The Send command: the window's fields and text become a message record,
// optionally signed or encrypted, and go to the sending layer. Every way it
// stops leaves the window open with its text.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cctype>
#include <cstring>
#include <iterator>
#include <sstream>
#include <vector>

#include "rclib/safe_file.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/compose/compose.h"
#include "src/compose/compose_internal.h"
#include "src/compose/compose_text.h"
#include "src/model/local_search.h"
#include "src/options/options.h"
#include "src/security/pgp.h"
#include "src/security/pgp_mime.h"
#include "src/send/send.h"
#include "src/spell/spell.h"
#include "src/spell/spell_dialog.h"

namespace {

constexpr size_t kMaxAttachmentSize = 200u << 20;

bool Cancelled() { return xvt_progress_win() && xvt_progress_cancelled(); }

BodyParameter* Param(const char* attribute, const std::string& value, BodyParameter* next = nullptr) {
  BodyParameter* p = mail_newbody_parameter();
  p->attribute = cpystr(attribute);
  p->value = cpystr(value.c_str());
  p->next = next;
  return p;
}

unsigned short MajorType(const std::string& major) {
  static const std::pair<const char*, BodyType> kTypes[] = {
      {"text", TYPETEXT},   {"multipart", TYPEMULTIPART}, {"message", TYPEMESSAGE}, {"application", TYPEAPPLICATION},
      {"audio", TYPEAUDIO}, {"image", TYPEIMAGE},         {"video", TYPEVIDEO}};
  for (const auto& [name, type] : kTypes)
    if (!strcasecmp(name, major.c_str())) return type;
  return TYPEAPPLICATION;
}

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The whole file, read at the moment of sending; false (told) when it
// can't be read or is too big to mail.
bool ReadAttachment(const ComposeAttachment& a, std::string* out) {
  SafeFileError err;
  const int fd = safe_open(a.path.c_str(), O_RDONLY, 0, &err);
  if (fd < 0) {
    xvt_dm_post_error("The attachment %s could not be read: %s", a.path.c_str(), err.text().c_str());
    return false;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > kMaxAttachmentSize) {
    ::close(fd);
    xvt_dm_post_error("The attachment %s is not a file that can be sent (at most %zu MB).", a.path.c_str(),
                      kMaxAttachmentSize >> 20);
    return false;
  }
  out->clear();
  char block[65536];
  for (;;) {
    const ssize_t n = ::read(fd, block, sizeof block);
    if (n < 0) {
      ::close(fd);
      xvt_dm_post_error("The attachment %s could not be read: %s", a.path.c_str(), std::strerror(errno));
      return false;
    }
    if (n == 0) break;
    out->append(block, static_cast<size_t>(n));
    if (out->size() > kMaxAttachmentSize) break;
  }
  ::close(fd);
  return out->size() <= kMaxAttachmentSize;
}

void SetText(BodyPart* part, const std::string& text) {
  if (!part->contents) part->contents = mail_newtext();
  mail_text_set(part->contents, kTextBinary, text.data(), text.size());
}

bool ReadWhole(const std::string& path, std::string* out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  char block[8192];
  while (size_t n = std::fread(block, 1, sizeof block, f)) {
    out->append(block, n);
    if (out->size() > kPgpMimeMaxEntity) break;
  }
  std::fclose(f);
  return out->size() <= kPgpMimeMaxEntity;
}

bool WriteWhole(const std::string& path, const std::string& data) {
  SafeFileError err;
  const int fd = safe_open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600, &err);
  if (fd < 0) return false;
  const bool ok = safe_write_all(fd, data.data(), data.size(), &err);
  ::close(fd);
  return ok;
}

void MarkQuotedPrintable(BodyPart* body) {
  if (body->type == TYPETEXT) body->encoding = ENCQUOTEDPRINTABLE;
  if (body->type == TYPEMULTIPART)
    for (BodyPartNode* p = body->parts; p; p = p->next) MarkQuotedPrintable(&p->body);
}

}  // namespace

int fill_envelope(WINDOW win, Envelope* env) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info || !env) return 0;
  const ComposeFields f = ComposeGetFields(info);
  MailAddress* to = ComposeParseAddresses(f.to);
  if (!to && info->options.kind != kComposeForm) {
    Trace(kTraceCompose, kTraceHigh, "invalid <to:> field in fill_envelope\n");
    ErrorShow(3008, "invalid <to:> field in fill_envelope");
    return 0;
  }
  // A name the parser could not read is not sent to a wrong address.
  struct Check {
    const char* field;
    MailAddress* list;
  };
  MailAddress* cc = ComposeParseAddresses(f.cc);
  MailAddress* bcc = ComposeParseAddresses(f.bcc);
  MailAddress* reply_to = ComposeParseAddresses(f.reply_to);
  for (const Check& c : {Check{"To", to}, Check{"Cc", cc}, Check{"Bcc", bcc}, Check{"Reply-To", reply_to}})
    for (MailAddress* a = c.list; a; a = a->next)
      if (a->error || (a->mailbox && !a->host)) {
        xvt_dm_post_error("The %s field holds an address that cannot be used: %s", c.field,
                          a->mailbox ? a->mailbox : "?");
        for (MailAddress* l : {to, cc, bcc, reply_to}) mail_free_address(&l);
        return 0;
      }
  env->to = to;
  env->cc = cc;
  env->bcc = bcc;
  env->reply_to = reply_to;
  if (!ComposeTrim(f.subject).empty()) env->subject = cpystr(f.subject.c_str());
  if (!f.in_reply_to.empty()) env->in_reply_to = cpystr(f.in_reply_to.c_str());
  if (!f.references.empty()) {
    ExtraHeader* x = static_cast<ExtraHeader*>(FS_GET(sizeof(ExtraHeader)));
    x->name = cpystr("References");
    x->value = cpystr(f.references.c_str());
    x->next = env->extra_headers;
    env->extra_headers = x;
  }
  return 1;
}

int fill_body(WINDOW win, BodyPart** out) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info || !out) return 0;
  BodyPart* text = nullptr;
  if (info->form_pane) {
    // A form is the message: it goes in the place of the text.
    if (!ComposeFormPart(info, &text)) return 0;
  } else {
    text = mail_newbody();
    text->type = TYPETEXT;
    text->subtype = cpystr("PLAIN");
    text->parameter = Param("CHARSET", "UTF-8");
    SetText(text, ComposeTextGet(info->text_pane));
  }
  if (info->attachment_list.empty()) {
    *out = text;
    return 1;
  }
  BodyPart* mixed = mail_newbody();
  mixed->type = TYPEMULTIPART;
  mixed->subtype = cpystr("MIXED");
  mixed->parts = mail_newbody_part();
  mixed->parts->body = *text;
  FS_GIVE(&text);
  BodyPartNode* last = mixed->parts;
  for (const ComposeAttachment& a : info->attachment_list) {
    std::string data;
    if (!ReadAttachment(a, &data)) {
      mail_free_body(&mixed);
      return 0;
    }
    BodyPartNode* node = mail_newbody_part();
    BodyPart* part = &node->body;
    const size_t slash = a.type.find('/');
    part->type = MajorType(a.type.substr(0, slash));
    part->subtype = cpystr(Upper(slash == std::string::npos ? "OCTET-STREAM" : a.type.substr(slash + 1)).c_str());
    if (part->type == TYPEMESSAGE) {
      part->description = cpystr(a.name.c_str());
    } else {
      part->parameter = Param("NAME", a.name);
      part->disposition = cpystr("ATTACHMENT");
      part->disposition_parameter = Param("FILENAME", a.name);
    }
    SetText(part, data);
    last->next = node;
    last = node;
  }
  *out = mixed;
  return 1;
}

int COMP_ProcessPGP(Message* message, int kind, int encrypt, int sign, int mime) {
  Trace(kTraceCompose, kTraceAll, "COMP_ProcessPGP: function entry.\n");
  if (!message || !message->body || (!encrypt && !sign)) return 1;
  if (kind == kComposeForm) {
    xvt_dm_post_error("Unable to encrypt/sign forms.");
    return 0;
  }
  if (!mime && message->body->type == TYPEMULTIPART) {
    xvt_dm_post_error("Unable to encrypt/sign multipart message.  This will be handled in an upcoming release of Velmar.");
    return 0;
  }
  std::string user_id, pass_phrase;
  if (sign && !pgp_login(&user_id, &pass_phrase)) {
    pgp_report_error(pgp_get_last_error());
    return 0;
  }
  if (!sign) user_id = Opt_LookupText(kPgpUserIdOption, kOptSession);
  const std::string dir = pgp_make_private_dir();
  if (dir.empty()) {
    pgp_report_error(pgp_get_last_error());
    return 0;
  }
  const std::string in = dir + "/m.txt", out = dir + "/m.asc";
  xvt_progress_open("Velmar Security", sign && !encrypt ? "Digitally signing message..." : "Encrypting message...", false);
  const std::string recipients = encrypt ? form_pgp_recip_list(message->envelope) : "";
  int ok = 0;
  std::string result;
  if (mime) {
    // The body as one MIME part, headers and all: what the signature covers.
    // Its text goes quoted-printable, which keeps it 7-bit and its blanks
    // at line ends safe on the way.
    MarkQuotedPrintable(message->body);
    Message part{};
    part.envelope = mail_newenvelope();
    part.body = message->body;
    std::string whole;
    const int written = write_message(&whole, &part, nullptr, nullptr);
    mail_free_envelope(&part.envelope);
    const size_t at = whole.find("MIME-Version: 1.0\r\n");
    if (written && at != std::string::npos && WriteWhole(in, whole.substr(at + 19))) {
      ok = encrypt ? pgp_mime_encrypt(in.c_str(), out.c_str(), recipients.c_str(), user_id.c_str(), pass_phrase, sign)
                   : pgp_mime_sign(in.c_str(), out.c_str(), user_id.c_str(), pass_phrase);
    }
    if (ok && ReadWhole(out, &result)) {
      // The prepared part replaces the body and is written as it stands.
      BodyPart* prepared = mail_newbody();
      prepared->type = TYPEMULTIPART;
      prepared->subtype = cpystr(encrypt ? "ENCRYPTED" : "SIGNED");
      SetText(prepared, result);
      mail_free_body(&message->body);
      message->body = prepared;
    } else {
      ok = 0;
    }
  } else {
    const MailText* t = message->body->contents;
    std::string text = t && t->data ? std::string(t->data, t->size) : "";
    if (WriteWhole(in, text)) {
      ok = encrypt ? pgp_encrypt(in.c_str(), out.c_str(), recipients.c_str(), user_id.c_str(), pass_phrase, sign)
                   : pgp_sign(in.c_str(), out.c_str(), user_id.c_str(), pass_phrase);
    }
    if (ok && ReadWhole(out, &result))
      SetText(message->body, result);
    else
      ok = 0;
  }
  xvt_progress_close();
  pgp_clear_remove_file(in.c_str());
  pgp_clear_remove_file(out.c_str());
  ::rmdir(dir.c_str());
  if (!ok) pgp_report_error(pgp_get_last_error() ? pgp_get_last_error() : kPgpErrGeneral);
  return ok;
}

// True when the text says it carries a file (one of Compose.AttachmentWords,
// as a whole word, case ignored) and nothing is attached. Quoted lines do
// not count: a reply quotes the other side's "attached". A blank option
// never asks.
bool MentionsAMissingAttachment(ComposeInfo* info) {
  if (!info->attachment_list.empty()) return false;
  std::istringstream words(MM_SearchFoldCase(Opt_LookupText("Compose.AttachmentWords", kOptSession)));
  std::istringstream lines(MM_SearchFoldCase(ComposeTextGet(info->text_pane)));
  std::vector<std::string> wanted{std::istream_iterator<std::string>(words), {}};
  auto letter = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || (c & 0x80); };
  for (std::string line; !wanted.empty() && std::getline(lines, line);) {
    if (line.compare(0, 1, ">") == 0) continue;
    for (const std::string& w : wanted)
      for (size_t at = line.find(w); at != std::string::npos; at = line.find(w, at + 1))
        if ((at == 0 || !letter(line[at - 1])) && (at + w.size() == line.size() || !letter(line[at + w.size()])))
          return true;
  }
  return false;
}

int send_mail(WINDOW win) {
  Trace(kTraceCompose, kTraceAll, "send_mail: function entry.\n");
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return 0;
  // The writer's last look at the spelling. Cancel keeps the window as it
  // is; a missing dictionary has been told and does not hold the mail back.
  int spell_first = 0;
  if (!info->options.draft && Opt_LookupInt("Compose.SpellCheckBeforeSend", &spell_first, kOptSession) &&
      spell_first == 1 && Spell_Available()) {
    if (Spell_CheckWindow(info->address_panel[4], info->text_pane, true) == 0) return 0;
    info = ComposeInfoOf(win);
    if (!info) return 0;
  }
  if (!info->options.draft && MentionsAMissingAttachment(info) &&
      xvt_dm_post_ask("Send", "Cancel", nullptr, "The message speaks of an attachment, but nothing is attached. Send it anyway?") !=
          RESP_DEFAULT)
    return 0;
  ComposeOptions& o = info->options;
  short expand = 0;
  if (Opt_LookupBoolean("AddrBook.ExpandOnSend", &expand, kOptSession) && expand) ExpandAllAddresses(win);
  const char* title = o.draft ? "Saving to Drafts" : o.queue_outgoing ? "Queuing Message" : "Sending Message";
  xvt_progress_open(title, "Building message...", true);
  xvt_vobj_set_enabled(win, false);
  // Autosave first: whatever happens below, the text is on disk.
  ComposeAutosave(info);
  Message* message = mail_newmessage();
  message->envelope = mail_newenvelope();
  auto stop = [&](int code, const char* detail) {
    for (const std::string& f : o.temp_files) ::unlink(f.c_str());
    o.temp_files.clear();
    mail_free_message(&message);
    xvt_progress_close();
    if (xvt_vobj_is_valid(win)) xvt_vobj_set_enabled(win, true);
    if (code) ErrorShow(code, detail);
    return 0;
  };
  if (!fill_envelope(win, message->envelope)) return stop(0, nullptr);
  if (Cancelled()) return stop(0, nullptr);
  if (!fill_body(win, &message->body)) return stop(2078, "errSend_abort in send_mail (after fill_body) in module compose");
  if (Cancelled()) return stop(0, nullptr);
  if ((o.encrypt || o.sign) && !o.draft) {
    xvt_progress_close();
    if (!COMP_ProcessPGP(message, o.kind, o.encrypt, o.sign, o.pgp_mime))
      return stop(2078, "errSend_abort in send_mail (encryption failure) in module compose");
    xvt_progress_open(title, "Building message...", true);
  }
  SendOptions send;
  send.save_outgoing = o.save_outgoing;
  send.queued = o.queue_outgoing;
  send.read_receipt = o.read_receipt;
  send.delivery_receipt = o.delivery_receipt;
  send.draft = o.draft;
  send.priority = o.priority;
  if (o.draft) send.save_outgoing = send.queued = send.read_receipt = send.delivery_receipt = 0;
  const int r = send_message(message, &send);
  for (const std::string& f : o.temp_files) ::unlink(f.c_str());
  o.temp_files.clear();
  mail_free_message(&message);
  xvt_progress_close();
  if (!xvt_vobj_is_valid(win) || !ComposeInfoOf(win)) return r;
  xvt_vobj_set_enabled(win, true);
  if (!r) return 0;
  if (info->umi && o.queue_outgoing && o.kind == kComposeRestart && !o.draft) MM_MsgSetFlag(info->umi, "\\Deleted");
  if (info->umi && o.kind == kComposeReply && !o.draft) MM_MsgSetFlag(info->umi, "\\Answered");
  if (o.draft) {
    // Saved: the draft folder holds what the window holds.
    ComposeMarkSaved(info);
    return 1;
  }
  switch (o.disposition) {
    case kDispositionClear: {
      for (const ComposeAttachment& a : info->attachment_list)
        if (a.temporary) ::unlink(a.path.c_str());
      info->attachment_list.clear();
      info->umi = 0;
      o.kind = kComposeNew;
      ComposePrefill(info);
      ComposeRefreshAttachments(info);
      ComposeMarkSaved(info);
      return 1;
    }
    case kDispositionRemain: ComposeMarkSaved(info); return 0;
    default:
      ComposeMarkSaved(info);
      info->closing = true;
      xvt_vobj_destroy(win);
      return 1;
  }
}

int compose_save_draft(WINDOW win) {
  ComposeInfo* info = ComposeInfoOf(win);
  if (!info) return 0;
  const int16_t draft = info->options.draft;
  info->options.draft = 1;
  const int r = send_mail(win);
  if ((info = ComposeInfoOf(win))) info->options.draft = draft;
  return r;
}
