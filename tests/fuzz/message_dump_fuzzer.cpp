/// The input is a message, which is dumped as it is, and once more repeated to a length at which
/// the middle of a listing may be left out. Each listing is held against a formatter of its own:
/// the text handed to the log, and what printf makes of it.

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/expect.h"
#include "fuzz/script.h"
#include "log/log_module.h"
#include "support/buffers.h"
#include "worker/buffer_info.h"
#include "zandor_log.h"

namespace vemk::fuzz {

namespace {

constexpr std::size_t line_size = 32;

/// The listing that must come, up to its end, and what was made of it.
std::string expected_format;
std::vector<std::string> written;

/// What "%02X " makes of every byte, of which a high one is a negative number.
std::vector<std::string> hex_texts() {
  std::vector<std::string> texts;
  for (int byte = 0; byte < 256; ++byte) {
    char text[12];
    snprintf(text, sizeof text, "%02X ", static_cast<unsigned>(static_cast<signed char>(byte)));
    texts.emplace_back(text);
  }
  return texts;
}

/// Adds the characters as a printf format: a pair of percent signs stands, a single one is doubled.
void add_format(std::string &text, std::string_view bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += bytes[i];
    if (bytes[i] == '%') {
      text += '%';
      i += i + 1 < bytes.size() && bytes[i + 1] == '%' ? 1U : 0U;
    }
  }
}

void add_line(std::string &text, std::string_view bytes) {
  static const std::vector<std::string> hex_of = hex_texts();
  text += '\t';
  for (const char byte : bytes)
    text += hex_of[static_cast<unsigned char>(byte)];
  text.append((line_size - bytes.size()) * 3, ' ');
  text += "    ";
  add_format(text, bytes);
  text += '\n';
}

std::string listing_of(std::string_view message) {
  const std::size_t lines = message.size() / line_size;
  std::string text = "Buffer info dump:\n";
  for (std::size_t i = 0; i < lines; ++i) {
    const bool is_skipped = lines > 400 && i >= 50 && i <= lines - 50;
    if (!is_skipped)
      add_line(text, message.substr(i * line_size, line_size));
    else if (i == 50)
      text += "\t....part of message are skipped...\n";
  }
  if (message.size() % line_size > 0)
    add_line(text, message.substr(lines * line_size));
  return text;
}

/// What printf must write: the format up to its first zero byte, with one percent sign for two.
/// Fails when the format holds a conversion.
std::string output_of(const std::string &format) {
  std::string text;
  for (const char *at = format.c_str(); *at != '\0'; ++at) {
    text += *at;
    if (*at == '%')
      expect_equal("the character behind a percent sign", "%", std::string(++at, 1));
  }
  return text;
}

void dump(const std::string &message, std::uint32_t level) {
  g_log_level = level;
  const auto buffer = buffer_of(message);
  expected_format = listing_of(message);
  written.clear();
  buffer->dump();

  std::vector<std::string> expected;
  if ((level & log_category_debug) != 0)
    expected.push_back("buffer-info: " + output_of(expected_format));
  expect_equal("the lines written", expected, written);
  expect_equal("the message afterwards", message, text_of(*buffer));
}

} // namespace

} // namespace vemk::fuzz

extern "C" {

void zandor_log_msg_timed(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  static_cast<void>(va_arg(arguments, int));
  vemk::fuzz::written.push_back(std::string(va_arg(arguments, const char *)) + ": ");
  va_end(arguments);
}

__attribute__((format(printf, 1, 0))) void vzandor_log_msg(const char *format, va_list arguments) {
  using namespace vemk::fuzz;
  // The listing goes on behind a zero byte in the message.
  expect_equal("the listing", expected_format, std::string(format, expected_format.size()));
  expect_equal("the byte behind the listing", 0, static_cast<int>(format[expected_format.size()]));

  std::vector<char> text(expected_format.size() + 1);
  const int length = vsnprintf(text.data(), text.size(), format, arguments);
  expect_equal("whether printf could write the listing", true, length >= 0);
  written.back().append(text.data(), std::min(static_cast<std::size_t>(length), text.size() - 1));
}
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk::fuzz;
  const std::string message(data, data + size);
  dump(message, vemk::log_category_debug);
  dump(message, ~vemk::log_category_debug);
  if (message.empty())
    return 0;

  const std::size_t lines = 390 + data[0] % 128;
  std::string longer =
      repeated(message, static_cast<std::int64_t>(lines * line_size), 2 * lines * line_size);
  longer.resize(lines * line_size + size % line_size, '%');
  dump(longer, vemk::log_category_debug);
  return 0;
}
