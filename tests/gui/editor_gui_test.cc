// An editor window drawn by the Qt backend on the offscreen platform: text
// typed through key events lands in the buffer and on the screen, the caret
// stands behind the last character, a drag highlights what it covers, and a
// picture of the window is left in the build tree (editor_gui.png).
#include <QApplication>
#include <QImage>
#include <QWidget>

#include <string>

#include "editor/edisxvt/edisplay.h"
#include "editor/edisxvt/edit_window.h"
#include "tests/xvt/qt/xvt_qt_harness.h"

namespace xvt_qt_test {
namespace {

// Pixels darker than mid-grey inside r.
int DarkPixels(const QImage& img, const QRect& r) {
  int n = 0;
  for (int y = std::max(0, r.top()); y <= std::min(img.height() - 1, r.bottom()); ++y)
    for (int x = std::max(0, r.left()); x <= std::min(img.width() - 1, r.right()); ++x)
      n += qGray(img.pixel(x, y)) < 128;
  return n;
}

TEST_F(XvtQt, AnEditorWindowTakesTypedText) {
  RunApp([] {
    RCT r{10, 10, 610, 330};
    WINDOW w = edit_window_create(NULL_WIN, &r, "Editor", nullptr);
    ASSERT_TRUE(w);
    E_DATA* ed = edit_data(w);
    QWidget* canvas = w->client;
    ASSERT_TRUE(canvas);
    canvas->setFocus();
    WaitFor([] { return false; }, 100);
    const QString line1 = QString::fromUtf8("Hello, w\xC3\xB6rld");
    for (QChar c : line1) Key(canvas, 0, QString(c));
    Key(canvas, Qt::Key_Return);
    for (QChar c : QString("second\tline")) Key(canvas, c == '\t' ? Qt::Key_Tab : 0, QString(c));
    WaitFor([] { return false; }, 200);
    EXPECT_EQ(edis_dump(ed), "Hello, w\xC3\xB6rld\nsecond  line\n<End of Message>\n");
    // The caret stands behind "second  line": 12 cells into the second row.
    ASSERT_TRUE(w->caret);
    EXPECT_TRUE(w->caret->isVisible());
    EXPECT_EQ(w->caret->x(), 12 * ed->dis->avg_width);
    EXPECT_EQ(w->caret->y(), ed->dis->height);
    QImage before = canvas->grab().toImage();
    const int h = ed->dis->height, cw = ed->dis->avg_width;
    EXPECT_GT(DarkPixels(before, QRect(0, 0, 12 * cw, h)), 20);       // the first line is painted
    EXPECT_EQ(DarkPixels(before, QRect(0, 3 * h, 40 * cw, 4 * h)), 0);  // nothing below the end
    // A drag over "Hello" turns its cells dark.
    Press(canvas, QPoint(0, h / 2));
    QMouseEvent move(QEvent::MouseMove, QPointF(5 * cw, h / 2), canvas->mapToGlobal(QPointF(5 * cw, h / 2)),
                     Qt::NoButton, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(canvas, &move);
    QMouseEvent up(QEvent::MouseButtonRelease, QPointF(5 * cw, h / 2), canvas->mapToGlobal(QPointF(5 * cw, h / 2)),
                   Qt::LeftButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(canvas, &up);
    WaitFor([] { return false; }, 200);
    QImage after = canvas->grab().toImage();
    const QRect hello(0, 0, 5 * cw, h);
    EXPECT_GT(DarkPixels(after, hello), hello.width() * hello.height() * 2 / 3);
    EXPECT_LT(DarkPixels(after, QRect(7 * cw, 0, 5 * cw, h)), 5 * cw * h / 2);
    QWidget* top = w->outer->window();
    EXPECT_TRUE(top->grab().toImage().save(QString::fromStdString(std::string(VELMAR_TEST_BINARY_DIR) +
                                                                  "/editor_gui.png")));
    xvt_vobj_destroy(w);
  });
}

}  // namespace
}  // namespace xvt_qt_test
