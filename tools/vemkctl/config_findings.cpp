#include "vemkctl/config_findings.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <optional>
#include <strings.h>
#include <utility>

#include "terminal_text/terminal_text.h"
#include "vemkctl/config_pieces.h"
#include "vemkctl/value_faults.h"

namespace vemk {

namespace {

constexpr unsigned long whole_file = 0;
constexpr std::size_t most_ignored_lines_told = 20;

/// A file may be garbage altogether, so each of these is reported for its first line only.
struct told_once_t {
  bool control_byte = false;
  bool carriage_return = false;
  bool crlf = false;
};

/// A text file has none of these.
bool is_garbage(char byte) {
  return is_ascii_control(byte) && !is_blank(byte);
}

std::string lower_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
  return result;
}

std::size_t edit_distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

/// Without the "=".
std::string name_of(config_key key) {
  std::string name = text_of(key);
  name.pop_back();
  return name;
}

/// The key that a misspelt one may mean.
std::optional<config_key> nearest_key(const std::string &word) {
  const auto distance = [&](const char *text) { return edit_distance(word + "=", text); };
  const auto *const nearest =
      std::min_element(std::begin(config_key_texts), std::end(config_key_texts),
                       [&](const char *a, const char *b) { return distance(a) < distance(b); });
  const auto key = static_cast<config_key>(nearest - config_key_texts);
  if (distance(*nearest) > std::max<std::size_t>(2, name_of(key).size() / 4))
    return {};
  return key;
}

class config_reader {
public:
  config_findings_t read(std::string_view bytes) {
    check_file(bytes);
    const std::vector<config_piece_t> pieces = cut_into_pieces(bytes);
    for (std::size_t i = 0; i < pieces.size() && !stopped; ++i) {
      check_bytes(pieces[i]);
      check_length(pieces[i]);
      check_piece(pieces[i]);
      if (stopped)
        tell_unread(pieces, i + 1);
    }
    if (ignored_lines > most_ignored_lines_told)
      add(whole_file, std::to_string(ignored_lines - most_ignored_lines_told) +
                          " more lines match no key and are ignored; see that this is the right "
                          "file");
    return std::move(result);
  }

private:
  void add(unsigned long line, std::string text, bool about_service = false) {
    result.findings.push_back({line, std::move(text), about_service});
  }

  void add_if(unsigned long line, const std::string &prefix,
              const std::optional<std::string> &fault, bool about_service = false) {
    if (fault)
      add(line, prefix + *fault, about_service);
  }

  unsigned long &source_line(config_key key) {
    return result.source_lines[static_cast<std::size_t>(key)];
  }

  void check_file(std::string_view bytes) {
    if (bytes.empty())
      add(whole_file, "the file is empty; examples/vemk.conf shows what belongs in it");
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF")
      add(1, "a byte order mark comes before the first column, so that no key matches in this "
             "line; save the file without one");
    if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF")
      add(whole_file, "this looks like UTF-16, in which no key matches; save it as UTF-8");
  }

  void check_bytes(const config_piece_t &piece) {
    const auto control = std::find_if(piece.bytes.begin(), piece.bytes.end(), is_garbage);
    if (control != piece.bytes.end() && !std::exchange(told.control_byte, true)) {
      const bool is_nul = *control == '\0';
      add(piece.line, is_nul ? "a NUL byte hides the rest of the line; see that this is a text file"
                             : "a control byte stands here; see that this is a text file");
    }
    std::string_view text = piece.bytes;
    const bool crlf = text.size() > 1 && text.substr(text.size() - 2) == "\r\n";
    if (crlf && !std::exchange(told.crlf, true))
      add(piece.line, "the line ends in CR LF, which does no harm; save the file with LF alone");
    text.remove_suffix(crlf ? 2 : 0);
    if (text.find('\r') != std::string_view::npos && !std::exchange(told.carriage_return, true))
      add(piece.line, "a carriage return does not end a line; save the file with LF line ends");
  }

  void check_length(const config_piece_t &piece) {
    if (!piece.continues || piece.line == long_line || without_line_end(piece.bytes).empty())
      return;
    long_line = piece.line;
    add(piece.line, "the line is longer than " + std::to_string(longest_piece_bytes) +
                        " bytes, and its rest is read as a new line; make it shorter");
  }

  void check_piece(const config_piece_t &piece) {
    const std::string_view seen = piece.seen();
    for (std::size_t i = 0; i < config_key_count; ++i) {
      const std::string_view key = config_key_texts[i];
      if (strncasecmp(std::string(seen.substr(0, key.size())).c_str(), key.data(), key.size()) == 0)
        return check_value(piece.line, static_cast<config_key>(i),
                           without_line_end(seen.substr(key.size())));
    }
    const bool has_garbage = std::any_of(piece.bytes.begin(), piece.bytes.end(), is_garbage);
    if (!piece.continues && !has_garbage)
      check_ignored(piece.line, without_line_end(seen));
  }

  void check_value(unsigned long line, config_key key, std::string_view value) {
    if (key == config_key::service_url)
      return check_url(line, value);
    add_if(line, name_of(key) + ": ", value_fault(key, value));
    take_source(line, key);
  }

  void check_url(unsigned long line, std::string_view value) {
    const unsigned long earlier = source_line(config_key::service_url);
    const std::string kept =
        earlier == 0 ? "" : "; the one of line " + std::to_string(earlier) + " stays in use";
    const url_faults_t faults = url_faults(value);
    add_if(line, "", faults.host, true);
    add_if(line, "", faults.port, true);
    add_if(line, "", faults.path, true);
    if (faults.scheme)
      add(line, *faults.scheme + kept, true);
    else if (faults.missing_part)
      add(line, *faults.missing_part + kept, true);
    else
      take_source(line, config_key::service_url);
    stopped = faults.scheme.has_value();
  }

  void take_source(unsigned long line, config_key key) {
    const unsigned long earlier = std::exchange(source_line(key), line);
    if (earlier != 0)
      add(line, std::string(text_of(key)) + " is on line " + std::to_string(earlier) +
                    " too, and this later one counts; keep one of them");
  }

  void check_ignored(unsigned long line, std::string_view text) {
    const std::string_view trimmed = without_blanks_around(text);
    if (trimmed.empty() || trimmed.front() == '#' || trimmed.front() == ';')
      return;
    if (++ignored_lines > most_ignored_lines_told)
      return;
    const std::size_t sign = text.find('=');
    const std::string_view before = text.substr(0, sign);
    const std::string word = lower_case(without_blanks_around(before));
    const auto key = nearest_key(word);
    if (key && word == name_of(*key) && sign != std::string_view::npos)
      add(line,
          "blanks before the key or before '=' make the daemon ignore the line; write " +
              std::string(text_of(*key)) + " in the first column",
          key == config_key::service_url);
    else if (key && sign != std::string_view::npos)
      add(line,
          quoted(without_blanks_around(before)) +
              " is not a key, and the line is ignored; did "
              "you mean " +
              text_of(*key) + "?",
          key == config_key::service_url);
    else if (sign != std::string_view::npos)
      add(line, quoted(without_blanks_around(before)) +
                    " is not a key, and the line is ignored; begin it with # if it is a comment");
    else
      add(line, quoted(trimmed) + " is neither KEY=VALUE nor a comment, and the line is ignored; "
                                  "begin it with # if it is a comment");
  }

  void tell_unread(const std::vector<config_piece_t> &pieces, std::size_t first) {
    const auto has_text = [](const config_piece_t &piece) {
      return !without_blanks_around(piece.bytes).empty();
    };
    const auto from =
        std::find_if(pieces.begin() + static_cast<std::ptrdiff_t>(first), pieces.end(), has_text);
    if (from != pieces.end())
      add(from->line, "from here on nothing is read, because of the scheme on line " +
                          std::to_string(pieces[first - 1].line) + "; fix that first");
  }

  config_findings_t result{};
  told_once_t told;
  unsigned long long_line = 0;
  std::size_t ignored_lines = 0;
  bool stopped = false;
};

} // namespace

config_findings_t find_in_config(std::string_view bytes) {
  return config_reader().read(bytes);
}

} // namespace vemk
