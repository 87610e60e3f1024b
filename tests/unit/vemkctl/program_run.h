/// One run of vemkctl as a program.
#ifndef VEMK_TESTS_VEMKCTL_PROGRAM_RUN_H
#define VEMK_TESTS_VEMKCTL_PROGRAM_RUN_H

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <pty.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/emulator.h"

namespace vemk {

enum class error_stream { pipe, terminal };

/// Starts the program with its standard streams on files in a folder of the test's own, except for
/// standard error, which is a pipe or a terminal. The destructor waits for the program's end.
class program_run {
public:
  program_run(const std::string &folder, std::vector<std::string> arguments,
              const std::string &input = "", const std::string &output_file = "",
              error_stream errors = error_stream::pipe)
      : output_path(output_file.empty() ? unused_file(folder) : output_file) {
    const std::string input_path = unused_file(folder);
    std::ofstream(input_path, std::ios::binary) << input;
    int ends[2];
    if (errors == error_stream::terminal)
      open_terminal(ends);
    else
      EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    error_end = ends[0];

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, input_path.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, output_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_adddup2(&files, ends[1], 2);
    const std::vector<std::string> command = run_command(VEMKCTL_PATH);
    arguments.insert(arguments.begin(), command.begin(), command.end());
    std::vector<char *> argv;
    for (std::string &argument : arguments)
      argv.push_back(argument.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&process, argv[0], &files, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&files);
    close(ends[1]);
  }

  ~program_run() {
    exit_status();
    close(error_end);
  }
  program_run(const program_run &) = delete;
  program_run &operator=(const program_run &) = delete;

  /// The next line on standard error, or what there is at its end.
  std::string next_note() {
    std::string line;
    char byte = 0;
    while (read(error_end, &byte, 1) == 1 && byte != '\n')
      line += byte;
    return line;
  }

  /// Waits for the end; 128 and the signal's number for a program that a signal ended.
  int exit_status() {
    int status = 0;
    if (process > 0 && waitpid(process, &status, 0) == process) {
      result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      process = -1;
    }
    return result;
  }

  /// Standard output, after the end.
  std::string output() {
    exit_status();
    std::ifstream file(output_path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void signal(int number) { kill(process, number); }

private:
  /// The end that is read, and the end that is a terminal; it changes nothing that passes.
  static void open_terminal(int (&ends)[2]) {
    EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    for (const int end : ends)
      EXPECT_EQ(fcntl(end, F_SETFD, FD_CLOEXEC), 0);
    termios settings{};
    EXPECT_EQ(tcgetattr(ends[1], &settings), 0);
    cfmakeraw(&settings);
    EXPECT_EQ(tcsetattr(ends[1], TCSANOW, &settings), 0);
  }

  static std::string unused_file(const std::string &folder) {
    static int files = 0;
    return folder + "/stream" + std::to_string(++files);
  }

  const std::string output_path;
  int error_end = -1;
  pid_t process = -1;
  int result = -1;
};

} // namespace vemk

#endif
