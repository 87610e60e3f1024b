// Several processes: who has a module, what a killed one leaves behind, and how one ends.

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus_test_base.h"
#include "module_bus/bus_folder.h"

namespace vemk {
namespace {

using ::testing::HasSubstr;

class ModuleBusProcessTest : public bus_test_base {
protected:
  ~ModuleBusProcessTest() override { end_child(); }

  /// Runs it in a child process and returns once it has called the function that it is given.
  void start_child(const std::function<void(std::function<void()>)> &run) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      run([&] { EXPECT_EQ(write(ready[1], "r", 1), 1); });
      _exit(0);
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the child ended before it was ready";
    close(ready[0]);
  }

  void start_module_in_child() {
    start_child([](const std::function<void()> &ready) {
      if (join() != 0)
        _exit(1);
      ready();
      while (true)
        pause();
    });
  }

  int end_child() {
    if (child <= 0)
      return 0;
    kill(child, SIGKILL);
    return wait_for_child();
  }

  int wait_for_child() {
    int status = 0;
    waitpid(child, &status, 0);
    child = -1;
    return status;
  }

  pid_t child = -1;
};

// After SIGKILL the inbox's socket is left; the next process joins and receives all the same.
TEST_F(ModuleBusProcessTest, SocketsOfAKilledProcessDoNotStopTheNextOne) {
  start_module_in_child();
  const int status = end_child();
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_TRUE(std::filesystem::exists(inbox_path(folder, daemon_module)));

  EXPECT_EQ(join(), 0);
  bus_sender sender(folder, daemon_module);
  ASSERT_TRUE(sender.send("text", in(soon)));
  EXPECT_EQ(next_payload(), "text");
}

// A second process is told "already, in another process" until the first has ended.
TEST_F(ModuleBusProcessTest, AModuleIsOneLiveProcessOnly) {
  start_module_in_child();
  testing::internal::CaptureStderr();
  EXPECT_EQ(join(), -1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("module 2 is on the bus in " + folder + " already, in another process"));
  EXPECT_EQ(GetModuleLoop(), 0);
  EXPECT_TRUE(std::filesystem::exists(inbox_path(folder, daemon_module)));

  end_child();
  EXPECT_EQ(join(), 0);
}

// exit(7) beside a thread that polls and sends ends the process with status 7.
TEST_F(ModuleBusProcessTest, ExitOnAnotherThreadDoesNotWaitForTheBusThreadOrCrashIt) {
  start_child([](const std::function<void()> &ready) {
    std::atomic<bool> joined{false};
    std::thread([&] {
      join();
      ready();
      joined = true;
      while (true) {
        GetMsgFromQueueNoWait();
        MsgSend("text", 3, 4);
      }
    }).detach();
    while (!joined)
      std::this_thread::yield();
    std::exit(7);
  });
  const int status = wait_for_child();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

} // namespace
} // namespace vemk
