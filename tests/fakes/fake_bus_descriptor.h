/// The bus library's optional GetMsgDescriptor, for programs with fake_bus that are to have it.
#ifndef VEMK_TESTS_FAKE_BUS_DESCRIPTOR_H
#define VEMK_TESTS_FAKE_BUS_DESCRIPTOR_H

namespace vemk::fake_bus {

/// From now on GetMsgDescriptor returns this descriptor, which stays the caller's. At first it
/// returns -1. Each call is in `calls` as "GetMsgDescriptor".
void set_descriptor(int descriptor);

} // namespace vemk::fake_bus

#endif
