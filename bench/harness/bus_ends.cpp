#include "harness/message_end.h"

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>

#include "module_bus.h"
#include "module_bus/bus_client.h"
#include "module_bus/bus_folder.h"

namespace vemk {

namespace {

constexpr int bridge_module_id = 2;
constexpr std::chrono::seconds longest_wait{100};

class bus_end : public message_end {
public:
  bus_end()
      : folder(open_bus_folder("", bus_role::client)), sender(folder, bridge_module_id),
        listener(folder, bridge_module_id) {}

  void wait_until_connected() override {
    if (!listener.wait_until_subscribed(std::chrono::steady_clock::now() + longest_wait))
      give_up("the bridge's module is not on the bus");
  }

  void send(std::string_view payload, long count) override {
    for (; count > 0; --count)
      sender.send(payload, bus_deadline::max());
  }

  void receive(std::size_t size, long count) override {
    const auto deadline = std::chrono::steady_clock::now() + longest_wait;
    while (count > 0) {
      const auto message = listener.receive(deadline);
      if (!message || listener.lost() > 0)
        give_up("the bus lost messages");
      // The daemon's status messages come in between.
      if (!message->empty() && message->front() == '{')
        continue;
      check_size(message->size(), size);
      --count;
    }
  }

private:
  const std::string folder;
  bus_sender sender;
  bus_listener listener;
};

class module_end : public message_end {
public:
  module_end() {
    const signed char list[] = {-2, 0};
    if (InitLibParams(bridge_module_id, list, sizeof list) != 0 || ModulePeerStart() != 0)
      give_up("the module cannot join the bus");
  }

  ~module_end() override { ModulePeerStop(); }

  void send(std::string_view payload, long count) override {
    for (; count > 0; --count) {
      if (MsgSend(payload.data(), 3, static_cast<std::uint32_t>(payload.size())) != 0)
        give_up("the bus did not take a message");
    }
  }

  void receive(std::size_t size, long count) override {
    while (count > 0) {
      void *record = GetMsgFromQueueNoWait();
      if (record == nullptr) {
        wait();
        continue;
      }
      std::uint32_t length = 0;
      std::memcpy(&length, static_cast<char *>(record) + 4, sizeof length);
      free(record);
      check_size(length, size);
      --count;
    }
  }

private:
  static void wait() {
    pollfd ready{GetMsgDescriptor(), POLLIN, 0};
    poll(&ready, 1, -1);
  }
};

} // namespace

std::unique_ptr<message_end> make_bus_end() {
  return std::make_unique<bus_end>();
}

std::unique_ptr<message_end> make_module_end() {
  return std::make_unique<module_end>();
}

} // namespace vemk
