// Viewer windows: a message shown with its header, text and attachments.
#pragma once

#include "src/model/mm.h"

struct TreeNode;

// Shows the message in a viewer, reusing one as Viewer.Instances says.
// `container` is the folder (or search) node that holds the message's line;
// it may be null when the message was opened from elsewhere.
void spawnViewer(UMI umi, TreeNode* container);
// The step after Next or Previous: raises the viewer that already shows the
// message, else shows it in the first viewer, else opens one.
void spawnNextViewer(UMI umi, TreeNode* container);
