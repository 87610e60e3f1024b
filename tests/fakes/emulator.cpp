#include "fakes/emulator.h"

#include <sstream>

namespace vemk {

std::vector<std::string> run_command(const std::string &path) {
  std::istringstream emulator(VEMK_EMULATOR);
  std::vector<std::string> words;
  for (std::string word; emulator >> word;)
    words.push_back(word);
  words.push_back(path);
  return words;
}

} // namespace vemk

extern "C" int __real_execv(const char *path, char *const argv[]);
extern "C" int __wrap_execv(const char *path, char *const argv[]);

extern "C" int __wrap_execv(const char *path, char *const argv[]) {
  std::vector<std::string> words = vemk::run_command(path);
  if (words.size() == 1)
    return __real_execv(path, argv);
  std::vector<char *> command;
  for (std::string &word : words)
    command.push_back(word.data());
  for (std::size_t i = 1; argv[i] != nullptr; ++i)
    command.push_back(argv[i]);
  command.push_back(nullptr);
  return __real_execv(command.front(), command.data());
}
