// Options > Auto Reply...: switch the answers on, and the subject, text,
// days and dates they use. The options are written at the permanent level
// so that the setting survives a restart while the user is away.
#include <string>

#include "src/options/options.h"
#include "src/send/autoreply.h"
#include "xvt/xvt.h"

namespace {

constexpr int kDialogRid = 9310;
enum {
  kEnable = 9311,
  kSubjectLabel,
  kSubject,
  kDaysLabel,
  kDays,
  kStartLabel,
  kStart,
  kEndLabel,
  kEnd,
  kTextLabel,
  kText,
  kOk,
  kCancel,
  kHint,
  kSubjectHint,
  kDaysUnit,
};

const WIN_DEF kDialogDef[] = {
    {W_MODAL, {0, 0, 460, 430}, "Auto Reply", 0, 0},
    {WC_CHECKBOX, {12, 12, 440, 34}, "~Answer new mail automatically", kEnable, 0},
    {WC_TEXT, {12, 48, 110, 68}, "~Subject:", kSubjectLabel, 0},
    {WC_EDIT, {120, 44, 448, 68}, "", kSubject, 0},
    {WC_TEXT, {120, 72, 448, 90}, "%s stands for the subject of the message answered.", kSubjectHint, 0},
    {WC_TEXT, {12, 106, 110, 126}, "Answer ~once in:", kDaysLabel, 0},
    {WC_EDIT, {120, 102, 170, 126}, "", kDays, 0},
    {WC_TEXT, {178, 106, 448, 126}, "days to the same sender", kDaysUnit, 0},
    {WC_TEXT, {12, 142, 110, 162}, "F~rom date:", kStartLabel, 0},
    {WC_EDIT, {120, 138, 230, 162}, "", kStart, 0},
    {WC_TEXT, {246, 142, 326, 162}, "~Until date:", kEndLabel, 0},
    {WC_EDIT, {336, 138, 448, 162}, "", kEnd, 0},
    {WC_TEXT, {120, 166, 448, 184}, "Dates as YYYY-MM-DD; empty means no limit.", kHint, 0},
    {WC_TEXT, {12, 202, 448, 222}, "~Text:", kTextLabel, 0},
    {WC_TEXTEDIT, {12, 224, 448, 374}, "", kText, 0},
    {WC_PUSHBUTTON, {250, 388, 340, 418}, "OK", kOk, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {358, 388, 448, 418}, "Cancel", kCancel, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

std::string Field(WINDOW win, int id) {
  static char text[8192];
  text[0] = '\0';
  xvt_vobj_get_title(xvt_win_get_ctl(win, id), text, sizeof text);
  return text;
}

void SetField(WINDOW win, int id, const std::string& text) { xvt_vobj_set_title(xvt_win_get_ctl(win, id), text.c_str()); }

std::string Trim(const std::string& text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string::npos) return "";
  return text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1);
}

void Fill(WINDOW win) {
  short on = 0;
  Opt_LookupBoolean("AutoReply.Enable", &on, kOptSession);
  xvt_ctl_set_checked(xvt_win_get_ctl(win, kEnable), on != 0);
  std::string subject = Opt_LookupText("AutoReply.Subject", kOptSession);
  SetField(win, kSubject, Trim(subject).empty() ? "Auto: %s" : subject);
  int days = 7;
  if (!Opt_LookupInt("AutoReply.Days", &days, kOptSession)) days = 7;
  SetField(win, kDays, std::to_string(days));
  SetField(win, kStart, Opt_LookupText("AutoReply.StartDate", kOptSession));
  SetField(win, kEnd, Opt_LookupText("AutoReply.EndDate", kOptSession));
  SetField(win, kText, Opt_LookupText("AutoReply.Text", kOptSession));
}

// 1 when saved; 0 (the user told why) when a field is unusable.
int Save(WINDOW win) {
  const std::string days = Trim(Field(win, kDays)), start = Trim(Field(win, kStart)), end = Trim(Field(win, kEnd));
  if (const std::string error = autoreply_settings_error(days, start, end); !error.empty()) {
    xvt_dm_post_error("%s", error.c_str());
    return 0;
  }
  const bool on = xvt_ctl_is_checked(xvt_win_get_ctl(win, kEnable));
  Opt_AssignString("AutoReply.Enable", on ? "1" : "0", kOptPermanent, 0);
  Opt_AssignString("AutoReply.Subject", Field(win, kSubject).c_str(), kOptPermanent, 0);
  Opt_AssignString("AutoReply.Days", std::to_string(std::stoi(days)).c_str(), kOptPermanent, 0);
  Opt_AssignString("AutoReply.StartDate", start.c_str(), kOptPermanent, 0);
  Opt_AssignString("AutoReply.EndDate", end.c_str(), kOptPermanent, 0);
  Opt_AssignString("AutoReply.Text", Field(win, kText).c_str(), kOptPermanent, 0);
  return 1;
}

long dialog_eh(WINDOW win, EVENT* ev) {
  switch (ev->type) {
    case E_CREATE:
      Fill(win);
      xvt_scr_set_focus_vobj(xvt_win_get_ctl(win, kText));
      break;
    case E_CONTROL:
      if (ev->v.ctl.id == kOk) {
        if (Save(win)) xvt_vobj_destroy(win);
      } else if (ev->v.ctl.id == kCancel) {
        xvt_vobj_destroy(win);
      }
      break;
    case E_CLOSE: xvt_vobj_destroy(win); break;
    default: break;
  }
  return 0;
}

}  // namespace

std::string autoreply_settings_error(const std::string& days, const std::string& start, const std::string& end) {
  if (days.empty() || days.size() > 3 || days.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(days) < 1 || std::stoi(days) > 365)
    return "The number of days must be a whole number from 1 to 365.";
  const long from = start.empty() ? 0 : autoreply_day_number(start);
  const long until = end.empty() ? 0 : autoreply_day_number(end);
  if (from < 0) return "The from date \"" + start + "\" is not a date of the form YYYY-MM-DD.";
  if (until < 0) return "The until date \"" + end + "\" is not a date of the form YYYY-MM-DD.";
  if (!start.empty() && !end.empty() && until < from) return "The until date comes before the from date.";
  return "";
}

void autoreply_dialog() {
  xvt_res_register_dialog(kDialogRid, kDialogDef);
  if (!xvt_dlg_create_res(W_MODAL, kDialogRid, EM_ALL, dialog_eh, 0))
    xvt_dm_post_error("Could not create the auto reply dialog.");
}
