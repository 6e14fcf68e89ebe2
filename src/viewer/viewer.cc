// Until the viewer window exists, opening a message only records it.
#include "src/viewer/viewer.h"

#include "src/base/trace.h"

void spawnViewer(UMI umi, TreeNode*) {
  Trace(kTraceOrganizer, kTraceLow, "spawnViewer: %llu\n", static_cast<unsigned long long>(umi));
}

void spawnNextViewer(UMI umi, TreeNode* container) { spawnViewer(umi, container); }
