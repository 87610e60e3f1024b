#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "log/log_module.h"
#include "vemkctl/delay_windows.h"
#include "websock/websock_worker.h"
#include "worker/message_queue.h"

namespace vemk {
namespace {

using testing::ElementsAre;

std::vector<std::string> texts(std::uint32_t initial, std::uint32_t largest, std::size_t count) {
  std::vector<std::string> result;
  for (const delay_window_t &window : delay_windows(initial, largest, count))
    result.push_back(to_text(window));
  return result;
}

class open_worker : public websock_worker {
public:
  using websock_worker::next_delay;
  using websock_worker::websock_worker;
};

/// What the daemon's worker says of its first delays.
std::vector<std::string> logged_by_the_daemon(std::uint32_t initial, std::uint32_t largest,
                                              std::size_t count) {
  const std::string before = "Generate delay into ";
  const std::string after = " range\n";
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  const bool run_flag = true;
  g_log_level = log_category_debug;
  open_worker worker(&bus_to_ws, &ws_to_bus, "host", "/", 80, &run_flag, initial, largest, true);
  fake_log::clear();
  while (count-- > 0)
    worker.next_delay();
  std::vector<std::string> windows;
  for (const std::string &line : fake_log::messages("websock-worker")) {
    EXPECT_EQ(line.substr(0, before.size()), before);
    windows.push_back(line.substr(before.size(), line.size() - before.size() - after.size()));
  }
  g_log_level = 0;
  return windows;
}

// 2 and 60: [1;3) to [16;48), then [30;90) twice; 0 starts with [1;3) twice.
TEST(DelayWindowsTest, WindowsDoubleUpToTheMaximum) {
  EXPECT_THAT(texts(2, 60, 7),
              ElementsAre("[1;3)", "[2;6)", "[4;12)", "[8;24)", "[16;48)", "[30;90)", "[30;90)"));
  EXPECT_THAT(texts(0, 60, 3), ElementsAre("[1;3)", "[1;3)", "[2;6)"));
  EXPECT_THAT(texts(1, 1, 2), ElementsAre("[0;1)", "[0;1)"));
  EXPECT_THAT(texts(100, 60, 2), ElementsAre("[50;150)", "[30;90)"));
}

// For 361 pairs of delays, up to 0xFFFFFFFF, 40 windows are those of the daemon's log.
TEST(DelayWindowsTest, AreThoseThatTheDaemonLogs) {
  const std::uint32_t delays[] = {0,           1,           2,           3,           7,
                                  10,          59,          60,          61,          3600,
                                  100000,      0x3FFFFFFFu, 0x40000000u, 0x7FFFFFFFu, 0x80000000u,
                                  0x80000001u, 0xC0000000u, 0xFFFFFFFEu, 0xFFFFFFFFu};
  constexpr std::size_t attempts = 40; // more than a delay has bits
  for (const std::uint32_t initial : delays) {
    for (const std::uint32_t largest : delays) {
      SCOPED_TRACE(std::to_string(initial) + " up to " + std::to_string(largest));
      const auto logged = logged_by_the_daemon(initial, largest, attempts);
      ASSERT_EQ(logged.size(), attempts);
      ASSERT_EQ(texts(initial, largest, attempts), logged);
    }
  }
}

} // namespace
} // namespace vemk
