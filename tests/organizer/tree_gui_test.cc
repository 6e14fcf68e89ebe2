// The tree widget and its column strip drawn by the Qt backend on the
// offscreen platform, saved in the build tree (tree_gui.png) and probed;
// then a border dragged in the strip and the tree scrolled by its bar, the
// screen saved as tree_gui_drag.png and probed again.
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
  std::string name, from, subject;
};

CM_INFO* g_strip = nullptr;

void DrawLine(WINDOW win, TreeNode* node, RCT* rect) {
  auto* d = static_cast<Line*>(TREE_GetData(node));
  int baseline = rect->top + 13;
  if (d->type != kNodeDataTypeMessage) return xvt_dwin_draw_text(win, rect->left + 2, baseline, d->name.c_str(), -1);
  // Each field in its column, as the strip lays them out for messages.
  int layout = MSG_CM_LayoutId(g_strip, MSG_CM_LayoutOf(node));
  for (int n = 1; n <= 2; ++n) {
    int off = 0, size = 0;
    if (CM_ColumnGetDimension(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, n), &off, &size)) continue;
    int x = rect->left + off;  // columns count from the line's own start, past the connectors
    RCT clip{x, rect->top, x + size - 4, rect->bottom};
    xvt_dwin_set_clip(win, &clip);
    xvt_dwin_draw_text(win, x + 2, baseline, (n == 1 ? d->from : d->subject).c_str(), -1);
  }
  xvt_dwin_set_clip(win, nullptr);
}

int LineWidth(WINDOW, TreeNode* node, RCT*) {
  return static_cast<Line*>(TREE_GetData(node))->type == kNodeDataTypeMessage ? 27 + 150 + 200 : 120;
}

// Counts dark pixels in a rectangle of the picture.
int DarkIn(const QImage& img, int x0, int y0, int x1, int y1) {
  int dark = 0;
  for (int x = x0; x < x1; ++x)
    for (int y = y0; y < y1; ++y) dark += qGray(img.pixel(x, y)) < 110;
  return dark;
}

// What the screen holds for the widget: the window's backing store, which
// scrolls and partial repaints have written, not a fresh paint of it.
QImage OnScreen(QWidget* w) {
  QPoint at = w->mapTo(w->window(), QPoint(0, 0));
  QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(w->window()->winId(), at.x(), at.y(), w->width(), w->height());
  return shot.toImage().convertToFormat(QImage::Format_RGB32);
}

TEST_F(XvtQt, TreeWithColumnsIsDrawnAndFollowsADraggedBorder) {
  RunApp([] {
    WINDOW doc = Win(TASK_WIN, {0, 0, 640, 260}, nullptr, WSF_NONE, W_DOC);
    ASSERT_NE(doc, NULL_WIN);
    RCT strip_rect{0, 0, 600, 20}, tree_rect{0, 20, 600, 20 + 8 * kLine};
    g_strip = CM_Create(doc, &strip_rect, kCMWindowTop);
    MSG_CM_LayoutCreate(g_strip);
    WINDOW tree = TREE_CreateTreeWidget(doc, &tree_rect, 50, 0, 2, 0, kLine, 0,
                                        [](WINDOW w, TreeNode*) { MSG_CM_LayoutSelect(g_strip, w); }, nullptr,
                                        nullptr, nullptr);
    ASSERT_NE(tree, NULL_WIN);
    g_strip->tree = tree;
    std::vector<Line> lines = {{kNodeDataTypeMsgService, "Local mail", "", ""}, {kNodeDataTypeFolder, "Inbox", "", ""}};
    for (int i = 0; i < 20; ++i)
      lines.push_back({kNodeDataTypeMessage, "", "Sender " + std::to_string(i),
                       std::string(size_t(i % 3 + 1), 'W') + " subject " + std::to_string(i)});
    std::vector<TreeNode*> n;  // the service, its inbox, the messages
    for (size_t i = 0; i < lines.size(); ++i) {
      n.push_back(TREE_NewNode(i > 1, &lines[i], i ? 20 : 0, DrawLine, nullptr, LineWidth));
      TREE_AppendNode(i ? n[std::min<size_t>(i - 1, 1)] : TREE_GetRoot(tree), n.back());
    }
    TREE_OpenSubtree(n[0], 1, 0);
    TREE_OpenSubtree(n[1], 1, 0);
    std::vector<TreeNode*> msgs(n.begin() + 2, n.end());
    TREE_SelectOnlyNode(msgs[0]);  // line 2; it scrolls away below
    int layout = MSG_CM_LayoutId(g_strip, kCMLayoutMessage);
    ASSERT_EQ(g_strip->current, layout);
    xvt_app_process_pending_events();
    QImage img = doc->client->grab().toImage().convertToFormat(QImage::Format_RGB32);
    std::string dir = std::string(VELMAR_TEST_BINARY_DIR) + "/";
    EXPECT_TRUE(img.save(QString::fromStdString(dir + "tree_gui.png"), "PNG")) << dir;

    // The highlight of line 2, from the line's own start past the connectors.
    int left = TREE_GetLineStart(tree, msgs[0]), line2 = 20 + 2 * kLine, line3 = line2 + kLine;
    int highlight = 0;
    for (int x = left + 21; x < left + 320; ++x)
      for (int y = line2 + 1; y < line3 - 1; ++y) highlight += img.pixel(x, y) == (0xFF000000u | kTreeHighlight);
    EXPECT_GT(highlight, 300 * (kLine - 2) / 2) << "the selected line is highlighted";
    // Column text: dark pixels inside the From and Subject columns of an unselected message.
    for (int n : {1, 2}) {
      int off = 0, size = 0;
      ASSERT_EQ(CM_ColumnGetDimension(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, n), &off, &size), 0);
      EXPECT_GT(DarkIn(img, left + off, line3, left + off + size - 4, line3 + kLine), 20) << "column " << n;
    }
    EXPECT_EQ(DarkIn(img, left + 27 + 150 + 200 + 2, line3, 590, line3 + kLine), 0) << "beyond the last column";
    EXPECT_GT(DarkIn(img, left + 27 + 150 + 2, 2, left + 27 + 150 + 60, 18), 10) << "the Subject title";
    int gray = 0;  // the dotted gray connector in the messages' column
    for (int y = line3; y < line3 + kLine; ++y) gray += img.pixel(msgs[0]->abs_offset + 10, y) == 0xFF808080u;
    EXPECT_GT(gray, 2);

    // Press on From's right border (27 + 150), drag, release 43 px further.
    QWidget* strip = g_strip->window->client;
    for (auto [type, x] : {std::pair{QEvent::MouseButtonPress, 176}, {QEvent::MouseMove, 200}, {QEvent::MouseMove, 220},
                           {QEvent::MouseButtonRelease, 220}}) {
      QPointF at(left + x, 10);
      QMouseEvent e(type, at, strip->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                    type == QEvent::MouseButtonRelease ? Qt::NoButton : Qt::LeftButton, Qt::NoModifier);
      QApplication::sendEvent(strip, &e);
    }
    EXPECT_EQ(CM_ColumnGetSize(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, 1)), 220 - 27);
    int off = 0;
    ASSERT_EQ(CM_ColumnGetDimension(g_strip, layout, CM_ColumnGetColumnByN(g_strip, layout, 2), &off, nullptr), 0);
    EXPECT_EQ(off, 220);
    xvt_app_process_pending_events();
    QImage before = OnScreen(doc->client);
    ASSERT_EQ(before.width(), doc->client->width());
    // Three lines down by the bar's arrow.
    ASSERT_NE(tree->bars[VSCROLL], nullptr);
    for (int i = 0; i < 3; ++i) tree->bars[VSCROLL]->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    xvt_app_process_pending_events();
    EXPECT_EQ(TREE_TopLine(tree), 3);
    img = OnScreen(doc->client);
    EXPECT_TRUE(img.save(QString::fromStdString(dir + "tree_gui_drag.png"), "PNG")) << dir;

    // The strip: the Subject title at its new place, nothing where it was.
    EXPECT_GT(DarkIn(img, left + 222, 3, left + 280, 17), 10) << "the Subject title moved";
    EXPECT_EQ(DarkIn(img, left + 180, 3, left + 215, 17), 0) << "no title where Subject was";
    // The lines now on the screen are messages 1 onwards; each has its subject
    // at the new offset and nothing between its sender and there.
    ASSERT_GE(TREE_VisibleLines(tree), 5);
    for (int k = 0; k < TREE_VisibleLines(tree) - 1; ++k) {
      int top = 20 + k * kLine;
      EXPECT_GT(DarkIn(img, left + 222, top, left + 300, top + kLine), 10) << "line " << k << " has its subject";
      EXPECT_EQ(DarkIn(img, left + 180, top, left + 218, top + kLine), 0) << "line " << k << " nothing at the old place";
    }
    // What was the 4th line is now the first, and so on, pixel for pixel.
    for (int k = 0; k + 3 < TREE_VisibleLines(tree); ++k) {
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
