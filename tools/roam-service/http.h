#ifndef VEMK_ROAM_SERVICE_HTTP_H
#define VEMK_ROAM_SERVICE_HTTP_H

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vemk {

/// The head of an HTTP request. Header names are in lower case; the values of a header that comes
/// several times are joined with ", ".
struct http_request_t {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;

  /// Returns an empty text for a header that is not there.
  std::string header(const std::string &lower_case_name) const;
};

/// Reads a request head, up to and without its empty line. Returns nothing when it is none.
std::optional<http_request_t> parse_request(std::string_view head);

/// Whether a header's comma-separated list has this element, in any letter case.
bool list_contains(std::string_view list, std::string_view element);

/// Whether the request asks for a WebSocket of the version that is served.
bool is_upgrade(const http_request_t &request);

/// Whether a request comes from a web page of elsewhere: it has an Origin, and that is not of the
/// host that the request is for. Ports do not matter; the daemon's Origin and Host have none.
///
/// A browser lets any page open a WebSocket to any host, but not without its Origin.
bool is_from_elsewhere(const http_request_t &request);

/// The answer that makes the connection a WebSocket.
std::string upgrade_answer(const http_request_t &request, const std::string &subprotocol);

/// A whole answer, after which the connection ends. `headers` are lines, each with its line end.
std::string http_answer(const std::string &status, const std::string &content_type,
                        std::string_view body, const std::string &headers = "");

/// Whether a numeric IP address is one of this machine's loopback addresses.
bool is_loopback_address(const std::string &address);

/// Whether a Host header names this machine by a loopback name or address, with or without a port.
bool is_loopback_host(std::string_view host_header);

} // namespace vemk

#endif
