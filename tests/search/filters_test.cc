// The filter list in the options: what is saved comes back, and entries
// that cannot be used are left out rather than run half-understood.
#include <gtest/gtest.h>

#include "src/options/options.h"
#include "src/search/filters.h"
#include "tests/model/model_fixture.h"

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

}  // namespace
