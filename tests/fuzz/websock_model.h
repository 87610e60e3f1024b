/// The WebSocket worker once more, as plain as it can be told: no library, no threads, no buffers.
#ifndef VEMK_TESTS_FUZZ_WEBSOCK_MODEL_H
#define VEMK_TESTS_FUZZ_WEBSOCK_MODEL_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vemk::fuzz {

/// What can be seen of the worker after a step, and what it has done since the last one.
struct worker_view_t {
  bool alive = false;
  bool connected = false;
  bool closed = false;
  bool running = false;
  bool has_context = false;
  bool keeps_running = false;
  std::int32_t missed_pongs = 0;
  std::uint32_t current_delay = 0;
  std::int64_t last_ping = 0;
  /// What the receive buffer holds.
  std::string received;
  /// Messages from the bus that still wait.
  std::size_t waiting = 0;
  std::vector<std::string> to_bus;
  std::vector<std::string> library_calls;
  /// "module> message", dumps left out.
  std::vector<std::string> logged;
};

void expect_same(const worker_view_t &model, const worker_view_t &worker);

enum class connect_outcome { connecting, no_context, no_connection };

/// What one callback of reason 8 is about.
struct piece_t {
  std::size_t remaining = 0;
  bool is_final = true;
  /// None is a null pointer.
  std::optional<std::string> bytes;
  std::size_t length = 0;
  /// The smallest block for which there is no memory.
  std::size_t memory_limit = std::numeric_limits<std::size_t>::max();
};

/// Thrown where the worker ends the process.
struct process_end {
  int status;
};

class websock_model {
public:
  websock_model(std::uint32_t first_delay, std::uint32_t largest_delay, std::uint32_t level,
                bool only_whole_messages);

  // The surroundings. Times are the monotonic clock's.

  void let_pass(std::int64_t microseconds) { clock_us += microseconds; }
  std::int64_t now() const { return clock_us / 1000000; }
  /// What the next readings of the clock give, in seconds.
  void script_readings(const std::vector<std::int64_t> &seconds);
  void script_write_results(const std::vector<int> &results);
  /// Reasons that the library calls back with inside its next lws_context_destroy.
  void call_back_when_destroyed(int reason) { destroy_reasons.push_back(reason); }
  /// The messages that come from the bus at the polls of the next wait, by the poll's number.
  void push_while_waiting(int poll, const std::string &message) { arrivals.emplace(poll, message); }
  void push_from_bus(const std::string &message);
  void set_run_flag(bool value) { run_flag = value; }

  // What the base has the worker do.

  bool init(connect_outcome outcome, int random);
  void run_once();
  void deinit();

  // What the library does.

  /// `wsi` is the number of a connection, 0 is none.
  void call_back(int reason, std::size_t wsi);
  /// Returns what the handler returns.
  int receive(const piece_t &piece);
  /// The piece that the next callbacks of reason 8 are about.
  void set_piece(const piece_t &piece) { current_piece = piece; }

  /// The connection made last, 0 when there was none.
  std::size_t connection() const { return connections; }
  bool has_context() const { return context != 0; }

  /// What is there to see, and forgets what was done.
  worker_view_t take_view();

  struct frame_t {
    std::string payload;
    int type;
  };
  std::vector<frame_t> frames;

private:
  void log(std::uint32_t category, const std::string &module, const std::string &message);
  void debug(const std::string &message);
  void call(const std::string &text) { view.library_calls.push_back(text); }
  std::int64_t read_clock();
  std::int64_t check_clock();

  std::uint32_t next_delay(int random);
  void wait_before_connect(int random);
  bool connect(connect_outcome outcome);
  void destroy_context();

  void check_pongs();
  int reason_of_release(int reason, std::size_t wsi);
  void established(std::size_t wsi);
  void writeable(std::size_t wsi);
  void ping_if_due(std::size_t wsi);
  void arm_watchdog();
  /// Takes one message from the bus. Returns it when it is for the service.
  std::optional<std::string> take_message();
  int send(std::size_t wsi, const std::string &payload, int type);
  void push_status();

  std::uint32_t initial_delay;
  std::uint32_t max_delay;
  std::uint32_t log_level;
  bool whole_messages;
  bool run_flag = true;
  std::int64_t clock_us = 1000000000;
  std::int64_t last_good;
  std::deque<std::int64_t> readings;
  std::deque<int> write_results;
  std::vector<int> destroy_reasons;
  std::multimap<int, std::string> arrivals;
  std::deque<std::string> from_bus;
  piece_t current_piece;

  std::size_t contexts = 0;
  std::size_t connections = 0;
  /// The numbers of the context that exists and of its connection; 0 is none.
  std::size_t context = 0;
  std::size_t context_connection = 0;
  /// What a push from the bus asks a writeable callback for, if anything.
  std::optional<std::size_t> notified_connection;
  /// The connection that the newer library still has.
  std::size_t known_connection = 0;
  std::optional<std::int64_t> watchdog_due;
  worker_view_t view;
};

} // namespace vemk::fuzz

#endif
