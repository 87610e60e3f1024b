#include "http.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <libwebsockets.h>
#include <netinet/in.h>

namespace vemk {
namespace {

constexpr const char *key_suffix = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr size_t sha1_bytes = 20;

std::string lower_case(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), [](char letter) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  });
  return result;
}

std::string_view trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos)
    return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Takes the part of `text` before `separator` off its front, and the separator with it.
std::string_view take_until(std::string_view &text, std::string_view separator) {
  const size_t end = text.find(separator);
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
  return part;
}

bool parse_header(std::string_view line, http_request_t &request) {
  const size_t colon = line.find(':');
  if (colon == 0 || colon == std::string_view::npos)
    return false;
  const auto [place, is_first] = request.headers.try_emplace(lower_case(line.substr(0, colon)),
                                                             trimmed(line.substr(colon + 1)));
  if (!is_first)
    place->second.append(", ").append(trimmed(line.substr(colon + 1)));
  return true;
}

std::string accept_key(const std::string &key) {
  const std::string text = key + key_suffix;
  unsigned char digest[sha1_bytes];
  lws_SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
  char encoded[32];
  lws_b64_encode_string(reinterpret_cast<const char *>(digest), sizeof digest, encoded,
                        sizeof encoded);
  return encoded;
}

bool is_port_or_empty(std::string_view text) {
  return text.empty() ||
         (text.front() == ':' && text.find_first_not_of("0123456789", 1) == std::string_view::npos);
}

bool is_host_name(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char letter) {
    return std::isalnum(letter) != 0 || letter == '-' || letter == '.' || letter == '_';
  });
}

std::optional<std::string> shortest_ipv6(const std::string &text) {
  in6_addr address{};
  char result[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET6, text.c_str(), &address) != 1)
    return std::nullopt;
  return inet_ntop(AF_INET6, &address, result, sizeof result);
}

/// The host of "HOST" or "HOST:PORT" as it can be compared: a name in lower case, an IPv6 address
/// without its brackets and in its shortest form. Returns nothing when the text is neither.
std::optional<std::string> host_of(std::string_view host_and_port) {
  const bool in_brackets = !host_and_port.empty() && host_and_port.front() == '[';
  const size_t end = std::min(host_and_port.find(in_brackets ? ']' : ':'), host_and_port.size());
  const std::string_view host = host_and_port.substr(0, end);
  if (!in_brackets)
    return is_host_name(host) && is_port_or_empty(host_and_port.substr(end))
               ? std::optional(lower_case(host))
               : std::nullopt;
  const bool is_complete =
      end < host_and_port.size() && is_port_or_empty(host_and_port.substr(end + 1));
  return is_complete ? shortest_ipv6(std::string(host.substr(1))) : std::nullopt;
}

/// The host of an Origin. None for "null", and for several that were joined.
std::optional<std::string> host_of_origin(std::string_view origin) {
  const std::string_view scheme = take_until(origin, "://");
  const bool is_scheme =
      !scheme.empty() && std::all_of(scheme.begin(), scheme.end(), [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '+' || letter == '-' || letter == '.';
      });
  return is_scheme ? host_of(origin) : std::nullopt;
}

} // namespace

std::string http_request_t::header(const std::string &lower_case_name) const {
  const auto found = headers.find(lower_case_name);
  return found == headers.end() ? std::string() : found->second;
}

std::optional<http_request_t> parse_request(std::string_view head) {
  http_request_t request;
  std::string_view first = take_until(head, "\r\n");
  request.method = take_until(first, " ");
  request.target = take_until(first, " ");
  if (request.target.empty() || request.target.front() != '/' || first.rfind("HTTP/1.", 0) != 0)
    return std::nullopt;
  while (!head.empty())
    if (!parse_header(take_until(head, "\r\n"), request))
      return std::nullopt;
  return request;
}

bool list_contains(std::string_view list, std::string_view element) {
  while (!list.empty())
    if (lower_case(trimmed(take_until(list, ","))) == lower_case(element))
      return true;
  return false;
}

bool is_upgrade(const http_request_t &request) {
  return request.method == "GET" && list_contains(request.header("upgrade"), "websocket") &&
         list_contains(request.header("connection"), "upgrade") &&
         request.header("sec-websocket-version") == "13" &&
         !request.header("sec-websocket-key").empty();
}

bool is_from_elsewhere(const http_request_t &request) {
  if (request.headers.count("origin") == 0)
    return false;
  const auto host = host_of_origin(request.header("origin"));
  return !host || host != host_of(request.header("host"));
}

std::string upgrade_answer(const http_request_t &request, const std::string &subprotocol) {
  return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Accept: " +
         accept_key(request.header("sec-websocket-key")) +
         "\r\nSec-WebSocket-Protocol: " + subprotocol + "\r\n\r\n";
}

std::string http_answer(const std::string &status, const std::string &content_type,
                        std::string_view body, const std::string &headers) {
  std::string answer =
      "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Type: " + content_type +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n";
  return answer.append(body);
}

bool is_loopback_address(const std::string &address) {
  in_addr ipv4{};
  if (inet_pton(AF_INET, address.c_str(), &ipv4) == 1)
    return (ntohl(ipv4.s_addr) >> 24U) == 127;
  in6_addr ipv6{};
  return inet_pton(AF_INET6, address.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6);
}

bool is_loopback_host(std::string_view host_header) {
  const auto name = host_of(host_header);
  return name && (*name == "localhost" || is_loopback_address(*name));
}

} // namespace vemk
