#include "vemkctl/value_faults.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <strings.h>

#include "config/number.h"
#include "config/service_url.h"
#include "log/log_module.h"
#include "terminal_text/terminal_text.h"
#include "vemkctl/config_pieces.h"

namespace vemk {

namespace {

constexpr std::int32_t largest_port = 65535;
// libwebsockets 4.1.6 has 127 bytes for a line of its request, "Origin: http://" and line end
// included. It leaves out the line end of a longer one, which hides the next line.
constexpr std::size_t longest_host = 110;
constexpr std::uint32_t every_log_category =
    log_category_error | log_category_warning | log_category_info | log_category_debug;

using fault_t = std::optional<std::string>;

/// The difference between the text and a plain number; `counts_as` is the daemon's value for it.
fault_t number_fault(const std::string &text, int base, const std::string &counts_as) {
  const std::string result = " and counts as " + counts_as;
  if (text.empty())
    return "it has no value" + result + "; give a number";
  char *end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text.c_str(), &end, base);
  if (end == text.c_str())
    return quoted(text) + " is not a number" + result + "; give a number";
  constexpr long long largest = std::numeric_limits<std::uint32_t>::max();
  if (errno == ERANGE || value > largest || value < -largest)
    return quoted(text) + " is beyond 32 bits" + result + "; give a smaller number";
  if (value < 0)
    return quoted(text) + " has a sign" + result + "; give a number without one";
  if (*end != '\0')
    return quoted(text) + " has " + quoted(end) + " behind the number" + result +
           "; remove what is behind it";
  if (!std::isxdigit(static_cast<unsigned char>(text.front())))
    return quoted(text) + " has blanks or a sign before the number" + result + "; remove them";
  return {};
}

bool has_blank_or_control(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char byte) { return is_blank(byte) || is_ascii_control(byte); });
}

bool is_ascii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

bool is_host_character(char byte) {
  return std::isalnum(static_cast<unsigned char>(byte)) || byte == '-' || byte == '.' ||
         byte == '_';
}

fault_t scheme_fault(std::string_view scheme) {
  const std::string refused = "scheme " + quoted(scheme) + " is refused, ";
  if (scheme == "wss" || scheme == "https")
    return refused + "there is no TLS; write ws://";
  if (without_blanks_around(scheme) == "ws")
    return refused + "blanks are part of it; remove them";
  if (strcasecmp(std::string(scheme).c_str(), "ws") == 0)
    return refused + "it must be in lower case; write ws://";
  return refused + "it is all that stands before '://'; write ws:// there, or nothing";
}

fault_t missing_part(const service_url_t &url) {
  const std::string_view host = url.host;
  if (url.port == nullptr)
    return "the URL has no port; write ws://HOST:PORT/PATH";
  if (url.path == nullptr && host.find('/') != std::string_view::npos)
    return "the URL has no port before its path; write ws://HOST:PORT/PATH";
  if (url.path == nullptr)
    return "the URL has no '/' behind its port; write ws://HOST:PORT/PATH";
  return {};
}

/// Resolvers read other forms of such an address differently, or ask name servers for it.
fault_t address_fault(std::string_view host) {
  in_addr address{};
  if (host.find_first_not_of("0123456789.") != std::string_view::npos ||
      inet_pton(AF_INET, std::string(host).c_str(), &address) == 1)
    return {};
  return "host " + quoted(host) + " is all digits and dots, but not an IPv4 address; write four " +
         "numbers from 0 to 255, without leading zeros";
}

fault_t host_fault(std::string_view host) {
  if (auto fault = service_fault(host, 1))
    return fault;
  if (host.size() > longest_host)
    return "the host has " + std::to_string(host.size()) + " bytes, and with more than " +
           std::to_string(longest_host) + " libwebsockets 4.1.6 makes a request that servers " +
           "refuse; give a shorter name, or an address";
  if (!is_ascii(host))
    return "host " + quoted(host) + " is not all ASCII, and most resolvers will not find it; " +
           "write it in its ASCII form (xn--...)";
  if (!std::all_of(host.begin(), host.end(), is_host_character))
    return "host " + quoted(host) + " holds what no host name has; see that it is the host alone";
  return address_fault(host);
}

fault_t port_fault(const std::string &text) {
  const std::int32_t port = signed_number(text.c_str());
  const bool is_in_range = port >= 1 && port <= largest_port;
  if (!is_in_range && connected_port(port) != 0)
    return "port " + quoted(text) + " is not from 1 to 65535, and the connection goes to port " +
           std::to_string(connected_port(port)) + "; give the port that is meant";
  if (auto fault = number_fault(text, 10, std::to_string(port)))
    return "port: " + *fault;
  return service_fault("host", port);
}

fault_t path_fault(std::string_view path) {
  const std::size_t sign = path.find('#');
  if (sign != std::string_view::npos && sign > 0 && is_blank(path[sign - 1]))
    return "path " + quoted(path) + " ends in a comment, which is part of it; give the comment a " +
           "line of its own";
  if (sign != std::string_view::npos)
    return "path " + quoted(path) + " holds a '#', and many servers refuse that; write %23 for " +
           "it, or give a comment a line of its own";
  if (has_blank_or_control(path))
    return "path " + quoted(path) +
           " holds blanks or control characters, and many servers refuse that; write %20 for a " +
           "blank, or remove what is behind the path";
  if (!is_ascii(path))
    return "path " + quoted(path) + " is not all ASCII, and servers may refuse that; write each " +
           "such byte as % and two hexadecimal digits";
  return {};
}

/// Of a number of seconds.
fault_t delay_fault(std::string_view value) {
  const std::string text(value);
  const std::uint32_t delay = unsigned_number(text.c_str(), 10);
  if (auto fault = number_fault(text, 10, std::to_string(delay)))
    return fault;
  if (delay > std::uint32_t{std::numeric_limits<std::int32_t>::max()})
    return text + " seconds are taken for a negative number; give fewer";
  return {};
}

fault_t log_level_fault(std::string_view value) {
  const bool is_hexadecimal =
      value.size() >= 2 && value[0] == '0' && (value[1] == 'x' || value[1] == 'X');
  const std::string digits(value.substr(is_hexadecimal ? 2 : 0));
  const int base = is_hexadecimal ? 16 : 10;
  const std::uint32_t level = unsigned_number(digits.c_str(), base);
  if (is_hexadecimal && digits.empty())
    return "0x has no digits behind it and counts as 0; give a number";
  if (auto fault = number_fault(digits, base, std::to_string(level)))
    return fault;
  if ((level & ~every_log_category) != 0)
    return quoted(value) + " has bits that name no category; add up 1, 2, 4 and 8 only";
  return {};
}

fault_t whole_messages_fault(std::string_view value) {
  const std::string text(value);
  const std::uint32_t number = unsigned_number(text.c_str(), 10);
  if (auto fault = number_fault(text, 10, number == 0 ? "0" : "1"))
    return fault;
  if (number > 1)
    return quoted(value) + " counts as 1; write 1";
  return {};
}

fault_t pacing_fault(std::string_view value) {
  const std::string text(value);
  for (const char *const pacing : {default_pacing_text, event_pacing_text}) {
    if (strcasecmp(text.c_str(), pacing) == 0)
      return {};
  }
  return quoted(value) + " is not a pacing and counts as " + default_pacing_text + "; write " +
         default_pacing_text + " or " + event_pacing_text;
}

fault_t location_fault(std::string_view value) {
  if (value.size() != without_blanks_around(value).size())
    return "blanks around the value are part of it; remove them";
  if (value.find(" #") != std::string_view::npos || value.find("\t#") != std::string_view::npos)
    return "the comment behind the value is part of it; give it a line of its own";
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front())
    return "the quotation marks are part of the value; remove them";
  return {};
}

} // namespace

std::uint16_t connected_port(std::int32_t port) {
  return static_cast<std::uint16_t>(port);
}

fault_t service_fault(std::string_view host, std::int32_t port) {
  if (connected_port(port) == 0)
    return "port " + std::to_string(port) + (port == 0 ? "" : " counts as 0, which") +
           " is not a port to connect to; give one from 1 to 65535";
  if (host.empty())
    return "the URL has no host; write ws://HOST:PORT/PATH";
  if (host.front() == '[')
    return "host " + quoted(host) + " begins an IPv6 address, whose colons end the host; give a " +
           "name or an IPv4 address";
  if (has_blank_or_control(host))
    return "host " + quoted(host) + " holds blanks or control characters, and no name has them; " +
           "remove them";
  // The WebSocket library reads a name that begins with '+' as the path of a local socket.
  if (host.front() != '+' && host.find('/') != std::string_view::npos)
    return "host " + quoted(host) + " holds a '/', and no name has one; write the port before " +
           "the path: ws://HOST:PORT/PATH";
  return {};
}

fault_t value_fault(config_key key, std::string_view value) {
  switch (key) {
  case config_key::service_url:
    break;
  case config_key::initial_delay:
  case config_key::max_delay:
    return delay_fault(value);
  case config_key::location:
    return location_fault(value);
  case config_key::log_level:
    return log_level_fault(value);
  case config_key::whole_messages:
    return whole_messages_fault(value);
  case config_key::pacing:
    return pacing_fault(value);
  }
  return {};
}

url_faults_t url_faults(std::string_view value) {
  std::string text(value);
  const service_url_t url = split_service_url(text.data());
  url_faults_t faults;
  if (url.scheme != nullptr && std::string_view(url.scheme) != "ws") {
    faults.scheme = scheme_fault(url.scheme);
    return faults;
  }
  faults.missing_part = missing_part(url);
  if (faults.missing_part)
    return faults;
  faults.host = host_fault(url.host);
  if (url.host[0] != '[')
    faults.port = port_fault(url.port);
  faults.path = path_fault(url.path);
  return faults;
}

} // namespace vemk
