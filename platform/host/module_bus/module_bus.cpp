// The platform's functions over a bus_module.
//
// Tracing on a workstation is one line on standard error, with the reason why the bus cannot be
// joined. Trace options and the library's parameter list have no other effect.
#include "module_bus.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "module_bus/bus_folder.h"
#include "module_bus/bus_module.h"
#include "module_bus/message_descriptor.h"

namespace {

struct library_t {
  std::string trace_name = "module";
  int module_id = -1;
  int module_loop = 0;
  std::string last_reason;
  std::unique_ptr<vemk::bus_module> module;
  /// From the first request for it until the module leaves.
  std::optional<vemk::message_descriptor> descriptor;
};

// Never destroyed: the process may end with exit() on one thread while the bus thread is inside a
// call. A destructor that closes the sockets then would crash or wait for that thread.
library_t &library() {
  static library_t *const instance = new library_t;
  return *instance;
}

// The caller tries again every 300 ms; the reason is printed only when it changes.
void report_once(library_t &bus, const std::string &reason) {
  if (reason == bus.last_reason)
    return;
  bus.last_reason = reason;
  std::fprintf(stderr, "%s: cannot join the bus: %s\n", bus.trace_name.c_str(), reason.c_str());
}

// A record that was not taken, or a flag that was cleared, makes no event at a socket.
void refresh_descriptor(library_t &bus) {
  if (bus.descriptor)
    bus.descriptor->set_readable(bus.module_loop == 0 || bus.module->has_work());
}

} // namespace

void InitTrace(const char *module_name) {
  if (module_name)
    library().trace_name = module_name;
}

void SetTraceOpt(int, int, int) {}

int InitLibParams(int module_id, const signed char *list, int count) {
  if (module_id < 0 || count < 0 || (count > 0 && !list))
    return -1;
  library().module_id = module_id;
  return 0;
}

void FreeLibParams(void) {
  library().module_id = -1;
}

int ModulePeerStart(void) {
  library_t &bus = library();
  try {
    if (!bus.module) {
      if (bus.module_id < 0)
        throw vemk::bus_error("it has no module identifier; call InitLibParams first");
      const std::string folder = vemk::open_bus_folder("", vemk::bus_role::module);
      bus.module = std::make_unique<vemk::bus_module>(folder, bus.module_id);
    }
  } catch (const std::exception &error) {
    report_once(bus, error.what());
    return -1;
  }
  bus.last_reason.clear();
  bus.module_loop = 1;
  refresh_descriptor(bus);
  return 0;
}

void ModulePeerStop(void) {
  library().descriptor.reset();
  library().module.reset();
}

int GetModuleLoop(void) {
  return library().module_loop;
}

void SetModuleLoop(int value) {
  library().module_loop = value;
  refresh_descriptor(library());
}

void *GetMsgFromQueueNoWait(void) {
  library_t &bus = library();
  if (!bus.module)
    return nullptr;
  void *record = bus.module->take_record();
  if (bus.module->told_to_leave())
    bus.module_loop = 0;
  if (!record)
    refresh_descriptor(bus);
  return record;
}

int GetMsgDescriptor(void) {
  library_t &bus = library();
  if (!bus.module)
    return -1;
  try {
    if (!bus.descriptor) {
      bus.descriptor.emplace(bus.module->socket_descriptors());
      refresh_descriptor(bus);
    }
  } catch (const std::exception &) {
    return -1;
  }
  return bus.descriptor->get();
}

int MsgSend(const void *data, int destination, uint32_t length) {
  constexpr int every_listener = 3;
  library_t &bus = library();
  if (!bus.module || destination != every_listener)
    return -1;
  return bus.module->publish(data, length) ? 0 : -1;
}
