// The tree widget and its column strip drawn by the Qt backend on the
// offscreen platform: a service, a folder and messages, one of them
// selected. The picture is saved in the build tree (tree_gui.png) and
// probed: the selection's highlight, the columns' text where the strip puts
// the columns, the connecting lines, and nothing beyond the last column.
#include <QImage>
#include <QWidget>

#include "src/organizer/columns.h"
#include "src/organizer/tree.h"
#include "tests/xvt/qt/xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

constexpr int kLine = 18;

struct Line {
  int32_t type;
  const char* name;
  const char* from;
  const char* subject;
};

CM_INFO* g_strip = nullptr;
WINDOW g_tree = NULL_WIN;

void DrawLine(WINDOW win, TreeNode* node, RCT* rect) {
  auto* d = static_cast<Line*>(TREE_GetData(node));
  int baseline = rect->top + 13;
  if (d->type != kNodeDataTypeMessage) {
    xvt_dwin_draw_text(win, rect->left + 2, baseline, d->name, -1);
    return;
  }
  // Each field in its column, as the strip lays them out for messages.
  int layout = MSG_CM_LayoutId(g_strip, MSG_CM_LayoutOf(node));
  const char* fields[] = {nullptr, d->from, d->subject};
  for (int n = 1; n <= 2; ++n) {
    int off = 0, size = 0;
    if (CM_ColumnGetDimension(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, n), &off, &size)) continue;
    int x = rect->left - 20 + off;  // columns count from the line's offset, the text from the margin
    RCT clip{x, rect->top, x + size - 4, rect->bottom};
    xvt_dwin_set_clip(win, &clip);
    xvt_dwin_draw_text(win, x + 2, baseline, fields[n], -1);
  }
  xvt_dwin_set_clip(win, nullptr);
}

int LineWidth(WINDOW, TreeNode* node, RCT*) {
  auto* d = static_cast<Line*>(TREE_GetData(node));
  return d->type == kNodeDataTypeMessage ? 27 + 150 + 200 - 20 : 120;
}

void OnSelection(WINDOW win, TreeNode*) { MSG_CM_LayoutSelect(g_strip, win); }

Line g_lines[] = {
    {kNodeDataTypeMsgService, "Local mail", nullptr, nullptr},
    {kNodeDataTypeFolder, "Inbox", nullptr, nullptr},
    {kNodeDataTypeMessage, nullptr, "Ann Archer", "Quarterly report"},
    {kNodeDataTypeMessage, nullptr, "Bob Brown", "Lunch on Friday"},
    {kNodeDataTypeMessage, nullptr, "Carla Diaz", "Build is green again"},
    {kNodeDataTypeMessage, nullptr, "Dev list", "Release notes draft"},
};

bool Dark(QRgb p) { return qGray(p) < 110; }

TEST_F(XvtQt, TreeWithColumnsIsDrawn) {
  RunApp([] {
    WINDOW doc = Win(TASK_WIN, {0, 0, 640, 260}, nullptr, WSF_NONE, W_DOC);
    ASSERT_NE(doc, NULL_WIN);
    RCT strip_rect{0, 0, 600, 20};
    g_strip = CM_Create(doc, &strip_rect, kCMWindowTop);
    MSG_CM_LayoutCreate(g_strip);
    RCT tree_rect{0, 20, 600, 20 + 8 * kLine};
    g_tree = TREE_CreateTreeWidget(doc, &tree_rect, 50, 0, 2, 0, kLine, 0, OnSelection, nullptr, nullptr, nullptr);
    ASSERT_NE(g_tree, NULL_WIN);
    g_strip->tree = g_tree;
    TreeNode* root = TREE_GetRoot(g_tree);
    TreeNode* svc = TREE_NewNode(0, &g_lines[0], 0, DrawLine, nullptr, LineWidth);
    TREE_AppendNode(root, svc);
    TreeNode* inbox = TREE_NewNode(0, &g_lines[1], 20, DrawLine, nullptr, LineWidth);
    TREE_AppendNode(svc, inbox);
    std::vector<TreeNode*> msgs;
    for (int i = 2; i < 6; ++i) {
      msgs.push_back(TREE_NewNode(1, &g_lines[i], 20, DrawLine, nullptr, LineWidth));
      TREE_AppendNode(inbox, msgs.back());
    }
    TREE_OpenSubtree(svc, 1, 0);
    TREE_OpenSubtree(inbox, 1, 0);
    TREE_SelectOnlyNode(msgs[1]);  // "Bob Brown", line 3
    ASSERT_EQ(g_strip->current, MSG_CM_LayoutId(g_strip, kCMLayoutMessage));
    xvt_app_process_pending_events();
    QImage img = doc->client->grab().toImage().convertToFormat(QImage::Format_RGB32);
    std::string path = std::string(VELMAR_TEST_BINARY_DIR) + "/tree_gui.png";
    EXPECT_TRUE(img.save(QString::fromStdString(path), "PNG")) << path;

    // The highlight of line 3, from the text's start.
    int top = 20 + 3 * kLine;
    int text_x = msgs[1]->abs_offset + 20;
    int highlight = 0;
    for (int x = text_x + 1; x < text_x + 300; ++x)
      for (int y = top + 1; y < top + kLine - 1; ++y)
        if (img.pixel(x, y) == (0xFF000000u | kTreeHighlight)) ++highlight;
    EXPECT_GT(highlight, 300 * (kLine - 2) / 2) << "the selected line is highlighted";
    // Column text: dark pixels inside the From and Subject columns of an unselected message.
    int layout = g_strip->current;
    int line2 = 20 + 2 * kLine;
    for (int n : {1, 2}) {
      int off = 0, size = 0;
      ASSERT_EQ(CM_ColumnGetDimension(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, n), &off, &size), 0);
      int x0 = msgs[0]->abs_offset + off, dark = 0;
      for (int x = x0; x < x0 + size - 4; ++x)
        for (int y = line2; y < line2 + kLine; ++y) dark += Dark(img.pixel(x, y));
      EXPECT_GT(dark, 20) << "column " << n << " has its text";
    }
    // Nothing right of the last drawn column on a message line.
    int beyond = 0;
    for (int x = msgs[0]->abs_offset + 27 + 150 + 200 + 2; x < 590; ++x)
      for (int y = line2; y < line2 + kLine; ++y) beyond += Dark(img.pixel(x, y));
    EXPECT_EQ(beyond, 0);
    // The strip shows the titles over the columns: dark text in the Subject title box.
    int title = 0;
    for (int x = msgs[0]->abs_offset + 27 + 150 + 2; x < msgs[0]->abs_offset + 27 + 150 + 60; ++x)
      for (int y = 2; y < 18; ++y) title += Dark(img.pixel(x, y));
    EXPECT_GT(title, 10) << "the Subject title";
    // The dotted gray connector in the messages' column.
    int gray = 0;
    for (int y = line2; y < line2 + kLine; ++y) gray += img.pixel(msgs[0]->abs_offset + 10, y) == 0xFF808080u;
    EXPECT_GT(gray, 2);
    CM_Destroy(g_strip);
  });
}

}  // namespace
}  // namespace xvt_qt_test
