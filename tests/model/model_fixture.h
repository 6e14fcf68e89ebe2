// A fresh model for each test: a temporary VELMAR_HOME with the options of
// one local service (ms number 1, "Local"), the model started around the
// test, MH folders made on disk, and a recorder of the model events.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "src/base/model_events.h"
#include "src/model/mm.h"
#include "xvt/xvt_test.h"

// One model event as a notifier saw it; the borrowed names are copied.
struct RecordedEvent {
  int type = 0;
  UMI umi = 0;
  int ms = 0;
  int folder = 0;
  int value = 0;
  int from_ms = 0;
  int to_ms = 0;
  std::string name;
  std::string old_name;
  std::string new_name;
};

// Logs every event posted while it is registered, in order.
class EventRecorder {
 public:
  EventRecorder();
  ~EventRecorder();
  void Clear() { events_.clear(); }
  const std::vector<RecordedEvent>& events() const { return events_; }
  // The types seen, in order, keeping only those in `only` (all if empty).
  std::vector<int> Types(const std::vector<int>& only = {}) const;
  // Runs for each event as it is posted (e.g. to look at the progress window).
  void OnEvent(std::function<void(const ModelEvent&)> fn) { on_event_ = std::move(fn); }

 private:
  static int Want(ModelEvent*, void*) { return 1; }
  static void Handle(ModelEvent* ev, void* self);
  int id_ = -1;
  std::vector<RecordedEvent> events_;
  std::function<void(const ModelEvent&)> on_event_;
};

class ModelTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Makes an MH folder with n small messages (Subject "message <i>").
  void MakeFolder(const std::string& name, int n) const;
  // Appends one message to an MH folder.
  static void AppendMessage(const std::string& folder, const std::string& subject);
  // Message count of an MH folder read straight from the driver; -1 if it
  // can't be opened.
  static long CountOnDisk(const std::string& name);
  // Runs fn with the task window up, so that the progress window exists.
  static void WithTaskWindow(const std::function<void()>& fn);

  std::string ReadFile(const std::string& path) const;
  void WriteFile(const std::string& path, const std::string& text) const;
  std::string TraceText() const { return ReadFile(home_ + "/debug.txt"); }
  // Kinds and texts of the toolkit's posts, one per line ("error: text").
  static std::string Posts();

  std::string home_;
  int local_ = INVALID_SERVICE;  // the service id of ms number 1
  std::vector<std::string> unexpected_;
};
