// A generated text written to a fresh temporary folder, with a folder
// beside it for the editor's spill files; removed with the folder.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

struct BenchTextFile {
  std::string dir, spill, path;
  // False when the folder or the file could not be made.
  bool Write(const char* name, const std::string& text) {
    dir = (std::filesystem::temp_directory_path() / (std::string(name) + ".XXXXXX")).string();
    if (!mkdtemp(dir.data())) return false;
    spill = dir + "/spill";
    path = dir + "/text.txt";
    std::filesystem::create_directory(spill);
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (std::fclose(f) != 0 || !ok) return false;
    std::printf("text: %zu bytes, generated\n", text.size());
    return true;
  }
  ~BenchTextFile() {
    if (!dir.empty()) std::filesystem::remove_all(dir);
  }
};
