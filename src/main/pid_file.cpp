#include "main/pid_file.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace vemk {

namespace {

constexpr char pid_file_path[] = "/tmp/vemk.roaming.pid";

// The PID to kill when the file holds none. It lies above Linux's largest PID, 2^22, so that the
// kill command finds no process. 0, and numbers that turn negative in the kill command, are no
// PIDs: they would reach whole groups of processes, this one among them, and so at every start.
constexpr unsigned nobodys_pid = 2147483647;

void terminate_recorded_process() {
  FILE *const file = fopen(pid_file_path, "r");
  if (file == nullptr)
    return;
  unsigned pid = nobodys_pid;
  // NOLINTNEXTLINE(cert-err34-c): read with "%u" by design; what is no PID is sorted out here
  if (fscanf(file, "%u", &pid) != 1 || pid == 0 || pid > nobodys_pid)
    pid = nobodys_pid;
  char command[64];
  snprintf(command, sizeof command, "/bin/kill -s TERM %u 2> /dev/null", pid);
  // NOLINTNEXTLINE(cert-env33-c, concurrency-mt-unsafe): by design, and no other thread runs yet
  if (system(command) < 0)
    perror("system");
  fclose(file);
}

void record_own_pid() {
  FILE *const file = fopen(pid_file_path, "w+");
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
