// Runs a fuzz target over the files named on the command line (or the
// files of the directories named), for builds without libFuzzer.

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

int runFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  int failures = 0;
  int inputs = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat info {};
    if (stat(argv[i], &info) == 0 && S_ISDIR(info.st_mode)) {
      DIR *dir = opendir(argv[i]);
      while (dirent *entry = dir != nullptr ? readdir(dir) : nullptr) {
        if (entry->d_name[0] == '.') continue;
        failures += runFile(std::string(argv[i]) + "/" + entry->d_name);
        ++inputs;
      }
      if (dir != nullptr) closedir(dir);
    } else {
      failures += runFile(argv[i]);
      ++inputs;
    }
  }
  std::printf("%d inputs replayed, %d unreadable\n", inputs, failures);
  return failures == 0 && inputs > 0 ? 0 : 1;
}
