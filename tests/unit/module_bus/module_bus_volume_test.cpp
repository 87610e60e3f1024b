// Many messages, long ones, and listeners that do not keep up.

#include <fstream>
#include <thread>
#include <utility>

#include <unistd.h>

#include "bus_test_base.h"

namespace vemk {
namespace {

constexpr std::size_t kibibyte = 1024;
constexpr std::size_t mebibyte = 1024 * kibibyte;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memory_is_measurable = false;
#else
constexpr bool memory_is_measurable = true;
#endif

class ModuleBusVolumeTest : public joined_bus_test {
protected:
  static std::size_t resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  }

  static std::string numbered(int number, std::size_t size) {
    std::string payload = std::to_string(number) + ":";
    payload.resize(size, 'x');
    return payload;
  }
};

// 10,000 messages of 1 KiB in one go all arrive in order, and so do 100,000 of 16 bytes.
TEST_F(ModuleBusVolumeTest, AListenerThatReadsLosesNothingOfManyMessagesInOneGo) {
  subscribed_listener listener(folder);
  for (const auto &[messages, size] :
       {std::pair(10000, kibibyte), std::pair(100000, std::size_t{16})}) {
    for (int i = 0; i < messages; ++i)
      ASSERT_EQ(send(numbered(i, size)), 0);
    for (int i = 0; i < messages; ++i)
      ASSERT_EQ(listener.receive(in(soon)), numbered(i, size));
  }
  EXPECT_EQ(listener.lost(), 0U);
}

// 64 MiB pass to a listener and to the module byte for byte.
TEST_F(ModuleBusVolumeTest, MessagesOf64MebibytesPassBothWays) {
  const std::string payload = numbered(1, max_payload_bytes);
  subscribed_listener listener(folder);
  ASSERT_EQ(send(payload), 0);
  EXPECT_TRUE(listener.receive(in(4 * soon)) == payload);

  bus_sender sender(folder, daemon_module);
  ASSERT_TRUE(sender.send(payload, in(soon)));
  EXPECT_TRUE(next_payload() == payload);
  EXPECT_TRUE(sender.wait_until_taken(in(soon)));
}

// 3000 messages of a sender that closes right after them all arrive and are confirmed.
TEST_F(ModuleBusVolumeTest, ABurstFromASenderThatEndsAtOnceArrivesWhole) {
  // What a closing sender had written was lost when the inbox was full at that moment; hence the
  // answers.
  constexpr int burst = 3000;
  bool taken = false;
  std::thread sending([&] {
    bus_sender sender(folder, daemon_module);
    for (int i = 0; i < burst; ++i)
      EXPECT_TRUE(sender.send(numbered(i, 100), in(soon)));
    taken = sender.wait_until_taken(in(soon));
  });
  for (int i = 0; i < burst; ++i)
    EXPECT_EQ(next_payload(), numbered(i, 100));
  sending.join();
  EXPECT_TRUE(taken);
}

// It costs at most 320 MiB, each send takes under 1 s, and its losses are counted.
TEST_F(ModuleBusVolumeTest, AListenerThatStoppedReadingBlocksNobodyAndCostsBoundedMemory) {
  constexpr int messages = 320;
  constexpr int full_after = 250; // MiB; a stopped listener is owed 200,000 pieces of 1 KiB
  subscribed_listener stopped(folder);
  subscribed_listener reading(folder);

  const std::size_t resident_before = resident_bytes();
  std::size_t resident_full = 0;
  for (int i = 0; i < messages; ++i) {
    const std::string payload = numbered(i, mebibyte);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(send(payload), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    ASSERT_TRUE(reading.receive(in(soon)) == payload) << "message " << i;
    if (i == full_after)
      resident_full = resident_bytes();
  }
  EXPECT_EQ(reading.lost(), 0U);
  if (memory_is_measurable) {
    EXPECT_LT(resident_full, resident_before + 320 * mebibyte);
    EXPECT_LT(resident_bytes(), resident_full + 32 * mebibyte);
  }

  std::uint64_t heard = 0;
  while (stopped.receive(in(std::chrono::milliseconds(500))))
    ++heard;
  ASSERT_EQ(send("read again"), 0);
  EXPECT_EQ(stopped.receive(in(soon)), "read again");
  EXPECT_GT(heard, 0U);
  EXPECT_GT(stopped.lost(), 0U);
  EXPECT_EQ(heard + stopped.lost(), static_cast<std::uint64_t>(messages));
}

} // namespace
} // namespace vemk
