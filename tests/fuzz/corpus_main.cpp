/// Runs a fuzz target over the files that it is given and those in the folders that it is given,
/// each once: what a fuzzer found stays found without a fuzzer.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

std::vector<std::filesystem::path> files_of(const std::filesystem::path &path) {
  if (!std::filesystem::is_directory(path))
    return {path};
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::directory_iterator(path))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

bool run(const std::filesystem::path &path) {
  // The last name that is printed is that of the input that ended the process.
  fprintf(stderr, "%s\n", path.c_str());
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    fprintf(stderr, "cannot be read\n");
    return false;
  }
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                std::istreambuf_iterator<char>()};
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
  return true;
}

} // namespace

int main(int argc, char **argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &path : files_of(argv[i])) {
      if (!run(path))
        return 1;
      ++count;
    }
  }
  printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
