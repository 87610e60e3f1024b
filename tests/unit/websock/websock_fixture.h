/// What the suites of the WebSocket worker share: a worker with its insides open to the test, its
/// two queues, and the texts that it is expected to log.
#ifndef VEMK_TESTS_UNIT_WEBSOCK_WEBSOCK_FIXTURE_H
#define VEMK_TESTS_UNIT_WEBSOCK_WEBSOCK_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "websock/websock_worker.h"

namespace vemk {

class open_websock_worker : public websock_worker {
public:
  using websock_worker::websock_worker;

  using websock_worker::_connect;
  using websock_worker::from_queue_send;
  using websock_worker::handle_status_request;
  using websock_worker::lws_send;
  using websock_worker::next_delay;
  using websock_worker::ping_timeout;
  using websock_worker::process_client_receive;
  using websock_worker::queue_connected_status;
  using websock_worker::queue_disconnected_status;
  using websock_worker::request_writeable;
  using websock_worker::wait_before_connect;

  using websock_worker::alive;
  using websock_worker::bus_to_ws_queue;
  using websock_worker::closed;
  using websock_worker::connect_info;
  using websock_worker::connected;
  using websock_worker::context;
  using websock_worker::creation_info;
  using websock_worker::current_delay;
  using websock_worker::host;
  using websock_worker::initial_delay;
  using websock_worker::last_ping;
  using websock_worker::log_hook;
  using websock_worker::log_name;
  using websock_worker::max_delay;
  using websock_worker::missed_pongs;
  using websock_worker::mode;
  using websock_worker::path;
  using websock_worker::ping_timeout_handler;
  using websock_worker::port;
  using websock_worker::protocol_callback;
  using websock_worker::protocols;
  using websock_worker::running;
  using websock_worker::rx_buffer;
  using websock_worker::skip_lws_binding;
  using websock_worker::timers;
  using websock_worker::wake_pipe;
  using websock_worker::whole_messages;
  using websock_worker::ws_to_bus_queue;
};

constexpr char connected_status[] =
    R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })";
constexpr char disconnected_status[] =
    R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })";
constexpr char status_request[] = R"({"service":"internal-ipc","cmd":"status"})";

class WebsockFixture : public testing::Test {
protected:
  WebsockFixture();
  ~WebsockFixture() override;

  /// Builds `worker`; the host is "roam.example", the path "/roam", the port 8080.
  void make_worker(std::uint32_t first_delay = 2, std::uint32_t largest_delay = 60,
                   bool without_lws_binding = false, bool only_whole_messages = false);

  /// Makes a worker whose connection attempt runs, and forgets the records so far.
  void make_connecting_worker();
  /// Makes a worker whose connection is established, and forgets the records so far.
  void make_connected_worker(bool only_whole_messages = false);

  /// Forgets calls and log lines. Status messages stay in their queue.
  static void forget_records();

  /// Advances the clock in steps that the clock check accepts, with a service round after each.
  void let_pass(int seconds);

  void push_from_bus(const std::string &text);
  /// Takes the texts of everything in the queue.
  static std::vector<std::string> take_all(message_queue_t &queue);
  std::vector<std::string> take_to_bus() { return take_all(ws_to_bus); }
  /// What the receive buffer holds.
  std::string received_so_far() const;

  /// The whole line of the module "websock-worker" with this message.
  static std::string line(const std::string &message);
  static std::string line_of(const std::string &module, const std::string &message);
  /// "websock-roaming->handler:number\n", as a whole line.
  static std::string trace_line(const std::string &handler, int number);
  /// The lines of a received piece: one that is not the last, and the last of a message.
  static std::string incomplete_line(int remaining);
  static std::string final_line(std::size_t length);
  /// The whole line of a dump of up to 31 bytes below 0x80.
  static std::string dump_line(const std::string &bytes);
  /// The call that a push makes while the connection is established.
  static std::string wake_call(const std::string &context, const std::string &connection);
  /// The calls by which one run_once() serves a context.
  static std::vector<std::string> service_calls(const std::string &context);

  bool run_flag;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  std::unique_ptr<open_websock_worker> worker;
};

} // namespace vemk

#endif
