// Spelling on a long mail text: how fast the splitter walks it, how fast the
// dictionary answers, what a list of suggestions costs, and the dialog's
// walk through the text in a headless editor control (every mistake
// ignored one by one, then all of them replaced at once), which re-reads
// the text after each change.
#include <chrono>
#include <cstdio>
#include <string>

#include "editor/edisxvt/edit_window.h"
#include "src/options/options.h"
#include "src/spell/spell.h"
#include "src/spell/spell_dialog.h"
#include "xvt/xvt_test.h"

namespace {

double Now() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

const char* const kWords[] = {"the", "message", "arrived", "yesterday", "and", "we", "will", "answer", "it",
                              "before", "Friday", "because", "our", "team", "needs", "more", "time", "to", "read"};

// lines of prose, a quoted line every 10th, a link every 7th, and one
// misspelt word ("recieve") every `every` words.
std::string MakeText(int lines, int every) {
  std::string text;
  int n = 0;
  for (int l = 0; l < lines; ++l) {
    if (l % 10 == 9) text += "> quoted text that is not looked at\n";
    for (int w = 0; w < 12; ++w, ++n) {
      text += (n % every == every - 1) ? "recieve" : kWords[n % (sizeof kWords / sizeof *kWords)];
      text += w == 11 ? ".\n" : " ";
      if (w == 5 && l % 7 == 0) text += "https://example.org/a/b ";
    }
  }
  return text;
}

long task_eh(WINDOW, EVENT*) { return 0; }

void Walk(const std::string& text, bool replace_all) {
  RCT r{0, 0, 800, 600};
  WINDOW host = xvt_win_create(W_DOC, &r, "host", 0, TASK_WIN, 0, EM_ALL, task_eh, 0);
  WINDOW pane = txedit_create(TXEDIT, host, &r, 20, 0);
  txedit_set_text(pane, text.c_str());
  long shown = 0;
  xvt_test_push_dialog(kSpellDialogRid, [&](WINDOW dlg) {
    while (xvt_vobj_is_valid(dlg)) {
      ++shown;
      xvt_test_click(dlg, replace_all ? kSpellReplaceAllId : kSpellIgnoreId);
    }
  });
  const double t0 = Now();
  Spell_CheckWindow(NULL_WIN, pane, true);
  const double ms = Now() - t0;
  std::printf("dialog walk, %-11s %8.1f ms  %ld words shown, %zu bytes of text\n",
              replace_all ? "replace all" : "ignore each", ms, shown, text.size());
  xvt_vobj_destroy(host);
}

void Run() {
  Opt_AssignString("Spell.Language", "en_US", kOptSession, 0);
  std::string error, warning;
  double t0 = Now();
  if (!Spell_Open(&error, &warning)) {
    std::printf("%s\n", error.c_str());
    return;
  }
  std::printf("open dictionary         %8.1f ms\n", Now() - t0);

  const std::string big = MakeText(20000, 50);
  t0 = Now();
  const auto words = SpellSplit(big, Spell_SplitOptions());
  double ms = Now() - t0;
  std::printf("split                   %8.1f ms  %zu words, %.1f MB/s\n", ms, words.size(), big.size() / 1e3 / ms);

  t0 = Now();
  size_t wrong = 0;
  std::string_view v(big);
  size_t line_start = 0;
  long line = 0;
  for (const SpellWord& w : words) {
    while (line < w.line) line_start = v.find('\n', line_start) + 1, ++line;
    wrong += !Spell_Check(v.substr(line_start + w.offset, w.length));
  }
  ms = Now() - t0;
  std::printf("check                   %8.1f ms  %zu misspelt, %.0f words/s\n", ms, wrong, words.size() / ms * 1e3);

  t0 = Now();
  const int samples = 20;
  for (int i = 0; i < samples; ++i) Spell_Suggest(i % 2 ? "recieve" : "tomorow");
  std::printf("suggest                 %8.1f ms a word\n", (Now() - t0) / samples);

  const std::string letter = MakeText(400, 50);  // about 4,800 words, 96 mistakes
  Walk(letter, false);
  Walk(letter, true);
}

}  // namespace

int main() {
  XVT_CONFIG config{0, 0, "bench", "Bench", "bench", 0};
  xvt_test_set_run_hook([] { Run(); });
  xvt_app_create(0, nullptr, 0, task_eh, &config);
  return 0;
}
