#include "line_input.h"
#include "roam_service.h"
#include "service_options.h"
#include "terminal_text/terminal_text.h"

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

/// Writes the text as a line of its own; afterwards ferror() says whether the stream took all.
void write_line(std::string_view text) {
  const std::string line = vemk::on_one_line(text) + '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

int run(const vemk::service_options_t &options) {
  vemk::roam_service service(options, write_line);
  write_line("roam-service: listening on " + service.url());
  if (options.console)
    write_line("roam-service: console at " + service.console_url());

  vemk::line_input input(STDIN_FILENO);
  service.serve([] { return std::ferror(stdout) != 0 || g_stop_requested != 0; }, input);
  if (std::ferror(stdout) == 0)
    return EXIT_SUCCESS;
  std::fprintf(stderr, "roam-service: cannot write to standard output; see where it leads\n");
  return EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv) {
  int exit_status = EXIT_SUCCESS;
  const auto options = vemk::parse_service_options(argc, argv, exit_status);
  if (!options)
    return exit_status;
  install_signal_handlers();
  try {
    return run(*options);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "roam-service: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
