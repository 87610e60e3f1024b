// Several processes: who has a module, what a killed one leaves behind, and how one ends.

#include <csignal>
#include <filesystem>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <unistd.h>

#include "bus_test_base.h"
#include "module_bus/bus_folder.h"
#include "support/child_process.h"

namespace vemk {
namespace {

using ::testing::HasSubstr;

class ModuleBusProcessTest : public bus_test_base {};

// "already, in another process" until the first is killed; its socket stays, the next one receives.
TEST_F(ModuleBusProcessTest, AModuleIsOneLiveProcessOnly) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = start_child([&ready] {
    if (join() != 0)
      _exit(1);
    EXPECT_EQ(write(ready[1], "r", 1), 1);
    while (true)
      pause();
  });
  close(ready[1]);
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the child ended before it was ready";
  close(ready[0]);

  testing::internal::CaptureStderr();
  EXPECT_EQ(join(), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("module 2 is on the bus in " + folder + " already, in another process"));
  EXPECT_EQ(GetModuleLoop(), 0);

  kill(child, SIGKILL);
  EXPECT_EQ(wait_for_child(child), -SIGKILL);
  EXPECT_TRUE(std::filesystem::exists(inbox_path(folder, daemon_module)));
  EXPECT_EQ(join(), 0);
  bus_sender sender(folder, daemon_module);
  ASSERT_TRUE(sender.send("text", in(soon)));
  EXPECT_EQ(next_payload(), "text");
}

// exit(7) beside a thread that polls and sends ends the process with status 7.
TEST_F(ModuleBusProcessTest, ExitOnAnotherThreadDoesNotWaitForTheBusThreadOrCrashIt) {
  const pid_t child = start_child([] {
    std::promise<void> joined;
    std::thread([&joined] {
      join();
      joined.set_value();
      while (true) {
        GetMsgFromQueueNoWait();
        MsgSend("text", 3, 4);
      }
    }).detach();
    joined.get_future().wait();
    std::exit(7);
  });
  EXPECT_EQ(wait_for_child(child), 7);
}

} // namespace
} // namespace vemk
