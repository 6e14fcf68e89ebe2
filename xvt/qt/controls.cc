// Controls and list controls. The user's actions reach the owner window as
// E_CONTROL; changes the program makes itself are silent (signals blocked).
#include <algorithm>

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QEvent>
#include <QGroupBox>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPixmap>
#include <QPlainTextEdit>
#include <QTextCursor>
#include <QPushButton>
#include <QScrollBar>
#include <cstdlib>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

// Tells the owner when an edit gains or loses the keyboard focus.
class EditFocusFilter : public QObject {
 public:
  using QObject::QObject;
  bool eventFilter(QObject* o, QEvent* e) override {
    if ((e->type() == QEvent::FocusIn || e->type() == QEvent::FocusOut) && o->isWidgetType()) {
      xvt_object* rec = RecordAbove(static_cast<QWidget*>(o));
      if (rec && IsControl(rec->type)) NotifyControl(rec, false, true, e->type() == QEvent::FocusIn);
    }
    return false;
  }
};

// A read-only text pages itself with Space; at its end (its start, with
// Shift) the key goes to the window instead, which may read on elsewhere.
class TextEndFilter : public QObject {
 public:
  using QObject::QObject;
  bool eventFilter(QObject* o, QEvent* e) override {
    auto* pane = qobject_cast<QPlainTextEdit*>(o);
    if (e->type() != QEvent::KeyPress || !pane || !pane->isReadOnly()) return false;
    const auto* k = static_cast<QKeyEvent*>(e);
    const bool back = k->modifiers() == Qt::ShiftModifier;
    if (k->key() != Qt::Key_Space || (k->modifiers() != Qt::NoModifier && !back)) return false;
    const QScrollBar* bar = pane->verticalScrollBar();
    xvt_object* r = RecordOf(pane);
    if (bar->value() != (back ? bar->minimum() : bar->maximum()) || !r || !r->parent) return false;
    EVENT ev = MakeEvent(E_CHAR);
    ev.v.chr.ch = ' ';
    ev.v.chr.shift = back;
    ev.v.chr.text = true;
    Send(r->parent, &ev);
    return true;
  }
};

// Static texts and group titles show the mnemonic letter plainly.
QString StripMnemonic(const char* title) {
  QString in = FromUtf8(title);
  QString out;
  for (qsizetype i = 0; i < in.size(); ++i) {
    if (in[i] == u'~') {
      if (i + 1 < in.size() && in[i + 1] == u'~') {
        out += u'~';
        ++i;
      }
      continue;
    }
    out += in[i];
  }
  return out;
}

void WatchFocus(QWidget* w) { w->installEventFilter(new EditFocusFilter(w)); }

template <typename W>
W* As(WINDOW ctl) {
  return Live(ctl) ? qobject_cast<W*>(ctl->outer.data()) : nullptr;
}

bool IsList(WINDOW ctl) {
  return Live(ctl) && (ctl->type == WC_LBOX || ctl->type == WC_LISTBUTTON || ctl->type == WC_LISTEDIT);
}

QWidget* MakeWidget(xvt_object* rec, WIN_TYPE type, const char* title, unsigned long flags, QWidget* container) {
  QString text = FromUtf8(title);
  switch (type) {
    case WC_PUSHBUTTON: {
      auto* b = new QPushButton(Mnemonic(title), container);
      b->setAutoDefault(false);
      if (flags & CTL_FLAG_DEFAULT) b->setDefault(true);
      QObject::connect(b, &QAbstractButton::clicked, b, [b] {
        if (xvt_object* r = RecordOf(b)) NotifyControl(r);
      });
      return b;
    }
    case WC_RADIOBUTTON:
    case WC_CHECKBOX: {
      QAbstractButton* b = type == WC_RADIOBUTTON ? static_cast<QAbstractButton*>(new RadioButton(Mnemonic(title), container))
                                                  : new QCheckBox(Mnemonic(title), container);
      b->setAutoExclusive(false);
      QObject::connect(b, &QAbstractButton::clicked, b, [b] {
        if (xvt_object* r = RecordOf(b)) NotifyControl(r);
      });
      return b;
    }
    case WC_HSCROLL:
    case WC_VSCROLL: {
      auto* bar = new QScrollBar(type == WC_HSCROLL ? Qt::Horizontal : Qt::Vertical, container);
      WireScrollBar(bar, rec, false, type == WC_HSCROLL ? HSCROLL : VSCROLL);
      return bar;
    }
    case WC_EDIT: {
      auto* e = new QLineEdit(text, container);
      if (flags & CTL_FLAG_PASSWORD) e->setEchoMode(QLineEdit::Password);
      if (flags & CTL_FLAG_READONLY) e->setReadOnly(true);
      QObject::connect(e, &QLineEdit::textEdited, e, [e] {
        if (xvt_object* r = RecordOf(e)) NotifyControl(r);
      });
      // Enter in a field is the window's to act on (forms run a command,
      // dialogs press their default button), as on the program's own windows.
      QObject::connect(e, &QLineEdit::returnPressed, e, [e] {
        xvt_object* r = RecordOf(e);
        if (!r || !r->parent) return;
        // The field leaves the key unused, so a window's canvas gets it too
        // and tells the window itself: once is enough.
        for (QWidget* w = e->parentWidget(); w && !w->isWindow(); w = w->parentWidget())
          if (dynamic_cast<Canvas*>(w)) return;
        EVENT ev = MakeEvent(E_CHAR);
        ev.v.chr.ch = K_ENTER;
        Send(r->parent, &ev);
      });
      WatchFocus(e);
      return e;
    }
    case WC_TEXT: {
      auto* l = new QLabel(StripMnemonic(title), container);
      l->setTextFormat(Qt::PlainText);
      l->setWordWrap(true);
      return l;
    }
    case WC_LBOX: {
      auto* l = new QListWidget(container);
      l->setSelectionMode((flags & CTL_FLAG_MULTISEL) ? QAbstractItemView::ExtendedSelection
                                                      : QAbstractItemView::SingleSelection);
      QObject::connect(l, &QListWidget::itemSelectionChanged, l, [l] {
        if (xvt_object* r = RecordOf(l)) NotifyControl(r);
      });
      QObject::connect(l, &QListWidget::itemDoubleClicked, l, [l] {
        if (xvt_object* r = RecordOf(l)) NotifyControl(r, true);
      });
      return l;
    }
    case WC_LISTBUTTON:
    case WC_LISTEDIT: {
      auto* c = new QComboBox(container);
      QObject::connect(c, &QComboBox::activated, c, [c] {
        if (xvt_object* r = RecordOf(c)) NotifyControl(r);
      });
      if (type == WC_LISTEDIT) {
        c->setEditable(true);
        c->setInsertPolicy(QComboBox::NoInsert);
        c->setEditText(text);
        QObject::connect(c->lineEdit(), &QLineEdit::textEdited, c, [c] {
          if (xvt_object* r = RecordOf(c)) NotifyControl(r);
        });
        WatchFocus(c->lineEdit());
      }
      return c;
    }
    case WC_GROUPBOX: return new QGroupBox(StripMnemonic(title), container);
    case WC_TEXTEDIT: {
      auto* e = new QPlainTextEdit(text, container);
      if (flags & CTL_FLAG_READONLY) e->setReadOnly(true);
      e->installEventFilter(new TextEndFilter(e));
      QObject::connect(e, &QPlainTextEdit::textChanged, e, [e] {
        if (xvt_object* r = RecordOf(e)) NotifyControl(r);
      });
      WatchFocus(e);
      return e;
    }
    case WC_ICON: {
      // The icon's resource id is the title when it is a number, else the
      // control id.
      auto* l = new QLabel(container);
      char* end = nullptr;
      long rid = title ? std::strtol(title, &end, 10) : 0;
      if (!title || end == title || *end) rid = rec->id;
      QImage img = IconImage(static_cast<int>(rid));
      if (!img.isNull()) l->setPixmap(QPixmap::fromImage(img));
      return l;
    }
    default: return nullptr;
  }
}

}  // namespace

xvt_object* CreateControl(WIN_TYPE type, const RCT& rct, const char* title, xvt_object* parent, unsigned long flags,
                          int id) {
  if (!Live(parent) || !IsControl(type)) return nullptr;
  QWidget* container = Container(parent);
  if (!container) return nullptr;
  xvt_object* rec = NewRecord(type, parent);
  rec->id = id;
  rec->flags = flags;
  rec->title = title ? title : "";
  rec->created = true;
  QWidget* w = MakeWidget(rec, type, title, flags, container);
  if (!w) {
    DestroyTree(rec);
    return nullptr;
  }
  rec->outer = w;
  rec->client = w;
  Bind(w, rec);
  w->setGeometry(ToQRect(rct));
  if (flags & CTL_FLAG_DISABLED) w->setEnabled(false);
  w->setVisible(!(flags & CTL_FLAG_INVISIBLE));
  return rec;
}

void NotifyControl(xvt_object* ctl, bool dbl_click, bool focus_change, bool active) {
  if (!Live(ctl)) return;
  EVENT ev = MakeEvent(E_CONTROL);
  ev.v.ctl.id = ctl->id;
  ev.v.ctl.ci.type = ctl->type;
  ev.v.ctl.ci.win = ctl;
  if (focus_change) {
    ev.v.ctl.ci.v.edit.focus_change = true;
    ev.v.ctl.ci.v.edit.active = active;
  } else if (ctl->type == WC_EDIT || ctl->type == WC_TEXTEDIT) {
    ev.v.ctl.ci.v.edit.focus_change = false;
    ev.v.ctl.ci.v.edit.active = ctl->outer && ctl->outer->hasFocus();
  } else {
    ev.v.ctl.ci.v.lbox.dbl_click = dbl_click;
  }
  Send(ctl->parent, &ev);
}

void ClickControl(xvt_object* ctl) {
  if (!Live(ctl) || !ctl->outer || !ctl->outer->isEnabled()) return;
  if (auto* b = qobject_cast<QAbstractButton*>(ctl->outer.data())) {
    b->click();
    return;
  }
  NotifyControl(ctl);
}

QString ControlTitle(xvt_object* ctl) {
  if (auto* e = As<QLineEdit>(ctl)) return e->text();
  if (auto* t = As<QPlainTextEdit>(ctl)) return t->toPlainText();
  if (auto* c = As<QComboBox>(ctl)) return c->currentText();
  return FromUtf8(ctl->title.c_str());
}

void SetControlTitle(xvt_object* ctl, const QString& title) {
  QWidget* w = ctl->outer;
  if (!w) return;
  QByteArray raw = title.toUtf8();
  QSignalBlocker block(w);
  switch (ctl->type) {
    case WC_PUSHBUTTON:
    case WC_RADIOBUTTON:
    case WC_CHECKBOX: static_cast<QAbstractButton*>(w)->setText(Mnemonic(raw.constData())); break;
    case WC_TEXT: static_cast<QLabel*>(w)->setText(StripMnemonic(raw.constData())); break;
    case WC_GROUPBOX: static_cast<QGroupBox*>(w)->setTitle(StripMnemonic(raw.constData())); break;
    case WC_EDIT: {
      auto* e = static_cast<QLineEdit*>(w);
      e->setText(title);
      if (!e->hasFocus()) e->setCursorPosition(0);  // a long value shows its start, not its end
      break;
    }
    case WC_TEXTEDIT: static_cast<QPlainTextEdit*>(w)->setPlainText(title); break;
    case WC_LISTEDIT: {
      auto* c = static_cast<QComboBox*>(w);
      QSignalBlocker block_edit(c->lineEdit());
      c->setEditText(title);
      break;
    }
    case WC_LISTBUTTON: {
      // A drop-down list shows one of its items; another text selects
      // nothing rather than inventing an item.
      auto* c = static_cast<QComboBox*>(w);
      c->setCurrentIndex(c->findText(title, Qt::MatchExactly));
      break;
    }
    default: break;
  }
}

}  // namespace xvtqt

using namespace xvtqt;

WINDOW xvt_ctl_create(WIN_TYPE type, const RCT* rct, const char* title, WINDOW parent, unsigned long flags, int id) {
  if (!rct) return NULL_WIN;
  return CreateControl(type, *rct, title, parent, flags, id);
}

void xvt_ctl_set_checked(WINDOW ctl, bool checked) {
  if (auto* b = As<QAbstractButton>(ctl)) {
    QSignalBlocker block(b);
    b->setChecked(checked);
  }
}

void xvt_ctl_set_icon(WINDOW ctl, int icon_rid) {
  if (!Live(ctl) || ctl->type != WC_PUSHBUTTON) return;
  auto* b = As<QPushButton>(ctl);
  if (!b) return;
  QImage img = icon_rid ? IconImage(icon_rid) : QImage();
  if (img.isNull()) {
    b->setIcon(QIcon());
    return;
  }
  // At its own size: a scaled picture would blur. Qt makes the greyed
  // picture of a disabled button from this one.
  b->setIcon(QIcon(QPixmap::fromImage(img)));
  b->setIconSize(img.size());
}

bool xvt_ctl_is_checked(WINDOW ctl) {
  auto* b = As<QAbstractButton>(ctl);
  return b && b->isChecked();
}

void xvt_ctl_set_text_sel(WINDOW ctl, int start, int end) {
  auto* e = As<QLineEdit>(ctl);
  auto* pane = As<QPlainTextEdit>(ctl);
  if (!e && !pane) return;
  // The caller counts bytes of UTF-8; the controls count UTF-16 units.
  const QByteArray raw = (e ? e->text() : pane->toPlainText()).toUtf8();
  auto units = [&raw](int at) {
    at = std::clamp(at, 0, static_cast<int>(raw.size()));
    while (at > 0 && at < raw.size() && (static_cast<unsigned char>(raw[at]) & 0xC0) == 0x80) --at;
    return static_cast<int>(QString::fromUtf8(raw.constData(), at).size());
  };
  const int from = units(start);
  if (e) {
    e->setSelection(from, std::max(0, units(end) - from));
    return;
  }
  QTextCursor cursor = pane->textCursor();
  cursor.setPosition(from);
  cursor.setPosition(std::max(from, units(end)), QTextCursor::KeepAnchor);
  pane->setTextCursor(cursor);
  pane->ensureCursorVisible();
}

bool xvt_ctl_page_text(WINDOW ctl, bool down) {
  auto* pane = As<QPlainTextEdit>(ctl);
  if (!pane) return false;
  QScrollBar* bar = pane->verticalScrollBar();
  const int before = bar->value();
  bar->triggerAction(down ? QAbstractSlider::SliderPageStepAdd : QAbstractSlider::SliderPageStepSub);
  return bar->value() != before;
}

void xvt_ctl_check_radio_button(WINDOW ctl, WINDOW* group, int count) {
  for (int i = 0; group && i < count; ++i)
    if (group[i] != ctl) xvt_ctl_set_checked(group[i], false);
  xvt_ctl_set_checked(ctl, true);
}

// ---------------------------------------------------------------------------
// Lists

bool xvt_list_add(WINDOW ctl, int index, const char* text) {
  if (!IsList(ctl)) return false;
  QString t = FromUtf8(text);
  if (auto* l = As<QListWidget>(ctl)) {
    QSignalBlocker block(l);
    int n = l->count();
    l->insertItem(index < 0 || index > n ? n : index, t);
    return true;
  }
  if (auto* c = As<QComboBox>(ctl)) {
    QSignalBlocker block(c);
    int n = c->count();
    int current = c->currentIndex();
    QString edit = c->isEditable() ? c->currentText() : QString();
    int at = index < 0 || index > n ? n : index;
    c->insertItem(at, t);
    // Adding to an empty list must not select the new item by itself.
    if (current < 0) {
      c->setCurrentIndex(-1);
      if (c->isEditable()) c->setEditText(edit);
    }
    return true;
  }
  return false;
}

bool xvt_list_rem(WINDOW ctl, int index) {
  if (!IsList(ctl) || index < 0 || index >= xvt_list_count_all(ctl)) return false;
  if (auto* l = As<QListWidget>(ctl)) {
    QSignalBlocker block(l);
    delete l->takeItem(index);
    return true;
  }
  if (auto* c = As<QComboBox>(ctl)) {
    QSignalBlocker block(c);
    c->removeItem(index);
    return true;
  }
  return false;
}

void xvt_list_clear(WINDOW ctl) {
  if (auto* l = As<QListWidget>(ctl)) {
    QSignalBlocker block(l);
    l->clear();
  } else if (auto* c = As<QComboBox>(ctl)) {
    QSignalBlocker block(c);
    QString edit = c->isEditable() ? c->currentText() : QString();
    c->clear();
    if (c->isEditable()) c->setEditText(edit);
  }
}

int xvt_list_count_all(WINDOW ctl) {
  if (auto* l = As<QListWidget>(ctl)) return l->count();
  if (auto* c = As<QComboBox>(ctl)) return c->count();
  return 0;
}

char* xvt_list_get_elt(WINDOW ctl, int index, char* buf, size_t size) {
  if (!buf || size == 0 || index < 0 || index >= xvt_list_count_all(ctl)) return nullptr;
  if (auto* l = As<QListWidget>(ctl))
    CopyOut(l->item(index)->text(), buf, size);
  else if (auto* c = As<QComboBox>(ctl))
    CopyOut(c->itemText(index), buf, size);
  else
    return nullptr;
  return buf;
}

int xvt_list_get_sel_index(WINDOW ctl) {
  if (auto* l = As<QListWidget>(ctl)) {
    for (int i = 0; i < l->count(); ++i)
      if (l->item(i)->isSelected()) return i;
    return -1;
  }
  if (auto* c = As<QComboBox>(ctl)) return c->currentIndex();
  return -1;
}

void xvt_list_set_sel(WINDOW ctl, int index, bool selected) {
  if (index < 0 || index >= xvt_list_count_all(ctl)) return;
  if (auto* l = As<QListWidget>(ctl)) {
    QSignalBlocker block(l);
    if (selected && !(ctl->flags & CTL_FLAG_MULTISEL)) l->clearSelection();
    l->item(index)->setSelected(selected);
    if (selected) {
      l->setCurrentRow(index, QItemSelectionModel::NoUpdate);
      l->scrollToItem(l->item(index));
    }
  } else if (auto* c = As<QComboBox>(ctl)) {
    QSignalBlocker block(c);
    if (selected)
      c->setCurrentIndex(index);
    else if (c->currentIndex() == index)
      c->setCurrentIndex(-1);
  }
}

bool xvt_list_is_sel(WINDOW ctl, int index) {
  if (index < 0 || index >= xvt_list_count_all(ctl)) return false;
  if (auto* l = As<QListWidget>(ctl)) return l->item(index)->isSelected();
  if (auto* c = As<QComboBox>(ctl)) return c->currentIndex() == index;
  return false;
}

void xvt_list_suspend(WINDOW ctl) {
  if (IsList(ctl) && ctl->outer) ctl->outer->setUpdatesEnabled(false);
}

void xvt_list_resume(WINDOW ctl) {
  if (IsList(ctl) && ctl->outer) ctl->outer->setUpdatesEnabled(true);
}
