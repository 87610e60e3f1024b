/// The first line has the first and the largest delay, the log level, 1 for whole messages and 1
/// for the event-driven pacing; each further line is a step of what the base, the library, the bus
/// and the clock do to a WebSocket worker:
///   i OUTCOME RANDOM           the base's next init(), behind a deinit() if there was an init()
///                              before; OUTCOME "c": no context, "n": no connection; rand's value
///   d                          deinit()
///   s OFFSET ...               run_once(); what the first readings of the clock behind its wait
///                              are off by, in seconds
///   f NUMBER                   the run flag, 0 or 1
///   c REASON [z]               a callback of the library, with z for no connection
///   r PIECE REMAINING TIMES LIMIT TEXT
///                              a received piece, TEXT repeated; PIECE "f": the last one; no memory
///                              for blocks of LIMIT bytes if that is not 0
///   n PIECE REMAINING LENGTH   the same with a null pointer
///   p TIMES TEXT               a message from the bus, TEXT repeated
///   q POLL TEXT                one that comes at this poll of the next wait
///   w RESULT ...               what the next calls of lws_write return
///   t SECONDS                  the clock goes on
///   x REASON                   a callback inside the next lws_context_destroy
/// After each step websock_judge looks at all that the worker did.

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "fakes/fake_memory.h"
#include "fuzz/expect.h"
#include "fuzz/script.h"
#include "fuzz/websock_judge.h"
#include "log/log_module.h"
#include "support/buffers.h"
#include "support/open_websock_worker.h"

namespace vemk::fuzz {

namespace {

constexpr std::int64_t largest_delay = 20;
constexpr std::int64_t largest_reason = 1023;
constexpr std::int64_t largest_piece = 20000;
constexpr useconds_t restart_pause_us = 300000;
constexpr int most_steps = 300;
constexpr int most_inits = 20;
constexpr std::size_t most_listed = 16;
const piece_t no_piece{};

/// Reasons that the library gives for an open connection only.
bool needs_connection(int reason) {
  return reason == LWS_CALLBACK_CLIENT_ESTABLISHED || reason == LWS_CALLBACK_CLIENT_RECEIVE ||
         reason == LWS_CALLBACK_CLIENT_RECEIVE_PONG || reason == LWS_CALLBACK_CLIENT_WRITEABLE ||
         reason == fake_lws::closed_reason;
}

/// Reasons behind which later releases free the connection, and the worker knows.
bool frees_connection(int reason) {
  return reason == LWS_CALLBACK_CLIENT_CONNECTION_ERROR || reason == fake_lws::closed_reason ||
         reason == LWS_CALLBACK_WSI_DESTROY;
}

class websock_run {
public:
  explicit websock_run(script_reader &first_line) {
    const auto first_delay = static_cast<std::uint32_t>(first_line.number(0, largest_delay));
    const auto max_delay = static_cast<std::uint32_t>(first_line.number(0, largest_delay));
    g_log_level = static_cast<std::uint32_t>(first_line.number(0, 15));
    const bool whole_messages = first_line.number(0, 1) == 1;
    is_event = first_line.number(0, 1) == 1;
    judge = std::make_unique<websock_judge>(&run_flag, first_delay, max_delay, whole_messages,
                                            is_event);
    if (is_event)
      make_worker<open_event_worker>(first_delay, max_delay, whole_messages, &bus_to_ws_bound,
                                     &ws_to_bus_bound);
    else
      make_worker<open_websock_worker>(first_delay, max_delay, false, whole_messages);
    fake_lws::on_destroy([this] { call_back_in_destroy(); });
  }

  ~websock_run() {
    fake_lws::on_destroy(nullptr);
    fake_libc::on_sleep(nullptr);
    fake_libc::on_poll(nullptr);
    g_log_level = 0;
  }

  websock_run(const websock_run &) = delete;
  websock_run &operator=(const websock_run &) = delete;

  bool is_over() const { return has_ended || steps == most_steps; }

  void step(script_reader &script) {
    ++steps;
    const std::string action = script.word();
    surroundings_step(action, script);
    if (action == "i" && inits < most_inits)
      init(script);
    if (action == "d" && is_set_up)
      deinit();
    if (judge->has_context() && !has_ended) {
      if (action == "s")
        run_once(script);
      if (action == "c")
        call_back(script);
      if (action == "r" || action == "n")
        receive(action == "n", script);
    }
    if (!has_ended)
      compare();
  }

  void destroy() {
    // In the destructor its handlers would be those of the other pacing.
    if (is_event && is_set_up)
      deinit();
    judge->stop();
    worker.reset();
    // The bus goes on and must not reach what is gone.
    push("late");
    if (!has_ended)
      judge->compare(bus_to_ws, ws_to_bus, false);
  }

private:
  template<typename worker_t, typename... argument_t>
  void make_worker(argument_t... arguments) {
    auto made = std::make_unique<worker_t>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam", 8080,
                                           &run_flag, arguments...);
    callback = made->protocol_callback;
    running = &made->running;
    worker = std::move(made);
  }

  void surroundings_step(const std::string &action, script_reader &script) {
    if (action == "f")
      run_flag = script.number(0, 1) == 1;
    if (action == "p") {
      const std::int64_t times = script.number(0, largest_piece);
      push(repeated(script.rest(), times, largest_piece));
    }
    if (action == "q") {
      const auto poll = static_cast<int>(script.number(1, 100));
      arrivals.emplace(poll, script.rest());
    }
    if (action == "w") {
      const std::vector<int> results = numbers<int>(script, -10, 100000);
      fake_lws::script_write_results(results);
      judge->script_write_results(results);
    }
    if (action == "t")
      fake_libc::advance_seconds(script.number(0, 40));
    if (action == "x" && destroy_reasons.size() < most_listed)
      destroy_reasons.push_back(static_cast<int>(script.number(0, largest_reason)));
  }

  template<typename number>
  static std::vector<number> numbers(script_reader &script, int lowest, int highest) {
    std::vector<number> all;
    while (script.has_word() && all.size() < most_listed)
      all.push_back(static_cast<number>(script.number(lowest, highest)));
    return all;
  }

  void compare() {
    judge->compare(bus_to_ws, ws_to_bus, *running && worker->keep_running(&run_flag));
  }

  void push(const std::string &message) {
    judge->push_from_bus(message, wsi != nullptr);
    bus_to_ws.push(buffer_of(message));
  }

  /// Lets the worker do something that may end the process.
  template<typename worker_action>
  void let(worker_action act) {
    const std::optional<int> status = fake_libc::exit_status(act);
    has_ended = status.has_value();
    expect_equal("whether the process ends", judge->ends_process(), has_ended);
    expect_equal("the exit status", has_ended ? -1 : 0, status.value_or(0));
  }

  void init(script_reader &script) {
    ++inits;
    if (is_set_up) {
      deinit();
      usleep(restart_pause_us);
    }
    const std::string outcome = script.word();
    if (outcome == "c")
      fake_lws::fail_next_context();
    if (outcome == "n")
      fake_lws::fail_next_connection();
    fake_libc::script_rand({static_cast<int>(script.number(0, RAND_MAX))});
    int poll = 0;
    fake_libc::on_sleep([this, &poll](std::int64_t) { look_into_queue(++poll); });
    fake_libc::on_poll([this, &poll] { look_into_queue(++poll); });
    judge->begin_attempt();
    let([this] { *running = worker->init(); });
    fake_libc::on_sleep(nullptr);
    fake_libc::on_poll(nullptr);
    arrivals.clear();
    is_set_up = true;
    if (has_ended)
      return;
    const bool has_connection = outcome != "c" && outcome != "n";
    judge->end_attempt(outcome != "c", has_connection);
    wsi = has_connection ? fake_lws::connection() : nullptr;
  }

  void look_into_queue(int poll) {
    // The attempt has not begun.
    if (poll == 1)
      compare();
    for (auto [each, end] = arrivals.equal_range(poll); each != end; ++each)
      push(each->second);
    judge->take_message(false);
  }

  void deinit() {
    judge->stop();
    worker->deinit();
    *running = false;
    is_set_up = false;
  }

  void call_back_in_destroy() {
    const std::vector<int> reasons = std::exchange(destroy_reasons, {});
    for (const int reason : reasons) {
      // The library establishes no connection while it destroys one.
      if (reason != LWS_CALLBACK_CLIENT_ESTABLISHED)
        call_worker(reason, wsi);
    }
    call_worker(LWS_CALLBACK_WSI_DESTROY, wsi);
    wsi = nullptr;
  }

  void run_once(script_reader &script) {
    std::vector<std::int64_t> readings = numbers<std::int64_t>(script, -100, 100);
    for (std::int64_t &reading : readings)
      reading += fake_libc::now_us() / 1000000;
    judge->step(readings, wsi != nullptr);
    bool asks_for_pause = !is_event;
    let([this, &asks_for_pause] { asks_for_pause = worker->run_once(); });
    fake_libc::script_readings({});
    expect_equal("whether the step asks for a pause", !is_event, asks_for_pause);
  }

  void call_back(script_reader &script) {
    const auto reason = static_cast<int>(script.number(0, largest_reason));
    lws *const connection = script.word() == "z" ? nullptr : wsi;
    let([this, reason, connection] { call_worker(reason, connection); });
  }

  /// `in` is null where the library has no data.
  void call_worker(int reason, lws *connection, const piece_t &piece = no_piece, void *in = nullptr,
                   std::size_t length = 0) {
    if (connection == nullptr && needs_connection(reason))
      return;
    judge->call_back(reason, wsi != nullptr, piece);
    expect_equal(
        "the callback's result", judge->result_of(reason),
        callback(connection, static_cast<lws_callback_reasons>(reason), nullptr, in, length));
    if (connection != nullptr && frees_connection(reason)) {
      fake_lws::kill_connection(connection);
      wsi = nullptr;
    }
  }

  void receive(bool is_null, script_reader &script) {
    const bool is_final = script.word() == "f";
    const auto remaining = static_cast<std::size_t>(script.number(0, largest_piece));
    const std::int64_t number = script.number(0, largest_piece);
    piece_t piece;
    piece.is_last = is_final && remaining == 0;
    if (!is_null) {
      const auto limit = static_cast<std::size_t>(script.number(0, largest_piece));
      if (limit != 0)
        piece.memory_limit = limit;
      piece.bytes = repeated(script.rest(), number, largest_piece);
    }
    // Only the last piece of a message may be null and have a length.
    const std::size_t null_length = piece.is_last ? static_cast<std::size_t>(number) : 0;
    std::string bytes = piece.bytes;
    fake_lws::set_piece(remaining, is_final);
    {
      const fake_memory::shortage shortage(piece.memory_limit);
      call_worker(LWS_CALLBACK_CLIENT_RECEIVE, wsi, piece, is_null ? nullptr : bytes.data(),
                  is_null ? null_length : bytes.size());
    }
    fake_lws::set_piece(0, true);
  }

  std::unique_ptr<websock_judge> judge;
  bool run_flag = true;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  queue_bound bus_to_ws_bound{&bus_to_ws, &ws_to_bus};
  queue_bound ws_to_bus_bound{&ws_to_bus, &bus_to_ws};
  bool is_event = false;
  std::unique_ptr<abstract_worker> worker;
  bool *running = nullptr;
  lws_protocol_callback callback = nullptr;
  /// The connection, as long as the library has it.
  lws *wsi = nullptr;
  std::multimap<int, std::string> arrivals;
  std::vector<int> destroy_reasons;
  bool is_set_up = false;
  bool has_ended = false;
  int steps = 0;
  int inits = 0;
};

void reset_fakes() {
  fake_libc::reset();
  fake_lws::reset();
  fake_log::clear();
  fake_memory::reset();
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  vemk::fake_libc::let_exit_end_the_process();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk::fuzz;
  reset_fakes();
  script_reader script(data, size);
  script.next_line();
  {
    websock_run run(script);
    while (!run.is_over() && script.next_line())
      run.step(script);
    run.destroy();
  }
  vemk::fake_libc::let_exit_end_the_process();
  return 0;
}
