// Stand-in until the fetch hook lands: the mail layer's own memory reader.
#include "src/model/model_internal.h"

namespace {
const mailgets_t kCoreGets = mail_gets;
}

MailText* MM_Mailgets(readfn_t reader, void* handle, unsigned long size) { return kCoreGets(reader, handle, size); }
