#include "fakes/temporary_folder.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace vemk {

temporary_folder::temporary_folder()
    : folder((std::filesystem::temp_directory_path() / "vemk-test-XXXXXX").string()) {
  if (mkdtemp(folder.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), folder);
}

temporary_folder::~temporary_folder() {
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
}

std::string temporary_folder::file(const std::string &name) const {
  return folder + "/" + name;
}

std::string temporary_folder::write(const std::string &name, const std::string &bytes) const {
  std::ofstream stream(file(name), std::ios::binary);
  stream.exceptions(std::ios::failbit | std::ios::badbit);
  stream << bytes << std::flush;
  return file(name);
}

std::string temporary_folder::read(const std::string &name) const {
  std::ifstream stream(file(name), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

} // namespace vemk
