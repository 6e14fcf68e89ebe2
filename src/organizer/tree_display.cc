// The tree widget's display: the cache (a few screens of the display order),
// redisplay by comparing where each line stood with where it stands now,
// painting, scrolling and the scroll bars. Nothing here walks the whole tree
// except counting the offset when the cache can't know it.
#include <algorithm>
#include <cstdlib>

#include "src/base/critical.h"
#include "src/base/errors.h"
#include "src/base/trace.h"
#include "src/organizer/tree.h"
#include "src/organizer/tree_display.h"
#include "src/organizer/tree_internal.h"

using namespace tree;

namespace {

constexpr COLOR kConnector = 0x808080;

// Lines lie along one axis: downward, or side by side in a horizontal widget.
RCT LineRect(const TreeInfo* info, int first_line, int last_line, int from, int to) {
  int a = first_line * info->line_height, b = (last_line + 1) * info->line_height;
  return info->horizontal ? RCT{a, from, b, to} : RCT{from, a, to, b};
}

int ClientAlong(const TreeInfo* info) {
  RCT c{};
  xvt_vobj_get_client_rect(info->window, &c);
  return info->horizontal ? c.right - c.left : c.bottom - c.top;
}

int ClientAcross(const TreeInfo* info) {
  RCT c{};
  xvt_vobj_get_client_rect(info->window, &c);
  return info->horizontal ? c.bottom - c.top : c.right - c.left;
}

RCT Trim(const TreeInfo* info, RCT r) {
  int along = ClientAlong(info);
  if (info->horizontal)
    r.right = std::min(r.right, along);
  else
    r.bottom = std::min(r.bottom, along);
  return r;
}

bool Meets(const RCT& a, const RCT& b) {
  return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}

// A line that a close or hide took away: its nearest ancestor that shows.
TreeNode* Shown(TreeNode* n) {
  while (n && !IsRoot(n) && !TREE_IsVisibleNode(n)) n = n->parent;
  return n && !IsRoot(n) ? n : nullptr;
}

bool IsDescendantOrSelf(const TreeNode* n, const TreeNode* of) {
  for (; n; n = n->parent)
    if (n == of) return true;
  return false;
}

// The right edge of a line: its highlight's end, or the window's.
int RightEdge(TreeInfo* info, TreeNode* node) {
  int x = node->abs_offset + info->margin;
  if (!node->width) return std::max(x, info->cache.window_width);
  RCT r = LineRect(info, 0, 0, x, info->cache.window_width);
  return x + node->width(info->window, node, &r);
}

void cacheRebuildDisplayed_Nodes(TreeInfo* info) {
  TreeCache& c = info->cache;
  for (int i = 0; i < c.displayed_count; ++i)
    if (TreeNode* n = c.displayed[static_cast<size_t>(i)]) n->display_line = kTreeInvalid;
  c.displayed_count = 0;
  if (c.displayed.size() < static_cast<size_t>(c.visible_lines + 1))
    c.displayed.resize(static_cast<size_t>(c.visible_lines + 1), nullptr);
  std::fill(c.displayed.begin(), c.displayed.end(), nullptr);
  if (c.topline < 0) return;
  for (int i = c.topline; i <= c.bottom_index + 1 && i < c.entries; ++i) {
    TreeNode* n = c.nodes[static_cast<size_t>(i)];
    int line = i - c.topline;
    c.displayed[static_cast<size_t>(line)] = n;
    if (n) n->display_line = line;
    c.displayed_count = line + 1;
  }
}

void cacheCalcMaxLineWidth(TreeInfo* info) {
  int widest = 0;
  for (int i = 0; i < info->cache.displayed_count; ++i)
    if (TreeNode* n = info->cache.displayed[static_cast<size_t>(i)]) widest = std::max(widest, RightEdge(info, n));
  if (widest != info->max_line_width) info->need_update = true;
  info->max_line_width = widest;
}

int BarExtent(XVT_ATTR attr) {
  int e = static_cast<int>(xvt_vobj_get_attr(NULL_WIN, attr));
  return e > 0 ? e : 16;
}

// Decides which bars show: 1 shown, 2 undecided, 3 hidden. True on a change.
// `outer` is the whole window, bars included (null: the window as it is).
bool hideScrollbars(TreeInfo* info, const RCT* outer = nullptr) {
  int vbar = BarExtent(ATTR_CTL_VERT_SBAR_WIDTH), hbar = BarExtent(ATTR_CTL_HORZ_SBAR_HEIGHT);
  // The whole window, bars included, and the same less room for both bars.
  RCT c{};
  if (outer)
    c = *outer;
  else
    xvt_vobj_get_outer_rect(info->window, &c);
  int full_h = c.bottom - c.top;
  int full_w = c.right - c.left;
  int full_along = info->horizontal ? full_w : full_h, small_along = full_along - (info->horizontal ? vbar : hbar);
  int full_across = info->horizontal ? full_h : full_w, small_across = full_across - (info->horizontal ? hbar : vbar);
  int lh = info->line_height;
  // Hidden when the lines fit even beside the other bar, shown when they
  // don't fit even without it, undecided in between.
  int16_t v = info->entries_visible <= small_along / lh ? 3 : info->entries_visible > full_along / lh ? 1 : 2;
  int16_t h = info->max_line_width <= small_across ? 3 : info->max_line_width > full_across ? 1 : 2;
  if (v == 2) v = h == 2 ? 3 : h;
  if (h == 2) h = v;
  bool changed = v != info->v_state || h != info->h_state;
  info->v_state = v;
  info->h_state = h;
  return changed;
}

}  // namespace

namespace tree {

void newCacheArray(TreeCache* cache, int size) {
  if (size < 20)
    size = 20;
  else if (size >= 202)
    size = 201;
  else if (size % 2 == 0)
    size++;
  cache->size = size;
  cache->half = size / 2;
  cache->nodes.assign(static_cast<size_t>(size), nullptr);
}

void InitCache(TreeInfo* info, int size) {
  TreeCache& c = info->cache;
  newCacheArray(&c, size);
  c.topline = c.bottom_index = -1;
  c.last_abs_index = -1;
  c.at_top = c.at_bottom = 1;
}

TreeNode* findRightmostKid(TreeNode* root) {
  TreeNode* n = root;
  for (;;) {
    TreeNode* k = n->last_kid;
    while (k && Has(k, kNodeHidden)) k = k->prev;
    if (!k) break;
    n = k;
    if (!Has(n, kNodeOpen) || Has(n, kNodeOpenElsewhere)) break;
  }
  return n == root ? nullptr : n;
}

void flushCache(TreeInfo* info) {
  TreeCache& c = info->cache;
  TREE_ClearSelections(info->window);
  for (int i = 0; i < c.entries; ++i)
    if (TreeNode* n = c.nodes[static_cast<size_t>(i)]) n->cache_index = kTreeInvalid;
  std::fill(c.nodes.begin(), c.nodes.end(), nullptr);
  for (int i = 0; i < c.displayed_count; ++i)
    if (TreeNode* n = c.displayed[static_cast<size_t>(i)]) n->display_line = kTreeInvalid;
  c.entries = 0;
  c.offset = 0;
  c.topline = c.bottom_index = -1;
  c.displayed_count = 0;
  c.top_node = c.new_top = nullptr;
  c.at_top = c.at_bottom = 1;
  c.need_rebuild = 0;
  info->offset_known = true;
}

void rebuildCache(TreeInfo* info, TreeNode* node, int node_abs) {
  TreeCache& c = info->cache;
  if (!info->root->first_kid || info->entries_visible == 0) {
    if (c.entries || c.displayed_count) xvt_dwin_invalidate_rect(info->window, nullptr);
    flushCache(info);
    return;
  }
  if (!c.need_rebuild && (!node || node->cache_index != kTreeInvalid)) return;
  c.need_rebuild = 0;
  node = Shown(node);
  if (c.new_top) c.new_top = Shown(c.new_top);
  TreeNode* old_first = info->offset_known && c.entries > 0 ? c.nodes[0] : nullptr;
  int old_offset = c.offset;
  for (int i = 0; i < c.entries; ++i)
    if (TreeNode* n = c.nodes[static_cast<size_t>(i)]) n->cache_index = kTreeInvalid;
  std::fill(c.nodes.begin(), c.nodes.end(), nullptr);
  if (3 * c.visible_lines + 3 > c.size) {
    c.size = 3 * c.visible_lines + 3;
    c.half = c.size / 2;
    c.nodes.assign(static_cast<size_t>(c.size), nullptr);
  }
  c.entries = 0;
  c.offset = 0;
  c.at_top = c.at_bottom = 0;
  TreeNode* first = info->root->first_kid;
  TreeNode* start = nullptr;
  if (!node || node == first) {
    start = Has(first, kNodeHidden) ? TREE_NextNode(first) : first;
    c.at_top = 1;
  } else {
    int steps = node == findRightmostKid(info->root) ? c.size - 1 : c.half;
    start = node;
    for (int i = 0; i < steps; ++i) {
      TreeNode* p = TREE_PrevNode(start);
      if (!p) break;
      start = p;
    }
    if (!TREE_PrevNode(start)) c.at_top = 1;
  }
  TreeNode* n = start;
  while (n && c.entries < c.size) {
    c.nodes[static_cast<size_t>(c.entries)] = n;
    n->cache_index = c.entries++;
    n = TREE_NextNode(n);
  }
  c.at_bottom = n == nullptr;
  if (c.at_top) {
    c.offset = 0;
  } else if (node_abs >= 0 && node && node->cache_index >= 0) {
    c.offset = node_abs - node->cache_index;
  } else {
    // Near the old first line, the offset follows from it; otherwise count.
    bool found = false;
    if (old_first) {
      if (old_first->cache_index >= 0) {
        c.offset = old_offset - old_first->cache_index;
        found = true;
      } else {
        int count = 0;
        for (TreeNode* p = TREE_PrevNode(c.nodes[0]); p && count <= 2 * c.size; p = TREE_PrevNode(p)) {
          ++count;
          if (p == old_first) {
            c.offset = old_offset + count;
            found = true;
            break;
          }
        }
        if (!found) {
          count = c.entries - 1;
          for (TreeNode* q = TREE_NextNode(c.nodes[static_cast<size_t>(c.entries - 1)]); q && count <= 3 * c.size;
               q = TREE_NextNode(q)) {
            ++count;
            if (q == old_first) {
              c.offset = old_offset - count;
              found = true;
              break;
            }
          }
        }
      }
    }
    if (!found) {
      int count = 0;
      for (TreeNode* p = TREE_PrevNode(c.nodes[0]); p; p = TREE_PrevNode(p)) ++count;
      c.offset = count;
    }
  }
  info->offset_known = true;
  resetTopNode(info, c.new_top && c.new_top->cache_index >= 0 ? c.new_top : nullptr);
  c.need_rebuild = 0;
  info->need_update = true;
}

void resetTopNode(TreeInfo* info, TreeNode* node) {
  TreeCache& c = info->cache;
  if (!node || node->cache_index < 0) {
    c.top_node = nullptr;
    c.topline = c.bottom_index = -1;
    return;
  }
  if (c.at_bottom) {
    int last_screen = std::max(c.entries - c.visible_lines, 0);
    if (node->cache_index > last_screen) node = c.nodes[static_cast<size_t>(last_screen)];
  }
  c.top_node = c.new_top = node;
  c.topline = node->cache_index;
  c.bottom_index = c.topline + c.visible_lines - 1;
}

void removeNodeFromCache(TreeInfo* info, TreeNode* node) {
  TreeCache& c = info->cache;
  c.need_rebuild = 1;
  bool subtree = node->first_kid != nullptr;
  auto gone = [&](const TreeNode* n) { return subtree ? IsDescendantOrSelf(n, node) : n == node; };
  if (c.new_top && gone(c.new_top)) {
    if (info->entries_visible <= 0) {
      c.new_top = nullptr;
    } else {
      // The line after the node's subtree becomes the top, or the one before it.
      bool was = Has(node, kNodeHidden);
      Set(node, kNodeHidden, true);
      TreeNode* next = TREE_NextNode(node);
      c.new_top = next ? next : TREE_PrevNode(node);
      Set(node, kNodeHidden, was);
    }
  }
  if (c.top_node && gone(c.top_node)) c.top_node = nullptr;
  // Cached lines of the subtree: look in the cache, not in the subtree.
  if (subtree) {
    for (int i = 0; i < c.entries; ++i) {
      TreeNode* n = c.nodes[static_cast<size_t>(i)];
      if (n && gone(n)) {
        if (i == 0) info->offset_known = false;
        c.nodes[static_cast<size_t>(i)] = nullptr;
        n->cache_index = kTreeInvalid;
      }
    }
    for (int i = 0; i < c.displayed_count; ++i) {
      TreeNode* n = c.displayed[static_cast<size_t>(i)];
      if (n && gone(n)) {
        c.displayed[static_cast<size_t>(i)] = nullptr;
        n->display_line = kTreeInvalid;
      }
    }
  } else {
    if (node->cache_index >= 0 && node->cache_index < c.entries) {
      if (node->cache_index == 0) info->offset_known = false;
      c.nodes[static_cast<size_t>(node->cache_index)] = nullptr;
    }
    if (node->display_line >= 0 && node->display_line < static_cast<int>(c.displayed.size()))
      c.displayed[static_cast<size_t>(node->display_line)] = nullptr;
    node->cache_index = node->display_line = kTreeInvalid;
  }
  if (c.current_selection && gone(c.current_selection)) c.current_selection = nullptr;
  if (c.last_selection && gone(c.last_selection)) {
    c.last_selection = nullptr;
    c.last_abs_index = -1;
  }
}

void processUpdates(TreeInfo* info) {
  if (!info || info->suspended || !info->window) return;
  if (info->cache.need_rebuild) rebuildCache(info, info->cache.new_top);
  doRedisplay(info);
  if (info->need_update) updateScrollbars(info);
}

}  // namespace tree

// The plan of a redisplay: what to scroll and what to draw, line by line.
TreeRedisplayPlan TREE_PlanRedisplay(const TreeInfo* info) {
  TreeRedisplayPlan plan;
  const TreeCache& c = info->cache;
  int across = std::max(c.window_width, 1);
  // Action per screen line: 1 nothing, 2 draw, 3 move by amount.
  struct Line {
    int act;
    int amount;
  };
  std::vector<Line> lines;
  int shown = 0;
  RCT client{};
  xvt_vobj_get_client_rect(info->window, &client);
  int along = info->horizontal ? client.right - client.left : client.bottom - client.top;
  // Pixels can only be moved from a line that was wholly on the screen.
  auto whole = [&](int line) { return line >= 0 && (line + 1) * info->line_height <= along; };
  if (c.topline >= 0)
    for (int k = 0; k <= c.visible_lines && c.topline + k < c.entries; ++k) {
      const TreeNode* n = c.nodes[static_cast<size_t>(c.topline + k)];
      if (!n) {
        Trace(kTraceTree, kTraceLow, "doRedisplay: no node in line %d", k);
        lines.push_back({2, 0});
      } else if (n->display_line == kTreeInvalid) {
        lines.push_back({2, 0});
      } else if (n->display_line == k) {
        lines.push_back({1, 0});
      } else if (!whole(n->display_line)) {
        lines.push_back({2, 0});
      } else {
        lines.push_back({3, k - n->display_line});
      }
      shown = k + 1;
    }
  // Lines that showed something and now show nothing are cleared.
  for (int k = shown; k < c.displayed_count && k <= c.visible_lines; ++k) lines.push_back({2, 0});
  // One scroll at most, the longest run; other moves are drawn, so that no
  // scroll reads pixels that another one has already overwritten.
  int best_start = -1, best_len = 0;
  for (size_t k = 0; k < lines.size();) {
    size_t e = k;
    while (e < lines.size() && lines[e].act == lines[k].act && lines[e].amount == lines[k].amount) ++e;
    if (lines[k].act == 3 && static_cast<int>(e - k) > best_len) {
      best_start = static_cast<int>(k);
      best_len = static_cast<int>(e - k);
    }
    k = e;
  }
  for (size_t k = 0; k < lines.size(); ++k)
    if (lines[k].act == 3 && (static_cast<int>(k) < best_start || static_cast<int>(k) >= best_start + best_len))
      lines[k] = {2, 0};
  for (size_t k = 0; k < lines.size();) {
    size_t e = k;
    while (e < lines.size() && lines[e].act == lines[k].act && lines[e].amount == lines[k].amount) ++e;
    int a = static_cast<int>(k), b = static_cast<int>(e) - 1;
    if (lines[k].act == 2) {
      plan.draws.push_back(LineRect(info, a, b, 0, across));
    } else if (lines[k].act == 3) {
      int m = lines[k].amount;
      TreeScroll s;
      s.rect = LineRect(info, std::min(a, a - m), std::max(b, b - m), 0, across);
      s.amount = m * info->line_height;
      plan.scrolls.push_back(s);
    }
    k = e;
  }
  return plan;
}

namespace tree {

void doRedisplay(TreeInfo* info) {
  TreeCache& c = info->cache;
  WINDOW win = info->window;
  if (!c.top_node && !c.new_top) {
    if (c.entries > 0) resetTopNode(info, c.nodes[0]);
    xvt_dwin_invalidate_rect(win, nullptr);
    cacheRebuildDisplayed_Nodes(info);
    cacheCalcMaxLineWidth(info);
    info->need_update = true;
    updateScrollbars(info);
    xvt_dwin_update(win);
    return;
  }
  if (!c.new_top) c.new_top = c.top_node;
  if (!TREE_IsVisibleNode(c.new_top)) c.new_top = Shown(c.new_top);
  if (!c.new_top && c.entries > 0) c.new_top = c.nodes[0];
  if (!c.new_top) return;
  if (c.new_top->cache_index < 0) {
    c.need_rebuild = 1;
    rebuildCache(info, c.new_top);
  }
  int old_top = c.topline >= 0 ? c.offset + c.topline : -1;
  resetTopNode(info, c.new_top);
  if (c.offset + c.topline != old_top) info->need_update = true;
  TreeRedisplayPlan plan = TREE_PlanRedisplay(info);
  // What is waiting to be painted is painted first: toolkits differ on
  // whether a scroll carries the waiting areas along.
  if (!plan.scrolls.empty()) xvt_dwin_update(win);
  for (TreeScroll& s : plan.scrolls) {
    RCT r = Trim(info, s.rect);
    if (info->horizontal)
      xvt_dwin_scroll_rect(win, &r, s.amount, 0);
    else
      xvt_dwin_scroll_rect(win, &r, 0, s.amount);
  }
  for (RCT& d : plan.draws) {
    RCT r = Trim(info, d);
    if (r.bottom > r.top && r.right > r.left) xvt_dwin_invalidate_rect(win, &r);
  }
  bool all = false;
  if (c.h_offset_new != c.h_offset) {
    c.h_offset = c.h_offset_new;
    xvt_dwin_invalidate_rect(win, nullptr);
    all = true;
    if (info->line_offset_callback) info->line_offset_callback(win, c.h_offset);
  }
  cacheRebuildDisplayed_Nodes(info);
  if (!all)
    for (int k = 0; k < c.displayed_count; ++k) {
      TreeNode* n = c.displayed[static_cast<size_t>(k)];
      if (!n || !Has(n, kNodeDirty)) continue;
      RCT line = Trim(info, LineRect(info, k, k, 0, std::max(c.window_width, 1)));
      bool drawn = false;
      for (const RCT& d : plan.draws) drawn = drawn || Meets(d, line);
      if (!drawn && line.bottom > line.top && line.right > line.left) xvt_dwin_invalidate_rect(win, &line);
    }
  cacheCalcMaxLineWidth(info);
  xvt_dwin_update(win);
}

void updateScrollbars(TreeInfo* info) {
  if (!info->need_update) return;
  info->need_update = false;
  TreeCache& c = info->cache;
  WINDOW win = info->window;
  hideScrollbars(info);
  bool again = false;
  if (c.at_bottom && c.topline > std::max(c.entries - c.visible_lines, 0)) again = true;
  int h_max = std::max(info->max_line_width - c.window_width, 0);
  if (c.h_offset > h_max) {
    c.h_offset_new = h_max;
    again = true;
  }
  if (again) {
    if (c.top_node) c.new_top = c.top_node;
    processUpdates(info);
    info->need_update = false;
  }
  SCROLL_TYPE vert = info->horizontal ? HSCROLL : VSCROLL, across = info->horizontal ? VSCROLL : HSCROLL;
  auto set_bar = [&](SCROLL_TYPE t, int total, int view, int pos, int16_t state, bool* enabled) {
    bool fits = total <= view;
    xvt_sbar_set_range(win, t, 0, std::max(total - view, 0));
    int proportion = std::min(total, view);
    if (info->style == 2 && fits) proportion = std::max(total - 1, 0);
    xvt_sbar_set_proportion(win, t, proportion);
    xvt_sbar_set_pos(win, t, fits ? 0 : pos);
    *enabled = !fits;
    if (info->style == 2) {
      // The organizer keeps both bars; a bar with nothing to scroll is disabled.
      xvt_sbar_set_visible(win, t, true);
      xvt_sbar_set_enabled(win, t, !fits);
    } else {
      xvt_sbar_set_visible(win, t, state == 1);
    }
  };
  set_bar(vert, info->entries_visible, c.visible_lines, c.topline >= 0 ? c.offset + c.topline : 0, info->v_state,
          &info->v_sbar_enabled);
  set_bar(across, info->max_line_width, c.window_width, c.h_offset, info->h_state, &info->h_sbar_enabled);
  if (info->scroll_callback) info->scroll_callback(win);
}

int getline(TreeInfo* info, PNT point) {
  int v = info->horizontal ? point.h : point.v;
  if (v < 0) return -1;
  return v / info->line_height;
}

int num_visible_lines(TreeInfo* info) {
  return static_cast<int>(static_cast<double>(ClientAlong(info)) / static_cast<double>(info->line_height));
}

void handleResizeEvent(TreeInfo* info) {
  TreeCache& c = info->cache;
  xvt_vobj_get_client_rect(info->window, &c.rect);
  c.window_width = ClientAcross(info);
  int lines = std::max(num_visible_lines(info), 0);
  if (lines != c.visible_lines) {
    c.visible_lines = lines;
    if (3 * lines + 3 > c.size) c.need_rebuild = 1;
    if (c.top_node) c.new_top = c.top_node;
    if (c.displayed.size() < static_cast<size_t>(lines + 1)) c.displayed.resize(static_cast<size_t>(lines + 1));
  }
  if (c.entries == 0 && info->entries_visible > 0) c.need_rebuild = 1;
  info->need_update = true;
  xvt_dwin_invalidate_rect(info->window, nullptr);
  processUpdates(info);
}

// Moves the top by d lines (down when positive); the caller clamped d.
static void cacheScroll(TreeInfo* info, int d) {
  TreeCache& c = info->cache;
  if (!c.top_node || d == 0) return;
  int abs_top = c.offset + c.topline + d;
  TreeNode* t = c.top_node;
  for (int i = 0; i < std::abs(d) && t; ++i) {
    TreeNode* n = d > 0 ? TREE_NextNode(t) : TREE_PrevNode(t);
    if (!n) break;
    t = n;
  }
  bool cached = t->cache_index >= 0 && (t->cache_index + c.visible_lines < c.entries || c.at_bottom);
  if (!cached) {
    // Rebuild around the middle of the new screen; its line is known.
    TreeNode* mid = t;
    int steps = 0;
    for (; steps < c.visible_lines / 2; ++steps) {
      TreeNode* n = TREE_NextNode(mid);
      if (!n) break;
      mid = n;
    }
    c.need_rebuild = 1;
    rebuildCache(info, mid, abs_top + steps);
  }
  c.new_top = t;
  info->need_update = true;
  processUpdates(info);
}

void scrollUp(TreeInfo* info, int n) {
  TreeCache& c = info->cache;
  if (c.topline < 0) return;
  int cur = c.offset + c.topline;
  int to = std::max(cur - n, 0);
  if (to != cur) cacheScroll(info, to - cur);
}

void scrollDown(TreeInfo* info, int n) {
  TreeCache& c = info->cache;
  if (c.topline < 0) return;
  int cur = c.offset + c.topline;
  int last = info->entries_visible - std::min(info->entries_visible, c.visible_lines);
  int to = std::min(cur + n, last);
  if (to > cur) cacheScroll(info, to - cur);
}

void scrollLeft(TreeInfo* info, int n) {
  TreeCache& c = info->cache;
  c.h_offset_new = std::max(c.h_offset - n, 0);
  if (c.h_offset_new != c.h_offset) {
    info->need_update = true;
    processUpdates(info);
  }
}

void scrollRight(TreeInfo* info, int n) {
  TreeCache& c = info->cache;
  int most = std::max(info->max_line_width - c.window_width, 0);
  c.h_offset_new = std::min(c.h_offset + n, most);
  if (c.h_offset_new != c.h_offset) {
    info->need_update = true;
    processUpdates(info);
  }
}

void handleScrollEvent(TreeInfo* info, EVENT* ev) {
  static bool busy = false;  // a scroll that runs the event loop must not nest
  if (busy || WIN_in_critical()) return;
  busy = true;
  TreeCache& c = info->cache;
  bool along = (ev->type == E_VSCROLL) != (info->horizontal != 0);
  int line = along ? 1 : 10;
  int page = along ? std::max(c.visible_lines - 1, 1) : std::max(c.window_width - 10, 10);
  auto back = along ? scrollUp : scrollLeft;
  auto fwd = along ? scrollDown : scrollRight;
  switch (ev->v.scroll.what) {
    case SC_LINE_UP: back(info, line); break;
    case SC_LINE_DOWN: fwd(info, line); break;
    case SC_PAGE_UP: back(info, page); break;
    case SC_PAGE_DOWN: fwd(info, page); break;
    case SC_THUMB:
    case SC_THUMBTRACK: {
      int cur = along ? (c.topline >= 0 ? c.offset + c.topline : 0) : c.h_offset;
      int to = ev->v.scroll.pos;
      if (to > cur) fwd(info, to - cur);
      if (to < cur) back(info, cur - to);
      break;
    }
    default: break;
  }
  busy = false;
}

// ---------------------------------------------------------------------------
// Painting

static void DrawConnectors(TreeInfo* info, TreeNode* node, int top) {
  WINDOW win = info->window;
  int lh = info->line_height;
  int mid = top + 7, bottom = top + lh;
  CPEN pen{1, PAT_DOT, kConnector};
  xvt_dwin_set_pen(win, &pen);
  auto line = [&](int x1, int y1, int x2, int y2) { xvt_dwin_draw_line(win, PNT{x1, y1}, PNT{x2, y2}); };
  int x0 = node->abs_offset - info->cache.h_offset;
  bool top_level = node->parent && IsRoot(node->parent);
  bool first_top = top_level && !TREE_PrevSibling(node);
  bool has_next = TREE_NextSibling(node) != nullptr;
  bool only_top = first_top && !has_next;
  // The columns of ancestors that have more siblings below continue through this line.
  for (TreeNode* a = node->parent; a && !IsRoot(a); a = a->parent)
    if (TREE_NextSibling(a)) {
      int ax = a->abs_offset - info->cache.h_offset + 10;
      line(ax, top, ax, bottom);
    }
  if (Has(node, kNodeLeaf)) {
    line(x0 + 10, mid, x0 + 20, mid);
    if (!only_top) line(x0 + 10, first_top ? mid : top, x0 + 10, has_next ? bottom : mid);
    return;
  }
  if (!first_top) line(x0 + 10, top, x0 + 10, top + 3);
  if (has_next) line(x0 + 10, top + 11, x0 + 10, bottom);
  line(x0 + 14, mid, x0 + 20, mid);
  CPEN solid{1, PAT_SOLID, kConnector};
  xvt_dwin_set_pen(win, &solid);
  CBRUSH none{PAT_HOLLOW, COLOR_WHITE};
  xvt_dwin_set_brush(win, &none);
  RCT box{x0 + 6, top + 3, x0 + 14, top + 11};
  xvt_dwin_draw_rect(win, &box);
  CPEN black{1, PAT_SOLID, COLOR_BLACK};
  xvt_dwin_set_pen(win, &black);
  line(x0 + 8, mid, x0 + 13, mid);
  if (!Has(node, kNodeOpen)) line(x0 + 10, top + 5, x0 + 10, top + 10);
}

static void DrawTriangle(TreeInfo* info, TreeNode* node, int top) {
  WINDOW win = info->window;
  int x0 = node->abs_offset - info->cache.h_offset + 6;
  CPEN pen{1, PAT_SOLID, COLOR_DKGRAY};
  xvt_dwin_set_pen(win, &pen);
  // A small triangle pointing right, drawn line by line.
  for (int i = 0; i < 5; ++i) xvt_dwin_draw_line(win, PNT{x0 + i, top + 3 + i}, PNT{x0 + i, top + 13 - i});
}

void handleUpdateEvent(TreeInfo* info, const RCT& area) {
  WINDOW win = info->window;
  TreeCache& c = info->cache;
  CPEN none{0, PAT_HOLLOW, info->background};
  CBRUSH bg{PAT_SOLID, info->background};
  xvt_dwin_set_pen(win, &none);
  xvt_dwin_set_brush(win, &bg);
  xvt_dwin_draw_rect(win, &area);
  int across = std::max(c.window_width, 1);
  for (int k = 0; k < c.displayed_count; ++k) {
    TreeNode* n = c.displayed[static_cast<size_t>(k)];
    if (!n) continue;
    RCT line = LineRect(info, k, k, 0, across);
    if (!Meets(line, area)) continue;
    Set(n, kNodeDirty, false);
    int x = n->abs_offset + info->margin - c.h_offset;
    int right = n->width ? x + n->width(win, n, &line) : across;
    RCT text = LineRect(info, k, k, x, right);
    if (Has(n, kNodeSelected)) {
      CBRUSH hi{PAT_SOLID, kTreeHighlight};
      CPEN hp{0, PAT_HOLLOW, kTreeHighlight};
      xvt_dwin_set_pen(win, &hp);
      xvt_dwin_set_brush(win, &hi);
      xvt_dwin_draw_rect(win, &text);
    }
    if (!info->horizontal) {
      if (info->style == 2) DrawConnectors(info, n, line.top);
      if (info->style == 1 && !Has(n, kNodeLeaf)) DrawTriangle(info, n, line.top);
    }
    xvt_dwin_set_fore_color(win, Has(n, kNodeSelected) ? COLOR_WHITE : COLOR_BLACK);
    xvt_dwin_set_back_color(win, Has(n, kNodeSelected) ? kTreeHighlight : info->background);
    if (n->draw) n->draw(win, n, &text);
  }
}

}  // namespace tree

// ---------------------------------------------------------------------------
// Public display calls

void TREE_ResizeTree(WINDOW win, const RCT* rect) {
  TreeInfo* info = TREE_GetInfo(win);
  if (!info || !rect) return;
  TreeCache& c = info->cache;
  if (c.need_rebuild && !info->suspended) rebuildCache(info, c.new_top);
  // The bars are decided for the new size before the window takes it, so
  // that the size event finds the client area it will keep: one layout and
  // one repaint, not one for the move and another when a bar comes or goes.
  // The organizer style keeps both bars whatever the lines need.
  hideScrollbars(info, rect);
  SCROLL_TYPE along = info->horizontal ? HSCROLL : VSCROLL, across = info->horizontal ? VSCROLL : HSCROLL;
  xvt_sbar_set_visible(win, along, info->style == 2 || info->v_state == 1);
  xvt_sbar_set_visible(win, across, info->style == 2 || info->h_state == 1);
  xvt_vobj_move(win, rect);
  // A move that keeps the size sends no size event; the lines are counted again all the same.
  handleResizeEvent(info);
}

void TREE_ShowNodeOnDisplay(TreeNode* node) {
  TreeInfo* info = InfoOf(node);
  if (!info || !TREE_IsVisibleNode(node)) return;
  TreeCache& c = info->cache;
  if (info->suspended || c.need_rebuild) processUpdates(info);
  if (node->cache_index < 0 || c.topline < 0) {
    TREE_PositionNode(node, -1);
    return;
  }
  int last = c.topline + c.visible_lines - 1;
  if (node->cache_index < c.topline)
    scrollUp(info, c.topline - node->cache_index);
  else if (node->cache_index > last)
    scrollDown(info, node->cache_index - last);
}

void TREE_ScrollLines(WINDOW win, int lines) {
  TreeInfo* info = TREE_GetInfo(win);
  if (!info) return;
  if (lines > 0) scrollDown(info, lines);
  if (lines < 0) scrollUp(info, -lines);
}

int TREE_TopLine(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info && info->cache.topline >= 0 ? info->cache.offset + info->cache.topline : -1;
}

int TREE_VisibleLines(WINDOW win) {
  TreeInfo* info = TREE_GetInfo(win);
  return info ? info->cache.visible_lines : 0;
}
