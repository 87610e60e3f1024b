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

config_model full_record() {
  config_model model;
  put_text(model.cfg.ap_location, "before.example");
  put_text(model.cfg.host, std::string(255, 'h'));
  put_text(model.cfg.path, "/before\rhand");
  model.cfg.port = -7;
  model.cfg.url_valid = true;
  model.cfg.initial_connection_delay = 11;
  model.cfg.max_connection_delay = 12;
  model.cfg.log_level = 13;
  model.cfg.cfg_mode = 14;
  model.cfg.cfg_file_failed = true;
  model.cfg.whole_messages = true;
  model.cfg.event_pacing = true;
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

  websock_cfg_t cfg = model.cfg;
  const bool is_read = read_config_file(cfg, file_name);
  expect_equal("the result", model.read_file(bytes), is_read);
  model.expect_same(cfg);
}

} // namespace

} // namespace vemk::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  using namespace vemk::fuzz;
  static memory_file file;
  const std::string bytes(data, data + size);
  file.write(bytes);
  read_into({}, file.name(), bytes);
  read_into(full_record(), file.name(), bytes);
  return 0;
}
