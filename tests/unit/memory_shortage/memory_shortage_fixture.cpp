#include "unit/memory_shortage/memory_shortage_fixture.h"

#include <cstddef>
#include <new>

#include <gmock/gmock.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_libc.h"
#include "fakes/fake_lws.h"
#include "support/buffers.h"

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

MemoryShortageFixture::~MemoryShortageFixture() {
  websock.reset();
  ipc.reset();
}

std::vector<outcome_t> MemoryShortageFixture::run_all(const way_t &prepare, const way_t &way) {
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

void MemoryShortageFixture::make_workers() {
  websock.reset();
  ipc.reset();
  fake_memory::reset();
  fake_bus::reset();
  fake_libc::reset();
  fake_log::clear();
  fake_lws::reset();
  bus_to_ws = std::make_unique<message_queue_t>();
  ws_to_bus = std::make_unique<message_queue_t>();
  websock = std::make_unique<websock_worker>(bus_to_ws.get(), ws_to_bus.get(), "roam.example",
                                             "/roam", 8080, &run_flag, 2, 60, false);
  ipc = std::make_unique<ipc_worker>(bus_to_ws.get(), ws_to_bus.get(), 2, &run_flag);
  ipc->init();
}

void MemoryShortageFixture::connect(int earlier) {
  make_workers();
  websock->init();
  establishment_step();
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

void MemoryShortageFixture::bus_step() {
  step("ipc", [this] { ipc->run_once(); });
}

void MemoryShortageFixture::websock_step(const way_t &event) {
  fake_lws::script_service(event);
  step("websock-roaming", [this] { websock->run_once(); });
}

void MemoryShortageFixture::establishment_step() {
  websock_step([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_ESTABLISHED); });
}

void MemoryShortageFixture::writeable_step() {
  websock_step([] { fake_lws::deliver(LWS_CALLBACK_CLIENT_WRITEABLE); });
}

void MemoryShortageFixture::receive_steps(const std::vector<std::string> &pieces) {
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const std::string &piece = pieces[i];
    const bool is_last = i + 1 == pieces.size();
    websock_step([&piece, is_last] {
      fake_lws::set_piece(0, is_last);
      fake_lws::deliver_piece(piece);
    });
  }
}

void MemoryShortageFixture::websock_init() {
  step("websock-roaming", [this] { websock->init(); });
}

void MemoryShortageFixture::step(const std::string &worker, const way_t &action) {
  if (!current.ended.empty())
    return;
  try {
    const fake_memory::numbered_requests during_the_step;
    action();
  } catch (const std::bad_alloc &) {
    current.ended = worker;
  }
}

void MemoryShortageFixture::collect() {
  current.refused = fake_memory::refused_request();
  current.at_server = frame_payloads();
  current.on_bus = fake_bus::sent();
  // What waits for the bus thread would still go out.
  for (const std::string &waiting : take_all(*ws_to_bus))
    current.on_bus.push_back(waiting);
  for (const char *module : {"buffer-info", "websock-worker"}) {
    for (const std::string &message : fake_log::messages(module))
      current.errors.push_back(module + std::string(": ") + message);
  }
}

void MemoryShortageFixture::expect_messages_pass(const outcome_t &after) {
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

void MemoryShortageFixture::clear_far_ends() {
  fake_bus::sent.clear();
  fake_lws::frames.clear();
  fake_log::clear();
}

} // namespace vemk
