#include "fault_service.h"
#include "line_source.h"
#include "one_line.h"
#include "reference_service.h"
#include "service_options.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t g_stop_requested = 0;

void request_stop(int) {
  g_stop_requested = 1;
}

void install_signal_handlers() {
  struct sigaction action {};
  action.sa_handler = request_stop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  (void)std::signal(SIGPIPE, SIG_IGN);
}

// The library would take a proxy from them; this server talks to nobody but its clients.
void forget_proxies() {
  for (const char *name : {"http_proxy", "socks_proxy"})
    unsetenv(name);
}

bool announce(const vemk::reference_service &service) {
  return vemk::write_one_line(stdout, "roam-service: listening on " + service.url());
}

bool announce(const vemk::fault_service &service) {
  return vemk::write_one_line(stdout, "roam-service: listening on " + service.url()) &&
         (!service.has_console() ||
          vemk::write_one_line(stdout, "roam-service: console at " + service.console_url()));
}

template<typename service_t>
int run(const vemk::service_options_t &options) {
  bool output_failed = false;
  service_t service(options, [&output_failed](std::string_view message) {
    output_failed = output_failed || !vemk::write_one_line(stdout, message);
  });
  output_failed = !announce(service);

  vemk::line_source input(STDIN_FILENO, [&service] { service.wake(); });
  service.serve([&output_failed] { return output_failed || g_stop_requested != 0; },
                [&service, &input] {
                  for (const std::string &line : input.take())
                    service.broadcast(line);
                });
  if (output_failed)
    std::fprintf(stderr, "roam-service: cannot write to standard output; see where it leads\n");
  return output_failed ? EXIT_FAILURE : EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv) {
  int exit_status = EXIT_SUCCESS;
  const auto options = vemk::parse_service_options(argc, argv, exit_status);
  if (!options)
    return exit_status;
  install_signal_handlers();
  forget_proxies();
  try {
    return options->is_plain() ? run<vemk::reference_service>(*options)
                               : run<vemk::fault_service>(*options);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "roam-service: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
