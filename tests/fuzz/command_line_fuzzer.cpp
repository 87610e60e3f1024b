/// The input is a command line, an argument a line, up to the first empty line; what follows is the
/// text of the only file that exists, "vemk.conf". config_model says what must be in the record
/// afterwards, and which command lines end the process.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "config/websock_cfg.h"
#include "fakes/fake_libc.h"
#include "fakes/fake_log.h"
#include "fuzz/config_model.h"
#include "fuzz/expect.h"
#include "fuzz/memory_file.h"
#include "fuzz/script.h"
#include "log/log_module.h"

namespace {

vemk::fuzz::memory_file &the_file() {
  static vemk::fuzz::memory_file file;
  return file;
}

} // namespace

extern "C" {

// Only in builds with the leak checker.
__attribute__((weak)) void __lsan_disable();
__attribute__((weak)) void __lsan_enable();

FILE *__real_fopen(const char *name, const char *mode);

FILE *__wrap_fopen(const char *name, const char *mode) {
  if (std::string(name) == "vemk.conf")
    return __real_fopen(the_file().name(), mode);
  // The fuzzer writes what it finds.
  if (*mode == 'w')
    return __real_fopen(name, mode);
  errno = ENOENT;
  return nullptr;
}
}

namespace vemk::fuzz {

namespace {

/// While one exists, what is not released is no leak.
class leaks_allowed {
public:
  leaks_allowed() {
    if (__lsan_disable != nullptr)
      __lsan_disable();
  }
  ~leaks_allowed() {
    if (__lsan_enable != nullptr)
      __lsan_enable();
  }
  leaks_allowed(const leaks_allowed &) = delete;
  leaks_allowed &operator=(const leaks_allowed &) = delete;
};

/// getopt goes on in the middle of an argument where the last command line ended the process. Words
/// among the options are passed over, as the model does.
void forget_last_command_line() {
  unsetenv("POSIXLY_CORRECT");
  char program[] = "vemk";
  char *arguments[] = {program, nullptr};
  opterr = 0;
  optind = 0;
  getopt(1, arguments, "");
}

void parse(const std::vector<std::string> &options, const std::string &file) {
  std::vector<std::string> texts{"vemk"};
  texts.insert(texts.end(), options.begin(), options.end());
  std::vector<char *> arguments;
  for (std::string &text : texts)
    arguments.push_back(text.data());
  arguments.push_back(nullptr);

  config_model model;
  put_text(model.cfg.host, "before");
  model.cfg.log_level = 13;
  websock_cfg_t cfg = model.cfg;
  g_log_level = 6;
  fake_log::clear();
  forget_last_command_line();
  const auto run = [&cfg, &texts, &arguments] {
    parse_command_line(cfg, static_cast<int>(texts.size()), arguments.data());
  };
  if (model.read_options(options, file)) {
    expect_equal("whether the process goes on", true, !fake_libc::exit_status(run));
    model.expect_same(cfg);
    return;
  }
  const leaks_allowed because_the_process_ends;
  expect_equal("the exit status", -1, fake_libc::exit_status(run).value_or(0));
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  vemk::fake_libc::let_exit_end_the_process();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk;
  fuzz::script_reader script(data, size);
  std::vector<std::string> options;
  while (script.next_line()) {
    // An argument has no zero byte.
    const std::string option = script.rest();
    if (option.empty())
      break;
    options.emplace_back(option.c_str());
  }
  const std::string file = script.following_lines();
  the_file().write(file);
  fake_libc::reset();
  fuzz::parse(options, file);
  fake_libc::let_exit_end_the_process();
  return 0;
}
