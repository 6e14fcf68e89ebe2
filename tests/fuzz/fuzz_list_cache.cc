// Feeds arbitrary bytes to the reader of the model's cached folder
// listings. Besides not crashing: a text that reads back must write out
// to the same text, and a damaged one must leave no entries behind.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "src/model/folder_list_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  FolderList list;
  if (!ListCacheParse(text, &list)) {
    if (!list.empty()) std::abort();
    return 0;
  }
  std::string again;
  if (!ListCacheFormat(list, &again)) return 0;  // a "\r" in a name reads but isn't written
  FolderList back;
  if (!ListCacheParse(again, &back) || back.size() != list.size()) std::abort();
  for (size_t i = 0; i < back.size(); ++i)
    if (back[i].name != list[i].name || back[i].flags != list[i].flags || back[i].delimiter != list[i].delimiter)
      std::abort();
  return 0;
}
