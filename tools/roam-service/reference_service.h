#ifndef VEMK_ROAM_SERVICE_REFERENCE_SERVICE_H
#define VEMK_ROAM_SERVICE_REFERENCE_SERVICE_H

#include "admission.h"
#include "reference_connection.h"
#include "service_options.h"

#include <functional>
#include <libwebsockets.h>
#include <map>
#include <string>
#include <string_view>

namespace vemk {

/// The WebSocket server that daemons connect to: libwebsockets', behaving as it should.
///
/// Serves one path and the subprotocol "websock-roaming"; every other upgrade is refused. Each
/// received message, its fragments joined, goes to `on_message`. Notes about connections go to
/// standard error. Pings are answered.
///
/// Threading: everything, callbacks included, runs on the thread that calls serve(), wake() aside.
/// Errors: the constructor throws std::runtime_error, its text saying what to do, when the address
///   cannot be listened on. A daemon that fails, sends more than a message may hold or does not
///   read what it is sent is dropped.
class reference_service {
public:
  using message_handler = std::function<void(std::string_view message)>;
  using wake_handler = std::function<void()>;

  reference_service(const service_options_t &service_options, message_handler on_message);
  ~reference_service();
  reference_service(const reference_service &) = delete;
  reference_service &operator=(const reference_service &) = delete;

  /// The URL that daemons connect to, with the port that is listened on.
  std::string url() const;

  /// Serves until `stop_wanted` returns true, which is asked several times a second, then takes
  /// leave of the daemons. `on_wake` runs after each wake().
  void serve(const std::function<bool()> &stop_wanted, wake_handler on_wake);

  /// Makes serve() call `on_wake` soon. May be called from any thread.
  void wake();

  /// Sends the text to every connected daemon as one frame.
  void broadcast(std::string_view text);

private:
  static int library_callback(lws *library, lws_callback_reasons reason, void *user, void *data,
                              size_t length);
  int process_network_connection(const lws_filter_network_conn_args &accepted) const;
  int process_client_instantiated(lws *library);
  int process_destroyed(lws *library);
  int process_upgrade_request(lws *library) const;
  int process_established(lws *library);
  int process_receive(lws *library, std::string_view piece);
  int process_writeable(lws *library);
  int process_closed(lws *library);
  int refuse(lws *library, const std::string &status, const std::string &reason) const;
  bool queue_or_drop(lws *library, const std::shared_ptr<outgoing_message_t> &message);
  void serve_once();
  void take_leave();

  const service_options_t options;
  const message_handler message_received;
  wake_handler woken;
  const lws_protocols protocols[2];
  lws_context *context = nullptr;
  lws_vhost *vhost = nullptr;
  std::map<lws *, reference_connection> connections;
  std::map<lws *, std::string> visitors; // all connections' addresses, established or not
  address_limit addresses;
  bool leaving = false;
};

} // namespace vemk

#endif
