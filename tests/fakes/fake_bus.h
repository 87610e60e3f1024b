/// A bus library that keeps a record of its calls, in place of the platform's.
///
/// Its message records lie at odd addresses and are still released with free(), which a test
/// program that links fake_bus therefore gets in a wrapped form. All state may be used from any
/// thread.
#ifndef VEMK_TESTS_FAKE_BUS_H
#define VEMK_TESTS_FAKE_BUS_H

#include <cstddef>
#include <functional>
#include <string>

#include "fakes/fake_call.h"

namespace vemk::fake_bus {

/// What the library's own bytes of a record, 0 to 3 and 8 to 12, are filled with.
constexpr char usual_filling = '\x5A';

/// The library as it is before its first use: flag 0, no messages, empty records.
void reset();

/// Every call with its arguments, in order: "InitTrace VEMk", "InitLibParams 2 {-2, 0} 2",
/// "MsgSend <payload> 3 <length>".
extern record_of<std::string> calls;

/// The payloads given to MsgSend, in order.
extern record_of<std::string> sent;

/// Puts a message into the module's inbox.
void add_message(const std::string &payload, char filling = usual_filling);

/// Records that were handed out and have not been released yet.
std::size_t records_in_use();

/// The module-loop flag, set behind the library's back as the bus side does.
void set_flag(int value);
/// From now on SetModuleLoop does not change the flag.
void ignore_flag_changes();
/// From now on ModulePeerStart leaves the flag as it is.
void fail_peer_start();

/// What every call that returns a result returns, GetModuleLoop and the inbox aside.
void set_results(int value);

/// Called inside every MsgSend after it has been recorded.
void on_send(std::function<void()> hook);

} // namespace vemk::fake_bus

#endif
