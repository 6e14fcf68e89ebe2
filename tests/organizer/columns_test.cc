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

}  // namespace
}  // namespace treetest
