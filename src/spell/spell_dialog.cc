// The dialog and the walk through the text behind it. The text is read
// afresh after each change, and the walk goes on from just behind the last
// word dealt with, so a replacement is never checked again and a word that
// was skipped is not offered twice.
#include "src/spell/spell_dialog.h"

#include <map>
#include <string>
#include <vector>

#include "editor/edisxvt/edisplay.h"
#include "editor/edisxvt/edit_window.h"
#include "editor/elib/ecmd.h"
#include "rclib/rc.h"
#include "src/base/trace.h"
#include "src/spell/spell.h"

namespace {

const WIN_DEF kDialogDef[] = {
    {W_MODAL, {0, 0, 470, 300}, "Check Spelling", 0, 0},
    {WC_TEXT, {12, 12, 130, 30}, "Not in dictionary:", 9460, 0},
    {WC_TEXT, {136, 12, 330, 30}, "", kSpellWordId, 0},
    {WC_TEXT, {12, 44, 130, 62}, "C~hange to:", 9461, 0},
    {WC_EDIT, {136, 40, 330, 64}, "", kSpellChangeId, 0},
    {WC_TEXT, {12, 76, 130, 94}, "~Suggestions:", 9462, 0},
    {WC_LBOX, {136, 76, 330, 288}, "", kSpellListId, 0},
    {WC_PUSHBUTTON, {342, 40, 458, 66}, "~Replace", kSpellReplaceId, CTL_FLAG_DEFAULT},
    {WC_PUSHBUTTON, {342, 72, 458, 98}, "Replace ~All", kSpellReplaceAllId, 0},
    {WC_PUSHBUTTON, {342, 112, 458, 138}, "~Ignore", kSpellIgnoreId, 0},
    {WC_PUSHBUTTON, {342, 144, 458, 170}, "I~gnore All", kSpellIgnoreAllId, 0},
    {WC_PUSHBUTTON, {342, 184, 458, 210}, "A~dd to Dictionary", kSpellAddId, 0},
    {WC_PUSHBUTTON, {342, 262, 458, 288}, "Cancel", kSpellCancelId, 0},
    {W_NONE, {}, nullptr, 0, 0},
};

constexpr size_t kChangeMax = 4 * kSpellMaxWordBytes;

struct Walk {
  WINDOW subject = NULL_WIN;
  WINDOW pane = NULL_WIN;
  E_DATA* ed = nullptr;
  SpellSplitOptions options;
  bool in_text = false;        // the subject is done
  EPos resume;                 // the next word starts here or behind
  SpellWord at;                // the word shown (line unused in the subject)
  std::string word;
  std::map<std::string, std::string, std::less<>> change_all;
  bool cancelled = false;
  int found = 0;
};

std::string SubjectText(const Walk& w) { return xvt_ctl_get_text(xvt_vobj_get_parent(w.subject), xvt_ctl_get_id(w.subject), 4096); }

void SelectInText(Walk& w) {
  ecmd_mouse_down(w.ed, EPos{w.at.line, w.at.offset}, false);
  ecmd_mouse_up(w.ed, EPos{w.at.line, w.at.offset + w.at.length});
  edis_layout(w.ed, true);
}

// Puts `with` in place of the current word and moves the walk behind it.
bool ReplaceCurrent(Walk& w, const std::string& with) {
  if (!w.in_text) {
    std::string s = SubjectText(w);
    if (s.compare(static_cast<size_t>(w.at.offset), static_cast<size_t>(w.at.length), w.word) != 0) return false;
    s.replace(static_cast<size_t>(w.at.offset), static_cast<size_t>(w.at.length), with);
    xvt_vobj_set_title(w.subject, s.c_str());
  } else {
    SelectInText(w);
    if (ecmd_paste_text(w.ed, with) != RC_OK) return false;
    edis_layout(w.ed, true);
  }
  w.resume = EPos{w.at.line, w.at.offset + static_cast<long>(with.size())};
  return true;
}

// Finds the next word to show, replacing the ones under Replace All on the
// way. False when there is none left.
bool NextError(Walk& w) {
  if (!w.in_text && w.subject) {
    bool again = true;
    while (again) {
      again = false;
      const std::string s = SubjectText(w);
      for (std::string_view v : SpellSplitLine(s, w.options)) {
        const long off = static_cast<long>(v.data() - s.data());
        if (off < w.resume.offset || Spell_Check(v)) continue;
        w.at = SpellWord{0, off, static_cast<long>(v.size())};
        w.word = std::string(v);
        if (auto it = w.change_all.find(w.word); it != w.change_all.end()) {
          if (!ReplaceCurrent(w, it->second)) return false;
          again = true;
          break;
        }
        return true;
      }
    }
  }
  if (!w.in_text) {
    w.in_text = true;
    w.resume = EPos{};
  }
  if (!w.ed) return false;
  for (;;) {
    const std::string text = txedit_get_text(w.pane);
    bool replaced = false;
    // Only the lines from the resume point on are split again.
    size_t start = 0;
    for (long l = 0; l < w.resume.line && start != std::string::npos; ++l) {
      start = text.find('\n', start);
      if (start != std::string::npos) ++start;
    }
    if (start == std::string::npos) return false;
    for (SpellWord sw : SpellSplit(std::string_view(text).substr(start), w.options)) {
      sw.line += w.resume.line;
      if (sw.line == w.resume.line && sw.offset < w.resume.offset) continue;
      size_t line_start = start;
      for (long l = w.resume.line; l < sw.line; ++l) line_start = text.find('\n', line_start) + 1;
      std::string_view v = std::string_view(text).substr(line_start + static_cast<size_t>(sw.offset), static_cast<size_t>(sw.length));
      if (Spell_Check(v)) continue;
      w.at = sw;
      w.word = std::string(v);
      if (auto it = w.change_all.find(w.word); it != w.change_all.end()) {
        if (!ReplaceCurrent(w, it->second)) return false;
        replaced = true;
        break;
      }
      SelectInText(w);
      return true;
    }
    if (!replaced) return false;
  }
}

void Show(WINDOW dlg, Walk& w) {
  ++w.found;
  if (!w.in_text) xvt_ctl_set_text_sel(w.subject, static_cast<int>(w.at.offset), static_cast<int>(w.at.offset + w.at.length));
  const std::string where = w.in_text ? "  (line " + std::to_string(w.at.line + 1) + ")" : "  (subject)";
  xvt_vobj_set_title(xvt_win_get_ctl(dlg, kSpellWordId), (w.word + where).c_str());
  WINDOW list = xvt_win_get_ctl(dlg, kSpellListId);
  xvt_list_clear(list);
  const std::vector<std::string> sugg = Spell_Suggest(w.word);
  for (const std::string& s : sugg) xvt_list_add(list, -1, s.c_str());
  if (!sugg.empty()) xvt_list_set_sel(list, 0, true);
  xvt_vobj_set_title(xvt_win_get_ctl(dlg, kSpellChangeId), sugg.empty() ? w.word.c_str() : sugg[0].c_str());
}

void Advance(WINDOW dlg, Walk& w, bool past_word) {
  if (past_word) w.resume = EPos{w.in_text ? w.at.line : 0, w.at.offset + w.at.length};
  if (NextError(w))
    Show(dlg, w);
  else
    xvt_vobj_destroy(dlg);
}

std::string ChangeTo(WINDOW dlg) {
  std::string s = xvt_ctl_get_text(dlg, kSpellChangeId, kChangeMax);
  // The replacement stays on the word's line.
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  return s;
}

// Near the right edge of the main window, where lines of a message rarely
// reach, so that the word shown in the text stays in sight.
void Place(WINDOW dlg) {
  RCT task{}, me{};
  if (!TASK_WIN || !xvt_vobj_get_outer_rect(TASK_WIN, &task) || !xvt_vobj_get_outer_rect(dlg, &me)) return;
  const int w = me.right - me.left, h = me.bottom - me.top;
  RCT r{};
  r.left = task.right - w - 24;
  r.top = task.top + 96;
  r.right = r.left + w;
  r.bottom = r.top + h;
  if (r.left >= task.left) xvt_vobj_move(dlg, &r);
}

long dialog_eh(WINDOW dlg, EVENT* ev) {
  auto* w = reinterpret_cast<Walk*>(xvt_vobj_get_data(dlg));
  switch (ev->type) {
    case E_CREATE:
      Place(dlg);
      Show(dlg, *w);
      break;
    case E_CONTROL: {
      const int id = ev->v.ctl.id;
      if (id == kSpellListId) {
        char buf[kChangeMax];
        const int sel = xvt_list_get_sel_index(xvt_win_get_ctl(dlg, kSpellListId));
        if (sel >= 0 && xvt_list_get_elt(xvt_win_get_ctl(dlg, kSpellListId), sel, buf, sizeof buf))
          xvt_vobj_set_title(xvt_win_get_ctl(dlg, kSpellChangeId), buf);
        if (ev->v.ctl.ci.v.lbox.dbl_click && ReplaceCurrent(*w, ChangeTo(dlg))) Advance(dlg, *w, false);
      } else if (id == kSpellReplaceId || id == kSpellReplaceAllId) {
        const std::string with = ChangeTo(dlg);
        if (id == kSpellReplaceAllId) w->change_all[w->word] = with;
        if (ReplaceCurrent(*w, with))
          Advance(dlg, *w, false);
        else
          xvt_dm_post_error("The word could not be replaced: the text is read-only or has changed.");
      } else if (id == kSpellIgnoreId) {
        Advance(dlg, *w, true);
      } else if (id == kSpellIgnoreAllId) {
        Spell_Ignore(w->word);
        Advance(dlg, *w, true);
      } else if (id == kSpellAddId) {
        std::string error;
        if (Spell_AddWord(w->word, &error))
          Advance(dlg, *w, true);
        else
          xvt_dm_post_error("%s", error.c_str());
      } else if (id == kSpellCancelId) {
        w->cancelled = true;
        xvt_vobj_destroy(dlg);
      }
      break;
    }
    case E_CLOSE:
      w->cancelled = true;
      xvt_vobj_destroy(dlg);
      break;
    default: break;
  }
  return 0;
}

}  // namespace

int Spell_CheckWindow(WINDOW subject, WINDOW text_pane, bool quiet) {
  std::string error, warning;
  if (!Spell_Open(&error, &warning)) {
    xvt_dm_post_error("%s", error.c_str());
    return -1;
  }
  if (!warning.empty()) xvt_dm_post_note("%s", warning.c_str());
  Walk w;
  w.subject = subject;
  w.pane = text_pane;
  w.ed = text_pane ? edit_data(text_pane) : nullptr;
  w.options = Spell_SplitOptions();
  if (NextError(w)) {
    if (!xvt_res_get_dialog(kSpellDialogRid)) xvt_res_register_dialog(kSpellDialogRid, kDialogDef);
    if (!xvt_dlg_create_res(W_MODAL, kSpellDialogRid, EM_ALL, dialog_eh, reinterpret_cast<intptr_t>(&w))) {
      xvt_dm_post_error("The spelling dialog could not be shown.");
      return -1;
    }
  }
  Trace(kTraceSpell, kTraceLow, "spell: %d words shown, %s", w.found, w.cancelled ? "cancelled" : "done");
  if (w.cancelled) return 0;
  if (!quiet) xvt_dm_post_note(w.found ? "The spelling check is complete." : "No spelling errors found.");
  return 1;
}
