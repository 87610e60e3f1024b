#include "service_options.h"

#include "http.h"

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

void add_service_options(CLI::App &app, service_options_t &options) {
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
  app.add_flag(
      "--console", options.console,
      "serve a page on the same port that shows and drives this service; on loopback only");
}

void add_switches(CLI::App &app, switches_t &switches) {
  auto *group = app.add_option_group("Faults", "How it misbehaves towards every daemon");
  group->add_flag("--no-pongs", switches.no_pongs, "read pings, but answer none");
  group->add_flag("--stop-reading", switches.stop_reading,
                  "accept daemons, then read nothing of what they send, pings included");
  group->add_option("--fragments", switches.fragments, "send each message in so many frames")
      ->check(CLI::Range(1, switches_t::most_fragments))
      ->capture_default_str();
  group
      ->add_option("--delay", switches.delay_ms,
                   "hold each message and pong back for so many milliseconds")
      ->check(CLI::Range(0, switches_t::longest_delay_ms))
      ->capture_default_str();
}

void add_incidents(CLI::App &app, service_options_t &options) {
  auto *group = app.add_option_group("Incidents", "What befalls a daemon, every time it connected");
  auto *close =
      group->add_option("--close-with", options.close_code, "close its connection with this code");
  close->check(CLI::Range(smallest_close_code, largest_close_code));
  auto *reset = group->add_flag("--reset", options.reset, "end its connection with a TCP reset");
  auto *away = group->add_option(
      "--away", options.away_s,
      "close all connections with code 1001 and refuse new ones for so many seconds");
  away->check(CLI::Range(1, longest_away_s));
  close->excludes(reset)->excludes(away);
  reset->excludes(away);
  group
      ->add_option("--after", options.after_s,
                   "seconds from its connecting to --close-with, --reset or --away")
      ->check(CLI::Range(0, longest_away_s))
      ->capture_default_str();
}

void check_together(const service_options_t &options) {
  if (options.console && !is_loopback_address(options.bind_address))
    throw CLI::ValidationError("--console", "it is for this machine only, and " +
                                                options.bind_address +
                                                " can be reached from others; give a loopback "
                                                "address such as 127.0.0.1 with --bind");
}

} // namespace

std::optional<service_options_t> parse_service_options(int argc, char **argv, int &exit_status) {
  service_options_t options;
  CLI::App app(
      "A roaming service for workstations: prints each message of the connected daemons as "
      "one line, and sends each line of standard input to all of them.",
      "roam-service");
  add_service_options(app, options);
  add_switches(app, options.switches);
  add_incidents(app, options);
  try {
    app.parse(argc, argv);
    check_together(options);
  } catch (const CLI::ParseError &error) {
    exit_status = app.exit(error);
    return std::nullopt;
  }
  return options;
}

} // namespace vemk
