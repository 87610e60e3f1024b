#include "fuzz/expect.h"

#include <cstdio>
#include <cstdlib>

namespace vemk::fuzz {

namespace {

std::string printable(const std::string &bytes) {
  std::string text = "\"";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    if (value >= ' ' && value <= '~' && byte != '\\' && byte != '"') {
      text += byte;
      continue;
    }
    char escaped[8];
    snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(value));
    text += escaped;
  }
  return text + "\"";
}

void print_list(const char *title, const std::vector<std::string> &entries) {
  fprintf(stderr, "  %s: %zu\n", title, entries.size());
  for (const std::string &entry : entries)
    fprintf(stderr, "    %s\n", printable(entry).c_str());
}

} // namespace

void expect_equal(const char *what, const std::string &expected, const std::string &actual) {
  if (expected == actual)
    return;
  fprintf(stderr, "DIFFERENCE in %s\n  expected: %s\n  actual:   %s\n", what,
          printable(expected).c_str(), printable(actual).c_str());
  abort();
}

void expect_equal(const char *what, const std::vector<std::string> &expected,
                  const std::vector<std::string> &actual) {
  if (expected == actual)
    return;
  fprintf(stderr, "DIFFERENCE in %s\n", what);
  print_list("expected", expected);
  print_list("actual", actual);
  abort();
}

} // namespace vemk::fuzz
