/// What the suites of the event-driven WebSocket worker share: that worker over the queues of
/// WebsockFixture, with their bounds.
#ifndef VEMK_TESTS_UNIT_WEBSOCK_EVENT_WEBSOCK_FIXTURE_H
#define VEMK_TESTS_UNIT_WEBSOCK_EVENT_WEBSOCK_FIXTURE_H

#include <memory>
#include <string>
#include <vector>

#include "unit/websock/websock_fixture.h"

namespace vemk {

class EventWebsockFixture : public WebsockFixture {
protected:
  static constexpr std::size_t limit = queue_bound::limit_bytes;
  static constexpr char writeable_call[] = "lws_callback_on_writable wsi1";
  static constexpr char request[] = R"({"service":"internal-ipc","cmd":"status"})";

  ~EventWebsockFixture() override {
    // As in the base, before this worker goes.
    ws_to_bus.reset_notify();
    fake_lws::on_destroy(nullptr);
    event.reset();
  }

  void make(std::uint32_t first_delay = 1, std::uint32_t largest_delay = 60) {
    event.reset();
    event = std::make_unique<open_event_worker>(&bus_to_ws, &ws_to_bus, "roam.example", "/roam",
                                                8080, &run_flag, first_delay, largest_delay, false,
                                                &bus_to_ws_bound, &ws_to_bus_bound);
  }

  /// Makes a worker whose first wait of 0 seconds is over.
  void make_connecting() {
    make();
    event->running = event->init();
    ASSERT_TRUE(event->running);
    take_to_bus();
    forget_records();
  }

  void make_connected() {
    make_connecting();
    establish();
  }

  void establish() {
    fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED);
    take_to_bus();
    forget_records();
  }

  /// The library's calls in a step, in which so many seconds pass.
  std::vector<std::string> calls_of_step(int seconds = 0) {
    forget_records();
    fake_lws::script_service([seconds] { fake_libc::advance_seconds(seconds); });
    EXPECT_FALSE(event->run_once());
    return fake_lws::calls();
  }

  /// The library's calls in a push from the bus.
  std::vector<std::string> calls_of_push(const std::string &text) {
    forget_records();
    push_from_bus(text);
    return fake_lws::calls();
  }

  /// The library's calls in a writeable callback.
  static std::vector<std::string> calls_when_writeable() {
    forget_records();
    EXPECT_EQ(fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE), 0);
    return fake_lws::calls();
  }

  /// The payloads of the frames since the last call.
  static std::vector<std::string> sent() {
    std::vector<std::string> payloads;
    for (const fake_lws::frame_t &frame : fake_lws::frames())
      payloads.push_back(frame.payload);
    fake_lws::frames.clear();
    return payloads;
  }

  queue_bound bus_to_ws_bound{&bus_to_ws, &ws_to_bus};
  queue_bound ws_to_bus_bound{&ws_to_bus, &bus_to_ws};
  std::unique_ptr<open_event_worker> event;
};

} // namespace vemk

#endif
