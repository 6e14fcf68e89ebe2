// The column manager: offsets with hidden columns, border grabbing, the five
// ways a border drop resizes, moving columns, and layouts kept in options.
#include "src/organizer/columns.h"

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "tests/organizer/tree_fixture.h"
#include "tests/support/frame_fixture.h"

namespace {

// Layout "L": columns a, b, c, d of 10, 20, 30, 40 from 0.
struct Strip {
  CM_INFO* info = CM_Create(NULL_WIN, nullptr, 0);
  int layout = CM_LayoutAdd(info, "L", nullptr);
  int a = CM_ColumnAdd(info, layout, "a", 10, 0, true);
  int b = CM_ColumnAdd(info, layout, "b", 20, 10, true);
  int c = CM_ColumnAdd(info, layout, "c", 30, 30, true);
  int d = CM_ColumnAdd(info, layout, "d", 40, 60, true);
  Strip() { CM_LayoutSelect(info, layout, 0); }
  ~Strip() { CM_Destroy(info); }
  // "a:0+10 b:10+20 ..." with "-" for a hidden column.
  std::string Geometry() {
    std::string out;
    for (int n = 0; n < CM_LayoutGetNumColumn(info, layout); ++n) {
      int id = CM_ColumnGetColumnByN(info, layout, n);
      int off = 0, size = 0;
      bool shown = CM_ColumnGetDimension(info, layout, id, &off, &size) == 0;
      out += std::string(out.empty() ? "" : " ") + CM_ColumnGetNameTag(info, layout, id) + ":" +
             (shown ? std::to_string(off) + "+" + std::to_string(size) : "-");
    }
    return out;
  }
};

TEST(Columns, OffsetsSkipHiddenColumns) {
  Strip s;
  EXPECT_EQ(s.Geometry(), "a:0+10 b:10+20 c:30+30 d:60+40");
  CM_ColumnSetVisible(s.info, s.layout, s.b, false);
  EXPECT_EQ(s.Geometry(), "a:0+10 b:- c:10+30 d:40+40");
  CM_ColumnSetVisible(s.info, s.layout, s.a, false);
  EXPECT_EQ(s.Geometry(), "a:- b:- c:10+30 d:40+40");
  CM_ColumnSetVisible(s.info, s.layout, s.b, true);
  EXPECT_EQ(s.Geometry(), "a:- b:10+20 c:30+30 d:60+40");
  for (int id : {s.b, s.c, s.d}) CM_ColumnSetVisible(s.info, s.layout, id, false);
  EXPECT_EQ(s.Geometry(), "a:- b:- c:- d:-");  // nothing drawn, the line still there
}

TEST(Columns, BordersWithinFivePixels) {
  Strip s;
  CM_LayoutSelect(s.info, s.layout, 100);  // the layout starts 100 px into the strip
  const std::tuple<int, int, const char*> cases[] = {
      {100, kCMBorderLeft, "a"},  {104, kCMBorderLeft, "a"},  {105, kCMBorderNone, ""},
      {106, kCMBorderRight, "a"}, {109, kCMBorderRight, "a"}, {110, kCMBorderLeft, "b"},
      {145, kCMBorderNone, ""},   {159, kCMBorderRight, "c"}, {200, kCMBorderNone, ""},
      {99, kCMBorderNone, ""},
  };
  for (auto [x, border, name] : cases) {
    int col = kCMNone;
    EXPECT_EQ(CM_ColumnCloseToBorder(s.info, x, &col), border) << x;
    EXPECT_STREQ(col ? CM_ColumnGetNameTag(s.info, s.layout, col) : "", name) << x;
  }
  CM_INFO* empty = CM_Create(NULL_WIN, nullptr, 0);
  CM_LayoutSelect(empty, CM_LayoutAdd(empty, "E", nullptr), 0);
  int col = 7;
  EXPECT_EQ(CM_ColumnCloseToBorder(empty, 0, &col), kCMBorderNone);
  CM_Destroy(empty);
}

TEST(Columns, ResizingOnABorder) {
  struct Case {
    const char* what;
    const char* column;
    int border, p;
    const char* after;
  };
  const Case cases[] = {
      {"right border of b dragged right", "b", kCMBorderRight, 45, "a:0+10 b:10+35 c:45+30 d:75+40"},
      {"right border of b dragged left", "b", kCMBorderRight, 22, "a:0+10 b:10+12 c:22+30 d:52+40"},
      {"right border of c dragged over b's start", "c", kCMBorderRight, 8, "a:0+8 b:- c:- d:8+40"},
      {"left border of c dragged left over b", "c", kCMBorderLeft, 5, "a:0+5 b:- c:5+30 d:35+40"},
      {"left border of c dragged left", "c", kCMBorderLeft, 25, "a:0+10 b:10+15 c:25+30 d:55+40"},
      {"left border of c dragged right", "c", kCMBorderLeft, 40, "a:0+10 b:10+30 c:40+30 d:70+40"},
      {"left border of the first column", "a", kCMBorderLeft, 4, "a:4+10 b:14+20 c:34+30 d:64+40"},
  };
  for (const Case& c : cases) {
    Strip s;
    int col = kCMNone;
    for (int id : {s.a, s.b, s.c, s.d})
      if (std::string(CM_ColumnGetNameTag(s.info, s.layout, id)) == c.column) col = id;
    CM_ColumnResizeOnBorder(s.info, s.layout, col, c.border, c.p);
    EXPECT_EQ(s.Geometry(), c.after) << c.what;
  }
}

TEST(Columns, MovingAColumnAndNames) {
  Strip s;
  EXPECT_EQ(CM_ColumnMoveSelected(s.info, s.layout, s.d, s.b), 1);
  EXPECT_EQ(s.Geometry(), "a:0+10 d:10+40 b:50+20 c:70+30");
  EXPECT_EQ(CM_ColumnMoveSelected(s.info, s.layout, s.a, kCMNone), 1);
  EXPECT_EQ(s.Geometry(), "d:0+40 b:40+20 c:60+30 a:90+10");
  EXPECT_EQ(CM_ColumnAdd(s.info, s.layout, "b", 5, 0, true), 0);  // names are unique in a layout
  EXPECT_EQ(CM_LayoutAdd(s.info, "L", nullptr), 0);
  EXPECT_EQ(CM_ColumnGetNewId(s.info, s.layout), 5);
}

TEST(Columns, WhereADroppedTitleGoes) {
  struct Case {
    const char* column;
    int p;
    const char* hide;    // a column hidden first, or ""
    const char* before;  // "" for the end, "-" for no move
    const char* after;   // the geometry once moved
  };
  const Case cases[] = {
      {"b", 2, "", "a", "b:0+20 a:20+10 c:30+30 d:60+40"},    // left half of a
      {"b", 8, "", "-", ""},                                  // right half of a: its own place
      {"b", 35, "", "-", ""},                                 // left half of c: its own place
      {"b", 50, "", "d", "a:0+10 c:10+30 b:40+20 d:60+40"},   // right half of c
      {"b", 95, "", "", "a:0+10 c:10+30 d:40+40 b:80+20"},    // right half of the last
      {"b", 400, "", "", "a:0+10 c:10+30 d:40+40 b:80+20"},   // beyond every column
      {"d", -3, "", "a", "d:0+40 a:40+10 b:50+20 c:70+30"},   // left of everything
      {"d", 70, "", "-", ""},                                 // onto itself
      {"a", 35, "c", "d", "b:0+20 c:- a:20+10 d:30+40"},      // c hidden: d lies at 30
      {"a", 10, "c", "-", ""},                                // b's left half: a's own place
  };
  for (const Case& c : cases) {
    Strip s;
    auto id = [&](const char* name) {
      for (int x : {s.a, s.b, s.c, s.d})
        if (std::string(CM_ColumnGetNameTag(s.info, s.layout, x)) == name) return x;
      return kCMNone;
    };
    if (*c.hide) CM_ColumnSetVisible(s.info, s.layout, id(c.hide), false);
    int before = CM_ColumnDropBefore(s.info, s.layout, id(c.column), c.p);
    std::string got = before < 0 ? "-" : before == kCMNone ? "" : CM_ColumnGetNameTag(s.info, s.layout, before);
    EXPECT_EQ(got, c.before) << c.column << " at " << c.p;
    if (before < 0) continue;
    CM_ColumnMoveSelected(s.info, s.layout, id(c.column), before);
    EXPECT_EQ(s.Geometry(), c.after) << c.column << " at " << c.p;
  }
}

class ColumnOptions : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
    char* argv[] = {const_cast<char*>("velmar"), nullptr};
    ASSERT_EQ(CENV_Init(1, argv), 1);
    ASSERT_EQ(Opt_Init(), 1);
  }
  void TearDown() override {
    Opt_Shutdown();
    FrameTest::TearDown();
  }
};

TEST_F(ColumnOptions, DefaultsAreWrittenAndLayoutsComeBack) {
  EXPECT_EQ(MSG_CM_OptionName(kCMWindowFolder, "Message", "Subject", "size"), "desktop.colman.folder.Message.Subject.size");
  EXPECT_EQ(MSG_CM_OptionName(7, "Message", "Subject", "size"), "");
  Opt_AssignString("desktop.colman.topms.Folder.Name.offset", "-4", kOptSession, 0);
  CM_INFO* info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
  MSG_CM_LayoutCreate(info);
  std::vector<std::string> names;
  for (auto& l : info->layouts) names.push_back(l.name);
  EXPECT_EQ(names, (std::vector<std::string>{"MsgService", "Search", "Folder", "Group", "Message", "SearchMessage"}));
  const std::pair<const char*, const char*> written[] = {
      {"desktop.colman.topms.MsgService.Icon.size", "32"},
      {"desktop.colman.topms.MsgService.Icon.visible", "1"},
      {"desktop.colman.topms.Folder.RO.size", "72"},
      {"desktop.colman.topms.Folder.Name.offset", "22"},  // the negative one was taken as absent
      {"desktop.colman.topms.Message.Date.offset", "377"},
  };
  for (auto [name, value] : written) EXPECT_EQ(Option(name), value) << name;
  // The user widens Subject: the option follows, and a new strip comes back with it.
  int message = MSG_CM_LayoutId(info, kCMLayoutMessage);
  int subject = CM_ColumnGetColumnByN(info, message, 2);
  CM_LayoutSelect(info, message, 0);
  CM_ColumnResizeOnBorder(info, message, subject, kCMBorderRight, 27 + 150 + 260);
  CM_ColumnSetVisible(info, message, CM_ColumnGetColumnByN(info, message, 4), false);
  MSG_CM_SaveColumn(info, message, CM_ColumnGetColumnByN(info, message, 4));
  EXPECT_EQ(Option("desktop.colman.topms.Message.Subject.size"), "260");
  EXPECT_EQ(Option("desktop.colman.topms.Message.Date.offset"), "437");
  CM_Destroy(info);
  info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
  MSG_CM_LayoutCreate(info);
  message = MSG_CM_LayoutId(info, kCMLayoutMessage);
  int off = 0, size = 0;
  ASSERT_EQ(CM_ColumnGetDimension(info, message, CM_ColumnGetColumnByN(info, message, 2), &off, &size), 0);
  EXPECT_EQ(off, 177);
  EXPECT_EQ(size, 260);
  EXPECT_FALSE(CM_ColumnIsVisible(info, message, CM_ColumnGetColumnByN(info, message, 4)));
  CM_Destroy(info);
  // Another kind of window keeps its own.
  info = CM_Create(NULL_WIN, nullptr, kCMWindowSearch);
  MSG_CM_LayoutCreate(info);
  EXPECT_EQ(info->layouts.size(), 2u);
  EXPECT_EQ(Option("desktop.colman.search.SearchMessage.Subject.size"), "200");
  CM_Destroy(info);
}

// The manager window over a folder window's Message layout: each user
// action, what the list shows after it, and what the options hold.
TEST_F(ColumnOptions, TheManagerWindowShowsHidesAndMovesColumns) {
  struct Step {
    const char* what;
    std::function<void(WINDOW manager, WINDOW list)> act;
    const char* lines;  // the list, "[x]" for a column that shows
    std::vector<std::pair<const char*, const char*>> options;
  };
  auto click = [](WINDOW list, int line) {
    EVENT ev{};
    ev.type = E_MOUSE_DOWN;
    ev.v.mouse.where = PNT{30, line * 18 + 5};
    xvt_test_user_event(list, &ev);
    ev.type = E_MOUSE_UP;
    xvt_test_user_event(list, &ev);
  };
  auto key = [](WINDOW list, int ch) {
    EVENT ev{};
    ev.type = E_CHAR;
    ev.v.chr.ch = ch;
    xvt_test_user_event(list, &ev);
  };
  const std::string o = "desktop.colman.folder.Message.";
  const Step steps[] = {
      {"opened", [](WINDOW, WINDOW) {}, "[x]Icon [x]From [x]Subject [x]Date [x]Size [x]Folder", {}},
      {"a click hides Size", [&](WINDOW, WINDOW l) { click(l, 4); },
       "[x]Icon [x]From [x]Subject [x]Date [ ]Size [x]Folder", {{"Size.visible", "0"}, {"Folder.offset", "467"}}},
      {"Space shows it again", [&](WINDOW, WINDOW l) { key(l, ' '); },
       "[x]Icon [x]From [x]Subject [x]Date [x]Size [x]Folder", {{"Size.visible", "1"}, {"Folder.offset", "507"}}},
      {"Enter hides it", [&](WINDOW, WINDOW l) { key(l, K_ENTER); },
       "[x]Icon [x]From [x]Subject [x]Date [ ]Size [x]Folder", {{"Size.visible", "0"}}},
      {"Move Up", [](WINDOW m, WINDOW) { xvt_test_click(m, kCMManagerUp); },
       "[x]Icon [x]From [x]Subject [ ]Size [x]Date [x]Folder", {{"Size.offset", "377"}, {"Date.offset", "377"}}},
      {"Move Down twice", [](WINDOW m, WINDOW) {
         xvt_test_click(m, kCMManagerDown);
         xvt_test_click(m, kCMManagerDown);
       }, "[x]Icon [x]From [x]Subject [x]Date [x]Folder [ ]Size", {{"Folder.offset", "467"}, {"Size.offset", "637"}}},
      {"Move Down at the end", [](WINDOW m, WINDOW) { xvt_test_click(m, kCMManagerDown); },
       "[x]Icon [x]From [x]Subject [x]Date [x]Folder [ ]Size", {}},
      {"a click on From hides it", [&](WINDOW, WINDOW l) { click(l, 1); },
       "[x]Icon [ ]From [x]Subject [x]Date [x]Folder [ ]Size", {{"From.visible", "0"}, {"Subject.offset", "27"}}},
  };
  xvt_test_set_run_hook([&] {
    RCT r{0, 0, 600, 20};
    CM_INFO* info = CM_Create(TASK_WIN, &r, kCMWindowFolder);
    MSG_CM_LayoutCreate(info);
    int layout = MSG_CM_LayoutId(info, kCMLayoutMessage);
    CM_LayoutSelect(info, layout, 0);
    WINDOW manager = CM_ManagerWindowCreate(info, kCMNone);
    ASSERT_NE(manager, NULL_WIN);
    EXPECT_EQ(CM_ManagerWindowCreate(info, layout), manager) << "one manager per strip";
    char title[64];
    EXPECT_STREQ(xvt_vobj_get_title(manager, title, sizeof title), "Columns: Message");
    WINDOW list = NULL_WIN;
    for (WINDOW w : xvt_test_windows())
      if (xvt_vobj_get_parent(w) == manager && TREE_GetInfo(w)) list = w;
    ASSERT_NE(list, NULL_WIN);
    for (const Step& step : steps) {
      step.act(manager, list);
      std::string lines;
      for (TreeNode* n = TREE_GetFirstKid(TREE_GetRoot(list)); n; n = TREE_GetNext(n)) {
        // The check mark is drawn, as two strokes, only on a column that shows.
        std::string name;
        int strokes = 0;
        for (const XvtDrawOp& op : xvt_test_paint(list)) {
          if (op.rct.top < n->display_line * 18 || op.rct.top >= (n->display_line + 1) * 18) continue;
          if (op.op == "text") name = op.text;
          if (op.op == "line") ++strokes;
        }
        lines += std::string(lines.empty() ? "" : " ") + (strokes == 2 ? "[x]" : strokes == 0 ? "[ ]" : "[?]") + name;
      }
      EXPECT_EQ(lines, step.lines) << step.what;
      for (auto [name, value] : step.options) EXPECT_EQ(Option((o + name).c_str()), value) << step.what << ": " << name;
      // The strip shows the titles of the columns that show, in their order; the icon column has none.
      std::string titles;
      for (const XvtDrawOp& op : xvt_test_paint(info->window))
        if (op.op == "text") titles += std::string(titles.empty() ? "" : " ") + op.text;
      std::string want;
      for (int n = 0; n < CM_LayoutGetNumColumn(info, layout); ++n) {
        int id = CM_ColumnGetColumnByN(info, layout, n);
        if (n > 0 && CM_ColumnIsVisible(info, layout, id))
          want += std::string(want.empty() ? "" : " ") + CM_ColumnGetNameTag(info, layout, id);
      }
      EXPECT_EQ(titles, want) << step.what;
    }
    xvt_test_click(manager, kCMManagerClose);
    EXPECT_FALSE(xvt_vobj_is_valid(manager));
    EXPECT_EQ(info->manager, NULL_WIN);
    // A strip that goes takes its manager with it.
    manager = CM_ManagerWindowCreate(info, kCMNone);
    CM_Destroy(info);
    EXPECT_FALSE(xvt_vobj_is_valid(manager));
  });
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_app_create(0, nullptr, 0, treetest::TaskEh, &config);
  ExpectNoUnexpectedDialogs();
}

}  // namespace

namespace treetest {
namespace {

class ColumnSelect : public TreeTest {};

TEST_F(ColumnSelect, TheFirstSelectedLineChoosesTheLayout) {
  Run([&] {
    WINDOW w = MakeTree();
    TreeNode* root = TREE_GetRoot(w);
    TreeNode* svc = Node("svc", false, 0, kNodeDataTypeMsgService);
    TREE_AppendNode(root, svc);
    TreeNode* fol = Node("inbox", false, 0, kNodeDataTypeFolder);
    TREE_AppendNode(svc, fol);
    TreeNode* msg = Node("msg", true, 0, kNodeDataTypeMessage);
    TREE_AppendNode(fol, msg);
    TreeNode* search = Node("search", false, 0, kNodeDataTypeSearch);
    TREE_AppendNode(root, search);
    TreeNode* hit = Node("hit", true, 0, kNodeDataTypeMessage);
    TREE_AppendNode(search, hit);
    CM_INFO* info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
    MSG_CM_LayoutCreate(info);
    struct Case {
      std::vector<TreeNode*> select;
      int layout;
      int offset;
    };
    const Case cases[] = {
        {{}, kCMLayoutNone, 0},
        {{svc}, kCMLayoutMsgService, 0},
        {{msg}, kCMLayoutMessage, 20},
        {{hit, fol}, kCMLayoutSearchMessage, 10},
        {{fol, hit}, kCMLayoutFolder, 10},
    };
    for (const Case& c : cases) {
      TREE_ClearSelections(w);
      for (TreeNode* n : c.select) TREE_SelectNode(n, 1);
      MSG_CM_LayoutSelect(info, w);
      EXPECT_EQ(info->current, MSG_CM_LayoutId(info, c.layout));
      if (c.layout) {
        EXPECT_EQ(info->offset, c.offset);
      }
    }
    CM_Destroy(info);
  });
}

// The strip's window: a title dragged along it moves its column; a press
// near a border and a drag resize; a click or a short drag changes nothing.
TEST_F(ColumnSelect, DraggingTitlesAndBordersInTheStrip) {
  struct Case {
    const char* what;
    std::vector<int> xs;  // press, moves..., release (strip coordinates)
    const char* after;
  };
  // The layout starts 5 px into the strip: a 5-15, b 15-35, c 35-65, d 65-105.
  const Case cases[] = {
      {"b dragged onto c's right half", {25, 40, 60}, "a:0+10 c:10+30 b:40+20 d:60+40"},
      {"d dragged to the front", {80, 40, 3}, "d:0+40 a:40+10 b:50+20 c:70+30"},
      {"a click on a title", {25}, "a:0+10 b:10+20 c:30+30 d:60+40"},
      {"a drag shorter than the slop", {25, 28, 29}, "a:0+10 b:10+20 c:30+30 d:60+40"},
      {"b's right border dragged", {34, 40, 50}, "a:0+10 b:10+35 c:45+30 d:75+40"},
  };
  for (const Case& c : cases) {
    Run([&] {
      RCT r{0, 0, 300, 20};
      CM_INFO* info = CM_Create(TASK_WIN, &r, 0);
      int layout = CM_LayoutAdd(info, "L", nullptr);
      const std::pair<const char*, int> cols[] = {{"a", 10}, {"b", 20}, {"c", 30}, {"d", 40}};
      int off = 0;
      for (auto [name, size] : cols) {
        CM_ColumnAdd(info, layout, name, size, off, true);
        off += size;
      }
      CM_LayoutSelect(info, layout, 5);
      EVENT ev{};
      for (size_t k = 0; k < c.xs.size(); ++k) {
        ev.type = k == 0 ? E_MOUSE_DOWN : E_MOUSE_MOVE;
        ev.v.mouse.where = PNT{c.xs[k], 8};
        xvt_test_user_event(info->window, &ev);
        if (k == 1 && std::string(c.what).find("onto") != std::string::npos) {
          // While dragging, a bar marks where the title would land: c's right edge.
          bool marked = false;
          for (const XvtDrawOp& op : xvt_test_paint(info->window))
            marked = marked || (op.op == "rect" && op.rct.left == 5 + 30 - 1 && op.rct.right == 5 + 30 + 2);
          EXPECT_FALSE(marked) << "no mark over its own place";
        }
      }
      ev.type = E_MOUSE_UP;
      xvt_test_user_event(info->window, &ev);
      EXPECT_EQ(xvt_test_trapped_window(), NULL_WIN) << c.what;
      std::string got;
      for (int n = 0; n < 4; ++n) {
        int id = CM_ColumnGetColumnByN(info, layout, n), o = 0, sz = 0;
        CM_ColumnGetDimension(info, layout, id, &o, &sz);
        got += std::string(got.empty() ? "" : " ") + CM_ColumnGetNameTag(info, layout, id) + ":" + std::to_string(o) +
               "+" + std::to_string(sz);
      }
      EXPECT_EQ(got, c.after) << c.what;
      // The strip paints the titles in their new order.
      std::string titles;
      for (const XvtDrawOp& op : xvt_test_paint(info->window))
        if (op.op == "text") titles += op.text;
      std::string order;
      for (int n = 0; n < 4; ++n) order += CM_ColumnGetNameTag(info, layout, CM_ColumnGetColumnByN(info, layout, n));
      EXPECT_EQ(titles, order) << c.what;
      CM_Destroy(info);
    });
  }
}

TEST_F(ColumnSelect, TheMarkFollowsTheDrag) {
  Run([&] {
    RCT r{0, 0, 300, 20};
    CM_INFO* info = CM_Create(TASK_WIN, &r, 0);
    int layout = CM_LayoutAdd(info, "L", nullptr);
    CM_ColumnAdd(info, layout, "a", 10, 0, true);
    CM_ColumnAdd(info, layout, "b", 20, 10, true);
    CM_ColumnAdd(info, layout, "c", 30, 30, true);
    CM_LayoutSelect(info, layout, 0);
    EVENT ev{};
    ev.type = E_MOUSE_DOWN;
    ev.v.mouse.where = PNT{20, 8};  // b
    xvt_test_user_event(info->window, &ev);
    // A jiggle of a few pixels is still a click: no drag, no hand.
    ev.type = E_MOUSE_MOVE;
    ev.v.mouse.where = PNT{23, 8};
    xvt_test_user_event(info->window, &ev);
    EXPECT_NE(xvt_test_cursor(), CURSOR_HAND);
    const std::pair<int, int> marks[] = {{2, 0}, {50, 60}, {200, 60}};  // pointer, mark
    for (auto [x, mark] : marks) {
      ev.type = E_MOUSE_MOVE;
      ev.v.mouse.where = PNT{x, 8};
      xvt_test_user_event(info->window, &ev);
      std::vector<int> at;
      for (const XvtDrawOp& op : xvt_test_paint(info->window))
        if (op.op == "rect" && op.rct.right - op.rct.left == 3) at.push_back(op.rct.left + 1);
      EXPECT_EQ(at, std::vector<int>{mark}) << "pointer at " << x;
      EXPECT_EQ(xvt_test_cursor(), CURSOR_HAND);
    }
    ev.type = E_MOUSE_UP;
    xvt_test_user_event(info->window, &ev);
    EXPECT_EQ(xvt_test_cursor(), CURSOR_ARROW);
    EXPECT_EQ(CM_ColumnGetColumnByN(info, layout, 2), 2) << "b went to the end";
    CM_Destroy(info);
  });
}

}  // namespace
}  // namespace treetest
