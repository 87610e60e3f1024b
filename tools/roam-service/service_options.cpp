#include "service_options.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>

namespace vemk {
namespace {

std::string check_address(const std::string &text) {
  unsigned char address[sizeof(in6_addr)];
  const bool is_address = inet_pton(AF_INET, text.c_str(), address) == 1 ||
                          inet_pton(AF_INET6, text.c_str(), address) == 1;
  return is_address ? "" : "'" + text + "' is no IP address; give one like 127.0.0.1 or ::1";
}

std::string check_path(const std::string &text) {
  return text.rfind('/', 0) == 0 ? ""
                                 : "'" + text + "' does not begin with '/'; give one like /roam";
}

} // namespace

std::optional<service_options_t> parse_service_options(int argc, char **argv, int &exit_status) {
  service_options_t options;
  CLI::App app(
      "A roaming service for workstations: prints each message of the connected daemons as "
      "one line, and sends each line of standard input to all of them.",
      "roam-service");
  app.add_option("--port", options.port, "TCP port to listen on; 0 picks a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--bind", options.bind_address, "IP address to listen on")
      ->check(CLI::Validator(check_address, "ADDRESS"))
      ->capture_default_str();
  app.add_option("--path", options.path, "request path that is served")
      ->check(CLI::Validator(check_path, "PATH"))
      ->capture_default_str();
  app.add_flag("--echo", options.echo, "send every received message back");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    exit_status = app.exit(error);
    return std::nullopt;
  }
  return options;
}

} // namespace vemk
