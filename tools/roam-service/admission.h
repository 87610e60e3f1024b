#ifndef VEMK_ROAM_SERVICE_ADMISSION_H
#define VEMK_ROAM_SERVICE_ADMISSION_H

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace vemk {

// Who may connect to the service, whichever server is at work.

/// Whether a request comes from a web page of elsewhere: it has an Origin, and that is not of the
/// host that the request is for. Ports do not matter; the daemon's Origin and Host have none.
///
/// A browser lets any page open a WebSocket to any host, but not without its Origin.
bool is_from_elsewhere(const std::optional<std::string> &origin, const std::string &host);

/// The answer to such a request.
constexpr const char *elsewhere_status = "403 Forbidden";
constexpr const char *elsewhere_reason = "its Origin is of another host than the service";

/// Counts the connections of each remote address, so that none can take them all.
///
/// Threading: none of its own.
class address_limit {
public:
  static constexpr size_t most_connections = 32;

  /// Whether one more is allowed; tells it on standard error when not.
  bool has_room_for(const std::string &address) const;
  void add(const std::string &address) { ++counts[address]; }
  /// To be called once for each add().
  void remove(const std::string &address);

private:
  std::map<std::string, size_t> counts;
};

} // namespace vemk

#endif
