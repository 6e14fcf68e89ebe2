// MH folders as directories: short directory names and mhname.dat, paths
// of folder names, listing, create, delete and rename, subscriptions; and
// mailbox names as paths, the listing pattern, and installing a file.
#include "c-client/mh/mh_names.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <functional>

#include "c-client/mh/local_paths.h"
#include "c-client/mh/subscribe.h"
#include "tests/c-client/mh/mh_test_util.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

// The clock the short names are made from: each call takes the next time
// queued, and the last one stays; with nothing queued it moves on by one
// second a call, so each folder of a test has its own second.
std::deque<long> g_times;
long g_next = 1767225600;  // 2026-01-01
int g_clock_calls = 0;
long NamesClock() {
  ++g_clock_calls;
  if (g_times.empty()) return g_next++;
  const long t = g_times.front();
  if (g_times.size() > 1) g_times.pop_front();
  return t;
}

std::string Short(long t) {
  const time_t tt = t;
  struct tm tm;
  char buffer[32];
  localtime_r(&tt, &tm);
  std::strftime(buffer, sizeof buffer, "%y%H%M%S.%j", &tm);
  return buffer;
}

struct stat Stat(const std::string& p) {
  struct stat st{};
  ::stat(p.c_str(), &st);
  return st;
}
unsigned Mode(const std::string& p) { return Stat(p).st_mode & 07777; }

constexpr char kCafe[] = "Café 2025 – notes";  // UTF-8, blanks
const std::string kLong = "A folder name with blanks that goes on and on " + std::string(150, 'x');
constexpr char kUnicode[] = "Ünïcødé ✉";

class MhNames : public mh_test::MhTest {
 protected:
  void SetUp() override {
    MhTest::SetUp();
    root_ = home_ + "/folders";
    g_times.clear();
    g_clock_calls = 0;
    mh_set_clock_for_test(NamesClock);
  }

  // Projects, Projects\Café, Projects\Café\<long>, Ünïcødé: one second each.
  void MakeTree() {
    first_ = g_next;
    for (const std::string& name : {std::string("Projects"), Cafe(), Deep(), std::string(kUnicode)})
      ASSERT_EQ(mh_create(nullptr, name.c_str()), 1) << name << ": " << EnvLogs(2);
    mail_env_clear();
  }
  static std::string Cafe() { return std::string("Projects\\") + kCafe; }
  static std::string Deep() { return Cafe() + "\\" + kLong; }
  std::string Dir(int i) const { return Short(first_ + i); }
  std::string ProjectsDir() const { return root_ + "/" + Dir(0); }
  std::string CafeDir() const { return ProjectsDir() + "/" + Dir(1); }

  std::string root_;
  long first_ = 0;
};

TEST_F(MhNames, CreateMakesShortDirectoriesRecordedByName) {
  MakeTree();
  EXPECT_EQ(ReadFile(root_ + "/mhname.dat"), "Projects#" + Dir(0) + "\n" + kUnicode + "#" + Dir(3) + "\n");
  EXPECT_EQ(ReadFile(ProjectsDir() + "/mhname.dat"), std::string(kCafe) + "#" + Dir(1) + "\n");
  EXPECT_EQ(ReadFile(CafeDir() + "/mhname.dat"), kLong + "#" + Dir(2) + "\n");
  EXPECT_EQ(Dir(0).size(), 12u);
  const std::string deep = CafeDir() + "/" + Dir(2);
  EXPECT_EQ(Mode(deep), 0700u);
  EXPECT_EQ(Mode(root_ + "/mhname.dat"), 0600u);
  EXPECT_EQ(Mode(deep + "/mh_index.dat"), 0600u);
  EXPECT_EQ(ReadFile(deep + "/mh_index.dat"), std::string("\x07\x10\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16));
  EXPECT_EQ(ReadFile(deep + "/mh_cache.dat"), "");

  const std::pair<std::string, std::string> paths[] = {
      {"#MH/Projects\\", ProjectsDir()}, {Cafe(), CafeDir()}, {Deep(), deep}, {"~/" + Deep(), deep},
      {kUnicode, root_ + "/" + Dir(3)},  {"Projects\\Nosuch", ProjectsDir() + "/Nosuch"},
  };
  for (bool forget : {false, true})
    for (const auto& [name, path] : paths) {
      if (forget) mh_forget_paths();
      EXPECT_EQ(mh_path(name.c_str()), path) << name;
      EXPECT_EQ(mh_path(name.c_str()), path) << name << " again";
    }
  EXPECT_EQ(EnvLogs(1) + EnvLogs(2), "");

  // A folder "1" beside message file 1 of its parent.
  WriteFile(ProjectsDir() + "/1", "Subject: x\n\nbody\n");
  ASSERT_EQ(mh_create(nullptr, "Projects\\1"), 1) << EnvLogs(2);
  EXPECT_EQ(mh_path("Projects\\1"), ProjectsDir() + "/" + Short(g_next - 1));
}

TEST_F(MhNames, TwoFoldersInOneSecondGetDifferentDirectories) {
  const long t = 1767225600;
  g_times = {t, t, t + 1};
  ASSERT_EQ(mh_create(nullptr, "One"), 1);
  ASSERT_EQ(mh_create(nullptr, "Two"), 1);
  EXPECT_EQ(ReadFile(root_ + "/mhname.dat"), "One#" + Short(t) + "\nTwo#" + Short(t + 1) + "\n");
  EXPECT_EQ(g_clock_calls, 3);  // the second waited for the next second
  // A directory that has that second's name already is not taken either.
  fs::create_directory(root_ + "/" + Short(t + 5));
  g_times = {t + 5, t + 5, t + 6};
  ASSERT_EQ(mh_create(nullptr, "Three"), 1);
  EXPECT_EQ(mh_path("Three"), root_ + "/" + Short(t + 6));
}

TEST_F(MhNames, ValidNames) {
  MakeTree();
  const std::tuple<const char*, bool, bool> cases[] = {
      // name, syntax ok, exists
      {"#mh/Projects", true, true}, {"Projects\\Nosuch", true, false}, {"PROJECTS", true, false},
      {"#dawz/Projects", false, false}, {"{host}INBOX", false, false}, {"", false, false},
      {"#mh/", false, false}, {"Projects\\..", false, false},
  };
  for (const auto& [name, syntax_ok, exists] : cases) {
    errno = 0;
    EXPECT_EQ(mh_valid_name(name, true), syntax_ok) << name;
    EXPECT_TRUE(syntax_ok || errno == EINVAL) << name;
    errno = 0;
    EXPECT_EQ(mh_valid_name(name, false), exists) << name;
    EXPECT_TRUE(exists || errno == (syntax_ok ? ENOENT : EINVAL)) << name;
  }
}

// Listing every folder, and the subscribed ones that still exist.
TEST_F(MhNames, ListingSkipsMessagesAndPutsInnerFoldersFirst) {
  MakeTree();
  WriteFile(ProjectsDir() + "/1", "x");
  WriteFile(ProjectsDir() + "/2.st", "12345678");
  fs::create_directory(ProjectsDir() + "/123");  // a number is a message's name, never a folder's
  fs::create_directory(ProjectsDir() + "/handmade");
  for (const std::string& name : {std::string("#mh/Projects"), std::string(kUnicode), std::string("Gone"), Cafe()})
    EXPECT_EQ(mh_subscribe(nullptr, name.c_str()), 1) << name;
  EXPECT_EQ(ReadFile(home_ + "/subscrib.dat"), "Projects\n" + std::string(kUnicode) + "\nGone\n" + Cafe() + "\n");
  EXPECT_EQ(mh_unsubscribe(nullptr, "#MH/Projects"), 1);

  const std::string cafe = Cafe(), deep = Deep();
  const std::tuple<void (*)(MailStream*, const char*), const char*, Names> cases[] = {
      {mh_find_all, "*", {deep, cafe, "Projects\\handmade", "Projects", kUnicode}},
      {mh_find_all, "%", {"Projects", kUnicode}},
      {mh_find_all, "Projects\\%", {cafe, "Projects\\handmade"}},
      {mh_find_all, "#mh/P*", {deep, cafe, "Projects\\handmade", "Projects"}},
      {mh_find_all, "Ü*", {kUnicode}},
      {mh_find_all, "Nosuch\\*", {}},
      {mh_find_all, "#dawz/*", {}},
      {mh_find, "*", {kUnicode, cafe}},
      {mh_find, "#mh/P*", {cafe}},
      {mh_find, "{host}*", {}},
  };
  for (const auto& [find, pattern, folders] : cases) {
    mail_env_clear();
    find(nullptr, pattern);
    Names listed;
    for (const std::string& l : EnvLines("mailbox")) {
      EXPECT_EQ(l.substr(l.size() - 5), " \\ ()") << pattern;
      listed.push_back(l.substr(0, l.size() - 5));
    }
    EXPECT_EQ(listed, folders) << pattern;
    EXPECT_EQ(EnvLogs(2), "") << pattern;
  }
}

TEST_F(MhNames, DeleteTakesMessagesAndCacheFilesAndNoForeignFile) {
  const std::tuple<Names, bool, Names> cases[] = {
      // files besides mh_index.dat and mh_cache.dat, removed, what is left
      {Names{}, true, Names{}},
      {Names{"1", "2", "2.st", "17.st", ",3", "mh_updat.dat", "mh_index.bak", "mh_cache.new"}, true, Names{}},
      // notes.txt takes MHtes.txt with it, by the same rule.
      {Names{"notes.txt", "MHtes.txt", "MH"}, false, Names{"notes.txt"}},
  };
  for (const auto& [files, removed, left] : cases) {
    mail_env_clear();
    ASSERT_EQ(mh_create(nullptr, "Doomed"), 1) << EnvLogs(2);
    const std::string dir = mh_path("Doomed");
    for (const std::string& f : files) WriteFile(dir + "/" + f, "data");
    EXPECT_EQ(mh_delete(nullptr, "#mh/Doomed"), removed ? 1 : 0);
    if (removed) {
      EXPECT_FALSE(fs::exists(dir));
      EXPECT_EQ(ReadFile(root_ + "/mhname.dat"), "");
      EXPECT_FALSE(mh_valid_name("Doomed", false));
      EXPECT_EQ(EnvLogs(2), "");
      continue;
    }
    EXPECT_EQ(EnvLogs(2), "Could not delete mailbox directory " + dir + " - Directory not empty\n");
    Names there;
    for (const auto& e : fs::directory_iterator(dir)) there.push_back(e.path().filename());
    EXPECT_EQ(there, left);
    // What is left still has its name, and can be deleted once emptied.
    EXPECT_TRUE(mh_valid_name("Doomed", false));
    fs::remove(dir + "/notes.txt");
    EXPECT_EQ(mh_delete(nullptr, "Doomed"), 1) << EnvLogs(2);
  }
  // A folder with inner folders stays, and they keep their names.
  MakeTree();
  EXPECT_EQ(mh_delete(nullptr, "Projects"), 0);
  EXPECT_EQ(EnvLogs(2), "Could not delete mailbox directory " + ProjectsDir() + " - Directory not empty\n");
  mh_forget_paths();
  EXPECT_TRUE(mh_valid_name(Deep().c_str(), false));
  EXPECT_FALSE(fs::exists(ProjectsDir() + "/mh_index.dat"));
}

// In place only the name changes; to another parent the directory moves,
// never onto one of the same short name there.
TEST_F(MhNames, RenameKeepsTheDirectoryAndItsInnerFolders) {
  MakeTree();
  const ino_t dir = Stat(CafeDir()).st_ino;
  ASSERT_EQ(mh_rename(nullptr, Cafe().c_str(), "#mh/Projects\\Archive"), 1) << EnvLogs(2);
  EXPECT_EQ(mh_path("Projects\\Archive"), CafeDir());
  EXPECT_EQ(Stat(CafeDir()).st_ino, dir);
  EXPECT_EQ(ReadFile(ProjectsDir() + "/mhname.dat"), "Archive#" + Dir(1) + "\n");
  EXPECT_FALSE(mh_valid_name(Cafe().c_str(), false));

  const std::string target = std::string(kUnicode) + "\\Moved";
  ASSERT_EQ(mh_rename(nullptr, "Projects\\Archive", target.c_str()), 1) << EnvLogs(2);
  const std::string moved = root_ + "/" + Dir(3) + "/" + Dir(1);
  EXPECT_EQ(mh_path(target.c_str()), moved);
  EXPECT_EQ(Stat(moved).st_ino, dir);
  EXPECT_FALSE(fs::exists(CafeDir()));
  EXPECT_EQ(ReadFile(ProjectsDir() + "/mhname.dat"), "");
  EXPECT_EQ(ReadFile(root_ + "/" + Dir(3) + "/mhname.dat"), "Moved#" + Dir(1) + "\n");
  EXPECT_TRUE(mh_valid_name((target + "\\" + kLong).c_str(), false));

  fs::create_directory(root_ + "/" + Dir(1));
  ASSERT_EQ(mh_rename(nullptr, target.c_str(), "Top"), 1) << EnvLogs(2);
  const std::string top = mh_path("Top");
  EXPECT_NE(top, root_ + "/" + Dir(1));
  EXPECT_EQ(Stat(top).st_ino, dir);
}

TEST_F(MhNames, NameFileLinesAndLimits) {
  fs::create_directories(root_);
  const std::string plain = Short(1767225600);
  WriteFile(root_ + "/mhname.dat",
            "Plain#" + plain + "\r\nno hash here\n" + std::string(1100, 'y') + "#Hidden#x\n" +
                "Split#26000000.002#tail\n#26000000.003\n" +
                std::string("Nul\0junk#26000000.005\n", 22) +  // listed as "Nul", so found as "Nul"
                "Empty#\nUp#..\nOut#../elsewhere\nHere#.\n" +  // would lead outside the folder
                "Last#26000000.004");                          // no line feed at the end
  const std::pair<const char*, const char*> found[] = {
      {"Plain", plain.c_str()}, {"Split", "26000000.002#tail"}, {"Last", "26000000.004"}, {"Nul", "26000000.005"},
  };
  for (const auto& [long_name, short_name] : found) {
    mh_forget_paths();
    std::string out = "junk";
    EXPECT_EQ(mh_name_to_dir(long_name, &out, root_), 1) << long_name;
    EXPECT_EQ(out, short_name) << long_name;
  }
  for (const char* missing : {"Empty", "Up", "Out", "Here", "no hash here", "Hidden", "plain", ""}) {
    mh_forget_paths();
    std::string out = "junk";
    EXPECT_EQ(mh_name_to_dir(missing, &out, root_), 0) << missing;
    EXPECT_EQ(out, missing);
  }
  std::string out;
  EXPECT_EQ(mh_dir_to_name("26000000.004", &out, root_), 1);
  EXPECT_EQ(out, "Last");
  EXPECT_EQ(mh_dir_to_name("26000000.009", &out, root_), 0);
  EXPECT_EQ(out, "26000000.009");
  EXPECT_EQ(EnvLogs(1) + EnvLogs(2), "");

  // A new name starts a line of its own, and never takes a short name the
  // file has already (Plain's, though it has no directory); removing a
  // name keeps every other.
  std::string made;
  g_times = {1767225600, 1767225601};
  ASSERT_TRUE(mh_name_create(root_, "New", &made));
  EXPECT_EQ(made, Short(1767225601));
  ASSERT_TRUE(mh_name_create(root_, "New", &out));
  EXPECT_EQ(out, made);
  ASSERT_TRUE(mh_name_delete(root_, "Plain"));
  EXPECT_EQ(ReadFile(root_ + "/mhname.dat"),
            "Split#26000000.002#tail\n#26000000.003\nNul#26000000.005\nLast#26000000.004\nNew#" + made + "\n");
  EXPECT_EQ(Mode(root_ + "/mhname.dat"), 0600u);
  ASSERT_TRUE(mh_name_delete(root_, "Nosuch"));
  ASSERT_TRUE(mh_name_delete(root_ + "/nowhere", "Nosuch"));
}

TEST_F(MhNames, EveryFailureSaysWhy) {
  MakeTree();
  const std::string root = root_, projects = ProjectsDir(), stale = Short(1700000000);
  const std::string nowhere = root + "/Nosuch/mhname.dat - No such file or directory";
  const std::string bad_char = "Invalid character (one of '\\/:#') in folder name: ";
  auto create = [](const char* name) { return [name] { return mh_create(nullptr, name); }; };
  auto rename = [](const char* from, const char* to) { return [from, to] { return mh_rename(nullptr, from, to); }; };
  auto lookup = [](const char* name, std::string parent) {
    return [name, parent]() -> long {
      std::string s;
      return mh_name_to_dir(name, &s, parent);
    };
  };
  // A name whose directory is missing, created again with a fault: the
  // name, once looked up, needs no file opened.
  auto create_stale = [root, stale](SafeStep step, long nth) {
    return [=] {
      fs::remove_all(root + "/" + stale);
      const std::string names = ReadFile(root + "/mhname.dat");
      if (names.find("Stale#") == std::string::npos) WriteFile(root + "/mhname.dat", names + "Stale#" + stale + "\n");
      mh_forget_paths();
      std::string s;
      mh_name_to_dir("Stale", &s, root);
      safe_fail_from_for_test(step, nth, EMFILE);
      return mh_create(nullptr, "Stale");
    };
  };
  const std::tuple<const char*, std::function<long()>, std::string, long> cases[] = {
      {"remote", create("{host}x"), "Can't create mailbox {host}x: invalid mailbox name", 2},
      {"colon", create("a:b"), bad_char + "a:b.", 2},
      {"lookup", lookup("a:b", "/tmp"), bad_char + "a:b.", 2},
      {"exists", create("Projects"), "Can't create mailbox Projects: mailbox already exists", 2},
      {"no parent", create("Nosuch\\x"), "Failed to open MH folder name database: " + nowhere, 2},
      {"directory taken",
       [&] {
         WriteFile(root + "/mhname.dat", ReadFile(root + "/mhname.dat") + "Stale#" + stale + "\n");
         WriteFile(root + "/" + stale, "a file");
         return mh_create(nullptr, "Stale");
       },
       "Can't create mailbox directory: " + root + "/" + stale + " - File exists", 2},
      {"index", create_stale(kSafeOpen, 1),
       "Failed to open new index file during MH cache initialization - Too many open files", 2},
      {"cache", create_stale(kSafeOpen, 2),
       "Failed to open new cache file during MH cache initialization - Too many open files", 2},
      {"name file is a directory",
       [&] { return fs::create_directories(root + "/x/mhname.dat"), lookup("y", root + "/x")(); },
       "Failed to open MH folder name database: " + root + "/x/mhname.dat", 1},
      {"list", [&] { return mh_list_dir(root + "/Nosuch", "", "*"), 0L; },
       "Failed to open mailbox directory " + root + "/Nosuch - No such file or directory", 2},
      {"delete missing", [] { return mh_delete(nullptr, "Nosuch"); },
       "Could not delete mailbox Nosuch: no such mailbox", 2},
      {"rename missing", rename("Nosuch", "Other"), "Could not rename mailbox Nosuch: no such mailbox", 2},
      {"rename onto", rename("Projects", kUnicode),
       std::string("Can't rename to mailbox ") + kUnicode + ": destination already exists", 2},
      {"rename nowhere", rename("Projects", "Nosuch\\x"),
       "Failed to open MH folder name database: " + nowhere +
           "\nCould not add new mailbox name Nosuch\\x to name database.", 2},
      {"rename into itself", rename("Projects", "Projects\\Inside"),
       "Could not rename mailbox directory name " + projects + " - Invalid argument", 2},
      {"old name stays",
       [&] { return fs::create_directory(root + "/mhname.new"), mh_rename(nullptr, kUnicode, "Renamed"); },
       "Failed to open MH folder name database: " + root + "/mhname.new - File exists\n" +
           "Could not delete old mailbox name " + kUnicode + " from name database.", 2},
  };
  for (const auto& [what, run, logged, level] : cases) {
    mail_env_clear();
    EXPECT_EQ(run(), 0) << what;
    safe_clear_faults_for_test();
    EXPECT_EQ(EnvLogs(level), logged + "\n") << what;
  }
  // None of that lost a folder.
  mh_forget_paths();
  for (const std::string& name : {std::string("Projects"), Cafe(), Deep(), std::string(kUnicode), std::string("Renamed")})
    EXPECT_TRUE(mh_valid_name(name.c_str(), false)) << name;
  EXPECT_EQ(ReadFile(projects + "/mhname.dat"), std::string(kCafe) + "#" + Dir(1) + "\n");
}

// The subscription database: what reaches the file, what the walk gives,
// and that a failure changes nothing.
class Subscribe : public mh_test::MhTest {
 protected:
  std::string Path(const char* file) { return home_ + "/" + file; }
  void Put(const char* file, const std::string& text) { WriteFile(Path(file), text); }
  // The file's bytes, or "-" when it isn't there.
  std::string Get(const char* file) { return fs::exists(Path(file)) ? ReadFile(Path(file)) : "-"; }
  // One whole walk.
  std::vector<std::string> Walk() {
    std::vector<std::string> names;
    void* state = nullptr;
    while (const char* name = subscribe_next(&state)) names.push_back(name);
    EXPECT_EQ(state, nullptr);
    return names;
  }
};

// What reaches the file, what the walk gives: the walk sees the file as it
// was when it began, and starts again after its end; a rewrite keeps every
// name and drops only empty lines and CRs.
TEST_F(Subscribe, AddRemoveAndWalk) {
  EXPECT_EQ(Walk(), Names{});  // no file yet: no subscriptions, no complaint
  Put("subscrib.dat", "Work\r\n\r\nWork\\2024\n");
  void* state = nullptr;
  EXPECT_STREQ(subscribe_next(&state), "Work");
  EXPECT_EQ(subscribe_add("#dawz/INBOX"), 1);
  EXPECT_STREQ(subscribe_next(&state), "Work\\2024");
  EXPECT_EQ(subscribe_next(&state), nullptr);
  EXPECT_EQ(Get("subscrib.dat"), "Work\nWork\\2024\n#dawz/INBOX\n");
  EXPECT_EQ(Get("subscrib.bak"), "Work\r\n\r\nWork\\2024\n");
  EXPECT_EQ(fs::status(Path("subscrib.dat")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(Walk(), (Names{"Work", "Work\\2024", "#dawz/INBOX"}));
  EXPECT_EQ(subscribe_remove("Work\\2024"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "Work\n#dawz/INBOX\n");
  EXPECT_EQ(subscribe_remove("Work"), 1);
  EXPECT_EQ(subscribe_remove("#dawz/INBOX"), 1);
  EXPECT_EQ(Get("subscrib.dat"), "");
  EXPECT_EQ(Get("subscrib.new"), "-");
  EXPECT_EQ(EnvLines("log"), Names{});
}

TEST_F(Subscribe, RefusalsLeaveTheFileAlone) {
  const std::string before = "Work\nPlay\n";
  const std::tuple<long (*)(const char*), const char*, const char*> rows[] = {
      {subscribe_add, nullptr, "Cannot subscribe to a NULL foldername.\n"},
      {subscribe_remove, nullptr, "Cannot unsubscribe to a NULL foldername.\n"},
      {subscribe_add, "Work", "Already subscribed to mailbox Work"},
      {subscribe_add, "a\nb", "Can't subscribe to mailbox a\nb: invalid name"},
      {subscribe_remove, "work", "Not subscribed to mailbox work"},
  };
  for (const auto& [call, name, message] : rows) {
    SCOPED_TRACE(message);
    Put("subscrib.dat", before);
    mail_env_clear();
    EXPECT_EQ(call(name), 0);
    EXPECT_EQ(EnvLines("log"), Names{message});
    EXPECT_EQ(mail_env_lines().at(0).level, 2);
    EXPECT_EQ(Get("subscrib.dat"), before);
    EXPECT_EQ(Get("subscrib.new"), "-");
  }
}

TEST_F(Subscribe, FaultsAreReportedAndLoseNothing) {
  // subscrib.new can't be made: a directory stands in its place.
  Put("subscrib.dat", "Work\n");
  ASSERT_EQ(::mkdir(Path("subscrib.new").c_str(), 0700), 0);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(subscribe_remove("Work"), 0);
  const std::string fresh = Path("subscrib.new");
  EXPECT_EQ(EnvLines("log"), (Names{"Can't open temporary subscription database file: " + fresh + " - File exists",
                             "Could not open new subscription database file: " + fresh + " - File exists"}));
  EXPECT_EQ(Get("subscrib.dat"), "Work\n");
  ASSERT_EQ(::rmdir(fresh.c_str()), 0);

  // subscrib.dat that can't be read.
  mail_env_clear();
  fs::remove(Path("subscrib.dat"));
  ASSERT_EQ(::mkdir(Path("subscrib.dat").c_str(), 0700), 0);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(subscribe_remove("Play"), 0);
  EXPECT_EQ(Walk(), Names{});
  EXPECT_EQ(EnvLines("log"), (Names{"Failed on read of subscription database: Is a directory",
                             "Failed on read of subscription database: Is a directory",
                             "Failed to open subscription database: " + Path("subscrib.dat") + " - Is a directory\n"}));
  EXPECT_TRUE(fs::is_directory(Path("subscrib.dat")));
  EXPECT_EQ(Get("subscrib.new"), "-");

  // A file far beyond any list of names is refused whole, never cut.
  mail_env_clear();
  fs::remove(Path("subscrib.dat"));
  const std::string huge = std::string(5u << 20, 'x') + "\n";
  Put("subscrib.dat", huge);
  EXPECT_EQ(subscribe_add("Play"), 0);
  EXPECT_EQ(Walk(), Names{});
  EXPECT_EQ(EnvLines("log"), (Names{"Failed on read of subscription database: File too large",
                             "Failed to read subscription database: " + Path("subscrib.dat") + " - File too large n"}));
  EXPECT_EQ(Get("subscrib.dat").size(), huge.size());
}

TEST(LocalPaths, MailboxPath) {
  const std::string before = local_home();
  local_set_home("/home/u/velmar//");
  EXPECT_EQ(local_home(), "/home/u/velmar");
  const std::pair<const char*, const char*> rows[] = {
      {nullptr, "/home/u/velmar/folders"},
      {"", "/home/u/velmar/folders"},
      {"~", "/home/u/velmar/folders"},
      {"Work\\\\\\", "/home/u/velmar/folders/Work"},
      {"~\\\\Work\\Old", "/home/u/velmar/folders/Work/Old"},
      {"\\Work", "/home/u/velmar/folders/Work"},  // the delimiter, not a root
      {"/var/mail\\u/", "/var/mail/u"},
      {"/", "/"},
      {"a~b", "/home/u/velmar/folders/a~b"},
  };
  for (const auto& [name, path] : rows) EXPECT_EQ(mailbox_path(name), path) << (name ? name : "(null)");
  local_set_home("/");
  EXPECT_EQ(mailbox_path("x\\y"), "/folders/x/y");
  local_set_home(before.c_str());  // later tests must not write under "/"
}

TEST(LocalPaths, PatternMatch) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"Work\\2024", "%", false},         {"Work\\2024", "Work\\%", true},  {"Work\\2024\\Q1", "%\\%\\Q1", true},
      {"Work\\2024\\Q1", "%\\Q1", false}, {"Work\\2024\\Q1", "*%Q1", true}, {"Work", "W%k", true},
      {"Work", "w%", false},  // names are case-sensitive
      {"Work", "Wor", false},             {"Wor", "Work", false},           {"", "%", true},
      {"a", "", false},                   {"inbox", "INBOX", true},         {"InBoxes", "IN*", false},
      // "*" before a "%" that fails must still be able to take the rest.
      {"x\\y\\z", "*\\%", true},          {"x\\y\\z", "%\\%", false},
  };
  for (const auto& [name, pattern, match] : rows)
    EXPECT_EQ(local_pattern_match(name, pattern, '\\'), match) << name << " ~ " << pattern;
  EXPECT_TRUE(local_pattern_match("a/b", "%/b", '/'));
  EXPECT_FALSE(local_pattern_match("a/b", "%", '/'));
  EXPECT_FALSE(local_pattern_match(nullptr, "*", '\\'));

  // A pattern made to backtrack: must answer at once.
  std::string pattern;
  for (int i = 0; i < 40; ++i) pattern += "*a%";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(local_pattern_match(std::string(4000, 'a').c_str(), (pattern + "b").c_str(), '\\'));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

// A rewritten file takes the old one's place, which becomes the backup. A
// new file that can't take its place leaves the old one readable under its
// own name, and the new one where it was.
using FileInstall = mh_test::MhTest;

TEST_F(FileInstall, StatesAndAFailedRename) {
  const std::string base = home_ + "/mh_index";
  auto get = [&](const char* suffix) { return fs::exists(base + suffix) ? ReadFile(base + suffix) : "-"; };
  const std::tuple<const char*, const char*, const char*, int, const char*, const char*> rows[] = {
      // .dat, .bak and .new before (null: absent), the result, .dat and .bak after
      {"old", "older", "new", 1, "new", "old"}, {"old", nullptr, "new", 1, "new", "old"},
      {nullptr, "older", "new", 1, "new", "-"}, {"old", "older", nullptr, 0, "old", "old"},
  };
  for (const auto& [dat, bak, fresh, result, dat_after, bak_after] : rows) {
    SCOPED_TRACE(std::string(dat ? dat : "-") + " " + (bak ? bak : "-") + " " + (fresh ? fresh : "-"));
    for (auto [suffix, text] : {std::pair{".dat", dat}, {".bak", bak}, {".new", fresh}}) {
      fs::remove(base + suffix);
      if (text) WriteFile(base + suffix, text);
    }
    errno = 0;
    EXPECT_EQ(file_install(base), result);
    EXPECT_TRUE(result || errno == ENOENT);
    EXPECT_EQ(get(".dat"), dat_after);
    EXPECT_EQ(get(".bak"), bak_after);
    EXPECT_EQ(get(".new"), "-");
  }
  fs::create_directories(base + ".new/inside");
  EXPECT_EQ(file_install(base), 0);
  EXPECT_EQ(get(".dat"), "old");
  EXPECT_TRUE(fs::is_directory(base + ".new/inside"));
}

}  // namespace
