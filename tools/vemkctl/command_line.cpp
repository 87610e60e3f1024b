#include "vemkctl/command_line.h"

#include <limits>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>

#include "vemkctl/command_description.h"

namespace vemk {

namespace {

constexpr double longest_timeout_seconds = 1e9;

const std::map<std::string, message_format> &formats() {
  static const std::map<std::string, message_format> by_name{
      {"text", message_format::text}, {"hex", message_format::hex}, {"json", message_format::json}};
  return by_name;
}

constexpr char footer[] =
    "The bus folder is --bus; without it the environment's MODULE_BUS_DIR, else /run/module-bus,\n"
    "else a folder of your own ($XDG_RUNTIME_DIR/module-bus or /tmp/module-bus-UID).\n"
    "Exit status: 0 done, 3 bus error, 4 input or output error, 64 wrong usage; 1 and 2 as the\n"
    "command says.";

// The library's own range check accepts "nan", and puts the bounds into the help instead of a name.
template<typename number_t>
CLI::Validator number_from(number_t lowest, number_t highest) {
  const auto check = [lowest, highest](const std::string &text) {
    number_t value{};
    if (CLI::detail::lexical_cast(text, value) && value >= lowest && value <= highest)
      return std::string();
    std::ostringstream fault;
    fault << "'" << text << "' is not a number from " << lowest << " to " << highest;
    return fault.str();
  };
  return CLI::Validator(check, "");
}

void add_module(CLI::App *command, options_t &options, const char *name, const char *text) {
  command->add_option(name, options.module_id, text)
      ->check(number_from(0, std::numeric_limits<int>::max()))
      ->type_name("MODULE")
      ->capture_default_str();
}

CLI::Option *add_timeout(CLI::App *command, options_t &options, const char *text) {
  return command->add_option("--timeout", options.timeout_seconds, text)
      ->check(number_from(0.001, longest_timeout_seconds))
      ->type_name("SECONDS");
}

void add_quiet(CLI::App *command, options_t &options) {
  command->add_flag("-q,--quiet", options.quiet, "No notes on standard error, only errors");
}

void add_send(CLI::App &app, options_t &options) {
  auto *send = app.add_subcommand("send", "Send a message to a module");
  send->add_option("TEXT", options.text,
                   "The message; '-' takes standard input, the whole of it as one message, NUL "
                   "bytes included, up to 64 MiB")
      ->required()
      ->type_name("");
  send->add_flag("--lines", options.lines, "One message a line, without the line feed");
  add_module(send, options, "--to", "The module that is to get it");
  add_timeout(send, options, "How long the module may take over a message (default 10)");
  send->footer("Ends once the module has taken all messages; exit status 3 when it does not.");
}

void add_listen(CLI::App &app, options_t &options) {
  auto *listen = app.add_subcommand("listen", "Print what a module sends, one message a line");
  add_module(listen, options, "--from", "The module to listen to");
  listen->add_option("--count", options.count, "End after so many messages")
      ->check(number_from(1L, std::numeric_limits<long>::max()))
      ->type_name("N");
  add_timeout(listen, options, "End after so many seconds, with exit status 2");
  listen
      ->add_option_function<std::string>(
          "--format", [&options](const std::string &name) { options.format = formats().at(name); },
          "How to print: text (the default) escapes control bytes")
      ->check(CLI::Validator(CLI::IsMember(formats())).description(""))
      ->type_name("text|hex|json");
  add_quiet(listen, options);
  listen->footer("Exit status 0 when the count is reached, 2 when the time is up before.");
}

void add_status(CLI::App &app, options_t &options) {
  auto *status = app.add_subcommand("status", "Ask the daemon for its connection to the service");
  add_timeout(status, options, "How long to wait for the answer (default 30)");
  status->footer("Prints connected or disconnected.\n"
                 "Exit status 0 connected, 1 disconnected, 2 no answer in time.");
}

void add_rejoin(CLI::App &app, options_t &options) {
  auto *rejoin = app.add_subcommand("rejoin", "Drop a module off the bus, so that it joins again");
  add_module(rejoin, options, "--module", "The module to drop");
  add_timeout(rejoin, options, "How long the module may take over it (default 10)");
}

void add_check_config(CLI::App &app, options_t &options) {
  auto *check = app.add_subcommand(
      "check-config", "Tell what the daemon makes of a configuration file, and what looks wrong");
  check->add_option("FILE", options.config_file, "The file, as for vemk -f")
      ->required()
      ->type_name("");
  check->footer(
      "Prints warnings and errors by line, then what the daemon would use: host, port,\n"
      "path, reconnect delays, log categories and location. Needs neither the daemon nor\n"
      "the bus, and connects to nothing.\n"
      "Exit status 0 usable, 1 usable with warnings, 2 not usable: the daemon would not\n"
      "connect.\n"
      "Examples:\n"
      "  vemkctl check-config /etc/vemk.conf\n"
      "  vemkctl check-config new.conf && cp new.conf /etc/vemk.conf");
}

command chosen_command(const CLI::App &app) {
  const std::string name = app.get_subcommands().front()->get_name();
  if (name == "send")
    return command::send;
  if (name == "listen")
    return command::listen;
  if (name == "check-config")
    return command::check_config;
  return name == "status" ? command::status : command::rejoin;
}

constexpr double default_timeout_seconds = 10;

// Longer than the 20 seconds that the daemon waits for a server's handshake. A request that arrives
// meanwhile is answered when the daemon gives that attempt up.
constexpr double default_status_timeout_seconds = 30;

void set_default_timeout(options_t &options) {
  if (options.timeout_seconds != 0 || options.what == command::listen)
    return;
  options.timeout_seconds =
      options.what == command::status ? default_status_timeout_seconds : default_timeout_seconds;
}

} // namespace

void describe_command_line(CLI::App &app, options_t &options) {
  app.set_version_flag("--version", "vemkctl " VEMKCTL_VERSION);
  app.add_option("--bus", options.bus_folder, "The bus folder; may follow the command too")
      ->type_name("DIR");
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(footer);
  app.failure_message([](const CLI::App *, const CLI::Error &error) {
    return std::string(error.what()) + "; see vemkctl --help or vemkctl COMMAND --help";
  });
  add_send(app, options);
  add_listen(app, options);
  add_status(app, options);
  add_rejoin(app, options);
  add_check_config(app, options);
}

command_line_t parse_command_line(int argc, const char *const *argv) {
  command_line_t result;
  options_t options;
  CLI::App app("Talks to the modules of the local module-messaging bus, and checks the daemon's "
               "configuration.",
               "vemkctl");
  describe_command_line(app, options);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    std::ostringstream output;
    std::ostringstream message;
    result.status = app.exit(error, output, message) == 0 ? exit_done : exit_usage;
    result.output = output.str();
    result.error = message.str();
    return result;
  }
  options.what = chosen_command(app);
  set_default_timeout(options);
  result.options = options;
  return result;
}

} // namespace vemk
