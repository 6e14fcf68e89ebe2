// Directories, the file table, temporary names, the file helpers, and the
// readers' refusal of what is not a regular file.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

#include "rclib/safe_file.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/tcl_interp.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

class Files : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    ASSERT_EQ(InitDirectories(), 1);
  }
  static void Reinit() {
    ResetDirectories();
    ASSERT_EQ(InitDirectories(), 1);
  }
};

TEST_F(Files, DirectoriesAndTheFileTable) {
  // What the user writes lives in the user directory, what ships with the program in the application
  // directory, also under the same name.
  const struct { int kind; bool user; const char* name; } cases[] = {
      {3, true, "default.tcl"}, {4, false, "sysdflt.tcl"}, {11, true, "velmar.ini"}, {12, false, "velmar.ini"}};
  for (const auto& c : cases) EXPECT_EQ(get_file_name(c.kind), (c.user ? home_ : appdir_) + "/" + c.name) << c.kind;
  for (int unknown : {15, 100, -1}) EXPECT_EQ(get_file_name(unknown), "") << unknown;
  EXPECT_EQ(get_file_name(17).substr(home_.size()), "/t0.tmp");
  // The user directory is private and current.
  struct stat st;
  ASSERT_EQ(::stat(home_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(std::filesystem::current_path(), home_);
  // Joining never doubles the separator.
  EXPECT_EQ(JoinPath("/a/b/", "c") + JoinPath("/a/b", "c") + JoinPath("", "c") + JoinPath("/", "c"), "/a/b/c/a/b/cc/c");
  setenv("VELMAR_HOME", (home_ + "/").c_str(), 1);
  Reinit();
  EXPECT_EQ(get_file_name(kFileDebug), home_ + "/debug.txt");
  // Without VELMAR_HOME: $XDG_DATA_HOME/velmar, else ~/.local/share/velmar.
  const std::string root = home_ + "/roots", old_home = getenv("HOME") ? getenv("HOME") : "";
  unsetenv("VELMAR_HOME");
  setenv("XDG_DATA_HOME", (root + "/xdg").c_str(), 1);
  Reinit();
  EXPECT_EQ(GetUserDir(), root + "/xdg/velmar");
  unsetenv("XDG_DATA_HOME");
  setenv("HOME", (root + "/home/").c_str(), 1);
  Reinit();
  EXPECT_EQ(GetUserDir(), root + "/home/.local/share/velmar");
  setenv("HOME", old_home.c_str(), 1);
}

TEST_F(Files, TemporaryAndBackupNames) {
  SetTempCounterForTest(0);
  WriteFile(home_ + "/t0.tmp", "");
  WriteFile(home_ + "/t1.tmp", "");
  EXPECT_EQ(NewTempName(), "t2.tmp");
  EXPECT_EQ(NewTempName(), "t3.tmp");
  SetTempCounterForTest(9999999);
  WriteFile(home_ + "/t9999999.tmp", "");
  ::unlink((home_ + "/t1.tmp").c_str());
  EXPECT_EQ(NewTempName(), "t1.tmp");  // wrapped past two existing names
  // Only the last extension of the file itself is cut.
  const struct { const char *in, *out; } cases[] = {
      {"/a.b/file", "/a.b/file.bak"}, {"x.tcl", "x.bak"},    {"/u/default.tcl", "/u/default.bak"},
      {"a.b.c", "a.b.bak"},           {"noext", "noext.bak"}, {"/dir.d/.hidden", "/dir.d/.bak"}};
  for (const auto& c : cases) EXPECT_EQ(MakeBackupName(c.in), c.out) << c.in;
}

TEST_F(Files, EnsureDirectory) {
  EXPECT_EQ(EnsureDirectory((home_ + "/made///").c_str()), 1);
  EXPECT_TRUE(std::filesystem::is_directory(home_ + "/made"));
  EXPECT_EQ(EnsureDirectory((home_ + "/made").c_str()), 1);
  WriteFile(home_ + "/plain", "x");
  EXPECT_EQ(EnsureDirectory((home_ + "/plain").c_str()), 0);
  EXPECT_EQ(EnsureDirectory((home_ + "/missing/deeper").c_str()), 0);
  EXPECT_EQ(EnsureDirectory(""), 0);
}

// Copies and backups are written whole through the safe writer: a failure at any step leaves the target as it was,
// and no temporary behind.
TEST_F(Files, CopiesReplaceWholeFilesOrNothing) {
  const std::string src = home_ + "/src.tcl", dst = home_ + "/dst", none = home_ + "/none";
  WriteFile(src, "0123456789");
  ::chmod(src.c_str(), 0640);
  ASSERT_EQ(CopyFileSectionToFile(src.c_str(), 3, 4, dst.c_str()), 1);
  EXPECT_EQ(CopyFileSectionToFile(src.c_str(), 8, 4, dst.c_str()), 0);  // past the end
  EXPECT_EQ(CopyFile(src.c_str(), dst.c_str(), 1), 0);                  // keeps an existing target
  for (SafeStep step : {kSafeOpen, kSafeWrite, kSafeSync, kSafeRename}) {
    safe_fail_from_for_test(step, 1, EIO);
    EXPECT_EQ(CopyFile(src.c_str(), dst.c_str(), 0), 0) << safe_step_name(step);
    EXPECT_EQ(CopyFileSectionToFile(src.c_str(), 0, 2, dst.c_str()), 0) << safe_step_name(step);
    EXPECT_EQ(CheckWorkingDir(), step == kSafeOpen ? 0 : 1) << safe_step_name(step);
    safe_clear_faults_for_test();
  }
  EXPECT_EQ(ReadFile(dst), "3456");
  ASSERT_EQ(BackupFile(src.c_str()), 1);
  ASSERT_EQ(CopyFile(src.c_str(), dst.c_str(), 0), 1);
  EXPECT_EQ(ReadFile(dst), "0123456789");
  EXPECT_EQ(ReadFile(home_ + "/src.bak"), "0123456789");
  struct stat st;
  ASSERT_EQ(::stat(dst.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  std::set<std::string> names;
  for (auto& e : std::filesystem::directory_iterator(home_)) names.insert(e.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{"dst", "src.bak", "src.tcl"}));

  std::string data;
  EXPECT_TRUE(SlurpFile(src.c_str(), &data));
  EXPECT_EQ(data, "0123456789");
  EXPECT_FALSE(SlurpFile(src.c_str(), &data, 5));
  EXPECT_FALSE(SlurpFile(none.c_str(), &data));
  FILE* out = std::fopen(dst.c_str(), "wb");
  ASSERT_TRUE(out);
  EXPECT_EQ(AppendFile(out, src.c_str(), 0) + AppendFile(out, none.c_str(), 1) + AppendFile(out, none.c_str(), 0), 2);
  std::fclose(out);
  EXPECT_EQ(ReadFile(dst), "0123456789");
}

// A FIFO, or anything that is not a regular file, where the program expects
// one of its files: every reader refuses it at once instead of waiting
// forever for a writer (or a reader) that never comes.
using HostileFiles = FrameTest;

TEST_F(HostileFiles, AFifoInPlaceOfAFileIsRefusedWithoutWaiting) {
  const std::string fifo = home_ + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    const char* what;
    std::function<bool()> refused;
  } rows[] = {
      {"option file", [&] { return Opt_LoadFromTCL(fifo.c_str()) == 0; }},
      {"whole-file read", [&] {
         std::string text;
         return !SlurpFile(fifo.c_str(), &text);
       }},
      {"copy source", [&] { return CopyFile(fifo.c_str(), (home_ + "/copy").c_str(), 0) == 0; }},
      {"script", [&] {
         TclCreate(NULL_WIN, nullptr, nullptr);
         std::string error;
         const bool refused = TclEvalFile(fifo.c_str(), &error) == 0 && error.find("not a regular file") != std::string::npos;
         TclDestroy();
         return refused;
       }},
      {"trace file", [&] {
         TraceStart(fifo.c_str());
         Trace(kTraceFrame, kTraceCritical, "not into the FIFO\n");
         return true;
       }},
      {"velmar.ini", [&] {
         const std::string ini = get_file_name(kFileUserIni);
         ::unlink(ini.c_str());
         if (::mkfifo(ini.c_str(), 0600) != 0) return false;
         CENV_LoadInitFile();
         return CENV_GetConfigName(0) == nullptr;
       }},
  };
  for (const auto& row : rows) {
    alarm(10);  // a blocked open ends the run here rather than at the suite's time-out
    EXPECT_TRUE(row.refused()) << row.what;
    alarm(0);
  }
  TraceEnd();
}

}  // namespace
