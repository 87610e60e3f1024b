/// What the configuration record must hold, worked out without the daemon's code; they share the
/// record and the keys' names alone.
#ifndef VEMK_TESTS_FUZZ_CONFIG_MODEL_H
#define VEMK_TESTS_FUZZ_CONFIG_MODEL_H

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "config/config_keys.h"
#include "config/websock_cfg.h"

namespace vemk::fuzz {

inline void put_text(char (&field)[config_text_size], const std::string &text) {
  strncpy(field, text.c_str(), sizeof field - 1);
}

/// The record, and what reading it leaves outside of it.
struct config_model {
  websock_cfg_t cfg{};
  std::uint32_t process_level = 0;
  std::uint32_t module_mask = 0;
  std::vector<std::string> logged;

  /// Reads a file's bytes; none stand for a file that cannot be opened. Returns whether reading it
  /// succeeds.
  bool read_file(const std::optional<std::string> &bytes);

  /// Reads the options, program name not among them. The file that -f may name is "vemk.conf" with
  /// these bytes; there is no other one. Returns whether the process goes on.
  bool read_options(const std::vector<std::string> &options, const std::string &file);

  /// Compares the texts and numbers of a record, the process-wide level and the module's log lines.
  void expect_same(const websock_cfg_t &actual) const;

private:
  bool read_line(const std::string &line);
  bool read_value(config_key key, const std::string &value);
  bool read_url(const std::string &value);
};

} // namespace vemk::fuzz

#endif
