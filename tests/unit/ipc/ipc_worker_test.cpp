#include "ipc/ipc_worker.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_bus.h"
#include "fakes/fake_memory.h"
#include "fakes/recorded_levels.h"
#include "support/buffers.h"
#include "support/joined.h"
#include "support/logging_test.h"
#include "support/worker_thread.h"

namespace vemk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using texts_t = std::vector<std::string>;

// The calls of an init(), but for the peer's start, and those of a deinit().
const texts_t opening = {"InitTrace VEMk", "SetTraceOpt 0 4 0", "InitLibParams 2 {-2, 0} 2",
                         "SetModuleLoop 0", "GetModuleLoop"};
const texts_t leaving = {"ModulePeerStop", "SetModuleLoop 0", "FreeLibParams"};

class open_ipc_worker : public ipc_worker {
public:
  using ipc_worker::forward_bus_message;
  using ipc_worker::ipc_worker;
  using ipc_worker::send_to_bus;
};

class IpcWorkerTest : public LoggingTest {
protected:
  IpcWorkerTest() : LoggingTest(0x0F), run_flag(true) {
    fake_bus::reset();
    fake_libc::reset();
    worker = std::make_unique<open_ipc_worker>(&bus_to_ws, &ws_to_bus, 2, &run_flag);
  }

  ~IpcWorkerTest() override {
    bus_to_ws.reset_notify();
    fake_libc::on_sleep(nullptr);
    worker.reset();
    EXPECT_EQ(fake_bus::records_in_use(), 0u);
  }

  void run_with_pauses(
      int restarts, const std::function<void()> &at_step_pause = [] {}) {
    run_until_restart(*worker, restarts, [&](std::int64_t sleep_us) {
      if (sleep_us == step_pause_us)
        at_step_pause();
    });
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
  recorded_levels::levels.clear();
  const open_ipc_worker other(&bus_to_ws, &ws_to_bus, 2, &run_flag);
  EXPECT_THAT(recorded_levels::levels(), ElementsAre("timers 13", "ipc-worker 13"));
}

// Joining and leaving.

// InitTrace "VEMk", SetTraceOpt 0 4 0, InitLibParams 2 {-2, 0} 2, loop to 0 and read, PeerStart.
TEST_F(IpcWorkerTest, InitJoinsTheBusInOrder) {
  EXPECT_TRUE(worker->init());
  EXPECT_EQ(fake_bus::calls(), joined({opening, {"ModulePeerStart"}}));
}

// The identifier is signed and passed as it is: -70000.
TEST_F(IpcWorkerTest, InitPassesTheModuleIdentifierOn) {
  open_ipc_worker other(&bus_to_ws, &ws_to_bus, -70000, &run_flag);
  other.init();
  EXPECT_THAT(fake_bus::calls(), testing::Contains("InitLibParams -70000 {-2, 0} 2"));
}

// A loop flag of 1 or -1 after it was set to 0: false, no ModulePeerStart, and steps go on.
TEST_F(IpcWorkerTest, FlagThatStaysSetKeepsInitFromStartingThePeer) {
  fake_bus::ignore_flag_changes();
  for (const int flag : {1, -1}) {
    fake_bus::calls.clear();
    fake_bus::set_flag(flag);
    EXPECT_FALSE(worker->init());
    EXPECT_EQ(fake_bus::calls(), joined({opening}));
    EXPECT_TRUE(worker->keep_running(&run_flag));
  }
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
  ws_to_bus.push(buffer_of("text"));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_log::lines(), IsEmpty());
}

// ModulePeerStop, SetModuleLoop 0, FreeLibParams.
TEST_F(IpcWorkerTest, DeinitLeavesTheBusInOrder) {
  worker->init();
  fake_bus::calls.clear();
  worker->deinit();
  EXPECT_EQ(fake_bus::calls(), leaving);
}

// After deinit, and without an init, delete on an abstract_worker pointer makes the three calls.
TEST_F(IpcWorkerTest, DestructorLeavesTheBusAgain) {
  std::unique_ptr<abstract_worker> never_joined =
      std::make_unique<open_ipc_worker>(&bus_to_ws, &ws_to_bus, 2, &run_flag);
  worker->init();
  worker->deinit();
  std::unique_ptr<abstract_worker> has_left = std::move(worker);
  for (auto *ending : {&never_joined, &has_left}) {
    fake_bus::calls.clear();
    ending->reset();
    EXPECT_EQ(fake_bus::calls(), leaving);
  }
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

// One step forwards the bus message; the queued one goes in the next, with its bytes, 3 and 6.
TEST_F(IpcWorkerTest, BusMessageGoesBeforeAQueuedOne) {
  const std::string queued("a\0b%n\xFF", 6);
  fake_bus::add_message("from bus");
  ws_to_bus.push(buffer_of(queued));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(), ElementsAre("GetMsgFromQueueNoWait"));
  EXPECT_THAT(take_all(bus_to_ws), ElementsAre("from bus"));
  EXPECT_FALSE(worker->run_once());
  EXPECT_THAT(fake_bus::calls(), ElementsAre("GetMsgFromQueueNoWait", "GetMsgFromQueueNoWait",
                                             "MsgSend " + queued + " 3 6"));
  EXPECT_TRUE(worker->run_once());
}

// Three messages each way take six steps that return false: the bus's three come first.
TEST_F(IpcWorkerTest, EveryStepMovesOneMessage) {
  for (const char *text : {"1", "2", "3"}) {
    fake_bus::add_message(text);
    ws_to_bus.push(buffer_of(text));
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

// 12 bytes from byte 13 on, whatever stands around them, and a NUL behind them that does not count.
TEST_F(IpcWorkerTest, PayloadIsCopiedExactlyWhateverSurroundsIt) {
  const std::string payload("\0%n\xFF{\"a\":1}\0", 12);
  for (const char filling : {'\x00', '\x7F', '\xFF'}) {
    fake_bus::add_message(payload, filling);
    EXPECT_FALSE(worker->run_once());
    const auto buffer = bus_to_ws.try_pop();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(text_of(*buffer), payload);
    EXPECT_EQ(buffer->data[12], 0);
  }
}

// Payloads from 0 bytes to 4 MiB reach the bus-to-service queue as one buffer of their length.
TEST_F(IpcWorkerTest, PayloadsOfEverySizeArrive) {
  for (const std::size_t length : {0u, 1u, 12u, 13u, 255u, 256u, 65535u, 65536u, 4194304u}) {
    SCOPED_TRACE(length);
    const std::string payload(length, 'p');
    fake_bus::add_message(payload);
    EXPECT_FALSE(worker->run_once());
    const auto texts = take_all(bus_to_ws);
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_TRUE(texts[0] == payload);
  }
}

// The push runs the queue's notify once, with the record still there; it is free after the step.
TEST_F(IpcWorkerTest, RecordIsReleasedAfterItsPayloadWasCopied) {
  fake_bus::add_message("text");
  int wakeups = 0;
  bus_to_ws.set_notify([&] {
    ++wakeups;
    EXPECT_EQ(fake_bus::records_in_use(), 1u);
  });
  worker->run_once();
  EXPECT_EQ(fake_bus::records_in_use(), 0u);
  worker->run_once();
  EXPECT_EQ(wakeups, 1);
}

// forward_bus_message reads a record of its caller's, not on the heap, at eight addresses in a row.
// The device's processor ends a program that loads a word from an odd address.
TEST_F(IpcWorkerTest, ARecordIsReadAtEveryAlignmentAndLeftToItsCaller) {
  alignas(8) unsigned char memory[64];
  for (std::size_t shift = 0; shift < 8; ++shift) {
    SCOPED_TRACE(shift);
    const unsigned char record[] = {9, 9, 9, 9, 2, 0, 0, 0, 9, 9, 9, 9, 9, 'h', 'i', 'x'};
    std::memcpy(memory + shift, record, sizeof record);
    worker->forward_bus_message(memory + shift);
    EXPECT_THAT(take_all(bus_to_ws), ElementsAre("hi"));
  }
}

// Lengths 0x80FFFFFF and 0xFFFFFFFF ask for memory and log "append:95 Can't alloc memory".
TEST_F(IpcWorkerTest, ALengthBeyond31BitsIsUnsigned) {
  const fake_memory::shortage shortage(0x80000000u);
  for (const std::uint8_t highest : {std::uint8_t{0x80}, std::uint8_t{0xFF}}) {
    const unsigned char record[] = {9, 9, 9, 9, 0xFF, 0xFF, 0xFF, highest, 9, 9, 9, 9, 9, 'x'};
    worker->forward_bus_message(record);
  }
  EXPECT_THAT(take_all(bus_to_ws), IsEmpty());
  EXPECT_THAT(fake_log::lines(), ElementsAre(no_memory_line(), no_memory_line()));
}

// A payload without memory is logged and lost, its record freed, the next one arrives.
TEST_F(IpcWorkerTest, NoMemoryLosesTheMessageAndReleasesTheRecord) {
  fake_bus::add_message(std::string(1000, 'x'));
  fake_bus::add_message("next");
  const fake_memory::shortage shortage(1000);
  EXPECT_FALSE(worker->run_once());
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

// Null data, length 0 or no buffer: the step returns false and MsgSend is not called; no line.
TEST_F(IpcWorkerTest, EmptyQueuedMessagesAreDropped) {
  ws_to_bus.push(std::make_shared<buffer_info_t>());
  ws_to_bus.push(buffer_of(""));
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
  const auto text = buffer_of("text");
  worker->send_to_bus(text);
  worker->send_to_bus(*text);
  worker->send_to_bus(buffer_of(""));
  worker->send_to_bus(buffer_info_t());
  buffer_info_t without_data;
  without_data.length = 4;
  worker->send_to_bus(without_data);
  EXPECT_THAT(fake_bus::calls(), ElementsAre("MsgSend text 3 4", "MsgSend text 3 4"));
}

// Both queues' mutexes are free during MsgSend.
TEST_F(IpcWorkerTest, NothingIsSentWithAQueueLocked) {
  ws_to_bus.push(buffer_of("text"));
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
  run_with_pauses(2, [&] {
    if (++idle_steps % 2 == 0)
      fake_bus::set_flag(0);
  });
  const texts_t step = {"GetModuleLoop", "GetMsgFromQueueNoWait"};
  const texts_t round =
      joined({opening, {"ModulePeerStart"}, step, step, {"GetModuleLoop"}, leaving});
  EXPECT_EQ(fake_bus::calls(), joined({round, round}));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(step_pause_us, step_pause_us, restart_pause_us,
                                                  step_pause_us, step_pause_us, restart_pause_us));
}

// A loop flag that stays 0 after ModulePeerStart means no step, and another try every 300 ms.
TEST_F(IpcWorkerTest, PeerThatDoesNotComeUpIsTriedAgain) {
  fake_bus::fail_peer_start();
  run_with_pauses(3);
  EXPECT_THAT(fake_libc::sleeps_us(),
              ElementsAre(restart_pause_us, restart_pause_us, restart_pause_us));
  EXPECT_THAT(fake_bus::calls(), testing::Not(testing::Contains("GetMsgFromQueueNoWait")));
}

// A failed init is followed by the three leaving calls, 300 ms and another init.
TEST_F(IpcWorkerTest, FlagThatStaysSetIsTriedAgainWithoutAStep) {
  fake_bus::set_flag(1);
  fake_bus::ignore_flag_changes();
  run_with_pauses(2);
  EXPECT_EQ(fake_bus::calls(), joined({opening, leaving, opening, leaving}));
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(restart_pause_us, restart_pause_us));
}

// A false run flag leads from the step's pause to the three leaving calls, then 300 ms.
TEST_F(IpcWorkerTest, ClearedRunFlagLeavesTheBusBeforeTheNextPause) {
  run_with_pauses(1, [&] {
    run_flag = false;
    fake_bus::calls.clear();
  });
  EXPECT_EQ(fake_bus::calls(), leaving);
  EXPECT_THAT(fake_libc::sleeps_us(), ElementsAre(step_pause_us, restart_pause_us));
}

// 100 messages each way are moved on the thread "ipc" before its first pause of 100 ms.
TEST_F(IpcWorkerTest, MessagesInBothDirectionsMoveWithoutAPause) {
  for (int i = 0; i < 100; ++i) {
    fake_bus::add_message(std::to_string(i));
    ws_to_bus.push(buffer_of(std::to_string(i)));
  }
  char name[32] = "";
  run_with_pauses(1, [&] {
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
