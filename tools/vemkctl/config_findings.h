/// Findings about a configuration file, line by line.
#ifndef VEMKCTL_CONFIG_FINDINGS_H
#define VEMKCTL_CONFIG_FINDINGS_H

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "config/config_keys.h"

namespace vemk {

struct finding_t {
  /// 0: the file as a whole.
  unsigned long line;
  /// In the form "fault; remedy".
  std::string text;
  /// A possible reason why the daemon would not connect.
  bool about_service;
  /// A note and not a fault: it does not change the verdict.
  bool is_note = false;
};

struct config_findings_t {
  std::vector<finding_t> findings;
  /// The line that each key's value comes from, by config_key; 0: none.
  std::array<unsigned long, config_key_count> source_lines;
};

/// Reads the text only; the daemon's own parser decides about its settings.
config_findings_t find_in_config(std::string_view bytes);

} // namespace vemk

#endif
