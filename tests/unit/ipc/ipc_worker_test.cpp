#include "ipc/ipc_worker.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fakes/recorded_levels.h"
#include "log/log_module.h"

namespace {

constexpr std::size_t no_limit = static_cast<std::size_t>(-1);

/// realloc has no memory for this many bytes or more.
std::atomic<std::size_t> refused_from{no_limit};

} // namespace

extern "C" {

void *__real_realloc(void *block, std::size_t size);

void *__wrap_realloc(void *block, std::size_t size) {
  return size >= refused_from ? nullptr : __real_realloc(block, size);
}
}

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t step_pause_us = 100000;
constexpr std::int64_t restart_pause_us = 300000;

class open_ipc_worker : public ipc_worker {
public:
  using ipc_worker::forward_bus_message;
  using ipc_worker::ipc_worker;
  using ipc_worker::send_to_bus;
};

class IpcWorkerTest : public testing::Test {
protected:
  IpcWorkerTest() : run_flag(true) {
    fake_bus::reset();
    fake_libc::reset();
    fake_log::clear();
    g_log_level = 0x0F;
    worker = std::make_unique<open_ipc_worker>(&bus_to_ws, &ws_to_bus, 2, &run_flag);
  }

  ~IpcWorkerTest() override {
    bus_to_ws.reset_notify();
    fake_libc::on_sleep(nullptr);
    worker.reset();
    g_log_level = 0;
    EXPECT_EQ(fake_bus::records_in_use(), 0u);
  }

  static std::shared_ptr<buffer_info_t> message(const std::string &text) {
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text.data(), static_cast<std::uint32_t>(text.size()));
    return buffer;
  }

  static std::vector<std::string> take_all(message_queue_t &queue) {
    std::vector<std::string> texts;
    while (const auto taken = queue.try_pop())
      texts.emplace_back(reinterpret_cast<const char *>(taken->data), taken->length);
    return texts;
  }

  static std::string no_memory_line() {
    return "|" + std::to_string(getpid()) + "|buffer-info> append:95 Can't alloc memory\n";
  }

  /// Runs the worker's thread, which the base never ends, up to restart pause number `restarts`.
  void run_until_restart(
      int restarts, const std::function<void()> &at_step_pause = [] {}) {
    int pauses = 0;
    fake_libc::on_sleep([&](std::int64_t microseconds) {
      if (microseconds == step_pause_us)
        at_step_pause();
      if (microseconds == restart_pause_us && ++pauses == restarts)
        pthread_exit(nullptr);
    });
    worker->start();
    worker->join();
  }

  bool run_flag;
  message_queue_t bus_to_ws;
  message_queue_t ws_to_bus;
  std::unique_ptr<open_ipc_worker> worker;
};

// The constructor calls none of the ten bus functions.
TEST_F(IpcWorkerTest, ConstructorCallsNothingOfTheBus) {
  EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

// With level 13 the modules "timers" and then "ipc-worker" are given the mask 13.
TEST_F(IpcWorkerTest, ConstructorGivesItsLogModuleTheConfiguredLevel) {
  g_log_level = 13;
  recorded_levels::clear();
  const open_ipc_worker other(&bus_to_ws, &ws_to_bus, 2, &run_flag);
  EXPECT_THAT(recorded_levels::levels(), ElementsAre("timers 13", "ipc-worker 13"));
}

// Joining and leaving.

// InitTrace "VEMk", SetTraceOpt 0 4 0, InitLibParams 2 {-2, 0} 2, loop to 0 and read, PeerStart.
TEST_F(IpcWorkerTest, InitJoinsTheBusInOrder) {
  EXPECT_TRUE(worker->init());
  EXPECT_THAT(fake_bus::calls(),
              ElementsAre("InitTrace VEMk", "SetTraceOpt 0 4 0", "InitLibParams 2 {-2, 0} 2",
                          "SetModuleLoop 0", "GetModuleLoop", "ModulePeerStart"));
}

// The identifier is signed and passed as it is: -70000.
TEST_F(IpcWorkerTest, InitPassesTheModuleIdentifierOn) {
  open_ipc_worker other(&bus_to_ws, &ws_to_bus, -70000, &run_flag);
  other.init();
  EXPECT_THAT(fake_bus::calls(), testing::Contains("InitLibParams -70000 {-2, 0} 2"));
}

// A loop flag that reads 1 after it was set to 0 gives false, without ModulePeerStart.
TEST_F(IpcWorkerTest, FlagThatStaysSetKeepsInitFromStartingThePeer) {
  fake_bus::set_flag(1);
  fake_bus::ignore_flag_changes();
  EXPECT_FALSE(worker->init());
  EXPECT_THAT(fake_bus::calls(),
              ElementsAre("InitTrace VEMk", "SetTraceOpt 0 4 0", "InitLibParams 2 {-2, 0} 2",
                          "SetModuleLoop 0", "GetModuleLoop"));
}

// A loop flag of -1 keeps init from starting the peer and the steps running, as 1 does.
TEST_F(IpcWorkerTest, AnyNonZeroFlagCounts) {
  fake_bus::set_flag(-1);
  fake_bus::ignore_flag_changes();
  EXPECT_FALSE(worker->init());
  EXPECT_TRUE(worker->keep_running(&run_flag));
}

// A flag of 1 from before is set to 0 before it is read, so init starts the peer.
TEST_F(IpcWorkerTest, FlagLeftFromBeforeIsClearedFirst) {
  fake_bus::set_flag(1);
  EXPECT_TRUE(worker->init());
}

// All results -1: init is true, steps go on, a message counts as sent, nothing is logged.
TEST_F(IpcWorkerTest, ResultsOfTheLibraryAreNotChecked) {
  fake_bus::set_results(-1);
  EXPECT_TRUE(worker->init());
  EXPECT_TRUE(worker->keep_running(&run_flag));
  ws_to_bus.push(message("text"));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ModulePeerStop, SetModuleLoop 0, FreeLibParams.
TEST_F(IpcWorkerTest, DeinitLeavesTheBusInOrder) {
  worker->init();
  fake_bus::clear_calls();
  worker->deinit();
  EXPECT_THAT(fake_bus::calls(), ElementsAre("ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"));
}

// After deinit the destructor makes the same three calls once more.
TEST_F(IpcWorkerTest, DestructorLeavesTheBusAgain) {
  worker->init();
  worker->deinit();
  fake_bus::clear_calls();
  worker.reset();
  EXPECT_THAT(fake_bus::calls(), ElementsAre("ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"));
}

// A worker that never joined makes the three calls, too.
TEST_F(IpcWorkerTest, DestructorLeavesTheBusWithoutAnInit) {
  worker.reset();
  EXPECT_THAT(fake_bus::calls(), ElementsAre("ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"));
}

// delete on an abstract_worker pointer makes the three calls.
TEST_F(IpcWorkerTest, DeletionThroughTheBaseLeavesTheBus) {
  std::unique_ptr<abstract_worker> base = std::move(worker);
  base.reset();
  EXPECT_THAT(fake_bus::calls(), ElementsAre("ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"));
}

// True only while the bool behind the argument is true and GetModuleLoop is not 0.
TEST_F(IpcWorkerTest, WorkerKeepsRunningWhileBothFlagsHold) {
  worker->init();
  EXPECT_TRUE(worker->keep_running(&run_flag));
  fake_bus::set_flag(0);
  EXPECT_FALSE(worker->keep_running(&run_flag));
  fake_bus::set_flag(1);
  const bool stopped = false;
  EXPECT_FALSE(worker->keep_running(&stopped));
  run_flag = false;
  EXPECT_FALSE(worker->keep_running(&run_flag));
}

// One step.

// With nothing in either direction a step asks the bus once and returns true.
TEST_F(IpcWorkerTest, IdleStepAsksForAPause) {
  EXPECT_TRUE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(), ElementsAre("GetMsgFromQueueNoWait"));
}

// One step forwards the bus message only; the queued one goes out in the next with MsgSend ... 3.
TEST_F(IpcWorkerTest, BusMessageGoesBeforeAQueuedOne) {
  fake_bus::add_message("from bus");
  ws_to_bus.push(message("to bus"));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(), ElementsAre("GetMsgFromQueueNoWait"));
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre("from bus"));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(),
              ElementsAre("GetMsgFromQueueNoWait", "GetMsgFromQueueNoWait", "MsgSend to bus 3 6"));
  EXPECT_TRUE(worker->run_once());
}

// Three messages each way take six steps that return false: the bus's three come first.
TEST_F(IpcWorkerTest, EveryStepMovesOneMessage) {
  for (const char *text : {"1", "2", "3"}) {
    fake_bus::add_message(text);
    ws_to_bus.push(message(text));
  }
  for (std::size_t moved = 1; moved <= 3; ++moved) {
    EXPECT_FALSE(worker->run_once());
    EXPECT_EQ(bus_to_ws.items.size(), moved);
    EXPECT_THAT(fake_bus::sent(), IsEmpty());
  }
  for (std::size_t moved = 1; moved <= 3; ++moved) {
    EXPECT_FALSE(worker->run_once());
    EXPECT_EQ(fake_bus::sent().size(), moved);
  }
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre("1", "2", "3"));
  EXPECT_THAT(fake_bus::sent(), ElementsAre("1", "2", "3"));
}

// From the bus.

// 12 bytes from byte 13 on, whatever bytes 0 to 3 and 8 to 12 hold: 0x00, 0x7F or 0xFF.
TEST_F(IpcWorkerTest, PayloadIsCopiedExactlyWhateverSurroundsIt) {
  const std::string payload("\0%n\xFF{\"a\":1}\0", 12);
  for (const char filling : {'\x00', '\x7F', '\xFF'}) {
    fake_bus::add_message(payload, filling);
    EXPECT_FALSE(worker->run_once());
  }
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre(payload, payload, payload));
}

// The copy of 4 bytes has length 4 and a NUL behind it that does not count.
TEST_F(IpcWorkerTest, CopyIsFollowedByAnUncountedZero) {
  fake_bus::add_message("text", '\xFF');
  worker->run_once();
  const auto buffer = bus_to_ws.try_pop();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->length, 4u);
  EXPECT_EQ(buffer->data[4], 0);
}

// Payloads from 1 byte to 4 MiB reach the bus-to-service queue with exactly their length.
TEST_F(IpcWorkerTest, PayloadsOfEverySizeArrive) {
  for (const std::size_t length : {1u, 12u, 13u, 255u, 256u, 65535u, 65536u, 4194304u}) {
    SCOPED_TRACE(length);
    const std::string payload(length, 'p');
    fake_bus::add_message(payload);
    EXPECT_FALSE(worker->run_once());
    const auto texts = take_all(bus_to_ws);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(texts[0] == payload);
  }
}

// A record of length 0 puts one buffer of length 0 into the bus-to-service queue.
TEST_F(IpcWorkerTest, MessageOfLengthZeroBecomesAnEmptyBuffer) {
  fake_bus::add_message("");
  EXPECT_FALSE(worker->run_once());
  const auto buffer = bus_to_ws.try_pop();
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer->length, 0u);
  EXPECT_EQ(bus_to_ws.try_pop(), nullptr);
}

// The record still exists at the push and is released with free before the step returns.
TEST_F(IpcWorkerTest, RecordIsReleasedAfterItsPayloadWasCopied) {
  fake_bus::add_message("text");
  std::size_t in_use_at_push = 0;
  bus_to_ws.set_notify([&] { in_use_at_push = fake_bus::records_in_use(); });
  worker->run_once();
  EXPECT_EQ(in_use_at_push, 1u);
  EXPECT_EQ(fake_bus::records_in_use(), 0u);
}

// The push of a bus message runs the bus-to-service queue's notify once; an idle step does not.
TEST_F(IpcWorkerTest, EveryForwardedMessageRunsTheHookOnce) {
  int wakeups = 0;
  bus_to_ws.set_notify([&] { ++wakeups; });
  fake_bus::add_message("text");
  worker->run_once();
  worker->run_once();
  EXPECT_EQ(wakeups, 1);
}

// forward_bus_message copies 2 bytes out of a record that is not on the heap.
TEST_F(IpcWorkerTest, ForwardingLeavesTheRecordToItsCaller) {
  const unsigned char record[] = {9, 9, 9, 9, 2, 0, 0, 0, 9, 9, 9, 9, 9, 'h', 'i', 'x'};
  worker->forward_bus_message(record);
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre("hi"));
}

// The length is read at each of eight addresses in a row.
// The device's processor ends a program that loads a word from an odd address.
TEST_F(IpcWorkerTest, ARecordIsReadAtEveryAlignment) {
  alignas(8) unsigned char memory[64];
  for (std::size_t shift = 0; shift < 8; ++shift) {
    SCOPED_TRACE(shift);
    const unsigned char record[] = {9, 9, 9, 9, 4, 0, 0, 0, 9, 9, 9, 9, 9, 't', 'e', 'x', 't'};
    std::memcpy(memory + shift, record, sizeof record);
    worker->forward_bus_message(memory + shift);
    EXPECT_THAT(take_all(bus_to_ws), ElementsAre("text"));
  }
}

// Lengths 0x80FFFFFF and 0xFFFFFFFF ask for memory and log "append:95 Can't alloc memory".
TEST_F(IpcWorkerTest, ALengthBeyond31BitsIsUnsigned) {
  for (const std::uint8_t highest : {std::uint8_t{0x80}, std::uint8_t{0xFF}}) {
    const unsigned char record[] = {9, 9, 9, 9, 0xFF, 0xFF, 0xFF, highest, 9, 9, 9, 9, 9, 'x'};
    refused_from = 0x80000000u;
    worker->forward_bus_message(record);
    refused_from = no_limit;
  }
  EXPECT_THAT(take_all(bus_to_ws), IsEmpty());
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line(), no_memory_line()));
}

// A payload without memory is logged and lost, its record freed, the next one arrives.
TEST_F(IpcWorkerTest, NoMemoryLosesTheMessageAndReleasesTheRecord) {
  fake_bus::add_message(std::string(1000, 'x'));
  fake_bus::add_message("next");
  refused_from = 1000;
  EXPECT_FALSE(worker->run_once());
  refused_from = no_limit;
  EXPECT_EQ(fake_bus::records_in_use(), 0u);
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre("next"));
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line()));
}

// std::bad_alloc out of the push leaves run_once, and the record is freed.
TEST_F(IpcWorkerTest, FailedPushReleasesTheRecordAndReachesTheBase) {
  fake_bus::add_message("text");
  bus_to_ws.set_notify([] { throw std::bad_alloc(); });
  EXPECT_THROW(worker->run_once(), std::bad_alloc);
  EXPECT_EQ(fake_bus::records_in_use(), 0u);
}

// To the bus.

// MsgSend gets the bytes, NUL and "%n" among them, the constant 3 and the length 6.
TEST_F(IpcWorkerTest, QueuedMessageIsSentWithConstantAndLength) {
  const std::string payload("a\0b%n\xFF", 6);
  ws_to_bus.push(message(payload));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(),
              ElementsAre("GetMsgFromQueueNoWait", "MsgSend " + payload + " 3 6"));
}

// Null data, length 0 or no buffer: the step returns false and MsgSend is not called; no line.
TEST_F(IpcWorkerTest, EmptyQueuedMessagesAreDropped) {
  ws_to_bus.push(std::make_shared<buffer_info_t>());
  ws_to_bus.push(message(""));
  ws_to_bus.push(nullptr);
  EXPECT_FALSE(worker->run_once());
  EXPECT_FALSE(worker->run_once());
  EXPECT_FALSE(worker->run_once());
  EXPECT_TRUE(worker->run_once());
  EXPECT_THAT(fake_bus::sent(), IsEmpty());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// By reference and by shared pointer a text is sent; length 0 is dropped, and so is null data.
TEST_F(IpcWorkerTest, BothFormsOfSendingSendOrDropAlike) {
  const auto text = message("text");
  worker->send_to_bus(text);
  worker->send_to_bus(*text);
  worker->send_to_bus(message(""));
  worker->send_to_bus(buffer_info_t());
  buffer_info_t without_data;
  without_data.length = 4;
  worker->send_to_bus(without_data);
  EXPECT_THAT(fake_bus::calls(), ElementsAre("MsgSend text 3 4", "MsgSend text 3 4"));
}

// Both queues' mutexes are free during MsgSend.
TEST_F(IpcWorkerTest, NothingIsSentWithAQueueLocked) {
  ws_to_bus.push(message("text"));
  bool both_free = false;
  fake_bus::on_send([&] {
    const std::unique_lock<std::mutex> out(ws_to_bus.lock, std::try_to_lock);
    const std::unique_lock<std::mutex> in(bus_to_ws.lock, std::try_to_lock);
    both_free = out.owns_lock() && in.owns_lock();
  });
  worker->run_once();
  EXPECT_TRUE(both_free);
}

// On its thread.

// A cleared loop flag ends the steps, 100 ms apart: leave, 300 ms, and the whole joining again.
TEST_F(IpcWorkerTest, DroppedModuleLeavesAndJoinsAgain) {
  int idle_steps = 0;
  run_until_restart(2, [&] {
    if (++idle_steps % 2 == 0)
      fake_bus::set_flag(0);
  });
  const std::vector<std::string> round = {
      "InitTrace VEMk",        "SetTraceOpt 0 4 0",     "InitLibParams 2 {-2, 0} 2",
      "SetModuleLoop 0",       "GetModuleLoop",         "ModulePeerStart",
      "GetModuleLoop",         "GetMsgFromQueueNoWait", "GetModuleLoop",
      "GetMsgFromQueueNoWait", "GetModuleLoop",         "ModulePeerStop",
      "SetModuleLoop 0",       "FreeLibParams"};
  std::vector<std::string> expected = round;
  expected.insert(expected.end(), round.begin(), round.end());
  EXPECT_EQ(fake_bus::calls(), expected);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(step_pause_us, step_pause_us, restart_pause_us,
                                                  step_pause_us, step_pause_us, restart_pause_us));
}

// A loop flag that stays 0 after ModulePeerStart means no step, and another try every 300 ms.
TEST_F(IpcWorkerTest, PeerThatDoesNotComeUpIsTriedAgain) {
  fake_bus::fail_peer_start();
  run_until_restart(3);
  EXPECT_THAT(fake_libc::sleeps_us(),
              ElementsAre(restart_pause_us, restart_pause_us, restart_pause_us));
  EXPECT_THAT(fake_bus::calls(), testing::Not(testing::Contains("GetMsgFromQueueNoWait")));
}

// A failed init is followed by the three leaving calls, 300 ms and another init.
TEST_F(IpcWorkerTest, FlagThatStaysSetIsTriedAgainWithoutAStep) {
  fake_bus::set_flag(1);
  fake_bus::ignore_flag_changes();
  run_until_restart(2);
  const std::vector<std::string> round = {
      "InitTrace VEMk", "SetTraceOpt 0 4 0", "InitLibParams 2 {-2, 0} 2", "SetModuleLoop 0",
      "GetModuleLoop",  "ModulePeerStop",    "SetModuleLoop 0",           "FreeLibParams"};
  std::vector<std::string> expected = round;
  expected.insert(expected.end(), round.begin(), round.end());
  EXPECT_EQ(fake_bus::calls(), expected);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(restart_pause_us, restart_pause_us));
}

// A false run flag leads from the step's pause to the three leaving calls, then 300 ms.
TEST_F(IpcWorkerTest, ClearedRunFlagLeavesTheBusBeforeTheNextPause) {
  run_until_restart(1, [&] {
    run_flag = false;
    fake_bus::clear_calls();
  });
  EXPECT_THAT(fake_bus::calls(), ElementsAre("ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(step_pause_us, restart_pause_us));
}

// 100 messages each way are moved on the thread "ipc" before its first pause of 100 ms.
TEST_F(IpcWorkerTest, MessagesInBothDirectionsMoveWithoutAPause) {
  for (int i = 0; i < 100; ++i) {
    fake_bus::add_message(std::to_string(i));
    ws_to_bus.push(message(std::to_string(i)));
  }
  char name[32] = "";
  run_until_restart(1, [&] {
    pthread_getname_np(pthread_self(), name, sizeof name);
    fake_bus::set_flag(0);
  });
  EXPECT_STREQ(name, "ipc");
  EXPECT_EQ(bus_to_ws.items.size(), 100u);
  EXPECT_EQ(fake_bus::sent().size(), 100u);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(step_pause_us, restart_pause_us));
}

} // namespace
} // namespace vemk
