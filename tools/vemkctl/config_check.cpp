#include "vemkctl/config_check.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "config/config_keys.h"
#include "config/websock_cfg.h"
#include "log/log_module.h"
#include "vemkctl/commands.h"
#include "vemkctl/config_findings.h"
#include "vemkctl/config_pieces.h"
#include "vemkctl/delay_windows.h"
#include "vemkctl/message_format.h"
#include "vemkctl/value_faults.h"

namespace vemk {

namespace {

constexpr std::size_t windows_shown = 5;

/// Seconds; beyond it the delay was probably given in milliseconds.
constexpr std::int64_t longest_plausible_wait = 600;

constexpr std::int64_t largest_number = std::numeric_limits<std::int32_t>::max();

/// As the daemon reads it when it draws a wait.
bool is_negative(std::uint32_t delay) {
  return delay > largest_number;
}

std::string printable(const char *text) {
  return format_message(text, message_format::text, 0);
}

std::string hexadecimal(std::uint32_t value) {
  char text[16];
  snprintf(text, sizeof text, "0x%02X", static_cast<unsigned>(value));
  return text;
}

/// The file's bytes, or the reason why the daemon could not read any.
struct file_content_t {
  std::string bytes;
  std::string fault;
  bool everybody_may_write = false;
};

file_content_t read_file(const std::string &name) {
  struct stat status {};
  if (stat(name.c_str(), &status) != 0)
    return {"", std::string("cannot be opened: ") + std::strerror(errno) + "; name another file"};
  if (S_ISDIR(status.st_mode))
    return {"", "is a folder; name a file in it"};
  if (!S_ISREG(status.st_mode))
    throw io_error(name + " is not a regular file and cannot be read twice; copy it to a file and "
                          "check that");
  errno = 0;
  std::ifstream file(name, std::ios::binary);
  if (!file)
    return {"", std::string("cannot be opened: ") + std::strerror(errno) +
                    "; see that the daemon's user may read it, and check it as that user"};
  return {{std::istreambuf_iterator<char>(file), {}}, "", (status.st_mode & S_IWOTH) != 0};
}

/// The reason why a daemon with this configuration would not connect.
std::optional<std::string> why_unusable(const websock_cfg_t &cfg,
                                        const std::vector<finding_t> &findings) {
  const bool is_explained = std::any_of(findings.begin(), findings.end(),
                                        [](const finding_t &f) { return f.about_service; });
  if (!cfg.url_valid)
    return std::string("the daemon would end at once with status 0, because no line gives it a "
                       "service; ") +
           (is_explained ? "fix the errors above" : "add roam_service_url=ws://HOST:PORT/PATH");
  if (const auto fault = service_fault(cfg.host, cfg.port))
    return "the daemon would start and never connect: " + *fault;
  return {};
}

void add_delay_findings(const websock_cfg_t &cfg, config_findings_t &found) {
  const auto line_of = [&](config_key key) {
    return found.source_lines[static_cast<std::size_t>(key)];
  };
  const auto add = [&](config_key key, const std::string &text) {
    found.findings.push_back({line_of(key), text, false});
  };
  const std::uint32_t initial = cfg.initial_connection_delay;
  const std::uint32_t largest = cfg.max_connection_delay;
  if (largest == 0)
    add(config_key::max_delay,
        std::string(line_of(config_key::max_delay) == 0 ? "without max_connection_delay= the "
                                                          "largest delay is 0"
                                                        : "the largest delay is 0") +
            ", so the wait never grows beyond 2 seconds; give the largest delay in seconds");
  else if (largest == 1)
    add(config_key::max_delay, "the largest delay is 1, so the daemon tries again without a wait; "
                               "give the largest delay in seconds");
  else if (initial > largest && !is_negative(initial))
    add(config_key::initial_delay, "the initial delay " + std::to_string(initial) +
                                       " is above the maximum " + std::to_string(largest) +
                                       ", so only the first wait has it; give one below it");
  if (initial == 0)
    add(config_key::initial_delay,
        std::string(line_of(config_key::initial_delay) == 0 ? "without initial_connection_delay= "
                                                              "the initial delay is 0"
                                                            : "the initial delay is 0") +
            ", which counts as 2 but does not grow at first; give the first delay in seconds");
  const std::int64_t longest = delay_windows(initial, largest, 1).front().high - 1;
  if (longest > longest_plausible_wait && !is_negative(initial))
    add(config_key::initial_delay,
        "the first wait can be " + std::to_string(std::min(longest, largest_number)) +
            " seconds; delays are in seconds, not in milliseconds: give the seconds that are "
            "meant");
}

void add_log_finding(const websock_cfg_t &cfg, config_findings_t &found) {
  if ((cfg.log_level & log_category_debug) != 0)
    found.findings.push_back({found.source_lines[static_cast<std::size_t>(config_key::log_level)],
                              "the debugging category, 8, puts the contents of messages into the "
                              "log; leave it out once the fault is found",
                              false});
}

void add_whole_messages_note(const websock_cfg_t &cfg, config_findings_t &found) {
  if (cfg.whole_messages)
    return;
  found.findings.push_back(
      {found.source_lines[static_cast<std::size_t>(config_key::whole_messages)],
       "without whole_messages=1 a message that the service ends with an empty fragment, as many "
       "do, sticks to the front of the next one; add whole_messages=1",
       false, true});
}

std::string category_names(std::uint32_t level) {
  const std::pair<std::uint32_t, const char *> categories[] = {
      {log_category_error, "error"},
      {log_category_warning, "warning"},
      {log_category_info, "info"},
      {log_category_debug, "debug"},
  };
  std::string names;
  for (const auto &[bit, name] : categories) {
    if ((level & bit) != 0)
      names += std::string(names.empty() ? "" : ", ") + name;
  }
  return names.empty() ? "nothing" : names;
}

std::string windows_text(const websock_cfg_t &cfg) {
  std::string text;
  bool below = false;
  bool beyond = false;
  for (const auto &window :
       delay_windows(cfg.initial_connection_delay, cfg.max_connection_delay, windows_shown)) {
    text += to_text(window) + " ";
    below = below || window.low < 0;
    beyond = beyond || window.high - 1 > largest_number;
  }
  text += "seconds";
  if (below || beyond)
    text += std::string("; ") + (below ? "below 1 " : "") + (below && beyond ? "and " : "") +
            (beyond ? "beyond 2147483647 " : "") + "there is no wait";
  return text;
}

std::string initial_delay_text(std::uint32_t delay) {
  const std::string given = std::to_string(delay);
  return is_negative(delay)
             ? std::to_string(static_cast<std::int32_t>(delay)) + " s (from " + given + ")"
             : given + " s";
}

std::string port_text(std::int32_t port) {
  const std::string given = std::to_string(port);
  const std::string used = std::to_string(connected_port(port));
  return given == used ? used : used + " (from " + given + ")";
}

std::string settings_text(const websock_cfg_t &cfg) {
  std::string text;
  const auto add = [&text](std::string name, const std::string &value) {
    name.resize(16, ' ');
    text += "  " + name + value + "\n";
  };
  if (cfg.url_valid) {
    add("host", printable(cfg.host));
    add("port", port_text(cfg.port));
    add("path", printable(cfg.path));
  }
  add("initial delay", initial_delay_text(cfg.initial_connection_delay));
  add("maximum delay", std::to_string(cfg.max_connection_delay) + " s");
  add("first delays", windows_text(cfg));
  add("log", category_names(cfg.log_level) + " (" + hexadecimal(cfg.log_level) + ")");
  add("location", printable(cfg.ap_location));
  add("whole messages", cfg.whole_messages ? "yes" : "no");
  add("pacing", cfg.event_pacing ? event_pacing_text : default_pacing_text);
  return text;
}

std::string findings_text(const std::string &file, std::vector<finding_t> findings,
                          bool is_unusable) {
  std::stable_sort(findings.begin(), findings.end(),
                   [](const finding_t &a, const finding_t &b) { return a.line < b.line; });
  std::string text;
  for (const finding_t &finding : findings) {
    const std::string line = finding.line == 0 ? "" : std::to_string(finding.line) + ":";
    const char *const severity = finding.is_note                        ? " note: "
                                 : finding.about_service && is_unusable ? " error: "
                                                                        : " warning: ";
    text.append(file).append(":").append(line).append(severity).append(finding.text).append("\n");
  }
  return text;
}

} // namespace

config_check_t check_config(const std::string &file_name) {
  const std::string file = format_message(file_name, message_format::text, 0);
  const file_content_t content = read_file(file_name);
  if (!content.fault.empty())
    return {config_verdict::unusable,
            file + ": error: " + content.fault + "\n" + file +
                ": not usable: the daemon would end at once with status 0\n"};

  websock_cfg_t cfg{};
  read_config_file(cfg, file_name.c_str());
  config_findings_t found = find_in_config(content.bytes);
  if (content.everybody_may_write)
    found.findings.push_back({0,
                              "everybody may write this file, and so choose the service that the "
                              "daemon trusts; close it with chmod o-w",
                              false});
  const auto reason = why_unusable(cfg, found.findings);
  if (reason)
    return {config_verdict::unusable,
            findings_text(file, found.findings, true) + file + ": not usable: " + *reason + "\n"};

  add_delay_findings(cfg, found);
  add_log_finding(cfg, found);
  const std::size_t count = found.findings.size();
  add_whole_messages_note(cfg, found);
  const std::string warnings =
      count == 0 ? "" : ", with " + std::to_string(count) + (count == 1 ? " warning" : " warnings");
  return {count == 0 ? config_verdict::usable : config_verdict::usable_with_warnings,
          findings_text(file, found.findings, false) + file + ": usable" + warnings +
              "; the daemon uses\n" + settings_text(cfg)};
}

} // namespace vemk
