// The tree widget and its column strip drawn by the Qt backend on the
// offscreen platform: a service, a folder and messages, one of them
// selected. The picture is saved in the build tree (tree_gui.png) and
// probed: the selection's highlight, the columns' text where the strip puts
// the columns, the connecting lines, and nothing beyond the last column.
#include <QGuiApplication>
#include <QImage>
#include <QScreen>
#include <QScrollBar>
#include <QWidget>

#include <string>

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

void Mouse(QWidget* w, QEvent::Type type, QPoint at, Qt::MouseButtons held) {
  Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
  QMouseEvent e(type, QPointF(at), w->mapToGlobal(QPointF(at)), button, held, Qt::NoModifier);
  QApplication::sendEvent(w, &e);
}

// What the screen holds for the widget: the window's backing store, which
// scrolls and partial repaints have written, not a fresh paint of it.
QImage OnScreen(QWidget* w) {
  QWidget* top = w->window();
  QPoint at = w->mapTo(top, QPoint(0, 0));
  QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(top->winId(), at.x(), at.y(), w->width(), w->height());
  return shot.toImage().convertToFormat(QImage::Format_RGB32);
}

// Counts dark pixels in a rectangle of the picture.
int DarkIn(const QImage& img, int x0, int y0, int x1, int y1) {
  int dark = 0;
  for (int x = x0; x < x1; ++x)
    for (int y = y0; y < y1; ++y) dark += Dark(img.pixel(x, y));
  return dark;
}

// The user drags the right border of From 43 px to the right in the strip,
// then scrolls the tree three lines down with its bar. The strip's titles
// and every message line's fields follow the border; the lines that were
// 4th to 6th are now the first three, pixel for pixel. Saved as
// tree_gui_drag.png beside the first picture.
TEST_F(XvtQt, DraggingABorderAndScrollingRedrawsTheColumns) {
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
    std::vector<std::string> texts;
    for (int i = 0; i < 20; ++i) {
      texts.push_back("Sender " + std::to_string(i));
      texts.push_back(std::string(i % 3 + 1, 'W') + " subject " + std::to_string(i));
    }
    std::vector<Line> lines;
    lines.push_back(g_lines[0]);
    lines.push_back(g_lines[1]);
    for (int i = 0; i < 20; ++i)
      lines.push_back({kNodeDataTypeMessage, nullptr, texts[2 * i].c_str(), texts[2 * i + 1].c_str()});
    TreeNode* root = TREE_GetRoot(g_tree);
    TreeNode* svc = TREE_NewNode(0, &lines[0], 0, DrawLine, nullptr, LineWidth);
    TREE_AppendNode(root, svc);
    TreeNode* inbox = TREE_NewNode(0, &lines[1], 20, DrawLine, nullptr, LineWidth);
    TREE_AppendNode(svc, inbox);
    std::vector<TreeNode*> msgs;
    for (size_t i = 2; i < lines.size(); ++i) {
      msgs.push_back(TREE_NewNode(1, &lines[i], 20, DrawLine, nullptr, LineWidth));
      TREE_AppendNode(inbox, msgs.back());
    }
    TREE_OpenSubtree(svc, 1, 0);
    TREE_OpenSubtree(inbox, 1, 0);
    TREE_SelectOnlyNode(msgs[0]);  // the strip shows the message layout; this line scrolls away below
    int layout = MSG_CM_LayoutId(g_strip, kCMLayoutMessage);
    ASSERT_EQ(g_strip->current, layout);
    int left = msgs[0]->abs_offset;  // the layout's 0 in the strip and in the lines
    int from = CM_ColumnGetColumnByN(g_strip, layout, 1), subject = CM_ColumnGetColumnByN(g_strip, layout, 2);
    xvt_app_process_pending_events();

    // Press on From's right border (27 + 150), drag, release 43 px further.
    QWidget* strip = g_strip->window->client;
    ASSERT_NE(strip, nullptr);
    Mouse(strip, QEvent::MouseButtonPress, QPoint(left + 176, 10), Qt::LeftButton);
    Mouse(strip, QEvent::MouseMove, QPoint(left + 200, 10), Qt::LeftButton);
    Mouse(strip, QEvent::MouseMove, QPoint(left + 220, 10), Qt::LeftButton);
    Mouse(strip, QEvent::MouseButtonRelease, QPoint(left + 220, 10), Qt::NoButton);
    int off = 0, size = 0;
    ASSERT_EQ(CM_ColumnGetDimension(g_strip, layout, from, &off, &size), 0);
    EXPECT_EQ(size, 220 - 27);
    ASSERT_EQ(CM_ColumnGetDimension(g_strip, layout, subject, &off, &size), 0);
    EXPECT_EQ(off, 220);
    xvt_app_process_pending_events();
    QImage before = OnScreen(doc->client);
    ASSERT_EQ(before.width(), doc->client->width());

    // Three lines down by the bar's arrow.
    QScrollBar* bar = g_tree->bars[VSCROLL];
    ASSERT_NE(bar, nullptr);
    for (int i = 0; i < 3; ++i) bar->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    xvt_app_process_pending_events();
    EXPECT_EQ(TREE_TopLine(g_tree), 3);
    QImage img = OnScreen(doc->client);
    std::string path = std::string(VELMAR_TEST_BINARY_DIR) + "/tree_gui_drag.png";
    EXPECT_TRUE(img.save(QString::fromStdString(path), "PNG")) << path;

    // The strip: the Subject title at its new place, nothing where it was.
    EXPECT_GT(DarkIn(img, left + 222, 3, left + 280, 17), 10) << "the Subject title moved";
    EXPECT_EQ(DarkIn(img, left + 180, 3, left + 215, 17), 0) << "no title where Subject was";
    // The lines now on the screen are messages 1 onwards; each has its subject
    // at the new offset and nothing between its sender and there.
    int shown = 0;
    for (int k = 0; k < TREE_VisibleLines(g_tree) - 1; ++k, ++shown) {
      int top = 20 + k * kLine;
      EXPECT_GT(DarkIn(img, left + 222, top, left + 300, top + kLine), 10) << "line " << k << " has its subject";
      EXPECT_EQ(DarkIn(img, left + 180, top, left + 218, top + kLine), 0) << "line " << k << " nothing at the old place";
    }
    EXPECT_GE(shown, 4);
    // What was the 4th line is now the first, and so on, pixel for pixel.
    for (int k = 0; k + 3 < TREE_VisibleLines(g_tree); ++k) {
      int differ = 0;
      for (int y = 0; y < kLine; ++y)
        for (int x = 0; x < 580; ++x) differ += img.pixel(x, 20 + k * kLine + y) != before.pixel(x, 20 + (k + 3) * kLine + y);
      EXPECT_EQ(differ, 0) << "line " << k << " after scrolling";
    }
    CM_Destroy(g_strip);
  });
}

}  // namespace
}  // namespace xvt_qt_test
