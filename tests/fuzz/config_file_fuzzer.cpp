/// The input is a configuration file. It is read into an empty record and into one that holds
/// something in every field already; what must stand there afterwards is config_model's to say.

#include <cstdint>
#include <string>

#include "config/websock_cfg.h"
#include "fakes/fake_log.h"
#include "fuzz/config_model.h"
#include "fuzz/expect.h"
#include "fuzz/memory_file.h"
#include "log/log_module.h"

namespace vemk::fuzz {

namespace {

config_model empty_record() {
  return {};
}

config_model full_record() {
  config_model model;
  model.ap_location = "before.example";
  model.host = std::string(255, 'h');
  model.path = "/before\rhand";
  model.port = -7;
  model.url_valid = true;
  model.initial_connection_delay = 11;
  model.max_connection_delay = 12;
  model.log_level = 13;
  model.cfg_mode = 14;
  model.cfg_file_failed = true;
  model.whole_messages = true;
  return model;
}

void read_into(config_model model, const char *file_name, const std::string &bytes) {
  // Turns every category of the module on.
  websock_cfg_t unused{};
  char program[] = "vemk";
  char *arguments[] = {program, nullptr};
  parse_command_line(unused, 1, arguments);
  model.module_mask = 0xFFFF;
  g_log_level = 5;
  fake_log::clear();

  websock_cfg_t cfg = record_of(model);
  const bool is_read = read_config_file(cfg, file_name);
  expect_equal("the result", model.read_file(bytes), is_read);
  expect_same(model, cfg);
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk::fuzz;
  static memory_file file;
  const std::string bytes(data, data + size);
  file.write(bytes);
  read_into(empty_record(), file.name(), bytes);
  read_into(full_record(), file.name(), bytes);
  return 0;
}
