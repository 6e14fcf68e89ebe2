// Copying and moving one message, for the folder tests only, while the
// model's own message calls are not in this tree: the driver's copy and
// move on the source folder's stream. CMakeLists leaves this file out as
// soon as src/model defines the real ones.
#include <cstdio>

#include "src/model/model_internal.h"

namespace {
int Transfer(UMI umi, int ms, const char* folder, bool move) {
  MailStream* stream;
  unsigned long msgno;
  std::string full;
  if (!UmiLocate(umi, &stream, &msgno) || !MM_CCGenFolName(ms, folder, &full)) return 0;
  char sequence[24];
  std::snprintf(sequence, sizeof sequence, "%lu", msgno);
  return (move ? mail_move(stream, sequence, full.c_str()) : mail_copy(stream, sequence, full.c_str())) ? 1 : 0;
}
}  // namespace

int MM_MsgCopy(UMI umi, int ms, const char* folder) { return Transfer(umi, ms, folder, false); }

int MM_MsgMove(UMI umi, int ms, const char* folder) {
  if (!Transfer(umi, ms, folder, true)) return 0;
  MM_NotPostSimple(E_DELETED_FLAG_SET, 0);
  return 1;
}
