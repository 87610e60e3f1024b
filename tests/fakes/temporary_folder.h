/// A folder of its own for each test that needs real files.
#ifndef VEMK_TESTS_TEMPORARY_FOLDER_H
#define VEMK_TESTS_TEMPORARY_FOLDER_H

#include <string>

namespace vemk {

/// Made empty by the constructor, which throws when it cannot; removed with what is in it by the
/// destructor.
class temporary_folder {
public:
  temporary_folder();
  temporary_folder(const temporary_folder &) = delete;
  temporary_folder &operator=(const temporary_folder &) = delete;
  ~temporary_folder();

  /// Where a file of this name stands or would stand.
  std::string file(const std::string &name) const;

  /// Writes the bytes into a file and returns where it stands.
  std::string write(const std::string &name, const std::string &bytes) const;

  /// The bytes of a file; empty when there is none.
  std::string read(const std::string &name) const;

  const std::string &path() const { return folder; }

private:
  std::string folder;
};

} // namespace vemk

#endif
