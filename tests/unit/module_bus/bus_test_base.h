/// A private bus folder for a test, and the bus functions in the order in which the daemon calls
/// them.
#ifndef VEMK_TESTS_MODULE_BUS_BUS_TEST_BASE_H
#define VEMK_TESTS_MODULE_BUS_BUS_TEST_BASE_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <zmq.hpp>

#include "fakes/temporary_folder.h"
#include "module_bus.h"
#include "module_bus/bus_client.h"
#include "module_bus/bus_folder.h"

namespace vemk {

inline bus_deadline in(std::chrono::milliseconds time) {
  return std::chrono::steady_clock::now() + time;
}

constexpr std::chrono::milliseconds soon{5000};
constexpr std::chrono::milliseconds one_poll{10};
constexpr int daemon_module = 2;

class bus_test_base : public ::testing::Test {
protected:
  bus_test_base() { setenv("MODULE_BUS_DIR", folder.c_str(), 1); }

  ~bus_test_base() override {
    leave();
    unsetenv("MODULE_BUS_DIR");
  }

  static int join() {
    const signed char list[] = {-2, 0};
    InitTrace("VEMk");
    SetTraceOpt(0, 4, 0);
    InitLibParams(daemon_module, list, 2);
    SetModuleLoop(0);
    return ModulePeerStart();
  }

  static void leave() {
    ModulePeerStop();
    SetModuleLoop(0);
    FreeLibParams();
  }

  /// Listens to the module, which has joined, from now on: it learns of this while it polls.
  class subscribed_listener : public bus_listener {
  public:
    explicit subscribed_listener(const std::string &folder) : bus_listener(folder, daemon_module) {
      bool is_subscribed = false;
      for (const bus_deadline end = in(soon);
           !is_subscribed && std::chrono::steady_clock::now() < end;) {
        EXPECT_EQ(GetMsgFromQueueNoWait(), nullptr);
        is_subscribed = wait_until_subscribed(in(one_poll));
      }
      EXPECT_TRUE(is_subscribed);
    }
  };

  /// The next record, as the bytes of its head and payload.
  static std::optional<std::string> next_record() {
    const bus_deadline end = in(soon);
    while (std::chrono::steady_clock::now() < end) {
      if (void *record = GetMsgFromQueueNoWait())
        return take(record);
    }
    return std::nullopt;
  }

  static std::optional<std::string> next_payload() {
    const auto record = next_record();
    return record ? std::optional<std::string>(record->substr(record_head)) : std::nullopt;
  }

  static int send(const std::string &text) {
    return MsgSend(text.data(), 3, static_cast<std::uint32_t>(text.size()));
  }

  static std::size_t open_descriptors() {
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }

  static std::string take(void *record) {
    const auto *bytes = static_cast<const char *>(record);
    std::uint32_t length = 0;
    std::memcpy(&length, bytes + 4, sizeof length);
    std::string copy(bytes, record_head + length);
    std::free(record);
    return copy;
  }

  static constexpr std::size_t record_head = 13;
  const temporary_folder temporary;
  const std::string folder = temporary.path();
};

class joined_bus_test : public bus_test_base {
protected:
  joined_bus_test() { EXPECT_EQ(join(), 0); }
};

/// Sends the module an empty message, one of unknown kind, and "good".
class malformed_sender {
public:
  explicit malformed_sender(const std::string &folder) {
    raw.set(zmq::sockopt::linger, 0);
    raw.connect("ipc://" + inbox_path(folder, daemon_module));
    for (const char *text : {"", "Xunknown kind", "Dgood"})
      raw.send(zmq::buffer(text, std::strlen(text)), zmq::send_flags::none);
  }

private:
  zmq::context_t context;
  zmq::socket_t raw{context, zmq::socket_type::dealer};
};

} // namespace vemk

#endif
