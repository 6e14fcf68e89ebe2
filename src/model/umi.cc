// From a UMI to its message: the folder's serial table, searched by
// bisection, and the element's flags.
#include <algorithm>

#include "src/model/model_internal.h"

UMI MM_UMIFromMsgno(int folder, unsigned long msgno) {
  const FolderInfo* f = FolderAt(folder);
  if (!f || msgno < 1 || msgno > f->count()) return 0;
  return MM_UMIMake(folder, 0, f->serials[msgno]);
}

unsigned long MM_UMIMsgno(UMI umi) {
  const FolderInfo* f = FolderAt(MM_UMIFolder(umi));
  if (!f || f->count() == 0) return 0;
  const uint32_t serial = MM_UMISerial(umi);
  auto first = f->serials.begin() + 1;
  auto it = std::lower_bound(first, f->serials.end(), serial);
  if (it == f->serials.end() || *it != serial) return 0;
  return static_cast<unsigned long>(it - f->serials.begin());
}

bool UmiLocate(UMI umi, MailStream** stream, unsigned long* msgno) {
  *stream = nullptr;
  *msgno = MM_UMIMsgno(umi);
  if (*msgno == 0) return false;
  *stream = MM_FolStream(MM_UMIFolder(umi));
  // The gate may have posted a stream death whose handler closed the
  // folder or changed its table: ask again.
  if (!*stream) return false;
  *msgno = MM_UMIMsgno(umi);
  return *msgno != 0 && *msgno <= (*stream)->nmsgs;
}

MessageElt* MM_UMIGetElt(UMI umi) {
  MailStream* stream;
  unsigned long msgno;
  if (!UmiLocate(umi, &stream, &msgno)) return nullptr;
  auto* elt = static_cast<MessageElt*>(mailcache(stream, msgno, CH_ELT));
  if (!elt || !elt->day) {
    mail_fetchstructure(stream, msgno, nullptr);
    if (!stream->driver) return nullptr;
    elt = mail_elt(stream, msgno);
  }
  return elt;
}

namespace {
template <typename F>
int Flag(UMI umi, F get) {
  const MessageElt* elt = MM_UMIGetElt(umi);
  return elt ? static_cast<int>(get(elt)) : 0;
}
}  // namespace

int MM_MsgIsRead(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->seen; }); }
int MM_MsgIsDeleted(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->deleted; }); }
int MM_MsgIsFlagged(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->flagged; }); }
int MM_MsgIsAnswered(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->answered; }); }
int MM_MsgIsDraft(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->draft; }); }
int MM_MsgIsRecent(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->recent; }); }
int MM_MsgIsSearched(UMI umi) { return Flag(umi, [](const MessageElt* e) { return e->searched; }); }
