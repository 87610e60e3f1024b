/// The judge of a WebSocket worker: from what happens to it follows what must come out of it.
#ifndef VEMK_TESTS_FUZZ_WEBSOCK_JUDGE_H
#define VEMK_TESTS_FUZZ_WEBSOCK_JUDGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "fakes/fake_libc.h"
#include "fakes/fake_lws.h"
#include "fuzz/expect.h"
#include "fuzz/status_rule.h"
#include "support/buffers.h"
#include "websock/lws_release.h"

namespace vemk::fuzz {

/// A piece of a message from the service.
struct piece_t {
  std::string bytes;
  bool is_last = true;
  /// The smallest block for which there is no memory.
  std::size_t memory_limit = std::numeric_limits<std::size_t>::max();
};

/// Is told of each event just before the worker meets it. The time is fake_libc's; what the worker
/// does to the library is what fake_lws recorded.
class websock_judge {
public:
  websock_judge(const bool *keep_running_flag, std::uint32_t first_delay,
                std::uint32_t largest_delay, bool only_whole_messages, bool event_pacing)
      : run_flag(keep_running_flag), initial_delay(first_delay), max_delay(largest_delay),
        whole_messages(only_whole_messages), is_event(event_pacing), delay(first_delay) {}

  bool ends_process() const { return has_clock_jumped; }
  bool has_context() const { return context_exists; }

  /// The library takes the next frames with these results.
  void script_write_results(const std::vector<int> &results) {
    write_results.assign(results.begin(), results.end());
  }

  /// Before 3.0 nothing is asked of a connection that the library has taken away. With events the
  /// first message that waits has done so for those behind it.
  void push_from_bus(const std::string &message, bool connection_exists) {
    waiting.push_back(message);
    const bool is_first = waiting.size() == 1;
    if (is_connected && (is_later || connection_exists) && (is_first || !is_event))
      call_for_writeable = waking_call;
  }

  void begin_attempt() {
    show_status(false);
    attempt_began_us = fake_libc::now_us();
    check_clock();
    is_closing = false;
    if (whole_messages)
      received.clear();
  }

  /// The worker looks for one message from the bus: while it waits for its next attempt, and with a
  /// connection that is writeable. Returns false for one that could not be sent.
  bool take_message(bool is_writeable) {
    if (waiting.empty())
      return true;
    const message_fate fate = fate_of(waiting.front());
    int result = 0;
    if (fate == message_fate::forwarded && is_writeable)
      result = send(LWS_WRITE_TEXT, waiting.front());
    if (fate == message_fate::answered)
      show_status(is_connected);
    waiting.pop_front();
    return result >= 0;
  }

  /// Told when the attempt is under way or has failed.
  void end_attempt(bool makes_context, bool makes_connection) {
    const std::int64_t waited_us = fake_libc::now_us() - attempt_began_us;
    const std::int64_t shortest = delay == 0 ? 1 : delay / 2;
    const std::int64_t longest = delay == 0 ? 2 : shortest + delay - 1;
    // The clock is read in whole seconds, so a part of the first may have passed before.
    expect_equal("whether the wait is in its window", true,
                 waited_us > (shortest - 1) * second_us &&
                     waited_us <= std::max(longest * second_us, look_us));
    delay = std::min(max_delay, delay == 0 ? 2 : 2 * delay);
    last_checked = now();
    watchdog_due = std::numeric_limits<std::int64_t>::max();
    attempt_due = now() + attempt_limit_seconds;

    calls.emplace_back("lws_create_context");
    if (makes_context)
      calls.emplace_back("lws_client_connect_via_info");
    if (makes_context && !makes_connection)
      calls.emplace_back("lws_context_destroy");
    context_exists = is_alive = makes_connection;
    was_established = false;
  }

  /// A step of the worker, with the first readings of the clock behind its wait.
  void step(const std::vector<std::int64_t> &readings, bool connection_exists) {
    calls.emplace_back("lws_service");
    const bool is_settled = is_event && was_established && connection_exists && !is_closing;
    if (is_settled && (is_ping_due() || !waiting.empty()))
      call_for_writeable = writeable_call;
    fake_lws::script_service([this, readings, is_settled] {
      expect_equal("the timers that end the wait", std::size_t{is_later},
                   fake_lws::pending_timers());
      const std::string call = fake_lws::calls().back();
      const std::int64_t limit_ms = std::stoll(call.substr(call.rfind(' ')));
      if (!is_settled || is_alive)
        expect_equal("the limit of the wait", is_settled ? settled_wait_ms() : 500, limit_ms);
      fake_libc::script_readings(readings);
      check_clock(readings, is_event ? (limit_ms + 999) / 1000 : 0);
      is_alive = is_alive && last_checked < std::min(watchdog_due, attempt_due);
    });
  }

  /// What a callback returns: with events and before 3.0, the number of the thread that was asked
  /// for.
  int result_of(int reason) const {
    return is_event && reason == LWS_CALLBACK_GET_THREAD_ID ? lws_release::thread_number() : 0;
  }

  /// The library's callbacks. The piece belongs to LWS_CALLBACK_CLIENT_RECEIVE.
  void call_back(int reason, bool connection_exists, const piece_t &piece) {
    if (is_event && reason == LWS_CALLBACK_GET_THREAD_ID)
      return;
    if (reason == LWS_CALLBACK_WS_PEER_INITIATED_CLOSE)
      is_closing = true;
    if (missed_pongs >= 3) {
      missed_pongs = 0;
      is_alive = false;
    }
    static const std::set<int> ends{LWS_CALLBACK_CLIENT_CONNECTION_ERROR, LWS_CALLBACK_CLOSED,
                                    LWS_CALLBACK_CLOSED_HTTP, fake_lws::closed_reason,
                                    closed_client_http};
    if (ends.count(reason) != 0)
      is_alive = false;
    if (reason == LWS_CALLBACK_CLIENT_ESTABLISHED)
      establish();
    if (reason == LWS_CALLBACK_CLIENT_RECEIVE)
      receive(piece);
    if (reason == LWS_CALLBACK_CLIENT_RECEIVE_PONG)
      missed_pongs = 0;
    if (reason == LWS_CALLBACK_CLIENT_WRITEABLE)
      write();
    if (reason == wait_cancelled && was_established && connection_exists)
      call_for_writeable = writeable_call;
  }

  void stop() {
    show_status(false);
    if (context_exists)
      calls.emplace_back("lws_context_destroy");
    context_exists = is_connected = is_alive = false;
  }

  /// Compares what came out since the last time, and whether the worker goes on with its steps.
  void compare(message_queue_t &bus_to_ws, message_queue_t &ws_to_bus, bool goes_on) {
    expect_equal("what goes to the bus", to_bus, take_all(ws_to_bus));
    expect_equal("the messages waiting", waiting.size(), bus_to_ws.items.size());
    expect_equal("whether the worker goes on", is_alive && *run_flag, goes_on);
    compare_frames();
    compare_calls();
    to_bus.clear();
    frames.clear();
    calls.clear();
    call_for_writeable.clear();
  }

private:
  static constexpr std::int64_t second_us = 1000000;
  static constexpr std::int64_t look_us = 50000;
  static constexpr char writeable_call[] = "lws_callback_on_writable";

  // Later releases tell of an end, and of a push on the bus's thread, in ways of their own.
  static constexpr bool is_later = fake_lws::ignores_limits;
  static constexpr int closed_client_http =
      LWS_LIBRARY_VERSION_NUMBER >= 4001000 ? 45 : LWS_CALLBACK_CLOSED;
  static constexpr int wait_cancelled = is_later ? 71 : -1;
  static constexpr const char *waking_call = is_later ? "lws_cancel_service" : writeable_call;

  static std::int64_t now() { return fake_libc::now_us() / second_us; }

  /// Eleven readings in a row that go back, or on by more than ten seconds beyond a wait that was
  /// asked for, end the process.
  void check_clock(std::vector<std::int64_t> readings = {}, std::int64_t asked_seconds = 0) {
    readings.resize(11, now());
    const auto plausible =
        std::find_if(readings.begin(), readings.end(), [&](std::int64_t reading) {
          return reading >= last_checked && reading <= last_checked + asked_seconds + 10;
        });
    has_clock_jumped = plausible == readings.end();
    if (!has_clock_jumped)
      last_checked = *plausible;
  }

  bool is_ping_due() const { return now() - last_ping >= 30; }

  /// An established connection is looked at when the next ping is due, or the watchdog when that
  /// ping has not left.
  std::int64_t settled_wait_ms() const {
    const std::int64_t due = is_ping_due() ? watchdog_due : last_ping + 30;
    return std::max<std::int64_t>(0, (due * second_us - fake_libc::now_us() + 999) / 1000);
  }

  void show_status(bool connected) { to_bus.emplace_back(status_text(connected)); }

  void establish() {
    is_connected = was_established = true;
    delay = initial_delay;
    show_status(true);
    call_for_writeable = writeable_call;
    show_life();
  }

  /// The next ping's time and the watchdog's run from here.
  void show_life() {
    last_ping = now();
    check_clock();
    watchdog_due = last_checked + 60;
    attempt_due = std::numeric_limits<std::int64_t>::max();
  }

  /// A piece for which there is no memory is lost; if it is the last one, its message is.
  void receive(const piece_t &piece) {
    const bool fits = received.size() + piece.bytes.size() + 1 < piece.memory_limit;
    if (fits)
      received += piece.bytes;
    const bool is_end = !piece.bytes.empty() || (whole_messages && !received.empty());
    if (!piece.is_last || !is_end)
      return;
    if (fits || piece.bytes.empty())
      to_bus.push_back(received);
    received.clear();
  }

  void write() {
    const bool pings = is_connected && is_ping_due();
    if (pings) {
      missed_pongs += send(LWS_WRITE_PING, std::string(ping_length, '\0')) > 0 ? 1 : 0;
      show_life();
    }
    if (pings || !is_event)
      call_for_writeable = writeable_call;
    if (!is_event)
      take_message(true);
    else if (!send_all())
      call_for_writeable = writeable_call;
  }

  /// False with messages that may be left: behind one that failed, and behind 64.
  bool send_all() {
    for (int taken = 0; taken < 64; ++taken) {
      if (waiting.empty())
        return true;
      if (!take_message(true))
        return false;
    }
    return false;
  }

  static std::string frame_text(int type, const std::string &payload) {
    return std::to_string(type) + ": " + payload;
  }

  /// The library's result, or 1 where it takes all.
  int send(int type, const std::string &payload) {
    frames.push_back(frame_text(type, payload));
    if (write_results.empty())
      return 1;
    const int result = write_results.front();
    write_results.pop_front();
    return result;
  }

  void compare_frames() {
    std::vector<std::string> sent;
    for (const fake_lws::frame_t &frame : fake_lws::frames()) {
      expect_equal("whether the headroom was zero", true, frame.headroom_was_zero);
      sent.push_back(frame_text(frame.type, frame.payload));
    }
    expect_equal("the frames", frames, sent);
    fake_lws::frames.clear();
  }

  /// Nothing reaches what is gone, and only the call that its thread may make asks for a writeable
  /// callback.
  void compare_calls() {
    static const std::set<std::string> counted{"lws_create_context", "lws_client_connect_via_info",
                                               "lws_service", "lws_context_destroy"};
    std::vector<std::string> counted_calls;
    bool is_asked = false;
    for (const std::string &call : fake_lws::calls()) {
      const std::string name = call.substr(0, call.find(' '));
      const bool is_gone = call.find(" dead ") != call.npos || call.find(" null") != call.npos;
      expect_equal("a call for what is gone", "", is_gone ? call : "");
      if (counted.count(name) != 0)
        counted_calls.push_back(name);
      if (name == writeable_call || name == waking_call) {
        expect_equal("the call for a writeable callback", call_for_writeable, name);
        is_asked = true;
      }
    }
    expect_equal("contexts, connections and steps", calls, counted_calls);
    expect_equal("whether a writeable callback is asked for", !call_for_writeable.empty(),
                 is_asked);
    expect_equal("the library's timers afterwards", std::size_t{0}, fake_lws::pending_timers());
    fake_lws::calls.clear();
  }

  const bool *run_flag;
  std::uint32_t initial_delay;
  std::uint32_t max_delay;
  bool whole_messages;
  bool is_event;

  std::uint32_t delay;
  std::int64_t attempt_began_us = 0;
  /// In seconds of the clock, as the two that follow.
  std::int64_t last_checked = now();
  std::int64_t last_ping = 0;
  std::int64_t watchdog_due = 0;
  std::int64_t attempt_due = 0;
  bool has_clock_jumped = false;
  bool context_exists = false;
  bool is_connected = false;
  /// Until the next attempt.
  bool was_established = false;
  /// The service has closed the connection.
  bool is_closing = false;
  bool is_alive = false;
  int missed_pongs = 0;
  std::deque<std::string> waiting;
  std::string received;
  std::deque<int> write_results;

  // What must come out next.
  std::vector<std::string> to_bus;
  std::vector<std::string> frames;
  std::vector<std::string> calls;
  std::string call_for_writeable;
};

} // namespace vemk::fuzz

#endif
