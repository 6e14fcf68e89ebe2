// What a redisplay would do, for the widget and its tests: the rectangles
// whose pixels merely move, and those that must be drawn again.
#pragma once

#include <vector>

#include "src/organizer/tree.h"

struct TreeScroll {
  RCT rect;    // the area that scrolls
  int amount;  // pixels along the line axis (down or right when positive)
};

struct TreeRedisplayPlan {
  std::vector<TreeScroll> scrolls;
  std::vector<RCT> draws;
};

// Compares each line's old place (display_line) with the one it takes now
// that the top is cache.topline.
TreeRedisplayPlan TREE_PlanRedisplay(const TreeInfo* info);
