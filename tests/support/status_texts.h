/// The messages about the connection's state, as they go over the bus.
#ifndef VEMK_TESTS_SUPPORT_STATUS_TEXTS_H
#define VEMK_TESTS_SUPPORT_STATUS_TEXTS_H

namespace vemk {

constexpr char connected_status[] =
    R"({ "version": "2.0", "service": "internal-ipc", "cmd": "connected" })";
constexpr char disconnected_status[] =
    R"({ "version": "2.0", "service": "internal-ipc", "cmd": "disconnected" })";
constexpr char status_request[] = R"({"service":"internal-ipc","cmd":"status"})";

} // namespace vemk

#endif
