// A fresh model for each test: a temporary VELMAR_HOME with one local
// service (ms number 1, "Local"), MM_Init/MM_Shutdown around the test, MH
// folders written on disk, and a recorder of the model events.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "xvt/xvt_test.h"

// One model event as the recorder saw it; borrowed names are copied.
struct Seen {
  int type;
  UMI umi;
  int ms, folder, value, from_ms, to_ms;
  unsigned long msgno;  // MM_UMIMsgno(umi) while the event was posted
  std::string name, old_name, new_name;
};

// A small message with Subject "message <i>".
std::string Numbered(int i);
void Append(const std::string& folder, const std::string& raw);
void MakeFolder(const std::string& name, int n);
void MakeFolder(const std::string& name, const std::vector<std::string>& raws);
// Message count straight from the driver; -1 if the folder can't be opened.
long CountOnDisk(const std::string& name);
// The subject as the model reads it, "(none)" if it can't.
std::string Subject(UMI umi);
std::string ReadFile(const std::string& path);

class ModelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Closes the folder (all its uses) and opens it again.
  static int Reopen(int id);
  // Runs fn with the task window up, so that the progress window exists.
  static void WithTaskWindow(const std::function<void()>& fn);

  // Event types recorded so far, keeping only those in `only` (all if empty).
  std::vector<int> Types(const std::vector<int>& only = {}) const;
  std::vector<int> TakeTypes();
  bool Traced(const std::string& text) const;
  // Kinds and texts of the toolkit's posts, one per line ("error: text").
  static std::string Posts();
  static size_t TempFiles();

  std::string home_;
  int local_ = INVALID_SERVICE;
  std::vector<Seen> seen_;
  // Runs for each event as it is posted.
  std::function<void(const ModelEvent&)> on_event_;
  std::vector<std::string> unexpected_;

 private:
  static void Record(ModelEvent* ev, void* self);
};
