#include "worker/buffer_info.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "worker/buffer_log.h"

namespace vemk {

namespace {

constexpr std::int32_t bytes_per_line = 32;

// A message of this many full lines or more is listed without its middle: the first lines, the
// notice, the last lines.
constexpr std::int32_t long_message_lines = 401;
constexpr std::int32_t listed_first = 50;
constexpr std::int32_t listed_last = 49;

constexpr char heading[] = "Buffer info dump:\n";
constexpr char skip_notice[] = "\t....part of message are skipped...\n";

// Tab; "FFFFFFxx " for every byte; gap; every byte a doubled percent sign; line end.
constexpr std::size_t widest_line = 1 + bytes_per_line * 9 + 4 + bytes_per_line * 2 + 1;

/// Builds the listing in a zero-filled block that the caller made large enough.
class listing_writer {
public:
  explicit listing_writer(char *block) : end(block) {}

  void add_text(const char *text) {
    const std::size_t size = strlen(text);
    memcpy(end, text, size);
    end += size;
  }

  void add_line(const std::uint8_t *bytes, std::int32_t count) {
    *end++ = '\t';
    for (std::int32_t i = 0; i < count; ++i)
      add_hex(bytes[i]);
    add_blanks((bytes_per_line - count) * 3 + 4);
    add_characters(bytes, count);
    *end++ = '\n';
  }

private:
  /// The byte as a signed char in "%02X " form: high bytes come out sign-extended.
  void add_hex(std::uint8_t byte) {
    static constexpr char digits[] = "0123456789ABCDEF";
    if (byte >= 0x80)
      add_text("FFFFFF");
    *end++ = digits[byte >> 4];
    *end++ = digits[byte & 0x0F];
    *end++ = ' ';
  }

  void add_blanks(std::int32_t count) {
    memset(end, ' ', static_cast<std::size_t>(count));
    end += count;
  }

  /// The bytes as they are. The listing becomes a printf format, so a percent sign must never start
  /// a conversion. Two side by side already print as one; a single one is doubled.
  void add_characters(const std::uint8_t *bytes, std::int32_t count) {
    for (std::int32_t i = 0; i < count; ++i) {
      *end++ = static_cast<char>(bytes[i]);
      if (bytes[i] != '%')
        continue;
      *end++ = '%';
      if (i + 1 < count && bytes[i + 1] == '%')
        ++i;
    }
  }

  char *end;
};

void write_listing(char *block, const std::uint8_t *data, std::int32_t lines, std::int32_t rest) {
  const bool is_long = lines >= long_message_lines;
  listing_writer listing(block);
  listing.add_text(heading);
  for (std::int32_t line = 0; line < lines; ++line) {
    if (is_long && line == listed_first) {
      listing.add_text(skip_notice);
      line = lines - listed_last;
    }
    listing.add_line(data + std::ptrdiff_t{line} * bytes_per_line, bytes_per_line);
  }
  if (rest > 0)
    listing.add_line(data + std::ptrdiff_t{lines} * bytes_per_line, rest);
}

} // namespace

void buffer_info_t::dump() const {
  // The length counts as signed here. From 2^31 on it is negative, and there is no memory for a
  // listing of that many lines.
  const auto signed_length = static_cast<std::int32_t>(length);
  const std::int32_t lines = signed_length / bytes_per_line;
  const std::int32_t rest = signed_length % bytes_per_line;
  if (lines < -1)
    return;

  const std::int32_t full_lines =
      lines >= long_message_lines ? listed_first + listed_last : std::max(lines, 0);
  const std::size_t size =
      sizeof heading + sizeof skip_notice + static_cast<std::size_t>(full_lines + 1) * widest_line;
  const std::unique_ptr<char, decltype(&free)> block(static_cast<char *>(calloc(1, size)), &free);
  if (!block)
    return;

  write_listing(block.get(), data, lines, rest);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  log_debug(buffer_log_module, block.get());
#pragma GCC diagnostic pop
}

} // namespace vemk
