// The Qt widgets behind the facade's windows. Each one turns Qt's events
// into the program's events and otherwise leaves decisions to the program:
// nothing closes, checks or scrolls by itself where the program owns the state.
#pragma once

#include <QDialog>
#include <QMainWindow>
#include <QMdiSubWindow>
#include <QRadioButton>
#include <QWidget>

#include "xvt/qt/qt_internal.h"

class QMenuBar;
class QScrollBar;

namespace xvtqt {

// The drawing surface of a program window: reports paint, mouse, keyboard,
// focus and size to the record's handler.
class Canvas : public QWidget {
 public:
  explicit Canvas(QWidget* parent);

 protected:
  void paintEvent(QPaintEvent* e) override;
  void mousePressEvent(QMouseEvent* e) override;
  void mouseReleaseEvent(QMouseEvent* e) override;
  void mouseDoubleClickEvent(QMouseEvent* e) override;
  void mouseMoveEvent(QMouseEvent* e) override;
  void wheelEvent(QWheelEvent* e) override;
  void keyPressEvent(QKeyEvent* e) override;
  void focusInEvent(QFocusEvent* e) override;
  void focusOutEvent(QFocusEvent* e) override;
  void resizeEvent(QResizeEvent* e) override;
  // Tab and Shift-Tab are keys the program handles, not focus moves.
  bool focusNextPrevChild(bool next) override;
};

// A program window: an optional menu bar, the canvas, and the attached
// scroll bars along the right and bottom edges.
class Frame : public QWidget {
 public:
  Frame(QWidget* parent, Qt::WindowFlags flags);
  Canvas* canvas = nullptr;
  QScrollBar* hbar = nullptr;
  QScrollBar* vbar = nullptr;
  QMenuBar* menubar = nullptr;
  void Relayout();

 protected:
  void resizeEvent(QResizeEvent* e) override;
  void closeEvent(QCloseEvent* e) override;
};

class SubWindow : public QMdiSubWindow {
 public:
  explicit SubWindow(QWidget* parent);

 protected:
  void closeEvent(QCloseEvent* e) override;
};

class Dialog : public QDialog {
 public:
  explicit Dialog(QWidget* parent);

  // Escape: the program decides, as for the close box.
  void reject() override;
  void accept() override {}

 protected:
  void closeEvent(QCloseEvent* e) override;
  void paintEvent(QPaintEvent* e) override;
  void resizeEvent(QResizeEvent* e) override;
};

// The central widget of the task window; its size is the task window's
// client size.
class TaskClient : public QWidget {
 public:
  explicit TaskClient(QWidget* parent) : QWidget(parent) {}

 protected:
  void resizeEvent(QResizeEvent* e) override;
};

class TaskWindow : public QMainWindow {
 public:
  TaskWindow();

 protected:
  void closeEvent(QCloseEvent* e) override;
};

// Clicking a radio button always checks it; clearing the others of its
// group is the program's business.
class RadioButton : public QRadioButton {
 public:
  using QRadioButton::QRadioButton;

 protected:
  void nextCheckState() override { setChecked(true); }
};

// Sends E_CLOSE for the close box of a top-level widget's record.
void SendClose(QWidget* w);

}  // namespace xvtqt
