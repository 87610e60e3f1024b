// Sends messages through a bridge, or through the parts that a bridge is made of, and takes times.
// "up" is from the bus to the WebSocket server, "down" the other way.
//
// Usage: bench_harness bridge     between the bus and a server whose port is the first line printed
//        bench_harness library    the WebSocket library alone
//        bench_harness corked     the same, with several messages in a packet
//        bench_harness bus        the bus alone
//        bench_harness raw        the harness alone
//        bench_harness mqtt PORT PORT    between two MQTT brokers, up to the second
//
// It prints "connected", and then for each line of its input one line of figures:
//
//   rate WAY SIZE COUNT             seconds from the first sent to the last received message
//   backlog WAY SIZE COUNT          seconds in which a receiver that starts 1 s late takes them
//   latency WAY SIZE COUNT PAUSE    microseconds of each message; some PAUSE microseconds between
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <iostream>
#include <poll.h>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "harness/message_end.h"

namespace {

using std::chrono::steady_clock;
using vemk::message_end;

struct ends_t {
  std::unique_ptr<message_end> lower;
  std::unique_ptr<message_end> upper;
};

struct job_t {
  std::string what;
  std::string way;
  std::size_t size = 0;
  long count = 0;
  long pause_us = 0;
};

double seconds_since(steady_clock::time_point begin) {
  return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

void measure_rate(message_end &from, message_end &to, const job_t &job) {
  const std::string payload(job.size, 'x');
  auto begin = steady_clock::now();
  auto sending = std::async(std::launch::async, [&] { from.send(payload, job.count); });
  if (job.what == "backlog") {
    sending.wait_for(std::chrono::seconds(1));
    begin = steady_clock::now();
  }
  to.receive(job.size, job.count);
  std::cout << seconds_since(begin) << std::endl;
}

void measure_latency(message_end &from, message_end &to, const job_t &job) {
  const std::string payload(job.size, 'x');
  std::minstd_rand random(std::random_device{}());
  std::uniform_int_distribution<long> pause(job.pause_us / 2, job.pause_us * 3 / 2);
  std::vector<steady_clock::time_point> received(static_cast<std::size_t>(job.count));
  std::atomic<std::size_t> arrived{0};
  auto receiving = std::async(std::launch::async, [&] {
    for (auto &time : received) {
      to.receive(job.size, 1);
      time = steady_clock::now();
      ++arrived;
    }
  });
  for (std::size_t i = 0; i < received.size(); ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(pause(random)));
    const auto sent = steady_clock::now();
    from.send(payload, 1);
    while (arrived == i)
      std::this_thread::sleep_for(std::chrono::microseconds(job.pause_us / 10));
    const std::chrono::duration<double, std::micro> taken = received[i] - sent;
    std::cout << taken.count() << ' ';
  }
  std::cout << std::endl;
}

ends_t make_ends(const std::vector<std::string> &words) {
  const std::string kind = words.empty() ? "" : words[0];
  const auto port = [&](std::size_t i) {
    return static_cast<std::uint16_t>(std::stoul(words.at(i)));
  };
  if (kind == "mqtt")
    return {vemk::make_mqtt_end(port(1), "up", "down"), vemk::make_mqtt_end(port(2), "down", "up")};
  if (kind == "bus") {
    // The module greets the listeners that are there before it.
    auto lower = vemk::make_bus_end();
    return {std::move(lower), vemk::make_module_end()};
  }
  auto server = vemk::make_server_end();
  if (kind == "library" || kind == "corked")
    return {vemk::make_library_end(server->port(), kind == "corked"), std::move(server)};
  if (kind == "raw")
    return {vemk::make_client_end(server->port()), std::move(server)};
  if (kind != "bridge")
    vemk::give_up("unknown kind of ends '" + kind + "'");
  std::cout << server->port() << std::endl;
  return {vemk::make_bus_end(), std::move(server)};
}

// The two ends of a connection wait for each other.
void connect(const ends_t &ends) {
  auto upper = std::async(std::launch::async, [&] { ends.upper->wait_until_connected(); });
  ends.lower->wait_until_connected();
  upper.wait();
  std::cout << "connected" << std::endl;
}

/// Returns when a line of input is there; answers pings until then.
void rest(const ends_t &ends) {
  while (true) {
    pollfd ready[] = {{STDIN_FILENO, POLLIN, 0},
                      {ends.lower->descriptor(), POLLIN, 0},
                      {ends.upper->descriptor(), POLLIN, 0}};
    poll(ready, 3, -1);
    if (ready[1].revents != 0)
      ends.lower->serve();
    if (ready[2].revents != 0)
      ends.upper->serve();
    if (ready[0].revents != 0)
      return;
  }
}

void run(const ends_t &ends) {
  std::string line;
  for (rest(ends); std::getline(std::cin, line); rest(ends)) {
    job_t job;
    std::istringstream(line) >> job.what >> job.way >> job.size >> job.count >> job.pause_us;
    const bool is_up = job.way == "up";
    message_end &from = is_up ? *ends.lower : *ends.upper;
    message_end &to = is_up ? *ends.upper : *ends.lower;
    if (job.what == "latency")
      measure_latency(from, to, job);
    else
      measure_rate(from, to, job);
  }
}

} // namespace

void vemk::give_up(const std::string &reason) {
  fprintf(stderr, "bench_harness: %s\n", reason.c_str());
  _exit(1);
}

void vemk::check_size(std::size_t size, std::size_t wanted) {
  if (size != wanted)
    give_up("a message has " + std::to_string(size) + " bytes, not " + std::to_string(wanted));
}

int main(int argc, char **argv) {
  try {
    const ends_t ends = make_ends({argv + 1, argv + argc});
    connect(ends);
    run(ends);
  } catch (const std::exception &error) {
    vemk::give_up(error.what());
  }
  return 0;
}
