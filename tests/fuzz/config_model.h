/// What the configuration record must hold, worked out without the daemon's code; they share the
/// keys' names alone.
#ifndef VEMK_TESTS_FUZZ_CONFIG_MODEL_H
#define VEMK_TESTS_FUZZ_CONFIG_MODEL_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config/config_keys.h"
#include "config/websock_cfg.h"

namespace vemk::fuzz {

/// The record as plain values, and what reading it leaves outside of it.
struct config_model {
  std::string ap_location;
  std::string host;
  std::string path;
  std::int32_t port = 0;
  bool url_valid = false;
  std::uint32_t initial_connection_delay = 0;
  std::uint32_t max_connection_delay = 0;
  std::uint32_t log_level = 0;
  std::int32_t cfg_mode = 0;
  bool cfg_file_failed = false;
  bool whole_messages = false;

  std::uint32_t process_level = 0;
  std::uint32_t module_mask = 0;
  std::vector<std::string> logged;

  /// Reads a file's bytes; none stand for a file that cannot be opened. Returns whether reading it
  /// succeeds.
  bool read_file(const std::optional<std::string> &bytes);

  /// Reads the options, program name not among them. The file that -f may name is "vemk.conf" with
  /// these bytes; there is no other one. Returns whether the process goes on.
  bool read_options(const std::vector<std::string> &options, const std::string &file);

private:
  bool read_line(const std::string &line);
  bool read_value(config_key key, const std::string &value);
  bool read_url(const std::string &value);
};

/// Compares the record, the process-wide level and the module's log lines with the model.
void expect_same(const config_model &model, const websock_cfg_t &cfg);

/// A record with these texts and numbers.
websock_cfg_t record_of(const config_model &model);

} // namespace vemk::fuzz

#endif
