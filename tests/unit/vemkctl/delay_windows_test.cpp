#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_log.h"
#include "log/log_module.h"
#include "vemkctl/delay_windows.h"
#include "websock/websock_worker.h"
#include "worker/message_queue.h"

namespace {
int next_random_number = 0;
} // namespace

extern "C" int __wrap_rand() {
  return next_random_number;
}

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

/// What the daemon's worker draws first, and what it says of it.
struct daemon_draws_t {
  std::vector<std::string> logged_windows;
  /// Taken as the daemon takes them, as signed numbers.
  std::vector<std::int32_t> waits;
};

/// `drawn` is what rand() gives.
daemon_draws_t draws_of_the_daemon(std::uint32_t initial, std::uint32_t largest, std::size_t count,
                                   const std::function<int()> &drawn) {
  const std::string before = "Generate delay into ";
  const std::string after = " range\n";
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  const bool run_flag = true;
  g_log_level = log_category_debug;
  open_worker worker(&bus_to_ws, &ws_to_bus, "host", "/", 80, &run_flag, initial, largest, true);
  fake_log::clear();
  daemon_draws_t draws;
  while (draws.waits.size() < count) {
    next_random_number = drawn();
    draws.waits.push_back(static_cast<std::int32_t>(worker.next_delay()));
  }
  for (const std::string &line : fake_log::messages("websock-worker")) {
    EXPECT_EQ(line.substr(0, before.size()), before);
    draws.logged_windows.push_back(
        line.substr(before.size(), line.size() - before.size() - after.size()));
  }
  g_log_level = 0;
  return draws;
}

// 2 and 60: [1;3) to [16;48), then [30;90) twice; 0 starts with [1;3) twice.
TEST(DelayWindowsTest, WindowsDoubleUpToTheMaximum) {
  EXPECT_THAT(texts(2, 60, 7),
              ElementsAre("[1;3)", "[2;6)", "[4;12)", "[8;24)", "[16;48)", "[30;90)", "[30;90)"));
  EXPECT_THAT(texts(0, 60, 3), ElementsAre("[1;3)", "[1;3)", "[2;6)"));
  EXPECT_THAT(texts(1, 1, 2), ElementsAre("[0;1)", "[0;1)"));
  EXPECT_THAT(texts(100, 60, 2), ElementsAre("[50;150)", "[30;90)"));
}

// -5 draws from -2 to 2; -10, which follows it below a maximum of -5, from -5 to 4.
TEST(DelayWindowsTest, NegativeDelaysDrawAroundZero) {
  EXPECT_THAT(texts(0xFFFFFFFBu, 60, 3), ElementsAre("[-2;3)", "[30;90)", "[30;90)"));
  EXPECT_THAT(texts(0xFFFFFFFBu, 0xFFFFFFFBu, 3), ElementsAre("[-2;3)", "[-5;5)", "[-10;10)"));
}

// For 441 pairs of delays, up to 0xFFFFFFFF, 40 windows begin and end as the daemon's draws do.
TEST(DelayWindowsTest, AreWhatTheDaemonDrawsFrom) {
  // The windows used to be those of the log, where those of a negative delay are unsigned and
  // wrong. Of the others the log's are still compared.
  const std::uint32_t delays[] = {
      0,           1,           2,           3,           7,           10,          59,
      60,          61,          3600,        100000,      0x3FFFFFFFu, 0x40000000u, 0x7FFFFFFFu,
      0x80000000u, 0x80000001u, 0xC0000000u, 0xFFFFFFF6u, 0xFFFFFFFBu, 0xFFFFFFFEu, 0xFFFFFFFFu};
  constexpr std::size_t attempts = 40; // more than a delay has bits
  const auto as_the_daemon_takes_it = [](std::int64_t number) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
  };
  for (const std::uint32_t initial : delays) {
    for (const std::uint32_t largest : delays) {
      SCOPED_TRACE(std::to_string(initial) + " up to " + std::to_string(largest));
      const auto windows = delay_windows(initial, largest, attempts);
      std::size_t attempt = 0;
      const auto lowest = draws_of_the_daemon(initial, largest, attempts, [] { return 0; });
      const auto highest = draws_of_the_daemon(initial, largest, attempts, [&] {
        const delay_window_t &window = windows[attempt++];
        return static_cast<int>(window.high - window.low - 1);
      });
      for (std::size_t i = 0; i < attempts; ++i) {
        ASSERT_EQ(lowest.waits[i], as_the_daemon_takes_it(windows[i].low)) << "attempt " << i;
        ASSERT_EQ(highest.waits[i], as_the_daemon_takes_it(windows[i].high - 1)) << "attempt " << i;
        if (windows[i].low > 0) {
          ASSERT_EQ(to_text(windows[i]), lowest.logged_windows[i]) << "attempt " << i;
        }
      }
      // One more than the largest number that it takes is its first again.
      attempt = 0;
      const auto beyond = draws_of_the_daemon(initial, largest, attempts, [&] {
        const delay_window_t &window = windows[attempt++];
        return static_cast<int>(
            std::min<std::int64_t>(window.high - window.low, std::numeric_limits<int>::max()));
      });
      for (std::size_t i = 0; i < attempts; ++i) {
        if (windows[i].high - windows[i].low <= std::numeric_limits<int>::max()) {
          ASSERT_EQ(beyond.waits[i], as_the_daemon_takes_it(windows[i].low)) << "attempt " << i;
        }
      }
    }
  }
}

} // namespace
} // namespace vemk
