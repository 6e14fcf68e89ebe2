// Driver slots that a folder on the local disk has nothing to do for: there
// are no bulletin boards and nothing to prefetch, and the ACL and quota
// calls succeed because the user owns the files. The MH and dawz drivers
// share them.
#pragma once

#include "c-client/core/mail.h"

namespace local_slots {

inline void NoPattern(MailStream*, const char*) {}
inline long NoBoard(MailStream*, const char*) { return 0; }
inline void NoSequence(MailStream*, const char*) {}
inline long AclOk(MailStream*, const char*) { return 1; }
inline long SetAclOk(MailStream*, const char*, const char*, const char*) { return 1; }
inline long DeleteAclOk(MailStream*, const char*, const char*) { return 1; }
inline long SetQuotaOk(MailStream*, const char*, long, long) { return 1; }
inline long NoQuota(MailStream*, const char*) { return 0; }
inline void NoGc(MailStream*, long) {}

}  // namespace local_slots
