/// One end of the way that messages take through a measured system.
///
/// Threading: send() and receive() may run at the same time only on the two ends of one way, each
///   on a thread of its own; all else on one thread.
/// Errors: give_up() when the other side ends the connection, loses a message, or delivers one of
///   another size.
#ifndef VEMK_BENCH_MESSAGE_END_H
#define VEMK_BENCH_MESSAGE_END_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vemk {

/// Ends the process with this text, whatever other threads wait for.
[[noreturn]] void give_up(const std::string &reason);

/// Gives up when a message does not have the wanted size.
void check_size(std::size_t size, std::size_t wanted);

class message_end {
public:
  message_end() = default;
  message_end(const message_end &) = delete;
  message_end &operator=(const message_end &) = delete;
  virtual ~message_end() = default;

  /// Returns when messages can be sent and received.
  virtual void wait_until_connected() {}

  /// Sends `count` messages of these bytes, as fast as they are taken.
  virtual void send(std::string_view payload, long count) = 0;

  /// Returns when `count` messages of `size` bytes have arrived.
  virtual void receive(std::size_t size, long count) = 0;

  /// At rest, serve() is to be called when this is readable; -1 for an end that needs no care.
  virtual int descriptor() const { return -1; }
  virtual void serve() {}

  /// The port of an end that listens.
  virtual std::uint16_t port() const { return 0; }
};

/// A raw WebSocket server for one client. It listens on loopback when it is made.
std::unique_ptr<message_end> make_server_end();

/// A raw WebSocket client, to show what server and client manage without anything in between.
std::unique_ptr<message_end> make_client_end(std::uint16_t port);

/// A raw MQTT client, which publishes under one topic and receives another.
std::unique_ptr<message_end> make_mqtt_end(std::uint16_t port, std::string_view publishes,
                                           std::string_view receives);

/// A minimal client of the WebSocket library. With `corks`, several messages may share a packet.
std::unique_ptr<message_end> make_library_end(std::uint16_t port, bool corks);

/// A peer of the bridge's module, as another module of the bus. MODULE_BUS_DIR names the bus.
std::unique_ptr<message_end> make_bus_end();

/// The bridge's module itself, through the platform's functions.
std::unique_ptr<message_end> make_module_end();

} // namespace vemk

#endif
