// Access rights and quotas of folders on a server: the rights letters,
// and the calls whose answers mm_acl and mm_quota collect.
#include <cctype>
#include <cstring>

#include "src/base/trace.h"
#include "src/model/model_internal.h"

int MM_CCACLParse(const char* text) {
  // Read and write are each granted only by their whole group of letters:
  // a server that grants "l" alone lets us see the folder, not read it.
  bool l = false, r = false, s = false, w = false, i = false, d = false;
  int rights = 0;
  for (const char* p = text ? text : ""; *p; ++p) {
    switch (std::tolower(static_cast<unsigned char>(*p))) {
      case 'l': l = true; break;
      case 'r': r = true; break;
      case 's': s = true; break;
      case 'w': w = true; break;
      case 'i': i = true; break;
      case 'd': d = true; break;
      case 'a': rights |= kAclAdmin; break;
      case 'p': rights |= kAclPost; break;
      case 'c': break;
      default: mm_log("Bogus flag in acl string", 1); break;
    }
  }
  if (l && r && s) rights |= kAclRead;
  if (w && i && d) rights |= kAclWrite;
  return rights;
}

const char* MM_CCACLBuild(int rights) {
  static char buffer[16];
  buffer[0] = '\0';
  if (rights & (kAclRead | kAclWrite)) std::strcat(buffer, "lrs");
  if (rights & kAclWrite) std::strcat(buffer, "wid");
  if (rights & kAclAdmin) std::strcat(buffer, "a");
  if (rights & kAclPost) std::strcat(buffer, "p");
  return buffer;
}

namespace {

// The rights calls name the folder as the server knows it: the stream
// already says which server.
const char* Plain(const char* name) { return name ? name : ""; }

// One rights listing (getacl or myrights) collected by mm_acl.
int CollectACL(int ms, const char* name, ACLList* out, long (*call)(MailStream*, const char*), const char* report) {
  out->clear();
  ACLList list;
  Collecting<ACLList> collecting(g_acl_list, &list);
  CriticalSection busy;
  MailStream* stream = MM_MSGetStream(ms);
  if (!stream) {
    ReportNoStream(2101, report);
    return 0;
  }
  if (!call(stream, Plain(name))) return 0;
  *out = std::move(list);
  return 1;
}

}  // namespace

int MM_FolGetACLList(int ms, const char* name, ACLList* out) {
  Trace(kTraceModel, kTraceAll, "MM_FolGetACLList: function entry.\n");
  // The texts of these reports name the wrong call; users quote them.
  return CollectACL(ms, name, out, mail_getacl, "MM_FolGetACLList: failed to open stream for rename");
}

int MM_FolGetMyRights(int ms, const char* name, ACLList* out) {
  Trace(kTraceModel, kTraceAll, "MM_FolGetMyRights: function entry.\n");
  return CollectACL(ms, name, out, mail_myrights, "MM_FolGetACLList: failed to open stream for myrights");
}

int MM_FolAddACL(int ms, const char* name, const char* identifier, int rights) {
  Trace(kTraceModel, kTraceAll, "MM_FolAddACL: function entry.\n");
  if (!identifier) return 0;
  CriticalSection busy;
  MailStream* stream = MM_MSGetStream(ms);
  if (!stream) {
    ReportNoStream(2101, "MM_FolAddACL: failed to open stream for rename");
    return 0;
  }
  return mail_setacl(stream, Plain(name), identifier, MM_CCACLBuild(rights)) ? 1 : 0;
}

int MM_FolDeleteACL(int ms, const char* name, const char* identifier) {
  Trace(kTraceModel, kTraceAll, "MM_FolDeleteACL: function entry.\n");
  if (!identifier) return 0;
  CriticalSection busy;
  MailStream* stream = MM_MSGetStream(ms);
  if (!stream) {
    ReportNoStream(2101, "MM_FolDeleteACL: failed to open stream for rename");
    return 0;
  }
  return mail_deleteacl(stream, Plain(name), identifier) ? 1 : 0;
}

void MM_FolFreeACL(ACLList* list) {
  if (list) ACLList().swap(*list);
}

int MM_FolGetQuota(int ms, const char* root, long* storage_used, long* storage_limit, long* messages_used,
                   long* messages_limit) {
  Trace(kTraceModel, kTraceAll, "MM_FolGetQuota: function entry.\n");
  *storage_used = *storage_limit = *messages_used = *messages_limit = 0;
  QuotaValues values;
  Collecting<QuotaValues> collecting(g_quota, &values);
  CriticalSection busy;
  MailStream* stream = MM_MSGetStream(ms);
  if (!stream) {
    ReportNoStream(2101, "MM_FolGetQuota: failed to open stream for set quota");
    return 0;
  }
  mail_getquota(stream, Plain(root));
  *storage_used = values.storage_used;
  *storage_limit = values.storage_limit;
  *messages_used = values.messages_used;
  *messages_limit = values.messages_limit;
  return 1;
}

int MM_FolSetQuota(int ms, const char* root, long storage_limit, long messages_limit) {
  Trace(kTraceModel, kTraceAll, "MM_FolSetQuota: function entry.\n");
  CriticalSection busy;
  MailStream* stream = MM_MSGetStream(ms);
  if (!stream) {
    ReportNoStream(2101, "MM_FolSetQuota: failed to open stream for set quota");
    return 0;
  }
  return mail_setquota(stream, Plain(root), storage_limit, messages_limit) == 1;
}
