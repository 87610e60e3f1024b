/// A module on the bus for the program's tests.
#ifndef VEMK_TESTS_VEMKCTL_FAKE_MODULE_H
#define VEMK_TESTS_VEMKCTL_FAKE_MODULE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "module_bus.h"

namespace vemk {

/// Joins the bus as module 2 on a thread of its own, records each message and sends what the
/// handler makes of it. The record may be read once stop() has returned.
class fake_module {
public:
  using handler_t = std::function<std::vector<std::string>(const std::string &)>;

  explicit fake_module(handler_t handler)
      : answers_to(std::move(handler)), thread([this] { run(); }) {
    while (!joined)
      std::this_thread::yield();
  }
  ~fake_module() { stop(); }

  void stop() {
    stopping = true;
    if (thread.joinable())
      thread.join();
  }

  std::vector<std::string> messages;
  bool dropped = false;

private:
  void run() {
    InitLibParams(2, nullptr, 0);
    SetModuleLoop(0);
    ModulePeerStart();
    joined = true;
    while (!stopping && GetModuleLoop() != 0) {
      if (void *record = GetMsgFromQueueNoWait())
        take(record);
      else
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    dropped = GetModuleLoop() == 0;
    ModulePeerStop();
    SetModuleLoop(0);
    FreeLibParams();
  }

  void take(void *record) {
    std::uint32_t length = 0;
    std::memcpy(&length, static_cast<char *>(record) + 4, sizeof length);
    messages.emplace_back(static_cast<char *>(record) + 13, length);
    std::free(record);
    for (const std::string &answer : answers_to(messages.back()))
      MsgSend(answer.data(), 3, static_cast<std::uint32_t>(answer.size()));
  }

  const handler_t answers_to;
  std::atomic<bool> joined{false};
  std::atomic<bool> stopping{false};
  std::thread thread;
};

} // namespace vemk

#endif
