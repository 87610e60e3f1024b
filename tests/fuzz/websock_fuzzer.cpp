/// The first line has the first and the largest delay, the log level and 1 for whole messages; each
/// further line is a step of what the base, the library, the bus and the clock do to a WebSocket
/// worker:
///   i OUTCOME RANDOM           the base's next init(), behind a deinit() if there was an init()
///                              before; OUTCOME "c": no context, "n": no connection; rand's value
///   d                          deinit()
///   s                          run_once()
///   f NUMBER                   the run flag, 0 or 1
///   c REASON [z]               a callback of the library, with z for no connection
///   r PIECE REMAINING TIMES LIMIT TEXT
///                              a received piece, TEXT repeated; PIECE "f": the last one; no memory
///                              for blocks of LIMIT bytes if that is not 0. R instead of r: past
///                              the dispatcher
///   n PIECE REMAINING LENGTH   the same with a null pointer; N as R
///   p TIMES TEXT               a message from the bus, TEXT repeated
///   q POLL TEXT                one that comes at this poll of the next wait
///   w RESULT ...               what the next calls of lws_write return
///   t SECONDS                  the clock goes on
///   j OFFSET ...               what the next readings of the clock are off by, in seconds
///   x REASON                   a callback inside the next lws_context_destroy
/// After each step the worker and all that it did is held against websock_model.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "fuzz/buffers.h"
#include "fuzz/expect.h"
#include "fuzz/open_worker.h"
#include "fuzz/script.h"
#include "fuzz/websock_model.h"
#include "log/log_module.h"
#include "unit/websock/wrapped_libc.h"

namespace vemk::fuzz {

namespace {

constexpr std::int64_t largest_delay = 20;
constexpr std::int64_t largest_reason = 1023;
constexpr std::int64_t largest_piece = 20000;
constexpr useconds_t restart_pause_us = 300000;
constexpr int most_steps = 300;
constexpr int most_inits = 20;
constexpr std::size_t most_listed = 16;

/// Whole lines as "module> message", dumps left out.
std::vector<std::string> logged_lines() {
  std::vector<std::string> lines;
  for (const std::string &line : fake_log::lines()) {
    const std::string text = line.substr(line.find('|', 1) + 1);
    if (text.rfind("buffer-info> Buffer info dump:", 0) == std::string::npos)
      lines.push_back(text);
  }
  return lines;
}

class websock_run {
public:
  explicit websock_run(script_reader &first_line)
      : first_delay(static_cast<std::uint32_t>(first_line.number(0, largest_delay))),
        max_delay(static_cast<std::uint32_t>(first_line.number(0, largest_delay))),
        level(static_cast<std::uint32_t>(first_line.number(0, 15))),
        whole_messages(first_line.number(0, 1) == 1),
        model(first_delay, max_delay, level, whole_messages) {
    g_log_level = level;
    worker =
        std::make_unique<open_worker>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam", 8080,
                                      &run_flag, first_delay, max_delay, false, whole_messages);
    callback = worker->protocol_callback;
    fake_lws::on_destroy([this] { call_back_in_destroy(); });
  }

  ~websock_run() {
    fake_lws::on_destroy(nullptr);
    fake_libc::on_sleep(nullptr);
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
    if (model.has_context() && !has_ended) {
      if (action == "s")
        run_once();
      if (action == "c")
        call_back(script);
      if (action == "r" || action == "R" || action == "n" || action == "N")
        receive(action, script);
    }
    if (action == "p")
      push_from_bus(script);
    if (!has_ended)
      compare();
  }

  void destroy() {
    model.deinit();
    worker.reset();
    // The bus goes on and must not reach what is gone.
    bus_to_ws.push(buffer_of("late"));
    expect_equal("what goes to the bus at the end", model_view().to_bus, take_all(ws_to_bus));
    expect_equal("the library calls at the end", last_model_view.library_calls, fake_lws::calls());
    compare_frames();
  }

private:
  void surroundings_step(const std::string &action, script_reader &script) {
    if (action == "f")
      set_run_flag(script.number(0, 1) == 1);
    if (action == "q") {
      const auto poll = static_cast<int>(script.number(1, 100));
      const std::string message = script.rest();
      model.push_while_waiting(poll, message);
      arrivals.emplace(poll, message);
    }
    if (action == "w")
      script_write_results(script);
    if (action == "t")
      let_pass(script.number(0, 40));
    if (action == "j")
      script_readings(script);
    if (action == "x")
      call_back_when_destroyed(static_cast<int>(script.number(0, largest_reason)));
  }

  void set_run_flag(bool value) {
    run_flag = value;
    model.set_run_flag(value);
  }

  void let_pass(std::int64_t seconds) {
    fake_libc::advance_seconds(seconds);
    model.let_pass(seconds * 1000000);
  }

  void script_write_results(script_reader &script) {
    std::vector<int> results;
    while (script.has_word() && results.size() < most_listed)
      results.push_back(static_cast<int>(script.number(-10, 100000)));
    fake_lws::script_write_results(results);
    model.script_write_results(results);
  }

  void script_readings(script_reader &script) {
    std::vector<std::int64_t> seconds;
    while (script.has_word() && seconds.size() < most_listed)
      seconds.push_back(model.now() + script.number(-100, 100));
    fake_libc::script_readings(seconds);
    model.script_readings(seconds);
  }

  /// The library establishes no connection while it destroys one.
  void call_back_when_destroyed(int reason) {
    if (reason == LWS_CALLBACK_CLIENT_ESTABLISHED || destroy_reasons.size() == most_listed)
      return;
    destroy_reasons.push_back(reason);
    model.call_back_when_destroyed(reason);
  }

  void call_back_in_destroy() {
    const std::vector<int> reasons = std::move(destroy_reasons);
    destroy_reasons.clear();
    for (const int reason : reasons)
      call_worker(reason, wsi, nullptr, 0);
    if (wsi != nullptr)
      call_worker(LWS_CALLBACK_WSI_DESTROY, wsi, nullptr, 0);
    wsi = nullptr;
  }

  int call_worker(int reason, lws *connection, void *in, std::size_t length) {
    return callback(connection, static_cast<lws_callback_reasons>(reason), nullptr, in, length);
  }

  /// Lets both do the same and compares whether, and how, the process ends.
  template<typename worker_action, typename model_action>
  void run_both(worker_action of_worker, model_action of_model) {
    std::optional<int> expected;
    try {
      of_model();
    } catch (const process_end &end) {
      expected = end.status;
    }
    const std::optional<int> status = fake_libc::exit_status(of_worker);
    has_ended = expected.has_value();
    expect_equal("whether the process ends", has_ended, status.has_value());
    expect_equal("the exit status", expected.value_or(0), status.value_or(0));
  }

  void init(script_reader &script) {
    ++inits;
    if (is_set_up) {
      deinit();
      usleep(restart_pause_us);
      model.let_pass(restart_pause_us);
    }
    const std::string word = script.word();
    const connect_outcome outcome = word == "c"   ? connect_outcome::no_context
                                    : word == "n" ? connect_outcome::no_connection
                                                  : connect_outcome::connecting;
    if (outcome == connect_outcome::no_context)
      fake_lws::fail_next_context();
    if (outcome == connect_outcome::no_connection)
      fake_lws::fail_next_connection();
    const auto random = static_cast<int>(script.number(0, RAND_MAX));
    wrapped_libc::script_rand({random});
    int poll = 0;
    fake_libc::on_sleep([this, &poll](std::int64_t) { push_arrivals(++poll); });
    run_both([this] { worker->running = worker->init(); },
             [this, outcome, random] { model.init(outcome, random); });
    fake_libc::on_sleep(nullptr);
    arrivals.clear();
    is_set_up = true;
    wsi = outcome == connect_outcome::connecting && !has_ended ? fake_lws::connection() : nullptr;
  }

  void push_arrivals(int poll) {
    for (auto [each, end] = arrivals.equal_range(poll); each != end; ++each)
      bus_to_ws.push(buffer_of(each->second));
  }

  void deinit() {
    model.deinit();
    worker->deinit();
    is_set_up = false;
  }

  void run_once() {
    bool asks_for_pause = true;
    run_both([this, &asks_for_pause] { asks_for_pause = worker->run_once(); },
             [this] { model.run_once(); });
    expect_equal("whether the step asks for a pause", true, asks_for_pause);
  }

  void call_back(script_reader &script) {
    const auto reason = static_cast<int>(script.number(0, largest_reason));
    const bool has_connection = script.word() != "z";
    int result = 0;
    run_both(
        [this, reason, has_connection, &result] {
          result = call_worker(reason, has_connection ? wsi : nullptr, nullptr, 0);
        },
        [this, reason, has_connection] {
          model.call_back(reason, has_connection ? model.connection() : 0);
        });
    expect_equal("the dispatcher's result", 0, result);
  }

  void receive(const std::string &action, script_reader &script) {
    const bool is_null = action == "n" || action == "N";
    piece_t piece;
    piece.is_final = script.word() == "f";
    piece.remaining = static_cast<std::size_t>(script.number(0, largest_piece));
    const std::int64_t number = script.number(0, largest_piece);
    if (is_null) {
      // Only the last piece of a message may be null and have a length.
      const bool is_last = piece.is_final && piece.remaining == 0;
      piece.length = is_last ? static_cast<std::size_t>(number) : 0;
    } else {
      const auto limit = static_cast<std::size_t>(script.number(0, largest_piece));
      if (limit != 0)
        piece.memory_limit = limit;
      piece.bytes = repeated(script.rest(), number, largest_piece);
      piece.length = piece.bytes->size();
    }
    deliver(piece, action == "R" || action == "N");
  }

  void deliver(const piece_t &piece, bool past_dispatcher) {
    std::string bytes = piece.bytes.value_or("");
    void *const in = piece.bytes ? bytes.data() : nullptr;
    fake_lws::set_piece(piece.remaining, piece.is_final);
    const wrapped_libc::memory_shortage shortage(piece.memory_limit);
    if (past_dispatcher) {
      expect_equal("the receive handler's result", model.receive(piece),
                   worker->process_client_receive(wsi, nullptr, in, piece.length));
    } else {
      model.set_piece(piece);
      model.call_back(LWS_CALLBACK_CLIENT_RECEIVE, model.connection());
      expect_equal("the dispatcher's result", 0,
                   call_worker(LWS_CALLBACK_CLIENT_RECEIVE, wsi, in, piece.length));
    }
    // Callbacks without data are about a piece of the same kind.
    piece_t empty;
    empty.remaining = piece.remaining;
    empty.is_final = piece.is_final;
    model.set_piece(empty);
  }

  void push_from_bus(script_reader &script) {
    const std::int64_t times = script.number(0, largest_piece);
    const std::string message = repeated(script.rest(), times, largest_piece);
    model.push_from_bus(message);
    bus_to_ws.push(buffer_of(message));
  }

  const worker_view_t &model_view() {
    last_model_view = model.take_view();
    return last_model_view;
  }

  void compare() {
    worker_view_t view;
    view.alive = worker->alive;
    view.connected = worker->connected;
    view.closed = worker->closed;
    view.running = worker->running;
    view.has_context = worker->context != nullptr;
    view.keeps_running = worker->keep_running(&run_flag);
    view.missed_pongs = worker->missed_pongs;
    view.current_delay = worker->current_delay;
    view.last_ping = worker->last_ping.tv_sec;
    view.received = text_of(*worker->rx_buffer);
    view.waiting = bus_to_ws.items.size();
    view.to_bus = take_all(ws_to_bus);
    view.library_calls = fake_lws::calls();
    view.logged = logged_lines();
    fake_lws::clear_calls();
    fake_log::clear();
    expect_same(model_view(), view);
  }

  void compare_frames() {
    const std::vector<fake_lws::frame_t> frames = fake_lws::frames();
    expect_equal("the frames", model.frames.size(), frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
      expect_equal("a frame's payload", model.frames[i].payload, frames[i].payload);
      expect_equal("a frame's type", model.frames[i].type, frames[i].type);
      expect_equal("whether the headroom was zero", true, frames[i].headroom_was_zero);
    }
  }

  std::uint32_t first_delay;
  std::uint32_t max_delay;
  std::uint32_t level;
  bool whole_messages;
  websock_model model;
  worker_view_t last_model_view;
  bool run_flag = true;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  std::unique_ptr<open_worker> worker;
  lws_protocol_callback callback = nullptr;
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
  wrapped_libc::reset();
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
