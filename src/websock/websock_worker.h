/// The WebSocket worker.
#ifndef VEMK_WEBSOCK_WEBSOCK_WORKER_H
#define VEMK_WEBSOCK_WEBSOCK_WORKER_H

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include <libwebsockets.h>

#include "websock/lws_release.h"
#include "worker/abstract_worker.h"
#include "worker/buffer_info.h"
#include "worker/message_queue.h"

namespace vemk {

/// The thread "websock-roaming": owns the one client connection to the roaming service.
///
/// Every init() waits a random delay that grows with each failure. Then it opens a library context
/// and a connection; every deinit() destroys them. While connected, messages of the bus-to-service
/// queue leave as text frames, one per writeable callback. Received messages go whole into the
/// service-to-bus queue. That queue also gets a status message at each change and for every status
/// request.
///
/// The worker tears the connection down and connects again after an error, a close, three
/// unanswered pings, or 60 seconds without a writeable callback.
///
/// Only one worker may exist at a time: a second one takes over the library's callbacks from the
/// first.
///
/// Threading: as abstract_worker. The handlers run inside the library's calls: on the worker's
///   thread, and on the owner's in the destructor. Only request_writeable() is for the bus thread,
///   which calls it through the bus-to-service queue's notify.
/// Ownership: owns context, connection and receive buffer; the queues and the run flag are the
///   caller's and outlive the worker.
/// Errors: connection failures are logged and retried for ever. A name server that is silent for
///   more than 10 seconds blocks the look-up, and the clock check ends the process. Queue errors
///   and std::bad_alloc are thrown through the library's callbacks, which ends the process as well.
class websock_worker : public abstract_worker {
public:
  /// Delays are in seconds. `without_lws_binding` builds the object without taking over the
  /// library's callbacks; it then cannot connect. `only_whole_messages` delivers a message that an
  /// empty last fragment ends, and forgets one that a lost connection cut off. Without it both stay
  /// in front of the next message. Removes proxy variables from the environment.
  websock_worker(message_queue_t *from_bus, message_queue_t *to_bus, std::string server_host,
                 std::string server_path, std::int32_t server_port, const bool *keep_running_flag,
                 std::uint32_t first_delay, std::uint32_t largest_delay, bool without_lws_binding,
                 bool only_whole_messages = false);

  bool init() override;
  bool run_once() override;
  void deinit() override;

  /// True while `*flag` is true and the connection or its attempt lives.
  bool keep_running(const bool *flag) override;

  /// Stops as deinit() does.
  ~websock_worker() override;

protected:
  // Lifecycle.

  /// Opens the context and starts the connection. False when one of them could not be made.
  bool _connect();

  /// One step of the delay algorithm: returns seconds drawn from a window around the current delay,
  /// and doubles the delay up to the maximum.
  std::uint32_t next_delay();

  /// Waits next_delay() while answering status requests from the bus-to-service queue and dropping
  /// the rest.
  void wait_before_connect();

  /// Passes `seconds`, and calls `take_one` every 50 ms to handle one queued message.
  virtual void pass_delay(std::int32_t seconds, const std::function<void()> &take_one);

  void stop();

  // Handlers of the library's events, and sending.

  /// The dispatcher. Always returns 0.
  virtual int lws_callback(lws *wsi, lws_callback_reasons reason, void *user, void *in,
                           std::size_t length);

  int process_client_established(lws *wsi, void *user, void *in);
  int process_client_connection_error();
  int process_closed();
  int process_protocol_destroy();

  /// Returns 0, or -1 for a last piece that delivers nothing: an empty one that does not end a
  /// message, or one without memory for it.
  int process_client_receive(lws *wsi, void *user, void *in, std::size_t length);
  int process_client_receive_pong();
  virtual int process_client_writeable(lws *wsi, void *user, void *in);

  /// Handles one message of the bus-to-service queue while connected.
  void from_queue_send(lws *wsi, const std::shared_ptr<buffer_info_t> &message);

  /// Writes one frame, of zeros when `data` is null. Returns what lws_write returned, or -1 when
  /// there is no memory for the frame.
  int lws_send(lws *wsi, const void *data, std::size_t length, lws_write_protocol type);

  virtual void dump(const buffer_info_t &message) const;

  /// Asks for a writeable callback if connected. May be called on any thread that holds off
  /// deinit(), as the bus-to-service queue's lock does.
  virtual void request_writeable(lws *wsi);

  // Keepalive.

  static constexpr time_t ping_interval_seconds = 30;
  static constexpr std::uint32_t watchdog_timer_id = 0;

  /// Ends an attempt of which the library reports nothing.
  static constexpr std::uint32_t attempt_timer_id = 100;

  /// Drops the connection when three pings in a row went unanswered.
  void check_missed_pongs();

  /// Sends a ping when one is due.
  void ping_if_due(lws *wsi);

  void arm_watchdog();

  /// The watchdog's callback: makes the base restart this worker.
  void ping_timeout();

  // Status messages.

  /// Logs a message taken from the bus-to-service queue and handles it if it is the daemon's own.
  /// Returns false when it is for the roaming service. A null pointer is dropped.
  bool keep_own_message(const std::shared_ptr<buffer_info_t> &message);

  void queue_connected_status();
  void queue_disconnected_status();

  /// Returns true when the message is the daemon's own, answered or dropped, and false when it is
  /// for the roaming service.
  bool handle_status_request(const buffer_info_t &message);

  // The order of the members is fixed; a new one goes to the end.

  /// By design without a use: the daemon always passes false.
  bool skip_lws_binding;
  const char *log_name;
  message_queue_t *bus_to_ws_queue;
  message_queue_t *ws_to_bus_queue;
  /// By design without a use: 3.
  std::int32_t mode;
  lws_context *context;
  lws_protocol_callback protocol_callback;
  void (*log_hook)(int level, const char *line);
  std::string host;
  std::string path;
  std::int32_t port;
  /// By design without a use: opened by the constructor, closed by the destructor.
  int wake_pipe[2];
  /// The message being received. Without `whole_messages` it survives a reconnect.
  std::shared_ptr<buffer_info_t> rx_buffer;
  lws_protocols protocols[2];
  lws_context_creation_info creation_info;
  lws_client_connect_info connect_info;
  std::int32_t missed_pongs;
  bool alive;
  /// Written by the worker's thread, read by the bus thread in request_writeable().
  std::atomic<bool> connected;
  /// By design without a use: set when the connection errs, closes or is destroyed.
  bool closed;
  timespec last_ping;
  std::function<void()> ping_timeout_handler;
  /// Seconds, as the two that follow.
  std::uint32_t current_delay;
  std::uint32_t initial_delay;
  std::uint32_t max_delay;
  lws_release release;
  bool whole_messages;

private:
  void trace(const char *handler, int number) const;
};

} // namespace vemk

#endif
