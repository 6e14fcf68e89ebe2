// The tree widget's display: the cache's size, what a change invalidates
// and scrolls (the exact rectangles), scrolling and the scroll bars.
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

std::vector<std::string> Damage(WINDOW w) {
  std::vector<std::string> out;
  for (const XvtDamage& d : xvt_test_damage(w))
    if (d.op != "update") out.push_back(d.op == "scroll" ? "scroll " + Str(d.rct) + " by " + std::to_string(d.dv) : "draw " + Str(d.rct));
  return out;
}

TEST_F(Display, CacheSizes) {
  const std::pair<int, int> sizes[] = {{50, 51}, {300, 201}, {202, 201}, {201, 201}, {10, 20}, {-1, 20}, {20, 21}};
  for (auto [asked, got] : sizes) {
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

TEST_F(Display, ExactRectanglesOfCommonChanges) {
  struct Case {
    const char* what;
    std::function<void(WINDOW, std::vector<TreeNode*>&)> act;
    std::vector<std::string> damage;
  };
  const Case cases[] = {
      {"select a line", [](WINDOW, auto& n) { TREE_SelectOnlyNode(n[2]); }, {"draw 0,32,300,48"}},
      {"move the selection", [](WINDOW, auto& n) {
         TREE_SelectOnlyNode(n[2]);
         TREE_SelectOnlyNode(n[5]);
       }, {"draw 0,32,300,48", "draw 0,32,300,48", "draw 0,80,300,96"}},
      {"remove line 3", [](WINDOW, auto& n) { TREE_RemoveNode(n[3]); },
       {"scroll 0,48,300,160 by -16", "draw 0,144,300,160"}},
      {"insert before line 2", [](WINDOW w, auto& n) { TREE_InsertNode(TREE_GetRoot(w), Node("new"), n[2]); },
       {"scroll 0,32,300,160 by 16", "draw 0,32,300,48"}},
      {"a line below the screen", [](WINDOW w, auto&) { Add(TREE_GetRoot(w), "last"); }, {}},
      {"scroll a line", [](WINDOW w, auto&) { TREE_ScrollLines(w, 1); },
       {"scroll 0,0,300,160 by -16", "draw 0,144,300,160"}},
      {"scroll a page back", [](WINDOW w, auto&) {
         TREE_ScrollLines(w, 12);
         xvt_test_clear_damage(w);
         TREE_ScrollLines(w, -9);
       }, {"scroll 0,0,300,160 by 144", "draw 0,0,300,144"}},
      {"redraw one", [](WINDOW, auto& n) { TREE_RedrawNode(n[7]); }, {"draw 0,112,300,128"}},
      {"a burst under suspension", [](WINDOW w, auto& n) {
         TREE_SuspendUpdates(w);
         for (int i = 0; i < 5; ++i) TREE_SelectNode(n[static_cast<size_t>(i)], 1);
         EXPECT_TRUE(xvt_test_damage(w).empty());
         TREE_ResumeUpdates(w);
       }, {"draw 0,0,300,16", "draw 0,16,300,32", "draw 0,32,300,48", "draw 0,48,300,64", "draw 0,64,300,80"}},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree();
      auto n = Flat(w, 30);
      xvt_test_clear_damage(w);
      c.act(w, n);
      EXPECT_EQ(Damage(w), c.damage) << c.what;
    });
  }
}

TEST_F(Display, OpeningALineMovesWhatFollows) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    std::vector<TreeNode*> n;
    for (int i = 0; i < 12; ++i) n.push_back(Add(root, "n" + std::to_string(i), i != 2));
    for (int i = 0; i < 3; ++i) Add(n[2], "k" + std::to_string(i));
    xvt_test_clear_damage(w);
    TREE_OpenSubtree(n[2], 1, 0);
    EXPECT_EQ(Damage(w), (std::vector<std::string>{"scroll 0,48,300,160 by 48", "draw 0,48,300,96",
                                                   "draw 0,32,300,48"}));
    EXPECT_EQ(Shown(w), (std::vector<std::string>{"n0", "n1", "n2", "k0", "k1", "k2", "n3", "n4", "n5", "n6"}));
  });
}

TEST_F(Display, PaintingDrawsEachLineWithItsConnectorsAndHighlight) {
  Run([&] {
    WINDOW w = MakeTree(4);
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* s = Add(root, "svc", false);
    Add(s, "inbox");
    TreeNode* b = Add(root, "b");
    TREE_OpenSubtree(s, 1, 0);
    TREE_SelectOnlyNode(b);
    std::vector<std::string> texts, lines;
    int highlight = 0, dotted = 0;
    for (const XvtDrawOp& op : xvt_test_paint(w)) {
      if (op.op == "text") texts.push_back(op.text + "@" + std::to_string(op.rct.left) + "," + std::to_string(op.rct.top));
      if (op.op == "rect" && op.back == kTreeHighlight) {
        ++highlight;
        EXPECT_EQ(Str(op.rct), "20,32,32,48");  // from the text's start, as wide as the width callback says
      }
      if (op.op == "line" && op.pen == PAT_DOT) {
        ++dotted;
        EXPECT_EQ(op.fore, 0x808080u);
      }
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"svc-@22,0", "inbox$@32,16", "b*$@22,32"}));
    EXPECT_EQ(highlight, 1);
    EXPECT_GE(dotted, 4);
  });
}

TEST_F(Display, DeletingTheTopLineAndShortTrees) {
  Run([&] {
    WINDOW w = MakeTree();
    auto n = Flat(w, 30);
    TREE_ScrollLines(w, 5);
    TREE_RemoveNode(n[5]);
    EXPECT_EQ(Shown(w).front(), "n6");
    TREE_ScrollLines(w, 100);
    EXPECT_EQ(TREE_TopLine(w), 19);
    EXPECT_EQ(Shown(w).front(), "n20");
    // At the end the last screen stays full: the view moves back a line.
    TREE_RemoveNode(n[29]);
    EXPECT_EQ(TREE_TopLine(w), 18);
    EXPECT_EQ(Shown(w).front(), "n19");
    EXPECT_EQ(Shown(w).back(), "n28");
    // A tree shorter than the window: no vertical bar, no offset.
    for (int i = 6; i < 26; ++i) TREE_RemoveNode(n[static_cast<size_t>(i)]);
    EXPECT_EQ(TREE_TopLine(w), 0);
    EXPECT_EQ(TREE_GetInfo(w)->cache.offset, 0);
    EXPECT_EQ(TREE_GetInfo(w)->v_state, 3);
  });
}

TEST_F(Display, ScrollBarStates) {
  // Window 300 x 160 with 16-pixel bars: 10 lines and 300 pixels when no bar
  // shows, 9 lines and 284 pixels when both do.
  struct Case {
    int lines, width;
    int v, h;
  };
  const Case cases[] = {
      {5, 200, 3, 3}, {5, 290, 3, 3}, {5, 400, 3, 1},   //
      {10, 200, 3, 3}, {10, 290, 3, 3}, {10, 400, 1, 1},  //
      {12, 200, 1, 3}, {12, 290, 1, 1}, {12, 400, 1, 1},
  };
  for (const Case& c : cases) {
    Run([&] {
      WINDOW w = MakeTree(10, 0);
      TreeNode* root = TREE_GetRoot(w);
      for (int i = 0; i < c.lines; ++i) D(Add(root, "x"))->width = c.width;
      TREE_RedrawNode(root->first_kid);
      TreeInfo* info = TREE_GetInfo(w);
      EXPECT_EQ(info->v_state, c.v) << c.lines << " lines, " << c.width << " px";
      EXPECT_EQ(info->h_state, c.h) << c.lines << " lines, " << c.width << " px";
    });
  }
}

TEST_F(Display, ThumbJumpsFarIntoALargeTree) {
  Run([&] {
    WINDOW w = MakeTree(20);
    auto n = Flat(w, 100000);
    struct Jump {
      SCROLL_CONTROL what;
      int pos;
      int top;
    };
    const Jump jumps[] = {{SC_THUMB, 90000, 90000}, {SC_THUMBTRACK, 50, 50}, {SC_THUMB, 99999, 99980},
                          {SC_PAGE_UP, 0, 99961}, {SC_LINE_DOWN, 0, 99962}, {SC_THUMB, 0, 0}};
    for (const Jump& j : jumps) {
      Scroll(w, j.what, j.pos);
      EXPECT_EQ(TREE_TopLine(w), j.top);
      EXPECT_EQ(Shown(w).front(), "n" + std::to_string(j.top));
      int min = 0, max = 0;
      xvt_sbar_get_range(w, VSCROLL, &min, &max);
      EXPECT_EQ(max, 100000 - 20);
      EXPECT_EQ(xvt_sbar_get_pos(w, VSCROLL), j.top);
    }
  });
}

// Resizing a widget scrolled to its end: the lines are counted again, the
// last screen stays full, and the bars follow the new size.
TEST_F(Display, ResizingKeepsTheLastScreenFull) {
  struct Case {
    int style, lines_after, width_after;
    int top, visible, v, h;
    bool v_enabled;
  };
  const Case cases[] = {
      {0, 15, 300, 15, 15, 1, 3, true},   // taller: the top comes up to keep the screen full
      {0, 40, 300, 0, 40, 3, 3, false},   // everything fits: no bar, no offset
      {0, 5, 300, 20, 5, 1, 3, true},     // shorter: the top stays
      {0, 15, 20, 15, 15, 1, 1, true},    // narrower than the lines: a bar across
      {2, 40, 300, 0, 40, 3, 3, false},   // the organizer's bars stay, disabled
      {2, 12, 300, 18, 12, 1, 3, true},
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
      std::string what = "style " + std::to_string(c.style) + ", " + std::to_string(c.lines_after) + " lines, " +
                         std::to_string(c.width_after) + " px";
      EXPECT_EQ(TREE_TopLine(w), c.top) << what;
      EXPECT_EQ(TREE_VisibleLines(w), c.visible) << what;
      EXPECT_EQ(info->v_state, c.v) << what;
      EXPECT_EQ(info->h_state, c.h) << what;
      EXPECT_EQ(info->v_sbar_enabled, c.v_enabled) << what;
      EXPECT_EQ(Shown(w).front(), "n" + std::to_string(c.top)) << what;
      EXPECT_EQ(xvt_sbar_get_pos(w, VSCROLL), c.v_enabled ? c.top : 0) << what;
    });
  }
}

// A horizontal widget (lines side by side, as in an attachment strip) swaps
// every coordinate: the same operations on a vertical and on a horizontal
// widget must give the same rectangles with x and y exchanged, and the same
// lines, selection and top.
TEST_F(Display, HorizontalWidgetsSwapEveryRectangle) {
  struct Case {
    const char* what;
    std::function<void(WINDOW, std::vector<TreeNode*>&, bool horizontal)> act;
    std::vector<std::string> damage;  // as the vertical widget has it
    const char* selected;
    int top;
  };
  auto click = [](WINDOW w, int line, int along_px, bool horizontal) {
    EVENT ev{};
    ev.type = E_MOUSE_DOWN;
    ev.v.mouse.where = horizontal ? PNT{line * 16 + 5, along_px} : PNT{along_px, line * 16 + 5};
    xvt_test_user_event(w, &ev);
    ev.type = E_MOUSE_UP;
    xvt_test_user_event(w, &ev);
  };
  auto bar = [](WINDOW w, SCROLL_CONTROL what, int pos, bool horizontal) {
    EVENT ev{};
    ev.type = horizontal ? E_HSCROLL : E_VSCROLL;  // the bar along the lines
    ev.v.scroll.what = what;
    ev.v.scroll.pos = pos;
    xvt_test_user_event(w, &ev);
  };
  const Case cases[] = {
      {"select a line", [](WINDOW, auto& n, bool) { TREE_SelectOnlyNode(n[2]); }, {"draw 0,32,300,48"}, "n2", 0},
      {"click line 4", [&](WINDOW w, auto&, bool h) { click(w, 4, 30, h); }, {"draw 0,64,300,80"}, "n4", 0},
      {"remove line 3", [](WINDOW, auto& n, bool) { TREE_RemoveNode(n[3]); },
       {"scroll 0,48,300,160 by -16", "draw 0,144,300,160"}, "", 0},
      {"insert before line 2", [](WINDOW w, auto& n, bool) { TREE_InsertNode(TREE_GetRoot(w), Node("new"), n[2]); },
       {"scroll 0,32,300,160 by 16", "draw 0,32,300,48"}, "", 0},
      {"scroll a line", [](WINDOW w, auto&, bool) { TREE_ScrollLines(w, 1); },
       {"scroll 0,0,300,160 by -16", "draw 0,144,300,160"}, "", 1},
      {"the bar's line step", [&](WINDOW w, auto&, bool h) { bar(w, SC_LINE_DOWN, 0, h); },
       {"scroll 0,0,300,160 by -16", "draw 0,144,300,160"}, "", 1},
      {"the bar's page step back", [&](WINDOW w, auto&, bool h) {
         bar(w, SC_THUMB, 12, h);
         xvt_test_clear_damage(w);
         bar(w, SC_PAGE_UP, 0, h);
       }, {"scroll 0,0,300,160 by 144", "draw 0,0,300,144"}, "", 3},
      {"redraw one", [](WINDOW, auto& n, bool) { TREE_RedrawNode(n[7]); }, {"draw 0,112,300,128"}, "", 0},
      {"a click past the last line clears", [&](WINDOW w, auto& n, bool h) {
         TREE_SelectOnlyNode(n[1]);
         for (size_t i = 5; i < n.size(); ++i) TREE_RemoveNode(n[i]);
         xvt_test_clear_damage(w);
         click(w, 7, 30, h);
       }, {"draw 0,16,300,32"}, "", 0},
  };
  for (const Case& c : cases) {
    std::vector<std::string> lines[2], paints[2];
    for (bool horizontal : {false, true}) {
      Run([&] {
        RCT r = horizontal ? RCT{0, 0, 160, 300} : RCT{0, 0, 300, 160};
        WINDOW w = TREE_CreateTreeWidget(TASK_WIN, &r, 20, horizontal, 0, 0, 16, 0, CountSelection, nullptr, nullptr,
                                         nullptr);
        auto n = Flat(w, 30);
        xvt_test_clear_damage(w);
        c.act(w, n, horizontal);
        // Back to the vertical widget's terms: x and y exchanged, the amount along the lines.
        auto norm = [&](RCT q) { return horizontal ? RCT{q.top, q.left, q.bottom, q.right} : q; };
        std::vector<std::string> damage;
        for (const XvtDamage& d : xvt_test_damage(w)) {
          if (d.op == "update") continue;
          if (d.op == "scroll") {
            int amount = horizontal ? d.dh : d.dv, across = horizontal ? d.dv : d.dh;
            damage.push_back("scroll " + Str(norm(d.rct)) + " by " + std::to_string(amount) +
                             (across ? " and across " + std::to_string(across) : ""));
          } else {
            damage.push_back("draw " + Str(norm(d.rct)));
          }
        }
        EXPECT_EQ(damage, c.damage) << c.what << (horizontal ? " (horizontal)" : " (vertical)");
        EXPECT_EQ(Selected(w), c.selected) << c.what << (horizontal ? " (horizontal)" : "");
        EXPECT_EQ(TREE_TopLine(w), c.top) << c.what << (horizontal ? " (horizontal)" : "");
        lines[horizontal] = Shown(w);
        // Where each line is painted: the rectangle handed to draw, and the highlight.
        for (const XvtDrawOp& op : xvt_test_paint(w)) {
          if (op.op == "text") paints[horizontal].push_back(op.text + " at " + Str(norm(RCT{op.rct.left - 2, op.rct.top, 0, 0})));
          if (op.op == "rect" && op.back == kTreeHighlight) paints[horizontal].push_back("highlight " + Str(norm(op.rct)));
        }
        int min = 0, max = 0;
        xvt_sbar_get_range(w, horizontal ? HSCROLL : VSCROLL, &min, &max);
        EXPECT_EQ(max, std::max(TREE_EntriesVisible(w) - 10, 0)) << c.what << " the bar along the lines";
      });
    }
    EXPECT_EQ(lines[0], lines[1]) << c.what;
    EXPECT_EQ(paints[0], paints[1]) << c.what;
    EXPECT_EQ(paints[0].size(), lines[0].size() + (*c.selected ? 1 : 0)) << c.what;
  }
}

}  // namespace
}  // namespace treetest
