/// The cost of distinguishing a message for the roaming service from one for the daemon itself.
/// Messages of 1 MiB go through the JSON parser, and through classify_bus_message.
///
/// Usage: bench_classify [REPEATS]
/// Each figure comes from a process of its own. The processor time is the median of the repeats
/// (default 15). The peak is the largest resident memory; program and message are some 3 MiB of it.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "json/json_reader.h"
#include "json/status_messages.h"

namespace {

using vemk::buffer_info_t;

constexpr std::size_t message_size = 1 << 20;

struct cost_t {
  double ms;
  long peak_kib;
};

/// `head`, then `unit` as often as it fits, then `tail`.
struct input_t {
  const char *name;
  std::string head;
  std::string unit;
  std::string tail;
};

std::vector<input_t> inputs() {
  const std::string strings = R"({"list":[)";
  const std::string item = '"' + std::string(200, 'x') + R"(",)";
  return {
      {"x repeated", "", "x", ""},
      {"internal-ip repeated", "", "internal-ip", ""},
      {"[{},{},...]", "[", "{},", "{}]"},
      {"[[],[],...]", "[", "[],", "[]]"},
      {"object of strings", strings, item, R"(""],"service":"roam"})"},
      {"the same and internal-ipc", strings, item, R"("internal-ipc"],"service":"roam"})"},
      {"the same and a backslash", strings, item, R"("\n"],"service":"roam"})"},
      {"[{},{},...,\"internal-ipc\"]", "[", "{},", R"("internal-ipc"])"},
  };
}

void fill(buffer_info_t &message, const input_t &input) {
  std::string text = input.head;
  text.reserve(message_size);
  while (text.size() + input.unit.size() + input.tail.size() <= message_size)
    text += input.unit;
  text += input.tail;
  message.append(text.data(), static_cast<std::uint32_t>(text.size()));
}

void parse(const buffer_info_t &message) {
  const vemk::json_reader json(reinterpret_cast<const char *>(message.data));
  json.get_string("service");
}

void classify(const buffer_info_t &message) {
  vemk::classify_bus_message(message);
}

double processor_ms() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

cost_t cost_of(const input_t &input, void (*handle)(const buffer_info_t &), std::size_t repeats) {
  buffer_info_t message;
  fill(message, input);
  std::vector<double> times(repeats);
  for (double &time : times) {
    const double start = processor_ms();
    handle(message);
    time = processor_ms() - start;
  }
  std::sort(times.begin(), times.end());
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return {times[times.size() / 2], used.ru_maxrss};
}

cost_t cost_in_a_child(const input_t &input, void (*handle)(const buffer_info_t &),
                       std::size_t repeats) {
  int ends[2];
  if (pipe(ends) != 0) {
    perror("bench_classify: pipe");
    exit(1);
  }
  const pid_t child = fork();
  if (child == 0) {
    const cost_t cost = cost_of(input, handle, repeats);
    _exit(write(ends[1], &cost, sizeof cost) == sizeof cost ? 0 : 1);
  }
  close(ends[1]);
  cost_t cost{};
  if (child < 0 || read(ends[0], &cost, sizeof cost) != sizeof cost) {
    fprintf(stderr, "bench_classify: no figures for %s\n", input.name);
    exit(1);
  }
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return cost;
}

} // namespace

int main(int argc, char **argv) {
  const long repeats = argc > 1 ? strtol(argv[1], nullptr, 10) : 15;
  if (argc > 2 || repeats < 1) {
    fprintf(stderr, "Usage: bench_classify [REPEATS]\n");
    return 1;
  }
  printf("%-28s | %22s | %22s |\n", "", "parsed", "classify_bus_message");
  printf("%-28s | %9s %12s | %9s %12s | %s\n", "1 MiB of", "ms", "peak KiB", "ms", "peak KiB",
         "time ratio");
  for (const input_t &input : inputs()) {
    const auto count = static_cast<std::size_t>(repeats);
    const cost_t before = cost_in_a_child(input, parse, count);
    const cost_t after = cost_in_a_child(input, classify, count);
    printf("%-28s | %9.3f %12ld | %9.3f %12ld | %.3g\n", input.name, before.ms, before.peak_kib,
           after.ms, after.peak_kib, before.ms / after.ms);
    fflush(stdout);
  }
  return 0;
}
