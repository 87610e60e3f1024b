#include "fakes/fake_bus_descriptor.h"

#include <atomic>

#include "fakes/fake_bus.h"
#include "module_bus.h"

namespace {

std::atomic<int> returned{-1};

} // namespace

int GetMsgDescriptor() {
  vemk::fake_bus::calls.add("GetMsgDescriptor");
  return returned;
}

void vemk::fake_bus::set_descriptor(int descriptor) {
  returned = descriptor;
}
