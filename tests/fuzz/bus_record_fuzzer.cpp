/// The first nine bytes are those of a bus record that are not its length, the rest is its payload.
/// The record says the truth about its length; the payload must come out of the queue byte
/// for byte, and must reach the bus byte for byte when it goes the other way.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fakes/fake_bus.h"
#include "fuzz/expect.h"
#include "ipc/ipc_worker.h"
#include "support/buffers.h"

namespace vemk::fuzz {

namespace {

class open_ipc_worker : public ipc_worker {
public:
  using ipc_worker::ipc_worker;

  using ipc_worker::forward_bus_message;
};

/// Bytes 0 to 3, the length, bytes 8 to 12, the payload; at an odd address, with nothing behind.
std::vector<std::uint8_t> record_of(std::string filling, const std::string &payload) {
  filling.resize(9, '\0');
  const auto length = static_cast<std::uint32_t>(payload.size());
  std::string record = "?" + filling.substr(0, 4) + "...." + filling.substr(4) + payload;
  memcpy(&record[5], &length, sizeof length);
  return std::vector<std::uint8_t>(record.begin(), record.end());
}

void forward(const std::string &filling, const std::string &payload) {
  fake_bus::reset();
  const bool run_flag = true;
  int notifications = 0;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  bus_to_ws.set_notify([&notifications] { ++notifications; });
  open_ipc_worker worker(&bus_to_ws, &ws_to_bus, 2, &run_flag);

  const std::vector<std::uint8_t> record = record_of(filling, payload);
  const std::vector<std::uint8_t> before = record;
  worker.forward_bus_message(record.data() + 1);
  expect_equal("whether the record is unchanged", true, before == record);
  expect_equal("the notifications", 1, notifications);

  const auto message = bus_to_ws.try_pop();
  expect_equal("whether a message is queued", true, message != nullptr);
  expect_equal("the payload", payload, text_of(*message));
  expect_equal("the byte behind the payload", 0, static_cast<int>(message->data[payload.size()]));
  expect_equal("whether another one is queued", false, bus_to_ws.try_pop() != nullptr);

  ws_to_bus.push(message);
  expect_equal("whether the step asks for a pause", false, worker.run_once());
  const std::vector<std::string> sent =
      payload.empty() ? std::vector<std::string>() : std::vector<std::string>{payload};
  expect_equal("what is sent onto the bus", sent, fake_bus::sent());
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string input(data, data + size);
  const std::size_t filling = size < 9 ? size : 9;
  vemk::fuzz::forward(input.substr(0, filling), input.substr(filling));
  return 0;
}
