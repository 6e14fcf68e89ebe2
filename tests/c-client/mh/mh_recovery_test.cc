// A folder whose cache files are damaged, or whose change was cut short by
// a failing disk or by the program dying, opens with every message once and
// its flags. Damage is made by hand; failures through the safe writer's
// fault injection, deaths through the driver's crash points.
#include <fcntl.h>
#include <sys/resource.h>

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

bool ErrorSaid() {
  for (const MailEnvLine& l : mail_env_lines())
    if ((l.callback == "log" || l.callback == "notify") && l.level == 2) return true;
  return false;
}

class MhRecovery : public MhTest {
 protected:
  // Box: twelve messages with flags, structures cached, and a backup index
  // from an expunge. Target: empty.
  void MakeFolder() {
    dir_ = Create("Box");
    target_ = Create("Target");
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
    fs::copy(home_ + "/folders", Pristine(), fs::copy_options::recursive);
  }

  // Puts back both folders as MakeFolder left them.
  void Restore() {
    CloseAll();
    fs::remove_all(home_ + "/folders");
    fs::copy(Pristine(), home_ + "/folders", fs::copy_options::recursive);
    mh_forget_paths();
  }
  std::string Pristine() const { return home_ + "/pristine"; }
  void CloseAll() {
    for (MailStream*& s : streams_)
      if (s) Close(s);
  }

  // Every message is there once, with its structure and file, and the
  // flags it had (none when kept is false); a message in `may` may also
  // have gained the flag letter `gained`.
  void ExpectWhole(MailStream* s, const std::string& what, bool kept = true, char gained = 0,
                   const std::set<unsigned long>& may = {}) {
    ASSERT_NE(s, nullptr) << what << "\n" << Logs();
    ASSERT_EQ(s->nmsgs, static_cast<unsigned long>(kCount)) << what;
    std::map<unsigned long, std::string> structures;
    for (unsigned long i = 1; i <= s->nmsgs; ++i) structures[mail_elt(s, i)->file_number] = DumpStructure(s, i);
    EXPECT_EQ(structures, structures_) << what;
    for (auto& [number, flags] : FlagMap(s)) {
      std::string want = kept ? flags_[number] : "-----", other = want;
      if (may.count(number)) other[std::string("SDFAd").find(gained)] = gained;
      EXPECT_TRUE(flags == want || flags == other) << what << ": " << number << " " << flags;
    }
    EXPECT_EQ(Messages(dir_), files_) << what << ": message files are never touched";
    EXPECT_FALSE(fs::exists(dir_ + "/mh_index.new") || fs::exists(dir_ + "/mh_cache.new")) << what;
  }

  std::string dir_, target_;
  std::map<unsigned long, std::string> flags_;
  std::map<unsigned long, std::string> structures_;
  std::map<uint32_t, std::string> files_;
  MailStream* s_ = nullptr;
};

TEST_F(MhRecovery, DamagedCacheFilesAreRebuiltWithEveryMessageAndFlag) {
  auto cut = [](const char* file, size_t keep_less) {
    return [=](const std::string& d) {
      std::string data = ReadFile(d + "/" + file);
      WriteFile(d + "/" + file, data.substr(0, keep_less ? data.size() - keep_less : 10));
    };
  };
  struct Case {
    const char* what;
    std::function<void(const std::string&)> damage;
    bool flags_kept;
    bool corrupt_noted;  // the index looked whole but lied about the cache
  } cases[] = {
      {"empty index", [](const std::string& d) { WriteFile(d + "/mh_index.dat", ""); }, true, false},
      {"short header", cut("mh_index.dat", 0), true, false},
      {"older version", [](const std::string& d) { Patch(d, "mh_index.dat", 0, Le32(4101)); }, true, false},
      {"header counts records the file lacks",
       [](const std::string& d) { Patch(d, "mh_index.dat", 4, Le32(1000000)); }, true, false},
      {"index cut mid-record", cut("mh_index.dat", 30), true, false},
      {"index and backup missing",
       [](const std::string& d) {
         fs::remove(d + "/mh_index.dat");
         fs::remove(d + "/mh_index.bak");
       },
       false, false},
      {"cache missing", [](const std::string& d) { fs::remove(d + "/mh_cache.dat"); }, true, false},
      {"cache cut short", cut("mh_cache.dat", 200), true, true},
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
    ExpectWhole(s, c.what, c.flags_kept);
    EXPECT_TRUE(Said("notify", kRebuilding)) << c.what << "\n" << Logs();
    EXPECT_EQ(Said("notify", kCorrupt), c.corrupt_noted) << c.what << "\n" << Logs();
    EXPECT_FALSE(fs::exists(dir_ + "/mh_updat.dat")) << c.what;
    Close(s);
    // And it opens from the rebuilt files without rebuilding again.
    mail_env_clear();
    ExpectWhole(Open("Box"), std::string(c.what) + ", reopened", c.flags_kept);
    EXPECT_FALSE(Said("notify", kRebuilding)) << c.what << "\n" << Logs();
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
  ExpectWhole(Open("Box"), "after the rebuild");
  EXPECT_TRUE(Said("notify", kRebuilding));
}

// Each operation runs with each kind of step (open, write, sync, rename)
// failing from its first call on, then from its second, and so on until it
// goes through untouched. A fault that fired always reaches the user; the
// operation then either happened whole or not at all, and both folders
// open with every message once.
TEST_F(MhRecovery, AFailingDiskAtAnyStepOfAnyChangeLosesNothing) {
  const std::set<unsigned long> moved = {2, 3, 4, 5}, all = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  auto open_box = [&] { s_ = Open("Box"); };
  // What reached Target: all four messages, or nothing at all.
  auto target_all_or_nothing = [&](const std::string& what, bool ok) {
    MailStream* t = Open("Target");
    ASSERT_NE(t, nullptr) << what;
    ASSERT_EQ(t->nmsgs, ok ? moved.size() : 0u) << what << "\n" << Logs();
    unsigned long i = 1;
    for (unsigned long n : moved) {
      if (!ok) break;
      EXPECT_EQ(DumpStructure(t, i), structures_[n]) << what;
      EXPECT_EQ(Flags(t, i++), flags_[n]) << what;
    }
    EXPECT_EQ(Messages(target_).size(), t->nmsgs) << what << ": no partial copies";
  };
  struct Op {
    const char* name;
    std::function<void()> prepare;  // runs before the fault is set
    std::function<bool()> run;
    std::function<void(const std::string&, bool)> check;  // with what run said
  } ops[] = {
      {"copy", open_box, [&] { return mail_copy(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok) {
         target_all_or_nothing(what, ok);
         ExpectWhole(Open("Box"), what);
       }},
      // A move whose copy is whole but whose marks can't all be written has
      // happened, and says so; one that failed marks nothing.
      {"move", open_box, [&] { return mail_move(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok) {
         target_all_or_nothing(what, ok);
         ExpectWhole(Open("Box"), what, true, ok ? 'D' : 0, ok ? moved : std::set<unsigned long>{});
       }},
      {"flag write", open_box, [&] { return mail_setflag(s_, "1:12", "\\Answered"), true; },
       [&](const std::string& what, bool) { ExpectWhole(Open("Box"), what, true, 'A', all); }},
      {"rebuild", [&] { fs::remove(dir_ + "/mh_cache.dat"); }, [&] { return Open("Box") != nullptr; },
       [&](const std::string& what, bool ok) {
         if (!ok) {
           EXPECT_TRUE(Header(dir_).version == kMhIndexVersion || Header(dir_).version == 0) << what;
         }
         ExpectWhole(Open("Box"), what);
       }},
      {"expunge",
       [&] {
         s_ = Open("Box");
         mail_setflag(s_, "6", "\\Deleted");
       },
       [&] { return mail_expunge(s_), s_->nmsgs == kCount - 1; },
       [&](const std::string& what, bool ok) {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         std::map<unsigned long, std::string> want = flags_;
         if (ok || !fs::exists(dir_ + "/6")) {
           want.erase(6);
         } else {
           want[6] = "-D---";
         }
         EXPECT_EQ(FlagMap(s), want) << what;
       }},
      {"queue applied at a check",
       [&] {
         s_ = Open("Box");
         for (int i = 0; i < 5; ++i) ASSERT_EQ(Append("Box", MakeMessage(20 + i, i % 2).text, "\\Flagged"), 1);
       },
       [&] { return mail_check(s_), s_->nmsgs == kCount + 5; },
       [&](const std::string& what, bool) {
         // A queue applied part-way is applied again, over the same records.
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         ASSERT_EQ(s->nmsgs, kCount + 5u) << what;
         for (auto& [n, flags] : FlagMap(s)) EXPECT_EQ(flags, n > kCount ? "--F--" : flags_[n]) << what << " " << n;
       }},
      {"append", nullptr, [&] { return Append("Box", MakeMessage(40, false).text, "\\Seen") == 1; },
       [&](const std::string& what, bool ok) {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         EXPECT_EQ(s->nmsgs, kCount + (ok ? 1u : 0u)) << what;
         EXPECT_EQ(Messages(dir_).size(), s->nmsgs) << what << ": a message not queued is not left behind";
       }},
  };
  MakeFolder();
  for (const Op& op : ops)
    for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync, kSafeRename})
      for (long nth = 1;; ++nth) {
        const std::string what = std::string(op.name) + ", " + safe_step_name(step) + " failing from call " +
                                 std::to_string(nth);
        ASSERT_LT(nth, 60) << what << ": never went through";
        Restore();
        if (op.prepare) op.prepare();
        mail_env_clear();
        safe_fail_from_for_test(step, nth, EIO);
        const bool ok = op.run();
        const bool fired = safe_calls_for_test(step) >= nth;
        safe_clear_faults_for_test();
        if (fired) {
          EXPECT_TRUE(ErrorSaid()) << what << ": the fault was swallowed\n" << Logs();
        }
        if (step == kSafeSync && nth == 1) {
          EXPECT_TRUE(fired) << what << ": the change never reached the disk";
        }
        CloseAll();
        mail_env_clear();
        op.check(what, ok);
        if (!fired) break;
      }
}

// A message file that is there but can't be opened now stops the rebuild:
// leaving it out would drop its flags at the next rebuild.
TEST_F(MhRecovery, AMessageFileThatCantBeOpenedStopsTheRebuild) {
  MakeFolder();
  fs::remove(dir_ + "/mh_cache.dat");
  const std::string index = ReadFile(dir_ + "/mh_index.dat");
  rlimit old;
  ::getrlimit(RLIMIT_NOFILE, &old);
  const int lowest = ::open("/dev/null", O_RDONLY);
  ::close(lowest);
  rlimit now = old;
  now.rlim_cur = static_cast<rlim_t>(lowest + 2);  // the two new files, and no message
  ::setrlimit(RLIMIT_NOFILE, &now);
  MailStream* s = Open("Box");
  ::setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(s, nullptr);
  EXPECT_TRUE(Said("log", "Failed to open MH message file: " + dir_ + "/1 - Too many open files")) << Logs();
  EXPECT_EQ(ReadFile(dir_ + "/mh_index.dat"), index) << "nothing installed";
  ExpectWhole(Open("Box"), "once the files can be opened");
}

// A flag change on a stream whose index a failed expunge has closed is
// refused aloud, never dropped.
TEST_F(MhRecovery, AFlagChangeThatCantBeWrittenSaysSo) {
  MakeFolder();
  MailStream* s = Open("Box");
  ASSERT_NE(s, nullptr);
  mail_setflag(s, "6", "\\Deleted");
  safe_fail_from_for_test(kSafeRename, 1, EIO);
  mail_expunge(s);
  safe_clear_faults_for_test();
  mail_env_clear();
  mail_setflag(s, "1", "\\Flagged");
  EXPECT_TRUE(ErrorSaid()) << Logs();
}

TEST_F(MhRecovery, DyingAtAnyStepLeavesAFolderThatOpensWhole) {
  struct Case {
    const char* step;
    bool to_expunge;  // the step is the expunge's (else the check's)
    bool expunged;    // message 6 is gone afterwards
  } cases[] = {
      {"expunge-written", true, false},  {"expunge-marked", true, false},
      {"expunge-unlinked", true, true},  {"expunge-cache-installed", true, true},
      {"update-appended", false, false}, {"update-committed", false, false},
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
      EXPECT_GT(got.rbegin()->first, static_cast<unsigned long>(kCount)) << c.step;
      EXPECT_EQ(got.rbegin()->second, "---A-") << c.step;
      got.erase(std::prev(got.end()));
    }
    EXPECT_EQ(got, want) << c.step << "\n" << Logs();
    for (unsigned long i = 1; i <= s->nmsgs; ++i)
      EXPECT_NE(mail_fetchstructure(s, i, nullptr), nullptr) << c.step << " " << i;
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
  std::map<unsigned long, std::string> want = flags_;
  want[20] = "--F--";
  EXPECT_EQ(FlagMap(s), want);
  EXPECT_EQ(mail_elt(s, kCount + 1)->rfc822_size, 20u) << "sizes come from the file, not the queue";
}

}  // namespace
}  // namespace mh_test
