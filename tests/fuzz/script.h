/// Inputs that are scripts: a step a line, so that people can write and read what a fuzzer found.
#ifndef VEMK_TESTS_FUZZ_SCRIPT_H
#define VEMK_TESTS_FUZZ_SCRIPT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vemk::fuzz {

/// Reads the words of one line after the other. Every input is a script: what is missing reads as
/// empty or 0, what is out of range as the nearest.
class script_reader {
public:
  script_reader(const std::uint8_t *data, std::size_t size);

  /// Goes to the next line. False when there is none.
  bool next_line();

  /// Whether anything but blanks is left on the line.
  bool has_word();

  /// The next word, which ends at a blank.
  std::string word();

  std::int64_t number(std::int64_t lowest, std::int64_t highest);

  /// The rest of the line, one blank in front of it left out. "\n" stands for a newline, "\0" for a
  /// zero byte, "\\" for a backslash.
  std::string rest();

  /// All lines behind this one, as they are.
  std::string following_lines() const;

private:
  std::string input;
  /// Where the next line begins; npos behind the last one.
  std::size_t next_start;
  std::string line;
  std::size_t position;
};

/// `text` as many times in a row as `times` says, but no more than `largest` bytes.
std::string repeated(const std::string &text, std::int64_t times, std::size_t largest);

} // namespace vemk::fuzz

#endif
