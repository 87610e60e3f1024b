/// Faults in the values of the configuration file.
#ifndef VEMKCTL_VALUE_FAULTS_H
#define VEMKCTL_VALUE_FAULTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "config/config_keys.h"

namespace vemk {

/// The port of the connection: the WebSocket library keeps 16 bits of the number.
std::uint16_t connected_port(std::int32_t port);

/// The reason why a connection to this host and port always fails, if it does.
std::optional<std::string> service_fault(std::string_view host, std::int32_t port);

/// None for the URL, which may have several: see url_faults().
std::optional<std::string> value_fault(config_key key, std::string_view value);

/// The URL's text as the daemon splits it.
struct url_faults_t {
  std::optional<std::string> scheme; // refused
  std::optional<std::string> missing_part;
  std::optional<std::string> host;
  std::optional<std::string> port;
  std::optional<std::string> path;
};

url_faults_t url_faults(std::string_view value);

} // namespace vemk

#endif
