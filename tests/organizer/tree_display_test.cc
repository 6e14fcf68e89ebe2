// The tree widget's display: the cache's size, what a change invalidates
// and scrolls (the exact rectangles, in vertical and horizontal widgets),
// painting, scrolling and the scroll bars.
#include "src/organizer/tree_display.h"
#include "src/organizer/tree_internal.h"
#include "tests/organizer/tree_fixture.h"

namespace treetest {
namespace {

class Display : public TreeTest {};

std::string Str(const RCT& r) {
  return std::to_string(r.left) + "," + std::to_string(r.top) + "," + std::to_string(r.right) + "," +
         std::to_string(r.bottom);
}

// A horizontal widget's rectangle in a vertical one's terms.
RCT Norm(RCT q, bool horizontal) { return horizontal ? RCT{q.top, q.left, q.bottom, q.right} : q; }

TEST_F(Display, CacheSizes) {
  for (auto [asked, got] : {std::pair{50, 51}, {300, 201}, {202, 201}, {201, 201}, {10, 20}, {-1, 20}, {20, 21}}) {
    TreeCache c{};
    tree::newCacheArray(&c, asked);
    EXPECT_EQ(c.size, got) << asked;
    EXPECT_EQ(c.half, got / 2) << asked;
  }
  Run([&] {
    WINDOW w = MakeTree(100, 2, 300, 50);
    Flat(w, 500);
    EXPECT_EQ(TREE_GetInfo(w)->cache.size, 303);  // three screens and three lines, whatever was asked
  });
}

// A horizontal widget (lines side by side, as in an attachment strip) swaps
// every coordinate: each change must give the same rectangles with x and y
// exchanged, and the same lines, selection, top and painting.
TEST_F(Display, ExactRectanglesOfCommonChangesInBothDirections) {
  struct Case {
    const char* what;
    std::function<void(WINDOW, std::vector<TreeNode*>&, bool horizontal)> act;
    std::vector<std::string> damage;  // as the vertical widget has it
    const char* selected;
    int top;
  };
  auto click = [](WINDOW w, int line, bool h) { Mouse(w, h ? PNT{line * 16 + 5, 30} : PNT{30, line * 16 + 5}); };
  const std::string last = "draw 0,144,300,160";
  const Case cases[] = {
      {"move the selection", [](WINDOW, auto& n, bool) {
         TREE_SelectOnlyNode(n[2]);
         TREE_SelectOnlyNode(n[5]);
       }, {"draw 0,32,300,48", "draw 0,32,300,48", "draw 0,80,300,96"}, "n5", 0},
      {"click line 4", [&](WINDOW w, auto&, bool h) { click(w, 4, h); }, {"draw 0,64,300,80"}, "n4", 0},
      {"remove line 3", [](WINDOW, auto& n, bool) { TREE_RemoveNode(n[3]); },
       {"scroll 0,48,300,160 by -16", last}, "", 0},
      {"insert before line 2", [](WINDOW w, auto& n, bool) { TREE_InsertNode(TREE_GetRoot(w), Node("new"), n[2]); },
       {"scroll 0,32,300,160 by 16", "draw 0,32,300,48"}, "", 0},
      {"open a line", [](WINDOW w, auto& n, bool) {
         TreeNode* p = Node("p", false);
         for (const char* k : {"k0", "k1", "k2"}) Add(p, k);
         TREE_InsertNode(TREE_GetRoot(w), p, n[3]);
         xvt_test_clear_damage(w);
         TREE_OpenSubtree(p, 1, 0);
       }, {"scroll 0,64,300,160 by 48", "draw 0,64,300,112", "draw 0,48,300,64"}, "", 0},
      {"a line below the screen", [](WINDOW w, auto&, bool) { Add(TREE_GetRoot(w), "last"); }, {}, "", 0},
      {"the bar's line step", [](WINDOW w, auto&, bool h) { Bar(w, SC_LINE_DOWN, 0, h); },
       {"scroll 0,0,300,160 by -16", last}, "", 1},
      {"the bar's page step back", [](WINDOW w, auto&, bool h) {
         Bar(w, SC_THUMB, 12, h);
         xvt_test_clear_damage(w);
         Bar(w, SC_PAGE_UP, 0, h);
       }, {"scroll 0,0,300,160 by 144", "draw 0,0,300,144"}, "", 3},
      {"redraw one", [](WINDOW, auto& n, bool) { TREE_RedrawNode(n[7]); }, {"draw 0,112,300,128"}, "", 0},
      {"a burst under suspension", [](WINDOW w, auto& n, bool) {
         TREE_SuspendUpdates(w);
         for (int i = 0; i < 3; ++i) TREE_SelectNode(n[size_t(i)], 1);
         EXPECT_TRUE(xvt_test_damage(w).empty());
         TREE_ResumeUpdates(w);
       }, {"draw 0,0,300,16", "draw 0,16,300,32", "draw 0,32,300,48"}, "n0 n1 n2", 0},
      {"a click past the last line clears", [&](WINDOW w, auto& n, bool h) {
         TREE_SelectOnlyNode(n[1]);
         for (size_t i = 5; i < n.size(); ++i) TREE_RemoveNode(n[i]);
         xvt_test_clear_damage(w);
         click(w, 7, h);
       }, {"draw 0,16,300,32"}, "", 0},
  };
  for (const Case& c : cases) {
    std::vector<std::string> lines[2], paints[2];
    for (bool h : {false, true}) {
      Run([&] {
        WINDOW w = MakeTree(10, 0, 300, 20, h);
        auto n = Flat(w, 30);
        xvt_test_clear_damage(w);
        c.act(w, n, h);
        std::vector<std::string> damage;
        for (const XvtDamage& d : xvt_test_damage(w)) {
          int along = h ? d.dh : d.dv, across = h ? d.dv : d.dh;
          if (d.op == "scroll")
            damage.push_back("scroll " + Str(Norm(d.rct, h)) + " by " + std::to_string(along) +
                             (across ? " and across " + std::to_string(across) : ""));
          else if (d.op != "update")
            damage.push_back("draw " + Str(Norm(d.rct, h)));
        }
        std::string what = c.what + std::string(h ? " (horizontal)" : " (vertical)");
        EXPECT_EQ(damage, c.damage) << what;
        EXPECT_EQ(Selected(w), c.selected) << what;
        EXPECT_EQ(TREE_TopLine(w), c.top) << what;
        lines[h] = Shown(w);
        // Where each line is painted: the rectangle handed to draw, and the highlight.
        for (const XvtDrawOp& op : xvt_test_paint(w)) {
          if (op.op == "text") paints[h].push_back(op.text + " at " + Str(Norm({op.rct.left - 2, op.rct.top, 0, 0}, h)));
          if (op.op == "rect" && op.back == kTreeHighlight) paints[h].push_back("highlight " + Str(Norm(op.rct, h)));
        }
        int min = 0, max = 0;
        xvt_sbar_get_range(w, h ? HSCROLL : VSCROLL, &min, &max);
        EXPECT_EQ(max, std::max(TREE_EntriesVisible(w) - 10, 0)) << what << ": the bar along the lines";
      });
    }
    EXPECT_EQ(lines[0], lines[1]) << c.what;
    EXPECT_EQ(paints[0], paints[1]) << c.what;
    EXPECT_EQ(paints[0].size(), lines[0].size() + size_t(std::count(c.selected, c.selected + strlen(c.selected), 'n')))
        << c.what;
  }
}

TEST_F(Display, PaintingDrawsEachLineWithItsConnectorsAndHighlight) {
  Run([&] {
    WINDOW w = MakeTree(4);
    TreeNode* s = Add(TREE_GetRoot(w), "svc", false);
    Add(s, "inbox");
    TreeNode* b = Add(TREE_GetRoot(w), "b");
    TREE_OpenSubtree(s, 1, 0);
    TREE_SelectOnlyNode(b);
    std::string texts;
    int dotted = 0;
    for (const XvtDrawOp& op : xvt_test_paint(w)) {
      if (op.op == "text") texts += op.text + "@" + std::to_string(op.rct.left) + "," + std::to_string(op.rct.top) + " ";
      // The highlight from the text's start, as wide as the width callback says.
      if (op.op == "rect" && op.back == kTreeHighlight) texts += "highlight " + Str(op.rct) + " ";
      if (op.op == "line" && op.pen == PAT_DOT) dotted += op.fore == 0x808080u ? 1 : 100;  // connectors are gray
    }
    EXPECT_EQ(texts, "svc-@22,0 inbox$@32,16 highlight 20,32,32,48 b*$@22,32 ");
    EXPECT_TRUE(dotted >= 4 && dotted < 100) << dotted;
  });
}

TEST_F(Display, ScrollBarStates) {
  // Window 300 x 160 with 16-pixel bars: 10 lines and 300 pixels when no bar
  // shows, 9 lines and 284 pixels when both do. {lines, width, v, h}
  const int cases[][4] = {{5, 200, 3, 3},  {5, 290, 3, 3},  {5, 400, 3, 1},  {10, 200, 3, 3}, {10, 290, 3, 3},
                          {10, 400, 1, 1}, {12, 200, 1, 3}, {12, 290, 1, 1}, {12, 400, 1, 1}};
  for (auto& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(10, 0);
      for (int i = 0; i < c[0]; ++i) D(Add(TREE_GetRoot(w), "x"))->width = c[1];
      TREE_RedrawNode(TREE_GetRoot(w)->first_kid);
      EXPECT_EQ(TREE_GetInfo(w)->v_state * 10 + TREE_GetInfo(w)->h_state, c[2] * 10 + c[3]) << c[0] << " lines, " << c[1];
    });
  }
}

TEST_F(Display, ThumbJumpsFarIntoALargeTree) {
  Run([&] {
    WINDOW w = MakeTree(20);
    Flat(w, 100000);
    const std::tuple<SCROLL_CONTROL, int, int> jumps[] = {{SC_THUMB, 90000, 90000}, {SC_THUMBTRACK, 50, 50},
                                                          {SC_THUMB, 99999, 99980}, {SC_PAGE_UP, 0, 99961},
                                                          {SC_LINE_DOWN, 0, 99962}, {SC_THUMB, 0, 0}};
    int min = 0, max = 0;
    for (auto [what, pos, top] : jumps) {
      Bar(w, what, pos);
      xvt_sbar_get_range(w, VSCROLL, &min, &max);
      EXPECT_EQ(Shown(w).front() + " " + std::to_string(TREE_TopLine(w)) + " " + std::to_string(max) + " " +
                    std::to_string(xvt_sbar_get_pos(w, VSCROLL)),
                "n" + std::to_string(top) + " " + std::to_string(top) + " 99980 " + std::to_string(top));
    }
  });
}

// Resizing a widget scrolled to its end: the lines are counted again, the
// last screen stays full, and the bars follow the new size.
TEST_F(Display, ResizingKeepsTheLastScreenFull) {
  struct Case {
    int style, lines_after, width_after, top, v, h;
    bool v_enabled;
  };
  const Case cases[] = {
      {0, 15, 300, 15, 1, 3, true},  // taller: the top comes up to keep the screen full
      {0, 40, 300, 0, 3, 3, false},  // everything fits: no bar, no offset
      {0, 5, 300, 20, 1, 3, true},   // shorter: the top stays
      {0, 15, 20, 15, 1, 1, true},   // narrower than the lines: a bar across
      {2, 40, 300, 0, 3, 3, false},  // the organizer's bars stay, disabled
      {2, 12, 300, 18, 1, 3, true},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(10, c.style);
      Flat(w, 30);
      TREE_ScrollLines(w, 100);
      ASSERT_EQ(TREE_TopLine(w), 20);
      RCT r{0, 0, c.width_after, c.lines_after * 16};
      TREE_ResizeTree(w, &r);
      TreeInfo* info = TREE_GetInfo(w);
      SCOPED_TRACE("style " + std::to_string(c.style) + ", " + std::to_string(c.lines_after) + " lines, " +
                   std::to_string(c.width_after) + " px");
      EXPECT_EQ(TREE_TopLine(w), c.top);
      EXPECT_EQ(TREE_VisibleLines(w), c.lines_after);
      EXPECT_EQ(info->v_state * 10 + info->h_state, c.v * 10 + c.h);
      EXPECT_EQ(info->v_sbar_enabled, c.v_enabled);
      EXPECT_EQ(Shown(w).front(), "n" + std::to_string(c.top));
      EXPECT_EQ(xvt_sbar_get_pos(w, VSCROLL), c.v_enabled ? c.top : 0);
    });
  }
}

}  // namespace
}  // namespace treetest
