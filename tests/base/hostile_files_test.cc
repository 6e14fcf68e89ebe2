// A FIFO, or anything that is not a regular file, where the program expects
// one of its files: every reader refuses it at once instead of waiting
// forever for a writer (or a reader) that never comes.
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/tcl_interp.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "tests/support/frame_fixture.h"

namespace {

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
