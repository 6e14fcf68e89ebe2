// Sections of a message: finding a part by its dotted name, a part's
// decoded content in a file, the parts below a part, and shadow messages
// (messages inside messages, named by a UMI of their own).
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "c-client/rfc822/rfc822.h"
#include "rclib/safe_file.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/message_internal.h"

namespace {

// Shadows released at once when the table is full.
constexpr int kShadowSweep = 64;

// The part of a shadow: the message/rfc822 part that holds the embedded
// message.
BodyPart* ShadowPart(UMI umi) { return MM_MsgIsShadowMessage(umi) ? MM_MsgSectionBody(umi, "") : nullptr; }

// Reads the next number of a dotted section name; false at a malformed one.
bool NextNumber(const char** s, unsigned long* n) {
  if (**s < '0' || **s > '9') return false;
  unsigned long v = 0;
  while (**s >= '0' && **s <= '9') {
    if (v < 1000000ul) v = v * 10 + static_cast<unsigned long>(**s - '0');
    ++*s;
  }
  if (**s == '.') {
    ++*s;
    if (!**s) return false;
  } else if (**s) {
    return false;
  }
  *n = v;
  return v != 0;
}

// The whole embedded message of a shadow, cached in its part as a file
// that the cache owns; "" on failure.
std::string ShadowWholeFile(UMI umi) {
  BodyPart* part = ShadowPart(umi);
  if (!part) return "";
  MailText* cached = part->msg_text;
  if (cached && cached->kind == kTextFile && !cached->consumed && cached->data && FileExists(cached->data))
    return cached->data;
  std::string file = MM_MsgSectionContentToFile(umi, "");
  if (file.empty()) return "";
  part = ShadowPart(umi);
  if (!part) {
    std::remove(file.c_str());
    return "";
  }
  struct stat st;
  const unsigned long size = ::stat(file.c_str(), &st) == 0 ? static_cast<unsigned long>(st.st_size) : 0;
  mail_free_text(&part->msg_text);
  part->msg_text = mail_newtext();
  mail_text_set(part->msg_text, kTextFile, file.c_str(), size);
  return file;
}

// A piece of a shadow's whole message (the header, or the body) in a new
// file of the caller's.
std::string ShadowPiece(UMI umi, bool header) {
  const std::string whole = ShadowWholeFile(umi);
  if (whole.empty()) return "";
  const int fd = safe_open_read(whole.c_str());
  if (fd < 0) return "";
  struct stat st;
  const long header_size = rfc822_header_size(fd);
  const bool stat_ok = ::fstat(fd, &st) == 0;
  ::close(fd);
  if (header_size < 0 || !stat_ok) return "";
  const long total = static_cast<long>(st.st_size);
  const long offset = header ? 0 : std::min(header_size, total);
  const long length = header ? std::min(header_size, total) : total - offset;
  std::string target;
  const int out = CreateTempFile(&target);
  if (out < 0) return "";
  ::close(out);
  if (!CopyFileSectionToFile(whole.c_str(), offset, length, target.c_str())) {
    std::remove(target.c_str());
    return "";
  }
  return target;
}

}  // namespace

bool IsMessageRfc822(const BodyPart* body) {
  return body && body->type == TYPEMESSAGE && body->subtype && strcasecmp(body->subtype, "RFC822") == 0;
}

std::string MM_UMISectionName(UMI umi, const char* section) {
  const char* s = section ? section : "";
  if (!MM_MsgIsShadowMessage(umi)) return s;
  const FolderInfo* f = FolderAt(MM_UMIFolder(umi));
  const int slot = MM_UMIShadowSlot(umi);
  if (!f || !f->shadows[slot] || f->shadows[slot]->umi != umi) return s;
  const std::string& base = f->shadows[slot]->section;
  if (!*s) return base;
  if (base.empty()) return s;
  return base + "." + s;
}

BodyPart* MM_MsgSectionBody(UMI umi, const char* section) {
  MailStream* stream;
  unsigned long msgno;
  if (!UmiLocate(umi, &stream, &msgno)) return nullptr;
  BodyPart* top = nullptr;
  mail_fetchstructure(stream, msgno, &top);
  if (!top) return nullptr;
  const std::string full = MM_UMISectionName(umi, section);
  if (top->type != TYPEMULTIPART) {
    if (full.empty() || full == "1") return top;
    if (!IsMessageRfc822(top)) return nullptr;
  }
  BodyPart* body = top;
  const char* s = full.c_str();
  while (*s) {
    unsigned long n = 0;
    if (!NextNumber(&s, &n)) return nullptr;
    BodyPart* parent = body;
    if (IsMessageRfc822(parent)) {
      // Into the embedded message; a single part there is the end.
      if (!parent->msg_body) return nullptr;
      parent = parent->msg_body;
      if (parent->type != TYPEMULTIPART) return parent;
    } else if (parent->type != TYPEMULTIPART) {
      return nullptr;
    }
    BodyPartNode* node = parent->parts;
    while (node && --n) node = node->next;
    // A number beyond the children ends the walk where it stands.
    if (!node) return body;
    body = &node->body;
  }
  return body;
}

std::string MM_MsgSectionContentToFile(UMI umi, const char* section) {
  BodyPart* part = MM_MsgSectionBody(umi, section);
  if (!part) return "";
  std::string full = MM_UMISectionName(umi, section);
  // The mail layer names a single-part message's only part "1".
  if (full.empty()) full = "1";
  MailStream* stream;
  unsigned long msgno;
  if (!UmiLocate(umi, &stream, &msgno)) return "";
  std::string file;
  MM_MailgetsSetEncoding(part->encoding);
  for (int attempt = 0; attempt < 2 && file.empty(); ++attempt) {
    if (!MM_MailgetsToFile()) break;
    unsigned long length = 0;
    MailText* text;
    {
      CriticalSection busy;
      text = mail_fetchbody(stream, msgno, full.c_str(), &length);
    }
    MM_MailgetsFileDone();
    if (!text) break;
    if (text->kind == kTextFile && text->data && FileExists(text->data)) {
      file = TakeTextFile(text);
      break;
    }
    if (text->kind == kTextFile)
      Trace(kTraceModel, kTraceCritical,
            "MM_MsgSectionContentToFile: cache text file does not exist - invalidating cache.\n");
    text->consumed = 1;
    if (!UmiLocate(umi, &stream, &msgno)) break;
  }
  MM_MailgetsSetEncoding(0);
  return file;
}

int MM_MsgSectionMajorType(UMI umi, const char* section) {
  const BodyPart* b = MM_MsgSectionBody(umi, section);
  return b ? b->type : -1;
}

std::string MM_MsgSectionMinorType(UMI umi, const char* section) {
  const BodyPart* b = MM_MsgSectionBody(umi, section);
  return b && b->subtype ? b->subtype : "";
}

unsigned long MM_MsgSectionSize(UMI umi, const char* section) {
  const BodyPart* b = MM_MsgSectionBody(umi, section);
  return b ? b->size_bytes : 0;
}

std::string MM_MsgSectionDesc(UMI umi, const char* section) {
  const BodyPart* b = MM_MsgSectionBody(umi, section);
  return b && b->description ? b->description : "";
}

std::vector<std::string> MM_MsgSectionSubsectionList(UMI umi, const char* section) {
  std::vector<std::string> out;
  const BodyPart* b = MM_MsgSectionBody(umi, section);
  if (IsMessageRfc822(b)) b = b->msg_body;
  if (!b || b->type != TYPEMULTIPART) return out;
  const std::string prefix = section && *section ? std::string(section) + "." : std::string();
  int n = 0;
  for (const BodyPartNode* p = b->parts; p; p = p->next) out.push_back(prefix + std::to_string(++n));
  return out;
}

// --- Shadow messages ----------------------------------------------------------------

int MM_MsgShadowSubMessage(UMI umi, const char* section, UMI* umi_out) {
  *umi_out = 0;
  if (!MM_MsgSectionBody(umi, section)) return 0;
  const std::string full = MM_UMISectionName(umi, section);
  const int folder = MM_UMIFolder(umi);
  FolderInfo* f = FolderAt(folder);
  if (!f) return 0;
  const uint32_t serial = MM_UMISerial(umi);
  int free_slot = 0;
  for (int slot = 1; slot < kShadowSlots; ++slot) {
    const ShadowMessage* s = f->shadows[slot].get();
    if (!s) {
      if (!free_slot) free_slot = slot;
      continue;
    }
    if (MM_UMISerial(s->umi) == serial && s->section == full) {
      *umi_out = s->umi;
      return 1;
    }
  }
  if (!free_slot) {
    // A full table: make room by releasing a run of shadows, round the
    // table in turn, so that the oldest go first and slot 0 stays unused.
    if (f->sweep < 1 || f->sweep >= kShadowSlots) f->sweep = 1;
    const int first = f->sweep;
    const int end = std::min(first + kShadowSweep, kShadowSlots);
    f->sweep = end >= kShadowSlots ? 1 : end;
    for (int slot = first; slot < end; ++slot) {
      f = FolderAt(folder);  // a listener may have closed the folder
      if (!f) return 0;
      if (f->shadows[slot]) MM_MsgReleaseShadowMessage(f->shadows[slot]->umi);
    }
    f = FolderAt(folder);
    if (!f) return 0;
    for (int slot = first; slot < kShadowSlots && !free_slot; ++slot)
      if (!f->shadows[slot]) free_slot = slot;
    for (int slot = 1; slot < first && !free_slot; ++slot)
      if (!f->shadows[slot]) free_slot = slot;
    if (!free_slot) return 0;
  }
  auto s = std::make_unique<ShadowMessage>();
  s->umi = MM_UMIMake(folder, free_slot, serial);
  s->section = full;
  *umi_out = s->umi;
  f->shadows[free_slot] = std::move(s);
  return 1;
}

void MM_MsgReleaseShadowMessage(UMI umi) {
  FolderInfo* f = FolderAt(MM_UMIFolder(umi));
  const int slot = MM_UMIShadowSlot(umi);
  if (!f || slot < 1 || slot >= kShadowSlots || !f->shadows[slot] || f->shadows[slot]->umi != umi) return;
  f->shadows[slot].reset();
  ModelEvent* ev = MM_NotEventNew(E_SHADOW_RELEASED);
  ev->umi = umi;
  ev->folder = static_cast<int16_t>(MM_UMIFolder(umi));
  MM_NotEventPost(ev);
  MM_NotEventFree(ev);
}

void ShadowReleaseAll(FolderInfo* folder) {
  for (auto& s : folder->shadows) s.reset();
}

int MM_MsgShadowUmiMinorType(UMI umi) {
  const BodyPart* part = ShadowPart(umi);
  if (!part) return -1;
  return AttachKindOf(IsMessageRfc822(part) && part->msg_body ? part->msg_body : part);
}

std::string ShadowUMIRawHeadersToFile(UMI umi) { return ShadowPiece(umi, true); }
std::string ShadowUMIRawBodyToFile(UMI umi) { return ShadowPiece(umi, false); }

std::string ShadowUMIToFile(UMI umi) {
  const std::string whole = ShadowWholeFile(umi);
  if (whole.empty()) return "";
  std::string target;
  const int out = CreateTempFile(&target);
  if (out < 0) return "";
  ::close(out);
  struct stat st;
  if (::stat(whole.c_str(), &st) != 0 ||
      !CopyFileSectionToFile(whole.c_str(), 0, static_cast<long>(st.st_size), target.c_str())) {
    std::remove(target.c_str());
    return "";
  }
  return target;
}
