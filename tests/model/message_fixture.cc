#include "tests/model/message_fixture.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "c-client/core/mail.h"
#include "c-client/mh/mh_names.h"
#include "c-client/rfc822/strsrc.h"
#include "src/base/cenv.h"
#include "src/base/filenames.h"
#include "src/base/model_events.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "xvt/xvt_test.h"

namespace fs = std::filesystem;

namespace {

std::vector<SeenEvent>* g_events = nullptr;

// Folder directories are named by the clock; one that moves on at each
// question makes folders without waiting for the next second.
long g_now = 2000000000;
long TestClock() { return ++g_now; }

int WantMessageEvents(ModelEvent* ev, void*) { return ev->type <= E_SHADOW_RELEASED; }
void RecordEvent(ModelEvent* ev, void*) {
  if (g_events) g_events->push_back({ev->type, ev->umi});
}

}  // namespace

void MessageTest::SetUp() {
  char tmpl[] = "/tmp/velmar-msg-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  home_ = tmpl;
  setenv("VELMAR_HOME", home_.c_str(), 1);
  setenv("VELMAR_APPDIR", VELMAR_SOURCE_DATA_DIR, 1);
  xvt_test_reset();
  ResetDirectories();
  ASSERT_EQ(InitDirectories(), 1);
  char* argv[] = {const_cast<char*>("velmar"), nullptr};
  ASSERT_EQ(CENV_Init(1, argv), 1);
  ASSERT_EQ(Opt_Init(), 1);
  TraceSetThreshold(kTraceAll);
  TraceSetSubsystem(0xFFFFFFFFu);
  TraceStart((home_ + "/debug.txt").c_str());
  mh_set_clock_for_test(TestClock);
  mh_forget_paths();
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
  ASSERT_EQ(MM_Init(), 1);
  local_ = MM_MSNew(1);
  ASSERT_NE(local_, INVALID_SERVICE);
  g_events = &events_;
  recorder_ = MM_NotRegister(WantMessageEvents, RecordEvent, nullptr, "message test recorder");
}

void MessageTest::TearDown() {
  g_events = nullptr;
  MM_Shutdown(0);
  Opt_Shutdown();
  TraceEnd();
  mh_set_clock_for_test(nullptr);
  mh_forget_paths();
  xvt_test_reset();
  ResetDirectories();
  if (::chdir("/tmp") != 0) perror("chdir");
  std::error_code ec;
  fs::remove_all(home_, ec);
}

int MessageTest::WriteFolder(const char* folder, const std::vector<std::string>& messages) {
  EXPECT_TRUE(mail_create(nullptr, folder)) << folder;
  for (const std::string& m : messages) {
    std::string text = m;
    StringSource source;
    string_init(&source, &mail_string, text.data(), text.size());
    EXPECT_TRUE(mail_append(nullptr, folder, nullptr, nullptr, &source)) << folder;
  }
  const int id = MM_FolOpen(local_, folder);
  EXPECT_NE(id, INVALID_FOLDER) << folder;
  return id;
}

int MessageTest::Reopen(int id) {
  const std::string name = MM_FolGetName(id);
  const int ms = MM_FolGetService(id);
  MM_FolClose(id, 1);
  return MM_FolOpen(ms, name.c_str());
}

std::vector<SeenEvent> MessageTest::TakeEvents() {
  std::vector<SeenEvent> out;
  out.swap(events_);
  return out;
}

std::vector<int> MessageTest::TakeEventTypes() {
  std::vector<int> out;
  for (const SeenEvent& e : TakeEvents()) out.push_back(e.type);
  return out;
}

std::string MessageTest::TraceText() const { return ReadFile(home_ + "/debug.txt"); }

std::string MessageTest::ReadFile(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

bool MessageTest::Exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> MessageTest::TempFiles() {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(GetTempDir(), ec)) {
    const std::string name = e.path().filename().string();
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".tmp") == 0) out.push_back(name);
  }
  return out;
}
