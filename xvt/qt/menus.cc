// Menu bars and pop-up menus. Every menu choice goes to the task window's
// handler as E_COMMAND; the program routes it to the window it concerns.
// Enabled, checked and title belong to the program: Qt shows them and never
// changes them by itself.
#include <QAction>
#include <QApplication>
#include <QKeySequence>
#include <QMainWindow>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QMenu>
#include <QMenuBar>
#include <QVariant>

#include "xvt/qt/qt_internal.h"
#include "xvt/qt/qt_widgets.h"

namespace xvtqt {
namespace {

constexpr char kCheckedProperty[] = "xvt_checked";

bool EndOfMenu(const MENU_ITEM* m) { return !m->tag && !m->text && !m->separator; }

void SendCommand(WINDOW win, int tag) {
  EVENT ev = MakeEvent(E_COMMAND);
  ev.v.cmd.tag = tag;
  Qt::KeyboardModifiers mods = QGuiApplication::keyboardModifiers();
  ev.v.cmd.shift = (mods & Qt::ShiftModifier) != 0;
  ev.v.cmd.control = (mods & Qt::ControlModifier) != 0;
  Send(win, &ev);
}

void SetChecked(QAction* a, bool checked) {
  if (checked) a->setCheckable(true);
  a->setProperty(kCheckedProperty, checked);
  if (a->isCheckable()) {
    QSignalBlocker block(a);
    a->setChecked(checked);
  }
}

// "~Close\tCtrl+W": the text before the tab is the title, the rest the
// key that chooses the item. A bar's item takes the key as a shortcut, so
// it works wherever the focus is in the window, as long as the item is
// enabled and its bar shows (Qt ignores the bars of windows behind); a text
// field keeps the editing keys it uses. A pop-up only shows the key.
void SetTitle(QAction* a, const char* title, bool bar) {
  const QString text = Mnemonic(title);
  const qsizetype tab = bar ? text.indexOf(u'\t') : -1;
  a->setShortcut(tab < 0 ? QKeySequence() : QKeySequence(text.mid(tab + 1), QKeySequence::PortableText));
  a->setText(tab < 0 ? text : text.left(tab));
}

// Fills menu with items. A bar's items send E_COMMAND to the task window;
// a pop-up's items carry their tag for the caller to read (set != null
// means a bar, whose tagged items are registered in it).
void AddItems(MenuSet* set, QMenu* menu, const MENU_ITEM* items) {
  for (const MENU_ITEM* m = items; m && !EndOfMenu(m); ++m) {
    if (m->separator) {
      menu->addSeparator();
      continue;
    }
    QAction* action;
    if (m->children) {
      QMenu* sub = menu->addMenu(Mnemonic(m->text));
      action = sub->menuAction();
      AddItems(set, sub, m->children);
    } else {
      action = menu->addAction(QString());
      SetTitle(action, m->text, set != nullptr);
      SetChecked(action, m->checked);
      int tag = m->tag;
      action->setData(tag);
      if (set) {
        QObject::connect(action, &QAction::triggered, action, [action, tag] {
          // A checkable action has just flipped itself; the program decides.
          SetChecked(action, action->property(kCheckedProperty).toBool());
          if (Live(R().task)) SendCommand(R().task, tag);
        });
      }
    }
    action->setEnabled(m->enabled);
    if (set && m->tag) set->actions[m->tag] = action;
  }
}

// The action that shows item tag of the bar that serves win, or null.
QAction* Action(WINDOW win, int tag) {
  xvt_object* owner = MenuOwner(win);
  if (!owner || !owner->menu) return nullptr;
  auto it = owner->menu->actions.find(tag);
  return it == owner->menu->actions.end() ? nullptr : it->second;
}

}  // namespace

MenuSet::~MenuSet() {
  for (auto& m : menus)
    if (m) m->deleteLater();
}

void LoadMenuBar(xvt_object* rec, const MENU_ITEM* items) {
  if (!rec || !items) return;
  auto set = std::make_unique<MenuSet>();
  // Items directly on the bar without a submenu are kept by a menu of their
  // own that is never shown.
  QMenu* loose = nullptr;
  for (const MENU_ITEM* m = items; !EndOfMenu(m); ++m) {
    if (m->separator) continue;
    if (m->children) {
      auto* menu = new QMenu(Mnemonic(m->text));
      set->menus.emplace_back(menu);
      AddItems(set.get(), menu, m->children);
      QAction* a = menu->menuAction();
      a->setEnabled(m->enabled);
      set->bar.emplace_back(a);
      if (m->tag) set->actions[m->tag] = a;
    } else {
      if (!loose) {
        loose = new QMenu;
        set->menus.emplace_back(loose);
      }
      MENU_ITEM one[2] = {*m, MENU_ITEM{0, nullptr, false, false, false, nullptr}};
      AddItems(set.get(), loose, one);
      set->bar.emplace_back(loose->actions().back());
    }
  }
  rec->menu = std::move(set);
  LoadMenuItems(rec, items);
}

void ShowTaskMenuBar() {
  auto& s = S();
  if (!s.task_window) return;
  xvt_object* owner = Live(R().task) ? R().task : nullptr;
  if (s.mdi_area) {
    xvt_object* doc = RecordOf(s.mdi_area->activeSubWindow());
    if (doc && doc->menu) owner = doc;
  }
  QMenuBar* bar = s.task_window->menuBar();
  bar->clear();
  if (owner && owner->menu)
    for (QAction* a : owner->menu->bar)
      if (a) bar->addAction(a);
}

}  // namespace xvtqt

using namespace xvtqt;

void xvt_menu_set_item_enabled(WINDOW win, int tag, bool enabled) {
  if (MenuItem* m = FindMenuItem(win, tag)) {
    m->enabled = enabled;
    if (QAction* a = Action(win, tag)) a->setEnabled(enabled);
  }
}

void xvt_menu_set_item_checked(WINDOW win, int tag, bool checked) {
  if (MenuItem* m = FindMenuItem(win, tag)) {
    m->checked = checked;
    if (QAction* a = Action(win, tag); a && !a->menu()) SetChecked(a, checked);
  }
}

void xvt_menu_set_item_title(WINDOW win, int tag, const char* title) {
  if (MenuItem* m = FindMenuItem(win, tag)) {
    m->title = title ? title : "";
    if (QAction* a = Action(win, tag)) SetTitle(a, title, !a->menu());
  }
}

void xvt_menu_update(WINDOW) {
  // Qt shows every change at once.
}

void xvt_menu_popup(const MENU_ITEM* items, WINDOW win, PNT pnt) {
  if (!items || !Live(win) || !QCoreApplication::instance()) return;
  QWidget* w = win == R().task ? static_cast<QWidget*>(S().task_window) : (win->client ? win->client.data() : win->outer.data());
  if (!w) return;
  QMenu menu(w);
  AddItems(nullptr, &menu, items);
  uint64_t serial = win->serial;
  QAction* chosen = menu.exec(w->mapToGlobal(QPoint(pnt.h, pnt.v)));
  if (!chosen || !Live(win) || win->serial != serial) return;
  int tag = chosen->data().toInt();
  if (tag) SendCommand(win, tag);
}
