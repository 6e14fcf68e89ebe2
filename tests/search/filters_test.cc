// The filter list in the options: what is saved comes back, and entries
// that cannot be used are left out rather than run half-understood.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/search/search_rules.h"
#include "src/search/filters.h"
#include "tests/model/model_fixture.h"
#include "xvt/xvt_test.h"

namespace {

using Filters = ModelTest;

auto Fields(const MailFilter& f) {
  return std::tie(f.name, f.rule, f.action, f.folder, f.stop, f.enabled);
}

TEST_F(Filters, TheListComesBackAsSavedAndBadEntriesAreLeftOut) {
  const std::vector<MailFilter> saved = {
      {"Lists", "List rule", kFilterMove, "Mail/Lists", true, true},
      {"Copy", "R2", kFilterCopy, "Archive 2024", false, false},
      {"Read", "R3", kFilterMarkRead, "", false, true},
      {"Flag", "R4", kFilterFlag, "", true, true},
      {"Bin", "R5", kFilterDelete, "", false, true},
  };
  ASSERT_EQ(FLT_Save(3, {saved[0], saved[1], saved[2], saved[0], saved[0], saved[0]}), 1);
  ASSERT_EQ(FLT_Save(3, saved), 1);  // a shorter list leaves no stale entries behind
  EXPECT_EQ(Opt_LookupText("Filters.3.6.Name", kOptSession), "");
  int damaged = -1;
  const std::vector<MailFilter> back = FLT_Load(3, &damaged);
  ASSERT_EQ(back.size(), saved.size());
  EXPECT_EQ(damaged, 0);
  for (size_t i = 0; i < saved.size(); ++i)
    EXPECT_TRUE(Fields(back[i]) == Fields(saved[i])) << saved[i].name;
  EXPECT_TRUE(FLT_Load(4).empty());  // per service

  // Hand-edited option files: each broken entry is dropped, the rest run.
  const struct {
    const char *key, *value;
  } breaks[] = {
      {"Filters.3.1.Action", "Shred"}, {"Filters.3.2.Folder", ""}, {"Filters.3.3.Name", ""},
      {"Filters.3.4.Rule", ""},
  };
  for (const auto& b : breaks) Opt_AssignString(b.key, b.value, kOptSession, 0);
  const std::vector<MailFilter> left = FLT_Load(3, &damaged);
  EXPECT_EQ(damaged, 4);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].name, "Bin");
  Opt_AssignString("Filters.3.Count", "99999", kOptSession, 0);  // no more than the limit are read
  FLT_Load(3, &damaged);
  EXPECT_EQ(damaged, 4 + kFilterMax - 5);
  // What cannot be stored is refused whole.
  EXPECT_EQ(FLT_Save(5, {saved[0], {"x", "r", kFilterMove, "", false, true}}), 0);
  EXPECT_EQ(FLT_Save(5, {{"a\nb", "r", kFilterFlag, "", false, true}}), 0);
  EXPECT_TRUE(FLT_Load(5).empty());
}

// Message > Filters...: the dialog's changes reach the options on OK, and only then.
TEST_F(Filters, DialogSavesOnOkAndCancelKeepsTheList) {
  // The dialog's resources and controls, as the user sees them.
  enum { kList = 6301, kAdd, kDelete = 6304, kUp, kOk = 6308, kCancel, kRule = 6322, kAction, kStop = 6325 };
  enum { kListRid = 6300, kEditRid = 6320, kEditOk = 6327 };
  for (const char* rule : {"R1", "R2"})
    ASSERT_TRUE(SRCH_AddRuleByName(kOptSession, "IMAP", rule, "SUBJECT \"x\"", "Message"));
  const int number = MM_MSGetNumber(local_);
  const std::vector<MailFilter> before = {
      {"A", "R1", kFilterFlag, "", false, true},
      {"B", "R2", kFilterMarkRead, "", false, true},
      {"C", "R1", kFilterDelete, "", true, false},
  };
  ASSERT_EQ(FLT_Save(number, before), 1);
  auto names = [&] {
    std::string out;
    for (const MailFilter& f : FLT_Load(number)) out += f.name + "," + f.rule + "," + std::to_string(f.action) + "," +
                                                        (f.stop ? "stop" : "go") + ";";
    return out;
  };
  XVT_CONFIG config{0, 0, "t", "T", "task", 42};
  xvt_test_set_run_hook([&] {
    xvt_test_push_dialog(kListRid, [&](WINDOW d) {
      xvt_test_push_dialog(kEditRid, [&](WINDOW e) {
        const WINDOW rules = xvt_win_get_ctl(e, kRule);
        for (int i = 0, n = xvt_list_count_all(rules); i < n; ++i) {
          char item[64] = "";
          if (xvt_list_get_elt(rules, i, item, sizeof item) && std::string(item) == "R2") xvt_test_select(e, kRule, i);
        }
        xvt_test_select(e, kAction, kFilterFlag);
        xvt_test_click(e, kStop);
        xvt_test_click(e, kEditOk);
      });
      xvt_test_click(d, kAdd);  // "Filter 4" comes last, chosen
      xvt_test_click(d, kUp);
      xvt_test_select(d, kList, 0);
      xvt_test_click(d, kDelete);
      xvt_test_click(d, kOk);
    });
    const std::string after_ok = "B,R2,2,go;Filter 4,R2,3,stop;C,R1,4,stop;";
    FLT_FiltersDialog(local_, "");
    EXPECT_EQ(names(), after_ok) << Posts();
    // Cancel after a change leaves the saved list alone.
    xvt_test_push_dialog(kListRid, [&](WINDOW d) {
      xvt_test_select(d, kList, 1);
      xvt_test_click(d, kDelete);
      xvt_test_click(d, kCancel);
    });
    FLT_FiltersDialog(local_, "");
    EXPECT_EQ(names(), after_ok);
  });
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, &config);
}

}  // namespace
