/// What the suites of the WebSocket worker share: a worker with its insides open to the test, its
/// two queues, and the texts that it is expected to log.
#ifndef VEMK_TESTS_UNIT_WEBSOCK_WEBSOCK_FIXTURE_H
#define VEMK_TESTS_UNIT_WEBSOCK_WEBSOCK_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_lws.h"
#include "fakes/fake_memory.h"
#include "support/buffers.h"
#include "support/logging_test.h"
#include "support/open_websock_worker.h"
#include "support/status_texts.h"

namespace vemk {

class WebsockFixture : public LoggingTest {
protected:
  WebsockFixture();
  ~WebsockFixture() override;

  /// Builds `worker`; the host is "roam.example", the path "/roam", the port 8080.
  void make_worker(std::uint32_t first_delay = 2, std::uint32_t largest_delay = 60,
                   bool without_lws_binding = false, bool only_whole_messages = false);

  /// Makes a worker whose connection attempt runs, and forgets the records so far.
  void make_connecting_worker(bool only_whole_messages = false);
  /// Makes a worker whose connection is established, and forgets the records so far.
  void make_connected_worker(bool only_whole_messages = false);
  /// Lets the base make the connection anew.
  void reconnect();

  /// Forgets calls and log lines. Status messages stay in their queue.
  static void forget_records();

  /// Advances the clock in steps that the clock check accepts, with a service round after each.
  void let_pass(int seconds);

  void push_from_bus(const std::string &text) { bus_to_ws.push(buffer_of(text)); }

  /// Runs the worker through 50 connections while another thread pushes all the time. No call may
  /// name a connection or context that is gone.
  void expect_reconnects_under_pushes(abstract_worker &pushed_to);
  std::vector<std::string> take_to_bus() { return take_all(ws_to_bus); }
  /// What the receive buffer holds.
  std::string received_so_far() const { return text_of(*worker->rx_buffer); }
  /// A piece of a message that has others behind it.
  static void deliver_middle_piece(const std::string &bytes);
  /// The handler's result for a piece of this length without data.
  int receive_null(std::size_t length);

  /// The whole line of the module "websock-worker" with this message.
  static std::string line(const std::string &message);
  /// "websock-roaming->handler:number\n", as a whole line.
  static std::string trace_line(const std::string &handler, int number);
  /// The lines of a received piece: one that is not the last, and the last of a message.
  static std::string incomplete_line(int remaining);
  static std::string final_line(std::size_t length);
  /// All lines of a message of up to 31 bytes that came in one piece.
  static std::vector<std::string> reception_lines(const std::string &bytes);
  /// The lines of a frame of this type: one that was written, and one that was not.
  static std::string sent_line(int type, int result, std::size_t length);
  /// The line and the call of a ping, which has a payload with some releases of the library.
  static std::string ping_sent_line() {
    return sent_line(5, ping_length == 0 ? 6 : 1, ping_length);
  }
  const std::string ping_call = "lws_write wsi1 " + std::to_string(ping_length) + " 5";
  static std::string failed_line(int type);
  /// The whole line of a dump of up to 31 bytes below 0x80.
  static std::string dump_line(const std::string &bytes);
  /// The call that a push makes while the connection is established.
  static std::string wake_call(const std::string &context, const std::string &connection);
  /// The calls by which one run_once() serves a context.
  static std::vector<std::string> service_calls(const std::string &context, int limit_ms = 500);

  bool run_flag;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  std::unique_ptr<open_websock_worker> worker;
};

} // namespace vemk

#endif
