// The column manager: offsets with hidden columns, border grabbing, the five
// ways a border drop resizes, moving columns, dragging in the strip, the
// manager window, and layouts kept in options.
#include "src/organizer/columns.h"

#include <sstream>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/options/options.h"
#include "tests/organizer/tree_fixture.h"
#include "tests/support/frame_fixture.h"

namespace treetest {
namespace {

// "a:0+10 b:10+20 ..." with "-" for a hidden column.
std::string Geometry(CM_INFO* info, int layout) {
  std::string out;
  for (int n = 0; n < CM_LayoutGetNumColumn(info, layout); ++n) {
    int id = CM_ColumnGetColumnByN(info, layout, n), off = 0, size = 0;
    bool shown = CM_ColumnGetDimension(info, layout, id, &off, &size) == 0;
    out += std::string(out.empty() ? "" : " ") + CM_ColumnGetNameTag(info, layout, id) + ":" +
           (shown ? std::to_string(off) + "+" + std::to_string(size) : "-");
  }
  return out;
}

// Layout "L": columns a, b, c, d of 10, 20, 30, 40 from 0, starting `at` px into the strip.
struct Strip {
  CM_INFO* info;
  int layout;
  explicit Strip(int at = 0, WINDOW parent = NULL_WIN) {
    RCT r{0, 0, 300, 20};
    info = CM_Create(parent, parent ? &r : nullptr, 0);
    layout = CM_LayoutAdd(info, "L", nullptr);
    for (auto [name, size, off] : {std::tuple{"a", 10, 0}, {"b", 20, 10}, {"c", 30, 30}, {"d", 40, 60}})
      CM_ColumnAdd(info, layout, name, size, off, true);
    CM_LayoutSelect(info, layout, at);
  }
  ~Strip() { CM_Destroy(info); }
  int Id(const char* name) {
    for (int n = 0; n < 4; ++n)
      if (std::string(CM_ColumnGetNameTag(info, layout, CM_ColumnGetColumnByN(info, layout, n))) == name)
        return CM_ColumnGetColumnByN(info, layout, n);
    return kCMNone;
  }
  std::string Geometry() { return treetest::Geometry(info, layout); }
};

// Each row acts on a fresh strip, after hiding some columns: it hides (h)
// or shows (s) a column, drags its left (<) or right (>) border to p, or
// drops its title at p (d: the column it would go before, "-" for none).
TEST(Columns, GeometryAfterHidingResizingAndMoving) {
  const std::tuple<const char*, char, const char*, int, const char*, const char*> rows[] = {
      {"", 'h', "b", 0, "", "a:0+10 b:- c:10+30 d:40+40"},
      {"b", 'h', "a", 0, "", "a:- b:- c:10+30 d:40+40"},
      {"ab", 's', "b", 0, "", "a:- b:10+20 c:30+30 d:60+40"},
      {"abc", 'h', "d", 0, "", "a:- b:- c:- d:-"},  // nothing drawn, the line still there
      {"", '>', "b", 45, "", "a:0+10 b:10+35 c:45+30 d:75+40"},
      {"", '>', "b", 22, "", "a:0+10 b:10+12 c:22+30 d:52+40"},
      {"", '>', "c", 8, "", "a:0+8 b:- c:- d:8+40"},  // over b's start: both hide
      {"", '<', "c", 5, "", "a:0+5 b:- c:5+30 d:35+40"},  // over b
      {"", '<', "c", 25, "", "a:0+10 b:10+15 c:25+30 d:55+40"},
      {"", '<', "c", 40, "", "a:0+10 b:10+30 c:40+30 d:70+40"},
      {"", '<', "a", 4, "", "a:4+10 b:14+20 c:34+30 d:64+40"},  // the first column's left border
      {"", 'd', "b", 2, "a", "b:0+20 a:20+10 c:30+30 d:60+40"},  // left half of a
      {"", 'd', "b", 8, "-", ""},  // right half of a: its own place
      {"", 'd', "b", 35, "-", ""},  // left half of c: its own place
      {"", 'd', "b", 50, "d", "a:0+10 c:10+30 b:40+20 d:60+40"},  // right half of c
      {"", 'd', "b", 95, "", "a:0+10 c:10+30 d:40+40 b:80+20"},  // right half of the last
      {"", 'd', "b", 400, "", "a:0+10 c:10+30 d:40+40 b:80+20"},  // beyond every column
      {"", 'd', "d", -3, "a", "d:0+40 a:40+10 b:50+20 c:70+30"},  // left of everything
      {"", 'd', "d", 70, "-", ""},  // onto itself
      {"c", 'd', "a", 35, "d", "b:0+20 c:- a:20+10 d:30+40"},  // c hidden: d lies at 30
      {"c", 'd', "a", 10, "-", ""},  // b's left half: a's own place
  };
  for (auto [hidden, op, column, p, before, after] : rows) {
    Strip s;
    for (const char* h = hidden; *h; ++h) CM_ColumnSetVisible(s.info, s.layout, s.Id(std::string(1, *h).c_str()), false);
    std::string what = std::string(hidden) + " hidden, " + op + column + " " + std::to_string(p);
    if (op == 'h' || op == 's') CM_ColumnSetVisible(s.info, s.layout, s.Id(column), op == 's');
    if (op == '<' || op == '>')
      CM_ColumnResizeOnBorder(s.info, s.layout, s.Id(column), op == '<' ? kCMBorderLeft : kCMBorderRight, p);
    if (op == 'd') {
      int to = CM_ColumnDropBefore(s.info, s.layout, s.Id(column), p);
      EXPECT_STREQ(to < 0 ? "-" : to == kCMNone ? "" : CM_ColumnGetNameTag(s.info, s.layout, to), before) << what;
      if (to < 0) continue;
      CM_ColumnMoveSelected(s.info, s.layout, s.Id(column), to);
    }
    EXPECT_EQ(s.Geometry(), after) << what;
  }
  Strip s;
  EXPECT_EQ(CM_ColumnAdd(s.info, s.layout, "b", 5, 0, true), 0);  // names are unique in a layout
  EXPECT_EQ(CM_LayoutAdd(s.info, "L", nullptr), 0);
  EXPECT_EQ(CM_ColumnGetNewId(s.info, s.layout), 5);
}

TEST(Columns, BordersWithinFivePixels) {
  Strip s(100);  // the layout starts 100 px into the strip
  const std::tuple<int, int, const char*> cases[] = {
      {100, kCMBorderLeft, "a"},  {104, kCMBorderLeft, "a"},  {105, kCMBorderNone, ""}, {106, kCMBorderRight, "a"},
      {109, kCMBorderRight, "a"}, {110, kCMBorderLeft, "b"},  {145, kCMBorderNone, ""}, {159, kCMBorderRight, "c"},
      {200, kCMBorderNone, ""},   {99, kCMBorderNone, ""},
  };
  for (auto [x, border, name] : cases) {
    int col = kCMNone;
    EXPECT_EQ(CM_ColumnCloseToBorder(s.info, x, &col), border) << x;
    EXPECT_STREQ(col ? CM_ColumnGetNameTag(s.info, s.layout, col) : "", name) << x;
  }
  CM_LayoutSelect(s.info, CM_LayoutAdd(s.info, "E", nullptr), 0);  // no columns, no borders
  int col = 7;
  EXPECT_EQ(CM_ColumnCloseToBorder(s.info, 0, &col), kCMBorderNone);
}

// The strip's window: a title dragged along it moves its column, with a
// mark where it would land; a press near a border and a drag resize; a
// click or a short drag changes nothing.
class ColumnSelect : public TreeTest {};

TEST_F(ColumnSelect, DraggingTitlesAndBordersInTheStrip) {
  constexpr int kNoDrag = -1, kNoMark = 0, kAny = -2;
  // The layout starts 5 px into the strip: a 5-15, b 15-35, c 35-65, d 65-105.
  const char* unmoved = "a:0+10 b:10+20 c:30+30 d:60+40";
  const std::tuple<const char*, int, std::vector<std::pair<int, int>>, const char*> cases[] = {
      // what, press, moves (pointer, where the mark shows), geometry after the release
      {"b dragged over its own place onto c's right half", 25, {{40, kNoMark}, {60, 65}},
       "a:0+10 c:10+30 b:40+20 d:60+40"},
      {"d dragged to the front", 80, {{40, 35}, {3, 5}}, "d:0+40 a:40+10 b:50+20 c:70+30"},
      {"b dragged past the end", 25, {{200, 105}}, "a:0+10 c:10+30 d:40+40 b:80+20"},
      {"a click on a title", 25, {}, unmoved},
      {"a drag shorter than the slop", 25, {{28, kNoDrag}, {29, kNoDrag}}, unmoved},
      {"b's right border dragged", 34, {{40, kAny}, {50, kAny}}, "a:0+10 b:10+35 c:45+30 d:75+40"},
  };
  for (const auto& c : cases) {
    Run([&] {
      auto& [what, press, moves, after] = c;
      Strip s(5, TASK_WIN);
      int x = press;
      Mouse(s.info->window, E_MOUSE_DOWN, {x, 8});
      for (auto [to, mark] : moves) {
        Mouse(s.info->window, E_MOUSE_MOVE, {x = to, 8});
        if (mark == kAny) continue;
        std::vector<int> at;
        for (const XvtDrawOp& op : xvt_test_paint(s.info->window))
          if (op.op == "rect" && op.rct.right - op.rct.left == 3) at.push_back(op.rct.left + 1);
        EXPECT_EQ(at, mark > 0 ? std::vector<int>{mark} : std::vector<int>{}) << what << ", pointer at " << x;
        EXPECT_EQ(xvt_test_cursor() == CURSOR_HAND, mark != kNoDrag) << what << ", pointer at " << x;
      }
      Mouse(s.info->window, E_MOUSE_UP, {x, 8});
      EXPECT_EQ(xvt_test_trapped_window(), NULL_WIN) << what;
      EXPECT_NE(xvt_test_cursor(), CURSOR_HAND) << what;
      EXPECT_EQ(s.Geometry(), after) << what;
      std::string titles, order;  // the strip paints the titles in their new order
      for (const XvtDrawOp& op : xvt_test_paint(s.info->window))
        if (op.op == "text") titles += op.text;
      for (int n = 0; n < 4; ++n) order += CM_ColumnGetNameTag(s.info, s.layout, CM_ColumnGetColumnByN(s.info, s.layout, n));
      EXPECT_EQ(titles, order) << what;
    });
  }
}

TEST_F(ColumnSelect, TheFirstSelectedLineChoosesTheLayout) {
  Run([&] {
    WINDOW w = MakeTree();
    std::vector<TreeNode*> n;  // svc > inbox > msg, search > hit
    const std::tuple<const char*, int, int> nodes[] = {{"svc", kNodeDataTypeMsgService, -1},
                                                       {"inbox", kNodeDataTypeFolder, 0},
                                                       {"msg", kNodeDataTypeMessage, 1},
                                                       {"search", kNodeDataTypeSearch, -1},
                                                       {"hit", kNodeDataTypeMessage, 3}};
    for (auto [name, type, parent] : nodes) {
      n.push_back(Node(name, false, 0, type));
      TREE_AppendNode(parent < 0 ? TREE_GetRoot(w) : n[size_t(parent)], n.back());
    }
    CM_INFO* info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
    MSG_CM_LayoutCreate(info);
    // The strip starts where the line's own drawing does: its offset in the
    // tree, past the 20 pixels the connectors take.
    const std::tuple<std::vector<int>, int, int> cases[] = {
        {{}, kCMLayoutNone, 0},      {{0}, kCMLayoutMsgService, 20},        {{2}, kCMLayoutMessage, 40},
        {{4, 1}, kCMLayoutSearchMessage, 30}, {{1, 4}, kCMLayoutFolder, 30},
    };
    for (auto& [select, layout, offset] : cases) {
      TREE_ClearSelections(w);
      for (int i : select) TREE_SelectNode(n[size_t(i)], 1);
      MSG_CM_LayoutSelect(info, w);
      EXPECT_EQ(info->current, MSG_CM_LayoutId(info, layout)) << layout;
      if (layout) {
        EXPECT_EQ(info->offset, offset) << layout;
      }
    }
    CM_Destroy(info);
  });
}

}  // namespace
}  // namespace treetest

namespace {

using ColumnOptions = OptionsFrameTest;

TEST_F(ColumnOptions, DefaultsAreWrittenAndLayoutsComeBack) {
  EXPECT_EQ(MSG_CM_OptionName(kCMWindowFolder, "Message", "Subject", "size"), "desktop.colman.folder.Message.Subject.size");
  EXPECT_EQ(MSG_CM_OptionName(7, "Message", "Subject", "size"), "");
  Opt_AssignString("desktop.colman.topms.Folder.Name.offset", "-4", kOptSession, 0);
  CM_INFO* info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
  MSG_CM_LayoutCreate(info);
  EXPECT_EQ(treetest::Join(info->layouts, [](auto& l) { return l.name; }),
            "MsgService Search Folder Group Message SearchMessage");
  const std::pair<const char*, const char*> written[] = {
      {"desktop.colman.topms.MsgService.Icon.size", "32"},
      {"desktop.colman.topms.MsgService.Icon.visible", "1"},
      {"desktop.colman.topms.Folder.RO.size", "72"},
      {"desktop.colman.topms.Folder.Name.offset", "22"},  // the negative one was taken as absent
      {"desktop.colman.topms.Message.Date.offset", "377"},
  };
  for (auto [name, value] : written) EXPECT_EQ(Option(name), value) << name;
  // The user widens Subject and hides Size: the options follow, and a new strip comes back with them.
  int message = MSG_CM_LayoutId(info, kCMLayoutMessage);
  CM_LayoutSelect(info, message, 0);
  CM_ColumnResizeOnBorder(info, message, CM_ColumnGetColumnByN(info, message, 2), kCMBorderRight, 27 + 150 + 260);
  CM_ColumnSetVisible(info, message, CM_ColumnGetColumnByN(info, message, 4), false);
  for (int n = 0; n < 6; ++n) MSG_CM_SaveColumn(info, message, CM_ColumnGetColumnByN(info, message, n));
  EXPECT_EQ(Option("desktop.colman.topms.Message.Subject.size"), "260");
  EXPECT_EQ(Option("desktop.colman.topms.Message.Date.offset"), "437");
  std::string saved = treetest::Geometry(info, message);
  EXPECT_EQ(saved, "Icon:0+27 From:27+150 Subject:177+260 Date:437+120 Size:- Folder:557+170");
  CM_Destroy(info);
  info = CM_Create(NULL_WIN, nullptr, kCMWindowTop);
  MSG_CM_LayoutCreate(info);
  EXPECT_EQ(treetest::Geometry(info, MSG_CM_LayoutId(info, kCMLayoutMessage)), saved);
  CM_Destroy(info);
  // Another kind of window keeps its own.
  info = CM_Create(NULL_WIN, nullptr, kCMWindowSearch);
  MSG_CM_LayoutCreate(info);
  EXPECT_EQ(info->layouts.size(), 2u);
  EXPECT_EQ(Option("desktop.colman.search.SearchMessage.Subject.size"), "200");
  CM_Destroy(info);
}

// The manager window over a folder window's Message layout: each user
// action, what the list shows after it (with check marks), and what the
// options hold ("Size.visible=0 ..." under desktop.colman.folder.Message).
TEST_F(ColumnOptions, TheManagerWindowShowsHidesAndMovesColumns) {
  const std::tuple<const char*, int, int, const char*, const char*> steps[] = {
      // what, a click on line n (-1) or a key (-2) or a button, n or the key, the list, the options
      {"opened", kCMNone, 0, "[x]Icon [x]From [x]Subject [x]Date [x]Size [x]Folder", ""},
      {"a click hides Size", -1, 4, "[x]Icon [x]From [x]Subject [x]Date [ ]Size [x]Folder",
       "Size.visible=0 Folder.offset=497"},
      {"Space shows it", -2, ' ', "[x]Icon [x]From [x]Subject [x]Date [x]Size [x]Folder",
       "Size.visible=1 Folder.offset=547"},
      {"Enter hides it", -2, K_ENTER, "[x]Icon [x]From [x]Subject [x]Date [ ]Size [x]Folder", "Size.visible=0"},
      {"Move Up", kCMManagerUp, 1, "[x]Icon [x]From [x]Subject [ ]Size [x]Date [x]Folder",
       "Size.offset=377 Date.offset=377"},
      {"Move Down twice", kCMManagerDown, 2, "[x]Icon [x]From [x]Subject [x]Date [x]Folder [ ]Size",
       "Folder.offset=497 Size.offset=667"},
      {"Move Down at the end", kCMManagerDown, 1, "[x]Icon [x]From [x]Subject [x]Date [x]Folder [ ]Size", ""},
      {"a click on From hides it", -1, 1, "[x]Icon [ ]From [x]Subject [x]Date [x]Folder [ ]Size",
       "From.visible=0 Subject.offset=27"},
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
    EXPECT_EQ(Title(manager), "Columns: Message");
    WINDOW list = NULL_WIN;
    for (WINDOW w : xvt_test_windows())
      if (xvt_vobj_get_parent(w) == manager && TREE_GetInfo(w)) list = w;
    ASSERT_NE(list, NULL_WIN);
    for (auto [what, action, arg, lines, options] : steps) {
      for (int i = 0; action > 0 && i < arg; ++i) xvt_test_click(manager, action);
      if (action == -1) treetest::Mouse(list, {30, arg * 18 + 5});
      if (action == -2) treetest::Key(list, arg);
      // Each line's name, and its check mark: two strokes, drawn only on a column that shows.
      std::vector<std::string> names(6);
      std::vector<int> strokes(6);
      for (const XvtDrawOp& op : xvt_test_paint(list)) {
        size_t k = size_t(std::clamp(op.rct.top / 18, 0, 5));
        if (op.op == "text") names[k] = op.text;
        strokes[k] += op.op == "line";
      }
      std::string got, titles, want;
      for (size_t k = 0; k < 6; ++k)
        got += (k ? " " : "") + std::string(strokes[k] == 2 ? "[x]" : strokes[k] ? "[?]" : "[ ]") + names[k];
      EXPECT_EQ(got, lines) << what;
      std::istringstream is(options);
      for (std::string o; is >> o;) {
        size_t eq = o.find('=');
        EXPECT_EQ(Option(("desktop.colman.folder.Message." + o.substr(0, eq)).c_str()), o.substr(eq + 1)) << what;
      }
      // The strip shows the titles of the columns that show, in their order; the icon column has none.
      for (const XvtDrawOp& op : xvt_test_paint(info->window))
        if (op.op == "text") titles += op.text + " ";
      for (int n = 1; n < CM_LayoutGetNumColumn(info, layout); ++n)
        if (CM_ColumnIsVisible(info, layout, CM_ColumnGetColumnByN(info, layout, n)))
          want += CM_ColumnGetNameTag(info, layout, CM_ColumnGetColumnByN(info, layout, n)) + std::string(" ");
      EXPECT_EQ(titles, want) << what;
    }
    xvt_test_click(manager, kCMManagerClose);
    EXPECT_FALSE(xvt_vobj_is_valid(manager));
    EXPECT_EQ(info->manager, NULL_WIN);
    manager = CM_ManagerWindowCreate(info, kCMNone);  // a strip that goes takes its manager with it
    CM_Destroy(info);
    EXPECT_FALSE(xvt_vobj_is_valid(manager));
  });
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_app_create(0, nullptr, 0, treetest::TaskEh, &config);
}

}  // namespace
