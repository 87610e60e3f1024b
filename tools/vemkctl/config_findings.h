/// What a person would want to know about a configuration file, line by line.
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
  /// In the form "what is the matter; what to do".
  std::string text;
  /// It may be why the daemon would not connect.
  bool about_service;
  /// Worth knowing, and nothing is wrong: it changes no verdict.
  bool is_note = false;
};

struct config_findings_t {
  std::vector<finding_t> findings;
  /// Where each key's value comes from, by config_key; 0: from no line.
  std::array<unsigned long, config_key_count> source_lines;
};

/// Only looks; what the daemon makes of the file is for its own parser to say.
config_findings_t find_in_config(std::string_view bytes);

} // namespace vemk

#endif
