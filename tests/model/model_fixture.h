// A fresh model for each test: a temporary VELMAR_HOME with one local
// service (ms number 1), MM_Init/MM_Shutdown around the test, MH folders
// written on disk, and a recorder of the model events.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "tests/support/posts.h"
#include "tests/support/scratch_dir.h"
#include "xvt/xvt_test.h"

// A small message with Subject "message <i>".
std::string Numbered(int i);
void Append(const std::string& folder, const std::string& raw);
void MakeFolder(const std::string& name, int n);
void MakeFolder(const std::string& name, const std::vector<std::string>& raws);
// Message count straight from the driver; -1 if the folder can't be opened.
long CountOnDisk(const std::string& name);
std::string Subject(UMI umi);  // as the model reads it, "(none)" if it can't
// The message numbers a local search of folder finds for a program
// ("1 3"), or "refused: <why>" when the program doesn't parse or run.
std::string LocalSearchNumbers(int folder, const char* program);
std::string Title(WINDOW win);  // of a window, or a control's text
// The message Send would build from a compose window, as the writer writes it.
std::string Built(WINDOW win);

// One model event as the recorder saw it; borrowed names are copied.
struct Seen {
  int type, value, to_ms;
  UMI umi;
  unsigned long msgno;  // MM_UMIMsgno(umi) while the event was posted
  std::string name, old_name, new_name;
};

class ModelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The recorded event types, keeping only those in `only` (all if empty).
  std::vector<int> Types(const std::vector<int>& only = {}) const;
  bool Traced(const std::string& text) const { return ReadFile(home_ + "/debug.txt").find(text) != std::string::npos; }
  static size_t TempFiles();
  // Messages in a folder of the local service, counted on disk; -1 for a bad name.
  long Count(const char* folder) const;

  TempDir scratch_{"velmar-model"};
  const std::string home_ = scratch_.path;
  int local_ = INVALID_SERVICE;
  std::vector<Seen> seen_;
  std::function<void(const ModelEvent&)> on_event_;  // runs as each event is posted
  std::vector<std::string> unexpected_;
};
