#include "unit/message_way/message_way_fixture.h"

#include <cstddef>
#include <new>

#include <gmock/gmock.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/fake_lws.h"
#include "log/log_module.h"

namespace vemk {

namespace {

using testing::ElementsAre;

// More than any way asks for: a way that never passes is a defect of the test.
constexpr std::size_t most_requests = 200;

std::vector<std::string> frame_payloads() {
  std::vector<std::string> payloads;
  for (const fake_lws::frame_t &frame : fake_lws::frames())
    payloads.push_back(frame.payload);
  return payloads;
}

} // namespace

MessageWayFixture::~MessageWayFixture() {
  websock.reset();
  ipc.reset();
  g_log_level = 0;
}

std::vector<outcome_t> MessageWayFixture::run_all(const way_t &prepare, const way_t &way) {
  std::vector<outcome_t> outcomes;
  for (std::size_t nth = 1; nth <= most_requests; ++nth) {
    current = outcome_t{};
    prepare();
    clear_far_ends();
    fake_memory::refuse_request(nth);
    way();
    collect();
    outcomes.push_back(current);
    if (current.ended.empty())
      expect_messages_pass(current);
    if (current.refused.kind.empty())
      return outcomes;
  }
  ADD_FAILURE() << "no run passed without a refused request";
  return outcomes;
}

void MessageWayFixture::make_workers() {
  websock.reset();
  ipc.reset();
  fake_memory::reset();
  fake_bus::reset();
  fake_libc::reset();
  fake_log::clear();
  fake_lws::reset();
  g_log_level = log_category_error;
  bus_to_ws = std::make_unique<message_queue_t>();
  ws_to_bus = std::make_unique<message_queue_t>();
  websock = std::make_unique<websock_worker>(bus_to_ws.get(), ws_to_bus.get(), "roam.example",
                                             "/roam", 8080, &run_flag, 2, 60, false);
  ipc = std::make_unique<ipc_worker>(bus_to_ws.get(), ws_to_bus.get(), 2, &run_flag);
  ipc->init();
}

void MessageWayFixture::connect(int earlier) {
  make_workers();
  websock->init();
  websock_step([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
  for (int i = 0; i < earlier; ++i) {
    fake_bus::add_message("earlier");
    bus_step();
    writeable_step();
    receive_steps({"earlier"});
    bus_step();
  }
  while (!ipc->run_once()) {
  }
}

void MessageWayFixture::bus_step() {
  step("ipc", [this] { ipc->run_once(); });
}

void MessageWayFixture::websock_step(const way_t &event) {
  fake_lws::script_service(event);
  step("websock-roaming", [this] { websock->run_once(); });
}

void MessageWayFixture::writeable_step() {
  websock_step([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE); });
}

void MessageWayFixture::receive_steps(const std::vector<std::string> &pieces) {
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const std::string &piece = pieces[i];
    const bool is_last = i + 1 == pieces.size();
    websock_step([&piece, is_last] {
      fake_lws::set_piece(0, is_last);
      fake_lws::deliver_piece(piece);
    });
  }
}

void MessageWayFixture::websock_init() {
  step("websock-roaming", [this] { websock->init(); });
}

void MessageWayFixture::step(const std::string &worker, const way_t &action) {
  if (!current.ended.empty())
    return;
  try {
    const fake_memory::numbered_requests during_the_step;
    action();
  } catch (const std::bad_alloc &) {
    current.ended = worker;
  }
}

void MessageWayFixture::collect() {
  current.refused = fake_memory::refused_request();
  current.at_server = frame_payloads();
  current.on_bus = fake_bus::sent();
  // What waits for the bus thread would still go out.
  while (const auto waiting = ws_to_bus->try_pop())
    current.on_bus.emplace_back(reinterpret_cast<const char *>(waiting->data), waiting->length);
  for (const char *module : {"buffer-info", "websock-worker"}) {
    for (const std::string &message : fake_log::messages(module))
      current.errors.push_back(module + std::string(": ") + message);
  }
}

void MessageWayFixture::expect_messages_pass(const outcome_t &after) {
  SCOPED_TRACE("after a refused " + after.refused.kind + " of " +
               std::to_string(after.refused.size) + " bytes");
  fake_memory::refuse_request(0);
  clear_far_ends();
  fake_bus::add_message("next up");
  bus_step();
  writeable_step();
  receive_steps({"next ", "down"});
  bus_step();
  EXPECT_THAT(frame_payloads(), ElementsAre("next up"));
  EXPECT_THAT(fake_bus::sent(), ElementsAre("next down"));
}

void MessageWayFixture::clear_far_ends() {
  fake_bus::clear_sent();
  fake_lws::clear_frames();
  fake_log::clear();
}

} // namespace vemk
