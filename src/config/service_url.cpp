#include "config/service_url.h"

#include <cstring>

namespace vemk {

namespace {

/// Ends `text` at the first `separator` and returns the rest, or null if there is no separator.
char *split_at(char *text, const char *separator) {
  char *const found = strstr(text, separator);
  if (found == nullptr)
    return nullptr;
  *found = '\0';
  return found + strlen(separator);
}

} // namespace

service_url_t split_service_url(char *text) {
  char *const after_scheme = split_at(text, "://");
  char *const host = after_scheme != nullptr ? after_scheme : text;
  char *const port = split_at(host, ":");
  char *const path = split_at(port != nullptr ? port : host, "/");
  return {after_scheme != nullptr ? text : nullptr, host, port, path};
}

} // namespace vemk
