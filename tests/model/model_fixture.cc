#include "tests/model/model_fixture.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "c-client/mh/mh_names.h"
#include "src/model/local_search.h"
#include "c-client/rfc822/strsrc.h"
#include "src/base/filenames.h"
#include "src/base/trace.h"
#include "src/options/options.h"
#include "src/compose/compose.h"
#include "src/send/send.h"

namespace fs = std::filesystem;

void ModelTest::SetUp() {
  ASSERT_FALSE(home_.empty());
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
  // Folder directories are named by the clock; one that moves on at each
  // question spares the wait for the next second.
  mh_set_clock_for_test([] {
    static long now = 1700000000;
    return ++now;
  });
  mh_forget_paths();
  ASSERT_EQ(Opt_Init(), 1);
  Opt_AssignString("MsgService.IDList", "1", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Type", "local", kOptPermanent, 0);
  Opt_AssignString("MsgService.ms1.Name", "Local", kOptPermanent, 0);
  ASSERT_EQ(MM_Init(), 1);
  local_ = MM_MSNew(1);
  ASSERT_NE(local_, INVALID_SERVICE);
  // After the model's own notifier, as a window's would be.
  auto record = [](ModelEvent* ev, void* self) {
    auto* t = static_cast<ModelTest*>(self);
    auto text = [](const char* s) { return std::string(s ? s : ""); };
    t->seen_.push_back(Seen{ev->type, ev->value, ev->to_ms, ev->umi, ev->umi ? MM_UMIMsgno(ev->umi) : 0,
                            text(ev->name), text(ev->old_name), text(ev->new_name)});
    if (t->on_event_) t->on_event_(*ev);
  };
  MM_NotRegister([](ModelEvent* ev, void*) { return int{ev->type != E_OPTION_CHANGED}; }, record, this, "test");
}

void ModelTest::TearDown() {
  MM_Shutdown(0);
  Opt_Shutdown();
  mh_set_clock_for_test(nullptr);
  mh_forget_paths();
  TraceEnd();
  TraceSetThreshold(kTraceCritical);
  for (const std::string& u : unexpected_) ADD_FAILURE() << "unexpected dialog: " << u;
  xvt_test_reset();
  ResetDirectories();
  if (::chdir("/tmp") != 0) perror("chdir");
}

std::string Numbered(int i) {
  const std::string n = std::to_string(i);
  return "From: a" + n + "@example.org\r\nSubject: message " + n +
         "\r\nDate: Mon, 2 Nov 2026 10:00:00 +0000\r\n\r\nbody " + n + "\r\n";
}

void Append(const std::string& folder, const std::string& raw) {
  std::string text = raw;
  StringSource source;
  string_init(&source, &mail_string, text.data(), text.size());
  ASSERT_TRUE(mail_append(nullptr, folder.c_str(), nullptr, nullptr, &source)) << folder;
}

void MakeFolder(const std::string& name, const std::vector<std::string>& raws) {
  ASSERT_TRUE(mail_create(nullptr, name.c_str())) << name;
  for (const std::string& raw : raws) Append(name, raw);
}

void MakeFolder(const std::string& name, int n) {
  std::vector<std::string> raws;
  for (int i = 1; i <= n; ++i) raws.push_back(Numbered(i));
  MakeFolder(name, raws);
}

long CountOnDisk(const std::string& name) {
  MailStream* stream = mail_open(nullptr, name.c_str(), OP_SILENT | OP_READONLY);
  if (!stream) return -1;
  const long n = static_cast<long>(stream->nmsgs);
  mail_close(stream);
  return n;
}

std::string Subject(UMI umi) { return MM_MsgHeaderContent(umi, "Subject").value_or("(none)"); }

std::string LocalSearchNumbers(int folder, const char* text) {
  SearchProgram program;
  std::string why;
  std::vector<UMI> found;
  if (!MM_SearchParseProgram(text, &program, &why) || !MM_FolSearchLocal(folder, program, &found, &why))
    return "refused: " + why;
  std::string numbers;
  for (UMI u : found) numbers += (numbers.empty() ? "" : " ") + std::to_string(MM_UMIMsgno(u));
  return numbers;
}

std::string Title(WINDOW win) {
  char buf[1000] = "";
  return xvt_vobj_get_title(win, buf, sizeof buf) ? buf : "";
}

std::string Built(WINDOW win) {
  Message* m = mail_newmessage();
  m->envelope = mail_newenvelope();
  std::string out;
  if (fill_envelope(win, m->envelope) && fill_body(win, &m->body)) write_message(&out, m, nullptr, nullptr);
  mail_free_message(&m);
  return out;
}

std::vector<int> ModelTest::Types(const std::vector<int>& only) const {
  std::vector<int> out;
  for (const Seen& e : seen_)
    if (only.empty() || std::find(only.begin(), only.end(), e.type) != only.end()) out.push_back(e.type);
  return out;
}

long ModelTest::Count(const char* folder) const {
  std::string full;
  return MM_CCGenFolName(local_, folder, &full) ? CountOnDisk(full) : -1;
}

size_t ModelTest::TempFiles() {
  size_t n = 0;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(GetTempDir(), ec)) n += e.path().extension() == ".tmp";
  return n;
}
