// Stand-in until sections and shadow messages land.
#include "src/model/model_internal.h"

void ShadowReleaseAll(FolderInfo* folder) {
  for (auto& s : folder->shadows) s.reset();
}
