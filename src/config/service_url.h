/// Splitting the roaming service's URL.
#ifndef VEMK_CONFIG_SERVICE_URL_H
#define VEMK_CONFIG_SERVICE_URL_H

namespace vemk {

/// Pieces of a URL text. Each is zero-terminated, and null if the text does not have that piece.
struct service_url_t {
  const char *scheme;
  const char *host;
  const char *port;
  /// Without its leading "/".
  const char *path;
};

/// Splits "[scheme://]host[:port][/path]" in place; the pieces point into `text`. If there is a
/// port, only a "/" behind it counts.
service_url_t split_service_url(char *text);

} // namespace vemk

#endif
