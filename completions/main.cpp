#include <fstream>
#include <iostream>

#include <CLI/CLI.hpp>

#include "bash_completion.h"
#include "vemkctl/command_description.h"

int main(int argc, char **argv) {
  if (argc != 2) {
    std::cerr << "usage: vemkctl-completion FILE\n";
    return 64;
  }
  vemk::options_t options;
  CLI::App app("", "vemkctl");
  vemk::describe_command_line(app, options);
  std::ofstream file(argv[1]);
  file << vemk::bash_completion(app);
  file.close();
  if (!file) {
    std::cerr << "vemkctl-completion: " << argv[1] << " cannot be written\n";
    return 4;
  }
  return 0;
}
