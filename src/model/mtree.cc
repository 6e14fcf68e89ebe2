// The MIME tree of a message, as the viewers and attachment windows walk
// it: one node per part with what the attachment model needs to know, and
// copying a part, decoded, to a file the user chose.
#include <strings.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "c-client/rfc822/rfc822.h"
#include "rclib/rc.h"
#include "src/base/errors.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/model/message_internal.h"

namespace {

struct KindName {
  unsigned short type;
  const char* subtype;
  int kind;
};

constexpr KindName kKinds[] = {
    {TYPEMULTIPART, "MIXED", kAttachMixed},
    {TYPEMULTIPART, "ALTERNATIVE", kAttachAlternative},
    {TYPEMULTIPART, "DIGEST", kAttachDigest},
    {TYPEMULTIPART, "PARALLEL", kAttachParallel},
    {TYPEMULTIPART, "FORMDATA", kAttachFormData},
    {TYPEMULTIPART, "RELATED", kAttachRelated},
    {TYPEMULTIPART, "REPORT", kAttachReport},
    {TYPEMULTIPART, "VOICE-MESSAGE", kAttachVoiceMessage},
    {TYPEMESSAGE, "RFC822", kAttachRfc822},
    {TYPEMESSAGE, "EXTERNAL-BODY", kAttachExternalBody},
    {TYPEMESSAGE, "NEWS", kAttachNews},
    {TYPEAPPLICATION, "APPLEFILE", kAttachAppleFile},
    {TYPEAPPLICATION, "MAC-BINHEX40", kAttachBinhex},
    {TYPEAPPLICATION, "X-UUENCODE", kAttachUuencode},
};

AttachInfo* NewInfo() {
  auto* info = new AttachInfo;
  std::memcpy(info->kind_word, "ATTINFO", 8);
  return info;
}

// Deletes a node's record and the temporary files written for it.
void FreeInfo(MTREE_NODE* node) {
  auto* info = static_cast<AttachInfo*>(node->data);
  if (!info) return;
  for (const std::string& f : info->temp_files)
    if (!f.empty()) std::remove(f.c_str());
  delete info;
  node->data = nullptr;
}

bool AddChild(MTREE_NODE* parent, AttachInfo* info, MTREE_NODE** out) {
  MTREE_NODE* node = nullptr;
  if (mtree_create(0, info, &node) != RC_OK) {
    delete info;
    return false;
  }
  if (mtree_add_child(parent, node) != RC_OK) {
    FreeInfo(node);
    mtree_destroy(&node, RC_FAIL);
    return false;
  }
  if (out) *out = node;
  return true;
}

}  // namespace

int AttachKindOf(const BodyPart* body) {
  if (!body || !body->subtype) return kAttachOther;
  for (const KindName& k : kKinds)
    if (body->type == k.type && strcasecmp(body->subtype, k.subtype) == 0) return k.kind;
  return kAttachOther;
}

AttachInfo* CreateUMIAttachInfo(UMI umi, const char* section, int flag) {
  const BodyPart* body = MM_MsgSectionBody(umi, section);
  if (!body) return nullptr;
  AttachInfo* info = NewInfo();
  info->umi = umi;
  info->section = section ? section : "";
  info->description = body->description ? body->description : "";
  info->major = body->type <= TYPEOTHER ? body_types[body->type] : "X-UNKNOWN";
  info->minor = body->subtype ? body->subtype : rfc822_default_subtype(body->type);
  info->kind = AttachKindOf(body);
  info->encoding = body->encoding;
  info->size = body->size_bytes;
  const Rfc822Parameter name = rfc822_parameter(body->parameter, "NAME");
  if (name.found) info->file_name = name.value;
  info->not_viewable = flag != 0;
  return info;
}

AttachInfo* CreateDummyAttachInfo() {
  AttachInfo* info = NewInfo();
  info->major = "NOT DEFINED";
  info->description = "This is the top level node in the MULTI TREE";
  return info;
}

int CreateMtree(MTREE_NODE* parent, UMI umi, const char* section, int flag) {
  Trace(kTraceFrame, kTraceAll, "CreateMtree: function entry.\n");
  if (!parent) return 0;
  AttachInfo* info = CreateUMIAttachInfo(umi, section, flag);
  if (!info) return 0;
  MTREE_NODE* node = nullptr;
  if (!AddChild(parent, info, &node)) return 0;
  const std::vector<std::string> subs = MM_MsgSectionSubsectionList(umi, section);
  if (subs.empty()) return 1;  // a leaf: nothing below it
  for (const std::string& sub : subs) {
    if (MM_MsgSectionMajorType(umi, sub.c_str()) == TYPEMULTIPART) {
      if (!CreateMtree(node, umi, sub.c_str(), flag)) return 0;
      continue;
    }
    AttachInfo* child = CreateUMIAttachInfo(umi, sub.c_str(), flag);
    if (!child || !AddChild(node, child, nullptr)) return 0;
  }
  return 1;
}

int CreateAttachmentMtree(MTREE_NODE* root, UMI umi) { return CreateMtree(root, umi, "", 0); }

void DeleteMtree(MTREE_NODE*& node) {
  if (!node) return;
  // Children first; each takes its records and files with it.
  while (MTREE_NODE* child = mtree_first_child(node)) {
    mtree_remove_child(node, child);
    DeleteMtree(child);
  }
  FreeInfo(node);
  mtree_destroy(&node, RC_FAIL);
}

int copy_section_to_file(UMI umi, const char* section, const char* target, unsigned long* size_out, int mode) {
  Trace(kTraceAttach, kTraceAll, "copy_section_to_file: function entry.\n");
  if (size_out) *size_out = 0;
  if (!target) return 0;
  const bool progress = mode == 1;
  if (progress) xvt_progress_open("Save Message Section", "Fetching message section from server ...", false);
  struct ProgressClose {
    bool on;
    ~ProgressClose() {
      if (on) xvt_progress_close();
    }
  } closer{progress};

  const std::string file = MM_MsgSectionContentToFile(umi, section);
  if (file.empty()) {
    Trace(kTraceAttach, kTraceCritical, "copy_section_to_file: failed to get section to file\n");
    ErrorShow(2103, nullptr);
    return 0;
  }
  struct stat st;
  if (size_out) *size_out = ::stat(file.c_str(), &st) == 0 ? static_cast<unsigned long>(st.st_size) : 0;
  if (progress) xvt_progress_set_text("Copying message section to file ...");
  const int copied = CopyFile(file.c_str(), target, 0);
  std::remove(file.c_str());
  if (!copied) {
    Trace(kTraceAttach, kTraceCritical, "copy_section_to_file: failed to copy file %s to %s\n", file.c_str(), target);
    char text[1200];
    std::snprintf(text, sizeof text, ErrorText(2004), target);
    xvt_dm_post_error("%s.   Unable to copy message section to destination file.", text);
    return 0;
  }
  return 1;
}
