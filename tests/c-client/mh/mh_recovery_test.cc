// A folder whose cache files are damaged or hostile, or whose change was
// cut short by a failing disk or by the program dying, opens with every
// message once and its flags, without hanging and without memory in
// proportion to the damage. Damage is made by hand; failures through the
// safe writer's fault injection, deaths through the driver's crash points.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <set>

#include "c-client/mh/subscribe.h"
#include "tests/c-client/mh/mh_test_util.h"

namespace mh_test {
namespace {

constexpr int kCount = 12;
constexpr char kRebuilding[] = "Rebuilding MH cache database - this may take awhile.";
constexpr char kCorrupt[] = "MH mailbox - intermediate cache is corrupt!";

void Patch(const std::string& dir, const char* file, size_t at, const std::string& bytes) {
  std::string data = ReadFile(dir + "/" + file);
  WriteFile(dir + "/" + file, data.replace(at, bytes.size(), bytes));
}

long PeakKb() {
  struct rusage u;
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// Something that is not a file where one belongs: reading it would wait
// for a writer forever.
void Fifo(const std::string& path) {
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
}

// A file of size bytes beginning with head, the rest a hole.
void Sparse(const std::string& path, const std::string& head, off_t size) {
  WriteFile(path, head);
  ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

// An index whose header counts n records, all of them a hole.
void Holes(const std::string& dir, uint32_t n) {
  Sparse(dir + "/mh_index.dat", Le32(kMhIndexVersion) + Le32(n), kMhHeaderSize + off_t{n} * kMhRecordSize);
}

bool ErrorSaid() {
  for (const MailEnvLine& l : mail_env_lines())
    if ((l.callback == "log" || l.callback == "notify") && l.level == 2) return true;
  return false;
}

class MhRecovery : public MhTest {
 protected:
  // A hang is a failure, not a stuck suite.
  void SetUp() override {
    MhTest::SetUp();
    ::alarm(60);
  }
  void TearDown() override {
    ::alarm(0);
    MhTest::TearDown();
  }
  // Box: twelve messages with flags, structures cached, and a backup index
  // from an expunge. Target: empty.
  void MakeFolder() {
    dir_ = Create("Box");
    target_ = Create("Target");
    for (int i = 0; i <= kCount; ++i) ASSERT_EQ(Append("Box", MakeMessage(i, i % 2 == 0)), 1);
    MailStream* s = OpenOk("Box");
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
    for (MailStream*& s : streams_) s = mail_close(s);
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
      const std::string data = ReadFile(d + "/" + file);
      WriteFile(d + "/" + file, data.substr(0, keep_less ? data.size() - keep_less : 10));
    };
  };
  auto fifo = [](const char* file) { return [=](const std::string& d) { Fifo(d + "/" + file); }; };
  auto patch = [](size_t at, uint32_t value) { return [=](const std::string& d) { Patch(d, "mh_index.dat", at, Le32(value)); }; };
  enum { kLost = 0, kKept = 1, kRebuilt = 2, kNoted = 4 };
  const struct {
    const char* what;
    std::function<void(const std::string&)> damage;
    int result;  // flags kept, rebuilt, corruption noted (the index looked whole but lied)
  } cases[] = {
      {"short header", cut("mh_index.dat", 0), kKept | kRebuilt},
      {"older version", patch(0, 4101), kKept | kRebuilt},
      {"header counts records the file lacks", patch(4, 1000000), kKept | kRebuilt},
      {"index missing", [](const std::string& d) { fs::remove(d + "/mh_index.dat"); }, kKept | kRebuilt},
      {"index and backup missing",
       [](const std::string& d) { fs::remove(d + "/mh_index.dat"), fs::remove(d + "/mh_index.bak"); }, kLost | kRebuilt},
      {"cache missing", [](const std::string& d) { fs::remove(d + "/mh_cache.dat"); }, kKept | kRebuilt},
      {"cache cut short", cut("mh_cache.dat", 200), kKept | kRebuilt | kNoted},
      {"record of message number 0", patch(kMhHeaderSize + 6 * kMhRecordSize, 0), kKept | kRebuilt | kNoted},
      {"queue with half a record", [](const std::string& d) { WriteFile(d + "/mh_updat.dat", std::string(30, '\x01')); },
       kKept | kRebuilt | kNoted},
      {"FIFO for the index", fifo("mh_index.dat"), kKept | kRebuilt},
      {"FIFO for the cache", fifo("mh_cache.dat"), kKept | kRebuilt},
      {"FIFO for the queue", fifo("mh_updat.dat"), kKept | kRebuilt | kNoted},
      {"FIFO for a status file", [](const std::string& d) { Fifo(d + "/2.st"), fs::remove(d + "/mh_cache.dat"); },
       kKept | kRebuilt},
      // A count no folder reaches is refused at once; a smaller one must
      // not size the message array before its records are read.
      {"header counting 4 billion records over a hole", [](const std::string& d) { Holes(d, UINT32_MAX); },
       kKept | kRebuilt},
      {"header counting 40 million records over a hole", [](const std::string& d) { Holes(d, 40'000'000); },
       kKept | kRebuilt | kNoted},
      {"untrusted index of 52 MB, every record message 3's",
       [](const std::string& d) {
         const std::string three = ReadFile(d + "/mh_index.dat").substr(kMhHeaderSize + 2 * kMhRecordSize, kMhRecordSize);
         std::ofstream out(d + "/mh_index.dat", std::ios::binary | std::ios::trunc);
         out << Le32(0) << Le32(1000000) << Le32(0) << Le32(0);
         for (int i = 0; i < 1000000; ++i) out << three;
       },
       kKept | kRebuilt},
      {"queue of 2.6 GB, a hole",
       [](const std::string& d) { Sparse(d + "/mh_updat.dat", "", off_t{50'000'000} * kMhRecordSize); }, kKept},
  };
  MakeFolder();
  for (const auto& c : cases) {
    Restore();
    c.damage(dir_);
    mail_env_clear();
    const long peak = PeakKb();
    MailStream* s = Open("Box");
    ExpectWhole(s, c.what, c.result & kKept);
    EXPECT_LT(PeakKb() - peak, 32 * 1024) << c.what << ": memory in proportion to the damage";
    EXPECT_EQ(Said("notify", kRebuilding), (c.result & kRebuilt) != 0) << c.what << "\n" << Logs();
    EXPECT_EQ(Said("notify", kCorrupt), (c.result & kNoted) != 0) << c.what << "\n" << Logs();
    EXPECT_FALSE(fs::exists(dir_ + "/mh_updat.dat")) << c.what;
    Close(s);
    // And it opens from the rebuilt files without rebuilding again.
    mail_env_clear();
    ExpectWhole(Open("Box"), std::string(c.what) + ", reopened", c.result & kKept);
    EXPECT_FALSE(Said("notify", kRebuilding)) << c.what << "\n" << Logs();
  }
}

// A FIFO where a message, the subscriptions or a name file belong is
// refused at once, with the reason.
TEST_F(MhRecovery, AFifoWhereAFileBelongsIsRefusedWithoutWaiting) {
  MakeFolder();
  Fifo(dir_ + "/2");
  MailStream* s = OpenOk("Box");
  const std::string refused = "Failed to open MH message file: " + dir_ + "/2 - Not a regular file";
  EXPECT_EQ(mail_fetchtext(s, 2), nullptr);
  EXPECT_EQ(mail_copy(s, "1:3", "Target"), 0);
  EXPECT_TRUE(Said("log", refused)) << Logs();
  Close(s);
  fs::remove(dir_ + "/mh_cache.dat");
  mail_env_clear();
  s = OpenOk("Box");
  EXPECT_EQ(s->nmsgs, kCount - 1u) << "no message there, and the rebuild goes on";
  EXPECT_TRUE(Said("log", refused)) << Logs();
  Fifo(dir_ + "/mh_updat.dat");
  EXPECT_EQ(Append("Box", "Subject: x\n\nx\n"), 0);
  EXPECT_TRUE(Said("log", "Failed to open MH cache index update file - Not a regular file")) << Logs();
  Fifo(home_ + "/subscrib.dat");
  void* state = nullptr;
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_TRUE(Said("log", "Failed to open subscription database: " + home_ + "/subscrib.dat - Not a regular file\n"));
  Fifo(home_ + "/folders/mhname.dat");
  mh_forget_paths();
  EXPECT_FALSE(mh_valid_name("Box", false));
  EXPECT_TRUE(Said("log", "Failed to open MH folder name database: " + home_ + "/folders/mhname.dat")) << Logs();
  EXPECT_EQ(Messages(target_).size(), 0u);
}

TEST_F(MhRecovery, ACorruptStructureRecordFailsItsFetchAndTheNextOpenRebuilds) {
  MakeFolder();
  const MhIndexRecord r = Records(dir_)[2];
  Patch(dir_, "mh_cache.dat", r.cache_offset + 4, Le32(12345));  // a bad tag where the envelope begins
  MailStream* s = OpenOk("Box");
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
// goes through untouched, and dying at each of its crash points. A fault
// that fired always reaches the user; the operation then either happened
// whole or not at all, and both folders open with every message once.
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
    std::function<void(const std::string&, bool, bool)> check;  // with what run said, and whether a fault fired
    std::vector<const char*> deaths = {};
  } ops[] = {
      {"copy", open_box, [&] { return mail_copy(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok, bool) {
         target_all_or_nothing(what, ok);
         ExpectWhole(Open("Box"), what);
       }},
      // A move whose copy is whole but whose marks can't all be written has
      // happened, and says so; one that failed marks nothing.
      {"move", open_box, [&] { return mail_move(s_, "2:5", "Target") == 1; },
       [&](const std::string& what, bool ok, bool fired) {
         target_all_or_nothing(what, ok);
         MailStream* s = Open("Box");
         ExpectWhole(s, what, true, ok ? 'D' : 0, ok ? moved : std::set<unsigned long>{});
         for (unsigned long n : moved) EXPECT_TRUE(fired || mail_elt(s, n)->deleted) << what << " " << n;
       }},
      {"flag write", open_box, [&] { return mail_setflag(s_, "1:12", "\\Answered"), true; },
       [&](const std::string& what, bool, bool) { ExpectWhole(Open("Box"), what, true, 'A', all); }},
      {"rebuild", [&] { fs::remove(dir_ + "/mh_cache.dat"); }, [&] { return Open("Box") != nullptr; },
       [&](const std::string& what, bool ok, bool) {
         EXPECT_TRUE(ok || Header(dir_).version == kMhIndexVersion || Header(dir_).version == 0) << what;
         ExpectWhole(Open("Box"), what);
       },
       {"rebuild-written"}},
      {"expunge", [&] { (s_ = Open("Box")), mail_setflag(s_, "6", "\\Deleted"); },
       [&] { return mail_expunge(s_), s_->nmsgs == kCount - 1; },
       [&](const std::string& what, bool ok, bool) {
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         std::map<unsigned long, std::string> want = flags_;
         if (ok || !fs::exists(dir_ + "/6")) {
           want.erase(6);
         } else {
           want[6] = "-D---";
         }
         EXPECT_EQ(FlagMap(s), want) << what;
         for (unsigned long i = 1; i <= s->nmsgs; ++i)
           EXPECT_EQ(DumpStructure(s, i), structures_[mail_elt(s, i)->file_number]) << what;
       },
       {"expunge-written", "expunge-marked", "expunge-unlinked", "expunge-cache-installed"}},
      {"queue applied at a check",
       [&] {
         s_ = Open("Box");
         for (int i = 0; i < 5; ++i) ASSERT_EQ(Append("Box", MakeMessage(20 + i, i % 2), "\\Flagged"), 1);
       },
       [&] { return mail_check(s_), s_->nmsgs == kCount + 5; },
       [&](const std::string& what, bool, bool) {
         // A queue applied part-way is applied again, over the same records.
         MailStream* s = Open("Box");
         ASSERT_NE(s, nullptr) << what;
         ASSERT_EQ(s->nmsgs, kCount + 5u) << what;
         for (auto& [n, flags] : FlagMap(s)) EXPECT_EQ(flags, n > kCount ? "--F--" : flags_[n]) << what << " " << n;
       },
       {"update-appended", "update-committed"}},
      {"append", nullptr, [&] { return Append("Box", MakeMessage(40, false), "\\Seen") == 1; },
       [&](const std::string& what, bool ok, bool) {
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
        EXPECT_TRUE(!fired || ErrorSaid()) << what << ": the fault was swallowed\n" << Logs();
        EXPECT_TRUE(fired || step != kSafeSync || nth != 1) << what << ": the change never reached the disk";
        CloseAll();
        mail_env_clear();
        op.check(what, ok, fired);
        if (!fired) break;
      }
  for (const Op& op : ops)
    for (const char* death : op.deaths) {
      Restore();
      if (op.prepare) op.prepare();
      mh_set_crash_point_for_test(death);
      const bool ok = op.run();
      mh_set_crash_point_for_test(nullptr);
      CloseAll();
      mail_env_clear();
      op.check(std::string(op.name) + ", dead at " + death, ok, true);
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
  MailStream* s = OpenOk("Box");
  mail_setflag(s, "6", "\\Deleted");
  safe_fail_from_for_test(kSafeRename, 1, EIO);
  mail_expunge(s);
  safe_clear_faults_for_test();
  mail_env_clear();
  mail_setflag(s, "1", "\\Flagged");
  EXPECT_TRUE(ErrorSaid()) << Logs();
}

TEST_F(MhRecovery, QueueRecordsForMessagesTheIndexHoldsAreSkipped) {
  MakeFolder();
  // A record for message 3 (stale) and two for a new message 20: only 20
  // comes in, once, with its queued flags.
  WriteFile(dir_ + "/20", "Subject: twenty\n\n20\n");
  const MhIndexRecord r{20, 0, 0, 0, 0, 0, 0, 0, kMhFlagged, 0, {}};
  uint8_t bytes[kMhRecordSize];
  mh_encode_record(r, bytes);
  const std::string twenty(reinterpret_cast<const char*>(bytes), sizeof bytes);
  const std::string three = ReadFile(dir_ + "/mh_index.dat").substr(kMhHeaderSize + 2 * kMhRecordSize, kMhRecordSize);
  WriteFile(dir_ + "/mh_updat.dat", three + twenty + twenty);
  MailStream* s = OpenOk("Box");
  std::map<unsigned long, std::string> want = flags_;
  want[20] = "--F--";
  EXPECT_EQ(FlagMap(s), want);
  EXPECT_EQ(mail_elt(s, kCount + 1)->rfc822_size, 20u) << "sizes come from the file, not the queue";
}

}  // namespace
}  // namespace mh_test
