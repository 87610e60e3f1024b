/// The input is a message from the bus, and then the value of a message's service. Whether the
/// message is kept, and what answers it, is held against the JSON library's own view of it, which
/// parses every text, while connected and while not.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/expect.h"
#include "fuzz/status_rule.h"
#include "support/buffers.h"
#include "support/open_websock_worker.h"

namespace vemk::fuzz {

namespace {

void handle(const buffer_info_t &message, bool connected) {
  static const bool run_flag = true;
  static message_queue_t bus_to_ws;
  static message_queue_t ws_to_bus;
  static open_websock_worker worker(&bus_to_ws, &ws_to_bus, "", "", 0, &run_flag, 0, 0, true);

  const std::string text = text_of(message);
  const message_fate fate = fate_of(text);
  std::vector<std::string> answers;
  if (fate == message_fate::answered)
    answers.emplace_back(status_text(connected));

  worker.connected = connected;
  const bool is_kept = worker.handle_status_request(message);
  expect_equal("whether the message is kept", fate != message_fate::forwarded, is_kept);
  expect_equal("the answers", answers, take_all(ws_to_bus));
  expect_equal("the message afterwards", text, text_of(message));
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk::fuzz;
  using vemk::buffer_of;
  const std::string text(data, data + size);
  const auto message = size == 0 ? std::make_shared<vemk::buffer_info_t>() : buffer_of(text);
  const auto as_service = buffer_of(R"({"cmd":"status","service":")" + text + R"("})");
  for (const bool connected : {true, false}) {
    handle(*message, connected);
    handle(*as_service, connected);
  }
  return 0;
}
