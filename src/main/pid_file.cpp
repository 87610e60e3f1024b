#include "main/pid_file.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vemk {

namespace {

constexpr char pid_file_path[] = "/tmp/vemk.roaming.pid";

// The PID to kill when the file holds none. It is above Linux's largest PID, 2^22, so that the kill
// command does not find a process. 0, and numbers that turn negative in the kill command, are not
// PIDs. They would reach groups of processes, this one included, at every start.
constexpr long long nobodys_pid = 2147483647;

/// fopen for the PID file, with `flags` for `mode`. Everybody may write in the file's folder, so a
/// symbolic link is not followed and a FIFO is not waited for. Null when the path holds anything
/// but a regular file.
FILE *open_pid_file(int flags, const char *mode) {
  // The mode of a file that fopen creates, before the umask.
  constexpr mode_t permissions = 0666;
  const int descriptor = open(pid_file_path, flags | O_NOFOLLOW | O_NONBLOCK, permissions);
  if (descriptor < 0)
    return nullptr;
  // If the call fails, the zeroes stay, and they do not describe a regular file.
  struct stat status {};
  fstat(descriptor, &status);
  FILE *const file = S_ISREG(status.st_mode) ? fdopen(descriptor, mode) : nullptr;
  if (file == nullptr)
    close(descriptor);
  return file;
}

void terminate_recorded_process() {
  FILE *const file = open_pid_file(O_RDONLY, "r");
  if (file == nullptr)
    return;
  // Wider than a PID, so that a larger number is not cut to a PID.
  long long number = 0;
  // NOLINTNEXTLINE(cert-err34-c): values that are not PIDs are replaced below
  if (fscanf(file, "%lld", &number) != 1 || number <= 0 || number > nobodys_pid)
    number = nobodys_pid;
  char command[64];
  snprintf(command, sizeof command, "/bin/kill -s TERM %u 2> /dev/null",
           static_cast<unsigned>(number));
  // NOLINTNEXTLINE(cert-env33-c, concurrency-mt-unsafe): by design, and no other thread runs yet
  if (system(command) < 0)
    perror("system");
  fclose(file);
}

void record_own_pid() {
  FILE *const file = open_pid_file(O_RDWR | O_CREAT | O_TRUNC, "w+");
  if (file == nullptr)
    return;
  fprintf(file, "%u\n", static_cast<unsigned>(getpid()));
  fclose(file);
}

} // namespace

void replace_earlier_instance() {
  terminate_recorded_process();
  record_own_pid();
}

} // namespace vemk
