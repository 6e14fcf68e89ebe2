// The access rights dialog. After every change it reads the list from the
// server again, so a change the server refused never shows as made.
#include "src/base/rights_dialog.h"

#include <algorithm>

#include "xvt/xvt.h"

namespace {

constexpr size_t kMaxIdentifier = 200;

const WIN_DEF kRightsDef[] = {
    {W_MODAL, {0, 0, 540, 410}, "Access Rights", 0, 0},
    {WC_TEXT, {12, 8, 528, 26}, "Identifiers and their rights (the server's letters in brackets):", 9090, 0},
    {WC_LBOX, {12, 30, 528, 220}, "", kRdList, 0},
    {WC_TEXT, {12, 226, 528, 244}, "", kRdNote, 0},
    {WC_TEXT, {12, 258, 96, 276}, "~Identifier:", kRdIdentifierLabel, 0},
    {WC_EDIT, {100, 254, 360, 278}, "", kRdIdentifier, 0},
    {WC_CHECKBOX, {12, 288, 132, 308}, "", kRdRight0, 0},
    {WC_CHECKBOX, {140, 288, 260, 308}, "", kRdRight1, 0},
    {WC_CHECKBOX, {268, 288, 388, 308}, "", kRdRight2, 0},
    {WC_CHECKBOX, {396, 288, 516, 308}, "", kRdRight3, 0},
    {WC_PUSHBUTTON, {12, 322, 112, 348}, "~Add", kRdAdd, 0},
    {WC_PUSHBUTTON, {120, 322, 220, 348}, "C~hange", kRdChange, 0},
    {WC_PUSHBUTTON, {228, 322, 328, 348}, "~Remove", kRdRemove, 0},
    {WC_PUSHBUTTON, {428, 370, 528, 396}, "Close", kRdClose, CTL_FLAG_DEFAULT},
    {W_NONE, {}, nullptr, 0, 0},
};

struct DialogState {
  const RightsOwner* owner = nullptr;
  std::vector<RightsRow> rows;
  bool may_change = false;
};

WINDOW Ctl(WINDOW win, int id) { return xvt_win_get_ctl(win, id); }

size_t BoxCount(const DialogState* st) { return std::min<size_t>(st->owner->boxes.size(), 4); }

int CheckedFlags(WINDOW win, const DialogState* st) {
  int flags = 0;
  for (size_t i = 0; i < BoxCount(st); ++i)
    if (xvt_ctl_is_checked(Ctl(win, kRdRight0 + static_cast<int>(i)))) flags |= st->owner->boxes[i].bit;
  return flags;
}

void ShowRow(WINDOW win, const DialogState* st, const RightsRow* row) {
  xvt_vobj_set_title(Ctl(win, kRdIdentifier), row ? row->identifier.c_str() : "");
  for (size_t i = 0; i < BoxCount(st); ++i)
    xvt_ctl_set_checked(Ctl(win, kRdRight0 + static_cast<int>(i)), row && (row->flags & st->owner->boxes[i].bit));
}

const RightsRow* SelectedRow(WINDOW win, const DialogState* st) {
  const int at = xvt_list_get_sel_index(Ctl(win, kRdList));
  return at >= 0 && at < static_cast<int>(st->rows.size()) ? &st->rows[at] : nullptr;
}

void Reload(WINDOW win, DialogState* st) {
  st->rows.clear();
  st->may_change = false;
  std::string note;
  if (!st->owner->load(&st->rows, &st->may_change, &note) && note.empty())
    note = "The rights could not be read: the list shows nothing that the server did not answer.";
  const WINDOW list = Ctl(win, kRdList);
  xvt_list_suspend(list);
  xvt_list_clear(list);
  for (const RightsRow& r : st->rows) xvt_list_add(list, -1, RightsLine(*st->owner, r).c_str());
  xvt_list_resume(list);
  xvt_vobj_set_title(Ctl(win, kRdNote), note.c_str());
  for (int id : {kRdAdd, kRdChange, kRdRemove, kRdIdentifier}) xvt_vobj_set_enabled(Ctl(win, id), st->may_change);
  for (size_t i = 0; i < BoxCount(st); ++i)
    xvt_vobj_set_enabled(Ctl(win, kRdRight0 + static_cast<int>(i)), st->may_change);
  ShowRow(win, st, nullptr);
}

// The typed identifier, or empty (told why).
std::string TypedIdentifier(WINDOW win) {
  std::string id = xvt_ctl_get_text(win, kRdIdentifier, kMaxIdentifier + 2);
  const size_t a = id.find_first_not_of(' '), b = id.find_last_not_of(' ');
  id = a == std::string::npos ? "" : id.substr(a, b - a + 1);
  if (id.empty() || id.size() > kMaxIdentifier || id.find_first_of("\r\n\t") != std::string::npos) {
    xvt_dm_post_error("Type an identifier (a user or group name) of 1 to %zu characters.", kMaxIdentifier);
    return "";
  }
  return id;
}

void Command(WINDOW win, DialogState* st, int id) {
  const RightsOwner& o = *st->owner;
  const RightsRow* row = SelectedRow(win, st);
  switch (id) {
    case kRdList: ShowRow(win, st, row); break;
    case kRdAdd:
    case kRdChange: {
      if (!st->may_change) break;
      const std::string who = id == kRdAdd ? TypedIdentifier(win) : row ? row->identifier : "";
      if (who.empty()) {
        if (id == kRdChange) xvt_dm_post_error("Select the identifier whose rights to change.");
        break;
      }
      if (!o.set(who, CheckedFlags(win, st)))
        xvt_dm_post_error("The rights of \"%s\" were not changed: the server refused.", who.c_str());
      Reload(win, st);
      break;
    }
    case kRdRemove:
      if (!st->may_change) break;
      if (!row) {
        xvt_dm_post_error("Select the identifier whose rights to remove.");
        break;
      }
      if (xvt_dm_post_ask("Remove", "Cancel", nullptr, "Remove every right of \"%s\"?", row->identifier.c_str()) !=
          RESP_DEFAULT)
        break;
      if (!o.remove(row->identifier))
        xvt_dm_post_error("The rights of \"%s\" were not removed: the server refused.", row->identifier.c_str());
      Reload(win, st);
      break;
    case kRdClose: xvt_vobj_destroy(win); break;
    default: break;
  }
}

long rights_eh(WINDOW win, EVENT* ev) {
  auto* st = reinterpret_cast<DialogState*>(xvt_vobj_get_data(win));
  switch (ev->type) {
    case E_CREATE:
      xvt_vobj_set_title(win, st->owner->title.c_str());
      for (int i = 0; i < 4; ++i) {
        const WINDOW box = Ctl(win, kRdRight0 + i);
        if (static_cast<size_t>(i) < BoxCount(st))
          xvt_vobj_set_title(box, st->owner->boxes[i].label);
        else
          xvt_vobj_set_visible(box, false);
      }
      Reload(win, st);
      break;
    case E_CONTROL: Command(win, st, ev->v.ctl.id); break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

std::string RightsLine(const RightsOwner& owner, const RightsRow& row) {
  std::string names;
  for (const RightsBox& b : owner.boxes)
    if (row.flags & b.bit) names += (names.empty() ? "" : ", ") + std::string(b.label);
  // The list's font is proportional: padding would not line up columns.
  return row.identifier + ": " + (names.empty() ? "no rights" : names) + "  [" + row.text + "]";
}

void RightsDialog(const RightsOwner& owner) {
  if (!xvt_res_get_dialog(kRightsDialogRid)) xvt_res_register_dialog(kRightsDialogRid, kRightsDef);
  DialogState st{&owner, {}, false};
  xvt_dlg_create_res(W_MODAL, kRightsDialogRid, EM_ALL, rights_eh, reinterpret_cast<intptr_t>(&st));
}
