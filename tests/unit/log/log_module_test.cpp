#include "log/log_module.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <stdio_ext.h>
#include <string>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_mutex.h"
#include "zandor_log.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct platform_call_t {
  std::string function;
  std::string format;
  std::string text;
  std::thread::id caller;
};

// The emitters hold g_log_mutex over these calls, so the record needs no lock of its own: where
// they did not, ThreadSanitizer would tell.
std::vector<platform_call_t> calls;
bool probe_mutex = false;
std::vector<bool> mutex_was_held;

__attribute__((format(printf, 2, 0))) void record(const char *function, const char *format,
                                                  va_list arguments) {
  char text[256];
  vsnprintf(text, sizeof text, format, arguments);
  calls.push_back({function, format, text, std::this_thread::get_id()});
  if (probe_mutex)
    mutex_was_held.push_back(vemk::fake_mutex::is_held(vemk::g_log_mutex));
}

const std::uint32_t log_level_before_main = vemk::g_log_level;

} // namespace

extern "C" {

void zandor_log_msg_timed(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record("zandor_log_msg_timed", format, arguments);
  va_end(arguments);
}

void vzandor_log_msg(const char *format, va_list arguments) {
  record("vzandor_log_msg", format, arguments);
}
}

namespace vemk {

namespace {

std::string prefix(const std::string &module) {
  return "|" + std::to_string(getpid()) + "|" + module + "> ";
}

/// Each line as prefix and message, in the order in which they were begun.
std::vector<std::string> lines() {
  std::vector<std::string> found;
  for (const platform_call_t &call : calls) {
    if (call.function == "zandor_log_msg_timed")
      found.push_back(call.text);
    else
      found.back() += call.text;
  }
  return found;
}

__attribute__((format(printf, 2, 3))) void vprint(const log_module_t &module, const char *format,
                                                  ...) {
  va_list arguments;
  va_start(arguments, format);
  log_vprint(module, format, arguments);
  va_end(arguments);
}

void log_in_every_category(const log_module_t &module) {
  log_error(module, "error %d\n", 1);
  log_warning(module, "warning %d\n", 2);
  log_info(module, "info %d\n", 3);
  log_debug(module, "debug %d\n", 4);
}

class LogModuleTest : public testing::Test {
protected:
  LogModuleTest() {
    calls.clear();
    probe_mutex = false;
    mutex_was_held.clear();
    fake_mutex::watch(g_log_mutex);
    log_module_init(module, "buffer-info", 0);
  }

  std::vector<std::string> lines_with_mask(std::uint32_t mask) {
    calls.clear();
    log_set_level(module, mask);
    log_in_every_category(module);
    return lines();
  }

  log_module_t module;
  const std::string error_line = prefix("buffer-info") + "error 1\n";
  const std::string warning_line = prefix("buffer-info") + "warning 2\n";
  const std::string info_line = prefix("buffer-info") + "info 3\n";
  const std::string debug_line = prefix("buffer-info") + "debug 4\n";
};

} // namespace

// The name's pointer comes first, the mask of 32 bits after it.
TEST_F(LogModuleTest, ModuleIsTwoWordsNameThenLevel) {
  EXPECT_EQ(offsetof(log_module_t, name), 0u);
  EXPECT_EQ(offsetof(log_module_t, level), sizeof(char *));
  EXPECT_EQ(sizeof(log_module_t::level), 4u);
  EXPECT_EQ(sizeof(log_module_t), 2 * sizeof(char *));
}

// g_log_level is 0 while the static initialisers run.
TEST_F(LogModuleTest, ProcessWideLevelIsZeroUntilConfigured) {
  EXPECT_EQ(0u, log_level_before_main);
}

// log_module_init stores "timers" and all 32 bits of 0x8000000F, log_set_level 0xFFFFFFFF and 2.
TEST_F(LogModuleTest, InitStoresNameAndLevel) {
  log_module_t other;
  log_module_init(other, "timers", 0x8000000F);
  EXPECT_STREQ("timers", other.name);
  EXPECT_EQ(0x8000000Fu, other.level);
  for (const std::uint32_t mask : {0xFFFFFFFFu, 2u}) {
    log_set_level(other, mask);
    EXPECT_EQ(mask, other.level);
  }
}

// A standard output with a buffer of 4096 bytes has one of at most 1 byte after log_module_init.
TEST_F(LogModuleTest, InitMakesStandardOutputUnbuffered) {
  static char block[4096];
  ASSERT_EQ(0, setvbuf(stdout, block, _IOFBF, sizeof block));
  // The C library may keep some of the block for itself.
  ASSERT_GT(__fbufsize(stdout), sizeof block / 2);
  log_module_init(module, "timers", 0);
  EXPECT_LE(__fbufsize(stdout), 1u);
}

// A module that its static initialiser set up has its name and the mask 0, so nothing is logged.
TEST_F(LogModuleTest, StaticSetupNamesTheModuleAndLeavesItSilent) {
  log_module_t other;
  log_set_level(other, 0xFFFF);
  const log_module_setup setup(other, "ipc-worker");
  EXPECT_STREQ("ipc-worker", other.name);
  log_in_every_category(other);
  EXPECT_THAT(lines(), IsEmpty());
}

// 1 is log_error's, 2 log_warning's, 4 log_info's, 8 log_debug's line, 15 all; other bits none.
TEST_F(LogModuleTest, EveryBitOpensItsCategoryOnly) {
  EXPECT_THAT(lines_with_mask(0x01), ElementsAre(error_line));
  EXPECT_THAT(lines_with_mask(0x02), ElementsAre(warning_line));
  EXPECT_THAT(lines_with_mask(0x04), ElementsAre(info_line));
  EXPECT_THAT(lines_with_mask(0x08), ElementsAre(debug_line));
  EXPECT_THAT(lines_with_mask(15), ElementsAre(error_line, warning_line, info_line, debug_line));
  EXPECT_THAT(lines_with_mask(0), IsEmpty());
  EXPECT_THAT(lines_with_mask(0xFFFFFFF0), IsEmpty());
}

// Each of the four categories is enabled exactly while its bit is in the mask.
TEST_F(LogModuleTest, ModuleTellsWhetherACategoryIsWritten) {
  for (const std::uint32_t mask : {0x00u, 0x01u, 0x0Au, 0xFFFFFFF0u, 0x0Fu}) {
    log_set_level(module, mask);
    for (const std::uint32_t category : {1u, 2u, 4u, 8u})
      EXPECT_EQ((mask & category) != 0, log_is_enabled(module, category)) << mask << category;
  }
}

// zandor_log_msg_timed gets "|%d|%s> " with PID and name, then vzandor_log_msg the message.
TEST_F(LogModuleTest, OneLineIsAPrefixCallThenAMessageCall) {
  log_set_level(module, 0x08);
  log_debug(module, "%s->%s:%d\n", "websock-roaming", "init", 7);
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ("zandor_log_msg_timed", calls[0].function);
  EXPECT_EQ("|%d|%s> ", calls[0].format);
  EXPECT_EQ(prefix("buffer-info"), calls[0].text);
  EXPECT_EQ("vzandor_log_msg", calls[1].function);
  EXPECT_EQ("%s->%s:%d\n", calls[1].format);
  EXPECT_EQ("websock-roaming->init:7\n", calls[1].text);
}

// log_vprint writes prefix and message although the mask is 0; "100%n %s %d" comes out as it is.
TEST_F(LogModuleTest, VprintWritesWhateverTheMaskAndTakesNoArgumentAsAFormat) {
  vprint(module, "%s %u\n", "text", 5u);
  log_set_level(module, 0x01);
  log_error(module, "%s\n", "100%n %s %d");
  EXPECT_THAT(lines(), ElementsAre(prefix("buffer-info") + "text 5\n",
                                   prefix("buffer-info") + "100%n %s %d\n"));
}

// All five emitters lock once a message, over both platform calls, and unlock; silent, none does.
TEST_F(LogModuleTest, MutexIsHeldOverBothCallsAndFreeAfterwards) {
  probe_mutex = true;
  log_in_every_category(module);
  EXPECT_EQ(0, fake_mutex::locks());
  EXPECT_THAT(calls, IsEmpty());
  log_set_level(module, 0x0F);
  log_in_every_category(module);
  vprint(module, "%s\n", "any");
  EXPECT_EQ(std::vector<bool>(10, true), mutex_was_held);
  EXPECT_EQ(5, fake_mutex::locks());
  EXPECT_FALSE(fake_mutex::is_held(g_log_mutex));
}

// EDEADLK of the lock comes out of all five emitters as std::system_error with that code.
TEST_F(LogModuleTest, MutexThatCannotBeLockedThrowsItsErrorAndWritesNothing) {
  log_set_level(module, 0x0F);
  fake_mutex::refuse(g_log_mutex, EDEADLK);
  int thrown = 0;
  for (const auto emit : {log_error, log_warning, log_info, log_debug, vprint}) {
    try {
      emit(module, "%d\n", 1);
    } catch (const std::system_error &error) {
      ++thrown;
      EXPECT_EQ(EDEADLK, error.code().value());
    }
  }
  EXPECT_EQ(5, thrown);
  EXPECT_THAT(calls, IsEmpty());
  fake_mutex::watch(g_log_mutex);
}

// With 0x08 in one module only its line comes; g_log_level opens nothing in one whose mask is 0.
TEST_F(LogModuleTest, LevelOfOneModuleLeavesOthersAlone) {
  log_module_t other;
  log_module_init(other, "timers", 0);
  log_set_level(module, 0x08);
  g_log_level = 0x0F;
  log_in_every_category(other);
  g_log_level = 0;
  log_in_every_category(module);
  EXPECT_THAT(lines(), ElementsAre(debug_line));
}

// 4 threads write 200 lines each: every prefix is followed by its own thread's message.
TEST_F(LogModuleTest, LinesOfSeveralThreadsStayWhole) {
  constexpr int thread_count = 4;
  constexpr int lines_each = 200;
  log_set_level(module, 0x04);
  std::vector<std::thread> threads;
  for (int number = 0; number < thread_count; ++number)
    threads.emplace_back([this, number] {
      for (int line = 0; line < lines_each; ++line)
        log_info(module, "thread %d line %d\n", number, line);
    });
  for (std::thread &thread : threads)
    thread.join();

  ASSERT_EQ(2u * thread_count * lines_each, calls.size());
  for (std::size_t i = 0; i < calls.size(); i += 2) {
    EXPECT_EQ("zandor_log_msg_timed", calls[i].function);
    EXPECT_EQ("vzandor_log_msg", calls[i + 1].function);
    EXPECT_EQ(calls[i].caller, calls[i + 1].caller);
  }
}

// Whatever the mask at the moment, each line that comes is one of the four, whole.
// The mask is set on one thread while another one logs: only later messages are affected, and
// ThreadSanitizer finds no race.
TEST_F(LogModuleTest, LevelMayChangeWhileAnotherThreadLogs) {
  std::atomic<bool> done{false};
  std::thread switcher([&] {
    for (std::uint32_t mask = 0; !done; ++mask)
      log_set_level(module, mask & 0x0F);
  });
  for (int i = 0; i < 2000; ++i)
    log_in_every_category(module);
  done = true;
  switcher.join();

  for (const std::string &line : lines())
    EXPECT_TRUE(line == error_line || line == warning_line || line == info_line ||
                line == debug_line)
        << line;
}

// A message that waits for the mutex is written although its mask is cleared; the next one is not.
TEST_F(LogModuleTest, MaskChangeAffectsOnlyLaterMessages) {
  log_set_level(module, 0x08);
  g_log_mutex.lock();
  fake_mutex::watch(g_log_mutex);
  std::atomic<bool> written{false};
  std::thread writer([&] {
    log_debug(module, "%s\n", "begun");
    written = true;
  });
  while (fake_mutex::locks() == 0 && !written)
    std::this_thread::yield();
  EXPECT_FALSE(written);
  log_set_level(module, 0);
  g_log_mutex.unlock();
  writer.join();
  log_debug(module, "%s\n", "later");
  EXPECT_THAT(lines(), ElementsAre(prefix("buffer-info") + "begun\n"));
}

} // namespace vemk
