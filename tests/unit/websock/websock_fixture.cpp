#include "unit/websock/websock_fixture.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "support/worker_thread.h"

namespace vemk {

namespace {

constexpr std::uint32_t all_categories = 0x0F;
constexpr int largest_clock_step = 10;
constexpr std::size_t bytes_per_dump_line = 32;

} // namespace

WebsockFixture::WebsockFixture() : LoggingTest(all_categories), run_flag(true) {
  fake_libc::reset();
  fake_memory::reset();
  fake_lws::reset();
}

WebsockFixture::~WebsockFixture() {
  // Hooks of the test refer to what has gone with its body.
  ws_to_bus.reset_notify();
  fake_lws::on_destroy(nullptr);
  fake_libc::on_sleep(nullptr);
  fake_libc::on_poll(nullptr);
  worker.reset();
}

void WebsockFixture::make_worker(std::uint32_t first_delay, std::uint32_t largest_delay,
                                 bool without_lws_binding, bool only_whole_messages) {
  worker = std::make_unique<open_websock_worker>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam",
                                                 8080, &run_flag, first_delay, largest_delay,
                                                 without_lws_binding, only_whole_messages);
}

void WebsockFixture::make_connecting_worker(bool only_whole_messages) {
  make_worker(2, 60, false, only_whole_messages);
  worker->running = worker->_connect();
  ASSERT_TRUE(worker->running);
  forget_records();
}

void WebsockFixture::make_connected_worker(bool only_whole_messages) {
  make_connecting_worker(only_whole_messages);
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  take_to_bus();
  forget_records();
}

void WebsockFixture::reconnect() {
  worker->deinit();
  worker->init();
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  take_to_bus();
}

void WebsockFixture::forget_records() {
  fake_lws::calls.clear();
  fake_log::clear();
}

void WebsockFixture::let_pass(int seconds) {
  while (seconds > 0) {
    const int step = std::min(seconds, largest_clock_step);
    fake_libc::advance_seconds(step);
    worker->run_once();
    seconds -= step;
  }
}

void WebsockFixture::deliver_middle_piece(const std::string &bytes) {
  fake_lws::set_piece(0, false);
  EXPECT_EQ(fake_lws::deliver_piece(bytes), 0);
  fake_lws::set_piece(0, true);
}

int WebsockFixture::receive_null(std::size_t length) {
  return worker->process_client_receive(fake_lws::connection(), nullptr, nullptr, length);
}

std::string WebsockFixture::line(const std::string &message) {
  return log_line("websock-worker", message);
}

std::string WebsockFixture::trace_line(const std::string &handler, int number) {
  return line("websock-roaming->" + handler + ":" + std::to_string(number) + "\n");
}

std::string WebsockFixture::incomplete_line(int remaining) {
  return line("websock-roaming->process_client_receive: Get incomplete packet, remaining len " +
              std::to_string(remaining) + "\n");
}

std::string WebsockFixture::final_line(std::size_t length) {
  return line("websock-roaming->process_client_receive: Recieve final msg len " +
              std::to_string(length) + " from websocket\n");
}

std::vector<std::string> WebsockFixture::reception_lines(const std::string &bytes) {
  return {trace_line("process_client_receive", 87), final_line(bytes.size()),
          line("websock-roaming->Send to Queue\n"), dump_line(bytes)};
}

std::string WebsockFixture::sent_line(int type, int result, std::size_t length) {
  return line("websock-roaming->lws_send:Send msg type [" + std::to_string(type) + "] len [" +
              std::to_string(result) + "/" + std::to_string(length) + "]  to websocket\n");
}

std::string WebsockFixture::failed_line(int type) {
  return line("websock-roaming->lws_send:Can't send msg type [" + std::to_string(type) +
              "] to websocket\n");
}

std::string WebsockFixture::dump_line(const std::string &bytes) {
  std::string listing = "Buffer info dump:\n";
  if (bytes.empty())
    return log_line("buffer-info", listing);
  listing += "\t";
  for (const char byte : bytes) {
    char hex[4];
    snprintf(hex, sizeof hex, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    listing += hex;
  }
  listing += std::string((bytes_per_dump_line - bytes.size()) * 3 + 4, ' ') + bytes + "\n";
  return log_line("buffer-info", listing);
}

std::string WebsockFixture::wake_call(const std::string &context, const std::string &connection) {
  return fake_lws::wakes_by_cancelling ? "lws_cancel_service " + context
                                       : "lws_callback_on_writable " + connection;
}

std::vector<std::string> WebsockFixture::service_calls(const std::string &context, int limit_ms) {
  const std::string service = "lws_service " + context + " " + std::to_string(limit_ms);
  if (!fake_lws::ignores_limits)
    return {service};
  return {"lws_sul_schedule " + context + " 0 " + std::to_string(limit_ms * 1000), service,
          "lws_sul_schedule " + context + " 0 cancel"};
}

void WebsockFixture::expect_reconnects_under_pushes(abstract_worker &pushed_to) {
  constexpr int rounds = 50;
  constexpr int most_pushes = 50000;
  for (int i = 0; i < rounds; ++i) {
    fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
    fake_lws::script_service([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE); });
    fake_lws::script_service([] {
      fake_lws::deliver(fake_lws::closed_reason);
      fake_lws::kill_connection(fake_lws::connection());
    });
  }
  std::atomic<bool> stop{false};
  std::thread pusher([&] {
    for (int i = 0; i < most_pushes && !stop; ++i) {
      push_from_bus("text");
      std::this_thread::yield();
    }
  });
  run_until_restart(pushed_to, rounds);
  stop = true;
  pusher.join();
  EXPECT_THAT(fake_lws::calls(), Not(testing::Contains(testing::HasSubstr("dead"))));
  EXPECT_EQ(fake_lws::connect_infos().size(), static_cast<std::size_t>(rounds));
}

} // namespace vemk
