#include "vemkctl/commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include "module_bus/bus_client.h"
#include "module_bus/bus_folder.h"
#include "vemkctl/config_check.h"
#include "vemkctl/line_splitter.h"
#include "vemkctl/message_format.h"

namespace vemk {

namespace {

constexpr char status_request[] = R"({"service":"internal-ipc","cmd":"status"})";

bus_deadline deadline_after(double seconds) {
  if (seconds <= 0)
    return bus_deadline::max();
  const std::chrono::duration<double> time(seconds);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(time);
}

/// Waits for the folder as the commands wait for the module: both may come later than the command.
std::string find_bus_folder(const options_t &options, bus_deadline deadline) {
  // Shorter than the time that a module waits for listeners after it has made the folder.
  constexpr std::chrono::milliseconds pause{10};
  const bool is_told_at_once =
      (options.what == command::listen || isatty(STDERR_FILENO) != 0) && !options.quiet;
  for (bool is_first = true;; is_first = false) {
    try {
      return open_bus_folder(options.bus_folder, bus_role::client);
    } catch (const bus_folder_missing &missing) {
      if (is_first && is_told_at_once)
        write_note(missing.what() + std::string("; waiting for it"));
      if (std::chrono::steady_clock::now() >= deadline)
        throw;
    }
    std::this_thread::sleep_for(pause);
  }
}

std::string module_in(const options_t &options, const std::string &folder) {
  return "module " + std::to_string(options.module_id) + " in " + folder;
}

// Empty at the end of the input.
std::string_view read_input(std::vector<char> &block) {
  while (true) {
    const ssize_t got = read(STDIN_FILENO, block.data(), block.size());
    if (got >= 0)
      return {block.data(), static_cast<std::size_t>(got)};
    if (errno != EINTR)
      throw io_error(std::string("cannot read standard input: ") + std::strerror(errno) +
                     "; give the message as TEXT, or through a pipe or a file");
  }
}

template<typename take_t>
void for_each_block(const options_t &options, take_t take) {
  if (options.text != "-") {
    take(std::string_view(options.text));
    return;
  }
  std::vector<char> block(64 * 1024);
  for (auto bytes = read_input(block); !bytes.empty(); bytes = read_input(block))
    take(bytes);
}

std::string whole_input(const options_t &options) {
  std::string message;
  for_each_block(options, [&](std::string_view bytes) {
    if (bytes.size() > max_payload_bytes - message.size())
      throw io_error("the message is longer than 64 MiB; send it in parts");
    message.append(bytes);
  });
  return message;
}

void send_lines(const options_t &options, const std::function<void(std::string_view)> &send) {
  try {
    line_splitter lines(max_payload_bytes, send);
    for_each_block(options, [&](std::string_view bytes) { lines.add(bytes); });
    lines.finish();
  } catch (const std::length_error &error) {
    throw io_error(std::string(error.what()) + "; send it in parts");
  }
}

[[noreturn]] void not_taken(const options_t &options, const std::string &folder) {
  throw bus_error(module_in(options, folder) + " did not take it in time; see that the module " +
                  "runs and uses this bus folder, or name another with --bus DIR or " +
                  "MODULE_BUS_DIR");
}

int run_send(const options_t &options) {
  const auto in_time = [&] { return deadline_after(options.timeout_seconds); };
  std::string folder;
  std::optional<bus_sender> sender;
  const auto send = [&](std::string_view message) {
    if (!sender) {
      folder = find_bus_folder(options, in_time());
      sender.emplace(folder, options.module_id);
    }
    if (!sender->send(message, in_time()))
      not_taken(options, folder);
  };
  if (options.lines)
    send_lines(options, send);
  else
    send(whole_input(options));
  if (sender && !sender->wait_until_taken(in_time()))
    not_taken(options, folder);
  return exit_done;
}

int run_rejoin(const options_t &options, const std::string &folder, bus_deadline deadline) {
  bus_sender sender(folder, options.module_id);
  if (!sender.send_leave(deadline) || !sender.wait_until_taken(deadline))
    not_taken(options, folder);
  return exit_done;
}

void note_losses(const options_t &options, std::uint64_t lost, std::uint64_t &told) {
  if (lost == told)
    return;
  if (!options.quiet)
    write_note(std::to_string(lost - told) + " messages were lost here; read faster");
  told = lost;
}

int run_listen(const options_t &options, const std::string &folder, bus_deadline deadline) {
  bus_listener listener(folder, options.module_id);
  if (!listener.wait_until_subscribed(deadline)) {
    if (!options.quiet)
      write_note(module_in(options, folder) + " was not on the bus; see that it runs and uses " +
                 "this bus folder, or name another with --bus DIR or MODULE_BUS_DIR");
    return exit_timeout;
  }
  if (!options.quiet)
    write_note("listening to " + module_in(options, folder));
  std::uint64_t losses_told = 0;
  for (long printed = 0; options.count == 0 || printed < options.count; ++printed) {
    const auto message = listener.receive(deadline);
    note_losses(options, listener.lost(), losses_told);
    if (!message)
      return exit_timeout;
    const std::string line = format_message(*message, options.format, options.module_id) + "\n";
    write_output(line.data(), line.size());
  }
  return exit_done;
}

int no_answer(const options_t &options, const std::string &folder) {
  write_note("no answer from " + module_in(options, folder) +
             " in time; see that the daemon runs and uses this bus folder, or name another " +
             "with --bus DIR or MODULE_BUS_DIR");
  return exit_timeout;
}

/// Waits until `wait` returns a true value or the deadline comes. If this takes long, a note on a
/// terminal says what the command waits for.
template<typename wait_t>
auto wait_and_tell(bus_deadline deadline, const std::string &what, wait_t wait) {
  auto result = wait(std::min(deadline, deadline_after(1)));
  if (result || std::chrono::steady_clock::now() >= deadline)
    return result;
  if (isatty(STDERR_FILENO) != 0)
    write_note("waiting for " + what);
  return wait(deadline);
}

std::optional<bool> receive_status(bus_listener &listener, bus_deadline deadline) {
  while (const auto message = listener.receive(deadline)) {
    if (const auto connected = connected_status(*message))
      return connected;
  }
  return std::nullopt;
}

int run_status(const options_t &options, const std::string &folder, bus_deadline deadline) {
  bus_listener listener(folder, options.module_id);
  bus_sender sender(folder, options.module_id);
  const std::string module = module_in(options, folder);
  const bool is_there =
      wait_and_tell(deadline, module + " to come onto the bus",
                    [&](bus_deadline end) { return listener.wait_until_subscribed(end); });
  if (!is_there || !sender.send(status_request, deadline))
    return no_answer(options, folder);
  const auto connected =
      wait_and_tell(deadline,
                    "an answer of " + module +
                        "; it gives none while it tries to connect, for 20 seconds or more",
                    [&](bus_deadline end) { return receive_status(listener, end); });
  if (!connected)
    return no_answer(options, folder);
  const std::string_view word = *connected ? "connected\n" : "disconnected\n";
  write_output(word.data(), word.size());
  return *connected ? exit_done : exit_disconnected;
}

int run_check_config(const options_t &options) {
  const config_check_t check = check_config(options.config_file);
  write_output(check.report.data(), check.report.size());
  switch (check.verdict) {
  case config_verdict::usable:
    return exit_done;
  case config_verdict::usable_with_warnings:
    return exit_usable_with_warnings;
  case config_verdict::unusable:
    return exit_unusable;
  }
  return exit_unusable;
}

/// The commands with one deadline for the whole command.
int run_until(bus_deadline deadline, const options_t &options) {
  const std::string folder = find_bus_folder(options, deadline);
  switch (options.what) {
  case command::listen:
    return run_listen(options, folder, deadline);
  case command::status:
    return run_status(options, folder, deadline);
  case command::rejoin:
    return run_rejoin(options, folder, deadline);
  case command::send:
  case command::check_config:
    break;
  }
  return exit_usage;
}

} // namespace

int run_command(const options_t &options) {
  if (options.what == command::check_config)
    return run_check_config(options);
  if (options.what == command::send)
    return run_send(options);
  try {
    return run_until(deadline_after(options.timeout_seconds), options);
  } catch (const bus_folder_missing &missing) {
    if (options.what == command::rejoin)
      throw;
    if (options.what == command::status)
      write_note(missing.what());
    return exit_timeout;
  }
}

void write_output(const char *data, std::size_t length) {
  while (length > 0) {
    const ssize_t written = write(STDOUT_FILENO, data, length);
    if (written < 0 && errno == EINTR)
      continue;
    if (written < 0)
      throw io_error(std::string("cannot write to standard output: ") + std::strerror(errno) +
                     "; see that its reader still runs or its disk has room");
    data += written;
    length -= static_cast<std::size_t>(written);
  }
}

void write_note(const std::string &text) {
  std::cerr << "vemkctl: " + text + "\n" << std::flush;
}

} // namespace vemk
