// What a viewer shows of a message: the header in its two styles, the part
// chosen as the text, and the other parts as rows of the attachment pane.
#include <strings.h>

#include <cstdio>

#include "c-client/rfc822/mime_display.h"
#include "c-client/rfc822/rfc822.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/viewer/attach.h"
#include "src/viewer/text_render.h"
#include "src/viewer/viewer_internal.h"

namespace {

// The most text a pane is given; a bigger part shows this much and a note.
constexpr size_t kMaxPaneText = 8u << 20;
constexpr int kMaxRows = 500;
constexpr int kMaxDepth = 16;

bool Is(const BodyPart* b, unsigned short type, const char* subtype) {
  return b && b->type == type && b->subtype && strcasecmp(b->subtype, subtype) == 0;
}
bool IsPlain(const BodyPart* b) { return Is(b, TYPETEXT, "PLAIN") || Is(b, TYPETEXT, "ENRICHED"); }
bool IsHtml(const BodyPart* b) { return Is(b, TYPETEXT, "HTML"); }
bool IsRfc822(const BodyPart* b) { return Is(b, TYPEMESSAGE, "RFC822"); }

std::string Mime(const BodyPart* b) {
  std::string t = b->type <= TYPEOTHER ? body_types[b->type] : "X-UNKNOWN";
  t += '/';
  t += b->subtype ? b->subtype : rfc822_default_subtype(b->type);
  for (char& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return t;
}

std::string Kid(const std::string& section, int n) {
  return section.empty() ? std::to_string(n) : section + "." + std::to_string(n);
}

struct TextChoice {
  std::string section;
  bool html = false;
  bool found = false;
};

// The text inside an alternative or related part: plain text first, else HTML.
TextChoice TextInside(const BodyPart* b, const std::string& section, int depth) {
  TextChoice c;
  if (!b || depth > kMaxDepth) return c;
  if (IsPlain(b)) return {section, false, true};
  if (IsHtml(b)) return {section, true, true};
  if (b->type != TYPEMULTIPART) return c;
  const bool alternative = Is(b, TYPEMULTIPART, "ALTERNATIVE") || Is(b, TYPEMULTIPART, "RELATED");
  if (!alternative) return c;
  TextChoice html;
  int n = 1;
  for (const BodyPartNode* k = b->parts; k; k = k->next, ++n) {
    const TextChoice inner = TextInside(&k->body, Kid(section, n), depth + 1);
    if (!inner.found) continue;
    if (!inner.html) return inner;
    if (!html.found) html = inner;
  }
  return html;
}

std::string SizeText(unsigned long bytes) {
  char buf[32];
  if (bytes >= 1024 * 1024)
    std::snprintf(buf, sizeof buf, "%.1f MB", bytes / (1024.0 * 1024.0));
  else if (bytes >= 1024)
    std::snprintf(buf, sizeof buf, "%lu KB", (bytes + 1023) / 1024);
  else
    std::snprintf(buf, sizeof buf, "%lu bytes", bytes);
  return buf;
}

// What the part holds once decoded: base64 carries 57 bytes in each line
// of 76 characters and its line end; the size on the wire would overstate
// an attachment by more than a third.
unsigned long DecodedSize(const BodyPart* b) {
  if (b->encoding != ENCBASE64) return b->size_bytes;
  return static_cast<unsigned long>(static_cast<unsigned long long>(b->size_bytes) * 57 / 78);
}

void AddRows(const BodyPart* b, const std::string& section, int depth, const std::string& skip,
             std::vector<AttachRow>* rows) {
  if (!b || depth > kMaxDepth || rows->size() >= static_cast<size_t>(kMaxRows)) return;
  if (section == skip) return;
  AttachRow row;
  row.section = section;
  row.mime = Mime(b);
  row.depth = depth;
  const std::string indent(static_cast<size_t>(depth) * 4, ' ');
  if (b->type == TYPEMULTIPART) {
    row.container = true;
    row.kind = kAttachMixed;
    row.label = indent + row.mime;
    rows->push_back(row);
    int n = 1;
    for (const BodyPartNode* k = b->parts; k; k = k->next, ++n) AddRows(&k->body, Kid(section, n), depth + 1, skip, rows);
    return;
  }
  if (IsRfc822(b)) {
    row.kind = kAttachRfc822;
    const std::string subject =
        b->msg_env && b->msg_env->subject ? mime_display_text(b->msg_env->subject) : std::string();
    row.name = AttachSafeName(subject.empty() ? "message" : subject) + ".eml";
    row.label = indent + (subject.empty() ? std::string("unnamed") : subject) + "  (message/rfc822)";
    rows->push_back(row);
    return;
  }
  if (Is(b, TYPEAPPLICATION, "APPLEFILE")) row.kind = kAttachAppleFile;
  if (Is(b, TYPEAPPLICATION, "MAC-BINHEX40")) row.kind = kAttachBinhex;
  if (Is(b, TYPEAPPLICATION, "X-UUENCODE")) row.kind = kAttachUuencode;
  row.name = AttachPartName(b);
  row.label = indent + row.name + "  (" + row.mime + ", " + SizeText(DecodedSize(b)) + ")";
  rows->push_back(row);
}

// The kids of a multipart as rows, at depth 0, leaving out the text shown.
void AddKids(const BodyPart* b, const std::string& section, const std::string& skip, std::vector<AttachRow>* rows) {
  int n = 1;
  for (const BodyPartNode* k = b->parts; k; k = k->next, ++n) AddRows(&k->body, Kid(section, n), 0, skip, rows);
}

int PartCount(const BodyPart* b) {
  int n = 0;
  for (const BodyPartNode* k = b ? b->parts : nullptr; k; k = k->next) ++n;
  return n;
}

std::string Address(const MailAddress* a) {
  std::string mailbox = a->mailbox ? a->mailbox : "";
  if (a->host && *a->host && a->host[0] != '.') mailbox += std::string("@") + a->host;
  const std::string personal = a->personal ? mime_display_text(a->personal) : std::string();
  if (personal.empty()) return mailbox;
  return personal + " <" + mailbox + ">";
}

bool SameAddress(const MailAddress* a, const MailAddress* b) {
  if (!a || !b) return false;
  return strcasecmp(a->mailbox ? a->mailbox : "", b->mailbox ? b->mailbox : "") == 0 &&
         strcasecmp(a->host ? a->host : "", b->host ? b->host : "") == 0;
}

void insert_string_header(std::string& out, const char* name, const char* raw) {
  if (!raw || !*raw) return;
  out += HeaderLine(name, mime_display_text(raw));
  out += '\n';
}

void insert_address_header(std::string& out, const char* name, const MailAddress* list) {
  if (!list) return;
  std::string content;
  int count = 0;
  for (const MailAddress* a = list; a && count < 1000; a = a->next, ++count) {
    if (!a->mailbox && !a->host) continue;  // the ends of a group
    if (!content.empty()) content += "\n" + std::string(kHeaderColumn, ' ');
    content += Address(a);
  }
  if (content.empty()) return;
  out += HeaderLine(name, content);
  out += '\n';
}

}  // namespace

int getNumberOfContainerWindows(UMI umi, int mode) {
  const BodyPart* top = MM_MsgSectionBody(umi, "");
  if (!top) return 2;
  if (IsRfc822(top)) {
    if (!MM_MsgIsShadowMessage(umi)) return 2;
    top = top->msg_body;
    if (!top) return 2;
  }
  if (top->type != TYPEMULTIPART) return IsHtml(top) ? 3 : 2;  // HTML also lists its original
  if (Is(top, TYPEMULTIPART, "REPORT")) return PartCount(top) > 1 ? 3 : 2;
  const bool family = Is(top, TYPEMULTIPART, "MIXED") || Is(top, TYPEMULTIPART, "ALTERNATIVE") ||
                      Is(top, TYPEMULTIPART, "SIGNED") || Is(top, TYPEMULTIPART, "RELATED");
  if (family && top->parts && TextInside(&top->parts->body, "1", 0).found) return 3;
  return (mode == 2 || mode == 4 || mode == 5) ? 3 : 2;
}

std::string ViewerPartText(UMI umi, const std::string& section, bool as_html) {
  const BodyPart* part = MM_MsgSectionBody(umi, section.c_str());
  std::string bytes;
  if (!part || !AttachPartBytes(umi, section, &bytes)) {
    Trace(kTraceAttach, kTraceCritical, "set_text_part_into_editor: problem with IPM body part file for UMI.\n");
    return {};
  }
  bool cut = false;
  if (bytes.size() > kMaxPaneText) {
    bytes.resize(kMaxPaneText);
    cut = true;
  }
  const std::string charset = mime_parameter(part->parameter, "CHARSET");
  std::string text = mime_display_body(bytes, charset.c_str());
  if (as_html) text = HtmlToText(text);
  if (cut) text = Utf8Cut(text, kMaxPaneText) + "\n[The rest of this text is not shown; save it to read it all.]\n";
  return text;
}

ViewerContent ViewerBuildContent(UMI umi) {
  ViewerContent c;
  const BodyPart* top = MM_MsgSectionBody(umi, "");
  if (!top) return c;
  const bool embedded = MM_MsgIsShadowMessage(umi);
  if (IsRfc822(top) && embedded) top = top->msg_body;
  if (!top) return c;
  TextChoice text;
  if (IsRfc822(top)) {
    // A message that is only a forwarded message: the forwarded one is the attachment.
    AddRows(top, "1", 0, "", &c.rows);
  } else if (IsPlain(top) || IsHtml(top)) {
    text = {"1", IsHtml(top), true};
    if (text.html) {
      // The original stays at hand for a helper (a browser).
      AttachRow row;
      row.section = "1";
      row.mime = "text/html";
      row.name = "message.html";
      row.label = "message.html  (text/html, original)";
      c.rows.push_back(row);
    }
  } else if (top->type == TYPEMULTIPART) {
    const bool report = Is(top, TYPEMULTIPART, "REPORT");
    const bool family = Is(top, TYPEMULTIPART, "MIXED") || Is(top, TYPEMULTIPART, "ALTERNATIVE") ||
                        Is(top, TYPEMULTIPART, "SIGNED") || Is(top, TYPEMULTIPART, "RELATED") || report;
    if (report && PartCount(top) == 1 && top->parts) {
      text = TextInside(&top->parts->body, "1", 0);
    } else if (family && top->parts) {
      text = Is(top, TYPEMULTIPART, "ALTERNATIVE") ? TextInside(top, "", 0) : TextInside(&top->parts->body, "1", 0);
    }
    AddKids(top, "", text.found ? text.section : std::string("\x01"), &c.rows);
    // An alternative's HTML twin of the text shown is no attachment to speak of,
    // but it stays listed: it is how a reader gets at the original.
  } else {
    AddRows(top, "1", 0, "", &c.rows);
  }
  if (text.found) {
    c.has_text = true;
    c.text_section = text.section;
    c.from_html = text.html;
    c.text = ViewerPartText(umi, text.section, text.html);
  }
  c.panes = c.has_text && !c.rows.empty() ? 3 : 2;
  return c;
}

std::string ViewerHeaderText(UMI umi, int style) {
  if (style == kHeaderRaw) {
    const std::optional<std::string> raw = MM_MsgRawHeaders(umi);
    return raw ? mime_display_body(*raw, "") : std::string();
  }
  const Envelope* env = MM_MsgEnvelope(umi);
  if (!env) return {};
  std::string out;
  insert_string_header(out, "Date", env->date);
  insert_address_header(out, "To", env->to);
  insert_address_header(out, "Cc", env->cc);
  insert_address_header(out, "From", env->from);
  insert_string_header(out, "Subject", env->subject);
  insert_string_header(out, "Newsgroups", env->newsgroups);
  std::string more;
  insert_string_header(more, "In-Reply-To", env->in_reply_to);
  if (!SameAddress(env->reply_to, env->from)) insert_address_header(more, "Reply-To", env->reply_to);
  if (!SameAddress(env->sender, env->from)) insert_address_header(more, "Sender", env->sender);
  insert_string_header(more, "Message-ID", env->message_id);
  if (!more.empty()) out += std::string(40, '-') + "\n" + more;
  return out;
}

std::vector<std::pair<std::string, std::string>> ViewerPrintFields(UMI umi) {
  std::vector<std::pair<std::string, std::string>> out;
  const Envelope* env = MM_MsgEnvelope(umi);
  if (!env) return out;
  auto addresses = [](const MailAddress* list) {
    std::string text;
    int count = 0;
    for (const MailAddress* a = list; a && count < 1000; a = a->next, ++count) {
      if (!a->mailbox && !a->host) continue;  // the ends of a group
      if (!text.empty()) text += '\n';
      text += Address(a);
    }
    return text;
  };
  out.emplace_back("From", addresses(env->from));
  out.emplace_back("To", addresses(env->to));
  out.emplace_back("Cc", addresses(env->cc));
  out.emplace_back("Date", env->date ? mime_display_text(env->date) : std::string());
  out.emplace_back("Subject", env->subject ? mime_display_text(env->subject) : std::string());
  return out;
}

std::string ViewerTitle(UMI umi, TreeNode* container) {
  const Envelope* env = MM_MsgEnvelope(umi);
  const std::string subject = env && env->subject ? mime_display_text(env->subject) : std::string();
  if (MM_MsgIsShadowMessage(umi)) return subject.empty() ? "RFC822 Message" : "RFC822 Message: " + subject;
  (void)container;
  const int folder = MM_UMIFolder(umi);
  const char* name = MM_FolGetName(folder);
  std::string fname = name ? name : "";
  if (!fname.empty()) fname = MM_FolGetFriendlyName(MM_FolGetService(folder), fname.c_str());
  if (fname.empty() && subject.empty()) return "unknown";
  if (subject.empty()) return fname + " :";
  if (fname.empty()) return ": " + subject;
  return fname + " : " + subject;
}
