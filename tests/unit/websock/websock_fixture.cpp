#include "unit/websock/websock_fixture.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "log/log_module.h"
#include "unit/websock/wrapped_libc.h"

namespace vemk {

namespace {

constexpr std::uint32_t all_categories = 0x0F;
constexpr int largest_clock_step = 10;
constexpr std::size_t bytes_per_dump_line = 32;

} // namespace

WebsockFixture::WebsockFixture() : run_flag(true) {
  fake_libc::reset();
  wrapped_libc::reset();
  fake_lws::reset();
  fake_log::clear();
  g_log_level = all_categories;
}

WebsockFixture::~WebsockFixture() {
  // Hooks of the test refer to what has gone with its body.
  ws_to_bus.reset_notify();
  fake_lws::on_destroy(nullptr);
  fake_libc::on_sleep(nullptr);
  worker.reset();
  g_log_level = 0;
}

void WebsockFixture::make_worker(std::uint32_t first_delay, std::uint32_t largest_delay,
                                 bool without_lws_binding, bool only_whole_messages) {
  worker = std::make_unique<open_websock_worker>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam",
                                                 8080, &run_flag, first_delay, largest_delay,
                                                 without_lws_binding, only_whole_messages);
}

void WebsockFixture::make_connecting_worker() {
  make_worker();
  ASSERT_TRUE(worker->_connect());
  forget_records();
}

void WebsockFixture::make_connected_worker(bool only_whole_messages) {
  make_worker(2, 60, false, only_whole_messages);
  ASSERT_TRUE(worker->_connect());
  fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
  take_to_bus();
  forget_records();
}

void WebsockFixture::forget_records() {
  fake_lws::clear_calls();
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

void WebsockFixture::push_from_bus(const std::string &text) {
  const auto message = std::make_shared<buffer_info_t>();
  message->append(text.data(), static_cast<std::uint32_t>(text.size()));
  bus_to_ws.push(message);
}

std::vector<std::string> WebsockFixture::take_all(message_queue_t &queue) {
  std::vector<std::string> texts;
  while (const auto message = queue.try_pop())
    texts.emplace_back(reinterpret_cast<const char *>(message->data), message->length);
  return texts;
}

std::string WebsockFixture::received_so_far() const {
  const buffer_info_t &buffer = *worker->rx_buffer;
  return std::string(reinterpret_cast<const char *>(buffer.data), buffer.length);
}

std::string WebsockFixture::line(const std::string &message) {
  return line_of("websock-worker", message);
}

std::string WebsockFixture::line_of(const std::string &module, const std::string &message) {
  return "|" + std::to_string(getpid()) + "|" + module + "> " + message;
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

std::string WebsockFixture::dump_line(const std::string &bytes) {
  std::string listing = "Buffer info dump:\n";
  if (bytes.empty())
    return line_of("buffer-info", listing);
  listing += "\t";
  for (const char byte : bytes) {
    char hex[4];
    snprintf(hex, sizeof hex, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    listing += hex;
  }
  listing += std::string((bytes_per_dump_line - bytes.size()) * 3 + 4, ' ') + bytes + "\n";
  return line_of("buffer-info", listing);
}

std::string WebsockFixture::wake_call(const std::string &context, const std::string &connection) {
  return fake_lws::wakes_by_cancelling ? "lws_cancel_service " + context
                                       : "lws_callback_on_writable " + connection;
}

std::vector<std::string> WebsockFixture::service_calls(const std::string &context) {
  const std::string service = "lws_service " + context + " 500";
  if (!fake_lws::wakes_by_cancelling)
    return {service};
  return {"lws_sul_schedule " + context + " 0 500000", service,
          "lws_sul_schedule " + context + " 0 cancel"};
}

} // namespace vemk
