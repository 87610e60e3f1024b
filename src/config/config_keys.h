/// The keys of the configuration file. The daemon, its tools, its tests and the documents' tests
/// take the names from here.
#ifndef VEMK_CONFIG_CONFIG_KEYS_H
#define VEMK_CONFIG_CONFIG_KEYS_H

#include <cstddef>

namespace vemk {

/// A new key goes to the end.
enum class config_key {
  service_url,
  initial_delay,
  max_delay,
  location,
  log_level,
  whole_messages,
  pacing,
};

/// By config_key, in lower case. A line sets the key that it begins with, in any letter case. With
/// the "=" at its end, no text is the beginning of another.
constexpr const char *config_key_texts[] = {
    "roam_service_url=",         // [ws://]HOST:PORT/PATH
    "initial_connection_delay=", // seconds
    "max_connection_delay=",     // seconds
    "ap_location=",              // text
    "log_level=",                // mask of log categories
    "whole_messages=",           // 0: no
    "pacing=",                   // steps or event
};

/// The values of config_key::pacing, in any letter case. Any other one counts as the default.
constexpr char default_pacing_text[] = "steps";
constexpr char event_pacing_text[] = "event";

constexpr std::size_t config_key_count = sizeof config_key_texts / sizeof *config_key_texts;

constexpr const char *text_of(config_key key) {
  return config_key_texts[static_cast<std::size_t>(key)];
}

} // namespace vemk

#endif
