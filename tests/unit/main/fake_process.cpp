#include "unit/main/fake_process.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/types.h>

#include "fakes/temporary_folder.h"
#include "fakes/time64.h"
#include "log/log_module.h"

namespace {

constexpr char real_pid_file[] = "/tmp/vemk.roaming.pid";

struct state_t {
  vemk::temporary_folder folder;
  std::string pid_file = folder.file("pid");
  std::vector<std::string> events;
  std::vector<vemk::message_queue_t *> queues;
  std::size_t throwing_queue = 0;
  std::map<FILE *, std::string> open_files;
  std::set<int> pid_descriptors;
  int system_result = 0;
};

// Static, so that exit() removes its folder in the children of death tests too.
std::unique_ptr<state_t> state;

/// What a file is called in the events; empty for a file that is none of the test's.
std::string event_name(const std::string &path) {
  if (path.rfind(state->folder.path(), 0) == 0)
    return path.substr(state->folder.path().size() + 1);
  return "";
}

/// The mode of fopen() that opens with these flags.
std::string mode_of(int flags) {
  switch (flags & (O_ACCMODE | O_CREAT | O_TRUNC | O_APPEND | O_EXCL)) {
  case O_RDONLY:
    return "r";
  case O_RDWR | O_CREAT | O_TRUNC:
    return "w+";
  default:
    return "with flags " + std::to_string(flags);
  }
}

void note(const std::string &event) {
  if (state)
    state->events.push_back(event);
}

/// Leaves a message in the queue whose release, with the queue, is recorded.
void leave_message(vemk::message_queue_t &queue, const std::string &event) {
  queue.push(std::shared_ptr<vemk::buffer_info_t>(new vemk::buffer_info_t,
                                                  [event](vemk::buffer_info_t *buffer) {
                                                    note(event);
                                                    delete buffer;
                                                  }));
}

} // namespace

extern "C" {

FILE *__real_fopen(const char *path, const char *mode);

FILE *__wrap_fopen(const char *path, const char *mode) {
  if (strcmp(path, real_pid_file) == 0)
    abort();
  const std::string name = state ? event_name(path) : "";
  FILE *const file = __real_fopen(path, mode);
  if (name.empty())
    return file;
  note("fopen " + name + " " + mode + (file == nullptr ? " failed" : ""));
  if (file != nullptr)
    state->open_files[file] = name;
  return file;
}

int __real_open(const char *path, int flags, ...);

int __wrap_open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto permissions = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
  va_end(arguments);
  if (strcmp(path, real_pid_file) != 0)
    return __real_open(path, flags, permissions);
  if (!state)
    abort();
  const int descriptor = __real_open(state->pid_file.c_str(), flags, permissions);
  note("open PID file " + mode_of(flags) + (descriptor < 0 ? " failed" : ""));
  state->pid_descriptors.insert(descriptor);
  return descriptor;
}

int __real_close(int descriptor);

int __wrap_close(int descriptor) {
  if (state && state->pid_descriptors.erase(descriptor) != 0)
    note("close PID file");
  return __real_close(descriptor);
}

FILE *__real_fdopen(int descriptor, const char *mode);

FILE *__wrap_fdopen(int descriptor, const char *mode) {
  FILE *const file = __real_fdopen(descriptor, mode);
  if (state && state->pid_descriptors.erase(descriptor) != 0)
    state->open_files[file] = "PID file";
  return file;
}

int __real_fclose(FILE *file);

int __wrap_fclose(FILE *file) {
  if (state) {
    const auto known = state->open_files.find(file);
    if (known != state->open_files.end()) {
      note("fclose " + known->second);
      state->open_files.erase(known);
    }
  }
  return __real_fclose(file);
}

int __wrap_system(const char *command) {
  note(std::string("system ") + command);
  return state ? state->system_result : -1;
}

void __wrap_perror(const char *text) {
  note(std::string("perror ") + text);
}

pid_t __real_getpid(void);

pid_t __wrap_getpid(void) {
  return state ? vemk::fake_process::own_pid : __real_getpid();
}

int __wrap_prctl(int option, ...) {
  va_list arguments;
  va_start(arguments, option);
  if (option == PR_SET_NAME)
    note(std::string("thread name ") + va_arg(arguments, const char *));
  else
    note("prctl " + std::to_string(option));
  va_end(arguments);
  return 0;
}

void __wrap_srand(unsigned seed) {
  note("srand " + std::to_string(seed));
}

time_t __wrap_time(time_t *) {
  return vemk::fake_process::current_time;
}

void __wrap_init_zandor_logrotate(const char *program) {
  note(std::string("init_zandor_logrotate ") + program);
}

void __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level);

void __wrap__ZN4vemk13log_set_levelERNS_12log_module_tEj(vemk::log_module_t &module,
                                                         std::uint32_t level) {
  if (strcmp(module.name, "vemk-main") == 0)
    note("level of vemk-main " + std::to_string(level));
  __real__ZN4vemk13log_set_levelERNS_12log_module_tEj(module, level);
}

void __real__ZN4vemk15message_queue_tC1Ev(vemk::message_queue_t *queue);

void __wrap__ZN4vemk15message_queue_tC1Ev(vemk::message_queue_t *queue) {
  if (state && state->queues.size() + 1 == state->throwing_queue)
    throw std::runtime_error("queue");
  __real__ZN4vemk15message_queue_tC1Ev(queue);
  note("queue");
  if (!state)
    return;
  state->queues.push_back(queue);
  leave_message(*queue, state->queues.size() == 1 ? "bus-to-service queue released"
                                                  : "service-to-bus queue released");
}
}

namespace vemk::fake_process {

void reset() {
  state.reset();
  state = std::make_unique<state_t>();
}

void record(const std::string &event) {
  note(event);
}

std::vector<std::string> events() {
  return state->events;
}

std::vector<message_queue_t *> queues() {
  return state->queues;
}

void let_queue_construction_throw(std::size_t nth) {
  state->throwing_queue = nth;
}

void set_system_result(int result) {
  state->system_result = result;
}

std::string write_file(const std::string &name, const std::string &text) {
  return state->folder.write(name, text);
}

void write_pid_file(const std::string &text) {
  state->folder.write("pid", text);
}

std::string pid_file() {
  return state->folder.read("pid");
}

std::string pid_file_path() {
  return state->pid_file;
}

void make_pid_file_unreachable() {
  state->pid_file = state->folder.file("no such folder/pid");
}

} // namespace vemk::fake_process
