// A fresh model for each message test: a temporary VELMAR_HOME with one
// local service, the model started around the test, MH folders written
// with given raw messages, and a notifier that records the model events in
// the order they came.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/model/mm.h"

struct SeenEvent {
  int type;
  UMI umi;
};

class MessageTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Creates folder and appends the messages, in order; then opens it.
  int WriteFolder(const char* folder, const std::vector<std::string>& messages);
  // Closes the folder (all its uses) and opens it again.
  int Reopen(int id);
  // The events seen since the last call, and forgets them.
  std::vector<SeenEvent> TakeEvents();
  std::vector<int> TakeEventTypes();

  std::string TraceText() const;
  bool Traced(const std::string& line) const { return TraceText().find(line) != std::string::npos; }
  static std::string ReadFile(const std::string& path);
  static bool Exists(const std::string& path);
  // Names of the files in the temporary directory.
  static std::vector<std::string> TempFiles();

  std::string home_;
  int local_ = INVALID_SERVICE;
  int recorder_ = -1;
  std::vector<SeenEvent> events_;
};
