// A folder whose cache files are damaged, or whose rewrite was cut short by
// a full disk or by the program dying, opens with every message and its
// flags. Damage is made by hand; failures and deaths through the driver's
// test hooks.
#include <functional>
#include <set>

#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

constexpr int kCount = 12;
constexpr char kRebuilding[] = "Rebuilding MH cache database - this may take awhile.";
constexpr char kCorrupt[] = "MH mailbox - intermediate cache is corrupt!";

void Patch(const std::string& dir, const char* file, size_t at, const std::string& bytes) {
  std::string data = ReadFile(dir + "/" + file);
  data.replace(at, bytes.size(), bytes);
  WriteFile(dir + "/" + file, data);
}

class MhRecovery : public MhTest {
 protected:
  // Twelve messages with flags, structures cached, and a backup index
  // from an expunge.
  void MakeFolder() {
    dir_ = Create("Box");
    for (int i = 0; i <= kCount; ++i) ASSERT_EQ(Append("Box", MakeMessage(i, i % 2 == 0).text), 1);
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr);
    mail_setflag(s, "1,4,7", "\\Seen");
    mail_setflag(s, "2,4", "\\Flagged \\Answered");
    mail_setflag(s, "3", "\\Draft");
    mail_setflag(s, "13", "\\Deleted");
    mail_expunge(s);
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
    ASSERT_TRUE(fs::exists(dir_ + "/mh_index.bak"));
    flags_ = FlagMap(s);
    for (unsigned long i = 1; i <= s->nmsgs; ++i) structures_[mail_elt(s, i)->file_number] = DumpStructure(s, i);
    Close(s);
    files_ = Messages(dir_);
    mail_env_clear();
    fs::copy(dir_, Pristine());
  }

  // Puts back the folder as MakeFolder left it, for the next case.
  void Restore() {
    fs::remove_all(dir_);
    fs::copy(Pristine(), dir_);
    mh_forget_paths();
  }
  std::string Pristine() const { return home_ + "/pristine"; }

  // Every message is there once, with its structure, and its flags unless
  // they were lost.
  void ExpectWhole(MailStream* s, bool flags_kept, const std::string& what) {
    ASSERT_NE(s, nullptr) << what << "\n" << Logs();
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount)) << what;
    std::map<unsigned long, std::string> structures;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) structures[mail_elt(s, i)->file_number] = DumpStructure(s, i);
    EXPECT_EQ(structures, structures_) << what;
    if (flags_kept) {
      EXPECT_EQ(FlagMap(s), flags_) << what;
    } else {
      for (auto& [number, flags] : FlagMap(s)) EXPECT_EQ(flags, "-----") << what << " " << number;
    }
    EXPECT_EQ(Messages(dir_), files_) << what << ": message files are never touched";
    EXPECT_FALSE(fs::exists(dir_ + "/mh_index.new")) << what;
    EXPECT_FALSE(fs::exists(dir_ + "/mh_cache.new")) << what;
  }

  std::string dir_;
  std::map<unsigned long, std::string> flags_;
  std::map<unsigned long, std::string> structures_;
  std::map<uint32_t, std::string> files_;
};

TEST_F(MhRecovery, DamagedCacheFilesAreRebuiltWithEveryMessageAndFlag) {
  struct Case {
    const char* what;
    std::function<void(const std::string&)> damage;
    bool flags_kept;
    bool corrupt_noted;  // the index looked whole but lied about the cache
  } cases[] = {
      {"empty index", [](const std::string& d) { WriteFile(d + "/mh_index.dat", ""); }, true, false},
      {"short header",
       [](const std::string& d) { WriteFile(d + "/mh_index.dat", ReadFile(d + "/mh_index.dat").substr(0, 10)); },
       true, false},
      {"older version", [](const std::string& d) { Patch(d, "mh_index.dat", 0, Le32(4101)); }, true, false},
      {"marked corrupt", [](const std::string& d) { Patch(d, "mh_index.dat", 0, Le32(0)); }, true, false},
      {"header counts records the file lacks",
       [](const std::string& d) { Patch(d, "mh_index.dat", 4, Le32(1000000)); }, true, false},
      {"index cut mid-record",
       [](const std::string& d) {
         std::string index = ReadFile(d + "/mh_index.dat");
         WriteFile(d + "/mh_index.dat", index.substr(0, index.size() - 30));
       },
       true, false},
      {"index missing", [](const std::string& d) { fs::remove(d + "/mh_index.dat"); }, true, false},
      {"index and backup missing",
       [](const std::string& d) {
         fs::remove(d + "/mh_index.dat");
         fs::remove(d + "/mh_index.bak");
       },
       false, false},
      {"cache missing", [](const std::string& d) { fs::remove(d + "/mh_cache.dat"); }, true, false},
      {"cache empty", [](const std::string& d) { WriteFile(d + "/mh_cache.dat", ""); }, true, true},
      {"cache cut short",
       [](const std::string& d) {
         std::string cache = ReadFile(d + "/mh_cache.dat");
         WriteFile(d + "/mh_cache.dat", cache.substr(0, cache.size() / 2));
       },
       true, true},
      {"record points past the cache",
       [](const std::string& d) { Patch(d, "mh_index.dat", kMhHeaderSize + 3 * kMhRecordSize + 16, Le32(0x7fffffff)); },
       true, true},
      {"record of message number 0",
       [](const std::string& d) { Patch(d, "mh_index.dat", kMhHeaderSize + 6 * kMhRecordSize, Le32(0)); },
       true, true},
      {"queue with half a record",
       [](const std::string& d) { WriteFile(d + "/mh_updat.dat", std::string(30, '\x01')); }, true, true},
  };
  MakeFolder();
  for (const Case& c : cases) {
    Restore();
    c.damage(dir_);
    mail_env_clear();
    MailStream* s = Open("Box");
    ExpectWhole(s, c.flags_kept, c.what);
    EXPECT_TRUE(Said("notify", kRebuilding)) << c.what << "\n" << Logs();
    EXPECT_EQ(Said("notify", kCorrupt), c.corrupt_noted) << c.what << "\n" << Logs();
    EXPECT_FALSE(fs::exists(dir_ + "/mh_updat.dat")) << c.what;
    Close(s);
    // And it opens from the rebuilt files without rebuilding again.
    mail_env_clear();
    s = Open("Box");
    ExpectWhole(s, c.flags_kept, std::string(c.what) + ", reopened");
    EXPECT_FALSE(Said("notify", kRebuilding)) << c.what << "\n" << Logs();
    Close(s);
  }
}

TEST_F(MhRecovery, ACorruptStructureRecordFailsItsFetchAndTheNextOpenRebuilds) {
  MakeFolder();
  const MhIndexRecord r = Records(dir_)[2];
  Patch(dir_, "mh_cache.dat", r.cache_offset + 4, Le32(12345));  // a bad tag where the envelope begins
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  EXPECT_FALSE(Said("notify", kRebuilding));
  EXPECT_EQ(mail_fetchstructure(s, 3, nullptr), nullptr);
  EXPECT_TRUE(Said("notify", kCorrupt)) << Logs();
  EXPECT_EQ(Header(dir_).version, 0u) << "marked for the next open";
  EXPECT_NE(mail_fetchstructure(s, 4, nullptr), nullptr) << "the other records still read";
  Close(s);
  mail_env_clear();
  s = Open("Box");
  ExpectWhole(s, true, "after the rebuild");
  EXPECT_TRUE(Said("notify", kRebuilding));
}

TEST_F(MhRecovery, AFullDiskAnywhereInAnExpungeLosesNothing) {
  MakeFolder();
  for (long writes = 0;; ++writes) {
    ASSERT_LT(writes, 100) << "the expunge never got through";
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr);
    mail_setflag(s, "6", "\\Deleted");
    mail_env_clear();
    safe_fail_from_for_test(kSafeWrite, writes + 1, ENOSPC);
    mail_expunge(s);
    safe_clear_faults_for_test();
    if (s->nmsgs == static_cast<unsigned long>(kCount - 1)) {
      EXPECT_FALSE(Said("log", "Failed to expunge intermediate MH cache.")) << writes;
      Close(s);
      break;
    }
    EXPECT_TRUE(Said("log", "Failed to expunge intermediate MH cache.")) << writes << "\n" << Logs();
    // The stream goes on with the old files, whole.
    EXPECT_NE(mail_fetchstructure(s, kCount, nullptr), nullptr) << writes;
    mail_clearflag(s, "6", "\\Deleted");
    Close(s);
    mail_env_clear();
    s = Open("Box");
    ExpectWhole(s, true, "failed after " + std::to_string(writes) + " writes");
    EXPECT_FALSE(Said("notify", kRebuilding)) << writes;
    Close(s);
  }
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->nmsgs, static_cast<unsigned long>(kCount - 1));
  flags_.erase(6);
  std::map<unsigned long, std::string> flags = FlagMap(s);
  EXPECT_EQ(flags, flags_);
}

TEST_F(MhRecovery, AFullDiskWhileTheQueueIsAppliedLosesNothingAndAppliesItAgain) {
  MakeFolder();
  const std::map<unsigned long, std::string> old_flags = flags_;
  for (long writes = 0;; ++writes) {
    ASSERT_LT(writes, 100) << "the check never got through";
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
    for (int i = 0; i < 5; ++i) ASSERT_EQ(Append("Box", MakeMessage(20 + i, i % 2).text, "\\Flagged"), 1);
    const uint64_t cache_before = fs::file_size(dir_ + "/mh_cache.dat");
    mail_env_clear();
    safe_fail_from_for_test(kSafeWrite, writes + 1, ENOSPC);
    mail_check(s);
    safe_clear_faults_for_test();
    const bool applied = s->nmsgs == static_cast<unsigned long>(kCount + 5);
    if (!applied) {
      EXPECT_EQ(s->nmsgs, static_cast<unsigned long>(kCount)) << writes;
      EXPECT_TRUE(fs::exists(dir_ + "/mh_updat.dat")) << "the queue stays for the next check";
      // The next check applies the whole queue again, over the same records;
      // the structure records written the first time stay as dead bytes.
      const uint64_t cache_partial = fs::file_size(dir_ + "/mh_cache.dat");
      mail_check(s);
      ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount + 5)) << writes << "\n" << Logs();
      if (cache_partial > cache_before) {
        EXPECT_GT(fs::file_size(dir_ + "/mh_cache.dat"), cache_partial);
      }
    }
    std::set<unsigned long> numbers;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) numbers.insert(mail_elt(s, i)->file_number);
    EXPECT_EQ(numbers.size(), s->nmsgs) << "no message twice, " << writes;
    for (unsigned long i = kCount + 1; i <= s->nmsgs; ++i) EXPECT_EQ(Flags(s, i), "--F--") << writes;
    // Back to twelve for the next round.
    mail_setflag(s, "13:17", "\\Deleted");
    mail_expunge(s);
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount));
    EXPECT_EQ(FlagMap(s), old_flags) << writes;
    Close(s);
    if (applied) break;
  }
}

TEST_F(MhRecovery, DyingAtAnyStepLeavesAFolderThatOpensWhole) {
  struct Case {
    const char* step;
    bool to_expunge;   // the step is the expunge's (else the check's)
    bool expunged;     // message 6 is gone afterwards
  } cases[] = {
      {"expunge-written", true, false},   {"expunge-marked", true, false},
      {"expunge-unlinked", true, true},   {"expunge-cache-installed", true, true},
      {"update-appended", false, false},  {"update-committed", false, false},
  };
  MakeFolder();
  for (const Case& c : cases) {
    Restore();
    MailStream* s = Open("Box");
    ASSERT_NE(s, nullptr);
    if (c.to_expunge) {
      mail_setflag(s, "6", "\\Deleted");
    } else {
      ASSERT_EQ(Append("Box", MakeMessage(30, true).text, "\\Answered"), 1);
    }
    mh_set_crash_point_for_test(c.step);
    if (c.to_expunge) {
      mail_expunge(s);
    } else {
      mail_check(s);
    }
    mh_set_crash_point_for_test(nullptr);
    Close(s);
    mail_env_clear();
    s = Open("Box");
    ASSERT_NE(s, nullptr) << c.step << "\n" << Logs();
    std::map<unsigned long, std::string> want = flags_;
    if (c.to_expunge && c.expunged) want.erase(6);
    if (c.to_expunge && !c.expunged) want[6] = "-D---";  // still there, still marked
    std::map<unsigned long, std::string> got = FlagMap(s);
    if (!c.to_expunge) {
      // The appended message, once, with its flags.
      ASSERT_EQ(got.size(), want.size() + 1) << c.step;
      EXPECT_GT(got.rbegin()->first, static_cast<unsigned long>(kCount)) << c.step;
      EXPECT_EQ(got.rbegin()->second, "---A-") << c.step;
      got.erase(std::prev(got.end()));
    }
    EXPECT_EQ(got, want) << c.step << "\n" << Logs();
    std::set<unsigned long> numbers;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) {
      numbers.insert(mail_elt(s, i)->file_number);
      EXPECT_NE(mail_fetchstructure(s, i, nullptr), nullptr) << c.step << " " << i;
    }
    EXPECT_EQ(numbers.size(), s->nmsgs) << c.step;
    Close(s);
  }
}

TEST_F(MhRecovery, QueueRecordsForMessagesTheIndexHoldsAreSkipped) {
  MakeFolder();
  // A record for message 3 (stale) and two for a new message 20: only 20
  // comes in, once, with its queued flags.
  WriteFile(dir_ + "/20", "Subject: twenty\n\n20\n");
  MhIndexRecord r{};
  r.number = 20;
  r.flags = kMhFlagged;
  uint8_t bytes[kMhRecordSize];
  mh_encode_record(r, bytes);
  const std::string twenty(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const std::string index = ReadFile(dir_ + "/mh_index.dat");
  const std::string three = index.substr(kMhHeaderSize + 2 * kMhRecordSize, kMhRecordSize);
  WriteFile(dir_ + "/mh_updat.dat", three + twenty + twenty);
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount + 1));
  std::map<unsigned long, std::string> want = flags_;
  want[20] = "--F--";
  EXPECT_EQ(FlagMap(s), want);
  EXPECT_EQ(mail_elt(s, kCount + 1)->rfc822_size, 20u) << "sizes come from the file, not the queue";
}

TEST_F(MhRecovery, FailedAppendsAndFlagWritesLeaveNoTrace) {
  MakeFolder();
  for (long writes : {0L, 1L}) {
    mail_env_clear();
    safe_fail_from_for_test(kSafeWrite, writes + 1, ENOSPC);
    EXPECT_EQ(Append("Box", MakeMessage(40, false).text), 0) << writes;
    safe_clear_faults_for_test();
    EXPECT_EQ(Messages(dir_), files_) << "a message that can't be queued is not left behind";
    EXPECT_TRUE(Records(dir_, "mh_updat.dat").empty()) << writes;
  }
  EXPECT_TRUE(Said("log", "Failed to open MH cache index update file - No space left on device")) << Logs();

  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  mail_env_clear();
  safe_fail_from_for_test(kSafeWrite, 1, ENOSPC);
  mail_setflag(s, "2", "\\Seen");
  safe_clear_faults_for_test();
  EXPECT_TRUE(Said("log", "Failed to write flags to MH cache index file - No space left on device")) << Logs();
  Close(s);
  s = Open("Box");
  ExpectWhole(s, true, "after a failed flag write");
}

TEST_F(MhRecovery, ARebuildThatCantWriteFailsTheOpenAndChangesNothing) {
  MakeFolder();
  fs::remove(dir_ + "/mh_cache.dat");
  const std::string index = ReadFile(dir_ + "/mh_index.dat");
  for (long writes : {0L, 1L, 2L}) {
    safe_fail_from_for_test(kSafeWrite, writes + 1, ENOSPC);
    mail_env_clear();
    EXPECT_EQ(Open("Box"), nullptr) << writes;
    safe_clear_faults_for_test();
    EXPECT_EQ(ReadFile(dir_ + "/mh_index.dat"), index) << writes;
    EXPECT_FALSE(fs::exists(dir_ + "/mh_index.new")) << writes;
  }
  mh_set_crash_point_for_test("rebuild-written");
  EXPECT_EQ(Open("Box"), nullptr);
  mh_set_crash_point_for_test(nullptr);
  MailStream* s = Open("Box");
  ExpectWhole(s, true, "rebuilt at last");
}

}  // namespace
}  // namespace mh_test
