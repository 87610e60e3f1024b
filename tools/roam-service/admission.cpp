#include "admission.h"

#include "http.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>

namespace vemk {
namespace {

constexpr std::string_view scheme_end = "://";

bool is_scheme(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char letter) {
    return std::isalnum(letter) != 0 || letter == '+' || letter == '-' || letter == '.';
  });
}

/// The host of an Origin. None for "null", and for several that were joined.
std::optional<std::string> host_of_origin(std::string_view origin) {
  const size_t end = origin.find(scheme_end);
  if (end == std::string_view::npos || !is_scheme(origin.substr(0, end)))
    return std::nullopt;
  return host_of(origin.substr(end + scheme_end.size()));
}

} // namespace

bool is_from_elsewhere(const std::optional<std::string> &origin, const std::string &host) {
  if (!origin)
    return false;
  const auto origin_host = host_of_origin(*origin);
  return !origin_host || origin_host != host_of(host);
}

bool address_limit::has_room_for(const std::string &address) const {
  const auto found = counts.find(address);
  if (found == counts.end() || found->second < most_connections)
    return true;
  std::fprintf(stderr, "roam-service: refused a connection: %s has %zu already\n", address.c_str(),
               most_connections);
  return false;
}

void address_limit::remove(const std::string &address) {
  const auto found = counts.find(address);
  if (found != counts.end() && --found->second == 0)
    counts.erase(found);
}

} // namespace vemk
