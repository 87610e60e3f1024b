/// The access point's internal module-messaging bus, as the daemon uses it.
///
/// A process joins the bus as one module with an identifier. Other modules send messages to that
/// identifier; the process's own messages reach the modules that listen to it.
///
/// Order of use: InitTrace, SetTraceOpt, InitLibParams, SetModuleLoop(0), ModulePeerStart; then
/// GetMsgFromQueueNoWait and MsgSend for as long as GetModuleLoop returns non-zero; then
/// ModulePeerStop, SetModuleLoop(0), FreeLibParams. The sequence may be repeated, and the three
/// closing calls may come twice or without an earlier start.
///
/// Threading: all calls come from one thread; the library need not lock anything for its caller.
/// Errors: none of the calls throws, ends the process or blocks without end.
#ifndef VEMK_PLATFORM_MODULE_BUS_H
#define VEMK_PLATFORM_MODULE_BUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Starts the library's tracing under a module name, which the library copies.
void InitTrace(const char *module_name);

/// Sets the trace options; the daemon passes 0, 4, 0.
void SetTraceOpt(int target, int level, int flags);

/// Prepares the library for the module with this identifier. `list` holds `count` signed bytes that
/// the library copies; the daemon passes {-2, 0}. Returns 0, or -1 when it cannot.
int InitLibParams(int module_id, const signed char *list, int count);

/// Releases the resources of InitLibParams. Harmless without any.
void FreeLibParams(void);

/// Joins the bus. Returns 0 with the module-loop flag set, or -1 with the flag left as it was.
int ModulePeerStart(void);

/// Leaves the bus. Harmless when the module has not joined. Does not touch the module-loop flag.
void ModulePeerStop(void);

/// The module-loop flag: non-zero while the module is live on the bus. The library clears it when
/// the bus drops the module.
int GetModuleLoop(void);

/// Sets the module-loop flag; the daemon only ever writes 0.
void SetModuleLoop(int value);

/// Takes the next message that was sent to this module. Returns null at once when there is none.
///
/// The message is one heap block that the caller releases with free(). It is packed, in the
/// machine's byte order and without any alignment of its own:
///
///   offset  0, 4 bytes: the library's own
///   offset  4, 4 bytes: length of the payload in bytes, unsigned
///   offset  8, 5 bytes: the library's own
///   offset 13: the payload
void *GetMsgFromQueueNoWait(void);

/// Sends `length` bytes onto the bus; `data` stays the caller's. `destination` 3 addresses every
/// listener and is the only value that the daemon uses. Returns 0, or -1 when nothing was sent.
int MsgSend(const void *data, int destination, uint32_t length);

/// A descriptor for waiting until there is a message, in place of asking again and again. A library
/// need not have this function: test its address first.
///
/// The descriptor is readable, for poll() with POLLIN, when a message may be there and when the
/// module-loop flag was cleared. Wait for it only after GetMsgFromQueueNoWait returned null, with
/// no MsgSend in between: that call may take the sign of a message that has come. A wait may also
/// end without a message.
///
/// Returns -1 when there is no descriptor: the module has not joined, or the process has none left.
/// Another call may then succeed. The descriptor is the library's, and nobody else reads or closes
/// it. It is the same from one ModulePeerStart to ModulePeerStop; the next join may give another.
int GetMsgDescriptor(void) __attribute__((weak));

#ifdef __cplusplus
}
#endif

#endif
