#include <csignal>
#include <exception>

#include "module_bus/bus_folder.h"
#include "vemkctl/command_line.h"
#include "vemkctl/commands.h"

namespace {

int run(int argc, char **argv) {
  const vemk::command_line_t line = vemk::parse_command_line(argc, argv);
  if (line.options)
    return vemk::run_command(*line.options);
  vemk::write_output(line.output.data(), line.output.size());
  if (!line.error.empty())
    vemk::write_note(line.error);
  return line.status;
}

} // namespace

int main(int argc, char **argv) {
  // If the reader has gone, the write fails and that is reported.
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const vemk::io_error &error) {
    vemk::write_note(error.what());
    return vemk::exit_io_error;
  } catch (const std::exception &error) {
    vemk::write_note(error.what());
    return vemk::exit_bus_error;
  }
}
