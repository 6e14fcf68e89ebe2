#include "tests/model/model_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "c-client/mh/mh_names.h"
#include "c-client/rfc822/strsrc.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"

namespace fs = std::filesystem;

EventRecorder::EventRecorder() { id_ = MM_NotRegister(Want, Handle, this, "recorder"); }
EventRecorder::~EventRecorder() {
  if (id_ >= 0 && MM_NotActive()) MM_NotUnregister(id_);
}

void EventRecorder::Handle(ModelEvent* ev, void* self) {
  auto* r = static_cast<EventRecorder*>(self);
  auto text = [](const char* s) { return std::string(s ? s : ""); };
  r->events_.push_back(RecordedEvent{ev->type, ev->umi, ev->ms, ev->folder, ev->value, ev->from_ms, ev->to_ms,
                                     text(ev->name), text(ev->old_name), text(ev->new_name)});
  if (r->on_event_) r->on_event_(*ev);
}

std::vector<int> EventRecorder::Types(const std::vector<int>& only) const {
  std::vector<int> out;
  for (const RecordedEvent& e : events_)
    if (only.empty() || std::find(only.begin(), only.end(), e.type) != only.end()) out.push_back(e.type);
  return out;
}

void ModelTest::SetUp() {
  char tmpl[] = "/tmp/velmar-model-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  home_ = std::string(tmpl) + "/home";
  fs::create_directories(home_);
  setenv("VELMAR_HOME", home_.c_str(), 1);
  setenv("VELMAR_APPDIR", VELMAR_SOURCE_DATA_DIR, 1);
  unsetenv("MAILHOST");
  xvt_test_reset();
  xvt_test_set_unexpected_handler([this](const XvtPost& p) { unexpected_.push_back(p.kind + ": " + p.text); });
  ResetDirectories();
  ASSERT_EQ(InitDirectories(), 1);
  TraceSetThreshold(kTraceAll);
  TraceSetSubsystem(0xFFFFFFFFu);
  TraceStart((home_ + "/debug.txt").c_str());
  // Short folder directory names come from a clock; a ticking one spares
  // the wait for the next second.
  mh_set_clock_for_test([] {
    static long now = 1700000000;
    return ++now;
  });
  ASSERT_EQ(Opt_Init(), 1);
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
  ASSERT_EQ(MM_Init(), 1);
  local_ = MM_MSNew(1);
  ASSERT_NE(local_, INVALID_SERVICE);
}

void ModelTest::TearDown() {
  MM_Shutdown(0);
  Opt_Shutdown();
  mh_set_clock_for_test(nullptr);
  TraceEnd();
  TraceSetThreshold(kTraceCritical);
  for (const std::string& u : unexpected_) ADD_FAILURE() << "unexpected dialog: " << u;
  xvt_test_reset();
  ResetDirectories();
  if (::chdir("/tmp") != 0) perror("chdir");
  std::error_code ec;
  fs::remove_all(fs::path(home_).parent_path(), ec);
}

void ModelTest::AppendMessage(const std::string& folder, const std::string& subject) {
  std::string text = "From: a@example.org\r\nTo: b@example.org\r\nSubject: " + subject +
                     "\r\nDate: Mon, 1 Jan 2024 10:00:00 +0000\r\n\r\nbody of " + subject + "\r\n";
  StringSource source;
  string_init(&source, &mail_string, text.data(), text.size());
  ASSERT_EQ(mail_append_simple(nullptr, folder.c_str(), &source), 1) << folder;
}

void ModelTest::MakeFolder(const std::string& name, int n) const {
  ASSERT_EQ(mail_create(nullptr, name.c_str()), 1) << name;
  for (int i = 1; i <= n; ++i) AppendMessage(name, "message " + std::to_string(i));
}

long ModelTest::CountOnDisk(const std::string& name) {
  MailStream* stream = mail_open(nullptr, name.c_str(), OP_SILENT | OP_READONLY);
  if (!stream) return -1;
  const long n = static_cast<long>(stream->nmsgs);
  mail_close(stream);
  return n;
}

void ModelTest::WithTaskWindow(const std::function<void()>& fn) {
  xvt_test_set_run_hook(fn);
  xvt_app_create(0, nullptr, 0, [](WINDOW, EVENT*) -> long { return 0; }, nullptr);
  xvt_test_set_run_hook(nullptr);
}

std::string ModelTest::ReadFile(const std::string& path) const {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

void ModelTest::WriteFile(const std::string& path, const std::string& text) const {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string ModelTest::Posts() {
  std::string out;
  for (const XvtPost& p : xvt_test_posts()) out += p.kind + ": " + p.text + "\n";
  return out;
}
