// Runs each file of the corpus directories (or the files named) through the
// fuzz target once: the corpus stays a regression test in every build.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int RunFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(data.data(), data.size());
  return 0;
}

int main(int argc, char** argv) {
  int runs = 0, failures = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (::stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
      return 1;
    }
    if (!S_ISDIR(st.st_mode)) {
      failures += RunFile(argv[i]);
      ++runs;
      continue;
    }
    DIR* d = ::opendir(argv[i]);
    while (struct dirent* e = d ? ::readdir(d) : nullptr) {
      if (e->d_name[0] == '.') continue;
      failures += RunFile(std::string(argv[i]) + "/" + e->d_name);
      ++runs;
    }
    if (d) ::closedir(d);
  }
  std::printf("replayed %d inputs\n", runs);
  return failures || runs == 0 ? 1 : 0;
}
