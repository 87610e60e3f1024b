#include "bash_completion.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include <CLI/CLI.hpp>

namespace vemk {

namespace {

// PROGRAM stands for the program's name, which its functions carry too.
constexpr char script_end[] = R"(
_PROGRAM() {
  local current=${COMP_WORDS[COMP_CWORD]} command='' option='' only_positionals='' takes='' word i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ $word == = ]]; then
      continue # "--format=hex" comes as three words
    elif [[ -n $option ]]; then
      option=''
    elif [[ $word == -- ]]; then
      only_positionals=yes
    elif [[ $word == -* && -z $only_positionals ]]; then
      _PROGRAM_takes "$command $word"
      [[ $takes == nothing ]] || option=$word
    elif [[ -z $command ]]; then
      command=$word
    fi
  done

  COMPREPLY=()
  [[ $current != = ]] || current=''
  if [[ -n $option ]]; then
    _PROGRAM_takes "$command $option"
  elif [[ $current == -* && -z $only_positionals ]]; then
    takes=$(_PROGRAM_options "$command")
  elif [[ -z $command ]]; then
    takes=$(_PROGRAM_commands)
  else
    _PROGRAM_takes "$command"
    # Nothing else can come here, so these may as well be shown.
    [[ $takes != nothing || -n $only_positionals ]] || takes=$(_PROGRAM_options "$command")
  fi

  case $takes in
    nothing | text) ;;
    files | folders)
      compopt -o filenames 2>/dev/null
      if [[ $takes == files ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      else
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
      fi
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$takes" -- "$current") ;;
  esac
}

complete -F _PROGRAM PROGRAM
)";

using options_list = std::vector<const CLI::Option *>;

options_list shown_options(const CLI::App &app) {
  return app.get_options([](const CLI::Option *option) { return !option->get_group().empty(); });
}

std::vector<const CLI::App *> shown_commands(const CLI::App &app) {
  return app.get_subcommands([](const CLI::App *command) { return !command->get_group().empty(); });
}

// A command that lets unknown options fall through takes those of the whole program too.
options_list options_behind(const CLI::App &app, const CLI::App &command) {
  options_list options = shown_options(command);
  if (!command.get_fallthrough())
    return options;
  for (const CLI::Option *option : shown_options(app)) {
    const bool known =
        std::any_of(options.begin(), options.end(), [option](const CLI::Option *other) {
          return other->get_name(false, true) == option->get_name(false, true);
        });
    if (!known)
      options.push_back(option);
  }
  return options;
}

std::vector<std::string> spellings(const CLI::Option &option) {
  std::vector<std::string> names;
  for (const std::string &name : option.get_lnames())
    names.push_back("--" + name);
  for (const std::string &name : option.get_snames())
    names.push_back("-" + name);
  return names;
}

std::string completion_of(std::string type) {
  if (type == "FILE")
    return "files";
  if (type == "DIR")
    return "folders";
  if (type.find('|') == std::string::npos)
    return "text";
  std::replace(type.begin(), type.end(), '|', ' ');
  return type;
}

std::string function_begin(const CLI::App &app, const char *name) {
  return "\n_" + app.get_name() + "_" + name + "() {\n";
}

void write_options_of(std::ostream &script, const std::string &command,
                      const options_list &options) {
  script << "    '" << command << "') printf '%s\\n' '";
  const char *separator = "";
  for (const CLI::Option *option : options) {
    for (const std::string &name : spellings(*option)) {
      script << separator << name;
      separator = " ";
    }
  }
  script << "' ;;\n";
}

void write_options(std::ostream &script, const CLI::App &app) {
  script << function_begin(app, "options") << "  case $1 in\n";
  write_options_of(script, "", shown_options(app));
  for (const CLI::App *command : shown_commands(app))
    write_options_of(script, command->get_name(), options_behind(app, *command));
  script << "  esac\n}\n";
}

void write_commands(std::ostream &script, const CLI::App &app) {
  script << function_begin(app, "commands") << "  printf '%s\\n' '";
  const char *separator = "";
  for (const CLI::App *command : shown_commands(app)) {
    script << separator << command->get_name();
    separator = " ";
  }
  script << "'\n}\n";
}

void write_values_of(std::ostream &script, const std::string &command,
                     const options_list &options) {
  for (const CLI::Option *option : options) {
    if (option->get_items_expected_max() == 0)
      continue;
    const std::string value = completion_of(option->get_type_name());
    for (const std::string &name : spellings(*option))
      script << "    '" << command << ' ' << name << "') takes='" << value << "' ;;\n";
    if (option->get_positional())
      script << "    '" << command << "') takes='" << completion_of(option->get_name(true, false))
             << "' ;;\n";
  }
}

void write_values(std::ostream &script, const CLI::App &app) {
  script << function_begin(app, "takes") << "  case $1 in\n";
  write_values_of(script, "", shown_options(app));
  for (const CLI::App *command : shown_commands(app))
    write_values_of(script, command->get_name(), options_behind(app, *command));
  script << "    *) takes=nothing ;;\n  esac\n}\n";
}

void replace_all(std::string &text, const std::string &old_part, const std::string &new_part) {
  for (auto at = text.find(old_part); at != std::string::npos;
       at = text.find(old_part, at + new_part.size()))
    text.replace(at, old_part.size(), new_part);
}

} // namespace

std::string bash_completion(const CLI::App &app) {
  std::ostringstream script;
  script << "# bash completion for " << app.get_name()
         << ", written from the program's own command description\n"
         << "# shellcheck shell=bash\n";
  write_commands(script, app);
  write_options(script, app);
  write_values(script, app);
  std::string end = script_end;
  replace_all(end, "PROGRAM", app.get_name());
  return script.str() + end;
}

} // namespace vemk
